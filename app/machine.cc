// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/machine.h"

#include <stdexcept>
#include <system_error>
#include <utility>

#include "tarv/tarv-module.h"

namespace app {
namespace {

constexpr const char* control_file = "quorvane/tarv/control";
constexpr const char* level_key = "quorvane/modules/tarv/";

int load(const std::vector<std::string>& parameters) {
    try {
        return host::load_module(tarv_module, parameters);
    } catch (const std::invalid_argument& refused) {
        throw UsageError(std::string("--param: ") + refused.what());
    }
}

}  // namespace

Machine::Machine(Site site, const HostOptions& options, host::Clock clock,
                 host::ConsoleSink console)
    : options_(options),
      kernel_({.clock = clock}),
      fabric_(std::move(site.topology), std::move(site.hosts), site.us) {
    host::set_console(std::move(console));
    if (options_.capture.empty())
        return;
    try {
        fabric_.capture_to(options_.capture);
    } catch (const std::system_error& failed) {
        throw UsageError("--capture: " + options_.capture + ": " + failed.code().message());
    }
}

Machine::~Machine() {
    stop();
}

void Machine::start() {
    host::set_logger_level(options_.logger_level);
    host::set_repository_value(level_key, "debug-level",
                               static_cast<std::uint64_t>(options_.debug_level));
    if (const int result = load(options_.parameters); result != 0)
        throw std::runtime_error("the module could not be loaded, result " +
                                 std::to_string(result));
    loaded_ = true;
    if (const tarv_stat_t result = fabric_.ipoib().attach(); result != tarv_stat_ok)
        throw std::runtime_error("the IPoIB driver could not be attached, status " +
                                 std::to_string(result));
    kernel_.settle();
}

void Machine::switch_on() {
    command("enable");
    command("sa_queries on");
}

void Machine::command(const std::string& line) {
    host::ProcFile(control_file).write(line + "\n");
}

const Departure& Machine::stop() {
    if (!loaded_)
        return departure_;
    if (fabric_.ipoib().attached())
        fabric_.ipoib().detach();
    host::unload_module(tarv_module);
    loaded_ = false;
    fabric_.stop_capture();
    departure_ = {kernel_.remains(), host::memory_use()};
    return departure_;
}

const void* Machine::find(const std::string& name) {
    const void* const found = host::inter_module_get(name);
    if (!found)
        throw std::runtime_error("the module does not offer " + name);
    return found;
}

}  // namespace app
