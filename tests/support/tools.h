// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Programs that some tests ask for a second opinion.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string>

namespace support {

/// Which of these programs is missing, and where it is from; empty when none is.
inline std::string missing_program(std::initializer_list<const char*> programs) {
    for (const char* const program : programs)
        if (std::system(("command -v " + std::string(program) + " >/dev/null").c_str()) != 0)
            return std::string(program) +
                   " is not installed (opensm, ibsim-utils, infiniband-diags, tshark)";
    return {};
}

/// A test that needs them is skipped without, and fails where nobody would notice that.
#define SKIP_WITHOUT_PROGRAMS(...)                                                             \
    if (const std::string reason = support::missing_program({__VA_ARGS__}); !reason.empty()) { \
        if (const char* const ci = std::getenv("CI"); ci && std::string(ci) == "true")         \
            FAIL() << reason;                                                                  \
        GTEST_SKIP() << reason;                                                                \
    }

}  // namespace support
