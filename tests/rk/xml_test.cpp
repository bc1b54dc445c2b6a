// Parsing XML text into element trees: entity references kept, bad input refused with a
// reason, limits enforced; and round trips with the writer.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rk.h"

namespace {

struct ElemDeleter {
    void operator()(rk_elem_t* e) const { rk_elem_free(e); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemDeleter>;

ElemPtr Parse(const std::string& text, std::string* error = nullptr) {
    char buffer[256] = "";
    ElemPtr tree(rk_elem_parse(text.data(), text.size(), buffer, sizeof(buffer)));
    if (error != nullptr) {
        *error = buffer;
    }
    return tree;
}

std::string Sprintf(rk_elem_t* elem) {
    char* text = rk_elem_sprintf(elem);
    std::string out = text == nullptr ? "(null)" : text;
    free(text);
    return out;
}

TEST(RkXml, ParsesElementsTextAndAttributes) {
    ElemPtr tree = Parse(
        "<?xml version=\"1.0\"?>\n<results status=\"passed\">\n  <name>vol0</name>\n"
        "  <!-- comment -->\n  <owner><id>7</id></owner>\n  <empty/>\n</results>\n");
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(rk_elem_get_name(tree.get()), "results");
    EXPECT_EQ(rk_results_status(tree.get()), 1);
    EXPECT_STREQ(rk_child_get_string(tree.get(), "name"), "vol0");
    EXPECT_STREQ(rk_child_get_string(rk_elem_child(tree.get(), "owner"), "id"), "7");
    EXPECT_STREQ(rk_child_get_string(tree.get(), "empty"), "");
    EXPECT_EQ(rk_elem_child_count(tree.get()), 3u);
}

TEST(RkXml, KeepsEntityReferencesAsTheyStand) {
    ElemPtr tree =
        Parse("<r reason=\"a &lt; b &amp;&amp; &foo;\"><t>x&lt;y&gt;&amp;lt;&#60;&foo;</t></r>");
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(rk_child_get_string(tree.get(), "t"), "x&lt;y&gt;&amp;lt;&#60;&foo;");
    EXPECT_STREQ(rk_elem_get_attr(tree.get(), "reason"), "a &lt; b &amp;&amp; &foo;");
    // Written out again, the references stand as they were: nothing is escaped twice.
    EXPECT_EQ(Sprintf(tree.get()),
              "<r reason=\"a &lt; b &amp;&amp; &foo;\">\n"
              "  <t>x&lt;y&gt;&amp;lt;&#60;&foo;</t>\n"
              "</r>\n");
}

TEST(RkXml, WrittenTextParsesBackToTheSameTree) {
    ElemPtr root(rk_elem_new("req"));
    rk_child_add_string(root.get(), "text", "<a href=\"x\">it's & done</a>");
    rk_child_add_string(root.get(), "spaces", "  ");
    rk_elem_t* nested = rk_child_add(root.get(), rk_elem_new("nested"));
    rk_child_add_bool(nested, "flag", 1);
    std::string text = Sprintf(root.get());
    ElemPtr parsed = Parse(text);
    ASSERT_NE(parsed, nullptr);
    // The parsed text holds the references the writer made; writing it again is identical.
    EXPECT_STREQ(rk_child_get_string(parsed.get(), "text"),
                 "&lt;a href=&quot;x&quot;&gt;it&apos;s &amp; done&lt;/a&gt;");
    EXPECT_STREQ(rk_child_get_string(parsed.get(), "spaces"), "  ");
    EXPECT_EQ(rk_child_get_bool(rk_elem_child(parsed.get(), "nested"), "flag", 0), 1);
    EXPECT_EQ(Sprintf(parsed.get()), text);
}

TEST(RkXml, CdataBecomesEscapedText) {
    ElemPtr tree = Parse("<r><t><![CDATA[a<b&c]]></t></r>");
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(rk_child_get_string(tree.get(), "t"), "a&lt;b&amp;c");
}

TEST(RkXml, DocumentTypeEntitiesAreNeverExpanded) {
    std::string bomb =
        "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">]>"
        "<r><t>&b;&b;&b;</t></r>";
    ElemPtr tree = Parse(bomb);
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(rk_child_get_string(tree.get(), "t"), "&b;&b;&b;");
}

TEST(RkXml, MalformedInputIsRefusedWithAReason) {
    const char* bad[] = {
        "",
        "   ",
        "<r>",
        "<r></s>",
        "<r><a></r></a>",
        "<r a=\"1></r>",
        "<r a=1></r>",
        "</r>",
        "<r/><s/>",
        "<r/>trailing",
        "text<r/>",
        "<r><!-- unterminated </r>",
        "<1r/>",
    };
    for (const char* text : bad) {
        std::string error;
        ElemPtr tree = Parse(text, &error);
        EXPECT_EQ(tree, nullptr) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST(RkXml, RepeatedAttributeIsRefused) {
    std::string error;
    EXPECT_EQ(Parse("<results status=\"passed\" status=\"failed\"/>", &error), nullptr);
    EXPECT_NE(error.find("attribute 'status' repeated"), std::string::npos) << error;
    EXPECT_EQ(Parse("<r><a x=\"1\" y=\"2\" x=\"3\"/></r>", &error), nullptr);
    EXPECT_NE(error.find("attribute 'x' repeated"), std::string::npos) << error;
    // Equal names on different elements, and different names on one, are fine.
    ElemPtr tree = Parse("<r x=\"1\" y=\"2\"><a x=\"3\"/></r>");
    ASSERT_NE(tree, nullptr);
    EXPECT_STREQ(rk_elem_get_attr(rk_elem_child(tree.get(), "a"), "x"), "3");
}

TEST(RkXml, ErrorNamesTheOffset) {
    std::string error;
    EXPECT_EQ(Parse("<r><a></b></r>", &error), nullptr);
    EXPECT_NE(error.find("offset"), std::string::npos) << error;
}

TEST(RkXml, DepthIsBounded) {
    auto nested = [](int depth) {
        std::string text;
        for (int i = 0; i < depth; ++i)
            text += "<d>";
        for (int i = 0; i < depth; ++i)
            text += "</d>";
        return text;
    };
    EXPECT_NE(Parse(nested(RK_PARSE_MAX_DEPTH)), nullptr);
    std::string error;
    EXPECT_EQ(Parse(nested(RK_PARSE_MAX_DEPTH + 1), &error), nullptr);
    EXPECT_NE(error.find("deeper than"), std::string::npos) << error;
    // Far deeper input is refused the same way, without exhausting the stack.
    EXPECT_EQ(Parse(nested(100000), &error), nullptr);
}

TEST(RkXml, SizeIsBounded) {
    char error[128] = "";
    std::string text = "<r/>";
    EXPECT_EQ(rk_elem_parse(text.data(), static_cast<size_t>(RK_PARSE_MAX_BYTES) + 1, error,
                            sizeof(error)),
              nullptr);
    EXPECT_NE(std::string(error).find("over the limit"), std::string::npos) << error;
}

TEST(RkXml, NullTextAndTinyErrorBuffer) {
    char error[8];
    EXPECT_EQ(rk_elem_parse(nullptr, 0, error, sizeof(error)), nullptr);
    EXPECT_LT(std::string(error).size(), sizeof(error));
    EXPECT_EQ(rk_elem_parse("<", 1, nullptr, 0), nullptr);
}

TEST(RkXml, LongAttributeAndTextArePreserved) {
    std::string big(1 << 20, 'x');
    ElemPtr tree = Parse("<r a=\"" + big + "\"><t>" + big + "</t></r>");
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(std::string(rk_elem_get_attr(tree.get(), "a")).size(), big.size());
    EXPECT_EQ(std::string(rk_child_get_string(tree.get(), "t")).size(), big.size());
}

// What rk_elem_write hands over: the pieces, in order.
struct Pieces {
    std::vector<std::string> items;
    size_t stopAfter = SIZE_MAX;  // the callback stops at this piece
};

int TakePiece(void* context, const char* data, size_t len) {
    auto* pieces = static_cast<Pieces*>(context);
    pieces->items.emplace_back(data, len);
    return pieces->items.size() < pieces->stopAfter ? 1 : 0;
}

// A tree of `count` elements of random shape, names, texts and attributes, texts with the
// characters that are written as entities.
ElemPtr RandomTree(unsigned seed, int count) {
    std::mt19937 random(seed);
    const char* const kTexts[] = {"",      "plain", "a < b & c > d", "\"quoted\" 'single'",
                                  "&amp;", "x",     "caf\xc3\xa9",   "line\nbreak"};
    ElemPtr root(rk_elem_new("root"));
    std::vector<rk_elem_t*> elems{root.get()};
    for (int i = 0; i < count; ++i) {
        rk_elem_t* parent = elems[random() % elems.size()];
        const std::string name = "e" + std::to_string(random() % 5);
        const char* text = kTexts[random() % 8];
        rk_elem_t* child = rk_child_add_string(parent, name.c_str(), text);
        if (random() % 4 == 0) {
            rk_elem_set_attr(child, "a", kTexts[random() % 8]);
        }
        elems.push_back(child);
    }
    return root;
}

TEST(RkXmlPieces, ConcatenatedPiecesAreTheWholeText) {
    std::vector<ElemPtr> trees;
    for (unsigned seed = 1; seed <= 20; ++seed) {
        trees.push_back(RandomTree(seed, static_cast<int>(seed * 37)));
    }
    // Parsed trees keep their texts in wire form, attributes in single quotes included.
    trees.push_back(Parse("<r a='say \"hi\"' b=\"&lt;\"><t>&amp;x</t><e/><n>1<m>2</m></n></r>"));
    trees.push_back(ElemPtr(rk_elem_new("alone")));
    for (const ElemPtr& tree : trees) {
        ASSERT_NE(tree, nullptr);
        const std::string whole = Sprintf(tree.get());
        for (size_t pieceSize :
             {size_t{0}, size_t{1}, size_t{7}, size_t{100}, size_t{4096}, size_t{1} << 20}) {
            Pieces pieces;
            ASSERT_EQ(rk_elem_write(tree.get(), pieceSize, TakePiece, &pieces), 1);
            std::string joined;
            for (size_t i = 0; i < pieces.items.size(); ++i) {
                const std::string& piece = pieces.items[i];
                EXPECT_FALSE(piece.empty());
                EXPECT_EQ(piece.back(), '\n') << "a piece ends a line";
                if (i + 1 < pieces.items.size()) {
                    EXPECT_GE(piece.size(), std::max<size_t>(pieceSize, 1));
                }
                joined += piece;
            }
            EXPECT_EQ(joined, whole) << "piece size " << pieceSize;
        }
    }
}

TEST(RkXmlPieces, LargeTreeComesInPiecesOfAboutTheSizeAskedFor) {
    ElemPtr tree = RandomTree(99, 20000);
    const std::string whole = Sprintf(tree.get());
    Pieces pieces;
    ASSERT_EQ(rk_elem_write(tree.get(), 16384, TakePiece, &pieces), 1);
    ASSERT_GT(pieces.items.size(), 4u);
    std::string joined;
    for (const std::string& piece : pieces.items) {
        EXPECT_LT(piece.size(), 16384u + 1024u);  // at most one line more
        joined += piece;
    }
    EXPECT_EQ(joined, whole);
}

TEST(RkXmlPieces, StopsWhenTheReceiverSaysSo) {
    ElemPtr tree = RandomTree(7, 500);
    Pieces pieces;
    pieces.stopAfter = 3;
    EXPECT_EQ(rk_elem_write(tree.get(), 64, TakePiece, &pieces), 0);
    EXPECT_EQ(pieces.items.size(), 3u) << "nothing is handed over after a stop";
}

TEST(RkXmlPieces, NullElementOrReceiverWritesNothing) {
    Pieces pieces;
    EXPECT_EQ(rk_elem_write(nullptr, 64, TakePiece, &pieces), 0);
    ElemPtr tree(rk_elem_new("r"));
    EXPECT_EQ(rk_elem_write(tree.get(), 64, nullptr, nullptr), 0);
    EXPECT_TRUE(pieces.items.empty());
}

// Texts of every length up to a few times sixteen bytes, with a reference, a ">" or a "]]>" at
// every place: the scan of plain text stops at each of them wherever it stands.
TEST(RkXml, TextStopsAreFoundAtEveryPlace) {
    for (size_t length = 0; length <= 50; ++length) {
        for (size_t at = 0; at <= length; ++at) {
            const std::string before(at, 'x');
            const std::string after(length - at, 'y');
            const std::string text = "<r>" + before + "&amp;" + after + "</r>";
            ElemPtr tree = Parse(text);
            ASSERT_NE(tree, nullptr) << text;
            EXPECT_EQ(std::string(rk_elem_get_content(tree.get())), before + "&amp;" + after);
            ElemPtr greater = Parse("<r>" + before + ">" + after + "</r>");
            ASSERT_NE(greater, nullptr);
            EXPECT_EQ(std::string(rk_elem_get_content(greater.get())), before + ">" + after);
            std::string error;
            EXPECT_EQ(Parse("<r>" + before + "]]>" + after + "</r>", &error), nullptr);
            EXPECT_NE(error.find("at offset " + std::to_string(3 + at)), std::string::npos)
                << error;
            EXPECT_EQ(Parse("<r>" + before + "&bad " + after + "</r>", &error), nullptr);
            EXPECT_NE(error.find("at offset " + std::to_string(3 + at)), std::string::npos)
                << error;
        }
    }
}

}  // namespace
