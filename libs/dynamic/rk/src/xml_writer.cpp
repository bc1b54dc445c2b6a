// The XML text of an element tree: two spaces of indentation per level, one element per line,
// leaf text inline.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "rk_internal.h"

namespace rk {

namespace {

// Where each byte of a text that is written escaped goes: most stand for themselves, the five
// special characters become entities.
struct EscapeTable {
    unsigned char length[256] = {};  // of the entity; 0: the byte itself
    char entity[256][7] = {};
    constexpr EscapeTable() {
        Set('&', "&amp;");
        Set('<', "&lt;");
        Set('>', "&gt;");
        Set('"', "&quot;");
        Set('\'', "&apos;");
    }
    constexpr void Set(unsigned char c, const char* text) {
        unsigned char n = 0;
        for (; text[n] != '\0'; ++n) {
            entity[c][n] = text[n];
        }
        length[c] = n;
    }
};
constexpr EscapeTable kEscapes;

// Writes into a std::string through a cursor: room is made once for the longest form a piece
// can take, and its bytes are stored, not appended one by one. When it checks, every name,
// text and attribute value must be valid UTF-8 of XML characters, and ok() says whether all
// were.
class Writer {
  public:
    Writer(std::string* out, bool check) : _out(out), _used(out->size()), _check(check) {
        // A buffer kept between calls is written into as far as it reaches without growing.
        _out->resize(_out->capacity());
    }
    ~Writer() { _out->resize(_used); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    bool ok() const { return _ok; }
    // The text written since the start or the last Clear.
    const char* data() const { return _out->data(); }
    size_t size() const { return _used; }
    void Clear() { _used = 0; }

    void Put(const char* text, size_t len) {
        char* w = Room(len);
        memcpy(w, text, len);
        _used += len;
    }
    void Put(char c) {
        *Room(1) = c;
        ++_used;
    }
    void Indent(size_t depth) {
        char* w = Room(2 * depth);
        memset(w, ' ', 2 * depth);
        _used += 2 * depth;
    }
    // A name, or markup from the wire (already escaped), as it stands.
    void Raw(const char* text) {
        const size_t len = strlen(text);
        Check(text, len);
        Put(text, len);
    }
    // A text of the interface, with the five special characters as entities.
    void Escaped(const char* text) {
        const size_t len = strlen(text);
        Check(text, len);
        char* const start = Room(6 * len);
        _used += static_cast<size_t>(EscapeInto(start, text, len) - start);
    }
    // A leaf element without attributes, most of any tree: its line in one reservation.
    void Leaf(size_t depth, const rk_elem* elem) {
        const size_t nameLen = strlen(elem->name);
        const size_t textLen = strlen(elem->content);
        Check(elem->name, nameLen);
        Check(elem->content, textLen);
        char* const start = Room(2 * depth + 2 * nameLen + 6 * textLen + 6);
        char* w = start;
        memset(w, ' ', 2 * depth);
        w += 2 * depth;
        *w++ = '<';
        memcpy(w, elem->name, nameLen);
        w += nameLen;
        if (textLen == 0) {
            memcpy(w, "/>\n", 3);
            w += 3;
        } else {
            *w++ = '>';
            if (elem->contentMarkup) {
                memcpy(w, elem->content, textLen);
                w += textLen;
            } else {
                w = EscapeInto(w, elem->content, textLen);
            }
            *w++ = '<';
            *w++ = '/';
            memcpy(w, elem->name, nameLen);
            w += nameLen;
            *w++ = '>';
            *w++ = '\n';
        }
        _used += static_cast<size_t>(w - start);
    }
    // A parsed attribute value: it may hold a double quote if its source used single quotes.
    void QuotedMarkup(const char* text) {
        const size_t len = strlen(text);
        Check(text, len);
        char* w = Room(6 * len);
        for (size_t i = 0; i < len; ++i) {
            if (text[i] == '"') {
                memcpy(w, "&quot;", 6);
                w += 6;
            } else {
                *w++ = text[i];
            }
        }
        _used = static_cast<size_t>(w - &(*_out)[0]);
    }

  private:
    // `text` is NUL-terminated, `len` its length. Runs of bytes that stand for themselves
    // (most texts are one run) are found by the C library's scan and copied whole.
    static char* EscapeInto(char* w, const char* text, size_t len) {
        const char* const end = text + len;
        for (;;) {
            const size_t run = strcspn(text, "&<>\"'");
            memcpy(w, text, run);
            w += run;
            text += run;
            if (text == end) {
                return w;
            }
            const unsigned char c = static_cast<unsigned char>(*text++);
            memcpy(w, kEscapes.entity[c], kEscapes.length[c]);
            w += kEscapes.length[c];
        }
    }
    char* Room(size_t n) {
        if (_out->size() - _used < n) {
            _out->resize(std::max(2 * _out->size(), _used + n + 256));
        }
        return &(*_out)[_used];
    }
    void Check(const char* text, size_t len) {
        size_t offset = 0;
        const char* why = nullptr;
        if (_check && _ok && !IsXmlText(text, len, &offset, &why)) {
            _ok = false;
        }
    }

    std::string* const _out;
    size_t _used;
    const bool _check;
    bool _ok = true;
};

void WriteText(const char* text, bool markup, Writer* out) {
    if (markup) {
        out->Raw(text);
    } else {
        out->Escaped(text);
    }
}

void WriteOpenTag(const rk_elem* elem, Writer* out) {
    out->Put('<');
    out->Raw(elem->name);
    for (uint32_t i = 0; i < elem->attrCount; ++i) {
        const RkAttribute& attr = elem->attributes[i];
        out->Put(' ');
        out->Raw(attr.name);
        out->Put("=\"", 2);
        if (attr.markup) {
            out->QuotedMarkup(attr.value);
        } else {
            out->Escaped(attr.value);
        }
        out->Put('"');
    }
}

// A stack that holds its first entries in place, so that writing a tree of ordinary depth
// allocates nothing for it.
template <typename T>
class SmallStack {
  public:
    bool empty() const { return _size == 0; }
    void push(const T& item) {
        if (_size < kInPlace) {
            _inPlace[_size] = item;
        } else {
            _more.push_back(item);
        }
        ++_size;
    }
    T pop() {
        --_size;
        if (_size < kInPlace) {
            return _inPlace[_size];
        }
        T item = _more.back();
        _more.pop_back();
        return item;
    }

  private:
    static const size_t kInPlace = 64;
    T _inPlace[kInPlace];
    std::vector<T> _more;
    size_t _size = 0;
};

// Writes the indented text of the tree at `root` into `writer`, one line at a time. Whenever
// the writer holds `pieceSize` bytes or more, between two lines, `handOver` is called, which
// takes the text written so far (and clears the writer) or returns false to stop the writing.
// False when stopped.
template <typename HandOver>
bool WriteLines(const rk_elem* root, Writer& writer, size_t pieceSize, HandOver handOver) {
    struct Step {
        const rk_elem* elem;
        size_t depth;
        bool close;
    };
    // Iterative, so that a tree of any depth is written without deep recursion.
    SmallStack<Step> pending;
    pending.push({root, 0, false});
    while (!pending.empty()) {
        if (writer.size() >= pieceSize && !handOver()) {
            return false;
        }
        const Step step = pending.pop();
        const rk_elem* elem = step.elem;
        if (!step.close && elem->childCount == 0 && elem->attrCount == 0) {
            writer.Leaf(step.depth, elem);
            continue;
        }
        writer.Indent(step.depth);
        if (step.close) {
            writer.Put("</", 2);
            writer.Put(elem->name, strlen(elem->name));  // checked in its start tag
            writer.Put(">\n", 2);
            continue;
        }
        WriteOpenTag(elem, &writer);
        if (elem->childCount == 0) {
            if (elem->content[0] == '\0') {
                writer.Put("/>\n", 3);
            } else {
                writer.Put('>');
                WriteText(elem->content, elem->contentMarkup != 0, &writer);
                writer.Put("</", 2);
                writer.Put(elem->name, strlen(elem->name));
                writer.Put(">\n", 2);
            }
            continue;
        }
        writer.Put('>');
        WriteText(elem->content, elem->contentMarkup != 0, &writer);
        writer.Put('\n');
        pending.push({elem, step.depth, true});
        for (uint32_t i = elem->childCount; i > 0; --i) {
            pending.push({elem->children[i - 1], step.depth + 1, false});
        }
    }
    return true;
}

// The indented text of the tree at `root`; false when checking found a text that cannot be
// written as XML.
bool Write(const rk_elem* root, bool check, std::string* out) {
    Writer writer(out, check);
    WriteLines(root, writer, SIZE_MAX, [] { return true; });
    return writer.ok();
}

// Names the element for a reason: "<name>", with the names of its ancestors when it has any.
std::string ElementPath(const rk_elem* elem) {
    std::vector<const char*> names;
    for (const rk_elem* e = elem; e != nullptr; e = e->parent) {
        names.push_back(e->name);
    }
    std::string path;
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        path.append(path.empty() ? "<" : "/").append(*it);
    }
    return path + ">";
}

bool CheckText(const rk_elem* elem, const char* what, const char* text, std::string* reason) {
    size_t offset = 0;
    const char* why = nullptr;
    if (IsXmlText(text, strlen(text), &offset, &why)) {
        return true;
    }
    *reason = "the request cannot be sent as XML: " + std::string(what) + " of " +
              ElementPath(elem) + " holds " + why + " at byte " + std::to_string(offset);
    return false;
}

}  // namespace

void AppendEscaped(const char* text, std::string* out) {
    // Runs of ordinary characters are appended whole.
    const char* run = text;
    for (const char* p = text;; ++p) {
        const char* entity;
        switch (*p) {
            case '\0':
                out->append(run, static_cast<size_t>(p - run));
                return;
            case '&':
                entity = "&amp;";
                break;
            case '<':
                entity = "&lt;";
                break;
            case '>':
                entity = "&gt;";
                break;
            case '"':
                entity = "&quot;";
                break;
            case '\'':
                entity = "&apos;";
                break;
            default:
                continue;
        }
        out->append(run, static_cast<size_t>(p - run)).append(entity);
        run = p + 1;
    }
}

void ToWireForm(rk_elem* root) {
    if (root == nullptr) {
        return;
    }
    // Texts without a special character read the same escaped: they only change their mark.
    auto convert = [](rk_elem* elem, const char** text, bool* owned) {
        if (strpbrk(*text, "&<>\"'") == nullptr) {
            return;
        }
        Touch(elem);
        std::string escaped;
        AppendEscaped(*text, &escaped);
        char* copy = static_cast<char*>(malloc(escaped.size() + 1));
        if (copy == nullptr) {
            throw std::bad_alloc();
        }
        memcpy(copy, escaped.c_str(), escaped.size() + 1);
        if (*owned) {
            free(const_cast<char*>(*text));
        }
        *text = copy;
        *owned = true;
    };
    std::vector<rk_elem*> pending{root};
    while (!pending.empty()) {
        rk_elem* elem = pending.back();
        pending.pop_back();
        if (!elem->contentMarkup) {
            bool owned = elem->ownsContent != 0;
            convert(elem, &elem->content, &owned);
            elem->ownsContent = owned ? 1 : 0;
            elem->contentMarkup = 1;
        }
        for (uint32_t i = 0; i < elem->attrCount; ++i) {
            RkAttribute& attr = elem->attributes[i];
            if (!attr.markup) {
                convert(elem, &attr.value, &attr.ownsValue);
                attr.markup = true;
            }
        }
        pending.insert(pending.end(), elem->children, elem->children + elem->childCount);
    }
}

void WriteXml(const rk_elem* root, std::string* out) {
    if (root != nullptr) {
        Write(root, false, out);
    }
}

bool WriteRequestXml(const rk_elem* request, std::string* out) {
    const size_t start = out->size();
    if (Write(request, true, out)) {
        return true;
    }
    out->resize(start);
    return false;
}

bool CheckRequestText(const rk_elem* request, std::string* reason) {
    std::vector<const rk_elem*> pending;
    pending.reserve(32);
    pending.push_back(request);
    while (!pending.empty()) {
        const rk_elem* elem = pending.back();
        pending.pop_back();
        if (!CheckText(elem, "the name", elem->name, reason) ||
            !CheckText(elem, "the text", elem->content, reason)) {
            return false;
        }
        for (uint32_t i = 0; i < elem->attrCount; ++i) {
            const RkAttribute& attr = elem->attributes[i];
            if (!CheckText(elem, "an attribute name", attr.name, reason) ||
                !CheckText(elem, ("the attribute " + std::string(attr.name)).c_str(), attr.value,
                           reason)) {
                return false;
            }
        }
        pending.insert(pending.end(), elem->children, elem->children + elem->childCount);
    }
    return true;
}

bool WritePieces(const rk_elem* elem, size_t pieceSize, rk_write_fn write, void* context) {
    if (elem == nullptr || write == nullptr) {
        return false;
    }
    std::string buffer;
    Writer writer(&buffer, false);
    auto handOver = [&] {
        if (write(context, writer.data(), writer.size()) == 0) {
            return false;
        }
        writer.Clear();
        return true;
    };
    // A piece ends at the end of a line, so a piece of 0 bytes asked for is one line.
    return WriteLines(elem, writer, std::max<size_t>(pieceSize, 1), handOver) &&
           (writer.size() == 0 || handOver());
}

char* ElemSprintf(const rk_elem* elem) {
    if (elem == nullptr) {
        return nullptr;
    }
    std::string text;
    WriteXml(elem, &text);
    char* copy = static_cast<char*>(malloc(text.size() + 1));
    if (copy != nullptr) {
        memcpy(copy, text.c_str(), text.size() + 1);
    }
    return copy;
}

}  // namespace rk
