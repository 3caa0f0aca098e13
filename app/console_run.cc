// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "console": the host in real time, with a prompt.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <utility>

#include "app/console.h"
#include "app/kmsg.h"
#include "app/machine.h"
#include "app/mount.h"
#include "app/report.h"
#include "app/stop_signals.h"
#include "app/verbs.h"

namespace app {
namespace {

struct ConsoleOptions {
    HostOptions host;
    std::string mount;
    double seconds = 0;  // 0: no limit
};

constexpr unsigned long reply_ticks = 2;  // between two looks for a reply

/* The session is over. */
class End {
  public:
    End(Machine& machine, unsigned long ticks)
        : machine_(machine), start_(machine.kernel().jiffies()), ticks_(ticks) {}
    bool come() const {
        return StopSignals::told() || machine_.kernel().jiffies() - start_ >= ticks_;
    }

  private:
    Machine& machine_;
    const unsigned long start_;
    const unsigned long ticks_;
};

/* Whoever types sees what comes of a line when it comes. A pipe waits for it, so that its next line
 * finds what was learned and what has happened. */
void wait_for_effects(Console& console, const End& end) {
    console.machine().kernel().settle();
    while (console.waits_for_replies() && !end.come())
        console.machine().kernel().advance(reply_ticks);
}

/* True when all lines were understood and carried out. */
bool converse(Console& console, Terminal& terminal, const End& end) {
    bool all_well = true;
    std::string line;
    while (!console.quit() && terminal.read_line(line, [&] { return end.come(); })) {
        try {
            console.perform(line);
        } catch (const std::exception& failed) {
            terminal.print("");
            std::fprintf(stderr, "%s\n", failed.what());
            all_well = false;
        }
        if (!terminal.interactive())
            wait_for_effects(console, end);
    }
    return all_well;
}

int run(const ConsoleOptions& options) {
    const Site site = read_site(options.host);
    Kmsg kmsg;
    Mount mount(options.mount, kmsg);
    const StopSignals signals;
    Console* console_of_terminal = nullptr;
    Terminal terminal("tarv> ", [&](const std::string& before, const std::string& word) {
        return console_of_terminal->complete(before, word);
    });
    Machine machine(site, options.host, {host::Clock::real_time}, [&](const host::LogLine& line) {
        kmsg.append(line);
        terminal.post_log(line.text + "\n");
    });
    machine.start();
    machine.switch_on();
    Console console(machine, site, terminal);
    console_of_terminal = &console;
    const Mount::Serving serving = mount.serve();
    const bool all_well = converse(console, terminal, End(machine, ticks_of(options.seconds)));
    const Departure& departure = machine.stop();
    terminal.print(format_departure(departure));
    return departure.remains.empty() && (all_well || terminal.interactive()) ? 0 : 1;
}

}  // namespace

Action declare_console(CLI::App& verb) {
    const auto options = std::make_shared<ConsoleOptions>();
    add_for_option(verb, options->seconds,
                   "End after so long\n(otherwise with quit, at the end of input, or on SIGTERM)");
    add_mount_option(verb, options->mount);
    add_host_options(verb, options->host);
    verb.footer("At the prompt: help lists the commands.");
    return [options] { return run(*options); };
}

}  // namespace app
