// Records through the client library's element code and XML text and back:
// record -> request tree -> XML text -> tree as a response arrives -> record.

#include <gtest/gtest.h>
#include <stdint.h>

#include <limits>
#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "element_text.h"
#include "rk_double.h"
#include "test_records.h"

namespace {

using testsupport::DescribeRecord;
using testsupport::Elem;
using teza_net::Address;
using teza_net::Endpoint;
using teza_store::Basics;
using teza_store::Nesting;
using teza_store::OwnerInfo;
using teza_store::Secrets;
using teza_store::VolumeInfo;

class RoundTrip : public ::testing::Test {
  protected:
    void SetUp() override {
        rkdouble::Reset();
        rkdouble::SetRecording(false);
        TezaNamespaceFactory::registerDefaultTypeFactory();
    }
    void TearDown() override { rkdouble::Reset(); }

    // Writes `source` into a request, prints it, parses the text and reads `target` from it.
    // Returns the XML text that went over.
    std::string Send(const TezaFieldType& source, TezaFieldType& target) {
        Elem request = testsupport::NewElem("request");
        source.constructRkChildElement(request.get());
        std::string text = testsupport::Xml(request.get());
        Elem response = testsupport::ParseXml(text);
        target.parseRkChildElement(response.get());
        return text;
    }
};

const char kAwkward[] = "<tag attr=\"v\"> & 'quoted' &amp; &lt;not-an-entity&gt; &foo;";

TEST_F(RoundTrip, EveryBasicTypeSingleAndArray) {
    Basics source;
    testsupport::FillBasics(source, 1);
    Basics target;
    std::string text = Send(source, target);
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
    EXPECT_NE(text.find("&lt;"), std::string::npos);
}

TEST_F(RoundTrip, ExtremeNumbersAndBothBooleans) {
    Basics source;
    source.setCount(std::numeric_limits<int32_t>::min());
    source.setUcount(std::numeric_limits<uint32_t>::max());
    source.setSize(std::numeric_limits<int64_t>::min());
    source.setUsize(std::numeric_limits<uint64_t>::max());
    source.setEnabled(false);
    const bool flags[] = {false, true};
    source.setFlags(2, flags);
    const int64_t sizes[] = {std::numeric_limits<int64_t>::max(), -1, 0};
    source.setSizes(3, sizes);
    Basics target;
    Send(source, target);
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
}

TEST_F(RoundTrip, TextWithMarkupCharactersAndEntityLookalikes) {
    Basics source;
    source.setName(kAwkward);
    const std::string names[] = {kAwkward, "\"", "'", "&", "<>", " lead and trail "};
    source.setNames(6, names);
    Basics target;
    std::string text = Send(source, target);
    std::string name;
    ASSERT_TRUE(target.getName(name));
    EXPECT_EQ(name, kAwkward);
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
    // What went over the wire was escaped.
    EXPECT_NE(text.find("&lt;tag attr=&quot;v&quot;&gt; &amp; &apos;quoted&apos; &amp;amp;"),
              std::string::npos);
}

TEST_F(RoundTrip, EncryptedValuesInNormalMode) {
    Secrets source;
    testsupport::FillSecrets(source, 2);
    source.setPassword("<tag attr=\"v\"> & 'quoted'");
    Secrets target;
    std::string text = Send(source, target);
    EXPECT_EQ(text.find("quoted"), std::string::npos);  // sealed on the wire
    // Everything comes back but the boolean: it is sent in the clear, so it is not found where
    // an encrypted value is expected.
    std::string wanted = DescribeRecord(source);
    const std::string locked = "locked=true";
    ASSERT_NE(wanted.find(locked), std::string::npos);
    wanted.replace(wanted.find(locked), locked.size(), "locked=-");
    EXPECT_EQ(DescribeRecord(target), wanted);
}

TEST_F(RoundTrip, NestedRecordsAndTheSecondNamespace) {
    VolumeInfo volume;
    volume.setName("v<1>");
    const std::string alias[] = {"a&b"};
    volume.setAlias(1, alias);
    OwnerInfo owner;
    owner.setId(-3);
    volume.setOwner(owner);
    VolumeInfo volumeCopy;
    Send(volume, volumeCopy);
    EXPECT_EQ(DescribeRecord(volumeCopy), DescribeRecord(volume));

    Endpoint endpoint;
    endpoint.setHost("host");
    endpoint.setPort(8443);
    endpoint.setSecure(true);
    Address address;
    address.setIp("::1");
    address.setPrefix(128);
    endpoint.setAddress(address);
    Address second;
    second.setIp("127.0.0.1");
    std::vector<TezaFieldType*> routes{&address, &second};
    endpoint.setRoutes(routes);
    Endpoint endpointCopy;
    Send(endpoint, endpointCopy);
    EXPECT_EQ(DescribeRecord(endpointCopy), DescribeRecord(endpoint));
}

TEST_F(RoundTrip, NestedRecordFieldsThatAreNotTypedefs) {
    Nesting source;
    OwnerInfo owners[3];
    VolumeInfo volumes[2];
    for (int k = 0; k < 3; ++k) {
        owners[k].setId(100 + k);
    }
    for (int k = 0; k < 2; ++k) {
        volumes[k].setName("vol" + std::to_string(k));
        volumes[k].setOwner(owners[k]);
    }
    source.setOwnerInfo(owners[0]);
    source.setOwner(owners[1]);
    source.setOwners(3, owners);
    source.setVolumes(2, volumes);
    source.setLabel(kAwkward);  // a text flagged nested-typedef is an ordinary text
    Nesting target;
    Send(source, target);
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
}

TEST_F(RoundTrip, RawRecordsWithPlainTexts) {
    Basics source;
    source.storeAsRawstring(true);
    source.setRawStringValue(Basics::kName, "plain");
    source.setRawStringValue(Basics::kCount, "-12");
    source.setRawStringValue(Basics::kEnabled, "off");
    std::vector<std::string> names{"a<b", "c&d"};
    source.setRawStringValue(Basics::kNames, names);
    std::vector<std::string> flags{"no", "yes"};
    source.setRawStringValue(Basics::kFlags, flags);
    Basics target;
    target.storeAsRawstring(true);
    Send(source, target);
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
}

TEST_F(RoundTrip, RawEncryptedBooleanComesBack) {
    Secrets source;
    source.storeAsRawstring(true);
    source.setRawStringValue(Secrets::kLocked, "on");
    source.setRawStringValue(Secrets::kPassword, "p");
    Secrets target;
    target.storeAsRawstring(true);
    Send(source, target);
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
}

// --- Where the round trip is deliberately not the identity ----------------------------------

TEST_F(RoundTrip, EmptyArraysComeBackUnset) {
    Basics source;
    source.setNames(0, nullptr);
    source.setCounts(0, nullptr);
    Nesting nesting;
    nesting.setOwners(0, nullptr);
    Basics target;
    std::string text = Send(source, target);
    EXPECT_NE(text.find("<names/>"), std::string::npos);
    EXPECT_FALSE(target.isFieldSet(Basics::kNames));
    EXPECT_FALSE(target.isFieldSet(Basics::kCounts));
    Nesting nestingCopy;
    Send(nesting, nestingCopy);
    EXPECT_FALSE(nestingCopy.isFieldSet(Nesting::kOwners));
}

TEST_F(RoundTrip, RawSingleTextsKeepTheEscapingOfTheWire) {
    Basics source;
    source.storeAsRawstring(true);
    source.setRawStringValue(Basics::kName, "a<b & 'c'");
    std::vector<std::string> names{"a<b & 'c'"};
    source.setRawStringValue(Basics::kNames, names);
    Basics target;
    target.storeAsRawstring(true);
    Send(source, target);
    std::string name;
    ASSERT_TRUE(target.getRawStringValue(Basics::kName, name));
    EXPECT_EQ(name, "a&lt;b &amp; &apos;c&apos;");
    int n = 0;
    std::string* items = nullptr;
    ASSERT_TRUE(target.getRawStringValue(Basics::kNames, n, items));
    ASSERT_EQ(n, 1);
    EXPECT_EQ(items[0], "a<b & 'c'");
}

TEST_F(RoundTrip, EncryptedTextIsEntityDecodedAfterDecryption) {
    // A sealed value is not escaped on the wire, yet the reader decodes every single text:
    // entity lookalikes inside an encrypted text lose their escaping.
    Secrets source;
    source.setPassword("a&amp;b &lt;c&gt; &foo;");
    Secrets target;
    Send(source, target);
    std::string password;
    ASSERT_TRUE(target.getPassword(password));
    EXPECT_EQ(password, "a&b <c> &foo;");
}

TEST_F(RoundTrip, NestedTypedefSingleRecordsComeBackEmpty) {
    // The reader looks for the record's fields one level above where the writer puts them.
    Nesting source;
    OwnerInfo owner;
    owner.setId(5);
    source.setAlias1(owner);
    source.setAlias3(owner);
    source.setPlain(owner);
    Nesting target;
    Send(source, target);
    for (int field : {Nesting::kAlias1, Nesting::kAlias3, Nesting::kPlain}) {
        TezaFieldType* record = nullptr;
        ASSERT_TRUE(target.getFieldValue(field, record)) << field;
        ASSERT_NE(record, nullptr);
        EXPECT_STREQ(record->getMetaData().getName(), "owner-info");
        EXPECT_FALSE(record->isFieldSet(OwnerInfo::kId)) << field;
    }
}

TEST_F(RoundTrip, NestedTypedefArraysComeBackAsOneItemPerChainElement) {
    Nesting source;
    OwnerInfo owners[3];
    for (int k = 0; k < 3; ++k) {
        owners[k].setId(k);
    }
    source.setAliases1(3, owners);
    source.setAliases3(3, owners);
    source.setPlains(3, owners);  // an empty hierarchy writes and reads like a plain array
    const std::string labels[] = {"x", "y"};
    source.setLabels(2, labels);
    Nesting target;
    Send(source, target);

    int n = 0;
    OwnerInfo* items = nullptr;
    // The wrapper holds one element, the chain's first: one empty item.
    ASSERT_TRUE(target.getAliases1(n, items));
    EXPECT_EQ(n, 1);
    EXPECT_FALSE(items[0].isFieldSet(OwnerInfo::kId));
    ASSERT_TRUE(target.getAliases3(n, items));
    EXPECT_EQ(n, 1);
    EXPECT_FALSE(items[0].isFieldSet(OwnerInfo::kId));
    ASSERT_TRUE(target.getPlains(n, items));
    ASSERT_EQ(n, 3);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(DescribeRecord(items[k]), DescribeRecord(owners[k]));
    }
    std::string* texts = nullptr;
    ASSERT_TRUE(target.getLabels(n, texts));
    ASSERT_EQ(n, 1);
    EXPECT_EQ(texts[0], "");
}

}  // namespace
