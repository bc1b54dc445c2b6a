#include "TezaFieldType.h"

#include <pthread.h>
#include <stddef.h>
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
    std::string typeName = md.getFieldTypeStr(fieldPos);
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

#define TEZA_SET_ARRAY(T)                                                         \
    void TezaFieldType::setFieldValue(int fieldPos, int count, const T* values) { \
        TEZA_CHECK_FIELD_ACCESS();                                                \
        if (_storeAsRawString) {                                                  \
            return;                                                               \
        }                                                                         \
        T* copy = __newArrayCopy(count, values);                                  \
        if (isFieldSet(fieldPos)) {                                               \
            delete[] static_cast<T*>(_fieldValues[fieldPos]);                     \
            _fieldValues[fieldPos] = NULL;                                        \
            _fieldCounts[fieldPos] = 0;                                           \
        }                                                                         \
        _fieldValues[fieldPos] = copy;                                            \
        _fieldCounts[fieldPos] = count;                                           \
        fieldSet(fieldPos);                                                       \
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
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances(
        md.getNamespace(), __getLowestLevelTypeName(md, fieldPos), count, values);
    if (isFieldSet(fieldPos)) {
        __releaseRecords(_fieldValues[fieldPos], _fieldCounts[fieldPos]);
        _fieldValues[fieldPos] = NULL;
        _fieldCounts[fieldPos] = 0;
    }
    _fieldValues[fieldPos] = copies;
    _fieldCounts[fieldPos] = count;
    fieldSet(fieldPos);
}

void TezaFieldType::setFieldValue(int fieldPos, std::vector<TezaFieldType*>& values) {
    TEZA_CHECK_FIELD_ACCESS();
    const TezaFieldTypeMetaData& md = getMetaData();
    TezaFieldType* copies = TezaNamespaceFactory::copyInstances(
        md.getNamespace(), __getLowestLevelTypeName(md, fieldPos), values);
    if (isFieldSet(fieldPos)) {
        __releaseRecords(_fieldValues[fieldPos], _fieldCounts[fieldPos]);
        _fieldValues[fieldPos] = NULL;
        _fieldCounts[fieldPos] = 0;
    }
    _fieldValues[fieldPos] = copies;
    _fieldCounts[fieldPos] = static_cast<int32_t>(values.size());
    fieldSet(fieldPos);
}

// --- Adopting setters ---------------------------------------------------------------------------

#define TEZA_ADOPT_ARRAY(T)                                                   \
    void TezaFieldType::__setFieldValue(int fieldPos, int count, T* values) { \
        TEZA_CHECK_FIELD_ACCESS();                                            \
        if (_storeAsRawString) {                                              \
            return;                                                           \
        }                                                                     \
        if (isFieldSet(fieldPos)) {                                           \
            delete[] static_cast<T*>(_fieldValues[fieldPos]);                 \
            _fieldValues[fieldPos] = NULL;                                    \
            _fieldCounts[fieldPos] = 0;                                       \
        }                                                                     \
        _fieldValues[fieldPos] = values;                                      \
        _fieldCounts[fieldPos] = count;                                       \
        fieldSet(fieldPos);                                                   \
    }

TEZA_ADOPT_ARRAY(int32_t)
TEZA_ADOPT_ARRAY(uint32_t)
TEZA_ADOPT_ARRAY(int64_t)
TEZA_ADOPT_ARRAY(uint64_t)
TEZA_ADOPT_ARRAY(bool)
TEZA_ADOPT_ARRAY(std::string)

void TezaFieldType::__setFieldValue(int fieldPos, int count, TezaFieldType* values) {
    TEZA_CHECK_FIELD_ACCESS();
    if (isFieldSet(fieldPos)) {
        __releaseRecords(_fieldValues[fieldPos], _fieldCounts[fieldPos]);
        _fieldValues[fieldPos] = NULL;
        _fieldCounts[fieldPos] = 0;
    }
    _fieldValues[fieldPos] = values;
    _fieldCounts[fieldPos] = count;
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
    std::string* copy = __newArrayCopy(count, values);
    if (isFieldSet(fieldPos)) {
        __releaseTexts(_fieldValues[fieldPos]);
        _fieldValues[fieldPos] = NULL;
        _fieldCounts[fieldPos] = 0;
    }
    _fieldValues[fieldPos] = copy;
    _fieldCounts[fieldPos] = count;
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
    if (_fieldSetBits.test(fieldPos)) {
        __releaseTexts(_fieldValues[fieldPos]);
        _fieldValues[fieldPos] = NULL;
        _fieldCounts[fieldPos] = 0;
    }
    _fieldValues[fieldPos] = values;
    _fieldCounts[fieldPos] = count;
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
                if (ret && records != NULL) {
                    setFieldValue(i, count, const_cast<const TezaFieldType*>(records));
                } else if (ret) {
                    _fieldValues[i] = NULL;
                    _fieldCounts[i] = count;
                    fieldSet(i);
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
