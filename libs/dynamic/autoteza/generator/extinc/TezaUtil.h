// Small utilities shared by the runtime and generated code: the export macro, the fatal
// assertion, and TezaWrapperUtil::Monitor, the scope guard over the runtime's process-wide
// mutexes.
#ifndef TEZA_UTIL_H_
#define TEZA_UTIL_H_

#include <assert.h>
#include <pthread.h>

#if defined(__GNUC__)
#define TEZA_API __attribute__((visibility("default")))
#else
#define TEZA_API
#endif

// TEZA_ASSERT(expr): a fatal assertion that stays in every build type (NDEBUG does not remove
// it). On failure it prints the C library's standard report
//   <program>: <file>:<line>: <function>: Assertion `<expr>' failed.
// and aborts. The expression passes through one macro before it is turned into text, so
// macros inside it are expanded first: NULL is reported as __null. The report's text is part
// of the runtime's behaviour; write the expression exactly as it is to be reported.
// <assert.h> leaves the reporting function undeclared under NDEBUG; it is the C library's
// own, so that the report is exactly the standard one.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line,
                              const char* function) noexcept __attribute__((__noreturn__));

#define TEZA_ASSERT(expr) TEZA_ASSERT_EXPANDED_(expr)
#define TEZA_ASSERT_EXPANDED_(expr) \
    ((expr) ? static_cast<void>(0) : __assert_fail(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))

namespace TezaWrapperUtil {

// Holds `mutex` from construction to destruction. It cannot be released early, copied or
// moved. A failing lock or unlock ends the process.
class Monitor {
  public:
    explicit Monitor(pthread_mutex_t& mutex) : _mutex(mutex) {
        int lock_res = pthread_mutex_lock(&_mutex);
        // clang-format off
        TEZA_ASSERT(lock_res==0);
        // clang-format on
    }
    ~Monitor() {
        int unlock_res = pthread_mutex_unlock(&_mutex);
        // clang-format off
        TEZA_ASSERT(unlock_res==0);
        // clang-format on
    }

    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

  private:
    pthread_mutex_t& _mutex;
};

}  // namespace TezaWrapperUtil

#endif  // TEZA_UTIL_H_
