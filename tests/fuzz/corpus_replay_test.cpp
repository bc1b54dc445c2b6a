// Replays every input of a fuzz target's committed corpus (fuzz/corpus/<target>/, the directory
// in TEZA_FUZZ_CORPUS) through the target's own LLVMFuzzerTestOneInput, linked into this test
// without libFuzzer. The target aborts when one of its invariants breaks, and the sanitizer
// builds of the suite report memory errors and leaks, so every input that once failed, and
// was added to the corpus, stays a regression test in every build of the suite.

#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Defined by the targets that need a start-up step.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::filesystem::path> CorpusFiles() {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(TEZA_FUZZ_CORPUS)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

TEST(FuzzCorpusReplay, EveryInputKeepsTheTargetsInvariants) {
    if (LLVMFuzzerInitialize != nullptr) {
        int argc = 0;
        char** argv = nullptr;
        ASSERT_EQ(LLVMFuzzerInitialize(&argc, &argv), 0);
    }
    std::vector<std::filesystem::path> files = CorpusFiles();
    // A wrong directory would otherwise pass with nothing replayed.
    ASSERT_GE(files.size(), 5u) << TEZA_FUZZ_CORPUS;
    for (const std::filesystem::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        ASSERT_TRUE(in) << file;
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        // An abort leaves no test report behind: name the input first.
        std::cerr << "replaying " << file.filename().string() << "\n";
        EXPECT_EQ(
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0)
            << file;
    }
}

}  // namespace
