// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table: which runs there are, and what is printed of them.
#include "tests/simulation/failures.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "host/faults.h"
#include "tests/simulation/failures_places.h"
#include "tests/simulation/failures_run.h"

namespace soak {
namespace {

/* What a whole table adds up to. */
struct Sum {
    unsigned long runs = 0;
    unsigned long failures = 0;  ///< calls that were made to fail
    unsigned long violations = 0;
    std::set<std::string> reached;  ///< services
    std::set<std::size_t> places;   ///< of the table of places
};

class Table {
  public:
    Table(const FailureOptions& options, std::FILE* out) : options_(options), out_(out) {}

    void print_header() const { print_row("scenario", "service", "n", "outcome"); }
    void play(const Scenario& scenario);
    void print_sum() const;
    bool is_good() const;

  private:
    void play_service(const Scenario& scenario, const std::string& service, unsigned long calls);
    void count(const Run& run);
    void print_row(const char* scenario, const char* service, const std::string& n,
                   const std::string& outcome) const;
    void print_violations(const Run& run) const;

    const FailureOptions options_;
    std::FILE* const out_;
    Sum sum_;
};

void Table::print_row(const char* scenario, const char* service, const std::string& n,
                      const std::string& outcome) const {
    std::fprintf(out_, "%-12s  %-31s  %3s  %s\n", scenario, service, n.c_str(), outcome.c_str());
}

void Table::print_violations(const Run& run) const {
    for (const std::string& violation : run.violations)
        std::fprintf(out_, "%50s  VIOLATION: %s\n", "", violation.c_str());
}

void Table::count(const Run& run) {
    ++sum_.runs;
    sum_.failures += run.hit;
    sum_.violations += !run.violations.empty();
    if (run.place)
        sum_.places.insert(*run.place);
}

/* The first run has no fault: it tells which services the scenario calls. */
void Table::play(const Scenario& scenario) {
    const Run run = run_apart(scenario, {});
    count(run);
    print_row(scenario.name, "-", "-", run.outcome);
    print_violations(run);
    for (const std::string& service : host::services_that_fail())
        if (const auto calls = run.calls.find(service); calls != run.calls.end() && calls->second)
            play_service(scenario, service, calls->second);
}

void Table::play_service(const Scenario& scenario, const std::string& service,
                         unsigned long calls) {
    unsigned long bad = 0;
    // The run that goes through is the first one again; a short table does without.
    for (unsigned long n = 1; n <= calls || !options_.brief; ++n) {
        const Run run = run_apart(scenario, {service, n});
        count(run);
        bad += !run.violations.empty();
        if (run.hit)
            sum_.reached.insert(service);
        if (!options_.brief || !run.violations.empty())
            print_row(scenario.name, service.c_str(), std::to_string(n),
                      run.hit ? run.where + ": " + run.outcome : run.outcome);
        print_violations(run);
        // A run that died may not have said that it was hit.
        if (!run.hit && n > calls)
            break;
    }
    if (options_.brief)
        print_row(scenario.name, service.c_str(), "1-" + std::to_string(calls),
                  bad ? std::to_string(bad) + " bad" : "good");
}

bool Table::is_good() const {
    const bool reached = sum_.reached.size() == host::services_that_fail().size() &&
                         sum_.places.size() == all_places().size();
    return sum_.violations == 0 && (reached || !options_.scenario.empty());
}

void Table::print_sum() const {
    const std::vector<std::string> places = all_places();
    std::fprintf(out_, "\n%zu of %zu services reached in %zu of %zu places\n", sum_.reached.size(),
                 host::services_that_fail().size(), sum_.places.size(), places.size());
    std::fprintf(out_, "%lu runs, %lu failures made, %lu runs with violations\n", sum_.runs,
                 sum_.failures, sum_.violations);
    if (!options_.scenario.empty())
        return;
    for (const std::string& service : host::services_that_fail())
        if (!sum_.reached.contains(service))
            std::fprintf(out_, "never reached: %s\n", service.c_str());
    for (std::size_t i = 0; i < places.size(); ++i)
        if (!sum_.places.contains(i))
            std::fprintf(out_, "never reached: %s\n", places[i].c_str());
}

bool is_known(const std::string& name) {
    return std::ranges::any_of(scenarios(),
                               [&](const Scenario& scenario) { return scenario.name == name; });
}

int complain_of(const std::string& name) {
    std::fprintf(stderr, "tarv-host: there is no scenario %s; there are:\n", name.c_str());
    for (const Scenario& scenario : scenarios())
        std::fprintf(stderr, "  %-12s  %s\n", scenario.name, scenario.reaches);
    return 2;
}

}  // namespace

int run_failures(const FailureOptions& options, std::FILE* out) {
    if (!options.scenario.empty() && !is_known(options.scenario))
        return complain_of(options.scenario);
    Table table(options, out);
    table.print_header();
    for (const Scenario& scenario : scenarios())
        if (options.scenario.empty() || options.scenario == scenario.name)
            table.play(scenario);
    table.print_sum();
    return table.is_good() ? 0 : 1;
}

}  // namespace soak
