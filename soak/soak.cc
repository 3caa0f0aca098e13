// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "soak": reads its options and starts what they ask for.
#include "soak/soak.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "soak/failures.h"

namespace soak {
namespace {

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

int run(const Options& options) {
    if (options.failures)
        return run_failures(options.of_failures, stdout);
    std::fputs("tarv-host: soak plays no random steps yet; there is soak --failures\n", stderr);
    return 2;
}

}  // namespace

app::Action declare_soak(CLI::App& verb) {
    const auto options = std::make_shared<Options>();
    auto* const seed = verb.add_option("--seed", options->seed, "What all chance comes from (1)");
    verb.add_option("--seeds", options->seeds, "One seed after the other, each with its steps")
        ->type_name("A-B")
        ->excludes(seed);
    verb.add_option("--steps", options->steps,
                    "Steps to take (100000, or as many as there is time for)")
        ->type_name("N");
    verb.add_option("--minutes", options->minutes, "End after so long, between two steps")
        ->type_name("M");
    verb.add_option("--replay", options->replay, "Play the steps of a file; - is standard input")
        ->type_name("FILE");
    verb.add_option("--script", options->script, "Write the shortest script of a violation there")
        ->type_name("FILE");
    verb.add_flag("--failures", options->failures,
                  "Make every service of the kernel fail in turn instead");
    verb.add_flag("--brief", options->of_failures.brief, "A short table of the failures");
    verb.add_option("--scenario", options->of_failures.scenario, "The one to make fail")
        ->type_name("NAME");
    return [options] { return run(*options); };
}

}  // namespace soak
