// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The simulation as a tool: equal runs, and a judge that can tell right from wrong.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/simulation/choose.h"
#include "tests/simulation/run.h"

namespace {

using simulation::Lines;

TEST(Simulation, OneSeedGivesTheSameRun) {
    const simulation::Result first = simulation::run_seed(7, {.lines = 5000});
    const simulation::Result second = simulation::run_seed(7, {.lines = 5000});
    EXPECT_FALSE(first.violation) << first.violation->text;
    EXPECT_GT(first.counts.number[static_cast<std::size_t>(simulation::Count::compared)], 1000u);
    EXPECT_EQ(first.digest, second.digest);
    EXPECT_NE(first.digest, simulation::run_seed(8, {.lines = 5000}).digest);
}

TEST(Simulation, OneWorldInEightIsLarge) {
    int large = 0;
    for (std::uint64_t world = 0; world < 8; ++world) {
        const Lines lines = simulation::make_lines(5, world);
        large += std::ranges::any_of(lines, [](const std::string& line) {
            return line.find(" 10.7.0.2 ") != std::string::npos;
        });
    }
    EXPECT_EQ(large, 1);
}

/* An expectation that cannot hold is found, and what has nothing to do with it is left out. */
TEST(Simulation, AViolationIsShrunk) {
    Lines lines = simulation::make_lines(3, 0, 50);
    lines.resize(lines.size() - simulation::Chooser(3, 0).last_lines().size());
    lines.insert(lines.end(), {"unload", "load", "control add 10.0.0.1 10.0.0.2 7",
                               "expect entry 10.0.0.2 lid 8"});
    const simulation::Result result = simulation::run_lines(lines, app::Site());
    ASSERT_TRUE(result.violation);
    EXPECT_EQ(result.violation->name, "expectation");
    const Lines shortest = simulation::shrink(lines, 1, *result.violation);
    EXPECT_LE(shortest.size(), 6u);
    EXPECT_EQ(shortest.back(), lines.back());
}

}  // namespace
