// The service core of the TEZA server: it checks each call's credentials, API version and
// server type, answers the built-in APIs, applies the script, dispatches the other calls by
// API name to their handlers, and counts connections and calls. Front ends (HTTP, in-process)
// turn their requests into Handle calls and send the Reply back their own way.
//
// Set-up (AddApi, SetScript) happens before the first call; afterwards every member may be
// called from any number of threads at once.
#ifndef TEZAD_CORE_SERVICE_CORE_H_
#define TEZAD_CORE_SERVICE_CORE_H_

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "description.h"
#include "elements.h"
#include "script.h"

namespace tezad {

// Error numbers of the core's own failed results.
enum CoreError : int {
    kErrAuthentication = 15001,  // credentials missing or wrong (HTTP 401)
    kErrApiVersion = 15003,      // API version missing or not served
    kErrServerType = 15004,      // server type missing or not this server's
    kErrUnknownApi = 15005,      // no such API
    kErrBadRequest = 15006,      // request body not a well-formed XML element (HTTP 400)
    kErrInternal = 15010,        // a handler failed unexpectedly
};

// The API names the core answers itself.
extern const char kVersionApi[];   // "system-get-corvi-version"
extern const char kCountersApi[];  // "system-get-counters"
extern const char kListApi[];      // "system-api-list"
extern const char kDescribeApi[];  // "system-api-describe"

struct CoreOptions {
    int major = 1;  // calls of this major version and a minor version up to `minor` are served
    int minor = 0;
    int serverType = RK_SERVER_TYPE_NODE;
    // Login to password.
    std::map<std::string, std::string> users;
    // Bearer tokens accepted.
    std::set<std::string> tokens;
    // Subject common names of verified client certificates accepted as users.
    std::set<std::string> certUsers;
    // Without users, tokens and certificate users, calls are served without credentials and
    // any are accepted. With some, a call passes with any one credential that matches.
    bool NeedsCredentials() const {
        return !users.empty() || !tokens.empty() || !certUsers.empty();
    }
};

// What a TLS front end learnt of the client's certificate.
enum class ClientCertificate {
    None,      // no TLS, or no certificate shown
    Refused,   // shown but not verified (another CA, expired...): `certificateProblem` says why
    Verified,  // verified against the client CA file: `certificateName` is its subject CN
};

// What a front end knows of a call besides its request.
struct CallInfo {
    bool hasCredentials = false;
    std::string login;
    std::string password;
    bool hasToken = false;
    std::string token;
    // Set by a front end that asks for client certificates and refuses calls without a verified
    // one (tezad --client-ca).
    bool certificateRequired = false;
    ClientCertificate certificate = ClientCertificate::None;
    std::string certificateName;
    std::string certificateProblem;
    bool hasVersion = false;
    int major = 0;
    int minor = 0;
    bool hasServerType = false;
    int serverType = 0;
};

// How to answer a call. Usually a result element; scripted faults ask for something else.
struct Reply {
    enum class Kind {
        Result,     // send `result` with `httpStatus`
        Http,       // send `httpStatus` with `body` as plain text
        Raw,        // send HTTP 200 with `body` as it stands
        Truncated,  // announce `result` whole, send half of it, close the connection
        Drop,       // close the connection without an answer
        Refuse,     // reset the connection without an answer
    };
    Kind kind = Kind::Result;
    int httpStatus = 200;
    ElemPtr result;
    std::string body;
};

// The counters shown by kCountersApi and by CountersLine.
struct Counters {
    uint64_t connections = 0;      // accepted since the start
    uint64_t openConnections = 0;  // accepted and not yet closed
    uint64_t calls = 0;
    std::map<std::string, uint64_t> callsPerApi;
    uint64_t tlsSessionsResumed = 0;  // TLS handshakes that resumed an earlier session
};

// A handler answers one call of its API with a new result element, or throws ApiError.
using Handler = std::function<ElemPtr(const Args& args)>;

class ServiceCore {
  public:
    explicit ServiceCore(CoreOptions options);
    ServiceCore(const ServiceCore&) = delete;
    ServiceCore& operator=(const ServiceCore&) = delete;

    const CoreOptions& options() const { return _options; }

    // Set-up.
    void AddApi(const std::string& name, Handler handler);
    void SetScript(std::unique_ptr<Script> script);
    // Whether a script answers some calls (set up with SetScript).
    bool scripted() const { return _script != nullptr; }
    // Publishes the APIs of a description (teza-gen --describe-out) beside the built-in ones.
    // False, with the reason in `error` and nothing published, when it cannot be read.
    bool AddDescription(const std::string& xml, const std::string& origin, std::string* error);
    const Description& description() const { return _description; }

    // Answers a request given as XML text (HTTP front end).
    Reply Handle(const CallInfo& info, const char* body, size_t length);
    // Answers a request element in wire form, which stays the caller's (in-process).
    Reply Handle(const CallInfo& info, rk_elem_t* request);

    // Front ends count their connections as they accept and close them.
    void CountConnection() {
        _connections.fetch_add(1, std::memory_order_relaxed);
        _openConnections.fetch_add(1, std::memory_order_relaxed);
    }
    void CountConnectionClosed() { _openConnections.fetch_sub(1, std::memory_order_relaxed); }
    void CountTlsSessionResumed() { _tlsSessionsResumed.fetch_add(1, std::memory_order_relaxed); }
    Counters GetCounters() const;
    // "<n> connections accepted, <o> open, <m> calls served (api1 n1, api2 n2, ...)".
    std::string CountersLine() const;

    // Ends scripted delays in progress and skips later ones, so that front ends can stop
    // promptly. Calls are still answered.
    void Stop();

  private:
    Reply Dispatch(const CallInfo& info, rk_elem_t* request);
    ElemPtr Refusal(const CallInfo& info, int* httpStatus) const;
    bool Authenticated(const CallInfo& info) const;
    std::string CredentialProblem(const CallInfo& info) const;
    Reply Scripted(const ScriptAction& action, rk_elem_t* request);
    ElemPtr Builtin(const std::string& api, rk_elem_t* request) const;
    void Wait(std::chrono::milliseconds delay);

    // Constant after set-up.
    const CoreOptions _options;
    std::map<std::string, Handler> _handlers;
    std::unique_ptr<Script> _script;
    Description _description;

    std::atomic<uint64_t> _connections{0};
    std::atomic<uint64_t> _openConnections{0};
    std::atomic<uint64_t> _tlsSessionsResumed{0};
    mutable std::mutex _countersMutex;
    std::map<std::string, uint64_t> _calls;  // guarded by `_countersMutex`

    std::mutex _stopMutex;
    std::condition_variable _stopped;
    bool _stopping = false;  // guarded by `_stopMutex`
};

}  // namespace tezad

#endif  // TEZAD_CORE_SERVICE_CORE_H_
