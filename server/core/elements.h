// Small helpers for handlers working on librk element trees: ownership, entity decoding,
// typed reading of request arguments and the error that a handler throws to fail a call.
#ifndef TEZAD_CORE_ELEMENTS_H_
#define TEZAD_CORE_ELEMENTS_H_

#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rk.h"

namespace tezad {

struct ElemFree {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
// Owns a root element (and with it the whole tree).
using ElemPtr = std::unique_ptr<rk_elem_t, ElemFree>;

// Thrown by handlers: the call fails with this reason (plain text) and error number.
struct ApiError {
    int errnum;
    std::string reason;
};

// Decodes the entity references of a text read from the wire: the five named ones and
// numeric character references; any other "&...;" is kept as it stands.
std::string Decode(const char* wire);

// The arguments of a request, read from its children (texts in wire form).
class Args {
  public:
    explicit Args(rk_elem_t* request) : _request(request) {}

    bool Has(const char* name) const { return rk_elem_child(_request, name) != nullptr; }
    // The decoded text of a child, or nothing when it is absent.
    std::optional<std::string> Text(const char* name) const;
    // The decoded text of a child; fails the call with `errnum` when it is absent or empty.
    std::string Required(const char* name, int errnum) const;
    // A whole number within [min, max]; `dflt` when absent. Fails the call otherwise.
    int64_t Integer(const char* name, int64_t dflt, int64_t min, int64_t max, int errnum) const;
    // A boolean in the client library's text form; `dflt` when absent.
    bool Bool(const char* name, bool dflt) const;
    // The decoded texts of all children of a wrapper element, whatever their names.
    std::vector<std::string> List(const char* name) const;
    // The decrypted text of an encrypted child (default key), or nothing when it is absent.
    // Fails the call with `errnum` when it is present but cannot be decrypted.
    std::optional<std::string> Secret(const char* name, int errnum) const;
    // A nested element, or null.
    rk_elem_t* Child(const char* name) const { return rk_elem_child(_request, name); }

  private:
    rk_elem_t* _request;
};

// Builders of result elements. They throw std::bad_alloc when the client library cannot
// allocate.
ElemPtr NewPassed();
ElemPtr NewFailed(const std::string& reason, int errnum);
rk_elem_t* AddText(rk_elem_t* parent, const char* name, const char* value);
inline rk_elem_t* AddText(rk_elem_t* parent, const char* name, const std::string& value) {
    return AddText(parent, name, value.c_str());
}
rk_elem_t* AddElem(rk_elem_t* parent, const char* name);

// The XML text of a result as the HTTP front end sends it: a declaration, then the tree.
std::string ToXml(rk_elem_t* elem);

}  // namespace tezad

#endif  // TEZAD_CORE_ELEMENTS_H_
