// HTTP, HTTPS and HTTP over a Unix socket, on libcurl.
//
// Each server handle owns one easy handle and one multi handle, which runs the easy handle's
// transfers and keeps their connection in its connection cache: the connection made by the
// first call stays open and the next calls reuse it; closing the handle (curl_multi_cleanup)
// closes it. Driving the multi handle here rather than through curl_easy_perform saves a
// system call per call: curl_easy_perform polls before it starts a transfer, where the loop
// below starts at once and polls only while libcurl waits for the server. The options are
// applied again only when a setter changed something: curl_easy_reset clears the options but
// keeps the open connection.
//
// What an answer may cost: its body is held in one buffer that never grows past the handle's
// limit (so receiving costs about the limit at most, never the doubling of a growing string),
// and its header lines are counted against the RK_HTTP_MAX_* limits of rk.h as they arrive.
// A large body, once its buffer is a mapping of the size limit (which no longer moves), is
// parsed as it arrives (StreamParse), so that little is left to parse when the transfer ends.
//
// Each request is written to the network at most once. libcurl sends a request again on a new
// connection when a reused one fails before any byte of the answer (it cannot tell a server
// that closed an idle connection from one that read the request and dropped it). A connection
// found closed before the request goes out is replaced before libcurl reports the request
// about to be sent (CURLOPT_PREREQFUNCTION); a new connection asked for after that can only
// be for sending it again, and opening it is refused (CURLOPT_OPENSOCKETFUNCTION). The body
// stays in CURLOPT_POSTFIELDS, which libcurl sends with the header in one write.

#include <arpa/inet.h>
#include <curl/curl.h>
#include <errno.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>

#include <memory>
#include <new>
#include <string>

#include "tls_trust.h"
#include "transport.h"

namespace rk {

namespace {

const char kPath[] = "/teza";

// Below this size an answer's buffer doubles as it grows, in the C library's heap, whose memory
// the next answers reuse without a page fault; past it, the buffer is mapped from the system as
// large as the limit at once (or as the announced length). Only the pages written into a
// mapping become resident, and growing never needs the old and the new buffer at their full
// sizes together.
const size_t kGrowInSteps = 4u << 20;

// The first bytes of a mapped answer that take small pages.
const size_t kSmallPagesFirst = 2u << 20;

// The body of one answer: a small one malloc'd, a large one mapped on its own, so that it never
// moves the C library's threshold for mapping blocks (glibc raises it to the size of each
// mapped block freed, after which the next answers' trees and records would stay in its heap,
// resident after they are freed), and its pages go back to the system as soon as it is freed
// (or, through the parse, as soon as they are read). Huge pages, where the system gives them,
// spare a fault per 4 KiB page. Never grows past the capacity it is asked for.
class AnswerBuffer {
  public:
    AnswerBuffer() = default;
    ~AnswerBuffer() { Release(); }
    AnswerBuffer(const AnswerBuffer&) = delete;
    AnswerBuffer& operator=(const AnswerBuffer&) = delete;

    const char* data() const { return _data; }
    size_t size() const { return _size; }
    size_t capacity() const { return _capacity; }
    bool empty() const { return _size == 0; }
    // Whether the buffer is a mapping of its own, whose pages the parse may give back.
    bool mapped() const { return _mapped; }
    void clear() { _size = 0; }
    void Release() {
        if (_mapped) {
            munmap(_data, _capacity);
        } else {
            free(_data);
        }
        _data = nullptr;
        _size = 0;
        _capacity = 0;
        _mapped = false;
    }
    // False when memory is exhausted; the buffer is then unchanged.
    bool Reserve(size_t capacity) {
        if (capacity <= _capacity) {
            return true;
        }
        if (capacity <= kGrowInSteps) {
            char* grown = static_cast<char*>(realloc(_data, capacity));
            if (grown == nullptr) {
                return false;
            }
            _data = grown;
            _capacity = capacity;
            return true;
        }
        void* mapped =
            mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            return false;
        }
        // Huge pages past the first 2 MiB only: an answer of a few hundred kilobytes (a mapping
        // as large as the limit when its size is not announced) then takes 4 KiB pages as it
        // is written, not a 2 MiB page to clear for its first byte.
        if (capacity > kSmallPagesFirst) {
            madvise(static_cast<char*>(mapped) + kSmallPagesFirst, capacity - kSmallPagesFirst,
                    MADV_HUGEPAGE);
        }
        if (_size > 0) {
            memcpy(mapped, _data, _size);
        }
        const size_t size = _size;
        Release();
        _data = static_cast<char*>(mapped);
        _size = size;
        _capacity = capacity;
        _mapped = true;
        return true;
    }
    // REQUIRES: size() + n <= capacity().
    void Append(const char* bytes, size_t n) {
        memcpy(_data + _size, bytes, n);
        _size += n;
    }

  private:
    char* _data = nullptr;
    size_t _size = 0;
    size_t _capacity = 0;
    bool _mapped = false;
};

// Host names and addresses that never go through a proxy: "localhost" and the loopback
// addresses 127.0.0.0/8 and ::1 (an IPv4-mapped 127.x address too).
bool IsLoopbackHost(std::string host) {
    if (!host.empty() && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    if (strcasecmp(host.c_str(), "localhost") == 0) {
        return true;
    }
    in_addr v4;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    const size_t zone = host.find('%');
    if (zone != std::string::npos) {
        host.resize(zone);
    }
    in6_addr v6;
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
    }
    return false;
}

// Header field values: optional white space trimmed.
std::string Trim(const char* begin, const char* end) {
    while (begin < end && (*begin == ' ' || *begin == '\t')) {
        ++begin;
    }
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t')) {
        --end;
    }
    return std::string(begin, end);
}

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
    CurlConnection(CURLM* multi, CURL* easy) : _multi(multi), _easy(easy) { _error[0] = '\0'; }
    ~CurlConnection() override {
        curl_multi_cleanup(_multi);
        curl_easy_cleanup(_easy);
        curl_slist_free_all(_headers);
        ReleaseCurl();
    }
    CurlConnection(const CurlConnection&) = delete;
    CurlConnection& operator=(const CurlConnection&) = delete;

    rk_elem* Call(const ServerSettings& s, const std::string& body) override;

  private:
    // Where the header callback stands in the answer.
    enum class HeaderState {
        kStatusLine,  // before the status line of an answer (interim or final)
        kFields,      // among the header fields of an answer
        kBody,        // after the final answer's header: body, then trailers
    };

    // A failure's reason and error number; `errnum` 0 while it is not known.
    struct Failure {
        std::string reason;
        int errnum = 0;
    };

    void Apply(const ServerSettings& s);
    void ApplyEndpoint(const ServerSettings& s);
    void ApplyTransfer(const ServerSettings& s);
    static std::string Authorization(const ServerSettings& s);
    void ApplyTls(const ServerSettings& s);
    void ApplyHeaders(const ServerSettings& s);
    CURLcode Perform();
    rk_elem* TransferFailure(CURLcode code, const ServerSettings& s);
    Failure ResendFailure() const;
    std::string ClosedAfterSending() const;
    Failure ConnectFailure(CURLcode code, const ServerSettings& s, const std::string& detail) const;
    Failure TlsFailure(CURLcode code, const std::string& detail) const;
    Failure ExchangeFailure(CURLcode code, const std::string& detail) const;
    Failure ProtocolFailure(CURLcode code, const std::string& detail) const;
    rk_elem* Answer(const ServerSettings& s);
    bool HeaderLine(const char* data, size_t n);
    bool HeaderField(const char* data, size_t n);
    bool EndOfHeader();
    bool RefuseHttp(const std::string& what);
    static size_t OnBody(char* data, size_t size, size_t count, void* self);
    void FeedBodyParse();
    static size_t OnHeader(char* data, size_t size, size_t count, void* self);
    static int OnPrereq(void* self, char* remoteIp, char* localIp, int remotePort, int localPort);
    static curl_socket_t OnOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);

    CURLM* const _multi;
    CURL* const _easy;
    curl_slist* _headers = nullptr;
    uint64_t _appliedGeneration = 0;
    std::string _endpoint;  // for messages: "http://host:port" or "unix socket /path"
    size_t _limit = RK_PARSE_MAX_BYTES;
    // Per call.
    bool _requestSent = false;    // libcurl went on to write the request
    bool _resendRefused = false;  // libcurl wanted a new connection to send it again
    AnswerBuffer _body;
    // A large answer is parsed as it arrives, once its buffer no longer moves.
    std::unique_ptr<StreamParse> _bodyParse;
    bool _bodyParseOutOfMemory = false;
    int _timeoutSeconds = 0;
    bool _overLimit = false;
    bool _outOfMemory = false;
    std::string _refusal;  // why the answer's HTTP was refused; empty when it was not
    HeaderState _headerState = HeaderState::kStatusLine;
    size_t _headerBytes = 0;
    size_t _headerLines = 0;
    size_t _interimAnswers = 0;
    bool _interim = false;           // the answer being read is a 1xx one
    long long _contentLength = -1;   // of the answer being read; -1 when not announced
    bool _transferEncoding = false;  // of the answer being read
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

// Sets every option of the easy handle from the settings, after clearing the previous ones.
void CurlConnection::Apply(const ServerSettings& s) {
    curl_easy_reset(_easy);
    curl_slist_free_all(_headers);
    _headers = nullptr;
    ApplyEndpoint(s);
    ApplyTransfer(s);
    ApplyTls(s);
    ApplyHeaders(s);
    _appliedGeneration = s.generation;
}

// Where calls go: the URL, a Unix socket, the proxy; sets `_endpoint` for messages.
void CurlConnection::ApplyEndpoint(const ServerSettings& s) {
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
    // Proxies named in the environment (http_proxy, https_proxy, all_proxy, no_proxy) are used
    // as libcurl uses them, but never for a Unix socket or a loopback host: "" turns them off.
    if (s.transport == RK_TRANSPORT_UNIX_SOCKET || IsLoopbackHost(s.host)) {
        SetOpt(_easy, CURLOPT_PROXY, "");
    }
}

// How a call is carried out: HTTP/1.1 POST, this object's callbacks, the answer's size limit
// and the time-outs.
void CurlConnection::ApplyTransfer(const ServerSettings& s) {
    SetOpt(_easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // Whatever the system's OpenSSL configuration allows (also towards an HTTPS proxy).
    SetOpt(_easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    SetOpt(_easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    SetOpt(_easy, CURLOPT_POST, 1L);
    SetOpt(_easy, CURLOPT_NOSIGNAL, 1L);  // several threads; time-outs without SIGALRM
    SetOpt(_easy, CURLOPT_TCP_NODELAY, 1L);
    SetOpt(_easy, CURLOPT_MAXCONNECTS, 1L);
    // Asks for gzip and lets libcurl decode it: OnBody sees the decoded bytes, so the size
    // limit holds for the answer as it is read, however well it was compressed.
    SetOpt(_easy, CURLOPT_ACCEPT_ENCODING, "gzip");
    SetOpt(_easy, CURLOPT_ERRORBUFFER, _error);
    SetOpt(_easy, CURLOPT_WRITEFUNCTION, &CurlConnection::OnBody);
    SetOpt(_easy, CURLOPT_WRITEDATA, static_cast<void*>(this));
    SetOpt(_easy, CURLOPT_HEADERFUNCTION, &CurlConnection::OnHeader);
    SetOpt(_easy, CURLOPT_HEADERDATA, static_cast<void*>(this));
    SetOpt(_easy, CURLOPT_PREREQFUNCTION, &CurlConnection::OnPrereq);
    SetOpt(_easy, CURLOPT_PREREQDATA, static_cast<void*>(this));
    SetOpt(_easy, CURLOPT_OPENSOCKETFUNCTION, &CurlConnection::OnOpenSocket);
    SetOpt(_easy, CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));

    _limit = s.maxResponseBytes;
    SetOpt(_easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(_limit));
    if (s.timeoutSeconds > 0) {
        SetOpt(_easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(s.timeoutSeconds));
        SetOpt(_easy, CURLOPT_TIMEOUT, static_cast<long>(s.timeoutSeconds));
    }
}

// Credentials by style, as the Authorization header field of every request, which
// ApplyHeaders writes. The certificate style sends none in HTTP: the client certificate
// (ApplyTls) is its credential (the call was refused before this point without HTTPS and a
// certificate). The token style sends the admin user's password as a bearer token, sent with
// the first request, like basic authentication, since it is the only method allowed.
//
// The field is what libcurl writes for CURLAUTH_BASIC with CURLOPT_USERNAME and
// CURLOPT_PASSWORD (the base64 of "login:password"), or for CURLAUTH_BEARER with
// CURLOPT_XOAUTH2_BEARER, at the same place in the request; libcurl would format it anew for
// every request. Custom fields go to the server only, never to a proxy's CONNECT request
// (CURLHEADER_SEPARATE), as libcurl's own credentials do.
std::string CurlConnection::Authorization(const ServerSettings& s) {
    if (s.style == RK_STYLE_LOGIN_PASSWORD && s.hasUser) {
        const std::string pair = s.login + ":" + s.password;
        std::string encoded(4 * ((pair.size() + 2) / 3) + 1, '\0');
        const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&encoded[0]),
                                      reinterpret_cast<const unsigned char*>(pair.data()),
                                      static_cast<int>(pair.size()));
        encoded.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return "Authorization: Basic " + encoded;
    }
    if (s.style == RK_STYLE_TOKEN) {
        return "Authorization: Bearer " + s.password;
    }
    return std::string();
}

// HTTPS: verification of the server, the trusted CAs, the client certificate and the sharing
// of TLS sessions between handles.
void CurlConnection::ApplyTls(const ServerSettings& s) {
    if (s.transport == RK_TRANSPORT_HTTPS) {
        SetOpt(_easy, CURLOPT_SSL_VERIFYPEER, 1L);
        SetOpt(_easy, CURLOPT_SSL_VERIFYHOST, 2L);
        // A CA file is parsed once for the process (tls_trust.h), not for every connection;
        // libcurl reads it itself, and says why it cannot, when the shared store cannot be made.
        // Either way the file's certificates are all that is trusted: not the system's
        // directory of certificates beside them.
        if (!s.caFile.empty() && !TrustSharedCaFile(_easy, s.caFile)) {
            SetOpt(_easy, CURLOPT_CAINFO, s.caFile.c_str());
            SetOpt(_easy, CURLOPT_CAPATH, static_cast<char*>(nullptr));
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
}

// The request's header fields besides those libcurl writes itself (Host, Content-Length).
// The list stays the same for every call until the settings change, so that libcurl formats
// none of them per request.
void CurlConnection::ApplyHeaders(const ServerSettings& s) {
    const std::string authorization = Authorization(s);
    if (!authorization.empty()) {
        AddHeader(&_headers, authorization);
    }
    AddHeader(&_headers, "User-Agent: librk/" RK_VERSION);
    // The field CURLOPT_ACCEPT_ENCODING would add, here in its documented place.
    AddHeader(&_headers, "Accept-Encoding: gzip");
    AddHeader(&_headers, "Content-Type: application/xml; charset=utf-8");
    AddHeader(&_headers, "Accept: application/xml");
    AddHeader(&_headers,
              "X-Teza-Api-Version: " + std::to_string(s.major) + "." + std::to_string(s.minor));
    AddHeader(&_headers, "X-Teza-Server-Type: " + std::to_string(s.serverType));
    // No "Expect: 100-continue" round trip before larger requests.
    AddHeader(&_headers, "Expect:");
    SetOpt(_easy, CURLOPT_HTTPHEADER, _headers);
    SetOpt(_easy, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
}

rk_elem* CurlConnection::Call(const ServerSettings& s, const std::string& body) {
    if (_appliedGeneration != s.generation) {
        _appliedGeneration = 0;  // a failure half-way leaves the options to be applied again
        Apply(s);
    }
    SetOpt(_easy, CURLOPT_POSTFIELDS, body.data());
    SetOpt(_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    _requestSent = false;
    _resendRefused = false;
    _bodyParse.reset();
    _bodyParseOutOfMemory = false;
    _timeoutSeconds = s.timeoutSeconds;
    _body.clear();
    _overLimit = false;
    _outOfMemory = false;
    _refusal.clear();
    _headerState = HeaderState::kStatusLine;
    _headerBytes = 0;
    _headerLines = 0;
    _interimAnswers = 0;
    _interim = false;
    _contentLength = -1;
    _transferEncoding = false;
    _statusLine.clear();
    _error[0] = '\0';
    // However the call ends, out of memory included: the memory of one large answer is not
    // kept, and the parse goes before the buffer it reads.
    struct AnswerMemory {
        CurlConnection* c;
        ~AnswerMemory() {
            c->_bodyParse.reset();
            if (c->_body.capacity() > kGrowInSteps) {
                c->_body.Release();
            }
        }
    } answerMemory{this};
    CURLcode code;
    {
        SigpipeBlock block(s.transport == RK_TRANSPORT_HTTPS);
        code = Perform();
    }
    rk_elem* result;
    if (code != CURLE_OK) {
        result = TransferFailure(code, s);
    } else if (_headerState != HeaderState::kBody) {
        // libcurl takes a connection lost in the middle of a header for the end of an answer.
        result = ResultsNewFailedWire(
            "the answer of " + _endpoint + " was cut short in its header: the connection was lost",
            RK_ERR_TRUNCATED);
    } else {
        result = Answer(s);
    }
    return result;
}

// Runs one transfer of the easy handle on the multi handle, as curl_easy_perform would (the
// same results, a failure of the multi handle mapped as it maps it), without its first poll.
CURLcode CurlConnection::Perform() {
    CURLMcode multiCode = curl_multi_add_handle(_multi, _easy);
    CURLcode code = CURLE_OK;
    bool done = false;
    while (!done && multiCode == CURLM_OK) {
        int running = 0;
        multiCode = curl_multi_perform(_multi, &running);
        if (multiCode != CURLM_OK) {
            break;
        }
        if (running == 0) {
            int queued = 0;
            if (CURLMsg* message = curl_multi_info_read(_multi, &queued)) {
                code = message->data.result;
            }
            done = true;
        } else {
            // Time-outs end the wait as well: libcurl shortens it to its next deadline.
            multiCode = curl_multi_poll(_multi, nullptr, 0, 1000, nullptr);
        }
    }
    if (multiCode != CURLM_OK) {
        code = multiCode == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_BAD_FUNCTION_ARGUMENT;
    }
    curl_multi_remove_handle(_multi, _easy);
    return code;
}

// The failed result of a transfer that libcurl ended with `code`.
rk_elem* CurlConnection::TransferFailure(CURLcode code, const ServerSettings& s) {
    const std::string detail = _error[0] != '\0' ? _error : curl_easy_strerror(code);
    Failure failure;
    // The connection was lost once the request went out, and libcurl would have sent it again
    // on a new connection (refused by OnOpenSocket), or it gave up after its own count of such
    // attempts (a send error).
    if (_resendRefused || (code == CURLE_SEND_ERROR && _requestSent)) {
        failure = ResendFailure();
    } else {
        switch (code) {
            case CURLE_COULDNT_RESOLVE_HOST:
            case CURLE_COULDNT_CONNECT:
            case CURLE_OPERATION_TIMEDOUT:
                failure = ConnectFailure(code, s, detail);
                break;
            case CURLE_SSL_CONNECT_ERROR:
            case CURLE_PEER_FAILED_VERIFICATION:
            case CURLE_SSL_CERTPROBLEM:
            case CURLE_SSL_CACERT_BADFILE:
            case CURLE_SSL_CIPHER:
            case CURLE_SSL_CRL_BADFILE:
            case CURLE_SSL_ENGINE_NOTFOUND:
            case CURLE_SSL_ENGINE_SETFAILED:
            case CURLE_SSL_ENGINE_INITFAILED:
                failure = TlsFailure(code, detail);
                break;
            default:
                failure = ExchangeFailure(code, detail);
                if (failure.errnum == 0) {
                    failure = ProtocolFailure(code, detail);
                }
        }
    }
    if (failure.errnum == 0) {
        failure = {"the call to " + _endpoint + " failed: " + detail + " (libcurl error " +
                       std::to_string(code) + ")",
                   RK_ERR_OTHER};
    }
    return ResultsNewFailedWire(failure.reason, failure.errnum);
}

// The request went out and the connection was lost before an answer: it is not sent again.
CurlConnection::Failure CurlConnection::ResendFailure() const {
    long osErrno = 0;
    curl_easy_getinfo(_easy, CURLINFO_OS_ERRNO, &osErrno);
    if (osErrno == ECONNRESET) {
        return {"receiving from " + _endpoint +
                    " failed: the connection was reset after the request was sent: it may have "
                    "been carried out (librk sends a request once)",
                RK_ERR_RECV};
    }
    return {ClosedAfterSending(), RK_ERR_CLOSED};
}

std::string CurlConnection::ClosedAfterSending() const {
    return _endpoint +
           " closed the connection without an answer after the request was sent: it may have "
           "been carried out (librk sends a request once)";
}

// Resolving the host, connecting, and the time-out.
CurlConnection::Failure CurlConnection::ConnectFailure(CURLcode code, const ServerSettings& s,
                                                       const std::string& detail) const {
    if (code == CURLE_COULDNT_RESOLVE_HOST) {
        return {"cannot resolve host '" + s.host + "': " + detail, RK_ERR_RESOLVE};
    }
    if (code == CURLE_COULDNT_CONNECT) {
        long osErrno = 0;
        curl_easy_getinfo(_easy, CURLINFO_OS_ERRNO, &osErrno);
        if (osErrno == ECONNREFUSED) {
            return {"connection refused by " + _endpoint, RK_ERR_REFUSED};
        }
        return {"cannot connect to " + _endpoint + ": " + detail, RK_ERR_CONNECT};
    }
    // The time-out. Nothing was sent when it struck before the transfer began.
    const std::string limit = std::to_string(s.timeoutSeconds) + " s";
    curl_off_t pretransfer = 0;
    curl_easy_getinfo(_easy, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
    if (pretransfer == 0) {
        return {"connecting to " + _endpoint + " timed out after " + limit, RK_ERR_CONNECT_TIMEOUT};
    }
    return {"no answer from " + _endpoint + " within " + limit, RK_ERR_TIMEOUT};
}

// The TLS handshake, the server's certificate, and the client's own TLS set-up.
CurlConnection::Failure CurlConnection::TlsFailure(CURLcode code, const std::string& detail) const {
    if (code == CURLE_SSL_CONNECT_ERROR) {
        return {"TLS handshake with " + _endpoint + " failed: " + detail, RK_ERR_TLS_HANDSHAKE};
    }
    if (code == CURLE_PEER_FAILED_VERIFICATION) {
        return {"the certificate of " + _endpoint + " is not trusted: " + detail,
                RK_ERR_TLS_UNTRUSTED};
    }
    return {"cannot set up TLS for " + _endpoint + ": " + detail, RK_ERR_TLS_SETUP};
}

// Sending the request and receiving the answer; errnum 0 for a code of another kind.
CurlConnection::Failure CurlConnection::ExchangeFailure(CURLcode code,
                                                        const std::string& detail) const {
    const std::string overLimit =
        "the answer of " + _endpoint + " is over the limit of " + std::to_string(_limit) + " bytes";
    switch (code) {
        case CURLE_GOT_NOTHING:
            return {_requestSent ? ClosedAfterSending()
                                 : _endpoint + " closed the connection without an answer",
                    RK_ERR_CLOSED};
        case CURLE_RECV_ERROR: {
            // A chunked body that cannot be decoded fails as a receive error without any
            // error of the socket's.
            long osErrno = 0;
            curl_easy_getinfo(_easy, CURLINFO_OS_ERRNO, &osErrno);
            if (_headerState == HeaderState::kBody && _transferEncoding && osErrno == 0) {
                return {"the answer of " + _endpoint +
                            " cannot be accepted: its chunked body is malformed: " + detail,
                        RK_ERR_PROTOCOL};
            }
            return {"receiving from " + _endpoint + " failed: " + detail, RK_ERR_RECV};
        }
        case CURLE_SEND_ERROR:
            return {"sending to " + _endpoint + " failed: " + detail, RK_ERR_SEND};
        case CURLE_PARTIAL_FILE:
            return {"the answer of " + _endpoint + " was cut short: " + detail, RK_ERR_TRUNCATED};
        case CURLE_FILESIZE_EXCEEDED:
            return {overLimit, RK_ERR_TOO_LARGE};
        case CURLE_WRITE_ERROR:
            // One of the callbacks refused the answer, and said why.
            if (!_refusal.empty()) {
                return {"the answer of " + _endpoint + " cannot be accepted: " + _refusal,
                        RK_ERR_PROTOCOL};
            }
            if (_outOfMemory) {
                return {"out of memory", RK_ERR_NO_MEMORY};
            }
            if (_overLimit) {
                return {overLimit, RK_ERR_TOO_LARGE};
            }
            return {};
        default:
            return {};
    }
}

// An answer that is not HTTP/1.1 as librk accepts it; errnum 0 for a code of another kind.
CurlConnection::Failure CurlConnection::ProtocolFailure(CURLcode code,
                                                        const std::string& detail) const {
    switch (code) {
        case CURLE_BAD_CONTENT_ENCODING:
            return {
                "the answer of " + _endpoint + " has a gzip body that cannot be decoded: " + detail,
                RK_ERR_PROTOCOL};
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
            return {"the answer of " + _endpoint + " is not understandable HTTP/1.1: " + detail,
                    RK_ERR_PROTOCOL};
        case CURLE_UNSUPPORTED_PROTOCOL: {
            // Once connected, this is an answer without an HTTP status line (HTTP/0.9).
            curl_off_t pretransfer = 0;
            curl_easy_getinfo(_easy, CURLINFO_PRETRANSFER_TIME_T, &pretransfer);
            if (pretransfer != 0) {
                return {"the answer of " + _endpoint + " is not HTTP/1.1: " + detail,
                        RK_ERR_PROTOCOL};
            }
            return {"libcurl cannot call " + _endpoint + ": " + detail, RK_ERR_TRANSPORT};
        }
        case CURLE_OUT_OF_MEMORY:
            // libcurl refuses a header line of CURL_MAX_HTTP_HEADER (100 KiB) or more as if
            // memory were exhausted; what it allocates otherwise while reading a header is
            // small, so between the request and the end of the header this is taken for that
            // refusal.
            if (_requestSent && _headerState != HeaderState::kBody) {
                return {"the answer of " + _endpoint + " cannot be accepted: a header line is " +
                            std::to_string(CURL_MAX_HTTP_HEADER) + " bytes or more",
                        RK_ERR_PROTOCOL};
            }
            return {"out of memory", RK_ERR_NO_MEMORY};
        default:
            return {};
    }
}

rk_elem* CurlConnection::Answer(const ServerSettings& s) {
    long status = 0;
    curl_easy_getinfo(_easy, CURLINFO_RESPONSE_CODE, &status);
    double spent = 0;
    curl_easy_getinfo(_easy, CURLINFO_TOTAL_TIME, &spent);
    ParseError parseError;
    if (_bodyParseOutOfMemory) {
        throw std::bad_alloc();
    }
    rk_elem* parsed = nullptr;
    if (_bodyParse != nullptr) {
        parsed = _bodyParse->Finish(_body.size(), &parseError);
    } else if (!_body.empty()) {
        parsed = ParseXml(_body.data(), _body.size(),
                          ParseLimits::ForCall(_limit, s.timeoutSeconds, spent), &parseError,
                          _body.mapped());
    }
    std::unique_ptr<rk_elem, void (*)(rk_elem*)> tree(parsed, ElemFree);
    if (tree == nullptr &&
        (parseError.code == RK_ERR_TOO_LARGE || parseError.code == RK_ERR_TIMEOUT)) {
        return ResultsNewFailedWire(
            "the answer of " + _endpoint +
                (parseError.code == RK_ERR_TIMEOUT ? " came too late: " : " cannot be held: ") +
                parseError.reason,
            parseError.code);
    }
    const bool ok = status >= 200 && status < 300;
    // A server may answer a refused call (bad credentials...) with an HTTP error status and a
    // failed result: the result says more than the status.
    if (tree != nullptr && IsResults(tree.get()) && (ok || ResultsStatus(tree.get()) != 1)) {
        return AcceptServerResult(tree.release(), _endpoint);
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
            "the answer of " + _endpoint + " is not well-formed XML: " + parseError.reason,
            RK_ERR_MALFORMED);
    }
    return ResultsNewFailedWire(
        "the answer of " + _endpoint + " is a <" + tree->name + "> element, not a TEZA result",
        RK_ERR_NOT_RESULT);
}

size_t CurlConnection::OnBody(char* data, size_t size, size_t count, void* self) {
    auto* c = static_cast<CurlConnection*>(self);
    const size_t n = size * count;
    AnswerBuffer& body = c->_body;
    if (n > c->_limit - body.size()) {
        c->_overLimit = true;
        return 0;  // libcurl ends the transfer with CURLE_WRITE_ERROR
    }
    const size_t needed = body.size() + n;
    if (needed > body.capacity()) {
        size_t capacity = body.capacity() < kGrowInSteps / 2 ? 2 * body.capacity() : c->_limit;
        if (capacity < needed) {
            capacity = needed;
        }
        if (capacity > kGrowInSteps || capacity > c->_limit) {
            capacity = c->_limit;
        }
        if (!body.Reserve(capacity)) {
            c->_outOfMemory = true;
            return 0;
        }
    }
    body.Append(data, n);
    // Only a mapping of the size limit never moves: one sized from an announced length grows
    // when a compressed body decodes past that length.
    if (body.mapped() && body.capacity() == c->_limit && !c->_bodyParseOutOfMemory) {
        c->FeedBodyParse();
    }
    return n;
}

// Parses what has arrived of an answer whose buffer no longer moves, while the rest is on its
// way; Answer finishes the parse. The parse gives the pages it has read back as it goes, as a
// parse of the whole answer would.
void CurlConnection::FeedBodyParse() {
    try {
        if (_bodyParse == nullptr) {
            // The deadline is the call's, as Answer reckons it for a whole parse.
            double spent = 0;
            curl_easy_getinfo(_easy, CURLINFO_TOTAL_TIME, &spent);
            _bodyParse.reset(new StreamParse(
                _body.data(), ParseLimits::ForCall(_limit, _timeoutSeconds, spent), true));
        }
        _bodyParse->Feed(_body.size());
    } catch (...) {
        // Pages may have been given back: the answer cannot be parsed anew.
        _bodyParse.reset();
        _bodyParseOutOfMemory = true;
    }
}

size_t CurlConnection::OnHeader(char* data, size_t size, size_t count, void* self) {
    auto* c = static_cast<CurlConnection*>(self);
    const size_t n = size * count;
    try {
        return c->HeaderLine(data, n) ? n : 0;  // 0: libcurl ends with CURLE_WRITE_ERROR
    } catch (...) {
        c->_outOfMemory = true;
        return 0;
    }
}

bool CurlConnection::RefuseHttp(const std::string& what) {
    _refusal = what;
    return false;
}

// One line of the answer's header, as libcurl hands them over: status lines, header fields and
// the blank lines that end them, of interim (1xx) answers and of the final one, and the
// trailers of a chunked body. libcurl itself refuses a single line of 100 KiB or more.
bool CurlConnection::HeaderLine(const char* data, size_t n) {
    _headerBytes += n;
    if (_headerBytes > RK_HTTP_MAX_HEADER_BYTES) {
        return RefuseHttp("its header is over " + std::to_string(RK_HTTP_MAX_HEADER_BYTES) +
                          " bytes");
    }
    if (++_headerLines > RK_HTTP_MAX_HEADER_LINES) {
        return RefuseHttp("its header has more than " + std::to_string(RK_HTTP_MAX_HEADER_LINES) +
                          " lines");
    }
    size_t length = n;
    while (length > 0 && (data[length - 1] == '\r' || data[length - 1] == '\n')) {
        --length;
    }
    switch (_headerState) {
        case HeaderState::kStatusLine: {
            // libcurl hands over only lines that it took for a status line ("HTTP/...").
            _statusLine.assign(data, length);
            const size_t space = _statusLine.find(' ');
            const long code = space == std::string::npos
                                  ? 0
                                  : strtol(_statusLine.c_str() + space + 1, nullptr, 10);
            _interim = code >= 100 && code < 200;
            if (_interim && ++_interimAnswers > RK_HTTP_MAX_INTERIM_ANSWERS) {
                return RefuseHttp("it sent more than " +
                                  std::to_string(RK_HTTP_MAX_INTERIM_ANSWERS) +
                                  " interim (1xx) answers");
            }
            _contentLength = -1;
            _transferEncoding = false;
            _headerState = HeaderState::kFields;
            return true;
        }
        case HeaderState::kFields:
            if (length == 0) {
                return EndOfHeader();
            }
            return HeaderField(data, length);
        case HeaderState::kBody:
            return true;  // trailers: counted above, otherwise unused
    }
    return true;
}

bool CurlConnection::HeaderField(const char* data, size_t n) {
    const char* colon = static_cast<const char*>(memchr(data, ':', n));
    if (colon == nullptr) {
        return RefuseHttp("its header holds a line that is not a field (\"name: value\")");
    }
    const std::string name(data, colon);
    const std::string value = Trim(colon + 1, data + n);
    if (strcasecmp(name.c_str(), "Content-Length") == 0) {
        // One decimal number; repeated fields, or a list in one field, must all agree.
        size_t at = 0;
        do {
            size_t comma = value.find(',', at);
            std::string item =
                Trim(value.c_str() + at,
                     value.c_str() + (comma == std::string::npos ? value.size() : comma));
            at = comma == std::string::npos ? std::string::npos : comma + 1;
            if (item.empty() || item.size() > 18 ||
                item.find_first_not_of("0123456789") != std::string::npos) {
                return RefuseHttp("its Content-Length \"" + value + "\" is not a length");
            }
            const long long length = strtoll(item.c_str(), nullptr, 10);
            if (_contentLength >= 0 && _contentLength != length) {
                return RefuseHttp("it announces two different Content-Length values (" +
                                  std::to_string(_contentLength) + " and " + item + ")");
            }
            _contentLength = length;
        } while (at != std::string::npos);
    } else if (strcasecmp(name.c_str(), "Transfer-Encoding") == 0) {
        _transferEncoding = true;
    } else if (strcasecmp(name.c_str(), "Content-Encoding") == 0 &&
               strcasecmp(value.c_str(), "identity") != 0 &&
               strcasecmp(value.c_str(), "gzip") != 0) {
        // librk asks for gzip alone (Accept-Encoding), so it decodes no other coding.
        return RefuseHttp("its body is encoded with \"" + value +
                          "\", which librk did not ask for");
    }
    return true;
}

bool CurlConnection::EndOfHeader() {
    if (_interim) {
        _headerState = HeaderState::kStatusLine;
        return true;
    }
    _headerState = HeaderState::kBody;
    if (_transferEncoding && _contentLength >= 0) {
        return RefuseHttp("it has both Transfer-Encoding and Content-Length");
    }
    // The announced length sizes the buffer at once, but never beyond the limit: a length over
    // it is refused by libcurl (CURLOPT_MAXFILESIZE_LARGE), and a body may be shorter.
    if (_contentLength > 0 && !_transferEncoding &&
        static_cast<unsigned long long>(_contentLength) <= _limit &&
        !_body.Reserve(static_cast<size_t>(_contentLength))) {
        _outOfMemory = true;
        return false;
    }
    return true;
}

int CurlConnection::OnPrereq(void* self, char*, char*, int, int) {
    static_cast<CurlConnection*>(self)->_requestSent = true;
    return CURL_PREREQFUNC_OK;
}

// A call opens a new connection to send its request once; libcurl asks for one after the
// request went out only to send it again, which is refused before anything is connected.
curl_socket_t CurlConnection::OnOpenSocket(void* self, curlsocktype, curl_sockaddr* address) {
    auto* c = static_cast<CurlConnection*>(self);
    if (c->_requestSent) {
        c->_resendRefused = true;
        return CURL_SOCKET_BAD;  // libcurl ends the transfer with CURLE_COULDNT_CONNECT
    }
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

}  // namespace

std::unique_ptr<HttpConnection> HttpConnection::Create() {
    if (!AcquireCurl()) {
        return nullptr;
    }
    CURL* easy = curl_easy_init();
    CURLM* multi = easy != nullptr ? curl_multi_init() : nullptr;
    // One connection, as an easy handle used on its own keeps.
    if (multi == nullptr || curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, 1L) != CURLM_OK) {
        curl_multi_cleanup(multi);
        curl_easy_cleanup(easy);
        ReleaseCurl();
        throw std::bad_alloc();
    }
    try {
        return std::make_unique<CurlConnection>(multi, easy);
    } catch (...) {
        curl_multi_cleanup(multi);
        curl_easy_cleanup(easy);
        ReleaseCurl();
        throw;
    }
}

}  // namespace rk
