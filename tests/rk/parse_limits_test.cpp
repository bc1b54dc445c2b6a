// The parser's limits, all derived from the one size limit: hostile documents of every shape
// are refused (or parsed) within about four times that limit of memory, document included,
// each measured in a child process of its own (its peak resident size); the deadline; and the
// strict XML 1.0 / UTF-8 rules, with the byte offset of the fault.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "rk_internal.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PEAKS_ARE_MEASURED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define PEAKS_ARE_MEASURED 0
#endif
#endif
#ifndef PEAKS_ARE_MEASURED
#define PEAKS_ARE_MEASURED 1
#endif

namespace {

const size_t kMiB = 1024 * 1024;

struct ElemDeleter {
    void operator()(rk_elem* e) const { rk::ElemFree(e); }
};
using ElemPtr = std::unique_ptr<rk_elem, ElemDeleter>;

// What a parse in a child process showed.
struct Measured {
    bool parsed = false;
    int code = 0;
    char reason[240] = "";
    long peakGrowthKb = 0;  // peak resident size at the end less the size before the document
    double parseMs = 0;
    size_t documentBytes = 0;
    size_t elements = 0;  // of the tree, when parsed
};

size_t CountElements(const rk_elem* root) {
    size_t count = 0;
    std::vector<const rk_elem*> pending{root};
    while (!pending.empty()) {
        const rk_elem* e = pending.back();
        pending.pop_back();
        ++count;
        for (size_t i = 0; i < e->childCount; ++i) {
            pending.push_back(e->children[i]);
        }
    }
    return count;
}

long PeakKb() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Builds the document and parses it with the limits of `limit` bytes, in a child process,
// so that its peak memory is its own.
Measured ParseInChild(const std::function<void(std::string*)>& build, size_t limit) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        Measured m;
        long before = PeakKb();
        std::string document;
        build(&document);
        m.documentBytes = document.size();
        rk::ParseError error;
        auto start = std::chrono::steady_clock::now();
        rk_elem* tree =
            rk::ParseXml(document.data(), document.size(), rk::ParseLimits::ForSize(limit), &error);
        m.parseMs =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        m.peakGrowthKb = PeakKb() - before;
        m.parsed = tree != nullptr;
        m.code = error.code;
        snprintf(m.reason, sizeof m.reason, "%s", error.reason.c_str());
        if (tree != nullptr) {
            m.elements = CountElements(tree);
        }
        rk::ElemFree(tree);
        ssize_t written = write(fds[1], &m, sizeof m);
        _exit(written == static_cast<ssize_t>(sizeof m) ? 0 : 1);
    }
    close(fds[1]);
    Measured m;
    ssize_t got = read(fds[0], &m, sizeof m);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(got, static_cast<ssize_t>(sizeof m)) << "the child died";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return m;
}

void ExpectWithinFourTimes(const Measured& m, size_t limit) {
    // Printed for the record of before and after figures.
    printf("document %zu bytes: peak growth %ld MiB, parse %.0f ms, %s %s\n", m.documentBytes,
           m.peakGrowthKb / 1024, m.parseMs, m.parsed ? "parsed" : "refused:", m.reason);
#if PEAKS_ARE_MEASURED
    // The document stands for the answer's body, which counts too.
    EXPECT_LE(static_cast<size_t>(m.peakGrowthKb) * 1024, 4 * limit + 16 * kMiB);
#else
    (void)limit;
#endif
}

std::string Name(size_t i) {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string name;
    do {
        name.push_back(kLetters[i % 52]);
        i /= 52;
    } while (i != 0);
    return name;
}

TEST(ParseMemory, SixteenMillionEmptyChildrenAreRefusedEarly) {
    const size_t limit = RK_PARSE_MAX_BYTES;
    Measured m = ParseInChild(
        [](std::string* d) {
            d->reserve(64000000 + 16);
            d->append("<r>");
            for (size_t i = 0; i < 16000000; ++i) {
                d->append("<a/>");
            }
            d->append("</r>");
        },
        limit);
    EXPECT_FALSE(m.parsed);
    EXPECT_EQ(m.code, RK_ERR_TOO_LARGE);
    EXPECT_NE(std::string(m.reason).find("tree would take more than 201326592 bytes"),
              std::string::npos)
        << m.reason;
    ExpectWithinFourTimes(m, limit);
}

TEST(ParseMemory, FiveMillionDistinctAttributesAreRefused) {
    const size_t limit = RK_PARSE_MAX_BYTES;
    Measured m = ParseInChild(
        [](std::string* d) {
            d->reserve(44 * kMiB);
            d->append("<r");
            for (size_t i = 0; i < 5000000; ++i) {
                d->append(" ").append(Name(i)).append("=\"\"");
            }
            d->append("/>");
        },
        limit);
    EXPECT_FALSE(m.parsed);
    EXPECT_EQ(m.code, RK_ERR_TOO_LARGE);
    EXPECT_NE(std::string(m.reason).find("more than 4194304 attributes"), std::string::npos)
        << m.reason;
    ExpectWithinFourTimes(m, limit);
}

TEST(ParseMemory, TwelveMillionDuplicateAttributesAreRefusedAtTheFirstRepeat) {
    const size_t limit = RK_PARSE_MAX_BYTES;
    Measured m = ParseInChild(
        [](std::string* d) {
            d->reserve(60000000 + 16);
            d->append("<r");
            for (size_t i = 0; i < 12000000; ++i) {
                d->append(" a=\"\"");
            }
            d->append("/>");
        },
        limit);
    EXPECT_FALSE(m.parsed);
    EXPECT_EQ(m.code, RK_ERR_MALFORMED);
    EXPECT_STREQ(m.reason, "attribute 'a' repeated at offset 0");
    ExpectWithinFourTimes(m, limit);
}

// A document of records, as a large listing comes: `records` of them, each with a few fields.
void Records(std::string* d, size_t bytes) {
    d->reserve(bytes + 512);
    d->append("<results status=\"passed\"><accounts>");
    for (size_t i = 0; d->size() < bytes; ++i) {
        d->append("<account-info><name>account-")
            .append(std::to_string(i))
            .append(
                "</name><address><street>1 Long Road</street><city>Paris</city>"
                "<zip>75001</zip></address><enabled>true</enabled><tags><tag>a</tag>"
                "<tag>b&amp;c</tag></tags><limits><max-jobs>100</max-jobs><max-size>"
                "1099511627776</max-size></limits><comment>an account made for the "
                "test</comment></account-info>");
    }
    d->append("</accounts></results>");
}

TEST(ParseMemory, LargeAnswerUnderARaisedLimitParses) {
    // A limit of 300 MB is the user's to set; no cap of the parser's own refuses 200 MB.
    const size_t limit = 300 * 1000 * 1000;
    Measured m = ParseInChild([](std::string* d) { Records(d, 200 * 1000 * 1000); }, limit);
    EXPECT_TRUE(m.parsed) << m.reason;
    EXPECT_GT(m.elements, 5000000u);
    ExpectWithinFourTimes(m, limit);
}

TEST(ParseMemory, DenseRealAnswerParsesAtTheDefaultLimit) {
    // 50,000 records of about 340 bytes: some 735,000 elements in 17 MB.
    const size_t limit = RK_PARSE_MAX_BYTES;
    Measured m = ParseInChild([](std::string* d) { Records(d, 50000 * 340); }, limit);
    EXPECT_TRUE(m.parsed) << m.reason;
    EXPECT_GT(m.elements, 700000u);
    ExpectWithinFourTimes(m, limit);
}

// ---- Limits, each at its edge ----------------------------------------------------------

rk_elem* Parse(const std::string& text, const rk::ParseLimits& limits, rk::ParseError* error) {
    return rk::ParseXml(text.data(), text.size(), limits, error);
}

std::string Children(size_t n) {
    std::string d = "<r>";
    for (size_t i = 0; i < n; ++i) {
        d += "<a/>";
    }
    return d + "</r>";
}

TEST(ParseLimits, AllFollowFromTheSize) {
    rk::ParseLimits limits = rk::ParseLimits::ForSize(64 * kMiB);
    EXPECT_EQ(limits.maxBytes, 64 * kMiB);
    EXPECT_EQ(limits.maxElements, 4 * kMiB);
    EXPECT_EQ(limits.maxAttributes, 4 * kMiB);
    EXPECT_EQ(limits.maxTreeBytes, 192 * kMiB);
    EXPECT_EQ(limits.maxDepth, static_cast<size_t>(RK_PARSE_MAX_DEPTH));
    EXPECT_FALSE(limits.hasDeadline);
    // Small limits keep room for small documents.
    limits = rk::ParseLimits::ForSize(100);
    EXPECT_EQ(limits.maxElements, 1024u);
    EXPECT_EQ(limits.maxAttributes, 1024u);
    EXPECT_EQ(limits.maxTreeBytes, kMiB);
}

TEST(ParseLimits, ElementsAreCountedToTheLimit) {
    rk::ParseLimits limits = rk::ParseLimits::ForSize(1 << 20);
    limits.maxElements = 100;
    rk::ParseError error;
    ElemPtr tree(Parse(Children(99), limits, &error));  // 99 and the root
    EXPECT_NE(tree, nullptr) << error.reason;
    EXPECT_EQ(Parse(Children(100), limits, &error), nullptr);
    EXPECT_EQ(error.code, RK_ERR_TOO_LARGE);
    EXPECT_EQ(error.reason,
              "the document has more than 100 elements, the limit for a document of 1048576 "
              "bytes");
}

TEST(ParseLimits, AttributesAreCountedToTheLimitAcrossElements) {
    rk::ParseLimits limits = rk::ParseLimits::ForSize(1 << 20);
    limits.maxAttributes = 4;
    rk::ParseError error;
    ElemPtr tree(Parse("<r a='1' b='2'><s c='3' d='4'/></r>", limits, &error));
    EXPECT_NE(tree, nullptr) << error.reason;
    EXPECT_EQ(Parse("<r a='1' b='2'><s c='3' d='4'/><t e='5'/></r>", limits, &error), nullptr);
    EXPECT_EQ(error.code, RK_ERR_TOO_LARGE);
    EXPECT_NE(error.reason.find("more than 4 attributes"), std::string::npos) << error.reason;
}

TEST(ParseLimits, BytesAreTheUsersLimitExactly) {
    std::string text = "<r>" + std::string(1000, 'x') + "</r>";
    rk::ParseError error;
    ElemPtr tree(Parse(text, rk::ParseLimits::ForSize(text.size()), &error));
    EXPECT_NE(tree, nullptr) << error.reason;
    EXPECT_EQ(Parse(text, rk::ParseLimits::ForSize(text.size() - 1), &error), nullptr);
    EXPECT_EQ(error.code, RK_ERR_TOO_LARGE);
    EXPECT_EQ(error.reason, "document of 1007 bytes is over the limit of 1006 bytes");
}

TEST(ParseLimits, TreeMemoryIsBounded) {
    rk::ParseLimits limits = rk::ParseLimits::ForSize(1 << 20);
    limits.maxTreeBytes = 64 * 1024;
    rk::ParseError error;
    EXPECT_EQ(Parse(Children(5000), limits, &error), nullptr);
    EXPECT_EQ(error.code, RK_ERR_TOO_LARGE);
    EXPECT_NE(error.reason.find("tree would take more than 65536 bytes"), std::string::npos)
        << error.reason;
    // CDATA grows when escaped: that counts too.
    EXPECT_EQ(Parse("<r><![CDATA[" + std::string(30000, '<') + "]]></r>", limits, &error), nullptr);
    EXPECT_EQ(error.code, RK_ERR_TOO_LARGE);
}

TEST(ParseLimits, DeadlineEndsALongParse) {
    std::string text;
    Records(&text, 24 * kMiB);
    rk::ParseLimits limits = rk::ParseLimits::ForSize(RK_PARSE_MAX_BYTES);
    limits.hasDeadline = true;
    auto start = std::chrono::steady_clock::now();
    limits.deadline = start + std::chrono::milliseconds(20);
    rk::ParseError error;
    EXPECT_EQ(Parse(text, limits, &error), nullptr);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(error.code, RK_ERR_TIMEOUT) << error.reason;
    EXPECT_NE(error.reason.find("took longer than the time left for the call"), std::string::npos)
        << error.reason;
    // Generous for a loaded machine: the deadline is looked at every 1024 elements and every
    // MiB of text.
    EXPECT_LT(took, std::chrono::milliseconds(20 + 100));
    // A deadline already past stops the parse before it starts; none lets it finish.
    limits.deadline = start;
    EXPECT_EQ(Parse(text, limits, &error), nullptr);
    EXPECT_EQ(error.code, RK_ERR_TIMEOUT);
    limits.hasDeadline = false;
    ElemPtr tree(Parse(text, limits, &error));
    EXPECT_NE(tree, nullptr) << error.reason;
}

TEST(ParseLimits, ForCallSetsTheDeadlineFromTheTimeLeft) {
    auto before = std::chrono::steady_clock::now();
    rk::ParseLimits limits = rk::ParseLimits::ForCall(1000, 2, 1.5);
    EXPECT_TRUE(limits.hasDeadline);
    EXPECT_GE(limits.deadline, before + std::chrono::milliseconds(450));
    EXPECT_LE(limits.deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(500));
    EXPECT_EQ(limits.maxBytes, 1000u);
    EXPECT_FALSE(rk::ParseLimits::ForCall(1000, 0, 1.5).hasDeadline);
    // Time already spent past the time-out leaves none.
    limits = rk::ParseLimits::ForCall(1000, 1, 3.0);
    EXPECT_LE(limits.deadline, std::chrono::steady_clock::now());
}

// ---- Strict XML 1.0 in UTF-8 ----------------------------------------------------------

std::string Refusal(const std::string& text) {
    rk::ParseError error;
    rk_elem* tree = Parse(text, rk::ParseLimits::ForSize(RK_PARSE_MAX_BYTES), &error);
    if (tree != nullptr) {
        rk::ElemFree(tree);
        return "(parsed)";
    }
    EXPECT_EQ(error.code, RK_ERR_MALFORMED) << text;
    return error.reason;
}

TEST(ParseStrict, NulByteAnywhereIsRefusedWithItsOffset) {
    EXPECT_EQ(Refusal(std::string("<r/>\0garbage", 12)), "a NUL byte at offset 4");
    EXPECT_EQ(Refusal(std::string("<r>a\0b</r>", 10)), "a NUL byte at offset 4");
    EXPECT_EQ(Refusal(std::string("<r a='\0'/>", 10)), "a NUL byte at offset 6");
    EXPECT_EQ(Refusal(std::string("<r/>\0", 5)), "a NUL byte at offset 4");
}

TEST(ParseStrict, CharactersOutsideXmlAreRefusedWithTheirOffset) {
    EXPECT_EQ(Refusal("<r>ctl\x01x</r>"), "a control character at offset 6");
    EXPECT_EQ(Refusal("<r>\x1b</r>"), "a control character at offset 3");
    EXPECT_EQ(Refusal("<r>\xef\xbf\xbe</r>"),
              "a character that is not an XML character at offset 3");
    EXPECT_EQ(Refusal("<r>\xef\xbf\xbf</r>"),
              "a character that is not an XML character at offset 3");
    EXPECT_EQ(Refusal("<r>&#1;</r>"),
              "character reference to a character that is not an XML character at offset 3");
    EXPECT_EQ(Refusal("<r>&#xD800;</r>"),
              "character reference to a character that is not an XML character at offset 3");
    EXPECT_EQ(Refusal("<r>&#x110000;</r>"),
              "character reference to a character that is not an XML character at offset 3");
    // Tab, line feed, carriage return, DEL and the edges of the ranges are characters.
    EXPECT_EQ(Refusal("<r>\t\n\r\x7f\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbd\xf4\x8f\xbf\xbf</r>"),
              "(parsed)");
}

TEST(ParseStrict, InvalidUtf8IsRefusedWithItsOffset) {
    const char* bad[] = {
        "<r>\x80</r>",              // a continuation byte alone
        "<r>\xc3</r>",              // a sequence cut short
        "<r>\xc0\xaf</r>",          // overlong
        "<r>\xe0\x80\xaf</r>",      // overlong
        "<r>\xed\xa0\x80</r>",      // a surrogate
        "<r>\xf4\x90\x80\x80</r>",  // beyond U+10FFFF
        "<r>\xf5\x80\x80\x80</r>",
        "<r>\xff</r>",
    };
    for (const char* text : bad) {
        EXPECT_EQ(Refusal(text), "invalid UTF-8 at offset 3") << text;
    }
    EXPECT_EQ(Refusal("<r>\xc3</r>x"), "invalid UTF-8 at offset 3");
    EXPECT_EQ(Refusal("<r>\xc3"), "invalid UTF-8 at offset 3");
    EXPECT_EQ(Refusal("<r>\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80</r>"), "(parsed)");
}

TEST(ParseStrict, WellFormednessRules) {
    EXPECT_EQ(Refusal("<r>a & b</r>"), "\"&\" that does not start an entity reference at offset 5");
    EXPECT_EQ(Refusal("<r>&#;</r>"), "malformed character reference at offset 3");
    EXPECT_EQ(Refusal("<r a='<'/>"), "\"<\" in an attribute value at offset 6");
    EXPECT_EQ(Refusal("<r>a]]>b</r>"), "\"]]>\" in text at offset 4");
    EXPECT_EQ(Refusal("<r><!-- a -- b --></r>"), "\"--\" inside a comment at offset 10");
    EXPECT_EQ(Refusal("<r/><?xml version='1.0'?>"),
              "XML declaration not at the start of the document at offset 4");
    EXPECT_EQ(Refusal("<r a='1'b='2'/>"), "malformed attribute at offset 8");
    EXPECT_EQ(Refusal("<r></s>"), "end tag </s> does not match <r> at offset 3");
    EXPECT_EQ(Refusal("<r/><s/>"), "more than one root element at offset 4");
    EXPECT_EQ(Refusal("<r/>x"), "text outside the root element at offset 4");
    EXPECT_EQ(Refusal("x<r/>"), "text outside the root element at offset 0");
    EXPECT_EQ(Refusal("<r><!DOCTYPE r></r>"), "markup declaration inside an element at offset 3");
    EXPECT_EQ(Refusal("<!DOCTYPE r><!DOCTYPE r><r/>"),
              "second document type declaration at offset 12");
    EXPECT_EQ(Refusal("<!-- only a comment -->"), "no root element");
    // What is well-formed passes: a byte order mark, the declaration, a document type with
    // an internal subset holding ">" in quotes, comments and processing instructions around
    // the root, references, CDATA, single quotes.
    EXPECT_EQ(Refusal("\xef\xbb\xbf<?xml version='1.0' encoding='UTF-8'?>\n"
                      "<!DOCTYPE r [<!ENTITY e \"a>b\"><!-- ] > --><?pi ]>?>]>\n"
                      "<?pi x?><!-- c --><r a='&e;&#60;&#x3c;\"'>&e;<![CDATA[<&>]]></r>\n"
                      "<!-- after --><?pi?>\n"),
              "(parsed)");
}

TEST(ParseStrict, TextPiecesJoinAndWhiteSpaceFollowsTheRule) {
    rk::ParseError error;
    ElemPtr tree(Parse("<r> x <a/> y <!-- c --> z<b>  </b><c> <!--c--> </c><d>\n<e/>\n</d></r>",
                       rk::ParseLimits::ForSize(1 << 20), &error));
    ASSERT_NE(tree, nullptr) << error.reason;
    EXPECT_STREQ(tree->content, " x  y  z");
    EXPECT_STREQ(rk::ChildGetString(tree.get(), "b"), "  ");
    // Only white space that is all an element holds is kept: here, the piece before the end.
    EXPECT_STREQ(rk::ChildGetString(tree.get(), "c"), " ");
    EXPECT_STREQ(rk::ChildGetString(tree.get(), "d"), "");
}

TEST(ParseStrict, PiecesThatMeetAsTheEndOfACdataSectionAreEscaped) {
    // Written back as it stands, "]]>" would not parse again.
    rk::ParseError error;
    ElemPtr tree(Parse("<r><a><![CDATA[x]]]]>>y<b/></a><c>]<!---->]>z</c><d>]]<!---->></d></r>",
                       rk::ParseLimits::ForSize(1 << 20), &error));
    ASSERT_NE(tree, nullptr) << error.reason;
    EXPECT_STREQ(rk::ChildGetString(tree.get(), "a"), "x]]&gt;y");
    EXPECT_STREQ(rk::ChildGetString(tree.get(), "c"), "]]&gt;z");
    EXPECT_STREQ(rk::ChildGetString(tree.get(), "d"), "]]&gt;");
}

TEST(ParseStrict, BadCharactersAreFoundAtEveryOffsetOfAnIndentedDocument) {
    // Lines of every length, indented, so that the characters are checked in runs of many
    // lengths and alignments.
    std::string text = "<r>\n";
    for (int line = 0; line < 12; ++line) {
        text += std::string(2 + line % 5, ' ') + "<a>" + std::string(line * 3, 'x') + "</a>\n";
    }
    text += "</r>\n";
    ASSERT_EQ(Refusal(text), "(parsed)");
    for (size_t offset = 0; offset < text.size(); ++offset) {
        std::string bad = text;
        bad[offset] = '\x01';
        ASSERT_EQ(Refusal(bad), "a control character at offset " + std::to_string(offset));
        bad[offset] = '\x80';
        ASSERT_EQ(Refusal(bad), "invalid UTF-8 at offset " + std::to_string(offset));
        bad[offset] = '\0';
        ASSERT_EQ(Refusal(bad), "a NUL byte at offset " + std::to_string(offset));
    }
}

TEST(ParseStrict, WhiteSpaceOfAnyLengthBetweenElementsIsDropped) {
    for (size_t n = 0; n < 40; ++n) {
        for (const char* unit : {" ", "\t", "\r\n", "\n "}) {
            std::string space;
            for (size_t i = 0; i < n; ++i) {
                space += unit;
            }
            rk::ParseError error;
            ElemPtr tree(
                Parse("<r>" + space + "<a>" + space + "x" + space + "</a>" + space + "</r>",
                      rk::ParseLimits::ForSize(1 << 20), &error));
            ASSERT_NE(tree, nullptr) << error.reason;
            EXPECT_STREQ(tree->content, "") << n;
            ASSERT_EQ(tree->childCount, 1u);
            EXPECT_EQ(std::string(tree->children[0]->content), space + "x" + space) << n;
            // White space that is all an element holds is its text.
            ElemPtr only(Parse("<r>" + space + "</r>", rk::ParseLimits::ForSize(1 << 20), &error));
            ASSERT_NE(only, nullptr) << error.reason;
            EXPECT_EQ(std::string(only->content), space) << n;
        }
    }
}

TEST(ParseStrict, RepeatedNamesKeepTheirOwnSpelling) {
    // Names that share their length and their first, middle and last bytes, and names too
    // long to be shared, each come back as written, wherever they repeat.
    const std::vector<std::string> names = {"abcde",
                                            "abXde",
                                            "abcYe",
                                            "aZcde",
                                            "name",
                                            "node",
                                            "nome",
                                            std::string(64, 'n'),
                                            std::string(65, 'n'),
                                            std::string(63, 'n') + "x" + std::string(63, 'n'),
                                            std::string(63, 'n') + "y" + std::string(63, 'n'),
                                            "a",
                                            "b",
                                            "ab",
                                            "ba"};
    std::string text = "<r>";
    std::vector<std::string> expected;
    for (int round = 0; round < 3; ++round) {
        for (size_t i = 0; i < names.size(); ++i) {
            const std::string& name = names[(i * (round + 1)) % names.size()];
            text += "<" + name + "><" + name + "/></" + name + ">";
            expected.push_back(name);
        }
    }
    text += "</r>";
    rk::ParseError error;
    ElemPtr tree(Parse(text, rk::ParseLimits::ForSize(1 << 20), &error));
    ASSERT_NE(tree, nullptr) << error.reason;
    ASSERT_EQ(tree->childCount, expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(tree->children[i]->name, expected[i]) << i;
        ASSERT_EQ(tree->children[i]->childCount, 1u);
        EXPECT_EQ(tree->children[i]->children[0]->name, expected[i]) << i;
    }
    // An end tag that only begins or only ends like the open element's name does not close it.
    EXPECT_EQ(Refusal("<abc></abcd>"), "end tag </abcd> does not match <abc> at offset 5");
    EXPECT_EQ(Refusal("<abcd></abc>"), "end tag </abc> does not match <abcd> at offset 6");
    EXPECT_EQ(Refusal("<abc></abc"), "malformed end tag at offset 5");
}

}  // namespace
