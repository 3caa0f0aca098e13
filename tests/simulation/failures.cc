// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/failures.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include "host/faults.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tests/simulation/apart.h"

namespace simulation {
namespace {

/* Longer than a request can take that is re-issued ten times on both lists. */
constexpr unsigned long patience = 60'000;

/* The `n`-th call of a service fails; the 0th: none does. */
struct Fault {
    std::string service;
    unsigned long n;
};

/* Failures that no ERROR or WARNING tells of. */
struct Silence {
    const char* service;
    const char* says;  ///< a part of the line that tells of it instead; empty: there is none
    const char* why;
};
constexpr Silence in_a_load[] = {
    {"kmalloc", "", "the version file may be missing"},
    {"proc_mkdir", "", "the version file may be missing"},
    {"create_proc_entry", "", "the version file may be missing"},
    {"rep_open_key", "rep_open_key failed", "a module without its key logs nothing"},
    {"rep_get_value", "rep_get_value failed", "a module without its key logs nothing"},
    {"rep_notify_key_change", "", "the level stays as it was read"},
};
constexpr Silence anywhere[] = {
    {"kmalloc", "IB-Arp Table entries: ", "the table is shown part by part"},
    {"copy_from_user", "", "what cannot be copied is no command"},
    {"gx_hca_open", "tarv_sa_get_sa_info", "the subnet manager is asked for where it was"},
    {"gx_port_query", "tarv_sa_get_sa_info", "the subnet manager is asked for where it was"},
    {"port_num2base_gid", "", "a purge or a field of the static path is left out"},
    {"port_num2base_lid", "", "the static path keeps that field"},
    {"gsi_deregister_class", "", "it is called again until it succeeds"},
};

/* A judge who keeps an eye on the failure and on the log. */
class FailureJudge final : public Judge {
  public:
    FailureJudge(const app::Site& site, unsigned long first_jiffy, const Fault& fault)
        : Judge(site, first_jiffy), fault_(fault) {
        host::watch_faults([this](const char*) { strike(); });
        if (fault.n != 0)
            host::fail_nth(fault.service, fault.n);
    }
    ~FailureJudge() override { host::watch_faults({}); }

    /// Once it has struck, little goes as the script expects.
    void play(const app::ScriptStep& step) {
        if (!struck || !step.expects)
            take(step);
        judge_log();
    }
    void wait() {
        if (loaded())
            kernel().advance(patience);
        judge_log();
    }
    void resolve_one_more(std::uint32_t ip, std::uint32_t from);

    bool struck = false;

  private:
    struct Line {
        std::string text;
        unsigned long tick;
    };

    void say(const std::string& text) override {
        log_.push_back({text, kernel().jiffies()});
        Judge::say(text);
    }
    void strike();
    void judge_log();
    bool says(std::string_view words) const;
    bool may_be_silent() const;

    const Fault fault_;
    std::vector<Line> log_;
    std::size_t struck_before_line_ = 0;
    unsigned long struck_at_ = 0;
    bool struck_in_a_load_ = false, judged_ = false;
};

/* The module takes its level over at the end of a load, and scripts change it. The variable is
 * exported: what it logs of the failure is made visible. */
void FailureJudge::strike() {
    struck = true;
    struck_before_line_ = log_.size();
    struck_at_ = kernel().jiffies();
    struck_in_a_load_ = !loaded();
    write_once(TARV_trace_level, static_cast<int>(TARV_DEBUG));
}

/* Whether a line of the failure's own tick has those words. */
bool FailureJudge::says(std::string_view words) const {
    return std::any_of(log_.begin() + static_cast<std::ptrdiff_t>(struck_before_line_), log_.end(),
                       [&](const Line& line) {
                           return line.tick == struck_at_ && line.text.find(words) != words.npos;
                       });
}

bool FailureJudge::may_be_silent() const {
    const auto stands_in = [&](const auto& table) {
        return std::ranges::any_of(table, [&](const Silence& silence) {
            return fault_.service == silence.service && (!*silence.says || says(silence.says));
        });
    };
    return (struck_in_a_load_ && stands_in(in_a_load)) || stands_in(anywhere);
}

/* After the step in which the failure struck: what else is logged may have other reasons. */
void FailureJudge::judge_log() {
    if (!struck || judged_)
        return;
    judged_ = true;
    if (!says("ERROR   : ") && !says("WARNING : ") && !may_be_silent())
        violate("failure_not_logged", "the failure is not logged");
}

/* A module that was halted stays so until it is unloaded, and a port whose SA context could not be
 * made gets it when its link comes up once more. */
void FailureJudge::resolve_one_more(std::uint32_t ip, std::uint32_t from) {
    calm();
    if (loaded() && read_once(halted))
        unload_module();
    if (!loaded())
        load_module({});
    if (!fabric().ipoib().attached())
        attach_driver();
    for (const bool up : {false, true}) {
        for (int port = 1; port <= fabric().adapter().ports(); ++port)
            fabric().set_link(port, up);
        kernel().settle();
    }
    for (const char* line : {"enable\n", "sa_queries on\n", "set_retry_cnt 3\n"})
        write_control(line);
    resolve({.ip = ip, .from = from, .paths = tarv_paths_primary});
    kernel().advance(patience);
    if (requests().back().status != tarv_stat_ok)
        violate("unresolved", "afterwards a host cannot be resolved");
}

/* The last host of the fabric is the one that no script asks for. */
void play(Board& board, const std::string& path, const Fault& fault) {
    std::ifstream in(path);
    const app::Site usual = app::read_site({});
    const app::Script script = app::read_script(in, path, usual);
    const app::Site& site = script.made_site ? *script.made_site : usual;
    FailureJudge judge(site, script.first_jiffy, fault);
    for (const app::ScriptStep& step : script.steps) {
        judge.play(step);
        board.struck = judge.struck;
        ++board.lines;
    }
    judge.wait();
    board.struck = judge.struck;
    judge.resolve_one_more(site.hosts.back().ip, site.our_host().ip);
    judge.end(true);
    if (judge.violation())
        board.write(*judge.violation());
}

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
    const Result run = run_apart([&](Board& board) { simulation::play(board, script, fault); });
    ++runs_;
    if (run.struck)
        reached_.insert(fault.service);
    if (run.violation) {
        ++bad_;
        std::fprintf(out_, "VIOLATION: %s, %s %lu: %s: %s\n",
                     std::filesystem::path(script).stem().c_str(), fault.service.c_str(), fault.n,
                     run.violation->name.c_str(), run.violation->text.c_str());
    }
    return run.struck;
}

void Table::play(const std::string& script) {
    const unsigned long runs_before = runs_, bad_before = bad_;
    play(script, {"-", 0});
    for (const std::string& service : host::services_that_fail())
        for (unsigned long n = 1; play(script, {service, n}); ++n) {
        }
    std::fprintf(out_, "%-24s  %5lu runs, %lu bad\n", std::filesystem::path(script).stem().c_str(),
                 runs_ - runs_before, bad_ - bad_before);
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
