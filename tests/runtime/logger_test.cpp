// TezaLogger::Log: the record format, the existence switch, silence on failure, and the cut of
// long messages.

#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "TezaLogger.h"
#include "log_file.h"

namespace {

class TezaLoggerTest : public ::testing::Test {
  protected:
    ScopedLogFile _log;
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
