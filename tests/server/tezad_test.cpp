// The tezad executable: start-up on a free port, stop on SIGTERM and SIGINT with its counters
// line, options, and interoperability with clients and parsers written elsewhere (curl,
// xmllint).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "rk.h"
#include "test_server.h"
#include "tezad_process.h"

namespace teza_test {
namespace {

class Tezad : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }

    TempDir _dir;
};

const std::vector<std::string> kUser = {"--user", "admin:secret", "--api-version", "1.21"};

std::vector<std::string> With(std::vector<std::string> more) {
    std::vector<std::string> args = kUser;
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST_F(Tezad, ListensOnAFreeLoopbackPortAndStopsOnSigterm) {
    TezadProcess tezad(TEZAD_PATH, _dir, kUser);
    std::string url = tezad.Url();
    const std::string loopback = "http://127.0.0.1:";
    ASSERT_EQ(url.substr(0, loopback.size()), loopback);
    ASSERT_GT(tezad.Port(), 0) << url;
    {
        ServerPtr h = OpenHandle("127.0.0.1", tezad.Port());
        EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
        EXPECT_EQ(Call(h.get(), "account-list").status, 1);
    }
    EXPECT_EQ(tezad.Stop(SIGTERM), 0);
    std::string err = tezad.Err();
    EXPECT_NE(err.find("tezad: stopping on SIGTERM\n"), std::string::npos) << err;
    EXPECT_NE(err.find("tezad: 1 connections accepted, 0 open, 2 calls served "
                       "(account-list 1, system-get-corvi-version 1)\n"),
              std::string::npos)
        << err;
}

TEST_F(Tezad, StopsOnSigintWithAConnectionOpen) {
    TezadProcess tezad(TEZAD_PATH, _dir, kUser);
    ServerPtr h = OpenHandle("127.0.0.1", tezad.Port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    // The idle keep-alive connection does not hold the server up.
    EXPECT_EQ(tezad.Stop(SIGINT), 0);
    EXPECT_NE(tezad.Err().find("tezad: stopping on SIGINT\n"), std::string::npos);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_REFUSED);
}

TEST_F(Tezad, RefusesBadOptions) {
    for (std::vector<std::string> args : {std::vector<std::string>{"--bogus"},
                                          {"--port", "70000"},
                                          {"--type", "teapot"},
                                          {"--tls-cert", "x.pem"},
                                          {"--user", "nopassword"},
                                          {"--script", "/nonexistent/script"},
                                          {"--token", ""},
                                          {"--tokens-file", "/nonexistent/tokens"},
                                          {"--cert-user", "alice"},
                                          {"--client-ca", "ca.pem"}}) {
        TezadProcess tezad(TEZAD_PATH, _dir, args);
        EXPECT_EQ(tezad.Wait(), 2) << args[0];
    }
}

TEST_F(Tezad, ScriptOnAUnixSocket) {
    std::string script = _dir.Write("faults.txt", "job-get fail 15102 no job <42> here\n");
    std::string socket = _dir.File("tezad.sock");
    TezadProcess tezad(TEZAD_PATH, _dir,
                       With({"--unix", socket, "--script", script, "--type", "depot"}));
    EXPECT_EQ(tezad.Url(), "unix:" + socket);
    ServerPtr h = OpenHandle(socket, 0, RK_TRANSPORT_UNIX_SOCKET);
    rk_server_set_server_type(h.get(), RK_SERVER_TYPE_DEPOT);
    Outcome outcome = Call(h.get(), "job-get");
    EXPECT_EQ(outcome.errnum, 15102);
    EXPECT_EQ(outcome.reason, "no job &lt;42&gt; here");
    EXPECT_EQ(tezad.Stop(SIGTERM), 0);
    EXPECT_NE(access(socket.c_str(), F_OK), 0) << "the socket file is removed";
}

// --- Credentials ----------------------------------------------------------------------------

ServerPtr TokenHandle(int port, const char* token) {
    ServerPtr h = OpenHandle("127.0.0.1", port);
    rk_server_set_style(h.get(), RK_STYLE_TOKEN);
    rk_server_set_admin_user(h.get(), "", token);
    return h;
}

TEST_F(Tezad, AcceptsTheTokensOfItsOptionsAndFile) {
    const std::string tokens =
        _dir.Write("tokens", "# deploy tokens\n\ntk-from-file\ntk-with-spaces  \r\n");
    TezadProcess tezad(TEZAD_PATH, _dir, With({"--token", "tk-option", "--tokens-file", tokens}));
    for (const char* token : {"tk-option", "tk-from-file", "tk-with-spaces"}) {
        ServerPtr h = TokenHandle(tezad.Port(), token);
        Outcome outcome = Call(h.get(), "account-list");
        EXPECT_EQ(outcome.status, 1) << token << ": " << outcome;
    }
    for (const char* token : {"tk-wrong", "# deploy tokens", "secret"}) {
        ServerPtr h = TokenHandle(tezad.Port(), token);
        Outcome outcome = Call(h.get(), "account-list");
        EXPECT_EQ(outcome.errnum, 15001) << token;
        EXPECT_EQ(outcome.reason, "the token is wrong");
    }
    // The users stay users.
    ServerPtr user = OpenHandle("127.0.0.1", tezad.Port());
    EXPECT_EQ(Call(user.get(), "account-list").status, 1);
    EXPECT_EQ(tezad.Stop(SIGTERM), 0);
}

TEST_F(Tezad, TakesVerifiedCertificatesOfItsCertUsers) {
    ASSERT_TRUE(MakeCa(_dir, "ca"));
    ASSERT_TRUE(MakeSignedCertificate(_dir, "ca", "server", "localhost", "IP:127.0.0.1"));
    ASSERT_TRUE(MakeSignedCertificate(_dir, "ca", "alice", "alice", ""));
    ASSERT_TRUE(MakeSignedCertificate(_dir, "ca", "bob", "bob", ""));
    TezadProcess tezad(TEZAD_PATH, _dir,
                       {"--api-version", "1.21", "--tls-cert", _dir.File("server.pem"), "--tls-key",
                        _dir.File("server.key"), "--client-ca", _dir.File("ca.pem"), "--cert-user",
                        "alice", "--cert-user", "carol"});
    auto handle = [&](const std::string& name) {
        ServerPtr h = OpenHandle("127.0.0.1", tezad.Port(), RK_TRANSPORT_HTTPS);
        rk_server_set_style(h.get(), RK_STYLE_CERTIFICATE);
        rk_server_set_ca_file(h.get(), _dir.File("ca.pem").c_str());
        rk_server_set_client_cert(h.get(), _dir.File(name + ".pem").c_str(),
                                  _dir.File(name + ".key").c_str(), nullptr);
        return h;
    };
    ServerPtr alice = handle("alice");
    EXPECT_EQ(Call(alice.get(), "account-list").status, 1);
    ServerPtr bob = handle("bob");
    Outcome outcome = Call(bob.get(), "account-list");
    EXPECT_EQ(outcome.errnum, 15001);
    EXPECT_EQ(outcome.reason,
              "the client certificate&apos;s subject CN &quot;bob&quot; is not a user of this "
              "server");
    // A second handle of alice resumes the first one's session, and tezad counts it.
    ServerPtr again = handle("alice");
    ElemPtr counters(rk_server_invoke(again.get(), "system-get-counters", nullptr));
    ASSERT_EQ(rk_results_status(counters.get()), 1);
    EXPECT_STREQ(rk_child_get_string(counters.get(), "tls-sessions-resumed"), "1");
    EXPECT_EQ(tezad.Stop(SIGTERM), 0);
}

// --- Interoperability ------------------------------------------------------------------------

std::string Curl(const std::string& args) {
    std::string output;
    RunCommand("curl -s -S " + args + " 2>&1", &output);
    return output;
}

const char kHeaders[] =
    "-H 'X-Teza-Api-Version: 1.21' -H 'X-Teza-Server-Type: 1' "
    "-H 'Content-Type: application/xml; charset=utf-8' ";

TEST_F(Tezad, CurlPostingARequestFileGetsTheDocumentedAnswer) {
    TezadProcess tezad(TEZAD_PATH, _dir, kUser);
    std::string url = tezad.Url() + "/teza";
    std::string request = _dir.Write("request.xml",
                                     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                     "<system-get-corvi-version/>\n");
    EXPECT_EQ(
        Curl("-u admin:secret " + std::string(kHeaders) + "--data-binary @" + request + " " + url),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<results status=\"passed\">\n"
        "  <major-version>1</major-version>\n"
        "  <minor-version>21</minor-version>\n"
        "  <server-type>1</server-type>\n"
        "  <server>tezad 0.1.0</server>\n"
        "</results>\n");

    EXPECT_EQ(Curl("-w '%{http_code}' -u admin:wrong " + std::string(kHeaders) + "--data-binary @" +
                   request + " " + url),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<results status=\"failed\" reason=\"login or password is wrong\" "
              "errno=\"15001\"/>\n401");

    std::string create = _dir.Write("create.xml",
                                    "<account-create>\n"
                                    "  <name>x&amp;y</name>\n"
                                    "</account-create>\n");
    EXPECT_EQ(
        Curl("-u admin:secret " + std::string(kHeaders) + "--data-binary @" + create + " " + url),
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<results status=\"failed\" reason=\"invalid account name &quot;x&amp;y&quot;: "
        "use 1 to 64 letters, digits, &apos;-&apos; or &apos;_&apos;, starting with a "
        "letter\" errno=\"15101\"/>\n");
}

TEST_F(Tezad, CurlOverHttpsWithTheServersCertificate) {
    ASSERT_TRUE(MakeCertificate(_dir, "server", "IP:127.0.0.1,DNS:localhost"));
    TezadProcess tezad(
        TEZAD_PATH, _dir,
        With({"--tls-cert", _dir.File("server.pem"), "--tls-key", _dir.File("server.key")}));
    std::string url = tezad.Url();
    ASSERT_EQ(url.substr(0, 8), "https://");
    std::string request = _dir.Write("request.xml", "<system-get-corvi-version/>");
    std::string answer = Curl("--cacert " + _dir.File("server.pem") + " -u admin:secret " +
                              kHeaders + "--data-binary @" + request + " " + url + "/teza");
    EXPECT_NE(answer.find("<results status=\"passed\">"), std::string::npos) << answer;
    // Without the certificate, curl refuses the server as librk does.
    answer = Curl("-u admin:secret " + std::string(kHeaders) + "--data-binary @" + request + " " +
                  url + "/teza");
    EXPECT_EQ(answer.find("<results"), std::string::npos) << answer;
}

TEST_F(Tezad, XmlWrittenByLibrkPassesXmllint) {
    ASSERT_EQ(RunCommand("xmllint --version > /dev/null 2>&1"), 0) << "xmllint is needed";
    // A request as librk writes it: special characters, an encrypted value, booleans, nesting.
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "q");
    rk_child_add_string(request.get(), "full-name", "<\"Q\" & 'q'>");
    rk_child_add_string_encrypted(request.get(), "secret", "s3cr3t", nullptr);
    rk_child_add_bool(request.get(), "enabled", 1);
    rk_elem_t* address = rk_elem_new("address");
    rk_child_add_string(address, "street", "");
    rk_child_add(request.get(), address);
    char* text = rk_elem_sprintf(request.get());
    std::string requestFile = _dir.Write("request.xml", text);
    rk_free(text);
    std::string output;
    EXPECT_EQ(RunCommand("xmllint --noout " + requestFile + " 2>&1", &output), 0) << output;

    // The same tree after a round trip through tezad (texts now in wire form), written out
    // again by librk.
    TezadProcess tezad(TEZAD_PATH, _dir, With({"--script", _dir.Write("echo.txt", "* echo\n")}));
    ServerPtr h = OpenHandle("127.0.0.1", tezad.Port());
    ElemPtr echoed(rk_server_invoke_elem(h.get(), request.get()));
    ASSERT_EQ(rk_results_status(echoed.get()), 1) << Read(echoed.get());
    text = rk_elem_sprintf(echoed.get());
    std::string echoFile = _dir.Write("echo.xml", text);
    rk_free(text);
    EXPECT_EQ(RunCommand("xmllint --noout " + echoFile + " 2>&1", &output), 0) << output;
    EXPECT_EQ(RunCommand("xmllint --xpath 'string(//full-name)' " + echoFile, &output), 0);
    EXPECT_EQ(output, "<\"Q\" & 'q'>\n");
}

TEST_F(Tezad, RequestThatIsNotXmlInUtf8IsABadRequest) {
    // What a lenient client would send: a control character, then invalid UTF-8.
    TezadProcess tezad(TEZAD_PATH, _dir, kUser);
    std::string url = tezad.Url() + "/teza";
    std::string control =
        _dir.Write("control.xml", "<account-create><name>ctl\x01x</name></account-create>");
    EXPECT_EQ(Curl("-w '%{http_code}' -u admin:secret " + std::string(kHeaders) +
                   "--data-binary @" + control + " " + url),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<results status=\"failed\" reason=\"the request is not a well-formed XML "
              "element: a control character at offset 25\" errno=\"15006\"/>\n400");
    std::string utf8 =
        _dir.Write("utf8.xml", "<account-create><name>caf\xc3</name></account-create>");
    EXPECT_EQ(Curl("-w '%{http_code}' -u admin:secret " + std::string(kHeaders) +
                   "--data-binary @" + utf8 + " " + url),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<results status=\"failed\" reason=\"the request is not a well-formed XML "
              "element: invalid UTF-8 at offset 25\" errno=\"15006\"/>\n400");
}

}  // namespace
}  // namespace teza_test
