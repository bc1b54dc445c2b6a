// Fuzzes rk_elem_parse and the XML writer behind rk_elem_sprintf.
//
// Any input either parses into a tree or is refused with a reason. A parsed tree is written
// out, and that text must parse again into the same tree, up to what the writer's layout
// changes on purpose:
//  - an element with both text and children gets its children on lines of their own, so its
//    text comes back followed by a line feed and the children's indentation (or not at all
//    when that whole text is white space, which the parser drops beside child elements);
//  - an attribute value read from single quotes may hold a double quote, which the writer
//    writes as "&quot;"; references are kept as they stand, so it comes back as "&quot;",
//    and both trees write the same text.
// A deep copy must write the same text as its original.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "rk.h"

namespace {

void Check(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "xml_parse_fuzzer: invariant broken: %s\n", what);
        abort();
    }
}

bool IsXmlSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool AllSpace(const std::string& text) {
    for (char c : text) {
        if (!IsXmlSpace(c)) {
            return false;
        }
    }
    return true;
}

std::vector<rk_elem_t*> Children(rk_elem_t* elem) {
    std::vector<rk_elem_t*> children;
    rk_iterator_t it = rk_child_iterator(elem);
    for (rk_elem_t* child = rk_iterator_next(&it); child != NULL; child = rk_iterator_next(&it)) {
        Check(rk_elem_parent(child) == elem, "a child's parent is the element it was found under");
        children.push_back(child);
    }
    Check(children.size() == rk_elem_child_count(elem), "iteration visits every child");
    return children;
}

// `original` was parsed from the input, `reread` from the writer's text of it; `depth` is the
// original's depth in its tree (the root's is 0).
void CompareTrees(rk_elem_t* original, rk_elem_t* reread, size_t depth) {
    struct Pair {
        rk_elem_t* original;
        rk_elem_t* reread;
        size_t depth;
    };
    std::vector<Pair> pending{{original, reread, depth}};
    while (!pending.empty()) {
        Pair pair = pending.back();
        pending.pop_back();
        Check(strcmp(rk_elem_get_name(pair.original), rk_elem_get_name(pair.reread)) == 0,
              "element names survive writing");

        std::vector<rk_elem_t*> children = Children(pair.original);
        std::vector<rk_elem_t*> rereadChildren = Children(pair.reread);
        Check(children.size() == rereadChildren.size(), "child counts survive writing");

        std::string content = rk_elem_get_content(pair.original);
        std::string expected = content;
        if (!children.empty()) {
            expected = content + "\n" + std::string(2 * (pair.depth + 1), ' ');
            if (AllSpace(expected)) {
                expected.clear();
            }
        }
        Check(expected == rk_elem_get_content(pair.reread), "element text survives writing");

        for (size_t i = 0; i < children.size(); ++i) {
            pending.push_back({children[i], rereadChildren[i], pair.depth + 1});
        }
    }
}

// Empties the text of every element that has children, the one part of a tree that the
// writer's layout changes.
void DropMixedText(rk_elem_t* root) {
    std::vector<rk_elem_t*> pending{root};
    while (!pending.empty()) {
        rk_elem_t* elem = pending.back();
        pending.pop_back();
        std::vector<rk_elem_t*> children = Children(elem);
        if (!children.empty()) {
            rk_elem_set_content(elem, "");
        }
        pending.insert(pending.end(), children.begin(), children.end());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char error[256];
    memset(error, 'x', sizeof(error));
    rk_elem_t* tree = rk_elem_parse(reinterpret_cast<const char*>(data), size, error,
                                    static_cast<int>(sizeof(error)));
    if (tree == NULL) {
        Check(memchr(error, '\0', sizeof(error)) != NULL, "the reason is NUL-terminated");
        Check(error[0] != '\0', "a refused document has a reason");
        return 0;
    }
    Check(rk_elem_parent(tree) == NULL, "a parsed root has no parent");

    char* text = rk_elem_sprintf(tree);
    Check(text != NULL, "a parsed tree can be written");
    size_t length = strlen(text);
    Check(length > 0 && text[length - 1] == '\n', "the written text ends in a line feed");

    rk_elem_t* copy = rk_elem_copy(tree);
    char* copyText = rk_elem_sprintf(copy);
    Check(copyText != NULL && strcmp(text, copyText) == 0, "a copy writes the same text");
    free(copyText);
    rk_elem_free(copy);

    char reason[256] = "";
    rk_elem_t* reread = rk_elem_parse(text, length, reason, static_cast<int>(sizeof(reason)));
    if (reread == NULL) {
        fprintf(stderr, "xml_parse_fuzzer: the writer's text does not parse: %s\n%s", reason, text);
        abort();
    }
    CompareTrees(tree, reread, 0);

    // Names, attributes (with their quotes as references) and leaf texts: the rest of the two
    // texts agree byte for byte.
    DropMixedText(tree);
    DropMixedText(reread);
    char* originalText = rk_elem_sprintf(tree);
    char* rereadText = rk_elem_sprintf(reread);
    Check(originalText != NULL && rereadText != NULL && strcmp(originalText, rereadText) == 0,
          "writing, parsing and writing again gives the same text");
    free(rereadText);
    free(originalText);

    rk_elem_free(reread);
    free(text);
    rk_elem_free(tree);
    return 0;
}
