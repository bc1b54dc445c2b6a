// Element trees: creation, lookup, iteration, attributes and result elements.

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string>

#include "rk_internal.h"

namespace rk {

namespace {

const char kResultsName[] = "results";
const char kStatusAttr[] = "status";
const char kReasonAttr[] = "reason";
const char kErrnoAttr[] = "errno";
const char kPassed[] = "passed";
const char kFailed[] = "failed";
const char kEncryptedAttr[] = "encrypted";
const char kEncryptedScheme[] = "aes-256-gcm";

bool IsNameStart(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c >= 0x80;
}

bool IsNameChar(unsigned char c) {
    return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

bool IsAncestorOrSelf(const rk_elem* candidate, const rk_elem* elem) {
    // An element without children is nobody's ancestor: attaching a new leaf costs nothing.
    if (candidate->children.empty()) {
        return candidate == elem;
    }
    for (const rk_elem* e = elem; e != nullptr; e = e->parent) {
        if (e == candidate) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool IsValidName(const char* name) {
    if (name == nullptr || !IsNameStart(static_cast<unsigned char>(name[0]))) {
        return false;
    }
    for (const char* p = name + 1; *p != '\0'; ++p) {
        if (!IsNameChar(static_cast<unsigned char>(*p))) {
            return false;
        }
    }
    return true;
}

rk_elem* ElemNew(const char* name) {
    if (!IsValidName(name)) {
        return nullptr;
    }
    rk_elem* elem = new rk_elem;
    elem->name = name;
    return elem;
}

void ElemFree(rk_elem* elem) {
    if (elem == nullptr) {
        return;
    }
    // Freeing an attached element detaches it first, so its parent is never left with a
    // dangling child.
    if (elem->parent != nullptr) {
        ChildRemove(elem->parent, elem);
    }
    // Iterative, so that a tree of any depth is freed without deep recursion.
    std::vector<rk_elem*> pending{elem};
    while (!pending.empty()) {
        rk_elem* e = pending.back();
        pending.pop_back();
        pending.insert(pending.end(), e->children.begin(), e->children.end());
        delete e;
    }
}

rk_elem* ElemCopy(const rk_elem* elem) {
    if (elem == nullptr) {
        return nullptr;
    }
    rk_elem* root = new rk_elem;
    root->name = elem->name;
    root->content = elem->content;
    root->attributes = elem->attributes;
    std::vector<std::pair<const rk_elem*, rk_elem*>> pending{{elem, root}};
    while (!pending.empty()) {
        auto [source, target] = pending.back();
        pending.pop_back();
        target->children.reserve(source->children.size());
        for (const rk_elem* child : source->children) {
            rk_elem* copy = new rk_elem;
            copy->name = child->name;
            copy->content = child->content;
            copy->attributes = child->attributes;
            copy->parent = target;
            target->children.push_back(copy);
            pending.emplace_back(child, copy);
        }
    }
    return root;
}

const char* ElemGetName(const rk_elem* elem) {
    return elem == nullptr ? nullptr : elem->name.c_str();
}

const char* ElemGetContent(const rk_elem* elem) {
    return elem == nullptr ? nullptr : elem->content.value.c_str();
}

bool ElemSetContent(rk_elem* elem, const char* text) {
    if (elem == nullptr) {
        return false;
    }
    elem->content.value = text == nullptr ? "" : text;
    elem->content.markup = false;
    return true;
}

rk_elem* ElemChild(const rk_elem* elem, const char* name) {
    if (elem == nullptr || name == nullptr) {
        return nullptr;
    }
    for (rk_elem* child : elem->children) {
        if (child->name == name) {
            return child;
        }
    }
    return nullptr;
}

size_t ElemChildCount(const rk_elem* elem) {
    return elem == nullptr ? 0 : elem->children.size();
}

rk_elem* ElemParent(const rk_elem* elem) {
    return elem == nullptr ? nullptr : elem->parent;
}

rk_elem* ChildAdd(rk_elem* parent, rk_elem* child) {
    // An element has one parent, and a tree may not contain itself.
    if (parent == nullptr || child == nullptr || child->parent != nullptr ||
        IsAncestorOrSelf(child, parent)) {
        return nullptr;
    }
    parent->children.push_back(child);
    child->parent = parent;
    return child;
}

rk_elem* ChildRemove(rk_elem* parent, rk_elem* child) {
    if (parent == nullptr || child == nullptr || child->parent != parent) {
        return nullptr;
    }
    auto it = std::find(parent->children.begin(), parent->children.end(), child);
    if (it == parent->children.end()) {
        return nullptr;
    }
    parent->children.erase(it);
    child->parent = nullptr;
    return child;
}

rk_elem* ChildAddString(rk_elem* parent, const char* name, const char* value) {
    if (parent == nullptr || value == nullptr) {
        return nullptr;
    }
    rk_elem* child = ElemNew(name);
    if (child == nullptr) {
        return nullptr;
    }
    child->content.value = value;
    return ChildAdd(parent, child);
}

rk_elem* ChildAddStringEncrypted(rk_elem* parent, const char* name, const char* value,
                                 const char* key) {
    if (parent == nullptr || value == nullptr || !IsValidName(name)) {
        return nullptr;
    }
    std::string sealed;
    if (!EncryptValue(name, value, key, &sealed)) {
        return nullptr;
    }
    rk_elem* child = ElemNew(name);
    child->content.value = std::move(sealed);
    ElemSetAttr(child, kEncryptedAttr, kEncryptedScheme);
    return ChildAdd(parent, child);
}

rk_elem* ChildAddBool(rk_elem* parent, const char* name, bool value) {
    return ChildAddString(parent, name, value ? "true" : "false");
}

const char* ChildGetString(const rk_elem* elem, const char* name) {
    return ElemGetContent(ElemChild(elem, name));
}

char* ChildGetStringEncrypted(const rk_elem* elem, const char* name, const char* key) {
    const rk_elem* child = ElemChild(elem, name);
    const char* scheme = ElemGetAttr(child, kEncryptedAttr);
    // A value sent in the clear is refused: reading it as decrypted would let anyone on the
    // way replace a secret without the key.
    if (child == nullptr || scheme == nullptr || strcmp(scheme, kEncryptedScheme) != 0) {
        return nullptr;
    }
    std::string plain;
    if (!DecryptValue(name, child->content.value, key, &plain)) {
        return nullptr;
    }
    return strdup(plain.c_str());
}

bool TextIsTrue(const char* text) {
    return strcasecmp(text, "true") == 0 || strcasecmp(text, "yes") == 0 ||
           strcasecmp(text, "on") == 0 || strcmp(text, "1") == 0;
}

int ChildGetBool(const rk_elem* elem, const char* name, int dflt) {
    const char* text = ChildGetString(elem, name);
    if (text == nullptr) {
        return dflt;
    }
    return TextIsTrue(text) ? 1 : 0;
}

rk_iterator_t ChildIterator(rk_elem* elem) {
    return rk_iterator_t{elem, 0};
}

rk_elem* IteratorNext(rk_iterator_t* it) {
    if (it == nullptr || it->parent == nullptr || it->index >= it->parent->children.size()) {
        return nullptr;
    }
    return it->parent->children[it->index++];
}

bool ElemSetAttr(rk_elem* elem, const char* name, const char* value) {
    if (elem == nullptr || value == nullptr || !IsValidName(name)) {
        return false;
    }
    for (RkAttribute& attr : elem->attributes) {
        if (attr.name == name) {
            attr.text.value = value;
            attr.text.markup = false;
            return true;
        }
    }
    elem->attributes.push_back(RkAttribute{name, RkText{value, false}});
    return true;
}

const char* ElemGetAttr(const rk_elem* elem, const char* name) {
    if (elem == nullptr || name == nullptr) {
        return nullptr;
    }
    for (const RkAttribute& attr : elem->attributes) {
        if (attr.name == name) {
            return attr.text.value.c_str();
        }
    }
    return nullptr;
}

int ResultsStatus(const rk_elem* result) {
    const char* status = ElemGetAttr(result, kStatusAttr);
    return status != nullptr && strcmp(status, kPassed) == 0 ? 1 : 0;
}

const char* ResultsReason(const rk_elem* result) {
    return ElemGetAttr(result, kReasonAttr);
}

int ResultsErrno(const rk_elem* result) {
    const char* text = ElemGetAttr(result, kErrnoAttr);
    return text == nullptr ? 0 : static_cast<int>(strtol(text, nullptr, 10));
}

rk_elem* ResultsNewPassed() {
    rk_elem* result = ElemNew(kResultsName);
    ElemSetAttr(result, kStatusAttr, kPassed);
    return result;
}

rk_elem* ResultsNewFailed(const char* reason, int errnum) {
    rk_elem* result = ElemNew(kResultsName);
    ElemSetAttr(result, kStatusAttr, kFailed);
    ElemSetAttr(result, kReasonAttr, reason == nullptr ? "" : reason);
    ElemSetAttr(result, kErrnoAttr, std::to_string(errnum).c_str());
    return result;
}

rk_elem* ResultsNewFailedWire(const std::string& reason, int errnum) {
    rk_elem* result = ResultsNewFailed("", errnum);
    std::string escaped;
    AppendEscaped(reason, &escaped);
    for (RkAttribute& attr : result->attributes) {
        if (attr.name == kReasonAttr) {
            attr.text = RkText{std::move(escaped), true};
        }
    }
    return result;
}

bool IsResults(const rk_elem* elem) {
    if (elem == nullptr || elem->name != kResultsName) {
        return false;
    }
    const char* status = ElemGetAttr(elem, kStatusAttr);
    return status != nullptr && (strcmp(status, kPassed) == 0 || strcmp(status, kFailed) == 0);
}

void CopyToBuffer(const std::string& text, char* buffer, int size) {
    if (buffer == nullptr || size <= 0) {
        return;
    }
    size_t n = std::min(text.size(), static_cast<size_t>(size - 1));
    memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
}

}  // namespace rk
