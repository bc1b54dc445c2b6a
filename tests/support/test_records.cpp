#include "test_records.h"

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <initializer_list>
#include <utility>

namespace {

typedef TezaFieldTypeMetaData MD;

// A flag set with the given bits on.
std::bitset<256> Bits(std::initializer_list<int> positions) {
    std::bitset<256> bits;
    for (int position : positions) {
        bits.set(position);
    }
    return bits;
}

const std::bitset<256> kNoFields;

// --- What a generated factory does for each of its types --------------------------------------

template <typename R>
TezaFieldType* MakeOne() {
    return new R;
}

template <typename R>
TezaFieldType* MakeMany(int count) {
    return count < 0 ? NULL : new R[count];
}

template <typename R>
TezaFieldType* CopyOne(const TezaFieldType& source) {
    R* copy = new R;
    static_cast<TezaFieldType&>(*copy) = source;
    return copy;
}

// `source` is an array of R: it is stepped through as R, whose size is that of TezaFieldType.
template <typename R>
TezaFieldType* CopyMany(int count, const TezaFieldType* source) {
    if (count < 0 || (source == NULL && count > 0)) {
        return NULL;
    }
    R* copies = new R[count];
    for (int k = 0; k < count; ++k) {
        static_cast<TezaFieldType&>(copies[k]) = static_cast<const R*>(source)[k];
    }
    return copies;
}

template <typename R>
TezaFieldType* CopyVector(std::vector<TezaFieldType*>& source) {
    R* copies = new R[source.size()];
    for (size_t k = 0; k < source.size(); ++k) {
        if (source[k] != NULL) {
            static_cast<TezaFieldType&>(copies[k]) = *source[k];
        }
    }
    return copies;
}

struct TypeEntry {
    const char* name;
    TezaFieldType* (*makeOne)();
    TezaFieldType* (*makeMany)(int);
    TezaFieldType* (*copyOne)(const TezaFieldType&);
    TezaFieldType* (*copyMany)(int, const TezaFieldType*);
    TezaFieldType* (*copyVector)(std::vector<TezaFieldType*>&);
};

template <typename R>
TypeEntry Entry(const char* name) {
    return TypeEntry{name, MakeOne<R>, MakeMany<R>, CopyOne<R>, CopyMany<R>, CopyVector<R>};
}

struct HierarchyEntry {
    const char* typeName;
    std::vector<std::string> hierarchy;
};

// A namespace's factory: looks type names up in its tables. Stateless after construction, so
// safe to call from any number of threads. The category is not consulted: every record the
// runtime asks for is of the "typedef" category.
class TableTypeFactory : public TezaFieldTypeFactory {
  public:
    TableTypeFactory(std::vector<TypeEntry> types, std::vector<HierarchyEntry> hierarchies)
        : _types(std::move(types)), _hierarchies(std::move(hierarchies)) {}

    TezaFieldType* getInstance(const std::string&, const std::string& typeName) const override {
        const TypeEntry* entry = find(typeName);
        return entry == NULL ? NULL : entry->makeOne();
    }
    TezaFieldType* getInstances(int count, const std::string&,
                                const std::string& typeName) const override {
        const TypeEntry* entry = find(typeName);
        return entry == NULL ? NULL : entry->makeMany(count);
    }
    TezaFieldType* copyInstance(const std::string& typeName,
                                const TezaFieldType& source) const override {
        const TypeEntry* entry = find(typeName);
        return entry == NULL ? NULL : entry->copyOne(source);
    }
    TezaFieldType* copyInstances(const std::string& typeName, int count,
                                 const TezaFieldType*& source) const override {
        const TypeEntry* entry = find(typeName);
        return entry == NULL ? NULL : entry->copyMany(count, source);
    }
    TezaFieldType* copyInstances(const std::string& typeName,
                                 std::vector<TezaFieldType*>& source) const override {
        const TypeEntry* entry = find(typeName);
        return entry == NULL ? NULL : entry->copyVector(source);
    }
    std::vector<std::string> getNestedTypedefHierarchy(const std::string& typeName) const override {
        for (const HierarchyEntry& entry : _hierarchies) {
            if (typeName == entry.typeName) {
                return entry.hierarchy;
            }
        }
        return std::vector<std::string>();
    }

  private:
    const TypeEntry* find(const std::string& typeName) const {
        for (const TypeEntry& entry : _types) {
            if (typeName == entry.name) {
                return &entry;
            }
        }
        return NULL;
    }

    const std::vector<TypeEntry> _types;
    const std::vector<HierarchyEntry> _hierarchies;
};

// Typed views of nested record fields, as the generated accessors make them.
template <typename R>
bool GetRecord(const TezaFieldType& record, int field, R*& value) {
    TezaFieldType* nested = NULL;
    if (!record.getFieldValue(field, nested)) {
        return false;
    }
    value = static_cast<R*>(nested);
    return true;
}

template <typename R>
bool GetRecords(const TezaFieldType& record, int field, int& count, R*& values) {
    TezaFieldType* nested = NULL;
    int n = 0;
    if (!record.getFieldValue(field, n, nested)) {
        return false;
    }
    count = n;
    // The array was made as an array of R; through void* because an empty array has no
    // element whose type a checked downcast could inspect.
    values = static_cast<R*>(static_cast<void*>(nested));
    return true;
}

}  // namespace

// --- Namespace "store" -------------------------------------------------------------------------

namespace teza_store {

const char kNamespace[] = "store";

namespace {

const char* const kBasicsFieldNames[] = {"name",    "count", "ucount",  "size",     "usize",
                                         "enabled", "names", "counts",  "ucounts",  "sizes",
                                         "usizes",  "flags", "mystery", "mysteries"};
const MD::TezaBasicType kBasicsFieldTypes[] = {
    MD::STRING_TYPE, MD::INT32_TYPE,  MD::UINT32_TYPE,  MD::INT64_TYPE,  MD::UINT64_TYPE,
    MD::BOOL_TYPE,   MD::STRING_TYPE, MD::INT32_TYPE,   MD::UINT32_TYPE, MD::INT64_TYPE,
    MD::UINT64_TYPE, MD::BOOL_TYPE,   MD::UNKNOWN_TYPE, MD::UNKNOWN_TYPE};
const char* const kBasicsFieldTypeNames[] = {"string",  "integer", "integer", "integer", "integer",
                                             "boolean", "string",  "integer", "integer", "integer",
                                             "integer", "boolean", "blob",    "blob"};
const std::bitset<256> kBasicsArray = Bits({6, 7, 8, 9, 10, 11, 13});
const std::bitset<256> kBasicsOptional = Bits({0, 6});
const std::bitset<256> kBasicsValidate = Bits({1});
const std::bitset<256> kBasicsNonEmpty = Bits({0});

const char* const kSecretsFieldNames[] = {"password", "pin",  "upin", "token", "utoken",
                                          "locked",   "keys", "pins", "hint"};
const MD::TezaBasicType kSecretsFieldTypes[] = {MD::STRING_TYPE, MD::INT32_TYPE,  MD::UINT32_TYPE,
                                                MD::INT64_TYPE,  MD::UINT64_TYPE, MD::BOOL_TYPE,
                                                MD::STRING_TYPE, MD::INT32_TYPE,  MD::STRING_TYPE};
const char* const kSecretsFieldTypeNames[] = {"string",  "integer", "integer", "integer", "integer",
                                              "boolean", "string",  "integer", "string"};
const std::bitset<256> kSecretsArray = Bits({6, 7});
const std::bitset<256> kSecretsOptional = Bits({8});
const std::bitset<256> kSecretsEncrypted = Bits({0, 1, 2, 3, 4, 5, 6, 7});
const std::bitset<256> kSecretsValidate = Bits({0, 1});
const std::bitset<256> kSecretsNonEmpty = Bits({0});

const char* const kOwnerInfoFieldNames[] = {"id"};
const MD::TezaBasicType kOwnerInfoFieldTypes[] = {MD::INT32_TYPE};
const char* const kOwnerInfoFieldTypeNames[] = {"integer"};

const char* const kVolumeInfoFieldNames[] = {"name", "size", "alias", "owner"};
const MD::TezaBasicType kVolumeInfoFieldTypes[] = {MD::STRING_TYPE, MD::INT64_TYPE, MD::STRING_TYPE,
                                                   MD::TYPEDEF_TYPE};
const char* const kVolumeInfoFieldTypeNames[] = {"string", "integer", "string", "owner-info"};
const std::bitset<256> kVolumeInfoArray = Bits({2});

const char* const kNestingFieldNames[] = {"owner-info", "owner",  "owners",   "volumes",
                                          "alias1",     "alias3", "aliases1", "aliases3",
                                          "plain",      "plains", "label",    "labels"};
const MD::TezaBasicType kNestingFieldTypes[] = {
    MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE,
    MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE,
    MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::STRING_TYPE,  MD::STRING_TYPE};
const char* const kNestingFieldTypeNames[] = {
    "owner-info",  "owner-info", "owner-info",  "volume-info", "owner-alias", "owner-ref",
    "owner-alias", "owner-ref",  "owner-plain", "owner-plain", "label-text",  "label-text"};
const std::bitset<256> kNestingArray = Bits({2, 3, 6, 7, 9, 11});
const std::bitset<256> kNestingOptional = Bits({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
const std::bitset<256> kNestingNestedTypedef = Bits({4, 5, 6, 7, 8, 9, 10, 11});

const TezaFieldTypeMetaData kBasicsMetaData(kNamespace, "basics", Basics::kNumFields,
                                            kBasicsFieldNames, kBasicsFieldTypes,
                                            kBasicsFieldTypeNames, kBasicsArray, kBasicsOptional,
                                            kNoFields, kBasicsValidate, kBasicsNonEmpty, kNoFields);
const TezaFieldTypeMetaData kSecretsMetaData(kNamespace, "secrets", Secrets::kNumFields,
                                             kSecretsFieldNames, kSecretsFieldTypes,
                                             kSecretsFieldTypeNames, kSecretsArray,
                                             kSecretsOptional, kSecretsEncrypted, kSecretsValidate,
                                             kSecretsNonEmpty, kNoFields);
const TezaFieldTypeMetaData kOwnerInfoMetaData(kNamespace, "owner-info", OwnerInfo::kNumFields,
                                               kOwnerInfoFieldNames, kOwnerInfoFieldTypes,
                                               kOwnerInfoFieldTypeNames, kNoFields, kNoFields,
                                               kNoFields, kNoFields, kNoFields, kNoFields);
const TezaFieldTypeMetaData kVolumeInfoMetaData(kNamespace, "volume-info", VolumeInfo::kNumFields,
                                                kVolumeInfoFieldNames, kVolumeInfoFieldTypes,
                                                kVolumeInfoFieldTypeNames, kVolumeInfoArray,
                                                kNoFields, kNoFields, kNoFields, kNoFields,
                                                kNoFields);
const TezaFieldTypeMetaData kNestingMetaData(kNamespace, "nesting", Nesting::kNumFields,
                                             kNestingFieldNames, kNestingFieldTypes,
                                             kNestingFieldTypeNames, kNestingArray,
                                             kNestingOptional, kNoFields, kNoFields, kNoFields,
                                             kNestingNestedTypedef);
const TezaFieldTypeMetaData kEmptyMetaData(kNamespace, "empty", 0, NULL, NULL, NULL, kNoFields,
                                           kNoFields, kNoFields, kNoFields, kNoFields, kNoFields);

const TableTypeFactory kTypeFactory({Entry<Basics>("basics"), Entry<Secrets>("secrets"),
                                     Entry<OwnerInfo>("owner-info"),
                                     Entry<OwnerInfo>("owner-plain"),
                                     Entry<VolumeInfo>("volume-info"), Entry<Nesting>("nesting"),
                                     Entry<Empty>("empty")},
                                    {{"owner-alias", {"owner-info"}},
                                     {"owner-ref", {"owner-handle", "owner-key", "owner-info"}},
                                     {"label-text", {"label-line"}}});

}  // namespace

const TezaFieldTypeFactory& typeFactory() {
    return kTypeFactory;
}

static_assert(sizeof(Basics) == sizeof(TezaFieldType), "records add no data members");
Basics::Basics() : TezaFieldType(kBasicsMetaData) {}
Basics::~Basics() {
    clear();
}
const TezaFieldTypeMetaData& Basics::getMetaData() const {
    return kBasicsMetaData;
}
const TezaFieldTypeMetaData& Basics::metaData() {
    return kBasicsMetaData;
}

static_assert(sizeof(Secrets) == sizeof(TezaFieldType), "records add no data members");
Secrets::Secrets() : TezaFieldType(kSecretsMetaData) {}
Secrets::~Secrets() {
    clear();
}
const TezaFieldTypeMetaData& Secrets::getMetaData() const {
    return kSecretsMetaData;
}
const TezaFieldTypeMetaData& Secrets::metaData() {
    return kSecretsMetaData;
}

static_assert(sizeof(OwnerInfo) == sizeof(TezaFieldType), "records add no data members");
OwnerInfo::OwnerInfo() : TezaFieldType(kOwnerInfoMetaData) {}
OwnerInfo::~OwnerInfo() {
    clear();
}
const TezaFieldTypeMetaData& OwnerInfo::getMetaData() const {
    return kOwnerInfoMetaData;
}
const TezaFieldTypeMetaData& OwnerInfo::metaData() {
    return kOwnerInfoMetaData;
}

static_assert(sizeof(VolumeInfo) == sizeof(TezaFieldType), "records add no data members");
VolumeInfo::VolumeInfo() : TezaFieldType(kVolumeInfoMetaData) {}
VolumeInfo::~VolumeInfo() {
    clear();
}
const TezaFieldTypeMetaData& VolumeInfo::getMetaData() const {
    return kVolumeInfoMetaData;
}
const TezaFieldTypeMetaData& VolumeInfo::metaData() {
    return kVolumeInfoMetaData;
}
bool VolumeInfo::getOwner(OwnerInfo*& value) const {
    return GetRecord(*this, kOwner, value);
}

static_assert(sizeof(Nesting) == sizeof(TezaFieldType), "records add no data members");
Nesting::Nesting() : TezaFieldType(kNestingMetaData) {}
Nesting::~Nesting() {
    clear();
}
const TezaFieldTypeMetaData& Nesting::getMetaData() const {
    return kNestingMetaData;
}
const TezaFieldTypeMetaData& Nesting::metaData() {
    return kNestingMetaData;
}

bool Nesting::getOwnerInfo(OwnerInfo*& value) const {
    return GetRecord(*this, kOwnerInfo, value);
}
bool Nesting::getOwner(OwnerInfo*& value) const {
    return GetRecord(*this, kOwner, value);
}
bool Nesting::getOwners(int& count, OwnerInfo*& values) const {
    return GetRecords(*this, kOwners, count, values);
}
bool Nesting::getVolumes(int& count, VolumeInfo*& values) const {
    return GetRecords(*this, kVolumes, count, values);
}
bool Nesting::getAlias1(OwnerInfo*& value) const {
    return GetRecord(*this, kAlias1, value);
}
bool Nesting::getAlias3(OwnerInfo*& value) const {
    return GetRecord(*this, kAlias3, value);
}
bool Nesting::getAliases1(int& count, OwnerInfo*& values) const {
    return GetRecords(*this, kAliases1, count, values);
}
bool Nesting::getAliases3(int& count, OwnerInfo*& values) const {
    return GetRecords(*this, kAliases3, count, values);
}
bool Nesting::getPlain(OwnerInfo*& value) const {
    return GetRecord(*this, kPlain, value);
}
bool Nesting::getPlains(int& count, OwnerInfo*& values) const {
    return GetRecords(*this, kPlains, count, values);
}

static_assert(sizeof(Empty) == sizeof(TezaFieldType), "records add no data members");
Empty::Empty() : TezaFieldType(kEmptyMetaData) {}
Empty::~Empty() {
    clear();
}
const TezaFieldTypeMetaData& Empty::getMetaData() const {
    return kEmptyMetaData;
}
const TezaFieldTypeMetaData& Empty::metaData() {
    return kEmptyMetaData;
}

}  // namespace teza_store

// --- Namespace "net" ---------------------------------------------------------------------------

namespace teza_net {

const char kNamespace[] = "net";

namespace {

const char* const kAddressFieldNames[] = {"ip", "prefix"};
const MD::TezaBasicType kAddressFieldTypes[] = {MD::STRING_TYPE, MD::INT32_TYPE};
const char* const kAddressFieldTypeNames[] = {"string", "integer"};

const char* const kEndpointFieldNames[] = {"host", "port", "secure", "address", "routes"};
const MD::TezaBasicType kEndpointFieldTypes[] = {MD::STRING_TYPE, MD::UINT32_TYPE, MD::BOOL_TYPE,
                                                 MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE};
const char* const kEndpointFieldTypeNames[] = {"string", "integer", "boolean", "address",
                                               "address"};
const std::bitset<256> kEndpointArray = Bits({4});

const TezaFieldTypeMetaData kAddressMetaData(kNamespace, "address", Address::kNumFields,
                                             kAddressFieldNames, kAddressFieldTypes,
                                             kAddressFieldTypeNames, kNoFields, kNoFields,
                                             kNoFields, kNoFields, kNoFields, kNoFields);
const TezaFieldTypeMetaData kEndpointMetaData(kNamespace, "endpoint", Endpoint::kNumFields,
                                              kEndpointFieldNames, kEndpointFieldTypes,
                                              kEndpointFieldTypeNames, kEndpointArray, kNoFields,
                                              kNoFields, kNoFields, kNoFields, kNoFields);

const TableTypeFactory kTypeFactory({Entry<Address>("address"), Entry<Endpoint>("endpoint")}, {});

}  // namespace

const TezaFieldTypeFactory& typeFactory() {
    return kTypeFactory;
}

static_assert(sizeof(Address) == sizeof(TezaFieldType), "records add no data members");
Address::Address() : TezaFieldType(kAddressMetaData) {}
Address::~Address() {
    clear();
}
const TezaFieldTypeMetaData& Address::getMetaData() const {
    return kAddressMetaData;
}
const TezaFieldTypeMetaData& Address::metaData() {
    return kAddressMetaData;
}

static_assert(sizeof(Endpoint) == sizeof(TezaFieldType), "records add no data members");
Endpoint::Endpoint() : TezaFieldType(kEndpointMetaData) {}
Endpoint::~Endpoint() {
    clear();
}
const TezaFieldTypeMetaData& Endpoint::getMetaData() const {
    return kEndpointMetaData;
}
const TezaFieldTypeMetaData& Endpoint::metaData() {
    return kEndpointMetaData;
}
bool Endpoint::getAddress(Address*& value) const {
    return GetRecord(*this, kAddress, value);
}
bool Endpoint::getRoutes(int& count, Address*& values) const {
    return GetRecords(*this, kRoutes, count, values);
}

}  // namespace teza_net

// --- Namespace "orphan" ------------------------------------------------------------------------

namespace teza_orphan {

const char kNamespace[] = "orphan";

namespace {

const char* const kOrphanChildFieldNames[] = {"value"};
const MD::TezaBasicType kOrphanChildFieldTypes[] = {MD::STRING_TYPE};
const char* const kOrphanChildFieldTypeNames[] = {"string"};

const char* const kOrphanFieldNames[] = {"child", "children", "note"};
const MD::TezaBasicType kOrphanFieldTypes[] = {MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::STRING_TYPE};
const char* const kOrphanFieldTypeNames[] = {"orphan-child", "orphan-child", "string"};
const std::bitset<256> kOrphanArray = Bits({1});

const TezaFieldTypeMetaData kOrphanChildMetaData(kNamespace, "orphan-child",
                                                 OrphanChild::kNumFields, kOrphanChildFieldNames,
                                                 kOrphanChildFieldTypes, kOrphanChildFieldTypeNames,
                                                 kNoFields, kNoFields, kNoFields, kNoFields,
                                                 kNoFields, kNoFields);
const TezaFieldTypeMetaData kOrphanMetaData(kNamespace, "orphan", Orphan::kNumFields,
                                            kOrphanFieldNames, kOrphanFieldTypes,
                                            kOrphanFieldTypeNames, kOrphanArray, kNoFields,
                                            kNoFields, kNoFields, kNoFields, kNoFields);

}  // namespace

static_assert(sizeof(OrphanChild) == sizeof(TezaFieldType), "records add no data members");
OrphanChild::OrphanChild() : TezaFieldType(kOrphanChildMetaData) {}
OrphanChild::~OrphanChild() {
    clear();
}
const TezaFieldTypeMetaData& OrphanChild::getMetaData() const {
    return kOrphanChildMetaData;
}
const TezaFieldTypeMetaData& OrphanChild::metaData() {
    return kOrphanChildMetaData;
}

static_assert(sizeof(Orphan) == sizeof(TezaFieldType), "records add no data members");
Orphan::Orphan() : TezaFieldType(kOrphanMetaData) {}
Orphan::~Orphan() {
    clear();
}
const TezaFieldTypeMetaData& Orphan::getMetaData() const {
    return kOrphanMetaData;
}
const TezaFieldTypeMetaData& Orphan::metaData() {
    return kOrphanMetaData;
}

}  // namespace teza_orphan

// --- Namespace "tracked" -----------------------------------------------------------------------

namespace teza_tracked {

const char kNamespace[] = "tracked";

namespace {

std::atomic<int> gLiveTracked{0};

const char* const kTrackedFieldNames[] = {"id"};
const MD::TezaBasicType kTrackedFieldTypes[] = {MD::INT32_TYPE};
const char* const kTrackedFieldTypeNames[] = {"integer"};

const char* const kHolderFieldNames[] = {"one", "many", "note"};
const MD::TezaBasicType kHolderFieldTypes[] = {MD::TYPEDEF_TYPE, MD::TYPEDEF_TYPE, MD::STRING_TYPE};
const char* const kHolderFieldTypeNames[] = {"tracked", "tracked", "string"};
const std::bitset<256> kHolderArray = Bits({1});

const TezaFieldTypeMetaData kTrackedMetaData(kNamespace, "tracked", Tracked::kNumFields,
                                             kTrackedFieldNames, kTrackedFieldTypes,
                                             kTrackedFieldTypeNames, kNoFields, kNoFields,
                                             kNoFields, kNoFields, kNoFields, kNoFields);
const TezaFieldTypeMetaData kHolderMetaData(kNamespace, "holder", Holder::kNumFields,
                                            kHolderFieldNames, kHolderFieldTypes,
                                            kHolderFieldTypeNames, kHolderArray, kNoFields,
                                            kNoFields, kNoFields, kNoFields, kNoFields);

const TableTypeFactory kTypeFactory({Entry<Tracked>("tracked"), Entry<Holder>("holder")}, {});

}  // namespace

const TezaFieldTypeFactory& typeFactory() {
    return kTypeFactory;
}

static_assert(sizeof(Tracked) == sizeof(TezaFieldType), "records add no data members");
Tracked::Tracked() : TezaFieldType(kTrackedMetaData) {
    ++gLiveTracked;
}
Tracked::~Tracked() {
    clear();
    --gLiveTracked;
}
const TezaFieldTypeMetaData& Tracked::getMetaData() const {
    return kTrackedMetaData;
}
const TezaFieldTypeMetaData& Tracked::metaData() {
    return kTrackedMetaData;
}
int Tracked::live() {
    return gLiveTracked.load();
}

static_assert(sizeof(Holder) == sizeof(TezaFieldType), "records add no data members");
Holder::Holder() : TezaFieldType(kHolderMetaData) {}
Holder::~Holder() {
    clear();
}
const TezaFieldTypeMetaData& Holder::getMetaData() const {
    return kHolderMetaData;
}
const TezaFieldTypeMetaData& Holder::metaData() {
    return kHolderMetaData;
}
bool Holder::getOne(Tracked*& value) const {
    return GetRecord(*this, kOne, value);
}
bool Holder::getMany(int& count, Tracked*& values) const {
    return GetRecords(*this, kMany, count, values);
}

}  // namespace teza_tracked

// --- Describing and filling records -------------------------------------------------------------

namespace testsupport {

namespace {

template <typename T>
std::string Text(const T& value) {
    return std::to_string(value);
}
std::string Text(const std::string& value) {
    return "\"" + value + "\"";
}
std::string Text(bool value) {
    return value ? "true" : "false";
}

template <typename T>
std::string DescribeSingle(const TezaFieldType& record, int field) {
    T value = T();
    return record.getFieldValue(field, value) ? Text(value) : "?";
}

template <typename T>
std::string DescribeArray(const TezaFieldType& record, int field) {
    int count = 0;
    T* values = NULL;
    if (!record.getFieldValue(field, count, values)) {
        return "?";
    }
    std::string out = "[";
    for (int k = 0; k < count; ++k) {
        out += (k == 0 ? "" : ",") + Text(values[k]);
    }
    return out + "]";
}

}  // namespace

std::string DescribeRecord(const TezaFieldType& record) {
    const TezaFieldTypeMetaData& md = record.getMetaData();
    std::string out = std::string(md.getName()) + (record.isStoreAsRawString() ? "(raw){" : "{");
    for (int i = 0; i < md.getNumFields(); ++i) {
        out += (i == 0 ? "" : " ") + std::string(md.getFieldNameStr(i)) + "=";
        if (!record.isFieldSet(i)) {
            out += "-";
            continue;
        }
        MD::TezaBasicType type = md.getFieldType(i);
        bool array = md.isFieldArrayType(i);
        if (type == MD::TYPEDEF_TYPE) {
            TezaFieldType* nested = NULL;
            if (!array) {
                record.getFieldValue(i, nested);
                out += nested == NULL ? "null" : DescribeRecord(*nested);
                continue;
            }
            int count = 0;
            record.getFieldValue(i, count, nested);
            out += nested == NULL ? "null#" + std::to_string(count) : "[";
            for (int k = 0; nested != NULL && k < count; ++k) {
                out += (k == 0 ? "" : ",") + DescribeRecord(nested[k]);
            }
            out += nested == NULL ? "" : "]";
        } else if (type > MD::BOOL_TYPE || type < MD::STRING_TYPE) {
            out += "(set)";
        } else if (record.isStoreAsRawString()) {
            if (!array) {
                std::string text;
                out += record.getRawStringValue(i, text) ? Text(text) : "?";
            } else {
                int count = 0;
                std::string* texts = NULL;
                if (!record.getRawStringValue(i, count, texts)) {
                    out += "?";
                    continue;
                }
                out += "[";
                for (int k = 0; k < count; ++k) {
                    out += (k == 0 ? "" : ",") + Text(texts[k]);
                }
                out += "]";
            }
        } else if (!array) {
            switch (type) {
                case MD::STRING_TYPE:
                    out += DescribeSingle<std::string>(record, i);
                    break;
                case MD::INT32_TYPE:
                    out += DescribeSingle<int32_t>(record, i);
                    break;
                case MD::UINT32_TYPE:
                    out += DescribeSingle<uint32_t>(record, i);
                    break;
                case MD::INT64_TYPE:
                    out += DescribeSingle<int64_t>(record, i);
                    break;
                case MD::UINT64_TYPE:
                    out += DescribeSingle<uint64_t>(record, i);
                    break;
                default:
                    out += DescribeSingle<bool>(record, i);
                    break;
            }
        } else {
            switch (type) {
                case MD::STRING_TYPE:
                    out += DescribeArray<std::string>(record, i);
                    break;
                case MD::INT32_TYPE:
                    out += DescribeArray<int32_t>(record, i);
                    break;
                case MD::UINT32_TYPE:
                    out += DescribeArray<uint32_t>(record, i);
                    break;
                case MD::INT64_TYPE:
                    out += DescribeArray<int64_t>(record, i);
                    break;
                case MD::UINT64_TYPE:
                    out += DescribeArray<uint64_t>(record, i);
                    break;
                default:
                    out += DescribeArray<bool>(record, i);
                    break;
            }
        }
    }
    return out + "}";
}

void FillBasics(TezaFieldType& r, int seed) {
    using teza_store::Basics;
    r.setFieldValue(Basics::kName, "name <" + std::to_string(seed) + "> & 'q' \"dq\"");
    r.setFieldValue(Basics::kCount, int32_t{-seed});
    r.setFieldValue(Basics::kUcount, uint32_t(4000000000u + seed));
    r.setFieldValue(Basics::kSize, int64_t{-9000000000000000000} - seed);
    r.setFieldValue(Basics::kUsize, uint64_t{18000000000000000000u} + seed);
    r.setFieldValue(Basics::kEnabled, seed % 2 == 0);
    const std::string names[] = {"n" + std::to_string(seed), "<&>", ""};
    const int32_t counts[] = {seed, -seed, INT32_MIN};
    const uint32_t ucounts[] = {uint32_t(seed), UINT32_MAX};
    const int64_t sizes[] = {INT64_MIN, int64_t{seed}};
    const uint64_t usizes[] = {UINT64_MAX, uint64_t(seed)};
    const bool flags[] = {true, false, seed % 2 == 1};
    r.setFieldValue(Basics::kNames, 3, names);
    r.setFieldValue(Basics::kCounts, 3, counts);
    r.setFieldValue(Basics::kUcounts, 2, ucounts);
    r.setFieldValue(Basics::kSizes, 2, sizes);
    r.setFieldValue(Basics::kUsizes, 2, usizes);
    r.setFieldValue(Basics::kFlags, 3, flags);
}

void FillSecrets(TezaFieldType& r, int seed) {
    using teza_store::Secrets;
    r.setFieldValue(Secrets::kPassword, "pa<ss>&" + std::to_string(seed));
    r.setFieldValue(Secrets::kPin, int32_t{-1234 - seed});
    r.setFieldValue(Secrets::kUpin, uint32_t(4321 + seed));
    r.setFieldValue(Secrets::kToken, int64_t{-77} * seed);
    r.setFieldValue(Secrets::kUtoken, uint64_t{UINT64_MAX} - seed);
    r.setFieldValue(Secrets::kLocked, true);
    const std::string keys[] = {"k1'" + std::to_string(seed), "k2\""};
    const int32_t pins[] = {1, seed};
    r.setFieldValue(Secrets::kKeys, 2, keys);
    r.setFieldValue(Secrets::kPins, 2, pins);
    r.setFieldValue(Secrets::kHint, std::string("hint"));
}

void FillNesting(TezaFieldType& r, int seed) {
    using teza_store::Nesting;
    using teza_store::OwnerInfo;
    using teza_store::VolumeInfo;
    OwnerInfo owner;
    owner.setId(seed);
    OwnerInfo owners[3];
    for (int k = 0; k < 3; ++k) {
        owners[k].setId(seed * 10 + k);
    }
    VolumeInfo volumes[2];
    for (int k = 0; k < 2; ++k) {
        volumes[k].setName("vol" + std::to_string(k));
        volumes[k].setSize(int64_t{1} << (30 + k));
        const std::string alias[] = {"a" + std::to_string(k), "b"};
        volumes[k].setAlias(2, alias);
        volumes[k].setOwner(owners[k]);
    }
    r.setFieldValue(Nesting::kOwnerInfo, owner);
    r.setFieldValue(Nesting::kOwner, owners[1]);
    r.setFieldValue(Nesting::kOwners, 3, static_cast<const TezaFieldType*>(owners));
    r.setFieldValue(Nesting::kVolumes, 2, static_cast<const TezaFieldType*>(volumes));
    r.setFieldValue(Nesting::kAlias1, owners[2]);
    r.setFieldValue(Nesting::kAlias3, owner);
    r.setFieldValue(Nesting::kAliases1, 2, static_cast<const TezaFieldType*>(owners));
    r.setFieldValue(Nesting::kAliases3, 3, static_cast<const TezaFieldType*>(owners));
    r.setFieldValue(Nesting::kPlain, owner);
    r.setFieldValue(Nesting::kPlains, 1, static_cast<const TezaFieldType*>(owners));
    r.setFieldValue(Nesting::kLabel, std::string("label <") + std::to_string(seed) + ">");
    const std::string labels[] = {"l1", "l2 & more"};
    r.setFieldValue(Nesting::kLabels, 2, labels);
}

}  // namespace testsupport
