// TezaFanOut: one call to many servers. Given a list of server descriptors and a function to
// run per server (typically one generated interface call), runs them with at most
// `parallel` at once on a pool of worker threads that it starts for the call and joins before
// it returns, and gives back one TezaStatus per server in the order of the list.
//
// The facility lives beside the runtime, in its own library (libautotezafleet), because it
// starts threads and the runtime starts none. It uses the runtime as any caller does: each
// call opens its connection through its own interface object, so quarantined servers fail
// fast as they always do, and the connection cache and the quarantine are shared with every
// other caller in the process.
//
// Thread safety: run() may be called from several threads at once; each run owns its workers.
// The per-server function is called on worker threads, at most `parallel` at a time, each time
// with a descriptor of its own; it must be safe to call concurrently (one interface object per
// call, as forEach() makes, satisfies that). The progress callback is never called
// concurrently with itself.
#ifndef TEZA_FAN_OUT_H_
#define TEZA_FAN_OUT_H_

#include <stddef.h>

#include <chrono>
#include <functional>
#include <vector>

#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaUtil.h"

class TEZA_API TezaFanOut {
  public:
    // The error number of a server whose call was not started because the deadline had
    // passed; its status is ConnectionFailed with the reason "not run: deadline passed".
    static constexpr int ERRNUM_NOT_RUN = 14101;
    // The error number of a call whose function threw an exception; the reason is
    // "call failed with an exception: " and the exception's text.
    static constexpr int ERRNUM_EXCEPTION = 14102;

    // One server's call. `server` is a copy of the list's descriptor, closed, for this call
    // alone; `index` is its place in the list.
    using Call = std::function<TezaStatus(const TezaServerConnection& server, size_t index)>;
    // After each server is done (run, or reported as not run): how many are done, how many of
    // those failed (not run included), and how many there are.
    using Progress = std::function<void(size_t done, size_t failed, size_t total)>;

    struct Options {
        // Calls at once; 0 counts as 1. No more workers are started than there are servers.
        size_t parallel = 8;
        // When non-zero, calls not started this long after run() began are reported as not
        // run. Calls already started are not interrupted: their descriptors' time-outs bound
        // them.
        std::chrono::milliseconds deadline{0};
        Progress progress;  // optional
    };

    // Runs `call` once per server and returns their statuses in the order of `servers`.
    static std::vector<TezaStatus> run(const std::vector<TezaServerConnection>& servers,
                                       const Call& call, const Options& options);

    // The same with one interface object per call: `call` receives a new `Interface` made
    // from the server's descriptor (a generated interface class) and returns its status.
    template <class Interface, class PerServer>
    static std::vector<TezaStatus> forEach(const std::vector<TezaServerConnection>& servers,
                                           PerServer call, const Options& options) {
        return run(
            servers,
            [&call](const TezaServerConnection& server, size_t index) {
                Interface api(server);
                return call(api, index);
            },
            options);
    }

    TezaFanOut() = delete;
};

#endif  // TEZA_FAN_OUT_H_
