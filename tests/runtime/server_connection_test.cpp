// TezaServerConnection as a descriptor: construction, comparison, copying, the text form, the
// setters that reach an open handle, and the two handle primitives newConnection and close.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "assertion.h"
#include "rk_double.h"
#include "runtime_fixture.h"
#include "server_connection_peer.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::Descriptor;
using testsupport::PointerText;

const Lines kNewConnectionCalls = {
    "rk_server_open(srv7, 1, 21)",      "rk_server_set_style(h1, 1)",
    "rk_server_set_server_type(h1, 2)", "rk_server_set_transport_type(h1, 0, (null))",
    "rk_server_set_port(h1, 443)",      "rk_server_set_admin_user(h1, admin, secret)",
    "rk_server_set_timeout(h1, 15)",    "rk_server_invoke(h1, system-get-corvi-version)",
};

class TezaServerConnectionTest : public testsupport::RuntimeTest {
  protected:
    // Makes every version probe fail with this reason and error number.
    static void FailProbes(const std::string& reason, int errnum) {
        rkdouble::SetResponder(
            [reason, errnum](const std::string&, const std::string&, rk_elem_t*) {
                return rkdouble::Failed(reason, errnum);
            });
    }
};

using TezaServerConnectionDeathTest = TezaServerConnectionTest;

// --- Construction and getters ----------------------------------------------------------------

TEST_F(TezaServerConnectionTest, MainConstructorTakesArgumentsAndDefaults) {
    TezaServerConnection d("srv7", 1, 21, TezaServerConnection::STYLE_CERTIFICATE,
                           TezaServerConnection::TRANSPORT_HTTPS, 443,
                           TezaServerConnection::SERVER_TYPE_CLUSTER, 60, 15, "admin", "secret", 5);
    EXPECT_EQ(d.getHost(), "srv7");
    EXPECT_EQ(d.getMajorVersion(), 1);
    EXPECT_EQ(d.getMinorVersion(), 21);
    EXPECT_EQ(d.getStyle(), TezaServerConnection::STYLE_CERTIFICATE);
    EXPECT_EQ(d.getTransport(), TezaServerConnection::TRANSPORT_HTTPS);
    EXPECT_EQ(d.getPort(), 443);
    EXPECT_EQ(d.getServerType(), TezaServerConnection::SERVER_TYPE_CLUSTER);
    EXPECT_EQ(d.getCallTimeout(), 60);
    EXPECT_EQ(d.getConnectTimeout(), 15u);
    EXPECT_EQ(d.getLogin(), "admin");
    EXPECT_EQ(d.getHealthPingTimeout(), 5u);
    EXPECT_FALSE(d.isCachable());
    EXPECT_EQ(d.getServer(), nullptr);
    EXPECT_FALSE(d.useHealthChecker());
    EXPECT_TRUE(d.useIpCache());
    EXPECT_STREQ(d.getProc(), "no proc");
    EXPECT_FALSE(d.isremote());
    EXPECT_EQ(TezaServerConnection::Default_Port, 951);
}

TEST_F(TezaServerConnectionTest, EnumeratorsHaveTheirFixedNumbers) {
    EXPECT_EQ(TezaServerConnection::STYLE_LOGIN_PASSWORD, 0);
    EXPECT_EQ(TezaServerConnection::STYLE_NONE, 3);
    EXPECT_EQ(TezaServerConnection::SERVER_TYPE_NODE, 1);
    EXPECT_EQ(TezaServerConnection::SERVER_TYPE_DEPOT, 4);
    EXPECT_EQ(TezaServerConnection::TRANSPORT_HTTP, 0);
    EXPECT_EQ(TezaServerConnection::TRANSPORT_UNIX_SOCKET, 3);
}

TEST_F(TezaServerConnectionTest, GetProcReturnsTheCallersPointer) {
    TezaServerConnection d = Descriptor();
    static const char kName[] = "volume-get";
    d.setProc(kName);
    EXPECT_EQ(d.getProc(), kName);  // the pointer itself, not a copy of the text
}

// --- Text form ------------------------------------------------------------------------------

TEST_F(TezaServerConnectionTest, ToStringListsIdentityAndTimeouts) {
    EXPECT_EQ(Descriptor().toString(), "srv7:1,21:1:2:0:443:60:15");
}

TEST_F(TezaServerConnectionTest, ToStringWritesConnectTimeoutUnsignedAndNegativesSigned) {
    TezaServerConnection d("h", -1, 0, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                           TezaServerConnection::TRANSPORT_HTTP, -5,
                           TezaServerConnection::SERVER_TYPE_NODE, -60, 4294967295u, "u", "p", 0);
    EXPECT_EQ(d.toString(), "h:-1,0:0:1:0:-5:-60:4294967295");
}

TEST_F(TezaServerConnectionTest, ToStringNeverShowsCredentials) {
    std::string text = Descriptor().toString();
    EXPECT_THAT(text, Not(HasSubstr("secret")));
    EXPECT_THAT(text, Not(HasSubstr("admin")));
}

// --- Comparison -----------------------------------------------------------------------------

TEST_F(TezaServerConnectionTest, OnlyIdentityTakesPartInComparison) {
    TezaServerConnection a = Descriptor();
    TezaServerConnection b("srv7", 1, 21, TezaServerConnection::STYLE_CERTIFICATE,
                           TezaServerConnection::TRANSPORT_HTTP, 443,
                           TezaServerConnection::SERVER_TYPE_CLUSTER, 1, 2, "other", "pw", 3);
    b.setCachable(true);
    b.setUseHealthChecker(true);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
}

TEST_F(TezaServerConnectionTest, EachIdentityFieldMakesDescriptorsDiffer) {
    const TezaServerConnection base = Descriptor();
    std::vector<TezaServerConnection> others;
    others.push_back(Descriptor("srv8"));
    others.push_back(Descriptor("srv7", 444));
    others.push_back(TezaServerConnection("srv7", 2, 21, base.getStyle(), base.getTransport(), 443,
                                          base.getServerType(), 60, 15, "admin", "secret", 5));
    others.push_back(TezaServerConnection("srv7", 1, 22, base.getStyle(), base.getTransport(), 443,
                                          base.getServerType(), 60, 15, "admin", "secret", 5));
    others.push_back(TezaServerConnection("srv7", 1, 21, TezaServerConnection::STYLE_TOKEN,
                                          base.getTransport(), 443, base.getServerType(), 60, 15,
                                          "admin", "secret", 5));
    others.push_back(TezaServerConnection("srv7", 1, 21, base.getStyle(), base.getTransport(), 443,
                                          TezaServerConnection::SERVER_TYPE_AGENT, 60, 15, "admin",
                                          "secret", 5));
    others.push_back(TezaServerConnection("srv7", 1, 21, base.getStyle(),
                                          TezaServerConnection::TRANSPORT_IN_PROCESS, 443,
                                          base.getServerType(), 60, 15, "admin", "secret", 5));
    for (const TezaServerConnection& other : others) {
        EXPECT_FALSE(base == other) << other.toString();
        // Exactly one of the two orders holds.
        EXPECT_NE(base < other, other < base) << other.toString();
    }
}

TEST_F(TezaServerConnectionTest, PortsCompareAsNumbers) {
    EXPECT_TRUE(Descriptor("srv7", 80) < Descriptor("srv7", 443));
    EXPECT_FALSE(Descriptor("srv7", 443) < Descriptor("srv7", 80));
}

TEST_F(TezaServerConnectionTest, NegativeVersionSortsBeforePositive) {
    TezaServerConnection negative("srv7", -1, 21, TezaServerConnection::STYLE_CERTIFICATE,
                                  TezaServerConnection::TRANSPORT_HTTP, 443,
                                  TezaServerConnection::SERVER_TYPE_CLUSTER, 60, 15, "admin",
                                  "secret", 5);
    EXPECT_TRUE(negative < Descriptor());
    EXPECT_FALSE(Descriptor() < negative);
}

TEST_F(TezaServerConnectionTest, HostDecidesBeforeLaterFields) {
    EXPECT_TRUE(Descriptor("a", 9999) < Descriptor("b", 1));
}

// --- Copy and assignment ----------------------------------------------------------------------

TEST_F(TezaServerConnectionTest, CopyOfOpenDescriptorHasNoHandle) {
    TezaServerConnection d = Descriptor();
    d.setUseHealthChecker(true);
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    d.setCachable(true);
    d.setProc("volume-get");

    TezaServerConnection copy(d);
    EXPECT_EQ(copy.getServer(), nullptr);
    EXPECT_FALSE(copy.isCachable());
    EXPECT_STREQ(copy.getProc(), "no proc");
    EXPECT_TRUE(copy == d);
    EXPECT_EQ(copy.toString(), d.toString());
    EXPECT_EQ(copy.getLogin(), "admin");
    EXPECT_EQ(copy.getHealthPingTimeout(), 5u);
    EXPECT_TRUE(copy.useHealthChecker());
    EXPECT_TRUE(copy.useIpCache());
    EXPECT_NE(d.getServer(), nullptr);
    d.setCachable(false);
}

TEST_F(TezaServerConnectionTest, AssignmentFromOpenDescriptorGivesNoHandle) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    d.setCachable(true);
    d.setProc("volume-get");
    TezaServerConnection target = Descriptor("other", 80, 3);
    target = d;
    EXPECT_EQ(target.getServer(), nullptr);
    EXPECT_FALSE(target.isCachable());
    EXPECT_STREQ(target.getProc(), "no proc");
    EXPECT_EQ(target.toString(), "srv7:1,21:1:2:0:443:60:15");
    d.setCachable(false);
}

TEST_F(TezaServerConnectionTest, AssignmentDropsTargetsHandleWithoutClosingIt) {
    TezaServerConnection target = Descriptor();
    ASSERT_EQ(target.newConnection().status, TezaStatus::Success);
    target.setCachable(true);
    rkdouble::ClearCalls();
    target = Descriptor("other");
    EXPECT_EQ(target.getServer(), nullptr);
    EXPECT_FALSE(target.isCachable());
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_EQ(rkdouble::HandlesOpen(), 1);  // dropped, neither closed nor cached
}

TEST_F(TezaServerConnectionTest, SelfAssignmentKeepsHandleAndFlags) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rk_server_t* handle = d.getServer();
    d.setCachable(true);
    d.setProc("volume-get");
    TezaServerConnection& alias = d;
    d = alias;
    EXPECT_EQ(d.getServer(), handle);
    EXPECT_TRUE(d.isCachable());
    EXPECT_STREQ(d.getProc(), "volume-get");
    d.setCachable(false);
}

// Whether a caller can call setRemote(std::string) on a T.
template <typename T, typename = void>
struct CallerCanSetRemote : std::false_type {};
template <typename T>
struct CallerCanSetRemote<
    T, std::void_t<decltype(std::declval<T&>().setRemote(std::declval<const std::string&>()))>>
    : std::true_type {};

// A caller that could mark a descriptor remote would make every invocation through it do
// nothing; only copies carry the mark.
static_assert(!CallerCanSetRemote<TezaServerConnection>::value,
              "the remote mark has no public setter");

TEST_F(TezaServerConnectionTest, RemoteMarkIsCopiedAndAssignedButNotSerialised) {
    TezaServerConnection d = Descriptor();
    TezaServerConnectionTestPeer::SetRemote(d, "site-b");
    EXPECT_TRUE(d.isremote());

    TezaServerConnection copy(d);
    EXPECT_TRUE(copy.isremote());
    TezaServerConnection target = Descriptor("other");
    target = d;
    EXPECT_TRUE(target.isremote());

    std::string text;
    d.xcdr_2bytes(text);
    EXPECT_EQ(text.find("site-b"), std::string::npos);
    TezaServerConnection read = Descriptor("other");
    ASSERT_TRUE(read.xcdr_frombytes(text));
    EXPECT_FALSE(read.isremote());

    TezaServerConnectionTestPeer::SetRemote(d, "");
    EXPECT_FALSE(d.isremote());
    EXPECT_TRUE(rkdouble::Calls().empty());
}

// --- Setters ----------------------------------------------------------------------------------

TEST_F(TezaServerConnectionTest, SettersOnClosedDescriptorOnlyStore) {
    TezaServerConnection d = Descriptor();
    d.setStyle(TezaServerConnection::STYLE_TOKEN);
    d.setServerType(TezaServerConnection::SERVER_TYPE_DEPOT);
    d.setTransport(TezaServerConnection::TRANSPORT_UNIX_SOCKET);
    d.setPort(80);
    d.setCallTimeout(30);
    d.setConnectTimeout(20);
    d.setUser("root", "pw");
    d.setHealthPingTimeout(9);
    d.setCachable(true);
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_EQ(d.toString(), "srv7:1,21:2:4:3:80:30:20");
    EXPECT_EQ(d.getLogin(), "root");
    EXPECT_EQ(d.getHealthPingTimeout(), 9u);
    EXPECT_TRUE(d.isCachable());
}

TEST_F(TezaServerConnectionTest, SettersOnOpenDescriptorReachTheHandleAtOnce) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rkdouble::ClearCalls();
    d.setStyle(TezaServerConnection::STYLE_TOKEN);
    d.setServerType(TezaServerConnection::SERVER_TYPE_DEPOT);
    d.setTransport(TezaServerConnection::TRANSPORT_UNIX_SOCKET);
    d.setPort(80);
    d.setCallTimeout(30);
    d.setConnectTimeout(20);
    d.setUser("root", "pw");
    d.setHealthPingTimeout(9);
    d.setCachable(false);
    d.setProc("volume-get");
    EXPECT_EQ(rkdouble::Calls(), (Lines{
                                     "rk_server_set_style(h1, 2)",
                                     "rk_server_set_server_type(h1, 4)",
                                     "rk_server_set_transport_type(h1, 3, (null))",
                                     "rk_server_set_port(h1, 80)",
                                     "rk_server_set_timeout(h1, 30)",
                                     "rk_server_set_timeout(h1, 20)",
                                     "rk_server_set_admin_user(h1, root, pw)",
                                 }));
    rkdouble::HandleSettings settings = rkdouble::Settings(d.getServer());
    EXPECT_EQ(settings.login, "root");
    EXPECT_EQ(settings.password, "pw");
}

TEST_F(TezaServerConnectionTest, TheLastTimeoutSetterWinsOnTheHandle) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    d.setConnectTimeout(20);
    d.setCallTimeout(45);
    EXPECT_EQ(rkdouble::Settings(d.getServer()).timeout, 45);
    d.setConnectTimeout(25);
    EXPECT_EQ(rkdouble::Settings(d.getServer()).timeout, 25);
}

TEST_F(TezaServerConnectionTest, OutOfRangeEnumerationValuesGoAsZero) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rkdouble::ClearCalls();
    d.setStyle(static_cast<TezaServerConnection::Style>(4));
    d.setServerType(static_cast<TezaServerConnection::ServerType>(0));
    d.setServerType(static_cast<TezaServerConnection::ServerType>(5));
    d.setTransport(static_cast<TezaServerConnection::Transport>(-1));
    EXPECT_EQ(rkdouble::Calls(), (Lines{
                                     "rk_server_set_style(h1, 0)",
                                     "rk_server_set_server_type(h1, 0)",
                                     "rk_server_set_server_type(h1, 0)",
                                     "rk_server_set_transport_type(h1, 0, (null))",
                                 }));
    // The descriptor keeps the number it was given.
    EXPECT_EQ(d.getServerType(), 5);
}

TEST_F(TezaServerConnectionTest, NewConnectionPassesOutOfRangeValuesAsZero) {
    TezaServerConnection d("srv7", 1, 21, static_cast<TezaServerConnection::Style>(9),
                           static_cast<TezaServerConnection::Transport>(4), 443,
                           static_cast<TezaServerConnection::ServerType>(0), 60, 15, "admin",
                           "secret", 5);
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    Lines calls = rkdouble::Calls("rk_server_");
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ(calls[1], "rk_server_set_style(h1, 0)");
    EXPECT_EQ(calls[2], "rk_server_set_server_type(h1, 0)");
    EXPECT_EQ(calls[3], "rk_server_set_transport_type(h1, 0, (null))");
}

TEST_F(TezaServerConnectionTest, SetStyleIgnoresAFailedClientCall) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rkdouble::SetResult("rk_server_set_style", 0);
    d.setStyle(TezaServerConnection::STYLE_NONE);
    EXPECT_EQ(d.getStyle(), TezaServerConnection::STYLE_NONE);
}

// --- newConnection ----------------------------------------------------------------------------

TEST_F(TezaServerConnectionTest, NewConnectionOpensConfiguresAndProbes) {
    TezaServerConnection d = Descriptor();
    TezaStatus status = d.newConnection();
    EXPECT_EQ(status.status, TezaStatus::Success);
    EXPECT_EQ(status.reason, "");
    EXPECT_EQ(status.errnum, 0);
    EXPECT_EQ(rkdouble::Calls("rk_server_"), kNewConnectionCalls);
    ASSERT_NE(d.getServer(), nullptr);
    EXPECT_EQ(rkdouble::HandleName(d.getServer()), "h1");
    EXPECT_EQ(rkdouble::Settings(d.getServer()).timeout, 15);  // the connect time-out
}

TEST_F(TezaServerConnectionTest, NewConnectionFreesTheProbeResult) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    Lines calls = rkdouble::Calls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(Lines(calls.end() - 3, calls.end()),
              (Lines{"rk_server_invoke(h1, system-get-corvi-version)", "rk_results_status(results)",
                     "rk_elem_free(results)"}));
}

TEST_F(TezaServerConnectionTest, NewConnectionLogsConnectAndSuccess) {
    _log.Create();
    TezaServerConnection d = Descriptor();
    d.setProc("volume-get");
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    EXPECT_EQ(LogMessages(), (Lines{"volume-get: connect to 'srv7' timeout=15 _server=" +
                                        PointerText(d.getServer()) + "\n",
                                    "volume-get: successful connection to 'srv7'\n"}));
}

TEST_F(TezaServerConnectionTest, FailedProbeReturnsTheServersReasonAndErrno) {
    FailProbes("connection refused", 13055);
    TezaServerConnection d = Descriptor();
    TezaStatus status = d.newConnection();
    EXPECT_EQ(status.status, TezaStatus::ConnectionFailed);
    EXPECT_EQ(status.reason, "connection refused");
    EXPECT_EQ(status.errnum, 13055);
    EXPECT_EQ(d.getServer(), nullptr);
}

TEST_F(TezaServerConnectionTest, FailedProbeReadsTheResultThenFreesItAndClosesTheHandle) {
    FailProbes("refused", 13055);
    TezaServerConnection d = Descriptor();
    d.newConnection();
    Lines calls = rkdouble::Calls();
    ASSERT_GE(calls.size(), 6u);
    EXPECT_EQ(Lines(calls.end() - 6, calls.end()),
              (Lines{"rk_server_invoke(h1, system-get-corvi-version)", "rk_results_status(results)",
                     "rk_results_reason(results)", "rk_results_errno(results)",
                     "rk_elem_free(results)", "rk_server_close(h1)"}));
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
}

TEST_F(TezaServerConnectionTest, FailedProbeLogsOneConnectionFailedLineWithoutLineEnd) {
    _log.Create();
    FailProbes("refused", 13055);
    TezaServerConnection d = Descriptor();
    d.setProc("volume-get");
    d.newConnection();
    Lines messages = LogMessages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_THAT(messages[0], HasSubstr("volume-get: connect to 'srv7' timeout=15 _server="));
    EXPECT_EQ(messages[1],
              "volume-get: connection failed; reason='refused (13055)' "
              "address=srv7:1,21:1:2:0:443:60:15");
}

TEST_F(TezaServerConnectionTest, DescriptorStaysUsableAfterAFailedProbe) {
    FailProbes("refused", 13055);
    TezaServerConnection d = Descriptor();
    ASSERT_NE(d.newConnection().status, TezaStatus::Success);
    rkdouble::SetResponder(nullptr);
    EXPECT_EQ(d.newConnection().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::HandleName(d.getServer()), "h2");
}

TEST_F(TezaServerConnectionTest, ThePasswordIsNeverLogged) {
    _log.Create();
    {
        TezaServerConnection d = Descriptor();
        d.setProc("volume-get");
        ASSERT_EQ(d.open().status, TezaStatus::Success);
        d.setUser("root", "hunter2");
        d.close();
        FailProbes("refused", 13055);
        d.open();
        d.isQuarantined();
        TezaServerConnection::probeQuarantinedServers();
    }
    std::string contents = _log.Contents();
    EXPECT_THAT(contents, HasSubstr("connection failed"));
    EXPECT_THAT(contents, Not(HasSubstr("secret")));
    EXPECT_THAT(contents, Not(HasSubstr("hunter2")));
}

// --- close ------------------------------------------------------------------------------------

TEST_F(TezaServerConnectionTest, CloseOfNonCachableDescriptorClosesTheHandle) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rkdouble::ClearCalls();
    _log.Create();
    d.close();
    EXPECT_EQ(d.getServer(), nullptr);
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
    EXPECT_EQ(LogMessages(), (Lines{"TezaServerConnection::close rk_server_close\n"}));
}

TEST_F(TezaServerConnectionTest, CloseOfCachableDescriptorHandsTheHandleToTheCache) {
    TezaConnectionCache::init();
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rk_server_t* handle = d.getServer();
    rkdouble::ClearCalls();
    _log.Create();
    d.setCachable(true);
    d.close();
    EXPECT_EQ(d.getServer(), nullptr);
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_EQ(LogMessages(), (Lines{"TezaServerConnection::close Cachable\n"}));
    EXPECT_EQ(TezaConnectionCache::getConnection("srv7", 1, 21, d.getStyle(), d.getServerType(),
                                                 d.getTransport(), 443, "admin", "secret", 5),
              handle);
    rk_server_close(handle);
}

TEST_F(TezaServerConnectionTest, CloseOfClosedDescriptorDoesNothing) {
    _log.Create();
    TezaServerConnection d = Descriptor();
    d.close();
    EXPECT_TRUE(rkdouble::Calls().empty());
    EXPECT_TRUE(LogMessages().empty());
}

TEST_F(TezaServerConnectionTest, DestructorClosesTheHandle) {
    {
        TezaServerConnection d = Descriptor();
        ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
        rkdouble::ClearCalls();
    }
    EXPECT_EQ(rkdouble::Calls(), (Lines{"rk_server_close(h1)"}));
    EXPECT_EQ(rkdouble::HandlesOpen(), 0);
}

// --- Fatal misuse ---------------------------------------------------------------------------

TEST_F(TezaServerConnectionDeathTest, NewConnectionOnAnOpenDescriptor) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    EXPECT_DEATH(d.newConnection(), AssertionText("_server == __null"));
}

TEST_F(TezaServerConnectionDeathTest, NullHandleFromTheClientLibrary) {
    TezaServerConnection d = Descriptor();
    rkdouble::FailNext("rk_server_open");
    EXPECT_DEATH(d.newConnection(), AssertionText("_server != __null"));
}

TEST_F(TezaServerConnectionDeathTest, NullProbeResult) {
    TezaServerConnection d = Descriptor();
    rkdouble::FailNext("rk_server_invoke");
    EXPECT_DEATH(d.newConnection(), AssertionText("out != __null"));
}

TEST_F(TezaServerConnectionDeathTest, FailedConfigurationCallsInNewConnection) {
    const char* const functions[] = {"rk_server_set_server_type", "rk_server_set_transport_type",
                                     "rk_server_set_port", "rk_server_set_admin_user",
                                     "rk_server_set_timeout"};
    for (const char* function : functions) {
        SCOPED_TRACE(function);
        TezaServerConnection d = Descriptor();
        rkdouble::Reset();
        rkdouble::SetResult(function, 0);
        EXPECT_DEATH(d.newConnection(), AssertionText("ret"));
    }
}

TEST_F(TezaServerConnectionTest, FailedStyleCallInNewConnectionIsIgnored) {
    rkdouble::SetResult("rk_server_set_style", 0);
    TezaServerConnection d = Descriptor();
    EXPECT_EQ(d.newConnection().status, TezaStatus::Success);
}

TEST_F(TezaServerConnectionDeathTest, FailedCloseAfterAFailedProbe) {
    FailProbes("refused", 13055);
    rkdouble::SetResult("rk_server_close", 0);
    TezaServerConnection d = Descriptor();
    EXPECT_DEATH(d.newConnection(), AssertionText("ret"));
}

TEST_F(TezaServerConnectionDeathTest, FailedSettersOnAnOpenHandle) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rkdouble::SetResult("rk_server_set_server_type", 0);
    EXPECT_DEATH(d.setServerType(TezaServerConnection::SERVER_TYPE_NODE), AssertionText("ret"));
    rkdouble::SetResult("rk_server_set_transport_type", 0);
    EXPECT_DEATH(d.setTransport(TezaServerConnection::TRANSPORT_HTTPS), AssertionText("ret"));
    rkdouble::SetResult("rk_server_set_port", 0);
    EXPECT_DEATH(d.setPort(80), AssertionText("ret"));
    rkdouble::SetResult("rk_server_set_timeout", 0);
    EXPECT_DEATH(d.setCallTimeout(30), AssertionText("ret"));
    EXPECT_DEATH(d.setConnectTimeout(30), AssertionText("ret"));
    rkdouble::SetResult("rk_server_set_admin_user", 0);
    EXPECT_DEATH(d.setUser("root", "pw"), AssertionText("ret"));
}

TEST_F(TezaServerConnectionDeathTest, FailedCloseOfANonCachableHandle) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    rkdouble::SetResult("rk_server_close", 0);
    EXPECT_DEATH(d.close(), AssertionText("ret"));
    rkdouble::SetResult("rk_server_close", 1);
}

}  // namespace
