// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/script_host.h"

#include <ostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "app/script_text.h"
#include "host/console.h"
#include "host/faults.h"
#include "host/services.h"

namespace app {

ScriptHost::ScriptHost(Site site, unsigned long first_jiffy, std::ostream& out, std::ostream& err)
    : out_(out),
      err_(err),
      machine_(std::move(site), {},
               {.clock = host::Clock::virtual_time, .first_jiffy = first_jiffy},
               [this](const host::LogLine& line) { say(hide_addresses(line.text)); }) {}

ScriptHost::~ScriptHost() {
    if (loaded())
        ScriptHost::unload_module();
    host::set_console({});
}

// Coming and going.

void ScriptHost::load_module(const std::vector<std::string>& parameters) {
    if (loaded())
        return refuse("load: the module is loaded already");
    if (const int result = enter_load(parameters); result != 0) {
        say("load: " + std::to_string(result) + " " + std::generic_category().message(-result));
        return report(kernel().remains());
    }
    if (const tarv_stat_t status = enter_attach(); status != tarv_stat_ok)
        say("attach: " + status_name(status));
}

void ScriptHost::unload_module() {
    if (!loaded())
        return refuse("unload: no module is loaded");
    // Who has a file open keeps the module where it is.
    for (std::size_t reader = 0; reader < script_readers; ++reader)
        close_reader(reader);
    const Departure departure = enter_unload();
    report(departure.remains);
}

void ScriptHost::report(const std::vector<std::string>& remains) {
    for (const std::string& line : remains) {
        say("remains: " + hide_addresses(line));
        failed_ = true;
    }
}

void ScriptHost::attach_driver() {
    say("attach: " + status_name(enter_attach()));
}

void ScriptHost::detach_driver() {
    say("detach: " + status_name(enter_detach()));
}

int ScriptHost::enter_load(const std::vector<std::string>& parameters) {
    return machine_.load(parameters);
}

Departure ScriptHost::enter_unload() {
    return machine_.unload();
}

tarv_stat_t ScriptHost::enter_attach() {
    return fabric().ipoib().attach();
}

tarv_stat_t ScriptHost::enter_detach() {
    return fabric().ipoib().detach();
}

// What other modules ask for and hand in.

/* A function that the module offers to others; null when it does not, which is said. */
template <class Function>
Function* ScriptHost::function(const std::string& verb, const std::string& name) {
    try {
        return machine_.function<Function>(name);
    } catch (const std::runtime_error&) {
        refuse(verb + ": no module offers " + name);
        return nullptr;
    }
}

void ScriptHost::resolve(const ScriptRequest& request) {
    const host::ContextScope scope(request.in_driver ? host::Context::driver
                                                     : host::Context::process);
    for (unsigned i = 0; i < request.times; ++i)
        ask(request);
}

void ScriptHost::ask(const ScriptRequest& request) {
    ScriptReply& made = requests_.emplace_back(ScriptReply{this, requests_.size() + 1, request});
    const std::string verb = "resolve " + std::to_string(made.number);
    if (!function<tarv_get_ib_data_fn_t>(verb, "tarv_get_ib_data_fn"))
        return;
    tarv_arp_data_t record{};
    const tarv_stat_t status = enter_request(made, record);
    if (made.callbacks == 0)
        made.status = status;
    say(verb + ": " + status_name(status));
    if (status == tarv_stat_ok)
        say(format_record(record));
}

tarv_stat_t ScriptHost::enter_request(ScriptReply& made, tarv_arp_data_t& record) {
    const ScriptRequest& request = made.request;
    return function<tarv_get_ib_data_fn_t>("", "tarv_get_ib_data_fn")(
        request.ip, request.from, request.paths, &record, request.callback ? on_reply : nullptr,
        &made, request.invalidate);
}

void ScriptHost::on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    host::must_hold_no_lock("a reply callback");
    auto& made = *static_cast<ScriptReply*>(context);
    made.host->replied(made, status, record);
}

void ScriptHost::replied(ScriptReply& made, tarv_stat_t status, const tarv_arp_data_t* record) {
    made.status = status;
    ++made.callbacks;
    say("reply " + std::to_string(made.number) + ": " + status_name(status));
    if (record)
        say(format_record(*record));
    if (!made.request.again)
        return;
    ScriptRequest request = made.request;
    request.again = false;
    ask(request);
}

const ScriptReply* ScriptHost::reply(std::size_t number) const {
    return number >= 1 && number <= requests_.size() ? &requests_[number - 1] : nullptr;
}

void ScriptHost::look_up(const gx_gid_t& gid) {
    if (!function<tarv_seq_cache_lookup_fn_t>("lookup-gid", "tarv_seq_cache_lookup_fn"))
        return;
    tarv_arp_data_t record{};
    const tarv_stat_t status = enter_lookup(gid, record);
    say("lookup-gid: " + status_name(status));
    if (status == tarv_stat_ok)
        say(format_record(record));
}

tarv_stat_t ScriptHost::enter_lookup(const gx_gid_t& gid, tarv_arp_data_t& record) {
    gx_gid_t wanted = gid;
    return function<tarv_seq_cache_lookup_fn_t>("", "tarv_seq_cache_lookup_fn")(&wanted, &record);
}

void ScriptHost::hear(const tarv_arp_data_t& record) {
    if (!function<tarv_process_arp_data_fn_t>("arp", "tarv_process_arp_data_fn"))
        return;
    const host::ContextScope in_driver(host::Context::driver);
    say("arp: " + status_name(enter_arp(record)));
}

tarv_stat_t ScriptHost::enter_arp(tarv_arp_data_t record) {
    return function<tarv_process_arp_data_fn_t>("", "tarv_process_arp_data_fn")(&record);
}

// Files.

/* Says as a shell would what the system call said. */
template <class Call>
void ScriptHost::with_file(const std::string& verb, const std::string& name, Call call) try {
    call();
} catch (const std::system_error& failed) {
    refuse(verb + ": " + name + ": " + failed.code().message());
}

namespace {

std::string path_of(const std::string& name) {
    return "quorvane/tarv/" + name;
}

std::string without_last_newline(std::string text) {
    if (text.ends_with('\n'))
        text.pop_back();
    return text;
}

}  // namespace

void ScriptHost::write_control(const std::string& text) {
    with_file("control", "control", [&] {
        host::ProcFile file(path_of("control"));
        const long taken = enter_write(file, text);
        if (taken != static_cast<long>(text.size()))
            say("control: " + std::to_string(taken) + " of " + std::to_string(text.size()) +
                " bytes taken");
    });
}

long ScriptHost::enter_write(host::ProcFile& file, const std::string& text) {
    return file.write(text);
}

void ScriptHost::print_file(const std::string& name, std::size_t chunk) {
    with_file("cat", name, [&] {
        host::ProcFile file(path_of(name));
        say(without_last_newline(enter_read_whole(file, name, chunk)));
    });
}

std::string ScriptHost::enter_read_whole(host::ProcFile& file, const std::string&,
                                         std::size_t chunk) {
    std::string text;
    for (std::string piece; !(piece = file.read(chunk)).empty();)
        text += piece;
    return text;
}

void ScriptHost::read_part(std::size_t number, std::size_t size, long offset) {
    ScriptReader& reader = readers_[number];
    with_file("reader", "control", [&] {
        if (!reader.file)
            reader.file = std::make_unique<host::ProcFile>(path_of("control"));
        const std::string part = enter_read_part(reader, size, offset);
        say(without_last_newline(part));
        // Whoever gets less than he asked for has come to the end of the file.
        if (part.size() < size && offset < 0)
            close_reader(number);
    });
}

std::string ScriptHost::enter_read_part(ScriptReader& reader, std::size_t size, long offset) {
    return offset < 0 ? reader.file->read(size) : reader.file->read_at(size, offset);
}

void ScriptHost::close_reader(std::size_t number) {
    reader_gone(readers_[number]);
    readers_[number] = {};
}

void ScriptHost::calm() {
    host::clear_faults();
    fabric().gsi().hand_out_nothing_next(false);
    fabric().sa().clear();
    for (const fabric::Host& host : fabric().hosts())
        if (fabric().peers().has(host.ip))
            fabric().peer(host.ip).clear();
    for (int port = 1; port <= fabric().adapter().ports(); ++port)
        fabric().port(port).clear();
}

// What is said.

void ScriptHost::refuse(const std::string& text) {
    refusal_ = text;
    say(text);
}

void ScriptHost::say(const std::string& text) {
    std::istringstream parts(text);
    for (std::string line; std::getline(parts, line);)
        lines_.push_back(line);
    // What was said must not be lost when a rule of the kernel is broken and the program stops.
    out_ << text << std::endl;
}

void ScriptHost::fail(const std::string& place, const std::string& message) {
    err_ << place << ": " << message << std::endl;
    failed_ = true;
}

}  // namespace app
