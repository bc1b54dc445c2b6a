// What invoke hands to the trace hook: this executable defines its own TRACE_PRINTRLC_U. An
// interface with a trace handle turns the hook on for its request and response traces, under
// its trace label or else the API's name; only the call without records also hooks its failure
// line.

#include <gtest/gtest.h>

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "TezaInterface.h"
#include "TezaStatus.h"
#include "invocation_support.h"
#include "rk_double.h"
#include "test_interface.h"
#include "test_records.h"

namespace {

struct HookCall {
    void* handle;
    int kind;
    std::string label;
    std::string text;

    bool operator==(const HookCall& other) const {
        return handle == other.handle && kind == other.kind && label == other.label &&
               text == other.text;
    }
};

void PrintTo(const HookCall& call, std::ostream* out) {
    *out << "{" << call.handle << ", " << call.kind << ", \"" << call.label << "\", \"" << call.text
         << "\"}";
}

std::mutex gHookMutex;
std::vector<HookCall> gHookCalls;

std::vector<HookCall> TakeHookCalls() {
    std::lock_guard<std::mutex> lock(gHookMutex);
    std::vector<HookCall> calls;
    calls.swap(gHookCalls);
    return calls;
}

}  // namespace

extern "C" void TRACE_PRINTRLC_U(void* handle, int kind, const char* label, const char* text) {
    std::lock_guard<std::mutex> lock(gHookMutex);
    gHookCalls.push_back(
        {handle, kind, label == nullptr ? "(null)" : label, text == nullptr ? "(null)" : text});
}

namespace {

using Hooked = std::vector<HookCall>;
using testsupport::Descriptor;
using testsupport::EmptyRequestLine;
using testsupport::EmptyResponseLine;
using testsupport::FailedLine;
using testsupport::NextTag;
using testsupport::TrackerName;
using teza_store::OwnerInfo;
using teza_store::VolumeInfo;
using teza_volume::VolumeInterface;

const std::string kCreateText =
    "<volume-create>\n  <name>vol1</name>\n  <size>10</size>\n</volume-create>\n";
const std::string kPassedText = "<results status=\"passed\"/>\n";
const std::string kDiskFullText =
    "<results status=\"failed\" reason=\"disk full\" errno=\"13001\"/>\n";

class InvocationHookTest : public testsupport::InvocationTest {
  protected:
    void SetUp() override {
        testsupport::InvocationTest::SetUp();
        _input.setName("vol1");
        _input.setSize(10);
        TakeHookCalls();
    }

    void FailCalls() {
        SetAnswer([](const std::string&) { return rkdouble::Failed("disk full", 13001); });
    }

    int _handle = 0;
    void* const _traceHandle = &_handle;
    VolumeInfo _input;
    VolumeInfo _volume;
    OwnerInfo _owner;
};

TEST_F(InvocationHookTest, WithoutATraceHandleTheHookIsOff) {
    VolumeInterface volumes(Descriptor(), false, nullptr, "vol-label");
    volumes.systemPing();
    volumes.volumeCreate(_input);
    FailCalls();
    volumes.systemPing();
    EXPECT_EQ(TakeHookCalls(), Hooked{});
}

TEST_F(InvocationHookTest, CallWithoutRecordsHooksItsNameAndResponseUnderTheApiName) {
    VolumeInterface volumes(Descriptor(), false, _traceHandle, nullptr);
    const unsigned int tag = NextTag();

    ASSERT_EQ(volumes.systemPing().status, TezaStatus::Success);

    // The lines name the tracker; the hook's label is the API's wire name. At level 0 the
    // response's text is followed by its short line, which only the hook receives.
    EXPECT_EQ(TakeHookCalls(),
              (Hooked{{_traceHandle, 1, "system-ping", EmptyRequestLine(tag, TrackerName(0))},
                      {_traceHandle, 1, "system-ping", kPassedText},
                      {_traceHandle, 1, "system-ping", EmptyResponseLine(tag, TrackerName(0))}}));
}

TEST_F(InvocationHookTest, TheTraceLabelTakesThePlaceOfTheApiName) {
    VolumeInterface volumes(Descriptor(), false, _traceHandle, "vol-label");
    const unsigned int tag = NextTag();

    ASSERT_EQ(volumes.volumeCreate(_input).status, TezaStatus::Success);

    EXPECT_EQ(TakeHookCalls(),
              (Hooked{{_traceHandle, 1, "vol-label", kCreateText},
                      {_traceHandle, 1, "vol-label", kPassedText},
                      {_traceHandle, 1, "vol-label", EmptyResponseLine(tag, TrackerName(2))}}));
}

TEST_F(InvocationHookTest, OnlyTheCallWithoutRecordsHooksItsFailure) {
    VolumeInterface volumes(Descriptor(), false, _traceHandle, "vol-label");
    FailCalls();

    unsigned int tag = NextTag();
    volumes.systemPing();
    EXPECT_EQ(TakeHookCalls(),
              (Hooked{{_traceHandle, 1, "vol-label", EmptyRequestLine(tag, TrackerName(0))},
                      {_traceHandle, 1, "vol-label", kDiskFullText},
                      {_traceHandle, 1, "vol-label", EmptyResponseLine(tag, TrackerName(0))},
                      {_traceHandle, 1, "vol-label",
                       FailedLine(tag, TrackerName(0), 13001, "disk full")}}));

    tag = NextTag();
    volumes.volumeGetInfo(_volume);
    EXPECT_EQ(TakeHookCalls(),
              (Hooked{{_traceHandle, 1, "vol-label", EmptyRequestLine(tag, TrackerName(1))},
                      {_traceHandle, 1, "vol-label", kDiskFullText},
                      {_traceHandle, 1, "vol-label", EmptyResponseLine(tag, TrackerName(1))}}));

    tag = NextTag();
    volumes.volumeCreate(_input);
    EXPECT_EQ(TakeHookCalls(),
              (Hooked{{_traceHandle, 1, "vol-label", kCreateText},
                      {_traceHandle, 1, "vol-label", kDiskFullText},
                      {_traceHandle, 1, "vol-label", EmptyResponseLine(tag, TrackerName(2))}}));

    tag = NextTag();
    volumes.volumeSetOwner(_input, _owner);
    const std::string setOwnerText =
        "<volume-set-owner>\n  <name>vol1</name>\n  <size>10</size>\n</volume-set-owner>\n";
    EXPECT_EQ(TakeHookCalls(),
              (Hooked{{_traceHandle, 1, "vol-label", setOwnerText},
                      {_traceHandle, 1, "vol-label", kDiskFullText},
                      {_traceHandle, 1, "vol-label", EmptyResponseLine(tag, TrackerName(3))}}));
}

// The failure of an open is traced without the interface's settings.
TEST_F(InvocationHookTest, ConnectionFailureIsNotHooked) {
    VolumeInterface volumes(Descriptor(), false, _traceHandle, "vol-label");
    FailProbes("connection refused", 13055);
    EXPECT_EQ(volumes.systemPing().status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(TakeHookCalls(), Hooked{});
}

}  // namespace
