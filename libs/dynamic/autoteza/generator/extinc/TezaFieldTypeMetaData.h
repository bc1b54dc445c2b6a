// TezaFieldTypeMetaData: the read-only descriptor of one generated record type: its namespace,
// its name and, per field, the element name, the basic type, the nested type name and six
// flags. Generated code builds one per type, once, and never changes it; any number of
// threads read it without locks.
//
// Everything the descriptor points to (texts, arrays, flag sets) belongs to generated code and
// lives as long as the program; the descriptor neither copies nor frees it. The flag sets are
// 256 bits wide, which limits a record type to 256 fields.
#ifndef TEZA_FIELD_TYPE_META_DATA_H_
#define TEZA_FIELD_TYPE_META_DATA_H_

#include <stddef.h>
#include <stdint.h>

#include <bitset>
#include <string>

#include "TezaUtil.h"

class TEZA_API TezaFieldTypeMetaData {
  public:
    // What a field holds. The numbers are part of the descriptor tables that generated code
    // writes; the fixed underlying type keeps any 32-bit value representable.
    enum TezaBasicType : int32_t {
        STRING_TYPE = 0,
        INT32_TYPE = 1,
        UINT32_TYPE = 2,
        INT64_TYPE = 3,
        UINT64_TYPE = 4,
        BOOL_TYPE = 5,
        TYPEDEF_TYPE = 6,  // a nested record of a generated type
        UNKNOWN_TYPE = 7,  // skipped by copy, clear and element mapping
    };

    // The arrays hold `numFields` entries each; the flag sets are shared, not copied.
    TezaFieldTypeMetaData(const char* ns, const char* name, int numFields,
                          const char* const* fieldNames, const TezaBasicType* fieldTypes,
                          const char* const* fieldTypeNames, const std::bitset<256>& arrayFields,
                          const std::bitset<256>& optionalFields,
                          const std::bitset<256>& encryptedFields,
                          const std::bitset<256>& validateFields,
                          const std::bitset<256>& nonEmptyFields,
                          const std::bitset<256>& nestedTypedefFields);

    TezaFieldTypeMetaData(const TezaFieldTypeMetaData&) = delete;
    TezaFieldTypeMetaData& operator=(const TezaFieldTypeMetaData&) = delete;

    const char* getNamespace() const { return _namespace; }
    const char* getName() const { return _name; }
    int getNumFields() const { return _numFields; }

    // Every per-field query REQUIRES 0 <= field < getNumFields(); otherwise the process
    // aborts.
    TezaBasicType getFieldType(int field) const {
        TEZA_ASSERT((0 <= field) && (field < _numFields));
        return _fieldTypes[field];
    }

    // "string", "integer" (for all four integer widths: the API has one integer type name),
    // "boolean", "unknown", or the field's type name for a nested record or a nested typedef.
    // Null for a basic type outside the enumeration.
    const char* getFieldTypeStr(int field) const {
        TEZA_ASSERT((0 <= field) && (field < _numFields));
        if (isFieldNestedTypedef(field)) {
            return _fieldTypeNames[field];
        }
        switch (_fieldTypes[field]) {
            case STRING_TYPE:
                return _stringTypeStr.c_str();
            case INT32_TYPE:
            case UINT32_TYPE:
            case INT64_TYPE:
            case UINT64_TYPE:
                return _integerTypeStr.c_str();
            case BOOL_TYPE:
                return _boolTypeStr.c_str();
            case TYPEDEF_TYPE:
                return _fieldTypeNames[field];
            case UNKNOWN_TYPE:
                return _unknownTypeStr.c_str();
        }
        return NULL;
    }

    const char* getFieldNameStr(int field) const;
    bool isFieldArrayType(int field) const;
    bool isFieldOptional(int field) const;
    bool isFieldEncrypted(int field) const;
    bool isFieldValidate(int field) const;
    bool isFieldNonEmpty(int field) const;
    bool isFieldNestedTypedef(int field) const;

  private:
    // The library's record code reads the tables through this class, private to the library: its
    // walks ask for several properties of every field of every record, each of which through the
    // queries above is an exported call and a position check.
    friend class TezaFieldTables;

    static const std::string _stringTypeStr;
    static const std::string _integerTypeStr;
    static const std::string _boolTypeStr;
    static const std::string _unknownTypeStr;

    const char* _namespace;
    const char* _name;
    int32_t _numFields;
    const char* const* _fieldNames;
    const TezaBasicType* _fieldTypes;
    const char* const* _fieldTypeNames;
    const std::bitset<256>& _arrayFields;
    const std::bitset<256>& _optionalFields;
    const std::bitset<256>& _encryptedFields;
    const std::bitset<256>& _validateFields;
    const std::bitset<256>& _nonEmptyFields;
    const std::bitset<256>& _nestedTypedefFields;
};

#endif  // TEZA_FIELD_TYPE_META_DATA_H_
