// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/script_host.h"

#include <ostream>
#include <sstream>
#include <utility>

#include "app/script_text.h"
#include "host/console.h"
#include "tarv/tarv-module.h"

namespace app {

ScriptHost::ScriptHost(Site site, unsigned long first_jiffy, std::ostream& out, std::ostream& err)
    : out_(out),
      err_(err),
      kernel_({.clock = host::Clock::virtual_time, .first_jiffy = first_jiffy}),
      fabric_(std::move(site.topology), std::move(site.hosts), site.us) {
    const HostOptions defaults;
    host::set_logger_level(defaults.logger_level);
    host::set_repository_value("quorvane/modules/tarv/", "debug-level",
                               static_cast<std::uint64_t>(defaults.debug_level));
    host::set_console([this](const host::LogLine& line) { say(hide_addresses(line.text)); });
}

ScriptHost::~ScriptHost() {
    if (loaded_)
        unload();
}

void ScriptHost::load(const std::vector<std::string>& parameters) {
    if (loaded_)
        return say("load: the module is loaded already");
    if (const int result = host::load_module(tarv_module, parameters); result != 0) {
        say("load: " + std::to_string(result));
        return report_remains();
    }
    loaded_ = true;
    if (const tarv_stat_t status = fabric_.ipoib().attach(); status != tarv_stat_ok)
        say("attach: " + status_name(status));
}

void ScriptHost::unload() {
    if (!loaded_)
        return say("unload: no module is loaded");
    if (fabric_.ipoib().attached())
        fabric_.ipoib().detach();
    host::unload_module(tarv_module);
    loaded_ = false;
    report_remains();
}

void ScriptHost::report_remains() {
    for (const std::string& line : kernel_.remains()) {
        say("remains: " + hide_addresses(line));
        failed_ = true;
    }
}

void ScriptHost::resolve(const ScriptRequest& request) {
    Request& made = requests_.emplace_back();
    made.host = this;
    made.number = requests_.size();
    const std::string verb = "resolve " + std::to_string(made.number);
    auto* const get_ib_data = function<tarv_get_ib_data_fn_t>(verb, "tarv_get_ib_data_fn");
    if (!get_ib_data)
        return;
    const tarv_stat_t status =
        get_ib_data(request.ip, request.from, request.paths, &made.record,
                    request.callback ? on_reply : nullptr, &made, request.invalidate);
    if (made.callbacks == 0)
        made.status = status;
    say(verb + ": " + status_name(status));
    if (status == tarv_stat_ok)
        say(format_record(made.record));
}

void ScriptHost::on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    auto& request = *static_cast<Request*>(context);
    request.status = status;
    ++request.callbacks;
    request.host->say("reply " + std::to_string(request.number) + ": " + status_name(status));
    if (status == tarv_stat_ok)
        request.host->say(format_record(*record));
}

const ScriptReply* ScriptHost::reply(std::size_t number) const {
    return number >= 1 && number <= requests_.size() ? &requests_[number - 1] : nullptr;
}

const void* ScriptHost::find(const std::string& verb, const std::string& name) {
    const void* const found = host::inter_module_get(name);
    if (!found)
        say(verb + ": no module offers " + name);
    return found;
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
