// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Runs a program as a user does, from a shell.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace support {

/// A file of the running test's own, or of the program's where no test runs.
inline std::string temporary(const std::string& name) {
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    std::string path = test ? std::string(test->test_suite_name()) + "." + test->name()
                            : program_invocation_short_name;
    path += "." + name;
    std::ranges::replace(path, '/', '.');
    return testing::TempDir() + path;
}

inline std::string read_file(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

struct Result {
    int status;  ///< of its exit; -1: it was ended by a signal
    std::string out;
    std::string err;
};

inline Result shell(const std::string& command) {
    const std::string out = temporary("out"), err = temporary("err");
    const int status = std::system(("{ " + command + "; } >" + out + " 2>" + err).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
}

}  // namespace support
