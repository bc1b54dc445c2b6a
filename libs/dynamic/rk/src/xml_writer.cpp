// The XML text of an element tree: two spaces of indentation per level, one element per line,
// leaf text inline.

#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "rk_internal.h"

namespace rk {

namespace {

void AppendText(const char* text, bool markup, std::string* out) {
    if (markup) {
        // Markup from the wire is already escaped and is written as it stands.
        out->append(text);
    } else {
        AppendEscaped(text, out);
    }
}

void AppendAttributeValue(const RkAttribute& attr, std::string* out) {
    if (!attr.markup) {
        AppendEscaped(attr.value, out);
        return;
    }
    // A parsed value may hold a double quote if its source used single quotes.
    for (const char* p = attr.value; *p != '\0'; ++p) {
        if (*p == '"') {
            out->append("&quot;");
        } else {
            out->push_back(*p);
        }
    }
}

void AppendOpenTag(const rk_elem* elem, std::string* out) {
    out->push_back('<');
    out->append(elem->name);
    for (uint32_t i = 0; i < elem->attrCount; ++i) {
        const RkAttribute& attr = elem->attributes[i];
        out->push_back(' ');
        out->append(attr.name);
        out->append("=\"");
        AppendAttributeValue(attr, out);
        out->push_back('"');
    }
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
    if (root == nullptr) {
        return;
    }
    struct Step {
        const rk_elem* elem;
        size_t depth;
        bool close;
    };
    // Iterative, so that a tree of any depth is written without deep recursion.
    std::vector<Step> pending;
    pending.reserve(32);
    pending.push_back({root, 0, false});
    while (!pending.empty()) {
        Step step = pending.back();
        pending.pop_back();
        const rk_elem* elem = step.elem;
        out->append(2 * step.depth, ' ');
        if (step.close) {
            out->append("</").append(elem->name).append(">\n");
            continue;
        }
        AppendOpenTag(elem, out);
        if (elem->childCount == 0) {
            if (elem->content[0] == '\0') {
                out->append("/>\n");
            } else {
                out->push_back('>');
                AppendText(elem->content, elem->contentMarkup != 0, out);
                out->append("</").append(elem->name).append(">\n");
            }
            continue;
        }
        out->push_back('>');
        AppendText(elem->content, elem->contentMarkup != 0, out);
        out->push_back('\n');
        pending.push_back({elem, step.depth, true});
        for (uint32_t i = elem->childCount; i > 0; --i) {
            pending.push_back({elem->children[i - 1], step.depth + 1, false});
        }
    }
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
