// Helpers for tests of trace output: owning element pointers, UTC times for the test clock
// and captured standard output.
#ifndef TEZA_TESTS_TRACE_SUPPORT_H_
#define TEZA_TESTS_TRACE_SUPPORT_H_

#include <gtest/gtest.h>
#include <time.h>

#include <memory>
#include <string>
#include <utility>

#include "rk.h"

namespace testsupport {

struct ElemDeleter {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemDeleter>;

// Seconds since the epoch of the given UTC date and time, for testclock::Freeze.
inline time_t UtcTime(int year, int month, int day, int hour, int minute, int second) {
    struct tm utc = {};
    utc.tm_year = year - 1900;
    utc.tm_mon = month - 1;
    utc.tm_mday = day;
    utc.tm_hour = hour;
    utc.tm_min = minute;
    utc.tm_sec = second;
    return timegm(&utc);
}

// What `body` writes to standard output.
template <typename Body>
std::string CapturedStdout(Body&& body) {
    ::testing::internal::CaptureStdout();
    std::forward<Body>(body)();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace testsupport

#endif  // TEZA_TESTS_TRACE_SUPPORT_H_
