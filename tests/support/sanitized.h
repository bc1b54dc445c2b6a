// Whether this build runs under AddressSanitizer or ThreadSanitizer, which slow every call and
// change what memory a process holds: tests widen their time bounds and skip peak-memory checks
// by it.
#ifndef TEZA_TESTS_SUPPORT_SANITIZED_H_
#define TEZA_TESTS_SUPPORT_SANITIZED_H_

namespace teza_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

}  // namespace teza_test

#endif  // TEZA_TESTS_SUPPORT_SANITIZED_H_
