// Server handles: opening, settings, calls and closing. The settings are checked when a call
// is made, not when they are set, so that every setter succeeds on a valid handle and every
// problem reaches the caller as a failed result with a reason.

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "transport.h"

namespace {

// rk_get_stats: handles returned by rk_server_open and handles given to rk_server_close.
std::atomic<unsigned long long> gHandlesOpened{0};
std::atomic<unsigned long long> gHandlesClosed{0};

const char* TransportName(int transport) {
    switch (transport) {
        case RK_TRANSPORT_HTTP:
            return "HTTP";
        case RK_TRANSPORT_IN_PROCESS:
            return "in-process";
        case RK_TRANSPORT_UNIX_SOCKET:
            return "Unix socket";
        default:
            return "HTTPS";
    }
}

// Characters that may stand in the host part of a URL without changing its meaning.
bool IsUrlHost(const std::string& host) {
    for (char c : host) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '-' || c == '_' || c == ':' || c == '%' || c == '[' || c == ']';
        if (!ok) {
            return false;
        }
    }
    return true;
}

// The failed result for settings that cannot make a call, or null when they can.
rk_elem* CheckSettings(const rk::ServerSettings& s) {
    if (!rk::IsStarted()) {
        return rk::ResultsNewFailedWire(
            "the client library is not started: call rk_startup before calling a server",
            RK_ERR_NOT_STARTED);
    }
    if (s.style < RK_STYLE_LOGIN_PASSWORD || s.style > RK_STYLE_NONE) {
        return rk::ResultsNewFailedWire(
            "unknown connection style " + std::to_string(s.style) +
                ": use 0 (login and password), 1 (certificate), 2 (token) or 3 (none)",
            RK_ERR_STYLE);
    }
    if (s.transport < RK_TRANSPORT_HTTP || s.transport > RK_TRANSPORT_UNIX_SOCKET) {
        return rk::ResultsNewFailedWire(
            "unknown transport " + std::to_string(s.transport) +
                ": use 0 (HTTP), 1 (HTTPS), 2 (in-process) or 3 (Unix socket)",
            RK_ERR_TRANSPORT);
    }
    if (s.host.empty()) {
        return rk::ResultsNewFailedWire("no host to call", RK_ERR_HOST);
    }
    if (s.transport == RK_TRANSPORT_HTTP || s.transport == RK_TRANSPORT_HTTPS) {
        if (s.port < 0 || s.port > 65535) {
            return rk::ResultsNewFailedWire(
                "port " + std::to_string(s.port) + " is outside 0 to 65535", RK_ERR_PORT);
        }
        if (!IsUrlHost(s.host)) {
            return rk::ResultsNewFailedWire("host '" + s.host + "' is not a host name or address",
                                            RK_ERR_HOST);
        }
    }
    // A style whose credentials cannot be sent fails here, before any connection: it never
    // falls back to sending less.
    if (s.style == RK_STYLE_CERTIFICATE && s.transport != RK_TRANSPORT_HTTPS) {
        return rk::ResultsNewFailedWire(
            std::string("connection style 1 (certificate) needs HTTPS, not the ") +
                TransportName(s.transport) +
                " transport: use transport 1 (HTTPS), or another style for this server",
            RK_ERR_CERT_STYLE);
    }
    if (s.style == RK_STYLE_CERTIFICATE && s.certFile.empty()) {
        return rk::ResultsNewFailedWire(
            "connection style 1 (certificate) needs a client certificate: set one with "
            "rk_server_set_client_cert, or for every handle opened afterwards (the runtime's "
            "included) with rk_set_default_client_cert",
            RK_ERR_CERT_STYLE);
    }
    if (s.style == RK_STYLE_TOKEN && (!s.hasUser || s.password.empty())) {
        return rk::ResultsNewFailedWire(
            "connection style 2 (token) needs a token: give it as the password of "
            "rk_server_set_admin_user (through the runtime, the descriptor's password)",
            RK_ERR_NO_TOKEN);
    }
    return nullptr;
}

// The largest request buffer that a handle keeps for its next call.
const size_t kKeptRequestBytes = 64 * 1024;

// Empties the handle's request buffer, keeping its memory unless a large request made it large.
void ReleaseRequestText(std::string* body) {
    if (body->capacity() > kKeptRequestBytes) {
        std::string().swap(*body);
    } else {
        body->clear();
    }
}

rk_elem* Invoke(rk_server* server, const rk_elem* request) {
    if (server == nullptr) {
        return rk::ResultsNewFailedWire("no server handle", RK_ERR_REQUEST);
    }
    if (request == nullptr) {
        return rk::ResultsNewFailedWire("no request element to send", RK_ERR_REQUEST);
    }
    const rk::ServerSettings& s = server->settings;
    if (rk_elem* refused = CheckSettings(s)) {
        return refused;
    }
    // What cannot be written as well-formed XML 1.0 in UTF-8 is never sent, on any transport:
    // a strict server would refuse it, a lenient one read something else. A request for the
    // network is checked as it is written.
    if (s.transport == RK_TRANSPORT_IN_PROCESS) {
        std::string unsendable;
        if (!rk::CheckRequestText(request, &unsendable)) {
            return rk::ResultsNewFailedWire(unsendable, RK_ERR_REQUEST);
        }
        return rk::InProcessCall(s, request);
    }
    // The handle's request buffer keeps its memory from call to call.
    std::string& body = server->requestText;
    body.assign("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    if (!rk::WriteRequestXml(request, &body)) {
        ReleaseRequestText(&body);
        std::string unsendable = "the request cannot be sent as XML";
        rk::CheckRequestText(request, &unsendable);
        return rk::ResultsNewFailedWire(unsendable, RK_ERR_REQUEST);
    }
    if (server->http == nullptr) {
        server->http = rk::HttpConnection::Create();
        if (server->http == nullptr) {
            return rk::ResultsNewFailedWire(
                "the client library is not started: call rk_startup before calling a server",
                RK_ERR_NOT_STARTED);
        }
    }
    rk_elem* result = server->http->Call(s, body);
    ReleaseRequestText(&body);
    return result;
}

// Runs a call; memory exhaustion becomes a failed result if even that can be allocated.
template <typename F>
rk_elem* GuardedCall(F body) noexcept {
    try {
        return body();
    } catch (...) {
    }
    try {
        return rk::ResultsNewFailedWire("out of memory", RK_ERR_NO_MEMORY);
    } catch (...) {
        return nullptr;
    }
}

// Applies `set` to the handle's settings; every setter succeeds on a non-null handle.
template <typename F>
int Set(rk_server_t* server, F set) noexcept {
    if (server == nullptr) {
        return 0;
    }
    try {
        set(server->settings);
    } catch (...) {
        return 0;
    }
    ++server->settings.generation;
    return 1;
}

// Sets one number of the handle's settings. An unchanged value leaves the options applied as
// they are: the runtime sets the same time-out on a cached handle before each of its calls,
// which would otherwise cost the next call every option and header applied anew.
int SetNumber(rk_server_t* server, int rk::ServerSettings::*field, int value) noexcept {
    if (server == nullptr) {
        return 0;
    }
    if (server->settings.*field != value) {
        server->settings.*field = value;
        ++server->settings.generation;
    }
    return 1;
}

std::string Text(const char* s) {
    return s == nullptr ? std::string() : std::string(s);
}

// The CA file that new handles start with; empty for the system's trusted certificates.
// The mutex guards every process-wide default of new handles.
std::mutex gDefaultCaFileMutex;
std::string gDefaultCaFile;

// The client certificate that new handles start with; an empty file for none.
struct ClientCert {
    std::string certFile;
    std::string keyFile;
    std::string keyPassphrase;
    bool hasKeyPassphrase = false;
};
ClientCert gDefaultClientCert;  // guarded by gDefaultCaFileMutex

// The process-wide defaults, copied into a new handle's settings.
void ApplyDefaults(rk::ServerSettings* s) {
    std::lock_guard<std::mutex> lock(gDefaultCaFileMutex);
    s->caFile = gDefaultCaFile;
    s->certFile = gDefaultClientCert.certFile;
    s->keyFile = gDefaultClientCert.keyFile;
    s->keyPassphrase = gDefaultClientCert.keyPassphrase;
    s->hasKeyPassphrase = gDefaultClientCert.hasKeyPassphrase;
}

// A certificate setting as rk_server_set_client_cert and rk_set_default_client_cert take it.
ClientCert MakeClientCert(const char* cert_path, const char* key_path, const char* key_passphrase) {
    ClientCert c;
    c.certFile = Text(cert_path);
    c.keyFile = cert_path == nullptr ? std::string() : Text(key_path);
    c.hasKeyPassphrase = cert_path != nullptr && key_passphrase != nullptr;
    c.keyPassphrase = c.hasKeyPassphrase ? key_passphrase : "";
    return c;
}

// Whether `path` opens for reading and its first byte can be read (an empty file counts as
// read); otherwise false with errno saying why: ENOENT, EACCES, EISDIR...
bool CanReadFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char byte;
    ssize_t got;
    do {
        got = read(fd, &byte, 1);
    } while (got < 0 && errno == EINTR);
    const int readError = errno;
    close(fd);
    if (got < 0) {
        errno = readError;
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

rk_server_t* rk_server_open(const char* host, int major, int minor) {
    if (host == nullptr) {
        return nullptr;
    }
    try {
        auto server = std::make_unique<rk_server>();
        server->settings.host = host;
        server->settings.major = major;
        server->settings.minor = minor;
        ApplyDefaults(&server->settings);
        gHandlesOpened.fetch_add(1);
        return server.release();
    } catch (...) {
        return nullptr;
    }
}

int rk_server_close(rk_server_t* server) {
    if (server == nullptr) {
        return 0;
    }
    delete server;  // the HttpConnection's destructor closes the connection
    gHandlesClosed.fetch_add(1);
    return 1;
}

void rk_get_stats(rk_stats_t* stats) {
    if (stats == nullptr) {
        return;
    }
    // Closed first: a handle closed before this read was opened before it too, so the pair
    // never shows more handles closed than opened.
    stats->handles_closed = gHandlesClosed.load();
    stats->handles_opened = gHandlesOpened.load();
}

int rk_server_set_style(rk_server_t* server, int style) {
    return SetNumber(server, &rk::ServerSettings::style, style);
}

int rk_server_set_server_type(rk_server_t* server, int type) {
    return SetNumber(server, &rk::ServerSettings::serverType, type);
}

int rk_server_set_transport_type(rk_server_t* server, int transport, const void* reserved) {
    (void)reserved;
    return SetNumber(server, &rk::ServerSettings::transport, transport);
}

int rk_server_set_port(rk_server_t* server, int port) {
    return SetNumber(server, &rk::ServerSettings::port, port);
}

int rk_server_set_admin_user(rk_server_t* server, const char* login, const char* password) {
    return Set(server, [&](rk::ServerSettings& s) {
        s.hasUser = login != nullptr;
        s.login = Text(login);
        s.password = Text(password);
    });
}

int rk_server_set_timeout(rk_server_t* server, int seconds) {
    return SetNumber(server, &rk::ServerSettings::timeoutSeconds, seconds < 0 ? 0 : seconds);
}

int rk_server_set_ca_file(rk_server_t* server, const char* path) {
    return Set(server, [&](rk::ServerSettings& s) { s.caFile = Text(path); });
}

int rk_set_default_ca_file(const char* path) {
    try {
        std::string file = Text(path);
        // Every handle opened later would fail its first HTTPS call on a file that cannot be
        // read, far from the line that named it: refuse it here, errno saying why.
        if (!file.empty() && !CanReadFile(file)) {
            return 0;
        }
        std::lock_guard<std::mutex> lock(gDefaultCaFileMutex);
        gDefaultCaFile.swap(file);
        return 1;
    } catch (...) {
        return 0;
    }
}

int rk_server_set_client_cert(rk_server_t* server, const char* cert_path, const char* key_path,
                              const char* key_passphrase) {
    return Set(server, [&](rk::ServerSettings& s) {
        ClientCert c = MakeClientCert(cert_path, key_path, key_passphrase);
        s.certFile.swap(c.certFile);
        s.keyFile.swap(c.keyFile);
        s.keyPassphrase.swap(c.keyPassphrase);
        s.hasKeyPassphrase = c.hasKeyPassphrase;
    });
}

int rk_set_default_client_cert(const char* cert_path, const char* key_path,
                               const char* key_passphrase) {
    try {
        ClientCert c = MakeClientCert(cert_path, key_path, key_passphrase);
        std::lock_guard<std::mutex> lock(gDefaultCaFileMutex);
        std::swap(gDefaultClientCert, c);
        return 1;
    } catch (...) {
        return 0;
    }
}

int rk_server_set_max_response_size(rk_server_t* server, size_t bytes) {
    return Set(server, [&](rk::ServerSettings& s) {
        s.maxResponseBytes = bytes == 0 ? RK_PARSE_MAX_BYTES : bytes;
    });
}

rk_elem_t* rk_server_invoke(rk_server_t* server, const char* api, ...) {
    va_list args;
    va_start(args, api);
    rk_elem* result = GuardedCall([&]() -> rk_elem* {
        if (api == nullptr || !rk::IsValidName(api)) {
            return rk::ResultsNewFailedWire(
                "API name '" + Text(api) + "' is not a valid element name", RK_ERR_REQUEST);
        }
        std::unique_ptr<rk_elem, void (*)(rk_elem*)> request(rk::ElemNew(api), rk::ElemFree);
        for (const char* name = va_arg(args, const char*); name != nullptr;
             name = va_arg(args, const char*)) {
            const char* value = va_arg(args, const char*);
            if (rk::ChildAddString(request.get(), name, value == nullptr ? "" : value) == nullptr) {
                return rk::ResultsNewFailedWire(
                    "argument name '" + Text(name) + "' is not a valid element name",
                    RK_ERR_REQUEST);
            }
        }
        return Invoke(server, request.get());
    });
    va_end(args);
    return result;
}

rk_elem_t* rk_server_invoke_elem(rk_server_t* server, rk_elem_t* request) {
    return GuardedCall([&] { return Invoke(server, request); });
}

}  // extern "C"
