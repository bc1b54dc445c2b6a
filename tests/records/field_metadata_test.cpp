// TezaFieldTypeMetaData: the per-type descriptor that generated code builds.

#include <gtest/gtest.h>

#include <bitset>
#include <string>

#include "TezaFieldTypeMetaData.h"
#include "assertion.h"
#include "test_records.h"

namespace {

typedef TezaFieldTypeMetaData MD;

const char kPositionCheck[] = "(0 <= field) && (field < _numFields)";

// A small descriptor of its own: one field of every basic type, a stray type code, and flag
// sets that the test can change afterwards to show that they are shared.
struct Table {
    static constexpr int kFields = 10;
    const char* names[kFields] = {"s", "i32", "u32", "i64",   "u64",
                                  "b", "rec", "unk", "stray", "s-typedef"};
    MD::TezaBasicType types[kFields] = {
        MD::STRING_TYPE,  MD::INT32_TYPE,   MD::UINT32_TYPE,
        MD::INT64_TYPE,   MD::UINT64_TYPE,  MD::BOOL_TYPE,
        MD::TYPEDEF_TYPE, MD::UNKNOWN_TYPE, static_cast<MD::TezaBasicType>(9),
        MD::STRING_TYPE};
    const char* typeNames[kFields] = {"t0", "t1",         "t2", "t3", "t4",
                                      "t5", "owner-info", "t7", "t8", "volume-name"};
    std::bitset<256> array, optional, encrypted, validate, nonEmpty, nestedTypedef;

    Table() {
        array.set(1);
        optional.set(2);
        encrypted.set(3);
        validate.set(4);
        nonEmpty.set(5);
        nestedTypedef.set(9);
    }
};

TEST(FieldMetaData, GettersReturnWhatTheConstructorWasGiven) {
    Table t;
    MD md("store", "demo", Table::kFields, t.names, t.types, t.typeNames, t.array, t.optional,
          t.encrypted, t.validate, t.nonEmpty, t.nestedTypedef);
    EXPECT_STREQ(md.getNamespace(), "store");
    EXPECT_STREQ(md.getName(), "demo");
    EXPECT_EQ(md.getNumFields(), Table::kFields);
    for (int i = 0; i < Table::kFields; ++i) {
        EXPECT_STREQ(md.getFieldNameStr(i), t.names[i]);
        EXPECT_EQ(md.getFieldType(i), t.types[i]);
        EXPECT_EQ(md.isFieldArrayType(i), i == 1) << i;
        EXPECT_EQ(md.isFieldOptional(i), i == 2) << i;
        EXPECT_EQ(md.isFieldEncrypted(i), i == 3) << i;
        EXPECT_EQ(md.isFieldValidate(i), i == 4) << i;
        EXPECT_EQ(md.isFieldNonEmpty(i), i == 5) << i;
        EXPECT_EQ(md.isFieldNestedTypedef(i), i == 9) << i;
    }
}

TEST(FieldMetaData, BasicTypeNumbersAreStable) {
    EXPECT_EQ(MD::STRING_TYPE, 0);
    EXPECT_EQ(MD::INT32_TYPE, 1);
    EXPECT_EQ(MD::UINT32_TYPE, 2);
    EXPECT_EQ(MD::INT64_TYPE, 3);
    EXPECT_EQ(MD::UINT64_TYPE, 4);
    EXPECT_EQ(MD::BOOL_TYPE, 5);
    EXPECT_EQ(MD::TYPEDEF_TYPE, 6);
    EXPECT_EQ(MD::UNKNOWN_TYPE, 7);
    EXPECT_EQ(sizeof(MD::TezaBasicType), 4u);
}

TEST(FieldMetaData, TypeStrings) {
    Table t;
    MD md("store", "demo", Table::kFields, t.names, t.types, t.typeNames, t.array, t.optional,
          t.encrypted, t.validate, t.nonEmpty, t.nestedTypedef);
    EXPECT_STREQ(md.getFieldTypeStr(0), "string");
    // The API has one integer type name; the width lives in the basic type alone.
    EXPECT_STREQ(md.getFieldTypeStr(1), "integer");
    EXPECT_STREQ(md.getFieldTypeStr(2), "integer");
    EXPECT_STREQ(md.getFieldTypeStr(3), "integer");
    EXPECT_STREQ(md.getFieldTypeStr(4), "integer");
    EXPECT_STREQ(md.getFieldTypeStr(5), "boolean");
    EXPECT_STREQ(md.getFieldTypeStr(6), "owner-info");
    EXPECT_STREQ(md.getFieldTypeStr(7), "unknown");
    EXPECT_EQ(md.getFieldTypeStr(8), nullptr);
    // A text field flagged nested-typedef is named by its typedef.
    EXPECT_STREQ(md.getFieldTypeStr(9), "volume-name");
}

TEST(FieldMetaData, NestedTypedefFlagWinsOverEveryBasicType) {
    Table t;
    t.nestedTypedef.set();
    MD md("store", "demo", Table::kFields, t.names, t.types, t.typeNames, t.array, t.optional,
          t.encrypted, t.validate, t.nonEmpty, t.nestedTypedef);
    for (int i = 0; i < Table::kFields; ++i) {
        EXPECT_STREQ(md.getFieldTypeStr(i), t.typeNames[i]) << i;
    }
}

TEST(FieldMetaData, FlagSetsAreSharedNotCopied) {
    Table t;
    MD md("store", "demo", Table::kFields, t.names, t.types, t.typeNames, t.array, t.optional,
          t.encrypted, t.validate, t.nonEmpty, t.nestedTypedef);
    EXPECT_FALSE(md.isFieldArrayType(0));
    t.array.set(0);
    t.optional.set(0);
    t.encrypted.set(0);
    t.validate.set(0);
    t.nonEmpty.set(0);
    t.nestedTypedef.set(0);
    EXPECT_TRUE(md.isFieldArrayType(0));
    EXPECT_TRUE(md.isFieldOptional(0));
    EXPECT_TRUE(md.isFieldEncrypted(0));
    EXPECT_TRUE(md.isFieldValidate(0));
    EXPECT_TRUE(md.isFieldNonEmpty(0));
    EXPECT_TRUE(md.isFieldNestedTypedef(0));
    EXPECT_STREQ(md.getFieldTypeStr(0), "t0");
}

TEST(FieldMetaData, GeneratedDescriptorsOfTheTestRecords) {
    const MD& basics = teza_store::Basics::metaData();
    EXPECT_STREQ(basics.getNamespace(), "store");
    EXPECT_STREQ(basics.getName(), "basics");
    EXPECT_EQ(basics.getNumFields(), 14);
    EXPECT_STREQ(basics.getFieldNameStr(teza_store::Basics::kFlags), "flags");
    EXPECT_TRUE(basics.isFieldArrayType(teza_store::Basics::kFlags));
    EXPECT_STREQ(basics.getFieldTypeStr(teza_store::Basics::kMysteries), "unknown");

    const MD& nesting = teza_store::Nesting::metaData();
    EXPECT_STREQ(nesting.getFieldTypeStr(teza_store::Nesting::kLabel), "label-text");
    EXPECT_EQ(nesting.getFieldType(teza_store::Nesting::kLabel), MD::STRING_TYPE);
    EXPECT_TRUE(nesting.isFieldNestedTypedef(teza_store::Nesting::kAlias3));

    const MD& secrets = teza_store::Secrets::metaData();
    EXPECT_TRUE(secrets.isFieldEncrypted(teza_store::Secrets::kKeys));
    EXPECT_FALSE(secrets.isFieldEncrypted(teza_store::Secrets::kHint));
    EXPECT_TRUE(secrets.isFieldOptional(teza_store::Secrets::kHint));
}

TEST(FieldMetaData, NoFieldsAnswersZeroAndNeedsNoArrays) {
    const MD& empty = teza_store::Empty::metaData();
    EXPECT_EQ(empty.getNumFields(), 0);
    EXPECT_STREQ(empty.getNamespace(), "store");
    EXPECT_STREQ(empty.getName(), "empty");
}

// Every per-field query checks the position against the descriptor's own field count.
void ExpectEveryQueryAborts(const MD& md, int field) {
    EXPECT_DEATH(md.getFieldType(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.getFieldTypeStr(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.getFieldNameStr(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.isFieldArrayType(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.isFieldOptional(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.isFieldEncrypted(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.isFieldValidate(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.isFieldNonEmpty(field), AssertionText(kPositionCheck));
    EXPECT_DEATH(md.isFieldNestedTypedef(field), AssertionText(kPositionCheck));
}

TEST(FieldMetaDataDeathTest, PositionMinusOneAborts) {
    ExpectEveryQueryAborts(teza_store::Basics::metaData(), -1);
}

TEST(FieldMetaDataDeathTest, PositionNumFieldsAborts) {
    ExpectEveryQueryAborts(teza_store::Basics::metaData(), teza_store::Basics::kNumFields);
}

TEST(FieldMetaDataDeathTest, EveryQueryOfADescriptorWithoutFieldsAborts) {
    ExpectEveryQueryAborts(teza_store::Empty::metaData(), 0);
}

TEST(FieldMetaDataDeathTest, CompiledQueriesNameTheirSourceAndFunction) {
    EXPECT_DEATH(teza_store::Basics::metaData().isFieldEncrypted(99),
                 ::testing::AllOf(::testing::HasSubstr("libs/dynamic/autoteza/generator/src/"
                                                       "TezaFieldTypeMetaData.cpp"),
                                  ::testing::HasSubstr(
                                      "bool TezaFieldTypeMetaData::isFieldEncrypted(int) const"),
                                  AssertionText(kPositionCheck)));
}

}  // namespace
