// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A program of tests: all of them, or with names of sources as arguments (cache_test), those that
// stand there. GoogleTest's own options are taken as well.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <string>

namespace {

/// The filter that chooses the tests of those sources; empty when there are none.
std::string tests_of(const std::set<std::string>& sources) {
    std::string filter;
    const auto& program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        const testing::TestSuite& suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j)
            if (const testing::TestInfo& test = *suite.GetTestInfo(j);
                sources.contains(std::filesystem::path(test.file()).stem()))
                filter += std::string(suite.name()) + "." + test.name() + ":";
    }
    return filter;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc == 1)
        return RUN_ALL_TESTS();
    const std::string filter = tests_of({argv + 1, argv + argc});
    if (filter.empty()) {
        std::fprintf(stderr, "there are no tests in %s\n", argv[1]);
        return 2;
    }
    // A filter that was given is narrower; so is that of a death test's own process.
    if (GTEST_FLAG_GET(filter) == "*")
        GTEST_FLAG_SET(filter, filter);
    return RUN_ALL_TESTS();
}
