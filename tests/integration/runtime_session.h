// Fixture of the tests that run the runtime over the real client library: the log off, the
// library started for each test and cleaned up after it, and a check that every client handle
// opened during the test was closed once the connection cache is drained.
#ifndef TEZA_TESTS_INTEGRATION_RUNTIME_SESSION_H_
#define TEZA_TESTS_INTEGRATION_RUNTIME_SESSION_H_

#include <gtest/gtest.h>

#include <string>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaWrapper.h"
#include "log_file.h"
#include "rk.h"

// Closes every handle in the runtime's connection cache. The cache finds a handle by host and
// version within the key's hash bucket, not by the whole key (deliberately): after a call to
// one port or user, a call for another port or user of the same host and version may be handed
// that handle, for about one pair of keys in 203 - and so reach a server that has stopped, or
// the wrong one. Tests that talk to more than one endpoint of a host call this between them,
// so that every call reaches the server it names.
inline void ForgetCachedConnections() {
    TezaConnectionCache::cleanup();
    TezaConnectionCache::init();
}

class RuntimeSession : public ::testing::Test {
  protected:
    void SetUp() override {
        // The runtime's log stays off: these tests look at what the calls return.
        _log.Remove();
        rk_get_stats(&_start);
        std::string error;
        ASSERT_TRUE(TezaWrapper::init(error)) << error;
    }
    void TearDown() override {
        // The first open took a reference of its own; with both given back the cached handles
        // are closed and the client library shut down.
        TezaServerConnection::cleanup();
        TezaWrapper::cleanup();
        // So every client handle opened during the test has been closed.
        rk_stats_t end = {};
        rk_get_stats(&end);
        EXPECT_EQ(end.handles_opened - _start.handles_opened,
                  end.handles_closed - _start.handles_closed);
    }

    ScopedLogFile _log;

  private:
    rk_stats_t _start = {};
};

#endif  // TEZA_TESTS_INTEGRATION_RUNTIME_SESSION_H_
