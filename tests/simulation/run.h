// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Runs: the worlds of a seed one after the other, in a process of their own, so that a broken rule
// of the kernel, which ends a process, is found like any other violation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/simulation/counts.h"
#include "tests/simulation/judge.h"

namespace simulation {

using Lines = std::vector<std::string>;  ///< of a script

/// How far a run goes; what is 0 is no limit.
struct Limits {
    std::uint64_t lines = 0;
    double seconds = 0;
};

struct Result {
    std::uint64_t lines = 0;
    double seconds = 0;  ///< that it took
    std::uint64_t digest = 0;
    Counts counts;

    std::optional<Violation> violation;
    std::uint64_t world = 0;          ///< that it was found in, from 0
    std::uint64_t line_of_world = 0;  ///< at which of its lines, from 1
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
