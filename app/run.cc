// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verb "run": the host in real time, with what it has to say on standard output. Resolves all
// peers and unloads, or stays up until it is told to stop.
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "app/detach.h"
#include "app/export.h"
#include "app/hops.h"
#include "app/kmsg.h"
#include "app/latency.h"
#include "app/machine.h"
#include "app/metrics.h"
#include "app/mount.h"
#include "app/options.h"
#include "app/output.h"
#include "app/report.h"
#include "app/resolve.h"
#include "app/stop_signals.h"
#include "app/table.h"
#include "app/verbs.h"

namespace app {
namespace {

struct RunOptions {
    HostOptions host;
    std::string mount;
    std::string log;
    std::string only, sort, plot;
    bool resolve_all = false;
    bool all = false;
    bool json = false;
    bool csv = false;
    bool histogram = false;
    bool hops = false;
    bool detach = false;
    bool quiet = false;
    double seconds = 0;  // 0: no limit
};

constexpr std::size_t most_rows = 40;     // at a terminal
constexpr std::size_t most_ways = 10;     // the same
constexpr unsigned long idle_ticks = 20;  // between two looks at what ends the run

/* One line on a terminal, rewritten, for a run that takes longer than a glance; nothing where
 * standard error is none. */
class Progress {
  public:
    ~Progress() {
        if (shown_)
            std::fputs("\r\033[K", stderr);
    }
    void show(std::size_t ended, std::size_t all) {
        const auto now = std::chrono::steady_clock::now();
        if (!terminal_ || now < next_)
            return;
        next_ = now + std::chrono::milliseconds(50);
        std::fprintf(stderr, "\rresolving: %zu of %zu\033[K", ended, all);
        shown_ = true;
    }

  private:
    const bool terminal_ = isatty(STDERR_FILENO);
    std::chrono::steady_clock::time_point next_ =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    bool shown_ = false;
};

bool for_programs(const RunOptions& options) {
    return options.json || options.csv;
}

/* Both passes, for as long as they may take. */
void resolve(Resolver& resolver) {
    Progress progress;
    resolver.run([&](std::size_t ended, std::size_t all) { progress.show(ended, all); });
}

/* A terminal is not flooded unasked; whoever pipes the rows away wants them all. */
std::string format_result(const RunOptions& options, Machine& machine, const Resolver& resolver) {
    const std::size_t width = terminal_width(STDOUT_FILENO);
    const bool all = options.all || width == 0 || !options.only.empty();
    const std::vector<Peer> peers =
        choose_peers(machine, resolver.peers(), options.only, options.sort);
    const std::vector<Latencies> latencies = latencies_of(resolver.peers());
    std::vector<std::string> parts = {
        format_peers(machine, peers, width, all ? peers.size() : most_rows),
        format_unresolved(machine, peers, width),
        format_counts(resolver.counts(), resolver.peers(), width),
        format_latencies(latencies, width)};
    if (options.histogram)
        for (const Latencies& row : latencies)
            parts.push_back(format_histogram(row, width));
    if (options.hops)
        parts.push_back(format_hops(machine, peers, width, all ? peers.size() : most_ways));
    std::string text;
    for (const std::string& part : parts)
        text += part.empty() ? "" : "\n" + part;
    return text + "\n";
}

/* The file for --plot, made before anything has started: who waits for a long run is not told at
 * its end that there is no such directory. */
class Plot {
  public:
    explicit Plot(const std::string& name)
        : name_(name), file_(name.empty() ? nullptr : std::fopen(name.c_str(), "we")) {
        if (!file_ && !name.empty())
            throw UsageError("--plot: " + name + ": " + std::generic_category().message(errno));
    }
    ~Plot() {
        if (file_)
            std::fclose(file_);
    }
    Plot(const Plot&) = delete;
    Plot& operator=(const Plot&) = delete;

    /* False, and it has been told, when it could not be written. */
    bool save(const Resolver& resolver) {
        if (!file_)
            return true;
        const std::string picture = plot_latencies(latencies_of(resolver.peers()));
        const bool given = std::fwrite(picture.data(), 1, picture.size(), file_) == picture.size();
        int error = given ? 0 : errno;
        if (std::fclose(std::exchange(file_, nullptr)) != 0 && error == 0)
            error = errno;
        if (error != 0)
            std::fprintf(stderr, "tarv-host: --plot: %s: %s\n", name_.c_str(),
                         std::generic_category().message(error).c_str());
        return error == 0;
    }

  private:
    const std::string name_;
    FILE* file_;
};

void stay(Machine& machine, const Mount& mount, unsigned long limit) {
    const unsigned long start = machine.kernel().jiffies();
    for (unsigned long passed = 0; passed < limit && !StopSignals::told() && !mount.gone();
         passed = machine.kernel().jiffies() - start)
        machine.kernel().advance(std::min(idle_ticks, limit - passed));
}

std::string format_ready(const RunOptions& options, const Detachment* detachment) {
    const std::string way = options.mount.empty() ? "end it with kill " + std::to_string(getpid())
                                                  : "end it with fusermount3 -u " + options.mount;
    std::string text = options.mount.empty() ? "Running" : "Mounted on " + options.mount;
    if (!detachment)
        return text + "; Ctrl-C unloads the module and ends.\n";
    return text + " as process " + std::to_string(getpid()) + ", with its lines in " +
           detachment->log_name() + ";\n" + way + ".\n";
}

/* What programs read. */
void export_peers(const RunOptions& options, Machine& machine, const Resolver& resolver,
                  const Departure& departure, Output& output) {
    const auto peers = choose_peers(machine, resolver.peers(), options.only, options.sort);
    if (options.json) {
        std::optional<Ways> ways;
        if (options.hops)
            ways.emplace(machine.site());
        output.say(to_json(machine, resolver, peers, departure, ways ? &*ways : nullptr));
    }
    if (options.csv)
        output.say(to_csv(machine, peers));
}

int run_host(const RunOptions& options, Site site, Output& output, Detachment* detachment) {
    if (options.hops)
        require_topology(site);
    Plot plot(options.plot);
    const std::size_t skipped_lines = site.skipped_lines;
    Kmsg kmsg;
    Mount mount(options.mount, kmsg);
    const StopSignals signals;
    const bool quiet = options.quiet || for_programs(options);
    Machine machine(std::move(site), options.host, {host::Clock::real_time},
                    [&](const host::LogLine& line) {
                        kmsg.append(line);
                        if (!quiet)
                            output.say(line.text + "\n");
                    });
    const auto say = [&](const std::string& text) {
        if (!for_programs(options))
            output.say(text);
    };
    // A resolver looks at the packets itself.
    std::optional<Metrics> metrics;
    machine.start();
    if (!options.resolve_all)
        metrics.emplace(machine);
    machine.switch_on();
    std::optional<Resolver> resolver;
    std::optional<Mount::Serving> serving;
    serving.emplace(mount,
                    metrics ? [&] { return metrics->text(); } : std::function<std::string()>());
    const std::size_t width = detachment ? 0 : terminal_width(STDOUT_FILENO);
    say((quiet ? "" : "\n") + format_machine(machine, width));
    if (skipped_lines > 0)
        say("Host list  " + counted(skipped_lines, "line") + " skipped, about none of them\n");
    if (detachment)
        detachment->ready(format_ready(options, detachment));
    sd_notify(0, "READY=1");  // says nothing where nobody has asked for it
    if (options.resolve_all) {
        ResolveOptions how;
        how.limit = ticks_of(options.seconds);
        how.stop = StopSignals::told;
        resolve(resolver.emplace(machine, peers_of(machine), how));
        say(format_result(options, machine, *resolver));
    } else {
        say("\n" + wrap(format_ready(options, nullptr), width));
        stay(machine, mount, ticks_of(options.seconds));
        say("\n");
    }
    serving.reset();  // an open file keeps the module where it is
    const Departure& departure = machine.stop();
    say(format_departure(departure, width));
    if (!resolver)
        return departure.clean() ? 0 : 1;
    export_peers(options, machine, *resolver, departure, output);
    const bool plotted = plot.save(*resolver);
    const bool resolved = std::ranges::all_of(resolver->peers(), &Peer::resolved);
    return departure.clean() && resolved && plotted ? 0 : 1;
}

void check(const RunOptions& options) {
    const bool about_peers = for_programs(options) || options.all || options.histogram ||
                             options.hops || !options.only.empty() || !options.sort.empty() ||
                             !options.plot.empty();
    if (about_peers && !options.resolve_all)
        throw UsageError("what was asked for is about the peers, which --resolve-all resolves");
    if (options.json && options.csv)
        throw UsageError("--json and --csv exclude each other");
}

int run(const RunOptions& options) {
    check(options);
    std::optional<Detachment> detachment;
    if (options.detach) {
        detachment.emplace(options.log);
        if (const auto status = detachment->split())
            return *status;
    }
    Output output(detachment ? detachment->log() : STDOUT_FILENO);
    const int status =
        run_host(options, read_site(options.host), output, detachment ? &*detachment : nullptr);
    return output.finish() ? status : 1;
}

}  // namespace

Action declare_run(CommandLine& line) {
    const auto options = std::make_shared<RunOptions>();
    line.flag("--resolve-all", options->resolve_all,
              "Resolve every other host, print what was learned, and end;\n"
              "exit status 1 when one could not be resolved");
    line.flag("--all", options->all, "Print all rows at a terminal too");
    line.choice("--only", options->only, {"resolved", "unresolved"}, "Print these peers only");
    line.choice("--sort", options->sort, {"address", "host", "lid", "latency"},
                "Sort the peers (otherwise as the fabric lists them)");
    line.flag("--json", options->json, "Print the result for programs, as JSON");
    line.flag("--csv", options->csv, "Print the peers as comma-separated values");
    line.flag("--histogram", options->histogram, "Print how many resolutions took how long");
    line.flag("--hops", options->hops,
              "Print each path hop by hop: switches, their ports, and what the links do");
    line.text("--plot", options->plot, "FILE.svg", "Save the latencies as a picture");
    line.seconds("--for", options->seconds,
                 "End after so long, resolved or not\n"
                 "(otherwise when all is resolved, or on SIGINT or SIGTERM)");
    add_mount_option(line, options->mount);
    line.flag("--detach", options->detach, "Return when the host is ready, and leave it running");
    line.text("--log", options->log, "FILE",
              "Where a detached host says what it does\n(otherwise in the journal)");
    line.flag("-q,--quiet", options->quiet, "Show the module's own lines in kmsg only");
    add_host_options(line, options->host);
    return [options] { return run(*options); };
}

}  // namespace app
