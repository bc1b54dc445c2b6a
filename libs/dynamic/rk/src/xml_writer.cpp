// The XML text of an element tree: two spaces of indentation per level, one element per line,
// leaf text inline.

#include <stdlib.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include "rk_internal.h"

namespace rk {

namespace {

void AppendText(const RkText& text, std::string* out) {
    if (text.markup) {
        // Markup from the wire is already escaped and is written as it stands.
        out->append(text.value);
    } else {
        AppendEscaped(text.value, out);
    }
}

void AppendAttributeValue(const RkText& text, std::string* out) {
    if (!text.markup) {
        AppendEscaped(text.value, out);
        return;
    }
    // A parsed value may hold a double quote if its source used single quotes.
    for (char c : text.value) {
        if (c == '"') {
            out->append("&quot;");
        } else {
            out->push_back(c);
        }
    }
}

void AppendOpenTag(const rk_elem* elem, std::string* out) {
    out->push_back('<');
    out->append(elem->name);
    for (const RkAttribute& attr : elem->attributes) {
        out->push_back(' ');
        out->append(attr.name);
        out->append("=\"");
        AppendAttributeValue(attr.text, out);
        out->push_back('"');
    }
}

}  // namespace

void AppendEscaped(const std::string& text, std::string* out) {
    for (char c : text) {
        switch (c) {
            case '&':
                out->append("&amp;");
                break;
            case '<':
                out->append("&lt;");
                break;
            case '>':
                out->append("&gt;");
                break;
            case '"':
                out->append("&quot;");
                break;
            case '\'':
                out->append("&apos;");
                break;
            default:
                out->push_back(c);
        }
    }
}

void ToWireForm(rk_elem* root) {
    if (root == nullptr) {
        return;
    }
    auto convert = [](RkText* text) {
        if (!text->markup) {
            std::string escaped;
            AppendEscaped(text->value, &escaped);
            text->value = std::move(escaped);
            text->markup = true;
        }
    };
    std::vector<rk_elem*> pending{root};
    while (!pending.empty()) {
        rk_elem* elem = pending.back();
        pending.pop_back();
        convert(&elem->content);
        for (RkAttribute& attr : elem->attributes) {
            convert(&attr.text);
        }
        pending.insert(pending.end(), elem->children.begin(), elem->children.end());
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
    std::vector<Step> pending{{root, 0, false}};
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
        if (elem->children.empty()) {
            if (elem->content.value.empty()) {
                out->append("/>\n");
            } else {
                out->push_back('>');
                AppendText(elem->content, out);
                out->append("</").append(elem->name).append(">\n");
            }
            continue;
        }
        out->push_back('>');
        AppendText(elem->content, out);
        out->push_back('\n');
        pending.push_back({elem, step.depth, true});
        for (auto it = elem->children.rbegin(); it != elem->children.rend(); ++it) {
            pending.push_back({*it, step.depth + 1, false});
        }
    }
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
