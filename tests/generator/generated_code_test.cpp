// Code generated from tests/generator/schemas/depot.teza at build time, exercised through the
// runtime: descriptors field by field, every kind of accessor, deep copies, the namespace
// factory and its typedef chains, and the trackers the runtime looks up.

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TezaFieldType.h"
#include "TezaFieldTypeMetaData.h"
#include "TezaNamespaceFactory.h"
#include "TezaTracer.h"
#include "depot.h"
#include "element_text.h"

namespace {

using depot::AccountCreateRequest;
using depot::AccountInfo;
using depot::BucketInfo;
using depot::BucketListReply;
using depot::ContactInfo;
using MD = TezaFieldTypeMetaData;

// The factories are registered the way the runtime does it at start-up.
class Generated : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { TezaNamespaceFactory::registerDefaultTypeFactory(); }
};

ContactInfo Contact(const std::string& email, const std::string& phone) {
    ContactInfo contact;
    contact.setEmail(email);
    contact.setPhone(phone);
    return contact;
}

std::string Email(const ContactInfo& contact) {
    std::string email;
    EXPECT_TRUE(contact.getEmail(email));
    return email;
}

BucketInfo Bucket(const std::string& name) {
    BucketInfo bucket;
    bucket.setBucketName(name);
    bucket.setReplicaZones({"zone-a", "zone-b"});
    return bucket;
}

std::string BucketName(const BucketInfo& bucket) {
    std::string name;
    EXPECT_TRUE(bucket.getBucketName(name));
    return name;
}

// --- Descriptors --------------------------------------------------------------------------

struct ExpectedField {
    const char* name;
    MD::TezaBasicType type;
    const char* typeStr;
    bool array, optional, encrypted, validate, nonEmpty, nestedTypedef;
};

void ExpectDescriptor(const MD& md, const char* name, const std::vector<ExpectedField>& fields) {
    EXPECT_STREQ(md.getNamespace(), "depot");
    EXPECT_STREQ(md.getName(), name);
    ASSERT_EQ(md.getNumFields(), static_cast<int>(fields.size()));
    for (int i = 0; i < md.getNumFields(); ++i) {
        const ExpectedField& f = fields[static_cast<size_t>(i)];
        SCOPED_TRACE(f.name);
        EXPECT_STREQ(md.getFieldNameStr(i), f.name);
        EXPECT_EQ(md.getFieldType(i), f.type);
        EXPECT_STREQ(md.getFieldTypeStr(i), f.typeStr);
        EXPECT_EQ(md.isFieldArrayType(i), f.array);
        EXPECT_EQ(md.isFieldOptional(i), f.optional);
        EXPECT_EQ(md.isFieldEncrypted(i), f.encrypted);
        EXPECT_EQ(md.isFieldValidate(i), f.validate);
        EXPECT_EQ(md.isFieldNonEmpty(i), f.nonEmpty);
        EXPECT_EQ(md.isFieldNestedTypedef(i), f.nestedTypedef);
    }
}

TEST_F(Generated, AccountInfoDescriptorMatchesTheSchemaFieldByField) {
    // name, type, type string, array, optional, encrypted, validate, non-empty, typedef
    ExpectDescriptor(AccountInfo::metaData(), "account-info",
                     {
                         {"account-name", MD::STRING_TYPE, "account-name", 0, 0, 0, 1, 1, 1},
                         {"account-id", MD::UINT64_TYPE, "integer", 0, 0, 0, 0, 0, 0},
                         {"display-name", MD::STRING_TYPE, "string", 0, 1, 0, 0, 0, 0},
                         {"is-enabled", MD::BOOL_TYPE, "boolean", 0, 0, 0, 0, 0, 0},
                         {"quota-bytes", MD::UINT64_TYPE, "integer", 0, 1, 0, 0, 0, 0},
                         {"used-bytes", MD::INT64_TYPE, "integer", 0, 1, 0, 0, 0, 0},
                         {"max-buckets", MD::UINT32_TYPE, "integer", 0, 1, 0, 0, 0, 0},
                         {"priority", MD::INT32_TYPE, "integer", 0, 1, 0, 0, 0, 0},
                         {"password", MD::STRING_TYPE, "string", 0, 1, 1, 0, 0, 0},
                         {"pin", MD::UINT32_TYPE, "integer", 0, 1, 1, 0, 0, 0},
                         {"tags", MD::STRING_TYPE, "string", 1, 1, 0, 0, 0, 0},
                         {"contact-info", MD::TYPEDEF_TYPE, "contact-info", 0, 1, 0, 0, 0, 0},
                         {"contacts", MD::TYPEDEF_TYPE, "contact-info", 1, 1, 0, 0, 0, 0},
                     });
    EXPECT_EQ(AccountInfo::NUM_FIELDS, 13);
    EXPECT_EQ(AccountInfo::FIELD_CONTACTS, 12);
}

TEST_F(Generated, BucketDescriptorsMatchTheSchemaFieldByField) {
    ExpectDescriptor(BucketInfo::metaData(), "bucket-info",
                     {
                         {"bucket-name", MD::STRING_TYPE, "string", 0, 0, 0, 0, 1, 0},
                         {"owner", MD::STRING_TYPE, "account-name", 0, 0, 0, 0, 0, 1},
                         {"size-limits", MD::UINT64_TYPE, "integer", 1, 1, 0, 0, 0, 0},
                         {"flags", MD::BOOL_TYPE, "boolean", 1, 1, 0, 0, 0, 0},
                         {"replica-zones", MD::STRING_TYPE, "zone-name", 1, 1, 0, 0, 0, 1},
                         {"retention-days", MD::INT32_TYPE, "integer", 1, 1, 0, 0, 0, 0},
                         {"object-counts", MD::UINT32_TYPE, "integer", 1, 1, 0, 0, 0, 0},
                         {"offsets", MD::INT64_TYPE, "integer", 1, 1, 0, 0, 0, 0},
                     });
    ExpectDescriptor(BucketListReply::metaData(), "bucket-list-reply",
                     {
                         {"buckets", MD::TYPEDEF_TYPE, "bucket-list", 1, 0, 0, 0, 0, 1},
                         {"num-records", MD::UINT32_TYPE, "integer", 0, 0, 0, 0, 0, 0},
                     });
    ExpectDescriptor(
        AccountCreateRequest::metaData(), "account-create-request",
        {
            {"account", MD::TYPEDEF_TYPE, "account-info", 0, 0, 0, 0, 0, 0},
            {"initial-bucket", MD::TYPEDEF_TYPE, "bucket-attributes", 0, 1, 0, 0, 0, 1},
        });
}

TEST_F(Generated, EveryRecordReturnsItsOneSharedDescriptor) {
    AccountInfo a;
    AccountInfo b;
    EXPECT_EQ(&a.getMetaData(), &AccountInfo::metaData());
    EXPECT_EQ(&b.getMetaData(), &a.getMetaData());
    EXPECT_NE(&a.getMetaData(), &ContactInfo::metaData());
}

// --- Accessors of basic values ------------------------------------------------------------

TEST_F(Generated, SingleValuesOfEveryBasicTypeAreSetAndRead) {
    AccountInfo account;
    account.setAccountName("alice");
    account.setAccountId(std::numeric_limits<uint64_t>::max());
    account.setIsEnabled(true);
    account.setUsedBytes(std::numeric_limits<int64_t>::min());
    account.setMaxBuckets(4000000000u);
    account.setPriority(-7);

    std::string name;
    uint64_t id = 0;
    bool enabled = false;
    int64_t used = 0;
    uint32_t maxBuckets = 0;
    int32_t priority = 0;
    ASSERT_TRUE(account.getAccountName(name));
    ASSERT_TRUE(account.getAccountId(id));
    ASSERT_TRUE(account.getIsEnabled(enabled));
    ASSERT_TRUE(account.getUsedBytes(used));
    ASSERT_TRUE(account.getMaxBuckets(maxBuckets));
    ASSERT_TRUE(account.getPriority(priority));
    EXPECT_EQ(name, "alice");
    EXPECT_EQ(id, std::numeric_limits<uint64_t>::max());
    EXPECT_TRUE(enabled);
    EXPECT_EQ(used, std::numeric_limits<int64_t>::min());
    EXPECT_EQ(maxBuckets, 4000000000u);
    EXPECT_EQ(priority, -7);
    EXPECT_TRUE(account.isAccountNameSet());
    EXPECT_TRUE(account.isFieldSet(AccountInfo::FIELD_PRIORITY));
}

TEST_F(Generated, UnsetFieldsReadAsFalseAndLeaveTheOutputAlone) {
    AccountInfo account;
    std::string name = "untouched";
    uint64_t quota = 99;
    std::vector<std::string> tags = {"kept"};
    EXPECT_FALSE(account.isDisplayNameSet());
    EXPECT_FALSE(account.getDisplayName(name));
    EXPECT_FALSE(account.getQuotaBytes(quota));
    EXPECT_FALSE(account.getTags(tags));
    EXPECT_EQ(account.getContactInfo(), nullptr);
    EXPECT_EQ(name, "untouched");
    EXPECT_EQ(quota, 99u);
    EXPECT_EQ(tags, std::vector<std::string>{"kept"});
}

TEST_F(Generated, SettingAgainReplacesTheValue) {
    AccountInfo account;
    account.setDisplayName("first");
    account.setDisplayName("second");
    std::string name;
    ASSERT_TRUE(account.getDisplayName(name));
    EXPECT_EQ(name, "second");
}

TEST_F(Generated, ArraysOfEveryBasicTypeAreSetAndRead) {
    BucketInfo bucket;
    bucket.setSizeLimits({1, std::numeric_limits<uint64_t>::max()});
    bucket.setFlags({true, false, true});
    bucket.setReplicaZones({"zone-a", "zone-b"});
    bucket.setRetentionDays({-1, 0, 30});
    bucket.setObjectCounts({7});
    bucket.setOffsets({std::numeric_limits<int64_t>::min()});

    std::vector<uint64_t> limits;
    std::vector<bool> flags;
    std::vector<std::string> zones;
    std::vector<int32_t> days;
    std::vector<uint32_t> counts;
    std::vector<int64_t> offsets;
    ASSERT_TRUE(bucket.getSizeLimits(limits));
    ASSERT_TRUE(bucket.getFlags(flags));
    ASSERT_TRUE(bucket.getReplicaZones(zones));
    ASSERT_TRUE(bucket.getRetentionDays(days));
    ASSERT_TRUE(bucket.getObjectCounts(counts));
    ASSERT_TRUE(bucket.getOffsets(offsets));
    EXPECT_EQ(limits, (std::vector<uint64_t>{1, std::numeric_limits<uint64_t>::max()}));
    EXPECT_EQ(flags, (std::vector<bool>{true, false, true}));
    EXPECT_EQ(zones, (std::vector<std::string>{"zone-a", "zone-b"}));
    EXPECT_EQ(days, (std::vector<int32_t>{-1, 0, 30}));
    EXPECT_EQ(counts, std::vector<uint32_t>{7});
    EXPECT_EQ(offsets, std::vector<int64_t>{std::numeric_limits<int64_t>::min()});

    int count = 0;
    bool* stored = nullptr;
    ASSERT_TRUE(bucket.getFieldValue(BucketInfo::FIELD_FLAGS, count, stored));
    EXPECT_EQ(count, 3);
}

TEST_F(Generated, AnEmptyArrayIsSetWithNoItems) {
    AccountInfo account;
    account.setTags({});
    std::vector<std::string> tags = {"old"};
    EXPECT_TRUE(account.isTagsSet());
    ASSERT_TRUE(account.getTags(tags));
    EXPECT_TRUE(tags.empty());
}

TEST_F(Generated, RawTextAccessorsServeARecordInRawStringMode) {
    AccountInfo account;
    account.storeAsRawstring(true);
    // Typed setters do nothing in raw-string mode.
    account.setPriority(5);
    EXPECT_FALSE(account.isPrioritySet());

    account.setPriorityRaw("-12");
    account.setAccountIdRaw("42");
    account.setIsEnabledRaw("no");
    account.setTagsRaw({"a", "b"});
    int32_t priority = 0;
    uint64_t id = 0;
    bool enabled = true;
    std::string raw;
    std::vector<std::string> tags;
    ASSERT_TRUE(account.getPriority(priority));
    ASSERT_TRUE(account.getAccountId(id));
    ASSERT_TRUE(account.getIsEnabled(enabled));
    ASSERT_TRUE(account.getAccountIdRaw(raw));
    ASSERT_TRUE(account.getTagsRaw(tags));
    EXPECT_EQ(priority, -12);
    EXPECT_EQ(id, 42u);
    EXPECT_FALSE(enabled);
    EXPECT_EQ(raw, "42");
    EXPECT_EQ(tags, (std::vector<std::string>{"a", "b"}));
    // The typed array getter has nothing to convert into in raw-string mode.
    std::vector<std::string> typed;
    EXPECT_FALSE(account.getTags(typed));
}

TEST_F(Generated, RawGettersReadNothingInNormalMode) {
    AccountInfo account;
    account.setAccountName("alice");
    std::string raw;
    EXPECT_FALSE(account.getAccountNameRaw(raw));
    account.setAccountNameRaw("ignored");
    std::string name;
    ASSERT_TRUE(account.getAccountName(name));
    EXPECT_EQ(name, "alice");
}

// --- Nested records -----------------------------------------------------------------------

TEST_F(Generated, ANestedRecordIsStoredAsAnIndependentCopy) {
    AccountInfo account;
    ContactInfo contact = Contact("a@example.org", "123");
    account.setContactInfo(contact);
    contact.setEmail("changed@example.org");

    const ContactInfo* lent = account.getContactInfo();
    ASSERT_NE(lent, nullptr);
    EXPECT_NE(lent, &contact);
    EXPECT_EQ(&lent->getMetaData(), &ContactInfo::metaData());
    EXPECT_EQ(Email(*lent), "a@example.org");

    ContactInfo copy;
    ASSERT_TRUE(account.getContactInfo(copy));
    copy.setEmail("copy@example.org");
    EXPECT_EQ(Email(*account.getContactInfo()), "a@example.org");
    std::string phone;
    ASSERT_TRUE(copy.getPhone(phone));
    EXPECT_EQ(phone, "123");
}

TEST_F(Generated, ArraysOfNestedRecordsAreCopiedBothWays) {
    AccountInfo account;
    std::vector<ContactInfo> contacts = {Contact("a@x", "1"), Contact("b@x", "2"),
                                         Contact("c@x", "3")};
    account.setContacts(contacts);
    contacts[0].setEmail("changed@x");

    int count = 0;
    const ContactInfo* lent = nullptr;
    ASSERT_TRUE(account.getContacts(count, lent));
    ASSERT_EQ(count, 3);
    EXPECT_EQ(Email(lent[0]), "a@x");
    EXPECT_EQ(Email(lent[2]), "c@x");

    std::vector<ContactInfo> read;
    ASSERT_TRUE(account.getContacts(read));
    ASSERT_EQ(read.size(), 3u);
    read[1].setEmail("changed@x");
    EXPECT_EQ(Email(lent[1]), "b@x");
    EXPECT_EQ(Email(read[2]), "c@x");
}

TEST_F(Generated, RecordsBehindATypedefChainAreMadeAsTheLowestLevelType) {
    BucketListReply reply;
    reply.setBuckets({Bucket("one"), Bucket("two")});
    int count = 0;
    const BucketInfo* buckets = nullptr;
    ASSERT_TRUE(reply.getBuckets(count, buckets));
    ASSERT_EQ(count, 2);
    // "bucket-list" -> "bucket-attributes" -> "bucket-info": the factory made BucketInfo.
    EXPECT_EQ(&buckets[1].getMetaData(), &BucketInfo::metaData());
    EXPECT_EQ(BucketName(buckets[1]), "two");

    AccountCreateRequest request;
    request.setInitialBucket(Bucket("first"));
    const BucketInfo* initial = request.getInitialBucket();
    ASSERT_NE(initial, nullptr);
    EXPECT_EQ(&initial->getMetaData(), &BucketInfo::metaData());
    EXPECT_EQ(BucketName(*initial), "first");
}

// --- Copies -------------------------------------------------------------------------------

AccountInfo FilledAccount() {
    AccountInfo account;
    account.setAccountName("alice");
    account.setQuotaBytes(1000);
    account.setTags({"x", "y"});
    account.setContactInfo(Contact("a@x", "1"));
    account.setContacts({Contact("b@x", "2")});
    return account;
}

void ExpectFilledAccount(const AccountInfo& account) {
    std::string name;
    uint64_t quota = 0;
    std::vector<std::string> tags;
    std::vector<ContactInfo> contacts;
    ASSERT_TRUE(account.getAccountName(name));
    ASSERT_TRUE(account.getQuotaBytes(quota));
    ASSERT_TRUE(account.getTags(tags));
    ASSERT_NE(account.getContactInfo(), nullptr);
    ASSERT_TRUE(account.getContacts(contacts));
    EXPECT_EQ(name, "alice");
    EXPECT_EQ(quota, 1000u);
    EXPECT_EQ(tags, (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(Email(*account.getContactInfo()), "a@x");
    ASSERT_EQ(contacts.size(), 1u);
    EXPECT_EQ(Email(contacts[0]), "b@x");
    EXPECT_FALSE(account.isPrioritySet());
}

TEST_F(Generated, CopyConstructionIsDeep) {
    AccountInfo original = FilledAccount();
    AccountInfo copy(original);
    ExpectFilledAccount(copy);
    EXPECT_NE(copy.getContactInfo(), original.getContactInfo());
    original.setAccountName("bob");
    original.setContactInfo(Contact("other@x", "9"));
    ExpectFilledAccount(copy);
}

TEST_F(Generated, AssignmentIsDeepAndSelfAssignmentKeepsTheValues) {
    AccountInfo original = FilledAccount();
    AccountInfo target;
    target.setPriority(3);
    target = original;
    ExpectFilledAccount(target);
    original.setTags({"changed"});
    ExpectFilledAccount(target);

    AccountInfo& same = target;
    target = same;
    ExpectFilledAccount(target);
}

TEST_F(Generated, RecordsLiveInStandardContainers) {
    std::vector<AccountInfo> accounts;
    for (int i = 0; i < 5; ++i) {
        accounts.push_back(FilledAccount());
    }
    for (const AccountInfo& account : accounts) {
        ExpectFilledAccount(account);
    }
}

// --- Records on the wire ------------------------------------------------------------------

// The element shapes of docs/schema.md: a record field is wrapped in its type's element unless
// both have one name, a typedef of a basic type names array items, and each level of a typedef
// chain is one element.
TEST_F(Generated, RecordsWriteTheDocumentedElementShapes) {
    AccountCreateRequest request;
    AccountInfo account;
    account.setAccountName("alice");
    account.setTags({"x"});
    account.setContactInfo(Contact("a@x", "1"));
    account.setContacts({Contact("b@x", "2")});
    request.setAccount(account);
    request.setInitialBucket(Bucket("one"));

    testsupport::Elem in = testsupport::NewElem("account-create");
    request.constructRkChildElement(in.get());
    EXPECT_EQ(testsupport::Xml(in.get()),
              "<account-create>\n"
              "  <account>\n"
              "    <account-info>\n"
              "      <account-name>alice</account-name>\n"
              "      <tags>\n"
              "        <string>x</string>\n"
              "      </tags>\n"
              "      <contact-info>\n"
              "        <email>a@x</email>\n"
              "        <phone>1</phone>\n"
              "      </contact-info>\n"
              "      <contacts>\n"
              "        <contact-info>\n"
              "          <email>b@x</email>\n"
              "          <phone>2</phone>\n"
              "        </contact-info>\n"
              "      </contacts>\n"
              "    </account-info>\n"
              "  </account>\n"
              "  <initial-bucket>\n"
              "    <bucket-attributes>\n"
              "      <bucket-info>\n"
              "        <bucket-name>one</bucket-name>\n"
              "        <replica-zones>\n"
              "          <zone-name>zone-a</zone-name>\n"
              "          <zone-name>zone-b</zone-name>\n"
              "        </replica-zones>\n"
              "      </bucket-info>\n"
              "    </bucket-attributes>\n"
              "  </initial-bucket>\n"
              "</account-create>\n");
}

TEST_F(Generated, ArraysBehindATypedefChainWriteOneElementPerLevel) {
    BucketListReply reply;
    reply.setBuckets({Bucket("one"), Bucket("two")});
    reply.setNumRecords(2);
    testsupport::Elem out = testsupport::NewElem("results");
    reply.constructRkChildElement(out.get());
    EXPECT_EQ(testsupport::Xml(out.get()),
              "<results>\n"
              "  <buckets>\n"
              "    <bucket-list>\n"
              "      <bucket-attributes>\n"
              "        <bucket-info>\n"
              "          <bucket-name>one</bucket-name>\n"
              "          <replica-zones>\n"
              "            <zone-name>zone-a</zone-name>\n"
              "            <zone-name>zone-b</zone-name>\n"
              "          </replica-zones>\n"
              "        </bucket-info>\n"
              "        <bucket-info>\n"
              "          <bucket-name>two</bucket-name>\n"
              "          <replica-zones>\n"
              "            <zone-name>zone-a</zone-name>\n"
              "            <zone-name>zone-b</zone-name>\n"
              "          </replica-zones>\n"
              "        </bucket-info>\n"
              "      </bucket-attributes>\n"
              "    </bucket-list>\n"
              "  </buckets>\n"
              "  <num-records>2</num-records>\n"
              "</results>\n");
}

TEST_F(Generated, ARecordReadsBackWhatItWrote) {
    depot::AccountGetReply reply;
    reply.setAccount(FilledAccount());
    testsupport::Elem written = testsupport::NewElem("results");
    reply.constructRkChildElement(written.get());

    // Through the wire text, as a response arrives.
    testsupport::Elem received = testsupport::ParseXml(testsupport::Xml(written.get()));
    depot::AccountGetReply read;
    read.parseRkChildElement(received.get());
    const AccountInfo* account = read.getAccount();
    ASSERT_NE(account, nullptr);
    ExpectFilledAccount(*account);
    EXPECT_EQ(read.toString(0), reply.toString(0));
}

// --- The namespace factory ----------------------------------------------------------------

struct ArrayDeleter {
    void operator()(TezaFieldType* records) const { delete[] static_cast<AccountInfo*>(records); }
};

TEST_F(Generated, TheFactoryIsRegisteredUnderTheNamespace) {
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("depot"), &depot::DepotTypeFactory::instance());
    EXPECT_EQ(TezaNamespaceFactory::getTypeFactory("Depot"), nullptr);
}

TEST_F(Generated, FactoryMakesRecordsByTypeName) {
    std::unique_ptr<TezaFieldType> record(
        TezaNamespaceFactory::getInstance("depot", "typedef", "account-info"));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(&record->getMetaData(), &AccountInfo::metaData());
    EXPECT_FALSE(record->isFieldSet(AccountInfo::FIELD_ACCOUNT_NAME));

    std::unique_ptr<TezaFieldType, ArrayDeleter> records(
        TezaNamespaceFactory::getInstances("depot", 3, "typedef", "account-info"));
    ASSERT_NE(records, nullptr);
    static_cast<AccountInfo*>(records.get())[2].setPriority(1);
    EXPECT_TRUE(static_cast<AccountInfo*>(records.get())[2].isPrioritySet());
}

TEST_F(Generated, FactoryKnowsNoOtherNames) {
    EXPECT_EQ(TezaNamespaceFactory::getInstance("depot", "typedef", "no-such-type"), nullptr);
    // Typedef names are resolved by the caller through the chain, not by the factory.
    EXPECT_EQ(TezaNamespaceFactory::getInstance("depot", "typedef", "bucket-list"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstance("elsewhere", "typedef", "account-info"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstances("depot", 2, "typedef", "no-such-type"), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::getInstances("depot", -1, "typedef", "account-info"), nullptr);
}

TEST_F(Generated, FactoryCopiesRecordsDeeply) {
    AccountInfo original = FilledAccount();
    std::unique_ptr<TezaFieldType> copy(
        TezaNamespaceFactory::copyInstance("depot", "account-info", original));
    ASSERT_NE(copy, nullptr);
    ExpectFilledAccount(static_cast<const AccountInfo&>(*copy));

    std::vector<AccountInfo> originals = {FilledAccount(), FilledAccount()};
    const TezaFieldType* first = originals.data();
    std::unique_ptr<TezaFieldType, ArrayDeleter> copies(
        TezaNamespaceFactory::copyInstances("depot", "account-info", 2, first));
    ASSERT_NE(copies, nullptr);
    ExpectFilledAccount(static_cast<AccountInfo*>(copies.get())[1]);

    std::vector<TezaFieldType*> pointers = {&originals[1], &original};
    std::unique_ptr<TezaFieldType, ArrayDeleter> fromPointers(
        TezaNamespaceFactory::copyInstances("depot", "account-info", pointers));
    ASSERT_NE(fromPointers, nullptr);
    ExpectFilledAccount(static_cast<AccountInfo*>(fromPointers.get())[0]);
    ExpectFilledAccount(static_cast<AccountInfo*>(fromPointers.get())[1]);
}

TEST_F(Generated, FactoryRefusesToCopyARecordOfAnotherType) {
    ContactInfo contact = Contact("a@x", "1");
    EXPECT_EQ(TezaNamespaceFactory::copyInstance("depot", "account-info", contact), nullptr);
    const TezaFieldType* first = &contact;
    EXPECT_EQ(TezaNamespaceFactory::copyInstances("depot", "account-info", 1, first), nullptr);
    AccountInfo account;
    std::vector<TezaFieldType*> pointers = {&account, &contact};
    EXPECT_EQ(TezaNamespaceFactory::copyInstances("depot", "account-info", pointers), nullptr);
    std::vector<TezaFieldType*> withNull = {&account, nullptr};
    EXPECT_EQ(TezaNamespaceFactory::copyInstances("depot", "account-info", withNull), nullptr);
    EXPECT_EQ(TezaNamespaceFactory::copyInstance("depot", "no-such-type", account), nullptr);
}

TEST_F(Generated, FactoryResolvesTypedefChainsDownToTheLowestLevelType) {
    using Chain = std::vector<std::string>;
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("depot", "bucket-list"),
              (Chain{"bucket-attributes", "bucket-info"}));
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("depot", "bucket-attributes"),
              Chain{"bucket-info"});
    // A typedef of a basic type, a type and an unknown name have no chain.
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("depot", "zone-name"), Chain{});
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("depot", "bucket-info"), Chain{});
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("depot", "nothing"), Chain{});
    EXPECT_EQ(TezaNamespaceFactory::getNestedTypedefHierarchy("other", "bucket-list"), Chain{});
}

// --- Families and trackers ----------------------------------------------------------------

TEST_F(Generated, TheRuntimeFindsEveryApiTrackerByInterfaceIdAndIndex) {
    using depot::AccountFamily;
    using depot::BucketFamily;
    TezaTracer* get = TezaNS_depot::getTezaTracker(1, AccountFamily::API_ACCOUNT_GET);
    TezaTracer* version = TezaNS_depot::getTezaTracker(2, BucketFamily::API_DEPOT_VERSION);
    ASSERT_NE(get, nullptr);
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(get->getTraceName(), "account-get");
    EXPECT_EQ(version->getTraceName(), "depot-version");
    EXPECT_EQ(TezaNS_depot::getTezaTracker(1, AccountFamily::API_ACCOUNT_GET), get);
    EXPECT_EQ(AccountFamily::getTracker(AccountFamily::API_ACCOUNT_GET), get);
    EXPECT_EQ(depot::getTracker(2, BucketFamily::API_DEPOT_VERSION), version);
    EXPECT_NE(dynamic_cast<AccountFamily::AccountGetTracker*>(get), nullptr);

    EXPECT_EQ(TezaNS_depot::getTezaTracker(3, 0), nullptr);
    EXPECT_EQ(TezaNS_depot::getTezaTracker(1, AccountFamily::NUM_APIS), nullptr);
    EXPECT_EQ(TezaNS_depot::getTezaTracker(1, -1), nullptr);
}

TEST_F(Generated, TraceLevelsAreSetPerApiOrPerFamily) {
    using depot::BucketFamily;
    TezaTracer* list = BucketFamily::getTracker(BucketFamily::API_BUCKET_LIST);
    TezaTracer* remove = BucketFamily::getTracker(BucketFamily::API_BUCKET_DELETE);
    list->setTraceLevel(3);
    EXPECT_EQ(list->getTraceLevel(), 3);
    EXPECT_EQ(remove->getTraceLevel(), 0);
    BucketFamily::setTraceLevel(2);
    for (int api = 0; api < BucketFamily::NUM_APIS; ++api) {
        EXPECT_EQ(BucketFamily::getTracker(api)->getTraceLevel(), 2);
    }
    BucketFamily::setTraceLevel(0);
    EXPECT_EQ(depot::AccountFamily::getTracker(0)->getTraceLevel(), 0);
}

TEST_F(Generated, TrackersCountPerApi) {
    using depot::AccountFamily;
    TezaCounter& counter = AccountFamily::getTracker(AccountFamily::API_DEPOT_PING)->getCounter();
    uint64_t before = counter.getSuccesses();
    counter.success(false);
    EXPECT_EQ(counter.getSuccesses(), before + 1);
    EXPECT_EQ(
        AccountFamily::getTracker(AccountFamily::API_ACCOUNT_LIST)->getCounter().getSuccesses(),
        0u);
}

TEST_F(Generated, FamiliesNameTheirApis) {
    using depot::AccountFamily;
    EXPECT_EQ(AccountFamily::INTERFACE_ID, 1);
    EXPECT_EQ(depot::BucketFamily::INTERFACE_ID, 2);
    EXPECT_STREQ(AccountFamily::getInterfaceName(), "account");
    EXPECT_EQ(AccountFamily::NUM_APIS, 4);
    EXPECT_EQ(AccountFamily::getApiName(AccountFamily::API_ACCOUNT_CREATE), "account-create");
    EXPECT_EQ(AccountFamily::getApiName(AccountFamily::API_DEPOT_PING), "depot-ping");
    EXPECT_EQ(AccountFamily::getApiName(4), "");
    EXPECT_EQ(AccountFamily::getApiName(-1), "");
}

// Factories, descriptors and trackers are built on first use; threads that meet them first at
// the same time all get the same, complete objects.
TEST_F(Generated, ManyThreadsShareFactoriesDescriptorsAndTrackers) {
    constexpr int kThreads = 8;
    std::vector<const TezaFieldTypeMetaData*> descriptors(kThreads);
    std::vector<TezaTracer*> trackers(kThreads);
    std::vector<int> copiesMade(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &descriptors, &trackers, &copiesMade] {
            descriptors[t] = &depot::DepotVersion::metaData();
            trackers[t] = TezaNS_depot::getTezaTracker(2, depot::BucketFamily::API_BUCKET_DELETE);
            AccountInfo original = FilledAccount();
            for (int i = 0; i < 50; ++i) {
                std::unique_ptr<TezaFieldType> copy(
                    TezaNamespaceFactory::copyInstance("depot", "account-info", original));
                copiesMade[t] += copy != nullptr;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(descriptors[t], descriptors[0]);
        EXPECT_EQ(trackers[t], trackers[0]);
        EXPECT_EQ(copiesMade[t], 50);
    }
    EXPECT_EQ(trackers[0]->getTraceName(), "bucket-delete");
}

}  // namespace
