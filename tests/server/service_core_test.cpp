// tezad's service core on its own: entity decoding, scripts, checks, dispatch and counters.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "demo_service.h"
#include "elements.h"
#include "script.h"
#include "service_core.h"

namespace tezad {
namespace {

CallInfo GoodCall() {
    CallInfo info;
    info.hasCredentials = true;
    info.login = "admin";
    info.password = "secret";
    info.hasVersion = true;
    info.major = 1;
    info.minor = 2;
    info.hasServerType = true;
    info.serverType = RK_SERVER_TYPE_NODE;
    return info;
}

CoreOptions Options() {
    CoreOptions options;
    options.major = 1;
    options.minor = 2;
    options.users["admin"] = "secret";
    return options;
}

Reply Send(ServiceCore& core, const std::string& xml, const CallInfo& info = GoodCall()) {
    return core.Handle(info, xml.data(), xml.size());
}

std::string Reason(const Reply& reply) {
    const char* reason = rk_results_reason(reply.result.get());
    return reason == nullptr ? "(null)" : reason;
}

TEST(Decode, NamedAndNumericReferences) {
    EXPECT_EQ(Decode("a&lt;b&gt;c &amp; &quot;d&quot; &apos;e&apos;"), "a<b>c & \"d\" 'e'");
    EXPECT_EQ(Decode("&#60;&#x3E;&#xe9;&#8364;"), "<>\xC3\xA9\xE2\x82\xAC");
    EXPECT_EQ(Decode("&amp;lt;"), "&lt;");
    EXPECT_EQ(Decode("&foo; & &#; &#xD800; &#0;"), "&foo; & &#; &#xD800; &#0;");
    EXPECT_EQ(Decode(""), "");
    EXPECT_EQ(Decode(nullptr), "");
}

TEST(ScriptParse, RejectsBadLinesWithTheirNumber) {
    std::string error;
    EXPECT_EQ(Script::Parse("# fine\nx pass\nx explode\n", "s.txt", &error), nullptr);
    EXPECT_EQ(error, "s.txt:3: unknown action 'explode'");
    EXPECT_EQ(Script::Parse("x delay=abc pass\n", "s", &error), nullptr);
    EXPECT_EQ(error, "s:1: bad option 'delay=abc'");
    EXPECT_EQ(Script::Parse("x times=0 pass\n", "s", &error), nullptr);
    EXPECT_EQ(Script::Parse("x fail reason without number\n", "s", &error), nullptr);
    EXPECT_EQ(error, "s:1: 'fail' needs an error number and a reason");
    EXPECT_EQ(Script::Parse("x http 42\n", "s", &error), nullptr);
    EXPECT_EQ(Script::Parse("x pass <open>\n", "s", &error), nullptr);
    EXPECT_EQ(error.substr(0, 38), "s:1: the children of 'pass' are not XM");
    EXPECT_EQ(Script::Load("/nonexistent/script", &error), nullptr);
    EXPECT_EQ(error, "/nonexistent/script: cannot be read");
}

TEST(ScriptParse, RulesAreTakenInOrderAndCounted) {
    std::string error;
    std::unique_ptr<Script> script = Script::Parse(
        "a times=1 delay=20 fail 7 first\n"
        "a drop\n"
        "* http 500 everything\n",
        "s", &error);
    ASSERT_NE(script, nullptr) << error;
    std::optional<ScriptAction> first = script->Next("a");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->kind, ScriptAction::Kind::Fail);
    EXPECT_EQ(first->number, 7);
    EXPECT_EQ(first->text, "first");
    EXPECT_EQ(first->delay.count(), 20);
    EXPECT_EQ(script->Next("a")->kind, ScriptAction::Kind::Drop);
    EXPECT_EQ(script->Next("a")->kind, ScriptAction::Kind::Drop);
    EXPECT_EQ(script->Next("b")->kind, ScriptAction::Kind::Http);
    EXPECT_EQ(script->Next("b")->text, "everything");

    std::unique_ptr<Script> narrow = Script::Parse("a pass\n", "s", &error);
    EXPECT_FALSE(narrow->Next("b"));
}

TEST(ServiceCore, MalformedRequestIsABadRequest) {
    ServiceCore core(Options());
    Reply reply = Send(core, "<unclosed>");
    EXPECT_EQ(reply.httpStatus, 400);
    EXPECT_EQ(rk_results_errno(reply.result.get()), kErrBadRequest);
    EXPECT_EQ(Reason(reply).substr(0, 43), "the request is not a well-formed XML elemen");
}

TEST(ServiceCore, RequestOutsideXmlInUtf8IsABadRequest) {
    ServiceCore core(Options());
    Reply reply = Send(core, "<account-create><name>ctl\x01x</name></account-create>");
    EXPECT_EQ(reply.httpStatus, 400);
    EXPECT_EQ(rk_results_errno(reply.result.get()), kErrBadRequest);
    EXPECT_EQ(Reason(reply),
              "the request is not a well-formed XML element: a control character at offset 25");
    reply = Send(core, std::string("<system-get-corvi-version/>\0", 28));
    EXPECT_EQ(reply.httpStatus, 400);
    EXPECT_EQ(Reason(reply),
              "the request is not a well-formed XML element: a NUL byte at offset 27");
}

TEST(ServiceCore, ChecksCredentialsFirst) {
    ServiceCore core(Options());
    CallInfo info = GoodCall();
    info.password = "secreT";
    Reply reply = Send(core, "<system-get-corvi-version/>", info);
    EXPECT_EQ(reply.httpStatus, 401);
    EXPECT_EQ(rk_results_errno(reply.result.get()), kErrAuthentication);
    info.login = "nobody";
    info.password = "secret";
    EXPECT_EQ(Send(core, "<x/>", info).httpStatus, 401);
    info.hasCredentials = false;
    EXPECT_EQ(Reason(Send(core, "<x/>", info)), "this server needs a login and a password");
    info = GoodCall();
    info.password = "secretsecret";
    EXPECT_EQ(Send(core, "<x/>", info).httpStatus, 401);
}

TEST(ServiceCore, AnyMatchingCredentialAuthenticates) {
    CoreOptions options = Options();
    options.tokens = {"tk-1", "tk-2"};
    options.certUsers = {"alice"};
    ServiceCore core(options);
    const std::string probe = "<system-get-corvi-version/>";
    CallInfo token = GoodCall();
    token.hasCredentials = false;
    token.hasToken = true;
    token.token = "tk-2";
    EXPECT_EQ(Send(core, probe, token).httpStatus, 200);
    token.token = "tk-3";
    Reply refused = Send(core, probe, token);
    EXPECT_EQ(refused.httpStatus, 401);
    EXPECT_EQ(Reason(refused), "the token is wrong");

    CallInfo certificate = GoodCall();
    certificate.hasCredentials = false;
    certificate.certificate = ClientCertificate::Verified;
    certificate.certificateName = "alice";
    EXPECT_EQ(Send(core, probe, certificate).httpStatus, 200);
    certificate.certificateName = "bob";
    EXPECT_EQ(Reason(Send(core, probe, certificate)),
              "the client certificate's subject CN \"bob\" is not a user of this server");
    // A certificate that was not verified is worth nothing, whatever its name.
    certificate.certificate = ClientCertificate::Refused;
    certificate.certificateName = "alice";
    EXPECT_EQ(Send(core, probe, certificate).httpStatus, 401);
    // Another credential still does, unless the front end requires a verified certificate.
    certificate.hasCredentials = true;
    EXPECT_EQ(Send(core, probe, certificate).httpStatus, 200);
    certificate.certificateRequired = true;
    certificate.certificateProblem = "certificate has expired";
    EXPECT_EQ(Reason(Send(core, probe, certificate)),
              "the client certificate was refused: certificate has expired");
    certificate.certificate = ClientCertificate::None;
    EXPECT_EQ(Reason(Send(core, probe, certificate)),
              "this server needs a client certificate signed by its CA");

    CallInfo nothing = GoodCall();
    nothing.hasCredentials = false;
    EXPECT_EQ(Reason(Send(core, probe, nothing)),
              "this server needs credentials: a login and a password, a bearer token, a client "
              "certificate");
}

TEST(ServiceCore, ChecksVersionAndType) {
    ServiceCore core(Options());
    CallInfo info = GoodCall();
    info.hasVersion = false;
    EXPECT_EQ(Reason(Send(core, "<x/>", info)),
              "the call names no API version; this server serves 1.0 to 1.2");
    info = GoodCall();
    info.minor = 3;
    EXPECT_EQ(Reason(Send(core, "<x/>", info)),
              "API version 1.3 is not served here: use 1.0 to 1.2");
    info = GoodCall();
    info.hasServerType = false;
    EXPECT_EQ(rk_results_errno(Send(core, "<x/>", info).result.get()), kErrServerType);
    info.hasServerType = true;
    info.serverType = 9;
    EXPECT_EQ(Reason(Send(core, "<x/>", info)),
              "this server is a node (1), not a unknown server type (9)");
}

TEST(ServiceCore, DispatchesByNameAndTurnsErrorsIntoResults) {
    ServiceCore core(Options());
    core.AddApi("ok", [](const Args& args) {
        ElemPtr result = NewPassed();
        AddText(result.get(), "got", args.Text("in").value_or("none"));
        return result;
    });
    core.AddApi("refuse", [](const Args&) -> ElemPtr { throw ApiError{15077, "no <way>"}; });
    core.AddApi("broken", [](const Args&) -> ElemPtr { throw std::runtime_error("boom"); });
    Reply ok = Send(core, "<ok><in>a&amp;b</in></ok>");
    EXPECT_EQ(rk_results_status(ok.result.get()), 1);
    EXPECT_STREQ(rk_child_get_string(ok.result.get(), "got"), "a&b");
    Reply refused = Send(core, "<refuse/>");
    EXPECT_EQ(rk_results_errno(refused.result.get()), 15077);
    EXPECT_EQ(Reason(refused), "no <way>");
    EXPECT_EQ(Reason(Send(core, "<broken/>")), "internal error: boom");
    EXPECT_EQ(rk_results_errno(Send(core, "<missing/>").result.get()), kErrUnknownApi);
}

TEST(ServiceCore, CountsCallsPerApiAndConnections) {
    ServiceCore core(Options());
    core.CountConnection();
    core.CountConnection();
    core.CountConnectionClosed();
    Send(core, "<system-get-corvi-version/>");
    Send(core, "<system-get-corvi-version/>");
    Reply counters = Send(core, "<system-get-counters/>");
    EXPECT_STREQ(rk_child_get_string(counters.result.get(), "connections-accepted"), "2");
    EXPECT_STREQ(rk_child_get_string(counters.result.get(), "connections-open"), "1");
    EXPECT_STREQ(rk_child_get_string(counters.result.get(), "calls-served"), "3");
    EXPECT_EQ(core.CountersLine(),
              "2 connections accepted, 1 open, 3 calls served (system-get-corvi-version 2, "
              "system-get-counters 1)");
}

TEST(ServiceCore, StopEndsDelays) {
    ServiceCore core(Options());
    std::string error;
    core.SetScript(Script::Parse("slow delay=60000 pass\n", "s", &error));
    core.Stop();
    Reply reply = Send(core, "<slow/>");
    EXPECT_EQ(rk_results_status(reply.result.get()), 1);
}

TEST(DemoService, JobsFollowTheirAccount) {
    ServiceCore core(Options());
    DemoService demo;
    demo.Install(&core);
    EXPECT_EQ(rk_results_errno(Send(core,
                                    "<job-submit><account>x</account><command>ls</command>"
                                    "</job-submit>")
                                   .result.get()),
              kErrNotFound);
    Send(core, "<account-create><name>ops</name></account-create>");
    Reply submitted = Send(core,
                           "<job-submit><account>ops</account><command>backup</command>"
                           "<arguments><argument>--all</argument></arguments>"
                           "<priority>5</priority></job-submit>");
    EXPECT_STREQ(rk_child_get_string(submitted.result.get(), "job-id"), "1");
    Reply deleted = Send(core, "<account-delete><name>ops</name></account-delete>");
    EXPECT_EQ(Reason(deleted),
              "account \"ops\" has 1 job(s) <queued> or <held>: cancel them first");
    EXPECT_EQ(
        rk_results_status(Send(core, "<job-cancel><job-id>1</job-id></job-cancel>").result.get()),
        1);
    EXPECT_EQ(Reason(Send(core, "<job-cancel><job-id>1</job-id></job-cancel>")),
              "job 1 is \"cancelled\": only <queued> & <held> jobs can be cancelled");
    EXPECT_EQ(rk_results_status(
                  Send(core, "<account-delete><name>ops</name></account-delete>").result.get()),
              1);
    EXPECT_EQ(Reason(Send(core,
                          "<job-submit><account>ops</account><command>x</command>"
                          "<priority>21</priority></job-submit>")),
              "<priority> must be >= -20 & <= 20, not 21");
    EXPECT_EQ(Reason(Send(core, "<job-get/>")), "the argument <job-id> is missing");
}

}  // namespace
}  // namespace tezad
