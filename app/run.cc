// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "run": the host in real time, with what it has to say on standard output. Resolves all
// peers and unloads, or stays up until it is told to stop.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "app/kmsg.h"
#include "app/machine.h"
#include "app/mount.h"
#include "app/options.h"
#include "app/report.h"
#include "app/resolve.h"
#include "app/stop_signals.h"
#include "app/verbs.h"

namespace app {
namespace {

struct RunOptions {
    HostOptions host;
    std::string mount;
    bool resolve_all = false;
    double seconds = 0;  // 0: no limit
};

constexpr unsigned long idle_ticks = 20;  // between two looks at the signals

/* One line on a terminal, rewritten; nothing where standard error is none. */
class Progress {
  public:
    ~Progress() {
        if (shown_)
            std::fputs("\r\033[K", stderr);
    }
    void show(std::size_t ended, std::size_t all) {
        if (!terminal_ || calls_++ % 64 != 0)
            return;
        std::fprintf(stderr, "\rresolving: %zu of %zu\033[K", ended, all);
        shown_ = true;
    }

  private:
    const bool terminal_ = isatty(STDERR_FILENO);
    unsigned calls_ = 0;
    bool shown_ = false;
};

void say(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

int resolve_all(Machine& machine, unsigned long limit) {
    ResolveOptions options;
    options.limit = limit;
    options.stop = StopSignals::told;
    Resolver resolver(machine, peers_of(machine), options);
    {
        Progress progress;
        resolver.run([&](std::size_t ended, std::size_t all) { progress.show(ended, all); });
    }
    for (const std::string& part :
         {format_peers(machine, resolver.peers()), format_unresolved(machine, resolver.peers()),
          format_counts(resolver.counts(), resolver.peers())})
        if (!part.empty())
            say("\n" + part);
    say("\n");
    const auto resolved = [](const Peer& peer) { return peer.resolved; };
    return std::ranges::all_of(resolver.peers(), resolved) ? 0 : 1;
}

void stay(Machine& machine, unsigned long limit) {
    say("\nRunning; Ctrl-C unloads the module and ends.\n");
    const unsigned long start = machine.kernel().jiffies();
    for (unsigned long passed = 0; passed < limit && !StopSignals::told();
         passed = machine.kernel().jiffies() - start)
        machine.kernel().advance(std::min(idle_ticks, limit - passed));
    say("\n");
}

int run(const RunOptions& options) {
    Site site = read_site(options.host);
    Kmsg kmsg;
    Mount mount(options.mount, kmsg);
    const StopSignals signals;
    Machine machine(std::move(site), options.host, {host::Clock::real_time},
                    [&](const host::LogLine& line) {
                        kmsg.append(line);
                        say(line.text + "\n");
                    });
    machine.start();
    machine.switch_on();
    const Mount::Serving serving = mount.serve();
    say("\n" + format_machine(machine));
    int status = 0;
    if (options.resolve_all)
        status = resolve_all(machine, ticks_of(options.seconds));
    else
        stay(machine, ticks_of(options.seconds));
    const Departure& departure = machine.stop();
    say(format_departure(departure));
    return departure.remains.empty() ? status : 1;
}

}  // namespace

Action declare_run(CLI::App& verb) {
    const auto options = std::make_shared<RunOptions>();
    verb.add_flag("--resolve-all", options->resolve_all,
                  "Resolve every other host, print what was learned, and end;\n"
                  "exit status 1 when one could not be resolved");
    add_for_option(verb, options->seconds,
                   "End after so long, resolved or not\n"
                   "(otherwise when all is resolved, or on SIGINT or SIGTERM)");
    add_mount_option(verb, options->mount);
    add_host_options(verb, options->host);
    return [options] { return run(*options); };
}

}  // namespace app
