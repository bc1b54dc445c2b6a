// Element trees of the client library: building, querying, iterating, writing as XML text,
// and result elements.

#include <gtest/gtest.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "rk.h"

namespace {

struct ElemDeleter {
    void operator()(rk_elem_t* e) const { rk_elem_free(e); }
};
using ElemPtr = std::unique_ptr<rk_elem_t, ElemDeleter>;

std::string Sprintf(rk_elem_t* elem) {
    char* text = rk_elem_sprintf(elem);
    std::string out = text == nullptr ? "(null)" : text;
    free(text);
    return out;
}

std::vector<std::string> ChildNames(rk_elem_t* elem) {
    std::vector<std::string> names;
    rk_iterator_t it = rk_child_iterator(elem);
    for (rk_elem_t* child = rk_iterator_next(&it); child != nullptr;
         child = rk_iterator_next(&it)) {
        names.push_back(rk_elem_get_name(child));
    }
    return names;
}

TEST(RkElement, NewElementHasNameAndEmptyContent) {
    ElemPtr e(rk_elem_new("volume-get"));
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(rk_elem_get_name(e.get()), "volume-get");
    EXPECT_STREQ(rk_elem_get_content(e.get()), "");
    EXPECT_EQ(rk_elem_child_count(e.get()), 0u);
}

TEST(RkElement, RefusesInvalidNames) {
    EXPECT_EQ(rk_elem_new(nullptr), nullptr);
    EXPECT_EQ(rk_elem_new(""), nullptr);
    EXPECT_EQ(rk_elem_new("1abc"), nullptr);
    EXPECT_EQ(rk_elem_new("a b"), nullptr);
    EXPECT_EQ(rk_elem_new("a<b"), nullptr);
    ElemPtr parent(rk_elem_new("p"));
    EXPECT_EQ(rk_child_add_string(parent.get(), "bad name", "v"), nullptr);
    EXPECT_EQ(rk_elem_child_count(parent.get()), 0u);
}

TEST(RkElement, ChildrenKeepOrderAndAreFoundByName) {
    ElemPtr root(rk_elem_new("root"));
    ASSERT_NE(rk_child_add_string(root.get(), "a", "1"), nullptr);
    ASSERT_NE(rk_child_add_bool(root.get(), "b", 1), nullptr);
    ASSERT_NE(rk_child_add_string(root.get(), "a", "2"), nullptr);
    rk_elem_t* nested = rk_elem_new("c");
    ASSERT_EQ(rk_child_add(root.get(), nested), nested);
    EXPECT_EQ(rk_elem_parent(nested), root.get());

    EXPECT_EQ(ChildNames(root.get()), (std::vector<std::string>{"a", "b", "a", "c"}));
    EXPECT_STREQ(rk_child_get_string(root.get(), "a"), "1");  // the first of that name
    EXPECT_STREQ(rk_child_get_string(root.get(), "b"), "true");
    EXPECT_EQ(rk_elem_child(root.get(), "c"), nested);
    EXPECT_EQ(rk_elem_child(root.get(), "missing"), nullptr);
    EXPECT_EQ(rk_child_get_string(root.get(), "missing"), nullptr);
    EXPECT_STREQ(rk_child_get_string(root.get(), "c"), "");  // present without text
}

TEST(RkElement, IteratorEndsWithNullAndStaysThere) {
    ElemPtr root(rk_elem_new("root"));
    rk_child_add_string(root.get(), "x", "1");
    rk_iterator_t it = rk_child_iterator(root.get());
    EXPECT_NE(rk_iterator_next(&it), nullptr);
    EXPECT_EQ(rk_iterator_next(&it), nullptr);
    EXPECT_EQ(rk_iterator_next(&it), nullptr);
    rk_iterator_t none = rk_child_iterator(nullptr);
    EXPECT_EQ(rk_iterator_next(&none), nullptr);
}

TEST(RkElement, LookupsOnNullElementReturnNullOrDefault) {
    EXPECT_EQ(rk_elem_get_name(nullptr), nullptr);
    EXPECT_EQ(rk_elem_get_content(nullptr), nullptr);
    EXPECT_EQ(rk_elem_child(nullptr, "a"), nullptr);
    EXPECT_EQ(rk_child_get_string(nullptr, "a"), nullptr);
    EXPECT_EQ(rk_child_get_string_encrypted(nullptr, "a", nullptr), nullptr);
    EXPECT_EQ(rk_child_get_bool(nullptr, "a", 7), 7);
    EXPECT_EQ(rk_elem_sprintf(nullptr), nullptr);
    EXPECT_EQ(rk_results_status(nullptr), 0);
    EXPECT_EQ(rk_results_reason(nullptr), nullptr);
    EXPECT_EQ(rk_results_errno(nullptr), 0);
    EXPECT_EQ(rk_child_add(nullptr, nullptr), nullptr);
    rk_elem_free(nullptr);
}

TEST(RkElement, ChildWithParentOrCycleIsRefused) {
    ElemPtr a(rk_elem_new("a"));
    ElemPtr b(rk_elem_new("b"));
    rk_elem_t* c = rk_elem_new("c");
    ASSERT_EQ(rk_child_add(a.get(), c), c);
    EXPECT_EQ(rk_child_add(b.get(), c), nullptr);  // already has a parent
    EXPECT_EQ(rk_child_add(c, a.get()), nullptr);  // would make a cycle
    EXPECT_EQ(rk_child_add(a.get(), a.get()), nullptr);
    EXPECT_EQ(rk_elem_child_count(b.get()), 0u);
}

TEST(RkElement, FreeingAnAttachedChildDetachesIt) {
    ElemPtr root(rk_elem_new("root"));
    rk_elem_t* child = rk_child_add_string(root.get(), "x", "1");
    rk_elem_free(child);
    EXPECT_EQ(rk_elem_child_count(root.get()), 0u);
}

TEST(RkElement, BooleansAreWrittenAndReadInTheLibrarysForm) {
    ElemPtr root(rk_elem_new("root"));
    rk_child_add_bool(root.get(), "t", 5);
    rk_child_add_bool(root.get(), "f", 0);
    EXPECT_STREQ(rk_child_get_string(root.get(), "t"), "true");
    EXPECT_STREQ(rk_child_get_string(root.get(), "f"), "false");
    const char* trueTexts[] = {"true", "TRUE", "Yes", "on", "ON", "1"};
    const char* falseTexts[] = {"false", "no", "off", "0", "", "2", "truth", " true"};
    for (const char* text : trueTexts) {
        ElemPtr e(rk_elem_new("e"));
        rk_child_add_string(e.get(), "v", text);
        EXPECT_EQ(rk_child_get_bool(e.get(), "v", 0), 1) << text;
    }
    for (const char* text : falseTexts) {
        ElemPtr e(rk_elem_new("e"));
        rk_child_add_string(e.get(), "v", text);
        EXPECT_EQ(rk_child_get_bool(e.get(), "v", 1), 0) << text;
    }
    EXPECT_EQ(rk_child_get_bool(root.get(), "missing", 1), 1);
    EXPECT_EQ(rk_child_get_bool(root.get(), "missing", 0), 0);
}

TEST(RkElement, SprintfIndentsNestedElements) {
    ElemPtr root(rk_elem_new("volume-create"));
    rk_child_add_string(root.get(), "name", "vol0");
    rk_elem_t* owner = rk_child_add(root.get(), rk_elem_new("owner"));
    rk_child_add_string(owner, "id", "7");
    rk_child_add(root.get(), rk_elem_new("empty"));
    EXPECT_EQ(Sprintf(root.get()),
              "<volume-create>\n"
              "  <name>vol0</name>\n"
              "  <owner>\n"
              "    <id>7</id>\n"
              "  </owner>\n"
              "  <empty/>\n"
              "</volume-create>\n");
}

TEST(RkElement, SprintfEscapesTextAndAttributes) {
    ElemPtr root(rk_elem_new("r"));
    rk_child_add_string(root.get(), "t", "a<b>&\"c'");
    rk_elem_set_attr(root.get(), "note", "x<&\"y");
    EXPECT_EQ(Sprintf(root.get()),
              "<r note=\"x&lt;&amp;&quot;y\">\n"
              "  <t>a&lt;b&gt;&amp;&quot;c&apos;</t>\n"
              "</r>\n");
    // The tree itself keeps the plain text.
    EXPECT_STREQ(rk_child_get_string(root.get(), "t"), "a<b>&\"c'");
}

TEST(RkElement, SetContentReplacesText) {
    ElemPtr e(rk_elem_new("e"));
    EXPECT_EQ(rk_elem_set_content(e.get(), "one"), 1);
    EXPECT_EQ(rk_elem_set_content(e.get(), "two"), 1);
    EXPECT_STREQ(rk_elem_get_content(e.get()), "two");
    EXPECT_EQ(rk_elem_set_content(nullptr, "x"), 0);
}

TEST(RkElement, AttributesAreSetReplacedAndRead) {
    ElemPtr e(rk_elem_new("e"));
    EXPECT_EQ(rk_elem_get_attr(e.get(), "a"), nullptr);
    EXPECT_EQ(rk_elem_set_attr(e.get(), "a", "1"), 1);
    EXPECT_EQ(rk_elem_set_attr(e.get(), "a", "2"), 1);
    EXPECT_STREQ(rk_elem_get_attr(e.get(), "a"), "2");
    EXPECT_EQ(rk_elem_set_attr(e.get(), "bad name", "1"), 0);
}

TEST(RkElement, CopyIsDeepAndIndependent) {
    ElemPtr root(rk_elem_new("r"));
    rk_elem_t* inner = rk_child_add(root.get(), rk_elem_new("inner"));
    rk_child_add_string(inner, "v", "1");
    ElemPtr copy(rk_elem_copy(root.get()));
    rk_elem_set_content(rk_elem_child(inner, "v"), "changed");
    EXPECT_STREQ(rk_child_get_string(rk_elem_child(copy.get(), "inner"), "v"), "1");
    EXPECT_EQ(rk_elem_parent(rk_elem_child(copy.get(), "inner")), copy.get());
}

ElemPtr Chain(int depth) {
    ElemPtr root(rk_elem_new("d"));
    rk_elem_t* e = root.get();
    for (int i = 1; i < depth; ++i) {
        e = rk_child_add(e, rk_elem_new("d"));
    }
    return root;
}

TEST(RkElement, VeryDeepTreesAreCopiedAndFreedWithoutRecursion) {
    ElemPtr root = Chain(200000);
    ElemPtr copy(rk_elem_copy(root.get()));
    ASSERT_NE(copy, nullptr);
}

TEST(RkElement, DeepTreesAreWrittenOut) {
    ElemPtr root = Chain(2000);
    char* text = rk_elem_sprintf(root.get());
    ASSERT_NE(text, nullptr);
    // One opening and one closing line per level, except the innermost "<d/>".
    EXPECT_EQ(std::count(text, text + strlen(text), '\n'), 2 * 2000 - 1);
    free(text);
}

TEST(RkResults, PassedAndFailedResults) {
    ElemPtr passed(rk_results_new_passed());
    EXPECT_EQ(rk_results_status(passed.get()), 1);
    EXPECT_EQ(rk_results_reason(passed.get()), nullptr);
    EXPECT_EQ(rk_results_errno(passed.get()), 0);

    ElemPtr failed(rk_results_new_failed("volume <vol0> & more", 13055));
    EXPECT_EQ(rk_results_status(failed.get()), 0);
    EXPECT_STREQ(rk_results_reason(failed.get()), "volume <vol0> & more");
    EXPECT_EQ(rk_results_errno(failed.get()), 13055);
    EXPECT_EQ(Sprintf(failed.get()),
              "<results status=\"failed\" reason=\"volume &lt;vol0&gt; &amp; more\" "
              "errno=\"13055\"/>\n");
}

// A parsed tree lives in storage of its own; every operation of the interface works on its
// elements as on elements made one by one, and elements move between the two freely.
ElemPtr ParseText(const std::string& text) {
    char error[256] = "";
    ElemPtr tree(rk_elem_parse(text.data(), text.size(), error, sizeof error));
    EXPECT_NE(tree, nullptr) << error;
    return tree;
}

TEST(RkParsedTree, DetachedSubtreeOutlivesItsTree) {
    ElemPtr tree = ParseText("<r><a x='1'><b>t</b></a><c/></r>");
    rk_elem_t* a = rk_elem_child(tree.get(), "a");
    ASSERT_EQ(rk_child_remove(tree.get(), a), a);
    tree.reset();  // the rest of the tree goes; the detached part keeps its storage
    ElemPtr owned(a);
    EXPECT_STREQ(rk_elem_get_attr(a, "x"), "1");
    EXPECT_STREQ(rk_child_get_string(a, "b"), "t");
    EXPECT_EQ(Sprintf(a), "<a x=\"1\">\n  <b>t</b>\n</a>\n");
}

TEST(RkParsedTree, ElementsMoveBetweenParsedAndBuiltTrees) {
    ElemPtr parsed = ParseText("<r><a>1</a><b>2</b></r>");
    ElemPtr built(rk_elem_new("built"));
    rk_child_add_string(built.get(), "own", "o");
    // Parsed into built, and built into parsed.
    rk_elem_t* a = rk_child_remove(parsed.get(), rk_elem_child(parsed.get(), "a"));
    ASSERT_EQ(rk_child_add(built.get(), a), a);
    rk_elem_t* own = rk_child_remove(built.get(), rk_elem_child(built.get(), "own"));
    ASSERT_EQ(rk_child_add(parsed.get(), own), own);
    for (int i = 0; i < 20; ++i) {  // the parsed element's child array grows
        rk_child_add_string(parsed.get(), "n", std::to_string(i).c_str());
    }
    EXPECT_EQ(rk_elem_child_count(parsed.get()), 22u);
    EXPECT_EQ(rk_elem_parent(a), built.get());
    EXPECT_EQ(Sprintf(built.get()), "<built>\n  <a>1</a>\n</built>\n");
    parsed.reset();
    EXPECT_STREQ(rk_elem_get_content(a), "1");
    // Freeing an attached parsed element detaches it from its built parent.
    rk_elem_free(a);
    EXPECT_EQ(rk_elem_child_count(built.get()), 0u);
}

TEST(RkParsedTree, ParsedElementsChangeLikeAnyOther) {
    ElemPtr tree = ParseText("<r s='&lt;'><t>x&amp;y</t></r>");
    rk_elem_t* t = rk_elem_child(tree.get(), "t");
    EXPECT_NE(rk_elem_set_content(t, "<plain>"), 0);
    EXPECT_NE(rk_elem_set_attr(tree.get(), "s", "a&b"), 0);
    EXPECT_NE(rk_elem_set_attr(tree.get(), "added", "v"), 0);
    EXPECT_NE(rk_elem_set_attr(t, "first", "1"), 0);
    EXPECT_EQ(Sprintf(tree.get()),
              "<r s=\"a&amp;b\" added=\"v\">\n  <t first=\"1\">&lt;plain&gt;</t>\n</r>\n");
    ElemPtr copy(rk_elem_copy(tree.get()));
    EXPECT_EQ(Sprintf(copy.get()), Sprintf(tree.get()));
    tree.reset();
    EXPECT_STREQ(rk_elem_get_attr(copy.get(), "s"), "a&b");
    // Children removed from the middle of a parsed element keep the order of the rest.
    ElemPtr list = ParseText("<l><i>0</i><i>1</i><i>2</i><i>3</i></l>");
    rk_iterator_t it = rk_child_iterator(list.get());
    rk_iterator_next(&it);
    rk_elem_t* one = rk_iterator_next(&it);
    rk_elem_free(one);
    std::string order;
    it = rk_child_iterator(list.get());
    for (rk_elem_t* i = rk_iterator_next(&it); i != nullptr; i = rk_iterator_next(&it)) {
        order += rk_elem_get_content(i);
    }
    EXPECT_EQ(order, "023");
}

TEST(RkParsedTree, ChangedTreesFreeAllTheyHold) {
    // A tree freed as it was parsed or copied goes at once; after any change, freeing it must
    // still free what the change added and leave what was taken out of it alive. A mistake
    // shows as a leak or a use after free under the sanitizers.
    const char text[] = "<r a='1'><b>x</b><c><d>y</d></c></r>";
    using Change = void (*)(rk_elem_t * root, std::vector<rk_elem_t*> * keep);
    const Change changes[] = {
        [](rk_elem_t* r, std::vector<rk_elem_t*>*) {
            rk_elem_set_content(rk_elem_child(r, "b"), "new text");
        },
        [](rk_elem_t* r, std::vector<rk_elem_t*>*) { rk_elem_set_attr(r, "a", "2"); },
        [](rk_elem_t* r, std::vector<rk_elem_t*>*) {
            rk_elem_set_attr(rk_elem_child(r, "c"), "added", "v");
        },
        [](rk_elem_t* r, std::vector<rk_elem_t*>*) {
            rk_child_add_string(rk_elem_child(r, "c"), "e", "built");
        },
        [](rk_elem_t* r, std::vector<rk_elem_t*>* keep) {
            keep->push_back(
                rk_child_remove(rk_elem_child(r, "c"), rk_elem_child(rk_elem_child(r, "c"), "d")));
        },
        [](rk_elem_t* r, std::vector<rk_elem_t*>* keep) {
            keep->push_back(rk_child_remove(r, rk_elem_child(r, "b")));
        },
        [](rk_elem_t* r, std::vector<rk_elem_t*>*) {
            ElemPtr other(rk_elem_parse("<o><p/></o>", 11, nullptr, 0));
            rk_child_add(r, other.release());
        },
    };
    for (const Change& change : changes) {
        for (bool copied : {false, true}) {
            ElemPtr parsed(rk_elem_parse(text, sizeof(text) - 1, nullptr, 0));
            ASSERT_NE(parsed, nullptr);
            ElemPtr tree(copied ? rk_elem_copy(parsed.get()) : parsed.release());
            std::vector<rk_elem_t*> kept;
            change(tree.get(), &kept);
            const std::string written = Sprintf(tree.get());
            tree.reset();
            for (rk_elem_t* part : kept) {
                ASSERT_NE(part, nullptr);
                EXPECT_FALSE(Sprintf(part).empty());
                EXPECT_NE(rk_elem_get_name(part), nullptr);
                rk_elem_free(part);
            }
            EXPECT_NE(written.find("<r"), std::string::npos);
        }
    }
    // A parsed tree put whole into another goes with it.
    ElemPtr outer(rk_elem_new("outer"));
    rk_child_add(outer.get(), rk_elem_parse(text, sizeof(text) - 1, nullptr, 0));
    EXPECT_EQ(rk_elem_child_count(outer.get()), 1u);
}

TEST(RkParsedTree, SubtreesOfOneTreeAreFreedOnTwoThreadsAtOnce) {
    // Two detached parts of one parsed tree share its storage; each thread uses its own.
    for (int round = 0; round < 50; ++round) {
        std::string text = "<r>";
        for (int i = 0; i < 200; ++i) {
            text += "<a><b>x</b></a>";
        }
        text += "</r>";
        ElemPtr tree = ParseText(text);
        std::vector<rk_elem_t*> parts;
        while (rk_elem_child_count(tree.get()) > 0) {
            rk_elem_t* child = rk_elem_child(tree.get(), "a");
            parts.push_back(rk_child_remove(tree.get(), child));
        }
        tree.reset();
        std::thread first([&] {
            for (size_t i = 0; i < parts.size(); i += 2) {
                rk_elem_free(parts[i]);
            }
        });
        std::thread second([&] {
            for (size_t i = 1; i < parts.size(); i += 2) {
                rk_elem_free(parts[i]);
            }
        });
        first.join();
        second.join();
    }
}

// A tree built through the interface: a root and `count` children with texts and a nested
// element each.
ElemPtr BuiltTree(int count) {
    ElemPtr root(rk_elem_new("root"));
    for (int i = 0; i < count; ++i) {
        rk_elem_t* item = rk_child_add_string(root.get(), "item", "");
        rk_child_add_string(item, "name", ("item-" + std::to_string(i)).c_str());
        rk_child_add_bool(rk_child_add_string(item, "nested", ""), "on", i % 2);
    }
    return root;
}

TEST(RkBuiltTree, ElementsOutliveTheTreeTheyWereMovedOutOf) {
    ElemPtr tree = BuiltTree(100);
    ElemPtr other(rk_elem_new("other"));
    rk_elem_t* moved = rk_child_remove(tree.get(), rk_elem_child(tree.get(), "item"));
    ASSERT_NE(rk_child_add(other.get(), moved), nullptr);
    ElemPtr detached(rk_child_remove(tree.get(), rk_elem_child(tree.get(), "item")));
    ElemPtr copy(rk_elem_copy(tree.get()));
    const std::string copied = Sprintf(copy.get());
    tree.reset();
    // What was moved, detached or copied stays whole and takes new children.
    EXPECT_STREQ(rk_child_get_string(moved, "name"), "item-0");
    EXPECT_STREQ(rk_child_get_string(detached.get(), "name"), "item-1");
    ASSERT_NE(rk_child_add_string(moved, "more", "a < b"), nullptr);
    ASSERT_NE(rk_child_add_string(detached.get(), "more", "c"), nullptr);
    EXPECT_NE(Sprintf(other.get()).find("<more>a &lt; b</more>"), std::string::npos);
    EXPECT_EQ(Sprintf(copy.get()), copied);
    EXPECT_EQ(rk_elem_child_count(copy.get()), 98u);
    // Freed apart, in any order.
    rk_elem_free(rk_child_remove(other.get(), moved));
    detached.reset();
    other.reset();
}

TEST(RkBuiltTree, SubtreesOfOneBuiltTreeGrowOnTwoThreadsAtOnce) {
    // Each thread adds children under its own detached part of one built tree, whose root
    // is still used by this thread.
    ElemPtr tree = BuiltTree(2);
    ElemPtr first(rk_child_remove(tree.get(), rk_elem_child(tree.get(), "item")));
    ElemPtr second(rk_child_remove(tree.get(), rk_elem_child(tree.get(), "item")));
    auto grow = [](rk_elem_t* elem) {
        for (int i = 0; i < 2000; ++i) {
            rk_child_add_string(elem, "x", "text");
        }
    };
    std::thread one([&] { grow(first.get()); });
    std::thread two([&] { grow(second.get()); });
    grow(tree.get());
    one.join();
    two.join();
    EXPECT_EQ(rk_elem_child_count(first.get()), 2002u);
    EXPECT_EQ(rk_elem_child_count(second.get()), 2002u);
    EXPECT_EQ(rk_elem_child_count(tree.get()), 2000u);
}

TEST(RkBuiltTree, ChildrenAddedAndRemovedUnderALongKeptRootTakeNoMoreMemory) {
    ElemPtr root(rk_elem_new("root"));
    rk_child_add_string(root.get(), "kept", "value");
    auto cycle = [&root](int times) {
        for (int i = 0; i < times; ++i) {
            rk_elem_free(rk_child_add_string(root.get(), "passing", "a text of some length"));
        }
    };
    // Bytes allocated, small and large.
    auto allocated = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    cycle(10000);
    const size_t before = allocated();
    cycle(200000);
    // 200,000 children of about 80 bytes each would take 16 MB if their memory stayed.
    EXPECT_LT(allocated(), before + (1u << 20));
    EXPECT_EQ(rk_elem_child_count(root.get()), 1u);
}

// Bytes the C library has handed out, small and large.
size_t AllocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// How an item built apart may have changed before it is attached to the list (the runtime
// writes nested records this way: a new element, filled, then attached).
enum class ItemChange {
    None,
    ContentSet,
    AttributeSet,
    ForeignChildAdded,
    ChildDetached,
    GrownAfterAttaching
};

TEST(RkBuiltTree, ItemsBuiltApartAndAttachedAreFreedWithTheTreeWhateverChangedThem) {
    const std::string big(256 << 10, 'x');  // what would stay behind if a change were missed
    for (ItemChange change : {ItemChange::None, ItemChange::ContentSet, ItemChange::AttributeSet,
                              ItemChange::ForeignChildAdded, ItemChange::ChildDetached,
                              ItemChange::GrownAfterAttaching}) {
        SCOPED_TRACE(static_cast<int>(change));
        const size_t before = AllocatedBytes();
        std::vector<ElemPtr> kept;
        ElemPtr root(rk_elem_new("root"));
        rk_elem_t* list = rk_child_add_string(root.get(), "items", "");
        for (int i = 0; i < 64; ++i) {
            rk_elem_t* item = rk_elem_new("item");
            rk_child_add_string(item, "id", std::to_string(i).c_str());
            rk_elem_t* name = rk_child_add_string(item, "name", "a & b");
            rk_child_add_bool(item, "on", i % 2);
            switch (change) {
                case ItemChange::ContentSet:
                    ASSERT_EQ(rk_elem_set_content(name, big.c_str()), 1);
                    break;
                case ItemChange::AttributeSet:
                    ASSERT_EQ(rk_elem_set_attr(name, "a", big.c_str()), 1);
                    break;
                case ItemChange::ForeignChildAdded: {
                    rk_elem_t* foreign = rk_elem_new("foreign");
                    ASSERT_EQ(rk_elem_set_content(foreign, big.c_str()), 1);
                    ASSERT_NE(rk_child_add(item, foreign), nullptr);
                    break;
                }
                case ItemChange::ChildDetached:
                    kept.emplace_back(rk_child_remove(item, name));
                    break;
                default:
                    break;
            }
            ASSERT_NE(rk_child_add(list, item), nullptr);
            if (change == ItemChange::GrownAfterAttaching) {
                ASSERT_NE(rk_child_add_string(item, "late", big.c_str()), nullptr);
            }
        }
        EXPECT_NE(Sprintf(root.get()).find("<id>63</id>"), std::string::npos);
        root.reset();
        // Detached parts outlive the tree they came from.
        for (const ElemPtr& part : kept) {
            EXPECT_STREQ(rk_elem_get_name(part.get()), "name");
            EXPECT_STREQ(rk_elem_get_content(part.get()), "a & b");
        }
        kept.clear();
        // Everything went with the tree: 64 large texts left behind would be 16 MB.
        EXPECT_LT(AllocatedBytes(), before + (1u << 20));
    }
}

TEST(RkBuiltTree, ChildListsGrowAndShrinkInAnyOrder) {
    // Children added and removed at random under the parents of a built tree, one of them
    // detached half-way (it then grows apart from the tree), against a list kept aside.
    ElemPtr root(rk_elem_new("root"));
    std::vector<rk_elem_t*> parents;
    std::vector<std::vector<std::string>> expected(4);
    for (int i = 0; i < 4; ++i) {
        parents.push_back(rk_child_add_string(root.get(), "parent", ""));
    }
    ElemPtr detached;
    unsigned state = 12345;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 8;
    };
    for (int step = 0; step < 20000; ++step) {
        if (step == 10000) {
            detached.reset(rk_child_remove(root.get(), parents[3]));
        }
        const size_t p = next() % 4;
        std::vector<std::string>& names = expected[p];
        if (!names.empty() && next() % 3 == 0) {
            const size_t at = next() % names.size();
            rk_iterator_t it = rk_child_iterator(parents[p]);
            rk_elem_t* child = nullptr;
            for (size_t i = 0; i <= at; ++i) {
                child = rk_iterator_next(&it);
            }
            rk_elem_free(rk_child_remove(parents[p], child));
            names.erase(names.begin() + static_cast<std::ptrdiff_t>(at));
        } else {
            const std::string name = "c" + std::to_string(step);
            ASSERT_NE(rk_child_add_string(parents[p], name.c_str(), "t"), nullptr);
            names.push_back(name);
        }
    }
    for (size_t p = 0; p < 4; ++p) {
        EXPECT_EQ(ChildNames(parents[p]), expected[p]) << "parent " << p;
    }
    root.reset();
    EXPECT_EQ(ChildNames(detached.get()), expected[3]);
}

TEST(RkStartup, StartupAndShutdown) {
    char error[256] = "untouched";
    EXPECT_NE(rk_startup(error, sizeof(error)), 0);
    EXPECT_NE(rk_is_started(), 0);
    EXPECT_NE(rk_startup(error, sizeof(error)), 0);  // a second start is harmless
    rk_shutdown();
    EXPECT_EQ(rk_is_started(), 0);
}

}  // namespace
