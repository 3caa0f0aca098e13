// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The child plays and judges, and writes what it found line by line into a pipe, which also has its
// standard error; the parent reads until the child is gone or its time is over.
#include "tests/simulation/failures_run.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "host/faults.h"
#include "tests/simulation/failures_places.h"

namespace soak {
namespace {

using Clock = std::chrono::steady_clock;

/* A run takes milliseconds, with a sanitizer some more. */
constexpr std::chrono::seconds time_limit{60};

/* In front of the child's own lines. */
constexpr char mark_of_report = '\x01';

void report(const char* what, const std::string& text) {
    std::fprintf(stderr, "%c%s %s\n", mark_of_report, what, text.c_str());
}

/* What the module did about the fault, against the table of places. Null when it is not there. */
const Place* judge_place(World& world, const std::string& service) {
    const Mark& mark = *world.mark();
    const Place* place = find_place(service, mark, world.timeline());
    if (place)
        return place;
    const auto followed = mark.line < world.timeline().size() ? world.timeline()[mark.line] : "";
    world.violations.push_back(std::string("a failure that is not in its place (") +
                               name_of(mark.where) + "), followed by: " + followed);
    for (const std::string& line : expected_at(service, mark.where))
        world.violations.push_back("   expected: " + line);
    return nullptr;
}

bool has_line_after_mark(const World& world, const std::string& line) {
    const auto& timeline = world.timeline();
    return std::find(timeline.begin() + static_cast<std::ptrdiff_t>(world.mark()->line),
                     timeline.end(), line) != timeline.end();
}

/* A load is refused only because of the failure, with its code, and says so. */
void judge_loads(World& world, const Place* place) {
    for (const int result : world.load_results()) {
        if (result == 0)
            continue;
        const char* line =
            result == -1 ? "ERROR tarv_module/tarv_module_init: Error initializing tarv module."
                         : "ERROR tarv_module/tarv_module_init: Error creating /proc entry.";
        if (!place || result != place->rule.load_result)
            world.violations.push_back("a load returned " + std::to_string(result));
        else if (!has_line_after_mark(world, line))
            world.violations.push_back(std::string("a refused load did not log: ") + line);
    }
}

void judge_silent_ends(World& world, const Place* place) {
    const unsigned may = world.dropped_at_unload() + (place && place->rule.ends != SilentEnd::none);
    if (world.unanswered() != may)
        world.violations.push_back(std::to_string(world.unanswered()) +
                                   " request(s) without an answer, " + std::to_string(may) +
                                   " of them for a reason");
}

void judge_counters(World& world, const Place* place) {
    const FailureCounts& counts = world.counts();
    const Counter counted = place ? place->rule.counted : Counter::none;
    if (counts.gsi_reg != (counted == Counter::gsi_reg) ||
        counts.gsi_pool_create != (counted == Counter::gsi_pool_create) ||
        counts.pool_get != (counted == Counter::pool_get))
        world.violations.push_back("the SA client counted " + std::to_string(counts.gsi_reg) +
                                   " refused registrations, " +
                                   std::to_string(counts.gsi_pool_create) + " pools not made, " +
                                   std::to_string(counts.pool_get) + " datagrams not given");
}

std::string describe(const World& world, const Place* place) {
    std::string text = "nothing fails";
    if (place && place->rule.silence != Silence::none)
        text = std::string("silent: ") + reason_of(place->rule.silence);
    else if (place)
        text = world.timeline()[world.mark()->line];
    const int last_load = world.load_results().empty() ? 0 : world.load_results().back();
    for (const int result : world.load_results())
        if (result != 0 && last_load == 0)
            text += "; load " + std::to_string(result);
    if (const std::string ends = world.ends(); !ends.empty())
        text += "; " + ends;
    if (place && place->rule.ends != SilentEnd::none)
        text += std::string(" (") + reason_of(place->rule.ends) + ")";
    if (world.dropped_at_unload())
        text += std::string(" (") + reason_of(SilentEnd::waiting_for_arp_at_unload) + ")";
    return text;
}

void play(const Scenario& scenario, const Fault& fault) {
    World world(fault);
    try {
        scenario.play(world);
    } catch (const Refused&) {
        // The end of the scenario, not of the run.
    }
    world.wait_for_answers();
    for (const std::string& service : host::services_that_fail())
        report("calls", service + " " + std::to_string(host::calls_of(service)));
    if (world.mark())
        report("hit", name_of(world.mark()->where));
    const Place* place = world.mark() ? judge_place(world, fault.service) : nullptr;
    if (place)
        report("place", std::to_string(number_of(*place)));
    judge_loads(world, place);
    world.follow_up(place && place->rule.until_link_up);
    world.end();
    judge_silent_ends(world, place);
    judge_counters(world, place);
    for (const std::string& violation : world.violations)
        report("violation", violation);
    report("outcome", describe(world, place));
}

[[noreturn]] void be_child(const Scenario& scenario, const Fault& fault, int out) {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    dup2(out, STDERR_FILENO);
    std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
    try {
        play(scenario, fault);
        report("end", "");
    } catch (const std::exception& error) {
        report("violation", std::string("the run ended with: ") + error.what());
        report("end", "");
    }
    std::fflush(stderr);
    _exit(0);
}

/* All that the child says until it is gone. False when it had to be ended. */
bool read_all(int in, pid_t child, std::string& text) {
    const auto deadline = Clock::now() + time_limit;
    char buffer[4096];
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd wait = {in, POLLIN, 0};
        if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) == 0) {
            kill(child, SIGKILL);
            return false;
        }
        const ssize_t got = ::read(in, buffer, sizeof buffer);
        if (got == 0)
            return true;
        if (got > 0)
            text.append(buffer, static_cast<std::size_t>(got));
    }
}

void take_report(Run& run, const std::string& line) {
    const std::size_t blank = line.find(' ');
    const std::string what = line.substr(0, blank);
    const std::string text = line.substr(blank + 1);
    if (what == "hit") {
        run.hit = true;
        run.where = text;
    } else if (what == "outcome") {
        run.outcome = text;
    } else if (what == "place") {
        run.place = std::stoul(text);
    } else if (what == "violation") {
        run.violations.push_back(text);
    } else if (what == "calls") {
        run.calls[text.substr(0, text.find(' '))] = std::stoul(text.substr(text.find(' ') + 1));
    }
}

/* The line that names why the program stopped, among what else a run time prints. */
std::string last_words(const std::vector<std::string>& lines) {
    for (const char* sign : {"host: ", "ERROR: ", "WARNING: ", "runtime error: ", "terminate "})
        for (const std::string& line : lines)
            if (line.find(sign) != std::string::npos)
                return line;
    return lines.empty() ? "no word" : lines.back();
}

std::string way_of_ending(int status) {
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

Run take_all(const std::string& text, bool in_time, int status) {
    Run run;
    std::vector<std::string> others;
    bool ended = false;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        if (line.empty() || line[0] != mark_of_report)
            others.push_back(line);
        else if (line.starts_with(std::string(1, mark_of_report) + "end"))
            ended = true;
        else
            take_report(run, line.substr(1));
    }
    if (!in_time)
        run.violations.push_back("it did not end");
    else if (!ended || status != 0)
        run.violations.push_back("it died: " + last_words(others) + " (" + way_of_ending(status) +
                                 ")");
    return run;
}

}  // namespace

Run run_apart(const Scenario& scenario, const Fault& fault) {
    int ends[2];
    std::fflush(nullptr);
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe to the run");
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("no process for the run");
    if (child == 0) {
        close(ends[0]);
        be_child(scenario, fault, ends[1]);
    }
    close(ends[1]);
    std::string text;
    const bool in_time = read_all(ends[0], child, text);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return take_all(text, in_time, status);
}

}  // namespace soak
