// TezaConnectionCache: lookup by key, probing of idle handles, eviction at 100 entries,
// ageing after 60 seconds, behaviour before init and after cleanup, and the ageing thread.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "assertion.h"
#include "rk_double.h"
#include "runtime_fixture.h"
#include "test_clock.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::Contains;

const TezaServerConnection::Style kStyle = TezaServerConnection::STYLE_CERTIFICATE;
const TezaServerConnection::ServerType kType = TezaServerConnection::SERVER_TYPE_CLUSTER;
const TezaServerConnection::Transport kTransport = TezaServerConnection::TRANSPORT_HTTP;

// The bucket of a key, computed here independently: h = h * 31 + x over the host's bytes,
// the six numbers and the bytes of login and password, modulo 2^32, then modulo 203.
uint32_t Bucket(const std::string& host, int major, int minor, int style, int type, int transport,
                int port, const std::string& login, const std::string& password) {
    uint64_t h = 0;
    auto add = [&h](uint64_t x) { h = (h * 31 + x) % 4294967296ull; };
    for (unsigned char c : host) {
        add(c);
    }
    for (int v : {major, minor, style, type, transport, port}) {
        add(static_cast<uint32_t>(v));
    }
    for (unsigned char c : login + password) {
        add(c);
    }
    return static_cast<uint32_t>(h % 203);
}

class TezaConnectionCacheTest : public testsupport::RuntimeTest {
  protected:
    void SetUp() override {
        RuntimeTest::SetUp();
        TezaConnectionCache::init();
        rkdouble::ClearCalls();
    }

    // A new handle of the double for `host`.
    static rk_server_t* Open(const std::string& host = "srv7") {
        return rk_server_open(host.c_str(), 1, 21);
    }

    static void Release(rk_server_t* server, const std::string& host = "srv7", int port = 443,
                        int major = 1, const std::string& login = "admin") {
        TezaConnectionCache::releaseConnection(server, host, major, 21, kStyle, kType, kTransport,
                                               port, login, "secret");
    }

    static rk_server_t* Get(const std::string& host = "srv7", int port = 443, int major = 1,
                            const std::string& login = "admin", int timeout = 7) {
        return TezaConnectionCache::getConnection(host, major, 21, kStyle, kType, kTransport, port,
                                                  login, "secret", timeout);
    }

    static void FailProbes() {
        rkdouble::SetResponder([](const std::string&, const std::string&, rk_elem_t*) {
            return rkdouble::Failed("gone", 13055);
        });
    }
};

using TezaConnectionCacheDeathTest = TezaConnectionCacheTest;

// --- Set-up and shut-down -------------------------------------------------------------------

TEST_F(TezaConnectionCacheTest, InitLogsOnceAndASecondInitDoesNothing) {
    TezaConnectionCache::cleanup();
    _log.Create();
    TezaConnectionCache::init();
    rk_server_t* h = Open();
    Release(h);
    TezaConnectionCache::init();
    EXPECT_EQ(LogMessages(), (Lines{"Initializing TezaConnectionCache\n"}));
    EXPECT_EQ(Get(), h);  // the second init emptied nothing
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, CleanupClosesEveryHandleOldestFirst) {
    rk_server_t* h1 = Open();
    rk_server_t* h2 = Open("srv8");
    rk_server_t* h3 = Open();
    Release(h1);
    Release(h2, "srv8");
    Release(h3);
    rkdouble::ClearCalls();
    _log.Create();
    TezaConnectionCache::cleanup();
    EXPECT_EQ(rkdouble::Calls(),
              (Lines{"rk_server_close(h1)", "rk_server_close(h2)", "rk_server_close(h3)"}));
    EXPECT_EQ(LogMessages(), (Lines{"Shutting down TezaConnectionCache\n"}));
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
}

TEST_F(TezaConnectionCacheTest, SecondCleanupDoesNothing) {
    Release(Open());
    TezaConnectionCache::cleanup();
    rkdouble::ClearCalls();
    _log.Create();
    TezaConnectionCache::cleanup();
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_TRUE(LogMessages().empty());
}

TEST_F(TezaConnectionCacheTest, ReleaseAfterCleanupClosesAtOnce) {
    TezaConnectionCache::cleanup();
    rk_server_t* h = Open();
    rkdouble::ClearCalls();
    Release(h);
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
}

// A cache in the state of a freshly loaded library: never initialised. Each test case runs in
// a process of its own, so nothing has called init() before these.
using TezaConnectionCacheAtLoadTest = testsupport::RuntimeTest;

TEST_F(TezaConnectionCacheAtLoadTest, ReleaseBeforeInitClosesAtOnce) {
    rk_server_t* h = rk_server_open("srv7", 1, 21);
    rkdouble::ClearCalls();
    TezaConnectionCache::releaseConnection(h, "srv7", 1, 21, kStyle, kType, kTransport, 443,
                                           "admin", "secret");
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
    EXPECT_EQ(TezaConnectionCache::getConnection("srv7", 1, 21, kStyle, kType, kTransport, 443,
                                                 "admin", "secret", 7),
              nullptr);
}

TEST_F(TezaConnectionCacheAtLoadTest, AgeBeforeInitDoesNothing) {
    rk_server_t* h = rk_server_open("srv7", 1, 21);
    TezaConnectionCache::releaseConnection(h, "srv7", 1, 21, kStyle, kType, kTransport, 443,
                                           "admin", "secret");
    rkdouble::ClearCalls();
    testclock::Advance(1000);
    TezaConnectionCache::age();
    EXPECT_TRUE(rkdouble::Calls().empty());
}

TEST_F(TezaConnectionCacheTest, GetAfterCleanupReturnsNull) {
    Release(Open());
    TezaConnectionCache::cleanup();
    EXPECT_EQ(Get(), nullptr);
}

TEST_F(TezaConnectionCacheTest, InitAfterCleanupStartsEmpty) {
    Release(Open());
    TezaConnectionCache::cleanup();
    TezaConnectionCache::init();
    EXPECT_EQ(Get(), nullptr);
    rk_server_t* h = Open();
    Release(h);
    EXPECT_EQ(Get(), h);
    rk_server_close(h);
}

// --- getConnection ----------------------------------------------------------------------------

TEST_F(TezaConnectionCacheTest, EmptyCacheReturnsNullWithoutCalls) {
    EXPECT_EQ(Get(), nullptr);
    EXPECT_TRUE(rkdouble::Calls().empty());
}

TEST_F(TezaConnectionCacheTest, ImmediateGetReturnsTheSameHandleWithoutProbe) {
    rk_server_t* h = Open();
    Release(h);
    rkdouble::ClearCalls();
    EXPECT_EQ(Get(), h);
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_EQ(Get(), nullptr);  // taken out of the cache
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, HandleIdleForOneSecondIsNotProbed) {
    rk_server_t* h = Open();
    Release(h);
    testclock::Advance(1);
    rkdouble::ClearCalls();
    EXPECT_EQ(Get(), h);
    EXPECT_TRUE(rkdouble::Calls().empty());
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, HandleIdleForTwoSecondsIsProbedFirst) {
    rk_server_t* h = Open();
    Release(h);
    testclock::Advance(2);
    rkdouble::ClearCalls();
    EXPECT_EQ(Get("srv7", 443, 1, "admin", 7), h);
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_set_timeout(h1, 7)",
                                        "rk_server_invoke(h1, system-get-corvi-version)",
                                        "rk_results_status(results)", "rk_elem_free(results)"}));
    // The probe's time-out stays on the handle.
    EXPECT_EQ(rkdouble::Settings(h).timeout, 7);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, FailedProbeClosesTheHandleAndReturnsNull) {
    rk_server_t* h = Open();
    Release(h);
    testclock::Advance(2);
    FailProbes();
    rkdouble::ClearCalls();
    EXPECT_EQ(Get(), nullptr);
    EXPECT_EQ(rkdouble::Calls().back(), "rk_server_close(h1)");
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
    EXPECT_EQ(Get(), nullptr);
}

TEST_F(TezaConnectionCacheTest, HandlesForOneKeyComeBackNewestFirst) {
    rk_server_t* older = Open();
    rk_server_t* newer = Open();
    Release(older);
    Release(newer);
    EXPECT_EQ(Get(), newer);
    EXPECT_EQ(Get(), older);
    rk_server_close(older);
    rk_server_close(newer);
}

TEST_F(TezaConnectionCacheTest, OtherHostOrVersionIsNotReturned) {
    rk_server_t* h = Open();
    Release(h);
    EXPECT_EQ(Get("srv8"), nullptr);
    EXPECT_EQ(Get("srv7", 443, 2), nullptr);
    EXPECT_EQ(Get(), h);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, OtherSettingsInAnotherBucketAreNotReturned) {
    rk_server_t* h = Open();
    Release(h, "srv7", 443);
    int port = 444;
    while (Bucket("srv7", 1, 21, kStyle, kType, kTransport, port, "admin", "secret") ==
           Bucket("srv7", 1, 21, kStyle, kType, kTransport, 443, "admin", "secret")) {
        ++port;
    }
    EXPECT_EQ(Get("srv7", port), nullptr);
    EXPECT_EQ(Get("srv7", 443), h);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, OtherSettingsInTheSameBucketAreReturned) {
    // Only host and version are compared within a bucket: a handle released for port 443 is
    // found for another port whose key lands in the same bucket.
    uint32_t bucket = Bucket("srv7", 1, 21, kStyle, kType, kTransport, 443, "admin", "secret");
    int port = 444;
    while (Bucket("srv7", 1, 21, kStyle, kType, kTransport, port, "admin", "secret") != bucket) {
        ++port;
    }
    rk_server_t* h = Open();
    Release(h, "srv7", 443);
    EXPECT_EQ(Get("srv7", port), h);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, LoginAndPasswordAreHashed) {
    // Another login that lands in another bucket misses the handle.
    std::string login = "a";
    while (Bucket("srv7", 1, 21, kStyle, kType, kTransport, 443, login, "secret") ==
           Bucket("srv7", 1, 21, kStyle, kType, kTransport, 443, "admin", "secret")) {
        login += "a";
    }
    rk_server_t* h = Open();
    Release(h);
    EXPECT_EQ(Get("srv7", 443, 1, login), nullptr);
    EXPECT_EQ(Get(), h);
    rk_server_close(h);
}

// --- Eviction -------------------------------------------------------------------------------

TEST_F(TezaConnectionCacheTest, The101stReleaseClosesTheOldestAndReusesItsEntry) {
    std::vector<rk_server_t*> handles;
    for (int i = 0; i < 101; ++i) {
        handles.push_back(Open("srv" + std::to_string(i)));
    }
    for (int i = 0; i < 100; ++i) {
        Release(handles[i], "srv" + std::to_string(i));
    }
    rkdouble::ClearCalls();
    Release(handles[100], "srv100");
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
    EXPECT_EQ(Get("srv0"), nullptr);
    for (int i = 1; i <= 100; ++i) {
        EXPECT_EQ(Get("srv" + std::to_string(i)), handles[i]) << i;
        rk_server_close(handles[i]);
    }
}

TEST_F(TezaConnectionCacheTest, EvictionTakesTheLeastRecentlyReleased) {
    std::vector<rk_server_t*> handles;
    for (int i = 0; i < 100; ++i) {
        handles.push_back(Open("srv" + std::to_string(i)));
        Release(handles.back(), "srv" + std::to_string(i));
    }
    // Taking srv0 out and releasing it again makes srv1 the oldest.
    ASSERT_EQ(Get("srv0"), handles[0]);
    Release(handles[0], "srv0");
    rkdouble::ClearCalls();
    rk_server_t* extra = Open("extra");
    Release(extra, "extra");
    EXPECT_EQ(rkdouble::Calls().back(), "rk_server_close(h2)");
    EXPECT_EQ(Get("srv0"), handles[0]);
    rk_server_close(handles[0]);
}

TEST_F(TezaConnectionCacheTest, OneServerMayHoldEveryEntry) {
    std::vector<rk_server_t*> handles;
    for (int i = 0; i < 100; ++i) {
        handles.push_back(Open());
        Release(handles.back());
    }
    for (int i = 99; i >= 0; --i) {
        EXPECT_EQ(Get(), handles[i]);
        rk_server_close(handles[i]);
    }
    EXPECT_EQ(Get(), nullptr);
}

// --- Ageing ---------------------------------------------------------------------------------

TEST_F(TezaConnectionCacheTest, AgeKeepsAHandleIdleForExactly60Seconds) {
    rk_server_t* h = Open();
    Release(h);
    testclock::Advance(60);
    rkdouble::ClearCalls();
    TezaConnectionCache::age();
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_EQ(Get("srv7", 443, 1, "admin", 7), h);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheTest, AgeClosesAHandleIdleFor61Seconds) {
    Release(Open());
    testclock::Advance(61);
    rkdouble::ClearCalls();
    TezaConnectionCache::age();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
    EXPECT_EQ(Get(), nullptr);
}

TEST_F(TezaConnectionCacheTest, AgeClosesOldestFirstAndStopsAtTheFirstYoungEnough) {
    Release(Open());
    testclock::Advance(10);
    Release(Open("srv8"), "srv8");
    testclock::Advance(40);
    rk_server_t* young = Open();
    Release(young);
    testclock::Advance(21);  // idle 71, 61 and 21 seconds
    rkdouble::ClearCalls();
    TezaConnectionCache::age();
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)", "rk_server_close(h2)"}));
    EXPECT_EQ(Get(), young);
    rk_server_close(young);
}

TEST_F(TezaConnectionCacheTest, AgedEntriesAreReusable) {
    for (int i = 0; i < 100; ++i) {
        Release(Open("srv" + std::to_string(i)), "srv" + std::to_string(i));
    }
    testclock::Advance(61);
    TezaConnectionCache::age();
    ASSERT_EQ(rkdouble::HandlesOpen(), 0);
    rkdouble::ClearCalls();
    for (int i = 0; i < 100; ++i) {
        Release(Open("new" + std::to_string(i)), "new" + std::to_string(i));
    }
    EXPECT_EQ(rkdouble::CountCalls("rk_server_close"), 0);  // no eviction
}

TEST_F(TezaConnectionCacheTest, AgeAfterCleanupDoesNothing) {
    TezaConnectionCache::cleanup();
    rkdouble::ClearCalls();
    testclock::Advance(1000);
    TezaConnectionCache::age();
    EXPECT_TRUE(rkdouble::Calls().empty());
}
TEST_F(TezaConnectionCacheTest, HashTakesHostBytesAsUnsigned) {
    // Within a bucket a lookup matches host and version only, so a handle released for one
    // port is found for another port exactly when both keys share a bucket. Two ports are
    // chosen that share one under the unsigned hash but would not if the host's bytes above
    // 0x7f were taken as signed.
    const std::string host = "h\xc3\xa9te";
    auto signedBucket = [&](int port) {
        uint64_t h = 0;
        auto add = [&h](uint64_t x) { h = (h * 31 + x) % 4294967296ull; };
        for (char c : host) {
            add(static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c))));
        }
        for (int v : {1, 21, static_cast<int>(kStyle), static_cast<int>(kType),
                      static_cast<int>(kTransport), port}) {
            add(static_cast<uint32_t>(v));
        }
        for (unsigned char c : std::string("adminsecret")) {
            add(c);
        }
        return static_cast<uint32_t>(h % 203);
    };
    auto bucket = [&](int port) {
        return Bucket(host, 1, 21, kStyle, kType, kTransport, port, "admin", "secret");
    };
    int other = 0;
    for (int port = 1; port < 1000000 && other == 0; ++port) {
        if (port != 443 && bucket(port) == bucket(443) && signedBucket(port) != signedBucket(443)) {
            other = port;
        }
    }
    ASSERT_NE(other, 0);
    rk_server_t* h = Open(host);
    Release(h, host, 443);
    EXPECT_EQ(Get(host, other), h);
}

TEST_F(TezaConnectionCacheTest, HashTakesEveryByteOfKeysOfAnyLength) {
    // Hosts and logins of 1 to 9 bytes: for each, a port that shares the bucket of port 443
    // finds the handle and one that does not misses it, so the cache's bucket is the one
    // computed here for every length.
    for (size_t length = 1; length <= 9; ++length) {
        const std::string host = "h" + std::string(length - 1, static_cast<char>('0' + length));
        const std::string login(length, 'a');
        auto bucket = [&](int port) {
            return Bucket(host, 1, 21, kStyle, kType, kTransport, port, login, "secret");
        };
        int same = 444;
        while (bucket(same) != bucket(443)) {
            ++same;
        }
        int other = 444;
        while (bucket(other) == bucket(443)) {
            ++other;
        }
        rk_server_t* h = Open(host);
        Release(h, host, 443, 1, login);
        EXPECT_EQ(Get(host, other, 1, login), nullptr) << "length " << length;
        EXPECT_EQ(Get(host, same, 1, login), h) << "length " << length;
        rk_server_close(h);
    }
}

// --- The ageing thread ----------------------------------------------------------------------

TEST_F(TezaConnectionCacheTest, AgeThreadAgesAndProbesUntilCleanup) {
    // One handle idle for more than 60 seconds and one quarantined server that answers.
    Release(Open());
    testclock::Advance(61);
    TezaServerConnection down = testsupport::Descriptor("down");
    down.quarantine();
    rkdouble::ClearCalls();

    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &TezaConnectionCache::ageThread, nullptr), 0);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while ((rkdouble::HandlesOpen() != 0 || down.isQuarantined()) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    TezaConnectionCache::cleanup();
    void* result = reinterpret_cast<void*>(1);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr);
    EXPECT_THAT(rkdouble::Calls(), Contains("rk_server_close(h1)"));
    EXPECT_THAT(rkdouble::Calls(), Contains("rk_server_open(down, 1, 21)"));
    EXPECT_FALSE(down.isQuarantined());
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
}

TEST_F(TezaConnectionCacheTest, AgeThreadAgesOnEverySecondPassAndProbesOnEvery) {
    // Ten handles released one second apart; none is idle for more than 60 seconds yet.
    std::vector<std::string> cached;
    for (int i = 0; i < 10; ++i) {
        rk_server_t* h = Open("srv" + std::to_string(i));
        cached.push_back(rkdouble::HandleName(h));
        Release(h, "srv" + std::to_string(i));
        testclock::Advance(1);
    }
    testclock::Advance(50);  // the oldest is now exactly 60 seconds idle
    // Each pass probes the quarantined server once, and each probe moves the clock one
    // second on: in pass p (from 0) the handles released p + 1 or more seconds before the
    // newest one have become too old, and an ageing in that pass closes them.
    TezaServerConnection down = testsupport::Descriptor("down");
    down.quarantine();
    auto probes = std::make_shared<std::atomic<int>>(0);
    rkdouble::SetResponder([probes](const std::string&, const std::string&, rk_elem_t*) {
        testclock::Advance(1);
        ++*probes;
        return rkdouble::Failed("still down", 13055);
    });
    rkdouble::ClearCalls();

    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &TezaConnectionCache::ageThread, nullptr), 0);
    // Eleven passes age every handle; the twelfth probe shows the eleventh pass is over.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (probes->load() < 12 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    TezaConnectionCache::cleanup();
    ASSERT_EQ(pthread_join(thread, nullptr), 0);

    // The cached handles each pass closed, pass by pass, up to the last of them.
    std::vector<std::vector<std::string>> passes;
    for (const std::string& call : rkdouble::Calls()) {
        if (call.rfind("rk_server_invoke(", 0) == 0) {
            passes.emplace_back();
        }
        for (const std::string& name : cached) {
            if (call == "rk_server_close(" + name + ")") {
                ASSERT_FALSE(passes.empty()) << "closed before the first probe: " << call;
                passes.back().push_back(name);
            }
        }
    }
    const std::vector<std::vector<std::string>> expected = {{cached[0]},
                                                            {},
                                                            {cached[1], cached[2]},
                                                            {},
                                                            {cached[3], cached[4]},
                                                            {},
                                                            {cached[5], cached[6]},
                                                            {},
                                                            {cached[7], cached[8]},
                                                            {},
                                                            {cached[9]}};
    ASSERT_GE(passes.size(), expected.size());
    passes.resize(expected.size());
    EXPECT_EQ(passes, expected);
    EXPECT_TRUE(down.isQuarantined());
}

// --- Fatal misuse ---------------------------------------------------------------------------

TEST_F(TezaConnectionCacheDeathTest, ClockFailureOnRelease) {
    rk_server_t* h = Open();
    testclock::FailGettimeofday();
    EXPECT_DEATH(Release(h), AssertionText("!ret"));
    testclock::FailGettimeofday(0);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheDeathTest, ClockFailureOnLookup) {
    rk_server_t* h = Open();
    Release(h);
    testclock::FailGettimeofday();
    EXPECT_DEATH(Get(), AssertionText("!ret"));
    testclock::FailGettimeofday(0);
}

TEST_F(TezaConnectionCacheDeathTest, ClockFailureOnAge) {
    testclock::FailGettimeofday();
    EXPECT_DEATH(TezaConnectionCache::age(), AssertionText("!ret"));
    testclock::FailGettimeofday(0);
}

TEST_F(TezaConnectionCacheDeathTest, FailedTimeoutBeforeTheProbe) {
    Release(Open());
    testclock::Advance(2);
    rkdouble::SetResult("rk_server_set_timeout", 0);
    EXPECT_DEATH(Get(), AssertionText("ret"));
}

TEST_F(TezaConnectionCacheDeathTest, FailedCloseAfterAFailedProbe) {
    Release(Open());
    testclock::Advance(2);
    FailProbes();
    rkdouble::SetResult("rk_server_close", 0);
    EXPECT_DEATH(Get(), AssertionText("ret"));
    rkdouble::SetResult("rk_server_close", 1);
}

TEST_F(TezaConnectionCacheDeathTest, FailedCloseOnReleaseWhileNotRunning) {
    TezaConnectionCache::cleanup();
    rk_server_t* h = Open();
    rkdouble::SetResult("rk_server_close", 0);
    EXPECT_DEATH(Release(h), AssertionText("ret"));
    rkdouble::SetResult("rk_server_close", 1);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheDeathTest, FailedCloseOfAnEvictedHandle) {
    for (int i = 0; i < 100; ++i) {
        Release(Open("srv" + std::to_string(i)), "srv" + std::to_string(i));
    }
    rk_server_t* h = Open("extra");
    rkdouble::SetResult("rk_server_close", 0);
    EXPECT_DEATH(Release(h, "extra"), AssertionText("ret"));
    rkdouble::SetResult("rk_server_close", 1);
    rk_server_close(h);
}

TEST_F(TezaConnectionCacheDeathTest, FailedCloseOfAnAgedHandle) {
    Release(Open());
    testclock::Advance(61);
    rkdouble::SetResult("rk_server_close", 0);
    EXPECT_DEATH(TezaConnectionCache::age(), AssertionText("ret"));
    rkdouble::SetResult("rk_server_close", 1);
}

TEST_F(TezaConnectionCacheDeathTest, FailedCloseOnCleanup) {
    Release(Open());
    rkdouble::SetResult("rk_server_close", 0);
    EXPECT_DEATH(TezaConnectionCache::cleanup(), AssertionText("ret"));
    rkdouble::SetResult("rk_server_close", 1);
}

}  // namespace
