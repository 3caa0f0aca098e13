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

const fabric::Port& Ways::port_at(fabric::PortId at) const {
    return node_at(at.node).ports.at(static_cast<std::size_t>(at.port));
}

std::vector<Hop> Ways::hops(const ib_path_record_v2_t& path) {
    const auto from = ports_.find(fabric::guid_of(fabric::wire(path.sgid)));
    const auto to = ports_.find(fabric::guid_of(fabric::wire(path.dgid)));
    std::vector<fabric::PortId> links;
    if (from == ports_.end() || to == ports_.end() ||
        !routing_.route(from->second, to->second, path.dlid, &links) || links.empty())
        return {};
    std::vector<Hop> hops;
    int in = 0;
    for (const fabric::PortId& out : links) {
        const fabric::Port& port = port_at(out);
        const fabric::Port& far_end = port_at({port.remote_node, port.remote_port});
        hops.push_back({out.node, in, out.port, fabric::slower_rate(port.rate, far_end.rate)});
        in = port.remote_port;
    }
    hops.push_back({to->second.node, in});
    return hops;
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
            const std::vector<Hop> hops = ways.hops(*path.record);
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
