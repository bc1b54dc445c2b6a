// Library start-up and shut-down.

#include <atomic>

#include "rk_internal.h"

namespace {
std::atomic<bool> gStarted{false};
}  // namespace

extern "C" {

int rk_startup(char* errbuf, int errbuflen) {
    (void)errbuf;
    (void)errbuflen;
    gStarted.store(true);
    return 1;
}

void rk_shutdown(void) {
    gStarted.store(false);
}

int rk_is_started(void) {
    return gStarted.load() ? 1 : 0;
}

}  // extern "C"
