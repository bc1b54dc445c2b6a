// A handle's settings count as changed, so that its options are applied again before its next
// call, when a setter gives a number another value, and only then: the runtime sets the same
// time-out on a cached handle before each of its calls.

#include <gtest/gtest.h>

#include <memory>

#include "rk.h"
#include "transport.h"

namespace {

struct ServerCloser {
    void operator()(rk_server_t* server) const { rk_server_close(server); }
};
using ServerPtr = std::unique_ptr<rk_server_t, ServerCloser>;

TEST(ServerSettings, ANumberSetToTheValueItHasChangesNothing) {
    ServerPtr h(rk_server_open("127.0.0.1", 1, 21));
    ASSERT_NE(h, nullptr);
    ASSERT_NE(rk_server_set_timeout(h.get(), 30), 0);
    ASSERT_NE(rk_server_set_port(h.get(), 8080), 0);
    ASSERT_NE(rk_server_set_style(h.get(), RK_STYLE_TOKEN), 0);
    ASSERT_NE(rk_server_set_server_type(h.get(), RK_SERVER_TYPE_ANY), 0);
    ASSERT_NE(rk_server_set_transport_type(h.get(), RK_TRANSPORT_UNIX_SOCKET, nullptr), 0);
    const uint64_t applied = h->settings.generation;

    // The same values again: nothing to apply.
    EXPECT_NE(rk_server_set_timeout(h.get(), 30), 0);
    EXPECT_NE(rk_server_set_port(h.get(), 8080), 0);
    EXPECT_NE(rk_server_set_style(h.get(), RK_STYLE_TOKEN), 0);
    EXPECT_NE(rk_server_set_server_type(h.get(), RK_SERVER_TYPE_ANY), 0);
    EXPECT_NE(rk_server_set_transport_type(h.get(), RK_TRANSPORT_UNIX_SOCKET, nullptr), 0);
    EXPECT_NE(rk_server_set_timeout(h.get(), -4), 0);
    const uint64_t negative = h->settings.generation;
    EXPECT_NE(rk_server_set_timeout(h.get(), -9), 0) << "a negative time-out is 0 as the last";
    EXPECT_EQ(h->settings.generation, negative);
    EXPECT_EQ(negative, applied + 1) << "30 to 0 is the one change";

    // Each other value is a change, with the value kept.
    EXPECT_NE(rk_server_set_timeout(h.get(), 31), 0);
    EXPECT_NE(rk_server_set_port(h.get(), 8081), 0);
    EXPECT_NE(rk_server_set_style(h.get(), RK_STYLE_LOGIN_PASSWORD), 0);
    EXPECT_NE(rk_server_set_server_type(h.get(), 1), 0);
    EXPECT_NE(rk_server_set_transport_type(h.get(), RK_TRANSPORT_HTTP, nullptr), 0);
    EXPECT_EQ(h->settings.generation, negative + 5);
    EXPECT_EQ(h->settings.timeoutSeconds, 31);
    EXPECT_EQ(h->settings.port, 8081);
    EXPECT_EQ(h->settings.style, RK_STYLE_LOGIN_PASSWORD);
    EXPECT_EQ(h->settings.serverType, 1);
    EXPECT_EQ(h->settings.transport, RK_TRANSPORT_HTTP);
    // Strings count as changed whatever they are.
    EXPECT_NE(rk_server_set_admin_user(h.get(), "admin", "secret"), 0);
    EXPECT_NE(rk_server_set_admin_user(h.get(), "admin", "secret"), 0);
    EXPECT_EQ(h->settings.generation, negative + 7);
}

}  // namespace
