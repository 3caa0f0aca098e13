// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// One run of a scenario with one call failing, in a process of its own: when the strict kernel or a
// sanitizer ends it, or when it does not end, that is this run's outcome and not the table's end.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/simulation/failures_scenarios.h"

namespace soak {

struct Run {
    bool hit = false;                  ///< the call that was to fail was made
    std::string where;                 ///< and what was running then
    std::string outcome;               ///< one line for the table
    std::optional<std::size_t> place;  ///< of the table of places, where the fault was
    std::vector<std::string> violations;
    std::map<std::string, unsigned long> calls;  ///< of each service by the scenario itself
};

Run run_apart(const Scenario& scenario, const Fault& fault);

}  // namespace soak
