// TezaFieldType copy and clear: clearFieldData, clearData, clear, copyData and assignment.

#include <gtest/gtest.h>
#include <stdint.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaFieldTypeFactory.h"
#include "TezaNamespaceFactory.h"
#include "assertion.h"
#include "test_records.h"

namespace {

using testsupport::DescribeRecord;
using teza_net::Address;
using teza_net::Endpoint;
using teza_orphan::Orphan;
using teza_orphan::OrphanChild;
using teza_store::Basics;
using teza_store::Nesting;
using teza_store::OwnerInfo;
using teza_store::Secrets;
using teza_store::VolumeInfo;
using teza_tracked::Holder;
using teza_tracked::Tracked;

class RecordCopy : public ::testing::Test {
  protected:
    void SetUp() override { TezaNamespaceFactory::registerDefaultTypeFactory(); }
};

int32_t IdOf(const TezaFieldType& record) {
    int32_t id = -1;
    EXPECT_TRUE(record.getFieldValue(OwnerInfo::kId, id));
    return id;
}

// --- Clearing ---------------------------------------------------------------------------------

TEST_F(RecordCopy, ClearFieldDataUnsetsEverythingAndTheRecordTakesNewValues) {
    Basics b;
    testsupport::FillBasics(b, 1);
    b.fieldSet(Basics::kMystery);
    b.clearFieldData();
    for (int i = 0; i < Basics::kNumFields; ++i) {
        EXPECT_FALSE(b.isFieldSet(i)) << i;
    }
    b.setName("again");
    std::string name;
    ASSERT_TRUE(b.getName(name));
    EXPECT_EQ(name, "again");
    testsupport::FillBasics(b, 2);
    EXPECT_TRUE(b.isFieldSet(Basics::kFlags));
}

TEST_F(RecordCopy, ClearDataIsClearFieldData) {
    Nesting n;
    testsupport::FillNesting(n, 1);
    n.clearData();
    for (int i = 0; i < Nesting::kNumFields; ++i) {
        EXPECT_FALSE(n.isFieldSet(i)) << i;
    }
}

TEST_F(RecordCopy, ClearFieldDataKeepsTheModeAndReleasesRawTexts) {
    Basics b;
    b.storeAsRawstring(true);
    b.setRawStringValue(Basics::kCount, "1");
    const std::string texts[] = {"1", "2"};
    b.setRawStringValue(Basics::kCounts, 2, texts);
    b.clearFieldData();
    EXPECT_TRUE(b.isStoreAsRawString());
    EXPECT_FALSE(b.isFieldSet(Basics::kCount));
    EXPECT_FALSE(b.isFieldSet(Basics::kCounts));
}

TEST_F(RecordCopy, ClearReleasesNestedRecordsElementByElement) {
    const int before = Tracked::live();
    Holder holder;
    Tracked many[4];
    holder.setMany(4, many);
    holder.setOne(many[0]);
    EXPECT_EQ(Tracked::live(), before + 4 + 4 + 1);
    holder.clear();
    EXPECT_EQ(Tracked::live(), before + 4);
    holder.clear();
    EXPECT_EQ(Tracked::live(), before + 4);
}

TEST_F(RecordCopy, ClearFieldDataOnAClearedRecordDoesNothing) {
    Basics b;
    b.clear();
    b.clearFieldData();
    b.clearData();
    b.clear();
    EXPECT_FALSE(b.isStoreAsRawString());
}

// --- Assignment -------------------------------------------------------------------------------

TEST_F(RecordCopy, AssignmentCopiesEveryKindOfField) {
    Basics basics;
    testsupport::FillBasics(basics, 3);
    Basics basicsCopy;
    basicsCopy = basics;
    EXPECT_EQ(DescribeRecord(basicsCopy), DescribeRecord(basics));

    Secrets secrets;
    testsupport::FillSecrets(secrets, 3);
    Secrets secretsCopy;
    secretsCopy = secrets;
    EXPECT_EQ(DescribeRecord(secretsCopy), DescribeRecord(secrets));

    Nesting nesting;
    testsupport::FillNesting(nesting, 3);
    Nesting nestingCopy;
    nestingCopy = nesting;
    EXPECT_EQ(DescribeRecord(nestingCopy), DescribeRecord(nesting));
    // Sanity: the description covers the nested values.
    EXPECT_NE(DescribeRecord(nesting).find("vol1"), std::string::npos);
}

TEST_F(RecordCopy, CopiesShareNothingWithTheirSource) {
    std::unique_ptr<Basics> basics(new Basics);
    testsupport::FillBasics(*basics, 4);
    std::unique_ptr<Nesting> nesting(new Nesting);
    testsupport::FillNesting(*nesting, 4);
    Basics basicsCopy;
    basicsCopy = *basics;
    Nesting nestingCopy;
    nestingCopy = *nesting;
    const std::string basicsBefore = DescribeRecord(basicsCopy);
    const std::string nestingBefore = DescribeRecord(nestingCopy);

    // No storage is shared.
    int n = 0, m = 0;
    std::string* a = nullptr;
    std::string* b = nullptr;
    ASSERT_TRUE(basics->getNames(n, a));
    ASSERT_TRUE(basicsCopy.getNames(m, b));
    EXPECT_NE(a, b);
    OwnerInfo* owner = nullptr;
    OwnerInfo* ownerCopy = nullptr;
    ASSERT_TRUE(nesting->getOwner(owner));
    ASSERT_TRUE(nestingCopy.getOwner(ownerCopy));
    EXPECT_NE(owner, ownerCopy);

    // Change the sources in place, through lent arrays and nested records, then destroy them.
    a[0] = "changed";
    int32_t* counts = nullptr;
    ASSERT_TRUE(basics->getCounts(n, counts));
    counts[0] = 12345;
    basics->setName("changed");
    owner->setId(999);
    VolumeInfo* volumes = nullptr;
    ASSERT_TRUE(nesting->getVolumes(n, volumes));
    OwnerInfo* deep = nullptr;
    ASSERT_TRUE(volumes[1].getOwner(deep));
    deep->setId(999);
    volumes[0].setName("changed");
    EXPECT_EQ(DescribeRecord(basicsCopy), basicsBefore);
    EXPECT_EQ(DescribeRecord(nestingCopy), nestingBefore);
    basics.reset();
    nesting.reset();
    EXPECT_EQ(DescribeRecord(basicsCopy), basicsBefore);
    EXPECT_EQ(DescribeRecord(nestingCopy), nestingBefore);
}

TEST_F(RecordCopy, ChangingTheCopyLeavesTheSourceUnchanged) {
    Nesting source;
    testsupport::FillNesting(source, 5);
    const std::string before = DescribeRecord(source);
    Nesting copy;
    copy = source;
    OwnerInfo* owners = nullptr;
    int n = 0;
    ASSERT_TRUE(copy.getOwners(n, owners));
    owners[2].setId(-1);
    copy.setLabel("changed");
    EXPECT_EQ(DescribeRecord(source), before);
}

TEST_F(RecordCopy, AssignedArrayOfThreeNestedRecordsIsThreeNewRecords) {
    Nesting source;
    OwnerInfo owners[3];
    for (int k = 0; k < 3; ++k) {
        owners[k].setId(k + 1);
    }
    source.setOwners(3, owners);  // field 2
    ASSERT_EQ(Nesting::kOwners, 2);
    Nesting target;
    target = source;
    int n = 0, m = 0;
    OwnerInfo* from = nullptr;
    OwnerInfo* to = nullptr;
    ASSERT_TRUE(source.getOwners(n, from));
    ASSERT_TRUE(target.getOwners(m, to));
    ASSERT_EQ(m, 3);
    EXPECT_NE(from, to);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(IdOf(to[k]), k + 1);
    }
    to[1].setId(50);
    EXPECT_EQ(IdOf(from[1]), 2);
}

TEST_F(RecordCopy, AssignmentMakesNewNestedRecordsAndReleasesTheOldOnes) {
    const int before = Tracked::live();
    {
        Holder source;
        Tracked many[3];
        source.setMany(3, many);
        source.setOne(many[1]);
        Holder target;
        target.setMany(2, many);
        EXPECT_EQ(Tracked::live(), before + 3 + 3 + 1 + 2);
        target = source;
        EXPECT_EQ(Tracked::live(), before + 3 + 3 + 1 + 3 + 1);
    }
    EXPECT_EQ(Tracked::live(), before);
}

TEST_F(RecordCopy, SelfAssignmentChangesNothing) {
    Nesting nesting;
    testsupport::FillNesting(nesting, 6);
    OwnerInfo* owner = nullptr;
    ASSERT_TRUE(nesting.getOwner(owner));
    const std::string before = DescribeRecord(nesting);
    Nesting& alias = nesting;
    nesting = alias;
    OwnerInfo* after = nullptr;
    ASSERT_TRUE(nesting.getOwner(after));
    EXPECT_EQ(after, owner);
    EXPECT_EQ(DescribeRecord(nesting), before);
}

TEST_F(RecordCopy, RawRecordCopiesAsRawTexts) {
    Basics source;
    source.storeAsRawstring(true);
    source.setRawStringValue(Basics::kCount, "-17");
    source.setRawStringValue(Basics::kUcount, "-1");
    source.setRawStringValue(Basics::kName, "&lt;kept&gt;");
    source.setRawStringValue(Basics::kEnabled, "off");
    const std::string sizes[] = {"1", "x"};
    source.setRawStringValue(Basics::kSizes, 2, sizes);
    Basics target;
    target = source;
    EXPECT_TRUE(target.isStoreAsRawString());
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
    int32_t count = 0;
    ASSERT_TRUE(target.getCount(count));
    EXPECT_EQ(count, -17);
    uint32_t ucount = 0;
    ASSERT_TRUE(target.getUcount(ucount));
    EXPECT_EQ(ucount, 4294967295u);
    bool enabled = true;
    ASSERT_TRUE(target.getEnabled(enabled));
    EXPECT_FALSE(enabled);
    std::string name;
    ASSERT_TRUE(target.getName(name));
    EXPECT_EQ(name, "&lt;kept&gt;");
}

TEST_F(RecordCopy, RawRecordWithNestedRecordsCopiesThemToo) {
    Nesting source;
    source.storeAsRawstring(true);
    OwnerInfo owner;
    owner.storeAsRawstring(true);
    owner.setRawStringValue(OwnerInfo::kId, "41");
    source.setOwner(owner);
    source.setRawStringValue(Nesting::kLabel, "raw label");
    Nesting target;
    target = source;
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
    OwnerInfo* copied = nullptr;
    ASSERT_TRUE(target.getOwner(copied));
    EXPECT_TRUE(copied->isStoreAsRawString());
    EXPECT_EQ(IdOf(*copied), 41);
}

TEST_F(RecordCopy, AssigningAClearedRecordReleasesAndClearsTheTarget) {
    const int before = Tracked::live();
    Holder target;
    Tracked one;
    target.setOne(one);
    target.setNote("note");
    EXPECT_EQ(Tracked::live(), before + 2);
    Holder cleared;
    cleared.clear();
    target = cleared;
    EXPECT_EQ(Tracked::live(), before + 1);
    EXPECT_DEATH(target.isFieldSet(0), AssertionText("!_isCleared"));
    // A cleared target becomes live again when assigned a live record.
    Holder live;
    live.setNote("back");
    target = live;
    std::string note;
    ASSERT_TRUE(target.getNote(note));
    EXPECT_EQ(note, "back");
}

TEST_F(RecordCopy, UnknownFieldMarkedSetIsNotSetInTheCopy) {
    Basics source;
    source.fieldSet(Basics::kMystery);
    source.fieldSet(Basics::kMysteries);
    source.setName("n");
    Basics target;
    target = source;
    EXPECT_TRUE(target.isFieldSet(Basics::kName));
    EXPECT_FALSE(target.isFieldSet(Basics::kMystery));
    EXPECT_FALSE(target.isFieldSet(Basics::kMysteries));
}

TEST_F(RecordCopy, CopyOfNullNestedValuesIsNullToo) {
    Orphan source;
    OrphanChild child;
    source.setChild(child);
    OrphanChild children[2];
    source.setChildren(2, children);
    source.setNote("n");
    Orphan target;
    target = source;
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
    EXPECT_EQ(DescribeRecord(target), "orphan{child=null children=null#2 note=\"n\"}");
}

// A factory for the "orphan" namespace, registered only for a while: it notes the record-array
// copies asked of it and makes empty children for them.
class LateOrphanFactory : public TezaFieldTypeFactory {
  public:
    std::vector<std::string> copies() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _copies;
    }
    TezaFieldType* getInstance(const std::string&, const std::string&) const override {
        return nullptr;
    }
    TezaFieldType* getInstances(int, const std::string&, const std::string&) const override {
        return nullptr;
    }
    TezaFieldType* copyInstance(const std::string&, const TezaFieldType&) const override {
        return nullptr;
    }
    TezaFieldType* copyInstances(const std::string& typeName, int count,
                                 const TezaFieldType*& source) const override {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _copies.push_back(typeName + " " + std::to_string(count) +
                              (source == nullptr ? " null" : " records"));
        }
        return typeName == "orphan-child" && count >= 0 ? new OrphanChild[count] : nullptr;
    }
    TezaFieldType* copyInstances(const std::string&, std::vector<TezaFieldType*>&) const override {
        return nullptr;
    }
    std::vector<std::string> getNestedTypedefHierarchy(const std::string&) const override {
        return std::vector<std::string>();
    }

  private:
    mutable std::mutex _mutex;
    mutable std::vector<std::string> _copies;
};

// Registers a factory for a namespace and takes it away again at the end of the scope.
class ScopedFactory {
  public:
    ScopedFactory(const char* ns, const TezaFieldTypeFactory* factory) : _ns(ns) {
        TezaNamespaceFactory::registerTypeFactory(_ns, factory);
    }
    ~ScopedFactory() { TezaNamespaceFactory::registerTypeFactory(_ns, nullptr); }
    ScopedFactory(const ScopedFactory&) = delete;
    ScopedFactory& operator=(const ScopedFactory&) = delete;

  private:
    const std::string _ns;
};

TEST_F(RecordCopy, NullRecordArrayIsCopiedByAFactoryRegisteredSince) {
    // Set while its namespace had no factory, the array is held as null with its count.
    Orphan source;
    OrphanChild children[2];
    source.setChildren(2, children);
    ASSERT_EQ(DescribeRecord(source), "orphan{child=- children=null#2 note=-}");

    // Copied like any record array, through the record-array setter: the factory now
    // registered is asked, and its records are what the copy holds.
    LateOrphanFactory factory;
    Orphan target;
    {
        ScopedFactory registered(teza_orphan::kNamespace, &factory);
        target = source;
    }
    EXPECT_EQ(factory.copies(), std::vector<std::string>{"orphan-child 2 null"});
    EXPECT_EQ(DescribeRecord(target),
              "orphan{child=- children=[orphan-child{value=-},orphan-child{value=-}] note=-}");
}

TEST_F(RecordCopy, NestedRecordsOfTheSecondNamespaceAreCopiedByItsFactory) {
    Endpoint source;
    Address address;
    address.setIp("192.0.2.1");
    source.setAddress(address);
    Address a, b;
    a.setPrefix(8);
    std::vector<TezaFieldType*> routes{&a, &b};
    source.setRoutes(routes);
    Endpoint target;
    target = source;
    EXPECT_EQ(DescribeRecord(target), DescribeRecord(source));
    Address* copied = nullptr;
    ASSERT_TRUE(target.getAddress(copied));
    EXPECT_STREQ(copied->getMetaData().getNamespace(), "net");
}

TEST_F(RecordCopy, CopyDataFromAClearedSourceLeavesTheTargetAsItIs) {
    Basics target;
    target.setName("mine");
    Basics cleared;
    cleared.clear();
    target.copyData(cleared);
    std::string name;
    ASSERT_TRUE(target.getName(name));
    EXPECT_EQ(name, "mine");
}

TEST_F(RecordCopy, DefaultConstructedThenAssignedIsTheWayToCopy) {
    Secrets source;
    testsupport::FillSecrets(source, 9);
    std::unique_ptr<TezaFieldType> copy(
        TezaNamespaceFactory::copyInstance("store", "secrets", source));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(DescribeRecord(*copy), DescribeRecord(source));
}

// --- Fatal misuse -----------------------------------------------------------------------------

TEST(RecordCopyDeathTest, AccessorsAfterClearAbort) {
    Basics b;
    b.setName("x");
    b.clear();
    b.clear();
    std::string name;
    EXPECT_DEATH(b.getName(name), AssertionText("!_isCleared"));
    EXPECT_DEATH(b.setName("y"), AssertionText("!_isCleared"));
}

// The getters of a direct copyData fail when source and target disagree on the mode.
TEST(RecordCopyDeathTest, CopyDataIntoARawTargetFromANormalSourceAborts) {
    TezaNamespaceFactory::registerDefaultTypeFactory();
    Basics source;
    source.setName("n");
    Basics target;
    target.storeAsRawstring(true);
    EXPECT_DEATH(target.copyData(source), AssertionText("ret"));
}

TEST(RecordCopyDeathTest, CopyDataOfAnArrayFromARawSourceAborts) {
    TezaNamespaceFactory::registerDefaultTypeFactory();
    Basics source;
    source.storeAsRawstring(true);
    const std::string texts[] = {"1"};
    source.setRawStringValue(Basics::kCounts, 1, texts);
    Basics target;
    EXPECT_DEATH(target.copyData(source), AssertionText("ret"));
}

}  // namespace
