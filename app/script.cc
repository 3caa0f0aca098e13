// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "script": reads a script and plays it.
#include "app/script.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <system_error>

#include "app/script_text.h"
#include "app/script_verbs.h"
#include "app/suggest.h"
#include "app/verbs.h"

namespace app {
namespace {

struct ScriptOptions {
    HostOptions host;
    std::string file;
};

std::vector<std::string> verb_names() {
    std::vector<std::string> names;
    for (const ScriptVerb& verb : script_verbs())
        names.emplace_back(verb.name);
    return names;
}

const ScriptVerb& find_verb(ScriptLine& line) {
    const std::string name = line.word("a verb");
    const auto found = std::ranges::find(script_verbs(), name, &ScriptVerb::name);
    if (found == script_verbs().end())
        line.fail("there is no verb \"" + name + "\"" + suggest(name, verb_names()));
    return *found;
}

std::string usage(const ScriptVerb& verb) {
    const std::string syntax = verb.syntax;
    return verb.name + (syntax.empty() ? "" : " " + syntax);
}

Script read_file(const std::string& file, const Site& site) {
    if (file == "-")
        return read_script(std::cin, file, site);
    std::ifstream in(file);
    if (!in)
        throw fabric::InputError(file, 0, std::generic_category().message(errno));
    return read_script(in, file, site);
}

std::string list_verbs() {
    std::string list = "Verbs:\n";
    for (const ScriptVerb& verb : script_verbs())
        list += "  " + usage(verb) + "\n";
    return list + "Faults of a PEER or a port:\n  " + list_faults(false) +
           "\nFaults of the SA:\n  " + list_faults(true) + "\nStatuses, and their numbers:\n  " +
           list_statuses() + "\n";
}

int run(const ScriptOptions& options) {
    const Site site = read_site(options.host);
    const Script script = read_file(options.file, site);
    ScriptHost host(script.made_site ? *script.made_site : site, script.first_jiffy, std::cout,
                    std::cerr);
    return run_script(script, host);
}

}  // namespace

ScriptStep read_step(ScriptLine& line, ScriptReading& reading) {
    const ScriptVerb& verb = find_verb(line);
    line.set_usage(usage(verb));
    ScriptStep step;
    step.place = line.place();
    step.expects = verb.read == read_expect;
    step.run = verb.read(line, reading);
    line.end();
    return step;
}

Script read_script(std::istream& in, const std::string& file, const Site& site) {
    Script script;
    ScriptReading reading{.site = &site};
    int number = 0;
    for (std::string text; std::getline(in, text);) {
        ScriptLine line(file, ++number, text);
        if (!line.at_end())
            script.steps.push_back(read_step(line, reading));
    }
    if (in.bad())
        throw fabric::InputError(file, 0, "it cannot be read");
    script.first_jiffy = reading.first_jiffy;
    script.made_site = reading.made_site;
    return script;
}

void play_step(const ScriptStep& step, ScriptHost& host) {
    step.run(host, step.place);
    host.kernel().settle();
}

int run_script(const Script& script, ScriptHost& host) {
    for (std::size_t i = 0; i < script.steps.size(); ++i) {
        const ScriptStep& step = script.steps[i];
        const bool more_expected = i + 1 < script.steps.size() && script.steps[i + 1].expects;
        try {
            play_step(step, host);
        } catch (const std::exception& failed) {
            host.fail(step.place, failed.what());
        }
        // An expectation behind it says that this was to happen.
        if (const std::string refusal = host.take_refusal(); !refusal.empty() && !more_expected)
            host.fail(step.place, refusal);
        if (step.expects && !more_expected)
            host.forget_lines();
    }
    if (host.loaded())
        host.unload_module();
    return host.failed() ? 1 : 0;
}

Action declare_script(CommandLine& line) {
    const auto options = std::make_shared<ScriptOptions>();
    line.word("FILE", options->file, "The script; - reads it from standard input");
    add_site_options(line, options->host);
    line.footer(list_verbs());
    return [options] { return run(*options); };
}

}  // namespace app
