#include "test_clock.h"

#include <errno.h>
#include <sys/time.h>

#include <atomic>

namespace {

std::atomic<bool> gFrozen{false};
std::atomic<long long> gFrozenSeconds{0};
std::atomic<int> gFailures{0};

// The real clock, read without going through the functions defined below.
struct timespec RealNow() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

}  // namespace

namespace testclock {

void Freeze(time_t seconds) {
    gFrozenSeconds = seconds;
    gFrozen = true;
}

void Advance(time_t seconds) {
    gFrozenSeconds += seconds;
}

void UseRealClock() {
    gFrozen = false;
    gFailures = 0;
}

void FailGettimeofday(int times) {
    gFailures = times;
}

time_t Now() {
    return gFrozen ? static_cast<time_t>(gFrozenSeconds.load()) : RealNow().tv_sec;
}

}  // namespace testclock

// The executable's definitions take the place of the C library's for every caller. The
// executable is built with hidden visibility by default, so they are marked for export.
extern "C" __attribute__((visibility("default"))) int gettimeofday(struct timeval* __restrict tv,
                                                                   void* __restrict) noexcept {
    int failures = gFailures.load();
    while (failures > 0) {
        if (gFailures.compare_exchange_weak(failures, failures - 1)) {
            errno = EFAULT;
            return -1;
        }
    }
    if (gFrozen) {
        tv->tv_sec = static_cast<time_t>(gFrozenSeconds.load());
        tv->tv_usec = 0;
        return 0;
    }
    struct timespec now = RealNow();
    tv->tv_sec = now.tv_sec;
    tv->tv_usec = now.tv_nsec / 1000;
    return 0;
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    time_t now = testclock::Now();
    if (result != nullptr) {
        *result = now;
    }
    return now;
}
