// A tree built through the interface keeps its attributes in its root's arena, so that the tree
// stays whole and is freed at once: results made by a server, attributes set on any of its
// elements, lists of attributes that grow and values that change. Where the arena cannot take
// them (too large, a parsed tree, an element from another tree) they take memory of their own.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "rk_internal.h"

namespace {

struct ElemDeleter {
    void operator()(rk_elem* e) const { rk::ElemFree(e); }
};
using ElemPtr = std::unique_ptr<rk_elem, ElemDeleter>;

bool Whole(const rk_elem* root) {
    return root->arena != nullptr && root->arena->IsIntactRoot(root);
}

TEST(BuiltTreeArena, ResultsMadeByAServerStayWhole) {
    ElemPtr passed(rk::ResultsNewPassed());
    EXPECT_TRUE(Whole(passed.get()));
    EXPECT_STREQ(rk::ElemGetAttr(passed.get(), "status"), "passed");
    rk::ChildAddString(passed.get(), "volumes", "");
    EXPECT_TRUE(Whole(passed.get()));

    ElemPtr failed(rk::ResultsNewFailed("no such volume", 15010));
    EXPECT_TRUE(Whole(failed.get()));
    EXPECT_STREQ(rk::ElemGetAttr(failed.get(), "status"), "failed");
    EXPECT_STREQ(rk::ElemGetAttr(failed.get(), "reason"), "no such volume");
    EXPECT_STREQ(rk::ElemGetAttr(failed.get(), "errno"), "15010");
}

TEST(BuiltTreeArena, AttributesGrowAndChangeInTheArena) {
    ElemPtr root(rk::ElemNew("root"));
    rk_elem* child = rk::ChildAddString(root.get(), "child", "text");
    // Past the first lists' sizes (4, 8), every value replaced once.
    for (int i = 0; i < 11; ++i) {
        const std::string name = "a" + std::to_string(i);
        ASSERT_TRUE(rk::ElemSetAttr(child, name.c_str(), std::to_string(i).c_str()));
        ASSERT_TRUE(rk::ElemSetAttr(root.get(), name.c_str(), "first"));
        ASSERT_TRUE(rk::ElemSetAttr(root.get(), name.c_str(), ""));
    }
    EXPECT_TRUE(Whole(root.get()));
    EXPECT_EQ(child->ownsAttributes, 0u);
    ASSERT_EQ(child->attrCount, 11u);
    for (int i = 0; i < 11; ++i) {
        const std::string name = "a" + std::to_string(i);
        EXPECT_STREQ(rk::ElemGetAttr(child, name.c_str()), std::to_string(i).c_str());
        EXPECT_STREQ(rk::ElemGetAttr(root.get(), name.c_str()), "");
        EXPECT_FALSE(child->attributes[i].ownsName || child->attributes[i].ownsValue);
    }
}

TEST(BuiltTreeArena, AnAttributeTheArenaCannotTakeHasMemoryOfItsOwn) {
    ElemPtr root(rk::ElemNew("root"));
    rk_elem* child = rk::ChildAddString(root.get(), "child", "");
    ASSERT_TRUE(rk::ElemSetAttr(child, "small", "1"));
    const std::string large(1u << 20, 'x');  // beyond what a tree this small may take
    ASSERT_TRUE(rk::ElemSetAttr(child, "large", large.c_str()));
    EXPECT_FALSE(Whole(root.get())) << "freed by a walk that frees the value too";
    EXPECT_EQ(child->ownsAttributes, 1u);
    EXPECT_STREQ(rk::ElemGetAttr(child, "small"), "1");
    EXPECT_EQ(rk::ElemGetAttr(child, "large"), large);
    // The list is the element's own from then on, whatever is set next.
    ASSERT_TRUE(rk::ElemSetAttr(child, "after", "2"));
    EXPECT_EQ(child->ownsAttributes, 1u);
    EXPECT_STREQ(rk::ElemGetAttr(child, "after"), "2");
}

TEST(BuiltTreeArena, AValueOfItsOwnIsReplacedAndFreedAsSuch) {
    // A value too large for the arena gets memory of its own; a small one set after it
    // replaces and frees it, and freeing the tree frees nothing else.
    ElemPtr root(rk::ElemNew("r"));
    ASSERT_TRUE(rk::ElemSetAttr(root.get(), "a", "x"));
    const std::string large(100u << 10, 'v');
    ASSERT_TRUE(rk::ElemSetAttr(root.get(), "a", large.c_str()));
    EXPECT_TRUE(root->attributes[0].ownsValue);
    ASSERT_TRUE(rk::ElemSetAttr(root.get(), "a", "y"));
    EXPECT_STREQ(rk::ElemGetAttr(root.get(), "a"), "y");
    ASSERT_TRUE(rk::ElemSetAttr(root.get(), "b", "z"));
    EXPECT_STREQ(rk::ElemGetAttr(root.get(), "b"), "z");
}

TEST(BuiltTreeArena, AParsedTreeAndAnElementFromAnotherTreeKeepTheirOwnWay) {
    rk::ParseError error;
    const std::string text = "<r a=\"1\"><c b=\"2\"/></r>";
    ElemPtr parsed(
        rk::ParseXml(text.data(), text.size(), rk::ParseLimits::ForSize(1u << 20), &error));
    ASSERT_NE(parsed, nullptr) << error.reason;
    ASSERT_TRUE(rk::ElemSetAttr(parsed->children[0], "b", "3"));
    ASSERT_TRUE(rk::ElemSetAttr(parsed->children[0], "d", "4"));
    EXPECT_STREQ(rk::ElemGetAttr(parsed->children[0], "b"), "3");
    EXPECT_STREQ(rk::ElemGetAttr(parsed->children[0], "d"), "4");
    EXPECT_EQ(parsed->children[0]->ownsAttributes, 1u);

    // An element built in one tree and attached to another: its arena serves the first.
    ElemPtr target(rk::ElemNew("target"));
    rk_elem* moved = rk::ElemNew("moved");
    rk::ChildAdd(target.get(), moved);
    ASSERT_TRUE(rk::ElemSetAttr(moved, "a", "1"));
    EXPECT_STREQ(rk::ElemGetAttr(moved, "a"), "1");
    EXPECT_EQ(moved->ownsAttributes, 1u);
}

}  // namespace
