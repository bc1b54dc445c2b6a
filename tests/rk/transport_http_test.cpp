// librk's HTTP transport against a tezad front end on a loopback port: calls and their
// results, the server's checks, failures to connect, time-outs, connection reuse, size limits
// and Unix sockets.

#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

class HttpTransport : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }
};

std::string Child(rk_elem_t* elem, const char* name) {
    const char* text = rk_child_get_string(elem, name);
    return text == nullptr ? "(none)" : text;
}

// Polls the server's counters until no connection is open, for at most two seconds.
bool WaitUntilNoConnectionOpen(tezad::ServiceCore& core) {
    for (int i = 0; i < 200; ++i) {
        if (core.GetCounters().openConnections == 0) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST_F(HttpTransport, VersionProbePasses) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr result(rk_server_invoke(h.get(), "system-get-corvi-version", nullptr));
    ASSERT_EQ(rk_results_status(result.get()), 1) << Read(result.get());
    EXPECT_EQ(Child(result.get(), "major-version"), "1");
    EXPECT_EQ(Child(result.get(), "minor-version"), "21");
    EXPECT_EQ(Child(result.get(), "server-type"), "1");
}

TEST_F(HttpTransport, InvokeSendsNameValuePairs) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr created(rk_server_invoke(h.get(), "account-create", "name", "ada", "full-name",
                                     "Ada <Lovelace> & co", nullptr));
    ASSERT_EQ(rk_results_status(created.get()), 1) << Read(created.get());
    EXPECT_EQ(Child(created.get(), "account-id"), "1");

    ElemPtr got(rk_server_invoke(h.get(), "account-get", "name", "ada", nullptr));
    ASSERT_EQ(rk_results_status(got.get()), 1) << Read(got.get());
    rk_elem_t* info = rk_elem_child(got.get(), "account-info");
    // Text from the wire keeps its entity references.
    EXPECT_EQ(Child(info, "full-name"), "Ada &lt;Lovelace&gt; &amp; co");
}

TEST_F(HttpTransport, NestedRecordsArraysAndBooleansRoundTrip) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "grace");
    rk_child_add_string(request.get(), "quota", "250");
    rk_child_add_bool(request.get(), "enabled", 0);
    rk_elem_t* address = rk_elem_new("address");
    rk_child_add_string(address, "street", "1 Harbour Road");
    rk_child_add_string(address, "city", "Arlington");
    rk_child_add(request.get(), address);
    rk_elem_t* tags = rk_elem_new("tags");
    rk_child_add_string(tags, "tag", "navy");
    rk_child_add_string(tags, "tag", "cobol");
    rk_child_add(request.get(), tags);
    ElemPtr created(rk_server_invoke_elem(h.get(), request.get()));
    ASSERT_EQ(rk_results_status(created.get()), 1) << Read(created.get());

    ElemPtr got(rk_server_invoke(h.get(), "account-get", "name", "grace", nullptr));
    ASSERT_EQ(rk_results_status(got.get()), 1) << Read(got.get());
    rk_elem_t* info = rk_elem_child(got.get(), "account-info");
    EXPECT_EQ(Child(info, "quota"), "250");
    EXPECT_EQ(rk_child_get_bool(info, "enabled", 1), 0);
    EXPECT_EQ(Child(rk_elem_child(info, "address"), "city"), "Arlington");
    rk_iterator_t it = rk_child_iterator(rk_elem_child(info, "tags"));
    std::vector<std::string> names;
    for (rk_elem_t* tag = rk_iterator_next(&it); tag != nullptr; tag = rk_iterator_next(&it)) {
        names.push_back(rk_elem_get_content(tag));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"navy", "cobol"}));
}

TEST_F(HttpTransport, FailedResultCarriesReasonInWireFormAndErrno) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    Outcome outcome =
        Read(ElemPtr(rk_server_invoke(h.get(), "account-create", "name", "a<b", nullptr)).get());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errnum, tezad::kErrInvalid);
    EXPECT_EQ(outcome.reason,
              "invalid account name &quot;a&lt;b&quot;: use 1 to 64 letters, digits, "
              "&apos;-&apos; or &apos;_&apos;, starting with a letter");
}

TEST_F(HttpTransport, EncryptedValueReachesTheServerAndComesBack) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "alan");
    rk_child_add_string_encrypted(request.get(), "secret", "en1gma <&>", nullptr);
    ASSERT_EQ(Read(ElemPtr(rk_server_invoke_elem(h.get(), request.get())).get()).status, 1);

    // The server decrypted the secret: it compares it with what it is sent next.
    ElemPtr verify(rk_elem_new("account-verify-secret"));
    rk_child_add_string(verify.get(), "name", "alan");
    rk_child_add_string_encrypted(verify.get(), "secret", "en1gma <&>", nullptr);
    ElemPtr matches(rk_server_invoke_elem(h.get(), verify.get()));
    ASSERT_EQ(rk_results_status(matches.get()), 1) << Read(matches.get());
    EXPECT_EQ(rk_child_get_bool(matches.get(), "matches", 0), 1);

    ElemPtr got(rk_server_invoke(h.get(), "account-get", "name", "alan", nullptr));
    rk_elem_t* info = rk_elem_child(got.get(), "account-info");
    EXPECT_EQ(std::string(rk_child_get_string(info, "secret")).find("en1gma"), std::string::npos);
    char* secret = rk_child_get_string_encrypted(info, "secret", nullptr);
    ASSERT_NE(secret, nullptr);
    EXPECT_STREQ(secret, "en1gma <&>");
    rk_free(secret);
}

TEST_F(HttpTransport, ValueEncryptedWithAnotherKeyIsRefusedByTheServer) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "eve");
    rk_child_add_string_encrypted(request.get(), "secret", "x", "not the server's key");
    Outcome outcome = Read(ElemPtr(rk_server_invoke_elem(h.get(), request.get())).get());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errnum, tezad::kErrSecret) << outcome;
}

TEST_F(HttpTransport, WrongPasswordIsRefused) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_admin_user(h.get(), kLogin, "guess");
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errnum, tezad::kErrAuthentication);
    EXPECT_EQ(outcome.reason, "login or password is wrong");
}

TEST_F(HttpTransport, StyleNoneSendsNoCredentials) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_style(h.get(), RK_STYLE_NONE);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, tezad::kErrAuthentication);
    EXPECT_EQ(outcome.reason, "this server needs a login and a password");

    ServerConfig open;
    open.core.users.clear();
    TestServer openServer(open);
    ServerPtr anonymous = OpenHandle("127.0.0.1", openServer.port());
    rk_server_set_style(anonymous.get(), RK_STYLE_NONE);
    EXPECT_EQ(Call(anonymous.get(), "system-get-corvi-version").status, 1);
}

TEST_F(HttpTransport, ServerChecksApiVersion) {
    TestServer server;
    for (auto [major, minor] : {std::pair{2, 0}, std::pair{1, 22}, std::pair{0, 9}}) {
        ServerPtr h(rk_server_open("127.0.0.1", major, minor));
        rk_server_set_port(h.get(), server.port());
        rk_server_set_admin_user(h.get(), kLogin, kPassword);
        Outcome outcome = Call(h.get(), "system-get-corvi-version");
        EXPECT_EQ(outcome.errnum, tezad::kErrApiVersion) << major << "." << minor;
        EXPECT_NE(outcome.reason.find("use 1.0 to 1.21"), std::string::npos) << outcome;
    }
    ServerPtr older(rk_server_open("127.0.0.1", 1, 3));
    rk_server_set_port(older.get(), server.port());
    rk_server_set_admin_user(older.get(), kLogin, kPassword);
    EXPECT_EQ(Call(older.get(), "system-get-corvi-version").status, 1);
}

TEST_F(HttpTransport, ServerChecksServerType) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_server_type(h.get(), RK_SERVER_TYPE_CLUSTER);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, tezad::kErrServerType);
    EXPECT_EQ(outcome.reason, "this server is a node (1), not a cluster (2)");
    rk_server_set_server_type(h.get(), RK_SERVER_TYPE_ANY);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
}

TEST_F(HttpTransport, UnknownApiFails) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    Outcome outcome = Call(h.get(), "no-such-api");
    EXPECT_EQ(outcome.errnum, tezad::kErrUnknownApi);
    EXPECT_EQ(outcome.reason, "unknown API &quot;no-such-api&quot;");
}

TEST_F(HttpTransport, RefusedConnectionIs13055) {
    RefusingPort refusing;
    const int port = refusing.port();
    ServerPtr h = OpenHandle("127.0.0.1", port);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errnum, RK_ERR_REFUSED);
    EXPECT_EQ(outcome.reason, "connection refused by http://127.0.0.1:" + std::to_string(port));
}

TEST_F(HttpTransport, UnresolvableHostFails) {
    ServerPtr h = OpenHandle("no-such-host.invalid", 80);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_RESOLVE);
}

TEST_F(HttpTransport, CallOutlastingTheTimeOutFailsInTime) {
    ServerConfig config;
    config.script = "slow-call delay=5000 pass\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_timeout(h.get(), 1);
    auto start = std::chrono::steady_clock::now();
    Outcome outcome = Call(h.get(), "slow-call");
    auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(outcome.errnum, RK_ERR_TIMEOUT) << outcome;
    EXPECT_EQ(outcome.reason,
              "no answer from http://127.0.0.1:" + std::to_string(server.port()) + " within 1 s");
    // The time-out bounds the call: it ends neither early nor much later.
    EXPECT_GE(elapsed, std::chrono::milliseconds(900));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1800));
}

TEST_F(HttpTransport, ShortDelayWithinTheTimeOutPasses) {
    ServerConfig config;
    config.script = "slow-call delay=200 pass <done>yes</done>\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_timeout(h.get(), 5);
    ElemPtr result(rk_server_invoke(h.get(), "slow-call", nullptr));
    EXPECT_EQ(rk_results_status(result.get()), 1) << Read(result.get());
    EXPECT_EQ(Child(result.get(), "done"), "yes");
}

TEST_F(HttpTransport, ATimeOutSetAgainKeepsItsValueAndAChangedOneTakesEffect) {
    // Setting the value a handle already has leaves its options as they were applied; a
    // different value applies to the next call.
    ServerConfig config;
    config.script = "slow-call delay=1500 pass\nquick-call delay=100 pass <done>yes</done>\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    auto slowCall = [&h](int timeout) {
        EXPECT_NE(rk_server_set_timeout(h.get(), timeout), 0);
        auto start = std::chrono::steady_clock::now();
        Outcome outcome = Call(h.get(), "slow-call");
        return std::make_pair(outcome.errnum, std::chrono::steady_clock::now() - start);
    };
    auto quickCall = [&h](int timeout) {
        EXPECT_NE(rk_server_set_timeout(h.get(), timeout), 0);
        ElemPtr result(rk_server_invoke(h.get(), "quick-call", nullptr));
        return rk_results_status(result.get()) == 1 && Child(result.get(), "done") == "yes";
    };
    auto failed = slowCall(1);
    EXPECT_EQ(failed.first, RK_ERR_TIMEOUT);
    EXPECT_LT(failed.second, std::chrono::milliseconds(1400));
    EXPECT_TRUE(quickCall(1));
    EXPECT_EQ(slowCall(5).first, 0) << "a longer time-out lets the slow call pass";
    EXPECT_TRUE(quickCall(5));
    EXPECT_EQ(slowCall(1).first, RK_ERR_TIMEOUT) << "shortened again after the same value";
}

TEST_F(HttpTransport, OneHandleKeepsOneConnection) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    }
    // The server's own counters API, asked on the same handle, counts one connection.
    ElemPtr counters(rk_server_invoke(h.get(), "system-get-counters", nullptr));
    ASSERT_EQ(rk_results_status(counters.get()), 1) << Read(counters.get());
    EXPECT_EQ(Child(counters.get(), "connections-accepted"), "1");
    EXPECT_EQ(Child(counters.get(), "connections-open"), "1");
    EXPECT_EQ(Child(counters.get(), "calls-served"), "21");
}

TEST_F(HttpTransport, EachHandleHasItsOwnConnection) {
    TestServer server;
    std::vector<ServerPtr> handles;
    for (int i = 0; i < 5; ++i) {
        handles.push_back(OpenHandle("127.0.0.1", server.port()));
        ASSERT_EQ(Call(handles.back().get(), "system-get-corvi-version").status, 1);
        ASSERT_EQ(Call(handles.back().get(), "system-get-corvi-version").status, 1);
    }
    EXPECT_EQ(server.core().GetCounters().connections, 5u);
    EXPECT_EQ(server.core().GetCounters().calls, 10u);
}

TEST_F(HttpTransport, IdleConnectionsDoNotHoldWorkers) {
    ServerConfig config;
    config.http.threads = 1;
    TestServer server(config);
    std::vector<ServerPtr> handles;
    for (int i = 0; i < 10; ++i) {
        handles.push_back(OpenHandle("127.0.0.1", server.port()));
    }
    // Round after round, every handle calls while the others keep their connections open.
    for (int round = 0; round < 3; ++round) {
        for (ServerPtr& h : handles) {
            ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
        }
    }
    EXPECT_EQ(server.core().GetCounters().connections, 10u);
    EXPECT_EQ(server.core().GetCounters().openConnections, 10u);
}

TEST_F(HttpTransport, ClosingTheHandleClosesItsConnection) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(server.core().GetCounters().openConnections, 1u);
    h.reset();
    EXPECT_TRUE(WaitUntilNoConnectionOpen(server.core()));
}

TEST_F(HttpTransport, StatsCountHandlesOpenedAndClosed) {
    rk_stats_t before = {};
    rk_get_stats(&before);
    EXPECT_GE(before.handles_opened, before.handles_closed);
    rk_server_t* first = rk_server_open("127.0.0.1", kMajor, kMinor);
    rk_server_t* second = rk_server_open("127.0.0.1", kMajor, kMinor);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    // No handle for a null host, and nothing to close for a null handle: neither counts.
    EXPECT_EQ(rk_server_open(nullptr, kMajor, kMinor), nullptr);
    EXPECT_EQ(rk_server_close(nullptr), 0);
    rk_stats_t open = {};
    rk_get_stats(&open);
    EXPECT_EQ(open.handles_opened - before.handles_opened, 2u);
    EXPECT_EQ(open.handles_closed - before.handles_closed, 0u);

    EXPECT_NE(rk_server_close(first), 0);
    EXPECT_NE(rk_server_close(second), 0);
    rk_stats_t after = {};
    rk_get_stats(&after);
    EXPECT_EQ(after.handles_opened - before.handles_opened, 2u);
    EXPECT_EQ(after.handles_closed - before.handles_closed, 2u);
    rk_get_stats(nullptr);  // tolerated
}

TEST_F(HttpTransport, SettersKeepTheConnection) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    // What the connection cache does to an idle handle before probing it.
    rk_server_set_timeout(h.get(), 3);
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(server.core().GetCounters().connections, 1u);
}

TEST_F(HttpTransport, HandleReconnectsAfterTheServerClosedTheConnection) {
    ServerConfig config;
    config.http.keepAliveSeconds = 1;
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    ASSERT_TRUE(WaitUntilNoConnectionOpen(server.core()));
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(server.core().GetCounters().connections, 2u);
}

TEST_F(HttpTransport, AnswerOverTheSizeLimitIsRefused) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_max_response_size(h.get(), 64);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_TOO_LARGE) << outcome;
    EXPECT_NE(outcome.reason.find("over the limit of 64 bytes"), std::string::npos);
    rk_server_set_max_response_size(h.get(), 0);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
}

TEST_F(HttpTransport, ManyThreadsWithTheirOwnHandles) {
    TestServer server;
    const int kThreads = 4;
    const int kCalls = 25;
    std::vector<std::thread> threads;
    std::vector<int> passed(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ServerPtr h = OpenHandle("127.0.0.1", server.port());
            std::string name = "user" + std::to_string(t);
            Read(ElemPtr(rk_server_invoke(h.get(), "account-create", "name", name.c_str(), nullptr))
                     .get());
            for (int i = 0; i < kCalls; ++i) {
                ElemPtr r(rk_server_invoke(h.get(), "account-get", "name", name.c_str(), nullptr));
                passed[t] += rk_results_status(r.get());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(passed[t], kCalls);
    }
    EXPECT_EQ(server.core().GetCounters().connections, static_cast<uint64_t>(kThreads));
}

// --- Settings refused at the call ----------------------------------------------------------

TEST_F(HttpTransport, SettersAcceptAnyValueOnAHandle) {
    ServerPtr h(rk_server_open("somewhere", 1, 0));
    EXPECT_NE(rk_server_set_style(h.get(), 42), 0);
    EXPECT_NE(rk_server_set_server_type(h.get(), -1), 0);
    EXPECT_NE(rk_server_set_transport_type(h.get(), 9, nullptr), 0);
    EXPECT_NE(rk_server_set_port(h.get(), 70000), 0);
    EXPECT_NE(rk_server_set_admin_user(h.get(), nullptr, nullptr), 0);
    EXPECT_NE(rk_server_set_timeout(h.get(), -5), 0);
    EXPECT_EQ(rk_server_set_style(nullptr, 0), 0);
    EXPECT_EQ(rk_server_set_timeout(nullptr, 1), 0);
    EXPECT_EQ(rk_server_close(nullptr), 0);
    EXPECT_EQ(rk_server_open(nullptr, 1, 0), nullptr);
}

TEST_F(HttpTransport, StylesWhoseCredentialsCannotBeSentAreRefused) {
    RefusingPort refusing;
    ServerPtr h = OpenHandle("127.0.0.1", refusing.port());
    rk_server_set_style(h.get(), RK_STYLE_CERTIFICATE);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_CERT_STYLE);
    EXPECT_EQ(outcome.reason,
              "connection style 1 (certificate) needs HTTPS, not the HTTP transport: use "
              "transport 1 (HTTPS), or another style for this server");
    rk_server_set_transport_type(h.get(), RK_TRANSPORT_HTTPS, nullptr);
    outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_CERT_STYLE);
    EXPECT_NE(outcome.reason.find("needs a client certificate"), std::string::npos) << outcome;

    rk_server_set_style(h.get(), RK_STYLE_TOKEN);
    rk_server_set_admin_user(h.get(), "admin", "");
    outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_NO_TOKEN);
    EXPECT_NE(outcome.reason.find("needs a token"), std::string::npos) << outcome;
    rk_server_set_admin_user(h.get(), nullptr, nullptr);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, RK_ERR_NO_TOKEN);

    rk_server_set_style(h.get(), 7);
    outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_STYLE);
    EXPECT_EQ(outcome.reason,
              "unknown connection style 7: use 0 (login and password), 1 (certificate), 2 "
              "(token) or 3 (none)");
}

TEST_F(HttpTransport, InvalidSettingsAreRefusedWithReasons) {
    ServerPtr h = OpenHandle("127.0.0.1", 1);
    rk_server_set_transport_type(h.get(), 4, nullptr);
    EXPECT_EQ(Call(h.get(), "x").errnum, RK_ERR_TRANSPORT);
    rk_server_set_transport_type(h.get(), RK_TRANSPORT_HTTP, nullptr);
    rk_server_set_port(h.get(), 65536);
    EXPECT_EQ(Call(h.get(), "x").reason, "port 65536 is outside 0 to 65535");
    rk_server_set_port(h.get(), -1);
    EXPECT_EQ(Call(h.get(), "x").errnum, RK_ERR_PORT);

    ServerPtr empty = OpenHandle("", 80);
    EXPECT_EQ(Call(empty.get(), "x").errnum, RK_ERR_HOST);
    ServerPtr url = OpenHandle("evil/path?x", 80);
    EXPECT_EQ(Call(url.get(), "x").errnum, RK_ERR_HOST);
}

TEST_F(HttpTransport, InvalidRequestsAreRefused) {
    ServerPtr h = OpenHandle("127.0.0.1", 1);
    EXPECT_EQ(Call(h.get(), "not a name").errnum, RK_ERR_REQUEST);
    EXPECT_EQ(Call(h.get(), nullptr).errnum, RK_ERR_REQUEST);
    ElemPtr badArgument(rk_server_invoke(h.get(), "x", "bad name", "v", nullptr));
    EXPECT_EQ(Read(badArgument.get()).reason,
              "argument name &apos;bad name&apos; is not a valid element name");
    ElemPtr noRequest(rk_server_invoke_elem(h.get(), nullptr));
    EXPECT_EQ(Read(noRequest.get()).errnum, RK_ERR_REQUEST);
    // Even a null handle gets a result element.
    ElemPtr noHandle(rk_server_invoke(nullptr, "x", nullptr));
    EXPECT_EQ(Read(noHandle.get()).errnum, RK_ERR_REQUEST);
}

TEST_F(HttpTransport, CallsFailWhileTheLibraryIsStopped) {
    TestServer server;
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    rk_shutdown();
    EXPECT_EQ(rk_is_started(), 0);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    ASSERT_NE(rk_startup(nullptr, 0), 0);
    EXPECT_EQ(outcome.errnum, RK_ERR_NOT_STARTED);
    // libcurl stayed initialised for the open handle, which goes on with its connection.
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(server.core().GetCounters().connections, 1u);
}

// --- Unix sockets ----------------------------------------------------------------------------

TEST_F(HttpTransport, UnixSocketCarriesCalls) {
    TempDir dir;
    ServerConfig config;
    config.http.unixPath = dir.File("tezad.sock");
    TestServer server(config);
    ServerPtr h = OpenHandle(config.http.unixPath, 0, RK_TRANSPORT_UNIX_SOCKET);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(server.core().GetCounters().connections, 1u);
}

TEST_F(HttpTransport, UnixSocketWithoutServer) {
    TempDir dir;
    ServerPtr missing = OpenHandle(dir.File("none.sock"), 0, RK_TRANSPORT_UNIX_SOCKET);
    EXPECT_EQ(Call(missing.get(), "x").errnum, RK_ERR_CONNECT);

    // A socket file that nobody listens on refuses connections.
    std::string path = dir.File("stale.sock");
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(fd);
    ServerPtr stale = OpenHandle(path, 0, RK_TRANSPORT_UNIX_SOCKET);
    EXPECT_EQ(Call(stale.get(), "x").errnum, RK_ERR_REFUSED);
}

}  // namespace
}  // namespace teza_test
