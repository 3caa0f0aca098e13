// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Runs: the worlds of a seed one after the other, in a process of their own, so that a broken rule
// of the kernel, which ends a process, is found like any other violation.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "tests/simulation/outcome.h"
#include "tests/simulation/simulation.h"
#include "tests/simulation/step.h"

namespace soak {

/// How far a run goes; what is 0 is no limit.
struct Limits {
    std::uint64_t steps = 0;
    double seconds = 0;
};

struct Result {
    std::uint64_t steps = 0;
    double seconds = 0;  ///< that it took
    std::uint64_t digest = 0;
    std::array<std::uint64_t, kinds> taken{};  ///< steps of each kind
    Tally tally;

    std::optional<Violation> violation;
    std::uint64_t world = 0;          ///< that it was found in, from 0
    std::uint64_t step_of_world = 0;  ///< at which of its steps, from 1; one more: at its end
};

/// The n-th world of a seed; `steps` 0: with all of its steps.
Episode make_episode(std::uint64_t seed, std::uint64_t n, std::uint64_t steps = 0);

/// Runs the worlds of a seed.
Result run_seed(std::uint64_t seed, const Limits& limits);

/// Runs one world.
Result run_episode(const Episode& episode);

/// The episode with as few of its steps as still break the rule of that name; an equal input gives
/// an equal result. Progress goes to standard error.
Episode shrink(Episode episode, const std::string& violation);

}  // namespace soak
