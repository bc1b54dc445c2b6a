// Internal C++ interface of the client library's element trees, texts and encrypted values.
//
// The C functions of rk.h are thin wrappers over these; the client-library test double wraps
// the same functions with its call log, so both behave identically on element trees.
#ifndef RK_INTERNAL_H_
#define RK_INTERNAL_H_

#include <stddef.h>

#include <string>
#include <vector>

#include "rk.h"

// A text value. Text that arrived in XML keeps its entity references and is written back out
// as it stands (`markup` true); text set through the interface is plain and escaped on output.
struct RkText {
    std::string value;
    bool markup = false;
};

struct RkAttribute {
    std::string name;
    RkText text;
};

// One element of a tree. A parent owns its children; a root is owned by whoever made it.
struct rk_elem {
    std::string name;
    RkText content;
    std::vector<RkAttribute> attributes;
    std::vector<rk_elem*> children;
    rk_elem* parent = nullptr;
};

namespace rk {

// Element names and attribute names follow XML's Name production (ASCII letters, digits, "_",
// ":", "-", "." and any non-ASCII byte; not starting with a digit, "-" or ".").
bool IsValidName(const char* name);

rk_elem* ElemNew(const char* name);
void ElemFree(rk_elem* elem);
rk_elem* ElemCopy(const rk_elem* elem);
const char* ElemGetName(const rk_elem* elem);
const char* ElemGetContent(const rk_elem* elem);
bool ElemSetContent(rk_elem* elem, const char* text);
rk_elem* ElemChild(const rk_elem* elem, const char* name);
size_t ElemChildCount(const rk_elem* elem);
rk_elem* ElemParent(const rk_elem* elem);
rk_elem* ChildAdd(rk_elem* parent, rk_elem* child);
rk_elem* ChildRemove(rk_elem* parent, rk_elem* child);
rk_elem* ChildAddString(rk_elem* parent, const char* name, const char* value);
rk_elem* ChildAddStringEncrypted(rk_elem* parent, const char* name, const char* value,
                                 const char* key);
rk_elem* ChildAddBool(rk_elem* parent, const char* name, bool value);
const char* ChildGetString(const rk_elem* elem, const char* name);
// Returns a malloc'd text or null.
char* ChildGetStringEncrypted(const rk_elem* elem, const char* name, const char* key);
int ChildGetBool(const rk_elem* elem, const char* name, int dflt);
rk_iterator_t ChildIterator(rk_elem* elem);
rk_elem* IteratorNext(rk_iterator_t* it);
bool ElemSetAttr(rk_elem* elem, const char* name, const char* value);
const char* ElemGetAttr(const rk_elem* elem, const char* name);

// "true", "yes", "on" and "1" in any case.
bool TextIsTrue(const char* text);

// Results.
int ResultsStatus(const rk_elem* result);
const char* ResultsReason(const rk_elem* result);
int ResultsErrno(const rk_elem* result);
rk_elem* ResultsNewPassed();
rk_elem* ResultsNewFailed(const char* reason, int errnum);
// A failed result whose reason is stored in wire form (escaped, as if read from XML), which is
// how every result that a server handle returns carries its reason.
rk_elem* ResultsNewFailedWire(const std::string& reason, int errnum);
bool IsResults(const rk_elem* elem);

// Appends `text` to `out` with the five XML special characters written as entities.
void AppendEscaped(const std::string& text, std::string* out);
// Turns every plain text and attribute value of the tree into its wire form (escaped markup),
// so that the tree reads as if it had been parsed from its XML text.
void ToWireForm(rk_elem* root);

// XML text. Appends the indented text of `elem` to `out`.
void WriteXml(const rk_elem* elem, std::string* out);
// Returns a malloc'd copy of WriteXml's text, or null for a null element.
char* ElemSprintf(const rk_elem* elem);
// Parses a document; on failure returns null and stores the reason in `error`.
rk_elem* ParseXml(const char* text, size_t len, std::string* error);

// Encrypted values: the content text of an encrypted element and back.
bool SetDefaultKey(const char* key);
bool EncryptValue(const char* name, const std::string& plain, const char* key, std::string* out);
bool DecryptValue(const char* name, const std::string& sealed, const char* key, std::string* out);

// Copies `text` into a caller's buffer, cut to fit and always NUL-terminated.
void CopyToBuffer(const std::string& text, char* buffer, int size);

}  // namespace rk

#endif  // RK_INTERNAL_H_
