// TezaServerConnection::open and the quarantine of failing servers: cache first, then a fresh
// connection; failures quarantine a server for 30, 60, then 120 seconds; descriptors that use
// the health check are refused while it lasts; expired and background probes clear it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaWrapper.h"
#include "assertion.h"
#include "generated_symbols.h"
#include "rk_double.h"
#include "runtime_fixture.h"
#include "test_clock.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::Descriptor;
using testsupport::kStartTime;
using testsupport::PointerText;

const char kProc[] = "volume-get";
const char kAddress[] = "srv7:1,21:1:2:0:443:60:15";

class QuarantineTest : public testsupport::RuntimeTest {
  protected:
    void SetUp() override {
        RuntimeTest::SetUp();
        rkdouble::SetResponder([this](const std::string&, const std::string&, rk_elem_t*) {
            if (_failing) {
                if (_advanceOnProbe != 0) {
                    testclock::Advance(_advanceOnProbe);
                }
                return rkdouble::Failed("refused", _errnum);
            }
            return rkdouble::Passed();
        });
    }

    // Version probes fail (true) or pass (false) from now on.
    void SetFailing(bool failing) { _failing = failing; }

    // A descriptor of the test server named after the API.
    static TezaServerConnection Server(unsigned connectTimeout = 15, bool healthCheck = false) {
        TezaServerConnection d = Descriptor("srv7", 443, connectTimeout);
        d.setProc(kProc);
        d.setUseHealthChecker(healthCheck);
        return d;
    }

    // Opens a descriptor of the server with failing probes, so that it enters the quarantine.
    void FailOnce(unsigned connectTimeout = 15) {
        bool failing = _failing;
        SetFailing(true);
        TezaServerConnection d = Server(connectTimeout);
        EXPECT_NE(d.open().status, TezaStatus::Success);
        SetFailing(failing);
    }

    // The library is started before the log is switched on, so that only the lines of the
    // operation under test are recorded.
    void StartLog() {
        TezaServerConnection::init();
        _log.Create();
        rkdouble::ClearCalls();
    }

    std::atomic<bool> _failing{false};
    std::atomic<int> _errnum{13055};
    std::atomic<int> _advanceOnProbe{0};
};

using QuarantineDeathTest = QuarantineTest;

// --- Expiration -------------------------------------------------------------------------------

TEST_F(QuarantineTest, ExpirationStartsWith30Seconds) {
    TezaServerConnection::Expiration expiration(15);
    EXPECT_EQ(expiration.getCausalTimeout(), 15);
    EXPECT_EQ(expiration.interval(), 30);
    testclock::Advance(29);
    EXPECT_FALSE(expiration.expired());
    testclock::Advance(1);
    EXPECT_TRUE(expiration.expired());
}

TEST_F(QuarantineTest, ExpirationBumpDoublesUpTo120FromNow) {
    TezaServerConnection::Expiration expiration(15);
    testclock::Advance(40);
    EXPECT_EQ(expiration.bump(), kStartTime + 40 + 60);
    EXPECT_EQ(expiration.interval(), 60);
    EXPECT_EQ(expiration.bump(), kStartTime + 40 + 120);
    EXPECT_EQ(expiration.interval(), 120);
    EXPECT_EQ(expiration.bump(), kStartTime + 40 + 120);
    EXPECT_EQ(expiration.interval(), 120);
    testclock::Advance(119);
    EXPECT_FALSE(expiration.expired());
    testclock::Advance(1);
    EXPECT_TRUE(expiration.expired());
}

TEST_F(QuarantineTest, ExpirationCausalTimeoutCanBeChanged) {
    TezaServerConnection::Expiration expiration(15);
    expiration.setCausalTimeout(40);
    EXPECT_EQ(expiration.getCausalTimeout(), 40);
}

// --- Library start-up through open ---------------------------------------------------------

TEST_F(QuarantineTest, FirstOpenStartsTheLibraryOnce) {
    int registrations = testsupport::RegisterDefaultTypeFactoryCalls();
    TezaServerConnection first = Server();
    ASSERT_EQ(first.open().status, TezaStatus::Success);
    TezaServerConnection second = Descriptor("srv8");
    ASSERT_EQ(second.open().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::CountCalls("rk_startup"), 1);
    EXPECT_EQ(rkdouble::CountCalls("rk_is_started"), 1);
    EXPECT_EQ(testsupport::RegisterDefaultTypeFactoryCalls(), registrations + 1);
}

TEST_F(QuarantineTest, EveryOpenLogsInit) {
    StartLog();
    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    d.close();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    Lines messages = LogMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "TezaServerConnection::init\n"), 2);
}

TEST_F(QuarantineTest, OpenGoesOnWhenTheLibraryFailsToStartAndRetriesNextTime) {
    rkdouble::FailStartup("no licence");
    _log.Create();
    TezaServerConnection d = Server();
    EXPECT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_NE(d.getServer(), nullptr);
    EXPECT_THAT(LogMessages(), Contains("Error in rk_startup: no licence\n"));
    d.close();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::CountCalls("rk_startup"), 2);
}

TEST_F(QuarantineTest, FailedLibraryStartIsCountedBackOut) {
    // The failed start is balanced at once, so the wrapper's count is zero again: a cleanup
    // of the wrapper now would be fatal, and a later successful start is the first.
    rkdouble::FailStartup("no licence");
    TezaServerConnection::init();
    EXPECT_DEATH(TezaWrapper::cleanup(), AssertionText("_refcnt>0"));
    rkdouble::Reset();
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    rkdouble::ClearCalls();
    TezaWrapper::cleanup();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_shutdown()"}));
}

TEST_F(QuarantineTest, CleanupStopsWhatInitStarted) {
    TezaServerConnection::init();
    _log.Create();
    rkdouble::ClearCalls();
    TezaServerConnection::cleanup();
    TezaServerConnection::cleanup();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_shutdown()"}));
    EXPECT_EQ(LogMessages(),
              (Lines{"TezaServerConnection::cleanup\n", "Cleanup TezaWrapper Library\n",
                     "Shutting down TezaConnectionCache\n", "TezaServerConnection::cleanup\n"}));
}

// --- open: fresh connections ------------------------------------------------------------------

TEST_F(QuarantineTest, OpenMakesAFreshConnectionAndPutsTheCallTimeoutOnIt) {
    StartLog();
    TezaServerConnection d = Server();
    TezaStatus status = d.open();
    EXPECT_EQ(status.status, TezaStatus::Success);
    EXPECT_EQ(
        rkdouble::Calls("rk_server_"),
        (Lines{"rk_server_open(srv7, 1, 21)", "rk_server_set_style(h1, 1)",
               "rk_server_set_server_type(h1, 2)", "rk_server_set_transport_type(h1, 0, (null))",
               "rk_server_set_port(h1, 443)", "rk_server_set_admin_user(h1, admin, secret)",
               "rk_server_set_timeout(h1, 15)", "rk_server_invoke(h1, system-get-corvi-version)",
               "rk_server_set_timeout(h1, 60)"}));
    EXPECT_EQ(rkdouble::Settings(d.getServer()).timeout, 60);
}

TEST_F(QuarantineTest, OpenLogsEachStepOfASuccessfulConnection) {
    StartLog();
    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    std::string handle = PointerText(d.getServer());
    EXPECT_EQ(
        LogMessages(),
        (Lines{"TezaServerConnection::init\n", "volume-get: start with srv7",
               "volume-get: attempt connection to 'srv7'\n",
               "volume-get: connect to 'srv7' timeout=15 _server=" + handle + "\n",
               "volume-get: successful connection to 'srv7'\n", "volume-get: unquarantine srv7",
               "volume-get: connected: call_timeout=60 connect_timeout=15 server=" + handle}));
}

TEST_F(QuarantineTest, OpenLeavesTheDescriptorNotCachable) {
    TezaServerConnection d = Server();
    d.setCachable(true);
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_FALSE(d.isCachable());
}

TEST_F(QuarantineTest, FailedOpenReturnsTheProbesStatusAndLogsEachStep) {
    StartLog();
    SetFailing(true);
    TezaServerConnection d = Server();
    TezaStatus status = d.open();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(status.reason, "refused");
    EXPECT_EQ(status.errnum, 13055);
    EXPECT_EQ(d.getServer(), nullptr);
    Lines messages = LogMessages();
    ASSERT_EQ(messages.size(), 7u);
    EXPECT_EQ(messages[4], std::string("volume-get: connection failed; reason='refused (13055)' "
                                       "address=") +
                               kAddress);
    EXPECT_EQ(messages[5], "volume-get: new quarantine for srv7");
    EXPECT_EQ(messages[6],
              std::string("volume-get: failed to connect to '") + kAddress + "' duration 0");
}

TEST_F(QuarantineTest, FailedOpenLogsTheSecondsItTook) {
    StartLog();
    SetFailing(true);
    _advanceOnProbe = 3;
    TezaServerConnection d = Server();
    d.open();
    EXPECT_EQ(LogMessages().back(),
              std::string("volume-get: failed to connect to '") + kAddress + "' duration 3");
}

TEST_F(QuarantineTest, AFailureWithAnotherErrnoQuarantinesToo) {
    _errnum = 13002;
    FailOnce();
    EXPECT_TRUE(Server().isQuarantined());
}

// --- open: cached handles -----------------------------------------------------------------------

TEST_F(QuarantineTest, OpenTakesACachedHandleWithoutConnecting) {
    TezaServerConnection first = Server();
    ASSERT_EQ(first.open().status, TezaStatus::Success);
    rk_server_t* handle = first.getServer();
    first.setCachable(true);
    first.close();
    StartLog();

    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_EQ(d.getServer(), handle);
    // Idle for less than 2 seconds: no probe, only the call time-out.
    EXPECT_EQ(rkdouble::Calls("rk_server_"), (Lines{"rk_server_set_timeout(h1, 60)"}));
    EXPECT_EQ(LogMessages(),
              (Lines{"TezaServerConnection::init\n", "volume-get: start with srv7",
                     "volume-get: attempt connection to 'srv7'\n",
                     "volume-get: found healthy cached connection for 'srv7'\n",
                     "volume-get: unquarantine srv7",
                     "volume-get: connected: call_timeout=60 connect_timeout=15 server=" +
                         PointerText(handle)}));
}

TEST_F(QuarantineTest, OpenProbesACachedHandleWithTheHealthPingTimeout) {
    TezaServerConnection first = Server();
    ASSERT_EQ(first.open().status, TezaStatus::Success);
    first.setCachable(true);
    first.close();
    testclock::Advance(2);
    rkdouble::ClearCalls();

    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_EQ(
        rkdouble::Calls("rk_server_"),
        (Lines{"rk_server_set_timeout(h1, 5)", "rk_server_invoke(h1, system-get-corvi-version)",
               "rk_server_set_timeout(h1, 60)"}));
}

TEST_F(QuarantineTest, CachedHandleClearsTheQuarantine) {
    FailOnce();
    TezaServerConnection other = Server();
    ASSERT_EQ(other.newConnection().status, TezaStatus::Success);
    other.setCachable(true);
    other.close();
    ASSERT_TRUE(Server().isQuarantined());

    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::HandleName(d.getServer()), "h2");
    EXPECT_FALSE(Server().isQuarantined());
}

// --- Quarantine -------------------------------------------------------------------------------

TEST_F(QuarantineTest, FirstFailureWritesOneNewQuarantineLine) {
    _log.Create();
    FailOnce();
    Lines messages = LogMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "volume-get: new quarantine for srv7"),
              1);
}

TEST_F(QuarantineTest, QuarantinedFor30SecondsForTheSameOrASmallerConnectTimeout) {
    FailOnce();
    testclock::Advance(29);
    rkdouble::ClearCalls();
    EXPECT_TRUE(Server(15).isQuarantined());
    EXPECT_TRUE(Server(10).isQuarantined());
    EXPECT_TRUE(rkdouble::Calls().empty());
}

TEST_F(QuarantineTest, ALargerConnectTimeoutIsAllowedThrough) {
    FailOnce();
    _log.Create();
    EXPECT_FALSE(Server(20).isQuarantined());
    EXPECT_EQ(LogMessages(), (Lines{"volume-get: allow quarantined srv7 to be used (20 > 15)"}));
}

TEST_F(QuarantineTest, ConnectTimeoutsAreComparedUnsigned) {
    FailOnce();
    _log.Create();
    // 4294967295 exceeds the causal 15 only as an unsigned number; the line prints it with %d.
    EXPECT_FALSE(Server(4294967295u).isQuarantined());
    EXPECT_EQ(LogMessages(), (Lines{"volume-get: allow quarantined srv7 to be used (-1 > 15)"}));
}

TEST_F(QuarantineTest, RepeatedFailureRaisesTheCausalTimeoutComparedUnsigned) {
    FailOnce();
    _log.Create();
    Server(4294967295u).quarantine();
    EXPECT_THAT(LogMessages(), Contains("volume-get: changing causal timeout from 15 to -1 srv7"));
}

TEST_F(QuarantineTest, ServerNotInTheMapIsNotQuarantined) {
    _log.Create();
    EXPECT_FALSE(Server().isQuarantined());
    EXPECT_EQ(LogMessages(), (Lines{"volume-get: srv7 not quarantined"}));
}

TEST_F(QuarantineTest, HealthCheckingDescriptorIsRefusedWithoutNetworkTraffic) {
    FailOnce();
    StartLog();
    TezaServerConnection d = Server(15, true);
    TezaStatus status = d.open();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(status.reason, "srv7 is not healthy");
    EXPECT_EQ(status.errnum, 14007);
    EXPECT_EQ(d.getServer(), nullptr);
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_EQ(LogMessages(), (Lines{"TezaServerConnection::init\n", "volume-get: start with srv7",
                                    "volume-get: attempt connection to 'srv7'\n",
                                    std::string("volume-get: failed to connect to '") + kAddress +
                                        "' duration 0"}));
}

TEST_F(QuarantineTest, DescriptorWithoutHealthCheckIsAlwaysTriedAndStillQuarantined) {
    FailOnce();
    rkdouble::ClearCalls();
    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::CountCalls("rk_server_open"), 1);
    // Its success cleared the entry.
    EXPECT_FALSE(Server(15, true).isQuarantined());
}

TEST_F(QuarantineTest, FailureWithoutHealthCheckAddsAnEntry) {
    FailOnce();
    EXPECT_TRUE(Server(15, true).isQuarantined());
}

TEST_F(QuarantineTest, HealthCheckingDescriptorConnectsWhenTheServerIsClear) {
    TezaServerConnection d = Server(15, true);
    EXPECT_EQ(d.open().status, TezaStatus::Success);
}

TEST_F(QuarantineTest, HealthCheckingDescriptorWithALargerTimeoutConnects) {
    FailOnce();
    TezaServerConnection d = Server(20, true);
    EXPECT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_FALSE(Server().isQuarantined());
}

TEST_F(QuarantineTest, DescriptorsDifferingOnlyInCredentialsOrTimeoutsShareOneEntry) {
    FailOnce();
    TezaServerConnection other("srv7", 1, 21, TezaServerConnection::STYLE_CERTIFICATE,
                               TezaServerConnection::TRANSPORT_HTTP, 443,
                               TezaServerConnection::SERVER_TYPE_CLUSTER, 99, 15, "root", "pw", 1);
    EXPECT_TRUE(other.isQuarantined());
    other.unquarantine();
    EXPECT_FALSE(Server().isQuarantined());
}

TEST_F(QuarantineTest, AnotherPortIsAnotherServer) {
    FailOnce();
    EXPECT_FALSE(Descriptor("srv7", 444).isQuarantined());
}

TEST_F(QuarantineTest, SecondFailureWithALargerTimeoutRaisesTheCausalTimeoutOnly) {
    FailOnce(15);
    testclock::Advance(10);
    _log.Create();
    FailOnce(20);
    Lines messages = LogMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "volume-get: changing causal timeout from 15 to 20 srv7"),
              1);
    EXPECT_THAT(messages, Not(Contains("volume-get: new quarantine for srv7")));
    // The expiry stays 30 seconds after the first failure.
    testclock::Advance(19);
    rkdouble::ClearCalls();
    EXPECT_TRUE(Server(20).isQuarantined());
    EXPECT_FALSE(Server(25).isQuarantined());
    EXPECT_TRUE(rkdouble::Calls().empty());
    testclock::Advance(1);
    Server(20).isQuarantined();
    EXPECT_EQ(rkdouble::CountCalls("rk_server_open"), 1);  // expired: probed
}

TEST_F(QuarantineTest, SecondFailureWithTheSameOrASmallerTimeoutChangesNothing) {
    FailOnce(15);
    _log.Create();
    FailOnce(15);
    FailOnce(10);
    for (const std::string& message : LogMessages()) {
        EXPECT_THAT(message, Not(HasSubstr("changing causal timeout")));
        EXPECT_THAT(message, Not(HasSubstr("new quarantine")));
    }
    EXPECT_FALSE(Server(16).isQuarantined());
}

TEST_F(QuarantineTest, AfterExpiryAFailingProbeExtendsTo60Then120ThenStays) {
    FailOnce();
    SetFailing(true);
    _log.Create();
    testclock::Advance(30);
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_THAT(LogMessages(), Contains("volume-get: quarantine expired for srv7"));
    EXPECT_THAT(LogMessages(), Contains("volume-get: extending quarantine to 60 seconds for srv7"));

    testclock::Advance(59);
    rkdouble::ClearCalls();
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_TRUE(rkdouble::Calls().empty());
    testclock::Advance(1);
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_THAT(LogMessages(),
                Contains("volume-get: extending quarantine to 120 seconds for srv7"));

    testclock::Advance(119);
    rkdouble::ClearCalls();
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_TRUE(rkdouble::Calls().empty());
    testclock::Advance(1);
    _log.Create();
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_THAT(LogMessages(),
                Contains("volume-get: extending quarantine to 120 seconds for srv7"));
    testclock::Advance(119);
    rkdouble::ClearCalls();
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_TRUE(rkdouble::Calls().empty());
}

TEST_F(QuarantineTest, ExpiredProbeUsesTheDescriptorItself) {
    FailOnce();
    SetFailing(true);
    testclock::Advance(30);
    rkdouble::ClearCalls();
    TezaServerConnection d = Server();
    EXPECT_TRUE(d.isQuarantined());
    EXPECT_EQ(rkdouble::Calls("rk_server_").front(), "rk_server_open(srv7, 1, 21)");
    EXPECT_EQ(rkdouble::Calls("rk_server_").back(), "rk_server_close(h2)");
    EXPECT_EQ(d.getServer(), nullptr);
}

TEST_F(QuarantineTest, AfterExpiryASucceedingProbeClearsAndKeepsItsHandle) {
    FailOnce();
    testclock::Advance(30);
    _log.Create();
    TezaServerConnection d = Server();
    EXPECT_FALSE(d.isQuarantined());
    EXPECT_NE(d.getServer(), nullptr);
    Lines messages = LogMessages();
    ASSERT_EQ(messages.size(), 5u);
    EXPECT_EQ(messages[0], "volume-get: quarantine expired for srv7");
    EXPECT_EQ(messages[3], "volume-get: success after quarantine expired for srv7");
    EXPECT_EQ(messages[4], "volume-get: unquarantine srv7");
    EXPECT_FALSE(Server().isQuarantined());
}

TEST_F(QuarantineTest, OpenAfterASucceedingExpiryProbeDropsTheProbesHandle) {
    FailOnce();  // h1, closed
    testclock::Advance(30);
    TezaServerConnection d = Server(15, true);
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    // h2 was the probe's handle: overwritten by the cache's null answer and never closed;
    // h3 is the fresh connection that open then made.
    EXPECT_EQ(rkdouble::HandleName(d.getServer()), "h3");
    d.close();
    EXPECT_EQ(rkdouble::HandlesOpened(), 3);
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);
    EXPECT_THAT(rkdouble::Calls(), Not(Contains("rk_server_close(h2)")));
}

TEST_F(QuarantineTest, EntryErasedWhileProbingIsNotExtended) {
    FailOnce();
    testclock::Advance(30);
    // The probe fails, and meanwhile another thread's success erased the entry.
    rkdouble::SetResponder([](const std::string&, const std::string&, rk_elem_t*) {
        Server().unquarantine();
        return rkdouble::Failed("refused", 13055);
    });
    _log.Create();
    EXPECT_TRUE(Server().isQuarantined());
    for (const std::string& message : LogMessages()) {
        EXPECT_THAT(message, Not(HasSubstr("extending quarantine")));
    }
    EXPECT_FALSE(Server().isQuarantined());
}

TEST_F(QuarantineTest, EverySuccessfulOpenUnquarantinesEvenWhenClear) {
    _log.Create();
    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_THAT(LogMessages(), Contains("volume-get: unquarantine srv7"));
}

TEST_F(QuarantineTest, UnquarantineOfAClearServerOnlyLogs) {
    _log.Create();
    Server().unquarantine();
    EXPECT_EQ(LogMessages(), (Lines{"volume-get: unquarantine srv7"}));
}

TEST_F(QuarantineTest, UnquarantineErasesItsOwnEntryAndLeavesTheOthers) {
    SetFailing(true);
    for (const char* host : {"a", "b"}) {
        TezaServerConnection d = Descriptor(host);
        EXPECT_NE(d.open().status, TezaStatus::Success);
    }
    Descriptor("a").unquarantine();
    EXPECT_FALSE(Descriptor("a").isQuarantined());
    EXPECT_TRUE(Descriptor("b").isQuarantined());
    Descriptor("b").unquarantine();
    EXPECT_FALSE(Descriptor("b").isQuarantined());

    // With the map empty again, the next failure starts a quarantine of its own.
    _log.Create();
    TezaServerConnection d = Descriptor("a");
    EXPECT_NE(d.open().status, TezaStatus::Success);
    EXPECT_THAT(LogMessages(), Contains("no proc: new quarantine for a"));
    EXPECT_TRUE(Descriptor("a").isQuarantined());
}

// --- Background probe ------------------------------------------------------------------------

TEST_F(QuarantineTest, BackgroundProbeOfAnAnsweringServerRemovesItsEntryAndClosesTheHandle) {
    FailOnce();
    rkdouble::ClearCalls();
    _log.Create();
    TezaServerConnection::probeQuarantinedServers();
    EXPECT_EQ(rkdouble::Calls("rk_server_"),
              (Lines{"rk_server_open(srv7, 1, 21)", "rk_server_set_style(h2, 1)",
                     "rk_server_set_server_type(h2, 2)",
                     "rk_server_set_transport_type(h2, 0, (null))", "rk_server_set_port(h2, 443)",
                     "rk_server_set_admin_user(h2, admin, secret)", "rk_server_set_timeout(h2, 15)",
                     "rk_server_invoke(h2, system-get-corvi-version)", "rk_server_close(h2)"}));
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
    Lines messages = LogMessages();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(Lines(messages.end() - 3, messages.end()),
              (Lines{"no proc: unquarantine srv7",
                     std::string("successful asynchronous unquarantine for '") + kAddress + "'",
                     "TezaServerConnection::close rk_server_close\n"}));
    EXPECT_FALSE(Server().isQuarantined());
}

TEST_F(QuarantineTest, FailedBackgroundProbeLeavesTheEntryAsItWas) {
    FailOnce();
    SetFailing(true);
    testclock::Advance(10);
    _log.Create();
    TezaServerConnection::probeQuarantinedServers();
    EXPECT_THAT(
        LogMessages(),
        Contains(std::string("unsuccessful asynchronous unquarantine for '") + kAddress + "'"));
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
    // Neither extended nor restarted: it still expires 30 seconds after the failure, and the
    // next extension is the first one.
    testclock::Advance(19);
    EXPECT_TRUE(Server().isQuarantined());
    testclock::Advance(1);
    _log.Create();
    EXPECT_TRUE(Server().isQuarantined());
    EXPECT_THAT(LogMessages(), Contains("volume-get: extending quarantine to 60 seconds for srv7"));
}

TEST_F(QuarantineTest, BackgroundProbeTriesEveryServerInMapOrderWhateverItsExpiry) {
    SetFailing(true);
    for (const char* host : {"b", "a", "c"}) {
        TezaServerConnection d = Descriptor(host);
        d.open();
    }
    rkdouble::ClearCalls();
    TezaServerConnection::probeQuarantinedServers();
    EXPECT_EQ(rkdouble::Calls("rk_server_open"),
              (Lines{"rk_server_open(a, 1, 21)", "rk_server_open(b, 1, 21)",
                     "rk_server_open(c, 1, 21)"}));
}

TEST_F(QuarantineTest, BackgroundProbeWithNothingQuarantinedDoesNothing) {
    TezaServerConnection::probeQuarantinedServers();
    EXPECT_TRUE(rkdouble::Calls().empty());
}

// --- Fatal misuse ---------------------------------------------------------------------------

TEST_F(QuarantineDeathTest, OpenOfAnOpenDescriptor) {
    TezaServerConnection d = Server();
    ASSERT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_DEATH(d.open(), AssertionText("_server == __null"));
}

TEST_F(QuarantineDeathTest, ExpiryProbeOnAnOpenDescriptor) {
    FailOnce();
    testclock::Advance(30);
    TezaServerConnection d = Server();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    EXPECT_DEATH(d.isQuarantined(), AssertionText("_server == __null"));
}

TEST_F(QuarantineDeathTest, FailedCallTimeoutAfterOpening) {
    TezaServerConnection d = Server();
    // The connect time-out is set during newConnection; the call time-out after it fails.
    rkdouble::QueueResult("rk_server_set_timeout", 1);
    rkdouble::SetResult("rk_server_set_timeout", 0);
    EXPECT_DEATH(d.open(), AssertionText("ret"));
}

}  // namespace
