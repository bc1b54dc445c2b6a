// TezaCounter: the four counts, and exact totals under concurrent counting.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "TezaCounter.h"

namespace {

TEST(TezaCounter, StartsAtZero) {
    TezaCounter counter;
    EXPECT_EQ(counter.getSuccesses(), 0u);
    EXPECT_EQ(counter.getFailures(), 0u);
    EXPECT_EQ(counter.getFlaggedSuccesses(), 0u);
    EXPECT_EQ(counter.getFlaggedFailures(), 0u);
}

TEST(TezaCounter, FlagCountsOnlyAmongTheFlaggedOnesToo) {
    TezaCounter counter;
    counter.success(false);
    counter.success(true);
    counter.success(false);
    counter.failure(true);
    counter.failure(true);
    counter.failure(false);
    counter.failure(false);
    EXPECT_EQ(counter.getSuccesses(), 3u);
    EXPECT_EQ(counter.getFlaggedSuccesses(), 1u);
    EXPECT_EQ(counter.getFailures(), 4u);
    EXPECT_EQ(counter.getFlaggedFailures(), 2u);
}

TEST(TezaCounter, CountsAreExactUnderConcurrentCalls) {
    TezaCounter counter;
    const int kThreads = 8;
    const int kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&counter, t] {
            for (int i = 0; i < kRounds; ++i) {
                // Every thread mixes all four kinds of update.
                const bool flag = (i + t) % 4 == 0;
                if (i % 3 == 0) {
                    counter.failure(flag);
                } else {
                    counter.success(flag);
                }
                if (i % 1000 == 0) {
                    // Readers run alongside the writers.
                    EXPECT_LE(counter.getFlaggedSuccesses(), counter.getSuccesses());
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    uint64_t successes = 0, failures = 0, flaggedSuccesses = 0, flaggedFailures = 0;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kRounds; ++i) {
            const bool flag = (i + t) % 4 == 0;
            if (i % 3 == 0) {
                ++failures;
                flaggedFailures += flag ? 1 : 0;
            } else {
                ++successes;
                flaggedSuccesses += flag ? 1 : 0;
            }
        }
    }
    EXPECT_EQ(counter.getSuccesses(), successes);
    EXPECT_EQ(counter.getFailures(), failures);
    EXPECT_EQ(counter.getFlaggedSuccesses(), flaggedSuccesses);
    EXPECT_EQ(counter.getFlaggedFailures(), flaggedFailures);
    EXPECT_EQ(successes + failures, static_cast<uint64_t>(kThreads) * kRounds);
}

}  // namespace
