// Failing POSIX thread calls end the process with the assertion texts of the runtime's guards.

#include <gtest/gtest.h>

#include <string>

#include "TezaServerConnection.h"
#include "TezaServerHealthChecker.h"
#include "TezaWrapper.h"
#include "assertion.h"
#include "pthread_failures.h"
#include "runtime_fixture.h"
#include "test_interface.h"

namespace {

using PthreadFailureDeathTest = testsupport::RuntimeTest;

TEST_F(PthreadFailureDeathTest, FailingOnceWhenCreatingTheQuarantineMap) {
    TezaServerConnection d = testsupport::Descriptor();
    EXPECT_DEATH(
        {
            pthreadfail::FailNextOnce();
            d.quarantine();
        },
        AssertionText("!result"));
}

// Every successful open erases its descriptor from the quarantine under the quarantine's lock,
// also when nothing is quarantined, so a failing lock there ends the process all the same.
TEST_F(PthreadFailureDeathTest, FailingLockOfTheQuarantineWhileNothingIsQuarantined) {
    TezaServerConnection d = testsupport::Descriptor();
    d.quarantine();
    d.unquarantine();  // the map exists and is empty again
    ASSERT_FALSE(d.isQuarantined());
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexLock();
            d.unquarantine();
        },
        AssertionText("lock_res==0"));
}

TEST_F(PthreadFailureDeathTest, FailingLockInTheHealthCheckerRegistry) {
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexLock();
            TezaServerHealthCheckerRegistry::isServerHealthy("srv7");
        },
        AssertionText("!ret"));
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexLock();
            TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
        },
        AssertionText("!ret"));
}

TEST_F(PthreadFailureDeathTest, FailingUnlockInTheHealthCheckerRegistry) {
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexUnlock();
            TezaServerHealthCheckerRegistry::isServerHealthy("srv7");
        },
        AssertionText("!ret"));
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexUnlock();
            TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
        },
        AssertionText("!ret"));
}

TEST_F(PthreadFailureDeathTest, FailingLockInTezaWrapper) {
    std::string error;
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexLock();
            TezaWrapper::init(error);
        },
        AssertionText("lock_res==0"));
}

TEST_F(PthreadFailureDeathTest, FailingUnlockInTezaWrapper) {
    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    // Running already, so the wrapper's own unlock is the next one.
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexUnlock();
            TezaWrapper::init(error);
        },
        AssertionText("unlock_res==0"));
    TezaWrapper::cleanup();
}

// The tag counter's own lock is the first one an API call takes and releases.
TEST_F(PthreadFailureDeathTest, FailingLockOrUnlockOfTheTagCounter) {
    teza_volume::VolumeInterface volumes(testsupport::Descriptor());
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexLock();
            volumes.systemPing();
        },
        ::testing::AllOf(AssertionText("!ret"), ::testing::HasSubstr("getNextTag")));
    EXPECT_DEATH(
        {
            pthreadfail::FailNextMutexUnlock();
            volumes.systemPing();
        },
        ::testing::AllOf(AssertionText("!ret"), ::testing::HasSubstr("getNextTag")));
}

}  // namespace
