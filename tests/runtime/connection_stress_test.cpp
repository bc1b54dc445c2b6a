// Many threads open, release, age and probe at once, with the cache at capacity and quarantine
// entries appearing and vanishing: no handle is lost or closed twice, and nothing deadlocks.
// Bounded in work; meant to be run under ThreadSanitizer as well.

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaWrapper.h"
#include "rk_double.h"
#include "runtime_fixture.h"
#include "test_clock.h"

namespace {

const int kOpeners = 4;
const int kRounds = 50;
const int kBatch = 30;  // kOpeners * kBatch handles at once: more than the cache holds
const int kGoodHosts = 40;
const int kFlakyHosts = 8;

// Ends the process when the test has not finished in time: a deadlock would otherwise hang
// the run until the CTest time-out, without saying where.
class Watchdog {
  public:
    explicit Watchdog(std::chrono::seconds limit)
        : _thread([this, limit] {
              std::unique_lock<std::mutex> lock(_mutex);
              if (!_done.wait_for(lock, limit, [this] { return _finished; })) {
                  fprintf(stderr, "connection stress test: no progress, deadlock suspected\n");
                  abort();
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _finished = true;
        }
        _done.notify_all();
        _thread.join();
    }

  private:
    std::mutex _mutex;
    std::condition_variable _done;
    bool _finished = false;
    std::thread _thread;
};

class ConnectionStressTest : public testsupport::RuntimeTest {
  protected:
    static TezaServerConnection Server(std::mt19937& random) {
        int pick = static_cast<int>(random() % (kGoodHosts + kFlakyHosts));
        std::string host = pick < kGoodHosts ? "good-" + std::to_string(pick)
                                             : "flaky-" + std::to_string(pick - kGoodHosts);
        return testsupport::Descriptor(host, 443 + static_cast<int>(random() % 2),
                                       10 + static_cast<unsigned>(random() % 3));
    }
};

TEST_F(ConnectionStressTest, ConcurrentOpenReleaseAgeAndProbeLoseNoHandle) {
    Watchdog watchdog(std::chrono::seconds(240));
    rkdouble::SetRecording(false);
    // Flaky servers fail every third probe, so their quarantine entries come and go.
    std::atomic<unsigned> probes{0};
    rkdouble::SetResponder([&probes](const std::string& host, const std::string&, rk_elem_t*) {
        if (host.compare(0, 6, "flaky-") == 0 && ++probes % 3 == 0) {
            return rkdouble::Failed("refused", 13055);
        }
        return rkdouble::Passed();
    });
    rkdouble::SetInvokeDelay(std::chrono::microseconds(20));

    std::string error;
    ASSERT_TRUE(TezaWrapper::init(error));
    // The cache starts full.
    for (int i = 0; i < 100; ++i) {
        std::string host = "fill-" + std::to_string(i);
        TezaConnectionCache::releaseConnection(
            rk_server_open(host.c_str(), 1, 21), host, 1, 21,
            TezaServerConnection::STYLE_CERTIFICATE, TezaServerConnection::SERVER_TYPE_CLUSTER,
            TezaServerConnection::TRANSPORT_HTTP, 443, "admin", "secret");
    }

    std::atomic<bool> stop{false};
    std::atomic<int> opened{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> helpers;

    // Time runs at one second every quarter of a millisecond: handles become idle enough to be
    // probed and aged out, and quarantines expire.
    helpers.emplace_back([&stop] {
        while (!stop) {
            testclock::Advance(1);
            std::this_thread::sleep_for(std::chrono::microseconds(250));
        }
    });
    helpers.emplace_back([&stop] {
        while (!stop) {
            TezaConnectionCache::age();
            TezaServerConnection::probeQuarantinedServers();
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    // Asks about quarantined servers the way a health-checking caller does; an expired entry
    // is probed with the descriptor itself, which closes the probe's handle when destroyed.
    helpers.emplace_back([&stop] {
        std::mt19937 random(99);
        while (!stop) {
            TezaServerConnection d = Server(random);
            d.setUseHealthChecker(true);
            d.isQuarantined();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    // Further users of the library come and go while the cache is busy.
    helpers.emplace_back([&stop] {
        while (!stop) {
            std::string text;
            EXPECT_TRUE(TezaWrapper::init(text));
            TezaWrapper::cleanup();
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    pthread_t ager;
    ASSERT_EQ(pthread_create(&ager, nullptr, &TezaConnectionCache::ageThread, nullptr), 0);

    std::vector<std::thread> openers;
    for (int t = 0; t < kOpeners; ++t) {
        openers.emplace_back([t, &opened, &refused] {
            std::mt19937 random(static_cast<unsigned>(t + 1));
            for (int round = 0; round < kRounds; ++round) {
                std::vector<std::unique_ptr<TezaServerConnection>> batch;
                for (int i = 0; i < kBatch; ++i) {
                    batch.push_back(std::make_unique<TezaServerConnection>(Server(random)));
                    batch.back()->setProc("stress");
                    if (batch.back()->open().status == TezaStatus::Success) {
                        ++opened;
                    } else {
                        ++refused;
                    }
                }
                // Most handles go back to the cache, the others are closed.
                for (std::unique_ptr<TezaServerConnection>& d : batch) {
                    d->setCachable(random() % 4 != 0);
                    d->close();
                }
            }
        });
    }
    for (std::thread& opener : openers) {
        opener.join();
    }
    stop = true;
    for (std::thread& helper : helpers) {
        helper.join();
    }

    // The wrapper's count falls to zero: the cache closes what it holds and the ageing thread
    // sees the shut-down and ends.
    TezaWrapper::cleanup();
    TezaServerConnection::cleanup();
    ASSERT_EQ(pthread_join(ager, nullptr), 0);

    EXPECT_EQ(opened + refused, kOpeners * kRounds * kBatch);
    EXPECT_GT(opened, 0);
    EXPECT_GT(refused, 0);
    EXPECT_GT(rkdouble::HandlesOpened(), 100 + kOpeners * kBatch);
    EXPECT_EQ(rkdouble::HandlesOpened(), rkdouble::HandlesClosed());
    EXPECT_EQ(rkdouble::HandleMisuses(), 0);
}

}  // namespace
