#include "strftime_failure.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <atomic>

namespace {

std::atomic<bool> gFail{false};

using StrftimeFunction = size_t (*)(char*, size_t, const char*, const struct tm*);

// The C library's strftime, found behind this executable's own definition.
StrftimeFunction RealStrftime() {
    static const StrftimeFunction real =
        reinterpret_cast<StrftimeFunction>(dlsym(RTLD_NEXT, "strftime"));
    if (real == nullptr) {
        fprintf(stderr, "strftime_failure: the C library's strftime was not found\n");
        abort();
    }
    return real;
}

}  // namespace

namespace testsupport {

void FailStrftime() {
    gFail.store(true);
}

}  // namespace testsupport

// Exported explicitly: the build hides symbols by default.
extern "C" __attribute__((visibility("default"))) size_t strftime(char* buffer, size_t size,
                                                                  const char* format,
                                                                  const struct tm* when) noexcept {
    if (gFail.load()) {
        return 0;
    }
    return RealStrftime()(buffer, size, format, when);
}
