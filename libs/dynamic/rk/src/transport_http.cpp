// HTTP, HTTPS and HTTP over a Unix socket, on libcurl.
//
// Each server handle owns one easy handle. An easy handle used on its own keeps its own
// connection cache, so the connection made by the first call stays open and the next calls
// reuse it; closing the handle (curl_easy_cleanup) closes it. The options are applied again
// only when a setter changed something: curl_easy_reset clears the options but keeps the open
// connection.

#include <curl/curl.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <memory>
#include <new>
#include <string>

#include "transport.h"

namespace rk {

namespace {

const char kPath[] = "/teza";

// Blocks SIGPIPE in the calling thread while OpenSSL writes to a socket the peer may have
// closed (libcurl's own sends on plain sockets never raise it), and swallows a SIGPIPE raised
// meanwhile, so that a closed connection is reported as a failed call instead of ending the
// process.
class SigpipeBlock {
  public:
    explicit SigpipeBlock(bool active) : _active(active) {
        if (!_active) {
            return;
        }
        sigemptyset(&_pipe);
        sigaddset(&_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &_pipe, &_old);
        _wasBlocked = sigismember(&_old, SIGPIPE) == 1;
    }
    ~SigpipeBlock() {
        if (!_active || _wasBlocked) {
            return;
        }
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE) == 1) {
            struct timespec zero = {0, 0};
            sigtimedwait(&_pipe, nullptr, &zero);
        }
        pthread_sigmask(SIG_SETMASK, &_old, nullptr);
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

  private:
    bool _active;
    bool _wasBlocked = false;
    sigset_t _pipe;
    sigset_t _old;
};

class CurlConnection final : public HttpConnection {
  public:
    explicit CurlConnection(CURL* easy) : _easy(easy) { _error[0] = '\0'; }
    ~CurlConnection() override {
        curl_easy_cleanup(_easy);
        curl_slist_free_all(_headers);
        ReleaseCurl();
    }
    CurlConnection(const CurlConnection&) = delete;
    CurlConnection& operator=(const CurlConnection&) = delete;

    rk_elem* Call(const ServerSettings& s, const std::string& body) override;

  private:
    void Apply(const ServerSettings& s);
    rk_elem* TransferFailure(CURLcode code, const ServerSettings& s);
    rk_elem* Answer();
    static size_t OnBody(char* data, size_t size, size_t count, void* self);
    static size_t OnHeader(char* data, size_t size, size_t count, void* self);

    CURL* const _easy;
    curl_slist* _headers = nullptr;
    uint64_t _appliedGeneration = 0;
    std::string _endpoint;  // for messages: "http://host:port" or "unix socket /path"
    size_t _limit = RK_PARSE_MAX_BYTES;
    // Per call.
    std::string _body;
    bool _overLimit = false;
    std::string _statusLine;
    char _error[CURL_ERROR_SIZE];
};

void Check(CURLcode code) {
    // Setting an option fails only for lack of memory (every option used here is known to the
    // libcurl that Debian ships).
    if (code != CURLE_OK) {
        throw std::bad_alloc();
    }
}

template <typename T>
void SetOpt(CURL* easy, CURLoption option, T value) {
    Check(curl_easy_setopt(easy, option, value));
}

void AddHeader(curl_slist** list, const std::string& header) {
    curl_slist* extended = curl_slist_append(*list, header.c_str());
    if (extended == nullptr) {
        throw std::bad_alloc();
    }
    *list = extended;
}

void CurlConnection::Apply(const ServerSettings& s) {
    curl_easy_reset(_easy);
    curl_slist_free_all(_headers);
    _headers = nullptr;

    std::string url;
    if (s.transport == RK_TRANSPORT_UNIX_SOCKET) {
        SetOpt(_easy, CURLOPT_UNIX_SOCKET_PATH, s.host.c_str());
        url = std::string("http://localhost") + kPath;
        _endpoint = "unix socket " + s.host;
    } else {
        const bool https = s.transport == RK_TRANSPORT_HTTPS;
        std::string host = s.host;
        if (host.find(':') != std::string::npos && host[0] != '[') {
            host = "[" + host + "]";  // an IPv6 address
        }
        int port = s.port != 0 ? s.port : (https ? 443 : 80);
        _endpoint = std::string(https ? "https://" : "http://") + host + ":" + std::to_string(port);
        url = _endpoint + kPath;
    }
    SetOpt(_easy, CURLOPT_URL, url.c_str());
    SetOpt(_easy, CURLOPT_PROTOCOLS_STR, "http,https");
    SetOpt(_easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    SetOpt(_easy, CURLOPT_POST, 1L);
    SetOpt(_easy, CURLOPT_NOSIGNAL, 1L);  // several threads; time-outs without SIGALRM
    SetOpt(_easy, CURLOPT_TCP_NODELAY, 1L);
    SetOpt(_easy, CURLOPT_MAXCONNECTS, 1L);
    SetOpt(_easy, CURLOPT_USERAGENT, "librk/" RK_VERSION);
    SetOpt(_easy, CURLOPT_ERRORBUFFER, _error);
    SetOpt(_easy, CURLOPT_WRITEFUNCTION, &CurlConnection::OnBody);
    SetOpt(_easy, CURLOPT_WRITEDATA, static_cast<void*>(this));
    SetOpt(_easy, CURLOPT_HEADERFUNCTION, &CurlConnection::OnHeader);
    SetOpt(_easy, CURLOPT_HEADERDATA, static_cast<void*>(this));

    _limit = s.maxResponseBytes;
    SetOpt(_easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(_limit));
    if (s.timeoutSeconds > 0) {
        SetOpt(_easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(s.timeoutSeconds));
        SetOpt(_easy, CURLOPT_TIMEOUT, static_cast<long>(s.timeoutSeconds));
    }

    // Credentials by style. The certificate style sends none in HTTP: the client certificate
    // below is its credential (the call was refused before this point without HTTPS and a
    // certificate). The token style sends the admin user's password as a bearer token, sent
    // with the first request, like basic authentication, since it is the only method allowed.
    if (s.style == RK_STYLE_LOGIN_PASSWORD && s.hasUser) {
        SetOpt(_easy, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
        SetOpt(_easy, CURLOPT_USERNAME, s.login.c_str());
        SetOpt(_easy, CURLOPT_PASSWORD, s.password.c_str());
    } else if (s.style == RK_STYLE_TOKEN) {
        SetOpt(_easy, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BEARER));
        SetOpt(_easy, CURLOPT_XOAUTH2_BEARER, s.password.c_str());
    }

    if (s.transport == RK_TRANSPORT_HTTPS) {
        SetOpt(_easy, CURLOPT_SSL_VERIFYPEER, 1L);
        SetOpt(_easy, CURLOPT_SSL_VERIFYHOST, 2L);
        if (!s.caFile.empty()) {
            SetOpt(_easy, CURLOPT_CAINFO, s.caFile.c_str());
        }
        if (!s.certFile.empty()) {
            SetOpt(_easy, CURLOPT_SSLCERT, s.certFile.c_str());
            SetOpt(_easy, CURLOPT_SSLCERTTYPE, "PEM");
            if (!s.keyFile.empty()) {
                SetOpt(_easy, CURLOPT_SSLKEY, s.keyFile.c_str());
                SetOpt(_easy, CURLOPT_SSLKEYTYPE, "PEM");
            }
            if (s.hasKeyPassphrase) {
                SetOpt(_easy, CURLOPT_KEYPASSWD, s.keyPassphrase.c_str());
            }
        }
        // A new handle resumes the TLS session an earlier handle made with the same host,
        // port and TLS settings (libcurl matches them, the client certificate included), which
        // spares the full handshake. Without the share, the handle keeps no sessions at all.
        if (CURLSH* share = TlsSessionShare()) {
            SetOpt(_easy, CURLOPT_SHARE, share);
        } else {
            SetOpt(_easy, CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
            SetOpt(_easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
        }
    }

    AddHeader(&_headers, "Content-Type: application/xml; charset=utf-8");
    AddHeader(&_headers, "Accept: application/xml");
    AddHeader(&_headers,
              "X-Teza-Api-Version: " + std::to_string(s.major) + "." + std::to_string(s.minor));
    AddHeader(&_headers, "X-Teza-Server-Type: " + std::to_string(s.serverType));
    // No "Expect: 100-continue" round trip before larger requests.
    AddHeader(&_headers, "Expect:");
    SetOpt(_easy, CURLOPT_HTTPHEADER, _headers);

    _appliedGeneration = s.generation;
}

rk_elem* CurlConnection::Call(const ServerSettings& s, const std::string& body) {
    if (_appliedGeneration != s.generation) {
        _appliedGeneration = 0;  // a failure half-way leaves the options to be applied again
        Apply(s);
    }
    SetOpt(_easy, CURLOPT_POSTFIELDS, body.data());
    SetOpt(_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    if (_body.capacity() > (1u << 20)) {
        std::string().swap(_body);  // do not keep the memory of one large answer
    }
    _body.clear();
    _overLimit = false;
    _statusLine.clear();
    _error[0] = '\0';
    CURLcode code;
    {
        SigpipeBlock block(s.transport == RK_TRANSPORT_HTTPS);
        code = curl_easy_perform(_easy);
    }
    return code == CURLE_OK ? Answer() : TransferFailure(code, s);
}

rk_elem* CurlConnection::TransferFailure(CURLcode code, const ServerSettings& s) {
    const std::string detail = _error[0] != '\0' ? _error : curl_easy_strerror(code);
    const std::string limit = std::to_string(s.timeoutSeconds) + " s";
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
            return ResultsNewFailedWire("cannot resolve host '" + s.host + "': " + detail,
                                        RK_ERR_RESOLVE);
        case CURLE_COULDNT_CONNECT: {
            long osErrno = 0;
            curl_easy_getinfo(_easy, CURLINFO_OS_ERRNO, &osErrno);
            if (osErrno == ECONNREFUSED) {
                return ResultsNewFailedWire("connection refused by " + _endpoint, RK_ERR_REFUSED);
            }
            return ResultsNewFailedWire("cannot connect to " + _endpoint + ": " + detail,
                                        RK_ERR_CONNECT);
        }
        case CURLE_OPERATION_TIMEDOUT: {
            // Nothing was sent when the time-out struck before the transfer began.
            curl_off_t pretransfer = 0;
            curl_easy_getinfo(_easy, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
            if (pretransfer == 0) {
                return ResultsNewFailedWire(
                    "connecting to " + _endpoint + " timed out after " + limit,
                    RK_ERR_CONNECT_TIMEOUT);
            }
            return ResultsNewFailedWire("no answer from " + _endpoint + " within " + limit,
                                        RK_ERR_TIMEOUT);
        }
        case CURLE_SSL_CONNECT_ERROR:
            return ResultsNewFailedWire("TLS handshake with " + _endpoint + " failed: " + detail,
                                        RK_ERR_TLS_HANDSHAKE);
        case CURLE_PEER_FAILED_VERIFICATION:
            return ResultsNewFailedWire(
                "the certificate of " + _endpoint + " is not trusted: " + detail,
                RK_ERR_TLS_UNTRUSTED);
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
            return ResultsNewFailedWire("cannot set up TLS for " + _endpoint + ": " + detail,
                                        RK_ERR_TLS_SETUP);
        case CURLE_GOT_NOTHING:
            return ResultsNewFailedWire(_endpoint + " closed the connection without an answer",
                                        RK_ERR_CLOSED);
        case CURLE_RECV_ERROR:
            return ResultsNewFailedWire("receiving from " + _endpoint + " failed: " + detail,
                                        RK_ERR_RECV);
        case CURLE_SEND_ERROR:
            return ResultsNewFailedWire("sending to " + _endpoint + " failed: " + detail,
                                        RK_ERR_SEND);
        case CURLE_PARTIAL_FILE:
            return ResultsNewFailedWire("the answer of " + _endpoint + " was cut short: " + detail,
                                        RK_ERR_TRUNCATED);
        case CURLE_FILESIZE_EXCEEDED:
            return ResultsNewFailedWire("the answer of " + _endpoint + " is over the limit of " +
                                            std::to_string(_limit) + " bytes",
                                        RK_ERR_TOO_LARGE);
        case CURLE_WRITE_ERROR:
            if (_overLimit) {
                return ResultsNewFailedWire("the answer of " + _endpoint +
                                                " is over the limit of " + std::to_string(_limit) +
                                                " bytes",
                                            RK_ERR_TOO_LARGE);
            }
            break;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_HTTP2:
            return ResultsNewFailedWire(
                "the answer of " + _endpoint + " is not understandable HTTP/1.1: " + detail,
                RK_ERR_PROTOCOL);
        case CURLE_UNSUPPORTED_PROTOCOL: {
            // Once connected, this is an answer without an HTTP status line (HTTP/0.9).
            curl_off_t pretransfer = 0;
            curl_easy_getinfo(_easy, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
            if (pretransfer != 0) {
                return ResultsNewFailedWire(
                    "the answer of " + _endpoint + " is not HTTP/1.1: " + detail, RK_ERR_PROTOCOL);
            }
            return ResultsNewFailedWire("libcurl cannot call " + _endpoint + ": " + detail,
                                        RK_ERR_TRANSPORT);
        }
        case CURLE_OUT_OF_MEMORY:
            return ResultsNewFailedWire("out of memory", RK_ERR_NO_MEMORY);
        default:
            break;
    }
    return ResultsNewFailedWire("the call to " + _endpoint + " failed: " + detail +
                                    " (libcurl error " + std::to_string(code) + ")",
                                RK_ERR_OTHER);
}

rk_elem* CurlConnection::Answer() {
    long status = 0;
    curl_easy_getinfo(_easy, CURLINFO_RESPONSE_CODE, &status);
    std::string parseError;
    std::unique_ptr<rk_elem, void (*)(rk_elem*)> tree(
        _body.empty() ? nullptr : ParseXml(_body.data(), _body.size(), &parseError), ElemFree);
    const bool ok = status >= 200 && status < 300;
    // A server may answer a refused call (bad credentials...) with an HTTP error status and a
    // failed result: the result says more than the status.
    if (tree != nullptr && IsResults(tree.get()) && (ok || ResultsStatus(tree.get()) != 1)) {
        return tree.release();
    }
    if (!ok) {
        std::string line = _statusLine.empty() ? "HTTP status " + std::to_string(status)
                                               : "\"" + _statusLine + "\"";
        return ResultsNewFailedWire(_endpoint + " answered " + line + " without a TEZA result",
                                    RK_ERR_HTTP_STATUS);
    }
    if (_body.empty()) {
        return ResultsNewFailedWire(_endpoint + " sent an empty answer", RK_ERR_MALFORMED);
    }
    if (tree == nullptr) {
        return ResultsNewFailedWire(
            "the answer of " + _endpoint + " is not well-formed XML: " + parseError,
            RK_ERR_MALFORMED);
    }
    return ResultsNewFailedWire(
        "the answer of " + _endpoint + " is a <" + tree->name + "> element, not a TEZA result",
        RK_ERR_NOT_RESULT);
}

size_t CurlConnection::OnBody(char* data, size_t size, size_t count, void* self) {
    auto* c = static_cast<CurlConnection*>(self);
    const size_t n = size * count;
    if (n > c->_limit - c->_body.size()) {
        c->_overLimit = true;
        return 0;  // libcurl ends the transfer with CURLE_WRITE_ERROR
    }
    try {
        c->_body.append(data, n);
    } catch (...) {
        return 0;
    }
    return n;
}

size_t CurlConnection::OnHeader(char* data, size_t size, size_t count, void* self) {
    auto* c = static_cast<CurlConnection*>(self);
    const size_t n = size * count;
    // The status line of the final answer (after any "100 Continue"), for messages.
    if (n > 5 && std::string(data, 5) == "HTTP/") {
        try {
            c->_statusLine.assign(data, n);
            while (!c->_statusLine.empty() &&
                   (c->_statusLine.back() == '\r' || c->_statusLine.back() == '\n')) {
                c->_statusLine.pop_back();
            }
        } catch (...) {
            c->_statusLine.clear();
        }
    }
    return n;
}

}  // namespace

std::unique_ptr<HttpConnection> HttpConnection::Create() {
    if (!AcquireCurl()) {
        return nullptr;
    }
    CURL* easy = curl_easy_init();
    if (easy == nullptr) {
        ReleaseCurl();
        throw std::bad_alloc();
    }
    try {
        return std::make_unique<CurlConnection>(easy);
    } catch (...) {
        curl_easy_cleanup(easy);
        ReleaseCurl();
        throw;
    }
}

}  // namespace rk
