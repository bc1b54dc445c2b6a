// TezaServerHealthCheckerRegistry: the single registered checker and the default flag.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "TezaServerConnection.h"
#include "TezaServerHealthChecker.h"
#include "rk_double.h"
#include "runtime_fixture.h"

namespace {

using Lines = std::vector<std::string>;

// Healthy unless the host is "bad"; counts its calls and notes its destruction.
class FakeChecker : public TezaServerHealthChecker {
  public:
    explicit FakeChecker(bool* destroyed = nullptr) : _destroyed(destroyed) {}
    ~FakeChecker() override {
        if (_destroyed != nullptr) {
            *_destroyed = true;
        }
    }
    bool isHealthy(const std::string& host) override {
        ++calls;
        hosts.push_back(host);
        return host != "bad";
    }

    int calls = 0;
    std::vector<std::string> hosts;

  private:
    bool* _destroyed;
};

// Answers false for every host.
class NothingIsHealthy : public TezaServerHealthChecker {
  public:
    bool isHealthy(const std::string&) override { return false; }
};

using HealthCheckerRegistryTest = testsupport::RuntimeTest;

TEST_F(HealthCheckerRegistryTest, WithoutACheckerEveryHostIsHealthy) {
    EXPECT_TRUE(TezaServerHealthCheckerRegistry::isServerHealthy("srv7"));
    EXPECT_TRUE(TezaServerHealthCheckerRegistry::isServerHealthy(""));
}

TEST_F(HealthCheckerRegistryTest, TheRegisteredCheckerAnswers) {
    FakeChecker checker;
    TezaServerHealthCheckerRegistry::registerHealthChecker(&checker);
    EXPECT_TRUE(TezaServerHealthCheckerRegistry::isServerHealthy("srv7"));
    EXPECT_FALSE(TezaServerHealthCheckerRegistry::isServerHealthy("bad"));
    EXPECT_EQ(checker.hosts, (Lines{"srv7", "bad"}));
    TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
}

TEST_F(HealthCheckerRegistryTest, RegisteringNullMakesEveryHostHealthyAgain) {
    NothingIsHealthy checker;
    TezaServerHealthCheckerRegistry::registerHealthChecker(&checker);
    ASSERT_FALSE(TezaServerHealthCheckerRegistry::isServerHealthy("srv7"));
    TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
    EXPECT_TRUE(TezaServerHealthCheckerRegistry::isServerHealthy("srv7"));
}

TEST_F(HealthCheckerRegistryTest, ASecondCheckerReplacesTheFirstWithoutDeletingIt) {
    bool firstDestroyed = false;
    FakeChecker first(&firstDestroyed);
    NothingIsHealthy second;
    TezaServerHealthCheckerRegistry::registerHealthChecker(&first);
    TezaServerHealthCheckerRegistry::registerHealthChecker(&second);
    EXPECT_FALSE(TezaServerHealthCheckerRegistry::isServerHealthy("srv7"));
    EXPECT_EQ(first.calls, 0);
    EXPECT_FALSE(firstDestroyed);
    TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
}

TEST_F(HealthCheckerRegistryTest, DefaultIsFalseUntilSet) {
    EXPECT_FALSE(TezaServerHealthCheckerRegistry::useHealthCheckerByDefault());
    TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(true);
    EXPECT_TRUE(TezaServerHealthCheckerRegistry::useHealthCheckerByDefault());
    TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(false);
    EXPECT_FALSE(TezaServerHealthCheckerRegistry::useHealthCheckerByDefault());
}

TEST_F(HealthCheckerRegistryTest, SettingTheDefaultLogsItAsANumberWithoutLineEnd) {
    _log.Create();
    TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(true);
    TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(false);
    EXPECT_EQ(LogMessages(),
              (Lines{"setUseHealthCheckerByDefault: 1", "setUseHealthCheckerByDefault: 0"}));
}

TEST_F(HealthCheckerRegistryTest, ChecksAreSerialised) {
    // Two threads check at once; the checker sees one call at a time.
    class SlowChecker : public TezaServerHealthChecker {
      public:
        bool isHealthy(const std::string&) override {
            int inside = ++_inside;
            int seen = _maxInside.load();
            while (inside > seen && !_maxInside.compare_exchange_weak(seen, inside)) {
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            --_inside;
            return true;
        }
        int maxInside() const { return _maxInside; }

      private:
        std::atomic<int> _inside{0};
        std::atomic<int> _maxInside{0};
    };
    SlowChecker checker;
    TezaServerHealthCheckerRegistry::registerHealthChecker(&checker);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 10; ++i) {
                TezaServerHealthCheckerRegistry::isServerHealthy("srv7");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(checker.maxInside(), 1);
    TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
}

TEST_F(HealthCheckerRegistryTest, OpeningAConnectionNeverAsksTheRegistry) {
    FakeChecker checker;
    TezaServerHealthCheckerRegistry::registerHealthChecker(&checker);
    TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(true);
    TezaServerConnection d = testsupport::Descriptor("bad");
    d.setUseHealthChecker(true);
    EXPECT_EQ(d.open().status, TezaStatus::Success);
    EXPECT_EQ(checker.calls, 0);
    TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
}

}  // namespace
