// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Every failure in turn: each service of the kernel that can fail is made to fail at its n-th call,
// for n = 1, 2, 3, ..., in each of a set of scenarios, until the scenario runs through.
#pragma once

#include <cstdio>
#include <string>

namespace soak {

struct FailureOptions {
    bool brief = false;    ///< one line a service instead of one a run
    std::string scenario;  ///< the only one to play; empty: all of them
};

/// Prints the table of the runs to `out`. 0 when no run broke a rule and, where all scenarios were
/// played, every service failed in every place in which it can; else 1. 2, and a message on
/// standard error, for a scenario that there is not.
int run_failures(const FailureOptions& options, std::FILE* out);

}  // namespace soak
