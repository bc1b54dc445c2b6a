// Matchers for the runtime's fatal assertions.
#ifndef TEZA_TESTS_ASSERTION_H_
#define TEZA_TESTS_ASSERTION_H_

#include <gmock/gmock.h>

#include <string>

// Matches the C library's assertion report for exactly this expression text.
inline ::testing::Matcher<const std::string&> AssertionText(const std::string& expression) {
    return ::testing::HasSubstr("Assertion `" + expression + "' failed.");
}

#endif  // TEZA_TESTS_ASSERTION_H_
