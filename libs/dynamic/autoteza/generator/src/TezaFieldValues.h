// The values of a record's primitive fields: which C++ type holds each basic type, and the few
// things every walk over the fields does with a value (write it as text, read it from text,
// add it to an element). Private to TezaFieldType.cpp; every name here is file-local to it.
#ifndef TEZA_FIELD_VALUES_H_
#define TEZA_FIELD_VALUES_H_

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <charconv>
#include <string>

#include "TezaFieldTypeMetaData.h"
#include "rk.h"

typedef TezaFieldTypeMetaData::TezaBasicType TezaBasicType;

// Names the C++ type that holds one value of a basic type: `typename decltype(tag)::Type`.
template <typename T>
struct __ValueType {
    typedef T Type;
};

// The one place that maps a basic type to the C++ type holding its values. Calls
// `op(__ValueType<T>())` for the six primitive types and returns true; returns false, calling
// nothing, for a nested record or an unknown type, which each walk handles itself.
template <typename Op>
static inline bool __withValueType(TezaBasicType type, Op&& op) {
    // One row per type, laid out as the table it is.
    // clang-format off
    switch (type) {
        case TezaFieldTypeMetaData::STRING_TYPE: op(__ValueType<std::string>()); return true;
        case TezaFieldTypeMetaData::INT32_TYPE:  op(__ValueType<int32_t>());     return true;
        case TezaFieldTypeMetaData::UINT32_TYPE: op(__ValueType<uint32_t>());    return true;
        case TezaFieldTypeMetaData::INT64_TYPE:  op(__ValueType<int64_t>());     return true;
        case TezaFieldTypeMetaData::UINT64_TYPE: op(__ValueType<uint64_t>());    return true;
        case TezaFieldTypeMetaData::BOOL_TYPE:   op(__ValueType<bool>());        return true;
        default:                                 return false;
    }
    // clang-format on
}

static inline bool __isPrimitive(TezaBasicType type) {
    return type >= TezaFieldTypeMetaData::STRING_TYPE && type <= TezaFieldTypeMetaData::BOOL_TYPE;
}

// The basic type whose C++ type a field's slot holds: in raw-string mode every primitive field
// holds its text.
static inline TezaBasicType __heldType(TezaBasicType type, bool rawString) {
    return rawString && __isPrimitive(type) ? TezaFieldTypeMetaData::STRING_TYPE : type;
}

// --- Values as text -----------------------------------------------------------------------------

// Numbers are formatted into a fixed stack buffer, in decimal: the same text as printf's "%d",
// "%u", "%lld" and "%llu", without parsing a format for every number.
struct __NumberText {
    char buffer[100];
};

template <typename T>
static inline const char* __formatNumber(__NumberText& text, T value) {
    std::to_chars_result end =
        std::to_chars(text.buffer, text.buffer + sizeof(text.buffer) - 1, value);
    *end.ptr = '\0';
    return text.buffer;
}

static std::string __toString(int value) {
    __NumberText text;
    return __formatNumber(text, value);
}

static std::string __toString(unsigned int value) {
    __NumberText text;
    return __formatNumber(text, value);
}

static std::string __toString(long value) {
    __NumberText text;
    return __formatNumber(text, static_cast<long long>(value));
}

static std::string __toString(unsigned long value) {
    __NumberText text;
    return __formatNumber(text, static_cast<unsigned long long>(value));
}

static std::string __toString(bool value) {
    return value ? "true" : "false";
}

static const std::string& __toString(const std::string& value) {
    return value;
}

// --- Values from text ---------------------------------------------------------------------------

// Base-10 conversions with no end pointer: errors are not detected, text that is no number
// yields 0, and the 32-bit types keep the low 32 bits of what the conversion returns.
static void __fromText(const char* text, int32_t& value) {
    value = static_cast<int32_t>(strtol(text, NULL, 10));
}
static void __fromText(const char* text, uint32_t& value) {
    value = static_cast<uint32_t>(strtoul(text, NULL, 10));
}
static void __fromText(const char* text, int64_t& value) {
    value = strtoll(text, NULL, 10);
}
static void __fromText(const char* text, uint64_t& value) {
    value = strtoull(text, NULL, 10);
}
// The record's own boolean reading: only these four texts are false.
static void __fromText(const char* text, bool& value) {
    value = !(strcmp(text, "0") == 0 || strcmp(text, "no") == 0 || strcmp(text, "off") == 0 ||
              strcmp(text, "false") == 0);
}
// Texts from an element are entity-decoded (defined with the decoder).
static void __fromText(const char* text, std::string& value);

// --- Values into elements -----------------------------------------------------------------------

// Adds a text child, encrypted with the client library's default key when asked. The result is
// not checked: a refused child is simply missing from the request.
static void __addChildString(rk_elem_t* elem, const char* name, const char* value, bool encrypted) {
    if (encrypted) {
        rk_child_add_string_encrypted(elem, name, value, NULL);
    } else {
        rk_child_add_string(elem, name, value);
    }
}

static inline void __addChildString(rk_elem_t* elem, const char* name, const std::string& value,
                                    bool encrypted) {
    __addChildString(elem, name, value.c_str(), encrypted);
}

// The text a value is written as: a string's own characters, a number formatted into `text`.
static inline const char* __valueText(__NumberText&, const std::string& value) {
    return value.c_str();
}
template <typename T>
static inline const char* __valueText(__NumberText& text, T value) {
    return __formatNumber(text, value);
}

// One array item, always in the clear; false when the child is refused.
template <typename T>
static bool __addItem(rk_elem_t* parent, const char* name, const T& value) {
    __NumberText text;
    return rk_child_add_string(parent, name, __valueText(text, value)) != NULL;
}
static bool __addItem(rk_elem_t* parent, const char* name, bool value) {
    return rk_child_add_bool(parent, name, value ? 1 : 0) != NULL;
}

// One single value: texts and numbers honour the encrypted flag and their child is not checked;
// a boolean is never encrypted and its child must be accepted. False when a child is refused.
template <typename T>
static bool __addSingle(rk_elem_t* parent, const char* name, const T& value, bool encrypted) {
    __NumberText text;
    __addChildString(parent, name, __valueText(text, value), encrypted);
    return true;
}
static bool __addSingle(rk_elem_t* parent, const char* name, bool value, bool) {
    return rk_child_add_bool(parent, name, value ? 1 : 0) != NULL;
}

#endif  // TEZA_FIELD_VALUES_H_
