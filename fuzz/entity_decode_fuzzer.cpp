// Fuzzes TezaFieldType::getDecodedString, the decoding of the five XML entities.
//
// Its result is compared with a reference decoder written straight from the rule: find the
// earliest of "&lt;", "&gt;", "&apos;", "&quot;" and "&amp;" at or after the current position,
// replace it in a copy by its one character, and go on one character behind that replacement,
// so that a produced character is never looked at again. Nothing else is an entity. Two more
// properties: a text with no ampersand comes back unchanged, and escaping the five characters
// and then decoding gives the original text back.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "TezaFieldType.h"

namespace {

void Check(bool condition, const char* what, const std::string& input) {
    if (!condition) {
        fprintf(stderr, "entity_decode_fuzzer: invariant broken: %s (input of %zu bytes)\n", what,
                input.size());
        abort();
    }
}

struct Entity {
    const char* text;
    const char* replacement;
};

const Entity kEntities[] = {
    {"&lt;", "<"}, {"&gt;", ">"}, {"&apos;", "'"}, {"&quot;", "\""}, {"&amp;", "&"}};

std::string ReferenceDecode(std::string text) {
    size_t from = 0;
    for (;;) {
        if (from >= text.size()) {
            return text;
        }
        size_t found = std::string::npos;
        const Entity* which = nullptr;
        for (const Entity& entity : kEntities) {
            size_t at = text.find(entity.text, from);
            if (at < found) {
                found = at;
                which = &entity;
            }
        }
        if (which == nullptr) {
            return text;
        }
        text.replace(found, std::char_traits<char>::length(which->text), which->replacement);
        from = found + 1;
    }
}

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '<':
                out.append("&lt;");
                break;
            case '>':
                out.append("&gt;");
                break;
            case '\'':
                out.append("&apos;");
                break;
            case '"':
                out.append("&quot;");
                break;
            case '&':
                out.append("&amp;");
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string decoded = TezaFieldType::getDecodedString(text);

    Check(decoded == ReferenceDecode(text), "agrees with the reference decoder", text);
    Check(decoded.size() <= text.size(), "decoding never makes a text longer", text);
    if (text.find('&') == std::string::npos) {
        Check(decoded == text, "a text without an ampersand is unchanged", text);
    }
    Check(TezaFieldType::getDecodedString(Escape(text)) == text, "decoding undoes escaping", text);
    return 0;
}
