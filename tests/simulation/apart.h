// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A run in a process of its own, so that a broken rule of the kernel or a finding of a sanitizer,
// which end a process, and a loop without an end are found like any other violation.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>

#include "tests/simulation/counts.h"
#include "tests/simulation/judge.h"

namespace simulation {

/// What the running process leaves behind for the one that watches it, however it ends.
struct Board {
    static constexpr std::size_t most_said = 8000;  ///< bytes of what a dying run says

    std::atomic<std::uint64_t> lines;  ///< that were played
    std::uint64_t world;
    std::uint64_t line_of_world;
    std::uint64_t digest;
    bool struck;  ///< the call that was to fail was made
    Counts counts;
    bool violated;
    char name[64];
    char text[most_said];

    void write(const Violation& violation);
};

struct Result {
    std::uint64_t lines = 0;
    double seconds = 0;  ///< that it took
    std::uint64_t digest = 0;
    bool struck = false;
    Counts counts;

    std::optional<Violation> violation;
    std::uint64_t world = 0;          ///< that it was found in, from 0
    std::uint64_t line_of_world = 0;  ///< at which of its lines, from 1
};

/// What the run throws is a violation. With a name to be shown as, progress goes to standard error.
Result run_apart(const std::function<void(Board&)>& run, const char* shown_as = nullptr);

}  // namespace simulation
