// Library start-up and shut-down, and the lifetime of libcurl's global state.
//
// libcurl's global state must outlive every easy handle. A server handle takes an easy handle
// with AcquireCurl when it first connects and gives it back with ReleaseCurl when it is
// closed; rk_shutdown releases libcurl at once when no easy handle is out, otherwise the last
// ReleaseCurl does.

#include <curl/curl.h>
#include <stdio.h>

#include <mutex>

#include "transport.h"

namespace rk {

namespace {

struct StartState {
    std::mutex mutex;
    // Guarded by `mutex`.
    bool started = false;
    bool curlInitialised = false;
    int easyHandles = 0;
};

StartState& State() {
    static StartState* state = new StartState;  // never destroyed: handles may close at exit
    return *state;
}

// REQUIRES: State().mutex held.
void CleanupCurlIfUnused(StartState& s) {
    if (!s.started && s.curlInitialised && s.easyHandles == 0) {
        curl_global_cleanup();
        s.curlInitialised = false;
    }
}

}  // namespace

bool AcquireCurl() {
    StartState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.started) {
        return false;
    }
    ++s.easyHandles;
    return true;
}

void ReleaseCurl() {
    StartState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    --s.easyHandles;
    CleanupCurlIfUnused(s);
}

bool IsStarted() {
    StartState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.started;
}

}  // namespace rk

extern "C" {

int rk_startup(char* errbuf, int errbuflen) {
    rk::StartState& s = rk::State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.started) {
        return 1;
    }
    if (!s.curlInitialised) {
        CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
        if (code != CURLE_OK) {
            if (errbuf != nullptr && errbuflen > 0) {
                snprintf(errbuf, static_cast<size_t>(errbuflen),
                         "libcurl could not be initialised: %s", curl_easy_strerror(code));
            }
            return 0;
        }
        s.curlInitialised = true;
    }
    s.started = true;
    return 1;
}

void rk_shutdown(void) {
    rk::StartState& s = rk::State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.started = false;
    rk::CleanupCurlIfUnused(s);
}

int rk_is_started(void) {
    return rk::IsStarted() ? 1 : 0;
}

}  // extern "C"
