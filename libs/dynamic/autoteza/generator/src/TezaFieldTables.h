// TezaFieldTables: what the record code reads of a descriptor, field by field, taken straight
// from its tables. Private to the library.
//
// The walks over a record (reading, writing, clearing, copying) ask for the kind, the array
// flag, the name and more of every field of every record; through the descriptor's exported
// queries each answer costs a call and a position check. Here they are read in place, as long as
// the descriptor has every position of the record that is walked, which is checked once per
// walk. When it has not (a record built with more fields than the descriptor it returns), every
// answer goes through the descriptor's own query, which reports a missing position with its
// assertion and aborts (or, past the 256 bits of a flag set, throws as the query does): such a
// record fails exactly where and as it failed when every property went through the queries, as
// long as each walk asks for the properties of a field in the order it asked the queries.
#ifndef TEZA_FIELD_TABLES_H_
#define TEZA_FIELD_TABLES_H_

#include "TezaFieldTypeMetaData.h"

class TezaFieldTables {
  public:
    typedef TezaFieldTypeMetaData::TezaBasicType TezaBasicType;

    // Reads `md`, which must outlive this object, for a walk over positions 0 .. numFields - 1.
    TezaFieldTables(const TezaFieldTypeMetaData& md, int numFields)
        : _md(md), _direct(numFields <= md._numFields && numFields <= 256) {}

    const char* getNamespace() const { return _md._namespace; }

    TezaBasicType type(int i) const { return _direct ? _md._fieldTypes[i] : _md.getFieldType(i); }
    const char* name(int i) const { return _direct ? _md._fieldNames[i] : _md.getFieldNameStr(i); }
    bool isArray(int i) const { return _direct ? _md._arrayFields[i] : _md.isFieldArrayType(i); }
    bool isEncrypted(int i) const {
        return _direct ? _md._encryptedFields[i] : _md.isFieldEncrypted(i);
    }
    bool isNestedTypedef(int i) const {
        return _direct ? _md._nestedTypedefFields[i] : _md.isFieldNestedTypedef(i);
    }
    // As getFieldTypeStr: the type name of a nested record or typedef, the type string of a
    // basic type.
    const char* typeName(int i) const {
        if (_direct && (_md._nestedTypedefFields[i] ||
                        _md._fieldTypes[i] == TezaFieldTypeMetaData::TYPEDEF_TYPE)) {
            return _md._fieldTypeNames[i];
        }
        return _md.getFieldTypeStr(i);
    }

  private:
    const TezaFieldTypeMetaData& _md;
    // Whether the descriptor has every position walked, within the 256 bits of its flag sets.
    const bool _direct;
};

#endif  // TEZA_FIELD_TABLES_H_
