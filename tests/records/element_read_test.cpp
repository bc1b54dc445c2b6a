// TezaFieldType::parseRkChildElement and getDecodedString: reading records from responses.

#include <gtest/gtest.h>
#include <stdint.h>

#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "assertion.h"
#include "element_text.h"
#include "rk_double.h"
#include "test_records.h"

namespace {

using testsupport::DescribeRecord;
using testsupport::Elem;
using testsupport::ParseXml;
using teza_net::Address;
using teza_net::Endpoint;
using teza_orphan::Orphan;
using teza_store::Basics;
using teza_store::Nesting;
using teza_store::OwnerInfo;
using teza_store::Secrets;
using teza_store::VolumeInfo;

class ElementRead : public ::testing::Test {
  protected:
    void SetUp() override {
        rkdouble::Reset();
        TezaNamespaceFactory::registerDefaultTypeFactory();
    }
    void TearDown() override { rkdouble::Reset(); }

    // Parses `xml` as a response arrives and reads `record` from its root.
    void Read(TezaFieldType& record, const std::string& xml) {
        Elem root = ParseXml(xml);
        record.parseRkChildElement(root.get());
    }
};

// The function in an assertion report; Clang writes a space before a pointer's star.
::testing::Matcher<const std::string&> FunctionText(const std::string& gccSpelling) {
    std::string clangSpelling = gccSpelling;
    clangSpelling.replace(clangSpelling.find("*)"), 2, " *)");
    return ::testing::AnyOf(::testing::HasSubstr(gccSpelling), ::testing::HasSubstr(clangSpelling));
}

int32_t IdOf(const TezaFieldType& record) {
    int32_t id = -1;
    EXPECT_TRUE(record.getFieldValue(OwnerInfo::kId, id));
    return id;
}

// --- Entity decoding --------------------------------------------------------------------------

TEST(DecodedString, DecodesTheFiveEntities) {
    EXPECT_EQ(TezaFieldType::getDecodedString("a&lt;b&gt;c"), "a<b>c");
    EXPECT_EQ(TezaFieldType::getDecodedString("&quot;q&quot; &apos;a&apos; &amp;"), "\"q\" 'a' &");
    EXPECT_EQ(TezaFieldType::getDecodedString("&lt;&gt;&apos;&quot;&amp;"), "<>'\"&");
}

TEST(DecodedString, OnePassLeftToRight) {
    // The character a replacement produces is never examined again.
    EXPECT_EQ(TezaFieldType::getDecodedString("&amp;lt;"), "&lt;");
    EXPECT_EQ(TezaFieldType::getDecodedString("&amp;amp;"), "&amp;");
    EXPECT_EQ(TezaFieldType::getDecodedString("&&amp;"), "&&");
    EXPECT_EQ(TezaFieldType::getDecodedString("&amp;&amp;"), "&&");
    EXPECT_EQ(TezaFieldType::getDecodedString("&l&lt;t;"), "&l<t;");
}

TEST(DecodedString, UnknownEntitiesAndPlainTextStay) {
    EXPECT_EQ(TezaFieldType::getDecodedString("&foo;"), "&foo;");
    EXPECT_EQ(TezaFieldType::getDecodedString("&#60;&#x3c;"), "&#60;&#x3c;");
    EXPECT_EQ(TezaFieldType::getDecodedString("&lt"), "&lt");
    EXPECT_EQ(TezaFieldType::getDecodedString("&LT;"), "&LT;");
    EXPECT_EQ(TezaFieldType::getDecodedString("a & b"), "a & b");
    EXPECT_EQ(TezaFieldType::getDecodedString("plain"), "plain");
    EXPECT_EQ(TezaFieldType::getDecodedString(""), "");
}

TEST(DecodedString, CutEntitiesAtTheEndStayAndEmbeddedNulsAreText) {
    // An entity cut short by the end of the text is not one; the text goes on past a NUL.
    EXPECT_EQ(TezaFieldType::getDecodedString("a&am"), "a&am");
    EXPECT_EQ(TezaFieldType::getDecodedString("&apos"), "&apos");
    EXPECT_EQ(TezaFieldType::getDecodedString("&"), "&");
    EXPECT_EQ(TezaFieldType::getDecodedString(std::string("a\0&lt;&", 7)), std::string("a\0<&", 4));
}

TEST(DecodedString, EntityAtTheEndAndAtTheStart) {
    // After the last replacement the rest to decode starts at the text's end.
    EXPECT_EQ(TezaFieldType::getDecodedString("x&gt;"), "x>");
    EXPECT_EQ(TezaFieldType::getDecodedString("&gt;"), ">");
    EXPECT_EQ(TezaFieldType::getDecodedString("&lt;x"), "<x");
}

TEST(DecodedString, ManyEntities) {
    std::string encoded, decoded;
    for (int k = 0; k < 20000; ++k) {
        encoded += "&lt;&amp;";
        decoded += "<&";
    }
    EXPECT_EQ(TezaFieldType::getDecodedString(encoded + "&quot;"), decoded + "\"");
}

TEST(DecodedString, KeepsBytesAfterANul) {
    std::string text("a\0&lt;", 6);
    EXPECT_EQ(TezaFieldType::getDecodedString(text), std::string("a\0<", 3));
}

// --- Fields ----------------------------------------------------------------------------------

TEST_F(ElementRead, SingleValuesOfEveryKind) {
    Basics basics;
    Read(basics,
         "<out>"
         "<name>vol &lt;0&gt; &amp; &quot;q&quot; &apos;a&apos;</name>"
         "<count>-5</count><ucount>4294967295</ucount>"
         "<size>-9223372036854775808</size><usize>18446744073709551615</usize>"
         "<enabled>true</enabled>"
         "</out>");
    EXPECT_EQ(DescribeRecord(basics),
              "basics{name=\"vol <0> & \"q\" 'a'\" count=-5 ucount=4294967295 "
              "size=-9223372036854775808 usize=18446744073709551615 enabled=true names=- "
              "counts=- ucounts=- sizes=- usizes=- flags=- mystery=- mysteries=-}");
}

TEST_F(ElementRead, ArraysCountEveryChildWhateverItsName) {
    Basics basics;
    Read(basics,
         "<out>"
         "<names><string>a&amp;b</string><other>c</other><string/></names>"
         "<counts><integer>1</integer><integer>-2</integer></counts>"
         "<ucounts><integer>-1</integer></ucounts>"
         "<sizes><integer>99999999999999999999</integer></sizes>"
         "<usizes><integer>18446744073709551615</integer></usizes>"
         "<flags><boolean>off</boolean><boolean>OFF</boolean><boolean/><boolean>no</boolean>"
         "<boolean>0</boolean><boolean>false</boolean><boolean>False</boolean></flags>"
         "</out>");
    EXPECT_EQ(DescribeRecord(basics),
              "basics{name=- count=- ucount=- size=- usize=- enabled=- "
              "names=[\"a&b\",\"c\",\"\"] counts=[1,-2] ucounts=[4294967295] "
              "sizes=[9223372036854775807] usizes=[18446744073709551615] "
              "flags=[false,true,true,false,false,false,true] mystery=- mysteries=-}");
}

TEST_F(ElementRead, MissingElementsLeaveFieldsUnset) {
    // "name" is optional and "count" is not: neither is set, and nothing complains.
    Basics basics;
    Read(basics, "<out><unrelated>1</unrelated></out>");
    for (int i = 0; i < Basics::kNumFields; ++i) {
        EXPECT_FALSE(basics.isFieldSet(i)) << i;
    }
    Nesting nesting;
    Read(nesting, "<out/>");
    for (int i = 0; i < Nesting::kNumFields; ++i) {
        EXPECT_FALSE(nesting.isFieldSet(i)) << i;
    }
}

TEST_F(ElementRead, EmptyArrayElementLeavesTheFieldUnset) {
    Basics basics;
    Read(basics, "<out><names/><counts></counts><flags>  </flags></out>");
    EXPECT_FALSE(basics.isFieldSet(Basics::kNames));
    EXPECT_FALSE(basics.isFieldSet(Basics::kCounts));
    EXPECT_FALSE(basics.isFieldSet(Basics::kFlags));
    Nesting nesting;
    Read(nesting, "<out><owners/></out>");
    EXPECT_FALSE(nesting.isFieldSet(Nesting::kOwners));
}

TEST_F(ElementRead, NumbersAreConvertedWithoutChecks) {
    Basics basics;
    Read(basics,
         "<out><count>4294967297</count><ucount>-1</ucount><size>abc</size>"
         "<usize> 12xyz</usize></out>");
    int32_t count = 0;
    uint32_t ucount = 0;
    int64_t size = 7;
    uint64_t usize = 0;
    ASSERT_TRUE(basics.getCount(count));
    ASSERT_TRUE(basics.getUcount(ucount));
    ASSERT_TRUE(basics.getSize(size));
    ASSERT_TRUE(basics.getUsize(usize));
    EXPECT_EQ(count, 1);  // 2^32 + 1 keeps its lower 32 bits
    EXPECT_EQ(ucount, 4294967295u);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(usize, 12u);

    Read(basics, "<out><count>abc</count><size>-99999999999999999999</size></out>");
    ASSERT_TRUE(basics.getCount(count));
    EXPECT_EQ(count, 0);
    ASSERT_TRUE(basics.getSize(size));
    EXPECT_EQ(size, std::numeric_limits<int64_t>::min());
}

TEST_F(ElementRead, NumbersAreDecimalWhateverTheirPrefix) {
    // A leading zero is not octal and "0x" is not hexadecimal: the digits are read in base 10
    // and reading stops at the first character that is not one, so "0x1f" is 0.
    Basics basics;
    Read(basics,
         "<out><count>010</count><ucount>010</ucount><size>010</size><usize>010</usize>"
         "<counts><i>010</i><i>0x1f</i><i>-010</i></counts>"
         "<ucounts><i>010</i><i>0x1f</i></ucounts>"
         "<sizes><i>010</i><i>0x1f</i><i>-010</i></sizes>"
         "<usizes><i>010</i><i>0x1f</i></usizes></out>");
    EXPECT_EQ(DescribeRecord(basics),
              "basics{name=- count=10 ucount=10 size=10 usize=10 enabled=- names=- "
              "counts=[10,0,-10] ucounts=[10,0] sizes=[10,0,-10] usizes=[10,0] flags=- "
              "mystery=- mysteries=-}");

    Read(basics,
         "<out><count>0x1f</count><ucount>0x1f</ucount><size>0x1f</size>"
         "<usize>0x1f</usize></out>");
    EXPECT_EQ(DescribeRecord(basics),
              "basics{name=- count=0 ucount=0 size=0 usize=0 enabled=- names=- counts=- "
              "ucounts=- sizes=- usizes=- flags=- mystery=- mysteries=-}");
}

TEST_F(ElementRead, UnsignedThirtyTwoBitValuesAreConvertedUnsigned) {
    // 2^63 fits an unsigned long and keeps its lower 32 bits, all zero; a signed conversion
    // would saturate at 2^63 - 1 and leave 4294967295.
    Basics basics;
    Read(basics,
         "<out><ucount>9223372036854775808</ucount>"
         "<ucounts><i>9223372036854775808</i><i>9223372036854775809</i></ucounts></out>");
    uint32_t ucount = 7;
    ASSERT_TRUE(basics.getUcount(ucount));
    EXPECT_EQ(ucount, 0u);
    EXPECT_EQ(DescribeRecord(basics),
              "basics{name=- count=- ucount=0 size=- usize=- enabled=- names=- counts=- "
              "ucounts=[0,1] sizes=- usizes=- flags=- mystery=- mysteries=-}");
}

TEST_F(ElementRead, SingleBooleanIsReadTheLibrarysWay) {
    // Unlike array items, a single boolean follows the client library's reading.
    const char* const texts[] = {"true", "TRUE", "yes",   "on", "1",    "off",
                                 "OFF",  "",     "false", "2",  "maybe"};
    const bool expected[] = {true,  true,  true,  true,  true, false,
                             false, false, false, false, false};
    for (size_t k = 0; k < sizeof(texts) / sizeof(texts[0]); ++k) {
        Basics basics;
        Read(basics, std::string("<out><enabled>") + texts[k] + "</enabled></out>");
        bool enabled = !expected[k];
        ASSERT_TRUE(basics.getEnabled(enabled)) << texts[k];
        EXPECT_EQ(enabled, expected[k]) << texts[k];
    }
}

TEST_F(ElementRead, NullElementStillReleasesTheFields) {
    Basics basics;
    testsupport::FillBasics(basics, 1);
    basics.parseRkChildElement(nullptr);
    for (int i = 0; i < Basics::kNumFields; ++i) {
        EXPECT_FALSE(basics.isFieldSet(i)) << i;
    }
}

TEST_F(ElementRead, PreviousValuesAreReleasedFirst) {
    Basics basics;
    testsupport::FillBasics(basics, 1);
    Read(basics, "<out><count>3</count></out>");
    EXPECT_EQ(DescribeRecord(basics),
              "basics{name=- count=3 ucount=- size=- usize=- enabled=- names=- counts=- "
              "ucounts=- sizes=- usizes=- flags=- mystery=- mysteries=-}");
}

TEST_F(ElementRead, FirstOfDuplicateElementsWinsAndChildrenOfATextAreIgnored) {
    Basics basics;
    Read(basics, "<out><name>first</name><name>second</name><count><x>5</x></count></out>");
    std::string name;
    ASSERT_TRUE(basics.getName(name));
    EXPECT_EQ(name, "first");
    int32_t count = -1;
    ASSERT_TRUE(basics.getCount(count));
    EXPECT_EQ(count, 0);
}

// --- Encrypted values ---------------------------------------------------------------------------

TEST_F(ElementRead, EncryptedSingleValuesAreDecrypted) {
    Secrets written;
    written.setPassword("s3cret <&>");
    written.setPin(-42);
    written.setUtoken(std::numeric_limits<uint64_t>::max());
    Elem out = testsupport::NewElem("out");
    written.constructRkChildElement(out.get());

    Secrets read;
    rkdouble::ClearCalls();
    read.parseRkChildElement(out.get());
    std::string password;
    int32_t pin = 0;
    uint64_t utoken = 0;
    ASSERT_TRUE(read.getPassword(password));
    ASSERT_TRUE(read.getPin(pin));
    ASSERT_TRUE(read.getUtoken(utoken));
    EXPECT_EQ(password, "s3cret <&>");
    EXPECT_EQ(pin, -42);
    EXPECT_EQ(utoken, std::numeric_limits<uint64_t>::max());
    // The clear texts are handed back to the library.
    EXPECT_EQ(rkdouble::CountCalls("rk_child_get_string_encrypted"), 6);
    EXPECT_EQ(rkdouble::CountCalls("rk_free"), 3);
}

TEST_F(ElementRead, EncryptedFieldSentInTheClearIsNotRead) {
    Secrets secrets;
    Read(secrets, "<out><password>plain</password><hint>h</hint></out>");
    EXPECT_FALSE(secrets.isFieldSet(Secrets::kPassword));
    std::string hint;
    ASSERT_TRUE(secrets.getHint(hint));
    EXPECT_EQ(hint, "h");
}

TEST_F(ElementRead, EncryptedBooleanTakesPresenceFromTheSealedTextAndValueFromItsReading) {
    // A sealed "true" is present, but the library's boolean reading of the sealed text is
    // false.
    Elem out = testsupport::NewElem("out");
    rk_child_add_string_encrypted(out.get(), "locked", "true", nullptr);
    Secrets secrets;
    secrets.parseRkChildElement(out.get());
    bool locked = true;
    ASSERT_TRUE(secrets.getLocked(locked));
    EXPECT_FALSE(locked);
}

// --- Nested records ----------------------------------------------------------------------------

TEST_F(ElementRead, NestedRecordsSingleAndArray) {
    Nesting nesting;
    Read(nesting,
         "<out>"
         "<owner-info><id>1</id></owner-info>"
         "<owner><owner-info><id>2</id></owner-info></owner>"
         "<owners><owner-info><id>3</id></owner-info><x><id>4</id></x></owners>"
         "</out>");
    OwnerInfo* owner = nullptr;
    ASSERT_TRUE(nesting.getOwnerInfo(owner));
    EXPECT_EQ(IdOf(*owner), 1);
    ASSERT_TRUE(nesting.getOwner(owner));
    EXPECT_EQ(IdOf(*owner), 2);
    int n = 0;
    ASSERT_TRUE(nesting.getOwners(n, owner));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(IdOf(owner[0]), 3);
    EXPECT_EQ(IdOf(owner[1]), 4);
    EXPECT_STREQ(owner[1].getMetaData().getName(), "owner-info");
}

TEST_F(ElementRead, NestedRecordWithoutItsTypeElementStaysUnset) {
    Nesting nesting;
    Read(nesting, "<out><owner><id>2</id></owner><owner-info/></out>");
    EXPECT_FALSE(nesting.isFieldSet(Nesting::kOwner));
    // Named like its type, the record is its field element: present and empty.
    OwnerInfo* owner = nullptr;
    ASSERT_TRUE(nesting.getOwnerInfo(owner));
    EXPECT_FALSE(owner->isFieldSet(OwnerInfo::kId));
}

TEST_F(ElementRead, NestedTypedefSingleIsReadFromTheParentOfItsElement) {
    Nesting nesting;
    // The writer's shape for alias1 puts the fields one level below where they are read.
    Read(nesting,
         "<out>"
         "<alias1><owner-alias><owner-info><id>1</id></owner-info></owner-alias></alias1>"
         "<alias3><owner-ref><owner-handle><owner-key><id>3</id>"
         "<owner-info><id>33</id></owner-info></owner-key></owner-handle></owner-ref></alias3>"
         "<plain><id>5</id><owner-plain><id>55</id></owner-plain></plain>"
         "</out>");
    OwnerInfo* owner = nullptr;
    ASSERT_TRUE(nesting.getAlias1(owner));
    EXPECT_STREQ(owner->getMetaData().getName(), "owner-info");
    EXPECT_FALSE(owner->isFieldSet(OwnerInfo::kId));
    ASSERT_TRUE(nesting.getAlias3(owner));
    EXPECT_EQ(IdOf(*owner), 3);
    ASSERT_TRUE(nesting.getPlain(owner));
    EXPECT_EQ(IdOf(*owner), 5);
}

TEST_F(ElementRead, NestedTypedefSingleWithMissingLinks) {
    Nesting nesting;
    // No type element under the field: unset. Missing later links: an empty record.
    Read(nesting, "<out><alias1><id>1</id></alias1><alias3><owner-ref/></alias3></out>");
    EXPECT_FALSE(nesting.isFieldSet(Nesting::kAlias1));
    OwnerInfo* owner = nullptr;
    ASSERT_TRUE(nesting.getAlias3(owner));
    ASSERT_NE(owner, nullptr);
    EXPECT_FALSE(owner->isFieldSet(OwnerInfo::kId));
}

TEST_F(ElementRead, NestedTypedefArrayItemsAreDescendedFromTheSecondName) {
    Nesting nesting;
    Read(nesting,
         "<out>"
         "<aliases1><a><id>1</id></a><b><id>2</id></b></aliases1>"
         "<aliases3>"
         "<i><owner-key><owner-info><id>7</id></owner-info></owner-key></i>"
         "<i><owner-key/></i>"
         "<i/>"
         "</aliases3>"
         "<plains><p><id>9</id></p></plains>"
         "<labels><l>x&amp;y</l><l><label-line>z</label-line></l></labels>"
         "</out>");
    int n = 0;
    OwnerInfo* owners = nullptr;
    ASSERT_TRUE(nesting.getAliases1(n, owners));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(IdOf(owners[0]), 1);
    EXPECT_EQ(IdOf(owners[1]), 2);
    ASSERT_TRUE(nesting.getAliases3(n, owners));
    ASSERT_EQ(n, 3);
    EXPECT_EQ(IdOf(owners[0]), 7);
    EXPECT_FALSE(owners[1].isFieldSet(OwnerInfo::kId));
    EXPECT_FALSE(owners[2].isFieldSet(OwnerInfo::kId));
    ASSERT_TRUE(nesting.getPlains(n, owners));
    ASSERT_EQ(n, 1);
    EXPECT_EQ(IdOf(owners[0]), 9);
    // label-text -> [label-line]: items are the children themselves.
    std::string* labels = nullptr;
    ASSERT_TRUE(nesting.getLabels(n, labels));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(labels[0], "x&y");
    EXPECT_EQ(labels[1], "");
}

TEST_F(ElementRead, RecordsOfTheSecondNamespace) {
    Endpoint endpoint;
    Read(endpoint,
         "<out><host>h</host><port>443</port><secure>yes</secure>"
         "<address><ip>10.0.0.1</ip></address>"
         "<routes><address><prefix>8</prefix></address></routes></out>");
    EXPECT_EQ(DescribeRecord(endpoint),
              "endpoint{host=\"h\" port=443 secure=true "
              "address=address{ip=\"10.0.0.1\" prefix=-} "
              "routes=[address{ip=- prefix=8}]}");
}

// A factory for the "store" namespace that records the categories it is asked for and
// otherwise does what the real one does. Installed for one test, then the real one is back.
class CategorySpy : public TezaFieldTypeFactory {
  public:
    std::vector<std::string> categories() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _categories;
    }
    TezaFieldType* getInstance(const std::string& category,
                               const std::string& typeName) const override {
        note(category);
        return real().getInstance(category, typeName);
    }
    TezaFieldType* getInstances(int count, const std::string& category,
                                const std::string& typeName) const override {
        note(category);
        return real().getInstances(count, category, typeName);
    }
    TezaFieldType* copyInstance(const std::string& typeName,
                                const TezaFieldType& source) const override {
        return real().copyInstance(typeName, source);
    }
    TezaFieldType* copyInstances(const std::string& typeName, int count,
                                 const TezaFieldType*& source) const override {
        return real().copyInstances(typeName, count, source);
    }
    TezaFieldType* copyInstances(const std::string& typeName,
                                 std::vector<TezaFieldType*>& source) const override {
        return real().copyInstances(typeName, source);
    }
    std::vector<std::string> getNestedTypedefHierarchy(const std::string& typeName) const override {
        return real().getNestedTypedefHierarchy(typeName);
    }

  private:
    static const TezaFieldTypeFactory& real() { return teza_store::typeFactory(); }
    void note(const std::string& category) const {
        std::lock_guard<std::mutex> lock(_mutex);
        _categories.push_back(category);
    }
    mutable std::mutex _mutex;
    mutable std::vector<std::string> _categories;
};

TEST_F(ElementRead, NestedRecordsAreRequestedUnderTheTypedefCategory) {
    static CategorySpy* spy = new CategorySpy;  // registered factories live for good
    TezaNamespaceFactory::registerTypeFactory("store", spy);
    Nesting nesting;
    Read(nesting, "<out><owner><owner-info/></owner><owners><o/><o/></owners></out>");
    TezaNamespaceFactory::registerTypeFactory("store", &teza_store::typeFactory());
    EXPECT_EQ(spy->categories(), (std::vector<std::string>{"typedef", "typedef"}));
    EXPECT_TRUE(nesting.isFieldSet(Nesting::kOwner));
    EXPECT_TRUE(nesting.isFieldSet(Nesting::kOwners));
}

// --- Raw-string mode ---------------------------------------------------------------------------

TEST_F(ElementRead, RawSingleValuesAreKeptAsReceivedArrayItemsAreDecoded) {
    Basics basics;
    basics.storeAsRawstring(true);
    Read(basics,
         "<out><name>&lt;</name><count>0x10</count><enabled>OFF</enabled>"
         "<names><string>&lt;</string></names><flags><boolean>o&amp;ff</boolean></flags>"
         "</out>");
    EXPECT_EQ(DescribeRecord(basics),
              "basics(raw){name=\"&lt;\" count=\"0x10\" ucount=- size=- usize=- "
              "enabled=\"OFF\" names=[\"<\"] counts=- ucounts=- sizes=- usizes=- "
              "flags=[\"o&ff\"] mystery=- mysteries=-}");
    bool enabled = false;
    ASSERT_TRUE(basics.getEnabled(enabled));
    EXPECT_TRUE(enabled);  // raw texts convert by the record's own rule
}

TEST_F(ElementRead, RawModeReachesNestedRecords) {
    Nesting nesting;
    nesting.storeAsRawstring(true);
    Read(nesting,
         "<out><owner><owner-info><id>&amp;7</id></owner-info></owner>"
         "<owners><o><id>8x</id></o></owners><label>&quot;</label></out>");
    EXPECT_EQ(DescribeRecord(nesting),
              "nesting(raw){owner-info=- owner=owner-info(raw){id=\"&amp;7\"} "
              "owners=[owner-info(raw){id=\"8x\"}] volumes=- alias1=- alias3=- aliases1=- "
              "aliases3=- plain=- plains=- label=\"&quot;\" labels=-}");
}

// --- Fatal cases -------------------------------------------------------------------------------

class ElementReadDeathTest : public ElementRead {};

TEST_F(ElementReadDeathTest, ClearedRecordAbortsEvenWithANullElement) {
    Basics basics;
    basics.clear();
    EXPECT_DEATH(
        basics.parseRkChildElement(nullptr),
        ::testing::AllOf(AssertionText("!_isCleared"),
                         FunctionText("void TezaFieldType::parseRkChildElement(rk_elem_t*)")));
}

TEST_F(ElementReadDeathTest, UnknownArrayWithItemsAborts) {
    Basics basics;
    Read(basics, "<out><mysteries/><mystery>x</mystery></out>");  // harmless while empty
    EXPECT_FALSE(basics.isFieldSet(Basics::kMysteries));
    EXPECT_FALSE(basics.isFieldSet(Basics::kMystery));
    Elem root = ParseXml("<out><mysteries><blob>1</blob></mysteries></out>");
    EXPECT_DEATH(basics.parseRkChildElement(root.get()), AssertionText("valueArray != __null"));
    basics.storeAsRawstring(true);
    EXPECT_DEATH(basics.parseRkChildElement(root.get()), AssertionText("valueArray != __null"));
}

TEST_F(ElementReadDeathTest, RecordsOfANamespaceWithoutFactoryAbort) {
    Orphan orphan;
    Read(orphan, "<out><note>n</note><children/></out>");  // nothing to make: fine
    Elem items = ParseXml("<out><children><orphan-child/></children></out>");
    EXPECT_DEATH(orphan.parseRkChildElement(items.get()), AssertionText("valueArray != __null"));
    Elem single = ParseXml("<out><child><orphan-child/></child></out>");
    EXPECT_DEATH(orphan.parseRkChildElement(single.get()), AssertionText("tezaVal != __null"));
}

}  // namespace
