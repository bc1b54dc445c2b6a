#include "fake_clock.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>

namespace {

std::atomic<bool> gFixed{false};
std::atomic<time_t> gNow{0};
std::atomic<bool> gFailStrftime{false};

using StrftimeFunction = size_t (*)(char*, size_t, const char*, const struct tm*);

// The C library's strftime, found behind this executable's own definition.
StrftimeFunction RealStrftime() {
    static const StrftimeFunction real =
        reinterpret_cast<StrftimeFunction>(dlsym(RTLD_NEXT, "strftime"));
    if (real == nullptr) {
        fprintf(stderr, "fake_clock: the C library's strftime was not found\n");
        abort();
    }
    return real;
}

}  // namespace

namespace testsupport {

time_t UtcTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm utc = {};
    utc.tm_year = year - 1900;
    utc.tm_mon = month - 1;
    utc.tm_mday = day;
    utc.tm_hour = hour;
    utc.tm_min = minute;
    utc.tm_sec = second;
    return timegm(&utc);
}

ScopedFixedTime::ScopedFixedTime(time_t now) : _wasFixed(gFixed.load()), _previous(gNow.load()) {
    gNow.store(now);
    gFixed.store(true);
}

ScopedFixedTime::~ScopedFixedTime() {
    gNow.store(_previous);
    gFixed.store(_wasFixed);
}

void FailStrftime() {
    gFailStrftime.store(true);
}

}  // namespace testsupport

// Exported explicitly: the build hides symbols by default.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    time_t now;
    if (gFixed.load()) {
        now = gNow.load();
    } else {
        struct timespec real;
        clock_gettime(CLOCK_REALTIME, &real);
        now = real.tv_sec;
    }
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

extern "C" __attribute__((visibility("default"))) size_t strftime(char* buffer, size_t size,
                                                                  const char* format,
                                                                  const struct tm* when) noexcept {
    if (gFailStrftime.load()) {
        return 0;
    }
    return RealStrftime()(buffer, size, format, when);
}
