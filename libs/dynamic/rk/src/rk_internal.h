// Internal C++ interface of the client library's element trees, texts and encrypted values.
//
// The C functions of rk.h are thin wrappers over these; the client-library test double wraps
// the same functions with its call log, so both behave identically on element trees.
#ifndef RK_INTERNAL_H_
#define RK_INTERNAL_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "rk.h"

namespace rk {

// The storage of a parsed or copied tree: elements, their arrays and strings, carved from a
// few large blocks. It counts the elements allocated from it that are still alive and frees
// itself with the last of them, so an element detached from its tree, or moved into another,
// keeps its storage for as long as it lives.
//
// While its tree is as it was made (no element changed, detached or given a child), freeing
// the root frees the arena at once, without visiting the elements: SetRoot names that root,
// and Touch, called before any change to one of its elements, forgets it.
class Arena {
  public:
    // A new arena whose first block, allocated with it, holds `firstBlock` bytes. Throws
    // std::bad_alloc.
    static Arena* Create(size_t firstBlock);
    // `bytes` bytes aligned for any element or pointer. Throws std::bad_alloc.
    void* Allocate(size_t bytes) {
        bytes = (bytes + 7) & ~static_cast<size_t>(7);
        if (bytes > _left) {
            AddBlock(bytes);
        }
        void* p = _cursor;
        _cursor += bytes;
        _left -= bytes;
        return p;
    }
    // A NUL-terminated copy of `len` bytes of `text`.
    inline char* CopyString(const char* text, size_t len);
    // A new element with an empty name and text, counted as alive.
    inline rk_elem* NewElement();
    // Bytes taken from the system so far.
    size_t BytesReserved() const { return _reserved; }
    // `count` of this arena's elements were freed; frees the arena after its last one.
    void Release(size_t count);
    // Frees the arena and all it holds at once (a tree that was never handed out, or the
    // intact tree of IsIntactRoot).
    void Destroy();
    // `root` is the root of a tree holding every element of the arena, none with storage of
    // its own.
    void SetRoot(const rk_elem* root) { _root = root; }
    // One of the arena's elements is about to change. Written only while the tree is intact,
    // when its elements are all in one tree and so used by one thread: the elements of an
    // arena spread over trees used by several threads then only read it.
    void Touch() {
        if (_root != nullptr) {
            _root = nullptr;
        }
    }
    // Whether `elem` is the root of SetRoot and its tree has not changed since.
    bool IsIntactRoot(const rk_elem* elem) const { return elem == _root; }
    // The element made through the interface (ElemNew) whose tree the arena serves: children
    // added anywhere in that tree while it is the root take their memory from the arena.
    // Null for a parsed or copied tree.
    void SetOwner(const rk_elem* owner) { _owner = owner; }
    const rk_elem* owner() const { return _owner; }
    // Elements allocated from the arena and not yet freed.
    size_t live() const { return _live.load(std::memory_order_relaxed); }

  private:
    // A block's header: blocks of kMapFrom bytes or more (the full blocks of a large tree) are
    // mapped from the system on their own (`mapped` is then their size) and unmapped when the
    // arena is freed; smaller ones come from the C library's heap, reused without page faults.
    struct Block {
        Block* next;
        size_t mapped;
    };
    static const size_t kMapFrom = 4u << 20;
    Arena() = default;
    ~Arena() = default;
    // Starts a new block that holds at least `bytes` bytes.
    void AddBlock(size_t bytes);
    std::atomic<size_t> _live{0};
    const rk_elem* _root = nullptr;
    const rk_elem* _owner = nullptr;
    Block* _blocks = nullptr;
    char* _cursor = nullptr;
    size_t _left = 0;
    size_t _nextBlock = 0;
    size_t _reserved = 0;
};

}  // namespace rk

// An attribute. `value` is in wire form (entity references as they stand) when `markup` is
// set, plain text otherwise. Strings that the element does not own live in its arena.
struct RkAttribute {
    const char* name;
    const char* value;
    bool ownsName;
    bool ownsValue;
    bool markup;
};

// One element of a tree, kept small: a parsed tree pays no heap allocation per element, name
// or text. Its elements, their child and attribute arrays and their strings come from one
// arena (rk::Arena) that lives as long as any of its elements, wherever they were moved.
// An element made through the interface (rk_elem_new) is the first element of an arena of
// its own, and the elements that rk_child_add_* adds to its tree come from that arena too,
// within bounds (element.cpp); other elements made through the interface are one allocation
// holding their name and first text after it. Whatever the interface changes afterwards (a
// text, an attribute, a child array that grows) gets storage of its own, which the element
// owns (the `owns*` flags) and frees.
//
// A parent owns its children; a root is owned by whoever made it.
struct rk_elem {
    const char* name;
    const char* content;  // never null; wire form when contentMarkup is set
    rk_elem* parent;
    rk_elem** children;       // childCount of them
    RkAttribute* attributes;  // attrCount of them
    rk::Arena* arena;         // where the element itself lives; null: allocated with new
    uint32_t childCount;
    uint32_t attrCount : 27;
    uint32_t ownsName : 1;
    uint32_t ownsContent : 1;
    uint32_t contentMarkup : 1;
    uint32_t ownsChildren : 1;
    uint32_t ownsAttributes : 1;
};

namespace rk {

// The empty text that elements without one point to.
extern const char kEmptyText[];

inline char* Arena::CopyString(const char* text, size_t len) {
    if (len == 0) {
        return const_cast<char*>(kEmptyText);
    }
    char* copy = static_cast<char*>(Allocate(len + 1));
    memcpy(copy, text, len);
    copy[len] = '\0';
    return copy;
}

inline rk_elem* Arena::NewElement() {
    rk_elem* elem = static_cast<rk_elem*>(Allocate(sizeof(rk_elem)));
    *elem = rk_elem{kEmptyText, kEmptyText, nullptr, nullptr, nullptr, this, 0, 0, 0, 0, 0, 0, 0};
    _live.fetch_add(1, std::memory_order_relaxed);
    return elem;
}

// Called before `elem` changes: its arena's tree is no longer as it was made.
inline void Touch(rk_elem* elem) {
    if (elem->arena != nullptr) {
        elem->arena->Touch();
    }
}

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
// The rule for results that come from a server (any transport): a failed result whose errno
// attribute is present but is not a plain decimal int (an optional "-", decimal digits, within
// the range of int) cannot be trusted to mean anything and is replaced by a failed result
// RK_ERR_NOT_RESULT whose reason quotes it. Takes `result` over; returns what the caller gets.
rk_elem* AcceptServerResult(rk_elem* result, const std::string& server);
// Reads a plain decimal int (see AcceptServerResult); false for anything else.
bool ParseErrno(const char* text, int* value);

// Appends `text` to `out` with the five XML special characters written as entities.
void AppendEscaped(const char* text, std::string* out);
inline void AppendEscaped(const std::string& text, std::string* out) {
    AppendEscaped(text.c_str(), out);
}
// Turns every plain text and attribute value of the tree into its wire form (escaped markup),
// so that the tree reads as if it had been parsed from its XML text.
void ToWireForm(rk_elem* root);

// XML text. Appends the indented text of `elem` to `out`.
void WriteXml(const rk_elem* elem, std::string* out);
// Returns a malloc'd copy of WriteXml's text, or null for a null element.
char* ElemSprintf(const rk_elem* elem);
// WriteXml's text handed to `write` in pieces (rk_elem_write); false when `elem` or `write` is
// null or `write` stopped. Throws std::bad_alloc.
bool WritePieces(const rk_elem* elem, size_t pieceSize, rk_write_fn write, void* context);
// What a parse may cost. Every cap is derived from the one limit a user sets, the size of a
// document in bytes (a server handle's rk_server_set_max_response_size, RK_PARSE_MAX_BYTES
// for rk_elem_parse); see ForSize and rk.h.
struct ParseLimits {
    size_t maxBytes = RK_PARSE_MAX_BYTES;
    size_t maxElements = RK_PARSE_MAX_BYTES / RK_PARSE_BYTES_PER_ELEMENT;
    size_t maxAttributes = RK_PARSE_MAX_BYTES / RK_PARSE_BYTES_PER_ATTRIBUTE;
    size_t maxDepth = RK_PARSE_MAX_DEPTH;
    // The memory the tree may take besides the document, in bytes.
    size_t maxTreeBytes = 3 * static_cast<size_t>(RK_PARSE_MAX_BYTES);
    // No deadline when false.
    bool hasDeadline = false;
    std::chrono::steady_clock::time_point deadline{};

    static ParseLimits ForSize(size_t maxBytes);
    // For an answer: ForSize, with the deadline of a call of `timeoutSeconds` (none when 0)
    // of which `spentSeconds` are gone.
    static ParseLimits ForCall(size_t maxBytes, int timeoutSeconds, double spentSeconds);
};

// Why a parse failed: RK_ERR_MALFORMED (not well-formed, with the byte offset),
// RK_ERR_TOO_LARGE (a limit reached, named in the reason) or RK_ERR_TIMEOUT (the deadline
// passed).
struct ParseError {
    int code = 0;
    std::string reason;
};

// Parses a document (XML 1.0 in UTF-8) within `limits`; on failure returns null and says why
// in `error`. With `discardRead`, `text` must start a private anonymous mapping (mmap) that the
// caller no longer reads: the parse gives its pages back to the system as it moves past them,
// so that a large document and its tree are not held whole at the same time.
rk_elem* ParseXml(const char* text, size_t len, const ParseLimits& limits, ParseError* error,
                  bool discardRead = false);

// A parse of a document that arrives in pieces into one buffer that does not move (an answer
// read from the network): Feed reads as much as has arrived, Finish the rest once the whole
// document is there. Its result, tree or error, is ParseXml's on the whole document, with the
// same `limits` and `discardRead`; the work is done while the rest is still arriving. What
// arrives must extend what Feed was given, and `text` must stay as it is until Finish. (With
// `startAfter` under 16 KiB, and a document that short, the tree's first block is sized before
// the document's length is known, so a tree-size limit that tight could be met elsewhere.)
class StreamParse {
  public:
    // Bytes that arrive before the document's start is read: its declaration, the rest of its
    // prolog and its root's start tag are then nearly always there whole (if not, they are
    // read again with the whole document).
    static const size_t kStartAfterBytes = 64u << 10;

    StreamParse(const char* text, const ParseLimits& limits, bool discardRead,
                size_t startAfter = kStartAfterBytes);
    ~StreamParse();
    StreamParse(const StreamParse&) = delete;
    StreamParse& operator=(const StreamParse&) = delete;

    // The first `len` bytes of the document have arrived. Throws std::bad_alloc; the parse is
    // then not to be used again.
    void Feed(size_t len);
    // The document is whole, `len` bytes: its tree, or null with `error` set. Throws
    // std::bad_alloc.
    rk_elem* Finish(size_t len, ParseError* error);
    // How many bytes of the document have been read so far.
    size_t ReadUpTo() const;

  private:
    struct State;
    std::unique_ptr<State> _state;
};

// Whether `text` can stand in an XML 1.0 document: valid UTF-8 holding only characters of
// XML's Char production. On failure, `*offset` is the byte offset of the first bad
// character and `*why` says what is wrong with it.
bool IsXmlText(const char* text, size_t len, size_t* offset, const char** why);

// WriteXml of a request, checking as it writes what CheckRequestText checks: false, with `out`
// as it was, when a name, text or attribute value is not valid UTF-8 of XML characters
// (CheckRequestText then says which and why).
bool WriteRequestXml(const rk_elem* request, std::string* out);

// Whether a request can be written as well-formed XML 1.0 in UTF-8: every name, text and
// attribute value valid UTF-8 of XML characters. When not, `reason` names the element at
// fault and what is wrong.
bool CheckRequestText(const rk_elem* request, std::string* reason);

// Encrypted values: the content text of an encrypted element and back.
bool SetDefaultKey(const char* key);
bool EncryptValue(const char* name, const std::string& plain, const char* key, std::string* out);
bool DecryptValue(const char* name, const std::string& sealed, const char* key, std::string* out);

// Copies `text` into a caller's buffer, cut to fit and always NUL-terminated.
void CopyToBuffer(const std::string& text, char* buffer, int size);

}  // namespace rk

#endif  // RK_INTERNAL_H_
