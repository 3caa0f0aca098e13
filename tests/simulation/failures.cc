// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table of all runs: which there are, and what came of them.
#include "tests/simulation/failures.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include "host/faults.h"
#include "tests/simulation/failures_run.h"

namespace simulation {
namespace {

std::vector<std::filesystem::path> scripts_of(const FailureOptions& options) {
    std::vector<std::filesystem::path> scripts;
    for (const auto& entry : std::filesystem::directory_iterator(options.scripts)) {
        const std::filesystem::path& path = entry.path();
        std::ifstream in(path);
        const std::string text(std::istreambuf_iterator<char>(in), {});
        if (path.extension() == ".tarv" && text.find("\nfail ") == text.npos &&
            path.stem().string().find(options.scenario) != std::string::npos)
            scripts.push_back(path);
    }
    std::ranges::sort(scripts);
    return scripts;
}

class Table {
  public:
    Table(const FailureOptions& options, std::FILE* out) : options_(options), out_(out) {}
    void play(const std::string& script);
    bool is_good() const;

  private:
    bool play(const std::string& script, const Fault& fault);

    const FailureOptions& options_;
    std::FILE* const out_;
    unsigned long runs_ = 0, bad_ = 0;
    std::set<std::string> reached_;  // services
};

/* Whether the call that was to fail was made. */
bool Table::play(const std::string& script, const Fault& fault) {
    const Run run = run_apart(script, fault);
    const std::string name = std::filesystem::path(script).stem();
    ++runs_;
    bad_ += !run.violations.empty();
    if (run.struck)
        reached_.insert(fault.service);
    if (!options_.brief || !run.violations.empty())
        std::fprintf(out_, "%-24s  %-31s  %3lu  %s\n", name.c_str(), fault.service.c_str(), fault.n,
                     run.outcome.c_str());
    for (const std::string& violation : run.violations)
        std::fprintf(out_, "  VIOLATION: %s\n", violation.c_str());
    return run.struck;
}

void Table::play(const std::string& script) {
    const unsigned long runs_before = runs_, bad_before = bad_;
    play(script, {"-", 0});
    for (const std::string& service : host::services_that_fail())
        for (unsigned long n = 1; play(script, {service, n}); ++n) {
        }
    if (options_.brief)
        std::fprintf(out_, "%-24s  %5lu runs, %lu bad\n",
                     std::filesystem::path(script).stem().c_str(), runs_ - runs_before,
                     bad_ - bad_before);
}

bool Table::is_good() const {
    std::fprintf(out_, "\n%lu runs, %lu with violations, %zu of %zu services reached\n", runs_,
                 bad_, reached_.size(), host::services_that_fail().size());
    if (!options_.scenario.empty())
        return bad_ == 0;
    for (const std::string& service : host::services_that_fail())
        if (!reached_.contains(service))
            std::fprintf(out_, "never reached: %s\n", service.c_str());
    return bad_ == 0 && reached_.size() == host::services_that_fail().size();
}

}  // namespace

int run_failures(const FailureOptions& options, std::FILE* out) {
    const std::vector<std::filesystem::path> scripts = scripts_of(options);
    if (scripts.empty()) {
        std::fprintf(stderr, "there is no script %s*.tarv in %s\n", options.scenario.c_str(),
                     options.scripts.c_str());
        return 2;
    }
    Table table(options, out);
    for (const std::filesystem::path& script : scripts)
        table.play(script);
    return table.is_good() ? 0 : 1;
}

}  // namespace simulation
