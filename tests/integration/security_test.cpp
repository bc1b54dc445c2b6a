// Credentials and transport security end to end: passwords never reach the log file, trace
// output (standard output and the trace hook, at every level and with forced tracing) or any
// error text, whether calls pass, fail at the server or fail to connect; HTTPS verifies the
// server's certificate and that it names the host, by default.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaWrapper.h"
#include "demo.h"
#include "hook_recorder.h"
#include "log_file.h"
#include "rk.h"
#include "runtime_session.h"
#include "test_server.h"
#include "trace_support.h"

namespace {

using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::ServerConfig;
using teza_test::TempDir;
using teza_test::TestServer;
using Family = demo::AccountFamily;

// Distinctive texts that must never be written anywhere.
const char kLogin[] = "keeper";
const char kPassword[] = "Pw-7q!Zx~only-in-memory-4711";
const char kWrongPassword[] = "Wr0ng-pw:also-secret-0815";
const char kSecretValue[] = "clear-field-value-6c1e";
const char kToken[] = "Tk-bearer-9d3f-only-in-memory";
const char kWrongToken[] = "Tk-wrong-bearer-77a0-secret";
const char kKeyPassphrase[] = "Kp-key-pass-phrase-5b2c";
const char kWrongKeyPassphrase[] = "Kp-wrong-pass-phrase-31e8";

TezaServerConnection Descriptor(
    int port, const std::string& password = kPassword,
    TezaServerConnection::Transport transport = TezaServerConnection::TRANSPORT_HTTP) {
    return TezaServerConnection(
        "127.0.0.1", kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD, transport, port,
        TezaServerConnection::SERVER_TYPE_NODE, 10, 10, kLogin, password, 10);
}

std::string Base64(const std::string& in) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        const unsigned n = (static_cast<unsigned char>(in[i]) << 16) |
                           (static_cast<unsigned char>(in[i + 1]) << 8) |
                           static_cast<unsigned char>(in[i + 2]);
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += kAlphabet[(n >> 6) & 63];
        out += kAlphabet[n & 63];
    }
    if (i + 1 == in.size()) {
        const unsigned n = static_cast<unsigned char>(in[i]) << 16;
        out += std::string{kAlphabet[(n >> 18) & 63], kAlphabet[(n >> 12) & 63], '=', '='};
    } else if (i + 2 == in.size()) {
        const unsigned n = (static_cast<unsigned char>(in[i]) << 16) |
                           (static_cast<unsigned char>(in[i + 1]) << 8);
        out += std::string{kAlphabet[(n >> 18) & 63], kAlphabet[(n >> 12) & 63],
                           kAlphabet[(n >> 6) & 63], '='};
    }
    return out;
}

// Everything that must not be found: the passwords, their HTTP basic authentication form, and
// the clear text of an encrypted field.
std::vector<std::string> Forbidden() {
    return {kPassword,
            kWrongPassword,
            Base64(std::string(kLogin) + ":" + kPassword),
            Base64(std::string(kLogin) + ":" + kWrongPassword),
            kSecretValue,
            kToken,
            kWrongToken,
            kKeyPassphrase,
            kWrongKeyPassphrase};
}

void ExpectClean(const std::string& where, const std::string& text) {
    for (const std::string& secret : Forbidden()) {
        EXPECT_EQ(text.find(secret), std::string::npos) << where << " holds " << secret << ":\n"
                                                        << text;
    }
}

// Every text the trace hook received since it was last emptied, in order.
std::string TakeHookedTexts() {
    std::string hooked;
    for (const testsupport::HookCall& call : testsupport::TakeHookCalls()) {
        hooked += call.text;
    }
    return hooked;
}

std::string OneLineEach(const std::vector<std::string>& texts) {
    std::string lines;
    for (const std::string& text : texts) {
        lines += text + "\n";
    }
    return lines;
}

class Credentials : public ::testing::Test {
  protected:
    void SetUp() override {
        _log.Create();
        std::string error;
        ASSERT_TRUE(TezaWrapper::init(error)) << error;
    }
    void TearDown() override {
        Family::setTraceLevel(0);
        TezaServerConnection::cleanup();
        TezaWrapper::cleanup();
    }

    ScopedLogFile _log;
};

TEST_F(Credentials, PasswordsAppearInNoLogTraceOrErrorText) {
    ServerConfig config;
    config.core.users = {{kLogin, kPassword}};
    config.script =
        "account-list fail 15999 listing refused\n"
        "account-delete http 401 go away\n"
        "account-get drop\n";
    TestServer server(config);
    const teza_test::RefusingPort down;
    int marker = 0;
    std::vector<std::string> errors;

    const std::string out = testsupport::CapturedStdout([&] {
        for (int level = 0; level <= 5; ++level) {
            // Level 5 stands for the force flag, which makes any level trace in full.
            const bool force = level == 5;
            Family::setTraceLevel(force ? 0 : level);
            for (const TezaServerConnection& connection :
                 {Descriptor(server.port()), Descriptor(server.port(), kWrongPassword),
                  Descriptor(down.port())}) {
                // Each descriptor's calls reach its own endpoint and credentials.
                ForgetCachedConnections();
                demo::AccountInterface api(connection, force, &marker, "security");
                demo::AccountCreateRequest create;
                create.setName("acct" + std::to_string(level));
                create.setSecret(kSecretValue);
                demo::AccountCreateReply created;
                demo::AccountNameRequest which;
                which.setName("acct" + std::to_string(level));
                demo::AccountGetReply got;
                demo::AccountListReply list;
                for (const TezaStatus& status :
                     {api.accountCreate(create, created), api.accountGet(which, got),
                      api.accountList(list), api.accountDelete(which),
                      api.systemGetCorviVersion()}) {
                    errors.push_back(status.reason);
                }
                errors.push_back(connection.toString());
            }
        }
    });

    // The calls did happen, passing and failing in every way the test meant.
    EXPECT_NE(out.find("Teza failed"), std::string::npos);
    EXPECT_NE(out.find("acct3"), std::string::npos);
    ExpectClean("standard output", out);
    const std::string hooked = TakeHookedTexts();
    EXPECT_NE(hooked.find("account-create"), std::string::npos);
    ExpectClean("the trace hook's texts", hooked);
    const std::string log = _log.Contents();
    EXPECT_NE(log.find("connection failed"), std::string::npos);
    ExpectClean("the log file", log);
    const std::string allErrors = OneLineEach(errors);
    EXPECT_NE(allErrors.find("login or password is wrong"), std::string::npos);
    EXPECT_NE(allErrors.find("connection refused"), std::string::npos);
    EXPECT_NE(allErrors.find("listing refused"), std::string::npos);
    ExpectClean("the error texts", allErrors);
}

// --- HTTPS ------------------------------------------------------------------------------------

class HttpsVerification : public Credentials {
  protected:
    static void SetUpTestSuite() {
        _dir = std::make_unique<TempDir>();
        ASSERT_TRUE(teza_test::MakeCertificate(*_dir, "right", "IP:127.0.0.1,DNS:localhost"));
        ASSERT_TRUE(teza_test::MakeCertificate(*_dir, "other", "DNS:other.example"));
    }
    static void TearDownTestSuite() { _dir.reset(); }

    static ServerConfig Tls(const std::string& name) {
        ServerConfig config;
        config.core.users = {{kLogin, kPassword}};
        config.http.certFile = _dir->File(name + ".pem");
        config.http.keyFile = _dir->File(name + ".key");
        return config;
    }

    // Puts a handle that trusts `ca` into the connection cache, where the next call of an
    // equal descriptor finds it: the runtime itself opens handles with the system's trusted
    // certificates only.
    static void CacheHandleTrusting(int port, const std::string& ca) {
        rk_server_t* handle = rk_server_open("127.0.0.1", kMajor, kMinor);
        rk_server_set_server_type(handle, RK_SERVER_TYPE_NODE);
        rk_server_set_transport_type(handle, RK_TRANSPORT_HTTPS, nullptr);
        rk_server_set_port(handle, port);
        rk_server_set_admin_user(handle, kLogin, kPassword);
        rk_server_set_timeout(handle, 10);
        rk_server_set_ca_file(handle, _dir->File(ca + ".pem").c_str());
        TezaConnectionCache::releaseConnection(
            handle, "127.0.0.1", kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
            TezaServerConnection::SERVER_TYPE_NODE, TezaServerConnection::TRANSPORT_HTTPS, port,
            kLogin, kPassword);
    }

    static std::unique_ptr<TempDir> _dir;
};

std::unique_ptr<TempDir> HttpsVerification::_dir;

// An untrusted issuer failing by default is RuntimeTls.UntrustedCertificateFailsTheConnection.
TEST_F(HttpsVerification, TrustedCertificateForAnotherHostFails) {
    // The same handle settings pass with a certificate that names 127.0.0.1 ...
    TestServer right(Tls("right"));
    CacheHandleTrusting(right.port(), "right");
    demo::AccountInterface rightApi(
        Descriptor(right.port(), kPassword, TezaServerConnection::TRANSPORT_HTTPS));
    TezaStatus status = rightApi.systemGetCorviVersion();
    EXPECT_EQ(status.status, TezaStatus::Success) << status.reason;

    // ... and fail with a trusted one that names only other.example.
    TestServer other(Tls("other"));
    CacheHandleTrusting(other.port(), "other");
    demo::AccountInterface otherApi(
        Descriptor(other.port(), kPassword, TezaServerConnection::TRANSPORT_HTTPS));
    status = otherApi.systemGetCorviVersion();
    EXPECT_EQ(status.status, TezaStatus::ApiFailed) << status.reason;
    EXPECT_EQ(status.errnum, RK_ERR_TLS_UNTRUSTED) << status.reason;
    EXPECT_NE(status.reason.find("is not trusted"), std::string::npos) << status.reason;
    EXPECT_EQ(other.core().GetCounters().calls, 0u);
}

}  // namespace

namespace {

// --- Tokens and key pass phrases ---------------------------------------------------------------

class StyleSecrets : public Credentials {
  protected:
    static void SetUpTestSuite() {
        _dir = std::make_unique<TempDir>();
        ASSERT_TRUE(teza_test::MakeCa(*_dir, "ca"));
        ASSERT_TRUE(teza_test::MakeSignedCertificate(*_dir, "ca", "server", "localhost",
                                                     "IP:127.0.0.1,DNS:localhost"));
        ASSERT_TRUE(
            teza_test::MakeSignedCertificate(*_dir, "ca", "keeper", kLogin, "", 2, kKeyPassphrase));
    }
    static void TearDownTestSuite() { _dir.reset(); }
    void TearDown() override {
        rk_set_default_ca_file(nullptr);
        rk_set_default_client_cert(nullptr, nullptr, nullptr);
        Credentials::TearDown();
    }

    static std::unique_ptr<TempDir> _dir;
};

std::unique_ptr<TempDir> StyleSecrets::_dir;

TezaServerConnection StyleDescriptor(TezaServerConnection::Style style,
                                     TezaServerConnection::Transport transport, int port,
                                     const std::string& password,
                                     const std::string& host = "127.0.0.1") {
    return TezaServerConnection(host, kMajor, kMinor, style, transport, port,
                                TezaServerConnection::SERVER_TYPE_NODE, 10, 10, kLogin, password,
                                10);
}

TEST_F(StyleSecrets, TokensAndKeyPassphrasesAppearInNoLogTraceOrErrorText) {
    ServerConfig plain;
    plain.core.users.clear();
    plain.core.tokens = {kToken};
    plain.script = "account-list fail 15999 listing refused\n";
    TestServer tokenServer(plain);
    ServerConfig tls;
    tls.core.users.clear();
    tls.core.certUsers = {kLogin};
    tls.http.certFile = _dir->File("server.pem");
    tls.http.keyFile = _dir->File("server.key");
    tls.http.clientCaFile = _dir->File("ca.pem");
    TestServer certServer(tls);
    ASSERT_NE(rk_set_default_ca_file(_dir->File("ca.pem").c_str()), 0);
    // The certificate server is called as localhost, the token server as 127.0.0.1: the
    // connection cache matches a handle on its host and version alone within a bucket, so
    // with one host the certificate descriptor could take a token server's handle whenever
    // their keys happen to share a bucket.
    const std::string certHost = "localhost";
    int marker = 0;
    std::vector<std::string> errors;

    const std::string out = testsupport::CapturedStdout([&] {
        for (int level = 0; level <= 5; ++level) {
            const bool force = level == 5;
            Family::setTraceLevel(force ? 0 : level);
            // The right and a wrong pass phrase of the client key, by turns, each on new
            // handles: the cached ones of the level before are closed.
            while (rk_server_t* cached = TezaConnectionCache::getConnection(
                       certHost, kMajor, kMinor, TezaServerConnection::STYLE_CERTIFICATE,
                       TezaServerConnection::SERVER_TYPE_NODE,
                       TezaServerConnection::TRANSPORT_HTTPS, certServer.port(), kLogin, "", 10)) {
                rk_server_close(cached);
            }
            const char* phrase = level % 2 == 0 ? kKeyPassphrase : kWrongKeyPassphrase;
            ASSERT_NE(rk_set_default_client_cert(_dir->File("keeper.pem").c_str(),
                                                 _dir->File("keeper.key").c_str(), phrase),
                      0);
            for (const TezaServerConnection& connection :
                 {StyleDescriptor(TezaServerConnection::STYLE_TOKEN,
                                  TezaServerConnection::TRANSPORT_HTTP, tokenServer.port(), kToken),
                  StyleDescriptor(TezaServerConnection::STYLE_TOKEN,
                                  TezaServerConnection::TRANSPORT_HTTP, tokenServer.port(),
                                  kWrongToken),
                  StyleDescriptor(TezaServerConnection::STYLE_CERTIFICATE,
                                  TezaServerConnection::TRANSPORT_HTTPS, certServer.port(), "",
                                  certHost),
                  StyleDescriptor(TezaServerConnection::STYLE_CERTIFICATE,
                                  TezaServerConnection::TRANSPORT_HTTP, tokenServer.port(), "")}) {
                demo::AccountInterface api(connection, force, &marker, "security");
                demo::AccountCreateRequest create;
                create.setName("styled" + std::to_string(level));
                demo::AccountCreateReply created;
                demo::AccountListReply list;
                for (const TezaStatus& status :
                     {api.accountCreate(create, created), api.accountList(list),
                      api.systemGetCorviVersion()}) {
                    errors.push_back(status.reason);
                }
                errors.push_back(connection.toString());
            }
        }
    });

    // The calls did happen, passing and failing in every way the test meant.
    EXPECT_NE(out.find("styled3"), std::string::npos);
    ExpectClean("standard output", out);
    const std::string hooked = TakeHookedTexts();
    EXPECT_NE(hooked.find("account-create"), std::string::npos);
    ExpectClean("the trace hook's texts", hooked);
    const std::string log = _log.Contents();
    EXPECT_NE(log.find("connection failed"), std::string::npos);
    ExpectClean("the log file", log);
    const std::string allErrors = OneLineEach(errors);
    EXPECT_NE(allErrors.find("the token is wrong"), std::string::npos) << allErrors;
    EXPECT_NE(allErrors.find("cannot set up TLS"), std::string::npos) << allErrors;
    EXPECT_NE(allErrors.find("needs HTTPS"), std::string::npos) << allErrors;
    EXPECT_NE(allErrors.find("listing refused"), std::string::npos) << allErrors;
    ExpectClean("the error texts", allErrors);
    // The certificate style passed with the right pass phrase.
    EXPECT_GT(certServer.core().GetCounters().callsPerApi.count("account-create"), 0u);
}

}  // namespace
