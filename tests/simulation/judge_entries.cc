// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a script does to the module: each is told to the model first.
#include <algorithm>

#include "host/check.h"
#include "host/faults.h"
#include "platform/jiffies.h"
#include "tarv/tarv-index.h"
#include "tests/simulation/judge.h"

namespace simulation {
namespace {

constexpr char busy_text[] = "Another call is pending please try later ...\n";
constexpr unsigned long usual_timeout = 300;

/* The seconds after which an entry that is not used goes, as the loader is told. */
unsigned long timeout_of(const std::vector<std::string>& parameters) {
    constexpr std::string_view name = "arp_cache_timeout_sec=";
    unsigned long seconds = usual_timeout;
    for (const std::string& parameter : parameters)
        if (parameter.starts_with(name))
            seconds =
                app::parse_number(std::string_view(parameter).substr(name.size())).value_or(0);
    return seconds;
}

Question question_of(app::ScriptReply& made) {
    const app::ScriptRequest& request = made.request;
    return {request.ip, request.from, request.paths, &made, request.callback, request.invalidate};
}

Count count_of(tarv_stat_t status) {
    return status == tarv_stat_ok        ? Count::replies_ok
           : status == tarv_stat_timeout ? Count::replies_timeout
           : status == tarv_stat_error   ? Count::replies_error
                                         : Count::replies_not_found;
}

/* What hashes and ranks depend on, the module draws from where its stack lies and when; here equal
 * scripts have equal numbers, so that what was found is found again. In half of the worlds they are
 * such that one head serves whoever else would hardly ever meet: every GID, and each host of one
 * block of addresses with its like in the others. */
void draw_numbers(unsigned long first_jiffy) {
    tarv_index_set(first_jiffy);
    if (first_jiffy % 2 == 0)
        return;
    tarv_index_drawn.block = 1;
    for (u64& number : tarv_index_drawn.gid)
        number = 0;
}

bool aims_at_itself(const tarv_arp_data_t& record) {
    return record.primary_path == record.paths && record.secondary_path == record.paths + 1;
}

}  // namespace

int Judge::enter_load(const std::vector<std::string>& parameters) {
    const int result = ScriptHost::enter_load(parameters);
    counts_.note(result == 0 ? Count::loads : Count::loads_failed);
    if (result != 0)
        return result;
    draw_numbers(first_jiffy_);
    repeats_known_ = true;
    model_.load(timeout_of(parameters));
    wrap_timers();
    return 0;
}

app::Departure Judge::enter_unload() {
    unloading_ = true;
    no_memory_before_ = host::failed_calls_of("kmalloc");
    const app::Departure departure = ScriptHost::enter_unload();
    counts_.note(Count::unloads);
    for (const std::size_t number : waiting_)
        if (clients_[number - 1].state == Standing::pending)
            forget(*reply(number), clients_[number - 1], "unload");
    waiting_.clear();
    unloading_ = false;
    model_.unload();
    readings_.clear();
    holder_ = nullptr;
    reading_known_ = true;
    return departure;
}

tarv_stat_t Judge::enter_attach() {
    const bool was = model_.state().is.attached;
    const tarv_stat_t status = ScriptHost::enter_attach();
    if (loaded() && (status == tarv_stat_ok) == was)
        violate("wrong_result", was ? "a second driver was attached" : "no driver can be attached");
    model_.attach(was || status == tarv_stat_ok);
    return status;
}

tarv_stat_t Judge::enter_detach() {
    const bool was = model_.state().is.attached;
    const tarv_stat_t status = ScriptHost::enter_detach();
    model_.attach(was && status != tarv_stat_ok);
    return status;
}

// Clients.

tarv_stat_t Judge::enter_request(app::ScriptReply& made, tarv_arp_data_t& record) {
    const std::string request = "request " + std::to_string(made.number);
    clients_.resize(made.number);
    tarv_arp_data_t expected{};
    open("request");
    const tarv_stat_t due = model_.ask(question_of(made), expected);
    model_told();
    const tarv_stat_t status = ScriptHost::enter_request(made, record);
    Client& client = client_of(made);
    if (status == tarv_stat_pending && client.state == Standing::asking) {
        client.state = Standing::pending;
        waiting_.push_back(made.number);
    } else if (status != tarv_stat_pending) {
        if (client.state == Standing::answered)
            violate("answered_twice", request + " got a callback and a result as well");
        client.state = Standing::refused;
    }
    if (status == tarv_stat_ok && (record.dst_ip != made.request.ip || !aims_at_itself(record)))
        violate("wrong_answer", request + " got the record of another address, or its paths");
    if (knows() && status != due)
        violate("wrong_result",
                request + " got " + std::to_string(status) + ", due was " + std::to_string(due));
    else if (knows() && status == tarv_stat_ok && !same_record(expected, record))
        violate("stale_hit", request + ": the record " + difference(expected, record));
    close();
    return status;
}

void Judge::replied(app::ScriptReply& made, tarv_stat_t status, const tarv_arp_data_t* record) {
    const std::string request = "request " + std::to_string(made.number);
    Client& client = client_of(made);
    if (client.state != Standing::pending && client.state != Standing::asking)
        violate("second_callback", request + " has had its answer already");
    client.state = Standing::answered;
    counts_.note(count_of(status));
    if ((status == tarv_stat_ok) != (record != nullptr))
        violate("wrong_answer", request + ": a record comes with the status ok and only with it");
    if (record && (record->dst_ip != made.request.ip || !aims_at_itself(*record)))
        violate("wrong_answer", request + " was answered with another's record, or its paths");
    if (!windows_.empty())
        windows_.back().got.push_back({&made, status, record ? *record : tarv_arp_data_t{}});
    else if (!unloading_)
        violate("needless_callback", request + " was called back out of nothing");
    ScriptHost::replied(made, status, record);
}

tarv_stat_t Judge::enter_lookup(const gx_gid_t& gid, tarv_arp_data_t& record) {
    tarv_arp_data_t expected{};
    open("lookup by GID");
    const tarv_stat_t due = model_.lookup(gid, expected);
    model_told();
    const tarv_stat_t status = ScriptHost::enter_lookup(gid, record);
    if (status != due || (due == tarv_stat_ok && !same_record(expected, record)))
        violate("wrong_lookup", "a GID does not find the first entry that has it");
    close();
    return status;
}

tarv_stat_t Judge::enter_arp(tarv_arp_data_t record) {
    before_arp(record);
    const tarv_stat_t status = ScriptHost::enter_arp(record);
    after_arp(status);
    return status;
}

// The administrator.

long Judge::enter_write(host::ProcFile& file, const std::string& text) {
    const bool adds_path = text.find("addpath") != text.npos;
    const bool repeats = adds_path && text.find('*') != text.npos;
    const unsigned long paths_read = model_.paths_read();
    open("command");
    model_.command(text);
    model_told();
    disturbed_ |= repeats && !repeats_known_;
    const long taken = ScriptHost::enter_write(file, text);
    if (adds_path && !knows())
        repeats_known_ = false;
    else if (adds_path && !repeats && model_.paths_read() != paths_read)
        repeats_known_ = true;
    if (taken != static_cast<long>(text.size()))
        violate("wrong_result", "a write was not taken whole");
    close();
    return taken;
}

Judge::Reading& Judge::begin_reading(const app::ScriptReader* reader) {
    counts_.note(holder_ ? Count::readers_busy : Count::tables_read);
    const std::string text = holder_ ? busy_text : model_.text();
    if (!holder_)
        holder_ = reader;
    return readings_[reader] = {text, 0};
}

std::string Judge::enter_read_whole(host::ProcFile& file, const std::string& name,
                                    std::size_t chunk) {
    if (name != "control")
        return ScriptHost::enter_read_whole(file, name, chunk);
    open("read");
    const std::string expected = begin_reading(nullptr).text;
    const std::string text = ScriptHost::enter_read_whole(file, name, chunk);
    if (knows() && reading_known_ && text != expected)
        violate("wrong_table", "the control file reads\n" + text + "and should read\n" + expected);
    readings_.erase(nullptr);
    close();
    return text;
}

std::string Judge::enter_read_part(app::ScriptReader& reader, std::size_t size, long offset) {
    // Who wants nothing of the beginning asks the module for nothing.
    if (size == 0 && offset <= 0 && !readings_.contains(&reader))
        return ScriptHost::enter_read_part(reader, size, offset);
    open("read");
    Reading& reading = readings_.contains(&reader) ? readings_[&reader] : begin_reading(&reader);
    const std::string part = ScriptHost::enter_read_part(reader, size, offset);
    if (!knows())
        reading_known_ = false;
    const std::size_t at = offset < 0 ? reading.at : static_cast<std::size_t>(offset);
    const std::string expected = reading.text.substr(std::min(at, reading.text.size()), size);
    if (offset < 0)
        reading.at += part.size();
    if (reading_known_ && part != expected)
        violate("wrong_table", "a reader gets\n" + part + "and should get\n" + expected);
    // Having given everything, the module is free for the next reader.
    if (holder_ == &reader && at + size > reading.text.size())
        holder_ = nullptr;
    close();
    return part;
}

/* His pass is ended for him, so that nobody is kept waiting by him. */
void Judge::reader_gone(app::ScriptReader& reader) {
    readings_.erase(&reader);
    if (holder_ == &reader)
        holder_ = nullptr;
    reading_known_ |= readings_.empty();
}

}  // namespace simulation
