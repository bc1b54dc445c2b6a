// TezaLogger::Log: the record format, the existence switch, silence on failure, and the cut of
// long messages.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "TezaLogger.h"
#include "log_file.h"
#include "test_clock.h"

namespace {

class TezaLoggerTest : public ::testing::Test {
  protected:
    void TearDown() override { testclock::UseRealClock(); }

    // The time texts of the records written so far.
    std::vector<std::string> TimeTexts() const {
        const std::string contents = _log.Contents();
        const std::regex header("pid:[0-9]+ time:([^\n]*) message:");
        std::vector<std::string> texts;
        for (std::sregex_iterator it(contents.begin(), contents.end(), header), end; it != end;
             ++it) {
            texts.push_back((*it)[1]);
        }
        return texts;
    }

    ScopedLogFile _log;
};

// Sets TZ for the scope of one test and puts the previous value back.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) {
        const char* previous = getenv("TZ");
        _hadZone = previous != nullptr;
        _previous = _hadZone ? previous : "";
        Set(zone);
    }
    ~ScopedTimeZone() {
        if (_hadZone) {
            setenv("TZ", _previous.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

    // As a program changes its zone: the environment only, without tzset.
    void Set(const char* zone) { setenv("TZ", zone, 1); }

  private:
    bool _hadZone = false;
    std::string _previous;
};

TEST_F(TezaLoggerTest, WritesNothingAndCreatesNothingWithoutTheFile) {
    TezaLogger::Log("Initializing TezaWrapper Library\n");
    EXPECT_FALSE(_log.Exists());
}

TEST_F(TezaLoggerTest, RecordHasPidTimeAndMessage) {
    _log.Create();
    TezaLogger::Log("Initializing TezaWrapper Library\n");
    const std::string contents = _log.Contents();
    // "pid:<pid> time:<asctime text without its line end> message:<message>\n"; the
    // message's own line end leaves an empty line after the record.
    std::regex record("pid:" + std::to_string(getpid()) +
                      " time:[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} "
                      "[0-9]{4} message:Initializing TezaWrapper Library\n\n");
    EXPECT_TRUE(std::regex_match(contents, record)) << contents;
}

TEST_F(TezaLoggerTest, TimeIsLocalAndFollowsAChangeOfTimeZone) {
    ScopedTimeZone zone("UTC0");
    _log.Create();
    testclock::Freeze(1700000000);
    TezaLogger::Log("first");
    // Five hours east of UTC from now on, set as localtime would notice it.
    zone.Set("EAST-5");
    TezaLogger::Log("second");
    EXPECT_EQ(TimeTexts(),
              (std::vector<std::string>{"Tue Nov 14 22:13:20 2023", "Wed Nov 15 03:13:20 2023"}));
}

TEST_F(TezaLoggerTest, YearsOfFiveDigitsAreWrittenWhole) {
    ScopedTimeZone zone("UTC0");
    _log.Create();
    testclock::Freeze(253402300799);  // the last second of the year 9999
    TezaLogger::Log("last four-digit second\n");
    testclock::Advance(1);
    TezaLogger::Log("first five-digit second\n");
    testclock::Freeze(253402300800 + 86400LL * 365 * 90000);  // a Sunday in 99940
    TezaLogger::Log("far future\n");
    EXPECT_EQ(TimeTexts(),
              (std::vector<std::string>{"Fri Dec 31 23:59:59 9999", "Sat Jan  1 00:00:00 10000",
                                        "Sun Mar 31 00:00:00 99940"}));
    EXPECT_EQ(_log.Messages(),
              (std::vector<std::string>{"last four-digit second\n", "first five-digit second\n",
                                        "far future\n"}));
}

TEST_F(TezaLoggerTest, FormatsArgumentsLikePrintf) {
    _log.Create();
    TezaLogger::Log("%s: connect to '%s' timeout=%d", "volume-get", "srv7", 15);
    ASSERT_EQ(_log.Messages().size(), 1u);
    EXPECT_EQ(_log.Messages()[0], "volume-get: connect to 'srv7' timeout=15");
}

TEST_F(TezaLoggerTest, AppendsRecords) {
    _log.Create();
    TezaLogger::Log("first");
    TezaLogger::Log("second\n");
    ASSERT_EQ(_log.Messages().size(), 2u);
    EXPECT_EQ(_log.Messages()[0], "first");
    EXPECT_EQ(_log.Messages()[1], "second\n");
}

TEST_F(TezaLoggerTest, UnwritableLogIsSilent) {
    _log.MakeUnwritable();
    TezaLogger::Log("lost");
    EXPECT_TRUE(_log.Exists());
}

TEST_F(TezaLoggerTest, StopsWhenTheFileIsRemoved) {
    _log.Create();
    TezaLogger::Log("kept");
    _log.Remove();
    TezaLogger::Log("dropped");
    EXPECT_FALSE(_log.Exists());
}

TEST_F(TezaLoggerTest, LongMessageIsCutTo10239Characters) {
    _log.Create();
    std::string message(20000, 'x');
    TezaLogger::Log("%s", message.c_str());
    const std::string contents = _log.Contents();
    ASSERT_EQ(_log.Messages().size(), 1u);
    EXPECT_EQ(_log.Messages()[0], std::string(10239, 'x'));
    EXPECT_EQ(contents.back(), '\n');
}

TEST_F(TezaLoggerTest, MessageOf10239CharactersIsKeptWhole) {
    _log.Create();
    std::string message(10238, 'y');
    TezaLogger::Log("%sz", message.c_str());
    ASSERT_EQ(_log.Messages().size(), 1u);
    EXPECT_EQ(_log.Messages()[0], message + "z");
}

}  // namespace
