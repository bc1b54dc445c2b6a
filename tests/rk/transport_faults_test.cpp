// librk against tezad's scripted answers and faults: every fault becomes a failed result with
// its own error number and a reason, and the handle stays usable afterwards.

#include <gtest/gtest.h>

#include <string>

#include "hostile_server.h"
#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

class ScriptedFaults : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }

    // Serves `script`, calls `api` once on a fresh handle, and checks that the handle then
    // passes a call the script leaves alone.
    Outcome CallScripted(const std::string& script, const char* api) {
        ServerConfig config;
        config.script = script;
        TestServer server(config);
        _endpoint = "http://127.0.0.1:" + std::to_string(server.port());
        ServerPtr h = OpenHandle("127.0.0.1", server.port());
        Outcome outcome = Call(h.get(), api);
        EXPECT_EQ(Call(h.get(), "system-get-corvi-version").status, 1)
            << "the handle is usable after the fault";
        return outcome;
    }

    std::string _endpoint;
};

TEST_F(ScriptedFaults, FailWithReasonAndErrno) {
    Outcome outcome =
        CallScripted("job-get fail 15042 job <7> & \"friends\" are 'gone'\n", "job-get");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.errnum, 15042);
    EXPECT_EQ(outcome.reason, "job &lt;7&gt; &amp; &quot;friends&quot; are &apos;gone&apos;");
}

TEST_F(ScriptedFaults, PassWithChildren) {
    ServerConfig config;
    config.script = "job-get pass <job-info><job-id>7</job-id><state>q&amp;a</state></job-info>\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr result(rk_server_invoke(h.get(), "job-get", nullptr));
    ASSERT_EQ(rk_results_status(result.get()), 1) << Read(result.get());
    rk_elem_t* info = rk_elem_child(result.get(), "job-info");
    EXPECT_STREQ(rk_child_get_string(info, "job-id"), "7");
    EXPECT_STREQ(rk_child_get_string(info, "state"), "q&amp;a");
}

TEST_F(ScriptedFaults, EchoShowsTheRequestAsTheServerReadIt) {
    ServerConfig config;
    config.script = "echo-me echo\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ElemPtr result(rk_server_invoke(h.get(), "echo-me", "text", "1 < 2 & 'x'", "flag", "true",
                                    "empty", nullptr, nullptr));
    ASSERT_EQ(rk_results_status(result.get()), 1) << Read(result.get());
    rk_elem_t* request = rk_elem_child(result.get(), "echo-me");
    ASSERT_NE(request, nullptr);
    EXPECT_STREQ(rk_child_get_string(request, "text"), "1 &lt; 2 &amp; &apos;x&apos;");
    EXPECT_EQ(rk_child_get_bool(request, "flag", 0), 1);
    // A null value is sent as the empty text.
    EXPECT_STREQ(rk_child_get_string(request, "empty"), "");
}

TEST_F(ScriptedFaults, HttpErrorStatus) {
    Outcome outcome = CallScripted("job-get http 503 down for maintenance\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_HTTP_STATUS);
    EXPECT_EQ(outcome.reason, _endpoint +
                                  " answered &quot;HTTP/1.1 503 Service Unavailable&quot; "
                                  "without a TEZA result");
}

TEST_F(ScriptedFaults, MalformedBody) {
    Outcome outcome = CallScripted("job-get malformed\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_MALFORMED);
    EXPECT_NE(outcome.reason.find("is not well-formed XML"), std::string::npos) << outcome;
}

TEST_F(ScriptedFaults, EmptyBody) {
    Outcome outcome = CallScripted("job-get raw\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_MALFORMED);
    EXPECT_EQ(outcome.reason, _endpoint + " sent an empty answer");
}

TEST_F(ScriptedFaults, BodyThatIsNotAResult) {
    Outcome outcome = CallScripted("job-get raw <hello>world</hello>\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_NOT_RESULT);
    EXPECT_EQ(outcome.reason,
              "the answer of " + _endpoint + " is a &lt;hello&gt; element, not a TEZA result");
    EXPECT_EQ(CallScripted("job-get raw <results state=\"ok\"/>\n", "job-get").errnum,
              RK_ERR_NOT_RESULT);
}

TEST_F(ScriptedFaults, TruncatedBody) {
    Outcome outcome = CallScripted("job-get truncated\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_TRUNCATED) << outcome;
    EXPECT_NE(outcome.reason.find("was cut short"), std::string::npos) << outcome;
}

TEST_F(ScriptedFaults, DroppedConnection) {
    Outcome outcome = CallScripted("job-get drop\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_CLOSED) << outcome;
    EXPECT_EQ(outcome.reason, _endpoint +
                                  " closed the connection without an answer after the request "
                                  "was sent: it may have been carried out (librk sends a "
                                  "request once)");
}

TEST_F(ScriptedFaults, DropOnAReusedConnectionIsNotSentAgain) {
    ServerConfig config;
    config.script = "job-get times=1 drop\njob-get pass <job-id>3</job-id>\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    // The server read the call on the kept-open connection and closed it: the call may have
    // been carried out, so it is not sent again on a new connection.
    Outcome outcome = Call(h.get(), "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_CLOSED) << outcome;
    EXPECT_NE(outcome.reason.find("it may have been carried out"), std::string::npos) << outcome;
    EXPECT_EQ(server.core().GetCounters().callsPerApi["job-get"], 1u);
    // The next call goes out on a new connection.
    EXPECT_EQ(Call(h.get(), "job-get").status, 1);
    EXPECT_EQ(server.core().GetCounters().callsPerApi["job-get"], 2u);
    EXPECT_EQ(server.core().GetCounters().connections, 2u);
}

TEST_F(ScriptedFaults, DropOnEveryAttemptFails) {
    ServerConfig config;
    config.script = "job-get drop\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    EXPECT_EQ(Call(h.get(), "job-get").errnum, RK_ERR_CLOSED);
    EXPECT_EQ(server.core().GetCounters().callsPerApi["job-get"], 1u);
}

TEST_F(ScriptedFaults, ResetOfAReusedConnectionIsNotSentAgain) {
    ServerConfig config;
    config.script = "job-get refuse\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    ASSERT_EQ(Call(h.get(), "system-get-corvi-version").status, 1);
    Outcome outcome = Call(h.get(), "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_RECV) << outcome;
    EXPECT_NE(outcome.reason.find("it may have been carried out"), std::string::npos) << outcome;
    EXPECT_EQ(server.core().GetCounters().callsPerApi["job-get"], 1u);
}

// Each request at most once, against a server that answers the first request of every
// connection and drops the connection after reading the second.
TEST_F(ScriptedFaults, ServerDroppingEveryReusedConnectionSeesEachCallOnce) {
    HostileServer server([](HostileServer::Peer& peer) {
        if (peer.ReadRequest() && peer.Write(PassedAnswer())) {
            peer.ReadRequest();
        }
    });
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    const int kCalls = 20;
    for (int i = 0; i < kCalls; ++i) {
        Outcome outcome = Call(h.get(), "job-get");
        if (i % 2 == 0) {
            EXPECT_EQ(outcome.status, 1) << "call " << i << ": " << outcome;
        } else {
            EXPECT_EQ(outcome.errnum, RK_ERR_CLOSED) << "call " << i << ": " << outcome;
            EXPECT_NE(outcome.reason.find("it may have been carried out"), std::string::npos)
                << outcome;
        }
        EXPECT_EQ(server.requests(), i + 1) << "call " << i;
    }
    EXPECT_EQ(server.connections(), kCalls / 2);
}

// A connection that the server closed while it was idle is found closed before the request is
// written: the call goes out on a new connection and passes.
TEST_F(ScriptedFaults, ServerClosingIdleConnectionsBetweenCalls) {
    HostileServer server([](HostileServer::Peer& peer) {
        if (peer.ReadRequest()) {
            peer.Write(PassedAnswer());
        }
    });
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    const int kCalls = 10;
    for (int i = 0; i < kCalls; ++i) {
        Outcome outcome = Call(h.get(), "job-get");
        EXPECT_EQ(outcome.status, 1) << "call " << i << ": " << outcome;
        ASSERT_TRUE(server.WaitUntilClosed(i + 1));
    }
    EXPECT_EQ(server.requests(), kCalls);
    EXPECT_EQ(server.connections(), kCalls);
}

TEST_F(ScriptedFaults, RefusedCallResetsTheConnection) {
    Outcome outcome = CallScripted("job-get refuse\n", "job-get");
    EXPECT_EQ(outcome.errnum, RK_ERR_RECV) << outcome;
    EXPECT_NE(outcome.reason.find("receiving from " + _endpoint + " failed"), std::string::npos)
        << outcome;
}

TEST_F(ScriptedFaults, RulesWithTimesGiveWayInOrder) {
    ServerConfig config;
    config.script =
        "# the first two calls fail, the third passes\n"
        "job-get times=2 fail 15102 no job 1\n"
        "job-get pass <job-id>1</job-id>\n"
        "* fail 15005 everything else is scripted away\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    EXPECT_EQ(Call(h.get(), "job-get").errnum, 15102);
    EXPECT_EQ(Call(h.get(), "job-get").errnum, 15102);
    EXPECT_EQ(Call(h.get(), "job-get").status, 1);
    EXPECT_EQ(Call(h.get(), "job-get").status, 1);
    EXPECT_EQ(Call(h.get(), "account-list").reason, "everything else is scripted away");
}

TEST_F(ScriptedFaults, ScriptCanFailTheVersionProbe) {
    Outcome outcome =
        CallScripted("system-get-corvi-version times=1 fail 15999 maintenance <soon>\n",
                     "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, 15999);
    EXPECT_EQ(outcome.reason, "maintenance &lt;soon&gt;");
}

TEST_F(ScriptedFaults, ChecksComeBeforeTheScript) {
    ServerConfig config;
    config.script = "* pass\n";
    TestServer server(config);
    ServerPtr h = OpenHandle("127.0.0.1", server.port());
    rk_server_set_admin_user(h.get(), kLogin, "wrong");
    EXPECT_EQ(Call(h.get(), "anything").errnum, tezad::kErrAuthentication);
}

}  // namespace
}  // namespace teza_test
