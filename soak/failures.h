// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Every failure in turn: each service of the kernel that can fail is made to fail at its n-th call,
// for n = 1, 2, 3, ..., in each of a set of scenarios, until the scenario runs through.
#pragma once

#include <cstdio>

namespace soak {

struct FailureOptions {
    bool brief = false;  ///< one line a service instead of one a run
};

/// Prints the table of the runs to `out`. 0 when no run broke a rule, else 1.
int run_failures(const FailureOptions& options, std::FILE* out);

}  // namespace soak
