// Server handles and the transports behind them (internal to librk).
//
// A handle holds its settings and, once it has made an HTTP call, one HttpConnection: a
// libcurl easy handle whose connection is kept open between calls. The in-process transport
// needs no state in the handle. One thread uses a handle at a time.
#ifndef RK_TRANSPORT_H_
#define RK_TRANSPORT_H_

#include <curl/curl.h>
#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>

#include "rk_internal.h"

namespace rk {

// Everything the setters store. `generation` changes with every setter call that changes
// something (a number set to the value it has changes nothing), so that a connection knows
// when to apply the settings again.
struct ServerSettings {
    std::string host;
    int major = 0;
    int minor = 0;
    int style = RK_STYLE_LOGIN_PASSWORD;
    int serverType = RK_SERVER_TYPE_ANY;
    int transport = RK_TRANSPORT_HTTP;
    int port = 0;
    int timeoutSeconds = 0;
    bool hasUser = false;
    std::string login;
    std::string password;
    std::string caFile;
    std::string certFile;
    std::string keyFile;
    std::string keyPassphrase;
    bool hasKeyPassphrase = false;
    size_t maxResponseBytes = RK_PARSE_MAX_BYTES;
    uint64_t generation = 1;
};

// One persistent HTTP/1.1 connection (HTTP, HTTPS or HTTP over a Unix socket), made on the
// first call and kept open for the next ones.
class HttpConnection {
  public:
    // Null when the library is not started.
    static std::unique_ptr<HttpConnection> Create();
    virtual ~HttpConnection() = default;
    // Sends `body` (the XML text of a request) and returns the result element: the server's,
    // or a failed one made here. Null only when memory is exhausted.
    virtual rk_elem* Call(const ServerSettings& settings, const std::string& body) = 0;
};

// Hands a request to the in-process server registered under the settings' host.
rk_elem* InProcessCall(const ServerSettings& settings, const rk_elem* request);

// libcurl's global state (startup.cpp): AcquireCurl is false when the library is not started;
// every successful AcquireCurl is matched by one ReleaseCurl.
bool AcquireCurl();
void ReleaseCurl();
bool IsStarted();
// The share that holds the TLS sessions of every handle, or null when session resumption is
// turned off (rk_set_tls_session_resumption) or the share could not be made. Stays valid while
// the caller holds an easy handle from AcquireCurl.
CURLSH* TlsSessionShare();

}  // namespace rk

struct rk_server {
    rk::ServerSettings settings;
    std::unique_ptr<rk::HttpConnection> http;
    std::string requestText;  // the XML text of the HTTP request being sent
};

#endif  // RK_TRANSPORT_H_
