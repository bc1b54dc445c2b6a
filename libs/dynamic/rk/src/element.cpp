// Element trees: creation, lookup, iteration, attributes and result elements, and the arena
// that parsed and copied trees live in.
//
// Elements of a parsed or copied tree live in an arena and point into it; so do the roots
// made through the interface and, within bounds, the children added to their trees. Other
// elements made through the interface are allocated apart and own their strings. Either
// kind may be attached to, detached from and moved between trees of the other kind: freeing
// an element releases what it owns and, for an arena element, its count in the arena.

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "rk_internal.h"

namespace rk {

const char kEmptyText[] = "";

namespace {

const char kResultsName[] = "results";
const char kStatusAttr[] = "status";
const char kReasonAttr[] = "reason";
const char kErrnoAttr[] = "errno";
const char kPassed[] = "passed";
const char kFailed[] = "failed";
const char kEncryptedAttr[] = "encrypted";
const char kEncryptedScheme[] = "aes-256-gcm";
// The most attributes one element can hold (the width of rk_elem::attrCount).
const uint32_t kMaxAttributesPerElement = (1u << 27) - 1;

constexpr bool IsNameStartByte(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c >= 0x80;
}

constexpr bool IsNameByte(unsigned char c) {
    return IsNameStartByte(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// What each byte may be in a name, looked up once per byte: every element added is checked.
struct NameTable {
    bool start[256] = {};
    bool inside[256] = {};
    constexpr NameTable() {
        for (int c = 0; c < 256; ++c) {
            start[c] = IsNameStartByte(static_cast<unsigned char>(c));
            inside[c] = IsNameByte(static_cast<unsigned char>(c));
        }
    }
};
constexpr NameTable kNameBytes;

bool IsNameStart(unsigned char c) {
    return kNameBytes.start[c];
}

bool IsNameChar(unsigned char c) {
    return kNameBytes.inside[c];
}

bool IsAncestorOrSelf(const rk_elem* candidate, const rk_elem* elem) {
    // An element without children is nobody's ancestor: attaching a new leaf costs nothing.
    if (candidate->childCount == 0) {
        return candidate == elem;
    }
    for (const rk_elem* e = elem; e != nullptr; e = e->parent) {
        if (e == candidate) {
            return true;
        }
    }
    return false;
}

char* Duplicate(const char* text) {
    size_t len = strlen(text);
    char* copy = static_cast<char*>(malloc(len + 1));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    memcpy(copy, text, len + 1);
    return copy;
}

void InitElement(rk_elem* elem) {
    elem->name = kEmptyText;
    elem->content = kEmptyText;
    elem->parent = nullptr;
    elem->children = nullptr;
    elem->attributes = nullptr;
    elem->arena = nullptr;
    elem->childCount = 0;
    elem->attrCount = 0;
    elem->ownsName = 0;
    elem->ownsContent = 0;
    elem->contentMarkup = 0;
    elem->ownsChildren = 0;
    elem->ownsAttributes = 0;
}

// A new element in one allocation that holds its name and, when `text` is not null, its text
// after it; neither is owned apart from the element.
rk_elem* NewOwnElement(const char* name, size_t nameLen, const char* text, size_t textLen) {
    const size_t textBytes = text == nullptr ? 0 : textLen + 1;
    char* memory = static_cast<char*>(malloc(sizeof(rk_elem) + nameLen + 1 + textBytes));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    rk_elem* elem = reinterpret_cast<rk_elem*>(memory);
    InitElement(elem);
    char* copy = memory + sizeof(rk_elem);
    memcpy(copy, name, nameLen);
    copy[nameLen] = '\0';
    elem->name = copy;
    if (text != nullptr) {
        copy += nameLen + 1;
        memcpy(copy, text, textLen);
        copy[textLen] = '\0';
        elem->content = copy;
    }
    return elem;
}

// A new element of `arena` with copies of its name and text. Throws std::bad_alloc; the
// strings are taken first, so that an element is counted in the arena only once it is whole.
rk_elem* NewArenaElement(Arena* arena, const char* name, size_t nameLen, const char* text,
                         size_t textLen) {
    const char* nameCopy = arena->CopyString(name, nameLen);
    const char* textCopy = arena->CopyString(text, textLen);
    rk_elem* elem = arena->NewElement();
    elem->name = nameCopy;
    elem->content = textCopy;
    return elem;
}

// A tree built through the interface may take from its arena up to this many bytes per
// element alive in it, and this many in any case. Past that (children added and removed
// again and again under a root kept long), new children are allocated apart, so that the
// arena does not grow without end.
const size_t kArenaBytesPerElement = 256;
const size_t kArenaFloorBytes = 64u << 10;
// Children deeper than this take their memory apart, so that adding one never walks a long
// way up to the root.
const int kArenaMaxDepth = 32;

// The arena of the tree that `parent` is in, when its root owns one that may still grow by
// `bytes`; null otherwise. Only the thread that uses the tree allocates from its arena: an
// element moved out of the tree no longer reaches the arena's owner.
Arena* TreeArena(const rk_elem* parent, size_t bytes) {
    const rk_elem* root = parent;
    for (int depth = 0; root->parent != nullptr; ++depth) {
        if (depth == kArenaMaxDepth) {
            return nullptr;
        }
        root = root->parent;
    }
    Arena* arena = root->arena;
    if (arena == nullptr || arena->owner() != root) {
        return nullptr;
    }
    const size_t limit = std::max(kArenaFloorBytes, kArenaBytesPerElement * arena->live());
    return arena->BytesReserved() + bytes <= limit ? arena : nullptr;
}

// The capacity of an array of `count` items that the element owns: it grows by doubling,
// so the capacity follows from the count and needs no field of its own.
size_t Capacity(size_t count) {
    size_t capacity = 4;
    while (capacity < count) {
        capacity *= 2;
    }
    return capacity;
}

// Makes room for one more item in an array of `count`; the array becomes the element's own.
template <typename T>
T* GrowArray(T* array, size_t count, bool owned) {
    if (owned && count + 1 <= Capacity(count)) {
        return array;
    }
    T* grown = static_cast<T*>(malloc(Capacity(count + 1) * sizeof(T)));
    if (grown == nullptr) {
        throw std::bad_alloc();
    }
    if (count > 0) {
        memcpy(grown, array, count * sizeof(T));
    }
    if (owned) {
        free(array);
    }
    return grown;
}

// Makes room for one more child of `parent`. An element made through the interface in an
// arena (its arena has an owner) takes its child array from that arena while it is part of
// the arena's tree, sized as an owned array is (Capacity), so that it grows in place
// likewise; a parsed or copied element's array in its arena holds exactly its children.
void GrowChildren(rk_elem* parent) {
    const size_t count = parent->childCount;
    const bool sized = parent->ownsChildren != 0 ||
                       (parent->arena != nullptr && parent->arena->owner() != nullptr);
    if (parent->children != nullptr && sized && count + 1 <= Capacity(count)) {
        return;
    }
    const size_t bytes = Capacity(count + 1) * sizeof(rk_elem*);
    Arena* arena = parent->arena;
    if (arena == nullptr || arena->owner() == nullptr || TreeArena(parent, bytes) != arena) {
        parent->children = GrowArray(parent->children, count, parent->ownsChildren != 0);
        parent->ownsChildren = 1;
        return;
    }
    auto* grown = static_cast<rk_elem**>(arena->Allocate(bytes));
    if (count > 0) {
        memcpy(grown, parent->children, count * sizeof(rk_elem*));
    }
    if (parent->ownsChildren) {
        free(parent->children);
    }
    parent->children = grown;
    parent->ownsChildren = 0;
}

// Frees what the element owns, not the element itself.
void ReleaseStorage(rk_elem* elem) {
    if (elem->ownsName) {
        free(const_cast<char*>(elem->name));
    }
    if (elem->ownsContent) {
        free(const_cast<char*>(elem->content));
    }
    if (elem->ownsChildren) {
        free(elem->children);
    }
    for (uint32_t i = 0; i < elem->attrCount; ++i) {
        RkAttribute& attr = elem->attributes[i];
        if (attr.ownsName) {
            free(const_cast<char*>(attr.name));
        }
        if (attr.ownsValue) {
            free(const_cast<char*>(attr.value));
        }
    }
    if (elem->ownsAttributes) {
        free(elem->attributes);
    }
}

void SetContent(rk_elem* elem, const char* text, bool markup) {
    Touch(elem);
    char* copy = Duplicate(text);
    if (elem->ownsContent) {
        free(const_cast<char*>(elem->content));
    }
    elem->content = copy;
    elem->ownsContent = 1;
    elem->contentMarkup = markup ? 1 : 0;
}

// Sets an attribute of an element made through the interface with its strings, and its list
// of attributes, from its tree's arena, where that arena may still grow by what they take: the
// tree stays whole, to be freed at once. False, with nothing changed, where it cannot.
bool SetAttrInArena(rk_elem* elem, const char* name, const char* value, bool markup) {
    Arena* arena = elem->arena;
    if (arena == nullptr || arena->owner() == nullptr || elem->ownsAttributes) {
        return false;
    }
    const size_t nameLen = strlen(name);
    const size_t valueLen = strlen(value);
    const size_t count = elem->attrCount;
    const bool grow = count == Capacity(count) || elem->attributes == nullptr;
    const size_t listBytes = grow ? Capacity(count + 1) * sizeof(RkAttribute) : 0;
    if (TreeArena(elem, nameLen + valueLen + listBytes + 16) != arena) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        RkAttribute& attr = elem->attributes[i];
        if (strcmp(attr.name, name) == 0) {
            if (attr.ownsValue) {
                return false;  // a value of its own, which the general path replaces and frees
            }
            attr.value = arena->CopyString(value, valueLen);
            attr.markup = markup;
            return true;
        }
    }
    if (grow) {
        auto* grown = static_cast<RkAttribute*>(arena->Allocate(listBytes));
        if (count > 0) {
            memcpy(grown, elem->attributes, count * sizeof(RkAttribute));
        }
        elem->attributes = grown;
    }
    elem->attributes[count] = RkAttribute{arena->CopyString(name, nameLen),
                                          arena->CopyString(value, valueLen), false, false, markup};
    ++elem->attrCount;
    return true;
}

bool SetAttr(rk_elem* elem, const char* name, const char* value, bool markup) {
    // At the limit, only a value may change: the general path below says which.
    if (elem->attrCount < kMaxAttributesPerElement && SetAttrInArena(elem, name, value, markup)) {
        return true;
    }
    Touch(elem);
    for (uint32_t i = 0; i < elem->attrCount; ++i) {
        RkAttribute& attr = elem->attributes[i];
        if (strcmp(attr.name, name) == 0) {
            char* copy = Duplicate(value);
            if (attr.ownsValue) {
                free(const_cast<char*>(attr.value));
            }
            attr.value = copy;
            attr.ownsValue = true;
            attr.markup = markup;
            return true;
        }
    }
    if (elem->attrCount >= kMaxAttributesPerElement) {
        return false;
    }
    char* nameCopy = Duplicate(name);
    char* valueCopy = nullptr;
    try {
        valueCopy = Duplicate(value);
        elem->attributes = GrowArray(elem->attributes, elem->attrCount, elem->ownsAttributes != 0);
    } catch (...) {
        free(nameCopy);
        free(valueCopy);
        throw;
    }
    elem->ownsAttributes = 1;
    elem->attributes[elem->attrCount] = RkAttribute{nameCopy, valueCopy, true, true, markup};
    ++elem->attrCount;
    return true;
}

// Hands the elements freed from one arena back to it in one step.
class ArenaReleaser {
  public:
    ArenaReleaser() = default;
    ~ArenaReleaser() { Flush(); }
    ArenaReleaser(const ArenaReleaser&) = delete;
    ArenaReleaser& operator=(const ArenaReleaser&) = delete;
    void Add(Arena* arena) {
        if (arena != _arena) {
            Flush();
            _arena = arena;
        }
        ++_count;
    }

  private:
    void Flush() {
        if (_arena != nullptr) {
            _arena->Release(_count);
        }
        _arena = nullptr;
        _count = 0;
    }
    Arena* _arena = nullptr;
    size_t _count = 0;
};

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

Arena* Arena::Create(size_t firstBlock) {
    // The arena's own fields and its first block are one allocation: a small tree takes one.
    const size_t header = (sizeof(Arena) + 7) & ~static_cast<size_t>(7);
    const size_t size = std::max<size_t>(firstBlock, 256);
    void* memory = malloc(header + size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    Arena* arena = new (memory) Arena;
    arena->_cursor = static_cast<char*>(memory) + header;
    arena->_left = size;
    arena->_reserved = header + size;
    arena->_nextBlock = std::min<size_t>(2 * size, 4u << 20);
    return arena;
}

void Arena::AddBlock(size_t bytes) {
    // A block holds at least what is asked; blocks double up to 4 MiB with their header, so
    // that a large tree takes few of them and a small one wastes little.
    const size_t header = (sizeof(Block) + 7) & ~static_cast<size_t>(7);
    const size_t size = std::max(_nextBlock, bytes);
    const size_t total = header + size;
    // A large block is mapped on its own rather than taken from the C library's heap: freeing
    // a large tree gives its pages back to the system at once instead of leaving them resident
    // in the heap, and never moves glibc's threshold for mapping blocks (which it raises to the
    // size of each mapped block freed, after which the next large trees would stay in its heap
    // when freed). Huge pages, where the system gives them, spare a fault per 4 KiB page.
    void* memory;
    size_t mapped = 0;
    if (total >= kMapFrom) {
        memory = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            throw std::bad_alloc();
        }
        madvise(memory, total, MADV_HUGEPAGE);
        mapped = total;
    } else {
        memory = malloc(total);
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
    }
    Block* block = static_cast<Block*>(memory);
    block->next = _blocks;
    block->mapped = mapped;
    _blocks = block;
    _cursor = static_cast<char*>(memory) + header;
    _left = size;
    _reserved += total;
    _nextBlock = std::min<size_t>(2 * _nextBlock, (4u << 20) - header);
}

void Arena::Release(size_t count) {
    if (_live.fetch_sub(count, std::memory_order_acq_rel) == count) {
        Destroy();
    }
}

void Arena::Destroy() {
    for (Block* block = _blocks; block != nullptr;) {
        Block* next = block->next;
        if (block->mapped != 0) {
            munmap(block, block->mapped);
        } else {
            free(block);
        }
        block = next;
    }
    this->~Arena();
    free(this);
}

rk_elem* ElemNew(const char* name) {
    if (!IsValidName(name)) {
        return nullptr;
    }
    // The first element of an arena that the children of its tree come from (ChildAddString):
    // a tree built through the interface then costs a few allocations instead of one per
    // element, and is freed likewise.
    const size_t nameLen = strlen(name);
    Arena* arena = Arena::Create(sizeof(rk_elem) + nameLen + 16);
    rk_elem* elem = NewArenaElement(arena, name, nameLen, "", 0);
    arena->SetOwner(elem);
    // Whole while children are only added to it from its arena (ChildAdd): freed at once.
    arena->SetRoot(elem);
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
    if (elem->arena != nullptr && elem->arena->IsIntactRoot(elem)) {
        elem->arena->Destroy();
        return;
    }
    // Depth first without a stack, so that a tree of any depth is freed without deep
    // recursion or an allocation: each element gives up its children from the last, and an
    // element without children left is freed and the walk goes back to its parent.
    ArenaReleaser releaser;
    rk_elem* e = elem;
    while (e != nullptr) {
        if (e->childCount > 0) {
            rk_elem* child = e->children[--e->childCount];
            // A subtree that is the whole of its arena (a tree made or parsed apart, then
            // attached) goes at once: none of its elements is anywhere else.
            if (child->arena != nullptr && child->arena->IsIntactRoot(child)) {
                child->arena->Destroy();
                continue;
            }
            e = child;
            continue;
        }
        rk_elem* parent = e == elem ? nullptr : e->parent;
        ReleaseStorage(e);
        if (e->arena != nullptr) {
            releaser.Add(e->arena);
        } else {
            free(e);
        }
        e = parent;
    }
}

rk_elem* ElemCopy(const rk_elem* elem) {
    if (elem == nullptr) {
        return nullptr;
    }
    // The copy lives in an arena of its own, like a parsed tree.
    Arena* arena = Arena::Create(1024);
    auto copyOne = [arena](const rk_elem* source) {
        rk_elem* target = arena->NewElement();
        target->name = arena->CopyString(source->name, strlen(source->name));
        target->content = arena->CopyString(source->content, strlen(source->content));
        target->contentMarkup = source->contentMarkup;
        if (source->attrCount > 0) {
            target->attributes =
                static_cast<RkAttribute*>(arena->Allocate(source->attrCount * sizeof(RkAttribute)));
            for (uint32_t i = 0; i < source->attrCount; ++i) {
                const RkAttribute& attr = source->attributes[i];
                target->attributes[i] = RkAttribute{
                    arena->CopyString(attr.name, strlen(attr.name)),
                    arena->CopyString(attr.value, strlen(attr.value)), false, false, attr.markup};
            }
            target->attrCount = source->attrCount;
        }
        if (source->childCount > 0) {
            target->children =
                static_cast<rk_elem**>(arena->Allocate(source->childCount * sizeof(rk_elem*)));
        }
        return target;
    };
    rk_elem* root = nullptr;
    try {
        root = copyOne(elem);
        std::vector<std::pair<const rk_elem*, rk_elem*>> pending{{elem, root}};
        while (!pending.empty()) {
            auto [source, target] = pending.back();
            pending.pop_back();
            for (uint32_t i = 0; i < source->childCount; ++i) {
                rk_elem* copy = copyOne(source->children[i]);
                copy->parent = target;
                target->children[target->childCount++] = copy;
                pending.emplace_back(source->children[i], copy);
            }
        }
    } catch (...) {
        // Nothing of the copy owns storage of its own yet: the arena holds it all.
        arena->Destroy();
        throw;
    }
    arena->SetRoot(root);
    return root;
}

const char* ElemGetName(const rk_elem* elem) {
    return elem == nullptr ? nullptr : elem->name;
}

const char* ElemGetContent(const rk_elem* elem) {
    return elem == nullptr ? nullptr : elem->content;
}

bool ElemSetContent(rk_elem* elem, const char* text) {
    if (elem == nullptr) {
        return false;
    }
    SetContent(elem, text == nullptr ? "" : text, false);
    return true;
}

rk_elem* ElemChild(const rk_elem* elem, const char* name) {
    if (elem == nullptr || name == nullptr) {
        return nullptr;
    }
    // The names of a record's fields mostly differ in their first byte: comparing it first
    // passes over the other children without a call.
    const char first = name[0];
    for (uint32_t i = 0; i < elem->childCount; ++i) {
        const char* childName = elem->children[i]->name;
        if (childName[0] == first && strcmp(childName, name) == 0) {
            return elem->children[i];
        }
    }
    return nullptr;
}

size_t ElemChildCount(const rk_elem* elem) {
    return elem == nullptr ? 0 : elem->childCount;
}

rk_elem* ElemParent(const rk_elem* elem) {
    return elem == nullptr ? nullptr : elem->parent;
}

rk_elem* ChildAdd(rk_elem* parent, rk_elem* child) {
    // An element has one parent, and a tree may not contain itself.
    if (parent == nullptr || child == nullptr || child->parent != nullptr ||
        IsAncestorOrSelf(child, parent) || parent->childCount == UINT32_MAX) {
        return nullptr;
    }
    // A new element of the parent's own arena, holding nothing apart, keeps that arena's tree
    // whole; and a subtree that is the whole of its arena stays so wherever it is attached.
    const bool newOfParentsArena = child->arena != nullptr && child->arena == parent->arena &&
                                   child->childCount == 0 && child->attrCount == 0 &&
                                   !child->ownsName && !child->ownsContent;
    if (!newOfParentsArena) {
        Touch(parent);
        if (child->arena == nullptr || !child->arena->IsIntactRoot(child)) {
            Touch(child);
        }
    }
    GrowChildren(parent);
    if (parent->ownsChildren) {
        Touch(parent);  // its child list is now apart from the arena
    }
    parent->children[parent->childCount++] = child;
    child->parent = parent;
    return child;
}

rk_elem* ChildRemove(rk_elem* parent, rk_elem* child) {
    if (parent == nullptr || child == nullptr || child->parent != parent) {
        return nullptr;
    }
    rk_elem** end = parent->children + parent->childCount;
    rk_elem** it = std::find(parent->children, end, child);
    if (it == end) {
        return nullptr;
    }
    Touch(parent);
    Touch(child);
    std::copy(it + 1, end, it);
    --parent->childCount;
    child->parent = nullptr;
    return child;
}

namespace {

// Fills `child`, a new element the caller owns, with `fill` and attaches it to `parent`. The
// child is freed when filling or attaching fails; an exception goes on after that.
template <typename Fill>
rk_elem* AddFilledChild(rk_elem* parent, rk_elem* child, Fill fill) {
    try {
        fill(child);
        if (ChildAdd(parent, child) != nullptr) {
            return child;
        }
    } catch (...) {
        ElemFree(child);
        throw;
    }
    ElemFree(child);
    return nullptr;
}

}  // namespace

rk_elem* ChildAddString(rk_elem* parent, const char* name, const char* value) {
    if (parent == nullptr || value == nullptr || !IsValidName(name)) {
        return nullptr;
    }
    const size_t nameLen = strlen(name);
    const size_t valueLen = strlen(value);
    Arena* arena = TreeArena(parent, sizeof(rk_elem) + nameLen + valueLen + 32);
    rk_elem* child = arena != nullptr ? NewArenaElement(arena, name, nameLen, value, valueLen)
                                      : NewOwnElement(name, nameLen, value, valueLen);
    return AddFilledChild(parent, child, [](rk_elem*) {});
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
    return AddFilledChild(parent, ElemNew(name), [&sealed](rk_elem* e) {
        SetContent(e, sealed.c_str(), false);
        SetAttr(e, kEncryptedAttr, kEncryptedScheme, false);
    });
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
    if (!DecryptValue(name, child->content, key, &plain)) {
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
    if (it == nullptr || it->parent == nullptr || it->index >= it->parent->childCount) {
        return nullptr;
    }
    return it->parent->children[it->index++];
}

bool ElemSetAttr(rk_elem* elem, const char* name, const char* value) {
    if (elem == nullptr || value == nullptr || !IsValidName(name)) {
        return false;
    }
    return SetAttr(elem, name, value, false);
}

const char* ElemGetAttr(const rk_elem* elem, const char* name) {
    if (elem == nullptr || name == nullptr) {
        return nullptr;
    }
    for (uint32_t i = 0; i < elem->attrCount; ++i) {
        if (strcmp(elem->attributes[i].name, name) == 0) {
            return elem->attributes[i].value;
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

bool ParseErrno(const char* text, int* value) {
    if (text == nullptr) {
        return false;
    }
    const char* p = text;
    bool negative = *p == '-';
    if (negative) {
        ++p;
    }
    if (*p == '\0') {
        return false;
    }
    // Accumulated as a negative number, whose range holds INT_MIN.
    long long n = 0;
    for (; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') {
            return false;
        }
        n = n * 10 - (*p - '0');
        if (n < INT_MIN) {
            return false;
        }
    }
    if (!negative) {
        if (-n > INT_MAX) {
            return false;
        }
        n = -n;
    }
    *value = static_cast<int>(n);
    return true;
}

int ResultsErrno(const rk_elem* result) {
    // Only a failed result has an error number; a text that is not a plain decimal int means
    // none (results from servers with such a text never get here: AcceptServerResult).
    const char* status = ElemGetAttr(result, kStatusAttr);
    if (status == nullptr || strcmp(status, kFailed) != 0) {
        return 0;
    }
    int value = 0;
    return ParseErrno(ElemGetAttr(result, kErrnoAttr), &value) ? value : 0;
}

rk_elem* ResultsNewPassed() {
    rk_elem* result = ElemNew(kResultsName);
    try {
        SetAttr(result, kStatusAttr, kPassed, false);
    } catch (...) {
        ElemFree(result);
        throw;
    }
    return result;
}

rk_elem* ResultsNewFailed(const char* reason, int errnum) {
    rk_elem* result = ElemNew(kResultsName);
    try {
        SetAttr(result, kStatusAttr, kFailed, false);
        SetAttr(result, kReasonAttr, reason == nullptr ? "" : reason, false);
        SetAttr(result, kErrnoAttr, std::to_string(errnum).c_str(), false);
    } catch (...) {
        ElemFree(result);
        throw;
    }
    return result;
}

rk_elem* ResultsNewFailedWire(const std::string& reason, int errnum) {
    rk_elem* result = ResultsNewFailed("", errnum);
    try {
        std::string escaped;
        AppendEscaped(reason, &escaped);
        SetAttr(result, kReasonAttr, escaped.c_str(), true);
    } catch (...) {
        ElemFree(result);
        throw;
    }
    return result;
}

rk_elem* AcceptServerResult(rk_elem* result, const std::string& server) {
    const char* status = ElemGetAttr(result, kStatusAttr);
    const char* errnoText = ElemGetAttr(result, kErrnoAttr);
    int value = 0;
    if (status == nullptr || strcmp(status, kFailed) != 0 || errnoText == nullptr ||
        ParseErrno(errnoText, &value)) {
        return result;
    }
    // The text is quoted as it stands, cut to a length a reason can carry.
    std::string text(errnoText, strnlen(errnoText, 64));
    if (text.size() == 64) {
        text += "...";
    }
    ElemFree(result);
    return ResultsNewFailedWire("the failed result of " + server + " has the errno \"" + text +
                                    "\", which is not a decimal int",
                                RK_ERR_NOT_RESULT);
}

bool IsResults(const rk_elem* elem) {
    if (elem == nullptr || strcmp(elem->name, kResultsName) != 0) {
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
