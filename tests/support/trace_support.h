// Helpers for tests of trace output: owning element pointers and captured standard output.
#ifndef TEZA_TESTS_TRACE_SUPPORT_H_
#define TEZA_TESTS_TRACE_SUPPORT_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "rk.h"

namespace testsupport {

struct ElemDeleter {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemDeleter>;

// What `body` writes to standard output.
template <typename Body>
std::string CapturedStdout(Body&& body) {
    ::testing::internal::CaptureStdout();
    std::forward<Body>(body)();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace testsupport

#endif  // TEZA_TESTS_TRACE_SUPPORT_H_
