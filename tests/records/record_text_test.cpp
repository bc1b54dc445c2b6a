// TezaFieldType::toString and operator<<: records as indented text.

#include <gtest/gtest.h>
#include <stdint.h>

#include <bitset>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "test_records.h"

namespace {

using teza_orphan::Orphan;
using teza_orphan::OrphanChild;
using teza_store::Basics;
using teza_store::Empty;
using teza_store::Nesting;
using teza_store::OwnerInfo;
using teza_store::Secrets;
using teza_store::VolumeInfo;

class RecordText : public ::testing::Test {
  protected:
    void SetUp() override { TezaNamespaceFactory::registerDefaultTypeFactory(); }
};

// The rendering split at its line feeds.
std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::string::size_type start = 0;
    for (;;) {
        std::string::size_type end = text.find('\n', start);
        lines.push_back(text.substr(start, end - start));
        if (end == std::string::npos) {
            return lines;
        }
        start = end + 1;
    }
}

TEST_F(RecordText, TheExampleLineForLine) {
    VolumeInfo volume;
    volume.setName("vol0");
    const std::string alias[] = {"a", "b"};
    volume.setAlias(2, alias);
    OwnerInfo owner;
    owner.setId(7);
    volume.setOwner(owner);
    const std::string text = volume.toString(0);
    EXPECT_EQ(Lines(text),
              (std::vector<std::string>{"volume-info contents ", "name: vol0", "size: <not set>",
                                        "alias [0]: a", "alias [1]: b",
                                        "owner: owner-info contents ", "    id: 7"}));
    // A line feed after each line but the last.
    EXPECT_EQ(text,
              "volume-info contents \nname: vol0\nsize: <not set>\nalias [0]: a\nalias [1]: b\n"
              "owner: owner-info contents \n    id: 7");
}

TEST_F(RecordText, StreamOperatorWritesTheRenderingAtIndentZero) {
    VolumeInfo volume;
    volume.setName("vol0");
    std::ostringstream out;
    out << volume << "|";
    EXPECT_EQ(out.str(), volume.toString(0) + "|");
}

TEST_F(RecordText, ClearedRecordIsEmptyAndARecordWithoutFieldsIsItsHeader) {
    Basics basics;
    basics.clear();
    EXPECT_EQ(basics.toString(0), "");
    EXPECT_EQ(basics.toString(8), "");
    Empty empty;
    EXPECT_EQ(empty.toString(0), "empty contents \n");
    EXPECT_EQ(empty.toString(4), "empty contents \n");
}

TEST_F(RecordText, EveryBasicTypeSingleAndArray) {
    Basics basics;
    basics.setName("n");
    basics.setCount(-5);
    basics.setUcount(std::numeric_limits<uint32_t>::max());
    basics.setSize(std::numeric_limits<int64_t>::min());
    basics.setUsize(std::numeric_limits<uint64_t>::max());
    basics.setEnabled(false);
    const std::string names[] = {"x"};
    const int32_t counts[] = {1, 2};
    const uint32_t ucounts[] = {3};
    const int64_t sizes[] = {-4};
    const uint64_t usizes[] = {5};
    const bool flags[] = {true, false};
    basics.setNames(1, names);
    basics.setCounts(2, counts);
    basics.setUcounts(1, ucounts);
    basics.setSizes(1, sizes);
    basics.setUsizes(1, usizes);
    basics.setFlags(2, flags);
    EXPECT_EQ(basics.toString(2),
              "basics contents \n"
              "  name: n\n"
              "  count: -5\n"
              "  ucount: 4294967295\n"
              "  size: -9223372036854775808\n"
              "  usize: 18446744073709551615\n"
              "  enabled: false\n"
              "  names [0]: x\n"
              "  counts [0]: 1\n"
              "  counts [1]: 2\n"
              "  ucounts [0]: 3\n"
              "  sizes [0]: -4\n"
              "  usizes [0]: 5\n"
              "  flags [0]: true\n"
              "  flags [1]: false\n"
              "  mystery: <not set>\n"
              "  mysteries: <not set>");
}

TEST_F(RecordText, EmptyArraysShowTheirNameAloneAndUnknownFieldsTheirKind) {
    Basics basics;
    basics.setNames(0, nullptr);
    basics.setFlags(0, nullptr);
    basics.fieldSet(Basics::kMystery);
    basics.fieldSet(Basics::kMysteries);
    const std::vector<std::string> lines = Lines(basics.toString(0));
    ASSERT_EQ(lines.size(), 15u);
    EXPECT_EQ(lines[7], "names");
    EXPECT_EQ(lines[12], "flags");
    EXPECT_EQ(lines[13], "mystery: ");
    EXPECT_EQ(lines[14], "mysteries: unknown");
}

TEST_F(RecordText, EncryptedFieldsAreShownInTheClear) {
    Secrets secrets;
    secrets.setPassword("s3cret");
    secrets.setPin(1234);
    const std::vector<std::string> lines = Lines(secrets.toString(0));
    EXPECT_EQ(lines[1], "password: s3cret");
    EXPECT_EQ(lines[2], "pin: 1234");
}

TEST_F(RecordText, EachNestingLevelAddsFourSpaces) {
    Nesting nesting;
    OwnerInfo owners[2];
    owners[0].setId(1);
    owners[1].setId(2);
    nesting.setOwners(2, owners);
    VolumeInfo volumes[1];
    volumes[0].setName("v");
    volumes[0].setOwner(owners[1]);
    nesting.setVolumes(1, volumes);
    nesting.setOwnerInfo(owners[0]);
    const std::vector<std::string> lines = Lines(nesting.toString(0));
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 13),
              (std::vector<std::string>{
                  "nesting contents ", "owner-info: owner-info contents ", "    id: 1",
                  "owner: <not set>", "owners [0]: owner-info contents ", "    id: 1",
                  "owners [1]: owner-info contents ", "    id: 2",
                  "volumes [0]: volume-info contents ", "    name: v", "    size: <not set>",
                  "    alias: <not set>", "    owner: owner-info contents "}));
    EXPECT_EQ(lines[13], "        id: 2");
    EXPECT_EQ(lines[14], "alias1: <not set>");
    EXPECT_EQ(lines.back(), "labels: <not set>");
}

TEST_F(RecordText, IndentIsAppliedToEveryFieldLineOfTheRecord) {
    VolumeInfo volume;
    OwnerInfo owner;
    owner.setId(3);
    volume.setOwner(owner);
    const std::string alias[] = {"p", "q"};
    volume.setAlias(2, alias);
    EXPECT_EQ(volume.toString(3),
              "volume-info contents \n"
              "   name: <not set>\n"
              "   size: <not set>\n"
              "   alias [0]: p\n"
              "   alias [1]: q\n"
              "   owner: owner-info contents \n"
              "       id: 3");
}

TEST_F(RecordText, RawRecordsShowTheirStoredTexts) {
    Basics basics;
    basics.storeAsRawstring(true);
    basics.setRawStringValue(Basics::kCount, "0x1F");
    basics.setRawStringValue(Basics::kEnabled, "OFF");
    std::vector<std::string> flags{"no", "&lt;"};
    basics.setRawStringValue(Basics::kFlags, flags);
    basics.fieldSet(Basics::kMystery);
    basics.fieldSet(Basics::kMysteries);
    const std::vector<std::string> lines = Lines(basics.toString(0));
    EXPECT_EQ(lines[2], "count: 0x1F");
    EXPECT_EQ(lines[6], "enabled: OFF");
    EXPECT_EQ(lines[12], "flags [0]: no");
    EXPECT_EQ(lines[13], "flags [1]: &lt;");
    EXPECT_EQ(lines[14], "mystery: ");
    // In raw-string mode an unknown array shows nothing beyond its name.
    EXPECT_EQ(lines[15], "mysteries");
}

TEST_F(RecordText, RawRecordsShowTheirNestedRecords) {
    Nesting nesting;
    nesting.storeAsRawstring(true);
    OwnerInfo owner;
    owner.storeAsRawstring(true);
    owner.setRawStringValue(OwnerInfo::kId, "seven");
    nesting.setOwner(owner);
    OwnerInfo owners[1];
    owners[0].setId(8);
    nesting.setOwners(1, owners);
    const std::vector<std::string> lines = Lines(nesting.toString(0));
    EXPECT_EQ(lines[2], "owner: owner-info contents ");
    EXPECT_EQ(lines[3], "    id: seven");
    EXPECT_EQ(lines[4], "owners [0]: owner-info contents ");
    EXPECT_EQ(lines[5], "    id: 8");
}

TEST_F(RecordText, NullRecordsOfANamespaceWithoutFactoryShowNothing) {
    Orphan orphan;
    orphan.setChild(OrphanChild());
    OrphanChild children[2];
    orphan.setChildren(2, children);
    EXPECT_EQ(orphan.toString(0), "orphan contents \nchild: \nchildren\nnote: <not set>");
}

// A record whose descriptor carries a basic type outside the enumeration.
const char* const kStrayNames[] = {"odd", "odds"};
const TezaFieldTypeMetaData::TezaBasicType kStrayTypes[] = {
    static_cast<TezaFieldTypeMetaData::TezaBasicType>(9),
    static_cast<TezaFieldTypeMetaData::TezaBasicType>(9)};
const char* const kStrayTypeNames[] = {"odd-type", "odd-type"};
const std::bitset<256> kStrayArray(2);
const std::bitset<256> kNone;
const TezaFieldTypeMetaData kStrayMetaData("store", "stray", 2, kStrayNames, kStrayTypes,
                                           kStrayTypeNames, kStrayArray, kNone, kNone, kNone, kNone,
                                           kNone);

class Stray : public TezaFieldType {
  public:
    Stray() : TezaFieldType(kStrayMetaData) {}
    ~Stray() override { clear(); }
    const TezaFieldTypeMetaData& getMetaData() const override { return kStrayMetaData; }
};

TEST_F(RecordText, StrayBasicTypesShowNothing) {
    Stray stray;
    stray.fieldSet(0);
    stray.fieldSet(1);
    EXPECT_EQ(stray.toString(0), "stray contents \nodd: \nodds");
    stray.storeAsRawstring(true);
    stray.fieldSet(0);
    stray.fieldSet(1);
    EXPECT_EQ(stray.toString(0), "stray contents \nodd: \nodds");
}

}  // namespace
