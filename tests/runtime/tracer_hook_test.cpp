// The trace hook: this executable defines its own TRACE_PRINTRLC_U, which the runtime's calls
// reach through the dynamic linker. The hook is on exactly when both the handle and the label
// are non-null; it always receives kind 1, the caller's label and the text.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaTracer.h"
#include "hook_recorder.h"
#include "rk_double.h"
#include "test_clock.h"
#include "test_tracker.h"
#include "trace_support.h"

namespace {

using testsupport::HookCall;
using testsupport::TakeHookCalls;

using testsupport::CapturedStdout;
using testsupport::ElemPtr;
using testsupport::TestTracker;
using testsupport::UtcTime;

const unsigned int kTag = 7;
const char kLabel[] = "caller-label";
const std::string kNone = "Nov 23 14:05:09 TezaInterface: Tag: 7 ";
const std::string kRequest = "Nov 23 14:05:09 TezaInterface: Tag: 7 Request: ";
const std::string kResponse = "Nov 23 14:05:09 TezaInterface: Tag: 7 Response: ";
const std::string kRequestText = "<volume-rename>\n  <new-name>vol2</new-name>\n</volume-rename>\n";
const std::string kPassedText = "<results status=\"passed\"/>\n";
const std::string kFailedText =
    "<results status=\"failed\" reason=\"disk full\" errno=\"13001\"/>\n";
const std::string kEmptyRequestLine = kNone + "<volume-rename>\n";
const std::string kEmptyResponseLine = kResponse + " Received response for: <volume-rename>\n";
const std::string kConnectionLine =
    kNone +
    "TezaServerConnection:  host: srv1 major: 1 minor: 21 style: 2 type: 3 transport: 1 port: "
    "8443 connect timeout: 12 call timeout: 45\n";
const std::string kFailedLine =
    kNone + "Host: srv1 Teza failed. Request: <volume-rename> Error: 13001 Reason: disk full\n";

class TracerHookTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rkdouble::Reset();
        testclock::Freeze(UtcTime(2024, 11, 23, 14, 5, 9));
        TakeHookCalls();
    }
    void TearDown() override {
        testclock::UseRealClock();
        rkdouble::Reset();
    }

    static ElemPtr Request() {
        ElemPtr request(rk_elem_new("volume-rename"));
        rk_child_add_string(request.get(), "new-name", "vol2");
        return request;
    }

    static TezaServerConnection Connection() {
        return TezaServerConnection(
            "srv1", 1, 21, TezaServerConnection::STYLE_TOKEN, TezaServerConnection::TRANSPORT_HTTPS,
            8443, TezaServerConnection::SERVER_TYPE_AGENT, 45, 12, "admin", "secret", 5);
    }

    // A hook call as this test's handle and label make it.
    HookCall Hooked(const std::string& text) { return HookCall{&_handle, 1, kLabel, text}; }

    int _handle = 0;
    TestTracker _tracker{"volume-rename"};
    bool _force = false;
    TezaServerConnection _connection = Connection();
    TezaStatus _failure{TezaStatus::ApiFailed, "disk full", 13001};
};

// --- When the hook is on -------------------------------------------------------------------

TEST_F(TracerHookTest, HookIsOffWithoutHandleOrLabel) {
    ElemPtr request = Request();
    ElemPtr response(rk_results_new_failed("disk full", 13001));
    for (int level = 0; level <= 4; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        _tracker.setTraceLevel(level);
        CapturedStdout([&] {
            _tracker.printEmptyRequest(kTag, _force, nullptr, kLabel);
            _tracker.printEmptyRequest(kTag, _force, &_handle, nullptr);
            _tracker.printEmptyResponse(kTag, _force, nullptr, kLabel);
            _tracker.printEmptyResponse(kTag, _force, &_handle, nullptr);
            _tracker.printRequest(kTag, request.get(), _force, nullptr, kLabel);
            _tracker.printRequest(kTag, request.get(), _force, &_handle, nullptr);
            _tracker.printResponse(kTag, response.get(), _force, nullptr, kLabel);
            _tracker.printResponse(kTag, response.get(), _force, &_handle, nullptr);
            _tracker.printServerConnection(kTag, _connection, _force, nullptr, kLabel);
            _tracker.printServerConnection(kTag, _connection, _force, &_handle, nullptr);
            _tracker.printTezaFailed(kTag, _connection, _failure, _force, nullptr, kLabel);
            _tracker.printTezaFailed(kTag, _connection, _failure, _force, &_handle, nullptr);
        });
        EXPECT_TRUE(TakeHookCalls().empty());
    }
}

// --- printEmptyRequest ---------------------------------------------------------------------

TEST_F(TracerHookTest, EmptyRequestReachesTheHookAtEveryLevel) {
    for (int level = 0; level <= 4; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        TestTracker tracker("volume-rename", level);
        std::string out =
            CapturedStdout([&] { tracker.printEmptyRequest(kTag, _force, &_handle, kLabel); });
        EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kEmptyRequestLine)});
        // A hook that is on makes level 1 build the line, which it then writes; level 0 writes
        // nothing and level 4 holds the line.
        EXPECT_EQ(out, level == 0 || level == 4 ? "" : kEmptyRequestLine);
        EXPECT_EQ(tracker.getHeldRequest(), level == 4 ? kEmptyRequestLine : "");
    }
}

// --- printEmptyResponse --------------------------------------------------------------------

TEST_F(TracerHookTest, EmptyResponseReachesTheHookAtEveryLevel) {
    for (int level = 0; level <= 4; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        _tracker.setTraceLevel(level);
        std::string out =
            CapturedStdout([&] { _tracker.printEmptyResponse(kTag, _force, &_handle, kLabel); });
        EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kEmptyResponseLine)});
        EXPECT_EQ(out, level == 0 ? "" : kEmptyResponseLine);
    }
}

// --- printRequest --------------------------------------------------------------------------

TEST_F(TracerHookTest, RequestTextReachesTheHookWithoutPrefix) {
    ElemPtr request = Request();
    const std::string full = kRequest + kRequestText + "\n";
    struct Case {
        int level;
        bool force;
        std::vector<HookCall> hook;
        std::string out;
    };
    const std::vector<Case> cases = {
        {0, false, {Hooked(kRequestText)}, ""},
        // Level 1 falls back to the short line, which goes to the hook too and, the hook
        // being on, to standard output.
        {1, false, {Hooked(kRequestText), Hooked(kEmptyRequestLine)}, kEmptyRequestLine},
        {2, false, {Hooked(kRequestText)}, full.substr(0, 100) + "\n"},
        {3, false, {Hooked(kRequestText)}, full},
        {4, false, {Hooked(kRequestText)}, ""},
        {0, true, {Hooked(kRequestText)}, full},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.level) + (c.force ? ", forced" : ""));
        TestTracker tracker("volume-rename", c.level);
        const bool force = c.force;
        std::string out = CapturedStdout(
            [&] { tracker.printRequest(kTag, request.get(), force, &_handle, kLabel); });
        EXPECT_EQ(TakeHookCalls(), c.hook);
        EXPECT_EQ(out, c.out);
    }
}

TEST_F(TracerHookTest, RequestIsRenderedAgainForTheHook) {
    ElemPtr request = Request();
    _tracker.setTraceLevel(3);
    CapturedStdout([&] { _tracker.printRequest(kTag, request.get(), _force, &_handle, kLabel); });
    EXPECT_EQ(rkdouble::CountCalls("rk_elem_sprintf"), 2);
}

TEST_F(TracerHookTest, UnrenderableRequestIsNotHooked) {
    ElemPtr request = Request();
    _tracker.setTraceLevel(3);
    // The first rendering, for standard output, succeeds; the second, for the hook, fails.
    rkdouble::FailNext("rk_elem_sprintf", 1, 1);
    std::string out = CapturedStdout(
        [&] { _tracker.printRequest(kTag, request.get(), _force, &_handle, kLabel); });
    EXPECT_EQ(out, kRequest + kRequestText + "\n");
    EXPECT_TRUE(TakeHookCalls().empty());
}

TEST_F(TracerHookTest, NullRequestHooksOnlyTheShortLine) {
    _tracker.setTraceLevel(0);
    std::string out =
        CapturedStdout([&] { _tracker.printRequest(kTag, nullptr, _force, &_handle, kLabel); });
    // Level 0 stops before the fallback.
    EXPECT_EQ(out, "");
    EXPECT_TRUE(TakeHookCalls().empty());

    _tracker.setTraceLevel(2);
    out = CapturedStdout([&] { _tracker.printRequest(kTag, nullptr, _force, &_handle, kLabel); });
    EXPECT_EQ(out, kEmptyRequestLine);
    EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kEmptyRequestLine)});
}

// --- printResponse -------------------------------------------------------------------------

TEST_F(TracerHookTest, ResponseTextReachesTheHookWithoutPrefix) {
    ElemPtr response(rk_results_new_failed("disk full", 13001));
    const std::string full = kResponse + kFailedText;
    struct Case {
        int level;
        bool force;
        std::vector<HookCall> hook;
        std::string out;
    };
    const std::vector<Case> cases = {
        // No stop at level 0: the short line reaches the hook, not standard output.
        {0, false, {Hooked(kFailedText), Hooked(kEmptyResponseLine)}, ""},
        {1, false, {Hooked(kFailedText), Hooked(kEmptyResponseLine)}, kEmptyResponseLine},
        {2, false, {Hooked(kFailedText)}, full.substr(0, 100) + "\n"},
        {3, false, {Hooked(kFailedText)}, full},
        {4, false, {Hooked(kFailedText)}, full},
        {0, true, {Hooked(kFailedText)}, full},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("level " + std::to_string(c.level) + (c.force ? ", forced" : ""));
        TestTracker tracker("volume-rename", c.level);
        const bool force = c.force;
        std::string out = CapturedStdout(
            [&] { tracker.printResponse(kTag, response.get(), force, &_handle, kLabel); });
        EXPECT_EQ(TakeHookCalls(), c.hook);
        EXPECT_EQ(out, c.out);
    }
}

TEST_F(TracerHookTest, PassedResponseAtLevelFourReachesOnlyTheHook) {
    ElemPtr response(rk_results_new_passed());
    _tracker.setTraceLevel(4);
    std::string out = CapturedStdout(
        [&] { _tracker.printResponse(kTag, response.get(), _force, &_handle, kLabel); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kPassedText)});
}

TEST_F(TracerHookTest, NullResponseHooksOnlyTheShortLine) {
    _tracker.setTraceLevel(0);
    std::string out =
        CapturedStdout([&] { _tracker.printResponse(kTag, nullptr, _force, &_handle, kLabel); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kEmptyResponseLine)});
}

// --- printServerConnection -----------------------------------------------------------------

TEST_F(TracerHookTest, ServerConnectionReachesTheHookAtEveryLevel) {
    for (int level = 0; level <= 4; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        _tracker.setTraceLevel(level);
        std::string out = CapturedStdout(
            [&] { _tracker.printServerConnection(kTag, _connection, _force, &_handle, kLabel); });
        EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kConnectionLine)});
        // Level 4 is quiet only while the hook is off: with the hook on, the line it built is
        // written like at levels 1 to 3.
        EXPECT_EQ(out, level == 0 ? "" : kConnectionLine);
    }
}

// --- printTezaFailed -----------------------------------------------------------------------

TEST_F(TracerHookTest, TezaFailedReachesTheHookAtEveryLevel) {
    for (int level = 0; level <= 4; ++level) {
        SCOPED_TRACE("level " + std::to_string(level));
        _tracker.setTraceLevel(level);
        std::string out = CapturedStdout([&] {
            _tracker.printTezaFailed(kTag, _connection, _failure, _force, &_handle, kLabel);
        });
        EXPECT_EQ(TakeHookCalls(), std::vector<HookCall>{Hooked(kFailedLine)});
        EXPECT_EQ(out, level == 0 ? "" : kFailedLine);
    }
}

TEST_F(TracerHookTest, ForcedTracesReachTheHookToo) {
    const bool force = true;
    std::string out = CapturedStdout([&] {
        _tracker.printServerConnection(kTag, _connection, force, &_handle, kLabel);
        _tracker.printEmptyRequest(kTag, force, &_handle, kLabel);
        _tracker.printEmptyResponse(kTag, force, &_handle, kLabel);
        _tracker.printTezaFailed(kTag, _connection, _failure, force, &_handle, kLabel);
    });
    EXPECT_EQ(TakeHookCalls(),
              (std::vector<HookCall>{Hooked(kConnectionLine), Hooked(kEmptyRequestLine),
                                     Hooked(kEmptyResponseLine), Hooked(kFailedLine)}));
    EXPECT_EQ(out, kConnectionLine + kEmptyRequestLine + kEmptyResponseLine + kFailedLine);
}

}  // namespace
