// Bad answers end to end: a tezad front end in the test's process answers the runtime's calls
// with crafted bodies (scripted `raw` answers), and generated records read them over the real
// client library. Missing, extra, repeated, reordered, oversized and mistyped elements give
// unset fields or the values the runtime's reading rules make of them; hostile XML (huge
// attributes, nesting past the parser's limit, entity expansion and external entities) gives
// a clear failure or text that is taken literally. Every test also checks that each client
// handle opened was closed once the runtime cleaned up.

#include <gtest/gtest.h>
#include <stdint.h>

#include <limits>
#include <string>
#include <vector>

#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaWrapper.h"
#include "demo.h"
#include "rk.h"
#include "runtime_session.h"
#include "test_server.h"

namespace {

using teza_test::kLogin;
using teza_test::kMajor;
using teza_test::kMinor;
using teza_test::kPassword;
using teza_test::ServerConfig;
using teza_test::TestServer;

TezaServerConnection Descriptor(int port) {
    return TezaServerConnection(
        "127.0.0.1", kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
        TezaServerConnection::TRANSPORT_HTTP, port, TezaServerConnection::SERVER_TYPE_NODE, 10, 10,
        kLogin, kPassword, 10);
}

std::string Passed(const std::string& children) {
    return "<results status=\"passed\">" + children + "</results>";
}

// `depth` elements <d> nested in one another.
std::string Nested(int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) {
        text += "<d>";
    }
    for (int i = 0; i < depth; ++i) {
        text += "</d>";
    }
    return text;
}

class BadInput : public RuntimeSession {
  protected:
    // Calls account-get on a server of its own that answers it with `body`, as it stands. No
    // handle cached for an earlier one (stopped, on another port) may serve the call.
    static TezaStatus Get(const std::string& body, demo::AccountGetReply& reply) {
        ForgetCachedConnections();
        ServerConfig config;
        config.script = "account-get raw " + body + "\n";
        TestServer server(config);
        demo::AccountInterface api(Descriptor(server.port()));
        demo::AccountNameRequest which;
        which.setName("anyone");
        return api.accountGet(which, reply);
    }

    // Expects a passed account-get answered with `body` and returns its account-info.
    static const demo::AccountInfo* Info(const std::string& body, demo::AccountGetReply& reply) {
        const TezaStatus status = Get(body, reply);
        EXPECT_EQ(status.status, TezaStatus::Success) << status.errnum << " " << status.reason;
        return reply.getAccountInfo();
    }
};

TEST_F(BadInput, MissingElementsLeaveFieldsUnset) {
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info(Passed("<account-info><name>ann</name></account-info>"), reply);
    ASSERT_NE(info, nullptr);
    std::string name;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "ann");
    // Mandatory and optional fields alike stay unset, without an error.
    EXPECT_FALSE(info->isAccountIdSet());
    EXPECT_FALSE(info->isQuotaSet());
    EXPECT_FALSE(info->isEnabledSet());
    EXPECT_FALSE(info->isFullNameSet());
    EXPECT_FALSE(info->isSecretSet());
    EXPECT_EQ(info->getAddress(), nullptr);
    EXPECT_FALSE(info->isTagsSet());

    // An answer without the record clears what the output record held before.
    EXPECT_EQ(Get(Passed(""), reply).status, TezaStatus::Success);
    EXPECT_EQ(reply.getAccountInfo(), nullptr);
    EXPECT_EQ(Get("<results status=\"passed\"/>", reply).status, TezaStatus::Success);
    EXPECT_EQ(reply.getAccountInfo(), nullptr);
}

TEST_F(BadInput, ExtraElementsAndAttributesAreIgnored) {
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info(Passed("<junk>1</junk><account-info extra=\"yes\"><account-id>5</account-id>"
                    "<bogus><deep a=\"b\">x</deep></bogus><name kind=\"odd\">bea</name>"
                    "<address><city>Oslo</city><planet>Earth</planet></address>"
                    "</account-info><more/>"),
             reply);
    ASSERT_NE(info, nullptr);
    uint64_t id = 0;
    std::string name, city;
    EXPECT_TRUE(info->getAccountId(id));
    EXPECT_EQ(id, 5u);
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "bea");
    ASSERT_NE(info->getAddress(), nullptr);
    EXPECT_TRUE(info->getAddress()->getCity(city));
    EXPECT_EQ(city, "Oslo");
    EXPECT_FALSE(info->getAddress()->isStreetSet());
}

TEST_F(BadInput, RepeatedElementsGiveTheFirst) {
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info(Passed("<account-info><name>first</name><name>second</name><quota>1</quota>"
                    "<quota>2</quota><tags><tag>a</tag></tags><tags><tag>b</tag></tags>"
                    "<address><city>One</city></address><address><city>Two</city></address>"
                    "</account-info><account-info><name>other</name></account-info>"),
             reply);
    ASSERT_NE(info, nullptr);
    std::string name, city;
    uint32_t quota = 0;
    std::vector<std::string> tags;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "first");
    EXPECT_TRUE(info->getQuota(quota));
    EXPECT_EQ(quota, 1u);
    EXPECT_TRUE(info->getTags(tags));
    EXPECT_EQ(tags, std::vector<std::string>{"a"});
    ASSERT_NE(info->getAddress(), nullptr);
    EXPECT_TRUE(info->getAddress()->getCity(city));
    EXPECT_EQ(city, "One");
}

TEST_F(BadInput, ReorderedElementsReadTheSame) {
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info(Passed("<account-info><tags><tag>z</tag><other>y</other><tag>a</tag></tags>"
                    "<enabled>true</enabled><quota>9</quota><address><city>C</city>"
                    "<street>S</street></address><name>n</name><account-id>3</account-id>"
                    "</account-info>"),
             reply);
    ASSERT_NE(info, nullptr);
    uint64_t id = 0;
    uint32_t quota = 0;
    bool enabled = false;
    std::string name, street, city;
    std::vector<std::string> tags;
    EXPECT_TRUE(info->getAccountId(id));
    EXPECT_EQ(id, 3u);
    EXPECT_TRUE(info->getQuota(quota));
    EXPECT_EQ(quota, 9u);
    EXPECT_TRUE(info->getEnabled(enabled));
    EXPECT_TRUE(enabled);
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "n");
    ASSERT_NE(info->getAddress(), nullptr);
    EXPECT_TRUE(info->getAddress()->getStreet(street));
    EXPECT_EQ(street, "S");
    EXPECT_TRUE(info->getAddress()->getCity(city));
    EXPECT_EQ(city, "C");
    // Array items keep the answer's order, and every child of the wrapper is an item.
    EXPECT_TRUE(info->getTags(tags));
    EXPECT_EQ(tags, (std::vector<std::string>{"z", "y", "a"}));
}

TEST_F(BadInput, OversizedValuesAreKeptWhole) {
    const std::string big(1 << 20, 'n');
    std::string items;
    const int kItems = 20000;
    for (int i = 0; i < kItems; ++i) {
        items += "<tag>t" + std::to_string(i) + "</tag>";
    }
    demo::AccountGetReply reply;
    const demo::AccountInfo* info = Info(
        Passed("<account-info><name>" + big + "</name><tags>" + items + "</tags></account-info>"),
        reply);
    ASSERT_NE(info, nullptr);
    std::string name;
    std::vector<std::string> tags;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, big);
    EXPECT_TRUE(info->getTags(tags));
    ASSERT_EQ(tags.size(), static_cast<size_t>(kItems));
    EXPECT_EQ(tags.back(), "t" + std::to_string(kItems - 1));
}

TEST_F(BadInput, OutOfRangeNumbersAreConvertedAsTheStandardConversionsDo) {
    demo::AccountGetReply reply;
    // 2^32 + 1 loses its upper 32 bits; -1 read as unsigned is all ones; past 2^64 saturates.
    const demo::AccountInfo* info =
        Info(Passed("<account-info><quota>4294967297</quota>"
                    "<account-id>99999999999999999999999</account-id></account-info>"),
             reply);
    ASSERT_NE(info, nullptr);
    uint32_t quota = 0;
    uint64_t id = 0;
    EXPECT_TRUE(info->getQuota(quota));
    EXPECT_EQ(quota, 1u);
    EXPECT_TRUE(info->getAccountId(id));
    EXPECT_EQ(id, std::numeric_limits<uint64_t>::max());

    info = Info(Passed("<account-info><quota>-1</quota><account-id>-2</account-id>"
                       "</account-info>"),
                reply);
    ASSERT_NE(info, nullptr);
    EXPECT_TRUE(info->getQuota(quota));
    EXPECT_EQ(quota, 4294967295u);
    EXPECT_TRUE(info->getAccountId(id));
    EXPECT_EQ(id, std::numeric_limits<uint64_t>::max() - 1);
}

TEST_F(BadInput, MistypedElementsGiveTheReadingRulesValues) {
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info(Passed("<account-info><quota>abc</quota><account-id> 12x</account-id>"
                    "<enabled>maybe</enabled><name><first>a</first></name>"
                    "<address>1 Main Street</address><tags>oops</tags></account-info>"),
             reply);
    ASSERT_NE(info, nullptr);
    uint32_t quota = 99;
    uint64_t id = 0;
    bool enabled = true;
    std::string name = "untouched";
    // Not a number: 0; leading blanks skipped and trailing text ignored.
    EXPECT_TRUE(info->getQuota(quota));
    EXPECT_EQ(quota, 0u);
    EXPECT_TRUE(info->getAccountId(id));
    EXPECT_EQ(id, 12u);
    // Any text but true, yes, on and 1 reads as false.
    EXPECT_TRUE(info->getEnabled(enabled));
    EXPECT_FALSE(enabled);
    // An element with children where text was expected: its own text, which is empty.
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "");
    // Text where a record was expected: the record is there, its fields unset.
    ASSERT_NE(info->getAddress(), nullptr);
    EXPECT_FALSE(info->getAddress()->isStreetSet());
    EXPECT_FALSE(info->getAddress()->isCitySet());
    // An array wrapper without items leaves the array unset.
    EXPECT_FALSE(info->isTagsSet());

    // A record where a whole record array's item is expected, and text where a number is.
    ServerConfig config;
    config.script = "system-get-counters raw " +
                    Passed(
                        "<calls-served>many</calls-served><api-calls><api-call><api>x</api>"
                        "<calls>zz</calls></api-call><junk>text</junk></api-calls>") +
                    "\n";
    ForgetCachedConnections();
    TestServer server(config);
    demo::AccountInterface api(Descriptor(server.port()));
    demo::Counters counters;
    ASSERT_EQ(api.systemGetCounters(counters).status, TezaStatus::Success);
    uint64_t served = 7;
    EXPECT_TRUE(counters.getCallsServed(served));
    EXPECT_EQ(served, 0u);
    EXPECT_FALSE(counters.isConnectionsAcceptedSet());
    std::vector<demo::ApiCall> calls;
    ASSERT_TRUE(counters.getApiCalls(calls));
    ASSERT_EQ(calls.size(), 2u);
    std::string apiName;
    uint64_t n = 5;
    EXPECT_TRUE(calls[0].getApi(apiName));
    EXPECT_EQ(apiName, "x");
    EXPECT_TRUE(calls[0].getCalls(n));
    EXPECT_EQ(n, 0u);
    EXPECT_FALSE(calls[1].isApiSet());
    EXPECT_FALSE(calls[1].isCallsSet());
}

TEST_F(BadInput, OnlyTheFiveEntitiesAreDecoded) {
    demo::AccountGetReply reply;
    const demo::AccountInfo* info = Info(
        Passed("<account-info><name>a&lt;b&amp;amp;c&#60;&#x3C;&foo;&quot;</name></account-info>"),
        reply);
    ASSERT_NE(info, nullptr);
    std::string name;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "a<b&amp;c&#60;&#x3C;&foo;\"");
}

TEST_F(BadInput, HugeAttributesAreHarmless) {
    const std::string huge(4 << 20, 'x');
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info("<results status=\"passed\" junk=\"" + huge + "\"><account-info name=\"" + huge +
                 "\"><name>ok</name></account-info></results>",
             reply);
    ASSERT_NE(info, nullptr);
    std::string name;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "ok");
}

TEST_F(BadInput, NestingPastTheParsersLimitIsAMalformedAnswer) {
    // results, account-info and 254 more levels: 256 in all, the deepest accepted.
    demo::AccountGetReply reply;
    const demo::AccountInfo* info = Info(Passed("<account-info><name>deep</name>" +
                                                Nested(RK_PARSE_MAX_DEPTH - 2) + "</account-info>"),
                                         reply);
    ASSERT_NE(info, nullptr);
    std::string name;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "deep");

    for (int depth : {RK_PARSE_MAX_DEPTH - 1, 100000}) {
        demo::AccountGetReply fresh;
        TezaStatus status = Get(
            Passed("<account-info><name>deeper</name>" + Nested(depth) + "</account-info>"), fresh);
        EXPECT_EQ(status.status, TezaStatus::ApiFailed) << depth;
        EXPECT_EQ(status.errnum, RK_ERR_MALFORMED) << depth;
        EXPECT_NE(status.reason.find("nested deeper than 256"), std::string::npos) << status.reason;
        EXPECT_EQ(fresh.getAccountInfo(), nullptr);
    }
    // A failed call does not read its answer: an output record keeps what it held.
    EXPECT_EQ(Get(Passed("<account-info>" + Nested(RK_PARSE_MAX_DEPTH) + "</account-info>"), reply)
                  .status,
              TezaStatus::ApiFailed);
    ASSERT_NE(reply.getAccountInfo(), nullptr);
    EXPECT_TRUE(reply.getAccountInfo()->getName(name));
    EXPECT_EQ(name, "deep");
}

TEST_F(BadInput, EntityExpansionIsNeverAttempted) {
    std::string bomb = "<!DOCTYPE results [<!ENTITY lol \"lol\">";
    std::string previous = "lol";
    for (int level = 2; level <= 9; ++level) {
        const std::string entity = "lol" + std::to_string(level);
        bomb += "<!ENTITY " + entity + " \"";
        for (int i = 0; i < 10; ++i) {
            bomb += "&" + previous + ";";
        }
        bomb += "\">";
        previous = entity;
    }
    bomb += "]>";
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info(bomb + Passed("<account-info><name>&lol9;</name><full-name>a&lol;b</full-name>"
                           "</account-info>"),
             reply);
    ASSERT_NE(info, nullptr);
    std::string name, fullName;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "&lol9;");
    EXPECT_TRUE(info->getFullName(fullName));
    EXPECT_EQ(fullName, "a&lol;b");

    // In a failure reason too.
    TezaStatus status = Get(
        bomb + "<results status=\"failed\" reason=\"&lol9; &lt;x&gt;\" errno=\"15102\"/>", reply);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.errnum, 15102);
    EXPECT_EQ(status.reason, "&lol9; <x>");
}

TEST_F(BadInput, ExternalEntitiesAreNeverFetched) {
    teza_test::TempDir dir;
    const std::string file = dir.Write("outside", "contents from outside");
    demo::AccountGetReply reply;
    const demo::AccountInfo* info =
        Info("<!DOCTYPE results [<!ENTITY xxe SYSTEM \"file://" + file +
                 "\"><!ENTITY % pe SYSTEM \"file://" + file + "\"> %pe;]>" +
                 Passed("<account-info><name>&xxe;</name></account-info>"),
             reply);
    ASSERT_NE(info, nullptr);
    std::string name;
    EXPECT_TRUE(info->getName(name));
    EXPECT_EQ(name, "&xxe;");
}

TEST_F(BadInput, NotAResultIsAClearFailure) {
    struct Case {
        std::string body;
        int errnum;
    };
    const std::vector<Case> cases = {
        {"<results status=\"passed\"><account-info>", RK_ERR_MALFORMED},
        {"<results status=\"passed\"></result>", RK_ERR_MALFORMED},
        {"<results status=\"passed\"/><results status=\"passed\"/>", RK_ERR_MALFORMED},
        {"<results status=\"passed\" status=\"failed\"/>", RK_ERR_MALFORMED},
        {"<account-info><name>x</name></account-info>", RK_ERR_NOT_RESULT},
        {"<results status=\"maybe\"><account-info/></results>", RK_ERR_NOT_RESULT},
        {"<results><account-info/></results>", RK_ERR_NOT_RESULT},
    };
    for (const Case& c : cases) {
        demo::AccountGetReply reply;
        TezaStatus status = Get(c.body, reply);
        EXPECT_EQ(status.status, TezaStatus::ApiFailed) << c.body;
        EXPECT_EQ(status.errnum, c.errnum) << c.body << ": " << status.reason;
        EXPECT_NE(status.reason, "") << c.body;
        EXPECT_EQ(reply.getAccountInfo(), nullptr) << c.body;
    }
}

TEST_F(BadInput, OddFailedResultsAreReportedAsTheyStand) {
    demo::AccountGetReply reply;
    // No reason and no number.
    TezaStatus status = Get("<results status=\"failed\"/>", reply);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.reason, "");
    EXPECT_EQ(status.errnum, 0);

    // Entities the runtime does not know, children it ignores.
    status =
        Get("<results status=\"failed\" reason=\"&lt;b&gt; &amp;lt; &#38; &foo;\" errno=\"7\">"
            "<account-info><name>x</name></account-info></results>",
            reply);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.reason, "<b> &lt; &#38; &foo;");
    EXPECT_EQ(status.errnum, 7);
    EXPECT_EQ(reply.getAccountInfo(), nullptr);

    // A number that is not one cannot be passed on as if it meant something.
    status = Get("<results status=\"failed\" reason=\"r\" errno=\"abc\"/>", reply);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.errnum, RK_ERR_NOT_RESULT);
    EXPECT_NE(status.reason.find("errno \"abc\""), std::string::npos) << status.reason;

    const std::string huge(1 << 20, 'r');
    status = Get("<results status=\"failed\" reason=\"" + huge + "\" errno=\"15102\"/>", reply);
    EXPECT_EQ(status.status, TezaStatus::ApiFailed);
    EXPECT_EQ(status.reason, huge);
    EXPECT_EQ(status.errnum, 15102);
}

}  // namespace
