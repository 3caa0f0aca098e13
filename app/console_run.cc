// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "console": the host in real time, with a prompt.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include "app/console.h"
#include "app/kmsg.h"
#include "app/machine.h"
#include "app/metrics.h"
#include "app/mount.h"
#include "app/report.h"
#include "app/stop_signals.h"
#include "app/table.h"
#include "app/verbs.h"

namespace app {
namespace {

struct ConsoleOptions {
    HostOptions host;
    std::string mount;
    bool quiet = false;
    double seconds = 0;  // 0: no limit
};

constexpr unsigned long reply_ticks = 2;     // between two looks for a reply
constexpr unsigned long prompt_ticks = 300;  // for which a prompt waits for one

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

/* A pipe waits for what comes of a line, so that its next line finds what was learned and what has
 * happened. Whoever types gets the prompt back soon, and sees what takes longer above it. */
void wait_for_effects(Console& console, const End& end, unsigned long most_ticks) {
    host::Kernel& kernel = console.machine().kernel();
    kernel.settle();
    const unsigned long start = kernel.jiffies();
    while (console.waits_for_replies() && !end.come() && kernel.jiffies() - start < most_ticks)
        kernel.advance(reply_ticks);
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
            std::fputs(wrap(failed.what() + std::string("\n"), terminal.width()).c_str(), stderr);
            all_well = false;
        }
        wait_for_effects(console, end, terminal.interactive() ? prompt_ticks : ~0ul);
    }
    return all_well;
}

int run(const ConsoleOptions& options) {
    const Site site = read_site(options.host);
    Kmsg kmsg;
    Mount mount(options.mount, kmsg);
    const StopSignals signals;
    Console* console_of_terminal = nullptr;
    Terminal terminal(site.our_host().name + "> ",
                      [&](const std::string& before, const std::string& word) {
                          return console_of_terminal->complete(before, word);
                      });
    terminal.show_log(!options.quiet);
    Machine machine(site, options.host, {host::Clock::real_time}, [&](const host::LogLine& line) {
        kmsg.append(line);
        terminal.post_log(line.text + "\n");
    });
    machine.start();
    Metrics metrics(machine);
    machine.switch_on();
    Console console(machine, site, terminal);
    console_of_terminal = &console;
    std::optional<Mount::Serving> serving;
    serving.emplace(mount, [&] { return metrics.text(console.look_ups()); });
    const bool all_well = converse(console, terminal, End(machine, ticks_of(options.seconds)));
    serving.reset();  // an open file keeps the module where it is
    const Departure& departure = machine.stop();
    terminal.print(format_departure(departure, terminal.width()));
    return departure.clean() && (all_well || terminal.interactive()) ? 0 : 1;
}

}  // namespace

Action declare_console(CommandLine& line) {
    const auto options = std::make_shared<ConsoleOptions>();
    line.seconds("--for", options->seconds,
                 "End after so long\n(otherwise with quit, at the end of input, or on SIGTERM)");
    add_mount_option(line, options->mount);
    line.flag("-q,--quiet", options->quiet, "Show the module's own lines in dmesg and kmsg only");
    add_host_options(line, options->host);
    line.footer("At the prompt: help lists the commands.");
    return [options] { return run(*options); };
}

}  // namespace app
