#include "TezaFieldTypeMetaData.h"

const std::string TezaFieldTypeMetaData::_stringTypeStr = "string";
const std::string TezaFieldTypeMetaData::_integerTypeStr = "integer";
const std::string TezaFieldTypeMetaData::_boolTypeStr = "boolean";
const std::string TezaFieldTypeMetaData::_unknownTypeStr = "unknown";

TezaFieldTypeMetaData::TezaFieldTypeMetaData(
    const char* ns, const char* name, int numFields, const char* const* fieldNames,
    const TezaBasicType* fieldTypes, const char* const* fieldTypeNames,
    const std::bitset<256>& arrayFields, const std::bitset<256>& optionalFields,
    const std::bitset<256>& encryptedFields, const std::bitset<256>& validateFields,
    const std::bitset<256>& nonEmptyFields, const std::bitset<256>& nestedTypedefFields)
    : _namespace(ns),
      _name(name),
      _numFields(numFields),
      _fieldNames(fieldNames),
      _fieldTypes(fieldTypes),
      _fieldTypeNames(fieldTypeNames),
      _arrayFields(arrayFields),
      _optionalFields(optionalFields),
      _encryptedFields(encryptedFields),
      _validateFields(validateFields),
      _nonEmptyFields(nonEmptyFields),
      _nestedTypedefFields(nestedTypedefFields) {}

const char* TezaFieldTypeMetaData::getFieldNameStr(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _fieldNames[field];
}

bool TezaFieldTypeMetaData::isFieldArrayType(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _arrayFields.test(field);
}

bool TezaFieldTypeMetaData::isFieldOptional(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _optionalFields.test(field);
}

bool TezaFieldTypeMetaData::isFieldEncrypted(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _encryptedFields.test(field);
}

bool TezaFieldTypeMetaData::isFieldValidate(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _validateFields.test(field);
}

bool TezaFieldTypeMetaData::isFieldNonEmpty(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _nonEmptyFields.test(field);
}

bool TezaFieldTypeMetaData::isFieldNestedTypedef(int field) const {
    TEZA_ASSERT((0 <= field) && (field < _numFields));
    return _nestedTypedefFields.test(field);
}
