// A record built with more fields than the descriptor its getMetaData() returns. The walks over
// a record's fields read the descriptor's tables in place only while the descriptor has every
// field of the record; otherwise they ask the descriptor's own queries, so that a field the
// descriptor lacks ends the process with the descriptor's position check, as it always did,
// instead of being read from past the end of the descriptor's tables.

#include <gtest/gtest.h>

#include <bitset>
#include <string>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "assertion.h"
#include "element_text.h"
#include "rk_double.h"

namespace {

using testsupport::Elem;
using testsupport::NewElem;
using testsupport::ParseXml;
using testsupport::Xml;

const char kPositionCheck[] = "(0 <= field) && (field < _numFields)";

const char* const kNames[] = {"name", "note"};
const TezaFieldTypeMetaData::TezaBasicType kTypes[] = {TezaFieldTypeMetaData::STRING_TYPE,
                                                       TezaFieldTypeMetaData::STRING_TYPE};
const char* const kTypeNames[] = {"string", "string"};
const std::bitset<256> kNone;
// The record's two fields, and a descriptor of the same type that has only the first.
const TezaFieldTypeMetaData kTwoFields("store", "short", 2, kNames, kTypes, kTypeNames, kNone,
                                       kNone, kNone, kNone, kNone, kNone);
const TezaFieldTypeMetaData kOneField("store", "short", 1, kNames, kTypes, kTypeNames, kNone, kNone,
                                      kNone, kNone, kNone, kNone);

class Overlong : public TezaFieldType {
  public:
    Overlong() : TezaFieldType(kTwoFields) {}
    ~Overlong() override { clear(); }
    const TezaFieldTypeMetaData& getMetaData() const override { return kOneField; }
};

class ShortDescriptor : public ::testing::Test {
  protected:
    void SetUp() override { rkdouble::Reset(); }
    void TearDown() override { rkdouble::Reset(); }
};

// The fields the descriptor has are read and written as usual.
TEST_F(ShortDescriptor, FieldsTheDescriptorHasAreMapped) {
    Overlong record;
    record.setFieldValue(0, std::string("a&lt;b"));
    Elem in = NewElem("in");
    record.constructRkChildElement(in.get());
    EXPECT_EQ(Xml(in.get()), "<in>\n  <name>a&amp;lt;b</name>\n</in>\n");
}

TEST_F(ShortDescriptor, ReadingStopsAtTheFieldTheDescriptorLacks) {
    Elem root = ParseXml("<out><name>x</name><note>y</note></out>");
    EXPECT_DEATH(
        {
            Overlong record;
            record.parseRkChildElement(root.get());
        },
        AssertionText(kPositionCheck));
}

// Each walk stops at the first set field the descriptor lacks; writing passes over unset ones.
TEST_F(ShortDescriptor, WalksStopAtASetFieldTheDescriptorLacks) {
    Elem in = NewElem("in");
    EXPECT_DEATH(
        {
            Overlong record;
            record.setFieldValue(0, std::string("x"));
            record.setFieldValue(1, std::string("y"));
            record.constructRkChildElement(in.get());
        },
        AssertionText(kPositionCheck));
    EXPECT_DEATH(
        {
            Overlong record;
            record.setFieldValue(1, std::string("y"));
            record.clearFieldData();
        },
        AssertionText(kPositionCheck));
    EXPECT_DEATH(
        {
            Overlong record;
            record.setFieldValue(1, std::string("y"));
            Overlong copy;
            copy = record;
        },
        AssertionText(kPositionCheck));
}

}  // namespace
