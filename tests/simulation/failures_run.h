// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// One run of a script with one call failing, in a process of its own: when the strict kernel or a
// sanitizer ends it, or when it does not end, that is this run's outcome and not the table's end.
#pragma once

#include <string>
#include <vector>

namespace simulation {

/// The `n`-th call of a service fails; the 0th: none does.
struct Fault {
    std::string service;
    unsigned long n;
};

struct Run {
    bool struck = false;  ///< the call that was to fail was made
    bool ended = false;   ///< it came to its end by itself
    std::string outcome;  ///< what followed the failure, for the table
    std::vector<std::string> violations;
};

Run run_apart(const std::string& script, const Fault& fault);

}  // namespace simulation
