#include "TezaFieldType.h"

#include <pthread.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <memory>
#include <utility>

#include "TezaFieldTables.h"
#include "TezaFieldValues.h"
#include "TezaNamespaceFactory.h"

// --- Namespace factory registry ---------------------------------------------------------------

// Namespace name -> factory, by plain string comparison. The factories are not owned.
static std::map<std::string, const TezaFieldTypeFactory*> __namespaceMap;
static pthread_mutex_t __namespaceMapMutex = PTHREAD_MUTEX_INITIALIZER;

void TezaNamespaceFactory::registerTypeFactory(const std::string& ns,
                                               const TezaFieldTypeFactory* factory) {
    TezaWrapperUtil::Monitor monitor(__namespaceMapMutex);
    __namespaceMap[ns] = factory;
}

const TezaFieldTypeFactory* TezaNamespaceFactory::getTypeFactory(const std::string& ns) {
    TezaWrapperUtil::Monitor monitor(__namespaceMapMutex);
    std::map<std::string, const TezaFieldTypeFactory*>::const_iterator it = __namespaceMap.find(ns);
    return it == __namespaceMap.end() ? NULL : it->second;
}

// The forwarding operations look the factory up once and call it outside the lock.

TezaFieldType* TezaNamespaceFactory::getInstance(const std::string& ns, const std::string& category,
                                                 const std::string& typeName) {
    const TezaFieldTypeFactory* factory = getTypeFactory(ns);
    return factory == NULL ? NULL : factory->getInstance(category, typeName);
}

TezaFieldType* TezaNamespaceFactory::getInstances(const std::string& ns, int count,
                                                  const std::string& category,
                                                  const std::string& typeName) {
    const TezaFieldTypeFactory* factory = getTypeFactory(ns);
    return factory == NULL ? NULL : factory->getInstances(count, category, typeName);
}

TezaFieldType* TezaNamespaceFactory::copyInstance(const std::string& ns,
                                                  const std::string& typeName,
                                                  const TezaFieldType& source) {
    const TezaFieldTypeFactory* factory = getTypeFactory(ns);
    return factory == NULL ? NULL : factory->copyInstance(typeName, source);
}

TezaFieldType* TezaNamespaceFactory::copyInstances(const std::string& ns,
                                                   const std::string& typeName, int count,
                                                   const TezaFieldType*& source) {
    const TezaFieldTypeFactory* factory = getTypeFactory(ns);
    return factory == NULL ? NULL : factory->copyInstances(typeName, count, source);
}

TezaFieldType* TezaNamespaceFactory::copyInstances(const std::string& ns,
                                                   const std::string& typeName,
                                                   std::vector<TezaFieldType*>& source) {
    const TezaFieldTypeFactory* factory = getTypeFactory(ns);
    return factory == NULL ? NULL : factory->copyInstances(typeName, source);
}

std::vector<std::string> TezaNamespaceFactory::getNestedTypedefHierarchy(
    const std::string& ns, const std::string& typeName) {
    const TezaFieldTypeFactory* factory = getTypeFactory(ns);
    return factory == NULL ? std::vector<std::string>()
                           : factory->getNestedTypedefHierarchy(typeName);
}

// --- Helpers ----------------------------------------------------------------------------------

// The type name of a field's records: its type name, or for a nested typedef the last entry
// of the factory's hierarchy when there is one. Returned by value: the hierarchy is a
// temporary list.
static std::string __getLowestLevelTypeName(const TezaFieldTables& fields, int fieldPos) {
    const char* fieldTypeName = fields.typeName(fieldPos);
    std::string typeName = fieldTypeName == NULL ? "" : fieldTypeName;
    if (fields.isNestedTypedef(fieldPos)) {
        std::vector<std::string> hierarchy =
            TezaNamespaceFactory::getNestedTypedefHierarchy(fields.getNamespace(), typeName);
        if (!hierarchy.empty()) {
            typeName = hierarchy.back();
        }
    }
    return typeName;
}

// Arrays of nested records are made by the factories with new[] as arrays of the generated
// class, and released here as arrays of TezaFieldType: each element's virtual destructor runs,
// from the last to the first, then the block is freed. An array delete through the base type
// would not do: compilers may run the base destructor alone. For a class with a non-trivial
// destructor, new[] puts a cookie of sizeof(size_t) bytes (the element count) in front of the
// first element (Itanium C++ ABI), so the block starts that far before the array. Generated
// classes add no data members, so elements are TezaFieldType-sized.
static_assert(alignof(TezaFieldType) <= sizeof(size_t), "array cookie is one size_t");

static void __releaseRecords(void* slot, int32_t count) {
    if (slot == NULL) {
        return;
    }
    TezaFieldType* records = static_cast<TezaFieldType*>(slot);
    for (int32_t k = count - 1; k >= 0; --k) {
        records[k].~TezaFieldType();
    }
    ::operator delete[](static_cast<char*>(slot) - sizeof(size_t));
}

static void __releaseTexts(void* slot) {
    delete[] static_cast<std::string*>(slot);
}

// Stores an array and its count in a field's slot, first releasing the array the slot held
// when the field was set. `release` knows what kind of array that was.
template <typename Release>
static void __replaceArray(bool wasSet, void*& slot, int32_t& slotCount, void* values,
                           int32_t count, Release release) {
    if (wasSet) {
        release(slot, slotCount);
    }
    slot = values;
    slotCount = count;
}

// Stores a single value made with new in a field's slot, first releasing the value of the
// same type that the slot held when the field was set.
template <typename T>
static void __replaceSingle(bool wasSet, void*& slot, T* value) {
    if (wasSet) {
        delete static_cast<T*>(slot);
    }
    slot = value;
}

// Builds the new value before the old one is released, so that a value taken from this very
// field (or from a record it holds) is still intact while it is copied, and so that an
// allocation failure leaves the field as it was.
template <typename T>
static T* __newArrayCopy(int count, const T* values) {
    std::unique_ptr<T[]> copy(new T[count]);
    for (int k = 0; k < count; ++k) {
        copy[k] = values[k];
    }
    return copy.release();
}

// Both checks of every field accessor, written out in place so that the assertion report
// names the accessor itself.
#define TEZA_CHECK_FIELD_ACCESS()                                \
    do {                                                         \
        TEZA_ASSERT(!_isCleared);                                \
        TEZA_ASSERT((0 <= fieldPos) && (fieldPos < _numFields)); \
    } while (0)

// --- Construction and mode ----------------------------------------------------------------------

TezaFieldType::TezaFieldType(const TezaFieldTypeMetaData& md)
    : _isCleared(false),
      _numFields(md.getNumFields()),
      _fieldSetBits(),
      _fieldValues(new void*[_numFields]()),
      _fieldCounts(new int32_t[_numFields]()),
      _storeAsRawString(false) {}

TezaFieldType::TezaFieldType()
    : _isCleared(true),
      _numFields(0),
      _fieldSetBits(),
      _fieldValues(NULL),
      _fieldCounts(NULL),
      _storeAsRawString(false) {}

TezaFieldType::~TezaFieldType() {}

void TezaFieldType::fieldSet(int32_t fieldPos) {
    TEZA_CHECK_FIELD_ACCESS();
    _fieldSetBits.set(fieldPos);
}

bool TezaFieldType::isFieldSet(int32_t fieldPos) const {
    TEZA_CHECK_FIELD_ACCESS();
    return _fieldSetBits.test(fieldPos);
}

// Every primitive field changes representation with the mode, so no value survives a switch.
void TezaFieldType::storeAsRawstring(bool on) {
    if (on != _storeAsRawString) {
        clearFieldData();
        _storeAsRawString = on;
    }
}

bool TezaFieldType::isStoreAsRawString() const {
    return _storeAsRawString;
}

// --- Copying setters ----------------------------------------------------------------------------

// The setters of primitive and text values test and set the field's bit directly once their
// checks have passed: isFieldSet and fieldSet would make the same checks again, and nothing
// between can change their outcome (these setters run no code of generated records).

#define TEZA_SET_SINGLE(T)                                                        \
    void TezaFieldType::setFieldValue(int fieldPos, T value) {                    \
        TEZA_CHECK_FIELD_ACCESS();                                                \
        if (!_storeAsRawString) {                                                 \
            __replaceSingle(_fieldSetBits.test(fieldPos), _fieldValues[fieldPos], \
                            new T(std::move(value)));                             \
            _fieldSetBits.set(fieldPos);                                          \
        }                                                                         \
    }

TEZA_SET_SINGLE(int32_t)
TEZA_SET_SINGLE(uint32_t)
TEZA_SET_SINGLE(int64_t)
TEZA_SET_SINGLE(uint64_t)
TEZA_SET_SINGLE(bool)
TEZA_SET_SINGLE(std::string)

void TezaFieldType::setFieldValue(int fieldPos, const TezaFieldType& value) {
    TEZA_CHECK_FIELD_ACCESS();
    const TezaFieldTables fields(getMetaData(), fieldPos + 1);
    // The copy is made before the old value is released, on purpose: `value` may live inside
    // the stored record, and would be read after it was freed in the other order.
    TezaFieldType* copy = TezaNamespaceFactory::copyInstance(
        fields.getNamespace(), __getLowestLevelTypeName(fields, fieldPos), value);
    // The record already stored here is not destroyed when it is the one passed in: the
    // caller's reference stays valid and the caller becomes its owner.
    if (isFieldSet(fieldPos) && _fieldValues[fieldPos] != &value) {
        delete static_cast<TezaFieldType*>(_fieldValues[fieldPos]);
    }
    _fieldValues[fieldPos] = copy;
    fieldSet(fieldPos);
}

#define TEZA_SET_ARRAY(T)                                                                    \
    void TezaFieldType::setFieldValue(int fieldPos, int count, const T* values) {            \
        TEZA_CHECK_FIELD_ACCESS();                                                           \
        if (_storeAsRawString) {                                                             \
            return;                                                                          \
        }                                                                                    \
        __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos], \
                       __newArrayCopy(count, values), count,                                 \
                       [](void* old, int32_t) { delete[] static_cast<T*>(old); });           \
        fieldSet(fieldPos);                                                                  \
    }

TEZA_SET_ARRAY(int32_t)
TEZA_SET_ARRAY(uint32_t)
TEZA_SET_ARRAY(int64_t)
TEZA_SET_ARRAY(uint64_t)
TEZA_SET_ARRAY(bool)
TEZA_SET_ARRAY(std::string)

void TezaFieldType::setFieldValue(int fieldPos, int count, const TezaFieldType* values) {
    TEZA_CHECK_FIELD_ACCESS();
    const TezaFieldTables fields(getMetaData(), fieldPos + 1);
    // Copied before the old records are released, on purpose: `values` may be (or live inside)
    // the stored array, which the other order would read after freeing it.
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances(
        fields.getNamespace(), __getLowestLevelTypeName(fields, fieldPos), count, values);
    __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos], copies,
                   count, __releaseRecords);
    fieldSet(fieldPos);
}

void TezaFieldType::setFieldValue(int fieldPos, std::vector<TezaFieldType*>& values) {
    TEZA_CHECK_FIELD_ACCESS();
    const TezaFieldTables fields(getMetaData(), fieldPos + 1);
    // Copied before the old records are released, on purpose: the vector may point into the
    // stored array, which the other order would read after freeing it.
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances(
        fields.getNamespace(), __getLowestLevelTypeName(fields, fieldPos), values);
    __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos], copies,
                   static_cast<int32_t>(values.size()), __releaseRecords);
    fieldSet(fieldPos);
}

// --- Adopting setters ---------------------------------------------------------------------------

#define TEZA_ADOPT_ARRAY(T)                                                        \
    void TezaFieldType::__setFieldValue(int fieldPos, int count, T* values) {      \
        TEZA_CHECK_FIELD_ACCESS();                                                 \
        if (_storeAsRawString) {                                                   \
            return;                                                                \
        }                                                                          \
        __replaceArray(_fieldSetBits.test(fieldPos), _fieldValues[fieldPos],       \
                       _fieldCounts[fieldPos], values, count,                      \
                       [](void* old, int32_t) { delete[] static_cast<T*>(old); }); \
        _fieldSetBits.set(fieldPos);                                               \
    }

TEZA_ADOPT_ARRAY(int32_t)
TEZA_ADOPT_ARRAY(uint32_t)
TEZA_ADOPT_ARRAY(int64_t)
TEZA_ADOPT_ARRAY(uint64_t)
TEZA_ADOPT_ARRAY(bool)
TEZA_ADOPT_ARRAY(std::string)

void TezaFieldType::__setFieldValue(int fieldPos, int count, TezaFieldType* values) {
    TEZA_CHECK_FIELD_ACCESS();
    __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos], values,
                   count, __releaseRecords);
    fieldSet(fieldPos);
}

void TezaFieldType::__setFieldValue(int fieldPos, TezaFieldType* value) {
    TEZA_CHECK_FIELD_ACCESS();
    __replaceSingle(isFieldSet(fieldPos), _fieldValues[fieldPos], value);
    fieldSet(fieldPos);
}

void TezaFieldType::__setFieldValue(int fieldPos, const char* value) {
    TEZA_CHECK_FIELD_ACCESS();
    if (!_storeAsRawString) {
        std::string* copy = new std::string(value == NULL ? "" : value);
        __replaceSingle(_fieldSetBits.test(fieldPos), _fieldValues[fieldPos], copy);
        _fieldSetBits.set(fieldPos);
    }
}

// --- Typed getters ------------------------------------------------------------------------------

#define TEZA_GET_SINGLE(T)                                            \
    bool TezaFieldType::getFieldValue(int fieldPos, T& value) const { \
        TEZA_CHECK_FIELD_ACCESS();                                    \
        if (!isFieldSet(fieldPos)) {                                  \
            return false;                                             \
        }                                                             \
        if (!_storeAsRawString) {                                     \
            value = *static_cast<const T*>(_fieldValues[fieldPos]);   \
            return true;                                              \
        }                                                             \
        std::string text;                                             \
        if (!getRawStringValue(fieldPos, text)) {                     \
            return false;                                             \
        }                                                             \
        __fromText(text.c_str(), value);                              \
        return true;                                                  \
    }

TEZA_GET_SINGLE(int32_t)
TEZA_GET_SINGLE(uint32_t)
TEZA_GET_SINGLE(int64_t)
TEZA_GET_SINGLE(uint64_t)
TEZA_GET_SINGLE(bool)

// Texts are handed out up to their first NUL character, in either mode.
bool TezaFieldType::getFieldValue(int fieldPos, std::string& value) const {
    TEZA_CHECK_FIELD_ACCESS();
    if (!isFieldSet(fieldPos)) {
        return false;
    }
    value = static_cast<const std::string*>(_fieldValues[fieldPos])->c_str();
    return true;
}

bool TezaFieldType::getFieldValue(int fieldPos, TezaFieldType*& value) const {
    TEZA_CHECK_FIELD_ACCESS();
    if (!isFieldSet(fieldPos)) {
        return false;
    }
    value = static_cast<TezaFieldType*>(_fieldValues[fieldPos]);
    return true;
}

#define TEZA_GET_ARRAY(T)                                                           \
    bool TezaFieldType::getFieldValue(int fieldPos, int& count, T*& values) const { \
        TEZA_CHECK_FIELD_ACCESS();                                                  \
        if (!isFieldSet(fieldPos) || _storeAsRawString) {                           \
            return false;                                                           \
        }                                                                           \
        count = _fieldCounts[fieldPos];                                             \
        values = static_cast<T*>(_fieldValues[fieldPos]);                           \
        return true;                                                                \
    }

TEZA_GET_ARRAY(int32_t)
TEZA_GET_ARRAY(uint32_t)
TEZA_GET_ARRAY(int64_t)
TEZA_GET_ARRAY(uint64_t)
TEZA_GET_ARRAY(bool)
TEZA_GET_ARRAY(std::string)

// Nested records are records in either mode.
bool TezaFieldType::getFieldValue(int fieldPos, int& count, TezaFieldType*& values) const {
    TEZA_CHECK_FIELD_ACCESS();
    if (!isFieldSet(fieldPos)) {
        return false;
    }
    count = _fieldCounts[fieldPos];
    values = static_cast<TezaFieldType*>(_fieldValues[fieldPos]);
    return true;
}

// --- Raw-string accessors -----------------------------------------------------------------------

void TezaFieldType::setRawStringValue(int fieldPos, std::string value) {
    TEZA_CHECK_FIELD_ACCESS();
    if (_storeAsRawString) {
        __replaceSingle(_fieldSetBits.test(fieldPos), _fieldValues[fieldPos],
                        new std::string(std::move(value)));
        _fieldSetBits.set(fieldPos);
    }
}

void TezaFieldType::setRawStringValue(int fieldPos, int count, const std::string* values) {
    TEZA_CHECK_FIELD_ACCESS();
    if (!_storeAsRawString) {
        return;
    }
    __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos],
                   __newArrayCopy(count, values), count,
                   [](void* old, int32_t) { __releaseTexts(old); });
    fieldSet(fieldPos);
}

void TezaFieldType::setRawStringValue(int fieldPos, std::vector<std::string>& values) {
    TEZA_CHECK_FIELD_ACCESS();
    setRawStringValue(fieldPos, static_cast<int>(values.size()), values.data());
}

// The response reader's fast path: no assertions. A cleared record or a position outside the
// record is ignored rather than written past the slots.
void TezaFieldType::__setRawStringValue(int fieldPos, int count, std::string* values) {
    if (!_storeAsRawString || _isCleared || fieldPos < 0 || fieldPos >= _numFields) {
        return;
    }
    __replaceArray(_fieldSetBits.test(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos],
                   values, count, [](void* old, int32_t) { __releaseTexts(old); });
    _fieldSetBits.set(fieldPos);
}

bool TezaFieldType::getRawStringValue(int fieldPos, std::string& value) const {
    TEZA_CHECK_FIELD_ACCESS();
    if (!isFieldSet(fieldPos) || !_storeAsRawString) {
        return false;
    }
    value = static_cast<const std::string*>(_fieldValues[fieldPos])->c_str();
    return true;
}

bool TezaFieldType::getRawStringValue(int fieldPos, int& count, std::string*& values) const {
    TEZA_CHECK_FIELD_ACCESS();
    if (!isFieldSet(fieldPos) || !_storeAsRawString) {
        return false;
    }
    count = _fieldCounts[fieldPos];
    values = static_cast<std::string*>(_fieldValues[fieldPos]);
    return true;
}

// --- Copy and clear -----------------------------------------------------------------------------

// Releases what a set field's slot holds. What that is follows from the descriptor and the
// mode, so the caller passes both. The count is read only for an array of records: the counts
// are a block of their own, which releasing any other field need not touch.
static void __releaseField(TezaBasicType type, bool isArray, bool rawString, void* slot,
                           const int32_t& count) {
    if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        if (isArray) {
            __releaseRecords(slot, count);
        } else {
            delete static_cast<TezaFieldType*>(slot);
        }
        return;
    }
    __withValueType(__heldType(type, rawString), [&](auto held) {
        typedef typename decltype(held)::Type T;
        if (isArray) {
            delete[] static_cast<T*>(slot);
        } else {
            delete static_cast<T*>(slot);
        }
    });
}

// Slots and counts stay as they are: with their bits clear they are dead.
void TezaFieldType::clearFieldData() {
    if (_isCleared) {
        return;
    }
    const TezaFieldTables fields(getMetaData(), _numFields);
    // A record that holds nothing (a new one, about to be read) has nothing to release.
    if (_fieldSetBits.none()) {
        return;
    }
    for (int i = 0; i < _numFields; ++i) {
        if (_fieldSetBits.test(i)) {
            __releaseField(fields.type(i), fields.isArray(i), _storeAsRawString, _fieldValues[i],
                           _fieldCounts[i]);
        }
    }
    _fieldSetBits.reset();
}

void TezaFieldType::clearData() {
    clearFieldData();
}

void TezaFieldType::clear() {
    if (_isCleared) {
        return;
    }
    clearFieldData();
    delete[] _fieldValues;
    delete[] _fieldCounts;
    _fieldValues = NULL;
    _fieldCounts = NULL;
    _numFields = 0;
    _isCleared = true;
}

// How a copy reads the source's fields and writes the target's: through the typed getters and
// the copying setters, or, for raw texts, through the raw accessors without conversion.
template <bool rawString>
struct __Access {
    template <typename... Out>
    static bool get(const TezaFieldType& record, int i, Out&... out) {
        if constexpr (rawString) {
            return record.getRawStringValue(i, out...);
        } else {
            return record.getFieldValue(i, out...);
        }
    }
    template <typename... In>
    static void set(TezaFieldType& record, int i, In&&... in) {
        if constexpr (rawString) {
            record.setRawStringValue(i, std::forward<In>(in)...);
        } else {
            record.setFieldValue(i, std::forward<In>(in)...);
        }
    }
};

// Copies field `i` of `src` into `dst`; false when the getter fails, before anything is stored.
template <typename T, typename Access>
static bool __copyArray(const TezaFieldType& src, TezaFieldType& dst, int i) {
    int count = 0;
    T* values = NULL;
    if (!Access::get(src, i, count, values)) {
        return false;
    }
    Access::set(dst, i, count, const_cast<const T*>(values));
    return true;
}

template <typename T, typename Access>
static bool __copyValues(const TezaFieldType& src, TezaFieldType& dst, int i, bool isArray) {
    if (isArray) {
        return __copyArray<T, Access>(src, dst, i);
    }
    T value = T();
    if (!Access::get(src, i, value)) {
        return false;
    }
    Access::set(dst, i, value);
    return true;
}

// A single nested record is copied by the namespace factory, through the record setter.
static bool __copyRecord(const TezaFieldType& src, TezaFieldType& dst, int i) {
    TezaFieldType* record = NULL;
    if (!src.getFieldValue(i, record)) {
        return false;
    }
    if (record != NULL) {
        dst.setFieldValue(i, *record);
    } else {
        // Set without a record (its namespace had no factory): so is the copy.
        dst.__setFieldValue(i, static_cast<TezaFieldType*>(NULL));
    }
    return true;
}

void TezaFieldType::copyData(const TezaFieldType& src) {
    if (src._isCleared) {
        return;
    }
    const TezaFieldTables fields(getMetaData(), _numFields);
    _fieldValues = new void*[_numFields]();
    _fieldCounts = new int32_t[_numFields]();
    for (int i = 0; i < _numFields; ++i) {
        if (!src.isFieldSet(i)) {
            _fieldValues[i] = NULL;
            _fieldCounts[i] = 0;
            continue;
        }
        TezaBasicType type = fields.type(i);
        bool isArray = fields.isArray(i);
        bool ret = true;
        if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE && !isArray) {
            ret = __copyRecord(src, *this, i);
        } else if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
            // Null records too (set while the namespace had no factory) go through the setter,
            // so that a factory registered since then makes the copy.
            ret = __copyArray<TezaFieldType, __Access<false>>(src, *this, i);
        } else if (__isPrimitive(type) && _storeAsRawString) {
            ret = __copyValues<std::string, __Access<true>>(src, *this, i, isArray);
        } else {
            __withValueType(type, [&](auto held) {
                typedef typename decltype(held)::Type T;
                ret = __copyValues<T, __Access<false>>(src, *this, i, isArray);
            });
        }
        // A getter fails only when source and target disagree on raw-string mode.
        TEZA_ASSERT(ret);
    }
}

// The mode is taken over before the copy, so source and target agree on it and every getter
// of the copy succeeds for a set field.
TezaFieldType& TezaFieldType::operator=(const TezaFieldType& src) {
    if (&src == this) {
        return *this;
    }
    clear();
    _isCleared = src._isCleared;
    _numFields = src._numFields;
    _fieldSetBits.reset();
    _storeAsRawString = src._storeAsRawString;
    copyData(src);
    return *this;
}

// --- Entity decoding ---------------------------------------------------------------------------

struct xmlEncodedChar {
    std::string entity;
    std::string replacement;
};

// Two different entities never start at the same position, so the order changes no result.
static const xmlEncodedChar encodedList[5] = {
    {"&lt;", "<"}, {"&gt;", ">"}, {"&apos;", "'"}, {"&quot;", "\""}, {"&amp;", "&"}};

// The category under which every nested record of a response is requested.
static const std::string __ctgName = "typedef";

// The entity of the table that starts at `text`, or null when none does. Two entities never
// start at the same position, so at most one matches.
static const xmlEncodedChar* __entityAt(const char* text, size_t length) {
    for (const xmlEncodedChar& e : encodedList) {
        if (e.entity.size() <= length && memcmp(text, e.entity.data(), e.entity.size()) == 0) {
            return &e;
        }
    }
    return NULL;
}

// Appends the `length` characters at `text` to `out`, entities decoded. One left-to-right pass:
// the first entity found at or after a position is the one at the first ampersand from there on
// that starts one, so after each replacement the search resumes behind the entity and the
// character produced is never examined again. Runs without an ampersand are appended whole.
static void __appendDecoded(const char* text, size_t length, std::string& out) {
    const char* end = text + length;
    for (;;) {
        const char* amp = static_cast<const char*>(memchr(text, '&', end - text));
        if (amp == NULL) {
            out.append(text, end - text);
            return;
        }
        out.append(text, amp - text);
        const xmlEncodedChar* entity = __entityAt(amp, end - amp);
        if (entity == NULL) {
            out += '&';
            text = amp + 1;
        } else {
            out += entity->replacement;
            text = amp + entity->entity.size();
        }
    }
}

// Decodes the entities that start at or after `from`; what comes before is copied unchanged.
static std::string getDecodedString(const std::string& text, unsigned long from) {
    if (from >= text.size()) {
        return text;
    }
    std::string decoded(text, 0, from);
    __appendDecoded(text.data() + from, text.size() - from, decoded);
    return decoded;
}

std::string TezaFieldType::getDecodedString(const std::string& text) {
    return ::getDecodedString(text, 0);
}

// --- Writing records into request elements ------------------------------------------------------

// Creates `name` under `parent` and makes it the parent; false when it is refused.
static bool __addLink(rk_elem_t*& parent, const char* name) {
    rk_elem_t* link = rk_elem_new(name);
    if (rk_child_add(parent, link) == NULL) {
        return false;
    }
    parent = link;
    return true;
}

// Creates the elements that field `i` (an array or not) has its values under, below `parent`,
// which becomes the last of them; `name` becomes the name of the value's own element, which may
// point into `hierarchy`. False as soon as an element is refused.
static bool __openField(const TezaFieldTables& fields, int i, bool isArray, rk_elem_t*& parent,
                        const char*& name, std::vector<std::string>& hierarchy) {
    const char* fieldName = fields.name(i);
    name = fieldName;
    if (!isArray && fields.type(i) != TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        return true;
    }
    const char* typeName = fields.typeName(i);
    // An array's wrapper comes first, so a set array without items (or of a kind that has no
    // items to write) still shows as an empty wrapper. A single nested record named like its
    // type is written as one element, not two; as a nested typedef it always gets its field
    // element.
    bool nested = fields.isNestedTypedef(i);
    if ((isArray || nested || strcmp(fieldName, typeName) != 0) && !__addLink(parent, fieldName)) {
        return false;
    }
    name = typeName == NULL ? "" : typeName;
    if (!nested) {
        return true;
    }
    // A nested typedef is written under the chain of its type: T / H[0] / ... / H[n-2].
    hierarchy = TezaNamespaceFactory::getNestedTypedefHierarchy(fields.getNamespace(), typeName);
    if (hierarchy.empty()) {
        return true;
    }
    if (!__addLink(parent, typeName)) {
        return false;
    }
    for (size_t j = 0; j + 1 < hierarchy.size(); ++j) {
        if (!__addLink(parent, hierarchy[j].c_str())) {
            return false;
        }
    }
    name = hierarchy.back().c_str();
    return true;
}

// Writes one nested record as an element `name` under `parent`. The nested record is filled
// before its element is attached.
static bool __addRecord(rk_elem_t* parent, const char* name, const TezaFieldType& record) {
    rk_elem_t* child = rk_elem_new(name);
    record.constructRkChildElement(child);
    return rk_child_add(parent, child) != NULL;
}

template <typename T>
static bool __addItems(rk_elem_t* parent, const char* name, int count, const T* values) {
    for (int k = 0; k < count; ++k) {
        if (!__addItem(parent, name, values[k])) {
            return false;
        }
    }
    return true;
}

// Writes the items of array field `i` under `parent`. Returns false when the field could not
// be read (nothing is written); `retElem` becomes false when a child was refused (the items
// after it are not written).
static bool __writeArray(const TezaFieldType& record, TezaBasicType type, int i, rk_elem_t* parent,
                         const char* name, bool& retElem) {
    int count = 0;
    bool ret = true;
    if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        TezaFieldType* records = NULL;
        ret = record.getFieldValue(i, count, records);
        // A null array (its namespace had no factory) has no items to write.
        for (int k = 0; ret && retElem && records != NULL && k < count; ++k) {
            retElem = __addRecord(parent, name, records[k]);
        }
    } else if (record.isStoreAsRawString()) {
        std::string* texts = NULL;
        if (__isPrimitive(type)) {
            ret = record.getRawStringValue(i, count, texts);
            retElem = !ret || __addItems(parent, name, count, texts);
        }
    } else {
        __withValueType(type, [&](auto held) {
            typename decltype(held)::Type* values = NULL;
            ret = record.getFieldValue(i, count, values);
            retElem = !ret || __addItems(parent, name, count, values);
        });
    }
    return ret;
}

// Writes single primitive field `i` as `name` under `parent`, with the same results as
// __writeArray.
static bool __writeSingle(const TezaFieldType& record, TezaBasicType type, bool encrypted, int i,
                          rk_elem_t* parent, const char* name, bool& retElem) {
    bool ret = true;
    if (record.isStoreAsRawString()) {
        // Raw text goes out as stored, a boolean included, and may be encrypted.
        if (__isPrimitive(type)) {
            std::string text;
            ret = record.getRawStringValue(i, text);
            if (ret) {
                __addChildString(parent, name, text, encrypted);
            }
        }
        return ret;
    }
    __withValueType(type, [&](auto held) {
        typename decltype(held)::Type value = typename decltype(held)::Type();
        ret = record.getFieldValue(i, value);
        retElem = !ret || __addSingle(parent, name, value, encrypted);
    });
    return ret;
}

// What is written is decided by the set bits alone, whatever the optional flags say.
void TezaFieldType::constructRkChildElement(rk_elem_t* elem) const {
    TEZA_ASSERT(!_isCleared);
    if (elem == NULL) {
        return;
    }
    const TezaFieldTables fields(getMetaData(), _numFields);
    for (int i = 0; i < _numFields; ++i) {
        if (!isFieldSet(i)) {
            continue;
        }
        TezaBasicType code = fields.type(i);
        bool isArray = fields.isArray(i);
        rk_elem_t* parent = elem;
        const char* name = NULL;
        std::vector<std::string> hierarchy;
        bool retElem = __openField(fields, i, isArray, parent, name, hierarchy);
        TEZA_ASSERT(retElem);
        bool ret = true;
        if (isArray) {
            ret = __writeArray(*this, code, i, parent, name, retElem);
        } else if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
            TezaFieldType* tezaVal = NULL;
            ret = getFieldValue(i, tezaVal);
            TEZA_ASSERT(ret);
            TEZA_ASSERT(tezaVal != NULL);
            retElem = __addRecord(parent, name, *tezaVal);
        } else {
            ret = __writeSingle(*this, code, fields.isEncrypted(i), i, parent, name, retElem);
        }
        TEZA_ASSERT(ret);
        TEZA_ASSERT(retElem);
    }
}

// --- Reading records from response elements -----------------------------------------------------

// Decodes straight into the value, without a copy of the text in between.
static void __fromText(const char* text, std::string& value) {
    value.clear();
    __appendDecoded(text, strlen(text), value);
}

// The hierarchy of field `i`'s type when it is a nested typedef; empty otherwise. Inline, so that
// the common case makes no call.
static std::vector<std::string> __fetchHierarchy(const TezaFieldTables& fields, int i) {
    return TezaNamespaceFactory::getNestedTypedefHierarchy(fields.getNamespace(),
                                                           fields.typeName(i));
}

static inline std::vector<std::string> __hierarchyOf(const TezaFieldTables& fields, int i) {
    return fields.isNestedTypedef(i) ? __fetchHierarchy(fields, i) : std::vector<std::string>();
}

// Every child of an array's wrapper is an item, whatever its name.
static int __countItems(rk_elem_t* wrapper) {
    int count = 0;
    rk_iterator_t counter = rk_child_iterator(wrapper);
    while (rk_iterator_next(&counter) != NULL) {
        ++count;
    }
    return count;
}

// The array that `count` items of a field are read into: records from the namespace factory, or
// values of the type the field holds. Null for a type that holds nothing, or no factory.
static void* __newItems(const TezaFieldTables& fields, int i, TezaBasicType held, int count,
                        const std::vector<std::string>& hierarchy) {
    if (held == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        const char* typeName = fields.typeName(i);
        std::string itemType =
            !hierarchy.empty() ? hierarchy.back() : (typeName == NULL ? "" : typeName);
        return TezaNamespaceFactory::getInstances(fields.getNamespace(), count, __ctgName,
                                                  itemType);
    }
    void* items = NULL;
    __withValueType(held, [&](auto type) { items = new typename decltype(type)::Type[count](); });
    return items;
}

// Calls `read(k, node)` for the element of each of the first `count` items under `wrapper`.
// Items of a nested typedef are descended from the second name of the hierarchy on, without a
// check of the links; this does not mirror the writer and is kept for compatibility.
template <typename Read>
static void __forEachItem(rk_elem_t* wrapper, int count, const std::vector<std::string>& hierarchy,
                          Read read) {
    rk_iterator_t walker = rk_child_iterator(wrapper);
    rk_elem_t* item = rk_iterator_next(&walker);
    for (int k = 0; item != NULL && k < count; ++k, item = rk_iterator_next(&walker)) {
        rk_elem_t* node = item;
        for (size_t j = 1; j < hierarchy.size(); ++j) {
            node = rk_elem_child(node, hierarchy[j].c_str());
        }
        read(k, node);
    }
}

// Reads the items into `items` (made by __newItems) and hands them to field `i` of `record`.
// An item without text is left as allocated.
static void __readItems(TezaFieldType& record, int i, TezaBasicType held, rk_elem_t* wrapper,
                        int count, const std::vector<std::string>& hierarchy, void* items) {
    if (held == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        TezaFieldType* records = static_cast<TezaFieldType*>(items);
        __forEachItem(wrapper, count, hierarchy, [&](int k, rk_elem_t* node) {
            if (record.isStoreAsRawString()) {
                records[k].storeAsRawstring(true);
            }
            records[k].parseRkChildElement(node);
        });
        record.__setFieldValue(i, count, records);
        return;
    }
    __withValueType(held, [&](auto type) {
        typedef typename decltype(type)::Type T;
        T* values = static_cast<T*>(items);
        __forEachItem(wrapper, count, hierarchy, [&](int k, rk_elem_t* node) {
            const char* content = rk_elem_get_content(node);
            if (content != NULL) {
                __fromText(content, values[k]);
            }
        });
    });
    if (record.isStoreAsRawString()) {
        record.__setRawStringValue(i, count, static_cast<std::string*>(items));
    } else {
        __withValueType(held, [&](auto type) {
            record.__setFieldValue(i, count, static_cast<typename decltype(type)::Type*>(items));
        });
    }
}

// Stores the text of single primitive field `i` as the record's mode wants it. Inline: it runs
// for every single value read.
static inline void __storeSingle(TezaFieldType& record, TezaBasicType code, int i, rk_elem_t* elem,
                                 const char* name, const char* text) {
    if (record.isStoreAsRawString()) {
        // Kept exactly as received: single raw values are not entity-decoded, while raw array
        // items, held as texts, are.
        record.setRawStringValue(i, text);
    } else if (code == TezaFieldTypeMetaData::BOOL_TYPE) {
        // Presence comes from the text lookup, the value from the library's reading.
        record.setFieldValue(i, rk_child_get_bool(elem, name, 0) != 0);
    } else if (code == TezaFieldTypeMetaData::STRING_TYPE && strchr(text, '&') == NULL) {
        // A text without an ampersand holds no entity: it is copied into the value as it stands.
        record.__setFieldValue(i, text);
    } else {
        __withValueType(code, [&](auto type) {
            typename decltype(type)::Type value = typename decltype(type)::Type();
            __fromText(text, value);
            record.setFieldValue(i, std::move(value));
        });
    }
}

// Reads single primitive field `i`; a missing child leaves it unset. A clear text is read where
// the tree holds it; a decrypted one is copied and released first.
static void __readSingle(TezaFieldType& record, const TezaFieldTables& fields, int i,
                         rk_elem_t* elem) {
    const char* name = fields.name(i);
    TezaBasicType code = fields.type(i);
    if (!fields.isEncrypted(i)) {
        const char* text = rk_child_get_string(elem, name);
        if (text != NULL) {
            __storeSingle(record, code, i, elem, name, text);
        }
        return;
    }
    char* clear = rk_child_get_string_encrypted(elem, name, NULL);
    if (clear == NULL) {
        return;
    }
    std::string text = clear;
    rk_free(clear);
    __storeSingle(record, code, i, elem, name, text.c_str());
}

// Finds the element single nested record `i` is read from, and the record's type name; false
// when one of the elements looked for is missing. For a nested typedef that is the element the
// writer makes the parent of the record's own element, kept for compatibility; the links after
// the type's own are not checked.
static bool __findRecord(const TezaFieldTables& fields, int i, rk_elem_t* elem, rk_elem_t*& node,
                         std::string& recordType) {
    const char* fieldName = fields.name(i);
    const char* typeName = fields.typeName(i);
    node = rk_elem_child(elem, fieldName);
    if (node == NULL) {
        return false;
    }
    recordType = typeName;
    std::vector<std::string> hierarchy = __hierarchyOf(fields, i);
    if (!fields.isNestedTypedef(i) ? strcmp(fieldName, typeName) == 0 : hierarchy.empty()) {
        return true;
    }
    node = rk_elem_child(node, typeName);
    if (node == NULL) {
        return false;
    }
    for (size_t j = 0; j + 1 < hierarchy.size(); ++j) {
        node = rk_elem_child(node, hierarchy[j].c_str());
    }
    if (!hierarchy.empty()) {
        recordType = hierarchy.back();
    }
    return true;
}

void TezaFieldType::parseRkChildElement(rk_elem_t* elem) {
    TEZA_ASSERT(!_isCleared);
    clearFieldData();
    if (elem == NULL) {
        return;
    }
    const TezaFieldTables fields(getMetaData(), _numFields);
    for (int i = 0; i < _numFields; ++i) {
        TezaBasicType code = fields.type(i);
        if (fields.isArray(i)) {
            rk_elem_t* wrapper = rk_elem_child(elem, fields.name(i));
            // An empty wrapper reads as unset although a set empty array is written as one;
            // kept for compatibility.
            int count = wrapper == NULL ? 0 : __countItems(wrapper);
            if (count == 0) {
                continue;
            }
            std::vector<std::string> hierarchy = __hierarchyOf(fields, i);
            TezaBasicType held = __heldType(code, _storeAsRawString);
            void* valueArray = __newItems(fields, i, held, count, hierarchy);
            TEZA_ASSERT(valueArray != NULL);
            __readItems(*this, i, held, wrapper, count, hierarchy, valueArray);
        } else if (__isPrimitive(code)) {
            __readSingle(*this, fields, i, elem);
        } else if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
            rk_elem_t* node = NULL;
            std::string recordType;
            if (!__findRecord(fields, i, elem, node, recordType)) {
                continue;
            }
            TezaFieldType* tezaVal =
                TezaNamespaceFactory::getInstance(fields.getNamespace(), __ctgName, recordType);
            TEZA_ASSERT(tezaVal != NULL);
            if (_storeAsRawString) {
                tezaVal->storeAsRawstring(true);
            }
            tezaVal->parseRkChildElement(node);
            __setFieldValue(i, tezaVal);
        }
    }
}

// --- Text rendering -----------------------------------------------------------------------------

// Appends single field `i`'s value; false when it could not be read. Raw texts and values are
// shown as they are held, nested records indented four spaces further; the encrypted flag is
// not consulted, so secrets are shown in the clear.
static bool __appendValue(const TezaFieldType& record, TezaBasicType type, int i, int indent,
                          std::string& out) {
    bool ret = true;
    if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        TezaFieldType* nested = NULL;
        ret = record.getFieldValue(i, nested);
        // A null record (its namespace had no factory) shows nothing.
        if (ret && nested != NULL) {
            out += nested->toString(indent + 4);
        }
    } else if (record.isStoreAsRawString()) {
        if (__isPrimitive(type)) {
            std::string text;
            ret = record.getRawStringValue(i, text);
            out += text;
        }
    } else {
        __withValueType(type, [&](auto held) {
            typename decltype(held)::Type value = typename decltype(held)::Type();
            ret = record.getFieldValue(i, value);
            if (ret) {
                out += __toString(value);
            }
        });
    }
    return ret;
}

// Every item line but the first repeats the indentation and the field name.
static void __appendItemPrefix(int j, const std::string& pad, const char* name, std::string& out) {
    if (j != 0) {
        out += "\n";
        out += pad;
        out += name;
    }
    out += " [";
    out += __toString(j);
    out += "]: ";
}

template <typename T>
static void __appendItemValues(int count, const T* values, const std::string& pad, const char* name,
                               std::string& out) {
    for (int j = 0; j < count; ++j) {
        __appendItemPrefix(j, pad, name, out);
        out += __toString(values[j]);
    }
}

// Appends one line per item of array field `i`; false when it could not be read.
static bool __appendItems(const TezaFieldType& record, TezaBasicType type, int i, int indent,
                          const std::string& pad, const char* name, std::string& out) {
    int count = 0;
    bool ret = true;
    if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
        TezaFieldType* records = NULL;
        ret = record.getFieldValue(i, count, records);
        for (int j = 0; ret && records != NULL && j < count; ++j) {
            __appendItemPrefix(j, pad, name, out);
            out += records[j].toString(indent + 4);
        }
    } else if (record.isStoreAsRawString()) {
        std::string* texts = NULL;
        ret = !__isPrimitive(type) || record.getRawStringValue(i, count, texts);
        __appendItemValues(ret ? count : 0, texts, pad, name, out);
    } else {
        bool known = __withValueType(type, [&](auto held) {
            typename decltype(held)::Type* values = NULL;
            ret = record.getFieldValue(i, count, values);
            __appendItemValues(ret ? count : 0, values, pad, name, out);
        });
        // An array of the unknown type is not read and shows ": unknown" once, a single value
        // of it nothing; other types the library does not know show nothing either way.
        if (!known && type == TezaFieldTypeMetaData::UNKNOWN_TYPE) {
            out += ": unknown";
        }
    }
    return ret;
}

std::string TezaFieldType::toString(int indent) const {
    if (_isCleared) {
        return "";
    }
    const TezaFieldTypeMetaData& md = getMetaData();
    const std::string pad(indent > 0 ? indent : 0, ' ');
    std::string out = md.getName();
    out += " contents \n";
    for (int i = 0; i < _numFields; ++i) {
        // The first field follows the header's line feed; the last has none after it.
        if (i != 0) {
            out += "\n";
        }
        const char* name = md.getFieldNameStr(i);
        out += pad;
        out += name;
        if (!isFieldSet(i)) {
            out += ": ";
            out += "<not set>";
            continue;
        }
        // An array shows one line per item; without items, the indented name alone.
        bool ret = true;
        if (md.isFieldArrayType(i)) {
            ret = __appendItems(*this, md.getFieldType(i), i, indent, pad, name, out);
        } else {
            out += ": ";
            ret = __appendValue(*this, md.getFieldType(i), i, indent, out);
        }
        TEZA_ASSERT(ret);
    }
    return out;
}

std::ostream& operator<<(std::ostream& os, const TezaFieldType& record) {
    os << record.toString(0);
    return os;
}
