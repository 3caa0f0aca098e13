// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/command_line.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <utility>

#include "app/suggest.h"

namespace app {

struct CommandLine::Parts {
    CLI::App& verb;
};

namespace {

constexpr double longest_time = 1e9;  // seconds: thirty years, and far from any overflow in ticks
constexpr std::size_t help_column = 28;

std::string check_seconds(const std::string& text) {
    double seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds) || !std::isfinite(seconds) || seconds <= 0 ||
        seconds > longest_time)
        return "\"" + text + "\" is no number of seconds above 0";
    return {};
}

/* Of a verb or an option that is none, the first that was given, and what may have been meant. */
std::string explain_extras(const CLI::App& program, std::span<const Verb> verbs) {
    std::vector<std::string> known;
    for (const CLI::App* verb : program.get_subcommands())
        for (const CLI::Option* option : verb->get_options())
            known.push_back(option->get_name());
    const bool verb_given = !known.empty();
    for (const Verb& verb : verbs)
        if (!verb_given)
            known.push_back(verb.name);
    const std::string word = program.remaining(true).at(0);
    return (verb_given ? "there is no option " : "there is no verb ") + word + suggest(word, known);
}

}  // namespace

void CommandLine::flag(const std::string& name, bool& value, const std::string& help) {
    parts_.verb.add_flag(name, value, help);
}

void CommandLine::text(const std::string& name, std::string& value, const std::string& type,
                       const std::string& help) {
    parts_.verb.add_option(name, value, help)->type_name(type);
}

void CommandLine::texts(const std::string& name, std::vector<std::string>& values,
                        const std::string& type, const std::string& help) {
    parts_.verb.add_option(name, values, help)->type_name(type)->allow_extra_args(false);
}

void CommandLine::choice(const std::string& name, std::string& value,
                         const std::vector<std::string>& choices, const std::string& help) {
    parts_.verb.add_option(name, value, help)
        ->type_name(CLI::detail::join(choices, "|"))
        ->check(CLI::IsMember(choices).description(""));
}

void CommandLine::number(const std::string& name, int& value, int least, int most,
                         const std::string& help) {
    parts_.verb.add_option(name, value, help)
        ->type_name("N")
        ->check(CLI::Range(least, most).description(""));
}

void CommandLine::seconds(const std::string& name, double& value, const std::string& help) {
    parts_.verb.add_option(name, value, help)->type_name("SECONDS")->check(check_seconds);
}

void CommandLine::word(const std::string& name, std::string& value, const std::string& help) {
    parts_.verb.add_option(name, value, help)->required();
}

void CommandLine::optional_word(const std::string& name, std::string& value,
                                const std::string& help) {
    parts_.verb.add_option(name, value, help)->type_name("");
}

void CommandLine::words(const std::string& name, std::vector<std::string>& values,
                        const std::string& help) {
    parts_.verb.add_option(name, values, help)->type_name("");
}

void CommandLine::footer(const std::string& text) {
    parts_.verb.footer(text);
}

int perform_command_line(int argc, char** argv, std::span<const Verb> verbs) {
    CLI::App program(
        "A host with the address-resolution module on a simulated or a real InfiniBand fabric.",
        "tarv-host");
    program.get_formatter()->column_width(help_column);
    program.require_subcommand(0, 1);
    program.set_version_flag("-V,--version", "tarv-host " TARV_VERSION,
                             "Print the version and exit");
    program.footer("To begin with: tarv-host run --resolve-all");
    std::vector<std::pair<CLI::App*, Action>> actions;
    for (const Verb& verb : verbs) {
        CommandLine::Parts parts{*program.add_subcommand(verb.name, verb.help)};
        CommandLine line(parts);
        actions.emplace_back(&parts.verb, verb.declare(line));
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ExtrasError&) {
        throw UsageError(explain_extras(program, verbs));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return program.exit(error);
        throw UsageError(error.what());
    }
    for (const auto& [verb, action] : actions)
        if (verb->parsed())
            return action();
    throw UsageError("a verb is missing; tarv-host --help lists them");
}

}  // namespace app
