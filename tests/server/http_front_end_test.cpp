// tezad's HTTP front end reads calls of the common shape itself and leaves every other request
// to cpp-httplib: both give the same bytes for the same call, whatever the reply (passed,
// refused, malformed, compressed); the reader takes only what it can read exactly as
// cpp-httplib would; and large answers are compressed at zlib's fastest level.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bench_service.h"
#include "call_answer.h"
#include "call_request.h"
#include "gzip_body.h"
#include "http_front_end.h"
#include "service_core.h"

namespace tezad {
namespace {

const char kHead[] =
    "POST /teza HTTP/1.1\r\n"
    "Host: 127.0.0.1:4000\r\n"
    "User-Agent: librk/0.1.0\r\n"
    "Accept-Encoding: gzip\r\n"
    "Content-Type: application/xml; charset=utf-8\r\n"
    "Accept: application/xml\r\n"
    "X-Teza-Api-Version: 1.0\r\n"
    "X-Teza-Server-Type: 1\r\n";

// A request of the shape librk sends, with `extra` header lines before Content-Length.
std::string Request(const std::string& body, const std::string& extra = "") {
    return kHead + extra + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Call(const std::string& api, const std::string& children = "") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + api + ">" + children + "</" + api +
           ">\n";
}

TEST(CallRequest, ReadsTheRequestLibrkSends) {
    const std::string body = Call("system-get-corvi-version");
    const std::string text = Request(body, "Authorization: Basic YWRtaW46c2VjcmV0\r\n") + "POST";
    CallRequest request;
    ASSERT_TRUE(ReadCallRequest(text.data(), text.size(), &request));
    EXPECT_EQ(request.size, text.size() - 4);  // the next request's bytes are left
    EXPECT_EQ(std::string(request.body, request.bodyLength), body);
    EXPECT_EQ(request.authorization.value, "Basic YWRtaW46c2VjcmV0");
    EXPECT_EQ(request.apiVersion.value, "1.0");
    EXPECT_EQ(request.serverType.value, "1");
    EXPECT_EQ(request.acceptEncoding.value, "gzip");
    // Names in any case, spaces and tabs around values, as cpp-httplib reads them.
    const std::string loose =
        "POST /teza HTTP/1.1\r\ncontent-length:2\r\nx-teza-api-version: \t1.3 "
        "\t\r\n\r\nab";
    ASSERT_TRUE(ReadCallRequest(loose.data(), loose.size(), &request));
    EXPECT_EQ(request.apiVersion.value, "1.3");
    EXPECT_FALSE(request.serverType.present);
    EXPECT_EQ(std::string(request.body, request.bodyLength), "ab");
}

TEST(CallRequest, LeavesEveryOtherRequestToTheHttpLibrary) {
    const std::string body = Call("system-get-corvi-version");
    const std::string whole = Request(body);
    const std::vector<std::string> others = {
        "GET /teza HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
        "POST /teza?x=1 HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
        "POST /teza HTTP/1.0\r\nContent-Length: 0\r\n\r\n",
        "POST /teza HTTP/1.1\r\n\r\n",                          // no Content-Length
        "POST /teza HTTP/1.1\r\nContent-Length: 1x\r\n\r\n1x",  // not a number
        "POST /teza HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx",
        "POST /teza HTTP/1.1\nContent-Length: 0\n\n",                   // LF alone
        "POST /teza HTTP/1.1\r\nContent-Length : 0\r\n\r\n",            // a space in the name
        "POST /teza HTTP/1.1\r\nContent-Length: 0\r\nAccept:\r\n\r\n",  // an empty value
        Request(body, "Connection: close\r\n"),
        Request(body, "Expect: 100-continue\r\n"),
        Request(body, "Transfer-Encoding: chunked\r\n"),
        Request(body, "Content-Encoding: gzip\r\n"),
        Request(body, "Range: bytes=0-10\r\n"),
        Request(body, "X-Other: 1\r\n"),
        Request(body, "Authorization: Bearer a%41\r\n"),  // cpp-httplib decodes the escape
        Request(body, "Authorization: Bearer a\r\nAuthorization: Bearer b\r\n"),
        Request(body, "X-Teza-Api-Version: 1.0\r\n"),  // repeated
        Request(body, "User-Agent: a\x01z\r\n"),
        Request(body, "Accept: " + std::string(kCallRequestMaxHead, 'a') + "\r\n"),
        whole.substr(0, whole.size() - 1),  // the body not all here yet
        whole.substr(0, whole.find("\r\n\r\n") + 2),
    };
    for (const std::string& text : others) {
        CallRequest request;
        EXPECT_FALSE(ReadCallRequest(text.data(), text.size(), &request)) << text;
    }
}

// Every prefix of a request is incomplete; bytes changed anywhere never make the reader look
// outside the bytes it was given (ASan checks every read) nor place the body outside them.
TEST(CallRequest, PrefixesAndChangedBytesStayWithinTheGivenBytes) {
    const std::string text =
        Request(Call("bench-call", "<note>a &amp; b</note>"), "Authorization: Bearer t\r\n");
    CallRequest request;
    ASSERT_TRUE(ReadCallRequest(text.data(), text.size(), &request));
    for (size_t n = 0; n < text.size(); ++n) {
        const std::vector<char> prefix(text.begin(), text.begin() + static_cast<long>(n));
        EXPECT_FALSE(ReadCallRequest(prefix.data(), prefix.size(), &request)) << n;
    }
    size_t accepted = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        for (char c : {'\0', '\r', '\n', ':', '%', ' ', '9', 'x'}) {
            std::vector<char> changed(text.begin(), text.end());
            changed[at] = c;
            if (ReadCallRequest(changed.data(), changed.size(), &request)) {
                ++accepted;
                EXPECT_LE(request.size, changed.size());
                EXPECT_GE(request.body, changed.data());
                EXPECT_EQ(request.body + request.bodyLength, changed.data() + request.size);
            }
        }
    }
    EXPECT_GT(accepted, 0u);  // changes in the body and in the values keep it a call
}

TEST(CallRequest, HeadsAreTheOnesTheHttpLibraryWrites) {
    EXPECT_EQ(CallResponseHead(200, false, 12, 30, 100000),
              "HTTP/1.1 200 OK\r\n"
              "Content-Length: 12\r\n"
              "Content-Type: application/xml; charset=utf-8\r\n"
              "Keep-Alive: timeout=30, max=100000\r\n\r\n");
    EXPECT_EQ(CallResponseHead(401, true, 7, 5, 9),
              "HTTP/1.1 401 Unauthorized\r\n"
              "Content-Encoding: gzip\r\n"
              "Content-Length: 7\r\n"
              "Content-Type: application/xml; charset=utf-8\r\n"
              "Keep-Alive: timeout=5, max=9\r\n"
              "WWW-Authenticate: Basic realm=\"teza\"\r\n\r\n");
    EXPECT_TRUE(CallResponseStatus(400));
    EXPECT_FALSE(CallResponseStatus(503));
}

// A client of a front end on a raw connection: sends bytes, reads whole answers.
class RawClient {
  public:
    explicit RawClient(int port) {
        _fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        timeval timeout = {10, 0};
        setsockopt(_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    ~RawClient() {
        if (_fd >= 0) {
            close(_fd);
        }
    }

    void Send(const std::string& bytes) {
        ASSERT_EQ(send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // One answer, head and body as they came, by its Content-Length or its chunks; empty when
    // the connection ends first.
    std::string Answer() {
        for (;;) {
            const size_t end = _pending.find("\r\n\r\n");
            if (end != std::string::npos) {
                const size_t size = AnswerSize(end + 4);
                if (size != 0) {
                    std::string answer = _pending.substr(0, size);
                    _pending.erase(0, size);
                    return answer;
                }
            }
            if (!Receive()) {
                return "";
            }
        }
    }

    // Reads at least `size` bytes (or what comes before the connection ends) and returns them.
    std::string Some(size_t size) {
        while (_pending.size() < size && Receive()) {
        }
        return _pending;
    }

    void Close() {
        close(_fd);
        _fd = -1;
    }

  private:
    bool Receive() {
        char buffer[65536];
        ssize_t n = recv(_fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            return false;
        }
        _pending.append(buffer, static_cast<size_t>(n));
        return true;
    }

    // The size of the answer whose body starts at `body` in the bytes received, or 0 when not
    // all of it has come.
    size_t AnswerSize(size_t body) const {
        const std::string head = _pending.substr(0, body);
        if (head.find("Transfer-Encoding: chunked\r\n") == std::string::npos) {
            const size_t at = head.find("Content-Length: ");
            const size_t length = at != std::string::npos ? std::stoul(head.substr(at + 16)) : 0;
            return _pending.size() >= body + length ? body + length : 0;
        }
        for (size_t at = body;;) {
            const size_t line = _pending.find("\r\n", at);
            if (line == std::string::npos) {
                return 0;
            }
            const size_t length = std::stoul(_pending.substr(at, line - at), nullptr, 16);
            at = line + 2 + length + 2;
            if (_pending.size() < at) {
                return 0;
            }
            if (length == 0) {
                return at;
            }
        }
    }

  public:
  private:
    int _fd;
    std::string _pending;
};

class FrontEnd : public ::testing::Test {
  protected:
    void Start(CoreOptions options, HttpOptions http = HttpOptions()) {
        _core = std::make_unique<ServiceCore>(std::move(options));
        BenchService::Install(_core.get());
        _frontEnd = std::make_unique<HttpFrontEnd>(_core.get(), http);
        std::string error;
        ASSERT_TRUE(_frontEnd->Start(&error)) << error;
    }

    // The answer to `body` sent as a call of the common shape, and to the same with a header
    // field that leaves it to cpp-httplib, on one connection.
    void ExpectSameAnswers(const std::string& body, const std::string& fields,
                           const std::string& expectedStatusLine) {
        RawClient client(_frontEnd->port());
        client.Send(Request(body, fields));
        const std::string direct = client.Answer();
        client.Send(Request(body, fields + "X-Other: 1\r\n"));
        const std::string library = client.Answer();
        EXPECT_EQ(direct.substr(0, expectedStatusLine.size()), expectedStatusLine) << direct;
        EXPECT_EQ(direct, library);
        EXPECT_EQ(_frontEnd->callsReadDirectly(), ++_direct);
    }

    uint64_t _direct = 0;

    std::unique_ptr<ServiceCore> _core;
    std::unique_ptr<HttpFrontEnd> _frontEnd;
};

TEST_F(FrontEnd, CallsOfTheCommonShapeGetTheHttpLibrarysBytes) {
    Start(CoreOptions());
    ExpectSameAnswers(Call("system-get-corvi-version"), "", "HTTP/1.1 200 OK\r\n");
    // Above the gzip threshold, compressed.
    ExpectSameAnswers(Call("bench-volumes", "<count>100</count>"), "", "HTTP/1.1 200 OK\r\n");
    // A failed result under 200, and an unreadable request under 400.
    ExpectSameAnswers(Call("no-such-api"), "", "HTTP/1.1 200 OK\r\n");
    ExpectSameAnswers("<?xml version=\"1.0\"?>\n<unclosed>", "", "HTTP/1.1 400 Bad Request\r\n");
}

TEST_F(FrontEnd, RefusalsGetTheHttpLibrarysBytes) {
    CoreOptions options;
    options.users["admin"] = "secret";
    Start(options);
    ExpectSameAnswers(Call("system-get-corvi-version"), "", "HTTP/1.1 401 Unauthorized\r\n");
    ExpectSameAnswers(Call("system-get-corvi-version"), "Authorization: Basic YWRtaW46d3Jvbmc=\r\n",
                      "HTTP/1.1 401 Unauthorized\r\n");
    ExpectSameAnswers(Call("system-get-corvi-version"), "Authorization: Basic YWRtaW46c2VjcmV0\r\n",
                      "HTTP/1.1 200 OK\r\n");
}

TEST_F(FrontEnd, CallsSentTogetherAreAnsweredInOrder) {
    Start(CoreOptions());
    RawClient client(_frontEnd->port());
    client.Send(Request(Call("bench-volumes", "<count>1</count>")) +
                Request(Call("bench-volumes", "<count>2</count>")) +
                Request(Call("system-get-corvi-version"), "X-Other: 1\r\n"));
    const std::string first = client.Answer();
    const std::string second = client.Answer();
    const std::string third = client.Answer();
    EXPECT_NE(first.find("volume-000000"), std::string::npos);
    EXPECT_EQ(first.find("volume-000001"), std::string::npos);
    EXPECT_NE(second.find("volume-000001"), std::string::npos);
    EXPECT_NE(third.find("<major-version>1</major-version>"), std::string::npos) << third;
    EXPECT_EQ(_core->GetCounters().calls, 3u);
    EXPECT_EQ(_frontEnd->callsReadDirectly(), 2u);
}

// The XFL byte of a gzip header: 4 when zlib compressed at its fastest level, 0 at its
// default level.
int ExtraFlags(const std::string& gzip) {
    return gzip.size() > 8 ? static_cast<unsigned char>(gzip[8]) : -1;
}

std::string Gunzip(const std::string& gzip, size_t size) {
    std::string out(size + 1, '\0');
    z_stream stream = {};
    EXPECT_EQ(inflateInit2(&stream, 15 + 16), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzip.data()));
    stream.avail_in = static_cast<uInt>(gzip.size());
    stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END);
    EXPECT_EQ(stream.avail_in, 0u) << "bytes after the gzip member";
    out.resize(stream.total_out);
    inflateEnd(&stream);
    return out;
}

// The head of an answer, up to its empty line.
std::string HeadOf(const std::string& answer) {
    return answer.substr(0, answer.find("\r\n\r\n") + 4);
}

// The body of an answer, its chunks joined when it came in chunks.
std::string BodyOf(const std::string& answer) {
    const std::string head = HeadOf(answer);
    if (head.find("Transfer-Encoding: chunked\r\n") == std::string::npos) {
        return answer.substr(head.size());
    }
    std::string body;
    for (size_t at = head.size();;) {
        const size_t line = answer.find("\r\n", at);
        const size_t length = std::stoul(answer.substr(at, line - at), nullptr, 16);
        if (length == 0) {
            return body;
        }
        body += answer.substr(line + 2, length);
        EXPECT_EQ(answer.substr(line + 2 + length, 2), "\r\n");
        at = line + 2 + length + 2;
    }
}

// The volumes of an answer of this many volumes are longer than kStreamAboveBytes.
const int kStreamedVolumes = 5000;

TEST_F(FrontEnd, LargeAnswersComeInChunksWithTheSameText) {
    Start(CoreOptions());
    const std::string call =
        Call("bench-volumes", "<count>" + std::to_string(kStreamedVolumes) + "</count>");
    const std::string acceptGzip = "Accept-Encoding: gzip\r\n";
    for (bool gzip : {false, true}) {
        RawClient client(_frontEnd->port());
        std::string request = Request(call);
        if (!gzip) {
            request.erase(request.find(acceptGzip), acceptGzip.size());
        }
        client.Send(request);
        const std::string direct = client.Answer();
        // cpp-httplib answers the same call whole, with its length.
        const size_t length = request.find("Content-Length");
        client.Send(request.substr(0, length) + "X-Other: 1\r\n" + request.substr(length));
        const std::string library = client.Answer();
        const std::string head = HeadOf(direct);
        EXPECT_NE(head.find("Transfer-Encoding: chunked\r\n"), std::string::npos) << head;
        EXPECT_EQ(head.find("Content-Length"), std::string::npos) << head;
        EXPECT_EQ(head.find("Content-Encoding: gzip\r\n") != std::string::npos, gzip) << head;
        EXPECT_EQ(HeadOf(library).find("Content-Encoding: gzip\r\n") != std::string::npos, gzip);
        std::string text = BodyOf(direct);
        std::string whole = BodyOf(library);
        if (gzip) {
            EXPECT_EQ(ExtraFlags(text), 4) << "compressed at the fastest level";
            text = Gunzip(text, 64u << 20);
            whole = Gunzip(whole, 64u << 20);
        }
        EXPECT_GT(text.size(), kStreamAboveBytes);
        EXPECT_EQ(text.size(), whole.size());
        EXPECT_TRUE(text == whole) << "the chunked answer's text differs from the whole answer's";
        EXPECT_NE(text.find("volume-00" + std::to_string(kStreamedVolumes - 1)), std::string::npos);
    }
    EXPECT_EQ(_frontEnd->callsReadDirectly(), 2u);
}

TEST_F(FrontEnd, AnswersUpToTheStreamingSizeComeWhole) {
    Start(CoreOptions());
    // About 0.9 MiB of text: compressed, with its length.
    RawClient client(_frontEnd->port());
    client.Send(Request(Call("bench-volumes", "<count>2700</count>")));
    const std::string answer = client.Answer();
    EXPECT_NE(HeadOf(answer).find("Content-Length: "), std::string::npos) << HeadOf(answer);
    EXPECT_EQ(HeadOf(answer).find("Transfer-Encoding"), std::string::npos);
    EXPECT_EQ(ExtraFlags(BodyOf(answer)), 0) << "compressed at the default level";
}

TEST_F(FrontEnd, AClientLeavingInTheMiddleOfALargeAnswerLeavesTheOthersServed) {
    Start(CoreOptions());
    {
        RawClient leaving(_frontEnd->port());
        leaving.Send(Request(Call("bench-volumes", "<count>50000</count>")));
        const std::string start = leaving.Some(100000);
        EXPECT_NE(start.find("Transfer-Encoding: chunked"), std::string::npos);
        leaving.Close();
    }
    // Another client is served meanwhile and after, and the connection left is closed.
    for (int i = 0; i < 3; ++i) {
        RawClient other(_frontEnd->port());
        other.Send(Request(
            Call("bench-volumes", "<count>" + std::to_string(kStreamedVolumes) + "</count>")));
        const std::string answer = other.Answer();
        EXPECT_NE(Gunzip(BodyOf(answer), 64u << 20)
                      .find("volume-00" + std::to_string(kStreamedVolumes - 1)),
                  std::string::npos);
    }
    for (int i = 0; i < 500 && _core->GetCounters().openConnections > 0; ++i) {
        usleep(10000);
    }
    EXPECT_EQ(_core->GetCounters().openConnections, 0u);
}

TEST_F(FrontEnd, AClientThatStopsReadingALargeAnswerIsLeftAfterTheTimeOut) {
    HttpOptions http;
    http.readTimeoutSeconds = 1;
    Start(CoreOptions(), http);
    RawClient stalled(_frontEnd->port());
    // Without gzip, so that the answer fills the socket's buffers long before its end.
    std::string request = Request(Call("bench-volumes", "<count>50000</count>"));
    const std::string acceptGzip = "Accept-Encoding: gzip\r\n";
    request.erase(request.find(acceptGzip), acceptGzip.size());
    stalled.Send(request);
    EXPECT_NE(stalled.Some(1000).find("Transfer-Encoding: chunked"), std::string::npos);
    // Others are served while the write waits.
    RawClient other(_frontEnd->port());
    other.Send(Request(Call("system-get-corvi-version")));
    EXPECT_NE(other.Answer().find("HTTP/1.1 200 OK"), std::string::npos);
    // The stalled write fails after the time-out and its connection is closed; the other
    // one stays open.
    for (int i = 0; i < 1000 && _core->GetCounters().openConnections > 1; ++i) {
        usleep(10000);
    }
    EXPECT_EQ(_core->GetCounters().openConnections, 1u);
}

std::string VolumeLines(size_t atLeast) {
    std::string text;
    for (int i = 0; text.size() <= atLeast; ++i) {
        text += "<volume><name>volume-" + std::to_string(i) + "</name><size>" +
                std::to_string(i * 7919) + "</size></volume>\n";
    }
    return text;
}

// `text` through a GzipStream in pieces of `piece` bytes; the outputs counted in `outputs`.
std::string StreamGzip(const std::string& text, size_t piece, unsigned workers, size_t* outputs) {
    GzipStream stream(GzipLevel(text.size()), workers);
    EXPECT_TRUE(stream.ok());
    std::string streamed;
    *outputs = 0;
    auto out = [&](const char* data, size_t size) {
        streamed.append(data, size);
        ++*outputs;
        return true;
    };
    for (size_t at = 0; at < text.size(); at += piece) {
        EXPECT_TRUE(stream.Add(text.data() + at, std::min(piece, text.size() - at), out));
    }
    EXPECT_TRUE(stream.Finish(out));
    return streamed;
}

TEST(GzipBody, AStreamInPiecesIsOneGzipMemberOfTheWholeBody) {
    const std::string text = VolumeLines(3 * kGzipFastAboveBytes);
    std::string whole;
    ASSERT_TRUE(GzipCompress(text, &whole));
    for (unsigned workers : {0u, 1u, 3u}) {
        for (size_t piece : {size_t{1000}, size_t{128} << 10, size_t{1} << 20}) {
            size_t outputs = 0;
            const std::string streamed = StreamGzip(text, piece, workers, &outputs);
            EXPECT_EQ(outputs, (text.size() + kGzipBlockBytes - 1) / kGzipBlockBytes)
                << "one output a block, as each is compressed";
            EXPECT_EQ(ExtraFlags(streamed), 4) << "compressed at the fastest level";
            // Gunzip reads one member and checks that nothing follows it.
            EXPECT_TRUE(Gunzip(streamed, text.size()) == text)
                << workers << " workers, pieces of " << piece;
            // The blocks' dictionaries keep the ratio of one stream: a few bytes a block more.
            EXPECT_LT(streamed.size(), whole.size() + whole.size() / 50);
        }
    }
}

TEST(GzipBody, AStreamOfEveryLengthAroundItsBlocks) {
    const std::string text = VolumeLines(2 * kGzipBlockBytes + 100);
    for (size_t length : {size_t{0}, size_t{1}, kGzipBlockBytes - 1, kGzipBlockBytes,
                          kGzipBlockBytes + 1, 2 * kGzipBlockBytes, 2 * kGzipBlockBytes + 1}) {
        const std::string body = text.substr(0, length);
        for (unsigned workers : {0u, 2u}) {
            size_t outputs = 0;
            const std::string streamed = StreamGzip(body, 4096, workers, &outputs);
            EXPECT_TRUE(Gunzip(streamed, body.size()) == body)
                << length << " bytes, " << workers << " workers";
        }
    }
}

TEST(GzipBody, AStreamOfBytesThatDoNotShrink) {
    // Each block's output outgrows the room first given to it.
    std::string text(3 * kGzipBlockBytes + 17, '\0');
    uint32_t state = 2463534242u;
    for (char& c : text) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        c = static_cast<char>(state);
    }
    size_t outputs = 0;
    const std::string streamed = StreamGzip(text, 65536, 2, &outputs);
    EXPECT_GT(streamed.size(), text.size());
    EXPECT_TRUE(Gunzip(streamed, text.size()) == text);
}

TEST(GzipBody, AStreamStopsWhenItsOutputFails) {
    const std::string text(1u << 20, 'x');
    auto take = [](const char*, size_t) { return true; };
    auto refuse = [](const char*, size_t) { return false; };
    for (unsigned workers : {0u, 2u}) {
        GzipStream stream(1, workers);
        ASSERT_TRUE(stream.ok());
        EXPECT_TRUE(stream.Add(text.data(), text.size() / 2, take));
        EXPECT_FALSE(stream.Finish(refuse)) << "the rest of the stream cannot be handed on";
        EXPECT_FALSE(stream.Add(text.data(), 1, take)) << "a stopped stream stays stopped";
    }
    // Stopped with blocks still queued for the workers: they are left, and the stream ends.
    GzipStream stream(1, 2);
    const std::string large(16 * kGzipBlockBytes, 'y');
    EXPECT_FALSE(stream.Add(large.data(), large.size(), refuse));
}

TEST(GzipBody, LargeBodiesAreCompressedAtTheFastestLevel) {
    std::string text;
    for (int i = 0; text.size() <= kGzipFastAboveBytes; ++i) {
        text += "<volume><name>volume-" + std::to_string(i) + "</name></volume>\n";
    }
    std::string large;
    ASSERT_TRUE(GzipCompress(text, &large));
    EXPECT_EQ(ExtraFlags(large), 4);
    EXPECT_EQ(Gunzip(large, text.size()), text);
    EXPECT_LT(large.size(), text.size() / 5);

    const std::string smaller = text.substr(0, kGzipFastAboveBytes);
    std::string small;
    ASSERT_TRUE(GzipCompress(smaller, &small));
    EXPECT_EQ(ExtraFlags(small), 0);
    EXPECT_EQ(Gunzip(small, smaller.size()), smaller);
}

}  // namespace
}  // namespace tezad
