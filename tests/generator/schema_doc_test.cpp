// The element shapes that docs/schema.md shows under "On the wire", checked against the runtime
// over the real client library: the page's schema is tests/generator/schemas/shapes.teza,
// whose generated records are linked in; each example's result shape is read into a record,
// which must then write exactly the example's request shape. A change of the runtime's
// mapping, of the generator or of the page that makes them disagree fails here.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "TezaFieldType.h"
#include "TezaNamespaceFactory.h"
#include "element_text.h"
#include "rk.h"
#include "shapes.h"

namespace {

using testsupport::Elem;
using testsupport::ParseXml;
using testsupport::Xml;

std::string ReadText(const char* path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    EXPECT_TRUE(in.good() || in.eof()) << "cannot read " << path;
    return text.str();
}

// Words separated by single spaces.
std::string Squeezed(const std::string& text) {
    std::istringstream words(text);
    std::string word, out;
    while (words >> word) {
        out += (out.empty() ? "" : " ") + word;
    }
    return out;
}

// The XML of an example with the layout whitespace around its tags taken out.
std::string WithoutLayout(const std::string& xml) {
    return std::regex_replace(std::regex_replace(xml, std::regex(">\\s+"), ">"),
                              std::regex("\\s+<"), "<");
}

// Ciphertexts differ from one encryption to the next: their texts are left out.
std::string WithoutCiphertext(const std::string& xml) {
    return std::regex_replace(xml, std::regex("(encrypted=\"[^\"]*\">)[^<]*<"), "$1...<");
}

// The fenced code block that follows each `<!-- wire-shapes: KIND -->` line of the page.
std::vector<std::string> Blocks(const std::string& page, const std::string& kind) {
    std::vector<std::string> blocks;
    const std::string marker = "<!-- wire-shapes: " + kind + " -->\n```\n";
    for (size_t at = page.find(marker); at != std::string::npos; at = page.find(marker, at + 1)) {
        const size_t start = at + marker.size();
        const size_t end = page.find("```\n", start);
        if (end == std::string::npos) {
            ADD_FAILURE() << "unterminated block after " << marker;
            break;
        }
        blocks.push_back(page.substr(start, end - start));
    }
    return blocks;
}

struct Example {
    std::string declaration;  // "name : type flags;" as the page shows it
    std::string field;
    std::string request;
    std::string result;
};

std::ostream& operator<<(std::ostream& out, const Example& example) {
    return out << example.declaration;
}

// An example starts on a line that does not begin with a blank: the field's declaration, up to
// its ';', and the element shape of both directions after it. Indented lines continue the
// shape, or start the request's or the result's own after "request:" or "result:".
std::vector<Example> Examples(const std::string& block) {
    std::vector<Example> examples;
    std::istringstream lines(block);
    std::string line;
    std::string* part = nullptr;
    while (std::getline(lines, line)) {
        if (!line.empty() && line[0] != ' ') {
            const size_t semicolon = line.find(';');
            EXPECT_NE(semicolon, std::string::npos) << line;
            examples.emplace_back();
            Example& example = examples.back();
            example.declaration = Squeezed(line.substr(0, semicolon + 1));
            example.field = Squeezed(line.substr(0, line.find(':')));
            example.request = line.substr(semicolon + 1);
            part = &example.request;
            continue;
        }
        if (part == nullptr) {
            ADD_FAILURE() << "a shape before any declaration: " << line;
            continue;
        }
        const std::string text = Squeezed(line);
        if (text.rfind("request:", 0) == 0) {
            part = &examples.back().request;
            *part = text.substr(8);
        } else if (text.rfind("result:", 0) == 0) {
            part = &examples.back().result;
            *part = text.substr(7);
        } else {
            *part += " " + text;
        }
    }
    for (Example& example : examples) {
        example.request = WithoutLayout(Squeezed(example.request));
        example.result =
            example.result.empty() ? example.request : WithoutLayout(Squeezed(example.result));
    }
    return examples;
}

class SchemaDoc : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_NE(rk_startup(nullptr, 0), 0);
        TezaNamespaceFactory::registerDefaultTypeFactory();
    }
    static void TearDownTestSuite() { rk_shutdown(); }

    void SetUp() override {
        _page = ReadText(TEZA_SCHEMA_DOC);
        for (const std::string& block : Blocks(_page, "examples")) {
            for (const Example& example : Examples(block)) {
                _examples.push_back(example);
            }
        }
    }

    static int FieldIndex(const std::string& name) {
        const TezaFieldTypeMetaData& md = shapes::Article::metaData();
        for (int i = 0; i < md.getNumFields(); ++i) {
            if (name == md.getFieldNameStr(i)) {
                return i;
            }
        }
        return -1;
    }

    std::string _page;
    std::vector<Example> _examples;
};

TEST_F(SchemaDoc, ShowsTheSchemaOfItsExamples) {
    const std::vector<std::string> schemas = Blocks(_page, "the schema");
    ASSERT_EQ(schemas.size(), 1u);
    const std::string schema = ReadText(TEZA_SHAPES_SCHEMA);
    EXPECT_EQ(schemas[0], schema);

    // Every field of the example type has exactly one example, declared as in the schema.
    const TezaFieldTypeMetaData& md = shapes::Article::metaData();
    std::istringstream lines(schema);
    std::vector<std::string> declarations;
    for (std::string line; std::getline(lines, line);) {
        declarations.push_back(Squeezed(line));
    }
    ASSERT_EQ(_examples.size(), static_cast<size_t>(md.getNumFields()));
    for (int i = 0; i < md.getNumFields(); ++i) {
        int shown = 0;
        for (const Example& example : _examples) {
            if (example.field == md.getFieldNameStr(i)) {
                ++shown;
                EXPECT_NE(std::find(declarations.begin(), declarations.end(), example.declaration),
                          declarations.end())
                    << example << " is not declared so in the schema";
            }
        }
        EXPECT_EQ(shown, 1) << md.getFieldNameStr(i);
    }
}

TEST_F(SchemaDoc, ResultShapesReadIntoValuesThatWriteTheRequestShapes) {
    ASSERT_FALSE(_examples.empty());
    for (const Example& example : _examples) {
        SCOPED_TRACE(example.declaration);
        const int field = FieldIndex(example.field);
        ASSERT_GE(field, 0);

        Elem result = ParseXml("<results status=\"passed\">" + example.result + "</results>");
        shapes::Article article;
        article.parseRkChildElement(result.get());
        for (int i = 0; i < shapes::Article::NUM_FIELDS; ++i) {
            EXPECT_EQ(article.isFieldSet(i), i == field) << "field " << i;
        }

        Elem request = testsupport::NewElem("article-add");
        article.constructRkChildElement(request.get());
        Elem shown = ParseXml("<article-add>" + example.request + "</article-add>");
        EXPECT_EQ(WithoutCiphertext(Xml(request.get())), WithoutCiphertext(Xml(shown.get())));
    }
}

// The page's warning: a result in the request's shape of a chain reads as something else.
TEST_F(SchemaDoc, RequestShapesOfChainsReadBackAsThePageSays) {
    auto exampleOf = [this](const std::string& field) {
        for (const Example& example : _examples) {
            if (example.field == field) {
                return example;
            }
        }
        ADD_FAILURE() << "no example of " << field;
        return Example();
    };
    shapes::Article article;
    Elem variants =
        ParseXml("<results status=\"passed\">" + exampleOf("variants").request + "</results>");
    article.parseRkChildElement(variants.get());
    std::vector<shapes::ArticleVariant> records;
    ASSERT_TRUE(article.getVariants(records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_FALSE(records[0].isSkuSet());

    Elem shades =
        ParseXml("<results status=\"passed\">" + exampleOf("shades").request + "</results>");
    article.parseRkChildElement(shades.get());
    std::vector<std::string> texts;
    ASSERT_TRUE(article.getShades(texts));
    EXPECT_EQ(texts, std::vector<std::string>{""});
}

}  // namespace
