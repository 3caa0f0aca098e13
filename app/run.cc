// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "run": the host in real time, with what it has to say on standard output. Resolves all
// peers and unloads, or stays up until it is told to stop.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <memory>

#include "app/machine.h"
#include "app/options.h"
#include "app/report.h"
#include "app/resolve.h"
#include "app/verbs.h"

namespace app {
namespace {

struct RunOptions {
    HostOptions host;
    bool resolve_all = false;
    double seconds = 0;  // 0: no limit

    unsigned long ticks() const {
        return seconds > 0 ? static_cast<unsigned long>(seconds * 1000 + 0.5) : ~0ul;
    }
};

constexpr unsigned long idle_ticks = 20;  // between two looks at the signals

/* While it exists, SIGINT and SIGTERM end the run in order; a second one ends the program at once.
 */
class StopSignals {
  public:
    StopSignals() {
        struct sigaction action {};
        action.sa_handler = [](int) { told_ = true; };
        action.sa_flags = SA_RESETHAND;
        for (std::size_t i = 0; i < std::size(numbers_); ++i)
            sigaction(numbers_[i], &action, &before_[i]);
    }
    ~StopSignals() {
        for (std::size_t i = 0; i < std::size(numbers_); ++i)
            sigaction(numbers_[i], &before_[i], nullptr);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    static bool told() { return told_; }

  private:
    static constexpr int numbers_[] = {SIGINT, SIGTERM};
    static inline std::atomic<bool> told_ = false;
    static_assert(std::atomic<bool>::is_always_lock_free);
    struct sigaction before_[std::size(numbers_)];
};

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

void print_console_line(const host::LogLine& line) {
    say(line.text + "\n");
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
    const StopSignals signals;
    Machine machine(read_site(options.host), options.host, host::Clock::real_time,
                    print_console_line);
    machine.start();
    machine.switch_on();
    say("\n" + format_machine(machine));
    int status = 0;
    if (options.resolve_all)
        status = resolve_all(machine, options.ticks());
    else
        stay(machine, options.ticks());
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
    add_host_options(verb, options->host);
    return [options] { return run(*options); };
}

}  // namespace app
