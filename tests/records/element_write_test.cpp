// TezaFieldType::constructRkChildElement: the element trees that records write into requests.

#include <gtest/gtest.h>
#include <stdint.h>

#include <algorithm>
#include <bitset>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "assertion.h"
#include "element_text.h"
#include "rk_double.h"
#include "test_records.h"

namespace {

using testsupport::Elem;
using testsupport::NewElem;
using testsupport::Xml;
using teza_net::Address;
using teza_net::Endpoint;
using teza_orphan::Orphan;
using teza_orphan::OrphanChild;
using teza_store::Basics;
using teza_store::Nesting;
using teza_store::OwnerInfo;
using teza_store::Secrets;
using teza_store::VolumeInfo;
using Lines = std::vector<std::string>;

class ElementWrite : public ::testing::Test {
  protected:
    void SetUp() override {
        rkdouble::Reset();
        TezaNamespaceFactory::registerDefaultTypeFactory();
    }
    void TearDown() override { rkdouble::Reset(); }

    // Writes `record` under a new element "in" and returns the tree's text.
    std::string Write(const TezaFieldType& record) {
        Elem in = NewElem("in");
        record.constructRkChildElement(in.get());
        return Xml(in.get());
    }
};

struct OwnerWithId : OwnerInfo {
    explicit OwnerWithId(int32_t id) { setId(id); }
};

// The function in an assertion report; Clang writes a space before a pointer's star.
::testing::Matcher<const std::string&> FunctionText(const std::string& gccSpelling) {
    std::string clangSpelling = gccSpelling;
    clangSpelling.replace(clangSpelling.find("*)"), 2, " *)");
    return ::testing::AnyOf(::testing::HasSubstr(gccSpelling), ::testing::HasSubstr(clangSpelling));
}

// The index of the first recorded call equal to `line`, or -1.
int IndexOf(const Lines& calls, const std::string& line) {
    auto it = std::find(calls.begin(), calls.end(), line);
    return it == calls.end() ? -1 : static_cast<int>(it - calls.begin());
}

TEST_F(ElementWrite, RecordWithoutSetFieldsWritesNothing) {
    Basics basics;
    Elem in = NewElem("in");
    basics.constructRkChildElement(in.get());
    EXPECT_EQ(rk_elem_child_count(in.get()), 0u);
    EXPECT_EQ(Xml(in.get()), "<in/>\n");

    // Optional, validated and non-empty flags do not matter: only set bits do.
    Secrets secrets;
    EXPECT_EQ(Write(secrets), "<in/>\n");
}

TEST_F(ElementWrite, NullElementWritesNothing) {
    Basics basics;
    testsupport::FillBasics(basics, 1);
    rkdouble::ClearCalls();
    basics.constructRkChildElement(nullptr);
    EXPECT_TRUE(rkdouble::Calls().empty());
}

TEST_F(ElementWrite, SingleValuesOfEveryKind) {
    Basics basics;
    basics.setEnabled(true);  // set out of order: children follow the descriptor
    basics.setName("vol0 <&> \"q\" 'a'");
    basics.setCount(-5);
    basics.setUcount(std::numeric_limits<uint32_t>::max());
    basics.setSize(std::numeric_limits<int64_t>::min());
    basics.setUsize(std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(Write(basics),
              "<in>\n"
              "  <name>vol0 &lt;&amp;&gt; &quot;q&quot; &apos;a&apos;</name>\n"
              "  <count>-5</count>\n"
              "  <ucount>4294967295</ucount>\n"
              "  <size>-9223372036854775808</size>\n"
              "  <usize>18446744073709551615</usize>\n"
              "  <enabled>true</enabled>\n"
              "</in>\n");
    EXPECT_EQ(
        rkdouble::Calls("rk_child_add"),
        (Lines{"rk_child_add_string(in, name, vol0 <&> \"q\" 'a')",
               "rk_child_add_string(in, count, -5)", "rk_child_add_string(in, ucount, 4294967295)",
               "rk_child_add_string(in, size, -9223372036854775808)",
               "rk_child_add_string(in, usize, 18446744073709551615)",
               "rk_child_add_bool(in, enabled, 1)"}));

    Elem in = NewElem("in");
    basics.setEnabled(false);
    basics.constructRkChildElement(in.get());
    EXPECT_STREQ(rk_child_get_string(in.get(), "enabled"), "false");
    EXPECT_STREQ(rk_child_get_string(in.get(), "name"), "vol0 <&> \"q\" 'a'");
}

TEST_F(ElementWrite, ArraysGetAWrapperWithOneItemPerEntryNamedByType) {
    Basics basics;
    const std::string names[] = {"a", "<b>"};
    const int32_t counts[] = {1, -2};
    const uint32_t ucounts[] = {3};
    const int64_t sizes[] = {std::numeric_limits<int64_t>::max()};
    const uint64_t usizes[] = {0};
    const bool flags[] = {true, false};
    basics.setFlags(2, flags);
    basics.setNames(2, names);
    basics.setCounts(2, counts);
    basics.setUcounts(1, ucounts);
    basics.setSizes(1, sizes);
    basics.setUsizes(1, usizes);
    EXPECT_EQ(Write(basics),
              "<in>\n"
              "  <names>\n"
              "    <string>a</string>\n"
              "    <string>&lt;b&gt;</string>\n"
              "  </names>\n"
              "  <counts>\n"
              "    <integer>1</integer>\n"
              "    <integer>-2</integer>\n"
              "  </counts>\n"
              "  <ucounts>\n"
              "    <integer>3</integer>\n"
              "  </ucounts>\n"
              "  <sizes>\n"
              "    <integer>9223372036854775807</integer>\n"
              "  </sizes>\n"
              "  <usizes>\n"
              "    <integer>0</integer>\n"
              "  </usizes>\n"
              "  <flags>\n"
              "    <boolean>true</boolean>\n"
              "    <boolean>false</boolean>\n"
              "  </flags>\n"
              "</in>\n");
    Lines calls = rkdouble::Calls("rk_child_add");
    EXPECT_NE(IndexOf(calls, "rk_child_add(in, names)"), -1);
    EXPECT_NE(IndexOf(calls, "rk_child_add_string(names, string, a)"), -1);
    EXPECT_NE(IndexOf(calls, "rk_child_add_bool(flags, boolean, 0)"), -1);
}

TEST_F(ElementWrite, SetEmptyArraysAndUnknownArraysWriteAnEmptyWrapper) {
    Basics basics;
    basics.setNames(0, nullptr);
    basics.setFlags(0, nullptr);
    basics.fieldSet(Basics::kMystery);    // a single unknown writes nothing
    basics.fieldSet(Basics::kMysteries);  // an unknown array writes its wrapper only
    EXPECT_EQ(Write(basics),
              "<in>\n"
              "  <names/>\n"
              "  <flags/>\n"
              "  <mysteries/>\n"
              "</in>\n");
}

TEST_F(ElementWrite, NestedRecordNamedLikeItsTypeIsOneElementOtherwiseTwo) {
    Nesting nesting;
    nesting.setOwner(OwnerWithId(2));
    nesting.setOwnerInfo(OwnerWithId(1));
    OwnerInfo owners[2];
    owners[0].setId(3);
    owners[1].setId(4);
    nesting.setOwners(2, owners);
    EXPECT_EQ(Write(nesting),
              "<in>\n"
              "  <owner-info>\n"
              "    <id>1</id>\n"
              "  </owner-info>\n"
              "  <owner>\n"
              "    <owner-info>\n"
              "      <id>2</id>\n"
              "    </owner-info>\n"
              "  </owner>\n"
              "  <owners>\n"
              "    <owner-info>\n"
              "      <id>3</id>\n"
              "    </owner-info>\n"
              "    <owner-info>\n"
              "      <id>4</id>\n"
              "    </owner-info>\n"
              "  </owners>\n"
              "</in>\n");
}

TEST_F(ElementWrite, RecordsNestedTwoLevelsDeep) {
    Nesting nesting;
    VolumeInfo volumes[1];
    volumes[0].setName("v");
    volumes[0].setOwner(OwnerWithId(9));
    nesting.setVolumes(1, volumes);
    EXPECT_EQ(Write(nesting),
              "<in>\n"
              "  <volumes>\n"
              "    <volume-info>\n"
              "      <name>v</name>\n"
              "      <owner>\n"
              "        <owner-info>\n"
              "          <id>9</id>\n"
              "        </owner-info>\n"
              "      </owner>\n"
              "    </volume-info>\n"
              "  </volumes>\n"
              "</in>\n");
}

TEST_F(ElementWrite, NestedTypedefSingleRecordsFollowTheirHierarchy) {
    Nesting nesting;
    nesting.setAlias1(OwnerWithId(1));  // owner-alias -> [owner-info]
    nesting.setAlias3(OwnerWithId(3));  // owner-ref -> [owner-handle, owner-key, owner-info]
    nesting.setPlain(OwnerWithId(0));   // owner-plain -> []
    EXPECT_EQ(Write(nesting),
              "<in>\n"
              "  <alias1>\n"
              "    <owner-alias>\n"
              "      <owner-info>\n"
              "        <id>1</id>\n"
              "      </owner-info>\n"
              "    </owner-alias>\n"
              "  </alias1>\n"
              "  <alias3>\n"
              "    <owner-ref>\n"
              "      <owner-handle>\n"
              "        <owner-key>\n"
              "          <owner-info>\n"
              "            <id>3</id>\n"
              "          </owner-info>\n"
              "        </owner-key>\n"
              "      </owner-handle>\n"
              "    </owner-ref>\n"
              "  </alias3>\n"
              "  <plain>\n"
              "    <owner-plain>\n"
              "      <id>0</id>\n"
              "    </owner-plain>\n"
              "  </plain>\n"
              "</in>\n");
}

TEST_F(ElementWrite, NestedTypedefArraysPutTheirItemsAtTheEndOfTheChain) {
    Nesting nesting;
    OwnerInfo owners[2];
    owners[0].setId(1);
    owners[1].setId(2);
    nesting.setAliases1(2, owners);
    nesting.setAliases3(1, owners);
    nesting.setPlains(1, owners);
    const std::string labels[] = {"x", "y"};
    nesting.setLabels(2, labels);
    nesting.setLabel("single");  // a text field ignores the nested-typedef flag
    EXPECT_EQ(Write(nesting),
              "<in>\n"
              "  <aliases1>\n"
              "    <owner-alias>\n"
              "      <owner-info>\n"
              "        <id>1</id>\n"
              "      </owner-info>\n"
              "      <owner-info>\n"
              "        <id>2</id>\n"
              "      </owner-info>\n"
              "    </owner-alias>\n"
              "  </aliases1>\n"
              "  <aliases3>\n"
              "    <owner-ref>\n"
              "      <owner-handle>\n"
              "        <owner-key>\n"
              "          <owner-info>\n"
              "            <id>1</id>\n"
              "          </owner-info>\n"
              "        </owner-key>\n"
              "      </owner-handle>\n"
              "    </owner-ref>\n"
              "  </aliases3>\n"
              "  <plains>\n"
              "    <owner-plain>\n"
              "      <id>1</id>\n"
              "    </owner-plain>\n"
              "  </plains>\n"
              "  <label>single</label>\n"
              "  <labels>\n"
              "    <label-text>\n"
              "      <label-line>x</label-line>\n"
              "      <label-line>y</label-line>\n"
              "    </label-text>\n"
              "  </labels>\n"
              "</in>\n");
}

TEST_F(ElementWrite, EmptyNestedTypedefArrayWritesWrapperAndChain) {
    Nesting nesting;
    nesting.setAliases3(0, nullptr);
    nesting.setAliases1(0, nullptr);
    nesting.setPlains(0, nullptr);
    EXPECT_EQ(Write(nesting),
              "<in>\n"
              "  <aliases1>\n"
              "    <owner-alias/>\n"
              "  </aliases1>\n"
              "  <aliases3>\n"
              "    <owner-ref>\n"
              "      <owner-handle>\n"
              "        <owner-key/>\n"
              "      </owner-handle>\n"
              "    </owner-ref>\n"
              "  </aliases3>\n"
              "  <plains/>\n"
              "</in>\n");
}

// A record whose nested-typedef fields are named like their types.
const char* const kSameNames[] = {"owner-info", "owner-alias"};
const TezaFieldTypeMetaData::TezaBasicType kSameTypes[] = {TezaFieldTypeMetaData::TYPEDEF_TYPE,
                                                           TezaFieldTypeMetaData::TYPEDEF_TYPE};
const char* const kSameTypeNames[] = {"owner-info", "owner-alias"};
const std::bitset<256> kSameNestedTypedef(3);
const std::bitset<256> kNone;
const TezaFieldTypeMetaData kSameMetaData("store", "same-names", 2, kSameNames, kSameTypes,
                                          kSameTypeNames, kNone, kNone, kNone, kNone, kNone,
                                          kSameNestedTypedef);

class SameNames : public TezaFieldType {
  public:
    SameNames() : TezaFieldType(kSameMetaData) {}
    ~SameNames() override { clear(); }
    const TezaFieldTypeMetaData& getMetaData() const override { return kSameMetaData; }
};

TEST_F(ElementWrite, NestedTypedefNamedLikeItsTypeStillGetsTheFieldElement) {
    SameNames record;
    record.setFieldValue(0, OwnerWithId(1));  // owner-info: empty hierarchy
    record.setFieldValue(1, OwnerWithId(2));  // owner-alias -> [owner-info]
    EXPECT_EQ(Write(record),
              "<in>\n"
              "  <owner-info>\n"
              "    <owner-info>\n"
              "      <id>1</id>\n"
              "    </owner-info>\n"
              "  </owner-info>\n"
              "  <owner-alias>\n"
              "    <owner-alias>\n"
              "      <owner-info>\n"
              "        <id>2</id>\n"
              "      </owner-info>\n"
              "    </owner-alias>\n"
              "  </owner-alias>\n"
              "</in>\n");
}

TEST_F(ElementWrite, NestedRecordIsFilledBeforeItIsAttached) {
    VolumeInfo volume;
    volume.setOwner(OwnerWithId(7));
    Elem in = NewElem("in");
    rkdouble::ClearCalls();
    volume.constructRkChildElement(in.get());
    Lines calls = rkdouble::Calls();
    int fill = IndexOf(calls, "rk_child_add_string(owner-info, id, 7)");
    int attach = IndexOf(calls, "rk_child_add(owner, owner-info)");
    int outer = IndexOf(calls, "rk_child_add(in, owner)");
    ASSERT_NE(fill, -1);
    ASSERT_NE(attach, -1);
    ASSERT_NE(outer, -1);
    EXPECT_LT(outer, fill);
    EXPECT_LT(fill, attach);
}

TEST_F(ElementWrite, EncryptedFlagCountsForSingleTextsAndNumbersOnly) {
    Secrets secrets;
    testsupport::FillSecrets(secrets, 1);
    Elem in = NewElem("in");
    rkdouble::ClearCalls();
    secrets.constructRkChildElement(in.get());
    EXPECT_EQ(rkdouble::Calls("rk_child_add_string_encrypted"),
              (Lines{"rk_child_add_string_encrypted(in, password, pa<ss>&1, (null))",
                     "rk_child_add_string_encrypted(in, pin, -1235, (null))",
                     "rk_child_add_string_encrypted(in, upin, 4322, (null))",
                     "rk_child_add_string_encrypted(in, token, -77, (null))",
                     "rk_child_add_string_encrypted(in, utoken, 18446744073709551614, (null))"}));
    // The boolean and the array items go out in the clear, as does the unflagged hint.
    Lines calls = rkdouble::Calls();
    EXPECT_NE(IndexOf(calls, "rk_child_add_bool(in, locked, 1)"), -1);
    EXPECT_NE(IndexOf(calls, "rk_child_add_string(keys, string, k1'1)"), -1);
    EXPECT_NE(IndexOf(calls, "rk_child_add_string(pins, integer, 1)"), -1);
    EXPECT_NE(IndexOf(calls, "rk_child_add_string(in, hint, hint)"), -1);

    // On the tree: sealed values with the encrypted attribute, readable with the key.
    rk_elem_t* password = rk_elem_child(in.get(), "password");
    ASSERT_NE(password, nullptr);
    EXPECT_NE(rk_elem_get_attr(password, "encrypted"), nullptr);
    EXPECT_EQ(std::string(rk_elem_get_content(password)).find("pa<ss>"), std::string::npos);
    char* clear = rk_child_get_string_encrypted(in.get(), "pin", nullptr);
    ASSERT_NE(clear, nullptr);
    EXPECT_STREQ(clear, "-1235");
    rk_free(clear);
    EXPECT_EQ(rk_elem_get_attr(rk_elem_child(in.get(), "locked"), "encrypted"), nullptr);
    EXPECT_STREQ(rk_child_get_string(in.get(), "locked"), "true");
    const std::string text = Xml(in.get());
    EXPECT_NE(text.find("<password encrypted=\"aes-256-gcm\">"), std::string::npos);
    EXPECT_NE(text.find("  <keys>\n    <string>k1&apos;1</string>\n"), std::string::npos);
    EXPECT_NE(text.find("  <locked>true</locked>\n"), std::string::npos);
}

TEST_F(ElementWrite, RawModeWritesStoredTextsAndMayEncryptABoolean) {
    Secrets secrets;
    secrets.storeAsRawstring(true);
    secrets.setRawStringValue(Secrets::kLocked, "yes");
    secrets.setRawStringValue(Secrets::kPin, "0042");
    secrets.setRawStringValue(Secrets::kHint, "&lt;as received&gt;");
    std::vector<std::string> keys{"k&amp;", "off"};
    secrets.setRawStringValue(Secrets::kKeys, keys);
    Elem in = NewElem("in");
    rkdouble::ClearCalls();
    secrets.constructRkChildElement(in.get());
    EXPECT_EQ(rkdouble::Calls("rk_child_add"),
              (Lines{"rk_child_add_string_encrypted(in, pin, 0042, (null))",
                     "rk_child_add_string_encrypted(in, locked, yes, (null))",
                     "rk_child_add(in, keys)", "rk_child_add_string(keys, string, k&amp;)",
                     "rk_child_add_string(keys, string, off)",
                     "rk_child_add_string(in, hint, &lt;as received&gt;)"}));
    char* locked = rk_child_get_string_encrypted(in.get(), "locked", nullptr);
    ASSERT_NE(locked, nullptr);
    EXPECT_STREQ(locked, "yes");
    rk_free(locked);
}

TEST_F(ElementWrite, RawModeBooleanArrayItemsGoOutAsText) {
    Basics basics;
    basics.storeAsRawstring(true);
    std::vector<std::string> flags{"off", "TRUE"};
    basics.setRawStringValue(Basics::kFlags, flags);
    basics.setRawStringValue(Basics::kEnabled, "maybe");
    EXPECT_EQ(Write(basics),
              "<in>\n"
              "  <enabled>maybe</enabled>\n"
              "  <flags>\n"
              "    <boolean>off</boolean>\n"
              "    <boolean>TRUE</boolean>\n"
              "  </flags>\n"
              "</in>\n");
}

TEST_F(ElementWrite, RawModeNestedRecordsWriteTheirOwnFields) {
    Nesting nesting;
    nesting.storeAsRawstring(true);
    OwnerInfo owner;
    owner.storeAsRawstring(true);
    owner.setRawStringValue(OwnerInfo::kId, "x1");
    nesting.setOwner(owner);
    OwnerInfo owners[1];
    owners[0].setId(5);
    nesting.setOwners(1, owners);
    EXPECT_EQ(Write(nesting),
              "<in>\n"
              "  <owner>\n"
              "    <owner-info>\n"
              "      <id>x1</id>\n"
              "    </owner-info>\n"
              "  </owner>\n"
              "  <owners>\n"
              "    <owner-info>\n"
              "      <id>5</id>\n"
              "    </owner-info>\n"
              "  </owners>\n"
              "</in>\n");
}

TEST_F(ElementWrite, SecondNamespaceAndVectorSetRecords) {
    Endpoint endpoint;
    endpoint.setHost("h");
    endpoint.setPort(443);
    endpoint.setSecure(false);
    Address address;
    address.setIp("10.0.0.1");
    address.setPrefix(8);
    endpoint.setAddress(address);
    std::vector<TezaFieldType*> routes{&address};
    endpoint.setRoutes(routes);
    EXPECT_EQ(Write(endpoint),
              "<in>\n"
              "  <host>h</host>\n"
              "  <port>443</port>\n"
              "  <secure>false</secure>\n"
              "  <address>\n"
              "    <ip>10.0.0.1</ip>\n"
              "    <prefix>8</prefix>\n"
              "  </address>\n"
              "  <routes>\n"
              "    <address>\n"
              "      <ip>10.0.0.1</ip>\n"
              "      <prefix>8</prefix>\n"
              "    </address>\n"
              "  </routes>\n"
              "</in>\n");
}

TEST_F(ElementWrite, ArrayOfRecordsOfANamespaceWithoutFactoryWritesAnEmptyWrapper) {
    Orphan orphan;
    OrphanChild children[2];
    orphan.setChildren(2, children);
    orphan.setNote("n");
    EXPECT_EQ(Write(orphan),
              "<in>\n"
              "  <children/>\n"
              "  <note>n</note>\n"
              "</in>\n");
}

TEST_F(ElementWrite, RefusedSingleTextIsSimplyMissing) {
    Basics basics;
    basics.setName("n");
    basics.setCount(1);
    rkdouble::FailNext("rk_child_add_string", 1);
    EXPECT_EQ(Write(basics),
              "<in>\n"
              "  <count>1</count>\n"
              "</in>\n");
    Secrets secrets;
    secrets.setPassword("p");
    rkdouble::FailNext("rk_child_add_string_encrypted", 1);
    EXPECT_EQ(Write(secrets), "<in/>\n");
}

TEST_F(ElementWrite, TwoThreadsWriteOneRecordIntoTwoTrees) {
    Nesting nesting;
    testsupport::FillNesting(nesting, 2);
    rkdouble::SetRecording(false);
    std::string texts[2];
    std::thread threads[2];
    for (int t = 0; t < 2; ++t) {
        threads[t] = std::thread([&, t] {
            for (int round = 0; round < 50; ++round) {
                Elem in = NewElem("in");
                nesting.constructRkChildElement(in.get());
                texts[t] = Xml(in.get());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(texts[0], texts[1]);
    EXPECT_EQ(texts[0], Write(nesting));
}

// --- Fatal misuse -----------------------------------------------------------------------------

class ElementWriteDeathTest : public ElementWrite {};

TEST_F(ElementWriteDeathTest, ClearedRecordAbortsEvenWithANullElement) {
    Basics basics;
    basics.clear();
    EXPECT_DEATH(basics.constructRkChildElement(nullptr), AssertionText("!_isCleared"));
    Elem in = NewElem("in");
    EXPECT_DEATH(
        basics.constructRkChildElement(in.get()),
        ::testing::AllOf(
            AssertionText("!_isCleared"),
            ::testing::HasSubstr("libs/dynamic/autoteza/generator/src/TezaFieldType.cpp"),
            FunctionText("void TezaFieldType::constructRkChildElement(rk_elem_t*) const")));
}

TEST_F(ElementWriteDeathTest, RefusedWrapperAborts) {
    Basics basics;
    basics.setNames(0, nullptr);
    Elem in = NewElem("in");
    rkdouble::FailNext("rk_child_add", 1);
    EXPECT_DEATH(basics.constructRkChildElement(in.get()), AssertionText("retElem"));
}

TEST_F(ElementWriteDeathTest, RefusedArrayItemAborts) {
    Basics basics;
    const std::string names[] = {"a", "b"};
    basics.setNames(2, names);
    Elem in = NewElem("in");
    rkdouble::FailNext("rk_child_add_string", 1, 1);
    EXPECT_DEATH(basics.constructRkChildElement(in.get()), AssertionText("retElem"));

    Basics numbers;
    const uint64_t usizes[] = {1};
    numbers.setUsizes(1, usizes);
    rkdouble::FailNext("rk_child_add_string", 1);
    EXPECT_DEATH(numbers.constructRkChildElement(in.get()), AssertionText("retElem"));
}

TEST_F(ElementWriteDeathTest, RefusedBooleanAborts) {
    Basics basics;
    basics.setEnabled(true);
    Elem in = NewElem("in");
    rkdouble::FailNext("rk_child_add_bool", 1);
    EXPECT_DEATH(basics.constructRkChildElement(in.get()), AssertionText("retElem"));

    Basics flags;
    const bool values[] = {true};
    flags.setFlags(1, values);
    rkdouble::FailNext("rk_child_add_bool", 1);
    EXPECT_DEATH(flags.constructRkChildElement(in.get()), AssertionText("retElem"));
}

TEST_F(ElementWriteDeathTest, RefusedNestedRecordOrChainLinkAborts) {
    Elem in = NewElem("in");
    VolumeInfo volume;
    volume.setOwner(OwnerWithId(1));
    // The first rk_child_add attaches the outer "owner", the second the nested record.
    rkdouble::FailNext("rk_child_add", 1, 1);
    EXPECT_DEATH(volume.constructRkChildElement(in.get()), AssertionText("retElem"));

    Nesting nesting;
    nesting.setAlias3(OwnerWithId(3));
    rkdouble::FailNext("rk_child_add", 1, 2);
    EXPECT_DEATH(nesting.constructRkChildElement(in.get()), AssertionText("retElem"));

    Nesting items;
    OwnerInfo owners[1];
    items.setOwners(1, owners);
    rkdouble::FailNext("rk_child_add", 1, 1);
    EXPECT_DEATH(items.constructRkChildElement(in.get()), AssertionText("retElem"));

    // An element the library would not create cannot be attached either.
    Basics basics;
    basics.setNames(0, nullptr);
    rkdouble::FailNext("rk_elem_new", 1);
    EXPECT_DEATH(basics.constructRkChildElement(in.get()), AssertionText("retElem"));
}

TEST_F(ElementWriteDeathTest, NullNestedRecordAborts) {
    Elem in = NewElem("in");
    Orphan orphan;  // its namespace has no factory: the copy is a null set value
    orphan.setChild(OrphanChild());
    EXPECT_DEATH(orphan.constructRkChildElement(in.get()), AssertionText("tezaVal != __null"));

    Nesting nesting;
    nesting.__setFieldValue(Nesting::kOwner, static_cast<TezaFieldType*>(nullptr));
    EXPECT_DEATH(nesting.constructRkChildElement(in.get()), AssertionText("tezaVal != __null"));
}

}  // namespace
