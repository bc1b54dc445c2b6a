// The client-library test double: a complete implementation of rk.h for unit tests of the
// runtime, linked in place of the real librk.
//
// Every rk_ call is recorded, in order, as one line: the function name and its arguments,
// e.g. "rk_server_open(srv7, 1, 21)" or "rk_server_set_timeout(h1, 15)". Handles are shown as
// h1, h2, ... in the order they were opened; elements by their name; null pointers as
// "(null)". Element trees are real (the double runs the client library's own element code),
// so a test can build, inspect and write out whatever the runtime makes.
//
// What every call returns can be scripted: a fixed or queued int result per function, null
// results for functions that return pointers, a start-up failure with a message, and a
// responder that answers the API calls sent on server handles.
//
// rk_inprocess_register and rk_inprocess_unregister are recorded only: the responder answers
// every call, whatever the handle's transport.
//
// Thread-safe: the stress tests call it from many threads. Reset() between tests.
#ifndef TEZA_TESTS_RK_DOUBLE_H_
#define TEZA_TESTS_RK_DOUBLE_H_

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "rk.h"

namespace rkdouble {

// Forgets the call log and every script, and frees every handle the double still keeps. The
// start-up flag goes back to "not started".
void Reset();

// --- The call log --------------------------------------------------------------------------

// All recorded calls, in order.
std::vector<std::string> Calls();
// The recorded calls whose function name starts with `prefix` (e.g. "rk_server_").
std::vector<std::string> Calls(const std::string& prefix);
// How many calls of exactly `function` were recorded.
int CountCalls(const std::string& function);
void ClearCalls();
// Turns recording on (the default) or off; stress tests turn it off to keep memory flat.
void SetRecording(bool on);

// --- Scripted results ----------------------------------------------------------------------

// Every later call of `function` (an int-returning rk_ function) returns `value`.
void SetResult(const std::string& function, int value);
// The next call of `function` returns `value`; queued values are used first, in order.
void QueueResult(const std::string& function, int value);
// The next `times` calls of a pointer-returning function (rk_elem_new, rk_child_add,
// rk_child_add_string, rk_child_add_bool, rk_server_open, rk_server_invoke, ...) return null
// and do nothing else. `after` calls succeed first.
void FailNext(const std::string& function, int times = 1, int after = 0);
// rk_startup fails (returns 0) and leaves `message` in the caller's buffer.
void FailStartup(const std::string& message);
// Sets what rk_is_started returns until the next rk_startup or rk_shutdown changes it.
void SetStarted(bool started);
bool IsStarted();

// --- Server handles and responses ----------------------------------------------------------

// A responder answers one API call: the handle's host, the API name and the request element
// (null for rk_server_invoke without arguments; for rk_server_invoke the double builds one
// from the name/value pairs). It returns a new result element that the caller will own.
using Responder =
    std::function<rk_elem_t*(const std::string& host, const std::string& api, rk_elem_t* request)>;
// Replaces the responder; the default answers every call with a passed result.
void SetResponder(Responder responder);
// Waits this long inside every rk_server_invoke and rk_server_invoke_elem, outside any lock.
void SetInvokeDelay(std::chrono::microseconds delay);

// Result elements for responders.
rk_elem_t* Passed();
rk_elem_t* Failed(const std::string& reason, int errnum);
// A passed result whose children are parsed from `xmlChildren` (several elements allowed).
rk_elem_t* PassedWith(const std::string& xmlChildren);

// Handle accounting.
int HandlesOpened();
int HandlesClosed();
// Handles opened and not yet closed.
int HandlesOpen();
// Closes of an already closed handle, and calls made on a closed handle.
int HandleMisuses();
// The name used in the log ("h1", ...), or "h?" for a pointer the double did not make.
std::string HandleName(rk_server_t* server);
// Settings last given to a handle through the setters.
struct HandleSettings {
    std::string host;
    int major = 0, minor = 0;
    int style = -1, type = -1, transport = -1, port = -1, timeout = -1;
    std::string login, password;
    bool closed = false;
};
HandleSettings Settings(rk_server_t* server);

}  // namespace rkdouble

#endif  // TEZA_TESTS_RK_DOUBLE_H_
