// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// tarv-simulation: the host driven by scripts of chance, with the model beside the module as judge.
// Says what came of it, and prints the shortest script that still breaks the rule.
//
// Exit status: 0 nothing was violated, 1 something was, 2 the command line or a script is wrong.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <system_error>

#include "tests/simulation/choose.h"
#include "tests/simulation/failures.h"
#include "tests/simulation/run.h"

namespace simulation {
namespace {

constexpr std::uint64_t usual_lines = 100'000;
constexpr std::uint64_t most_seeds = 1'000'000;
constexpr double most_minutes = 1'000'000;

struct Options {
    std::uint64_t seed = 1;
    std::string seeds;        // A-B; empty: the one above
    std::uint64_t lines = 0;  // 0: not given
    double minutes = 0;       // 0: not given
    std::vector<std::string> scripts;
    bool as_it_is = false;  // a violation's script is not made shorter
    bool failures = false;
    FailureOptions of_failures;
};

void print_summary(const std::string& name, const Result& result) {
    std::printf("%s: %" PRIu64 " lines, digest %016" PRIx64 ", %s\n", name.c_str(), result.lines,
                result.digest, result.violation ? result.violation->name.c_str() : "no violation");
    if (result.violation)
        std::printf("\nviolation  %s\n  %s\n  at line %" PRIu64 "\n",
                    result.violation->name.c_str(), result.violation->text.c_str(),
                    result.line_of_world);
    std::fflush(stdout);
    std::fprintf(stderr, "simulation: %s: %.1f s, %.0f lines a second\n", name.c_str(),
                 result.seconds,
                 result.seconds > 0 ? static_cast<double>(result.lines) / result.seconds : 0);
}

void print_counts(const Result& result) {
    for (std::size_t i = 0; i < result.counts.number.size(); ++i)
        std::printf("  %-44s %12lu\n", count_names[i], result.counts.number[i]);
}

void print_shortest(std::uint64_t seed, const Result& result) {
    std::printf("\nseed %" PRIu64 ", world %" PRIu64
                "; the shortest script, for tarv-host script:\n\n",
                seed, result.world);
    const std::size_t last_lines = Chooser(seed, result.world).last_lines().size();
    for (const std::string& line :
         shrink(make_lines(seed, result.world), last_lines, *result.violation))
        std::printf("%s\n", line.c_str());
}

int run_seeds(const Options& options) {
    std::uint64_t first = options.seed, last = options.seed;
    if (!options.seeds.empty()) {
        const std::size_t dash = options.seeds.find('-');
        const auto from = app::parse_number(options.seeds.substr(0, dash));
        const auto to =
            app::parse_number(dash == std::string::npos ? "" : options.seeds.substr(dash + 1));
        if (!from || !to || *to < *from || *to - *from >= most_seeds)
            throw app::UsageError("--seeds: \"" + options.seeds +
                                  "\" is not FIRST-LAST, of a million seeds at most");
        first = *from;
        last = *to;
    }
    const bool none = options.lines == 0 && options.minutes == 0;
    for (std::uint64_t past = 0; past <= last - first; ++past) {
        const std::uint64_t seed = first + past;
        const Result result =
            run_seed(seed, {none ? usual_lines : options.lines, options.minutes * 60});
        print_summary("seed " + std::to_string(seed), result);
        if (first == last)
            print_counts(result);
        if (!result.violation)
            continue;
        if (!options.as_it_is)
            print_shortest(seed, result);
        return 1;
    }
    return 0;
}

Lines read_lines(const std::string& path) {
    std::ifstream file(path);
    std::istream& in = path == "-" ? std::cin : file;
    if (!in)
        throw fabric::InputError(path, 0, std::generic_category().message(errno));
    Lines lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

int play(const std::vector<std::string>& scripts) {
    const app::Site site = app::read_site({});
    bool violated = false;
    for (const std::string& path : scripts) {
        const Result result = run_lines(read_lines(path), site);
        print_summary(path, result);
        violated |= result.violation.has_value();
    }
    return violated ? 1 : 0;
}

int run(const Options& options) {
    if (options.failures)
        return run_failures(options.of_failures, stdout);
    return options.scripts.empty() ? run_seeds(options) : play(options.scripts);
}

/* What is no number compares as neither too small nor too large. */
std::string check_minutes(const std::string& text) {
    double minutes = 0;
    if (CLI::detail::lexical_cast(text, minutes) && minutes >= 0 && minutes <= most_minutes)
        return {};
    return "\"" + text + "\" is no number of minutes, 0 to 1000000";
}

void declare(CLI::App& program, Options& options) {
    auto* const seed = program.add_option("--seed", options.seed, "What all chance comes from (1)");
    seed->type_name("S");
    program.add_option("--seeds", options.seeds, "One seed after the other, each with its lines")
        ->type_name("A-B")
        ->excludes(seed);
    program
        .add_option("--lines", options.lines,
                    "Lines to play (100000, or as many as there is time for)")
        ->type_name("N");
    program
        .add_option("--minutes", options.minutes,
                    "End after so long, between two worlds of some thousand lines")
        ->type_name("M")
        ->check(check_minutes);
    program.add_flag("--as-it-is", options.as_it_is,
                     "Do not look for a violation's shortest script");
    auto* const scripts =
        program.add_option("SCRIPT", options.scripts, "Play these instead; - is standard input");
    auto* const failures =
        program.add_flag("--failures", options.failures,
                         "Make every service of the kernel fail in turn in each script instead");
    failures->excludes(scripts);
    program
        .add_option("--scenario", options.of_failures.scenario,
                    "Those scripts only that have this in their names")
        ->type_name("NAME")
        ->needs(failures);
    program.add_option("--scripts", options.of_failures.scripts, "The directory of the scripts")
        ->type_name("DIR")
        ->needs(failures);
}

}  // namespace
}  // namespace simulation

int main(int argc, char** argv) try {
    CLI::App program("Proves the host under chance: plays scripts before a judge.",
                     "tarv-simulation");
    simulation::Options options;
    simulation::declare(program, options);
    CLI11_PARSE(program, argc, argv);
    return simulation::run(options);
} catch (const std::exception& error) {
    std::fprintf(stderr, "tarv-simulation: %s\n", error.what());
    return 2;
}
