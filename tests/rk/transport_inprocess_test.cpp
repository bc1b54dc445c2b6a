// librk's in-process transport: the registry, and tezad's service core answering through it
// exactly as it answers over HTTP.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "inprocess_server.h"
#include "rk.h"
#include "test_server.h"

namespace teza_test {
namespace {

class InProcessTransport : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { ASSERT_NE(rk_startup(nullptr, 0), 0); }

    InProcessTransport() : _core(ServerConfig().core), _server("node-a", &_core) {
        _demo.Install(&_core);
    }

    ServerPtr Open() { return OpenHandle("node-a", 0, RK_TRANSPORT_IN_PROCESS); }

    tezad::ServiceCore _core;
    tezad::DemoService _demo;
    tezad::InProcessServer _server;
};

TEST_F(InProcessTransport, VersionProbePasses) {
    ASSERT_TRUE(_server.registered());
    ServerPtr h = Open();
    ElemPtr result(rk_server_invoke(h.get(), "system-get-corvi-version", nullptr));
    ASSERT_EQ(rk_results_status(result.get()), 1) << Read(result.get());
    EXPECT_STREQ(rk_child_get_string(result.get(), "minor-version"), "21");
    // No connection is involved.
    EXPECT_EQ(_core.GetCounters().connections, 0u);
    EXPECT_EQ(_core.GetCounters().calls, 1u);
}

TEST_F(InProcessTransport, TextsTravelInWireForm) {
    ServerPtr h = Open();
    ElemPtr created(rk_server_invoke(h.get(), "account-create", "name", "ada", "full-name",
                                     "A & B <c>", nullptr));
    ASSERT_EQ(rk_results_status(created.get()), 1) << Read(created.get());
    ElemPtr got(rk_server_invoke(h.get(), "account-get", "name", "ada", nullptr));
    rk_elem_t* info = rk_elem_child(got.get(), "account-info");
    // The server decoded what it was sent, and its answer reads as it would from the wire.
    EXPECT_STREQ(rk_child_get_string(info, "full-name"), "A &amp; B &lt;c&gt;");

    Outcome failed =
        Read(ElemPtr(rk_server_invoke(h.get(), "account-create", "name", "a&b", nullptr)).get());
    EXPECT_EQ(failed.errnum, tezad::kErrInvalid);
    EXPECT_EQ(failed.reason,
              "invalid account name &quot;a&amp;b&quot;: use 1 to 64 letters, digits, "
              "&apos;-&apos; or &apos;_&apos;, starting with a letter");
}

TEST_F(InProcessTransport, EncryptedSecretRoundTrip) {
    ServerPtr h = Open();
    ElemPtr request(rk_elem_new("account-create"));
    rk_child_add_string(request.get(), "name", "alan");
    rk_child_add_string_encrypted(request.get(), "secret", "bombe", nullptr);
    ASSERT_EQ(Read(ElemPtr(rk_server_invoke_elem(h.get(), request.get())).get()).status, 1);
    ElemPtr got(rk_server_invoke(h.get(), "account-get", "name", "alan", nullptr));
    char* secret =
        rk_child_get_string_encrypted(rk_elem_child(got.get(), "account-info"), "secret", nullptr);
    ASSERT_NE(secret, nullptr);
    EXPECT_STREQ(secret, "bombe");
    rk_free(secret);
}

TEST_F(InProcessTransport, CredentialsVersionAndTypeAreChecked) {
    ServerPtr h = Open();
    rk_server_set_admin_user(h.get(), kLogin, "wrong");
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, tezad::kErrAuthentication);
    rk_server_set_admin_user(h.get(), kLogin, kPassword);
    rk_server_set_server_type(h.get(), RK_SERVER_TYPE_DEPOT);
    EXPECT_EQ(Call(h.get(), "system-get-corvi-version").errnum, tezad::kErrServerType);

    ServerPtr newer(rk_server_open("node-a", 1, 22));
    rk_server_set_transport_type(newer.get(), RK_TRANSPORT_IN_PROCESS, nullptr);
    rk_server_set_admin_user(newer.get(), kLogin, kPassword);
    EXPECT_EQ(Call(newer.get(), "system-get-corvi-version").errnum, tezad::kErrApiVersion);
}

TEST_F(InProcessTransport, UnknownNameIsRefused) {
    ServerPtr h = OpenHandle("node-b", 0, RK_TRANSPORT_IN_PROCESS);
    Outcome outcome = Call(h.get(), "system-get-corvi-version");
    EXPECT_EQ(outcome.errnum, RK_ERR_NO_SERVER);
    EXPECT_EQ(outcome.reason, "no in-process server named &apos;node-b&apos; is registered");
}

TEST_F(InProcessTransport, NamesAreRegisteredOnce) {
    tezad::InProcessServer again("node-a", &_core);
    EXPECT_FALSE(again.registered());
    EXPECT_EQ(
        rk_inprocess_register(
            "",
            [](void*, const rk_inprocess_call_t*, rk_elem_t*) { return rk_results_new_passed(); },
            nullptr),
        0);
    EXPECT_EQ(rk_inprocess_register("x", nullptr, nullptr), 0);
    EXPECT_EQ(rk_inprocess_unregister("never-registered"), 0);
    EXPECT_EQ(rk_inprocess_unregister(nullptr), 0);
}

rk_elem_t* AnswerNothing(void*, const rk_inprocess_call_t*, rk_elem_t*) {
    return nullptr;
}

rk_elem_t* AnswerWrongElement(void*, const rk_inprocess_call_t*, rk_elem_t*) {
    return rk_elem_new("not-results");
}

// Records what the handler is told about the call.
rk_elem_t* RecordCall(void* context, const rk_inprocess_call_t* call, rk_elem_t* request) {
    auto* seen = static_cast<std::string*>(context);
    *seen = std::string(call->host) + " " + std::to_string(call->major) + "." +
            std::to_string(call->minor) + " style " + std::to_string(call->style) + " type " +
            std::to_string(call->server_type) + " " + (call->login ? call->login : "(null)") + "/" +
            (call->password ? call->password : "(null)") + " " + rk_elem_get_name(request);
    return rk_results_new_passed();
}

TEST_F(InProcessTransport, HandlerSeesTheHandlesSettings) {
    std::string seen;
    ASSERT_NE(rk_inprocess_register("recorder", &RecordCall, &seen), 0);
    ServerPtr h = OpenHandle("recorder", 0, RK_TRANSPORT_IN_PROCESS);
    EXPECT_EQ(Call(h.get(), "probe").status, 1);
    EXPECT_EQ(seen, "recorder 1.21 style 0 type 1 admin/secret probe");
    rk_server_set_style(h.get(), RK_STYLE_NONE);
    EXPECT_EQ(Call(h.get(), "probe").status, 1);
    EXPECT_EQ(seen, "recorder 1.21 style 3 type 1 (null)/(null) probe");
    EXPECT_NE(rk_inprocess_unregister("recorder"), 0);
}

TEST_F(InProcessTransport, HandlersThatGiveNoResult) {
    ASSERT_NE(rk_inprocess_register("silent", &AnswerNothing, nullptr), 0);
    ASSERT_NE(rk_inprocess_register("odd", &AnswerWrongElement, nullptr), 0);
    ServerPtr silent = OpenHandle("silent", 0, RK_TRANSPORT_IN_PROCESS);
    EXPECT_EQ(Call(silent.get(), "x").errnum, RK_ERR_NO_ANSWER);
    ServerPtr odd = OpenHandle("odd", 0, RK_TRANSPORT_IN_PROCESS);
    EXPECT_EQ(Call(odd.get(), "x").errnum, RK_ERR_NOT_RESULT);
    EXPECT_NE(rk_inprocess_unregister("silent"), 0);
    EXPECT_NE(rk_inprocess_unregister("odd"), 0);
}

TEST_F(InProcessTransport, ConnectionFaultsGiveNoAnswer) {
    tezad::ServiceCore core(ServerConfig().core);
    std::string error;
    core.SetScript(tezad::Script::Parse("drop-me drop\nlate delay=50 fail 15001 late <again>\n",
                                        "test", &error));
    tezad::InProcessServer server("scripted", &core);
    ServerPtr h = OpenHandle("scripted", 0, RK_TRANSPORT_IN_PROCESS);
    EXPECT_EQ(Call(h.get(), "drop-me").errnum, RK_ERR_NO_ANSWER);
    Outcome late = Call(h.get(), "late");
    EXPECT_EQ(late.errnum, 15001);
    EXPECT_EQ(late.reason, "late &lt;again&gt;");
}

struct SlowHandler {
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
};

rk_elem_t* AnswerSlowly(void* context, const rk_inprocess_call_t*, rk_elem_t*) {
    auto* handler = static_cast<SlowHandler*>(context);
    handler->entered = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    handler->finished = true;
    return rk_results_new_passed();
}

TEST_F(InProcessTransport, UnregisterWaitsForCallsInProgress) {
    SlowHandler handler;
    ASSERT_NE(rk_inprocess_register("slow-node", &AnswerSlowly, &handler), 0);
    std::atomic<int> status{-1};
    std::thread caller([&] {
        ServerPtr h = OpenHandle("slow-node", 0, RK_TRANSPORT_IN_PROCESS);
        status = Call(h.get(), "slow").status;
    });
    while (!handler.entered) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_NE(rk_inprocess_unregister("slow-node"), 0);
    // The handler, and with it the use of its context, ended before unregistering did.
    EXPECT_TRUE(handler.finished);
    caller.join();
    EXPECT_EQ(status.load(), 1);
    ServerPtr h = OpenHandle("slow-node", 0, RK_TRANSPORT_IN_PROCESS);
    EXPECT_EQ(Call(h.get(), "slow").errnum, RK_ERR_NO_SERVER);
}

}  // namespace
}  // namespace teza_test
