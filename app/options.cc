// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <sstream>

#include "app/builtin_site.h"
#include "platform/jiffies.h"

namespace app {
namespace {

constexpr double longest_run = 1e9;  // seconds: thirty years, and far from any overflow in ticks

fabric::Topology read_fabric(const std::string& path) {
    if (!path.empty())
        return fabric::read_topology(path);
    std::istringstream text(builtin_site.fabric_text);
    return fabric::read_topology(text, builtin_site.fabric_name);
}

std::vector<fabric::Host> read_host_list(const HostOptions& options,
                                         const fabric::Topology& topology) {
    if (!options.hosts.empty())
        return fabric::read_hosts(options.hosts, topology);
    if (!options.fabric.empty())
        return fabric::deal_addresses(topology);
    std::istringstream text(builtin_site.hosts_text);
    return fabric::read_hosts(text, builtin_site.hosts_name, topology);
}

std::string check_seconds(const std::string& text) {
    double seconds = 0;
    if (!CLI::detail::lexical_cast(text, seconds) || !std::isfinite(seconds) || seconds <= 0 ||
        seconds > longest_run)
        return "\"" + text + "\" is no number of seconds above 0";
    return {};
}

}  // namespace

void add_host_options(CLI::App& verb, HostOptions& options) {
    verb.add_option("--fabric", options.fabric,
                    "Topology to run on, as ibnetdiscover prints it and ibsim reads it\n"
                    "(built in: 16 hosts below 4 leaf and 2 spine switches)")
        ->type_name("FILE");
    verb.add_option("--hosts", options.hosts,
                    "Addresses of the hosts, as in /etc/hosts\n"
                    "(otherwise those of a --fabric are dealt out from 10.0.0.1 on)")
        ->type_name("FILE");
    verb.add_option("--as", options.as,
                    "The host to be, by name or node id\n"
                    "(otherwise the first with two linked ports, else the first)")
        ->type_name("HOST");
    verb.add_option("--param", options.parameters,
                    "Parameter of the module, such as arp_cache_timeout_sec=60;\n"
                    "may be repeated")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
    verb.add_option("--debug-level", options.debug_level,
                    "The module's trace level, 0 to 5 (otherwise 1):\n"
                    "0 nothing, 1 errors, 2 warnings, 4 debugging, 5 calls")
        ->type_name("N")
        ->check(CLI::Range(0, 5).description(""));
    verb.add_option("--logger-level", options.logger_level,
                    "The host's trace level, 0 to 5 (otherwise 5):\n"
                    "no module prints a line of a higher level")
        ->type_name("N")
        ->check(CLI::Range(0, 5).description(""));
    verb.add_option("--capture", options.capture,
                    "Save the packets that cross our ports, for a packet analyser")
        ->type_name("FILE");
}

void add_for_option(CLI::App& verb, double& seconds, const std::string& help) {
    verb.add_option("--for", seconds, help)->type_name("SECONDS")->check(check_seconds);
}

unsigned long ticks_of(double seconds) {
    return seconds > 0 ? static_cast<unsigned long>(std::llround(seconds * HZ)) : ~0ul;
}

Site read_site(const HostOptions& options) {
    Site site;
    site.topology = read_fabric(options.fabric);
    site.hosts = read_host_list(options, site.topology);
    if (site.hosts.empty())
        throw UsageError("--hosts: " + options.hosts + " names no host");
    const auto us = fabric::choose_host(site.topology, site.hosts, options.as);
    if (!us)
        throw UsageError("--as: no host of " + site.topology.file +
                         " with an address is called \"" + options.as + "\"");
    site.us = *us;
    return site;
}

}  // namespace app
