// Fuzzes TezaFieldType::parseRkChildElement over every record type of the generator's golden
// schema (tests/generator/schemas/everything.teza), then copies the record, writes it back
// with constructRkChildElement and renders it with toString.
//
// Input: the first byte chooses the record type (its value modulo the number of types) and,
// with its top bit, raw-string mode; the rest is the response's XML text, parsed with
// rk_elem_parse as librk parses a result. The record is read from the root element.
//
// Checked: a copy renders like its original; reading a null element leaves a record whose
// fields are all unset; and, for the types whose fields (at any depth) are free of nested
// typedefs and outside raw-string mode, a record written out as XML text and read back renders
// as before. Nested typedefs and raw-string mode are read on purpose differently from how they
// are written (a single nested typedef is read from its parent element; a single raw value is
// not entity-decoded while a raw array item is), so they have no round trip to check.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "TezaFieldType.h"
#include "TezaFieldTypeMetaData.h"
#include "TezaNamespaceFactory.h"
#include "everything.h"
#include "rk.h"

namespace {

void Check(bool condition, const char* what, const char* type) {
    if (!condition) {
        fprintf(stderr, "record_parse_fuzzer: invariant broken for \"%s\": %s\n", type, what);
        abort();
    }
}

struct RecordType {
    const char* ns;
    const char* name;
    bool roundTrips;  // worked out at start-up from the descriptors
};

RecordType kTypes[] = {
    {"inventory", "scalars", false},   {"inventory", "arrays", false},
    {"inventory", "empty", false},     {"inventory", "shelf", false},
    {"inventory", "warehouse", false}, {"billing", "invoice", false},
    {"billing", "line", false},
};
const size_t kNumTypes = sizeof(kTypes) / sizeof(kTypes[0]);

const std::string kCategory = "typedef";

std::unique_ptr<TezaFieldType> NewRecord(const RecordType& type) {
    std::unique_ptr<TezaFieldType> record(
        TezaNamespaceFactory::getInstance(type.ns, kCategory, type.name));
    Check(record != nullptr, "the namespace factory makes the type", type.name);
    return record;
}

// True when no field of the type, nor of the records it holds at any depth, is a nested
// typedef.
bool FreeOfNestedTypedefs(const char* ns, const std::string& name, int depth) {
    std::unique_ptr<TezaFieldType> record(TezaNamespaceFactory::getInstance(ns, kCategory, name));
    Check(record != nullptr && depth < 16, "nested types resolve", name.c_str());
    const TezaFieldTypeMetaData& meta = record->getMetaData();
    for (int i = 0; i < meta.getNumFields(); ++i) {
        if (meta.isFieldNestedTypedef(i)) {
            return false;
        }
        if (meta.getFieldType(i) == TezaFieldTypeMetaData::TYPEDEF_TYPE &&
            !FreeOfNestedTypedefs(ns, meta.getFieldTypeStr(i), depth + 1)) {
            return false;
        }
    }
    return true;
}

struct ElemDeleter {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
using Elem = std::unique_ptr<rk_elem_t, ElemDeleter>;

struct TextDeleter {
    void operator()(char* text) const { rk_free(text); }
};
using Text = std::unique_ptr<char, TextDeleter>;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TezaNamespaceFactory::registerDefaultTypeFactory();
    for (RecordType& type : kTypes) {
        type.roundTrips = FreeOfNestedTypedefs(type.ns, type.name, 0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const RecordType& type = kTypes[(data[0] & 0x7f) % kNumTypes];
    const bool raw = (data[0] & 0x80) != 0;
    Elem response(rk_elem_parse(reinterpret_cast<const char*>(data + 1), size - 1, NULL, 0));

    std::unique_ptr<TezaFieldType> record = NewRecord(type);
    const std::string unset = record->toString(0);
    record->storeAsRawstring(raw);
    record->parseRkChildElement(response.get());
    const std::string rendered = record->toString(0);

    std::unique_ptr<TezaFieldType> copy(
        TezaNamespaceFactory::copyInstance(type.ns, type.name, *record));
    Check(copy != nullptr, "the namespace factory copies the type", type.name);
    Check(copy->isStoreAsRawString() == raw, "a copy keeps raw-string mode", type.name);
    Check(copy->toString(0) == rendered, "a copy renders like its original", type.name);

    Elem request(rk_elem_new("request"));
    record->constructRkChildElement(request.get());
    Text wire(rk_elem_sprintf(request.get()));
    Check(wire != nullptr, "a written record has a text", type.name);

    if (type.roundTrips && !raw) {
        char reason[256] = "";
        Elem reread(rk_elem_parse(wire.get(), strlen(wire.get()), reason, sizeof(reason)));
        if (reread == nullptr) {
            fprintf(stderr, "record_parse_fuzzer: a written record does not parse: %s\n%s", reason,
                    wire.get());
            abort();
        }
        std::unique_ptr<TezaFieldType> again = NewRecord(type);
        again->parseRkChildElement(reread.get());
        if (again->toString(0) != rendered) {
            fprintf(stderr, "record_parse_fuzzer: read back:\n%s\nwas:\n%s\nfrom:\n%s",
                    again->toString(0).c_str(), rendered.c_str(), wire.get());
            abort();
        }
    }

    // Reading no element releases every value.
    copy->parseRkChildElement(NULL);
    Check(copy->toString(0) == unset, "reading a null element unsets every field", type.name);
    return 0;
}
