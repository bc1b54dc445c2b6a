// The test clock: its definitions of gettimeofday and time take the place of the C library's
// for the runtime, and it falls back to the real clock when not frozen.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <time.h>

#include <string>

#include "TezaLogger.h"
#include "runtime_fixture.h"
#include "test_clock.h"

namespace {

using TestClockTest = testsupport::RuntimeTest;

TEST_F(TestClockTest, FrozenTimeReachesTheRuntimesLogRecords) {
    testclock::Freeze(testsupport::kStartTime + 3600);
    _log.Create();
    TezaLogger::Log("tick");
    time_t frozen = testsupport::kStartTime + 3600;
    struct tm local;
    ASSERT_NE(localtime_r(&frozen, &local), nullptr);
    char text[64];
    ASSERT_NE(asctime_r(&local, text), nullptr);
    std::string expected(text);
    expected.pop_back();  // asctime's line end
    EXPECT_THAT(_log.Contents(), ::testing::HasSubstr("time:" + expected + " message:tick"));
}

TEST_F(TestClockTest, FrozenClockMovesOnlyWhenAdvanced) {
    struct timeval now;
    ASSERT_EQ(gettimeofday(&now, nullptr), 0);
    EXPECT_EQ(now.tv_sec, testsupport::kStartTime);
    EXPECT_EQ(now.tv_usec, 0);
    testclock::Advance(61);
    EXPECT_EQ(time(nullptr), testsupport::kStartTime + 61);
}

TEST_F(TestClockTest, UnfrozenClockReadsTheRealTime) {
    testclock::UseRealClock();
    struct timespec real;
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &real), 0);
    struct timeval now;
    ASSERT_EQ(gettimeofday(&now, nullptr), 0);
    EXPECT_LE(real.tv_sec, now.tv_sec);
    EXPECT_LE(now.tv_sec, real.tv_sec + 5);
    EXPECT_LE(time(nullptr) - real.tv_sec, 5);
}

TEST_F(TestClockTest, ScriptedFailuresEndAfterTheirCount) {
    testclock::FailGettimeofday(2);
    struct timeval now;
    EXPECT_EQ(gettimeofday(&now, nullptr), -1);
    EXPECT_EQ(gettimeofday(&now, nullptr), -1);
    EXPECT_EQ(gettimeofday(&now, nullptr), 0);
}

}  // namespace
