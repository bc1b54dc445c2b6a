// The client-library test double records every call and returns what a test scripts.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rk_double.h"

namespace {

using Lines = std::vector<std::string>;

class RkDoubleTest : public ::testing::Test {
  protected:
    void SetUp() override { rkdouble::Reset(); }
    void TearDown() override { rkdouble::Reset(); }
};

TEST_F(RkDoubleTest, RecordsServerCallsInOrderWithArguments) {
    rk_server_t* h = rk_server_open("srv7", 1, 21);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(rk_server_set_style(h, 1), 1);
    EXPECT_EQ(rk_server_set_server_type(h, 2), 1);
    EXPECT_EQ(rk_server_set_transport_type(h, 0, nullptr), 1);
    EXPECT_EQ(rk_server_set_port(h, 443), 1);
    EXPECT_EQ(rk_server_set_admin_user(h, "root", "pw"), 1);
    EXPECT_EQ(rk_server_set_timeout(h, 15), 1);
    rk_elem_t* result = rk_server_invoke(h, "system-get-corvi-version", nullptr);
    EXPECT_EQ(rk_results_status(result), 1);
    rk_elem_free(result);
    EXPECT_EQ(rk_server_close(h), 1);
    EXPECT_EQ(rkdouble::Calls("rk_server_"),
              (Lines{"rk_server_open(srv7, 1, 21)", "rk_server_set_style(h1, 1)",
                     "rk_server_set_server_type(h1, 2)",
                     "rk_server_set_transport_type(h1, 0, (null))", "rk_server_set_port(h1, 443)",
                     "rk_server_set_admin_user(h1, root, pw)", "rk_server_set_timeout(h1, 15)",
                     "rk_server_invoke(h1, system-get-corvi-version)", "rk_server_close(h1)"}));
    rkdouble::HandleSettings s = rkdouble::Settings(h);
    EXPECT_EQ(s.host, "srv7");
    EXPECT_EQ(s.port, 443);
    EXPECT_EQ(s.timeout, 15);
    EXPECT_EQ(s.login, "root");
    EXPECT_TRUE(s.closed);
}

TEST_F(RkDoubleTest, ScriptedIntResultsFixedAndQueued) {
    rk_server_t* h = rk_server_open("srv", 1, 0);
    rkdouble::SetResult("rk_server_set_port", 0);
    rkdouble::QueueResult("rk_server_set_port", 1);
    EXPECT_EQ(rk_server_set_port(h, 1), 1);  // queued first
    EXPECT_EQ(rk_server_set_port(h, 1), 0);  // then the fixed result
    EXPECT_EQ(rk_server_set_port(h, 1), 0);
    rk_server_close(h);
}

TEST_F(RkDoubleTest, PointerFunctionsFailOnScript) {
    rkdouble::FailNext("rk_elem_new", 1, 1);
    rk_elem_t* first = rk_elem_new("a");
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(rk_elem_new("b"), nullptr);
    rk_elem_t* third = rk_elem_new("c");
    EXPECT_NE(third, nullptr);
    rkdouble::FailNext("rk_child_add");
    EXPECT_EQ(rk_child_add(first, third), nullptr);
    EXPECT_EQ(rk_child_add(first, third), third);
    rkdouble::FailNext("rk_server_open");
    EXPECT_EQ(rk_server_open("srv", 1, 0), nullptr);
    rk_elem_free(first);
}

TEST_F(RkDoubleTest, StartupFailsWithMessage) {
    rkdouble::FailStartup("no licence");
    char buffer[256] = "";
    EXPECT_EQ(rk_startup(buffer, sizeof(buffer)), 0);
    EXPECT_STREQ(buffer, "no licence");
    EXPECT_EQ(rk_is_started(), 0);
}

TEST_F(RkDoubleTest, StartedFlagFollowsStartupAndScript) {
    EXPECT_EQ(rk_is_started(), 0);
    char buffer[256];
    EXPECT_EQ(rk_startup(buffer, sizeof(buffer)), 1);
    EXPECT_EQ(rk_is_started(), 1);
    rk_shutdown();
    EXPECT_EQ(rk_is_started(), 0);
    rkdouble::SetStarted(true);
    EXPECT_EQ(rk_is_started(), 1);
    rkdouble::QueueResult("rk_is_started", 0);
    EXPECT_EQ(rk_is_started(), 0);
    EXPECT_EQ(rk_is_started(), 1);
}

TEST_F(RkDoubleTest, ResponderAnswersWithScriptedResults) {
    rkdouble::SetResponder([](const std::string& host, const std::string& api, rk_elem_t* req) {
        if (api == "volume-get") {
            return rkdouble::PassedWith("<name>" + host + "</name>");
        }
        return rkdouble::Failed("unknown api " + api + " with " +
                                    std::to_string(rk_elem_child_count(req)) + " children",
                                13005);
    });
    rk_server_t* h = rk_server_open("srv9", 1, 0);
    rk_elem_t* request = rk_elem_new("volume-get");
    rk_elem_t* passed = rk_server_invoke_elem(h, request);
    EXPECT_EQ(rk_results_status(passed), 1);
    EXPECT_STREQ(rk_child_get_string(passed, "name"), "srv9");
    rk_elem_t* failed = rk_server_invoke(h, "other", "a", "1", "b", "2", nullptr);
    EXPECT_EQ(rk_results_status(failed), 0);
    EXPECT_STREQ(rk_results_reason(failed), "unknown api other with 2 children");
    EXPECT_EQ(rk_results_errno(failed), 13005);
    EXPECT_EQ(
        rkdouble::Calls("rk_server_invoke"),
        (Lines{"rk_server_invoke_elem(h1, volume-get)", "rk_server_invoke(h1, other, a=1, b=2)"}));
    rk_elem_free(passed);
    rk_elem_free(failed);
    rk_elem_free(request);
    rk_server_close(h);
}

TEST_F(RkDoubleTest, CountsHandlesAndMisuse) {
    rk_server_t* a = rk_server_open("a", 1, 0);
    rk_server_t* b = rk_server_open("b", 1, 0);
    EXPECT_EQ(rkdouble::HandleName(b), "h2");
    EXPECT_EQ(rkdouble::HandlesOpen(), 2);
    rk_server_close(a);
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);
    EXPECT_EQ(rkdouble::HandleMisuses(), 0);
    rk_server_close(a);
    EXPECT_EQ(rkdouble::HandleMisuses(), 1);
    rk_elem_t* result = rk_server_invoke(a, "x", nullptr);
    EXPECT_EQ(rk_results_status(result), 0);
    EXPECT_EQ(rkdouble::HandleMisuses(), 2);
    rk_elem_free(result);
    rk_server_close(b);
    EXPECT_EQ(rkdouble::HandlesOpened(), 2);
    EXPECT_EQ(rkdouble::HandlesClosed(), 2);
}

TEST_F(RkDoubleTest, RecordsElementCallsAndCounts) {
    rk_elem_t* e = rk_elem_new("req");
    rk_child_add_string(e, "name", "v");
    rk_child_add_bool(e, "flag", 1);
    rk_elem_free(e);
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_elem_new(req)", "rk_child_add_string(req, name, v)",
                                        "rk_child_add_bool(req, flag, 1)", "rk_elem_free(req)"}));
    EXPECT_EQ(rkdouble::CountCalls("rk_child_add_string"), 1);
    EXPECT_EQ(rkdouble::CountCalls("rk_child_add"), 0);
    rkdouble::SetRecording(false);
    rk_elem_free(rk_elem_new("quiet"));
    EXPECT_EQ(rkdouble::Calls().size(), 4u);
}

}  // namespace
