// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/adapter_site.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

namespace app {
namespace {

using fabric::Host, fabric::Topology;

/* A port of an adapter in the topology. */
struct Place {
    int node = -1;
    std::size_t port = 0;
};

Place find_port(const Topology& topology, std::uint64_t guid) {
    for (std::size_t node = 0; node < topology.nodes.size(); ++node)
        for (std::size_t port = 1; port < topology.nodes[node].ports.size(); ++port)
            if (topology.nodes[node].kind == fabric::NodeKind::adapter &&
                topology.nodes[node].ports[port].guid == guid)
                return {static_cast<int>(node), port};
    return {};
}

fabric::Node& node_at(Topology& topology, int index) {
    return topology.nodes.at(static_cast<std::size_t>(index));
}

/* Gives a port of another node to `node` under that number; what it was is left without a link. */
void move_port(Topology& topology, Place from, int node, std::size_t number) {
    std::vector<fabric::Port>& ports = node_at(topology, node).ports;
    ports.resize(std::max(ports.size(), number + 1));
    ports[number] = std::exchange(node_at(topology, from.node).ports[from.port], {});
    if (!ports[number].linked)
        return;
    fabric::Port& remote = node_at(topology, ports[number].remote_node)
                               .ports.at(static_cast<std::size_t>(ports[number].remote_port));
    remote.remote_node = node;
    remote.remote_port = static_cast<int>(number);
}

/* Our node in the picture, known by the GUIDs of the device's ports. Ports of further nodes are
 * joined to it, and those nodes, which are us too, are no hosts any more. */
int find_ourselves(Topology& topology, std::vector<Host>& hosts, const rdma::Device& device) {
    int us = -1;
    for (int number = 1; number <= device.count(); ++number) {
        const std::uint64_t guid = device.facts(number).node.port_guid;
        const Place place = find_port(topology, guid);
        if (place.node < 0) {
            char text[64];
            std::snprintf(text, sizeof text, "no adapter has the port GUID 0x%016llx",
                          static_cast<unsigned long long>(guid));
            throw fabric::InputError(topology.file, 0,
                                     text + std::string(", which is ours; is it a picture of "
                                                        "another fabric?"));
        }
        if (us < 0)
            us = place.node;
        if (place.node != us) {
            move_port(topology, place, us, static_cast<std::size_t>(number));
            std::erase_if(hosts, [&](const Host& host) { return host.node == place.node; });
        }
    }
    return us;
}

/* Finds us in the picture, by the device that the site has. */
void place_device(Site& site, const HostOptions& options) {
    const int node = find_ourselves(site.topology, site.hosts, site.device->device());
    const auto us = std::ranges::find(site.hosts, node, &Host::node);
    if (us == site.hosts.end())
        throw UsageError("--hosts: " + options.hosts + " has no address for our own host, " +
                         node_at(site.topology, node).name);
    site.us = static_cast<std::size_t>(us - site.hosts.begin());
}

/* The lines of a list for machines on the interface's network, but ours. */
void add_hosts(Site& site, const std::string& path) {
    std::ifstream in(path);
    if (!in)
        throw UsageError("--hosts: " + path + " cannot be opened");
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string address, name;
        words >> address >> name;
        const auto ip = fabric::parse_ip(address);
        const rdma::Interface& ours = *site.interface;
        if (ip && !name.empty() && *ip != ours.ip && ((*ip ^ ours.ip) & ours.mask) == 0)
            site.hosts.push_back({-1, name, *ip});
    }
}

std::string name_of_this_machine() {
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

void real_site(Site& site, const HostOptions& options) {
    const rdma::Device& device = site.device->device();
    int first_up = 1;
    while (first_up < device.count() && !device.port(first_up).up)
        ++first_up;
    site.interface = rdma::find_interface(options.interface, device.name(), first_up);
    device.require_active(site.interface->port);
    fabric::Node node;
    node.id = node.name = device.name();
    node.guid = device.guid();
    node.ports.resize(static_cast<std::size_t>(device.count()) + 1);
    site.topology.file = device.name();
    site.topology.nodes.push_back(node);
    site.hosts.push_back({0, name_of_this_machine(), site.interface->ip});
    if (!options.hosts.empty())
        add_hosts(site, options.hosts);
}

}  // namespace

Site read_adapter_site(const HostOptions& options) {
    if (!options.as.empty())
        throw UsageError("--as: with --adapter this host is the one that has the adapter");
    if (rdma::is_ibsim(options.adapter) && options.fabric.empty())
        throw UsageError(
            "--adapter: an ibsim has no IPoIB, so the peers' ARP is simulated; give a picture of "
            "its fabric with --fabric, as ibnetdiscover prints it");
    const bool pictured = !options.fabric.empty();
    Site site = pictured ? read_picture(options) : Site{};
    site.device = rdma::open_device(options.adapter);
    site.device->device().require_service();
    if (pictured)
        place_device(site, options);
    else
        real_site(site, options);
    return site;
}

}  // namespace app
