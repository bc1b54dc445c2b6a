#include "http_front_end.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "call_answer.h"
#include "call_request.h"
#include "gzip_body.h"
#include "metrics_text.h"

namespace tezad {

namespace {

using Clock = std::chrono::steady_clock;

const char kPath[] = "/teza";
const char kXml[] = "application/xml; charset=utf-8";
// Calls served on one connection before it is closed; announced in the Keep-Alive header.
const size_t kMaxCallsPerConnection = 100000;
// The longest a waiting thread sleeps before it looks whether the server is stopping.
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

int MillisecondsUntil(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left.count(), INT32_MAX)));
}

void Signal(int event, uint64_t count = 1) {
    ssize_t written = write(event, &count, sizeof count);
    (void)written;  // an eventfd counter cannot overflow at these counts
}

// One accepted connection, plain or TLS: the stream cpp-httplib reads requests from and
// writes answers to, and its state between calls. Reads are buffered: httplib reads request
// lines a byte at a time. One worker uses a connection at a time.
class Connection final : public httplib::Stream {
  public:
    Connection(int fd, int timeoutMs) : _fd(fd), _timeoutMs(timeoutMs), _idleSince(Clock::now()) {}
    ~Connection() override {
        if (_ssl != nullptr) {
            SSL_free(_ssl);
        }
        ::close(_fd);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // TLS: the server's side of the handshake, once, before the first request. Notes what
    // the client's certificate is worth, for every call of the connection.
    bool Handshake(SSL_CTX* tls, std::string* error) {
        _ssl = SSL_new(tls);
        if (_ssl == nullptr || SSL_set_fd(_ssl, _fd) != 1 || SSL_accept(_ssl) != 1) {
            *error = OpenSslError();
            return false;
        }
        // A resumed session keeps the certificate and verification result of its first
        // handshake.
        if (X509* peer = SSL_get0_peer_certificate(_ssl)) {
            const long verified = SSL_get_verify_result(_ssl);
            if (verified == X509_V_OK) {
                _certificate = ClientCertificate::Verified;
                _certificateName = CommonName(peer);
            } else {
                _certificate = ClientCertificate::Refused;
                _certificateProblem = X509_verify_cert_error_string(verified);
            }
        }
        return true;
    }
    bool secured() const { return _ssl != nullptr; }
    bool resumed() const { return _ssl != nullptr && SSL_session_reused(_ssl) == 1; }
    SSL* ssl() const { return _ssl; }

    // Adds what the handshake learnt of the client's certificate.
    void DescribeCertificate(CallInfo* info) const {
        info->certificate = _certificate;
        info->certificateName = _certificateName;
        info->certificateProblem = _certificateProblem;
    }

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

    // Sending blocks for at most the socket's send time-out (SO_SNDTIMEO), so no poll is
    // needed first.
    ssize_t write(const char* ptr, size_t size) override {
        if (_aborted) {
            return -1;
        }
        if (_ssl != nullptr) {
            int n = SSL_write(_ssl, ptr, static_cast<int>(std::min<size_t>(size, INT32_MAX)));
            return n > 0 ? n : -1;
        }
        return ::send(_fd, ptr, size, MSG_NOSIGNAL);
    }

    // cpp-httplib asks for both addresses with every request; they are the connection's.
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        if (!_remote.known) {
            _remote.known = true;
            Address(getpeername, &_remote.ip, &_remote.port);
        }
        ip = _remote.ip;
        port = _remote.port;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        if (!_local.known) {
            _local.known = true;
            Address(getsockname, &_local.ip, &_local.port);
        }
        ip = _local.ip;
        port = _local.port;
    }
    int socket() const override { return _fd; }

    // Bytes of the next request already read from the socket.
    bool Buffered() const {
        return _offset < _length || (_ssl != nullptr && SSL_pending(_ssl) > 0);
    }

    // The bytes read and not yet consumed, after reading what has arrived when there are
    // none; false when the connection ended or failed.
    bool Peek(const char** data, size_t* size) {
        if (_aborted || (_offset == _length && Fill() <= 0)) {
            return false;
        }
        *data = _buffer + _offset;
        *size = _length - _offset;
        return true;
    }
    void Consume(size_t size) { _offset += std::min(size, _length - _offset); }

    // Sends `parts` whole, in order, in one system call where the socket takes them.
    bool WriteParts(const struct iovec* parts, size_t count) {
        if (_aborted) {
            return false;
        }
        if (_ssl != nullptr) {
            return WritePartsTls(parts, count);
        }
        struct iovec left[8];
        if (count > sizeof left / sizeof left[0]) {
            return false;
        }
        std::copy(parts, parts + count, left);
        struct msghdr message = {};
        message.msg_iov = left;
        message.msg_iovlen = count;
        while (message.msg_iovlen > 0) {
            ssize_t n = ::sendmsg(_fd, &message, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            // Skips what was sent.
            auto sent = static_cast<size_t>(n);
            while (message.msg_iovlen > 0 && sent >= message.msg_iov->iov_len) {
                sent -= message.msg_iov->iov_len;
                ++message.msg_iov;
                --message.msg_iovlen;
            }
            if (message.msg_iovlen > 0) {
                message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + sent;
                message.msg_iov->iov_len -= sent;
            }
        }
        return true;
    }

    // No more is written; Close drops the connection, or resets it when `reset`.
    void Abort(bool reset) {
        _aborted = true;
        _reset = reset;
    }
    bool aborted() const { return _aborted; }

    void CountCall() { ++_calls; }
    size_t calls() const { return _calls; }
    size_t requests = 0;  // requests read, answered or not

    void MarkIdle() { _idleSince = Clock::now(); }
    Clock::time_point idleSince() const { return _idleSince; }

    // Ends the connection: TLS close_notify (not waited for) and FIN, or RST after Abort(true).
    void Shutdown() {
        if (_ssl != nullptr && !_aborted) {
            SSL_shutdown(_ssl);
        }
        if (_reset) {
            struct linger hard = {1, 0};  // close sends RST
            setsockopt(_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        } else {
            ::shutdown(_fd, SHUT_RDWR);
        }
    }

    // Ends sending (after any TLS alert) and reads what the peer still sends until it closes,
    // for at most a second, so that closing does not reset the connection.
    void Linger() {
        ::shutdown(_fd, SHUT_WR);
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
        char discard[4096];
        while (Poll(POLLIN, MillisecondsUntil(deadline)) &&
               ::recv(_fd, discard, sizeof discard, 0) > 0) {
        }
    }

  private:
    // Over TLS a small answer goes out in one record with its head, and so does a chunk with
    // its size line; a large answer in the records of two writes.
    bool WritePartsTls(const struct iovec* parts, size_t count) {
        size_t total = 0;
        for (size_t i = 0; i < count; ++i) {
            total += parts[i].iov_len;
        }
        if (count == 2 && total - parts[0].iov_len > sizeof _buffer) {
            return WriteTls(static_cast<const char*>(parts[0].iov_base), parts[0].iov_len) &&
                   WriteTls(static_cast<const char*>(parts[1].iov_base), parts[1].iov_len);
        }
        std::string whole;
        whole.reserve(total);
        for (size_t i = 0; i < count; ++i) {
            whole.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
        }
        return WriteTls(whole.data(), whole.size());
    }
    bool WriteTls(const char* data, size_t size) {
        while (size > 0) {
            ssize_t n = write(data, size);
            if (n <= 0) {
                return false;
            }
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    bool Poll(short events, int timeoutMs) const {
        struct pollfd p = {_fd, events, 0};
        return ::poll(&p, 1, timeoutMs) > 0;
    }

    // Reads what has arrived into the buffer: the count, 0 at the end, -1 on failure.
    // Receiving blocks for at most the socket's receive time-out (SO_RCVTIMEO), so no poll is
    // needed first.
    ssize_t Fill() {
        _offset = _length = 0;
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

    // The subject's common name; empty when it has none.
    static std::string CommonName(X509* certificate) {
        char name[256] = "";
        int n = X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name,
                                          sizeof name);
        return n > 0 ? std::string(name, static_cast<size_t>(n)) : std::string();
    }

    struct CachedAddress {
        bool known = false;
        std::string ip;
        int port = 0;
    };

    const int _fd;
    SSL* _ssl = nullptr;
    mutable CachedAddress _remote;
    mutable CachedAddress _local;
    ClientCertificate _certificate = ClientCertificate::None;
    std::string _certificateName;
    std::string _certificateProblem;
    const int _timeoutMs;
    bool _aborted = false;
    bool _reset = false;
    size_t _calls = 0;
    Clock::time_point _idleSince;
    char _buffer[16384];
    size_t _offset = 0;
    size_t _length = 0;
};

// cpp-httplib hands each accepted socket to its task queue; this one runs the hand-over to
// the connection pool at once, on the accepting thread.
class InlineQueue final : public httplib::TaskQueue {
  public:
    void enqueue(std::function<void()> fn) override { fn(); }
    void shutdown() override {}
};

// The connection whose request the calling worker is answering, for scripted faults.
thread_local Connection* tConnection = nullptr;

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

// What a call's header fields say of it: its credentials, API version and server type.
CallInfo ReadCallInfo(const std::string& auth, const std::string& version,
                      const std::string& serverType) {
    CallInfo info;
    if (auth.size() > 7 && strncasecmp(auth.c_str(), "Bearer ", 7) == 0) {
        info.hasToken = true;
        info.token = auth.substr(7);
    } else if (auth.size() > 6 && strncasecmp(auth.c_str(), "Basic ", 6) == 0) {
        const std::string pair = DecodeBase64(auth.substr(6));
        const size_t colon = pair.find(':');
        if (colon != std::string::npos) {
            info.hasCredentials = true;
            info.login = pair.substr(0, colon);
            info.password = pair.substr(colon + 1);
        }
    }
    const size_t dot = version.find('.');
    info.hasVersion = dot != std::string::npos && ParseInt(version.substr(0, dot), &info.major) &&
                      ParseInt(version.substr(dot + 1), &info.minor);
    info.hasServerType = ParseInt(serverType, &info.serverType);
    return info;
}

CallInfo ReadCallInfo(const httplib::Request& req) {
    return ReadCallInfo(req.get_header_value("Authorization"),
                        req.get_header_value("X-Teza-Api-Version"),
                        req.get_header_value("X-Teza-Server-Type"));
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
        // The handshake goes through whatever the client shows; each call is then refused
        // with 401 and the reason (no certificate, expired, another CA...) unless the
        // certificate was verified, which tells a client far more than a TLS alert.
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    }
    // Sessions are resumed (TLS 1.3 tickets, the TLS 1.2 session cache) by clients that
    // connect again; the context names the sessions this server made, which OpenSSL requires
    // before it resumes a session whose client certificate it verified.
    static const unsigned char kSessionContext[] = "tezad";
    SSL_CTX_set_session_id_context(ctx, kSessionContext, sizeof kSessionContext - 1);
    return ctx;
}

}  // namespace

class HttpFrontEnd::Server final : public httplib::Server {
  public:
    Server(ServiceCore* core, const HttpOptions& options)
        : _core(core),
          _certificateRequired(!options.clientCaFile.empty()),
          _gzipAboveBytes(options.gzipAboveBytes),
          _keepAliveSeconds(options.keepAliveSeconds) {
        set_tcp_nodelay(true);
        set_keep_alive_max_count(kMaxCallsPerConnection);
        set_keep_alive_timeout(options.keepAliveSeconds);
        set_read_timeout(options.readTimeoutSeconds, 0);
        set_write_timeout(options.readTimeoutSeconds, 0);
        set_payload_max_length(options.maxRequestBytes);
        new_task_queue = [] { return new InlineQueue; };
        Post(kPath,
             [this](const httplib::Request& req, httplib::Response& res) { Answer(req, res); });
        // The server's own counters, for monitoring; they name APIs and counts only.
        Get("/metrics", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content(MetricsText(_core->GetCounters()), kMetricsContentType);
        });
    }

    void SetPool(ConnectionPool* pool) { _pool = pool; }

    enum class Served { NotTaken, Keep, Close };

    uint64_t callsReadDirectly() const {
        return _callsReadDirectly.load(std::memory_order_relaxed);
    }

    // Answers the next request of `c` when it is a call of the common shape (call_request.h)
    // and its reply a plain result, as ServeRequest would answer it; NotTaken, with nothing
    // read, otherwise. A connection that is about to be closed, and a server with a script,
    // whose replies take other forms, are left to ServeRequest.
    Served ServeCall(Connection& c, bool last) {
        const char* data;
        size_t size;
        CallRequest request;
        if (last || _core->scripted() || !c.Peek(&data, &size) ||
            !ReadCallRequest(data, size, &request)) {
            return Served::NotTaken;
        }
        c.Consume(request.size);
        _callsReadDirectly.fetch_add(1, std::memory_order_relaxed);
        ++c.requests;
        c.CountCall();
        CallInfo info = ReadCallInfo(request.authorization.value, request.apiVersion.value,
                                     request.serverType.value);
        info.certificateRequired = _certificateRequired;
        c.DescribeCertificate(&info);
        Reply reply = _core->Handle(info, request.body, request.bodyLength);
        if (reply.kind != Reply::Kind::Result || !CallResponseStatus(reply.httpStatus)) {
            return Served::Close;  // not a reply of a server without a script
        }
        // The answer's tree is freed once the answer has left (with `reply`): freeing a large
        // one takes a while, which the client then spends reading.
        AnswerForm form;
        form.status = reply.httpStatus;
        form.gzip = _gzipAboveBytes != 0 && AcceptsGzip(request.acceptEncoding.value);
        form.gzipAboveBytes = _gzipAboveBytes;
        form.keepAliveSeconds = _keepAliveSeconds;
        form.maxCallsPerConnection = kMaxCallsPerConnection;
        const bool sent = SendCallAnswer(
            reply.result.get(), form,
            [&c](const struct iovec* parts, size_t n) { return c.WriteParts(parts, n); });
        c.MarkIdle();
        return sent ? Served::Keep : Served::Close;
    }

    // Reads one request from `c` and answers it; false when the connection is to be closed.
    bool ServeRequest(Connection& c, bool last) {
        bool closedByClient = false;
        ++c.requests;
        bool ok = process_request(c, last, closedByClient,
                                  [&c](httplib::Request& req) { req.ssl = c.ssl(); });
        c.MarkIdle();
        return ok && !closedByClient && !c.aborted() && !last;
    }

  private:
    bool process_and_close_socket(socket_t sock) override;
    void Answer(const httplib::Request& req, httplib::Response& res);
    void SetXml(const httplib::Request& req, std::string xml, httplib::Response& res) const;
    bool Compress(const std::string& acceptEncoding, std::string* xml) const;

    ServiceCore* const _core;
    const bool _certificateRequired;  // --client-ca: calls need a verified certificate
    const size_t _gzipAboveBytes;
    const int _keepAliveSeconds;
    ConnectionPool* _pool = nullptr;
    std::atomic<uint64_t> _callsReadDirectly{0};
};

// The workers and the watcher of parked connections. Every connection is owned by exactly
// one of: a worker serving it, the ready queue, or the parked set.
class HttpFrontEnd::ConnectionPool {
  public:
    // Takes over `tls` (null for plain HTTP).
    ConnectionPool(Server* server, ServiceCore* core, const HttpOptions& options, SSL_CTX* tls)
        : _server(server), _core(core), _options(options), _tls(tls) {
        _readyEvent = eventfd(0, EFD_NONBLOCK | EFD_SEMAPHORE | EFD_CLOEXEC);
        _parkEvent = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    ~ConnectionPool() {
        Stop();
        close(_readyEvent);
        close(_parkEvent);
        SSL_CTX_free(_tls);
    }
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    bool valid() const { return _readyEvent >= 0 && _parkEvent >= 0; }

    // Starts the threads; they inherit the caller's signal mask.
    void Start() {
        const int workers = std::max(1, _options.threads);
        for (int i = 0; i < workers; ++i) {
            _workers.emplace_back([this] { Work(); });
        }
        _watcher = std::thread([this] { Watch(); });
    }

    // Takes over a socket just accepted.
    void Adopt(int fd) {
        _core->CountConnection();
        // Answers leave at once instead of waiting for the client's acknowledgement. Fails
        // harmlessly on a Unix socket.
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // Bounds the blocking TLS handshake and TLS record reads.
        struct timeval timeout = {_options.readTimeoutSeconds, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        std::unique_ptr<Connection> c;
        try {
            c = std::make_unique<Connection>(fd, _options.readTimeoutSeconds * 1000);
        } catch (...) {
            ::close(fd);
            _core->CountConnectionClosed();
            return;
        }
        std::lock_guard<std::mutex> lock(_mutex);
        PushReady(std::move(c));
    }

    // Answers the calls in progress, closes every connection and ends the threads.
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (_stopping) {
                return;
            }
            _stopping = true;
        }
        _workAvailable.notify_all();
        Signal(_readyEvent, _workers.size() + 1);
        Signal(_parkEvent);
        for (std::thread& worker : _workers) {
            worker.join();
        }
        if (_watcher.joinable()) {
            _watcher.join();
        }
        // Workers leave nothing behind; this is for a connection queued as they ended.
        std::deque<std::unique_ptr<Connection>> left;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            left.swap(_ready);
        }
        for (auto& c : left) {
            Close(std::move(c));
        }
    }

  private:
    enum class Next { Request, Park, Close };

    // REQUIRES: `_mutex` held.
    void PushReady(std::unique_ptr<Connection> c) {
        _ready.push_back(std::move(c));
        if (_idleWorkers > 0) {
            _workAvailable.notify_one();
        } else {
            // Every worker holds a connection: ask one of them to park its idle one.
            Signal(_readyEvent);
        }
    }

    void Work() {
        for (;;) {
            std::unique_ptr<Connection> c;
            {
                std::unique_lock<std::mutex> lock(_mutex);
                ++_idleWorkers;
                _workAvailable.wait(lock, [this] { return _stopping || !_ready.empty(); });
                --_idleWorkers;
                if (_ready.empty()) {
                    return;
                }
                c = std::move(_ready.front());
                _ready.pop_front();
                if (_ready.empty() && !_stopping) {
                    // Requests for help that nobody needs any more would park connections
                    // for nothing.
                    uint64_t ignored;
                    while (read(_readyEvent, &ignored, sizeof ignored) > 0) {
                    }
                }
            }
            Serve(std::move(c));
        }
    }

    void Serve(std::unique_ptr<Connection> c) {
        if (_tls != nullptr && !c->secured()) {
            std::string error;
            if (c->Handshake(_tls, &error)) {
                if (c->resumed()) {
                    _core->CountTlsSessionResumed();
                }
            } else {
                if (_options.verbose) {
                    fprintf(stderr, "tezad: TLS handshake failed: %s\n", error.c_str());
                }
                // Under TLS 1.3 the client may already be sending its request: closing at once
                // would reset the connection and lose the alert that tells it why.
                c->Linger();
                Close(std::move(c));
                return;
            }
        }
        for (;;) {
            switch (WaitForRequest(*c)) {
                case Next::Park:
                    Park(std::move(c));
                    return;
                case Next::Close:
                    Close(std::move(c));
                    return;
                case Next::Request:
                    break;
            }
            const bool last = Stopping() || c->requests + 1 >= kMaxCallsPerConnection;
            bool keep;
            switch (_server->ServeCall(*c, last)) {
                case Server::Served::Keep:
                    keep = true;
                    break;
                case Server::Served::Close:
                    keep = false;
                    break;
                case Server::Served::NotTaken:
                    tConnection = c.get();
                    keep = _server->ServeRequest(*c, last);
                    tConnection = nullptr;
                    break;
            }
            if (!keep) {
                Close(std::move(c));
                return;
            }
        }
    }

    // Waits on the worker's connection for its next request, giving it up when another
    // connection needs a worker, when it stayed idle too long, or when the server stops.
    Next WaitForRequest(Connection& c) {
        const Clock::time_point deadline =
            c.idleSince() + std::chrono::seconds(_options.keepAliveSeconds);
        for (;;) {
            if (Stopping()) {
                return Next::Close;
            }
            if (c.Buffered()) {
                return Next::Request;
            }
            struct pollfd fds[2] = {{c.socket(), POLLIN, 0}, {_readyEvent, POLLIN, 0}};
            int n = poll(fds, 2, std::min(kStopPollMs, MillisecondsUntil(deadline)));
            if (n > 0 && fds[0].revents != 0) {
                return Next::Request;  // a request, or the client's close
            }
            if (n > 0 && (fds[1].revents & POLLIN) != 0) {
                uint64_t one;
                if (read(_readyEvent, &one, sizeof one) > 0) {
                    return Stopping() ? Next::Close : Next::Park;
                }
            }
            if (Clock::now() >= deadline) {
                return Next::Close;
            }
        }
    }

    void Park(std::unique_ptr<Connection> c) {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (!_stopping) {
                _parked.push_back(std::move(c));
            }
        }
        if (c != nullptr) {
            Close(std::move(c));
        } else {
            Signal(_parkEvent);
        }
    }

    // Hands parked connections back to the workers when their next request arrives, and
    // closes those that stayed idle too long.
    void Watch() {
        const auto keepAlive = std::chrono::seconds(_options.keepAliveSeconds);
        for (;;) {
            std::vector<struct pollfd> fds;
            Clock::time_point next = Clock::now() + std::chrono::seconds(60);
            {
                std::lock_guard<std::mutex> lock(_mutex);
                if (_stopping) {
                    break;
                }
                fds.push_back({_parkEvent, POLLIN, 0});
                for (const auto& c : _parked) {
                    fds.push_back({c->socket(), POLLIN, 0});
                    next = std::min(next, c->idleSince() + keepAlive);
                }
            }
            poll(fds.data(), fds.size(), MillisecondsUntil(next));
            uint64_t ignored;
            while (read(_parkEvent, &ignored, sizeof ignored) > 0) {
            }
            std::vector<std::unique_ptr<Connection>> expired;
            {
                std::lock_guard<std::mutex> lock(_mutex);
                const Clock::time_point now = Clock::now();
                // Workers only append to `_parked`, so the first entries are those polled.
                std::vector<std::unique_ptr<Connection>> still;
                for (size_t i = 0; i < _parked.size(); ++i) {
                    bool polled = i + 1 < fds.size();
                    if (_stopping) {
                        expired.push_back(std::move(_parked[i]));
                    } else if (polled && fds[i + 1].revents != 0) {
                        PushReady(std::move(_parked[i]));
                    } else if (_parked[i]->idleSince() + keepAlive <= now) {
                        expired.push_back(std::move(_parked[i]));
                    } else {
                        still.push_back(std::move(_parked[i]));
                    }
                }
                _parked = std::move(still);
            }
            for (auto& c : expired) {
                Close(std::move(c));
            }
        }
        std::vector<std::unique_ptr<Connection>> left;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            left = std::move(_parked);
            _parked.clear();
        }
        for (auto& c : left) {
            Close(std::move(c));
        }
    }

    void Close(std::unique_ptr<Connection> c) {
        std::string ip;
        int port = 0;
        c->get_remote_ip_and_port(ip, port);
        const size_t calls = c->calls();
        c->Shutdown();
        c.reset();
        _core->CountConnectionClosed();
        if (_options.verbose) {
            fprintf(stderr, "tezad: connection from %s:%d closed after %zu calls; %s\n", ip.c_str(),
                    port, calls, _core->CountersLine().c_str());
        }
    }

    bool Stopping() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _stopping;
    }

    Server* const _server;
    ServiceCore* const _core;
    const HttpOptions _options;
    SSL_CTX* const _tls;
    int _readyEvent;  // a request for help: a worker holding an idle connection parks it
    int _parkEvent;   // wakes the watcher: the parked set grew, or the server stops
    std::vector<std::thread> _workers;
    std::thread _watcher;

    std::mutex _mutex;
    std::condition_variable _workAvailable;
    // Guarded by `_mutex`.
    std::deque<std::unique_ptr<Connection>> _ready;
    std::vector<std::unique_ptr<Connection>> _parked;
    int _idleWorkers = 0;
    bool _stopping = false;
};

bool HttpFrontEnd::Server::process_and_close_socket(socket_t sock) {
    _pool->Adopt(sock);
    return true;
}

void HttpFrontEnd::Server::Answer(const httplib::Request& req, httplib::Response& res) {
    if (tConnection != nullptr) {
        tConnection->CountCall();
    }
    CallInfo info = ReadCallInfo(req);
    info.certificateRequired = _certificateRequired;
    if (tConnection != nullptr) {
        tConnection->DescribeCertificate(&info);
    }
    Reply reply = _core->Handle(info, req.body.data(), req.body.size());
    switch (reply.kind) {
        case Reply::Kind::Result:
            res.status = reply.httpStatus;
            if (reply.httpStatus == 401) {
                res.set_header("WWW-Authenticate", "Basic realm=\"teza\"");
            }
            SetXml(req, ToXml(reply.result.get()), res);
            break;
        case Reply::Kind::Http:
            res.status = reply.httpStatus;
            res.set_content(reply.body, "text/plain; charset=utf-8");
            break;
        case Reply::Kind::Raw:
            res.status = 200;
            SetXml(req, std::move(reply.body), res);
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

// cpp-httplib compresses text/* bodies by itself when asked; XML answers are compressed here,
// only above the threshold, where the saving outweighs the work on both sides.
void HttpFrontEnd::Server::SetXml(const httplib::Request& req, std::string xml,
                                  httplib::Response& res) const {
    if (Compress(req.get_header_value("Accept-Encoding"), &xml)) {
        res.set_header("Content-Encoding", "gzip");
    }
    res.body = std::move(xml);
    res.set_header("Content-Type", kXml);
}

// Replaces `xml` by its gzip form when it is above the threshold and the client accepts gzip;
// true when it did.
bool HttpFrontEnd::Server::Compress(const std::string& acceptEncoding, std::string* xml) const {
    std::string compressed;
    if (_gzipAboveBytes == 0 || xml->size() <= _gzipAboveBytes || !AcceptsGzip(acceptEncoding) ||
        !GzipCompress(*xml, &compressed)) {
        return false;
    }
    *xml = std::move(compressed);
    return true;
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
    _server = std::make_unique<Server>(_core, _options);
    _pool = std::make_unique<ConnectionPool>(_server.get(), _core, _options, tls);
    _server->SetPool(_pool.get());
    auto fail = [&](const std::string& what) {
        *error = what;
        _pool.reset();
        _server.reset();
        return false;
    };
    if (!_pool->valid()) {
        return fail("cannot create an eventfd");
    }
    if (!_options.unixPath.empty()) {
        // A socket file left by a server that ended without cleaning up is replaced; any
        // other file is not.
        struct stat st;
        if (lstat(_options.unixPath.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
            unlink(_options.unixPath.c_str());
        }
        _server->set_address_family(AF_UNIX);
        if (!_server->bind_to_port(_options.unixPath, 80)) {
            return fail("cannot listen on the Unix socket " + _options.unixPath);
        }
        _port = 0;
    } else if (_options.port == 0) {
        _port = _server->bind_to_any_port(_options.address);
        if (_port < 0) {
            return fail("cannot listen on " + _options.address);
        }
    } else {
        if (!_server->bind_to_port(_options.address, _options.port)) {
            return fail("cannot listen on " + _options.address + " port " +
                        std::to_string(_options.port));
        }
        _port = _options.port;
    }

    // The threads inherit this mask: a peer that closes its end must not kill the process,
    // and stop signals belong to the controlling thread.
    sigset_t blocked;
    sigset_t previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    _pool->Start();
    _listener = std::thread([this] {
        _server->listen_after_bind();
        _listenerEnded = true;
    });
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    // stop() only works once the accept loop runs.
    while (!_server->is_running() && !_listenerEnded.load()) {
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

uint64_t HttpFrontEnd::callsReadDirectly() const {
    return _server != nullptr ? _server->callsReadDirectly() : 0;
}

void HttpFrontEnd::Stop() {
    if (_server == nullptr) {
        return;
    }
    _core->Stop();
    _server->stop();
    if (_listener.joinable()) {
        _listener.join();
    }
    _pool->Stop();
    if (!_options.unixPath.empty()) {
        unlink(_options.unixPath.c_str());
    }
    _pool.reset();
    _server.reset();
}

}  // namespace tezad
