// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "soak": reads its options, starts what they ask for, and says what came of it.
#include "tests/simulation/soak.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "app/options.h"
#include "app/script_line.h"
#include "tests/simulation/failures.h"
#include "tests/simulation/run.h"

namespace soak {
namespace {

constexpr std::uint64_t usual_steps = 100'000;

struct Options {
    std::uint64_t seed = 1;
    std::string seeds;        // A-B; empty: the one above
    std::uint64_t steps = 0;  // 0: not given
    double minutes = 0;       // 0: not given
    std::string replay;       // a script of steps to play; empty: none
    std::string script;       // where the shrunk script of a violation goes; empty: nowhere
    bool failures = false;
    FailureOptions of_failures;
};

struct Seeds {
    std::uint64_t first = 1;
    std::uint64_t last = 1;
};

Seeds read_seeds(const Options& options) {
    if (options.seeds.empty())
        return {options.seed, options.seed};
    const std::size_t dash = options.seeds.find('-');
    const auto first = app::parse_number(options.seeds.substr(0, dash));
    const auto last =
        app::parse_number(dash == std::string::npos ? "" : options.seeds.substr(dash + 1));
    if (!first || !last || *last < *first)
        throw app::UsageError("--seeds: \"" + options.seeds + "\" is not FIRST-LAST");
    return {*first, *last};
}

Limits limits_of(const Options& options) {
    const bool none = options.steps == 0 && options.minutes == 0;
    return {none ? usual_steps : options.steps, options.minutes * 60};
}

void print_counts(const Result& result) {
    std::printf("\nsteps\n");
    for (std::size_t i = 0; i < kinds; ++i)
        std::printf("  %-44s %12" PRIu64 "\n", row_of(static_cast<Kind>(i)).name, result.taken[i]);
    std::printf("\noutcomes\n");
    for (std::size_t i = 0; i < outcomes; ++i)
        std::printf("  %-44s %12lu\n", name_of(static_cast<Outcome>(i)), result.tally.number[i]);
}

void print_summary(const std::string& name, const Result& result) {
    std::printf("%s: %" PRIu64 " steps, digest %016" PRIx64 ", %s\n", name.c_str(), result.steps,
                result.digest, result.violation ? result.violation->name.c_str() : "no violation");
    std::fflush(stdout);
    std::fprintf(stderr, "soak: %s: %.1f s, %.0f steps a second\n", name.c_str(), result.seconds,
                 result.seconds > 0 ? static_cast<double>(result.steps) / result.seconds : 0);
}

std::string script_of(const Episode& episode) {
    std::string text = to_text(episode.shape) + '\n';
    for (const Step& step : episode.steps)
        text += to_text(step) + '\n';
    return text;
}

void write_script(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    if (!(out << text << std::flush))
        throw app::UsageError("--script: " + path + ": " + std::generic_category().message(errno));
}

void report(const Options& options, std::uint64_t seed, const Result& result) {
    std::printf("\nviolation  %s\n  %s\n  seed %" PRIu64 ", world %" PRIu64 ", step %" PRIu64
                " of it\n",
                result.violation->name.c_str(), result.violation->text.c_str(), seed, result.world,
                result.step_of_world);
    std::fflush(stdout);
    const Episode shortest = shrink(make_episode(seed, result.world), result.violation->name);
    const std::string script = script_of(shortest);
    std::printf("\nscript     %zu steps, for tarv-host soak --replay\n\n%s", shortest.steps.size(),
                script.c_str());
    if (!options.script.empty())
        write_script(options.script, script);
}

int run_seeds(const Options& options) {
    const Seeds seeds = read_seeds(options);
    for (std::uint64_t seed = seeds.first;; ++seed) {
        const Result result = run_seed(seed, limits_of(options));
        print_summary("seed " + std::to_string(seed), result);
        if (seeds.first == seeds.last)
            print_counts(result);
        if (result.violation) {
            report(options, seed, result);
            return 1;
        }
        if (seed == seeds.last)
            return 0;
    }
}

Episode read_file(const std::string& path) {
    if (path == "-")
        return read_episode(std::cin, path);
    std::ifstream in(path);
    if (!in)
        throw fabric::InputError(path, 0, std::generic_category().message(errno));
    return read_episode(in, path);
}

int replay(const std::string& path) {
    const Result result = run_episode(read_file(path));
    print_summary(path, result);
    if (result.violation)
        std::printf("  %s\n  at step %" PRIu64 "\n", result.violation->text.c_str(),
                    result.step_of_world);
    return result.violation ? 1 : 0;
}

int run(const Options& options) {
    if (options.failures)
        return run_failures(options.of_failures, stdout);
    return options.replay.empty() ? run_seeds(options) : replay(options.replay);
}

}  // namespace

app::Action declare_soak(CLI::App& verb) {
    const auto options = std::make_shared<Options>();
    auto* const seed = verb.add_option("--seed", options->seed, "What all chance comes from (1)");
    seed->type_name("S");
    verb.add_option("--seeds", options->seeds, "One seed after the other, each with its steps")
        ->type_name("A-B")
        ->excludes(seed);
    verb.add_option("--steps", options->steps,
                    "Steps to take (100000, or as many as there is time for)")
        ->type_name("N");
    verb.add_option("--minutes", options->minutes,
                    "End after so long, between two worlds of some thousand steps")
        ->type_name("M")
        ->check(CLI::NonNegativeNumber.description(""));
    auto* const replay = verb.add_option("--replay", options->replay,
                                         "Play the steps of a file; - is standard input");
    replay->type_name("FILE");
    verb.add_option("--script", options->script,
                    "Write the shortest script of a violation there as well")
        ->type_name("FILE");
    auto* const failures = verb.add_flag("--failures", options->failures,
                                         "Make every service of the kernel fail in turn in each script instead");
    failures->excludes(replay);
    verb.add_flag("--brief", options->of_failures.brief, "A short table of the failures")
        ->needs(failures);
    verb.add_option("--scenario", options->of_failures.scenario, "Those scripts only that have this in their names")
        ->type_name("NAME")
        ->needs(failures);
    verb.add_option("--scripts", options->of_failures.scripts, "The directory of the scripts")
        ->type_name("DIR")
        ->needs(failures);
    return [options] { return run(*options); };
}

}  // namespace soak
