#include "elements.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <new>

namespace tezad {

namespace {

void AppendUtf8(uint32_t cp, std::string* out) {
    if (cp < 0x80) {
        out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

// Decodes the reference `ref` (the text between "&" and ";"); false when it is not one.
bool DecodeReference(const std::string& ref, std::string* out) {
    static const struct {
        const char* name;
        char value;
    } kNamed[] = {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& named : kNamed) {
        if (ref == named.name) {
            out->push_back(named.value);
            return true;
        }
    }
    if (ref.size() < 2 || ref[0] != '#') {
        return false;
    }
    const bool hex = ref[1] == 'x' || ref[1] == 'X';
    const std::string digits = ref.substr(hex ? 2 : 1);
    if (digits.empty() || digits.size() > 8) {
        return false;
    }
    char* end = nullptr;
    unsigned long cp = strtoul(digits.c_str(), &end, hex ? 16 : 10);
    if (*end != '\0' || cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        return false;
    }
    AppendUtf8(static_cast<uint32_t>(cp), out);
    return true;
}

rk_elem_t* Checked(rk_elem_t* elem) {
    if (elem == nullptr) {
        throw std::bad_alloc();
    }
    return elem;
}

}  // namespace

std::string Decode(const char* wire) {
    std::string out;
    if (wire == nullptr) {
        return out;
    }
    // Runs without references are copied whole.
    for (const char* p = wire;;) {
        const char* amp = strchr(p, '&');
        if (amp == nullptr) {
            out.append(p);
            return out;
        }
        out.append(p, amp);
        const char* semi = strchr(amp + 1, ';');
        if (semi != nullptr && DecodeReference(std::string(amp + 1, semi), &out)) {
            p = semi + 1;
        } else {
            out.push_back('&');
            p = amp + 1;
        }
    }
}

std::optional<std::string> Args::Text(const char* name) const {
    const char* text = rk_child_get_string(_request, name);
    if (text == nullptr) {
        return std::nullopt;
    }
    return Decode(text);
}

std::string Args::Required(const char* name, int errnum) const {
    std::optional<std::string> text = Text(name);
    if (!text || text->empty()) {
        throw ApiError{errnum, std::string("the argument <") + name + "> is missing"};
    }
    return *text;
}

int64_t Args::Integer(const char* name, int64_t dflt, int64_t min, int64_t max, int errnum) const {
    std::optional<std::string> text = Text(name);
    if (!text) {
        return dflt;
    }
    errno = 0;
    char* end = nullptr;
    long long value = strtoll(text->c_str(), &end, 10);
    if (text->empty() || *end != '\0' || errno != 0) {
        throw ApiError{errnum,
                       std::string("<") + name + "> \"" + *text + "\" is not a whole number"};
    }
    if (value < min || value > max) {
        throw ApiError{errnum, std::string("<") + name + "> must be >= " + std::to_string(min) +
                                   " & <= " + std::to_string(max) + ", not " + *text};
    }
    return value;
}

bool Args::Bool(const char* name, bool dflt) const {
    return rk_child_get_bool(_request, name, dflt ? 1 : 0) != 0;
}

std::vector<std::string> Args::List(const char* name) const {
    std::vector<std::string> items;
    rk_iterator_t it = rk_child_iterator(rk_elem_child(_request, name));
    for (rk_elem_t* item = rk_iterator_next(&it); item != nullptr; item = rk_iterator_next(&it)) {
        items.push_back(Decode(rk_elem_get_content(item)));
    }
    return items;
}

std::optional<std::string> Args::Secret(const char* name, int errnum) const {
    if (!Has(name)) {
        return std::nullopt;
    }
    char* plain = rk_child_get_string_encrypted(_request, name, nullptr);
    if (plain == nullptr) {
        throw ApiError{errnum, std::string("<") + name +
                                   "> cannot be decrypted: it was sent in the clear, "
                                   "with another key, or changed on the way"};
    }
    std::string value = plain;
    rk_free(plain);
    return value;
}

ElemPtr NewPassed() {
    return ElemPtr(Checked(rk_results_new_passed()));
}

ElemPtr NewFailed(const std::string& reason, int errnum) {
    return ElemPtr(Checked(rk_results_new_failed(reason.c_str(), errnum)));
}

rk_elem_t* AddText(rk_elem_t* parent, const char* name, const char* value) {
    return Checked(rk_child_add_string(parent, name, value));
}

rk_elem_t* AddElem(rk_elem_t* parent, const char* name) {
    // Made under its parent, like a text, so that it comes from the storage of the parent's
    // tree.
    return Checked(rk_child_add_string(parent, name, ""));
}

std::string ToXml(rk_elem_t* elem) {
    char* text = rk_elem_sprintf(elem);
    if (text == nullptr) {
        throw std::bad_alloc();
    }
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    xml += text;
    rk_free(text);
    return xml;
}

}  // namespace tezad
