// TezaWrapper: the process-wide, reference-counted switch that starts and stops the library.
// Every user calls init once before its first API call and cleanup once when it is done; the
// first successful init starts the connection cache, the client library and the generated
// default type factories, and the cleanup that brings the count back to zero stops the cache
// and the client library again.
//
// Static members only; every member is guarded by `_lk`, which is held through the whole of
// start-up and shut-down. Lock order: `_lk` before TezaConnectionCache's mutex. `_lk` is not
// recursive: nothing called under it may call init or cleanup.
#ifndef TEZA_WRAPPER_H_
#define TEZA_WRAPPER_H_

#include <pthread.h>
#include <stdint.h>

#include <string>

#include "TezaUtil.h"

class TEZA_API TezaWrapper {
  public:
    TezaWrapper() = delete;

    // Starts the library unless it is running and counts the caller in, even when the start
    // fails: every init, failed or not, is balanced by one cleanup. Returns whether the
    // library is running; on false, `error` receives the start-up failure's text, on true it
    // is left untouched.
    static bool init(std::string& error);
    // Counts the caller out and stops the library when the last caller has left.
    // REQUIRES: more init calls than cleanup calls so far.
    static void cleanup();

  private:
    // Both REQUIRE `_lk`.
    static void _init();
    static void _cleanup();

    // Guarded by `_lk`.
    static bool _inited;
    static int64_t _refcnt;
    static std::string _last_error;
    static pthread_mutex_t _lk;
};

#endif  // TEZA_WRAPPER_H_
