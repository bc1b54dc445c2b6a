#include "TezaFieldType.h"

#include <pthread.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <memory>

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
static std::string __getLowestLevelTypeName(const TezaFieldTypeMetaData& md, int fieldPos) {
    const char* fieldTypeName = md.getFieldTypeStr(fieldPos);
    std::string typeName = fieldTypeName == NULL ? "" : fieldTypeName;
    if (md.isFieldNestedTypedef(fieldPos)) {
        std::vector<std::string> hierarchy =
            TezaNamespaceFactory::getNestedTypedefHierarchy(md.getNamespace(), typeName);
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

static void __releaseText(void* slot) {
    delete static_cast<std::string*>(slot);
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

// Base-10 conversions of raw text; errors are not detected, as strto* do not report them
// without an end pointer.
static void __convert(const std::string& text, int32_t& value) {
    value = static_cast<int32_t>(strtol(text.c_str(), NULL, 10));
}
static void __convert(const std::string& text, uint32_t& value) {
    value = static_cast<uint32_t>(strtoul(text.c_str(), NULL, 10));
}
static void __convert(const std::string& text, int64_t& value) {
    value = strtoll(text.c_str(), NULL, 10);
}
static void __convert(const std::string& text, uint64_t& value) {
    value = strtoull(text.c_str(), NULL, 10);
}
static void __convert(const std::string& text, bool& value) {
    value = !(text == "0" || text == "no" || text == "off" || text == "false");
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

#define TEZA_SET_SINGLE(T)                                     \
    void TezaFieldType::setFieldValue(int fieldPos, T value) { \
        TEZA_CHECK_FIELD_ACCESS();                             \
        if (_storeAsRawString) {                               \
            return;                                            \
        }                                                      \
        T* copy = new T(value);                                \
        if (isFieldSet(fieldPos)) {                            \
            delete static_cast<T*>(_fieldValues[fieldPos]);    \
        }                                                      \
        _fieldValues[fieldPos] = copy;                         \
        fieldSet(fieldPos);                                    \
    }

TEZA_SET_SINGLE(int32_t)
TEZA_SET_SINGLE(uint32_t)
TEZA_SET_SINGLE(int64_t)
TEZA_SET_SINGLE(uint64_t)
TEZA_SET_SINGLE(bool)

void TezaFieldType::setFieldValue(int fieldPos, std::string value) {
    TEZA_CHECK_FIELD_ACCESS();
    if (_storeAsRawString) {
        return;
    }
    std::string* copy = new std::string(value);
    if (isFieldSet(fieldPos)) {
        __releaseText(_fieldValues[fieldPos]);
    }
    _fieldValues[fieldPos] = copy;
    fieldSet(fieldPos);
}

void TezaFieldType::setFieldValue(int fieldPos, const TezaFieldType& value) {
    TEZA_CHECK_FIELD_ACCESS();
    const TezaFieldTypeMetaData& md = getMetaData();
    // The copy is made before the old value is released, on purpose: `value` may live inside
    // the stored record, and would be read after it was freed in the other order.
    TezaFieldType* copy = TezaNamespaceFactory::copyInstance(
        md.getNamespace(), __getLowestLevelTypeName(md, fieldPos), value);
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
    const TezaFieldTypeMetaData& md = getMetaData();
    // Copied before the old records are released, on purpose: `values` may be (or live inside)
    // the stored array, which the other order would read after freeing it.
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances(
        md.getNamespace(), __getLowestLevelTypeName(md, fieldPos), count, values);
    __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos], copies,
                   count, __releaseRecords);
    fieldSet(fieldPos);
}

void TezaFieldType::setFieldValue(int fieldPos, std::vector<TezaFieldType*>& values) {
    TEZA_CHECK_FIELD_ACCESS();
    const TezaFieldTypeMetaData& md = getMetaData();
    // Copied before the old records are released, on purpose: the vector may point into the
    // stored array, which the other order would read after freeing it.
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances(
        md.getNamespace(), __getLowestLevelTypeName(md, fieldPos), values);
    __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos], copies,
                   static_cast<int32_t>(values.size()), __releaseRecords);
    fieldSet(fieldPos);
}

// --- Adopting setters ---------------------------------------------------------------------------

#define TEZA_ADOPT_ARRAY(T)                                                                       \
    void TezaFieldType::__setFieldValue(int fieldPos, int count, T* values) {                     \
        TEZA_CHECK_FIELD_ACCESS();                                                                \
        if (_storeAsRawString) {                                                                  \
            return;                                                                               \
        }                                                                                         \
        __replaceArray(isFieldSet(fieldPos), _fieldValues[fieldPos], _fieldCounts[fieldPos],      \
                       values, count, [](void* old, int32_t) { delete[] static_cast<T*>(old); }); \
        fieldSet(fieldPos);                                                                       \
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
    if (isFieldSet(fieldPos)) {
        delete static_cast<TezaFieldType*>(_fieldValues[fieldPos]);
    }
    _fieldValues[fieldPos] = value;
    fieldSet(fieldPos);
}

void TezaFieldType::__setFieldValue(int fieldPos, const char* value) {
    TEZA_CHECK_FIELD_ACCESS();
    if (_storeAsRawString) {
        return;
    }
    std::string* copy = new std::string(value == NULL ? "" : value);
    if (isFieldSet(fieldPos)) {
        __releaseText(_fieldValues[fieldPos]);
    }
    _fieldValues[fieldPos] = copy;
    fieldSet(fieldPos);
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
        __convert(text, value);                                       \
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
    if (!_storeAsRawString) {
        return;
    }
    std::string* copy = new std::string(value);
    if (isFieldSet(fieldPos)) {
        __releaseText(_fieldValues[fieldPos]);
    }
    _fieldValues[fieldPos] = copy;
    fieldSet(fieldPos);
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

// Releases one scalar as the type it was made with.
static void __releaseScalar(TezaFieldTypeMetaData::TezaBasicType type, void* slot) {
    switch (type) {
        case TezaFieldTypeMetaData::INT32_TYPE:
            delete static_cast<int32_t*>(slot);
            break;
        case TezaFieldTypeMetaData::UINT32_TYPE:
            delete static_cast<uint32_t*>(slot);
            break;
        case TezaFieldTypeMetaData::INT64_TYPE:
            delete static_cast<int64_t*>(slot);
            break;
        case TezaFieldTypeMetaData::UINT64_TYPE:
            delete static_cast<uint64_t*>(slot);
            break;
        case TezaFieldTypeMetaData::BOOL_TYPE:
            delete static_cast<bool*>(slot);
            break;
        default:
            break;
    }
}

static void __releaseScalars(TezaFieldTypeMetaData::TezaBasicType type, void* slot) {
    switch (type) {
        case TezaFieldTypeMetaData::INT32_TYPE:
            delete[] static_cast<int32_t*>(slot);
            break;
        case TezaFieldTypeMetaData::UINT32_TYPE:
            delete[] static_cast<uint32_t*>(slot);
            break;
        case TezaFieldTypeMetaData::INT64_TYPE:
            delete[] static_cast<int64_t*>(slot);
            break;
        case TezaFieldTypeMetaData::UINT64_TYPE:
            delete[] static_cast<uint64_t*>(slot);
            break;
        case TezaFieldTypeMetaData::BOOL_TYPE:
            delete[] static_cast<bool*>(slot);
            break;
        default:
            break;
    }
}

static bool __isScalar(TezaFieldTypeMetaData::TezaBasicType type) {
    return type >= TezaFieldTypeMetaData::INT32_TYPE && type <= TezaFieldTypeMetaData::BOOL_TYPE;
}

// What a slot holds follows from the descriptor and the mode, so the walk asks the
// descriptor. Slots and counts stay as they are: with their bits clear they are dead.
void TezaFieldType::clearFieldData() {
    if (_isCleared) {
        return;
    }
    const TezaFieldTypeMetaData& md = getMetaData();
    for (int i = 0; i < _numFields; ++i) {
        if (!_fieldSetBits.test(i)) {
            continue;
        }
        TezaFieldTypeMetaData::TezaBasicType type = md.getFieldType(i);
        void* slot = _fieldValues[i];
        if (!md.isFieldArrayType(i)) {
            if (type == TezaFieldTypeMetaData::STRING_TYPE) {
                __releaseText(slot);
            } else if (__isScalar(type)) {
                if (_storeAsRawString) {
                    __releaseText(slot);
                } else {
                    __releaseScalar(type, slot);
                }
            } else if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                delete static_cast<TezaFieldType*>(slot);
            }
        } else if (slot != NULL) {
            if (type == TezaFieldTypeMetaData::STRING_TYPE) {
                __releaseTexts(slot);
            } else if (__isScalar(type)) {
                if (_storeAsRawString) {
                    __releaseTexts(slot);
                } else {
                    __releaseScalars(type, slot);
                }
            } else if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                __releaseRecords(slot, _fieldCounts[i]);
            }
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

// Copy one primitive or text field through the source's typed getter and this record's
// setter; false when the getter fails, before anything is stored.
template <typename T>
static bool __copySingle(const TezaFieldType& src, TezaFieldType& dst, int i) {
    T value = T();
    if (!src.getFieldValue(i, value)) {
        return false;
    }
    dst.setFieldValue(i, value);
    return true;
}

template <typename T>
static bool __copyArrayField(const TezaFieldType& src, TezaFieldType& dst, int i) {
    int count = 0;
    T* values = NULL;
    if (!src.getFieldValue(i, count, values)) {
        return false;
    }
    dst.setFieldValue(i, count, const_cast<const T*>(values));
    return true;
}

void TezaFieldType::copyData(const TezaFieldType& src) {
    if (src._isCleared) {
        return;
    }
    const TezaFieldTypeMetaData& md = getMetaData();
    _fieldValues = new void*[_numFields]();
    _fieldCounts = new int32_t[_numFields]();
    for (int i = 0; i < _numFields; ++i) {
        if (!src.isFieldSet(i)) {
            _fieldValues[i] = NULL;
            _fieldCounts[i] = 0;
            continue;
        }
        TezaFieldTypeMetaData::TezaBasicType type = md.getFieldType(i);
        bool isPrimitive =
            type >= TezaFieldTypeMetaData::STRING_TYPE && type <= TezaFieldTypeMetaData::BOOL_TYPE;
        bool ret = true;
        if (!md.isFieldArrayType(i)) {
            if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                TezaFieldType* record = NULL;
                ret = src.getFieldValue(i, record);
                if (ret && record != NULL) {
                    setFieldValue(i, *record);
                } else if (ret) {
                    // Set without a record (its namespace had no factory): so is the copy.
                    _fieldValues[i] = NULL;
                    fieldSet(i);
                }
            } else if (isPrimitive && _storeAsRawString) {
                std::string text;
                ret = src.getRawStringValue(i, text);
                if (ret) {
                    setRawStringValue(i, text);
                }
            } else if (type == TezaFieldTypeMetaData::STRING_TYPE) {
                ret = __copySingle<std::string>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::INT32_TYPE) {
                ret = __copySingle<int32_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::UINT32_TYPE) {
                ret = __copySingle<uint32_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::INT64_TYPE) {
                ret = __copySingle<int64_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::UINT64_TYPE) {
                ret = __copySingle<uint64_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::BOOL_TYPE) {
                ret = __copySingle<bool>(src, *this, i);
            }
        } else {
            if (type == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                int count = 0;
                TezaFieldType* records = NULL;
                ret = src.getFieldValue(i, count, records);
                if (ret) {
                    // Null records too (set while the namespace had no factory) go through the
                    // setter, so that a factory registered since then makes the copy.
                    setFieldValue(i, count, const_cast<const TezaFieldType*>(records));
                }
            } else if (isPrimitive && _storeAsRawString) {
                int count = 0;
                std::string* texts = NULL;
                ret = src.getRawStringValue(i, count, texts);
                if (ret) {
                    setRawStringValue(i, count, const_cast<const std::string*>(texts));
                }
            } else if (type == TezaFieldTypeMetaData::STRING_TYPE) {
                ret = __copyArrayField<std::string>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::INT32_TYPE) {
                ret = __copyArrayField<int32_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::UINT32_TYPE) {
                ret = __copyArrayField<uint32_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::INT64_TYPE) {
                ret = __copyArrayField<int64_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::UINT64_TYPE) {
                ret = __copyArrayField<uint64_t>(src, *this, i);
            } else if (type == TezaFieldTypeMetaData::BOOL_TYPE) {
                ret = __copyArrayField<bool>(src, *this, i);
            }
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

// --- Conversions for element trees and text ---------------------------------------------------

// Numbers are formatted into a fixed stack buffer.
static std::string __toString(int value) {
    char buffer[100];
    snprintf(buffer, sizeof(buffer), "%d", value);
    return buffer;
}

static std::string __toString(unsigned int value) {
    char buffer[100];
    snprintf(buffer, sizeof(buffer), "%u", value);
    return buffer;
}

static std::string __toString(long value) {
    char buffer[100];
    snprintf(buffer, sizeof(buffer), "%lld", static_cast<long long>(value));
    return buffer;
}

static std::string __toString(unsigned long value) {
    char buffer[100];
    snprintf(buffer, sizeof(buffer), "%llu", static_cast<unsigned long long>(value));
    return buffer;
}

static std::string __toString(bool value) {
    return value ? "true" : "false";
}

// Adds a text child, encrypted with the client library's default key when asked. The result is
// not checked: a refused child is simply missing from the request.
static void __addChildString(rk_elem_t* elem, const char* name, const std::string& value,
                             bool encrypted) {
    if (encrypted) {
        rk_child_add_string_encrypted(elem, name, value.c_str(), NULL);
    } else {
        rk_child_add_string(elem, name, value.c_str());
    }
}

// --- Entity decoding
// ------------------------------------------------------------------------------

struct xmlEncodedChar {
    std::string entity;
    std::string replacement;
};

// Two different entities never start at the same position, so the order changes no result.
static const xmlEncodedChar encodedList[5] = {
    {"&lt;", "<"}, {"&gt;", ">"}, {"&apos;", "'"}, {"&quot;", "\""}, {"&amp;", "&"}};

// The category under which every nested record of a response is requested.
static const std::string __ctgName = "typedef";

// Decodes the entities that start at or after `from`; what comes before is copied unchanged.
// One left-to-right pass: after each replacement the search resumes behind the entity, so the
// character produced is never examined again. The next position of each entity is remembered
// and searched again only once the pass has moved past it, which keeps the pass linear.
static std::string getDecodedString(const std::string& text, unsigned long from) {
    if (from >= text.size()) {
        return text;
    }
    const size_t kEntities = sizeof(encodedList) / sizeof(encodedList[0]);
    size_t next[kEntities];
    for (size_t e = 0; e < kEntities; ++e) {
        next[e] = text.find(encodedList[e].entity, from);
    }
    std::string decoded(text, 0, from);
    size_t pos = from;
    for (;;) {
        size_t found = std::string::npos;
        size_t which = 0;
        for (size_t e = 0; e < kEntities; ++e) {
            if (next[e] != std::string::npos && next[e] < pos) {
                next[e] = text.find(encodedList[e].entity, pos);
            }
            if (next[e] < found) {
                found = next[e];
                which = e;
            }
        }
        if (found == std::string::npos) {
            decoded.append(text, pos, std::string::npos);
            return decoded;
        }
        decoded.append(text, pos, found - pos);
        decoded += encodedList[which].replacement;
        pos = found + encodedList[which].entity.size();
    }
}

std::string TezaFieldType::getDecodedString(const std::string& text) {
    return ::getDecodedString(text, 0);
}

// --- Writing records into request elements ------------------------------------------------------

// Reads array field `i` as T items and adds one text child per item under `parent`. `ret` is
// false when the field could not be read (nothing is written), `retElem` when a child was
// refused (the items after it are not written).
template <typename T>
static void __addNumberItems(const TezaFieldType& record, int i, rk_elem_t* parent,
                             const char* name, bool& ret, bool& retElem) {
    int count = 0;
    T* values = NULL;
    ret = record.getFieldValue(i, count, values);
    retElem = true;
    for (int k = 0; ret && retElem && k < count; ++k) {
        retElem = rk_child_add_string(parent, name, __toString(values[k]).c_str()) != NULL;
    }
}

static void __addTextItems(int count, const std::string* values, rk_elem_t* parent,
                           const char* name, bool& retElem) {
    retElem = true;
    for (int k = 0; retElem && k < count; ++k) {
        retElem = rk_child_add_string(parent, name, values[k].c_str()) != NULL;
    }
}

// Reads single field `i` as a T and returns its decimal text.
template <typename T>
static bool __numberText(const TezaFieldType& record, int i, std::string& text) {
    T value = T();
    if (!record.getFieldValue(i, value)) {
        return false;
    }
    text = __toString(value);
    return true;
}

void TezaFieldType::constructRkChildElement(rk_elem_t* elem) const {
    TEZA_ASSERT(!_isCleared);
    if (elem == NULL) {
        return;
    }
    const TezaFieldTypeMetaData& md = getMetaData();
    for (int i = 0; i < _numFields; ++i) {
        // What is written is decided by the set bits alone, whatever the optional flags say.
        if (!isFieldSet(i)) {
            continue;
        }
        TezaFieldTypeMetaData::TezaBasicType code = md.getFieldType(i);
        const char* fieldName = md.getFieldNameStr(i);
        const char* typeName = md.getFieldTypeStr(i);

        if (md.isFieldArrayType(i)) {
            // The wrapper comes first, so a set array without items (or of a kind that has no
            // items to write) still shows as an empty wrapper.
            rk_elem_t* wrapper = rk_elem_new(fieldName);
            rk_elem_t* retElem = rk_child_add(elem, wrapper);
            TEZA_ASSERT(retElem);
            rk_elem_t* itemParent = wrapper;
            std::string itemName = typeName == NULL ? "" : typeName;
            if (md.isFieldNestedTypedef(i)) {
                std::vector<std::string> hierarchy =
                    TezaNamespaceFactory::getNestedTypedefHierarchy(md.getNamespace(), typeName);
                if (!hierarchy.empty()) {
                    rk_elem_t* link = rk_elem_new(typeName);
                    retElem = rk_child_add(itemParent, link);
                    TEZA_ASSERT(retElem);
                    itemParent = link;
                    for (size_t j = 0; j + 1 < hierarchy.size(); ++j) {
                        link = rk_elem_new(hierarchy[j].c_str());
                        retElem = rk_child_add(itemParent, link);
                        TEZA_ASSERT(retElem);
                        itemParent = link;
                    }
                    itemName = hierarchy.back();
                }
            }

            if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                int count = 0;
                TezaFieldType* records = NULL;
                bool ret = getFieldValue(i, count, records);
                TEZA_ASSERT(ret);
                // A null array (its namespace had no factory) has no items to write.
                for (int k = 0; records != NULL && k < count; ++k) {
                    rk_elem_t* item = rk_elem_new(itemName.c_str());
                    records[k].constructRkChildElement(item);
                    retElem = rk_child_add(itemParent, item);
                    TEZA_ASSERT(retElem);
                }
            } else if (_storeAsRawString) {
                if (code >= TezaFieldTypeMetaData::STRING_TYPE &&
                    code <= TezaFieldTypeMetaData::BOOL_TYPE) {
                    int count = 0;
                    std::string* texts = NULL;
                    bool ret = getRawStringValue(i, count, texts);
                    TEZA_ASSERT(ret);
                    bool retElem = true;
                    __addTextItems(count, texts, itemParent, itemName.c_str(), retElem);
                    TEZA_ASSERT(retElem);
                }
            } else if (code == TezaFieldTypeMetaData::STRING_TYPE) {
                int count = 0;
                std::string* texts = NULL;
                bool ret = getFieldValue(i, count, texts);
                TEZA_ASSERT(ret);
                bool retElem = true;
                __addTextItems(count, texts, itemParent, itemName.c_str(), retElem);
                TEZA_ASSERT(retElem);
            } else if (code == TezaFieldTypeMetaData::BOOL_TYPE) {
                int count = 0;
                bool* flags = NULL;
                bool ret = getFieldValue(i, count, flags);
                TEZA_ASSERT(ret);
                for (int k = 0; k < count; ++k) {
                    retElem = rk_child_add_bool(itemParent, itemName.c_str(), flags[k] ? 1 : 0);
                    TEZA_ASSERT(retElem);
                }
            } else if (code >= TezaFieldTypeMetaData::INT32_TYPE &&
                       code <= TezaFieldTypeMetaData::UINT64_TYPE) {
                bool ret = true;
                bool retElem = true;
                if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                    __addNumberItems<int32_t>(*this, i, itemParent, itemName.c_str(), ret, retElem);
                } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                    __addNumberItems<uint32_t>(*this, i, itemParent, itemName.c_str(), ret,
                                               retElem);
                } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                    __addNumberItems<int64_t>(*this, i, itemParent, itemName.c_str(), ret, retElem);
                } else {
                    __addNumberItems<uint64_t>(*this, i, itemParent, itemName.c_str(), ret,
                                               retElem);
                }
                TEZA_ASSERT(ret);
                TEZA_ASSERT(retElem);
            }
            continue;
        }

        // A single value.
        rk_elem_t* parent = elem;
        std::string targetName = fieldName;
        if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
            if (md.isFieldNestedTypedef(i)) {
                // A nested typedef always gets its field element, then the chain of its type.
                rk_elem_t* outer = rk_elem_new(fieldName);
                rk_elem_t* retElem = rk_child_add(elem, outer);
                TEZA_ASSERT(retElem);
                parent = outer;
                std::vector<std::string> hierarchy =
                    TezaNamespaceFactory::getNestedTypedefHierarchy(md.getNamespace(), typeName);
                targetName = typeName;
                if (!hierarchy.empty()) {
                    rk_elem_t* link = rk_elem_new(typeName);
                    retElem = rk_child_add(parent, link);
                    TEZA_ASSERT(retElem);
                    parent = link;
                    for (size_t j = 0; j + 1 < hierarchy.size(); ++j) {
                        link = rk_elem_new(hierarchy[j].c_str());
                        retElem = rk_child_add(parent, link);
                        TEZA_ASSERT(retElem);
                        parent = link;
                    }
                    targetName = hierarchy.back();
                }
            } else {
                // A field named like its type is written as one element, not two.
                if (strcmp(fieldName, typeName) != 0) {
                    rk_elem_t* outer = rk_elem_new(fieldName);
                    rk_elem_t* retElem = rk_child_add(elem, outer);
                    TEZA_ASSERT(retElem);
                    parent = outer;
                }
                targetName = typeName;
            }

            TezaFieldType* tezaVal = NULL;
            bool ret = getFieldValue(i, tezaVal);
            TEZA_ASSERT(ret);
            TEZA_ASSERT(tezaVal != NULL);
            // The nested record is filled before its element is attached.
            rk_elem_t* child = rk_elem_new(targetName.c_str());
            tezaVal->constructRkChildElement(child);
            rk_elem_t* retElem = rk_child_add(parent, child);
            TEZA_ASSERT(retElem);
            continue;
        }

        if (code < TezaFieldTypeMetaData::STRING_TYPE || code > TezaFieldTypeMetaData::BOOL_TYPE) {
            continue;
        }
        if (_storeAsRawString) {
            // Raw text goes out as stored, a boolean included, and may be encrypted.
            std::string text;
            bool ret = getRawStringValue(i, text);
            TEZA_ASSERT(ret);
            __addChildString(parent, targetName.c_str(), text, md.isFieldEncrypted(i));
        } else if (code == TezaFieldTypeMetaData::BOOL_TYPE) {
            // Booleans are never encrypted.
            bool flag = false;
            bool ret = getFieldValue(i, flag);
            TEZA_ASSERT(ret);
            rk_elem_t* retElem = rk_child_add_bool(parent, targetName.c_str(), flag ? 1 : 0);
            TEZA_ASSERT(retElem);
        } else {
            std::string text;
            bool ret = false;
            if (code == TezaFieldTypeMetaData::STRING_TYPE) {
                ret = getFieldValue(i, text);
            } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                ret = __numberText<int32_t>(*this, i, text);
            } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                ret = __numberText<uint32_t>(*this, i, text);
            } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                ret = __numberText<int64_t>(*this, i, text);
            } else {
                ret = __numberText<uint64_t>(*this, i, text);
            }
            TEZA_ASSERT(ret);
            __addChildString(parent, targetName.c_str(), text, md.isFieldEncrypted(i));
        }
    }
}

// --- Reading records from response elements -----------------------------------------------------

// The boolean reading of item texts and raw values: only these four texts are false.
static bool __isTrueText(const char* text) {
    return !(strcmp(text, "0") == 0 || strcmp(text, "no") == 0 || strcmp(text, "off") == 0 ||
             strcmp(text, "false") == 0);
}

void TezaFieldType::parseRkChildElement(rk_elem_t* elem) {
    TEZA_ASSERT(!_isCleared);
    clearFieldData();
    if (elem == NULL) {
        return;
    }
    const TezaFieldTypeMetaData& md = getMetaData();
    for (int i = 0; i < _numFields; ++i) {
        TezaFieldTypeMetaData::TezaBasicType code = md.getFieldType(i);
        const char* fieldName = md.getFieldNameStr(i);
        const char* typeName = md.getFieldTypeStr(i);
        bool primitive =
            code >= TezaFieldTypeMetaData::STRING_TYPE && code <= TezaFieldTypeMetaData::BOOL_TYPE;

        if (md.isFieldArrayType(i)) {
            rk_elem_t* wrapper = rk_elem_child(elem, fieldName);
            if (wrapper == NULL) {
                continue;
            }
            // Every child of the wrapper is an item, whatever its name. An empty wrapper reads
            // as unset although a set empty array is written as one; kept for compatibility.
            int count = 0;
            rk_iterator_t counter = rk_child_iterator(wrapper);
            while (rk_iterator_next(&counter) != NULL) {
                ++count;
            }
            if (count == 0) {
                continue;
            }
            std::vector<std::string> hierarchy;
            if (md.isFieldNestedTypedef(i)) {
                hierarchy =
                    TezaNamespaceFactory::getNestedTypedefHierarchy(md.getNamespace(), typeName);
            }
            std::string itemType =
                !hierarchy.empty() ? hierarchy.back() : (typeName == NULL ? "" : typeName);

            void* valueArray = NULL;
            if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                valueArray = TezaNamespaceFactory::getInstances(md.getNamespace(), count, __ctgName,
                                                                itemType);
            } else if (_storeAsRawString || code == TezaFieldTypeMetaData::STRING_TYPE) {
                valueArray = primitive ? new std::string[count] : NULL;
            } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                valueArray = new int32_t[count]();
            } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                valueArray = new uint32_t[count]();
            } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                valueArray = new int64_t[count]();
            } else if (code == TezaFieldTypeMetaData::UINT64_TYPE) {
                valueArray = new uint64_t[count]();
            } else if (code == TezaFieldTypeMetaData::BOOL_TYPE) {
                valueArray = new bool[count]();
            }
            TEZA_ASSERT(valueArray != NULL);

            rk_iterator_t walker = rk_child_iterator(wrapper);
            rk_elem_t* item = rk_iterator_next(&walker);
            for (int k = 0; item != NULL && k < count; ++k, item = rk_iterator_next(&walker)) {
                // Items of a nested typedef are descended from the second name of the
                // hierarchy on, without a check of the links; this does not mirror the writer
                // and is kept for compatibility. A missing link leaves the item as allocated.
                rk_elem_t* node = item;
                for (size_t j = 1; j < hierarchy.size(); ++j) {
                    node = rk_elem_child(node, hierarchy[j].c_str());
                }
                if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                    TezaFieldType& record = static_cast<TezaFieldType*>(valueArray)[k];
                    if (_storeAsRawString) {
                        record.storeAsRawstring(true);
                    }
                    record.parseRkChildElement(node);
                    continue;
                }
                const char* content = rk_elem_get_content(node);
                if (content == NULL) {
                    continue;
                }
                if (_storeAsRawString || code == TezaFieldTypeMetaData::STRING_TYPE) {
                    // Raw array items are decoded, unlike raw single values.
                    static_cast<std::string*>(valueArray)[k] = ::getDecodedString(content, 0);
                } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                    static_cast<int32_t*>(valueArray)[k] =
                        static_cast<int32_t>(strtol(content, NULL, 10));
                } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                    static_cast<uint32_t*>(valueArray)[k] =
                        static_cast<uint32_t>(strtoul(content, NULL, 10));
                } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                    static_cast<int64_t*>(valueArray)[k] = strtoll(content, NULL, 10);
                } else if (code == TezaFieldTypeMetaData::UINT64_TYPE) {
                    static_cast<uint64_t*>(valueArray)[k] = strtoull(content, NULL, 10);
                } else {
                    static_cast<bool*>(valueArray)[k] = __isTrueText(content);
                }
            }

            if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                __setFieldValue(i, count, static_cast<TezaFieldType*>(valueArray));
            } else if (_storeAsRawString) {
                __setRawStringValue(i, count, static_cast<std::string*>(valueArray));
            } else if (code == TezaFieldTypeMetaData::STRING_TYPE) {
                __setFieldValue(i, count, static_cast<std::string*>(valueArray));
            } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                __setFieldValue(i, count, static_cast<int32_t*>(valueArray));
            } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                __setFieldValue(i, count, static_cast<uint32_t*>(valueArray));
            } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                __setFieldValue(i, count, static_cast<int64_t*>(valueArray));
            } else if (code == TezaFieldTypeMetaData::UINT64_TYPE) {
                __setFieldValue(i, count, static_cast<uint64_t*>(valueArray));
            } else {
                __setFieldValue(i, count, static_cast<bool*>(valueArray));
            }
            continue;
        }

        if (primitive) {
            std::string text;
            if (md.isFieldEncrypted(i)) {
                char* clear = rk_child_get_string_encrypted(elem, fieldName, NULL);
                if (clear == NULL) {
                    continue;
                }
                text = clear;
                rk_free(clear);
            } else {
                const char* found = rk_child_get_string(elem, fieldName);
                if (found == NULL) {
                    continue;
                }
                text = found;
            }
            if (_storeAsRawString) {
                // Kept exactly as received: single raw values are not entity-decoded.
                setRawStringValue(i, text);
            } else if (code == TezaFieldTypeMetaData::STRING_TYPE) {
                __setFieldValue(i, ::getDecodedString(text, 0).c_str());
            } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                setFieldValue(i, static_cast<int32_t>(strtol(text.c_str(), NULL, 10)));
            } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                setFieldValue(i, static_cast<uint32_t>(strtoul(text.c_str(), NULL, 10)));
            } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                setFieldValue(i, static_cast<int64_t>(strtoll(text.c_str(), NULL, 10)));
            } else if (code == TezaFieldTypeMetaData::UINT64_TYPE) {
                setFieldValue(i, static_cast<uint64_t>(strtoull(text.c_str(), NULL, 10)));
            } else {
                // Presence comes from the text lookup, the value from the library's reading.
                setFieldValue(i, rk_child_get_bool(elem, fieldName, 0) != 0);
            }
            continue;
        }

        if (code != TezaFieldTypeMetaData::TYPEDEF_TYPE) {
            continue;
        }
        rk_elem_t* node = rk_elem_child(elem, fieldName);
        if (node == NULL) {
            continue;
        }
        std::string recordType = typeName;
        if (!md.isFieldNestedTypedef(i)) {
            if (strcmp(fieldName, typeName) != 0) {
                node = rk_elem_child(node, typeName);
                if (node == NULL) {
                    continue;
                }
            }
        } else {
            // The record is read from the element the writer makes the parent of the
            // record's own element; kept for compatibility. The links after the first are not
            // checked.
            std::vector<std::string> hierarchy =
                TezaNamespaceFactory::getNestedTypedefHierarchy(md.getNamespace(), typeName);
            if (!hierarchy.empty()) {
                node = rk_elem_child(node, typeName);
                if (node == NULL) {
                    continue;
                }
                for (size_t j = 0; j + 1 < hierarchy.size(); ++j) {
                    node = rk_elem_child(node, hierarchy[j].c_str());
                }
                recordType = hierarchy.back();
            }
        }
        TezaFieldType* tezaVal =
            TezaNamespaceFactory::getInstance(md.getNamespace(), __ctgName, recordType);
        TEZA_ASSERT(tezaVal != NULL);
        if (_storeAsRawString) {
            tezaVal->storeAsRawstring(true);
        }
        tezaVal->parseRkChildElement(node);
        __setFieldValue(i, tezaVal);
    }
}

// --- Text rendering -----------------------------------------------------------------------------

// Reads single field `i` as a T and appends its text.
template <typename T>
static bool __appendValue(const TezaFieldType& record, int i, std::string& out) {
    T value = T();
    if (!record.getFieldValue(i, value)) {
        return false;
    }
    out += __toString(value);
    return true;
}

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

// Reads array field `i` as T items and appends one line per item.
template <typename T>
static bool __appendItems(const TezaFieldType& record, int i, const std::string& pad,
                          const char* name, std::string& out) {
    int count = 0;
    T* values = NULL;
    if (!record.getFieldValue(i, count, values)) {
        return false;
    }
    for (int j = 0; j < count; ++j) {
        __appendItemPrefix(j, pad, name, out);
        out += __toString(values[j]);
    }
    return true;
}

static void __appendTextItems(int count, const std::string* values, const std::string& pad,
                              const char* name, std::string& out) {
    for (int j = 0; j < count; ++j) {
        __appendItemPrefix(j, pad, name, out);
        out += values[j];
    }
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
        TezaFieldTypeMetaData::TezaBasicType code = md.getFieldType(i);
        bool primitive =
            code >= TezaFieldTypeMetaData::STRING_TYPE && code <= TezaFieldTypeMetaData::BOOL_TYPE;

        if (!md.isFieldArrayType(i)) {
            out += ": ";
            bool ret = true;
            if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
                TezaFieldType* record = NULL;
                ret = getFieldValue(i, record);
                // A null record (its namespace had no factory) shows nothing.
                if (ret && record != NULL) {
                    out += record->toString(indent + 4);
                }
            } else if (_storeAsRawString) {
                if (primitive) {
                    std::string text;
                    ret = getRawStringValue(i, text);
                    out += text;
                }
            } else if (code == TezaFieldTypeMetaData::STRING_TYPE) {
                std::string text;
                ret = getFieldValue(i, text);
                out += text;
            } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
                ret = __appendValue<int32_t>(*this, i, out);
            } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
                ret = __appendValue<uint32_t>(*this, i, out);
            } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
                ret = __appendValue<int64_t>(*this, i, out);
            } else if (code == TezaFieldTypeMetaData::UINT64_TYPE) {
                ret = __appendValue<uint64_t>(*this, i, out);
            } else if (code == TezaFieldTypeMetaData::BOOL_TYPE) {
                ret = __appendValue<bool>(*this, i, out);
            }
            TEZA_ASSERT(ret);
            continue;
        }

        // An array shows one line per item; without items, the indented name alone.
        bool ret = true;
        if (code == TezaFieldTypeMetaData::TYPEDEF_TYPE) {
            int count = 0;
            TezaFieldType* records = NULL;
            ret = getFieldValue(i, count, records);
            for (int j = 0; ret && records != NULL && j < count; ++j) {
                __appendItemPrefix(j, pad, name, out);
                out += records[j].toString(indent + 4);
            }
        } else if (_storeAsRawString) {
            if (primitive) {
                int count = 0;
                std::string* texts = NULL;
                ret = getRawStringValue(i, count, texts);
                if (ret) {
                    __appendTextItems(count, texts, pad, name, out);
                }
            }
        } else if (code == TezaFieldTypeMetaData::STRING_TYPE) {
            int count = 0;
            std::string* texts = NULL;
            ret = getFieldValue(i, count, texts);
            if (ret) {
                __appendTextItems(count, texts, pad, name, out);
            }
        } else if (code == TezaFieldTypeMetaData::INT32_TYPE) {
            ret = __appendItems<int32_t>(*this, i, pad, name, out);
        } else if (code == TezaFieldTypeMetaData::UINT32_TYPE) {
            ret = __appendItems<uint32_t>(*this, i, pad, name, out);
        } else if (code == TezaFieldTypeMetaData::INT64_TYPE) {
            ret = __appendItems<int64_t>(*this, i, pad, name, out);
        } else if (code == TezaFieldTypeMetaData::UINT64_TYPE) {
            ret = __appendItems<uint64_t>(*this, i, pad, name, out);
        } else if (code == TezaFieldTypeMetaData::BOOL_TYPE) {
            ret = __appendItems<bool>(*this, i, pad, name, out);
        } else if (code == TezaFieldTypeMetaData::UNKNOWN_TYPE) {
            // Not read: its items are nothing the library can show.
            out += ": unknown";
        }
        TEZA_ASSERT(ret);
    }
    return out;
}

std::ostream& operator<<(std::ostream& os, const TezaFieldType& record) {
    os << record.toString(0);
    return os;
}
