// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Runs: the worlds of a seed one after the other, or a script.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/simulation/apart.h"

namespace simulation {

using Lines = std::vector<std::string>;  ///< of a script

/// How far a run goes; what is 0 is no limit.
struct Limits {
    std::uint64_t lines = 0;
    double seconds = 0;
};

/// The script of a world of a seed, with so many lines of chance at most.
Lines make_lines(std::uint64_t seed, std::uint64_t number, std::uint64_t most = ~0ull);

/// Runs the worlds of a seed.
Result run_seed(std::uint64_t seed, const Limits& limits);

/// Plays a script before the judge, on that site unless it makes its own. A line that is not
/// understood is a violation too.
Result run_lines(const Lines& lines, const app::Site& site);

/// The script with as few of its lines as still break the same rule; an equal input gives an equal
/// result. The `kept` last ones stay. Progress goes to standard error.
Lines shrink(Lines lines, std::size_t kept, const Violation& violation);

}  // namespace simulation
