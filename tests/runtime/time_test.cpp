// TezaTime and TezaTiming.

#include <gtest/gtest.h>
#include <sys/time.h>

#include <memory>
#include <type_traits>

#include "TezaTime.h"

namespace {

bool NotAfter(const timeval& a, const timeval& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec <= b.tv_usec);
}

TEST(TezaTime, TakesTheTimeOfItsMakingAndAValueOfZero) {
    timeval before;
    gettimeofday(&before, nullptr);
    TezaTime time;
    timeval after;
    gettimeofday(&after, nullptr);

    EXPECT_TRUE(NotAfter(before, time.getTimeval()));
    EXPECT_TRUE(NotAfter(time.getTimeval(), after));
    EXPECT_EQ(time.getValue(), 0);
}

// Generated code may derive timing records from TezaTime and delete them through the base.
class CountedTime : public TezaTime {
  public:
    explicit CountedTime(int* destroyed) : _destroyed(destroyed) {}
    ~CountedTime() override { ++*_destroyed; }

  private:
    int* _destroyed;
};

TEST(TezaTime, DerivedTimesAreDestroyedThroughTheBase) {
    static_assert(std::has_virtual_destructor<TezaTime>::value, "deleted through the base");
    int destroyed = 0;
    std::unique_ptr<TezaTime> time = std::make_unique<CountedTime>(&destroyed);
    time.reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(TezaTiming, MaxEntriesIsAnExportedFiveThousand) {
    // Taking the address makes the link use the runtime's exported definition.
    const int* maxEntries = &TezaTiming::MAX_ENTRIES;
    EXPECT_EQ(*maxEntries, 5000);
}

}  // namespace
