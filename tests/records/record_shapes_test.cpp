// The tests' hand-written record types against the code the generator writes for the same
// types (record_shapes.teza): every descriptor field by field, the factories' types and typedef
// chains. The hand-written types stand in for generated code in every record test, so they must
// not drift from it; the few shapes a schema cannot express are checked as the exceptions they
// are.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "TezaFieldTypeMetaData.h"
#include "record_shapes.h"
#include "test_records.h"

namespace {

typedef TezaFieldTypeMetaData MD;

// Compares two descriptors field by field. Encrypted flags of the fields named in
// `encryptedOnlyByHand` are expected on the hand-written side only, and the last
// `blobFieldsByHand` fields of the hand-written side are of a type the runtime does not know
// ("blob"), which the schema leaves out.
void ExpectSameDescriptor(const MD& written, const MD& generated,
                          const std::set<std::string>& encryptedOnlyByHand = {},
                          int blobFieldsByHand = 0) {
    SCOPED_TRACE(std::string(written.getNamespace()) + "/" + written.getName());
    EXPECT_STREQ(written.getNamespace(), generated.getNamespace());
    EXPECT_STREQ(written.getName(), generated.getName());
    ASSERT_EQ(written.getNumFields(), generated.getNumFields() + blobFieldsByHand);
    for (int field = 0; field < generated.getNumFields(); ++field) {
        const std::string name = generated.getFieldNameStr(field);
        SCOPED_TRACE("field " + std::to_string(field) + " " + name);
        EXPECT_EQ(name, written.getFieldNameStr(field));
        EXPECT_EQ(written.getFieldType(field), generated.getFieldType(field));
        EXPECT_STREQ(written.getFieldTypeStr(field), generated.getFieldTypeStr(field));
        EXPECT_EQ(written.isFieldArrayType(field), generated.isFieldArrayType(field));
        EXPECT_EQ(written.isFieldOptional(field), generated.isFieldOptional(field));
        if (encryptedOnlyByHand.count(name) != 0) {
            EXPECT_TRUE(written.isFieldEncrypted(field));
            EXPECT_FALSE(generated.isFieldEncrypted(field));
        } else {
            EXPECT_EQ(written.isFieldEncrypted(field), generated.isFieldEncrypted(field));
        }
        EXPECT_EQ(written.isFieldValidate(field), generated.isFieldValidate(field));
        EXPECT_EQ(written.isFieldNonEmpty(field), generated.isFieldNonEmpty(field));
        EXPECT_EQ(written.isFieldNestedTypedef(field), generated.isFieldNestedTypedef(field));
    }
    for (int field = generated.getNumFields(); field < written.getNumFields(); ++field) {
        EXPECT_EQ(written.getFieldType(field), MD::UNKNOWN_TYPE) << "field " << field;
    }
}

// Both factories make a record of the same type for `typeName`, or neither makes one.
void ExpectSameInstances(const TezaFieldTypeFactory& written, const TezaFieldTypeFactory& generated,
                         const std::string& typeName) {
    SCOPED_TRACE("type name \"" + typeName + "\"");
    std::unique_ptr<TezaFieldType> byHand(written.getInstance("typedef", typeName));
    std::unique_ptr<TezaFieldType> byGenerator(generated.getInstance("typedef", typeName));
    ASSERT_EQ(byHand == nullptr, byGenerator == nullptr);
    if (byHand != nullptr) {
        EXPECT_STREQ(byHand->getMetaData().getName(), byGenerator->getMetaData().getName());
        EXPECT_EQ(byHand->getMetaData().getName(), typeName);
    }
}

TEST(RecordShapesTest, StoreDescriptorsMatchTheGeneratedOnes) {
    ExpectSameDescriptor(teza_store::Basics::metaData(), store::Basics().getMetaData(), {}, 2);
    ExpectSameDescriptor(teza_store::Secrets::metaData(), store::Secrets().getMetaData(),
                         {"keys", "pins", "locked"});
    ExpectSameDescriptor(teza_store::OwnerInfo::metaData(), store::OwnerInfo().getMetaData());
    ExpectSameDescriptor(teza_store::VolumeInfo::metaData(), store::VolumeInfo().getMetaData());
    ExpectSameDescriptor(teza_store::Nesting::metaData(), store::Nesting().getMetaData());
    ExpectSameDescriptor(teza_store::Empty::metaData(), store::Empty().getMetaData());
}

TEST(RecordShapesTest, TheBlobFieldsAreTheOnlyExtraFieldsOfBasics) {
    const MD& written = teza_store::Basics::metaData();
    ASSERT_EQ(written.getNumFields(), teza_store::Basics::kNumFields);
    EXPECT_STREQ(written.getFieldNameStr(teza_store::Basics::kMystery), "mystery");
    EXPECT_FALSE(written.isFieldArrayType(teza_store::Basics::kMystery));
    EXPECT_STREQ(written.getFieldNameStr(teza_store::Basics::kMysteries), "mysteries");
    EXPECT_TRUE(written.isFieldArrayType(teza_store::Basics::kMysteries));
}

TEST(RecordShapesTest, OtherNamespacesDescriptorsMatchTheGeneratedOnes) {
    ExpectSameDescriptor(teza_net::Address::metaData(), net::Address().getMetaData());
    ExpectSameDescriptor(teza_net::Endpoint::metaData(), net::Endpoint().getMetaData());
    ExpectSameDescriptor(teza_orphan::OrphanChild::metaData(), orphan::OrphanChild().getMetaData());
    ExpectSameDescriptor(teza_orphan::Orphan::metaData(), orphan::Orphan().getMetaData());
    ExpectSameDescriptor(teza_tracked::Tracked::metaData(), tracked::Tracked().getMetaData());
    ExpectSameDescriptor(teza_tracked::Holder::metaData(), tracked::Holder().getMetaData());
}

TEST(RecordShapesTest, FactoriesMakeTheSameTypes) {
    for (const char* name :
         {"basics", "secrets", "owner-info", "volume-info", "nesting", "empty", "owner-alias",
          "owner-ref", "owner-key", "label-text", "address", "no-such-type", ""}) {
        ExpectSameInstances(teza_store::typeFactory(), store::StoreTypeFactory::instance(), name);
    }
    for (const char* name : {"address", "endpoint", "basics", "no-such-type"}) {
        ExpectSameInstances(teza_net::typeFactory(), net::NetTypeFactory::instance(), name);
    }
    for (const char* name : {"tracked", "holder", "address", "no-such-type"}) {
        ExpectSameInstances(teza_tracked::typeFactory(), tracked::TrackedTypeFactory::instance(),
                            name);
    }
}

TEST(RecordShapesTest, FactoriesResolveTheSameTypedefChains) {
    const TezaFieldTypeFactory& written = teza_store::typeFactory();
    const TezaFieldTypeFactory& generated = store::StoreTypeFactory::instance();
    for (const char* name : {"owner-alias", "owner-ref", "label-text", "owner-info", "nesting",
                             "string", "no-such-type"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(written.getNestedTypedefHierarchy(name),
                  generated.getNestedTypedefHierarchy(name));
    }
    EXPECT_EQ(generated.getNestedTypedefHierarchy("owner-ref"),
              (std::vector<std::string>{"owner-handle", "owner-key", "owner-info"}));
    EXPECT_TRUE(teza_net::typeFactory().getNestedTypedefHierarchy("address").empty());
    EXPECT_TRUE(net::NetTypeFactory::instance().getNestedTypedefHierarchy("address").empty());
}

// owner-plain is a typedef of owner-info that the hand-written factory makes directly, with an
// empty chain: the runtime's path for a nested typedef whose chain is empty. A schema typedef
// always has its chain.
TEST(RecordShapesTest, OwnerPlainIsMadeDirectlyByHandAndThroughItsChainByTheGenerator) {
    const TezaFieldTypeFactory& written = teza_store::typeFactory();
    const TezaFieldTypeFactory& generated = store::StoreTypeFactory::instance();
    EXPECT_TRUE(written.getNestedTypedefHierarchy("owner-plain").empty());
    std::unique_ptr<TezaFieldType> plain(written.getInstance("typedef", "owner-plain"));
    ASSERT_NE(plain, nullptr);
    EXPECT_STREQ(plain->getMetaData().getName(), "owner-info");

    EXPECT_EQ(generated.getNestedTypedefHierarchy("owner-plain"),
              std::vector<std::string>{"owner-info"});
    EXPECT_EQ(std::unique_ptr<TezaFieldType>(generated.getInstance("typedef", "owner-plain")),
              nullptr);
}

}  // namespace
