// The runtime end to end over the real client library: generated interfaces and records (from
// demo.teza) calling tezad's demo service and scripted faults over HTTP, HTTPS, a Unix socket
// and in process. Servers run in the test's own process (on a free loopback port, a socket in
// a temporary directory, or in process), or as the tezad executable; each test stops its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaWrapper.h"
#include "demo.h"
#include "inprocess_server.h"
#include "rk.h"
#include "runtime_session.h"
#include "test_server.h"
#include "tezad_process.h"

// Found by argument-dependent lookup, in TezaStatus's namespace; for failure messages.
static std::ostream& operator<<(std::ostream& out, const TezaStatus& status) {
    return out << "status " << status.status << " errno " << status.errnum << " reason '"
               << status.reason << "'";
}

namespace {

using teza_test::kLogin;
using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::kPassword;
using teza_test::ServerConfig;
using teza_test::TempDir;
using teza_test::TestServer;
using Clock = std::chrono::steady_clock;

// A descriptor for the test servers' version, type and credentials.
TezaServerConnection Descriptor(
    int port, int callTimeout = 10,
    TezaServerConnection::Transport transport = TezaServerConnection::TRANSPORT_HTTP,
    const std::string& password = kPassword, const std::string& host = "127.0.0.1") {
    return TezaServerConnection(host, kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                transport, port, TezaServerConnection::SERVER_TYPE_NODE,
                                callTimeout, 10, kLogin, password, 10);
}

ServerConfig Scripted(const std::string& script) {
    ServerConfig config;
    config.script = script;
    return config;
}

demo::AccountCreateRequest NewAccount(const std::string& name) {
    demo::AccountCreateRequest request;
    request.setName(name);
    return request;
}

// The text of an encrypted <secret> as the client library writes it for `clear`, with the
// default key (the element's name is part of what is authenticated).
std::string Ciphertext(const std::string& clear) {
    teza_test::ElemPtr elem(rk_elem_new("holder"));
    rk_child_add_string_encrypted(elem.get(), "secret", clear.c_str(), nullptr);
    const char* text = rk_child_get_string(elem.get(), "secret");
    return text != nullptr ? text : "";
}

// `text` with one character in its middle changed to another of the same alphabet.
std::string Tampered(std::string text) {
    char& c = text[text.size() / 2];
    c = c == 'A' ? 'B' : 'A';
    return text;
}

class RuntimeIntegration : public RuntimeSession {};

TEST_F(RuntimeIntegration, CallWithInputAndOutputRecords) {
    TestServer server;
    demo::AccountInterface api(Descriptor(server.port()));

    demo::AccountCreateRequest create = NewAccount("ada");
    create.setFullName("Ada <Byron> & co");
    create.setQuota(250);
    create.setEnabled(false);
    demo::Address address;
    address.setStreet("1 Loop Road");
    address.setCity("Localhost");
    create.setAddress(address);
    create.setTags({"first", "x<y"});
    demo::AccountCreateReply created;
    TezaStatus status = api.accountCreate(create, created);
    ASSERT_EQ(status.status, TezaStatus::Success) << status;
    uint64_t id = 0;
    ASSERT_TRUE(created.getAccountId(id));
    EXPECT_GT(id, 0u);

    demo::AccountNameRequest which;
    which.setName("ada");
    demo::AccountGetReply reply;
    status = api.accountGet(which, reply);
    ASSERT_EQ(status.status, TezaStatus::Success) << status;
    const demo::AccountInfo* info = reply.getAccountInfo();
    ASSERT_NE(info, nullptr);
    uint64_t gotId = 0;
    std::string name, fullName, street, city;
    uint32_t quota = 0;
    bool enabled = true;
    std::vector<std::string> tags;
    EXPECT_TRUE(info->getAccountId(gotId));
    EXPECT_EQ(gotId, id);
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "ada");
    EXPECT_TRUE(info->getFullName(fullName));
    EXPECT_EQ(fullName, "Ada <Byron> & co");
    EXPECT_TRUE(info->getQuota(quota));
    EXPECT_EQ(quota, 250u);
    EXPECT_TRUE(info->getEnabled(enabled));
    EXPECT_FALSE(enabled);
    EXPECT_FALSE(info->isSecretSet());
    const demo::Address* gotAddress = info->getAddress();
    ASSERT_NE(gotAddress, nullptr);
    EXPECT_TRUE(gotAddress->getStreet(street));
    EXPECT_EQ(street, "1 Loop Road");
    EXPECT_TRUE(gotAddress->getCity(city));
    EXPECT_EQ(city, "Localhost");
    EXPECT_TRUE(info->getTags(tags));
    EXPECT_EQ(tags, (std::vector<std::string>{"first", "x<y"}));

    // Input only, then no records at all.
    EXPECT_EQ(api.accountDelete(which).status, TezaStatus::Success);
    EXPECT_EQ(api.systemGetCorviVersion().status, TezaStatus::Success);
    demo::AccountListReply list;
    ASSERT_EQ(api.accountList(list).status, TezaStatus::Success);
    uint32_t count = 99;
    EXPECT_TRUE(list.getCount(count));
    EXPECT_EQ(count, 0u);
}

TEST_F(RuntimeIntegration, ApiFailedCarriesTheDecodedReasonAndNumber) {
    TestServer server;
    demo::AccountInterface api(Descriptor(server.port()));
    demo::AccountCreateReply created;
    TezaStatus status = api.accountCreate(NewAccount("a<b"), created);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.errnum, 15101);
    EXPECT_EQ(status.reason,
              "invalid account name \"a<b\": use 1 to 64 letters, digits, '-' or '_', starting "
              "with a letter");
    EXPECT_FALSE(created.isAccountIdSet());

    // Raw-string mode sends the text as it stands, out of the field's range.
    demo::AccountCreateRequest negative;
    negative.storeAsRawstring(true);
    negative.setNameRaw("neg");
    negative.setQuotaRaw("-1");
    status = api.accountCreate(negative, created);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.errnum, 15101);
    EXPECT_EQ(status.reason, "<quota> must be >= 0 & <= 1000000, not -1");
}

TEST_F(RuntimeIntegration, ScriptedFailureReasonIsEntityDecoded) {
    TestServer server(Scripted("account-list fail 15999 no <list> & \"none\" 'here'\n"));
    demo::AccountInterface api(Descriptor(server.port()));
    demo::AccountListReply list;
    TezaStatus status = api.accountList(list);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.errnum, 15999);
    EXPECT_EQ(status.reason, "no <list> & \"none\" 'here'");
}

TEST_F(RuntimeIntegration, RefusedPortIsConnectionFailedAndQuarantined) {
    const teza_test::RefusingPort refusing;
    const int port = refusing.port();
    TezaServerConnection descriptor = Descriptor(port);
    demo::AccountInterface api(descriptor);
    EXPECT_FALSE(Descriptor(port).isQuarantined());

    TezaStatus status = api.systemGetCorviVersion();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed) << status;
    EXPECT_EQ(status.errnum, 13055);
    EXPECT_NE(status.reason, "");
    // An equal descriptor finds the entry the failed open made.
    TezaServerConnection same = Descriptor(port);
    EXPECT_TRUE(same.isQuarantined());
    EXPECT_FALSE(Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTPS).isQuarantined());
    same.unquarantine();
    EXPECT_FALSE(Descriptor(port).isQuarantined());
}

TEST_F(RuntimeIntegration, CallOutlastingItsTimeoutFailsInTime) {
    TestServer server(Scripted("account-list delay=4000 pass <count>1</count>\n"));
    demo::AccountInterface api(Descriptor(server.port(), 1));
    demo::AccountListReply list;
    const Clock::time_point start = Clock::now();
    TezaStatus status = api.accountList(list);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_EQ(status.status, TezaStatus::ApiFailed) << status;
    EXPECT_EQ(status.errnum, RK_ERR_TIMEOUT);
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 2.5);
    EXPECT_FALSE(list.isCountSet());
}

TEST_F(RuntimeIntegration, WrongPasswordFailsTheConnection) {
    TestServer server;
    const int port = server.port();
    demo::AccountInterface api(
        Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTP, "not-the-password"));
    demo::AccountListReply list;
    TezaStatus status = api.accountList(list);
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed) << status;
    EXPECT_EQ(status.errnum, 15001);
    EXPECT_EQ(status.reason, "login or password is wrong");
    // Refused at the version probe: the call itself was never sent.
    const tezad::Counters counters = server.core().GetCounters();
    EXPECT_EQ(counters.callsPerApi.count("account-list"), 0u);
    EXPECT_EQ(counters.callsPerApi.at("system-get-corvi-version"), 1u);
    TezaServerConnection same =
        Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTP, "not-the-password");
    EXPECT_TRUE(same.isQuarantined());
    same.unquarantine();
}

TEST_F(RuntimeIntegration, EncryptedFieldIsDecryptedByTheServer) {
    TestServer server;
    demo::AccountInterface api(Descriptor(server.port()));
    demo::AccountCreateRequest create = NewAccount("sam");
    create.setSecret("open <sesame> & more");
    demo::AccountCreateReply created;
    ASSERT_EQ(api.accountCreate(create, created).status, TezaStatus::Success);

    demo::AccountVerifySecretRequest verify;
    verify.setName("sam");
    verify.setSecret("open <sesame> & more");
    demo::AccountVerifySecretReply verdict;
    ASSERT_EQ(api.accountVerifySecret(verify, verdict).status, TezaStatus::Success);
    bool matches = false;
    EXPECT_TRUE(verdict.getMatches(matches));
    EXPECT_TRUE(matches);

    verify.setSecret("open sesame");
    ASSERT_EQ(api.accountVerifySecret(verify, verdict).status, TezaStatus::Success);
    EXPECT_TRUE(verdict.getMatches(matches));
    EXPECT_FALSE(matches);

    // The server sends it back encrypted, and the record holds the clear text.
    demo::AccountNameRequest which;
    which.setName("sam");
    demo::AccountGetReply reply;
    ASSERT_EQ(api.accountGet(which, reply).status, TezaStatus::Success);
    ASSERT_NE(reply.getAccountInfo(), nullptr);
    std::string secret;
    EXPECT_TRUE(reply.getAccountInfo()->getSecret(secret));
    EXPECT_EQ(secret, "open <sesame> & more");
}

TEST_F(RuntimeIntegration, TamperedEncryptedFieldInAResultReadsAsUnset) {
    const std::string good = Ciphertext("clear text");
    const std::string info =
        "<account-info><account-id>7</account-id><name>eve</name>"
        "<quota>1</quota><enabled>true</enabled>"
        "<secret encrypted=\"aes-256-gcm\">";
    TestServer server(Scripted("account-get times=1 pass " + info + good +
                               "</secret></account-info>\n"
                               "account-get pass " +
                               info + Tampered(good) + "</secret></account-info>\n"));
    demo::AccountInterface api(Descriptor(server.port()));
    demo::AccountNameRequest which;
    which.setName("eve");

    demo::AccountGetReply reply;
    ASSERT_EQ(api.accountGet(which, reply).status, TezaStatus::Success);
    ASSERT_NE(reply.getAccountInfo(), nullptr);
    std::string secret;
    EXPECT_TRUE(reply.getAccountInfo()->getSecret(secret));
    EXPECT_EQ(secret, "clear text");

    demo::AccountGetReply tampered;
    ASSERT_EQ(api.accountGet(which, tampered).status, TezaStatus::Success);
    ASSERT_NE(tampered.getAccountInfo(), nullptr);
    EXPECT_FALSE(tampered.getAccountInfo()->isSecretSet());
    std::string name;
    EXPECT_TRUE(tampered.getAccountInfo()->getName(name));
    EXPECT_EQ(name, "eve");
}

struct Fault {
    const char* name;  // of the test case
    const char* rule;  // the script's action for account-list
    int errnum;        // what the runtime reports
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << "account-list " << fault.rule;
}

class ScriptedFault : public RuntimeIntegration, public ::testing::WithParamInterface<Fault> {};

TEST_P(ScriptedFault, ReachesTheCallerAsApiFailed) {
    TestServer server(Scripted(std::string("account-list ") + GetParam().rule + "\n"));
    demo::AccountInterface api(Descriptor(server.port(), 1));
    demo::AccountListReply list;
    TezaStatus status = api.accountList(list);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed) << status;
    EXPECT_EQ(status.errnum, GetParam().errnum) << status;
    EXPECT_NE(status.reason, "");
    EXPECT_FALSE(list.isCountSet());
    // The failed call's handle was closed, not cached; the next call connects afresh.
    EXPECT_EQ(api.systemGetCorviVersion().status, TezaStatus::Success);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ScriptedFault,
    ::testing::Values(Fault{"Fail", "fail 15102 no account named \"bob\"", 15102},
                      Fault{"HttpStatus", "http 503 down for maintenance", RK_ERR_HTTP_STATUS},
                      Fault{"EmptyBody", "raw", RK_ERR_MALFORMED},
                      Fault{"Malformed", "malformed", RK_ERR_MALFORMED},
                      Fault{"NotAResult", "raw <other/>", RK_ERR_NOT_RESULT},
                      Fault{"Truncated", "truncated", RK_ERR_TRUNCATED},
                      Fault{"Drop", "drop", RK_ERR_CLOSED}, Fault{"Refuse", "refuse", RK_ERR_RECV},
                      Fault{"Delay", "delay=3000 pass", RK_ERR_TIMEOUT}),
    [](const ::testing::TestParamInfo<Fault>& info) { return std::string(info.param.name); });

TEST_F(RuntimeIntegration, ScriptedPassAndEchoFillTheOutputRecord) {
    TestServer server(
        Scripted("account-list times=1 pass <count>42</count>\n"
                 "account-create echo\n"));
    demo::AccountInterface api(Descriptor(server.port()));
    demo::AccountListReply list;
    ASSERT_EQ(api.accountList(list).status, TezaStatus::Success);
    uint32_t count = 0;
    EXPECT_TRUE(list.getCount(count));
    EXPECT_EQ(count, 42u);

    // The echoed request is not an account-create result: the output record stays unset.
    demo::AccountCreateReply created;
    EXPECT_EQ(api.accountCreate(NewAccount("echo"), created).status, TezaStatus::Success);
    EXPECT_FALSE(created.isAccountIdSet());
}

TEST_F(RuntimeIntegration, ScriptedFaultOnTheVersionProbeFailsTheConnection) {
    TestServer server(Scripted("system-get-corvi-version fail 15050 not <today>\n"));
    const int port = server.port();
    demo::AccountInterface api(Descriptor(port));
    demo::AccountListReply list;
    TezaStatus status = api.accountList(list);
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed) << status;
    EXPECT_EQ(status.errnum, 15050);
    EXPECT_EQ(server.core().GetCounters().callsPerApi.count("account-list"), 0u);
    TezaServerConnection same = Descriptor(port);
    EXPECT_TRUE(same.isQuarantined());
    same.unquarantine();
}

TEST_F(RuntimeIntegration, CachedDescriptorReusesOneConnection) {
    TestServer server;
    demo::AccountInterface api(Descriptor(server.port()));
    const int kCalls = 10;
    for (int i = 0; i < kCalls; ++i) {
        demo::AccountCreateReply created;
        ASSERT_EQ(api.accountCreate(NewAccount("reuse" + std::to_string(i)), created).status,
                  TezaStatus::Success);
    }
    const tezad::Counters counters = server.core().GetCounters();
    EXPECT_EQ(counters.connections, 1u);
    EXPECT_EQ(counters.callsPerApi.at("account-create"), static_cast<uint64_t>(kCalls));
    // The first open probed the server's version; the cached handle went on without probing.
    EXPECT_EQ(counters.callsPerApi.at("system-get-corvi-version"), 1u);

    // The server's own counters API, read through the runtime over the same connection.
    demo::Counters shown;
    ASSERT_EQ(api.systemGetCounters(shown).status, TezaStatus::Success);
    uint64_t accepted = 0, calls = 0;
    EXPECT_TRUE(shown.getConnectionsAccepted(accepted));
    EXPECT_EQ(accepted, 1u);
    EXPECT_TRUE(shown.getCallsServed(calls));
    EXPECT_EQ(calls, static_cast<uint64_t>(kCalls + 2));
    std::vector<demo::ApiCall> perApi;
    ASSERT_TRUE(shown.getApiCalls(perApi));
    bool found = false;
    for (const demo::ApiCall& entry : perApi) {
        std::string name;
        uint64_t n = 0;
        if (entry.getApi(name) && name == "account-create") {
            found = entry.getCalls(n) && n == static_cast<uint64_t>(kCalls);
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(RuntimeIntegration, FailingCallsCacheNothingAndUseOneConnectionEach) {
    TestServer server;
    demo::AccountInterface api(Descriptor(server.port()));
    const int kCalls = 5;
    for (int i = 0; i < kCalls; ++i) {
        demo::AccountNameRequest which;
        which.setName("nobody");
        demo::AccountGetReply reply;
        TezaStatus status = api.accountGet(which, reply);
        ASSERT_EQ(status.status, TezaStatus::ApiFailed) << status;
        ASSERT_EQ(status.errnum, 15102);
    }
    const tezad::Counters counters = server.core().GetCounters();
    EXPECT_EQ(counters.connections, static_cast<uint64_t>(kCalls));
    EXPECT_EQ(counters.callsPerApi.at("system-get-corvi-version"), static_cast<uint64_t>(kCalls));
}

TEST_F(RuntimeIntegration, UncachedConnectionsUseOneConnectionEach) {
    TestServer server;
    TezaServerConnection descriptor = Descriptor(server.port());
    const int kCalls = 4;
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_EQ(descriptor.newConnection().status, TezaStatus::Success);
        teza_test::ElemPtr out(rk_server_invoke(descriptor.getServer(), "account-list", nullptr));
        EXPECT_EQ(rk_results_status(out.get()), 1);
        descriptor.setCachable(false);
        descriptor.close();
    }
    const tezad::Counters counters = server.core().GetCounters();
    EXPECT_EQ(counters.connections, static_cast<uint64_t>(kCalls));
    EXPECT_EQ(counters.callsPerApi.at("account-list"), static_cast<uint64_t>(kCalls));
}

TEST_F(RuntimeIntegration, InProcessTransport) {
    tezad::CoreOptions options = ServerConfig().core;
    tezad::ServiceCore core(options);
    tezad::DemoService demoService;
    demoService.Install(&core);
    tezad::InProcessServer inProcess("node-it", &core);

    demo::AccountInterface api(
        Descriptor(0, 10, TezaServerConnection::TRANSPORT_IN_PROCESS, kPassword, "node-it"));
    demo::AccountCreateRequest create = NewAccount("local");
    create.setSecret("in process");
    demo::AccountCreateReply created;
    ASSERT_EQ(api.accountCreate(create, created).status, TezaStatus::Success);
    EXPECT_TRUE(created.isAccountIdSet());
    demo::AccountNameRequest which;
    which.setName("local");
    demo::AccountGetReply reply;
    ASSERT_EQ(api.accountGet(which, reply).status, TezaStatus::Success);
    std::string secret;
    ASSERT_NE(reply.getAccountInfo(), nullptr);
    EXPECT_TRUE(reply.getAccountInfo()->getSecret(secret));
    EXPECT_EQ(secret, "in process");
    EXPECT_EQ(core.GetCounters().connections, 0u);

    // Nobody registered under this name.
    demo::AccountInterface nowhere(
        Descriptor(0, 10, TezaServerConnection::TRANSPORT_IN_PROCESS, kPassword, "node-none"));
    TezaStatus status = nowhere.systemGetCorviVersion();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(status.errnum, RK_ERR_NO_SERVER);
    TezaServerConnection none =
        Descriptor(0, 10, TezaServerConnection::TRANSPORT_IN_PROCESS, kPassword, "node-none");
    none.unquarantine();
}

TEST_F(RuntimeIntegration, UnixSocketTransport) {
    TempDir dir;
    ServerConfig config;
    config.http.unixPath = dir.File("tezad.sock");
    TestServer server(config);
    demo::AccountInterface api(Descriptor(0, 10, TezaServerConnection::TRANSPORT_UNIX_SOCKET,
                                          kPassword, config.http.unixPath));
    for (int i = 0; i < 3; ++i) {
        demo::AccountCreateReply created;
        TezaStatus status = api.accountCreate(NewAccount("sock" + std::to_string(i)), created);
        ASSERT_EQ(status.status, TezaStatus::Success) << status;
    }
    EXPECT_EQ(server.core().GetCounters().connections, 1u);
    EXPECT_EQ(server.core().GetCounters().callsPerApi.at("account-create"), 3u);
}

// --- TLS ------------------------------------------------------------------------------------

class RuntimeTls : public RuntimeIntegration {
  protected:
    static void SetUpTestSuite() {
        _dir = std::make_unique<TempDir>();
        ASSERT_TRUE(teza_test::MakeCertificate(*_dir, "server", "IP:127.0.0.1,DNS:localhost"));
    }
    static void TearDownTestSuite() { _dir.reset(); }

    static ServerConfig Tls() {
        ServerConfig config;
        config.http.certFile = _dir->File("server.pem");
        config.http.keyFile = _dir->File("server.key");
        return config;
    }

    static std::unique_ptr<TempDir> _dir;
};

std::unique_ptr<TempDir> RuntimeTls::_dir;

// The runtime opens its handles itself; librk's default CA file is how they trust a CA of the
// application's.
TEST_F(RuntimeTls, TrustedCertificateThroughTheDefaultCaFile) {
    TestServer server(Tls());
    const int port = server.port();
    ASSERT_NE(rk_set_default_ca_file(_dir->File("server.pem").c_str()), 0);
    demo::AccountInterface api(Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTPS));
    TezaStatus status = api.systemGetCorviVersion();
    rk_set_default_ca_file(nullptr);
    ASSERT_EQ(status.status, TezaStatus::Success) << status;
    EXPECT_EQ(server.core().GetCounters().callsPerApi.at("system-get-corvi-version"), 2u);
}

// An application may also open and configure a handle itself and hand it to the connection
// cache, where the descriptor's calls find it.
TEST_F(RuntimeTls, TrustedCertificateThroughACachedHandle) {
    TestServer server(Tls());
    const int port = server.port();
    teza_test::ServerPtr handle = teza_test::OpenHandle("127.0.0.1", port, RK_TRANSPORT_HTTPS);
    ASSERT_NE(rk_server_set_ca_file(handle.get(), _dir->File("server.pem").c_str()), 0);
    TezaConnectionCache::releaseConnection(
        handle.release(), "127.0.0.1", kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
        TezaServerConnection::SERVER_TYPE_NODE, TezaServerConnection::TRANSPORT_HTTPS, port, kLogin,
        kPassword);

    demo::AccountInterface api(Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTPS));
    for (int i = 0; i < 3; ++i) {
        demo::AccountCreateRequest create = NewAccount("tls" + std::to_string(i));
        create.setSecret("over tls");
        demo::AccountCreateReply created;
        TezaStatus status = api.accountCreate(create, created);
        ASSERT_EQ(status.status, TezaStatus::Success) << status;
    }
    const tezad::Counters counters = server.core().GetCounters();
    EXPECT_EQ(counters.connections, 1u);
    EXPECT_EQ(counters.callsPerApi.at("account-create"), 3u);
}

TEST_F(RuntimeTls, UntrustedCertificateFailsTheConnection) {
    TestServer server(Tls());
    const int port = server.port();
    demo::AccountInterface api(Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTPS));
    TezaStatus status = api.systemGetCorviVersion();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed) << status;
    EXPECT_EQ(status.errnum, RK_ERR_TLS_UNTRUSTED);
    EXPECT_NE(status.reason.find("is not trusted"), std::string::npos) << status.reason;
    EXPECT_EQ(server.core().GetCounters().calls, 0u);
    TezaServerConnection same = Descriptor(port, 10, TezaServerConnection::TRANSPORT_HTTPS);
    EXPECT_TRUE(same.isQuarantined());
    same.unquarantine();
}

// --- The tezad executable ---------------------------------------------------------------------

using teza_test::TezadProcess;

TEST_F(RuntimeIntegration, TezadExecutableCountsOneConnectionForCachedCalls) {
    TempDir dir;
    const std::string script = dir.Write("script", "account-list times=1 fail 15102 gone <soon>\n");
    TezadProcess tezad(TEZAD_PATH, dir,
                       {"--user", std::string(kLogin) + ":" + kPassword, "--api-version",
                        std::to_string(kMajor) + "." + std::to_string(kMinor), "--script", script});
    const int port = tezad.Port();
    ASSERT_GT(port, 0);

    demo::AccountInterface api(Descriptor(port));
    demo::AccountListReply list;
    TezaStatus status = api.accountList(list);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.errnum, 15102);
    EXPECT_EQ(status.reason, "gone <soon>");
    for (int i = 0; i < 5; ++i) {
        demo::AccountCreateReply created;
        ASSERT_EQ(api.accountCreate(NewAccount("bin" + std::to_string(i)), created).status,
                  TezaStatus::Success);
    }
    demo::Counters counters;
    ASSERT_EQ(api.systemGetCounters(counters).status, TezaStatus::Success);
    uint64_t accepted = 0;
    EXPECT_TRUE(counters.getConnectionsAccepted(accepted));
    // One connection for the failed call, closed with it; one for all the cached ones.
    EXPECT_EQ(accepted, 2u);
    EXPECT_EQ(tezad.Stop(), 0);
}

TEST_F(RuntimeIntegration, EncryptedFieldUnderAnotherKeyIsRefusedByTezad) {
    TempDir dir;
    TezadProcess tezad(
        TEZAD_PATH, dir,
        {"--user", std::string(kLogin) + ":" + kPassword, "--api-version",
         std::to_string(kMajor) + "." + std::to_string(kMinor), "--key", "not the client's key"});
    const int port = tezad.Port();
    ASSERT_GT(port, 0);

    demo::AccountInterface api(Descriptor(port));
    demo::AccountCreateRequest create = NewAccount("keyed");
    create.setSecret("hidden");
    demo::AccountCreateReply created;
    TezaStatus status = api.accountCreate(create, created);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed) << status;
    EXPECT_EQ(status.errnum, 15105);
    EXPECT_FALSE(created.isAccountIdSet());
    // The same account without the secret is created.
    ASSERT_EQ(api.accountCreate(NewAccount("keyed"), created).status, TezaStatus::Success);
    EXPECT_TRUE(created.isAccountIdSet());
    EXPECT_EQ(tezad.Stop(), 0);
}

}  // namespace
