// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// tarv-host: a host with the address-resolution module loaded, on a simulated InfiniBand fabric.
//
// Exit status: 0 done, 1 the run itself failed, 2 nothing was started, because of the command line
// or of a file that it names.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "app/options.h"
#include "app/verbs.h"

namespace {

struct Verb {
    const char* name;
    const char* help;
    app::DeclareVerb* declare;
};

constexpr Verb verbs[] = {
    {"run", "Run the host: resolve every other host and unload, or until told to stop",
     app::declare_run},
    {"console", "Run the host with a prompt at which it is commanded and looked into",
     app::declare_console},
    {"script", "Play a situation tick by tick in virtual time, from a file of one verb a line",
     app::declare_script},
};

int fail(int status, std::string line) {
    for (char& c : line)
        if (c == '\n')
            c = ' ';
    std::fprintf(stderr, "%s\n", line.c_str());
    return status;
}

int perform(int argc, char** argv) {
    CLI::App program("A host with the address-resolution module on a simulated InfiniBand fabric.",
                     "tarv-host");
    program.get_formatter()->column_width(28);
    program.require_subcommand(0, 1);
    program.footer("To begin with: tarv-host run --resolve-all");
    std::vector<std::pair<CLI::App*, app::Action>> actions;
    for (const Verb& verb : verbs) {
        CLI::App* const declared = program.add_subcommand(verb.name, verb.help);
        actions.emplace_back(declared, verb.declare(*declared));
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return program.exit(error);
        return fail(2, std::string("tarv-host: ") + error.what());
    }
    for (const auto& [verb, action] : actions)
        if (verb->parsed())
            return action();
    return fail(2, "tarv-host: a verb is missing; tarv-host --help lists them");
}

}  // namespace

int main(int argc, char** argv) try {
    return perform(argc, argv);
} catch (const fabric::InputError& error) {
    return fail(2, error.what());
} catch (const app::UsageError& error) {
    return fail(2, std::string("tarv-host: ") + error.what());
} catch (const std::exception& error) {
    return fail(1, std::string("tarv-host: ") + error.what());
}
