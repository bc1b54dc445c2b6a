// librk's HTTPS transport against a tezad front end with certificates made for the test:
// trusted and untrusted servers, host names, client certificates and unusable files.

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

class TlsTransport : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_NE(rk_startup(nullptr, 0), 0);
        _dir = std::make_unique<TempDir>();
        ASSERT_TRUE(MakeCertificate(*_dir, "server", "IP:127.0.0.1,DNS:localhost"));
        ASSERT_TRUE(MakeCertificate(*_dir, "stranger", "IP:127.0.0.1,DNS:localhost"));
        ASSERT_TRUE(MakeCertificate(*_dir, "elsewhere", "DNS:elsewhere.example"));
        ASSERT_TRUE(MakeCertificate(*_dir, "client", "DNS:client.example"));
    }
    static void TearDownTestSuite() { _dir.reset(); }

    static ServerConfig Tls(const std::string& name, const std::string& clientCa = "") {
        ServerConfig config;
        config.http.certFile = _dir->File(name + ".pem");
        config.http.keyFile = _dir->File(name + ".key");
        if (!clientCa.empty()) {
            config.http.clientCaFile = _dir->File(clientCa + ".pem");
        }
        return config;
    }

    static ServerPtr Https(const TestServer& server, const std::string& ca) {
        ServerPtr h = OpenHandle("127.0.0.1", server.port(), RK_TRANSPORT_HTTPS);
        if (!ca.empty()) {
            rk_server_set_ca_file(h.get(), _dir->File(ca + ".pem").c_str());
        }
        return h;
    }

    static std::unique_ptr<TempDir> _dir;
};

std::unique_ptr<TempDir> TlsTransport::_dir;

TEST_F(TlsTransport, TrustedServerAnswers) {
    TestServer server(Tls("server"));
    ServerPtr h = Https(server, "server");
    for (int i = 0; i < 3; ++i) {
        Outcome outcome = Call(h.get(), "system-get-corvi-version");
        ASSERT_EQ(outcome.status, 1) << outcome;
    }
    EXPECT_EQ(server.core().GetCounters().connections, 1u);
}

TEST_F(TlsTransport, LargeAnswersInChunksAreReadWhole) {
    // Over a mebibyte of text: tezad sends it in chunks, gzip-compressed, as it writes it.
    ServerConfig config = Tls("server");
    config.bench = true;
    TestServer server(config);
    ServerPtr h = Https(server, "server");
    for (int i = 0; i < 2; ++i) {
        ElemPtr result(rk_server_invoke(h.get(), "bench-volumes", "count", "5000", nullptr));
        ASSERT_EQ(Read(result.get()).status, 1) << Read(result.get());
        rk_elem_t* volumes = rk_elem_child(result.get(), "volumes");
        ASSERT_EQ(rk_elem_child_count(volumes), 5000u);
        rk_iterator_t it = rk_child_iterator(volumes);
        rk_elem_t* last = nullptr;
        for (rk_elem_t* v = rk_iterator_next(&it); v != nullptr; v = rk_iterator_next(&it)) {
            last = v;
        }
        EXPECT_STREQ(rk_child_get_string(last, "name"), "volume-004999");
    }
    EXPECT_EQ(server.core().GetCounters().connections, 1u) << "the connection is kept";
}

TEST_F(TlsTransport, EncryptedValueOverTls) {
    TestServer server(Tls("server"));
    ServerPtr h = Https(server, "server");
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "tls");
    rk_child_add_string_encrypted(request.get(), "secret", "twice hidden", nullptr);
    EXPECT_EQ(Read(ElemPtr(rk_server_invoke_elem(h.get(), request.get())).get()).status, 1);
}

TEST_F(TlsTransport, UntrustedServerIsRefused) {
    TestServer server(Tls("server"));
    // The system's certificates do not include the test's.
    ServerPtr system = Https(server, "");
    Outcome outcome = Call(system.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_TLS_UNTRUSTED) << outcome;
    EXPECT_NE(outcome.reason.find("is not trusted"), std::string::npos);

    ServerPtr other = Https(server, "stranger");
    EXPECT_EQ(Call(other.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_UNTRUSTED);
}

TEST_F(TlsTransport, CertificateForAnotherHostIsRefused) {
    TestServer server(Tls("elsewhere"));
    ServerPtr h = Https(server, "elsewhere");
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_TLS_UNTRUSTED) << outcome;
}

// Puts the default CA file back to the system's certificates however the test ends.
struct DefaultCaFileReset {
    ~DefaultCaFileReset() { rk_set_default_ca_file(nullptr); }
};

TEST_F(TlsTransport, DefaultCaFileIsTrustedByHandlesOpenedAfterIt) {
    TestServer server(Tls("server"));
    DefaultCaFileReset reset;
    ServerPtr before = Https(server, "");
    ASSERT_NE(rk_set_default_ca_file(_dir->File("server.pem").c_str()), 0);
    ServerPtr after = Https(server, "");
    ServerPtr own = Https(server, "stranger");

    EXPECT_EQ(Call(after.get(), "system-get-corvi-version").status, 1);
    // Handles opened before keep the system's certificates; a handle's own setting wins.
    EXPECT_EQ(Call(before.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_UNTRUSTED);
    EXPECT_EQ(Call(own.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_UNTRUSTED);
    ServerPtr cleared = Https(server, "");
    rk_server_set_ca_file(cleared.get(), "");
    EXPECT_EQ(Call(cleared.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_UNTRUSTED);
}

TEST_F(TlsTransport, DefaultCaFileStillChecksTheHostName) {
    TestServer server(Tls("elsewhere"));
    DefaultCaFileReset reset;
    ASSERT_NE(rk_set_default_ca_file(_dir->File("elsewhere.pem").c_str()), 0);
    ServerPtr h = Https(server, "");
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_UNTRUSTED);
}

TEST_F(TlsTransport, NullOrEmptyDefaultCaFileGoesBackToTheSystemCertificates) {
    TestServer server(Tls("server"));
    DefaultCaFileReset reset;
    for (const char* none : {static_cast<const char*>(nullptr), ""}) {
        ASSERT_NE(rk_set_default_ca_file(_dir->File("server.pem").c_str()), 0);
        ASSERT_NE(rk_set_default_ca_file(none), 0);
        ServerPtr h = Https(server, "");
        EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_UNTRUSTED);
    }
}

TEST_F(TlsTransport, DefaultCaFileThatCannotBeReadIsRefusedAtOnce) {
    TestServer server(Tls("server"));
    DefaultCaFileReset reset;
    ASSERT_NE(rk_set_default_ca_file(_dir->File("server.pem").c_str()), 0);

    errno = 0;
    EXPECT_EQ(rk_set_default_ca_file(_dir->File("missing.pem").c_str()), 0);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(rk_set_default_ca_file(_dir->path().c_str()), 0);
    EXPECT_EQ(errno, EISDIR);
    // Permissions do not stop the superuser, so this case needs an ordinary user.
    if (geteuid() != 0) {
        const std::string locked = _dir->Write("locked.pem", ReadFile(_dir->File("server.pem")));
        ASSERT_EQ(chmod(locked.c_str(), 0), 0);
        errno = 0;
        EXPECT_EQ(rk_set_default_ca_file(locked.c_str()), 0);
        EXPECT_EQ(errno, EACCES);
    }

    // The refused files left the earlier setting in force.
    ServerPtr h = Https(server, "");
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
}

TEST_F(TlsTransport, HttpsToAPlainServerFailsTheHandshake) {
    TestServer server;
    ServerPtr h = Https(server, "server");
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_HANDSHAKE);
}

TEST_F(TlsTransport, UnreadableCaFileIsASetupFailure) {
    TestServer server(Tls("server"));
    ServerPtr h = Https(server, "");
    rk_server_set_ca_file(h.get(), _dir->File("missing.pem").c_str());
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_SETUP);
}

TEST_F(TlsTransport, ClientCertificateWhenTheServerAsksForOne) {
    TestServer server(Tls("server", "client"));
    ServerPtr h = Https(server, "server");
    rk_server_set_client_cert(h.get(), _dir->File("client.pem").c_str(),
                              _dir->File("client.key").c_str(), nullptr);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
}

// The server completes the handshake and refuses each call with the reason, so that the
// client learns why instead of reading a bare TLS alert.
TEST_F(TlsTransport, MissingOrUntrustedClientCertificateIsRefused) {
    TestServer server(Tls("server", "client"));
    ServerPtr none = Https(server, "server");
    Outcome outcome = Call(none.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errnum, 15001) << outcome;
    EXPECT_NE(outcome.reason.find("needs a client certificate"), std::string::npos) << outcome;

    ServerPtr wrong = Https(server, "server");
    rk_server_set_client_cert(wrong.get(), _dir->File("stranger.pem").c_str(),
                              _dir->File("stranger.key").c_str(), nullptr);
    outcome = Call(wrong.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, 15001) << outcome;
    EXPECT_NE(outcome.reason.find("the client certificate was refused"), std::string::npos)
        << outcome;
}

TEST_F(TlsTransport, UnusableClientKeyIsASetupFailure) {
    TestServer server(Tls("server", "client"));
    ServerPtr h = Https(server, "server");
    rk_server_set_client_cert(h.get(), _dir->File("client.pem").c_str(),
                              _dir->File("stranger.key").c_str(), nullptr);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_TLS_SETUP);
}

TEST_F(TlsTransport, ServerRefusesUnusableFiles) {
    ServerConfig config = Tls("server");
    config.http.keyFile = _dir->File("stranger.key");
    tezad::ServiceCore core(config.core);
    tezad::HttpFrontEnd frontEnd(&core, config.http);
    std::string error;
    EXPECT_FALSE(frontEnd.Start(&error));
    EXPECT_NE(error.find("stranger.key"), std::string::npos) << error;
}

}  // namespace
}  // namespace teza_test
