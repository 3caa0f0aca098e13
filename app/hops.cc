// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/hops.h"

#include <algorithm>
#include <span>

#include "app/report.h"
#include "app/table.h"

namespace app {

Ways::Ways(const Site& site) : site_(site), routing_(site.topology) {
    for (int node = 0; node < static_cast<int>(site.topology.nodes.size()); ++node) {
        const fabric::Node& at = node_at(node);
        for (std::size_t port = 1; port < at.ports.size(); ++port)
            if (at.kind == fabric::NodeKind::adapter)
                ports_.try_emplace(at.ports[port].guid,
                                   fabric::PortId{node, static_cast<int>(port)});
    }
    for (const fabric::Host& host : site.hosts)
        names_.try_emplace(host.node, host.name);
}

const fabric::Node& Ways::node_at(int node) const {
    return site_.topology.nodes.at(static_cast<std::size_t>(node));
}

std::string Ways::name(const Hop& hop) const {
    const auto host = names_.find(hop.node);
    return printable(host == names_.end() ? node_at(hop.node).name : host->second);
}

Ways::Link Ways::link_at(fabric::PortId at) const {
    const fabric::Port& port = node_at(at.node).ports.at(static_cast<std::size_t>(at.port));
    const fabric::PortId far = {port.remote_node, port.remote_port};
    const fabric::Port& end = node_at(far.node).ports.at(static_cast<std::size_t>(far.port));
    return {far, fabric::slower_rate(port.rate, end.rate), fabric::smaller_mtu(port.mtu, end.mtu)};
}

/* The port by which a switch sends on what came to it; 0: by none. It is the first behind which the
 * rest of the way is as short, and as wide, as the best from here. */
int Ways::way_out(fabric::PortId at, fabric::PortId to) {
    const auto best = routing_.route(at, to);
    const int ports = static_cast<int>(node_at(at.node).ports.size());
    for (int port = 1; best && port < ports; ++port) {
        if (!routing_.link_up(at.node, port))
            continue;
        const Link link = link_at({at.node, port});
        const bool arrives = link.far.node == to.node && link.far.port == to.port;
        const bool forwards = node_at(link.far.node).kind == fabric::NodeKind::switch_node;
        if (arrives)
            return port;
        const auto rest = forwards ? routing_.route(link.far, to) : std::nullopt;
        if (rest && rest->hops + 1 == best->hops &&
            fabric::slower_rate(rest->rate, link.rate) == best->rate &&
            fabric::smaller_mtu(rest->mtu, link.mtu) == best->mtu)
            return port;
    }
    return 0;
}

std::vector<Hop> Ways::hops(const gx_gid_t& from_gid, const gx_gid_t& to_gid) {
    const auto from = ports_.find(fabric::guid_of(fabric::wire(from_gid)));
    const auto to = ports_.find(fabric::guid_of(fabric::wire(to_gid)));
    if (from == ports_.end() || to == ports_.end())
        return {};
    std::vector<Hop> hops;
    fabric::PortId at = from->second;
    for (int in = 0; routing_.link_up(at.node, at.port);) {
        const Link link = link_at(at);
        hops.push_back({at.node, in, at.port, link.rate});
        in = link.far.port;
        if (link.far.node == to->second.node && in == to->second.port) {
            hops.push_back({link.far.node, in});
            return hops;
        }
        if (node_at(link.far.node).kind != fabric::NodeKind::switch_node)
            return {};
        at = {link.far.node, way_out(link.far, to->second)};
        if (at.port == 0)
            return {};
    }
    return {};
}

namespace {

Table hop_table(const Ways& ways, const std::vector<Hop>& hops) {
    const auto by_data = [](const Hop& hop) { return fabric::data_bandwidth(hop.rate); };
    const auto [slowest, fastest] =
        std::ranges::minmax(std::span(hops).first(hops.size() - 1), {}, by_data);
    Table table{{{""}, {"in", 'r'}, {"node"}, {"out", 'r'}, {"link", 'r'}, {"", 'l', 1}}, {}};
    for (const Hop& hop : hops) {
        const bool narrow =
            hop.out && by_data(hop) == by_data(slowest) && by_data(slowest) != by_data(fastest);
        table.rows.push_back({"", hop.in ? std::to_string(hop.in) : "", ways.name(hop)});
        if (hop.out)
            table.rows.back().insert(
                table.rows.back().end(),
                {std::to_string(hop.out), format_rate(hop.rate), narrow ? "slowest" : ""});
    }
    return table;
}

}  // namespace

void require_topology(const Site& site) {
    if (site.interface)
        throw UsageError(
            "--hops: which switches there are is known of a picture of the fabric; give one with "
            "--fabric, as ibnetdiscover prints it");
}

std::string format_hops(Machine& machine, const std::vector<Peer>& peers, std::size_t width,
                        std::size_t most) {
    Ways ways(machine.site());
    std::string text;
    std::size_t shown = 0, left_out = 0;
    for (const Peer& peer : peers) {
        if (!peer.resolved)
            continue;
        if (shown++ >= most) {
            ++left_out;
            continue;
        }
        const fabric::Host& host = machine.site().hosts[peer.host];
        for (const RecordPath& path : paths_of(peer.record)) {
            const std::vector<Hop> hops = ways.hops(path.record->sgid, path.record->dgid);
            text += fabric::format_ip(host.ip) + "  " + printable(host.name) + "  " + path.kind +
                    " path\n" +
                    (hops.empty() ? "  The topology has no such way.\n"
                                  : hop_table(ways, hops).format(width));
        }
    }
    if (left_out)
        text += "... and the paths of " + std::to_string(left_out) + " more ...\n";
    return text;
}

}  // namespace app
