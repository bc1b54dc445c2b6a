// The memory of a large answer: a parse that gives the document's pages back as it moves past
// them reads the same tree (and the same faults) as one that keeps them, and does give them
// back; a large tree's storage goes back to the system when the tree is freed.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "rk_internal.h"
#include "sanitized.h"

namespace {

struct ElemDeleter {
    void operator()(rk_elem* e) const { rk::ElemFree(e); }
};
using ElemPtr = std::unique_ptr<rk_elem, ElemDeleter>;

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));

// A document in a private anonymous mapping of its own, as librk receives a large answer.
class MappedDocument {
  public:
    explicit MappedDocument(const std::string& text) : _size(text.size()) {
        void* p = mmap(nullptr, _size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(p, MAP_FAILED);
        _data = static_cast<char*>(p);
        memcpy(_data, text.data(), _size);
    }
    ~MappedDocument() { munmap(_data, _size); }
    MappedDocument(const MappedDocument&) = delete;
    MappedDocument& operator=(const MappedDocument&) = delete;
    const char* data() const { return _data; }
    size_t size() const { return _size; }
    // The share of its pages resident in memory.
    double Resident() const {
        const size_t pages = (_size + kPage - 1) / kPage;
        std::vector<unsigned char> in(pages);
        EXPECT_EQ(mincore(_data, _size, in.data()), 0);
        size_t resident = 0;
        for (unsigned char c : in) {
            resident += c & 1;
        }
        return static_cast<double>(resident) / static_cast<double>(pages);
    }

  private:
    char* _data;
    size_t _size;
};

// Many records between the start tags and first texts of open elements and their end: the
// parse reads those names and texts again megabytes later.
std::string Records(size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += "<volume id=\"" + std::to_string(i) + "\"><name>volume-" + std::to_string(i) +
                "</name><size>" + std::to_string(i << 20) + "</size><online>true</online></volume>";
    }
    return text;
}

std::string Written(const rk_elem* root) {
    std::string out;
    rk::WriteXml(root, &out);
    return out;
}

struct Outcome {
    std::string tree;  // the tree written back, when parsed
    int code = 0;
    std::string reason;
};

Outcome Parse(const char* text, size_t len, bool discard) {
    rk::ParseError error;
    ElemPtr root(
        rk::ParseXml(text, len, rk::ParseLimits::ForSize(RK_PARSE_MAX_BYTES), &error, discard));
    Outcome outcome;
    if (root != nullptr) {
        outcome.tree = Written(root.get());
    }
    outcome.code = error.code;
    outcome.reason = error.reason;
    return outcome;
}

// Compares two trees written back, naming the first difference (a diff of megabytes would
// take gtest minutes).
void ExpectSameTree(const std::string& actual, const std::string& expected) {
    if (actual == expected) {
        return;
    }
    size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) {
        ++at;
    }
    ADD_FAILURE() << "the trees differ from byte " << at << " on: \"" << actual.substr(at, 60)
                  << "\" against \"" << expected.substr(at, 60) << "\"";
}

// Parses `text` from a mapping, giving pages back, and from a string, keeping them: the same
// tree or the same error.
void ExpectSameParse(const std::string& text) {
    MappedDocument mapped(text);
    const Outcome kept = Parse(text.data(), text.size(), false);
    const Outcome discarded = Parse(mapped.data(), mapped.size(), true);
    EXPECT_EQ(discarded.code, kept.code);
    EXPECT_EQ(discarded.reason, kept.reason);
    ExpectSameTree(discarded.tree, kept.tree);
}

TEST(LargeAnswerMemory, GivingPagesBackKeepsWhatTheParseReadsAgain) {
    // The root's and the list's first texts and names stand at the start; the list's text is
    // joined with its tail at the end, the root's read at its end tag.
    // Comments of a few pages between them put each name and text on pages of its own.
    const std::string pad = "<!--" + std::string(3 * kPage, 'x') + "-->";
    const std::string records = Records(40000);
    ASSERT_GT(records.size(), 3 * (1u << 20));
    const std::string head = "<?xml version=\"1.0\"?>\n<results status=\"passed\">" + pad +
                             "text of the root" + pad + "<a-list-with-a-long-name>" + pad +
                             "lead of the list" + pad;
    ExpectSameParse(head + records + "tail of the list</a-list-with-a-long-name></results>");
    // Open elements nested at several depths, each with a first text.
    std::string nested = "<r>r0";
    for (int d = 0; d < 20; ++d) {
        nested += "<level" + std::to_string(d) + ">" + pad + "text " + std::to_string(d) + pad;
    }
    nested += records;
    for (int d = 19; d >= 0; --d) {
        nested += "</level" + std::to_string(d) + ">";
    }
    ExpectSameParse(nested + "</r>");
}

TEST(LargeAnswerMemory, GivingPagesBackKeepsLongNamesOfTheTagBeingRead) {
    // Names of several pages each, so that some start tag is being read where pages are given
    // back: its name, behind the parse's position, is read again to make its element.
    std::string text = "<r>";
    for (int i = 0; i < 400; ++i) {
        const std::string name = "n" + std::to_string(i) + std::string(5 * kPage, 'a');
        text += i % 2 == 0 ? "<" + name + ">v</" + name + ">" : "<" + name + "/>";
    }
    ASSERT_GT(text.size(), 8u << 20);
    ExpectSameParse(text + "</r>");
}

TEST(LargeAnswerMemory, GivingPagesBackKeepsTheFaultsAsTheyAre) {
    const std::string pad = "<!--" + std::string(3 * kPage, 'x') + "-->";
    const std::string records = Records(40000);
    const std::string head = "<results status=\"passed\">" + pad + "root text" + pad + "<volumes>";
    // An end tag that does not match names the open element, whose start tag is megabytes back.
    ExpectSameParse(head + records + "</volume></results>");
    // An element left open, named in the fault.
    ExpectSameParse(head + records);
    // A fault late in the document, by its offset.
    ExpectSameParse(head + records + "<bad attr=x/></volumes></results>");
}

TEST(LargeAnswerMemory, TheParseGivesTheDocumentsPagesBack) {
    const std::string text =
        "<results status=\"passed\"><volumes>" + Records(60000) + "</volumes></results>";
    MappedDocument kept(text);
    MappedDocument given(text);
    ASSERT_GT(kept.Resident(), 0.99);
    ASSERT_GT(given.Resident(), 0.99);
    const Outcome keptOutcome = Parse(kept.data(), kept.size(), false);
    const Outcome givenOutcome = Parse(given.data(), given.size(), true);
    ASSERT_EQ(givenOutcome.code, 0) << givenOutcome.reason;
    ExpectSameTree(givenOutcome.tree, keptOutcome.tree);
    EXPECT_GT(kept.Resident(), 0.99);
    // All but the last megabyte or so and a page here and there.
    EXPECT_LT(given.Resident(), 0.4);
}

// The resident size of this process in bytes.
size_t ResidentBytes() {
    FILE* f = fopen("/proc/self/statm", "r");
    if (f == nullptr) {
        return 0;
    }
    unsigned long size = 0;
    unsigned long resident = 0;
    if (fscanf(f, "%lu %lu", &size, &resident) != 2) {
        resident = 0;
    }
    fclose(f);
    return resident * kPage;
}

TEST(LargeAnswerMemory, AFreedLargeTreeGoesBackToTheSystem) {
    if (teza_test::kSanitized) {
        GTEST_SKIP() << "a sanitizer's allocator holds memory its own way";
    }
    // In a child process, whose allocator starts fresh. The C library's allocator raises its
    // threshold for mapping blocks to the size of each mapped block freed; after a large
    // block was freed, a tree taken from its heap stays resident when freed if anything was
    // allocated after it (as the records read from an answer are).
    const std::string text =
        "<results status=\"passed\"><volumes>" + Records(100000) + "</volumes></results>";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        free(malloc(16u << 20));
        rk::ParseError error;
        rk_elem* root =
            rk::ParseXml(text.data(), text.size(), rk::ParseLimits::ForSize(64u << 20), &error);
        if (root == nullptr) {
            _exit(2);
        }
        const size_t withTree = ResidentBytes();
        std::vector<char*> records;
        for (int i = 0; i < 1000; ++i) {
            records.push_back(static_cast<char*>(malloc(64)));
            records.back()[0] = 1;
        }
        // Freed element by element: a detached child makes the tree no longer as parsed.
        rk_elem* volumes = rk::ElemChild(root, "volumes");
        rk::ElemFree(rk::ChildRemove(volumes, volumes->children[0]));
        rk::ElemFree(root);
        const size_t freed = ResidentBytes();
        for (char* r : records) {
            free(r);
        }
        // The tree took tens of megabytes; nearly all of it is gone.
        _exit(withTree > freed + (20u << 20) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
