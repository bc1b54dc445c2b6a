// Record types written by hand in the shape the code generator gives them, for every test of
// the record machinery: one class per API type deriving from TezaFieldType with no data
// members, a static descriptor, getMetaData(), a destructor that calls clear() and typed,
// named accessors; one type factory per namespace. record_shapes_test compares them with the
// generator's code for tests/records/record_shapes.teza, descriptor by descriptor.
//
// Namespaces and types:
//   "store"  basics       every basic type, single and array, and UNKNOWN_TYPE single and array
//            secrets      encrypted single and array fields, optional/validate/non-empty flags
//            owner-info   one integer field (also made for the typedef "owner-plain")
//            volume-info  text, number, text array and a nested owner-info
//            nesting      nested records single and array, field name equal to and different
//                         from the type name, nested typedefs with hierarchies of length 0, 1
//                         and 3, single and array, and a text field flagged nested-typedef
//            empty        no fields
//   "net"    address, endpoint (a nested record of the second namespace)
//   "orphan" orphan, orphan-child: a namespace whose factory is never registered
//   "tracked" tracked (counts its live instances), holder (tracked records single and array)
//
// Typedef hierarchies of the "store" factory:
//   owner-alias -> [owner-info]
//   owner-ref   -> [owner-handle, owner-key, owner-info]
//   label-text  -> [label-line]
//   anything else (owner-plain included) -> []
//
// TezaNamespaceFactory::registerDefaultTypeFactory() of the test support registers the "store",
// "net" and "tracked" factories.
#ifndef TEZA_TESTS_TEST_RECORDS_H_
#define TEZA_TESTS_TEST_RECORDS_H_

#include <stdint.h>

#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaFieldTypeFactory.h"
#include "TezaFieldTypeMetaData.h"

namespace testsupport {

// A canonical one-line description of a record, its mode, every field, set or not, and nested
// records, read through the generic getters; two records with equal descriptions hold equal
// values. Independent of the record's own text rendering.
std::string DescribeRecord(const TezaFieldType& record);

// Fills every field of a record of the "store" namespace's basics, secrets or nesting types with
// distinct values derived from `seed`.
void FillBasics(TezaFieldType& basics, int seed);
void FillSecrets(TezaFieldType& secrets, int seed);
void FillNesting(TezaFieldType& nesting, int seed);

}  // namespace testsupport

namespace teza_store {

extern const char kNamespace[];  // "store"

// The factory of the "store" namespace; lives as long as the program.
const TezaFieldTypeFactory& typeFactory();

class Basics : public TezaFieldType {
  public:
    enum Field {
        kName,
        kCount,
        kUcount,
        kSize,
        kUsize,
        kEnabled,
        kNames,
        kCounts,
        kUcounts,
        kSizes,
        kUsizes,
        kFlags,
        kMystery,
        kMysteries,
        kNumFields
    };

    Basics();
    ~Basics() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool isNameSet() const { return isFieldSet(kName); }
    bool getName(std::string& value) const { return getFieldValue(kName, value); }
    void setName(const std::string& value) { setFieldValue(kName, value); }
    bool isCountSet() const { return isFieldSet(kCount); }
    bool getCount(int32_t& value) const { return getFieldValue(kCount, value); }
    void setCount(int32_t value) { setFieldValue(kCount, value); }
    bool isUcountSet() const { return isFieldSet(kUcount); }
    bool getUcount(uint32_t& value) const { return getFieldValue(kUcount, value); }
    void setUcount(uint32_t value) { setFieldValue(kUcount, value); }
    bool isSizeSet() const { return isFieldSet(kSize); }
    bool getSize(int64_t& value) const { return getFieldValue(kSize, value); }
    void setSize(int64_t value) { setFieldValue(kSize, value); }
    bool isUsizeSet() const { return isFieldSet(kUsize); }
    bool getUsize(uint64_t& value) const { return getFieldValue(kUsize, value); }
    void setUsize(uint64_t value) { setFieldValue(kUsize, value); }
    bool isEnabledSet() const { return isFieldSet(kEnabled); }
    bool getEnabled(bool& value) const { return getFieldValue(kEnabled, value); }
    void setEnabled(bool value) { setFieldValue(kEnabled, value); }

    bool isNamesSet() const { return isFieldSet(kNames); }
    bool getNames(int& count, std::string*& values) const {
        return getFieldValue(kNames, count, values);
    }
    void setNames(int count, const std::string* values) { setFieldValue(kNames, count, values); }
    bool isCountsSet() const { return isFieldSet(kCounts); }
    bool getCounts(int& count, int32_t*& values) const {
        return getFieldValue(kCounts, count, values);
    }
    void setCounts(int count, const int32_t* values) { setFieldValue(kCounts, count, values); }
    bool isUcountsSet() const { return isFieldSet(kUcounts); }
    bool getUcounts(int& count, uint32_t*& values) const {
        return getFieldValue(kUcounts, count, values);
    }
    void setUcounts(int count, const uint32_t* values) { setFieldValue(kUcounts, count, values); }
    bool isSizesSet() const { return isFieldSet(kSizes); }
    bool getSizes(int& count, int64_t*& values) const {
        return getFieldValue(kSizes, count, values);
    }
    void setSizes(int count, const int64_t* values) { setFieldValue(kSizes, count, values); }
    bool isUsizesSet() const { return isFieldSet(kUsizes); }
    bool getUsizes(int& count, uint64_t*& values) const {
        return getFieldValue(kUsizes, count, values);
    }
    void setUsizes(int count, const uint64_t* values) { setFieldValue(kUsizes, count, values); }
    bool isFlagsSet() const { return isFieldSet(kFlags); }
    bool getFlags(int& count, bool*& values) const { return getFieldValue(kFlags, count, values); }
    void setFlags(int count, const bool* values) { setFieldValue(kFlags, count, values); }

    // kMystery and kMysteries are of UNKNOWN_TYPE: no accessors; the library skips them.
};

class Secrets : public TezaFieldType {
  public:
    enum Field {
        kPassword,
        kPin,
        kUpin,
        kToken,
        kUtoken,
        kLocked,
        kKeys,
        kPins,
        kHint,
        kNumFields
    };

    Secrets();
    ~Secrets() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getPassword(std::string& value) const { return getFieldValue(kPassword, value); }
    void setPassword(const std::string& value) { setFieldValue(kPassword, value); }
    bool getPin(int32_t& value) const { return getFieldValue(kPin, value); }
    void setPin(int32_t value) { setFieldValue(kPin, value); }
    bool getUpin(uint32_t& value) const { return getFieldValue(kUpin, value); }
    void setUpin(uint32_t value) { setFieldValue(kUpin, value); }
    bool getToken(int64_t& value) const { return getFieldValue(kToken, value); }
    void setToken(int64_t value) { setFieldValue(kToken, value); }
    bool getUtoken(uint64_t& value) const { return getFieldValue(kUtoken, value); }
    void setUtoken(uint64_t value) { setFieldValue(kUtoken, value); }
    bool getLocked(bool& value) const { return getFieldValue(kLocked, value); }
    void setLocked(bool value) { setFieldValue(kLocked, value); }
    bool getKeys(int& count, std::string*& values) const {
        return getFieldValue(kKeys, count, values);
    }
    void setKeys(int count, const std::string* values) { setFieldValue(kKeys, count, values); }
    bool getPins(int& count, int32_t*& values) const { return getFieldValue(kPins, count, values); }
    void setPins(int count, const int32_t* values) { setFieldValue(kPins, count, values); }
    bool getHint(std::string& value) const { return getFieldValue(kHint, value); }
    void setHint(const std::string& value) { setFieldValue(kHint, value); }
};

class OwnerInfo : public TezaFieldType {
  public:
    enum Field { kId, kNumFields };

    OwnerInfo();
    ~OwnerInfo() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool isIdSet() const { return isFieldSet(kId); }
    bool getId(int32_t& value) const { return getFieldValue(kId, value); }
    void setId(int32_t value) { setFieldValue(kId, value); }
};

class VolumeInfo : public TezaFieldType {
  public:
    enum Field { kName, kSize, kAlias, kOwner, kNumFields };

    VolumeInfo();
    ~VolumeInfo() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getName(std::string& value) const { return getFieldValue(kName, value); }
    void setName(const std::string& value) { setFieldValue(kName, value); }
    bool getSize(int64_t& value) const { return getFieldValue(kSize, value); }
    void setSize(int64_t value) { setFieldValue(kSize, value); }
    bool getAlias(int& count, std::string*& values) const {
        return getFieldValue(kAlias, count, values);
    }
    void setAlias(int count, const std::string* values) { setFieldValue(kAlias, count, values); }
    bool getOwner(OwnerInfo*& value) const;
    void setOwner(const OwnerInfo& value) { setFieldValue(kOwner, value); }
};

class Nesting : public TezaFieldType {
  public:
    enum Field {
        kOwnerInfo,  // element "owner-info", type owner-info: field name equals type name
        kOwner,      // element "owner", type owner-info
        kOwners,     // array of owner-info
        kVolumes,    // array of volume-info (records that nest records)
        kAlias1,     // typedef owner-alias, hierarchy of length 1
        kAlias3,     // typedef owner-ref, hierarchy of length 3
        kAliases1,   // array of owner-alias
        kAliases3,   // array of owner-ref
        kPlain,      // typedef owner-plain, empty hierarchy
        kPlains,     // array of owner-plain
        kLabel,      // text flagged nested-typedef, type name label-text
        kLabels,     // array of label-text
        kNumFields
    };

    Nesting();
    ~Nesting() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getOwnerInfo(OwnerInfo*& value) const;
    void setOwnerInfo(const OwnerInfo& value) { setFieldValue(kOwnerInfo, value); }
    bool getOwner(OwnerInfo*& value) const;
    void setOwner(const OwnerInfo& value) { setFieldValue(kOwner, value); }
    bool getOwners(int& count, OwnerInfo*& values) const;
    void setOwners(int count, const OwnerInfo* values) { setFieldValue(kOwners, count, values); }
    bool getVolumes(int& count, VolumeInfo*& values) const;
    void setVolumes(int count, const VolumeInfo* values) { setFieldValue(kVolumes, count, values); }
    bool getAlias1(OwnerInfo*& value) const;
    void setAlias1(const OwnerInfo& value) { setFieldValue(kAlias1, value); }
    bool getAlias3(OwnerInfo*& value) const;
    void setAlias3(const OwnerInfo& value) { setFieldValue(kAlias3, value); }
    bool getAliases1(int& count, OwnerInfo*& values) const;
    void setAliases1(int count, const OwnerInfo* values) {
        setFieldValue(kAliases1, count, values);
    }
    bool getAliases3(int& count, OwnerInfo*& values) const;
    void setAliases3(int count, const OwnerInfo* values) {
        setFieldValue(kAliases3, count, values);
    }
    bool getPlain(OwnerInfo*& value) const;
    void setPlain(const OwnerInfo& value) { setFieldValue(kPlain, value); }
    bool getPlains(int& count, OwnerInfo*& values) const;
    void setPlains(int count, const OwnerInfo* values) { setFieldValue(kPlains, count, values); }
    bool getLabel(std::string& value) const { return getFieldValue(kLabel, value); }
    void setLabel(const std::string& value) { setFieldValue(kLabel, value); }
    bool getLabels(int& count, std::string*& values) const {
        return getFieldValue(kLabels, count, values);
    }
    void setLabels(int count, const std::string* values) { setFieldValue(kLabels, count, values); }
};

class Empty : public TezaFieldType {
  public:
    Empty();
    ~Empty() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();
};

}  // namespace teza_store

namespace teza_net {

extern const char kNamespace[];  // "net"

const TezaFieldTypeFactory& typeFactory();

class Address : public TezaFieldType {
  public:
    enum Field { kIp, kPrefix, kNumFields };

    Address();
    ~Address() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getIp(std::string& value) const { return getFieldValue(kIp, value); }
    void setIp(const std::string& value) { setFieldValue(kIp, value); }
    bool getPrefix(int32_t& value) const { return getFieldValue(kPrefix, value); }
    void setPrefix(int32_t value) { setFieldValue(kPrefix, value); }
};

class Endpoint : public TezaFieldType {
  public:
    enum Field { kHost, kPort, kSecure, kAddress, kRoutes, kNumFields };

    Endpoint();
    ~Endpoint() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getHost(std::string& value) const { return getFieldValue(kHost, value); }
    void setHost(const std::string& value) { setFieldValue(kHost, value); }
    bool getPort(uint32_t& value) const { return getFieldValue(kPort, value); }
    void setPort(uint32_t value) { setFieldValue(kPort, value); }
    bool getSecure(bool& value) const { return getFieldValue(kSecure, value); }
    void setSecure(bool value) { setFieldValue(kSecure, value); }
    bool getAddress(Address*& value) const;
    void setAddress(const Address& value) { setFieldValue(kAddress, value); }
    bool getRoutes(int& count, Address*& values) const;
    void setRoutes(std::vector<TezaFieldType*>& values) { setFieldValue(kRoutes, values); }
};

}  // namespace teza_net

namespace teza_orphan {

extern const char kNamespace[];  // "orphan"; no factory is registered for it

class OrphanChild : public TezaFieldType {
  public:
    enum Field { kValue, kNumFields };

    OrphanChild();
    ~OrphanChild() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getValue(std::string& value) const { return getFieldValue(kValue, value); }
    void setValue(const std::string& value) { setFieldValue(kValue, value); }
};

class Orphan : public TezaFieldType {
  public:
    enum Field { kChild, kChildren, kNote, kNumFields };

    Orphan();
    ~Orphan() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    void setChild(const OrphanChild& value) { setFieldValue(kChild, value); }
    void setChildren(int count, const OrphanChild* values) {
        setFieldValue(kChildren, count, values);
    }
    bool getNote(std::string& value) const { return getFieldValue(kNote, value); }
    void setNote(const std::string& value) { setFieldValue(kNote, value); }
};

}  // namespace teza_orphan

namespace teza_tracked {

extern const char kNamespace[];  // "tracked"

const TezaFieldTypeFactory& typeFactory();

// A record that counts its live instances, so that a test can see when the library destroys
// nested records (the count lives outside the instances, which add no data members).
class Tracked : public TezaFieldType {
  public:
    enum Field { kId, kNumFields };

    Tracked();
    ~Tracked() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();
    // Tracked records alive right now, in every thread.
    static int live();

    bool getId(int32_t& value) const { return getFieldValue(kId, value); }
    void setId(int32_t value) { setFieldValue(kId, value); }
};

class Holder : public TezaFieldType {
  public:
    enum Field { kOne, kMany, kNote, kNumFields };

    Holder();
    ~Holder() override;
    const TezaFieldTypeMetaData& getMetaData() const override;
    static const TezaFieldTypeMetaData& metaData();

    bool getOne(Tracked*& value) const;
    void setOne(const Tracked& value) { setFieldValue(kOne, value); }
    bool getMany(int& count, Tracked*& values) const;
    void setMany(int count, const Tracked* values) { setFieldValue(kMany, count, values); }
    bool getNote(std::string& value) const { return getFieldValue(kNote, value); }
    void setNote(const std::string& value) { setFieldValue(kNote, value); }
};

}  // namespace teza_tracked

#endif  // TEZA_TESTS_TEST_RECORDS_H_
