// The tagged text form of a descriptor: what xcdr_2bytes writes, and how xcdr_frombytes reads
// it back, including the older layout and the asymmetries between writer and reader.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "TezaServerConnection.h"
#include "assertion.h"
#include "runtime_fixture.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::Descriptor;

const char kWritten[] =
    "<_host>a</_host><_majorVersion>1</_majorVersion><_minorVersion>21</_minorVersion>"
    "<_style>1</_style><_type>2</_type><_transport>0</_transport><_port>443</_port>"
    "<_login>u</_login><_password>p</_password><_cachable>FALSE</_cachable>"
    "<_useHealthChecker>FALSE</_useHealthChecker><_timeout>180</_timeout>"
    "<_callTimeout>60</_callTimeout><_connectTimeout>15</_connectTimeout>"
    "<_healthPingTimeout>5</_healthPingTimeout><_useQuarantine>FALSE</_useQuarantine>"
    "<_useIpCache>TRUE</_useIpCache>";

// The elements before the health-check flag and the time-outs, as a newer writer without the
// older keys would give them.
const char kIdentity[] =
    "<_host>srv9</_host><_majorVersion>2</_majorVersion><_minorVersion>3</_minorVersion>"
    "<_style>2</_style><_type>4</_type><_transport>1</_transport><_port>8443</_port>"
    "<_login>root</_login><_password>pw</_password><_cachable>TRUE</_cachable>";

TezaServerConnection Small() {
    return TezaServerConnection("a", 1, 21, TezaServerConnection::STYLE_CERTIFICATE,
                                TezaServerConnection::TRANSPORT_HTTP, 443,
                                TezaServerConnection::SERVER_TYPE_CLUSTER, 60, 15, "u", "p", 5);
}

// A descriptor whose every field differs from what the texts above hold.
TezaServerConnection Target() {
    return TezaServerConnection("old", 7, 7, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                TezaServerConnection::TRANSPORT_HTTP, 1,
                                TezaServerConnection::SERVER_TYPE_NODE, 7, 7, "olduser", "oldpw",
                                7);
}

using SerialisationTest = testsupport::RuntimeTest;
using SerialisationDeathTest = SerialisationTest;

// --- Writing ----------------------------------------------------------------------------------

TEST_F(SerialisationTest, WritesTheSeventeenElementsInOrder) {
    std::string out;
    Small().xcdr_2bytes(out);
    EXPECT_EQ(out, kWritten);
}

TEST_F(SerialisationTest, AppendsToTheOutput) {
    std::string out = "prefix";
    Small().xcdr_2bytes(out);
    EXPECT_EQ(out, std::string("prefix") + kWritten);
}

TEST_F(SerialisationTest, EmptyLoginAndPasswordAreLeftOut) {
    TezaServerConnection d = Small();
    d.setUser("", "");
    std::string out;
    d.xcdr_2bytes(out);
    EXPECT_THAT(out, Not(HasSubstr("_login")));
    EXPECT_THAT(out, Not(HasSubstr("_password")));
    EXPECT_THAT(out, HasSubstr("</_port><_cachable>"));
}

TEST_F(SerialisationTest, WritesFlagsAsUpperCaseWords) {
    TezaServerConnection d = Small();
    d.setCachable(true);
    d.setUseHealthChecker(true);
    std::string out;
    d.xcdr_2bytes(out);
    EXPECT_THAT(out, HasSubstr("<_cachable>TRUE</_cachable>"));
    EXPECT_THAT(out, HasSubstr("<_useHealthChecker>TRUE</_useHealthChecker>"));
    EXPECT_THAT(out, HasSubstr("<_useQuarantine>TRUE</_useQuarantine>"));
}

TEST_F(SerialisationTest, WritesNegativeNumbersSignedAndTheConnectTimeoutUnsigned) {
    TezaServerConnection d(
        "h", -1, -2, TezaServerConnection::STYLE_NONE, TezaServerConnection::TRANSPORT_HTTP, -443,
        TezaServerConnection::SERVER_TYPE_NODE, -60, 4294967295u, "u", "p", 4000000000u);
    std::string out;
    d.xcdr_2bytes(out);
    EXPECT_THAT(out, HasSubstr("<_majorVersion>-1</_majorVersion><_minorVersion>-2<"));
    EXPECT_THAT(out, HasSubstr("<_port>-443</_port>"));
    EXPECT_THAT(out, HasSubstr("<_callTimeout>-60</_callTimeout>"));
    EXPECT_THAT(out, HasSubstr("<_connectTimeout>4294967295</_connectTimeout>"));
    EXPECT_THAT(out, HasSubstr("<_healthPingTimeout>4000000000</_healthPingTimeout>"));
}

TEST_F(SerialisationTest, ThePasswordTravelsInPlainText) {
    std::string out;
    Descriptor().xcdr_2bytes(out);
    EXPECT_THAT(out, HasSubstr("<_password>secret</_password>"));
}

TEST_F(SerialisationTest, HandleAndProcAreNotWritten) {
    TezaServerConnection d = Descriptor();
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    d.setProc("volume-get");
    std::string open;
    d.xcdr_2bytes(open);
    std::string closed;
    Descriptor().xcdr_2bytes(closed);
    EXPECT_EQ(open, closed);
}

// --- Reading ----------------------------------------------------------------------------------

TEST_F(SerialisationTest, WrittenTextReadsBackWithBothTimeoutsAt180) {
    std::string in = kWritten;
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.toString(), "a:1,21:1:2:0:443:180:180");
    EXPECT_EQ(d.getLogin(), "u");
    EXPECT_FALSE(d.isCachable());
    EXPECT_FALSE(d.useHealthChecker());
    // "_healthPingTimeout" is not looked at when "_timeout" is present.
    EXPECT_EQ(d.getHealthPingTimeout(), 7u);
}

TEST_F(SerialisationTest, ReadPasswordReachesTheHandle) {
    std::string in = kWritten;
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    ASSERT_EQ(d.newConnection().status, TezaStatus::Success);
    EXPECT_EQ(rkdouble::Settings(d.getServer()).password, "p");
}

TEST_F(SerialisationTest, NewerTimeoutsAreRestoredWhenTimeoutIsAbsent) {
    std::string in = std::string(kIdentity) +
                     "<_useHealthChecker>FALSE</_useHealthChecker><_callTimeout>45</_callTimeout>"
                     "<_connectTimeout>12</_connectTimeout>"
                     "<_healthPingTimeout>3</_healthPingTimeout>";
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.toString(), "srv9:2,3:2:4:1:8443:45:12");
    EXPECT_EQ(d.getHealthPingTimeout(), 3u);
    EXPECT_EQ(d.getLogin(), "root");
    EXPECT_TRUE(d.isCachable());
}

TEST_F(SerialisationTest, OlderUseQuarantineSetsHealthCheckAndIpCache) {
    std::string in =
        std::string(kIdentity) + "<_useQuarantine>TRUE</_useQuarantine><_timeout>30</_timeout>";
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_TRUE(d.useHealthChecker());
    EXPECT_TRUE(d.useIpCache());
    EXPECT_EQ(d.getCallTimeout(), 30);
    EXPECT_EQ(d.getConnectTimeout(), 30u);
}

TEST_F(SerialisationTest, UseHealthCheckerWinsOverUseQuarantine) {
    std::string in = std::string(kIdentity) +
                     "<_useQuarantine>TRUE</_useQuarantine>"
                     "<_useHealthChecker>FALSE</_useHealthChecker><_timeout>30</_timeout>";
    TezaServerConnection d = Target();
    d.setUseHealthChecker(true);
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_FALSE(d.useHealthChecker());
}

TEST_F(SerialisationTest, UseIpCacheElementIsNeverRead) {
    std::string in = std::string(kIdentity) +
                     "<_useHealthChecker>FALSE</_useHealthChecker><_timeout>30</_timeout>"
                     "<_useIpCache>FALSE</_useIpCache>";
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_TRUE(d.useIpCache());
}

TEST_F(SerialisationTest, ElementsInAnotherOrderReadTheSame) {
    std::string reversed =
        "<_useIpCache>TRUE</_useIpCache><_useQuarantine>FALSE</_useQuarantine>"
        "<_healthPingTimeout>5</_healthPingTimeout><_connectTimeout>15</_connectTimeout>"
        "<_callTimeout>60</_callTimeout><_timeout>180</_timeout>"
        "<_useHealthChecker>FALSE</_useHealthChecker><_cachable>FALSE</_cachable>"
        "<_password>p</_password><_login>u</_login><_port>443</_port>"
        "<_transport>0</_transport><_type>2</_type><_style>1</_style>"
        "<_minorVersion>21</_minorVersion><_majorVersion>1</_majorVersion><_host>a</_host>";
    std::string inOrder = kWritten;
    TezaServerConnection fromReversed = Target();
    TezaServerConnection fromInOrder = Target();
    ASSERT_TRUE(fromReversed.xcdr_frombytes(reversed));
    ASSERT_TRUE(fromInOrder.xcdr_frombytes(inOrder));
    std::string a;
    std::string b;
    fromReversed.xcdr_2bytes(a);
    fromInOrder.xcdr_2bytes(b);
    EXPECT_EQ(a, b);
}

TEST_F(SerialisationTest, LowerCaseTrueReadsAsFalseAndIsAccepted) {
    std::string in = std::string(kWritten);
    in.replace(in.find("<_cachable>FALSE"), 16, "<_cachable>true");
    TezaServerConnection d = Target();
    d.setCachable(true);
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_FALSE(d.isCachable());
}

TEST_F(SerialisationTest, NumbersSkipLeadingSpaceAndIgnoreTrailingText) {
    std::string in = std::string(kWritten);
    in.replace(in.find("<_port>443"), 10, "<_port> 80abc");
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getPort(), 80);
}

TEST_F(SerialisationTest, EnumerationNumbersOutsideTheirRangeAreKept) {
    std::string in = std::string(kWritten);
    in.replace(in.find("<_style>1"), 9, "<_style>9");
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getStyle(), 9);
}

TEST_F(SerialisationTest, MissingElementStopsWithEarlierMembersUpdated) {
    std::string in =
        "<_host>srv9</_host><_majorVersion>2</_majorVersion><_minorVersion>3</_minorVersion>"
        "<_style>2</_style><_type>4</_type><_transport>1</_transport>"
        "<_login>root</_login><_password>pw</_password>";
    TezaServerConnection d = Target();
    EXPECT_FALSE(d.xcdr_frombytes(in));
    // Read up to the missing port; login and what follows keep their old values.
    EXPECT_EQ(d.toString(), "srv9:2,3:2:4:1:1:7:7");
    EXPECT_EQ(d.getLogin(), "olduser");
}

TEST_F(SerialisationTest, UnreadableNumberStopsReading) {
    std::string in = std::string(kWritten);
    in.replace(in.find("<_majorVersion>1"), 16, "<_majorVersion>x");
    TezaServerConnection d = Target();
    EXPECT_FALSE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getHost(), "a");
    EXPECT_EQ(d.getMinorVersion(), 7);
}

TEST_F(SerialisationTest, UnclosedElementCountsAsAbsent) {
    std::string in = "<_host>srv9";
    TezaServerConnection d = Target();
    EXPECT_FALSE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getHost(), "old");
}

TEST_F(SerialisationTest, MissingBothHealthCheckFlagsStopsReading) {
    std::string in = std::string(kIdentity) + "<_timeout>30</_timeout>";
    TezaServerConnection d = Target();
    EXPECT_FALSE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getCallTimeout(), 7);
}

TEST_F(SerialisationTest, WithoutTimeoutEachNewerTimeoutIsRequired) {
    std::string in = std::string(kIdentity) +
                     "<_useHealthChecker>TRUE</_useHealthChecker><_callTimeout>45</_callTimeout>"
                     "<_connectTimeout>12</_connectTimeout>";
    TezaServerConnection d = Target();
    EXPECT_FALSE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getCallTimeout(), 45);
    EXPECT_EQ(d.getConnectTimeout(), 12u);
    EXPECT_TRUE(d.useHealthChecker());
}

TEST_F(SerialisationTest, DescriptorWithEmptyLoginCannotBeReadBack) {
    TezaServerConnection d = Small();
    d.setUser("", "p");
    std::string out;
    d.xcdr_2bytes(out);
    TezaServerConnection target = Target();
    EXPECT_FALSE(target.xcdr_frombytes(out));
}

TEST_F(SerialisationTest, ValueHoldingItsOwnClosingTagIsCutShort) {
    TezaServerConnection d = Small();
    d.setUser("u</_login>x", "p");
    std::string out;
    d.xcdr_2bytes(out);
    TezaServerConnection target = Target();
    ASSERT_TRUE(target.xcdr_frombytes(out));
    EXPECT_EQ(target.getLogin(), "u");
}

TEST_F(SerialisationTest, ValueHoldingAnEarlierKeysElementIsTakenForIt) {
    // The login comes after the host in the text, but it is searched from the start too.
    std::string in = std::string("<_login>u<_host>evil</_host></_login>") + kWritten;
    TezaServerConnection d = Target();
    ASSERT_TRUE(d.xcdr_frombytes(in));
    EXPECT_EQ(d.getHost(), "evil");
    EXPECT_EQ(d.getLogin(), "u<_host>evil</_host>");
}

// --- Fatal misuse ---------------------------------------------------------------------------

TEST_F(SerialisationDeathTest, EmptyElementIsFatal) {
    std::string in = "<_host></_host>";
    TezaServerConnection d = Target();
    EXPECT_DEATH(d.xcdr_frombytes(in), AssertionText("end>start"));
}

TEST_F(SerialisationDeathTest, EmptyLoginElementIsFatal) {
    std::string in = std::string(kWritten);
    in.replace(in.find("<_login>u"), 9, "<_login>");
    TezaServerConnection d = Target();
    EXPECT_DEATH(d.xcdr_frombytes(in), AssertionText("end>start"));
}

}  // namespace
