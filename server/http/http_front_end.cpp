#include "http_front_end.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <utility>

namespace tezad {

namespace {

const char kPath[] = "/teza";
const char kXml[] = "application/xml; charset=utf-8";
// Calls served on one connection before it is closed; announced in the Keep-Alive header.
const size_t kMaxCallsPerConnection = 100000;
// How often a connection waiting for its next call looks whether the server is stopping.
const int kStopPollMs = 100;

std::string OpenSslError() {
    unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) {
        return "no detail from OpenSSL";
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

// One accepted connection, plain or TLS, as the stream cpp-httplib reads requests from and
// writes answers to. Reads are buffered: httplib reads request lines a byte at a time.
class ConnectionStream final : public httplib::Stream {
  public:
    ConnectionStream(int fd, SSL* ssl, int timeoutMs) : _fd(fd), _ssl(ssl), _timeoutMs(timeoutMs) {}
    ConnectionStream(const ConnectionStream&) = delete;
    ConnectionStream& operator=(const ConnectionStream&) = delete;

    bool is_readable() const override { return Buffered() || Poll(POLLIN, _timeoutMs); }
    bool is_writable() const override { return !_aborted && Poll(POLLOUT, _timeoutMs); }

    ssize_t read(char* ptr, size_t size) override {
        if (_aborted) {
            return -1;
        }
        if (_offset == _length) {
            ssize_t n = Fill();
            if (n <= 0) {
                return n;
            }
        }
        size_t n = std::min(size, _length - _offset);
        memcpy(ptr, _buffer + _offset, n);
        _offset += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* ptr, size_t size) override {
        if (_aborted || !Poll(POLLOUT, _timeoutMs)) {
            return -1;
        }
        if (_ssl != nullptr) {
            int n = SSL_write(_ssl, ptr, static_cast<int>(std::min<size_t>(size, INT32_MAX)));
            return n > 0 ? n : -1;
        }
        return ::send(_fd, ptr, size, MSG_NOSIGNAL);
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        Address(getpeername, &ip, &port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        Address(getsockname, &ip, &port);
    }
    int socket() const override { return _fd; }

    // Waits until the next request begins to arrive: false when the connection stayed idle
    // for `idleMs`, or the server is stopping.
    bool WaitForRequest(int idleMs, const std::atomic<bool>& stopping) const {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(idleMs);
        while (!stopping.load()) {
            if (Buffered() || Poll(POLLIN, kStopPollMs)) {
                return true;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
        }
        return false;
    }

    // No more is written; Close drops the connection, or resets it when `reset`.
    void Abort(bool reset) {
        _aborted = true;
        _reset = reset;
    }
    bool aborted() const { return _aborted; }
    void CountCall() { ++_calls; }
    size_t calls() const { return _calls; }

    void Close() {
        if (_ssl != nullptr) {
            if (!_aborted) {
                SSL_shutdown(_ssl);  // our close_notify; the peer's is not waited for
            }
            SSL_free(_ssl);
            _ssl = nullptr;
        }
        if (_reset) {
            struct linger hard = {1, 0};  // close sends RST
            setsockopt(_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        } else {
            ::shutdown(_fd, SHUT_RDWR);
        }
        ::close(_fd);
    }

  private:
    bool Buffered() const {
        return _offset < _length || (_ssl != nullptr && SSL_pending(_ssl) > 0);
    }

    bool Poll(short events, int timeoutMs) const {
        struct pollfd p = {_fd, events, 0};
        return ::poll(&p, 1, timeoutMs) > 0;
    }

    // Reads what has arrived into the buffer: the count, 0 at the end, -1 on failure.
    ssize_t Fill() {
        _offset = _length = 0;
        if (!Buffered() && !Poll(POLLIN, _timeoutMs)) {
            return -1;
        }
        ssize_t n;
        if (_ssl != nullptr) {
            int got = SSL_read(_ssl, _buffer, sizeof _buffer);
            if (got <= 0) {
                return SSL_get_error(_ssl, got) == SSL_ERROR_ZERO_RETURN ? 0 : -1;
            }
            n = got;
        } else {
            n = ::recv(_fd, _buffer, sizeof _buffer, 0);
            if (n <= 0) {
                return n;
            }
        }
        _length = static_cast<size_t>(n);
        return n;
    }

    void Address(int (*get)(int, sockaddr*, socklen_t*), std::string* ip, int* port) const {
        sockaddr_storage address;
        socklen_t length = sizeof address;
        ip->clear();
        *port = 0;
        if (get(_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        char text[INET6_ADDRSTRLEN] = "";
        if (address.ss_family == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&address);
            inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
            *port = ntohs(in->sin_port);
        } else if (address.ss_family == AF_INET6) {
            auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
            inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
            *port = ntohs(in6->sin6_port);
        }
        *ip = text;
    }

    const int _fd;
    SSL* _ssl;
    const int _timeoutMs;
    bool _aborted = false;
    bool _reset = false;
    size_t _calls = 0;  // calls answered
    char _buffer[16384];
    size_t _offset = 0;
    size_t _length = 0;
};

// The connection served by the calling pool thread, for the handler's scripted faults.
thread_local ConnectionStream* tConnection = nullptr;

std::string DecodeBase64(std::string text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.pop_back();
    }
    if (text.empty() || text.size() % 4 != 0) {
        return "";
    }
    std::string out(text.size() / 4 * 3, '\0');
    int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                            reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    if (n < 0) {
        return "";
    }
    size_t padding = (text[text.size() - 1] == '=') + (text[text.size() - 2] == '=');
    out.resize(static_cast<size_t>(n) - padding);
    return out;
}

bool ParseInt(const std::string& text, int* out) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < INT32_MIN || value > INT32_MAX) {
        return false;
    }
    *out = static_cast<int>(value);
    return true;
}

CallInfo ReadCallInfo(const httplib::Request& req) {
    CallInfo info;
    const std::string auth = req.get_header_value("Authorization");
    if (auth.size() > 6 && strncasecmp(auth.c_str(), "Basic ", 6) == 0) {
        const std::string pair = DecodeBase64(auth.substr(6));
        const size_t colon = pair.find(':');
        if (colon != std::string::npos) {
            info.hasCredentials = true;
            info.login = pair.substr(0, colon);
            info.password = pair.substr(colon + 1);
        }
    }
    const std::string version = req.get_header_value("X-Teza-Api-Version");
    const size_t dot = version.find('.');
    info.hasVersion = dot != std::string::npos && ParseInt(version.substr(0, dot), &info.major) &&
                      ParseInt(version.substr(dot + 1), &info.minor);
    info.hasServerType = ParseInt(req.get_header_value("X-Teza-Server-Type"), &info.serverType);
    return info;
}

SSL_CTX* NewTlsContext(const HttpOptions& o, std::string* error) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (ctx == nullptr) {
        *error = "cannot create a TLS context: " + OpenSslError();
        return nullptr;
    }
    auto fail = [&](const std::string& what) {
        *error = what + ": " + OpenSslError();
        SSL_CTX_free(ctx);
        return nullptr;
    };
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_mode(ctx, SSL_MODE_AUTO_RETRY);
    if (SSL_CTX_use_certificate_chain_file(ctx, o.certFile.c_str()) != 1) {
        return fail("cannot use the certificate file " + o.certFile);
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, o.keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        return fail("cannot use the key file " + o.keyFile);
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
        return fail("the key does not match the certificate");
    }
    if (!o.clientCaFile.empty()) {
        if (SSL_CTX_load_verify_locations(ctx, o.clientCaFile.c_str(), nullptr) != 1) {
            return fail("cannot use the client CA file " + o.clientCaFile);
        }
        if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(o.clientCaFile.c_str())) {
            SSL_CTX_set_client_CA_list(ctx, names);
        }
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    return ctx;
}

}  // namespace

class HttpFrontEnd::Server final : public httplib::Server {
  public:
    // Takes over `tls` (null for plain HTTP).
    Server(ServiceCore* core, const HttpOptions& options, SSL_CTX* tls)
        : _core(core), _options(options), _tls(tls) {
        set_tcp_nodelay(true);
        set_keep_alive_max_count(kMaxCallsPerConnection);
        set_keep_alive_timeout(options.keepAliveSeconds);
        set_read_timeout(options.readTimeoutSeconds, 0);
        set_write_timeout(options.readTimeoutSeconds, 0);
        set_payload_max_length(options.maxRequestBytes);
        const size_t threads = options.threads > 0 ? static_cast<size_t>(options.threads) : 1;
        new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
        Post(kPath,
             [this](const httplib::Request& req, httplib::Response& res) { Answer(req, res); });
    }
    ~Server() override { SSL_CTX_free(_tls); }

    void BeginStop() { _stopping.store(true); }
    void MarkEnded() { _ended.store(true); }
    bool ended() const { return _ended.load(); }

  private:
    bool process_and_close_socket(socket_t sock) override;
    void Answer(const httplib::Request& req, httplib::Response& res);

    ServiceCore* const _core;
    const HttpOptions _options;
    SSL_CTX* const _tls;
    std::atomic<bool> _stopping{false};
    std::atomic<bool> _ended{false};  // the accept loop has returned
};

bool HttpFrontEnd::Server::process_and_close_socket(socket_t sock) {
    _core->CountConnection();
    // Answers leave at once instead of waiting for the client's acknowledgement. Fails
    // harmlessly on a Unix socket.
    int one = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // Bounds the blocking TLS handshake and TLS record reads.
    struct timeval timeout = {_options.readTimeoutSeconds, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);

    SSL* ssl = nullptr;
    if (_tls != nullptr) {
        ssl = SSL_new(_tls);
        if (ssl == nullptr || SSL_set_fd(ssl, sock) != 1 || SSL_accept(ssl) != 1) {
            if (_options.verbose) {
                fprintf(stderr, "tezad: TLS handshake failed: %s\n", OpenSslError().c_str());
            }
            ERR_clear_error();
            SSL_free(ssl);
            ::close(sock);
            _core->CountConnectionClosed();
            return false;
        }
    }
    ConnectionStream stream(sock, ssl, _options.readTimeoutSeconds * 1000);
    tConnection = &stream;
    size_t requests = 0;
    bool ok = true;
    while (requests < kMaxCallsPerConnection &&
           stream.WaitForRequest(_options.keepAliveSeconds * 1000, _stopping)) {
        bool closedByClient = false;
        ++requests;
        ok = process_request(stream, _stopping.load() || requests == kMaxCallsPerConnection,
                             closedByClient, [ssl](httplib::Request& req) { req.ssl = ssl; });
        if (!ok || closedByClient || stream.aborted()) {
            break;
        }
    }
    tConnection = nullptr;
    std::string ip;
    int port = 0;
    stream.get_remote_ip_and_port(ip, port);
    stream.Close();
    _core->CountConnectionClosed();
    if (_options.verbose) {
        fprintf(stderr, "tezad: connection from %s:%d closed after %zu calls; %s\n", ip.c_str(),
                port, stream.calls(), _core->CountersLine().c_str());
    }
    return ok;
}

void HttpFrontEnd::Server::Answer(const httplib::Request& req, httplib::Response& res) {
    if (tConnection != nullptr) {
        tConnection->CountCall();
    }
    Reply reply = _core->Handle(ReadCallInfo(req), req.body.data(), req.body.size());
    switch (reply.kind) {
        case Reply::Kind::Result:
            res.status = reply.httpStatus;
            if (reply.httpStatus == 401) {
                res.set_header("WWW-Authenticate", "Basic realm=\"teza\"");
            }
            res.set_content(ToXml(reply.result.get()), kXml);
            break;
        case Reply::Kind::Http:
            res.status = reply.httpStatus;
            res.set_content(reply.body, "text/plain; charset=utf-8");
            break;
        case Reply::Kind::Raw:
            res.status = 200;
            res.set_content(reply.body, kXml);
            break;
        case Reply::Kind::Truncated: {
            auto text = std::make_shared<std::string>(ToXml(reply.result.get()));
            res.status = 200;
            res.set_content_provider(
                text->size(), kXml, [text](size_t offset, size_t, httplib::DataSink& sink) {
                    if (offset == 0) {
                        sink.write(text->data(), text->size() / 2);
                    }
                    return false;  // the answer ends here and the connection is closed
                });
            break;
        }
        case Reply::Kind::Drop:
        case Reply::Kind::Refuse:
            if (tConnection != nullptr) {
                tConnection->Abort(reply.kind == Reply::Kind::Refuse);
            }
            res.status = 500;
            break;
    }
}

HttpFrontEnd::HttpFrontEnd(ServiceCore* core, HttpOptions options)
    : _core(core), _options(std::move(options)) {}

HttpFrontEnd::~HttpFrontEnd() {
    Stop();
}

bool HttpFrontEnd::Start(std::string* error) {
    SSL_CTX* tls = nullptr;
    if (!_options.certFile.empty()) {
        tls = NewTlsContext(_options, error);
        if (tls == nullptr) {
            return false;
        }
    }
    _server = std::make_unique<Server>(_core, _options, tls);
    if (!_options.unixPath.empty()) {
        // A socket file left by a server that ended without cleaning up is replaced; any
        // other file is not.
        struct stat st;
        if (lstat(_options.unixPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
            unlink(_options.unixPath.c_str());
        }
        _server->set_address_family(AF_UNIX);
        if (!_server->bind_to_port(_options.unixPath, 80)) {
            *error = "cannot listen on the Unix socket " + _options.unixPath;
            _server.reset();
            return false;
        }
        _port = 0;
    } else if (_options.port == 0) {
        _port = _server->bind_to_any_port(_options.address);
        if (_port < 0) {
            *error = "cannot listen on " + _options.address;
            _server.reset();
            return false;
        }
    } else {
        if (!_server->bind_to_port(_options.address, _options.port)) {
            *error =
                "cannot listen on " + _options.address + " port " + std::to_string(_options.port);
            _server.reset();
            return false;
        }
        _port = _options.port;
    }
    _listener = std::thread([this] {
        // The pool threads start from this thread and inherit its mask: a peer that closes
        // its end must not kill the process, and stop signals belong to the main thread.
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGPIPE);
        sigaddset(&blocked, SIGINT);
        sigaddset(&blocked, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        _server->listen_after_bind();
        _server->MarkEnded();
    });
    // stop() only works once the accept loop runs.
    while (!_server->is_running() && !_server->ended()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string HttpFrontEnd::url() const {
    if (!_options.unixPath.empty()) {
        return "unix:" + _options.unixPath;
    }
    std::string host = _options.address.find(':') != std::string::npos
                           ? "[" + _options.address + "]"
                           : _options.address;
    return std::string(_options.certFile.empty() ? "http://" : "https://") + host + ":" +
           std::to_string(_port);
}

void HttpFrontEnd::Stop() {
    if (_server == nullptr) {
        return;
    }
    _server->BeginStop();
    _core->Stop();
    _server->stop();
    if (_listener.joinable()) {
        _listener.join();
    }
    if (!_options.unixPath.empty()) {
        unlink(_options.unixPath.c_str());
    }
    _server.reset();
}

}  // namespace tezad
