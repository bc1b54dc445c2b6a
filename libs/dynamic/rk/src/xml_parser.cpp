// XML text into element trees.
//
// pugixml does the tokenizing: it is a small, well-kept parser packaged by Debian, it parses
// without resolving entity references when asked to (so "&lt;" reaches the tree as it stands,
// which is what callers of this library rely on), it never expands entities declared in a
// document type (so entity-expansion attacks have nothing to expand), and its parser is not
// recursive. A hand-written tokenizer would give the same result at the price of owning every
// well-formedness rule ourselves. The depth, size and single-root checks are ours.

#include <pugixml.hpp>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rk_internal.h"

namespace rk {

namespace {

// Entity references stay as they are (no parse_escapes); CDATA is kept as text; a leaf whose
// only text is white space keeps it. Comments, processing instructions, the declaration and
// the document type are skipped. Fragment mode keeps text found outside the root element as
// nodes, where the document mode would drop it silently; we refuse it below.
const unsigned kParseOptions =
    pugi::parse_cdata | pugi::parse_ws_pcdata_single | pugi::parse_fragment;

std::string ErrorAt(const char* what, ptrdiff_t offset) {
    return std::string(what) + " at offset " + std::to_string(offset);
}

// Escapes the characters that cannot stand in markup, for CDATA text joining parsed text.
std::string EscapeForMarkup(const char* text) {
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        switch (*p) {
            case '&':
                out.append("&amp;");
                break;
            case '<':
                out.append("&lt;");
                break;
            case '>':
                out.append("&gt;");
                break;
            default:
                out.push_back(*p);
        }
    }
    return out;
}

// The name of an attribute that stands twice on `node`, or null. XML allows each name once per
// element, but pugixml does not check it; a result with two `status` attributes would
// otherwise read as whichever came first.
const char* RepeatedAttribute(const pugi::xml_node& node) {
    std::vector<std::string_view> names;
    for (pugi::xml_attribute attr : node.attributes()) {
        names.push_back(attr.name());
    }
    if (names.size() < 2) {
        return nullptr;
    }
    std::sort(names.begin(), names.end());
    auto twice = std::adjacent_find(names.begin(), names.end());
    return twice == names.end() ? nullptr : twice->data();
}

}  // namespace

rk_elem* ParseXml(const char* text, size_t len, std::string* error) {
    if (text == nullptr) {
        *error = "no text to parse";
        return nullptr;
    }
    if (len > RK_PARSE_MAX_BYTES) {
        *error = "document of " + std::to_string(len) + " bytes is over the limit of " +
                 std::to_string(RK_PARSE_MAX_BYTES) + " bytes";
        return nullptr;
    }
    pugi::xml_document doc;
    pugi::xml_parse_result parsed = doc.load_buffer(text, len, kParseOptions, pugi::encoding_utf8);
    if (!parsed) {
        *error = ErrorAt(parsed.description(), parsed.offset);
        return nullptr;
    }

    pugi::xml_node root;
    for (pugi::xml_node node : doc.children()) {
        if (node.type() == pugi::node_element) {
            if (root) {
                *error = ErrorAt("more than one root element", node.offset_debug());
                return nullptr;
            }
            root = node;
        } else if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata) {
            *error = ErrorAt("text outside the root element", node.offset_debug());
            return nullptr;
        }
    }
    if (!root) {
        *error = "no root element";
        return nullptr;
    }

    rk_elem* tree = nullptr;
    struct Step {
        pugi::xml_node node;
        rk_elem* parent;
        size_t depth;
    };
    std::vector<Step> pending{{root, nullptr, 1}};
    while (!pending.empty()) {
        Step step = pending.back();
        pending.pop_back();
        if (step.depth > RK_PARSE_MAX_DEPTH) {
            ElemFree(tree);
            *error = ErrorAt(
                ("elements nested deeper than " + std::to_string(RK_PARSE_MAX_DEPTH)).c_str(),
                step.node.offset_debug());
            return nullptr;
        }
        if (const char* repeated = RepeatedAttribute(step.node)) {
            ElemFree(tree);
            *error = ErrorAt(("attribute '" + std::string(repeated) + "' repeated").c_str(),
                             step.node.offset_debug());
            return nullptr;
        }
        rk_elem* elem = new rk_elem;
        elem->name = step.node.name();
        for (pugi::xml_attribute attr : step.node.attributes()) {
            elem->attributes.push_back(RkAttribute{attr.name(), RkText{attr.value(), true}});
        }
        elem->content.markup = true;
        std::vector<pugi::xml_node> childElements;
        for (pugi::xml_node child : step.node.children()) {
            switch (child.type()) {
                case pugi::node_element:
                    childElements.push_back(child);
                    break;
                case pugi::node_pcdata:
                    elem->content.value.append(child.value());
                    break;
                case pugi::node_cdata:
                    elem->content.value.append(EscapeForMarkup(child.value()));
                    break;
                default:
                    break;
            }
        }
        if (step.parent == nullptr) {
            tree = elem;
        } else {
            elem->parent = step.parent;
            step.parent->children.push_back(elem);
        }
        for (auto it = childElements.rbegin(); it != childElements.rend(); ++it) {
            pending.push_back({*it, elem, step.depth + 1});
        }
    }
    return tree;
}

}  // namespace rk
