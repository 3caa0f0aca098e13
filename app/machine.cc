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

}  // namespace

Machine::Machine(Site site, const HostOptions& options, const host::Options& kernel,
                 host::ConsoleSink console, const fabric::FabricOptions& fabric)
    : options_(options),
      kernel_(kernel),
      fabric_(std::move(site.topology), std::move(site.hosts), site.us, fabric) {
    host::set_console(std::move(console));
    host::set_logger_level(options_.logger_level);
    host::set_repository_value(level_key, "debug-level",
                               static_cast<std::uint64_t>(options_.debug_level));
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

int Machine::load(const std::vector<std::string>& parameters) try {
    const int result = host::load_module(tarv_module, parameters);
    loaded_ = result == 0;
    return result;
} catch (const std::invalid_argument& refused) {
    throw UsageError(std::string("--param: ") + refused.what());
}

Departure Machine::unload() {
    if (fabric_.ipoib().attached())
        fabric_.ipoib().detach();
    host::unload_module(tarv_module);
    loaded_ = false;
    return {kernel_.remains(), host::memory_use()};
}

void Machine::start() {
    if (const int result = load(options_.parameters); result != 0)
        throw std::runtime_error("the module could not be loaded, result " +
                                 std::to_string(result));
    if (const tarv_stat_t result = attach(); result != tarv_stat_ok)
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
    if (loaded_) {
        departure_ = unload();
        departure_.capture_whole = fabric_.stop_capture();
    }
    return departure_;
}

const void* Machine::find(const std::string& name) {
    const void* const found = host::inter_module_get(name);
    if (!found)
        throw std::runtime_error("the module does not offer " + name);
    return found;
}

}  // namespace app
