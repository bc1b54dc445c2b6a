// A document parsed as it arrives, in pieces of any size, gives what a parse of the whole
// document gives: the same tree, or the same error at the same offset, for well-formed
// documents and for documents broken anywhere, with its pages given back or kept.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rk_internal.h"

namespace {

struct ElemDeleter {
    void operator()(rk_elem* e) const { rk::ElemFree(e); }
};
using ElemPtr = std::unique_ptr<rk_elem, ElemDeleter>;

// A private anonymous mapping holding `text`, as librk receives a large answer; the mapping
// is what a parse that gives pages back needs.
class Mapped {
  public:
    explicit Mapped(const std::string& text) : _size(text.size() + 1) {
        void* p = mmap(nullptr, _size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(p, MAP_FAILED);
        _data = static_cast<char*>(p);
        memcpy(_data, text.data(), text.size());
    }
    ~Mapped() { munmap(_data, _size); }
    Mapped(const Mapped&) = delete;
    Mapped& operator=(const Mapped&) = delete;
    const char* data() const { return _data; }
    // Pages of the first `bytes` that are resident in memory.
    size_t ResidentPages(size_t bytes) const {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        std::vector<unsigned char> in((bytes + page - 1) / page);
        EXPECT_EQ(mincore(_data, bytes, in.data()), 0);
        size_t resident = 0;
        for (unsigned char c : in) {
            resident += c & 1;
        }
        return resident;
    }

  private:
    char* _data;
    size_t _size;
};

// What a parse gave: the tree's text, or its error.
std::string Outcome(rk_elem* tree, const rk::ParseError& error) {
    ElemPtr owned(tree);
    if (tree == nullptr) {
        return "error " + std::to_string(error.code) + ": " + error.reason;
    }
    std::string text;
    rk::WriteXml(tree, &text);
    return text;
}

std::string Whole(const std::string& text, const rk::ParseLimits& limits, bool discard) {
    Mapped copy(text);
    rk::ParseError error;
    return Outcome(rk::ParseXml(copy.data(), text.size(), limits, &error, discard), error);
}

// `text` fed to a StreamParse at the given lengths, then finished; `*lag` is the most that the
// parse was behind what had arrived after a feed past its start.
std::string Streamed(const std::string& text, const std::vector<size_t>& feeds,
                     const rk::ParseLimits& limits, bool discard, size_t* lag = nullptr) {
    Mapped copy(text);
    rk::StreamParse parse(copy.data(), limits, discard);
    size_t most = 0;
    for (size_t len : feeds) {
        parse.Feed(len);
        if (len >= (64u << 10)) {
            most = std::max(most, len - parse.ReadUpTo());
        }
    }
    if (lag != nullptr) {
        *lag = most;
    }
    rk::ParseError error;
    return Outcome(parse.Finish(text.size(), &error), error);
}

// Lengths that grow from 0 to the text's size in random steps, small and large.
std::vector<size_t> RandomFeeds(size_t size, std::mt19937* random) {
    std::vector<size_t> feeds;
    size_t len = 0;
    while (len < size) {
        const size_t step = (*random)() % 4 == 0 ? (*random)() % 7 + 1 : (*random)() % 40000 + 1;
        len = std::min(size, len + step);
        feeds.push_back(len);
    }
    return feeds;
}

// A document of every kind of node, about `bytes` long: records with attributes (quoted ">"
// and quotes of the other kind inside), references, comments, CDATA, processing instructions,
// multi-byte characters, white space between elements and text in pieces.
std::string Document(size_t bytes) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- start -->\n<results>\n";
    for (int i = 0; text.size() < bytes; ++i) {
        const std::string n = std::to_string(i);
        text += "  <volume id=\"" + n + "\" note='a > b \"quoted\"'>\n";
        text += "    <name>volume-" + n + " &amp; &#x3C;&#65;</name>\n";
        text += "    <caf\xC3\xA9>\xE2\x82\xAC" + n + "\xF0\x9F\x98\x80</caf\xC3\xA9>\n";
        text += "    <mixed>a<!-- c - d? no > -->b<![CDATA[<x> ]] & ]]>c<?pi data?>d</mixed>\n";
        text += "    <empty/><spaced>   </spaced><gt>]]&gt; ]></gt>\n";
        text += "  </volume>\n";
    }
    text += "</results>\n<!-- end --><?done?>\n";
    return text;
}

// Breaks `text` at one place in one of many ways.
std::string Broken(std::string text, std::mt19937* random) {
    static const char* const kInserted[] = {
        "\x01",          // a control character
        "\xC3",          // a truncated UTF-8 sequence
        "\xED\xA0\x80",  // a surrogate
        "<",
        "]]>",
        "\"",
        "</wrong>",
        "<!-- -- -->",
        "&nope",
        "<a b='>'></b>",
    };
    const size_t kinds = sizeof kInserted / sizeof kInserted[0];
    const size_t at = (*random)() % text.size();
    const size_t kind = (*random)() % (kinds + 2);
    if (kind == 0) {
        return text.substr(0, at);  // cut short
    }
    if (kind == kinds + 1) {
        return text + "<second/>";
    }
    return text.insert(at, kInserted[kind - 1]);
}

TEST(StreamParse, AWholeDocumentInAnyPiecesGivesTheSameTree) {
    const std::string text = Document(400u << 10);
    const rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    const std::string expected = Whole(text, limits, false);
    ASSERT_EQ(expected.rfind("error", 0), std::string::npos) << expected;
    std::mt19937 random(1);
    for (int round = 0; round < 12; ++round) {
        const bool discard = round % 2 == 1;
        size_t lag = 0;
        EXPECT_EQ(Streamed(text, RandomFeeds(text.size(), &random), limits, discard, &lag),
                  expected)
            << "round " << round;
        // Read as it arrives: never more than the last node behind.
        EXPECT_LT(lag, 200u) << "round " << round;
    }
    // Byte by byte over the first part, which holds every kind of node and cut.
    std::vector<size_t> feeds;
    for (size_t len = 0; len < 200000; ++len) {
        feeds.push_back(len);
    }
    EXPECT_EQ(Streamed(text, feeds, limits, true), expected);
    // Whole at once, and never fed.
    EXPECT_EQ(Streamed(text, {text.size()}, limits, true), expected);
    EXPECT_EQ(Streamed(text, {}, limits, false), expected);
}

TEST(StreamParse, ALargeDocumentsPagesAreGivenBackAsItIsRead) {
    // Past a mebibyte the parse gives back the pages it has read, as a whole parse does.
    const std::string text = Document(3u << 20);
    const rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    const std::string expected = Whole(text, limits, true);
    ASSERT_EQ(expected.rfind("error", 0), std::string::npos) << expected;
    std::mt19937 random(4);
    for (int round = 0; round < 3; ++round) {
        Mapped copy(text);
        rk::StreamParse parse(copy.data(), limits, true);
        const std::vector<size_t> feeds = RandomFeeds(text.size(), &random);
        size_t resident = SIZE_MAX;
        for (size_t len : feeds) {
            parse.Feed(len);
            if (resident == SIZE_MAX && len > (2u << 20)) {
                resident = copy.ResidentPages(1u << 20);
            }
        }
        rk::ParseError error;
        EXPECT_EQ(Outcome(parse.Finish(text.size(), &error), error), expected);
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        EXPECT_LT(resident, (1u << 20) / page / 2) << "the first mebibyte went back while read";
    }
}

TEST(StreamParse, ABrokenDocumentGivesTheSameErrorAsAWholeParse) {
    const std::string text = Document(200u << 10);
    const rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    std::mt19937 random(2);
    int errors = 0;
    for (int round = 0; round < 150; ++round) {
        const std::string broken = Broken(text, &random);
        const bool discard = round % 2 == 0;
        const std::string expected = Whole(broken, limits, discard);
        errors += expected.rfind("error", 0) == 0 ? 1 : 0;
        EXPECT_EQ(Streamed(broken, RandomFeeds(broken.size(), &random), limits, discard), expected)
            << "round " << round;
    }
    EXPECT_GT(errors, 100) << "the cases are errors, nearly all";
}

TEST(StreamParse, ABadCharacterAfterAnEarlierFailureIsTheErrorAsInAWholeParse) {
    // A whole parse checks every character before it reads a node: the bad character wins.
    std::string text = Document(300u << 10);
    text.insert(100u << 10, "</wrong>");
    text.insert(250u << 10, "\x02");
    const rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    const std::string expected = Whole(text, limits, false);
    ASSERT_NE(expected.find("control character at offset " + std::to_string(250u << 10)),
              std::string::npos)
        << expected;
    std::vector<size_t> feeds = {150u << 10, 200u << 10};  // the failure is read first
    EXPECT_EQ(Streamed(text, feeds, limits, false), expected);
}

TEST(StreamParse, LimitsFailAsInAWholeParse) {
    const std::string text = Document(300u << 10);
    rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    limits.maxElements = 5000;
    const std::string elements = Whole(text, limits, false);
    EXPECT_NE(elements.find("more than 5000 elements"), std::string::npos) << elements;
    std::mt19937 random(3);
    EXPECT_EQ(Streamed(text, RandomFeeds(text.size(), &random), limits, true), elements);

    limits = rk::ParseLimits::ForSize(64u << 20);
    limits.maxTreeBytes = 256u << 10;
    const std::string tree = Whole(text, limits, false);
    EXPECT_NE(tree.find("tree would take more than"), std::string::npos) << tree;
    EXPECT_EQ(Streamed(text, RandomFeeds(text.size(), &random), limits, true), tree);

    limits = rk::ParseLimits::ForSize(64u << 20);
    limits.maxDepth = 2;
    const std::string depth = Whole(text, limits, false);
    EXPECT_NE(depth.find("nested deeper than 2"), std::string::npos) << depth;
    EXPECT_EQ(Streamed(text, RandomFeeds(text.size(), &random), limits, true), depth);
}

TEST(StreamParse, AStartThatDidNotArriveWholeIsReadAgain) {
    // A prolog longer than the first piece: the start is read anew with the whole document.
    std::string text = "<?xml version=\"1.0\"?>\n<!--" + std::string(100u << 10, 'c') + "-->";
    text += Document(200u << 10).substr(39);  // without its declaration
    const rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    const std::string expected = Whole(text, limits, false);
    ASSERT_EQ(expected.rfind("error", 0), std::string::npos) << expected;
    EXPECT_EQ(Streamed(text, {70u << 10, 90u << 10, 150u << 10}, limits, true), expected);
}

TEST(StreamParse, ALongNodeArrivingInSmallPiecesIsScannedOnce) {
    // One text of 8 MB in pieces of 64 bytes: scanned again from its start at every piece,
    // this would take minutes.
    std::string text = "<r><t>" + std::string(8u << 20, 'x') + "</t></r>";
    const rk::ParseLimits limits = rk::ParseLimits::ForSize(64u << 20);
    std::vector<size_t> feeds;
    for (size_t len = 64; len < text.size(); len += 64) {
        feeds.push_back(len);
    }
    EXPECT_EQ(Streamed(text, feeds, limits, true), Whole(text, limits, false));
    // Inside the root, after the start has been read: a start tag whose quoted value holds
    // ">" many times, a long comment, and a long run of characters of two bytes each.
    std::string inner = "<r>" + std::string(70u << 10, ' ') + "<x a=\"";
    for (int i = 0; i < 100000; ++i) {
        inner += "> '";
    }
    inner += "\" b='\"'/><!--";
    for (int i = 0; i < (1 << 20); ++i) {
        inner += "<a- ";  // each "<" makes the parse look for the comment's end again
    }
    inner += "-->";
    for (int i = 0; i < (2 << 20); ++i) {
        inner += "\xC3\xA9";
    }
    inner += "</r>";
    feeds.clear();
    for (size_t len = 7; len < inner.size(); len += 7) {
        feeds.push_back(len);
    }
    size_t lag = 0;
    const std::string expected = Whole(inner, limits, false);
    ASSERT_EQ(expected.rfind("error", 0), std::string::npos) << expected;
    EXPECT_EQ(Streamed(inner, feeds, limits, true, &lag), expected);
    EXPECT_LT(lag, inner.size() - (70u << 10)) << "read as it arrived, past the start";
}

}  // namespace
