// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/subnet.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace fabric {
namespace {

constexpr std::uint8_t default_mtu = 4;  // 2048 bytes, where the topology says nothing
constexpr std::uint8_t default_rate = 3;
constexpr std::uint16_t default_pkey = 0xFFFF;
constexpr std::uint16_t full_member = 0x8000;

bool aligned(std::uint16_t lid, std::uint8_t lmc) {
    return lid % (1u << lmc) == 0;
}

EndPort make_end_port(const Topology& topology, PortId at, const SubnetOptions& options) {
    const Node& node = topology.nodes[static_cast<std::size_t>(at.node)];
    const Port& port = node.ports[static_cast<std::size_t>(at.port)];
    bool is_switch = node.kind == NodeKind::switch_node;
    EndPort end;
    end.at = at;
    end.gid = make_gid(default_subnet_prefix, port.guid != 0 ? port.guid : node.guid);
    end.lmc = options.lmc != 0 && !is_switch ? options.lmc : port.lmc;
    end.lid =
        options.lmc == 0 || is_switch || aligned(port.lid, end.lmc) ? port.lid : std::uint16_t{0};
    end.mtu = port.mtu != 0 ? port.mtu : default_mtu;
    end.rate = port.rate != 0 ? port.rate : default_rate;
    end.linked = is_switch || port.linked;
    end.up = end.linked;
    return end;
}

/* The ports of a node that have LIDs. */
std::pair<int, int> end_ports_of(const Node& node) {
    if (node.kind == NodeKind::switch_node)
        return {0, node.ports.empty() ? 0 : 1};
    return {1, static_cast<int>(node.ports.size())};
}

bool reaches(Routing& routing, const Topology& topology, PortId from, int home) {
    if (home < 0)
        return routing.reaches(from, from);
    const Node& host = topology.nodes[static_cast<std::size_t>(home)];
    for (int port = 1; port < static_cast<int>(host.ports.size()); port++)
        if (routing.reaches(from, {home, port}))
            return true;
    return false;
}

/* Where the dump was made is where managers sit; else a switch before an adapter. But none that the
 * host at home could not hear: such a manager would look like one that hangs. */
PortId choose_manager(const Topology& topology, Routing& routing, int home) {
    const PortId origin{topology.origin, topology.origin_port};
    if (origin.node >= 0 && reaches(routing, topology, origin, home))
        return origin;
    std::optional<PortId> adapter;
    for (int i = 0; i < static_cast<int>(topology.nodes.size()); i++) {
        const Node& node = topology.nodes[static_cast<std::size_t>(i)];
        auto [first, end] = end_ports_of(node);
        for (int port = first; port < end; port++) {
            const PortId at{i, port};
            if (!reaches(routing, topology, at, home))
                continue;
            if (node.kind == NodeKind::switch_node)
                return at;
            if (!adapter)
                adapter = at;
        }
    }
    if (adapter)
        return *adapter;
    throw InputError(topology.file, 0,
                     home < 0 ? "no node for the subnet manager"
                              : topology.nodes[static_cast<std::size_t>(home)].name +
                                    " has no link by which a subnet manager could reach it");
}

}  // namespace

Subnet::Subnet(const Topology& topology, const SubnetOptions& options, int home)
    : routing_(topology, options.lmc) {
    if (options.lmc > 7)
        throw std::invalid_argument("no LMC is larger than 7");
    MutexLock lock(mutex_);
    add_end_ports(topology, options);
    give_lids(topology);
    manager_.at = choose_manager(topology, routing_, home);
    manager_.lid = known(manager_.at).lid;
    manager_.sl = options.sm_sl;
}

void Subnet::add_end_ports(const Topology& topology, const SubnetOptions& options) {
    for (int i = 0; i < static_cast<int>(topology.nodes.size()); i++) {
        auto [first, end] = end_ports_of(topology.nodes[static_cast<std::size_t>(i)]);
        first_port_of_node_.push_back(static_cast<Index>(ports_.size()) - first);
        for (int port = first; port < end; port++) {
            by_gid_.emplace(make_end_port(topology, {i, port}, options).gid,
                            static_cast<Index>(ports_.size()));
            ports_.push_back(make_end_port(topology, {i, port}, options));
        }
    }
    first_port_of_node_.push_back(static_cast<Index>(ports_.size()));
}

/* Enters the LIDs of a port from `lid` on; false when one of them is somebody else's. */
bool Subnet::claim(Index index, std::uint16_t lid) {
    unsigned count = 1u << ports_[static_cast<std::size_t>(index)].lmc;
    if (lid == 0 || lid + count - 1 > last_unicast_lid)
        return false;
    for (unsigned i = 0; i < count; i++) {
        if (by_lid_[lid + i] >= 0)
            return false;
    }
    for (unsigned i = 0; i < count; i++)
        by_lid_[lid + i] = index;
    ports_[static_cast<std::size_t>(index)].lid = lid;
    return true;
}

void Subnet::give_lids(const Topology& topology) {
    by_lid_.assign(last_unicast_lid + 1, -1);
    for (std::size_t i = 0; i < ports_.size(); i++) {
        const EndPort& end = ports_[i];
        const Node& node = topology.nodes[static_cast<std::size_t>(end.at.node)];
        if (end.lid == 0 || claim(static_cast<Index>(i), end.lid))
            continue;
        throw InputError(topology.file, node.ports[static_cast<std::size_t>(end.at.port)].line,
                         "LID " + std::to_string(end.lid) + " of " + node.name +
                             " is not a unicast LID or overlaps another port's");
    }
    unsigned next[8] = {1, 1, 1, 1, 1, 1, 1, 1};  // by LMC: below it no place is left
    for (std::size_t i = 0; i < ports_.size(); i++) {
        EndPort& end = ports_[i];
        if (end.lid != 0 || !end.linked)
            continue;
        unsigned step = 1u << end.lmc;
        unsigned lid = (next[end.lmc & 7] + step - 1) / step * step;
        while (lid <= last_unicast_lid &&
               !claim(static_cast<Index>(i), static_cast<std::uint16_t>(lid)))
            lid += step;
        if (end.lid == 0)
            throw InputError(topology.file, 0, "more ports than unicast LIDs");
        next[end.lmc & 7] = lid + step;
    }
}

Subnet::Index Subnet::index_of(PortId ref) const {
    std::size_t node = static_cast<std::size_t>(ref.node);
    if (ref.node < 0 || node + 1 >= first_port_of_node_.size())
        return -1;
    Index index = first_port_of_node_[node] + ref.port;
    if (index < 0 || static_cast<std::size_t>(index) >= ports_.size() ||
        !(ports_[static_cast<std::size_t>(index)].at == ref))
        return -1;
    return index;
}

EndPort& Subnet::known(PortId ref) {
    Index index = index_of(ref);
    if (index < 0)
        throw std::invalid_argument("no port " + std::to_string(ref.port) + " of node " +
                                    std::to_string(ref.node));
    return ports_[static_cast<std::size_t>(index)];
}

std::optional<EndPort> Subnet::at(PortId ref) const {
    MutexLock lock(mutex_);
    Index index = index_of(ref);
    return index < 0 ? std::nullopt : std::optional(ports_[static_cast<std::size_t>(index)]);
}

std::optional<EndPort> Subnet::by_lid(std::uint16_t lid) const {
    MutexLock lock(mutex_);
    if (lid >= by_lid_.size() || by_lid_[lid] < 0)
        return std::nullopt;
    return ports_[static_cast<std::size_t>(by_lid_[lid])];
}

std::optional<EndPort> Subnet::by_gid(const Gid& gid) const {
    MutexLock lock(mutex_);
    auto found = by_gid_.find(gid);
    if (found == by_gid_.end())
        return std::nullopt;
    return ports_[static_cast<std::size_t>(found->second)];
}

bool Subnet::both_up(PortId one, PortId other) const {
    Index a = index_of(one);
    Index b = index_of(other);
    return a >= 0 && b >= 0 && ports_[static_cast<std::size_t>(a)].up &&
           ports_[static_cast<std::size_t>(b)].up;
}

bool Subnet::reaches(PortId from, PortId to) const {
    MutexLock lock(mutex_);
    return both_up(from, to) && routing_.reaches(from, to);
}

std::optional<Way> Subnet::way(PortId from, PortId to, unsigned lid) const {
    MutexLock lock(mutex_);
    if (!both_up(from, to))
        return std::nullopt;
    std::optional<Route> route = routing_.route(from, to, lid);
    if (!route)
        return std::nullopt;
    const EndPort& near = ports_[static_cast<std::size_t>(index_of(from))];
    const EndPort& far = ports_[static_cast<std::size_t>(index_of(to))];
    Way way{route->hops, std::min(near.mtu, far.mtu), route->rate};
    if (route->mtu != 0)
        way.mtu = std::min(way.mtu, route->mtu);
    if (way.rate == 0)
        way.rate = std::min(near.rate, far.rate);
    return way;
}

std::vector<std::uint16_t> Subnet::pkeys(PortId ref) const {
    MutexLock lock(mutex_);
    auto found = pkeys_.find(index_of(ref));
    return found == pkeys_.end() ? std::vector{default_pkey} : found->second;
}

std::optional<std::uint16_t> Subnet::common_pkey(PortId a, PortId b,
                                                 std::optional<std::uint16_t> wanted) const {
    auto same_partition = [](std::uint16_t x, std::uint16_t y) { return ((x ^ y) & 0x7FFF) == 0; };
    std::vector<std::uint16_t> far = pkeys(b);
    for (std::uint16_t mine : pkeys(a)) {
        if (wanted && !same_partition(mine, *wanted))
            continue;
        for (std::uint16_t other : far) {
            if (same_partition(mine, other) && ((mine | other) & full_member) != 0)
                return mine;
        }
    }
    return std::nullopt;
}

SubnetManager Subnet::manager() const {
    MutexLock lock(mutex_);
    return manager_;
}

void Subnet::set_up(PortId ref, bool up) {
    MutexLock lock(mutex_);
    EndPort& port = known(ref);
    if (up && !port.linked)
        throw std::invalid_argument("the port has no link");
    port.up = up;
    if (port.linked)
        routing_.set_link(ref.node, ref.port, up);
}

void Subnet::set_lid(PortId ref, std::uint16_t lid) {
    MutexLock lock(mutex_);
    EndPort& port = known(ref);
    std::uint16_t before = port.lid;
    unsigned count = before == 0 ? 0 : 1u << port.lmc;
    for (unsigned i = 0; i < count; i++)
        by_lid_[before + i] = -1;
    if (aligned(lid, port.lmc) && claim(index_of(ref), lid))
        return;
    if (before != 0)
        claim(index_of(ref), before);
    throw std::invalid_argument("LID " + std::to_string(lid) + " can't be given to the port");
}

void Subnet::set_mtu(PortId ref, std::uint8_t mtu) {
    if (mtu < 1 || mtu > 5)
        throw std::invalid_argument("no MTU has the code " + std::to_string(mtu));
    MutexLock lock(mutex_);
    known(ref).mtu = mtu;
}

void Subnet::set_gid(PortId ref, const Gid& gid) {
    MutexLock lock(mutex_);
    EndPort& port = known(ref);
    if (by_gid_.contains(gid))
        throw std::invalid_argument("another port has the GID " + format_gid(gid));
    by_gid_.erase(port.gid);
    port.gid = gid;
    by_gid_.emplace(gid, index_of(ref));
}

void Subnet::set_pkeys(PortId ref, std::vector<std::uint16_t> table) {
    MutexLock lock(mutex_);
    known(ref);
    pkeys_[index_of(ref)] = std::move(table);
}

void Subnet::move_manager(std::uint16_t lid, std::uint8_t sl) {
    MutexLock lock(mutex_);
    if (lid == 0 || lid > last_unicast_lid)
        throw std::invalid_argument("no subnet manager can have LID " + std::to_string(lid));
    manager_.lid = lid;
    manager_.sl = sl;
    if (by_lid_[lid] >= 0)
        manager_.at = ports_[static_cast<std::size_t>(by_lid_[lid])].at;
}

SubnetPorts::SubnetPorts(const Subnet& subnet, const Topology& topology, int node)
    : subnet_(subnet),
      node_(node),
      count_(static_cast<int>(topology.nodes.at(static_cast<std::size_t>(node)).ports.size()) - 1),
      guid_(topology.nodes[static_cast<std::size_t>(node)].guid) {}

}  // namespace fabric
