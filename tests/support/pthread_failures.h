// Scripted failures of the POSIX thread calls the runtime asserts on. Linking
// pthread_failures.cpp into a test executable defines pthread_once, pthread_mutex_lock and
// pthread_mutex_unlock there (the dynamic linker binds every caller to them); they forward to
// the C library's own unless a failure is armed on the calling thread. For death tests only:
// the executable must not be run under ThreadSanitizer, whose view of locks they bypass.
#ifndef TEZA_TESTS_PTHREAD_FAILURES_H_
#define TEZA_TESTS_PTHREAD_FAILURES_H_

namespace pthreadfail {

// The next call of the function on this thread returns EINVAL and does nothing else.
void FailNextOnce();
void FailNextMutexLock();
void FailNextMutexUnlock();

}  // namespace pthreadfail

#endif  // TEZA_TESTS_PTHREAD_FAILURES_H_
