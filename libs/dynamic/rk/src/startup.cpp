// Library start-up and shut-down, and the lifetime of libcurl's global state.
//
// libcurl's global state must outlive every easy handle. A server handle takes an easy handle
// with AcquireCurl when it first connects and gives it back with ReleaseCurl when it is
// closed; rk_shutdown releases libcurl at once when no easy handle is out, otherwise the last
// ReleaseCurl does.
//
// The TLS sessions of all easy handles live in one libcurl share, made with libcurl's global
// state and cleaned up just before it (when no easy handle is left to use it). libcurl calls
// the share's lock callbacks around every use of the shared session cache; one mutex per kind
// of shared data keeps threads that connect at once apart.

#include <curl/curl.h>
#include <stdio.h>

#include <memory>
#include <mutex>

#include "tls_trust.h"
#include "transport.h"

namespace rk {

namespace {

// The mutexes behind a share's lock callbacks, one per kind of data libcurl may lock.
struct ShareLocks {
    std::mutex data[CURL_LOCK_DATA_LAST];
};

void LockShare(CURL*, curl_lock_data data, curl_lock_access, void* locks) {
    static_cast<ShareLocks*>(locks)->data[data].lock();
}

void UnlockShare(CURL*, curl_lock_data data, void* locks) {
    static_cast<ShareLocks*>(locks)->data[data].unlock();
}

struct StartState {
    std::mutex mutex;
    // Guarded by `mutex`.
    bool started = false;
    bool curlInitialised = false;
    int easyHandles = 0;
    CURLSH* share = nullptr;  // the TLS session cache; null when it could not be made
    ShareLocks* shareLocks = nullptr;
    bool resumption = true;
};

StartState& State() {
    static StartState* state = new StartState;  // never destroyed: handles may close at exit
    return *state;
}

// REQUIRES: State().mutex held.
void CleanupCurlIfUnused(StartState& s) {
    if (!s.started && s.curlInitialised && s.easyHandles == 0) {
        if (s.share != nullptr) {
            curl_share_cleanup(s.share);  // unused: every easy handle is gone
            s.share = nullptr;
        }
        delete s.shareLocks;
        s.shareLocks = nullptr;
        ReleaseSharedCaFiles();  // no easy handle is left to use them
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

// REQUIRES: State().mutex held, libcurl initialised. Without a share (out of memory), handles
// simply do not resume sessions across handles.
static void MakeShare(StartState& s) {
    auto locks = std::make_unique<ShareLocks>();
    CURLSH* share = curl_share_init();
    if (share == nullptr) {
        return;
    }
    if (curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &LockShare) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &UnlockShare) != CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_USERDATA, static_cast<void*>(locks.get())) !=
            CURLSHE_OK ||
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
        curl_share_cleanup(share);
        return;
    }
    s.share = share;
    s.shareLocks = locks.release();
}

CURLSH* TlsSessionShare() {
    StartState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.resumption ? s.share : nullptr;
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
        try {
            rk::MakeShare(s);
        } catch (...) {
            // No memory for the locks: no session sharing either.
        }
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

int rk_set_tls_session_resumption(int enabled) {
    rk::StartState& s = rk::State();
    std::lock_guard<std::mutex> lock(s.mutex);
    const int previous = s.resumption ? 1 : 0;
    s.resumption = enabled != 0;
    return previous;
}

int rk_is_started(void) {
    return rk::IsStarted() ? 1 : 0;
}

}  // extern "C"
