// The C interface of rk.h over the internal element, text and crypto code. No exception may
// cross it: allocation failure inside is turned into a null or zero result.

#include <stdlib.h>

#include <string>

#include "rk_internal.h"

namespace {

// Runs `body`, turning an exception into `failed`.
template <typename T, typename F>
T Guarded(T failed, F body) noexcept {
    try {
        return body();
    } catch (...) {
        return failed;
    }
}

}  // namespace

extern "C" {

rk_elem_t* rk_elem_new(const char* name) {
    return Guarded<rk_elem_t*>(nullptr, [&] { return rk::ElemNew(name); });
}
void rk_elem_free(rk_elem_t* elem) {
    rk::ElemFree(elem);
}
const char* rk_elem_get_name(rk_elem_t* elem) {
    return rk::ElemGetName(elem);
}
const char* rk_elem_get_content(rk_elem_t* elem) {
    return rk::ElemGetContent(elem);
}
int rk_elem_set_content(rk_elem_t* elem, const char* text) {
    return Guarded(0, [&] { return rk::ElemSetContent(elem, text) ? 1 : 0; });
}
rk_elem_t* rk_elem_child(rk_elem_t* elem, const char* name) {
    return rk::ElemChild(elem, name);
}
rk_elem_t* rk_child_add(rk_elem_t* parent, rk_elem_t* child) {
    return Guarded<rk_elem_t*>(nullptr, [&] { return rk::ChildAdd(parent, child); });
}
rk_elem_t* rk_child_add_string(rk_elem_t* parent, const char* name, const char* value) {
    return Guarded<rk_elem_t*>(nullptr, [&] { return rk::ChildAddString(parent, name, value); });
}
rk_elem_t* rk_child_add_string_encrypted(rk_elem_t* parent, const char* name, const char* value,
                                         const char* key) {
    return Guarded<rk_elem_t*>(
        nullptr, [&] { return rk::ChildAddStringEncrypted(parent, name, value, key); });
}
rk_elem_t* rk_child_add_bool(rk_elem_t* parent, const char* name, int value) {
    return Guarded<rk_elem_t*>(nullptr, [&] { return rk::ChildAddBool(parent, name, value != 0); });
}
const char* rk_child_get_string(rk_elem_t* elem, const char* name) {
    return rk::ChildGetString(elem, name);
}
char* rk_child_get_string_encrypted(rk_elem_t* elem, const char* name, const char* key) {
    return Guarded<char*>(nullptr, [&] { return rk::ChildGetStringEncrypted(elem, name, key); });
}
int rk_child_get_bool(rk_elem_t* elem, const char* name, int dflt) {
    return rk::ChildGetBool(elem, name, dflt);
}
rk_iterator_t rk_child_iterator(rk_elem_t* elem) {
    return rk::ChildIterator(elem);
}
rk_elem_t* rk_iterator_next(rk_iterator_t* it) {
    return rk::IteratorNext(it);
}
char* rk_elem_sprintf(rk_elem_t* elem) {
    return Guarded<char*>(nullptr, [&] { return rk::ElemSprintf(elem); });
}
void rk_free(void* p) {
    free(p);
}
int rk_elem_write(rk_elem_t* elem, size_t piece_size, rk_write_fn write, void* context) {
    return Guarded(0, [&] { return rk::WritePieces(elem, piece_size, write, context) ? 1 : 0; });
}

size_t rk_elem_child_count(rk_elem_t* elem) {
    return rk::ElemChildCount(elem);
}
rk_elem_t* rk_elem_parent(rk_elem_t* elem) {
    return rk::ElemParent(elem);
}
rk_elem_t* rk_child_remove(rk_elem_t* parent, rk_elem_t* child) {
    return rk::ChildRemove(parent, child);
}
int rk_elem_set_attr(rk_elem_t* elem, const char* name, const char* value) {
    return Guarded(0, [&] { return rk::ElemSetAttr(elem, name, value) ? 1 : 0; });
}
const char* rk_elem_get_attr(rk_elem_t* elem, const char* name) {
    return rk::ElemGetAttr(elem, name);
}
rk_elem_t* rk_elem_copy(rk_elem_t* elem) {
    return Guarded<rk_elem_t*>(nullptr, [&] { return rk::ElemCopy(elem); });
}
rk_elem_t* rk_elem_parse(const char* text, size_t len, char* errbuf, int errbuflen) {
    rk::ParseError error;
    rk_elem_t* tree = nullptr;
    try {
        tree = rk::ParseXml(text, len, rk::ParseLimits::ForSize(RK_PARSE_MAX_BYTES), &error);
    } catch (...) {
        error.reason = "out of memory while parsing";
    }
    if (tree == nullptr) {
        rk::CopyToBuffer(error.reason, errbuf, errbuflen);
    }
    return tree;
}
int rk_set_default_key(const char* key) {
    return Guarded(0, [&] { return rk::SetDefaultKey(key) ? 1 : 0; });
}

int rk_results_status(rk_elem_t* result) {
    return rk::ResultsStatus(result);
}
const char* rk_results_reason(rk_elem_t* result) {
    return rk::ResultsReason(result);
}
int rk_results_errno(rk_elem_t* result) {
    return rk::ResultsErrno(result);
}
rk_elem_t* rk_results_new_passed(void) {
    return Guarded<rk_elem_t*>(nullptr, [] { return rk::ResultsNewPassed(); });
}
rk_elem_t* rk_results_new_failed(const char* reason, int errnum) {
    return Guarded<rk_elem_t*>(nullptr, [&] { return rk::ResultsNewFailed(reason, errnum); });
}

}  // extern "C"
