// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/machine.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "app/script_text.h"
#include "tarv/tarv-module.h"

namespace app {
namespace {

constexpr const char* control_file = "quorvane/tarv/control";
constexpr const char* level_key = "quorvane/modules/tarv/";

}  // namespace

Machine::Machine(Site site, const HostOptions& options, const host::Options& kernel,
                 host::ConsoleSink console, const fabric::FabricOptions& fabric)
    : options_(options), site_(std::move(site)), kernel_(kernel) {
    if (options_.old_kernel)
        host::set_largest_allocation(host::largest_allocation_of_old);
    make_surroundings(fabric);
    host::set_console(std::move(console));
    host::set_logger_level(options_.logger_level);
    host::set_repository_value(level_key, "debug-level",
                               static_cast<std::uint64_t>(options_.debug_level));
    if (options_.capture.empty())
        return;
    try {
        tap().capture_to(options_.capture);
    } catch (const std::system_error& failed) {
        throw UsageError("--capture: " + options_.capture + ": " + failed.code().message());
    }
}

void Machine::make_surroundings(fabric::FabricOptions options) {
    options.translations.set_component_bit_20 &= !options_.keep_component_mask;
    options.translations.path_record_answers_as_multi_path &= !options_.keep_answer_attribute;
    if (site_.interface) {
        real_.emplace(site_.device->device(), *site_.interface, options.translations);
        return;
    }
    if (site_.device)
        options.uplink = &site_.device->device();
    std::vector<fabric::Host> placed;
    std::ranges::copy_if(site_.hosts, std::back_inserter(placed),
                         [](const fabric::Host& host) { return host.node >= 0; });
    fabric_.emplace(site_.topology, std::move(placed), site_.us, options);
}

fabric::Fabric& Machine::fabric() {
    if (!fabric_)
        throw std::runtime_error("there is no simulated fabric: this host is on a real one");
    return *fabric_;
}

fabric::Adapter& Machine::adapter() {
    return real_ ? real_->adapter() : fabric_->adapter();
}

fabric::Driver& Machine::driver() {
    return real_ ? static_cast<fabric::Driver&>(real_->ipoib()) : fabric_->ipoib();
}

fabric::Tap& Machine::tap() {
    return real_ ? real_->tap() : fabric_->tap();
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
    if (driver().attached())
        driver().detach();
    uses_.clear();  // by nobody any more
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
                                 numbered_status(result));
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
        departure_.capture_whole = tap().stop_capture();
    }
    return departure_;
}

const host::InterModuleUse& Machine::use(const std::string& name) {
    const std::lock_guard guard(uses_mutex_);
    host::InterModuleUse& use = uses_[name];
    if (!use)
        use = host::InterModuleUse(name);
    if (!use)
        throw std::runtime_error("the module does not offer " + name);
    return use;
}

}  // namespace app
