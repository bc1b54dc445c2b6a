// TezaFieldType storage: setters, adopting setters, getters and raw-string accessors.

#include <gtest/gtest.h>
#include <stdint.h>

#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "assertion.h"
#include "test_records.h"

namespace {

using teza_net::Address;
using teza_net::Endpoint;
using teza_orphan::Orphan;
using teza_orphan::OrphanChild;
using teza_store::Basics;
using teza_store::Nesting;
using teza_store::OwnerInfo;
using teza_store::VolumeInfo;
using teza_tracked::Holder;
using teza_tracked::Tracked;

class Records : public ::testing::Test {
  protected:
    void SetUp() override { TezaNamespaceFactory::registerDefaultTypeFactory(); }
};

// An owner-info record holding `id`.
struct OwnerWithId : OwnerInfo {
    explicit OwnerWithId(int32_t id) { setId(id); }
};

int32_t IdOf(const TezaFieldType& record) {
    int32_t id = -1;
    EXPECT_TRUE(record.getFieldValue(OwnerInfo::kId, id));
    return id;
}

// --- A new record ---------------------------------------------------------------------------

TEST_F(Records, NewRecordIsLiveWithEveryFieldUnset) {
    Basics b;
    EXPECT_FALSE(b.isStoreAsRawString());
    for (int i = 0; i < Basics::kNumFields; ++i) {
        EXPECT_FALSE(b.isFieldSet(i)) << i;
    }
}

TEST_F(Records, GettersOfUnsetFieldsReturnFalseAndLeaveOutputsUntouched) {
    Basics b;
    int32_t i32 = 11;
    uint32_t u32 = 12;
    int64_t i64 = 13;
    uint64_t u64 = 14;
    bool flag = true;
    std::string text = "kept";
    TezaFieldType* record = &b;
    int count = 99;
    int32_t* items = &i32;
    std::string* texts = &text;
    TezaFieldType* records = &b;
    EXPECT_FALSE(b.getFieldValue(Basics::kCount, i32));
    EXPECT_FALSE(b.getFieldValue(Basics::kUcount, u32));
    EXPECT_FALSE(b.getFieldValue(Basics::kSize, i64));
    EXPECT_FALSE(b.getFieldValue(Basics::kUsize, u64));
    EXPECT_FALSE(b.getFieldValue(Basics::kEnabled, flag));
    EXPECT_FALSE(b.getFieldValue(Basics::kName, text));
    EXPECT_FALSE(b.getFieldValue(Basics::kName, record));
    EXPECT_FALSE(b.getFieldValue(Basics::kCounts, count, items));
    EXPECT_FALSE(b.getFieldValue(Basics::kNames, count, texts));
    EXPECT_FALSE(b.getFieldValue(Basics::kNames, count, records));
    EXPECT_FALSE(b.getRawStringValue(Basics::kName, text));
    EXPECT_FALSE(b.getRawStringValue(Basics::kNames, count, texts));
    EXPECT_EQ(i32, 11);
    EXPECT_EQ(u32, 12u);
    EXPECT_EQ(i64, 13);
    EXPECT_EQ(u64, 14u);
    EXPECT_TRUE(flag);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(record, &b);
    EXPECT_EQ(count, 99);
    EXPECT_EQ(items, &i32);
    EXPECT_EQ(texts, &text);
    EXPECT_EQ(records, &b);
}

// --- Copying setters, normal mode -------------------------------------------------------------

TEST_F(Records, SingleValuesOfEveryKind) {
    Basics b;
    b.setName("vol0 <&>\"'");
    b.setCount(std::numeric_limits<int32_t>::min());
    b.setUcount(std::numeric_limits<uint32_t>::max());
    b.setSize(std::numeric_limits<int64_t>::min());
    b.setUsize(std::numeric_limits<uint64_t>::max());
    b.setEnabled(true);

    std::string name;
    int32_t count = 0;
    uint32_t ucount = 0;
    int64_t size = 0;
    uint64_t usize = 0;
    bool enabled = false;
    ASSERT_TRUE(b.getName(name));
    ASSERT_TRUE(b.getCount(count));
    ASSERT_TRUE(b.getUcount(ucount));
    ASSERT_TRUE(b.getSize(size));
    ASSERT_TRUE(b.getUsize(usize));
    ASSERT_TRUE(b.getEnabled(enabled));
    EXPECT_EQ(name, "vol0 <&>\"'");
    EXPECT_EQ(count, std::numeric_limits<int32_t>::min());
    EXPECT_EQ(ucount, std::numeric_limits<uint32_t>::max());
    EXPECT_EQ(size, std::numeric_limits<int64_t>::min());
    EXPECT_EQ(usize, std::numeric_limits<uint64_t>::max());
    EXPECT_TRUE(enabled);
    for (int i = Basics::kName; i <= Basics::kEnabled; ++i) {
        EXPECT_TRUE(b.isFieldSet(i)) << i;
    }
    EXPECT_FALSE(b.isFieldSet(Basics::kNames));

    b.setEnabled(false);
    ASSERT_TRUE(b.getEnabled(enabled));
    EXPECT_FALSE(enabled);
}

TEST_F(Records, SettingASetFieldAgainReplacesTheValue) {
    Basics b;
    b.setName("first");
    b.setName("second");
    b.setCount(1);
    b.setCount(2);
    std::string name;
    int32_t count = 0;
    ASSERT_TRUE(b.getName(name));
    ASSERT_TRUE(b.getCount(count));
    EXPECT_EQ(name, "second");
    EXPECT_EQ(count, 2);

    const int32_t three[] = {1, 2, 3};
    const int32_t one[] = {9};
    b.setCounts(3, three);
    b.setCounts(1, one);
    int n = 0;
    int32_t* items = nullptr;
    ASSERT_TRUE(b.getCounts(n, items));
    ASSERT_EQ(n, 1);
    EXPECT_EQ(items[0], 9);
}

TEST_F(Records, TextIsCopiedAndHandedOutUpToItsFirstNul) {
    Basics b;
    std::string name("ab\0cd", 5);
    b.setName(name);
    name[0] = 'X';
    std::string out;
    ASSERT_TRUE(b.getName(out));
    EXPECT_EQ(out, "ab");
}

TEST_F(Records, ArraysOfEveryKindAreCopied) {
    Basics b;
    std::string names[] = {"a", "<b>", ""};
    int32_t counts[] = {-1, 0, std::numeric_limits<int32_t>::max()};
    uint32_t ucounts[] = {0, std::numeric_limits<uint32_t>::max()};
    int64_t sizes[] = {std::numeric_limits<int64_t>::min(), 5};
    uint64_t usizes[] = {std::numeric_limits<uint64_t>::max()};
    bool flags[] = {true, false, true};
    b.setNames(3, names);
    b.setCounts(3, counts);
    b.setUcounts(2, ucounts);
    b.setSizes(2, sizes);
    b.setUsizes(1, usizes);
    b.setFlags(3, flags);
    // The record holds copies: changing the inputs changes nothing.
    names[0] = "changed";
    counts[0] = 77;
    ucounts[0] = 77;
    sizes[1] = 77;
    usizes[0] = 77;
    flags[1] = true;

    int n = 0;
    std::string* t = nullptr;
    ASSERT_TRUE(b.getNames(n, t));
    ASSERT_EQ(n, 3);
    EXPECT_NE(t, names);
    EXPECT_EQ(t[0], "a");
    EXPECT_EQ(t[1], "<b>");
    EXPECT_EQ(t[2], "");
    int32_t* c = nullptr;
    ASSERT_TRUE(b.getCounts(n, c));
    ASSERT_EQ(n, 3);
    EXPECT_EQ(c[0], -1);
    EXPECT_EQ(c[2], std::numeric_limits<int32_t>::max());
    uint32_t* uc = nullptr;
    ASSERT_TRUE(b.getUcounts(n, uc));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(uc[0], 0u);
    EXPECT_EQ(uc[1], std::numeric_limits<uint32_t>::max());
    int64_t* s = nullptr;
    ASSERT_TRUE(b.getSizes(n, s));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(s[0], std::numeric_limits<int64_t>::min());
    EXPECT_EQ(s[1], 5);
    uint64_t* us = nullptr;
    ASSERT_TRUE(b.getUsizes(n, us));
    ASSERT_EQ(n, 1);
    EXPECT_EQ(us[0], std::numeric_limits<uint64_t>::max());
    bool* f = nullptr;
    ASSERT_TRUE(b.getFlags(n, f));
    ASSERT_EQ(n, 3);
    EXPECT_TRUE(f[0]);
    EXPECT_FALSE(f[1]);
    EXPECT_TRUE(f[2]);
}

TEST_F(Records, EmptyArraysAreSetWithABlockAndCountZero) {
    Basics b;
    b.setNames(0, nullptr);
    b.setCounts(0, nullptr);
    b.setUcounts(0, nullptr);
    b.setSizes(0, nullptr);
    b.setUsizes(0, nullptr);
    b.setFlags(0, nullptr);
    int n = -1;
    std::string* t = nullptr;
    ASSERT_TRUE(b.getNames(n, t));
    EXPECT_EQ(n, 0);
    EXPECT_NE(t, nullptr);
    int32_t* c = nullptr;
    n = -1;
    ASSERT_TRUE(b.getCounts(n, c));
    EXPECT_EQ(n, 0);
    EXPECT_NE(c, nullptr);
    uint32_t* uc = nullptr;
    ASSERT_TRUE(b.getUcounts(n, uc));
    EXPECT_NE(uc, nullptr);
    int64_t* s = nullptr;
    ASSERT_TRUE(b.getSizes(n, s));
    EXPECT_NE(s, nullptr);
    uint64_t* us = nullptr;
    ASSERT_TRUE(b.getUsizes(n, us));
    EXPECT_NE(us, nullptr);
    bool* f = nullptr;
    ASSERT_TRUE(b.getFlags(n, f));
    EXPECT_NE(f, nullptr);

    Nesting nesting;
    nesting.setOwners(0, nullptr);
    OwnerInfo* owners = nullptr;
    n = -1;
    ASSERT_TRUE(nesting.getOwners(n, owners));
    EXPECT_EQ(n, 0);
    EXPECT_NE(owners, nullptr);
}

TEST_F(Records, ArraySetFromItsOwnStoredArrayKeepsTheValues) {
    Basics b;
    const std::string names[] = {"x", "y"};
    b.setNames(2, names);
    int n = 0;
    std::string* stored = nullptr;
    ASSERT_TRUE(b.getNames(n, stored));
    b.setNames(n, stored);
    ASSERT_TRUE(b.getNames(n, stored));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(stored[0], "x");
    EXPECT_EQ(stored[1], "y");
}

// --- Record setters ---------------------------------------------------------------------------

TEST_F(Records, NestedRecordIsADeepCopyMadeByTheFactory) {
    VolumeInfo volume;
    OwnerWithId owner(7);
    volume.setOwner(owner);
    owner.setId(8);
    OwnerInfo* stored = nullptr;
    ASSERT_TRUE(volume.getOwner(stored));
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, &owner);
    EXPECT_STREQ(stored->getMetaData().getName(), "owner-info");
    EXPECT_EQ(IdOf(*stored), 7);
}

TEST_F(Records, NestedRecordArrayIsCopiedElementByElement) {
    Nesting nesting;
    OwnerInfo owners[3];
    for (int k = 0; k < 3; ++k) {
        owners[k].setId(10 + k);
    }
    nesting.setOwners(3, owners);
    owners[1].setId(0);
    int n = 0;
    OwnerInfo* stored = nullptr;
    ASSERT_TRUE(nesting.getOwners(n, stored));
    ASSERT_EQ(n, 3);
    EXPECT_NE(stored, owners);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(IdOf(stored[k]), 10 + k);
    }
}

TEST_F(Records, NestedRecordsOfTheSecondNamespaceAndTheVectorSetter) {
    Endpoint endpoint;
    Address address;
    address.setIp("10.0.0.1");
    endpoint.setAddress(address);
    Address a, b;
    a.setIp("10.0.0.2");
    b.setPrefix(24);
    std::vector<TezaFieldType*> routes{&a, &b};
    endpoint.setRoutes(routes);
    a.setIp("changed");

    Address* stored = nullptr;
    ASSERT_TRUE(endpoint.getAddress(stored));
    std::string ip;
    ASSERT_TRUE(stored->getIp(ip));
    EXPECT_EQ(ip, "10.0.0.1");
    int n = 0;
    Address* copies = nullptr;
    ASSERT_TRUE(endpoint.getRoutes(n, copies));
    ASSERT_EQ(n, 2);
    ASSERT_TRUE(copies[0].getIp(ip));
    EXPECT_EQ(ip, "10.0.0.2");
    int32_t prefix = 0;
    EXPECT_FALSE(copies[0].getPrefix(prefix));
    ASSERT_TRUE(copies[1].getPrefix(prefix));
    EXPECT_EQ(prefix, 24);
}

TEST_F(Records, NestedTypedefFieldsAreCopiedAsTheirLowestLevelType) {
    // The factory knows owner-info and owner-plain but not owner-alias or owner-ref: the copy
    // exists only if the setter asked for the last name of the hierarchy.
    Nesting nesting;
    OwnerWithId owner(3);
    nesting.setAlias1(owner);
    nesting.setAlias3(owner);
    nesting.setPlain(owner);
    OwnerInfo owners[2];
    owners[1].setId(4);
    nesting.setAliases1(2, owners);
    nesting.setAliases3(2, owners);
    nesting.setPlains(2, owners);

    OwnerInfo* stored = nullptr;
    ASSERT_TRUE(nesting.getAlias1(stored));
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(IdOf(*stored), 3);
    ASSERT_TRUE(nesting.getAlias3(stored));
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(IdOf(*stored), 3);
    ASSERT_TRUE(nesting.getPlain(stored));
    ASSERT_NE(stored, nullptr);
    int n = 0;
    ASSERT_TRUE(nesting.getAliases1(n, stored));
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(IdOf(stored[1]), 4);
    ASSERT_TRUE(nesting.getAliases3(n, stored));
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(n, 2);
    ASSERT_TRUE(nesting.getPlains(n, stored));
    ASSERT_NE(stored, nullptr);
}

TEST_F(Records, NamespaceWithoutFactoryStoresNullSetValues) {
    Orphan orphan;
    OrphanChild child;
    child.setValue("v");
    orphan.setChild(child);
    OrphanChild children[2];
    orphan.setChildren(2, children);
    std::vector<TezaFieldType*> none;
    orphan.setFieldValue(Orphan::kChildren, none);

    EXPECT_TRUE(orphan.isFieldSet(Orphan::kChild));
    TezaFieldType* record = &orphan;
    ASSERT_TRUE(orphan.getFieldValue(Orphan::kChild, record));
    EXPECT_EQ(record, nullptr);
    int n = -1;
    ASSERT_TRUE(orphan.getFieldValue(Orphan::kChildren, n, record));
    EXPECT_EQ(n, 0);
    EXPECT_EQ(record, nullptr);
    orphan.setChildren(2, children);
    ASSERT_TRUE(orphan.getFieldValue(Orphan::kChildren, n, record));
    EXPECT_EQ(n, 2);
    EXPECT_EQ(record, nullptr);
}

TEST_F(Records, SettingTheStoredRecordHandsItToTheCallerAndStoresACopy) {
    VolumeInfo volume;
    volume.setOwner(OwnerWithId(5));
    OwnerInfo* stored = nullptr;
    ASSERT_TRUE(volume.getOwner(stored));
    volume.setOwner(*stored);
    OwnerInfo* fresh = nullptr;
    ASSERT_TRUE(volume.getOwner(fresh));
    EXPECT_NE(fresh, stored);
    EXPECT_EQ(IdOf(*fresh), 5);
    // The old record is alive and now the caller's.
    EXPECT_EQ(IdOf(*stored), 5);
    delete stored;
}

TEST_F(Records, SettingARecordTakenFromInsideTheStoredValue) {
    Nesting nesting;
    VolumeInfo volumes[1];
    volumes[0].setOwner(OwnerWithId(6));
    nesting.setVolumes(1, volumes);
    int n = 0;
    VolumeInfo* stored = nullptr;
    ASSERT_TRUE(nesting.getVolumes(n, stored));
    nesting.setVolumes(n, stored);
    ASSERT_TRUE(nesting.getVolumes(n, stored));
    ASSERT_EQ(n, 1);
    OwnerInfo* owner = nullptr;
    ASSERT_TRUE(stored[0].getOwner(owner));
    EXPECT_EQ(IdOf(*owner), 6);
}

// Whether setFieldValue(int, V) can be called on a record.
template <typename V, typename = void>
struct CanSetFieldValue : std::false_type {};
template <typename V>
struct CanSetFieldValue<
    V, std::void_t<decltype(std::declval<TezaFieldType&>().setFieldValue(0, std::declval<V>()))>>
    : std::true_type {};

// A text literal does not silently become a boolean: it must be passed as std::string.
static_assert(!CanSetFieldValue<const char*>::value, "setFieldValue(int, const char*) is deleted");
static_assert(CanSetFieldValue<std::string>::value && CanSetFieldValue<bool>::value,
              "texts and booleans have their setters");

TEST_F(Records, EachRecordSetterReleasesThePreviousRecords) {
    const int before = Tracked::live();
    {
        Holder holder;
        Tracked one;
        holder.setOne(one);
        EXPECT_EQ(Tracked::live(), before + 2);
        holder.setOne(one);
        EXPECT_EQ(Tracked::live(), before + 2);

        Tracked many[3];
        holder.setMany(3, many);
        EXPECT_EQ(Tracked::live(), before + 2 + 3 + 3);
        holder.setMany(2, many);
        EXPECT_EQ(Tracked::live(), before + 2 + 3 + 2);
        std::vector<TezaFieldType*> vec{&many[0]};
        holder.setFieldValue(Holder::kMany, vec);
        EXPECT_EQ(Tracked::live(), before + 2 + 3 + 1);

        holder.__setFieldValue(Holder::kOne, new Tracked);
        EXPECT_EQ(Tracked::live(), before + 2 + 3 + 1);
        holder.__setFieldValue(
            Holder::kMany, 4,
            TezaNamespaceFactory::getInstances("tracked", 4, "typedef", "tracked"));
        EXPECT_EQ(Tracked::live(), before + 2 + 3 + 4);

        holder.clearFieldData();
        EXPECT_EQ(Tracked::live(), before + 1 + 3);
        holder.setMany(3, many);
        holder.setOne(one);
        EXPECT_EQ(Tracked::live(), before + 1 + 3 + 3 + 1);
    }
    // The holder's destructor released its records element by element.
    EXPECT_EQ(Tracked::live(), before);
}

// --- Adopting setters -------------------------------------------------------------------------

TEST_F(Records, AdoptingSettersTakeTheArraysOver) {
    Basics b;
    int32_t* counts = new int32_t[2]{1, 2};
    uint32_t* ucounts = new uint32_t[1]{3};
    int64_t* sizes = new int64_t[1]{4};
    uint64_t* usizes = new uint64_t[1]{5};
    bool* flags = new bool[2]{false, true};
    std::string* names = new std::string[2]{"p", "q"};
    b.__setFieldValue(Basics::kCounts, 2, counts);
    b.__setFieldValue(Basics::kUcounts, 1, ucounts);
    b.__setFieldValue(Basics::kSizes, 1, sizes);
    b.__setFieldValue(Basics::kUsizes, 1, usizes);
    b.__setFieldValue(Basics::kFlags, 2, flags);
    b.__setFieldValue(Basics::kNames, 2, names);

    int n = 0;
    int32_t* c = nullptr;
    ASSERT_TRUE(b.getCounts(n, c));
    EXPECT_EQ(c, counts);
    EXPECT_EQ(n, 2);
    uint32_t* uc = nullptr;
    ASSERT_TRUE(b.getUcounts(n, uc));
    EXPECT_EQ(uc, ucounts);
    int64_t* s = nullptr;
    ASSERT_TRUE(b.getSizes(n, s));
    EXPECT_EQ(s, sizes);
    uint64_t* us = nullptr;
    ASSERT_TRUE(b.getUsizes(n, us));
    EXPECT_EQ(us, usizes);
    bool* f = nullptr;
    ASSERT_TRUE(b.getFlags(n, f));
    EXPECT_EQ(f, flags);
    std::string* t = nullptr;
    ASSERT_TRUE(b.getNames(n, t));
    EXPECT_EQ(t, names);
    EXPECT_EQ(n, 2);

    // Adopting again releases what was adopted before.
    b.__setFieldValue(Basics::kNames, 1, new std::string[1]{"r"});
    ASSERT_TRUE(b.getNames(n, t));
    EXPECT_EQ(n, 1);
    EXPECT_EQ(t[0], "r");
}

TEST_F(Records, AdoptingRecordSettersTakeTheRecordsOver) {
    Nesting nesting;
    TezaFieldType* owner = TezaNamespaceFactory::getInstance("store", "typedef", "owner-info");
    nesting.__setFieldValue(Nesting::kOwner, owner);
    TezaFieldType* stored = nullptr;
    ASSERT_TRUE(nesting.getFieldValue(Nesting::kOwner, stored));
    EXPECT_EQ(stored, owner);

    TezaFieldType* owners = TezaNamespaceFactory::getInstances("store", 3, "typedef", "owner-info");
    nesting.__setFieldValue(Nesting::kOwners, 3, owners);
    int n = 0;
    ASSERT_TRUE(nesting.getFieldValue(Nesting::kOwners, n, stored));
    EXPECT_EQ(stored, owners);
    EXPECT_EQ(n, 3);
}

TEST_F(Records, TextSetterFromCharactersCopiesThem) {
    Basics b;
    char buffer[] = "hello";
    b.__setFieldValue(Basics::kName, buffer);
    buffer[0] = 'J';
    std::string name;
    ASSERT_TRUE(b.getName(name));
    EXPECT_EQ(name, "hello");
    b.__setFieldValue(Basics::kName, static_cast<const char*>(nullptr));
    ASSERT_TRUE(b.getName(name));
    EXPECT_EQ(name, "");
}

// --- Raw-string mode --------------------------------------------------------------------------

TEST_F(Records, RawModeIgnoresPrimitiveAndTextSetters) {
    Basics b;
    b.storeAsRawstring(true);
    const int32_t counts[] = {1};
    const std::string names[] = {"n"};
    b.setName("x");
    b.setCount(5);
    b.setUcount(5u);
    b.setSize(int64_t{5});
    b.setUsize(uint64_t{5});
    b.setEnabled(true);
    b.setCounts(1, counts);
    b.setNames(1, names);
    b.__setFieldValue(Basics::kName, "x");
    for (int i = 0; i < Basics::kNumFields; ++i) {
        EXPECT_FALSE(b.isFieldSet(i)) << i;
    }

    // Ignored adopting setters leave the arrays with the caller.
    std::unique_ptr<int32_t[]> owned(new int32_t[1]{1});
    std::unique_ptr<std::string[]> ownedTexts(new std::string[1]{"t"});
    std::unique_ptr<bool[]> ownedFlags(new bool[1]{true});
    b.__setFieldValue(Basics::kCounts, 1, owned.get());
    b.__setFieldValue(Basics::kNames, 1, ownedTexts.get());
    b.__setFieldValue(Basics::kFlags, 1, ownedFlags.get());
    EXPECT_FALSE(b.isFieldSet(Basics::kCounts));
    EXPECT_FALSE(b.isFieldSet(Basics::kNames));
    EXPECT_FALSE(b.isFieldSet(Basics::kFlags));
}

TEST_F(Records, RawModeIntegerFieldTakesItsValueAsText) {
    Basics b;
    b.storeAsRawstring(true);
    b.setFieldValue(Basics::kCount, int32_t{5});
    EXPECT_FALSE(b.isFieldSet(Basics::kCount));
    b.setRawStringValue(Basics::kCount, "5");
    EXPECT_TRUE(b.isFieldSet(Basics::kCount));
    int32_t count = 0;
    ASSERT_TRUE(b.getFieldValue(Basics::kCount, count));
    EXPECT_EQ(count, 5);
    // A later typed setter is still ignored.
    b.setCount(6);
    ASSERT_TRUE(b.getFieldValue(Basics::kCount, count));
    EXPECT_EQ(count, 5);
}

bool RawBool(const std::string& text) {
    Basics b;
    b.storeAsRawstring(true);
    b.setRawStringValue(Basics::kEnabled, text);
    bool value = false;
    bool again = true;
    EXPECT_TRUE(b.getFieldValue(Basics::kEnabled, value));
    EXPECT_TRUE(b.getFieldValue(Basics::kEnabled, again));
    // The result does not depend on what the output held before.
    EXPECT_EQ(value, again);
    return value;
}

TEST_F(Records, RawBooleanIsFalseOnlyForFourExactTexts) {
    EXPECT_FALSE(RawBool("0"));
    EXPECT_FALSE(RawBool("no"));
    EXPECT_FALSE(RawBool("off"));
    EXPECT_FALSE(RawBool("false"));
    EXPECT_TRUE(RawBool("False"));
    EXPECT_TRUE(RawBool("OFF"));
    EXPECT_TRUE(RawBool("yes"));
    EXPECT_TRUE(RawBool("1"));
    EXPECT_TRUE(RawBool(""));
    EXPECT_TRUE(RawBool("true"));
    EXPECT_TRUE(RawBool(" 0"));
}

template <typename T>
T RawNumber(int field, const std::string& text) {
    Basics b;
    b.storeAsRawstring(true);
    b.setRawStringValue(field, text);
    T value = T(123);
    EXPECT_TRUE(b.getFieldValue(field, value));
    return value;
}

TEST_F(Records, RawNumbersConvertLikeTheStandardFunctions) {
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "-1"), 4294967295u);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "abc"), 0u);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "12abc"), 12u);
    EXPECT_EQ(RawNumber<int32_t>(Basics::kCount, "-5"), -5);
    EXPECT_EQ(RawNumber<int32_t>(Basics::kCount, "  +42"), 42);
    // Converted at 64 bits, then cut to 32: 2^32 + 1 becomes 1.
    EXPECT_EQ(RawNumber<int32_t>(Basics::kCount, "4294967297"), 1);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "4294967298"), 2u);
    EXPECT_EQ(RawNumber<int64_t>(Basics::kSize, "-9223372036854775808"),
              std::numeric_limits<int64_t>::min());
    // Out of range saturates.
    EXPECT_EQ(RawNumber<int64_t>(Basics::kSize, "99999999999999999999"),
              std::numeric_limits<int64_t>::max());
    EXPECT_EQ(RawNumber<uint64_t>(Basics::kUsize, "18446744073709551615"),
              std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(RawNumber<uint64_t>(Basics::kUsize, "99999999999999999999"),
              std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(RawNumber<int64_t>(Basics::kSize, ""), 0);
    // Always base 10: no octal for a leading zero, no hexadecimal for "0x".
    EXPECT_EQ(RawNumber<int32_t>(Basics::kCount, "010"), 10);
    EXPECT_EQ(RawNumber<int32_t>(Basics::kCount, "0x1f"), 0);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "010"), 10u);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "0x1f"), 0u);
    EXPECT_EQ(RawNumber<int64_t>(Basics::kSize, "010"), 10);
    EXPECT_EQ(RawNumber<int64_t>(Basics::kSize, "0x1f"), 0);
    EXPECT_EQ(RawNumber<uint64_t>(Basics::kUsize, "010"), 10u);
    EXPECT_EQ(RawNumber<uint64_t>(Basics::kUsize, "0x1f"), 0u);
    // The raw accessors do not look at the field's type: any field's text converts.
    EXPECT_EQ(RawNumber<int32_t>(Basics::kName, "17"), 17);
}

TEST_F(Records, RawUnsignedThirtyTwoBitTextIsConvertedUnsigned) {
    // Converted unsigned, then cut: 2^63 keeps its lower half, all zero (a signed conversion
    // would saturate at 2^63 - 1 and give 4294967295).
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "9223372036854775808"), 0u);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "9223372036854775809"), 1u);
    EXPECT_EQ(RawNumber<uint32_t>(Basics::kUcount, "18446744073709551615"), 4294967295u);
}

TEST_F(Records, RawTextGettersAndTheTextGetter) {
    Basics b;
    b.storeAsRawstring(true);
    b.setRawStringValue(Basics::kName, "&lt;raw&gt;");
    b.setRawStringValue(Basics::kName, std::string("a\0b", 3));
    std::string text;
    ASSERT_TRUE(b.getRawStringValue(Basics::kName, text));
    EXPECT_EQ(text, "a");
    ASSERT_TRUE(b.getFieldValue(Basics::kName, text));
    EXPECT_EQ(text, "a");
}

TEST_F(Records, RawArraysAreTextArraysThatTypedArrayGettersRefuse) {
    Basics b;
    b.storeAsRawstring(true);
    const std::string counts[] = {"1", "2"};
    b.setRawStringValue(Basics::kCounts, 2, counts);
    std::vector<std::string> names{"x", "y", "z"};
    b.setRawStringValue(Basics::kNames, names);
    names[0] = "changed";
    EXPECT_TRUE(b.isFieldSet(Basics::kCounts));
    int n = 0;
    int32_t* items = nullptr;
    EXPECT_FALSE(b.getFieldValue(Basics::kCounts, n, items));
    std::string* texts = nullptr;
    EXPECT_FALSE(b.getFieldValue(Basics::kNames, n, texts));
    ASSERT_TRUE(b.getRawStringValue(Basics::kCounts, n, texts));
    ASSERT_EQ(n, 2);
    EXPECT_EQ(texts[1], "2");
    ASSERT_TRUE(b.getRawStringValue(Basics::kNames, n, texts));
    ASSERT_EQ(n, 3);
    EXPECT_EQ(texts[0], "x");
    // Setting again releases the previous text array.
    b.setRawStringValue(Basics::kCounts, 1, counts);
    ASSERT_TRUE(b.getRawStringValue(Basics::kCounts, n, texts));
    EXPECT_EQ(n, 1);
}

TEST_F(Records, RawModeStillHoldsNestedRecords) {
    Nesting nesting;
    nesting.storeAsRawstring(true);
    nesting.setOwner(OwnerWithId(1));
    OwnerInfo owners[2];
    nesting.setOwners(2, owners);
    OwnerInfo* stored = nullptr;
    ASSERT_TRUE(nesting.getOwner(stored));
    EXPECT_EQ(IdOf(*stored), 1);
    int n = 0;
    ASSERT_TRUE(nesting.getOwners(n, stored));
    EXPECT_EQ(n, 2);
}

TEST_F(Records, RawAccessorsDoNothingInNormalMode) {
    Basics b;
    b.setRawStringValue(Basics::kName, "x");
    const std::string texts[] = {"a"};
    b.setRawStringValue(Basics::kNames, 1, texts);
    std::vector<std::string> vec{"a"};
    b.setRawStringValue(Basics::kNames, vec);
    std::unique_ptr<std::string[]> owned(new std::string[1]{"kept"});
    b.__setRawStringValue(Basics::kNames, 1, owned.get());
    EXPECT_FALSE(b.isFieldSet(Basics::kName));
    EXPECT_FALSE(b.isFieldSet(Basics::kNames));

    b.setName("typed");
    std::string text;
    EXPECT_FALSE(b.getRawStringValue(Basics::kName, text));
    const std::string one[] = {"t"};
    b.setNames(1, one);
    int n = 0;
    std::string* items = nullptr;
    EXPECT_FALSE(b.getRawStringValue(Basics::kNames, n, items));
}

TEST_F(Records, AdoptingRawTextArrays) {
    Basics b;
    b.storeAsRawstring(true);
    std::string* first = new std::string[2]{"1", "2"};
    b.__setRawStringValue(Basics::kCounts, 2, first);
    int n = 0;
    std::string* texts = nullptr;
    ASSERT_TRUE(b.getRawStringValue(Basics::kCounts, n, texts));
    EXPECT_EQ(texts, first);
    EXPECT_EQ(n, 2);
    b.__setRawStringValue(Basics::kCounts, 1, new std::string[1]{"3"});
    ASSERT_TRUE(b.getRawStringValue(Basics::kCounts, n, texts));
    EXPECT_EQ(n, 1);
    EXPECT_EQ(texts[0], "3");

    // Checks nothing and asserts nothing: positions outside the record are ignored.
    std::unique_ptr<std::string[]> owned(new std::string[1]{"kept"});
    b.__setRawStringValue(-1, 1, owned.get());
    b.__setRawStringValue(Basics::kNumFields, 1, owned.get());
    b.__setRawStringValue(255, 1, owned.get());
    b.clear();
    b.__setRawStringValue(0, 1, owned.get());
}

TEST_F(Records, SwitchingTheModeDiscardsValuesKeepingItDoesNot) {
    Basics b;
    b.setCount(4);
    b.storeAsRawstring(false);
    EXPECT_TRUE(b.isFieldSet(Basics::kCount));
    b.storeAsRawstring(true);
    EXPECT_FALSE(b.isFieldSet(Basics::kCount));
    EXPECT_TRUE(b.isStoreAsRawString());

    b.setRawStringValue(Basics::kCount, "9");
    b.storeAsRawstring(true);
    EXPECT_TRUE(b.isFieldSet(Basics::kCount));
    int32_t count = 0;
    ASSERT_TRUE(b.getFieldValue(Basics::kCount, count));
    EXPECT_EQ(count, 9);
    b.storeAsRawstring(false);
    EXPECT_FALSE(b.isFieldSet(Basics::kCount));
    EXPECT_FALSE(b.isStoreAsRawString());
}

// --- Set bits ---------------------------------------------------------------------------------

TEST_F(Records, FieldSetMarksOnlyThatField) {
    Basics b;
    b.fieldSet(Basics::kMystery);
    EXPECT_TRUE(b.isFieldSet(Basics::kMystery));
    EXPECT_FALSE(b.isFieldSet(Basics::kMysteries));
    EXPECT_FALSE(b.isFieldSet(Basics::kName));
}

// --- Fatal misuse -----------------------------------------------------------------------------

const char kLive[] = "!_isCleared";
const char kPosition[] = "(0 <= fieldPos) && (fieldPos < _numFields)";

// A record class whose constructor leaves the record in the cleared state.
class Blank : public TezaFieldType {
  public:
    Blank() : TezaFieldType() {}
    ~Blank() override { clear(); }
    const TezaFieldTypeMetaData& getMetaData() const override { return Basics::metaData(); }
};

// Runs every field accessor on position `pos` of `r`; each one dies with `text`.
void ExpectEveryAccessorDies(TezaFieldType& r, int pos, const char* text) {
    int32_t i32 = 0;
    uint32_t u32 = 0;
    int64_t i64 = 0;
    uint64_t u64 = 0;
    bool flag = false;
    std::string s;
    TezaFieldType* rec = nullptr;
    int n = 0;
    int32_t* ai32 = nullptr;
    uint32_t* au32 = nullptr;
    int64_t* ai64 = nullptr;
    uint64_t* au64 = nullptr;
    bool* abool = nullptr;
    std::string* as = nullptr;
    std::vector<TezaFieldType*> recs;
    std::vector<std::string> texts;
    OwnerInfo owner;
    auto matcher = AssertionText(text);

    EXPECT_DEATH(r.fieldSet(pos), matcher);
    EXPECT_DEATH(r.isFieldSet(pos), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, int32_t{1}), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, uint32_t{1}), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, int64_t{1}), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, uint64_t{1}), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, true), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, std::string("x")), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, owner), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 0, static_cast<const int32_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 0, static_cast<const uint32_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 0, static_cast<const int64_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 0, static_cast<const uint64_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 0, static_cast<const bool*>(nullptr)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 0, static_cast<const std::string*>(nullptr)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, 1, static_cast<const TezaFieldType*>(&owner)), matcher);
    EXPECT_DEATH(r.setFieldValue(pos, recs), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<int32_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<uint32_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<int64_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<uint64_t*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<bool*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<std::string*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, 0, static_cast<TezaFieldType*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, static_cast<TezaFieldType*>(nullptr)), matcher);
    EXPECT_DEATH(r.__setFieldValue(pos, "x"), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, i32), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, u32), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, i64), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, u64), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, flag), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, s), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, rec), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, ai32), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, au32), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, ai64), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, au64), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, abool), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, as), matcher);
    EXPECT_DEATH(r.getFieldValue(pos, n, rec), matcher);
    EXPECT_DEATH(r.setRawStringValue(pos, "x"), matcher);
    EXPECT_DEATH(r.setRawStringValue(pos, 0, static_cast<const std::string*>(nullptr)), matcher);
    EXPECT_DEATH(r.setRawStringValue(pos, texts), matcher);
    EXPECT_DEATH(r.getRawStringValue(pos, s), matcher);
    EXPECT_DEATH(r.getRawStringValue(pos, n, as), matcher);
}

TEST(RecordsDeathTest, EveryAccessorOfADefaultConstructedRecordAborts) {
    Blank blank;
    ExpectEveryAccessorDies(blank, 0, kLive);
}

TEST(RecordsDeathTest, EveryAccessorOfAClearedRecordAborts) {
    Basics b;
    b.setName("x");
    b.clear();
    ExpectEveryAccessorDies(b, 0, kLive);
}

TEST(RecordsDeathTest, EveryAccessorChecksThePositionFromBelow) {
    Basics b;
    ExpectEveryAccessorDies(b, -1, kPosition);
}

TEST(RecordsDeathTest, EveryAccessorChecksThePositionFromAbove) {
    Basics b;
    ExpectEveryAccessorDies(b, Basics::kNumFields, kPosition);
}

TEST(RecordsDeathTest, ReportNamesTheSourceAndTheAccessor) {
    Basics b;
    EXPECT_DEATH(b.fieldSet(99),
                 ::testing::AllOf(
                     ::testing::HasSubstr("libs/dynamic/autoteza/generator/src/TezaFieldType.cpp"),
                     ::testing::HasSubstr("void TezaFieldType::fieldSet(int32_t)"),
                     AssertionText(kPosition)));
}

TEST(RecordsDeathTest, AssertionsRunInOrderLiveFirst) {
    Blank blank;
    // A cleared record has no fields: the liveness check fires before the position check.
    EXPECT_DEATH(blank.isFieldSet(5), AssertionText(kLive));
}

}  // namespace
