// TezaInterface::invoke over the client-library test double: the client-library calls, trace
// lines, counters and handle hand-backs of the four variants on success, on an API failure, on
// a connection failure, on a refused unhealthy node, with a remote descriptor and when no
// request element can be made; the deliberate differences between the variants; the steps
// openConnection, perform_invocation, cacheConnection and closeConnection; and the fatal
// assertions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "TezaInterface.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "assertion.h"
#include "invocation_support.h"
#include "rk_double.h"
#include "server_connection_peer.h"
#include "test_interface.h"
#include "test_records.h"
#include "trace_support.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testsupport::CapturedStdout;
using testsupport::ConnectionLine;
using testsupport::Counts;
using testsupport::CountsOf;
using testsupport::Descriptor;
using testsupport::EmptyRequestLine;
using testsupport::EmptyResponseLine;
using testsupport::FailedLine;
using testsupport::FrameCalls;
using testsupport::NextTag;
using testsupport::OpenCalls;
using testsupport::RequestPrefix;
using testsupport::ResponsePrefix;
using testsupport::TrackerName;
using testsupport::VolumeTracker;
using teza_store::OwnerInfo;
using teza_store::VolumeInfo;
using teza_volume::VolumeInterface;

// The request an input record makes, as the client library writes it.
const std::string kCreateText =
    "<volume-create>\n  <name>vol1</name>\n  <size>10</size>\n</volume-create>\n";
const std::string kSetOwnerText =
    "<volume-set-owner>\n  <name>vol1</name>\n  <size>10</size>\n</volume-set-owner>\n";
const std::string kPassedText = "<results status=\"passed\"/>\n";
const std::string kDiskFullText =
    "<results status=\"failed\" reason=\"disk full\" errno=\"13001\"/>\n";

// What the server answers each API on success.
rk_elem_t* PassedAnswer(const std::string& api) {
    if (api == "volume-get-info") {
        return rkdouble::PassedWith("<name>vol9</name><size>99</size>");
    }
    if (api == "volume-set-owner") {
        return rkdouble::PassedWith("<id>7</id>");
    }
    return rkdouble::Passed();
}

// One shape of API call.
struct Variant {
    const char* name;
    int api;
    const char* wire;  // the API's name on the wire
    bool input;
    bool output;
};

const Variant kVariants[] = {
    {"NoRecords", VolumeInterface::kSystemPing, "system-ping", false, false},
    {"OutputOnly", VolumeInterface::kVolumeGetInfo, "volume-get-info", false, true},
    {"InputOnly", VolumeInterface::kVolumeCreate, "volume-create", true, false},
    {"InputAndOutput", VolumeInterface::kVolumeSetOwner, "volume-set-owner", true, true},
};

void PrintTo(const Variant& variant, std::ostream* out) {
    *out << variant.name;
}

std::string VariantName(const ::testing::TestParamInfo<Variant>& info) {
    return info.param.name;
}

class InvocationTest : public testsupport::InvocationTest {
  protected:
    void SetUp() override {
        testsupport::InvocationTest::SetUp();
        _input.setName("vol1");
        _input.setSize(10);
        // Values a successful call replaces and a failed one leaves alone.
        _volume.setName("old");
        _owner.setId(-1);
    }

    // Calls the API of `variant` through its generated method.
    TezaStatus Call(VolumeInterface& volumes, const Variant& variant) {
        switch (variant.api) {
            case VolumeInterface::kSystemPing:
                return volumes.systemPing();
            case VolumeInterface::kVolumeGetInfo:
                return volumes.volumeGetInfo(_volume);
            case VolumeInterface::kVolumeCreate:
                return volumes.volumeCreate(_input);
            default:
                return volumes.volumeSetOwner(_input, _owner);
        }
    }

    // The request text the variant's API sends, when it has an input.
    static std::string RequestText(const Variant& variant) {
        return variant.api == VolumeInterface::kVolumeCreate ? kCreateText : kSetOwnerText;
    }

    // The frame's calls after the open for a sent request, up to the reading of its status.
    static Lines SendCalls(const Variant& variant) {
        const std::string api = variant.wire;
        if (variant.input) {
            return {"rk_elem_new(" + api + ")", "rk_server_invoke_elem(h1, " + api + ")",
                    "rk_results_status(results)"};
        }
        return {"rk_server_invoke(h1, " + api + ")", "rk_results_status(results)"};
    }

    static Lines Concat(Lines a, const Lines& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    }

    // The last `count` log messages.
    Lines LastLogMessages(size_t count) const {
        Lines messages = LogMessages();
        if (messages.size() > count) {
            messages.erase(messages.begin(), messages.end() - count);
        }
        return messages;
    }

    // The output records still hold the values set up front.
    void ExpectOutputsUntouched() {
        std::string name;
        EXPECT_TRUE(_volume.getName(name));
        EXPECT_EQ(name, "old");
        EXPECT_FALSE(_volume.isFieldSet(VolumeInfo::kSize));
        int32_t id = 0;
        EXPECT_TRUE(_owner.getId(id));
        EXPECT_EQ(id, -1);
    }

    VolumeInfo _input;
    VolumeInfo _volume;
    OwnerInfo _owner;
};

class InvocationVariantTest : public InvocationTest,
                              public ::testing::WithParamInterface<Variant> {};

using InvocationDeathTest = InvocationTest;

// --- Success ----------------------------------------------------------------------------------

TEST_P(InvocationVariantTest, SuccessSendsCountsAndCachesTheHandle) {
    const Variant& variant = GetParam();
    SetAnswer(PassedAnswer);
    VolumeInterface volumes(Descriptor());
    const Counts before = CountsOf(variant.api);

    TezaStatus status = Call(volumes, variant);

    EXPECT_EQ(status.status, TezaStatus::Success);
    EXPECT_EQ(status.reason, "");
    EXPECT_EQ(status.errnum, 0);
    const std::string api = variant.wire;
    Lines expected = Concat(OpenCalls(), SendCalls(variant));
    if (variant.input) {
        expected.push_back("rk_elem_free(" + api + ")");
    }
    expected.push_back("rk_elem_free(results)");
    EXPECT_EQ(FrameCalls(), expected);
    if (!variant.input && !variant.output) {
        // No record mapping: the frame's calls are all the calls.
        EXPECT_EQ(rkdouble::Calls(), expected);
    }
    EXPECT_EQ(Requests(), (Lines{variant.input ? RequestText(variant) : api}));
    EXPECT_EQ(CountsOf(variant.api), (before + Counts{1, 0}));
    // Handed to the cache, not closed.
    EXPECT_EQ(volumes.getConnection().getServer(), nullptr);
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);
    EXPECT_EQ(rkdouble::HandlesClosed(), 0);
    EXPECT_EQ(LastLogMessages(2),
              (Lines{"Set cacheConnection\n", "TezaServerConnection::close Cachable\n"}));
}

TEST_P(InvocationVariantTest, SuccessAtLevelOneTracesConnectionAndResponse) {
    const Variant& variant = GetParam();
    SetAnswer(PassedAnswer);
    VolumeTracker(variant.api).setTraceLevel(1);
    VolumeInterface volumes(Descriptor());
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] { Call(volumes, variant); });

    // The short request line is not written at level 1.
    EXPECT_EQ(out, ConnectionLine(tag) + EmptyResponseLine(tag, TrackerName(variant.api)));
}

TEST_P(InvocationVariantTest, SuccessAtLevelThreeTracesInTheVariantsOrder) {
    const Variant& variant = GetParam();
    SetAnswer(PassedAnswer);
    VolumeTracker(variant.api).setTraceLevel(3);
    VolumeInterface volumes(Descriptor());
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] { Call(volumes, variant); });

    std::string response = ResponsePrefix(tag);
    if (variant.api == VolumeInterface::kVolumeGetInfo) {
        response +=
            "<results status=\"passed\">\n  <name>vol9</name>\n  <size>99</size>\n</results>\n";
    } else if (variant.api == VolumeInterface::kVolumeSetOwner) {
        response += "<results status=\"passed\">\n  <id>7</id>\n</results>\n";
    } else {
        response += kPassedText;
    }
    if (variant.input) {
        // The request first, then the connection.
        EXPECT_EQ(
            out, RequestPrefix(tag) + RequestText(variant) + "\n" + ConnectionLine(tag) + response);
    } else {
        // The connection first, then the API's name as the request.
        EXPECT_EQ(out,
                  ConnectionLine(tag) + EmptyRequestLine(tag, TrackerName(variant.api)) + response);
    }
}

TEST_P(InvocationVariantTest, SuccessFillsTheOutputRecord) {
    const Variant& variant = GetParam();
    SetAnswer(PassedAnswer);
    VolumeInterface volumes(Descriptor());

    ASSERT_EQ(Call(volumes, variant).status, TezaStatus::Success);

    std::string name;
    int64_t size = 0;
    int32_t id = 0;
    if (variant.api == VolumeInterface::kVolumeGetInfo) {
        EXPECT_TRUE(_volume.getName(name));
        EXPECT_EQ(name, "vol9");
        EXPECT_TRUE(_volume.getSize(size));
        EXPECT_EQ(size, 99);
    } else if (variant.api == VolumeInterface::kVolumeSetOwner) {
        EXPECT_TRUE(_owner.getId(id));
        EXPECT_EQ(id, 7);
    } else {
        ExpectOutputsUntouched();
    }
    // The input is only read.
    EXPECT_TRUE(_input.getName(name));
    EXPECT_EQ(name, "vol1");
    EXPECT_TRUE(_input.getSize(size));
    EXPECT_EQ(size, 10);
}

TEST_F(InvocationTest, NextCallReusesTheCachedHandle) {
    VolumeInterface volumes(Descriptor());
    ASSERT_EQ(volumes.systemPing().status, TezaStatus::Success);
    rkdouble::ClearCalls();

    ASSERT_EQ(volumes.volumeCreate(_input).status, TezaStatus::Success);

    EXPECT_EQ(FrameCalls(),
              (Lines{"rk_server_set_timeout(h1, 60)", "rk_elem_new(volume-create)",
                     "rk_server_invoke_elem(h1, volume-create)", "rk_results_status(results)",
                     "rk_elem_free(volume-create)", "rk_elem_free(results)"}));
    EXPECT_EQ(rkdouble::HandlesOpened(), 1);
}

TEST_F(InvocationTest, OpenNamesTheConnectionAfterTheApi) {
    VolumeInterface volumes(Descriptor());
    ASSERT_EQ(volumes.volumeCreate(_input).status, TezaStatus::Success);
    EXPECT_THAT(LogMessages(), ::testing::Contains("volume-create: start with srv7"));
}

// --- API failure ------------------------------------------------------------------------------

TEST_P(InvocationVariantTest, ApiFailureReturnsTheDecodedReasonCountsAndClosesTheHandle) {
    const Variant& variant = GetParam();
    SetAnswer(
        [](const std::string&) { return rkdouble::Failed("name &lt;vol1&gt; &amp; more", 13001); });
    VolumeInterface volumes(Descriptor());
    const Counts before = CountsOf(variant.api);

    TezaStatus status = Call(volumes, variant);

    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.reason, "name <vol1> & more");
    EXPECT_EQ(status.errnum, 13001);
    const std::string api = variant.wire;
    Lines expected = Concat(OpenCalls(), SendCalls(variant));
    expected.push_back("rk_results_reason(results)");
    expected.push_back("rk_results_errno(results)");
    if (variant.input) {
        expected.push_back("rk_elem_free(" + api + ")");
    }
    expected.push_back("rk_elem_free(results)");
    expected.push_back("rk_server_close(h1)");
    EXPECT_EQ(FrameCalls(), expected);
    EXPECT_EQ(CountsOf(variant.api), (before + Counts{0, 1}));
    EXPECT_EQ(volumes.getConnection().getServer(), nullptr);
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
    EXPECT_EQ(rkdouble::HandleMisuses(), 0);
    EXPECT_EQ(LastLogMessages(1), (Lines{"TezaServerConnection::close rk_server_close\n"}));
    EXPECT_THAT(LogMessages(), ::testing::Not(::testing::Contains("Set cacheConnection\n")));
    ExpectOutputsUntouched();
}

TEST_P(InvocationVariantTest, ApiFailureAtLevelOneTracesTheFailure) {
    const Variant& variant = GetParam();
    SetAnswer(
        [](const std::string&) { return rkdouble::Failed("name &lt;vol1&gt; &amp; more", 13001); });
    VolumeTracker(variant.api).setTraceLevel(1);
    VolumeInterface volumes(Descriptor());
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] { Call(volumes, variant); });

    const std::string name = TrackerName(variant.api);
    EXPECT_EQ(out, ConnectionLine(tag) + EmptyResponseLine(tag, name) +
                       FailedLine(tag, name, 13001, "name <vol1> & more"));
}

TEST_F(InvocationTest, AFailedResultWithoutReasonGivesAnEmptyReason) {
    // A result element without status, reason or error number.
    SetAnswer([](const std::string&) { return rk_elem_new("results"); });
    VolumeInterface volumes(Descriptor());

    TezaStatus status = volumes.systemPing();

    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.reason, "");
    EXPECT_EQ(status.errnum, 0);
}

TEST_F(InvocationTest, HandleClosedOnFailureIsNotReused) {
    VolumeInterface volumes(Descriptor());
    SetAnswer([](const std::string&) { return rkdouble::Failed("busy", 13002); });
    ASSERT_EQ(volumes.systemPing().status, TezaStatus::ApiFailed);
    SetAnswer(PassedAnswer);
    rkdouble::ClearCalls();

    ASSERT_EQ(volumes.systemPing().status, TezaStatus::Success);

    EXPECT_EQ(FrameCalls(),
              Concat(OpenCalls(2), {"rk_server_invoke(h2, system-ping)",
                                    "rk_results_status(results)", "rk_elem_free(results)"}));
}

// Level 4 keeps the request until the result is known: a passed call writes nothing, a failed
// one its request, its response and the failure.
TEST_F(InvocationTest, LevelFourWritesTheHeldRequestOnlyOnFailure) {
    VolumeTracker(VolumeInterface::kVolumeCreate).setTraceLevel(4);
    VolumeInterface volumes(Descriptor());
    EXPECT_EQ(CapturedStdout([&] { volumes.volumeCreate(_input); }), "");

    SetAnswer([](const std::string&) { return rkdouble::Failed("disk full", 13001); });
    const unsigned int tag = NextTag();
    std::string out = CapturedStdout([&] { volumes.volumeCreate(_input); });

    EXPECT_EQ(out,
              RequestPrefix(tag) + kCreateText + "\n" + ResponsePrefix(tag) + kDiskFullText +
                  FailedLine(tag, TrackerName(VolumeInterface::kVolumeCreate), 13001, "disk full"));
}

// --- The deliberate asymmetry of the failure trace --------------------------------------------

// With the force flag on and the trackers at level 0, only what receives the interface's trace
// settings is written: the request and the response in every variant, the failure line only
// for the call without records.
TEST_P(InvocationVariantTest, OnlyTheCallWithoutRecordsPassesTraceSettingsToTheFailure) {
    const Variant& variant = GetParam();
    SetAnswer([](const std::string&) { return rkdouble::Failed("disk full", 13001); });
    const bool force = true;
    VolumeInterface volumes(Descriptor(), force);
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] { Call(volumes, variant); });

    const std::string name = TrackerName(variant.api);
    std::string expected = variant.input ? RequestPrefix(tag) + RequestText(variant) + "\n"
                                         : EmptyRequestLine(tag, name);
    expected += ResponsePrefix(tag) + kDiskFullText;
    if (!variant.input && !variant.output) {
        expected += FailedLine(tag, name, 13001, "disk full");
    }
    EXPECT_EQ(out, expected);
}

// The connection line never follows the force flag.
TEST_F(InvocationTest, ConnectionLineFollowsTheTrackersLevel) {
    const bool force = true;
    VolumeInterface volumes(Descriptor(), force);
    VolumeTracker(VolumeInterface::kSystemPing).setTraceLevel(1);
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] { volumes.systemPing(); });

    EXPECT_EQ(out, ConnectionLine(tag) + EmptyRequestLine(tag, TrackerName(0)) +
                       ResponsePrefix(tag) + kPassedText);
}

// --- Connection failure -----------------------------------------------------------------------

TEST_P(InvocationVariantTest, ConnectionFailureIsTracedUnderASecondTagAndReturned) {
    const Variant& variant = GetParam();
    FailProbes("connection refused", 13055);
    VolumeTracker(variant.api).setTraceLevel(1);
    VolumeInterface volumes(Descriptor());
    const Counts before = CountsOf(variant.api);
    const unsigned int tag = NextTag();

    TezaStatus status;
    std::string out = CapturedStdout([&] { status = Call(volumes, variant); });

    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(status.reason, "connection refused");
    EXPECT_EQ(status.errnum, 13055);
    // The call's own tag goes unused in the trace; the failure takes the next one.
    const std::string name = TrackerName(variant.api);
    EXPECT_EQ(out,
              ConnectionLine(tag + 1) + FailedLine(tag + 1, name, 13055, "connection refused"));
    // The next call, the probe's, takes tag + 2.
    EXPECT_EQ(NextTag(), tag + 3);
    EXPECT_EQ(CountsOf(variant.api), (before + Counts{0, 1}));
    // Nothing is built or sent.
    EXPECT_EQ(rkdouble::CountCalls("rk_elem_new"), 0);
    EXPECT_EQ(rkdouble::CountCalls("rk_server_invoke_elem"), 0);
    EXPECT_EQ(Requests(), Lines{});
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
    ExpectOutputsUntouched();
}

TEST_F(InvocationTest, ConnectionFailureAtLevelZeroWritesNothing) {
    FailProbes("connection refused", 13055);
    VolumeInterface volumes(Descriptor());
    EXPECT_EQ(CapturedStdout([&] { volumes.systemPing(); }), "");
}

// --- Unhealthy node ---------------------------------------------------------------------------

TEST_P(InvocationVariantTest, RefusedUnhealthyNodeIsSkippedWithoutTraffic) {
    const Variant& variant = GetParam();
    TezaServerConnection failed = Descriptor();
    failed.quarantine();
    TezaServerConnection checked = Descriptor();
    checked.setUseHealthChecker(true);
    VolumeInterface volumes(checked);
    const Counts before = CountsOf(variant.api);
    rkdouble::ClearCalls();

    TezaStatus status;
    std::string out = CapturedStdout([&] { status = Call(volumes, variant); });

    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(status.reason, "srv7 is not healthy");
    EXPECT_EQ(status.errnum, 14007);
    // Written whatever the trace level, with the API's wire name.
    EXPECT_EQ(out, " TezaInterface: Request: <" + std::string(variant.wire) +
                       "> skipped. Node srv7 is not healthy.\n");
    EXPECT_EQ(rkdouble::Calls(), Lines{});
    EXPECT_EQ(CountsOf(variant.api), (before + Counts{0, 1}));
    ExpectOutputsUntouched();
}

TEST_F(InvocationTest, RefusedUnhealthyNodeAtLevelOneAlsoTracesTheFailure) {
    TezaServerConnection failed = Descriptor();
    failed.quarantine();
    TezaServerConnection checked = Descriptor();
    checked.setUseHealthChecker(true);
    VolumeInterface volumes(checked);
    VolumeTracker(VolumeInterface::kVolumeCreate).setTraceLevel(1);
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] { volumes.volumeCreate(_input); });

    EXPECT_EQ(out, " TezaInterface: Request: <volume-create> skipped. Node srv7 is not healthy.\n" +
                       ConnectionLine(tag + 1) +
                       FailedLine(tag + 1, TrackerName(VolumeInterface::kVolumeCreate), 14007,
                                  "srv7 is not healthy"));
}

// --- Remote descriptor ------------------------------------------------------------------------

// Nothing is opened or sent: the null response reaches the tracer and the client library as it
// is, which reports it as failed without reason or error number.
TEST_P(InvocationVariantTest, RemoteDescriptorSendsNothingAndFailsOnTheNullResponse) {
    const Variant& variant = GetParam();
    TezaServerConnection remote = Descriptor();
    TezaServerConnectionTestPeer::SetRemote(remote, "site-b");
    VolumeInterface volumes(remote);
    VolumeTracker(variant.api).setTraceLevel(1);
    const Counts before = CountsOf(variant.api);
    const unsigned int tag = NextTag();

    TezaStatus status;
    std::string out = CapturedStdout([&] { status = Call(volumes, variant); });

    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.reason, "");
    EXPECT_EQ(status.errnum, 0);
    const std::string name = TrackerName(variant.api);
    EXPECT_EQ(out,
              ConnectionLine(tag) + EmptyResponseLine(tag, name) + FailedLine(tag, name, 0, ""));
    const std::string api = variant.wire;
    Lines expected;
    if (variant.input) {
        expected.push_back("rk_elem_new(" + api + ")");
    }
    expected.insert(expected.end(), {"rk_results_status((null))", "rk_results_reason((null))",
                                     "rk_results_errno((null))"});
    if (variant.input) {
        expected.push_back("rk_elem_free(" + api + ")");
    }
    EXPECT_EQ(FrameCalls(), expected);
    EXPECT_EQ(rkdouble::HandlesOpened(), 0);
    EXPECT_EQ(CountsOf(variant.api), (before + Counts{0, 1}));
    // Neither cached nor closed.
    EXPECT_EQ(LogMessages(), Lines{});
    ExpectOutputsUntouched();
}

TEST_F(InvocationTest, RemoteDescriptorIgnoresAHeldTransaction) {
    TezaInterface::get_trans_label = [] { return "txn-42"; };
    TezaServerConnection remote = Descriptor();
    TezaServerConnectionTestPeer::SetRemote(remote, "site-b");
    VolumeInterface volumes(remote);
    EXPECT_EQ(volumes.systemPing().status, TezaStatus::ApiFailed);
}

// --- No request element -----------------------------------------------------------------------

class NoRequestElementTest : public InvocationTest,
                             public ::testing::WithParamInterface<Variant> {};

// Nothing is sent, traced or counted; the handle goes to the cache and the call reports success.
TEST_P(NoRequestElementTest, CachesTheHandleAndReportsSuccess) {
    const Variant& variant = GetParam();
    VolumeTracker(variant.api).setTraceLevel(3);
    VolumeInterface volumes(Descriptor());
    const Counts before = CountsOf(variant.api);
    rkdouble::FailNext("rk_elem_new");

    TezaStatus status;
    std::string out = CapturedStdout([&] { status = Call(volumes, variant); });

    EXPECT_EQ(status.status, TezaStatus::Success);
    EXPECT_EQ(status.reason, "");
    EXPECT_EQ(status.errnum, 0);
    EXPECT_EQ(out, "");
    const std::string api = variant.wire;
    EXPECT_EQ(FrameCalls(), Concat(OpenCalls(), {"rk_elem_new(" + api + ")"}));
    EXPECT_EQ(Requests(), Lines{});
    EXPECT_EQ(CountsOf(variant.api), before);
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);
    EXPECT_EQ(LastLogMessages(2),
              (Lines{"Set cacheConnection\n", "TezaServerConnection::close Cachable\n"}));
    ExpectOutputsUntouched();
}

TEST_P(NoRequestElementTest, CallsCacheConnectionEvenForARemoteDescriptor) {
    const Variant& variant = GetParam();
    TezaServerConnection remote = Descriptor();
    TezaServerConnectionTestPeer::SetRemote(remote, "site-b");
    VolumeInterface volumes(remote);
    const Counts before = CountsOf(variant.api);
    rkdouble::FailNext("rk_elem_new");

    TezaStatus status = Call(volumes, variant);

    EXPECT_EQ(status.status, TezaStatus::Success);
    EXPECT_EQ(FrameCalls(), (Lines{"rk_elem_new(" + std::string(variant.wire) + ")"}));
    EXPECT_EQ(CountsOf(variant.api), before);
    // No handle to hand over, so the descriptor's close has nothing to log.
    EXPECT_EQ(LogMessages(), (Lines{"Set cacheConnection\n"}));
}

INSTANTIATE_TEST_SUITE_P(Variants, InvocationVariantTest, ::testing::ValuesIn(kVariants),
                         VariantName);
INSTANTIATE_TEST_SUITE_P(InputVariants, NoRequestElementTest,
                         ::testing::Values(kVariants[2], kVariants[3]), VariantName);

// --- Tags -------------------------------------------------------------------------------------

TEST_F(InvocationTest, EachCallTakesTheNextTag) {
    VolumeTracker(VolumeInterface::kSystemPing).setTraceLevel(1);
    VolumeInterface volumes(Descriptor());
    const unsigned int tag = NextTag();

    std::string out = CapturedStdout([&] {
        volumes.systemPing();
        volumes.systemPing();
    });

    const std::string name = TrackerName(VolumeInterface::kSystemPing);
    EXPECT_EQ(out, ConnectionLine(tag) + EmptyResponseLine(tag, name) + ConnectionLine(tag + 1) +
                       EmptyResponseLine(tag + 1, name));
    // The next call, the probe's, takes tag + 2.
    EXPECT_EQ(NextTag(), tag + 3);
}

// --- The steps --------------------------------------------------------------------------------

TEST_F(InvocationTest, OpenConnectionOpensAndTheDestructorClosesAHeldHandle) {
    {
        VolumeInterface volumes(Descriptor());
        ASSERT_EQ(volumes.openConnection(VolumeInterface::kSystemPing).status, TezaStatus::Success);
        EXPECT_NE(volumes.getConnection().getServer(), nullptr);
        EXPECT_STREQ(volumes.getConnection().getProc(), "system-ping");
        EXPECT_EQ(rkdouble::Calls(), OpenCalls());
        rkdouble::ClearCalls();
    }
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
}

TEST_F(InvocationTest, PerformInvocationSendsByNameOrByElement) {
    VolumeInterface volumes(Descriptor());
    ASSERT_EQ(volumes.openConnection(VolumeInterface::kSystemPing).status, TezaStatus::Success);
    rkdouble::ClearCalls();

    rk_elem_t* response = nullptr;
    volumes.perform_invocation(nullptr, response, VolumeInterface::kSystemPing, "system-ping");
    testsupport::ElemPtr byName(response);
    testsupport::ElemPtr request(rk_elem_new("volume-create"));
    response = nullptr;
    volumes.perform_invocation(request.get(), response, VolumeInterface::kVolumeCreate, nullptr);
    testsupport::ElemPtr byElement(response);

    EXPECT_NE(byName, nullptr);
    EXPECT_NE(byElement, nullptr);
    EXPECT_EQ(rkdouble::Calls(),
              (Lines{"rk_server_invoke(h1, system-ping)", "rk_elem_new(volume-create)",
                     "rk_server_invoke_elem(h1, volume-create)"}));
    volumes.closeConnection();
}

TEST_F(InvocationTest, PerformInvocationOnARemoteDescriptorLeavesTheResponse) {
    TezaServerConnection remote = Descriptor();
    TezaServerConnectionTestPeer::SetRemote(remote, "site-b");
    VolumeInterface volumes(remote);
    testsupport::ElemPtr earlier(rkdouble::Passed());
    rk_elem_t* response = earlier.get();

    volumes.perform_invocation(nullptr, response, VolumeInterface::kSystemPing, "system-ping");

    EXPECT_EQ(response, earlier.get());
    EXPECT_EQ(rkdouble::Calls(), Lines{});
}

TEST_F(InvocationTest, CacheConnectionHandsTheHandleToTheCache) {
    VolumeInterface volumes(Descriptor());
    ASSERT_EQ(volumes.openConnection(VolumeInterface::kSystemPing).status, TezaStatus::Success);
    _log.Create();
    rkdouble::ClearCalls();

    volumes.cacheConnection();

    EXPECT_EQ(volumes.getConnection().getServer(), nullptr);
    EXPECT_TRUE(volumes.getConnection().isCachable());
    EXPECT_EQ(rkdouble::Calls(), Lines{});
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);
    EXPECT_EQ(LogMessages(),
              (Lines{"Set cacheConnection\n", "TezaServerConnection::close Cachable\n"}));
}

TEST_F(InvocationTest, CloseConnectionClosesTheHandle) {
    VolumeInterface volumes(Descriptor());
    ASSERT_EQ(volumes.openConnection(VolumeInterface::kSystemPing).status, TezaStatus::Success);
    volumes.getConnection().setCachable(true);
    _log.Create();
    rkdouble::ClearCalls();

    volumes.closeConnection();

    EXPECT_EQ(volumes.getConnection().getServer(), nullptr);
    EXPECT_FALSE(volumes.getConnection().isCachable());
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
    EXPECT_EQ(LogMessages(), (Lines{"TezaServerConnection::close rk_server_close\n"}));
}

TEST_F(InvocationTest, TheInterfaceKeepsItsOwnCopyOfTheDescriptor) {
    TezaServerConnection descriptor = Descriptor();
    VolumeInterface volumes(descriptor);
    descriptor.setPort(80);
    EXPECT_EQ(volumes.getConnection().getPort(), 443);
    EXPECT_EQ(&volumes.getConnection(), &volumes.getConnection());
    EXPECT_STREQ(TezaInterface::_mt_handle, "TezaInterface");
}

// --- Fatal assertions -------------------------------------------------------------------------

const char* HeldTransaction() {
    return "txn-42";
}

const char* NoTransaction() {
    return nullptr;
}

TEST_F(InvocationDeathTest, CallWhileHoldingATransactionEndsTheProcess) {
    VolumeInterface volumes(Descriptor());
    TezaInterface::get_trans_label = HeldTransaction;
    // The line goes to standard output; the child sends it where the death test reads.
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            volumes.systemPing();
        },
        AllOf(HasSubstr("Holding RDB transaction 'txn-42' while making TEZA call system-ping\n"),
              AssertionText("msg==__null")));
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            volumes.volumeSetOwner(_input, _owner);
        },
        AllOf(HasSubstr("Holding RDB transaction 'txn-42' while making TEZA call "
                        "volume-set-owner\n"),
              AssertionText("msg==__null")));
}

TEST_F(InvocationTest, NoTransactionLetsTheCallThrough) {
    TezaInterface::get_trans_label = NoTransaction;
    VolumeInterface volumes(Descriptor());
    EXPECT_EQ(volumes.systemPing().status, TezaStatus::Success);
}

TEST_F(InvocationDeathTest, SendingOnAClosedDescriptorEndsTheProcess) {
    VolumeInterface volumes(Descriptor());
    rk_elem_t* response = nullptr;
    EXPECT_DEATH(
        volumes.perform_invocation(nullptr, response, VolumeInterface::kSystemPing, "system-ping"),
        AssertionText("server != __null"));
}

}  // namespace
