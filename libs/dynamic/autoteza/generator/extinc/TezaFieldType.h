// TezaFieldType: the generic record from which every generated API type derives. It stores,
// per field of the type's descriptor (TezaFieldTypeMetaData), a set bit and a value: a single
// value or an array of one of six primitive kinds, or one or more nested records. Fields are
// addressed by position; generated classes add typed, named accessors on top.
//
// Raw-string mode keeps every primitive field as the text received; the typed getters then
// convert on demand. Switching the mode discards all values.
//
// One thread uses a record at a time; records have no lock.
//
// What generated record classes must do:
//  - derive from TezaFieldType and add no data members: arrays of nested records are made as
//    arrays of the generated class and released as arrays of TezaFieldType, which is only
//    correct while both have the same size;
//  - pass their static descriptor to TezaFieldType(const TezaFieldTypeMetaData&) and return it
//    from getMetaData();
//  - call clear() in their destructor: the base destructor releases nothing.
#ifndef TEZA_FIELD_TYPE_H_
#define TEZA_FIELD_TYPE_H_

#include <stdint.h>

#include <bitset>
#include <ostream>
#include <string>
#include <vector>

#include "TezaFieldTypeMetaData.h"
#include "TezaUtil.h"
#include "rk.h"

class TEZA_API TezaFieldType {
  public:
    // A live record with every field unset and raw-string mode off. Only the field count of
    // `md` is kept.
    explicit TezaFieldType(const TezaFieldTypeMetaData& md);
    // A record in the cleared state, the target of an assignment.
    TezaFieldType();
    // There is no copying constructor: a copy is a default-constructed record assigned from
    // the source, which copies deeply.
    TezaFieldType(const TezaFieldType&) = delete;
    // Releases nothing; see clear().
    virtual ~TezaFieldType();

    // The type's static descriptor; it directs copy, clear and element mapping.
    virtual const TezaFieldTypeMetaData& getMetaData() const = 0;

    // Every member below that takes a field position, apart from __setRawStringValue,
    // REQUIRES a live record (not cleared) and 0 <= fieldPos < the field count; otherwise the
    // process aborts.

    void fieldSet(int32_t fieldPos);
    bool isFieldSet(int32_t fieldPos) const;

    // A changed mode releases every value first (all fields end unset); the same mode is a
    // no-op.
    void storeAsRawstring(bool on);
    bool isStoreAsRawString() const;

    // --- Copying setters ---------------------------------------------------------------------
    // Each releases the field's previous value, stores a copy and sets the field. The caller
    // picks the setter that fits the field's kind; it is not checked. The primitive and text
    // setters do nothing in raw-string mode; the record setters work in both modes.
    void setFieldValue(int fieldPos, int32_t value);
    void setFieldValue(int fieldPos, uint32_t value);
    void setFieldValue(int fieldPos, int64_t value);
    void setFieldValue(int fieldPos, uint64_t value);
    void setFieldValue(int fieldPos, bool value);
    void setFieldValue(int fieldPos, std::string value);
    // Deleted on purpose: a text literal would otherwise convert to bool and silently set a
    // boolean; texts are set through std::string.
    void setFieldValue(int fieldPos, const char* value) = delete;
    // The copy is made by the namespace factory (null when the namespace has none). Passing
    // the record this field already holds hands that record over to the caller, who must free
    // it, and stores a fresh copy.
    void setFieldValue(int fieldPos, const TezaFieldType& value);
    void setFieldValue(int fieldPos, int count, const int32_t* values);
    void setFieldValue(int fieldPos, int count, const uint32_t* values);
    void setFieldValue(int fieldPos, int count, const int64_t* values);
    void setFieldValue(int fieldPos, int count, const uint64_t* values);
    void setFieldValue(int fieldPos, int count, const bool* values);
    void setFieldValue(int fieldPos, int count, const std::string* values);
    // `values` is a contiguous array of `count` records of the field's type.
    void setFieldValue(int fieldPos, int count, const TezaFieldType* values);
    void setFieldValue(int fieldPos, std::vector<TezaFieldType*>& values);

    // --- Adopting setters --------------------------------------------------------------------
    // Each takes over an array made with new[] (or one record made with new) after releasing
    // the field's previous value. When ignored in raw-string mode, ownership stays with the
    // caller. Adopting the value the field already holds destroys it first.
    void __setFieldValue(int fieldPos, int count, int32_t* values);
    void __setFieldValue(int fieldPos, int count, uint32_t* values);
    void __setFieldValue(int fieldPos, int count, int64_t* values);
    void __setFieldValue(int fieldPos, int count, uint64_t* values);
    void __setFieldValue(int fieldPos, int count, bool* values);
    void __setFieldValue(int fieldPos, int count, std::string* values);
    // An array of `count` records of the field's type, made with new[] (by a factory).
    void __setFieldValue(int fieldPos, int count, TezaFieldType* values);
    void __setFieldValue(int fieldPos, TezaFieldType* value);
    // Takes nothing over: copies the text into a single text value. Null is the empty text.
    void __setFieldValue(int fieldPos, const char* value);

    // --- Typed getters -----------------------------------------------------------------------
    // False, outputs untouched, when the field is unset. In raw-string mode the single
    // primitive getters convert the stored text (base 10; not a number gives 0; booleans are
    // false only for "0", "no", "off" and "false"), and the primitive and text array getters
    // return false. Arrays and records are lent: the record keeps owning them.
    bool getFieldValue(int fieldPos, int32_t& value) const;
    bool getFieldValue(int fieldPos, uint32_t& value) const;
    bool getFieldValue(int fieldPos, int64_t& value) const;
    bool getFieldValue(int fieldPos, uint64_t& value) const;
    bool getFieldValue(int fieldPos, bool& value) const;
    bool getFieldValue(int fieldPos, std::string& value) const;
    bool getFieldValue(int fieldPos, TezaFieldType*& value) const;
    bool getFieldValue(int fieldPos, int& count, int32_t*& values) const;
    bool getFieldValue(int fieldPos, int& count, uint32_t*& values) const;
    bool getFieldValue(int fieldPos, int& count, int64_t*& values) const;
    bool getFieldValue(int fieldPos, int& count, uint64_t*& values) const;
    bool getFieldValue(int fieldPos, int& count, bool*& values) const;
    bool getFieldValue(int fieldPos, int& count, std::string*& values) const;
    bool getFieldValue(int fieldPos, int& count, TezaFieldType*& values) const;

    // --- Raw-string accessors ----------------------------------------------------------------
    // For fields of the six primitive kinds. The setters do nothing unless raw-string mode is
    // on; the getters return false when it is off or the field is unset.
    void setRawStringValue(int fieldPos, std::string value);
    void setRawStringValue(int fieldPos, int count, const std::string* values);
    void setRawStringValue(int fieldPos, std::vector<std::string>& values);
    // Takes over an array made with new std::string[count]. Checks nothing and asserts
    // nothing: on a cleared record or an invalid position it does nothing and the caller
    // keeps the array.
    void __setRawStringValue(int fieldPos, int count, std::string* values);
    bool getRawStringValue(int fieldPos, std::string& value) const;
    bool getRawStringValue(int fieldPos, int& count, std::string*& values) const;

    // --- Copy and clear ----------------------------------------------------------------------
    // Releases every value; all fields end unset and the record stays live.
    void clearFieldData();
    void clearData();
    // Releases everything and moves the record to the cleared state, in which every field
    // accessor aborts. Harmless on a cleared record.
    void clear();
    // Fills this record with deep copies of the set fields of `src` (same generated type).
    // REQUIRES: this record was just released with clear() and has taken over the field count
    // and mode of `src`, as operator= does; what it still held is not released. Aborts when a
    // source getter fails (source and target in different raw-string modes).
    void copyData(const TezaFieldType& src);
    // Deep assignment between records of the same generated type: afterwards the two share
    // no value, text or nested record. Assigning a cleared record leaves this one cleared.
    TezaFieldType& operator=(const TezaFieldType& src);

    // --- Element trees -----------------------------------------------------------------------
    // Writes every set field of this record, in descriptor order, as children of `elem`: text
    // and number children, one element per nested record, a wrapper element per array. Only
    // single text and number fields honour the encrypted flag (and, in raw-string mode, single
    // booleans); array items and booleans go out in the clear. A set array with no items
    // still writes its wrapper. A null `elem` writes nothing. Aborts on a cleared record or
    // when the client library refuses to attach a child.
    void constructRkChildElement(rk_elem_t* elem) const;
    // Releases every value, then reads the fields found among the children of `elem`: what is
    // missing stays unset, texts are entity-decoded, numbers are converted without checks,
    // nested records are made by the namespace factory. An empty array reads as unset, and
    // nested typedefs are not read back from the shape the writer gives them; both are kept as
    // they are for compatibility with existing servers and callers. In raw-string mode single
    // values are kept as received, entity references included, while array items are
    // decoded. A null `elem` only releases. Aborts on a cleared record or when the factory cannot
    // make a present record.
    void parseRkChildElement(rk_elem_t* elem);
    // Replaces the five XML entities &lt; &gt; &apos; &quot; &amp; in one left-to-right pass:
    // a replaced character is never read again ("&amp;lt;" gives "&lt;"), and any other
    // sequence is kept as it is.
    static std::string getDecodedString(const std::string& text);

    // --- Text rendering ----------------------------------------------------------------------
    // The type's name, then one line per field, set or not, each prefixed by `indent` spaces;
    // nested records are indented four spaces more. Values are shown in the clear. Empty for
    // a cleared record.
    std::string toString(int indent) const;

  private:
    bool _isCleared;
    int32_t _numFields;              // the descriptor's field count, or 0 when cleared
    std::bitset<256> _fieldSetBits;  // bit i: field i holds a value
    void** _fieldValues;             // slot i: field i's value; dead while bit i is clear
    int32_t* _fieldCounts;           // element count of array field i
    bool _storeAsRawString;
};

// Writes record.toString(0).
TEZA_API std::ostream& operator<<(std::ostream& os, const TezaFieldType& record);

#endif  // TEZA_FIELD_TYPE_H_
