// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/options.h"

#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>

#include "app/adapter_site.h"
#include "app/builtin_site.h"
#include "app/suggest.h"
#include "platform/jiffies.h"

namespace app {
namespace {

fabric::Topology read_fabric(const std::string& path) {
    if (path == "-")
        return fabric::read_topology(std::cin, "standard input");
    if (!path.empty())
        return fabric::read_topology(path);
    std::istringstream text(builtin_site.fabric_text);
    return fabric::read_topology(text, builtin_site.fabric_name);
}

void read_host_list(const HostOptions& options, Site& site) {
    if (options.hosts.empty() && !options.fabric.empty()) {
        site.hosts = fabric::deal_addresses(site.topology);
    } else if (options.hosts.empty()) {
        std::istringstream text(builtin_site.hosts_text);
        site.hosts = fabric::read_hosts(text, builtin_site.hosts_name, site.topology);
    } else if (options.strict_hosts) {
        site.hosts = fabric::read_hosts(options.hosts, site.topology);
    } else {
        std::ifstream in(options.hosts);
        if (!in)
            throw fabric::InputError(options.hosts, 0, "cannot be opened");
        site.hosts = fabric::pick_hosts(in, options.hosts, site.topology, site.skipped_lines);
    }
    if (site.hosts.empty())
        throw UsageError("--hosts: " + options.hosts + " names no host of " + site.topology.file);
}

}  // namespace

void add_site_options(CommandLine& line, HostOptions& options) {
    line.text("--fabric", options.fabric, "FILE",
              "Topology to run on, as ibnetdiscover prints it and ibsim reads it;\n"
              "- is standard input\n"
              "(built in: 16 hosts below 4 leaf and 2 spine switches)");
    line.text("--hosts", options.hosts, "FILE",
              "Addresses of the hosts, as in /etc/hosts; NAME-ib0 is a host's first rail\n"
              "(otherwise those of a --fabric are dealt out from 10.0.0.1 on)");
    line.flag("--strict-hosts", options.strict_hosts,
              "Refuse a --hosts that is about other machines and networks too");
    line.text("--as", options.as, "HOST",
              "The host to be, by name or node id\n"
              "(otherwise the first with two linked ports, else the first)");
}

void add_host_options(CommandLine& line, HostOptions& options) {
    add_site_options(line, options);
    line.texts("--param", options.parameters, "NAME=VALUE",
               "Parameter of the module, such as arp_cache_timeout_sec=60;\n"
               "may be repeated");
    line.number("--debug-level", options.debug_level, 0, 5,
                "The module's trace level, 0 to 5 (otherwise 1):\n"
                "0 nothing, 1 errors, 2 warnings, 4 debugging, 5 calls");
    line.number("--logger-level", options.logger_level, 0, 5,
                "The host's trace level, 0 to 5 (otherwise 5):\n"
                "no module prints a line of a higher level");
    line.flag("--old-kernel", options.old_kernel,
              "Be a kernel that has memory in pieces of at most 128 KiB (otherwise 4 MiB):\n"
              "a table of more than 1637 addresses cannot be read then");
    line.text("--adapter", options.adapter, "NAME[:PORT] | ibsim:NODE[,NODE]",
              "Be this host on its real fabric, through that adapter of its own or one\n"
              "port of it; or a node on a running ibsim, whose one-port nodes may be joined.\n"
              "With --fabric, a picture of that fabric, the peers' ARP is simulated");
    line.text("--interface", options.interface, "NAME",
              "IPoIB interface for ARP (otherwise the adapter's first)");
    line.flag("--keep-component-mask", options.keep_component_mask,
              "Send the module's component mask as it is. Otherwise bit 20 is set in it,\n"
              "without which today's SAs refuse a MultiPathRecord query");
    line.flag("--keep-answer-attribute", options.keep_answer_attribute,
              "Hand answers in under the attribute that they carry. Otherwise a PathRecord\n"
              "answer, as today's SAs send it, is one to a MultiPathRecord query");
    line.text("--capture", options.capture, "FILE",
              "Save the packets that cross our ports, for a packet analyser");
}

unsigned long ticks_of(double seconds) {
    return seconds > 0 ? static_cast<unsigned long>(std::llround(seconds * HZ)) : ~0ul;
}

std::optional<std::uint32_t> address_of(const Site& site, const std::string& word) {
    if (const auto ip = fabric::parse_ip(word))
        return ip;
    for (const fabric::Host& host : site.hosts)
        if (host.name == word || host.machine() == word)
            return host.ip;
    return std::nullopt;
}

std::vector<std::string> names_of(const Site& site) {
    std::vector<std::string> names;
    for (const fabric::Host& host : site.hosts)
        names.push_back(host.machine());
    return names;
}

Site read_picture(const HostOptions& options) {
    Site site;
    site.topology = read_fabric(options.fabric);
    read_host_list(options, site);
    return site;
}

Site read_site(const HostOptions& options) {
    if (!options.adapter.empty())
        return read_adapter_site(options);
    Site site = read_picture(options);
    const auto us = fabric::choose_host(site.topology, site.hosts, options.as);
    if (!us)
        throw UsageError("--as: no host of " + site.topology.file +
                         " with an address is called \"" + options.as + "\"" +
                         suggest(options.as, names_of(site)));
    site.us = *us;
    return site;
}

}  // namespace app
