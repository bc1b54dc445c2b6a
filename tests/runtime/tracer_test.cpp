// TezaTracer: the line prefix and the trace printing operations at every trace level, line for
// line against standard output, with the clock fixed. The hook is covered by
// tracer_hook_test.cpp, which defines its own TRACE_PRINTRLC_U; here the runtime's no-op one
// is in force.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <type_traits>
#include <vector>

#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaTracer.h"
#include "assertion.h"
#include "generated_symbols.h"
#include "rk_double.h"
#include "strftime_failure.h"
#include "test_clock.h"
#include "test_tracker.h"
#include "trace_support.h"

namespace {

using testsupport::CapturedStdout;
using testsupport::ElemPtr;
using testsupport::TestTracker;
using testsupport::UtcTime;

const unsigned int kTag = 7;
// Prefixes of tag 7 at the fixture's time, Nov 23 14:05:09 UTC.
const std::string kNone = "Nov 23 14:05:09 TezaInterface: Tag: 7 ";
const std::string kRequest = "Nov 23 14:05:09 TezaInterface: Tag: 7 Request: ";
const std::string kResponse = "Nov 23 14:05:09 TezaInterface: Tag: 7 Response: ";

// The client library's text of the fixture's elements.
const std::string kRequestText = "<volume-rename>\n  <new-name>vol2</new-name>\n</volume-rename>\n";
const std::string kPassedText = "<results status=\"passed\"/>\n";
const std::string kFailedText =
    "<results status=\"failed\" reason=\"disk full\" errno=\"13001\"/>\n";

// The short lines, named after the tracker, never after the label.
const std::string kEmptyRequestLine = kNone + "<volume-rename>\n";
const std::string kEmptyResponseLine = kResponse + " Received response for: <volume-rename>\n";

// Full traces: the request trace gains a line end after the element text, the response trace
// does not.
const std::string kFullRequest = kRequest + kRequestText + "\n";
const std::string kFullPassed = kResponse + kPassedText;
const std::string kFullFailed = kResponse + kFailedText;

// Level 2: the first 100 characters of prefix and text, then a line end.
const std::string kCutRequest =
    kRequest + "<volume-rename>\n  <new-name>vol2</new-name>\n</volume-" + "\n";
const std::string kCutFailed =
    kResponse + "<results status=\"failed\" reason=\"disk full\" errno=\"1" + "\n";
// A text that fits keeps its own line end and gains one more.
const std::string kShortPassed = kResponse + kPassedText + "\n";

// The fixture's connection and failure, with enumerations as their numbers.
const std::string kConnectionLine =
    kNone +
    "TezaServerConnection:  host: srv1 major: 1 minor: 21 style: 2 type: 3 transport: 1 port: "
    "8443 connect timeout: 12 call timeout: 45\n";
const std::string kFailedLine =
    kNone + "Host: srv1 Teza failed. Request: <volume-rename> Error: 13001 Reason: disk full\n";

// One row of a level table: the tracker's level, the force flag, what reaches standard output
// and what the tracker holds afterwards.
struct Row {
    int level;
    bool force;
    std::string out;
    std::string held;
};

std::string RowName(const Row& row) {
    return "level " + std::to_string(row.level) + (row.force ? ", forced" : "");
}

class TracerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rkdouble::Reset();
        testclock::Freeze(UtcTime(2024, 11, 23, 14, 5, 9));
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
    static ElemPtr PassedResult() { return ElemPtr(rk_results_new_passed()); }
    static ElemPtr FailedResult() { return ElemPtr(rk_results_new_failed("disk full", 13001)); }
    // Every number differs, so that no field can stand in for another.
    static TezaServerConnection Connection() {
        return TezaServerConnection(
            "srv1", 1, 21, TezaServerConnection::STYLE_TOKEN, TezaServerConnection::TRANSPORT_HTTPS,
            8443, TezaServerConnection::SERVER_TYPE_AGENT, 45, 12, "admin", "secret", 5);
    }
    static TezaStatus Failure() { return TezaStatus(TezaStatus::ApiFailed, "disk full", 13001); }

    // Runs `print` on a fresh tracker at each row's level and checks its output and held text.
    template <typename Print>
    void CheckRows(const std::vector<Row>& rows, Print print) {
        for (const Row& row : rows) {
            SCOPED_TRACE(RowName(row));
            TestTracker tracker("volume-rename", row.level);
            const bool force = row.force;
            EXPECT_EQ(CapturedStdout([&] { print(tracker, force); }), row.out);
            EXPECT_EQ(tracker.getHeldRequest(), row.held);
        }
    }
};

// --- The tracker's own state ---------------------------------------------------------------

TEST(TezaTracer, StartsAtLevelZeroWithEmptyCountsAndNothingHeld) {
    TestTracker tracker("volume-list");
    EXPECT_EQ(tracker.getTraceLevel(), 0);
    EXPECT_EQ(tracker.getHeldRequest(), "");
    EXPECT_EQ(tracker.getCounter().getSuccesses(), 0u);
    EXPECT_EQ(tracker.getCounter().getFailures(), 0u);
    tracker.setTraceLevel(4);
    EXPECT_EQ(tracker.getTraceLevel(), 4);
}

TEST(TezaTracer, IsAnAbstractBaseWithAVirtualDestructor) {
    static_assert(std::is_abstract<TezaTracer>::value, "generated trackers supply the name");
    static_assert(std::has_virtual_destructor<TezaTracer>::value, "deleted through the base");
    static_assert(TezaTracer::TRACE_NONE == 0 && TezaTracer::TRACE_REQUEST == 1 &&
                      TezaTracer::TRACE_RESPONSE == 2,
                  "the kinds of a trace line are numbered 0, 1 and 2");
    TestTracker tracker("volume-list");
    const TezaTracer& base = tracker;
    EXPECT_EQ(base.getTraceName(), "volume-list");
}

TEST(TezaTracer, TestTrackersComeFromTheDepotOncePerApi) {
    TezaTracer* tracker = TezaNS_depot::getTezaTracker(901, 3);
    ASSERT_NE(tracker, nullptr);
    EXPECT_EQ(tracker, TezaNS_depot::getTezaTracker(901, 3));
    EXPECT_NE(tracker, TezaNS_depot::getTezaTracker(901, 4));
    EXPECT_NE(tracker, TezaNS_depot::getTezaTracker(902, 3));
    EXPECT_EQ(tracker->getTraceName(), "api-901-3");
    EXPECT_EQ(tracker, &testsupport::Tracker(901, 3));
}

// --- prefix --------------------------------------------------------------------------------

class TezaTracerPrefix : public ::testing::Test {
  protected:
    void TearDown() override { testclock::UseRealClock(); }
};

TEST_F(TezaTracerPrefix, FifthOfTheMonthIsPaddedWithASpace) {
    testclock::Freeze(UtcTime(2024, 3, 5, 9, 7, 3));
    EXPECT_EQ(TezaTracer::prefix(12, TezaTracer::TRACE_REQUEST),
              "Mar  5 09:07:03 TezaInterface: Tag: 12 Request: ");
}

TEST_F(TezaTracerPrefix, TwoDigitDaysKeepBothDigits) {
    testclock::Freeze(UtcTime(2023, 12, 31, 23, 59, 59));
    EXPECT_EQ(TezaTracer::prefix(0, TezaTracer::TRACE_NONE),
              "Dec 31 23:59:59 TezaInterface: Tag: 0 ");
    testclock::Freeze(UtcTime(2025, 1, 10, 0, 0, 0));
    EXPECT_EQ(TezaTracer::prefix(0, TezaTracer::TRACE_NONE),
              "Jan 10 00:00:00 TezaInterface: Tag: 0 ");
    testclock::Freeze(UtcTime(2025, 7, 1, 5, 4, 3));
    EXPECT_EQ(TezaTracer::prefix(0, TezaTracer::TRACE_NONE),
              "Jul  1 05:04:03 TezaInterface: Tag: 0 ");
}

TEST_F(TezaTracerPrefix, EachKindEndsDifferently) {
    testclock::Freeze(UtcTime(2024, 11, 23, 14, 5, 9));
    EXPECT_EQ(TezaTracer::prefix(7, TezaTracer::TRACE_NONE), kNone);
    EXPECT_EQ(TezaTracer::prefix(7, TezaTracer::TRACE_REQUEST), kRequest);
    EXPECT_EQ(TezaTracer::prefix(7, TezaTracer::TRACE_RESPONSE), kResponse);
    // Any other kind ends like "none", with a single space.
    EXPECT_EQ(TezaTracer::prefix(7, static_cast<TezaTracer::TezaTraceType>(3)), kNone);
}

TEST_F(TezaTracerPrefix, TagIsPrintedUnsigned) {
    testclock::Freeze(UtcTime(2024, 11, 23, 14, 5, 9));
    EXPECT_EQ(TezaTracer::prefix(4294967295u, TezaTracer::TRACE_NONE),
              "Nov 23 14:05:09 TezaInterface: Tag: 4294967295 ");
}

// Restores the process's time zone when it ends.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) {
        const char* old = getenv("TZ");
        _hadZone = old != nullptr;
        if (_hadZone) {
            _oldZone = old;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (_hadZone) {
            setenv("TZ", _oldZone.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

  private:
    bool _hadZone;
    std::string _oldZone;
};

TEST_F(TezaTracerPrefix, TimeIsUtcWhateverTheLocalZone) {
    // Nine hours east of UTC it is already the next morning locally.
    ScopedTimeZone zone("JST-9");
    testclock::Freeze(UtcTime(2024, 11, 23, 20, 5, 9));
    EXPECT_EQ(TezaTracer::prefix(1, TezaTracer::TRACE_NONE),
              "Nov 23 20:05:09 TezaInterface: Tag: 1 ");
}

TEST_F(TezaTracerPrefix, ReadsTheRealClockWhenNotFrozen) {
    testclock::UseRealClock();
    std::string prefix = TezaTracer::prefix(1, TezaTracer::TRACE_RESPONSE);
    EXPECT_THAT(prefix, ::testing::MatchesRegex("[A-Z][a-z][a-z] [ 123][0-9] [0-2][0-9]:[0-5][0-9]:"
                                                "[0-6][0-9] TezaInterface: Tag: 1 Response: "));
}

TEST(TezaTracerPrefixDeathTest, TimeThatDoesNotFitIsFatal) {
    EXPECT_DEATH(
        {
            testsupport::FailStrftime();
            TezaTracer::prefix(1, TezaTracer::TRACE_NONE);
        },
        AssertionText("ret"));
}

// --- printEmptyRequest ---------------------------------------------------------------------

TEST_F(TracerTest, EmptyRequestAtEveryLevel) {
    CheckRows(
        {
            {0, false, "", ""},
            // Level 1 alone builds nothing on the request side.
            {1, false, "", ""},
            {2, false, kEmptyRequestLine, ""},
            {3, false, kEmptyRequestLine, ""},
            {4, false, "", kEmptyRequestLine},
            {0, true, kEmptyRequestLine, ""},
            {1, true, kEmptyRequestLine, ""},
            {4, true, kEmptyRequestLine, ""},
        },
        [](TestTracker& tracker, bool force) {
            tracker.printEmptyRequest(kTag, force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, EmptyRequestAndResponseDifferAtLevelOne) {
    TestTracker tracker("volume-rename", 1);
    const bool force = false;
    EXPECT_EQ(CapturedStdout([&] { tracker.printEmptyRequest(kTag, force, nullptr, nullptr); }),
              "");
    EXPECT_EQ(CapturedStdout([&] { tracker.printEmptyResponse(kTag, force, nullptr, nullptr); }),
              kEmptyResponseLine);
}

// --- printEmptyResponse --------------------------------------------------------------------

TEST_F(TracerTest, EmptyResponseAtEveryLevel) {
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, kEmptyResponseLine, ""},
            {2, false, kEmptyResponseLine, ""},
            {3, false, kEmptyResponseLine, ""},
            {4, false, kEmptyResponseLine, ""},
            {0, true, kEmptyResponseLine, ""},
            {4, true, kEmptyResponseLine, ""},
        },
        [](TestTracker& tracker, bool force) {
            tracker.printEmptyResponse(kTag, force, nullptr, "caller-label");
        });
}

// --- printRequest --------------------------------------------------------------------------

TEST_F(TracerTest, RequestAtEveryLevel) {
    ElemPtr request = Request();
    CheckRows(
        {
            {0, false, "", ""},
            // Level 1 falls back to the short line, which level 1 does not build.
            {1, false, "", ""},
            {2, false, kCutRequest, ""},
            {3, false, kFullRequest, ""},
            {4, false, "", kFullRequest},
            {0, true, kFullRequest, ""},
            {1, true, kFullRequest, ""},
            {4, true, kFullRequest, ""},
        },
        [&](TestTracker& tracker, bool force) {
            tracker.printRequest(kTag, request.get(), force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, NullRequestFallsBackToTheShortLineWithoutTheForceFlag) {
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, "", ""},
            {2, false, kEmptyRequestLine, ""},
            {3, false, kEmptyRequestLine, ""},
            {4, false, "", kEmptyRequestLine},
            // The short line follows the tracker's own level, not the forced one.
            {0, true, "", ""},
            {1, true, "", ""},
            {2, true, kEmptyRequestLine, ""},
            {4, true, "", kEmptyRequestLine},
        },
        [](TestTracker& tracker, bool force) {
            tracker.printRequest(kTag, nullptr, force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, RequestIsRenderedOnlyWhenItsTextIsPrinted) {
    ElemPtr request = Request();
    TestTracker tracker("volume-rename", 0);
    bool force = false;
    CapturedStdout([&] { tracker.printRequest(kTag, request.get(), force, nullptr, nullptr); });
    tracker.setTraceLevel(1);
    CapturedStdout([&] { tracker.printRequest(kTag, request.get(), force, nullptr, nullptr); });
    EXPECT_EQ(rkdouble::CountCalls("rk_elem_sprintf"), 0);
    tracker.setTraceLevel(2);
    CapturedStdout([&] { tracker.printRequest(kTag, request.get(), force, nullptr, nullptr); });
    EXPECT_EQ(rkdouble::CountCalls("rk_elem_sprintf"), 1);
}

TEST_F(TracerTest, LongRequestIsCutToOneHundredCharactersAtLevelTwo) {
    ElemPtr request(rk_elem_new("volume-create"));
    rk_child_add_string(request.get(), "comment", std::string(80, 'x').c_str());
    TestTracker tracker("volume-create", 2);
    const bool force = false;
    std::string out =
        CapturedStdout([&] { tracker.printRequest(kTag, request.get(), force, nullptr, nullptr); });
    EXPECT_EQ(out, kRequest + "<volume-create>\n  <comment>" + std::string(26, 'x') + "\n");
    EXPECT_EQ(out.size(), 101u);
}

TEST_F(TracerTest, ShortRequestGainsASecondLineEndAtLevelTwo) {
    ElemPtr request(rk_elem_new("volume-list"));
    TestTracker tracker("volume-list", 2);
    const bool force = false;
    EXPECT_EQ(
        CapturedStdout([&] { tracker.printRequest(kTag, request.get(), force, nullptr, nullptr); }),
        kRequest + "<volume-list/>\n\n\n");
}

TEST_F(TracerTest, UnrenderableRequestFallsBackToTheShortLine) {
    ElemPtr request = Request();
    TestTracker tracker("volume-rename", 3);
    const bool force = false;
    rkdouble::FailNext("rk_elem_sprintf");
    EXPECT_EQ(
        CapturedStdout([&] { tracker.printRequest(kTag, request.get(), force, nullptr, nullptr); }),
        kEmptyRequestLine);
}

// --- printResponse -------------------------------------------------------------------------

TEST_F(TracerTest, PassedResponseAtEveryLevel) {
    ElemPtr response = PassedResult();
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, kEmptyResponseLine, ""},
            {2, false, kShortPassed, ""},
            {3, false, kFullPassed, ""},
            // A passed call is quiet at level 4.
            {4, false, "", ""},
            {0, true, kFullPassed, ""},
            {1, true, kFullPassed, ""},
            {4, true, kFullPassed, ""},
        },
        [&](TestTracker& tracker, bool force) {
            tracker.printResponse(kTag, response.get(), force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, FailedResponseAtEveryLevel) {
    ElemPtr response = FailedResult();
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, kEmptyResponseLine, ""},
            {2, false, kCutFailed, ""},
            {3, false, kFullFailed, ""},
            // Nothing was held by this fresh tracker, so only the response is written.
            {4, false, kFullFailed, ""},
            {0, true, kFullFailed, ""},
            {4, true, kFullFailed, ""},
        },
        [&](TestTracker& tracker, bool force) {
            tracker.printResponse(kTag, response.get(), force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, NullResponseFallsBackToTheShortLineWithoutTheForceFlag) {
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, kEmptyResponseLine, ""},
            {2, false, kEmptyResponseLine, ""},
            {3, false, kEmptyResponseLine, ""},
            {4, false, kEmptyResponseLine, ""},
            // The short line follows the tracker's own level, not the forced one.
            {0, true, "", ""},
            {1, true, kEmptyResponseLine, ""},
        },
        [](TestTracker& tracker, bool force) {
            tracker.printResponse(kTag, nullptr, force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, UnrenderableResponseFallsBackToTheShortLine) {
    ElemPtr response = PassedResult();
    TestTracker tracker("volume-rename", 3);
    const bool force = false;
    rkdouble::FailNext("rk_elem_sprintf");
    EXPECT_EQ(CapturedStdout(
                  [&] { tracker.printResponse(kTag, response.get(), force, nullptr, nullptr); }),
              kEmptyResponseLine);
}

TEST_F(TracerTest, ResultStatusIsReadOnlyAtLevelFour) {
    ElemPtr response = FailedResult();
    TestTracker tracker("volume-rename", 3);
    const bool force = false;
    CapturedStdout([&] { tracker.printResponse(kTag, response.get(), force, nullptr, nullptr); });
    EXPECT_EQ(rkdouble::CountCalls("rk_results_status"), 0);
    tracker.setTraceLevel(4);
    CapturedStdout([&] { tracker.printResponse(kTag, response.get(), force, nullptr, nullptr); });
    EXPECT_EQ(rkdouble::CountCalls("rk_results_status"), 1);
}

// --- Level 4: quiet until a call fails -----------------------------------------------------

TEST_F(TracerTest, LevelFourWritesTheHeldRequestOnlyWhenTheCallFails) {
    ElemPtr request = Request();
    ElemPtr passed = PassedResult();
    ElemPtr failed = FailedResult();
    TestTracker tracker("volume-rename", 4);
    const bool force = false;

    std::string out = CapturedStdout([&] {
        tracker.printRequest(kTag, request.get(), force, nullptr, nullptr);
        tracker.printResponse(kTag, passed.get(), force, nullptr, nullptr);
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(tracker.getHeldRequest(), kFullRequest);

    out = CapturedStdout([&] {
        tracker.printRequest(kTag, request.get(), force, nullptr, nullptr);
        tracker.printResponse(kTag, failed.get(), force, nullptr, nullptr);
    });
    EXPECT_EQ(out, kFullRequest + kFullFailed);
}

TEST_F(TracerTest, LevelFourHoldsTheShortLineOfAnEmptyRequest) {
    ElemPtr failed = FailedResult();
    TestTracker tracker("volume-rename", 4);
    const bool force = false;
    std::string out = CapturedStdout([&] {
        tracker.printEmptyRequest(kTag, force, nullptr, nullptr);
        tracker.printResponse(kTag, failed.get(), force, nullptr, nullptr);
    });
    EXPECT_EQ(out, kEmptyRequestLine + kFullFailed);
}

TEST_F(TracerTest, LevelFourWritesTheShortResponseLineOfANullResponse) {
    TestTracker tracker("volume-rename", 4);
    const bool force = false;
    EXPECT_EQ(
        CapturedStdout([&] { tracker.printResponse(kTag, nullptr, force, nullptr, nullptr); }),
        kEmptyResponseLine);
}

// --- printServerConnection -----------------------------------------------------------------

TEST_F(TracerTest, ServerConnectionAtEveryLevel) {
    TezaServerConnection connection = Connection();
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, kConnectionLine, ""},
            {2, false, kConnectionLine, ""},
            {3, false, kConnectionLine, ""},
            // Level 4 leaves the connection out.
            {4, false, "", ""},
            {0, true, kConnectionLine, ""},
            {4, true, kConnectionLine, ""},
        },
        [&](TestTracker& tracker, bool force) {
            tracker.printServerConnection(kTag, connection, force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, ServerConnectionNeverTouchesTheClientLibrary) {
    TezaServerConnection connection = Connection();
    TestTracker tracker("volume-rename", 3);
    const bool force = false;
    CapturedStdout(
        [&] { tracker.printServerConnection(kTag, connection, force, nullptr, nullptr); });
    EXPECT_TRUE(rkdouble::Calls().empty());
}

// --- printTezaFailed -----------------------------------------------------------------------

TEST_F(TracerTest, TezaFailedAtEveryLevel) {
    TezaServerConnection connection = Connection();
    TezaStatus failure = Failure();
    CheckRows(
        {
            {0, false, "", ""},
            {1, false, kFailedLine, ""},
            {2, false, kFailedLine, ""},
            {3, false, kFailedLine, ""},
            {4, false, kFailedLine, ""},
            {0, true, kFailedLine, ""},
            {4, true, kFailedLine, ""},
        },
        [&](TestTracker& tracker, bool force) {
            tracker.printTezaFailed(kTag, connection, failure, force, nullptr, "caller-label");
        });
}

TEST_F(TracerTest, TezaFailedPrintsTheReasonAsItIs) {
    TezaServerConnection connection = Connection();
    TezaStatus failure(TezaStatus::ConnectionFailed, "", -1);
    TestTracker tracker("volume-rename", 1);
    const bool force = false;
    EXPECT_EQ(CapturedStdout([&] {
                  tracker.printTezaFailed(kTag, connection, failure, force, nullptr, nullptr);
              }),
              kNone + "Host: srv1 Teza failed. Request: <volume-rename> Error: -1 Reason: \n");
}

// --- One call, traced step by step ---------------------------------------------------------

// The order in which a call with input traces itself: request, connection, response, and on
// failure the failure line.
std::string TraceCall(TestTracker& tracker, rk_elem_t* request, rk_elem_t* response,
                      const TezaServerConnection& connection, bool failed) {
    const bool force = false;
    const TezaStatus failure(TezaStatus::ApiFailed, "disk full", 13001);
    return CapturedStdout([&] {
        tracker.printRequest(kTag, request, force, nullptr, nullptr);
        tracker.printServerConnection(kTag, connection, force, nullptr, nullptr);
        tracker.printResponse(kTag, response, force, nullptr, nullptr);
        if (failed) {
            tracker.printTezaFailed(kTag, connection, failure, force, nullptr, nullptr);
        }
    });
}

TEST_F(TracerTest, LevelFourCallIsSilentWhenItPasses) {
    ElemPtr request = Request();
    ElemPtr passed = PassedResult();
    TezaServerConnection connection = Connection();
    TestTracker tracker("volume-rename", 4);
    EXPECT_EQ(TraceCall(tracker, request.get(), passed.get(), connection, false), "");
}

TEST_F(TracerTest, LevelFourCallWritesRequestResponseAndFailureWhenItFails) {
    ElemPtr request = Request();
    ElemPtr failed = FailedResult();
    TezaServerConnection connection = Connection();
    TestTracker tracker("volume-rename", 4);
    EXPECT_EQ(TraceCall(tracker, request.get(), failed.get(), connection, true),
              kFullRequest + kFullFailed + kFailedLine);
}

TEST_F(TracerTest, LevelThreeCallWritesEveryStep) {
    ElemPtr request = Request();
    ElemPtr failed = FailedResult();
    TezaServerConnection connection = Connection();
    TestTracker tracker("volume-rename", 3);
    EXPECT_EQ(TraceCall(tracker, request.get(), failed.get(), connection, true),
              kFullRequest + kConnectionLine + kFullFailed + kFailedLine);
}

TEST_F(TracerTest, LevelOneCallWritesTheShortLines) {
    ElemPtr request = Request();
    ElemPtr failed = FailedResult();
    TezaServerConnection connection = Connection();
    TestTracker tracker("volume-rename", 1);
    EXPECT_EQ(TraceCall(tracker, request.get(), failed.get(), connection, true),
              kConnectionLine + kEmptyResponseLine + kFailedLine);
}

// --- The runtime's own hook ----------------------------------------------------------------

TEST_F(TracerTest, HookOnWithTheRuntimesOwnHookStillBuildsTheLine) {
    // The runtime's hook does nothing, but a hook that is on makes level 1 build the short
    // request line, which is then written.
    TestTracker tracker("volume-rename", 1);
    int handle = 0;
    const bool force = false;
    EXPECT_EQ(CapturedStdout([&] { tracker.printEmptyRequest(kTag, force, &handle, "caller"); }),
              kEmptyRequestLine);
}

}  // namespace
