// XML text into element trees.
//
// A strict tokenizer of our own, in one pass and without recursion, that builds the compact
// tree of rk_internal.h directly: the elements, their arrays and their strings are carved from
// one arena, so a tree costs a few tens of bytes per element and no heap allocation per
// element, name or text, and the whole parse is bounded by the limits it is given (bytes,
// elements, attributes, depth, the memory of the tree, a deadline). A general-purpose DOM as
// an intermediate step would cost several times the document on its own (tens of bytes per
// node before our tree is built), which no bound of a few times the document survives.
//
// What it accepts is well-formed XML 1.0 in UTF-8, checked rule by rule:
//  - the whole text is valid UTF-8 of XML characters (no NUL, no control character but tab,
//    line feed and carriage return, no surrogate or non-character U+FFFE/U+FFFF), anywhere,
//    after the root element too;
//  - one root element, with only comments, processing instructions and white space around it,
//    an optional byte order mark and XML declaration first, and one document type
//    declaration before the root (skipped: its entities are never expanded);
//  - names per XML's Name production (any non-ASCII character counts as a name character),
//    start and end tags that match, attributes quoted, once per element, without "<";
//  - "&" only as an entity or character reference ("&name;", "&#60;", "&#x3C;", a character
//    reference naming an XML character); references are kept as they stand, never expanded;
//  - no "]]>" in text, no "--" inside a comment.
// Text of an element is the concatenation of its text pieces, CDATA sections escaped; a piece
// of only white space is dropped beside child elements and kept when it is all the element
// holds.

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rk_internal.h"

namespace rk {

namespace {

// Byte classes of ASCII, for names and white space.
enum : unsigned char {
    kNameStart = 1,
    kNameChar = 2,
    kSpace = 4,
    kTextStop = 8,  // ends a run of plain text: "<", "&" and ">"
};

// The scanning loops below work on local pointers: a loop that advanced the parser's own
// position through `this` would store and reload it at every byte, since the bytes it reads
// could, for all the compiler knows, alias it.

struct ByteTable {
    unsigned char cls[256] = {};
    constexpr ByteTable() {
        for (int c = 0; c < 256; ++c) {
            bool start = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' ||
                         c >= 0x80;
            bool name = start || (c >= '0' && c <= '9') || c == '-' || c == '.';
            cls[c] = static_cast<unsigned char>(
                (start ? kNameStart : 0) | (name ? kNameChar : 0) |
                (c == ' ' || c == '\t' || c == '\n' || c == '\r' ? kSpace : 0) |
                (c == '<' || c == '&' || c == '>' ? kTextStop : 0));
        }
    }
};
constexpr ByteTable kBytes;

inline bool Is(char c, unsigned char cls) {
    return (kBytes.cls[static_cast<unsigned char>(c)] & cls) != 0;
}

inline uint64_t Load8(const void* p) {
    uint64_t word;
    memcpy(&word, p, 8);
    return word;
}

// memcmp(a, b, n) == 0 for the short names of a document, without a call.
inline bool SameBytes(const char* a, const char* b, size_t n) {
    for (; n >= 8; a += 8, b += 8, n -= 8) {
        if (Load8(a) != Load8(b)) {
            return false;
        }
    }
    // The last 0 to 7 bytes as two words of four, or of two, that may overlap.
    uint32_t a4, b4, a4e, b4e;
    uint16_t a2, b2, a2e, b2e;
    if (n >= 4) {
        memcpy(&a4, a, 4);
        memcpy(&b4, b, 4);
        memcpy(&a4e, a + n - 4, 4);
        memcpy(&b4e, b + n - 4, 4);
        return a4 == b4 && a4e == b4e;
    }
    if (n >= 2) {
        memcpy(&a2, a, 2);
        memcpy(&b2, b, 2);
        memcpy(&a2e, a + n - 2, 2);
        memcpy(&b2e, b + n - 2, 2);
        return a2 == b2 && a2e == b2e;
    }
    return n == 0 || *a == *b;
}

bool IsXmlChar(uint32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// The first byte from p on that is not printable ASCII (0x20 to 0x7F), or end. Printable
// ASCII is the bulk of any document, so it is skipped eight bytes at a time: a word passes when
// no byte has its high bit set and none is below 0x20 (subtracting 0x20 from such a byte
// borrows into its high bit; bytes of 0x20 to 0x7F never borrow).
const unsigned char* SkipPrintableAscii(const unsigned char* p, const unsigned char* end) {
#if defined(__SSE2__)
    // Sixteen at a time where SSE2 is at hand: as signed bytes, both those below 0x20 and
    // those of 0x80 and above are less than 0x20; line feeds among them pass.
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const int outside = _mm_movemask_epi8(_mm_cmplt_epi8(v, _mm_set1_epi8(0x20)));
        if (outside != 0 &&
            (outside & ~_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('\n')))) != 0) {
            break;
        }
        p += 16;
    }
#endif
    while (end - p >= 8) {
        const uint64_t word = Load8(p);
        if (((word | (word - 0x2020202020202020u)) & 0x8080808080808080u) != 0) {
            break;
        }
        p += 8;
    }
    while (p < end && *p >= 0x20 && *p < 0x80) {
        ++p;
    }
    return p;
}

// The first byte from p on that is "<", "&" or ">", or end: the end of a run of plain text.
const char* SkipPlainText(const char* p, const char* end) {
#if defined(__SSE2__)
    // Sixteen bytes at a time where SSE2 is at hand: texts of a dozen bytes or more are common
    // (identifiers, paths, names).
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i stops = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('<')),
                                                        _mm_cmpeq_epi8(v, _mm_set1_epi8('&'))),
                                           _mm_cmpeq_epi8(v, _mm_set1_epi8('>')));
        const int mask = _mm_movemask_epi8(stops);
        if (mask != 0) {
            return p + __builtin_ctz(static_cast<unsigned>(mask));
        }
        p += 16;
    }
#endif
    while (p < end && !Is(*p, kTextStop)) {
        ++p;
    }
    return p;
}

// The length of the well-formed UTF-8 sequence of an XML character that starts at p (a byte of
// 0x80 or more), or 0 with the reason in *why. Well-formed is Unicode's table 3-7, without
// surrogates; U+FFFE and U+FFFF are not XML characters.
size_t Utf8SequenceLength(const unsigned char* p, const unsigned char* end, const char** why) {
    const unsigned char c = *p;
    size_t n = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 2;
        low = c == 0xE0 ? 0xA0 : 0x80;
        high = c == 0xED ? 0x9F : 0xBF;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 3;
        low = c == 0xF0 ? 0x90 : 0x80;
        high = c == 0xF4 ? 0x8F : 0xBF;
    } else {
        *why = "invalid UTF-8";
        return 0;
    }
    if (static_cast<size_t>(end - p) <= n || p[1] < low || p[1] > high) {
        *why = "invalid UTF-8";
        return 0;
    }
    for (size_t i = 2; i <= n; ++i) {
        if (p[i] < 0x80 || p[i] > 0xBF) {
            *why = "invalid UTF-8";
            return 0;
        }
    }
    if (c == 0xEF && p[1] == 0xBF && (p[2] == 0xBE || p[2] == 0xBF)) {
        *why = "a character that is not an XML character";
        return 0;
    }
    return n + 1;
}

// Checks the bytes from `p` to `end`, stopping at the first bad one (returned) or at `end`.
// `why` says what is wrong.
const unsigned char* FirstBadChar(const unsigned char* p, const unsigned char* end,
                                  const char** why) {
    while ((p = SkipPrintableAscii(p, end)) < end) {
        const unsigned char c = *p;
        if (c == '\t' || c == '\n' || c == '\r') {
            ++p;
            continue;
        }
        if (c < 0x80) {
            *why = c == 0 ? "a NUL byte" : "a control character";
            return p;
        }
        const size_t length = Utf8SequenceLength(p, end, why);
        if (length == 0) {
            return p;
        }
        p += length;
    }
    return end;
}

// One attribute of the start tag being read, in the document.
struct RawAttribute {
    const char* name;
    size_t nameLen;
    const char* value;
    size_t valueLen;
};

// An element whose end tag has not been read yet.
struct OpenElement {
    rk_elem* elem;
    const char* name;
    size_t nameLen;
    size_t firstChild;  // its children so far are children[firstChild..] of the parser
    // Its text: one piece in the document, or several joined (or a CDATA section escaped).
    const char* piece;
    size_t pieceLen;
    bool joined;
    bool holdsNodes;  // a child element, or text that is kept
    std::string text;
};

// The elements open at the parser's position, innermost last. Entries are reused rather than
// popped, so that an element costs no construction of its joined text's string.
class OpenStack {
  public:
    bool empty() const { return _depth == 0; }
    size_t size() const { return _depth; }
    OpenElement& back() { return _entries[_depth - 1]; }
    const OpenElement& at(size_t i) const { return _entries[i]; }
    OpenElement& push() {
        if (_depth == _entries.size()) {
            _entries.emplace_back();
        }
        OpenElement& open = _entries[_depth++];
        open.piece = nullptr;
        open.pieceLen = 0;
        open.joined = false;
        open.holdsNodes = false;
        open.text.clear();
        return open;
    }
    void pop() { --_depth; }
    // Empties the stack; gives its memory back when a large document made it large.
    void Reset() {
        _depth = 0;
        if (_entries.size() > 64) {
            std::vector<OpenElement>().swap(_entries);
            return;
        }
        for (OpenElement& open : _entries) {
            if (open.text.capacity() > 4096) {
                std::string().swap(open.text);
            }
        }
    }

  private:
    std::vector<OpenElement> _entries;
    size_t _depth = 0;
};

// The working storage of a parse. Each thread keeps one between parses, so that parsing a
// small document allocates nothing but its tree's arena.
struct Scratch {
    OpenStack open;
    std::vector<rk_elem*> children;
    std::vector<RawAttribute> attrs;
    std::vector<size_t> order;
    bool busy = false;

    void Reset() {
        open.Reset();
        children.clear();
        attrs.clear();
        order.clear();
        if (children.capacity() > 4096) {
            std::vector<rk_elem*>().swap(children);
        }
        if (attrs.capacity() > 256) {
            std::vector<RawAttribute>().swap(attrs);
            std::vector<size_t>().swap(order);
        }
    }
};

// The names of a document repeat (every record of a list has the same fields): each distinct
// name is copied into the arena once, and the elements that bear it share the copy. A small
// table remembers the names copied last, by a hash of their length and three of their bytes.
class NameTable {
  public:
    const char* Intern(Arena* arena, const char* name, size_t len) {
        if (len > kLongest) {
            return arena->CopyString(name, len);
        }
        const unsigned char* u = reinterpret_cast<const unsigned char*>(name);
        const size_t slot = (len * 31u + u[0] * 7u + u[len / 2] * 3u + u[len - 1]) & (kSlots - 1);
        Entry& entry = _entries[slot];
        if (entry.len != len || !SameBytes(entry.text, name, len)) {
            entry.text = arena->CopyString(name, len);
            entry.len = len;
        }
        return entry.text;
    }

  private:
    static const size_t kLongest = 64;
    static const size_t kSlots = 64;
    struct Entry {
        const char* text = nullptr;
        size_t len = 0;
    };
    Entry _entries[kSlots];
};

class Parser {
  public:
    Parser(const char* text, size_t len, const ParseLimits& limits, ParseError* error,
           Scratch* scratch, bool discardRead)
        : _begin(text),
          _p(text),
          _end(text + len),
          _limits(limits),
          _error(error),
          _open(scratch->open),
          _children(scratch->children),
          _attrs(scratch->attrs),
          _order(scratch->order),
          _discard(discardRead),
          _discardedUpTo(text),
          _nextDiscard(text + kDiscardEvery),
          _checkedTo(text) {}

    rk_elem* Parse();

    // The document in pieces (StreamParse): Feed with each longer prefix of it, then Finish.
    void Feed(const char* arrived, size_t startAfter);
    // The tree, or null with the error set; null with `*again` when the document is to be
    // parsed anew whole (the pieces have not been read in a way that gives the same result).
    rk_elem* Finish(const char* end, bool* again);
    // Frees the tree being read, unless it was handed out.
    void Abandon();
    // How far a document in pieces has been read.
    size_t ReadUpTo() const {
        return _stream == Stream::kTree ? static_cast<size_t>(_p - _begin) : 0;
    }

  private:
    bool Fail(const std::string& what, const char* at) {
        _error->code = RK_ERR_MALFORMED;
        _error->reason = what + " at offset " + std::to_string(at - _begin);
        return false;
    }
    bool TooLarge(const std::string& what) {
        _error->code = RK_ERR_TOO_LARGE;
        _error->reason = what;
        return false;
    }
    bool Late() {
        _error->code = RK_ERR_TIMEOUT;
        _error->reason =
            "parsing the document took longer than the time left for the call (at "
            "offset " +
            std::to_string(_p - _begin) + ")";
        return false;
    }
    bool PastDeadline() {
        return _limits.hasDeadline && std::chrono::steady_clock::now() > _limits.deadline;
    }
    bool StartsWith(const char* literal, size_t len) const {
        return static_cast<size_t>(_end - _p) >= len && memcmp(_p, literal, len) == 0;
    }
    void SkipSpace() {
        const char* p = _p;
        const char* const end = _end;
        // A line feed and the next line's indentation, eight spaces at a time.
        if (p < end && *p == '\n') {
            ++p;
        }
        while (end - p >= 8) {
            const uint64_t others = Load8(p) ^ 0x2020202020202020u;
            if (others != 0) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
                p += __builtin_ctzll(others) / 8;  // the spaces before the first other byte
#endif
                break;
            }
            p += 8;
        }
        while (p < end && Is(*p, kSpace)) {
            ++p;
        }
        _p = p;
    }
    // Reads a Name at _p; false (and nothing read) when there is none.
    bool ReadName(const char** name, size_t* len) {
        const char* p = _p;
        const char* const end = _end;
        if (p == end || !Is(*p, kNameStart)) {
            return false;
        }
        const char* start = p++;
        while (p < end && Is(*p, kNameChar)) {
            ++p;
        }
        _p = p;
        *name = start;
        *len = static_cast<size_t>(p - start);
        return true;
    }

    bool CheckChars() {
        return CheckCharsUpTo(_end);
    }
    bool CheckCharsUpTo(const char* to);
    bool ReadDocument();
    bool ReadDocumentStart();
    bool NodeArrived();
    bool SkipMisc();
    bool ReadProlog();
    bool ReadElementTree();
    bool ReadNode();
    bool ReadEpilog();
    bool ReadReference();
    bool ReadComment();
    bool ReadProcessingInstruction(bool atStart);
    bool ReadDocumentType();
    bool ReadMisc(bool* read);
    bool ReadStartTag();
    bool ReadAttributes(const char* at, bool* empty);
    bool ReadAttribute(const char* at);
    bool CheckRepeatedAttributes(const char* at);
    rk_elem* NewElement(const char* name, size_t nameLen);
    template <typename Check>
    bool ReadCharsUntil(char stop, Check check);
    bool ReadEndTag();
    bool ReadText();
    bool ReadCdata();
    bool AddPiece(OpenElement& open, const char* piece, size_t len);
    bool Close(rk_elem* elem);
    // Checked at every start tag and every 65,536 attributes: the deadline (every 1,024th
    // time) and the memory of the tree.
    bool CheckBudget() {
        if ((++_ticks & 0x3ff) == 0 && PastDeadline()) {
            return Late();
        }
        if (_arena->BytesReserved() + _children.size() * sizeof(rk_elem*) +
                _attrs.size() * sizeof(RawAttribute) >
            _limits.maxTreeBytes) {
            return TreeTooLarge();
        }
        return true;
    }
    bool TreeTooLarge();
    void DiscardRead(const char* keepFrom);

    // How far the parse moves between two givings back of the document's pages.
    static const size_t kDiscardEvery = 1u << 20;

    const char* const _begin;
    const char* _p;
    const char* _end;  // of the document, or of what has arrived of it
    const ParseLimits& _limits;
    ParseError* const _error;
    Arena* _arena = nullptr;
    rk_elem* _root = nullptr;
    size_t _elements = 0;
    size_t _attributes = 0;
    unsigned _ticks = 0;
    OpenStack& _open;
    std::vector<rk_elem*>& _children;
    std::vector<RawAttribute>& _attrs;
    std::vector<size_t>& _order;
    NameTable _names;
    bool _discard;
    const char* _discardedUpTo;  // the pages before it were dealt with
    const char* _nextDiscard;
    const char* _checkedTo;  // the characters before it were checked

    // How a document read in pieces stands.
    enum class Stream {
        kStart,   // nothing read yet
        kTree,    // in the root element: nodes are read as they arrive
        kFailed,  // a failure that the rest of the document cannot change (but for a bad
                  // character after the failure, which a whole parse would report instead)
        kAgain,   // to be parsed anew whole
    };
    Stream _stream = Stream::kStart;
    const char* _lastLt = nullptr;  // see Feed
    const char* _ltFrom = nullptr;
    // What NodeArrived scanned of a node that had not arrived whole, so that each byte is
    // scanned once however the document arrives.
    struct Scan {
        const char* node = nullptr;
        const char* from = nullptr;
        char quote = 0;
    };
    Scan _scan;
};

// Checks the characters from where the last check stopped up to `to`: the end of the document,
// or a character boundary.
bool Parser::CheckCharsUpTo(const char* to) {
    // In slices, so that a large document notices the deadline.
    const size_t kSlice = 1u << 20;
    const auto* p = reinterpret_cast<const unsigned char*>(_checkedTo);
    const auto* end = reinterpret_cast<const unsigned char*>(to);
    while (p < end) {
        // A slice ends on a character boundary: it is cut after a byte below 0x80 (or at the end).
        const unsigned char* sliceEnd = end - p > static_cast<ptrdiff_t>(kSlice) ? p + kSlice : end;
        while (sliceEnd < end && *(sliceEnd - 1) >= 0x80) {
            ++sliceEnd;
        }
        const char* why = nullptr;
        const unsigned char* bad = FirstBadChar(p, sliceEnd, &why);
        if (bad != sliceEnd) {
            return Fail(why, reinterpret_cast<const char*>(bad));
        }
        p = sliceEnd;
        _checkedTo = reinterpret_cast<const char*>(p);
        if (PastDeadline()) {
            _p = reinterpret_cast<const char*>(p);
            return Late();
        }
    }
    return true;
}

// At "&": an entity reference or a character reference, kept as it stands.
bool Parser::ReadReference() {
    const char* at = _p++;
    if (_p < _end && *_p == '#') {
        ++_p;
        bool hex = _p < _end && *_p == 'x';
        if (hex) {
            ++_p;
        }
        uint32_t value = 0;
        const char* digits = _p;
        while (_p < _end) {
            char c = *_p;
            int d = c >= '0' && c <= '9'          ? c - '0'
                    : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                  : -1;
            if (d < 0) {
                break;
            }
            value =
                std::min<uint32_t>(value * (hex ? 16 : 10) + static_cast<uint32_t>(d), 0x110000);
            ++_p;
        }
        if (_p == digits || _p == _end || *_p != ';') {
            return Fail("malformed character reference", at);
        }
        if (!IsXmlChar(value)) {
            return Fail("character reference to a character that is not an XML character", at);
        }
        ++_p;
        return true;
    }
    const char* name;
    size_t len;
    if (!ReadName(&name, &len) || _p == _end || *_p != ';') {
        return Fail("\"&\" that does not start an entity reference", at);
    }
    ++_p;
    return true;
}

// At "<!--".
bool Parser::ReadComment() {
    const char* at = _p;
    _p += 4;
    for (;;) {
        const char* dash =
            static_cast<const char*>(memchr(_p, '-', static_cast<size_t>(_end - _p)));
        if (dash == nullptr || _end - dash < 3) {
            return Fail("unterminated comment", at);
        }
        if (dash[1] == '-') {
            if (dash[2] != '>') {
                return Fail("\"--\" inside a comment", dash);
            }
            _p = dash + 3;
            return true;
        }
        _p = dash + 1;
    }
}

// At "<?".
bool Parser::ReadProcessingInstruction(bool atStart) {
    const char* at = _p;
    _p += 2;
    const char* target;
    size_t len;
    if (!ReadName(&target, &len)) {
        return Fail("processing instruction without a target", at);
    }
    if (len == 3 && (target[0] | 0x20) == 'x' && (target[1] | 0x20) == 'm' &&
        (target[2] | 0x20) == 'l' && !atStart) {
        return Fail("XML declaration not at the start of the document", at);
    }
    if (_p < _end && !Is(*_p, kSpace) && !StartsWith("?>", 2)) {
        return Fail("malformed processing instruction", at);
    }
    for (;;) {
        const char* q = static_cast<const char*>(memchr(_p, '?', static_cast<size_t>(_end - _p)));
        if (q == nullptr || q + 1 == _end) {
            return Fail("unterminated processing instruction", at);
        }
        _p = q + 1;
        if (*_p == '>') {
            ++_p;
            return true;
        }
    }
}

// At "<!DOCTYPE". Skipped whole, internal subset included; nothing in it is used.
bool Parser::ReadDocumentType() {
    const char* at = _p;
    _p += 9;
    if (_p == _end || !Is(*_p, kSpace)) {
        return Fail("malformed document type declaration", at);
    }
    bool subset = false;
    while (_p < _end) {
        char c = *_p;
        if (c == '"' || c == '\'') {
            const char* close =
                static_cast<const char*>(memchr(_p + 1, c, static_cast<size_t>(_end - _p - 1)));
            if (close == nullptr) {
                break;
            }
            _p = close + 1;
        } else if (subset && StartsWith("<!--", 4)) {
            if (!ReadComment()) {
                return false;
            }
        } else if (subset && StartsWith("<?", 2)) {
            if (!ReadProcessingInstruction(false)) {
                return false;
            }
        } else if (c == '[' && !subset) {
            subset = true;
            ++_p;
        } else if (c == ']' && subset) {
            subset = false;
            ++_p;
        } else if (c == '>' && !subset) {
            ++_p;
            return true;
        } else {
            ++_p;
        }
    }
    return Fail("unterminated document type declaration", at);
}

// Comments, processing instructions and white space outside the root element; `read` is
// false when _p holds none of them.
bool Parser::ReadMisc(bool* read) {
    *read = true;
    if (_p < _end && Is(*_p, kSpace)) {
        SkipSpace();
        return true;
    }
    if (StartsWith("<!--", 4)) {
        return ReadComment();
    }
    if (StartsWith("<?", 2)) {
        return ReadProcessingInstruction(false);
    }
    *read = false;
    return true;
}

bool Parser::TreeTooLarge() {
    return TooLarge("the document's tree would take more than " +
                    std::to_string(_limits.maxTreeBytes) + " bytes, the limit for a document of " +
                    std::to_string(_limits.maxBytes) + " bytes");
}

// Gives back to the system the pages of the document between the last call and the parse's
// position that nothing refers to any more. Behind its position the parse reads nothing but
// the names and first text pieces of the open elements, which keep their pages; the few
// kilobytes just behind the position are kept too, and everything from `keepFrom` on (the
// name of the start tag being read, which may be longer than those few kilobytes).
void Parser::DiscardRead(const char* keepFrom) {
    const char* const to =
        std::min(keepFrom, _p - std::min<size_t>(static_cast<size_t>(_p - _begin), 4096));
    std::vector<std::pair<const char*, const char*>> kept;
    for (size_t i = 0; i < _open.size(); ++i) {
        const OpenElement& open = _open.at(i);
        kept.emplace_back(open.name, open.name + open.nameLen);
        if (!open.joined && open.piece != nullptr) {
            kept.emplace_back(open.piece, open.piece + open.pieceLen);
        }
    }
    kept.emplace_back(to, to);
    std::sort(kept.begin(), kept.end());
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const char* from = _discardedUpTo;
    for (const auto& range : kept) {
        // The whole pages between the end of what was kept last and the start of this range.
        const uintptr_t first = (reinterpret_cast<uintptr_t>(from) + page - 1) & ~(page - 1);
        const uintptr_t last = reinterpret_cast<uintptr_t>(std::min(range.first, to)) & ~(page - 1);
        if (last > first) {
            madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED);
        }
        from = std::max(from, range.second);
        if (from >= to) {
            break;
        }
    }
    _discardedUpTo = std::max(_discardedUpTo, to);
    _nextDiscard = _p + kDiscardEvery;
}

// Reads characters up to `stop` or the end of the document, references included; `check` sees
// every other character first and refuses it by returning false.
template <typename Check>
bool Parser::ReadCharsUntil(char stop, Check check) {
    while (_p < _end && *_p != stop) {
        if (!check(*_p)) {
            return false;
        }
        if (*_p == '&') {
            if (!ReadReference()) {
                return false;
            }
        } else {
            ++_p;
        }
    }
    return true;
}

// At "<" of a start tag.
bool Parser::ReadStartTag() {
    const char* at = _p++;
    const char* name;
    size_t nameLen;
    if (!ReadName(&name, &nameLen)) {
        return Fail("malformed start tag", at);
    }
    if (++_elements > _limits.maxElements) {
        return TooLarge("the document has more than " + std::to_string(_limits.maxElements) +
                        " elements, the limit for a document of " +
                        std::to_string(_limits.maxBytes) + " bytes");
    }
    if (_open.size() + 1 > _limits.maxDepth) {
        return Fail("elements nested deeper than " + std::to_string(_limits.maxDepth), at);
    }
    bool empty = false;
    if (!CheckBudget()) {
        return false;
    }
    if (_discard && _p >= _nextDiscard) {
        DiscardRead(name);
    }
    if (_p < _end && *_p == '>') {
        // The common start tag, without attributes.
        ++_p;
        _attrs.clear();
    } else if (!ReadAttributes(at, &empty) || !CheckRepeatedAttributes(at)) {
        return false;
    }
    rk_elem* elem = NewElement(name, nameLen);
    if (!_open.empty()) {
        _open.back().holdsNodes = true;
    }
    if (empty) {
        return Close(elem);
    }
    OpenElement& open = _open.push();
    open.elem = elem;
    open.name = name;
    open.nameLen = nameLen;
    open.firstChild = _children.size();
    return true;
}

// The attributes of the start tag at `at`, into _attrs, and its end: `empty` for "/>".
bool Parser::ReadAttributes(const char* at, bool* empty) {
    _attrs.clear();
    for (;;) {
        const char* before = _p;
        SkipSpace();
        if (_p == _end) {
            return Fail("unterminated start tag", at);
        }
        if (*_p == '>') {
            ++_p;
            return true;
        }
        if (*_p == '/') {
            if (_p + 1 == _end || _p[1] != '>') {
                return Fail("malformed start tag", _p);
            }
            _p += 2;
            *empty = true;
            return true;
        }
        if (_p == before) {
            return Fail("malformed attribute", _p);
        }
        if (!ReadAttribute(at)) {
            return false;
        }
    }
}

// One attribute, name="value" or name='value', of the start tag at `at`.
bool Parser::ReadAttribute(const char* at) {
    RawAttribute attr;
    if (!ReadName(&attr.name, &attr.nameLen)) {
        return Fail("malformed attribute", _p);
    }
    if (++_attributes > _limits.maxAttributes) {
        return TooLarge("the document has more than " + std::to_string(_limits.maxAttributes) +
                        " attributes, the limit for a document of " +
                        std::to_string(_limits.maxBytes) + " bytes");
    }
    SkipSpace();
    if (_p == _end || *_p != '=') {
        return Fail("attribute without a value", _p);
    }
    ++_p;
    SkipSpace();
    if (_p == _end || (*_p != '"' && *_p != '\'')) {
        return Fail("attribute value without quotes", _p);
    }
    const char quote = *_p++;
    attr.value = _p;
    if (!ReadCharsUntil(quote, [this](char c) {
            return c != '<' || Fail("\"<\" in an attribute value", _p);
        })) {
        return false;
    }
    if (_p == _end) {
        return Fail("unterminated attribute value", attr.value - 1);
    }
    attr.valueLen = static_cast<size_t>(_p - attr.value);
    ++_p;
    // The first few are compared as they come, so that a start tag repeating one name is
    // refused at once; longer lists are sorted by CheckRepeatedAttributes.
    if (_attrs.size() < 8) {
        for (const RawAttribute& other : _attrs) {
            if (other.nameLen == attr.nameLen && memcmp(other.name, attr.name, attr.nameLen) == 0) {
                return Fail("attribute '" + std::string(attr.name, attr.nameLen) + "' repeated",
                            at);
            }
        }
    }
    _attrs.push_back(attr);
    return (_attrs.size() & 0xffff) != 0 || CheckBudget();
}

// Each name once per element: a result with two `status` attributes would otherwise read as
// whichever came first.
bool Parser::CheckRepeatedAttributes(const char* at) {
    const size_t n = _attrs.size();
    if (n <= 8) {
        return true;
    }
    auto view = [this](size_t i) { return std::string_view(_attrs[i].name, _attrs[i].nameLen); };
    _order.resize(n);
    for (size_t i = 0; i < n; ++i) {
        _order[i] = i;
    }
    std::sort(_order.begin(), _order.end(), [&](size_t a, size_t b) {
        return view(a) < view(b) || (view(a) == view(b) && a < b);
    });
    for (size_t i = 1; i < n; ++i) {
        if (view(_order[i]) == view(_order[i - 1])) {
            return Fail("attribute '" + std::string(view(_order[i])) + "' repeated", at);
        }
    }
    return true;
}

// The element of a start tag just read, with the attributes in _attrs, in the arena.
rk_elem* Parser::NewElement(const char* name, size_t nameLen) {
    rk_elem* elem = _arena->NewElement();
    elem->name = _names.Intern(_arena, name, nameLen);
    const size_t n = _attrs.size();
    if (n > 0) {
        elem->attributes = static_cast<RkAttribute*>(_arena->Allocate(n * sizeof(RkAttribute)));
        for (size_t i = 0; i < n; ++i) {
            const RawAttribute& a = _attrs[i];
            elem->attributes[i] =
                RkAttribute{_arena->CopyString(a.name, a.nameLen),
                            _arena->CopyString(a.value, a.valueLen), false, false, true};
        }
        elem->attrCount = static_cast<uint32_t>(n);
    }
    elem->contentMarkup = 1;
    return elem;
}

// Attaches a finished element to its parent, or makes it the root.
bool Parser::Close(rk_elem* elem) {
    if (_open.empty()) {
        _root = elem;
        return true;
    }
    _children.push_back(elem);
    return true;
}

// At "</".
bool Parser::ReadEndTag() {
    const char* at = _p;
    _p += 2;
    const char* name;
    size_t nameLen;
    OpenElement& open = _open.back();
    // Nearly always the open element's name: compared where it stands.
    if (static_cast<size_t>(_end - _p) > open.nameLen && SameBytes(_p, open.name, open.nameLen) &&
        !Is(_p[open.nameLen], kNameChar)) {
        name = open.name;
        nameLen = open.nameLen;
        _p += nameLen;
    } else if (!ReadName(&name, &nameLen)) {
        return Fail("malformed end tag", at);
    }
    SkipSpace();
    if (_p == _end || *_p != '>') {
        return Fail("malformed end tag", at);
    }
    ++_p;
    if (name != open.name && (nameLen != open.nameLen || memcmp(name, open.name, nameLen) != 0)) {
        return Fail("end tag </" + std::string(name, nameLen) + "> does not match <" +
                        std::string(open.name, open.nameLen) + ">",
                    at);
    }
    rk_elem* elem = open.elem;
    if (open.joined) {
        elem->content = _arena->CopyString(open.text.data(), open.text.size());
    } else if (open.piece != nullptr) {
        elem->content = _arena->CopyString(open.piece, open.pieceLen);
    }
    const size_t count = _children.size() - open.firstChild;
    if (count > UINT32_MAX) {
        return TooLarge("an element has more than " + std::to_string(UINT32_MAX) + " children");
    }
    if (count > 0) {
        elem->children = static_cast<rk_elem**>(_arena->Allocate(count * sizeof(rk_elem*)));
        for (size_t i = 0; i < count; ++i) {
            rk_elem* child = _children[open.firstChild + i];
            child->parent = elem;
            elem->children[i] = child;
        }
        elem->childCount = static_cast<uint32_t>(count);
        _children.resize(open.firstChild);
    }
    _open.pop();
    return Close(elem);
}

bool Parser::AddPiece(OpenElement& open, const char* piece, size_t len) {
    if (!open.joined && open.piece == nullptr) {
        open.piece = piece;
        open.pieceLen = len;
    } else {
        if (!open.joined) {
            open.text.assign(open.piece, open.pieceLen);
            open.joined = true;
        }
        // No piece holds "]]>", but two may make one where they meet ("]]" before a comment,
        // ">" after it), which the text could not be written back as: that ">" is escaped.
        std::string& text = open.text;
        if (len >= 1 && piece[0] == '>' && text.size() >= 2 && text[text.size() - 1] == ']' &&
            text[text.size() - 2] == ']') {
            text.append("&gt;");
            ++piece;
            --len;
        } else if (len >= 2 && piece[0] == ']' && piece[1] == '>' && !text.empty() &&
                   text.back() == ']') {
            text.append("]&gt;");
            piece += 2;
            len -= 2;
        }
        text.append(piece, len);
    }
    open.holdsNodes = true;
    return true;
}

// At a character of text inside an element.
bool Parser::ReadText() {
    const char* start = _p;
    // White space first: between elements it is all there is.
    SkipSpace();
    const bool space = _p == _end || *_p == '<';
    // Then runs of plain characters, up to the next "<"; "&" starts a reference, and ">" may
    // not end "]]" (the rest of a document's characters were checked before it was read).
    while (_p < _end && *_p != '<') {
        if (!Is(*_p, kTextStop)) {
            _p = SkipPlainText(_p + 1, _end);
        } else if (*_p == '&') {
            if (!ReadReference()) {
                return false;
            }
        } else if (_p - start >= 2 && _p[-1] == ']' && _p[-2] == ']') {
            return Fail("\"]]>\" in text", _p - 2);
        } else {
            ++_p;
        }
    }
    if (_p == _end) {
        return Fail(
            "unterminated element <" + std::string(_open.back().name, _open.back().nameLen) + ">",
            start);
    }
    OpenElement& open = _open.back();
    // White space alone is kept only when it is all the element holds.
    if (space && (open.holdsNodes || !StartsWith("</", 2))) {
        return true;
    }
    return AddPiece(open, start, static_cast<size_t>(_p - start));
}

// At "<![CDATA[": its text joins the element's, escaped as markup.
bool Parser::ReadCdata() {
    const char* at = _p;
    _p += 9;
    const char* start = _p;
    for (;;) {
        const char* close =
            static_cast<const char*>(memchr(_p, ']', static_cast<size_t>(_end - _p)));
        if (close == nullptr || _end - close < 3) {
            return Fail("unterminated CDATA section", at);
        }
        if (close[1] == ']' && close[2] == '>') {
            _p = close;
            break;
        }
        _p = close + 1;
    }
    OpenElement& open = _open.back();
    if (!open.joined) {
        if (open.piece != nullptr) {
            open.text.assign(open.piece, open.pieceLen);
        }
        open.joined = true;
    }
    for (const char* q = start; q < _p; ++q) {
        switch (*q) {
            case '&':
                open.text.append("&amp;");
                break;
            case '<':
                open.text.append("&lt;");
                break;
            case '>':
                open.text.append("&gt;");
                break;
            default:
                open.text.push_back(*q);
        }
    }
    if (open.text.size() > _limits.maxTreeBytes) {
        return TooLarge("the document's text would take more than " +
                        std::to_string(_limits.maxTreeBytes) + " bytes");
    }
    open.holdsNodes = true;
    _p += 3;
    return true;
}

rk_elem* Parser::Parse() {
    if (!CheckChars()) {
        return nullptr;
    }
    // A small answer's tree takes about three times its text (elements of 56 bytes for tags of
    // a dozen): its first block holds it whole.
    _arena =
        Arena::Create(std::min<size_t>(static_cast<size_t>(_end - _begin) * 4 + 512, 64u << 10));
    bool ok = false;
    try {
        // A parse that ends after the deadline fails as one that the deadline stopped.
        ok = ReadDocument() && (!PastDeadline() || Late());
    } catch (...) {
        _arena->Destroy();
        throw;
    }
    if (!ok) {
        // Nothing of the tree has storage of its own: the arena holds it all.
        _arena->Destroy();
        return nullptr;
    }
    _arena->SetRoot(_root);
    return _root;
}

// The end of the whole characters of [from, end): a UTF-8 sequence that the end cuts, at most
// three bytes back, waits for the rest of it. Bytes that start no sequence there are left in
// for the check to refuse.
const char* WholeCharsEnd(const char* from, const char* end) {
    const char* p = end;
    for (int back = 0; back < 3 && p > from; ++back) {
        const auto c = static_cast<unsigned char>(p[-1]);
        if (c < 0x80) {
            return end;
        }
        --p;
        if (c >= 0xC0) {
            const ptrdiff_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
            return end - p < length ? p : end;
        }
    }
    return end;
}

void Parser::Feed(const char* arrived, size_t startAfter) {
    if (_stream == Stream::kFailed || _stream == Stream::kAgain) {
        return;
    }
    // The characters first, as far as the last whole one; nodes are read only where checked.
    if (!CheckCharsUpTo(WholeCharsEnd(_checkedTo, arrived))) {
        _stream = Stream::kFailed;
        return;
    }
    _end = _checkedTo;
    if (_stream == Stream::kStart) {
        if (static_cast<size_t>(_end - _begin) < startAfter) {
            return;
        }
        if (_arena == nullptr) {
            _arena = Arena::Create(64u << 10);
        }
        // Read before it may have arrived whole, the start is read anew with the whole
        // document when anything fails, so no page is given back while it is read.
        const bool discard = _discard;
        _discard = false;
        const bool started = ReadDocumentStart() && NodeArrived() && ReadStartTag();
        _discard = discard;
        if (!started) {
            _stream = Stream::kAgain;
            *_error = ParseError();
            return;
        }
        _stream = Stream::kTree;
        _lastLt = _p;
        _ltFrom = _p;
    }
    // The last "<" of what has arrived, with a byte after it: every node that starts before it
    // has arrived whole, but for comments, CDATA sections and processing instructions, which
    // may hold "<" (a tag never reads past one, and text ends at the first). Only new bytes
    // are searched.
    if (_ltFrom < _end - 1) {
        const void* lt = memrchr(_ltFrom, '<', static_cast<size_t>(_end - 1 - _ltFrom));
        if (lt != nullptr) {
            _lastLt = static_cast<const char*>(lt);
        }
        _ltFrom = _end - 1;
    }
    while (!_open.empty() && _p < _lastLt) {
        if (_p[0] == '<' && (_p[1] == '!' || _p[1] == '?') && !NodeArrived()) {
            return;
        }
        if (!ReadNode()) {
            _stream = Stream::kFailed;
            return;
        }
    }
}

rk_elem* Parser::Finish(const char* end, bool* again) {
    *again = _stream == Stream::kStart || _stream == Stream::kAgain;
    if (*again) {
        Abandon();
        return nullptr;
    }
    bool ok;
    if (_stream == Stream::kFailed) {
        // A whole parse checks every character before it reads anything.
        const ParseError failure = *_error;
        ok = CheckCharsUpTo(end);
        if (ok) {
            *_error = failure;
            ok = false;
        }
    } else {
        _end = end;
        ok = CheckCharsUpTo(end);
        while (ok && !_open.empty()) {
            ok = ReadNode();
        }
        ok = ok && ReadEpilog() && (!PastDeadline() || Late());
    }
    if (!ok) {
        Abandon();
        return nullptr;
    }
    _arena->SetRoot(_root);
    rk_elem* root = _root;
    _arena = nullptr;  // handed out
    return root;
}

void Parser::Abandon() {
    if (_arena != nullptr) {
        // Nothing of the tree has storage of its own: the arena holds it all.
        _arena->Destroy();
        _arena = nullptr;
    }
}

// Whether the markup at _p (a tag, comment, CDATA section or processing instruction) has
// arrived whole: reading it now then reads what reading it in the whole document would.
bool Parser::NodeArrived() {
    const char* const p = _p;
    const char* const end = _end;
    if (_scan.node != p) {
        _scan = Scan{p, p, 0};
    }
    const char* const from = _scan.from;
    // Enough to tell comments and CDATA sections from the rest.
    if (end - p < 9) {
        return false;
    }
    const char* closing = nullptr;
    const char* start = p + 1;
    if (p[1] == '!' && memcmp(p, "<!--", 4) == 0) {
        closing = "-->";
        start = p + 4;
    } else if (p[1] == '!' && memcmp(p, "<![CDATA[", 9) == 0) {
        closing = "]]>";
        start = p + 9;
    } else if (p[1] == '?') {
        closing = "?>";
        start = p + 2;
    }
    const char* q = std::max(from, start);
    if (closing != nullptr) {
        const size_t closingLen = strlen(closing);
        if (memmem(q, static_cast<size_t>(end - q), closing, closingLen) != nullptr) {
            return true;
        }
        // A closing cut at the end is found in full next time.
        _scan.from = std::max(q, end - (closingLen - 1));
        return false;
    }
    // A tag, up to its ">" outside quoted attribute values.
    char quote = _scan.quote;
    if (quote == 0) {
        const char* gt = static_cast<const char*>(memchr(q, '>', static_cast<size_t>(end - q)));
        if (gt != nullptr && memchr(q, '"', static_cast<size_t>(gt - q)) == nullptr &&
            memchr(q, '\'', static_cast<size_t>(gt - q)) == nullptr) {
            return true;
        }
    }
    for (; q < end; ++q) {
        const char c = *q;
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            }
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return true;
        }
    }
    _scan.from = end;
    _scan.quote = quote;
    return false;
}

bool Parser::ReadDocument() {
    return ReadDocumentStart() && ReadElementTree() && ReadEpilog();
}

// Up to the root element's "<".
bool Parser::ReadDocumentStart() {
    if (StartsWith("\xEF\xBB\xBF", 3)) {
        _p += 3;
    }
    if (StartsWith("<?xml", 5) && _p + 5 < _end && Is(_p[5], kSpace)) {
        if (!ReadProcessingInstruction(true)) {
            return false;
        }
    }
    return ReadProlog();
}

// Skips comments, processing instructions and white space outside the root element.
bool Parser::SkipMisc() {
    bool read = true;
    while (read) {
        if (!ReadMisc(&read)) {
            return false;
        }
    }
    return true;
}

// Up to the root element's "<": at most one document type declaration among the rest.
bool Parser::ReadProlog() {
    bool doctype = false;
    for (;;) {
        if (!SkipMisc()) {
            return false;
        }
        if (!StartsWith("<!DOCTYPE", 9)) {
            break;
        }
        if (doctype) {
            return Fail("second document type declaration", _p);
        }
        doctype = true;
        if (!ReadDocumentType()) {
            return false;
        }
    }
    if (_p == _end) {
        _error->code = RK_ERR_MALFORMED;
        _error->reason = "no root element";
        return false;
    }
    if (*_p != '<') {
        return Fail("text outside the root element", _p);
    }
    return true;
}

// The root element and everything in it.
bool Parser::ReadElementTree() {
    if (!ReadStartTag()) {
        return false;
    }
    while (!_open.empty()) {
        if (!ReadNode()) {
            return false;
        }
    }
    return true;
}

// One node inside the innermost open element.
bool Parser::ReadNode() {
    if (_p == _end) {
        return Fail(
            "unterminated element <" + std::string(_open.back().name, _open.back().nameLen) + ">",
            _p);
    }
    if (*_p != '<') {
        return ReadText();
    }
    // Start and end tags, nearly all there is, are told apart by the byte after the "<".
    const char next = _end - _p > 1 ? _p[1] : '\0';
    if (next == '/') {
        return ReadEndTag();
    }
    if (next != '!' && next != '?') {
        return ReadStartTag();
    }
    if (StartsWith("<!--", 4)) {
        return ReadComment();
    }
    if (StartsWith("<?", 2)) {
        return ReadProcessingInstruction(false);
    }
    if (StartsWith("<![CDATA[", 9)) {
        return ReadCdata();
    }
    if (StartsWith("<!", 2)) {
        return Fail("markup declaration inside an element", _p);
    }
    return ReadStartTag();
}

// After the root element: nothing but comments, processing instructions and white space.
bool Parser::ReadEpilog() {
    if (!SkipMisc()) {
        return false;
    }
    if (_p == _end) {
        return true;
    }
    if (*_p == '<' && _p + 1 < _end && Is(_p[1], kNameStart)) {
        return Fail("more than one root element", _p);
    }
    return Fail("text outside the root element", _p);
}

}  // namespace

struct StreamParse::State {
    State(const char* text, const ParseLimits& parseLimits, bool discardRead, size_t startAfter)
        : text(text),
          limits(parseLimits),
          parser(text, 0, limits, &error, &scratch, discardRead),
          discard(discardRead),
          startAfter(startAfter) {}
    ~State() { parser.Abandon(); }

    const char* const text;
    const ParseLimits limits;
    ParseError error;
    Scratch scratch;
    Parser parser;
    const bool discard;
    const size_t startAfter;
};

StreamParse::StreamParse(const char* text, const ParseLimits& limits, bool discardRead,
                         size_t startAfter)
    : _state(new State(text, limits, discardRead, startAfter)) {}

StreamParse::~StreamParse() = default;

void StreamParse::Feed(size_t len) {
    _state->parser.Feed(_state->text + len, _state->startAfter);
}

size_t StreamParse::ReadUpTo() const {
    return _state->parser.ReadUpTo();
}

rk_elem* StreamParse::Finish(size_t len, ParseError* error) {
    State& state = *_state;
    if (len > state.limits.maxBytes) {
        // As ParseXml: what arrives is held to the limit before it is read, so this is not
        // seen here in practice.
        state.parser.Abandon();
        return ParseXml(state.text, len, state.limits, error, state.discard);
    }
    bool again = false;
    rk_elem* root = state.parser.Finish(state.text + len, &again);
    if (again) {
        return ParseXml(state.text, len, state.limits, error, state.discard);
    }
    if (root == nullptr) {
        *error = state.error;
    }
    return root;
}

ParseLimits ParseLimits::ForSize(size_t maxBytes) {
    ParseLimits limits;
    limits.maxBytes = maxBytes;
    limits.maxElements = std::max<size_t>(maxBytes / RK_PARSE_BYTES_PER_ELEMENT, 1024);
    limits.maxAttributes = std::max<size_t>(maxBytes / RK_PARSE_BYTES_PER_ATTRIBUTE, 1024);
    limits.maxDepth = RK_PARSE_MAX_DEPTH;
    limits.maxTreeBytes =
        maxBytes > SIZE_MAX / 3 ? SIZE_MAX : std::max<size_t>(3 * maxBytes, 1u << 20);
    return limits;
}

ParseLimits ParseLimits::ForCall(size_t maxBytes, int timeoutSeconds, double spentSeconds) {
    ParseLimits limits = ForSize(maxBytes);
    if (timeoutSeconds > 0) {
        double left = std::max(0.0, timeoutSeconds - spentSeconds);
        limits.hasDeadline = true;
        limits.deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(left));
    }
    return limits;
}

bool IsXmlText(const char* text, size_t len, size_t* offset, const char** why) {
    const auto* begin = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* bad = FirstBadChar(begin, begin + len, why);
    if (bad == begin + len) {
        return true;
    }
    *offset = static_cast<size_t>(bad - begin);
    return false;
}

rk_elem* ParseXml(const char* text, size_t len, const ParseLimits& limits, ParseError* error,
                  bool discardRead) {
    if (text == nullptr) {
        error->code = RK_ERR_MALFORMED;
        error->reason = "no text to parse";
        return nullptr;
    }
    if (len > limits.maxBytes) {
        error->code = RK_ERR_TOO_LARGE;
        error->reason = "document of " + std::to_string(len) + " bytes is over the limit of " +
                        std::to_string(limits.maxBytes) + " bytes";
        return nullptr;
    }
    // A thread's scratch storage serves one parse at a time.
    thread_local Scratch kept;
    Scratch own;
    Scratch* scratch = kept.busy ? &own : &kept;
    scratch->busy = true;
    struct Done {
        Scratch* scratch;
        ~Done() {
            scratch->Reset();
            scratch->busy = false;
        }
    } done{scratch};
    Parser parser(text, len, limits, error, scratch, discardRead);
    return parser.Parse();
}

}  // namespace rk
