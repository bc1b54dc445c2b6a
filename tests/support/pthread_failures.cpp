#include "pthread_failures.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>

namespace {

thread_local bool tFailOnce = false;
thread_local bool tFailLock = false;
thread_local bool tFailUnlock = false;

// The next definition of `name` after this executable's: the C library's (or a sanitizer's
// interceptor). Cached in a plain atomic rather than a function-local static, whose guard could
// itself take a lock.
template <typename Function>
Function Next(std::atomic<void*>& cache, const char* name) {
    void* symbol = cache.load(std::memory_order_acquire);
    if (symbol == nullptr) {
        symbol = dlsym(RTLD_NEXT, name);
        if (symbol == nullptr) {
            fprintf(stderr, "pthread_failures: no next definition of %s\n", name);
            abort();
        }
        cache.store(symbol, std::memory_order_release);
    }
    return reinterpret_cast<Function>(symbol);
}

std::atomic<void*> gNextOnce{nullptr};
std::atomic<void*> gNextLock{nullptr};
std::atomic<void*> gNextUnlock{nullptr};

bool TakeArmed(bool& armed) {
    bool was = armed;
    armed = false;
    return was;
}

}  // namespace

namespace pthreadfail {

void FailNextOnce() {
    tFailOnce = true;
}

void FailNextMutexLock() {
    tFailLock = true;
}

void FailNextMutexUnlock() {
    tFailUnlock = true;
}

}  // namespace pthreadfail

extern "C" {

__attribute__((visibility("default"))) int pthread_once(pthread_once_t* control,
                                                        void (*routine)(void)) {
    if (TakeArmed(tFailOnce)) {
        return EINVAL;
    }
    return Next<int (*)(pthread_once_t*, void (*)(void))>(gNextOnce, "pthread_once")(control,
                                                                                     routine);
}

__attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    if (TakeArmed(tFailLock)) {
        return EINVAL;
    }
    return Next<int (*)(pthread_mutex_t*)>(gNextLock, "pthread_mutex_lock")(mutex);
}

__attribute__((visibility("default"))) int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    if (TakeArmed(tFailUnlock)) {
        return EINVAL;
    }
    return Next<int (*)(pthread_mutex_t*)>(gNextUnlock, "pthread_mutex_unlock")(mutex);
}

}  // extern "C"
