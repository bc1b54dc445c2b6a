// Small helpers for tests that build, print and parse element trees of the client library.
#ifndef TEZA_TESTS_ELEMENT_TEXT_H_
#define TEZA_TESTS_ELEMENT_TEXT_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "rk.h"

namespace testsupport {

struct ElemFree {
    void operator()(rk_elem_t* elem) const { rk_elem_free(elem); }
};
// Owns a root element and frees the whole tree.
using Elem = std::unique_ptr<rk_elem_t, ElemFree>;

inline Elem NewElem(const char* name) {
    return Elem(rk_elem_new(name));
}

// The tree's XML text as the client library writes it.
inline std::string Xml(rk_elem_t* elem) {
    char* text = rk_elem_sprintf(elem);
    std::string out = text == nullptr ? "" : text;
    free(text);
    return out;
}

// Parses XML text as a response arrives: entity references stay as they stand.
inline Elem ParseXml(const std::string& xml) {
    char error[256] = "";
    rk_elem_t* tree = rk_elem_parse(xml.data(), xml.size(), error, sizeof(error));
    EXPECT_NE(tree, nullptr) << error << " in " << xml;
    return Elem(tree);
}

}  // namespace testsupport

#endif  // TEZA_TESTS_ELEMENT_TEXT_H_
