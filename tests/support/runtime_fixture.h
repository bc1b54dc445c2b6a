// Shared fixture of the runtime's connection tests: a fresh test double and a frozen clock for
// each test, a log file the test may switch on, and a clean-up that puts the process-wide
// runtime state (quarantine, library start-up, cache, health checker) back to where a freshly
// loaded library starts, so that the tests of one executable can also run in one process.
#ifndef TEZA_TESTS_RUNTIME_FIXTURE_H_
#define TEZA_TESTS_RUNTIME_FIXTURE_H_

#include <gtest/gtest.h>
#include <time.h>

#include <string>
#include <vector>

#include "TezaServerConnection.h"
#include "log_file.h"
#include "rk_double.h"
#include "test_clock.h"

namespace testsupport {

// A Tuesday, 14 November 2023, 22:13:20 UTC.
const time_t kStartTime = 1700000000;

// Forgets every quarantined server, balances the library start-up done by opening
// connections, shuts the cache down, unregisters any health checker and resets the test
// double and the clock.
void ResetRuntime();

// A descriptor of srv7, version 1.21, style 1, transport 0, port 443, server type 2, call
// time-out 60, connect time-out 15, login "admin", password "secret", health-ping time-out 5,
// with the given changes.
TezaServerConnection Descriptor(const std::string& host = "srv7", int port = 443,
                                unsigned connectTimeout = 15);

// The text "%p" makes of a handle, as log lines show it.
std::string PointerText(const void* pointer);

class RuntimeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        rkdouble::Reset();
        testclock::Freeze(kStartTime);
    }
    void TearDown() override { ResetRuntime(); }

    std::vector<std::string> LogMessages() const { return _log.Messages(); }

    ScopedLogFile _log;
};

}  // namespace testsupport

#endif  // TEZA_TESTS_RUNTIME_FIXTURE_H_
