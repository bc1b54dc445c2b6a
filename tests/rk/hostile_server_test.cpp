// librk against a server that misbehaves in every way we could think of: each case states the
// error number the call must fail with (0: it passes) and the longest the call may take, which
// is the handle's time-out of 1 s plus 100 ms where the time-out is what ends the call.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "hostile_server.h"
#include "rk.h"
#include "sanitized.h"
#include "test_server.h"

namespace teza_test {
namespace {

using std::chrono::milliseconds;

const int kTimeoutSeconds = 1;
// The time-out and the 100 ms a call may take beyond it; the sanitizers' builds run several
// times slower and get 400 ms more.
const milliseconds kTimedOut(kTimeoutSeconds * 1000 + 100 + (kSanitized ? 400 : 0));
// Refused as soon as the fault arrives.
const milliseconds kAtOnce(kSanitized ? 1000 : 500);

struct HostileCase {
    std::string name;
    HostileServer::Behaviour behaviour;
    int errnum;              // the error number the call fails with; 0 when it passes
    milliseconds within;     // the longest the call may take
    std::string reasonPart;  // a text the reason must hold, when not empty
    int transport = RK_TRANSPORT_HTTP;
    size_t limit = 0;  // the handle's size limit; 0 for the default
};

std::ostream& operator<<(std::ostream& out, const HostileCase& c) {
    return out << c.name;
}

// Reads the request, writes `bytes` and keeps the connection open until the client closes it.
HostileServer::Behaviour Sends(std::string bytes) {
    return [bytes](HostileServer::Peer& peer) {
        if (peer.ReadRequest() && peer.Write(bytes)) {
            peer.WaitForClose();
        }
    };
}

// Reads the request, writes `bytes` and closes the connection.
HostileServer::Behaviour SendsAndCloses(std::string bytes) {
    return [bytes](HostileServer::Peer& peer) {
        if (peer.ReadRequest()) {
            peer.Write(bytes);
        }
    };
}

std::string Chunked(const std::string& chunks, const std::string& status = "HTTP/1.1 200 OK") {
    return status + "\r\nContent-Type: application/xml\r\nTransfer-Encoding: chunked\r\n\r\n" +
           chunks;
}

std::string Hex(size_t n) {
    char text[32];
    snprintf(text, sizeof text, "%zx", n);
    return text;
}

// The passed result as one chunk and the last chunk.
std::string OneChunk(const std::string& extension = "", const std::string& trailers = "") {
    const std::string body = kPassedResult;
    return Hex(body.size()) + extension + "\r\n" + body + "\r\n0\r\n" + trailers + "\r\n";
}

// A passed result padded with white space to exactly `size` bytes.
std::string ResultOfSize(size_t size) {
    std::string body = kPassedResult;
    body.append(size - body.size(), ' ');
    return body;
}

std::vector<HostileCase> Cases() {
    const std::string passed = kPassedResult;
    const std::string big(1 << 20, 'x');
    std::vector<HostileCase> cases;
    auto add = [&cases](std::string name, HostileServer::Behaviour behaviour, int errnum,
                        milliseconds within, std::string reasonPart = "") {
        cases.push_back(
            {std::move(name), std::move(behaviour), errnum, within, std::move(reasonPart)});
        return &cases.back();
    };

    // --- The header: too large, too many, contradictory -------------------------------------
    add("StatusLineOfOneMegabyte", Sends("HTTP/1.1 200 " + big + "\r\n\r\n"), RK_ERR_PROTOCOL,
        kAtOnce, "header line");
    add("HeaderLineOfOneMegabyte", Sends("HTTP/1.1 200 OK\r\nX-Big: " + big + "\r\n\r\n"),
        RK_ERR_PROTOCOL, kAtOnce, "header line");
    {
        std::string header = "HTTP/1.1 200 OK\r\n";
        for (int i = 0; i < 200; ++i) {
            header += "X-Filler-" + std::to_string(i) + ": " + std::string(500, 'f') + "\r\n";
        }
        add("HeaderOver64KiB", Sends(header + "\r\n"), RK_ERR_PROTOCOL, kAtOnce,
            "its header is over 65536 bytes");
    }
    {
        std::string header = "HTTP/1.1 200 OK\r\n";
        for (int i = 0; i < 100000; ++i) {
            header += "X-" + std::to_string(i) + ": y\r\n";
        }
        add("HundredThousandHeaderLines", Sends(header + "\r\n"), RK_ERR_PROTOCOL, kAtOnce,
            "more than 256 lines");
    }
    {
        std::string interim;
        for (int i = 0; i < 10000; ++i) {
            interim += "HTTP/1.1 102 Processing\r\n\r\n";
        }
        add("TenThousandInterimAnswers", Sends(interim + PassedAnswer()), RK_ERR_PROTOCOL, kAtOnce,
            "more than 16 interim (1xx) answers");
        add("ThreeInterimAnswersThenTheResult",
            Sends("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 102 Processing\r\n\r\n"
                  "HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n" +
                  PassedAnswer()),
            0, kAtOnce);
    }
    add("ContentLengthTwiceSmallerFirst",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 10\r\nContent-Length: " +
              std::to_string(passed.size()) + "\r\n\r\n" + passed),
        RK_ERR_PROTOCOL, kAtOnce, "two different Content-Length values");
    add("ContentLengthTwiceLargerFirst",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(passed.size()) +
              "\r\nContent-Length: 10\r\n\r\n" + passed),
        RK_ERR_PROTOCOL, kAtOnce, "two different Content-Length values");
    add("ContentLengthListThatDisagrees",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(passed.size()) + ", 10" +
              "\r\n\r\n" + passed),
        RK_ERR_PROTOCOL, kAtOnce, "two different Content-Length values");
    add("ContentLengthTwiceTheSame",
        Sends(Answer(passed, "Content-Length: " + std::to_string(passed.size()) + "\r\n")), 0,
        kAtOnce);
    add("NegativeContentLength", Sends("HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n" + passed),
        RK_ERR_PROTOCOL, kAtOnce);
    // libcurl reads a length past what it can hold as one over any limit.
    add("OverflowingContentLength",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n" + passed),
        RK_ERR_TOO_LARGE, kAtOnce);
    add("ContentLengthThatIsNotANumber",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 12abc\r\n\r\n" + passed), RK_ERR_PROTOCOL,
        kAtOnce, "is not a length");
    add("TransferEncodingAndContentLength",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n" +
              OneChunk()),
        RK_ERR_PROTOCOL, kAtOnce, "both Transfer-Encoding and Content-Length");
    add("GzipClaimedButNotSent", Sends(Answer(passed, "Content-Encoding: gzip\r\n")),
        RK_ERR_PROTOCOL, kAtOnce, "has a gzip body that cannot be decoded");
    add("EncodingNotAskedFor", Sends(Answer(passed, "Content-Encoding: br\r\n")), RK_ERR_PROTOCOL,
        kAtOnce, "encoded with &quot;br&quot;, which librk did not ask for");
    add("HeaderLineWithoutColon", Sends(Answer(passed, "this is no field\r\n")), RK_ERR_PROTOCOL,
        kAtOnce);
    add("NulByteInAHeaderLine", Sends(Answer(passed, std::string("X-Nul: a\0b\r\n", 12))),
        RK_ERR_PROTOCOL, kAtOnce);

    // --- Not HTTP/1.1 at all -------------------------------------------------------------------
    add("StatusLineGarbage", Sends("HTTX/1.1 200 OK\r\n\r\n" + passed), RK_ERR_PROTOCOL, kAtOnce);
    add("Http09AnswerWithoutStatusLine", SendsAndCloses(passed), RK_ERR_PROTOCOL, kAtOnce);
    add("Http2Frames",
        Sends(std::string("\x00\x00\x00\x04\x00\x00\x00\x00\x00", 9) +
              std::string("\x00\x00\x08\x07\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x01", 17)),
        RK_ERR_PROTOCOL, kAtOnce);
    add("StatusCodeOutOfRange", Sends(Answer(passed, "", "HTTP/1.1 999 Whatever")),
        RK_ERR_HTTP_STATUS, kAtOnce);

    // --- Chunked bodies ------------------------------------------------------------------------
    add("BadChunkSize", Sends(Chunked("zz\r\n" + passed + "\r\n0\r\n\r\n")), RK_ERR_PROTOCOL,
        kAtOnce);
    add("OverflowingChunkSize", Sends(Chunked("fffffffffffffffffffff\r\n" + passed)),
        RK_ERR_PROTOCOL, kAtOnce);
    add("ChunkLongerThanItsSize", Sends(Chunked("5\r\n" + passed + "\r\n0\r\n\r\n")),
        RK_ERR_PROTOCOL, kAtOnce);
    add("HugeChunkExtension", Sends(Chunked(OneChunk(";ext=" + big))), 0, kAtOnce);
    add("HugeTrailer", Sends(Chunked(OneChunk("", "X-Trailer: " + big + "\r\n"))), RK_ERR_PROTOCOL,
        kAtOnce);
    {
        std::string trailers;
        for (int i = 0; i < 300; ++i) {
            trailers += "X-T" + std::to_string(i) + ": t\r\n";
        }
        add("ManyTrailers", Sends(Chunked(OneChunk("", trailers))), RK_ERR_PROTOCOL, kAtOnce,
            "more than 256 lines");
    }
    add("CloseMidChunkedBody", SendsAndCloses(Chunked("400\r\n" + passed)), RK_ERR_TRUNCATED,
        kAtOnce);
    add(
        "EndlessChunkedBody",
        [](HostileServer::Peer& peer) {
            std::string chunk = Chunked("");
            std::string piece = "1000\r\n" + std::string(4096, ' ') + "\r\n";
            if (!peer.ReadRequest() || !peer.Write(chunk)) {
                return;
            }
            while (peer.Write(piece)) {
            }
        },
        RK_ERR_TOO_LARGE, kAtOnce, "over the limit of 1048576 bytes")
        ->limit = 1 << 20;
    add(
        "EndlessBodyUntilClose",
        [](HostileServer::Peer& peer) {
            std::string piece(4096, ' ');
            if (!peer.ReadRequest() || !peer.Write("HTTP/1.1 200 OK\r\n\r\n")) {
                return;
            }
            while (peer.Write(piece)) {
            }
        },
        RK_ERR_TOO_LARGE, kAtOnce, "over the limit of 1048576 bytes")
        ->limit = 1 << 20;

    // --- Lengths and sizes -----------------------------------------------------------------------
    add("ContentLengthShorterThanTheBody",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 30\r\n\r\n" + passed), RK_ERR_MALFORMED, kAtOnce);
    add("ContentLengthLongerThanTheBodyThenClose",
        SendsAndCloses("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + passed),
        RK_ERR_TRUNCATED, kAtOnce);
    add("ContentLengthLongerThanTheBodyKeptOpen",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + passed), RK_ERR_TIMEOUT,
        kTimedOut);
    add("ContentLengthOverTheLimit",
        Sends("HTTP/1.1 200 OK\r\nContent-Length: 209715200\r\n\r\n" + passed), RK_ERR_TOO_LARGE,
        kAtOnce);
    add("AnswerOfExactlyTheLimit", Sends(Answer(ResultOfSize(4096))), 0, kAtOnce)->limit = 4096;
    add("AnswerOneByteOverTheLimit", Sends(Answer(ResultOfSize(4097))), RK_ERR_TOO_LARGE, kAtOnce,
        "over the limit of 4096 bytes")
        ->limit = 4096;
    add("ChunkedAnswerOfExactlyTheLimit",
        Sends(Chunked(Hex(4096) + "\r\n" + ResultOfSize(4096) + "\r\n0\r\n\r\n")), 0, kAtOnce)
        ->limit = 4096;
    add("ChunkedAnswerOneByteOverTheLimit",
        Sends(Chunked(Hex(4000) + "\r\n" + ResultOfSize(4000) + "\r\n61\r\n" +
                      std::string(97, ' ') + "\r\n0\r\n\r\n")),
        RK_ERR_TOO_LARGE, kAtOnce, "over the limit of 4096 bytes")
        ->limit = 4096;

    // --- Statuses that carry no usable answer ----------------------------------------------------
    add("NoContentWithABody", Sends(Answer(passed, "", "HTTP/1.1 204 No Content")),
        RK_ERR_MALFORMED, kAtOnce, "sent an empty answer");
    add("NotModifiedWithABody", Sends(Answer(passed, "", "HTTP/1.1 304 Not Modified")),
        RK_ERR_HTTP_STATUS, kAtOnce);
    add("Status300WithAPassedResult", Sends(Answer(passed, "", "HTTP/1.1 300 Multiple Choices")),
        RK_ERR_HTTP_STATUS, kAtOnce, "&quot;HTTP/1.1 300 Multiple Choices&quot;");
    add("RedirectToAnotherPort",
        Sends(Answer(passed, "Location: http://127.0.0.1:1/teza\r\n", "HTTP/1.1 307 Moved")),
        RK_ERR_HTTP_STATUS, kAtOnce);
    add("RedirectToHttps",
        Sends(Answer("", "Location: https://127.0.0.1/teza\r\n", "HTTP/1.1 301 Moved")),
        RK_ERR_HTTP_STATUS, kAtOnce);
    add("RedirectToAFile",
        Sends(Answer("", "Location: file:///etc/passwd\r\n", "HTTP/1.1 302 Found")),
        RK_ERR_HTTP_STATUS, kAtOnce);

    // --- Time: the time-out ends every slow answer ---------------------------------------------
    add(
        "SlowlorisHeader",
        [](HostileServer::Peer& peer) {
            if (peer.ReadRequest() && peer.Write("HTTP/1.1 200 OK\r\nX-Slow: ")) {
                while (peer.Write("s") && peer.Sleep(milliseconds(50))) {
                }
            }
        },
        RK_ERR_TIMEOUT, kTimedOut, "within 1 s");
    add(
        "BodySlowerThanTheTimeOut",
        [](HostileServer::Peer& peer) {
            if (peer.ReadRequest()) {
                peer.Trickle(Answer(ResultOfSize(2000)), 20, milliseconds(50));
            }
        },
        RK_ERR_TIMEOUT, kTimedOut);
    add("NeverAnswers", Sends(""), RK_ERR_TIMEOUT, kTimedOut);

    // --- The connection lost ---------------------------------------------------------------------
    add("ClosedWithoutAnAnswer", SendsAndCloses(""), RK_ERR_CLOSED, kAtOnce,
        "may have been carried out");
    add(
        "ResetMidHeader",
        [](HostileServer::Peer& peer) {
            if (peer.ReadRequest() && peer.Write("HTTP/1.1 200 OK\r\nContent-Le")) {
                peer.Sleep(milliseconds(50));
                peer.Reset();
            }
        },
        RK_ERR_TRUNCATED, kAtOnce, "cut short in its header");
    add("CloseMidHeader", SendsAndCloses("HTTP/1.1 200 OK\r\nContent-Length: 5"), RK_ERR_TRUNCATED,
        kAtOnce, "cut short in its header");
    add("CloseMidBody",
        SendsAndCloses("HTTP/1.1 200 OK\r\nContent-Length: 500\r\n\r\n" + passed.substr(0, 20)),
        RK_ERR_TRUNCATED, kAtOnce);

    // --- Not TLS on an HTTPS port ----------------------------------------------------------------
    add(
        "GarbageOnAnHttpsPort",
        [](HostileServer::Peer& peer) {
            if (peer.Write("HTTP/1.1 400 Bad Request\r\n\r\n" + std::string(2000, '\x17'))) {
                peer.WaitForClose();
            }
        },
        RK_ERR_TLS_HANDSHAKE, kAtOnce)
        ->transport = RK_TRANSPORT_HTTPS;
    add(
        "SilentHttpsPort", [](HostileServer::Peer& peer) { peer.WaitForClose(); },
        RK_ERR_CONNECT_TIMEOUT, kTimedOut)
        ->transport = RK_TRANSPORT_HTTPS;
    return cases;
}

class Hostile : public ::testing::TestWithParam<HostileCase> {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }
};

TEST_P(Hostile, CallFailsInTime) {
    const HostileCase& c = GetParam();
    HostileServer server(c.behaviour);
    ServerPtr h = OpenHandle("127.0.0.1", server.port(), c.transport);
    rk_server_set_timeout(h.get(), kTimeoutSeconds);
    rk_server_set_max_response_size(h.get(), c.limit);
    const auto start = std::chrono::steady_clock::now();
    ElemPtr result(rk_server_invoke(h.get(), "job-get", "job-id", "7", nullptr));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    Outcome outcome = Read(result.get());
    if (c.errnum == 0) {
        EXPECT_EQ(outcome.status, 1) << outcome;
    } else {
        EXPECT_EQ(outcome.status, 0) << outcome;
        EXPECT_EQ(outcome.errnum, c.errnum) << outcome;
        EXPECT_NE(outcome.reason.find(c.reasonPart), std::string::npos) << outcome;
    }
    EXPECT_LE(elapsed, c.within) << std::chrono::duration_cast<milliseconds>(elapsed).count()
                                 << " ms; " << outcome;
    // Whatever happened, the request went out once.
    EXPECT_LE(server.requests(), 1);
}

INSTANTIATE_TEST_SUITE_P(Cases, Hostile, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                             return info.param.name;
                         });

TEST(HostileServer, NeverAcceptingServerTimesOut) {
    ASSERT_NE(rk_startup(nullptr, 0), 0);
    HostileServer server(nullptr, /*accept=*/false);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_timeout(h.get(), kTimeoutSeconds);
    const auto start = std::chrono::steady_clock::now();
    Outcome outcome = Call(h.get(), "job-get");
    // The kernel completes the connection in the listening queue; nobody reads the request.
    EXPECT_EQ(outcome.errnum, RK_ERR_TIMEOUT) << outcome;
    EXPECT_LE(std::chrono::steady_clock::now() - start, kTimedOut);
}

TEST(HostileServer, RedirectionsAreNeverFollowed) {
    ASSERT_NE(rk_startup(nullptr, 0), 0);
    HostileServer bait(Sends(PassedAnswer()));
    HostileServer server(
        Sends(Answer("", "Location: http://127.0.0.1:" + std::to_string(bait.port()) + "/teza\r\n",
                     "HTTP/1.1 307 Temporary Redirect")));
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    Outcome outcome = Call(h.get(), "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_HTTP_STATUS) << outcome;
    EXPECT_EQ(bait.connections(), 0);
}

// Peak and current resident memory of this process, in bytes, from /proc/self/status.
size_t StatusBytes(const char* field) {
    std::string status = ReadFile("/proc/self/status");
    size_t at = status.find(std::string(field) + ":");
    return at == std::string::npos
               ? 0
               : strtoull(status.c_str() + at + strlen(field) + 1, nullptr, 10) * 1024;
}

// Run in a process of its own: an endless answer, chunked or ended by closing the connection,
// against the default limit of 64 MiB. 0 when it is refused with 13083 and the process's
// resident memory grew by at most 1.1 times the limit meanwhile (the sanitizers' allocators
// keep memory of their own: there only the refusal counts).
int EndlessAnswerScenario(bool chunked) {
    HostileServer server([chunked](HostileServer::Peer& peer) {
        const std::string piece(65536, ' ');
        const std::string chunk = Hex(piece.size()) + "\r\n" + piece + "\r\n";
        if (!peer.ReadRequest() ||
            !peer.Write(chunked ? Chunked("") : std::string("HTTP/1.1 200 OK\r\n\r\n"))) {
            return;
        }
        while (peer.Write(chunked ? chunk : piece)) {
        }
    });
    if (rk_startup(nullptr, 0) == 0) {
        return 2;
    }
    int status = 0;
    {
        ServerPtr h = OpenHandle("127.0.0.1", server.port());
        rk_server_set_timeout(h.get(), 60);
        const size_t before = StatusBytes("VmRSS");
        Outcome outcome = Call(h.get(), "job-get");
        const size_t peak = StatusBytes("VmHWM");
        fprintf(stderr, "%s answer: %d %s; resident memory grew by %zu bytes at most\n",
                chunked ? "chunked" : "close-delimited", outcome.errnum, outcome.reason.c_str(),
                peak - before);
        if (outcome.errnum != RK_ERR_TOO_LARGE) {
            status = 3;
        } else if (!kSanitized && static_cast<double>(peak - before) > 1.1 * RK_PARSE_MAX_BYTES) {
            status = 4;
        }
    }
    rk_shutdown();
    return status;
}

TEST(AnswerMemory, EndlessChunkedAnswerCostsAtMostAboutTheLimit) {
    EXPECT_EXIT(_exit(EndlessAnswerScenario(true)), ::testing::ExitedWithCode(0), "");
}

TEST(AnswerMemory, EndlessCloseDelimitedAnswerCostsAtMostAboutTheLimit) {
    EXPECT_EXIT(_exit(EndlessAnswerScenario(false)), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace teza_test
