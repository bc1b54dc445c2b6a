// Looking up a child by name gives the first child of that name, whatever the order of the
// look-ups, names that share their first bytes, repeated names, changes to the tree and trees
// made one after the other.

#include <gtest/gtest.h>

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

ElemPtr Parse(const std::string& text) {
    rk::ParseError error;
    ElemPtr root(
        rk::ParseXml(text.data(), text.size(), rk::ParseLimits::ForSize(1u << 20), &error));
    EXPECT_NE(root, nullptr) << error.reason;
    return root;
}

// The first child named `name`, by a plain walk.
const rk_elem* FirstNamed(const rk_elem* parent, const std::string& name) {
    for (uint32_t i = 0; i < parent->childCount; ++i) {
        if (name == parent->children[i]->name) {
            return parent->children[i];
        }
    }
    return nullptr;
}

TEST(ChildLookup, ARepeatedNameGivesItsFirstChild) {
    ElemPtr root = Parse("<r><a>1</a><b>2</b><a>3</a><c>4</c><b>5</b></r>");
    // In document order, the third child is an "a" but not the first one.
    EXPECT_STREQ(rk::ChildGetString(root.get(), "a"), "1");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "b"), "2");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "a"), "1");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "c"), "4");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "b"), "2");
    EXPECT_EQ(rk::ChildGetString(root.get(), "d"), nullptr);
    EXPECT_EQ(rk::ElemChild(root.get(), ""), nullptr);
    EXPECT_EQ(rk::ElemChild(root.get(), "ab"), nullptr);
    EXPECT_STREQ(rk::ChildGetString(root.get(), "a"), "1");
}

TEST(ChildLookup, FieldsReadInDocumentOrderAndOutOfIt) {
    std::string text = "<list>";
    for (int i = 0; i < 100; ++i) {
        const std::string n = std::to_string(i);
        text += "<item><name>n" + n + "</name><uuid>u" + n + "</uuid><size>" + n + "</size><used>" +
                n + "</used><online>true</online><mounts/></item>";
    }
    ElemPtr root = Parse(text + "</list>");
    const char* fields[] = {"name", "uuid", "size", "used", "online", "mounts"};
    for (uint32_t i = 0; i < root->childCount; ++i) {
        const rk_elem* item = root->children[i];
        for (const char* field : fields) {
            EXPECT_EQ(rk::ElemChild(item, field), FirstNamed(item, field)) << i << " " << field;
        }
        // Backwards, and a field that is not there.
        for (int f = 5; f >= 0; --f) {
            EXPECT_EQ(rk::ElemChild(item, fields[f]), FirstNamed(item, fields[f]));
        }
        EXPECT_EQ(rk::ElemChild(item, "absent"), nullptr);
    }
}

TEST(ChildLookup, ATreeChangedBetweenLookUps) {
    ElemPtr root = Parse("<r><a>1</a><b>2</b><b>3</b><c>4</c></r>");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "a"), "1");
    // The children move up one place.
    rk_elem* first = rk::ChildRemove(root.get(), root->children[0]);
    ASSERT_NE(rk::ChildAdd(root.get(), first), nullptr);
    EXPECT_STREQ(rk::ChildGetString(root.get(), "b"), "2");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "c"), "4");
    EXPECT_STREQ(rk::ChildGetString(root.get(), "a"), "1");
}

// Random children (names from a few, repeated) and random look-ups, on a parsed tree, on its
// copy, and on the tree after it changed.
TEST(ChildLookup, AnyOrderGivesWhatAWalkGives) {
    std::mt19937 random(7);
    const std::vector<std::string> names = {"a",    "b", "ab",   "ba",  "name",
                                            "nome", "x", "used", "uuid"};
    for (int round = 0; round < 50; ++round) {
        std::string text = "<r>";
        const int count = 1 + static_cast<int>(random() % 12);
        for (int i = 0; i < count; ++i) {
            const std::string& n = names[random() % names.size()];
            text += "<" + n + ">" + std::to_string(i) + "</" + n + ">";
        }
        ElemPtr root = Parse(text + "</r>");
        ElemPtr copy(rk::ElemCopy(root.get()));
        for (int step = 0; step < 200; ++step) {
            const std::string& n = names[random() % names.size()];
            ASSERT_EQ(rk::ElemChild(root.get(), n.c_str()), FirstNamed(root.get(), n)) << text;
            ASSERT_EQ(rk::ElemChild(copy.get(), n.c_str()), FirstNamed(copy.get(), n)) << text;
            if (step == 100 && root->childCount > 1) {
                // Changed between look-ups: a child moved to the end.
                rk_elem* first = rk::ChildRemove(root.get(), root->children[0]);
                ASSERT_NE(rk::ChildAdd(root.get(), first), nullptr);
            }
        }
    }
}

// A tree freed and another parsed after it may take the same addresses.
TEST(ChildLookup, ATreeParsedWhereAnotherWasFreed) {
    for (int round = 0; round < 20; ++round) {
        ElemPtr first = Parse("<r><a>1</a><b>2</b><c>3</c></r>");
        EXPECT_STREQ(rk::ChildGetString(first.get(), "a"), "1");
        EXPECT_STREQ(rk::ChildGetString(first.get(), "b"), "2");
        first.reset();
        ElemPtr second = Parse("<r><a>1</a><c>2</c><c>3</c></r>");
        EXPECT_STREQ(rk::ChildGetString(second.get(), "c"), "2");
        EXPECT_STREQ(rk::ChildGetString(second.get(), "a"), "1");
    }
}

}  // namespace
