// Many threads invoke at once, each through interface objects of its own: every call gets a
// tag of its own, the counters come out exact, and no handle is lost or closed twice. The
// trackers stay at level 0, where the unlocked held request text is never touched; meant to be
// run under ThreadSanitizer as well. The trace hook of this executable collects the tags.

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TezaInterface.h"
#include "TezaStatus.h"
#include "invocation_support.h"
#include "rk_double.h"
#include "test_interface.h"
#include "test_records.h"
#include "trace_support.h"

namespace {

std::mutex gHookMutex;
// The texts of the hooked short response lines, one per call that reached the server.
std::vector<std::string> gResponseLines;

}  // namespace

extern "C" void TRACE_PRINTRLC_U(void*, int, const char*, const char* text) {
    const std::string line = text == nullptr ? "" : text;
    if (line.find(" Received response for: <") == std::string::npos) {
        return;
    }
    std::lock_guard<std::mutex> lock(gHookMutex);
    gResponseLines.push_back(line);
}

namespace {

using testsupport::CapturedStdout;
using testsupport::Counts;
using testsupport::CountsOf;
using testsupport::Descriptor;
using testsupport::NextTag;
using teza_store::OwnerInfo;
using teza_store::VolumeInfo;
using teza_volume::VolumeInterface;

const int kThreads = 8;
const int kRounds = 50;
// Per round and thread: the four APIs on a healthy server, and one call refused by the health
// check.
const int kSentPerRound = 4;
const int kRefusedPerRound = 1;

class InvocationConcurrencyTest : public testsupport::InvocationTest {
  protected:
    void SetUp() override {
        testsupport::InvocationTest::SetUp();
        KeepRequests(false);
        rkdouble::SetRecording(false);
        // volume-create always fails, so handles are closed as well as cached.
        SetAnswer([](const std::string& api) {
            if (api == "volume-create") {
                return rkdouble::Failed("volume exists", 13010);
            }
            if (api == "volume-set-owner") {
                return rkdouble::PassedWith("<id>7</id>");
            }
            return rkdouble::Passed();
        });
        std::lock_guard<std::mutex> lock(gHookMutex);
        gResponseLines.clear();
    }
};

void RunThread(int* traceHandle) {
    // Port 445 is quarantined and checked: refused without traffic.
    TezaServerConnection checked = Descriptor("srv7", 445);
    checked.setUseHealthChecker(true);
    const bool noForce = false;
    VolumeInterface good(Descriptor(), noForce, traceHandle, nullptr);
    VolumeInterface refused(checked, noForce, traceHandle, nullptr);
    VolumeInfo input;
    input.setName("vol1");
    VolumeInfo volume;
    OwnerInfo owner;
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_EQ(good.systemPing().status, TezaStatus::Success);
        EXPECT_EQ(good.volumeGetInfo(volume).status, TezaStatus::Success);
        EXPECT_EQ(good.volumeCreate(input).status, TezaStatus::ApiFailed);
        EXPECT_EQ(good.volumeSetOwner(input, owner).status, TezaStatus::Success);
        EXPECT_EQ(refused.systemPing().errnum, 14007);
    }
}

TEST_F(InvocationConcurrencyTest, TagsAreUniqueAndCountersExact) {
    TezaServerConnection quarantined = Descriptor("srv7", 445);
    quarantined.quarantine();
    Counts before[VolumeInterface::kNumApis];
    for (int api = 0; api < VolumeInterface::kNumApis; ++api) {
        before[api] = CountsOf(api);
    }
    int traceHandle = 0;
    const unsigned int firstTag = NextTag();

    std::string out = CapturedStdout([&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back(RunThread, &traceHandle);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    // The probe's own call takes the tag after the last one used by the threads.
    const unsigned int endTag = NextTag() - 1;

    const int calls = kThreads * kRounds;
    EXPECT_EQ(CountsOf(VolumeInterface::kSystemPing),
              (before[VolumeInterface::kSystemPing] + Counts{uint64_t(calls), uint64_t(calls)}));
    EXPECT_EQ(CountsOf(VolumeInterface::kVolumeGetInfo),
              (before[VolumeInterface::kVolumeGetInfo] + Counts{uint64_t(calls), 0}));
    EXPECT_EQ(CountsOf(VolumeInterface::kVolumeCreate),
              (before[VolumeInterface::kVolumeCreate] + Counts{0, uint64_t(calls)}));
    EXPECT_EQ(CountsOf(VolumeInterface::kVolumeSetOwner),
              (before[VolumeInterface::kVolumeSetOwner] + Counts{uint64_t(calls), 0}));

    // Every call takes one tag, every refused one a second for its failure trace.
    const unsigned int sent = calls * kSentPerRound;
    const unsigned int refused = calls * kRefusedPerRound;
    EXPECT_EQ(endTag - firstTag, sent + 2 * refused);
    std::set<unsigned int> tags;
    const std::regex tagPattern("Tag: ([0-9]+) Response: ");
    std::lock_guard<std::mutex> lock(gHookMutex);
    ASSERT_EQ(gResponseLines.size(), sent);
    for (const std::string& line : gResponseLines) {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(line, match, tagPattern)) << line;
        const unsigned int tag = static_cast<unsigned int>(std::stoul(match[1].str()));
        EXPECT_GE(tag, firstTag);
        EXPECT_LT(tag, endTag);
        EXPECT_TRUE(tags.insert(tag).second) << "tag " << tag << " given twice";
    }

    // Each refused call wrote its line; nothing else reached standard output at level 0.
    std::string skipped;
    for (unsigned int i = 0; i < refused; ++i) {
        skipped += " TezaInterface: Request: <system-ping> skipped. Node srv7 is not healthy.\n";
    }
    EXPECT_EQ(out, skipped);
    EXPECT_EQ(rkdouble::HandleMisuses(), 0);
    // What is still open sits in the cache, at most one handle per thread.
    EXPECT_LE(rkdouble::HandlesOpen(), kThreads);
}

}  // namespace
