// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The child plays and judges, and writes what it found line by line into a pipe, which also has its
// standard error; the parent reads until the child is gone.
#include "tests/simulation/failures_run.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>

#include "app/script.h"
#include "app/script_text.h"
#include "host/check.h"
#include "host/faults.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-req-list.h"

namespace simulation {
namespace {

/* Longer than a request can take that is re-issued ten times on both lists. */
constexpr unsigned long patience = 60'000;

/* Seconds. A run takes milliseconds, with a sanitizer some more. */
constexpr unsigned time_limit = 60;

/* In front of the child's own lines. */
constexpr char mark_of_report = '\x01';

void tell(const char* what, const std::string& text) {
    std::fprintf(stderr, "%c%s %s\n", mark_of_report, what, text.c_str());
}

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

/* A script's host that keeps an eye on its clients, its log and the failure. */
class Play final : public app::ScriptHost {
  public:
    Play(const app::Script& script, const app::Site& site, const Fault& fault,
         std::ostream& nowhere)
        : ScriptHost(site, script.first_jiffy, nowhere, nowhere), site_(site), fault_(fault) {
        host::watch_faults([this](const char*) { strike(); });
        if (fault.n != 0)
            host::fail_nth(fault.service, fault.n);
    }
    ~Play() override { host::watch_faults({}); }

    void step(const app::ScriptStep& step);
    void wait();
    void resolve_one_more();
    void judge_clients();

    /// What the failure brought about, in a few words.
    std::string outcome;
    bool struck = false;

  private:
    void say(const std::string& text) override;
    void fail(const std::string& place, const std::string& message) override;
    int enter_load(const std::vector<std::string>& parameters) override;
    app::Departure enter_unload() override;
    tarv_stat_t enter_request(app::ScriptReply& made, tarv_arp_data_t& record) override;

    struct Line {
        std::string text;
        unsigned long tick;
    };

    void strike();
    void judge_log();
    bool says(const std::string& words) const;
    const Silence* find_silence() const;
    void take_links(bool up);

    const app::Site& site_;
    const Fault fault_;
    std::vector<Line> log_;
    std::size_t struck_before_line_ = 0;
    unsigned long struck_at_ = 0;
    bool loading_ = false, struck_in_a_load_ = false, judged_ = false, expecting_ = false;
    std::map<const app::ScriptReply*, tarv_stat_t> told_at_once_;
    unsigned may_end_silently_ = 0;
};

/* The module takes its level over at the end of a load, and scripts change it. The variable is
 * exported: what it logs of the failure is made visible. */
void Play::strike() {
    struck = true;
    tell("struck", "");
    struck_before_line_ = log_.size();
    struck_at_ = kernel().jiffies();
    struck_in_a_load_ = loading_;
    write_once(TARV_trace_level, static_cast<int>(TARV_DEBUG));
}

void Play::say(const std::string& text) {
    log_.push_back({text, kernel().jiffies()});
    ScriptHost::say(text);
    if (text.starts_with("remains: "))
        tell("violation", "left behind: " + text.substr(9));
    if (text.find("Not enough memory to allocate a temp_arp_data") != text.npos)
        ++may_end_silently_;
}

/* With a failure little goes as the script expects. */
void Play::fail(const std::string& place, const std::string& message) {
    if (fault_.n == 0)
        tell("violation", place + ": " + message);
}

int Play::enter_load(const std::vector<std::string>& parameters) {
    loading_ = true;
    const int result = ScriptHost::enter_load(parameters);
    loading_ = false;
    if (result != 0 && !struck)
        tell("violation", "a load returned " + std::to_string(result));
    return result;
}

app::Departure Play::enter_unload() TA_NO_ANALYSIS {
    for (const tarv_list_entry_t* entry : tarv_request_list(::requests.head))
        may_end_silently_ += entry->reply_cb != nullptr;
    return ScriptHost::enter_unload();
}

tarv_stat_t Play::enter_request(app::ScriptReply& made, tarv_arp_data_t& record) {
    return told_at_once_[&made] = ScriptHost::enter_request(made, record);
}

void Play::step(const app::ScriptStep& step) {
    if (expecting_ && !step.expects)
        forget_lines();
    expecting_ = step.expects;
    try {
        play_step(step, *this);
    } catch (const std::exception& failed) {
        fail(step.place, failed.what());
    }
    if (const std::string held = host::held_locks(); !held.empty())
        tell("violation", "the lock " + held + " is held after " + step.place);
    judge_log();
}

/* Lets what waits come to its end. */
void Play::wait() {
    if (loaded())
        kernel().advance(patience);
    judge_log();
}

/* Whether a line of the failure's own tick has those words. */
bool Play::says(const std::string& words) const {
    return words.empty() ||
           std::any_of(log_.begin() + static_cast<std::ptrdiff_t>(struck_before_line_), log_.end(),
                       [&](const Line& line) {
                           return line.tick == struck_at_ && line.text.find(words) != words.npos;
                       });
}

const Silence* Play::find_silence() const {
    const auto find = [&](const auto& table) -> const Silence* {
        const auto row = std::ranges::find_if(table, [&](const Silence& silence) {
            return fault_.service == silence.service && says(silence.says);
        });
        return row == std::end(table) ? nullptr : &*row;
    };
    const Silence* const silence = struck_in_a_load_ ? find(in_a_load) : nullptr;
    return silence ? silence : find(anywhere);
}

/* After the step in which the failure struck: what else is logged may have other reasons. */
void Play::judge_log() {
    if (!struck || judged_)
        return;
    judged_ = true;
    for (std::size_t i = struck_before_line_; i < log_.size() && outcome.empty(); ++i)
        if (log_[i].tick == struck_at_ &&
            (log_[i].text.starts_with("ERROR  ") || log_[i].text.starts_with("WARNING")))
            outcome = log_[i].text;
    if (!outcome.empty())
        return;
    if (const Silence* const silence = find_silence())
        outcome = std::string("silent: ") + silence->why;
    else
        tell("violation", "the failure is not logged");
}

void Play::take_links(bool up) {
    for (int port = 1; port <= fabric().adapter().ports(); ++port)
        fabric().set_link(port, up);
    kernel().settle();
}

/* The last host of the fabric is the one that no script asks for. */
void Play::resolve_one_more() {
    calm();
    // A module that was halted stays so until it is unloaded.
    if (loaded() && read_once(halted))
        unload_module();
    if (!loaded())
        load_module({});
    if (!fabric().ipoib().attached())
        attach_driver();
    // A port whose SA context could not be made gets it when its link comes up once more.
    take_links(false);
    take_links(true);
    for (const char* line : {"enable\n", "sa_queries on\n", "set_retry_cnt 3\n"})
        write_control(line);
    resolve(
        {.ip = site_.hosts.back().ip, .from = site_.our_host().ip, .paths = tarv_paths_primary});
    kernel().advance(patience);
    if (requests().back().status != tarv_stat_ok)
        tell("violation",
             "afterwards a host cannot be resolved: " + app::status_name(requests().back().status));
    unload_module();
}

void Play::judge_clients() {
    unsigned silent = 0;
    for (const app::ScriptReply& made : requests()) {
        const auto told = told_at_once_.find(&made);
        if (told == told_at_once_.end() || !made.request.callback)
            continue;
        const unsigned due = told->second == tarv_stat_pending;
        if (made.callbacks > due)
            tell("violation", "request " + std::to_string(made.number) + " was answered " +
                                  app::status_name(told->second) + " and then told " +
                                  std::to_string(made.callbacks) + " times");
        silent += made.callbacks < due;
    }
    if (silent > may_end_silently_)
        tell("violation", std::to_string(silent) + " request(s) without an answer, " +
                              std::to_string(may_end_silently_) + " of them for a reason");
}

void play(const std::string& path, const Fault& fault) {
    std::ifstream in(path);
    const app::Site usual = app::read_site({});
    const app::Script script = app::read_script(in, path, usual);
    std::ostream nowhere(nullptr);
    Play play(script, script.made_site ? *script.made_site : usual, fault, nowhere);
    for (const app::ScriptStep& step : script.steps)
        play.step(step);
    play.wait();
    play.resolve_one_more();
    play.judge_clients();
    tell("outcome", play.outcome);
}

[[noreturn]] void be_child(const std::string& script, const Fault& fault, int out) {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    alarm(time_limit);
    dup2(out, STDERR_FILENO);
    try {
        play(script, fault);
    } catch (const std::exception& error) {
        tell("violation", std::string("the run ended with: ") + error.what());
    }
    tell("end", "");
    _exit(0);
}

/* The line that names why the program stopped, among what else a run time prints. */
std::string last_words(const std::vector<std::string>& lines) {
    for (const char* sign : {"host: ", "ERROR: ", "WARNING: ", "runtime error: ", "terminate "})
        for (const std::string& line : lines)
            if (line.find(sign) != std::string::npos)
                return line;
    return lines.empty() ? "no word" : lines.back();
}

void take_report(Run& run, const std::string& line) {
    const std::size_t blank = line.find(' ');
    const std::string what = line.substr(1, blank - 1);
    if (what == "struck")
        run.struck = true;
    else if (what == "outcome")
        run.outcome = line.substr(blank + 1);
    else if (what == "violation")
        run.violations.push_back(line.substr(blank + 1));
    else
        run.ended = what == "end";
}

Run take_all(std::FILE* from) {
    Run run;
    std::vector<std::string> others;
    char* line = nullptr;
    std::size_t room = 0;
    for (ssize_t size; (size = getline(&line, &room, from)) > 0;) {
        const std::string text(line, static_cast<std::size_t>(size) - (line[size - 1] == '\n'));
        if (text.starts_with(mark_of_report))
            take_report(run, text);
        else
            others.push_back(text);
    }
    std::free(line);
    if (!run.ended)
        run.violations.push_back("it died or did not end: " + last_words(others));
    return run;
}

}  // namespace

Run run_apart(const std::string& script, const Fault& fault) {
    int ends[2];
    std::fflush(nullptr);
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe to the run");
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("no process for the run");
    if (child == 0) {
        close(ends[0]);
        be_child(script, fault, ends[1]);
    }
    close(ends[1]);
    std::FILE* const from = fdopen(ends[0], "r");
    const Run run = take_all(from);
    std::fclose(from);
    waitpid(child, nullptr, 0);
    return run;
}

}  // namespace simulation
