// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The simulation as a tool: equal runs, steps that survive being written down, lines that are none.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <sstream>

#include "tests/simulation/run.h"

namespace {

using testing::HasSubstr;

struct Said {
    int status = -1;
    std::string out;
};

/* Standard output alone, or with what is said to standard error. */
Said run(const std::string& arguments, const char* errors = "2>/dev/null") {
    Said said;
    FILE* const pipe = popen((TARV_HOST " soak " + arguments + ' ' + errors).c_str(), "r");
    if (!pipe)
        return said;
    std::array<char, 4096> text;
    for (std::size_t size; (size = fread(text.data(), 1, text.size(), pipe)) > 0;)
        said.out.append(text.data(), size);
    said.status = WEXITSTATUS(pclose(pipe));
    return said;
}

soak::Episode read(const std::string& text) {
    std::istringstream in(text);
    return soak::read_episode(in, "script");
}

std::string write(const soak::Episode& episode) {
    std::string text = soak::to_text(episode.shape) + '\n';
    for (const soak::Step& step : episode.steps)
        text += soak::to_text(step) + '\n';
    return text;
}

TEST(Soak, OneSeedGivesTheSameBytes) {
    const Said first = run("--seed 7 --steps 6000");
    EXPECT_EQ(first.status, 0);
    EXPECT_THAT(first.out, HasSubstr("seed 7: 6000 steps, digest "));
    EXPECT_EQ(run("--seed 7 --steps 6000").out, first.out);
    EXPECT_NE(run("--seed 8 --steps 6000").out, first.out);
}

TEST(Soak, StepsAreTheSameWhenTheyAreReadBack) {
    for (std::uint64_t world = 0; world < 4; ++world) {
        const std::string text = write(soak::make_episode(3, world));
        EXPECT_EQ(write(read(text)), text);
    }
}

TEST(Soak, WhatWasWrittenDownRunsAsTheSeedDid) {
    const soak::Episode episode = read(write(soak::make_episode(5, 0)));
    const soak::Result direct = soak::run_seed(5, {.steps = episode.steps.size()});
    const soak::Result replayed = soak::run_episode(episode);
    EXPECT_FALSE(replayed.violation) << replayed.violation->text;
    EXPECT_EQ(replayed.digest, direct.digest);
    EXPECT_GT(replayed.tally.number[static_cast<std::size_t>(soak::Outcome::compared)], 1000u);
}

struct BadLine {
    const char* name;
    const char* text;
    const char* message;
};
void PrintTo(const BadLine& line, std::ostream* out) {
    *out << line.name;
}

class SoakBadLine : public testing::TestWithParam<BadLine> {};

TEST_P(SoakBadLine, IsRefusedWithItsPlace) {
    try {
        read(GetParam().text);
        FAIL() << "it was taken";
    } catch (const fabric::InputError& error) {
        EXPECT_THAT(error.what(), HasSubstr(GetParam().message));
    }
}

constexpr BadLine bad_lines[] = {
    {"Nothing", "# only this\n", "there is no world"},
    {"NoWorld", "pass ticks 1\n", "script:1: the first line has to be: world"},
    {"OneHost", "world hosts 1 jiffy 0\n", "script:1: a world has 2 hosts at least"},
    {"TooManyHosts", "world hosts 41 jiffy 0\n", "script:1: hosts is 41, and 40 at most"},
    {"NoStep", "world hosts 4 jiffy 0\n\nwait 3\n", "script:3: there is no step \"wait\""},
    {"NoArgument", "world hosts 4 jiffy 0\nask address 1\n", "script:2: from is missing"},
    {"NoNumber", "world hosts 4 jiffy 0\npass ticks x\n", "script:2: \"x\" is no number"},
    {"TooLarge", "world hosts 4 jiffy 0\nclose reader 2\n", "script:2: reader is 2"},
    {"TooMuch", "world hosts 4 jiffy 0\ncalm now\n", "script:2: \"now\" is one word too many"},
    {"NoQuotes", "world hosts 4 jiffy 0\nwrite halt\n", "script:2: the text has to stand between"},
    {"NoEscape", "world hosts 4 jiffy 0\nwrite \"a\\q\"\n", "script:2: no such escape"},
};
INSTANTIATE_TEST_SUITE_P(Script, SoakBadLine, testing::ValuesIn(bad_lines),
                         [](const auto& row) { return std::string(row.param.name); });

struct BadOption {
    const char* arguments;
    const char* message;
};
constexpr BadOption bad_options[] = {
    {"--seeds 5-2", "--seeds: \"5-2\" is not FIRST-LAST"},
    {"--seeds 5", "--seeds: \"5\" is not FIRST-LAST"},
    {"--seed x", "--seed"},
    {"--seed 1 --seeds 1-2", "excludes"},
    {"--replay /no/such/file", "/no/such/file: No such file"},
    {"--brief", "requires"},
};

TEST(Soak, BadOptionsStartNothing) {
    for (const auto& [arguments, message] : bad_options) {
        const Said said = run(arguments, "2>&1");
        EXPECT_EQ(said.status, 2) << arguments;
        EXPECT_THAT(said.out, HasSubstr(message)) << arguments;
    }
}

}  // namespace
