#include "TezaWrapper.h"

#include "TezaConnectionCache.h"
#include "TezaLogger.h"
#include "TezaNamespaceFactory.h"
#include "rk.h"

namespace {
const int kStartupErrorSize = 256;
}  // namespace

bool TezaWrapper::_inited = false;
int64_t TezaWrapper::_refcnt = 0;
std::string TezaWrapper::_last_error;
pthread_mutex_t TezaWrapper::_lk = PTHREAD_MUTEX_INITIALIZER;

bool TezaWrapper::init(std::string& error) {
    TezaWrapperUtil::Monitor monitor(_lk);
    if (!_inited) {
        _init();
    }
    // Failed starts are counted as well: every init is balanced by one cleanup.
    ++_refcnt;
    if (!_inited) {
        error = _last_error;
    } else {
        _last_error.clear();
    }
    return _inited;
}

void TezaWrapper::cleanup() {
    // Written on every call and before the lock, unlike the start-up message.
    TezaLogger::Log("Cleanup TezaWrapper Library\n");
    TezaWrapperUtil::Monitor monitor(_lk);
    // clang-format off
    TEZA_ASSERT(_refcnt>0);
    // clang-format on
    _last_error.clear();
    --_refcnt;
    if (_inited && _refcnt == 0) {
        _cleanup();
    }
}

void TezaWrapper::_init() {
    TezaLogger::Log("Initializing TezaWrapper Library\n");
    TEZA_ASSERT(!_inited);
    // Not undone when the start below fails; a second init of the cache does nothing.
    TezaConnectionCache::init();

    char error[kStartupErrorSize];
    error[0] = '\0';
    // A client library started by somebody else is accepted silently.
    bool started = rk_is_started() != 0;
    if (!started) {
        started = rk_startup(error, kStartupErrorSize) != 0;
    }
    if (!started) {
        if (rk_is_started()) {
            TezaLogger::Log("Error: TEZA initialized outside of TEZA Wrapper Library: %s\n", error);
        } else {
            TezaLogger::Log("Error in rk_startup: %s\n", error);
        }
        _last_error = error;
        return;
    }
    TezaNamespaceFactory::registerDefaultTypeFactory();
    _inited = true;
}

void TezaWrapper::_cleanup() {
    TEZA_ASSERT(_inited);
    // clang-format off
    TEZA_ASSERT(_refcnt==0);
    // clang-format on
    if (_inited) {
        // Reverse order of start-up. rk_shutdown is called even when the client library was
        // started outside the wrapper.
        TezaConnectionCache::cleanup();
        rk_shutdown();
        _inited = false;
    }
}
