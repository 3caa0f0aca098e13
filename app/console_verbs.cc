// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/console_verbs.h"

#include <algorithm>
#include <stdexcept>

#include "app/kmsg.h"
#include "app/report.h"
#include "app/table.h"
#include "host/console.h"
#include "platform/proc.h"
#include "tarv/tarv-api-control.h"

namespace app {
namespace {

constexpr std::size_t most_peers = 40;

void cat(ScriptLine& line, ScriptReading&, Console& console) {
    const std::string name = line.word("control or version");
    if (name != "control" && name != "version")
        line.fail("there is no file \"" + name + "\"");
    line.end();
    host::ProcFile file("quorvane/tarv/" + name);
    std::string text;
    for (std::string piece; !(piece = file.read(PAGE_SIZE)).empty();)
        text += piece;
    console.terminal().print(text);
}

void dmesg(ScriptLine& line, ScriptReading&, Console& console) {
    const bool clear = line.take("-C"), off = line.take("-D"), on = line.take("-E");
    line.end();
    if (clear)
        return host::clear_console();
    if (off || on)
        return console.terminal().show_log(on);
    std::string text;
    for (const host::LogLine& row : host::console_lines())
        text += format_log_line(row) + "\n";
    console.terminal().print(text);
}

void resolve(ScriptLine& line, ScriptReading& reading, Console& console) {
    console.resolve(read_request(line, reading));
}

void raise_event(ScriptLine& line, ScriptReading& reading, Console& console) {
    const FabricAction act = read_event_action(line, reading);
    line.end();
    act(console.machine().fabric());
}

void show_fabric(Console& console) {
    fabric::Fabric& fabric = console.machine().fabric();
    Table table{{{""}, {""}, {""}}, {}};
    for (const fabric::Host& host : fabric.hosts())
        if (table.rows.size() < most_peers && fabric.peers().has(host.ip))
            table.rows.push_back({printable(host.name), fabric::format_ip(host.ip),
                                  "LID " + std::to_string(fabric.peers().station(host.ip).lid)});
    const std::size_t width = console.terminal().width();
    std::string text = format_machine(console.machine(), width) + table.format(width);
    if (table.rows.size() < fabric.peers().count())
        text += "and " + std::to_string(fabric.peers().count() - table.rows.size()) + " more\n";
    console.terminal().print(text);
}

void change_fabric(ScriptLine& line, ScriptReading& reading, Console& console) {
    if (line.take("show")) {
        line.end();
        return show_fabric(console);
    }
    const FabricAction act = read_fault_action(line, reading);
    line.end();
    act(console.machine().fabric());
}

void set_level(ScriptLine& line, ScriptReading&, Console&) {
    const auto act = read_level_action(line);
    line.end();
    act();
}

std::string usage_of(const ConsoleVerb& verb) {
    return verb.name + std::string(*verb.syntax ? " " : "") + verb.syntax;
}

void help(ScriptLine& line, ScriptReading&, Console& console) {
    line.end();
    const std::size_t width = console.terminal().width();
    constexpr std::size_t deep = 6;
    const auto explain = [&](std::size_t indent, const std::string& what) {
        return wrap(std::string(indent, ' ') + what + "\n", width, indent + 2);
    };
    std::string text =
        wrap("The host's own words, where a host's name may stand for its address:\n", width);
    for (const ConsoleVerb& verb : console_verbs())
        text += explain(2, usage_of(verb)) + explain(deep, verb.help);
    text += "Faults of a PEER or a port:\n" + explain(2, list_faults(false)) +
            "Faults of the SA:\n" + explain(2, list_faults(true)) +
            "Written to the control file:\n";
    for (const tarv_proc_command_t& row : tarv_proc_commands)
        text += explain(2, row.cmd_name + std::string(" ") + row.help);
    console.terminal().print(text);
}

void quit(ScriptLine& line, ScriptReading&, Console& console) {
    line.end();
    console.leave();
}

constexpr ConsoleVerb verbs[] = {
    {"cat", "control|version", "prints the file", "control version", cat},
    {"dmesg", "[-C|-D|-E]",
     "prints the kernel log; -C empties it, -D keeps its new lines off the console, -E has them "
     "again",
     "-C -D -E", dmesg},
    {"resolve", "IP [from IP] [paths none|primary|both] [invalidate] [no-callback]",
     "asks the module for an address as its clients do", "from paths none primary both invalidate",
     resolve},
    {"event", "link_up|link_down|lid|mtu|sm_change|NUMBER port N [to VALUE]",
     "has something happen to a port of ours", "link_up link_down lid mtu sm_change port to",
     raise_event},
    {"fabric", "show | PEER|sa|port N FAULT ...",
     "tells who is there; or has packets be lost, late, doubled, out of order or wrong",
     "show sa port drop delay duplicate reorder status attribute class version class-version "
     "records truncate segments clear all next",
     change_fabric},
    {"level", "module|logger N", "sets the module's or the host's trace level, 0 to 5",
     "module logger", set_level},
    {"help", "", "prints this; so does ?", "", help},
    {"quit", "", "unloads the module and ends; so do exit and the end of input", "", quit},
};

}  // namespace

std::span<const ConsoleVerb> console_verbs() {
    return verbs;
}

void perform_verb(const ConsoleVerb& verb, const std::string& line, Console& console) {
    ScriptLine words("console", console.line_number(), line);
    ScriptReading reading{.site = &console.site()};
    words.word("a verb");
    words.set_usage(usage_of(verb));
    verb.perform(words, reading, console);
}

}  // namespace app
