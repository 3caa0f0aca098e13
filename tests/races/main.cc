// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// tarv-stress: the module under true concurrency, for the sanitizers to watch and with its own
// account of what must hold. First each racy place on purpose, then all at once in a storm.
//
// Exit status: 0 nothing was violated, 1 something was, 2 the command line is wrong.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tests/races/arena.h"
#include "tests/races/places.h"
#include "tests/races/report.h"
#include "tests/races/storm.h"

namespace {

struct Options {
    double seconds = 20;
    std::string place = "all";
    unsigned times = 8000;
};

/* Ticks of the module in one of the clock: what takes the module a minute takes about a second. */
constexpr unsigned long speed = 50;

std::string check_place(const std::string& name) {
    std::string known = "all, none";
    for (const stress::Place& place : stress::places()) {
        if (name == place.name)
            return {};
        known += std::string(", ") + place.name;
    }
    return name == "all" || name == "none" ? ""
                                           : "there is no place " + name + "; there are " + known;
}

int run(const Options& options) {
    {
        stress::Arena arena(speed);
        stress::drive_places(arena, options.place, options.times);
        if (options.seconds > 0)
            stress::storm(arena, options.seconds);
    }
    if (const unsigned long found = stress::violations()) {
        std::printf("%lu violations\n", found);
        return 1;
    }
    std::printf("no violation\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    CLI::App program(
        "Puts the address-resolution module under stress on threads that truly run "
        "at the same time.",
        "tarv-stress");
    Options options;
    program.add_option("--seconds", options.seconds, "How long the storm lasts; 0: none")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
    program.add_option("--place", options.place, "One racy place, \"all\" or \"none\"")
        ->check(check_place)
        ->capture_default_str();
    program.add_option("--times", options.times, "Rounds at each racy place; dear ones take fewer")
        ->check(CLI::Range(1u, 100000000u))
        ->capture_default_str();
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = program.exit(error);
        return status == 0 ? 0 : 2;
    }
    return run(options);
} catch (const std::exception& error) {
    std::fprintf(stderr, "tarv-stress: %s\n", error.what());
    return 1;
}
