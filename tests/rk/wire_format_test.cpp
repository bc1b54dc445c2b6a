// The examples of docs/wire-format.md, byte for byte, against a bare socket server that
// records the request and sends a fixed answer.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

// Accepts one connection on a free loopback port, reads one request, answers `answer` and
// closes.
class BareServer {
  public:
    explicit BareServer(std::string answer) : _answer(std::move(answer)) {
        _listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(_listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(_listener, 1), 0);
        getsockname(_listener, reinterpret_cast<sockaddr*>(&address), &length);
        _port = ntohs(address.sin_port);
        _thread = std::thread([this] { Serve(); });
    }
    ~BareServer() {
        _thread.join();
        close(_listener);
    }

    int port() const { return _port; }
    // The request received; complete once the call has returned.
    const std::string& request() const { return _request; }

  private:
    void Serve() {
        int c = accept(_listener, nullptr, nullptr);
        if (c < 0) {
            return;
        }
        char buffer[4096];
        size_t wanted = std::string::npos;
        while (_request.size() < wanted) {
            ssize_t n = recv(c, buffer, sizeof buffer, 0);
            if (n <= 0) {
                break;
            }
            _request.append(buffer, static_cast<size_t>(n));
            size_t end = _request.find("\r\n\r\n");
            size_t length = _request.find("Content-Length: ");
            if (end != std::string::npos && length != std::string::npos) {
                wanted = end + 4 + strtoul(_request.c_str() + length + 16, nullptr, 10);
            }
        }
        send(c, _answer.data(), _answer.size(), MSG_NOSIGNAL);
        close(c);
    }

    const std::string _answer;
    int _listener = -1;
    int _port = 0;
    std::string _request;
    std::thread _thread;
};

std::string Answer(const std::string& statusLine, const std::string& body) {
    return statusLine + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nContent-Type: application/xml; charset=utf-8\r\n\r\n" + body;
}

class WireFormat : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }
};

TEST_F(WireFormat, DocumentedRequestIsWhatLibrkSends) {
    BareServer server(Answer("HTTP/1.1 200 OK", "<results status=\"passed\"/>"));
    ServerPtr h(rk_server_open("127.0.0.1", 1, 21));
    rk_server_set_port(h.get(), server.port());
    rk_server_set_admin_user(h.get(), "admin", "secret");
    rk_server_set_server_type(h.get(), RK_SERVER_TYPE_NODE);
    rk_server_set_timeout(h.get(), 10);
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "a<b");
    rk_child_add_bool(request.get(), "enabled", 1);
    rk_elem_t* address = rk_elem_new("address");
    rk_child_add_string(address, "city", "Oslo");
    rk_child_add(request.get(), address);
    ElemPtr result(rk_server_invoke_elem(h.get(), request.get()));
    EXPECT_EQ(rk_results_status(result.get()), 1) << Read(result.get());
    EXPECT_EQ(server.request(),
              "POST /teza HTTP/1.1\r\n"
              "Host: 127.0.0.1:" +
                  std::to_string(server.port()) +
                  "\r\n"
                  "Authorization: Basic YWRtaW46c2VjcmV0\r\n"
                  "User-Agent: librk/0.1.0\r\n"
                  "Accept-Encoding: gzip\r\n"
                  "Content-Type: application/xml; charset=utf-8\r\n"
                  "Accept: application/xml\r\n"
                  "X-Teza-Api-Version: 1.21\r\n"
                  "X-Teza-Server-Type: 1\r\n"
                  "Content-Length: 169\r\n"
                  "\r\n"
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                  "<account-create>\n"
                  "  <name>a&lt;b</name>\n"
                  "  <enabled>true</enabled>\n"
                  "  <address>\n"
                  "    <city>Oslo</city>\n"
                  "  </address>\n"
                  "</account-create>\n");
}

TEST_F(WireFormat, StyleNoneSendsNoAuthorization) {
    BareServer server(Answer("HTTP/1.1 200 OK", "<results status=\"passed\"/>"));
    ServerPtr h(rk_server_open("127.0.0.1", 2, 0));
    rk_server_set_port(h.get(), server.port());
    rk_server_set_admin_user(h.get(), "admin", "secret");
    rk_server_set_style(h.get(), RK_STYLE_NONE);
    EXPECT_EQ(Call(h.get(), "probe").status, 1);
    EXPECT_EQ(server.request().find("Authorization"), std::string::npos);
    EXPECT_NE(server.request().find("X-Teza-Api-Version: 2.0\r\n"), std::string::npos);
    EXPECT_NE(server.request().find("X-Teza-Server-Type: 0\r\n"), std::string::npos);
}

TEST_F(WireFormat, StyleTokenSendsTheBearerTokenAndNoLogin) {
    BareServer server(Answer("HTTP/1.1 200 OK", "<results status=\"passed\"/>"));
    ServerPtr h(rk_server_open("127.0.0.1", 1, 21));
    rk_server_set_port(h.get(), server.port());
    rk_server_set_admin_user(h.get(), "admin", "tk-Zz9.~+/=");
    rk_server_set_style(h.get(), RK_STYLE_TOKEN);
    EXPECT_EQ(Call(h.get(), "probe").status, 1);
    EXPECT_NE(server.request().find("\r\nAuthorization: Bearer tk-Zz9.~+/=\r\n"), std::string::npos)
        << server.request();
    EXPECT_EQ(server.request().find("Basic"), std::string::npos);
    EXPECT_EQ(server.request().find("admin"), std::string::npos);
}

TEST_F(WireFormat, FailedResultUnderAnErrorStatusIsReturned) {
    BareServer server(Answer("HTTP/1.1 401 Unauthorized",
                             "<results status=\"failed\" reason=\"no &amp; never\" "
                             "errno=\"15001\"/>"));
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    Outcome outcome = Call(h.get(), "probe");
    EXPECT_EQ(outcome.errnum, 15001);
    EXPECT_EQ(outcome.reason, "no &amp; never");
}

TEST_F(WireFormat, PassedResultUnderAnErrorStatusIsRefused) {
    BareServer server(Answer("HTTP/1.1 500 Internal Server Error", "<results status=\"passed\"/>"));
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    Outcome outcome = Call(h.get(), "probe");
    EXPECT_EQ(outcome.errnum, RK_ERR_HTTP_STATUS);
    EXPECT_EQ(outcome.reason, "http://127.0.0.1:" + std::to_string(server.port()) +
                                  " answered &quot;HTTP/1.1 500 Internal Server Error&quot; "
                                  "without a TEZA result");
}

TEST_F(WireFormat, AnswerAnnouncedOverTheLimitIsRefused) {
    BareServer server("HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n<results");
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_max_response_size(h.get(), 1000);
    EXPECT_EQ(Call(h.get(), "probe").errnum, RK_ERR_TOO_LARGE);
}

TEST_F(WireFormat, ChunkedAnswerOverTheLimitIsRefused) {
    std::string chunk(2000, ' ');
    BareServer server("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n7d0\r\n" + chunk +
                      "\r\n0\r\n\r\n");
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_max_response_size(h.get(), 1000);
    EXPECT_EQ(Call(h.get(), "probe").errnum, RK_ERR_TOO_LARGE);
}

TEST_F(WireFormat, NotHttpIsAProtocolError) {
    BareServer server("SSH-2.0-OpenSSH_9.2\r\n");
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    EXPECT_EQ(Call(h.get(), "probe").errnum, RK_ERR_PROTOCOL);
}

TEST_F(WireFormat, DocumentedEncryptedValueDecrypts) {
    const char text[] =
        "<r><secret encrypted=\"aes-256-gcm\">AbAB1g4F286JoKPf07rbkzDpdCQVbWrmVGsy3y0URBLZLg=="
        "</secret></r>";
    ElemPtr tree(rk_elem_parse(text, sizeof text - 1, nullptr, 0));
    char* value = rk_child_get_string_encrypted(tree.get(), "secret", nullptr);
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value, "value");
    rk_free(value);
}

}  // namespace
}  // namespace teza_test
