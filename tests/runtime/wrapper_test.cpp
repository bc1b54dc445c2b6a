// TezaWrapper: reference-counted start-up and shut-down of the client library, the connection
// cache and the generated default type factories.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaWrapper.h"
#include "assertion.h"
#include "generated_symbols.h"
#include "rk_double.h"
#include "runtime_fixture.h"

namespace {

using Lines = std::vector<std::string>;

class TezaWrapperTest : public testsupport::RuntimeTest {
  protected:
    // Puts a handle of the double into the connection cache.
    static rk_server_t* CacheAHandle() {
        rk_server_t* h = rk_server_open("srv7", 1, 21);
        TezaConnectionCache::releaseConnection(
            h, "srv7", 1, 21, TezaServerConnection::STYLE_CERTIFICATE,
            TezaServerConnection::SERVER_TYPE_CLUSTER, TezaServerConnection::TRANSPORT_HTTP, 443,
            "admin", "secret");
        return h;
    }
};

using TezaWrapperDeathTest = TezaWrapperTest;

TEST_F(TezaWrapperTest, InitStartsTheClientLibraryTheCacheAndTheFactories) {
    _log.Create();
    int registrations = testsupport::RegisterDefaultTypeFactoryCalls();
    std::string error = "untouched";
    EXPECT_TRUE(TezaWrapper::init(error));
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_is_started()", "rk_startup(256)"}));
    EXPECT_EQ(testsupport::RegisterDefaultTypeFactoryCalls(), registrations + 1);
    EXPECT_EQ(LogMessages(),
              (Lines{"Initializing TezaWrapper Library\n", "Initializing TezaConnectionCache\n"}));
    rk_server_t* h = CacheAHandle();
    EXPECT_EQ(rkdouble::CountCalls("rk_server_close"), 0);  // the cache is running
    TezaWrapper::cleanup();
    EXPECT_TRUE(rkdouble::Settings(h).closed);
}

TEST_F(TezaWrapperTest, LastCleanupClosesCachedHandlesThenShutsTheClientLibraryDown) {
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    CacheAHandle();
    rkdouble::ClearCalls();
    _log.Create();
    TezaWrapper::cleanup();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)", "rk_shutdown()"}));
    EXPECT_EQ(LogMessages(),
              (Lines{"Cleanup TezaWrapper Library\n", "Shutting down TezaConnectionCache\n"}));
    EXPECT_FALSE(rkdouble::IsStarted());
}

TEST_F(TezaWrapperTest, InitTwiceAndCleanupOnceKeepsTheLibraryRunning) {
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    ASSERT_TRUE(TezaWrapper::init(error));
    EXPECT_EQ(rkdouble::CountCalls("rk_startup"), 1);
    rk_server_t* h = CacheAHandle();
    rkdouble::ClearCalls();
    TezaWrapper::cleanup();
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_FALSE(rkdouble::Settings(h).closed);
    TezaWrapper::cleanup();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)", "rk_shutdown()"}));
}

TEST_F(TezaWrapperTest, SecondInitWhileRunningStartsNothing) {
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    int registrations = testsupport::RegisterDefaultTypeFactoryCalls();
    rkdouble::ClearCalls();
    _log.Create();
    EXPECT_TRUE(TezaWrapper::init(error));
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_TRUE(LogMessages().empty());
    EXPECT_EQ(testsupport::RegisterDefaultTypeFactoryCalls(), registrations);
    TezaWrapper::cleanup();
    TezaWrapper::cleanup();
}

TEST_F(TezaWrapperTest, FailedInitReturnsFalseWithTheClientLibrarysMessage) {
    rkdouble::FailStartup("no licence");
    _log.Create();
    int registrations = testsupport::RegisterDefaultTypeFactoryCalls();
    std::string error;
    EXPECT_FALSE(TezaWrapper::init(error));
    EXPECT_EQ(error, "no licence");
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_is_started()", "rk_startup(256)", "rk_is_started()"}));
    EXPECT_EQ(LogMessages(),
              (Lines{"Initializing TezaWrapper Library\n", "Initializing TezaConnectionCache\n",
                     "Error in rk_startup: no licence\n"}));
    EXPECT_EQ(testsupport::RegisterDefaultTypeFactoryCalls(), registrations);
    TezaWrapper::cleanup();
}

TEST_F(TezaWrapperTest, FailedInitIsBalancedByACleanupWithoutShutdown) {
    rkdouble::FailStartup("no licence");
    std::string error;
    ASSERT_FALSE(TezaWrapper::init(error));
    rkdouble::ClearCalls();
    TezaWrapper::cleanup();
    EXPECT_TRUE(rkdouble::Calls().empty());
}

TEST_F(TezaWrapperDeathTest, FailedInitCountsExactlyOnce) {
    rkdouble::FailStartup("no licence");
    std::string error;
    ASSERT_FALSE(TezaWrapper::init(error));
    TezaWrapper::cleanup();
    EXPECT_DEATH(TezaWrapper::cleanup(), AssertionText("_refcnt>0"));
}

TEST_F(TezaWrapperTest, FailedInitLeavesTheCacheSetUp) {
    rkdouble::FailStartup("no licence");
    std::string error;
    ASSERT_FALSE(TezaWrapper::init(error));
    rk_server_t* h = CacheAHandle();
    EXPECT_FALSE(rkdouble::Settings(h).closed);
    TezaWrapper::cleanup();
    EXPECT_FALSE(rkdouble::Settings(h).closed);  // cleanup after a failed start leaves it
}

TEST_F(TezaWrapperTest, EveryInitAfterAFailureRetriesTheStart) {
    rkdouble::FailStartup("no licence");
    _log.Create();
    std::string error;
    ASSERT_FALSE(TezaWrapper::init(error));
    ASSERT_FALSE(TezaWrapper::init(error));
    EXPECT_EQ(rkdouble::CountCalls("rk_startup"), 2);
    Lines messages = LogMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Initializing TezaWrapper Library\n"),
              2);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Initializing TezaConnectionCache\n"),
              1);
    TezaWrapper::cleanup();
    TezaWrapper::cleanup();
}

TEST_F(TezaWrapperTest, SuccessfulInitAfterAFailureLeavesTheCallersErrorAlone) {
    rkdouble::FailStartup("no licence");
    std::string error;
    ASSERT_FALSE(TezaWrapper::init(error));
    ASSERT_EQ(error, "no licence");
    rkdouble::Reset();  // the client library starts from now on
    std::string second = "kept";
    EXPECT_TRUE(TezaWrapper::init(second));
    EXPECT_EQ(second, "kept");
    EXPECT_EQ(rkdouble::CountCalls("rk_startup"), 1);
    TezaWrapper::cleanup();
    rkdouble::ClearCalls();
    TezaWrapper::cleanup();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_shutdown()"}));
}

TEST_F(TezaWrapperTest, ClientLibraryStartedElsewhereIsAcceptedAndStillShutDown) {
    rkdouble::SetStarted(true);
    std::string error;
    EXPECT_TRUE(TezaWrapper::init(error));
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_is_started()"}));
    rkdouble::ClearCalls();
    TezaWrapper::cleanup();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_shutdown()"}));
}

TEST_F(TezaWrapperTest, StartedElsewhereDuringAFailedStartupIsReportedAsSuch) {
    rkdouble::QueueResult("rk_is_started", 0);
    rkdouble::QueueResult("rk_is_started", 1);
    rkdouble::FailStartup("already running");
    _log.Create();
    std::string error;
    EXPECT_FALSE(TezaWrapper::init(error));
    EXPECT_EQ(error, "already running");
    EXPECT_EQ(LogMessages().back(),
              "Error: TEZA initialized outside of TEZA Wrapper Library: already running\n");
    TezaWrapper::cleanup();
}

TEST_F(TezaWrapperTest, EveryCleanupIsLogged) {
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    ASSERT_TRUE(TezaWrapper::init(error));
    _log.Create();
    TezaWrapper::cleanup();
    TezaWrapper::cleanup();
    Lines messages = LogMessages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Cleanup TezaWrapper Library\n"), 2);
}

TEST_F(TezaWrapperTest, InitAfterTheLastCleanupStartsEverythingAgain) {
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    TezaWrapper::cleanup();
    rkdouble::ClearCalls();
    int registrations = testsupport::RegisterDefaultTypeFactoryCalls();
    EXPECT_TRUE(TezaWrapper::init(error));
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_is_started()", "rk_startup(256)"}));
    EXPECT_EQ(testsupport::RegisterDefaultTypeFactoryCalls(), registrations + 1);
    rk_server_t* h = CacheAHandle();
    EXPECT_FALSE(rkdouble::Settings(h).closed);
    TezaWrapper::cleanup();
}

TEST_F(TezaWrapperTest, ConcurrentBalancedCallsEndStopped) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                std::string error;
                EXPECT_TRUE(TezaWrapper::init(error));
                TezaWrapper::cleanup();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(rkdouble::IsStarted());
    EXPECT_EQ(rkdouble::CountCalls("rk_startup"), rkdouble::CountCalls("rk_shutdown"));
}

TEST_F(TezaWrapperDeathTest, CleanupWithoutInitIsFatalAfterItsLogLine) {
    _log.Create();
    EXPECT_DEATH(TezaWrapper::cleanup(), AssertionText("_refcnt>0"));
    // The child process wrote its record before it stopped.
    EXPECT_EQ(LogMessages(), (Lines{"Cleanup TezaWrapper Library\n"}));
}

}  // namespace
