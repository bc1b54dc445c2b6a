// Shared main of the test executables.

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Some suites start threads; the thread-safe style re-executes the test binary for each
    // death test instead of forking a process that has threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
