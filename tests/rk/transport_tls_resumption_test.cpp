// TLS session resumption across librk handles: a new handle to a server that an earlier
// handle reached resumes its session (tezad counts resumed handshakes), never with other TLS
// settings (another client certificate, none, another CA file), not when turned off, and
// safely with several threads opening handles to several servers at once. The certificates of
// a CA file are parsed once for the process and shared by every connection that trusts it,
// which must leave verification as strict as before: a certificate from another CA, or an
// expired one, still fails, and a CA file replaced on disk is read again.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

class TlsResumption : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_NE(rk_startup(nullptr, 0), 0);
        _dir = std::make_unique<TempDir>();
        ASSERT_TRUE(MakeCa(*_dir, "ca"));
        ASSERT_TRUE(MakeSignedCertificate(*_dir, "ca", "server", "localhost",
                                          "IP:127.0.0.1,DNS:localhost"));
        ASSERT_TRUE(MakeSignedCertificate(*_dir, "ca", "alice", "alice", ""));
        ASSERT_TRUE(MakeSignedCertificate(*_dir, "ca", "mallory", "mallory", ""));
        ASSERT_TRUE(MakeSignedCertificate(*_dir, "ca", "expired", "localhost",
                                          "IP:127.0.0.1,DNS:localhost", -1));
        ASSERT_TRUE(MakeCa(*_dir, "foreign-ca"));
        ASSERT_TRUE(MakeSignedCertificate(*_dir, "foreign-ca", "foreign", "localhost",
                                          "IP:127.0.0.1,DNS:localhost"));
        // The same certificates under another name: another CA setting for librk.
        _dir->Write("ca-copy.pem", ReadFile(_dir->File("ca.pem")));
        // A path with a colon: libcurl reads that file itself (see below).
        _dir->Write("ca:colon.pem", ReadFile(_dir->File("ca.pem")));
        _dir->Write("foreign:colon.pem", ReadFile(_dir->File("foreign-ca.pem")));
    }
    static void TearDownTestSuite() { _dir.reset(); }

    // An HTTPS server; with `clientCa`, one that takes the certificate subject "alice" as its
    // only user.
    static ServerConfig Tls(bool clientCa = false, const std::string& certificate = "server") {
        ServerConfig config;
        config.http.certFile = _dir->File(certificate + ".pem");
        config.http.keyFile = _dir->File(certificate + ".key");
        if (clientCa) {
            config.http.clientCaFile = _dir->File("ca.pem");
            config.core.users.clear();
            config.core.certUsers = {"alice"};
        }
        return config;
    }

    // A fresh handle: its first call makes a new connection and a TLS handshake.
    static ServerPtr Fresh(const TestServer& server, const std::string& certificate = "",
                           const std::string& caFile = "ca.pem") {
        ServerPtr h = OpenHandle("127.0.0.1", server.port(), RK_TRANSPORT_HTTPS);
        rk_server_set_ca_file(h.get(), _dir->File(caFile).c_str());
        if (!certificate.empty()) {
            rk_server_set_style(h.get(), RK_STYLE_CERTIFICATE);
            rk_server_set_client_cert(h.get(), _dir->File(certificate + ".pem").c_str(),
                                      _dir->File(certificate + ".key").c_str(), nullptr);
        }
        return h;
    }

    static uint64_t Resumed(TestServer& server) {
        return server.core().GetCounters().tlsSessionsResumed;
    }

    static std::unique_ptr<TempDir> _dir;
};

std::unique_ptr<TempDir> TlsResumption::_dir;

// Turns resumption off for a scope.
class ResumptionOff {
  public:
    ResumptionOff() : _previous(rk_set_tls_session_resumption(0)) {}
    ~ResumptionOff() { rk_set_tls_session_resumption(_previous); }

  private:
    const int _previous;
};

TEST_F(TlsResumption, SecondFreshHandleResumesTheSession) {
    TestServer server(Tls());
    {
        ServerPtr first = Fresh(server);
        ASSERT_EQ(Call(first.get(), "system-get-corvi-version").status, 1);
    }
    EXPECT_EQ(Resumed(server), 0u);
    ServerPtr second = Fresh(server);
    ElemPtr counters(rk_server_invoke(second.get(), "system-get-counters", nullptr));
    ASSERT_EQ(rk_results_status(counters.get()), 1);
    // Counted by the server as the second handle's handshake resumed.
    EXPECT_STREQ(rk_child_get_string(counters.get(), "tls-sessions-resumed"), "1");
    EXPECT_EQ(server.core().GetCounters().connections, 2u);
}

TEST_F(TlsResumption, TurnedOffEveryHandleMakesAFullHandshake) {
    TestServer server(Tls());
    ResumptionOff off;
    for (int i = 0; i < 3; ++i) {
        ServerPtr h = Fresh(server);
        ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    }
    EXPECT_EQ(Resumed(server), 0u);
    EXPECT_EQ(server.core().GetCounters().connections, 3u);
}

TEST_F(TlsResumption, OnlyHandlesWithTheSameClientCertificateResume) {
    TestServer server(Tls(true));
    {
        ServerPtr alice = Fresh(server, "alice");
        Outcome outcome = Call(alice.get(), "system-get-corvi-version");
        ASSERT_EQ(outcome.status, 1) << outcome;
    }
    // A handle without a certificate, or with another, must not take over alice's session and
    // with it her identity.
    ServerPtr none = Fresh(server);
    Outcome outcome = Call(none.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, 15001) << outcome;
    EXPECT_NE(outcome.reason.find("needs a client certificate"), std::string::npos) << outcome;
    ServerPtr mallory = Fresh(server, "mallory");
    outcome = Call(mallory.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, 15001) << outcome;
    EXPECT_NE(outcome.reason.find("mallory"), std::string::npos) << outcome;
    EXPECT_EQ(Resumed(server), 0u);

    ServerPtr again = Fresh(server, "alice");
    outcome = Call(again.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(Resumed(server), 1u);
}

TEST_F(TlsResumption, HandleWithAnotherCaFileVerifiesAndDoesNotResume) {
    TestServer server(Tls());
    {
        ServerPtr trusting = Fresh(server);
        ASSERT_EQ(Call(trusting.get(), "system-get-corvi-version").status, 1);
    }
    // A session made under ca.pem is no proof for a handle that trusts only another CA.
    ServerPtr foreign = Fresh(server, "", "foreign-ca.pem");
    Outcome outcome = Call(foreign.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_TLS_UNTRUSTED) << outcome;
    // The same certificates under another file name: verified anew, passes, and is not a
    // resumption of ca.pem's session either.
    ServerPtr copy = Fresh(server, "", "ca-copy.pem");
    outcome = Call(copy.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 1) << outcome;
    EXPECT_EQ(Resumed(server), 0u);
    ServerPtr again = Fresh(server);
    EXPECT_EQ(Call(again.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(Resumed(server), 1u);
}

TEST_F(TlsResumption, ServerCertificateFromAnotherCaFailsEveryTime) {
    TestServer server(Tls(false, "foreign"));
    for (int i = 0; i < 3; ++i) {
        ServerPtr h = Fresh(server);
        Outcome outcome = Call(h.get(), "system-get-corvi-version");
        EXPECT_EQ(outcome.errnum, RK_ERR_TLS_UNTRUSTED) << outcome;
    }
    EXPECT_EQ(Resumed(server), 0u);
}

TEST_F(TlsResumption, ExpiredServerCertificateFailsEveryTime) {
    TestServer server(Tls(false, "expired"));
    for (int i = 0; i < 3; ++i) {
        ServerPtr h = Fresh(server);
        Outcome outcome = Call(h.get(), "system-get-corvi-version");
        EXPECT_EQ(outcome.errnum, RK_ERR_TLS_UNTRUSTED) << outcome;
        EXPECT_NE(outcome.reason.find("expired"), std::string::npos) << outcome;
    }
    EXPECT_EQ(Resumed(server), 0u);
}

TEST_F(TlsResumption, CaFileReplacedOnDiskIsReadAgain) {
    TestServer server(Tls());
    ResumptionOff off;  // every handle verifies the server's certificate
    TempDir dir;
    const std::string caFile = dir.Write("trust.pem", ReadFile(_dir->File("ca.pem")));
    auto call = [&] {
        ServerPtr h = OpenHandle("127.0.0.1", server.port(), RK_TRANSPORT_HTTPS);
        rk_server_set_ca_file(h.get(), caFile.c_str());
        return Call(h.get(), "system-get-corvi-version");
    };
    EXPECT_EQ(call().status, 1);
    dir.Write("trust.pem", ReadFile(_dir->File("foreign-ca.pem")) + "\n");
    EXPECT_EQ(call().errnum, RK_ERR_TLS_UNTRUSTED);
    dir.Write("trust.pem", ReadFile(_dir->File("ca.pem")));
    EXPECT_EQ(call().status, 1);
    // A file that no longer holds a certificate fails the connection's TLS set-up.
    dir.Write("trust.pem", "no certificate here\n");
    EXPECT_EQ(call().errnum, RK_ERR_TLS_SETUP);
}

TEST_F(TlsResumption, CaFileWithAColonInItsPathIsTrustedAsWell) {
    // The shared store is not used for such a path (OpenSSL would split it at the colon as a
    // list of directories); libcurl reads the file, with the same verification.
    TestServer server(Tls());
    ResumptionOff off;
    ServerPtr trusting = Fresh(server, "", "ca:colon.pem");
    Outcome outcome = Call(trusting.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 1) << outcome;
    ServerPtr foreign = Fresh(server, "", "foreign:colon.pem");
    outcome = Call(foreign.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_TLS_UNTRUSTED) << outcome;
}

TEST_F(TlsResumption, ThreadsOpenHandlesToSeveralServersAtOnce) {
    const int kServers = 3;
    const int kThreads = 4;
    const int kHandlesPerServer = 6;
    std::vector<std::unique_ptr<TestServer>> servers;
    for (int i = 0; i < kServers; ++i) {
        servers.push_back(std::make_unique<TestServer>(Tls()));
    }
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kHandlesPerServer; ++i) {
                for (int s = 0; s < kServers; ++s) {
                    // Two CA files with the same certificates: two shared stores in use at once.
                    ServerPtr h = Fresh(*servers[(s + t) % kServers], "",
                                        (i + t) % 2 == 0 ? "ca.pem" : "ca-copy.pem");
                    if (Call(h.get(), "system-get-corvi-version").status != 1) {
                        ++failures;
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    for (auto& server : servers) {
        // Handshakes made while another thread was replacing the session it would have
        // resumed are full ones; most resume.
        const uint64_t handshakes = server->core().GetCounters().connections;
        EXPECT_EQ(handshakes, static_cast<uint64_t>(kThreads * kHandlesPerServer));
        EXPECT_GE(Resumed(*server), handshakes / 3);
    }
}

}  // namespace
}  // namespace teza_test
