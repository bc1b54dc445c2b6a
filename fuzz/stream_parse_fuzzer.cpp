// Fuzzes the parse of a document as it arrives (librk's StreamParse) against the parse of the
// whole document: fed in pieces of any sizes, starting after any number of bytes, with its
// pages given back or kept, it must give the same tree or the same error.
//
// The input's first two bytes choose the pieces and the start; the rest is the document.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "rk_internal.h"

namespace {

// What a parse gave: the tree's text, or its error.
std::string Outcome(rk_elem* tree, const rk::ParseError& error) {
    if (tree == nullptr) {
        return "error " + std::to_string(error.code) + ": " + error.reason;
    }
    std::string text;
    rk::WriteXml(tree, &text);
    rk::ElemFree(tree);
    return text;
}

// A private anonymous mapping holding the document, which a parse that gives pages back needs.
struct Mapped {
    explicit Mapped(const std::string& text) : size(text.size() + 1) {
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) {
            abort();
        }
        data = static_cast<char*>(p);
        memcpy(data, text.data(), text.size());
    }
    ~Mapped() { munmap(data, size); }
    char* data;
    size_t size;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const unsigned choice = data[0] | (data[1] << 8);
    const std::string text(reinterpret_cast<const char*>(data + 2), size - 2);
    const bool discard = (choice & 1) != 0;
    const size_t startAfter = (choice >> 1) % 64;
    rk::ParseLimits limits = rk::ParseLimits::ForSize(1u << 20);
    limits.maxDepth = 64;

    Mapped whole(text);
    rk::ParseError wholeError;
    const std::string expected =
        Outcome(rk::ParseXml(whole.data, text.size(), limits, &wholeError, discard), wholeError);

    Mapped streamed(text);
    rk::StreamParse parse(streamed.data, limits, discard, startAfter);
    uint32_t state = choice * 2654435761u + 1;
    for (size_t len = 0; len < text.size();) {
        state = state * 1103515245u + 12345u;
        len = std::min(text.size(), len + (state >> 16) % 97 + 1);
        parse.Feed(len);
    }
    rk::ParseError streamedError;
    const std::string got = Outcome(parse.Finish(text.size(), &streamedError), streamedError);
    if (got != expected) {
        fprintf(stderr, "stream_parse_fuzzer: the parse in pieces gave\n%s\nthe whole parse\n%s\n",
                got.c_str(), expected.c_str());
        abort();
    }
    return 0;
}
