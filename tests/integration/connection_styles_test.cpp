// The four connection styles end to end: generated interfaces with descriptors of each style
// calling tezad over every transport where the style makes sense. The right credentials pass;
// wrong, missing or unusable ones fail the connection with their documented error number,
// and the descriptor is quarantined as after any failed open. Certificates are made for the
// test with the openssl command: a CA, a server certificate, good, expired, unlisted and
// foreign client certificates, and one whose key is encrypted.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "TezaFieldType.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "demo.h"
#include "inprocess_server.h"
#include "rk.h"
#include "runtime_session.h"
#include "test_server.h"

namespace {

using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::ServerConfig;
using teza_test::TempDir;
using teza_test::TestServer;
using Style = TezaServerConnection::Style;

const char kToken[] = "tk-4f1d-right-token";
const char kWrongToken[] = "tk-0000-wrong-token";
const char kPassphrase[] = "key pass phrase 93";
const char kInProcessName[] = "styles-node";

std::string Describe(const TezaStatus& status) {
    return "status " + std::to_string(status.status) + " errno " + std::to_string(status.errnum) +
           " reason '" + status.reason + "'";
}

enum class Where { Http, Https, UnixSocket, InProcess };

const char* Name(Where where) {
    switch (where) {
        case Where::Http:
            return "Http";
        case Where::Https:
            return "Https";
        case Where::UnixSocket:
            return "UnixSocket";
        default:
            return "InProcess";
    }
}

// Puts librk's process-wide defaults back however a test ends.
struct DefaultsReset {
    ~DefaultsReset() {
        rk_set_default_ca_file(nullptr);
        rk_set_default_client_cert(nullptr, nullptr, nullptr);
    }
};

// The certificates every test shares, made once.
class Certificates {
  public:
    static const TempDir& Dir() {
        static Certificates* made = new Certificates;  // removed at exit by its TempDir
        return *made->_dir;
    }
    static std::string File(const std::string& name) { return Dir().File(name); }

  private:
    Certificates() : _dir(std::make_unique<TempDir>()) {
        const TempDir& d = *_dir;
        const std::string loopback = "IP:127.0.0.1,DNS:localhost";
        EXPECT_TRUE(teza_test::MakeCa(d, "ca"));
        EXPECT_TRUE(teza_test::MakeCa(d, "foreign-ca"));
        EXPECT_TRUE(teza_test::MakeSignedCertificate(d, "ca", "server", "localhost", loopback));
        EXPECT_TRUE(teza_test::MakeSignedCertificate(d, "ca", "alice", "alice", ""));
        EXPECT_TRUE(teza_test::MakeSignedCertificate(d, "ca", "mallory", "mallory", ""));
        EXPECT_TRUE(teza_test::MakeSignedCertificate(d, "ca", "expired", "alice", "", -1));
        EXPECT_TRUE(teza_test::MakeSignedCertificate(d, "foreign-ca", "foreign", "alice", ""));
        EXPECT_TRUE(
            teza_test::MakeSignedCertificate(d, "ca", "locked", "alice", "", 2, kPassphrase));
    }
    std::unique_ptr<TempDir> _dir;
};

// A tezad service core with the demo APIs, served over one transport: a front end on a free
// loopback port (HTTP or HTTPS with the test CA's server certificate), on a Unix socket, or in
// process.
class Endpoint {
  public:
    Endpoint(Where where, ServerConfig config) : _where(where) {
        switch (where) {
            case Where::Https:
                config.http.certFile = Certificates::File("server.pem");
                config.http.keyFile = Certificates::File("server.key");
                break;
            case Where::UnixSocket:
                config.http.unixPath = _dir.File("tezad.sock");
                break;
            case Where::InProcess:
                _core = std::make_unique<tezad::ServiceCore>(config.core);
                _demo.Install(_core.get());
                _inProcess = std::make_unique<tezad::InProcessServer>(kInProcessName, _core.get());
                return;
            case Where::Http:
                break;
        }
        _socketPath = config.http.unixPath;
        _server = std::make_unique<TestServer>(config);
    }

    TezaServerConnection Descriptor(Style style, const std::string& login,
                                    const std::string& password) const {
        std::string host = "127.0.0.1";
        int port = 0;
        TezaServerConnection::Transport transport = TezaServerConnection::TRANSPORT_HTTP;
        switch (_where) {
            case Where::Http:
                port = _server->port();
                break;
            case Where::Https:
                port = _server->port();
                transport = TezaServerConnection::TRANSPORT_HTTPS;
                break;
            case Where::UnixSocket:
                host = _socketPath;
                transport = TezaServerConnection::TRANSPORT_UNIX_SOCKET;
                break;
            case Where::InProcess:
                host = kInProcessName;
                transport = TezaServerConnection::TRANSPORT_IN_PROCESS;
                break;
        }
        return TezaServerConnection(host, kMajor, kMinor, style, transport, port,
                                    TezaServerConnection::SERVER_TYPE_NODE, 10, 10, login, password,
                                    10);
    }

    tezad::Counters Counters() const {
        return _core != nullptr ? _core->GetCounters() : _server->core().GetCounters();
    }

  private:
    const Where _where;
    TempDir _dir;
    std::string _socketPath;
    std::unique_ptr<TestServer> _server;
    std::unique_ptr<tezad::ServiceCore> _core;
    tezad::DemoService _demo;
    std::unique_ptr<tezad::InProcessServer> _inProcess;
};

// Opens a connection for `descriptor` through a generated interface and expects it to fail
// with `errnum` and a reason holding `reason`, and the server to be quarantined afterwards.
void ExpectRefusedAndQuarantined(const TezaServerConnection& descriptor, int errnum,
                                 const std::string& reason) {
    demo::AccountInterface api(descriptor);
    TezaStatus status = api.systemGetCorviVersion();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed) << Describe(status);
    EXPECT_EQ(status.errnum, errnum) << Describe(status);
    // The reason of a failed connection is in wire form, as the client library gives it.
    EXPECT_NE(TezaFieldType::getDecodedString(status.reason).find(reason), std::string::npos)
        << Describe(status);
    TezaServerConnection same(descriptor);
    EXPECT_TRUE(same.isQuarantined());
    same.unquarantine();
}

// Creates an account and reads it back through a generated interface.
void ExpectCallsPass(const TezaServerConnection& descriptor, const std::string& account) {
    demo::AccountInterface api(descriptor);
    demo::AccountCreateRequest create;
    create.setName(account);
    create.setSecret("kept secret");
    demo::AccountCreateReply created;
    TezaStatus status = api.accountCreate(create, created);
    ASSERT_EQ(status.status, TezaStatus::Success) << Describe(status);
    EXPECT_TRUE(created.isAccountIdSet());
    demo::AccountNameRequest which;
    which.setName(account);
    demo::AccountGetReply got;
    status = api.accountGet(which, got);
    ASSERT_EQ(status.status, TezaStatus::Success) << Describe(status);
    ASSERT_NE(got.getAccountInfo(), nullptr);
    std::string secret;
    EXPECT_TRUE(got.getAccountInfo()->getSecret(secret));
    EXPECT_EQ(secret, "kept secret");
    TezaServerConnection same(descriptor);
    EXPECT_FALSE(same.isQuarantined());
}

class ConnectionStyles : public RuntimeSession, public ::testing::WithParamInterface<Where> {
  protected:
    void SetUp() override {
        RuntimeSession::SetUp();
        Certificates::Dir();
        // The runtime's handles trust the test CA through librk's process-wide default.
        ASSERT_NE(rk_set_default_ca_file(Certificates::File("ca.pem").c_str()), 0);
    }

    DefaultsReset _reset;
};

std::string WhereName(const ::testing::TestParamInfo<Where>& info) {
    return Name(info.param);
}

// --- Token ---------------------------------------------------------------------------------

TEST_P(ConnectionStyles, TokenStyle) {
    ServerConfig config;
    config.core.tokens = {kToken, "another-token"};
    Endpoint server(GetParam(), config);

    // No token: refused by the client library, nothing reaches the server.
    ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_TOKEN, "ignored", ""),
                                RK_ERR_NO_TOKEN, "needs a token");
    EXPECT_EQ(server.Counters().calls, 0u);
    EXPECT_EQ(server.Counters().connections, 0u);

    ExpectRefusedAndQuarantined(
        server.Descriptor(TezaServerConnection::STYLE_TOKEN, "ignored", kWrongToken), 15001,
        "the token is wrong");
    // The server's users are no tokens, and a login beside the token changes nothing.
    ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_TOKEN,
                                                  teza_test::kLogin, teza_test::kPassword),
                                15001, "the token is wrong");
    EXPECT_EQ(server.Counters().callsPerApi.count("account-create"), 0u);

    // The descriptor's password is the token; its login is not sent, so any will do.
    ExpectCallsPass(server.Descriptor(TezaServerConnection::STYLE_TOKEN, "nobody", kToken), "tok");
}

// --- Login and password, and none ----------------------------------------------------------

TEST_P(ConnectionStyles, LoginPasswordAndNoneStyles) {
    {
        Endpoint server(GetParam(), ServerConfig());
        ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                                      teza_test::kLogin, "wrong password"),
                                    15001, "login or password is wrong");
        ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_NONE,
                                                      teza_test::kLogin, teza_test::kPassword),
                                    15001, "needs a login and a password");
        ExpectCallsPass(server.Descriptor(TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                          teza_test::kLogin, teza_test::kPassword),
                        "pw");
    }
    ServerConfig open;
    open.core.users.clear();
    Endpoint server(GetParam(), open);
    ExpectCallsPass(server.Descriptor(TezaServerConnection::STYLE_NONE, "", ""), "none");
}

// --- Certificate, where it cannot work --------------------------------------------------------

TEST_P(ConnectionStyles, CertificateStyleNeedsHttps) {
    if (GetParam() == Where::Https) {
        GTEST_SKIP() << "HTTPS is the certificate style's own transport: CertificateStyle.*";
    }
    ASSERT_NE(rk_set_default_client_cert(Certificates::File("alice.pem").c_str(),
                                         Certificates::File("alice.key").c_str(), nullptr),
              0);
    ServerConfig config;
    config.core.certUsers = {"alice"};
    Endpoint server(GetParam(), config);
    const TezaServerConnection descriptor =
        server.Descriptor(TezaServerConnection::STYLE_CERTIFICATE, "", "");
    ExpectRefusedAndQuarantined(descriptor, RK_ERR_CERT_STYLE, "needs HTTPS");
    // Nothing was sent: no connection, no call.
    EXPECT_EQ(server.Counters().connections, 0u);
    EXPECT_EQ(server.Counters().calls, 0u);
}

INSTANTIATE_TEST_SUITE_P(Transports, ConnectionStyles,
                         ::testing::Values(Where::Http, Where::Https, Where::UnixSocket,
                                           Where::InProcess),
                         WhereName);

// --- Certificate over HTTPS ------------------------------------------------------------------

class CertificateStyle : public RuntimeSession {
  protected:
    void SetUp() override {
        RuntimeSession::SetUp();
        Certificates::Dir();
        ASSERT_NE(rk_set_default_ca_file(Certificates::File("ca.pem").c_str()), 0);
    }

    // An HTTPS server that verifies client certificates against the test CA and takes the
    // subject "alice" as a user, beside the login admin.
    static ServerConfig Config() {
        ServerConfig config;
        config.http.clientCaFile = Certificates::File("ca.pem");
        config.core.certUsers = {"alice"};
        return config;
    }

    static bool UseCertificate(const std::string& name, const char* passphrase = nullptr) {
        return rk_set_default_client_cert(Certificates::File(name + ".pem").c_str(),
                                          Certificates::File(name + ".key").c_str(),
                                          passphrase) != 0;
    }

    DefaultsReset _reset;
};

TEST_F(CertificateStyle, VerifiedCertificateOfAListedUserPasses) {
    ASSERT_TRUE(UseCertificate("alice"));
    Endpoint server(Where::Https, Config());
    // No login or password: the certificate is the credential.
    ExpectCallsPass(server.Descriptor(TezaServerConnection::STYLE_CERTIFICATE, "", ""), "cert");
}

TEST_F(CertificateStyle, EncryptedKeyWithItsPassphrase) {
    Endpoint server(Where::Https, Config());
    ASSERT_TRUE(UseCertificate("locked", "not the pass phrase"));
    ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_CERTIFICATE, "", ""),
                                RK_ERR_TLS_SETUP, "cannot set up TLS");
    EXPECT_EQ(server.Counters().calls, 0u);
    ASSERT_TRUE(UseCertificate("locked", kPassphrase));
    ExpectCallsPass(server.Descriptor(TezaServerConnection::STYLE_CERTIFICATE, "", ""), "lock");
}

TEST_F(CertificateStyle, NoCertificateFailsBeforeSendingAnything) {
    Endpoint server(Where::Https, Config());
    ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_CERTIFICATE,
                                                  teza_test::kLogin, teza_test::kPassword),
                                RK_ERR_CERT_STYLE, "needs a client certificate");
    EXPECT_EQ(server.Counters().connections, 0u);
}

struct Refusal {
    const char* name;         // of the test case
    const char* certificate;  // the client's certificate
    const char* reason;       // in the server's reason
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.certificate;
}

class CertificateRefusal : public CertificateStyle,
                           public ::testing::WithParamInterface<Refusal> {};

TEST_P(CertificateRefusal, FailsTheConnectionWith15001) {
    ASSERT_TRUE(UseCertificate(GetParam().certificate));
    Endpoint server(Where::Https, Config());
    ExpectRefusedAndQuarantined(server.Descriptor(TezaServerConnection::STYLE_CERTIFICATE, "", ""),
                                15001, GetParam().reason);
    EXPECT_EQ(server.Counters().callsPerApi.count("account-create"), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, CertificateRefusal,
    ::testing::Values(
        Refusal{"AnotherCa", "foreign",
                "the client certificate was refused: unable to verify the first certificate"},
        Refusal{"Expired", "expired",
                "the client certificate was refused: certificate has expired"},
        Refusal{"UnlistedCommonName", "mallory",
                "the client certificate's subject CN \"mallory\" is not a user of this server"}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return std::string(info.param.name); });

}  // namespace
