// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause

#include "fabric/routing.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace fabric {
namespace {

/* OpenSM keeps its tables by GUIDs in network order, and goes through them as its machine compares
 * such numbers, which nearly always is one with the least significant byte first. */
std::uint64_t place_in_table(std::uint64_t guid) {
    std::uint64_t place = 0;
    for (int i = 0; i < 8; ++i)
        place = place << 8 | (guid >> (8 * i) & 0xFF);
    return place;
}

bool is_switch(const Node& node) {
    return node.kind == NodeKind::switch_node;
}

}  // namespace

Routing::Routing(const Topology& topology, std::uint8_t lmc) : topology_(topology) {
    std::size_t flags = 0;
    for (std::size_t i = 0; i < topology.nodes.size(); ++i) {
        const Node& node = topology.nodes[i];
        first_flag_.push_back(flags);
        flags += node.ports.size();
        switch_number_.push_back(is_switch(node) ? static_cast<int>(switches_.size()) : -1);
        if (is_switch(node))
            switches_.push_back(static_cast<int>(i));
    }
    down_.assign(flags, 0);
    target_of_.assign(flags, -1);
    exits_.resize(switches_.size());
    make_edges();
    order_targets(lmc);
}

void Routing::make_edges() {
    for (const int node : switches_) {
        first_edge_.push_back(edges_.size());
        const std::vector<Port>& ports = topology_.nodes[static_cast<std::size_t>(node)].ports;
        for (std::size_t number = 1; number < ports.size(); ++number)
            if (ports[number].linked && switch_of(ports[number].remote_node) >= 0)
                edges_.push_back({switch_of(ports[number].remote_node), static_cast<int>(number)});
    }
    first_edge_.push_back(edges_.size());
}

/* Switches with many hosts come first, and of each its hosts in the order of its ports. Switches
 * themselves come last: nothing that they are sent is a load. */
void Routing::order_targets(std::uint8_t lmc) {
    struct Leaf {
        int number;
        std::vector<int> ports;  // with something else than a switch behind them
    };
    std::vector<Leaf> leaves;
    for (std::size_t number = 0; number < switches_.size(); ++number) {
        const Node& node = node_of_switch(static_cast<int>(number));
        leaves.push_back({static_cast<int>(number), {}});
        for (std::size_t port = 1; port < node.ports.size(); ++port)
            if (node.ports[port].linked && switch_of(node.ports[port].remote_node) < 0)
                leaves.back().ports.push_back(static_cast<int>(port));
    }
    const auto place = [&](const Leaf& leaf) {
        return std::pair(-static_cast<std::int64_t>(leaf.ports.size()),
                         place_in_table(node_of_switch(leaf.number).guid));
    };
    std::sort(leaves.begin(), leaves.end(),
              [&](const Leaf& one, const Leaf& other) { return place(one) < place(other); });
    for (const Leaf& leaf : leaves)
        for (const int number : leaf.ports) {
            const Port& port = node_of_switch(leaf.number).ports[static_cast<std::size_t>(number)];
            const PortId at{port.remote_node, port.remote_port};
            add_target(at, leaf.number, 1u << (lmc != 0 ? lmc : port_at(at).lmc));
        }
    for (std::size_t number = 0; number < switches_.size(); ++number) {
        const PortId at{switches_[number], 0};
        add_target(at, static_cast<int>(number), 1u << port_at(at).lmc);
    }
}

void Routing::add_target(PortId at, int leaf, unsigned lids) {
    target_of_[flag_index(at.node, at.port)] = static_cast<int>(targets_.size());
    targets_.push_back({at, leaf, lids});
    most_lids_ = std::max(most_lids_, lids);
}

const Node& Routing::node_of_switch(int number) const {
    return topology_.nodes[static_cast<std::size_t>(switches_[static_cast<std::size_t>(number)])];
}

const Port& Routing::port_at(PortId at) const {
    return topology_.nodes.at(static_cast<std::size_t>(at.node))
        .ports.at(static_cast<std::size_t>(at.port));
}

std::size_t Routing::flag_index(int node, int port) const {
    return first_flag_[static_cast<std::size_t>(node)] + static_cast<std::size_t>(port);
}

bool Routing::link_up(int node, int port) const {
    const Port& end = port_at({node, port});
    return end.linked && down_[flag_index(node, port)] == 0 &&
           down_[flag_index(end.remote_node, end.remote_port)] == 0;
}

bool Routing::edge_up(int from, const Edge& edge) const {
    return link_up(switches_[static_cast<std::size_t>(from)], edge.port);
}

void Routing::set_link(int node, int port, bool up) {
    const Port& end = port_at({node, port});
    std::uint8_t& down = down_[flag_index(node, port)];
    const bool changed = (down != 0) == up;
    down = up ? 0 : 1;
    if (!changed || !end.linked || switch_of(node) < 0 || switch_of(end.remote_node) < 0)
        return;
    component_.clear();
    for (Exits& exits : exits_)
        exits.clear();
}

/* The switch at which packets of a port arrive; empty when none is behind it. */
std::optional<int> Routing::leaf_of(PortId at) const {
    if (switch_of(at.node) >= 0)
        return switch_of(at.node);
    if (!link_up(at.node, at.port) || switch_of(port_at(at).remote_node) < 0)
        return std::nullopt;
    return switch_of(port_at(at).remote_node);
}

bool Routing::is_back_to_back(PortId from, PortId to) const {
    const Port& source = port_at(from);
    return switch_of(from.node) < 0 && switch_of(to.node) < 0 && source.linked &&
           source.remote_node == to.node && source.remote_port == to.port;
}

bool Routing::reaches(PortId from, PortId to) {
    port_at(to);
    const bool to_itself = switch_of(from.node) < 0 && from.node == to.node && from.port == to.port;
    if (to_itself || is_back_to_back(from, to))
        return link_up(from.node, from.port);
    const std::optional<int> first = leaf_of(from);
    const std::optional<int> last = leaf_of(to);
    if (component_.empty())
        find_components();
    return first && last &&
           component_[static_cast<std::size_t>(*first)] ==
               component_[static_cast<std::size_t>(*last)];
}

void Routing::find_components() {
    component_.assign(switches_.size(), -1);
    for (std::size_t start = 0; start < switches_.size(); ++start) {
        if (component_[start] >= 0)
            continue;
        component_[start] = static_cast<int>(start);
        frontier_.assign(1, static_cast<int>(start));
        for (std::size_t next = 0; next < frontier_.size(); ++next) {
            const auto at = static_cast<std::size_t>(frontier_[next]);
            for (std::size_t i = first_edge_[at]; i < first_edge_[at + 1]; ++i) {
                int& component = component_[static_cast<std::size_t>(edges_[i].to)];
                if (component >= 0 || !edge_up(frontier_[next], edges_[i]))
                    continue;
                component = static_cast<int>(start);
                frontier_.push_back(edges_[i].to);
            }
        }
    }
}

void Routing::add_link(Route& route, PortId near_end) const {
    const Port& one = port_at(near_end);
    const Port& other = port_at({one.remote_node, one.remote_port});
    ++route.hops;
    for (const Port* const end : {&one, &other}) {
        route.rate = slower_rate(route.rate, end->rate);
        route.mtu = smaller_mtu(route.mtu, end->mtu);
    }
}

std::optional<Route> Routing::route(PortId from, PortId to, unsigned lid,
                                    std::vector<PortId>* links) {
    if (!reaches(from, to))
        return std::nullopt;
    Route route;
    const auto take = [&](PortId out) {
        add_link(route, out);
        if (links)
            links->push_back(out);
    };
    const Port& source = port_at(from);
    if (switch_of(from.node) < 0) {
        if (from.node == to.node && from.port == to.port)
            return Route{0, source.rate, source.mtu};
        take(from);
        if (is_back_to_back(from, to))
            return route;
    }
    const int own_port = switch_of(to.node) >= 0 ? 0 : to.port;
    const auto target = static_cast<std::size_t>(target_of_[flag_index(to.node, own_port)]);
    const int last = targets_[target].leaf;
    for (int at = *leaf_of(from); at != last;) {
        const int exit = exit_towards(at, target, lid % targets_[target].lids);
        const PortId near_end{switches_[static_cast<std::size_t>(at)], exit};
        take(near_end);
        at = switch_of(port_at(near_end).remote_node);
    }
    if (switch_of(to.node) < 0)
        take({port_at(to).remote_node, port_at(to).remote_port});
    return route;
}

/* Of what hangs on a switch behind a single link no table is needed, which spares those of nearly
 * all the switches of a tree. */
int Routing::exit_towards(int from, std::size_t target, unsigned lid) {
    if (exits_[static_cast<std::size_t>(from)].empty())
        if (const int port = only_link_between(from, targets_[target].leaf); port > 0)
            return port;
    return exits_of(from)[lid * targets_.size() + target];
}

/* 0 when there is none or there are several. */
int Routing::only_link_between(int from, int to) const {
    int found = 0;
    const auto at = static_cast<std::size_t>(from);
    for (std::size_t i = first_edge_[at]; i < first_edge_[at + 1]; ++i) {
        if (edges_[i].to != to || !edge_up(from, edges_[i]))
            continue;
        if (found != 0)
            return 0;
        found = edges_[i].port;
    }
    return found;
}

/* The base LIDs of all targets are given their exits first, then the next ones of all. */
const Routing::Exits& Routing::exits_of(int number) {
    Exits& exits = exits_[static_cast<std::size_t>(number)];
    if (!exits.empty())
        return exits;
    find_first_exits(number);
    exits.assign(targets_.size() * most_lids_, 0);
    Load load{};
    std::vector<std::uint8_t> possible;
    int leaf = -1;  // to which they are
    for (unsigned lid = 0; lid < most_lids_; ++lid)
        for (std::size_t i = 0; i < targets_.size(); ++i) {
            const Target& target = targets_[i];
            if (lid >= target.lids || target.leaf == number)
                continue;
            if (target.leaf != leaf)
                list_exits(leaf = target.leaf, possible);
            const std::uint8_t exit =
                choose_exit(node_of_switch(number), i, lid, possible, exits, load);
            exits[lid * targets_.size() + i] = exit;
            if (switch_of(target.at.node) < 0)
                ++load[exit];
        }
    return exits;
}

/* Breadth first, so that all that leads to a switch on a shortest path is taken out of the frontier
 * before it. */
void Routing::find_first_exits(int from) {
    hops_.assign(switches_.size(), -1);
    firsts_.assign(switches_.size(), {});
    hops_[static_cast<std::size_t>(from)] = 0;
    frontier_.assign(1, from);
    for (std::size_t next = 0; next < frontier_.size(); ++next) {
        const auto at = static_cast<std::size_t>(frontier_[next]);
        for (std::size_t i = first_edge_[at]; i < first_edge_[at + 1]; ++i) {
            const auto to = static_cast<std::size_t>(edges_[i].to);
            const bool is_new = hops_[to] < 0;
            if ((!is_new && hops_[to] != hops_[at] + 1) || !edge_up(frontier_[next], edges_[i]))
                continue;
            hops_[to] = hops_[at] + 1;
            if (next == 0)
                firsts_[to].set(static_cast<std::size_t>(edges_[i].port));
            else
                firsts_[to] |= firsts_[at];
            if (is_new)
                frontier_.push_back(edges_[i].to);
        }
    }
}

/* In ascending order. */
void Routing::list_exits(int leaf, std::vector<std::uint8_t>& ports) const {
    const PortSet& set = firsts_[static_cast<std::size_t>(leaf)];
    ports.clear();
    for (std::size_t port = 1; port < set.size(); ++port)
        if (set[port])
            ports.push_back(static_cast<std::uint8_t>(port));
}

/* The exit with the least load, the first of several. For a port with several LIDs it is one to a
 * switch that none of its LIDs before has gone to, where there is one; else, of several with the
 * least load, one to the switch that fewest of them go to. */
std::uint8_t Routing::choose_exit(const Node& from, std::size_t target, unsigned lid,
                                  std::span<const std::uint8_t> possible, const Exits& exits,
                                  const Load& load) const {
    const auto earlier_to = [&](int next_node) {
        unsigned earlier = 0;
        for (unsigned i = 0; i < lid; ++i)
            earlier += from.ports[exits[i * targets_.size() + target]].remote_node == next_node;
        return earlier;
    };
    const bool several = targets_[target].lids > 1;
    std::uint8_t best = 0, best_new = 0;
    unsigned fewest = ~0u;
    // A further LID begins to look behind the exit of the one before it.
    const std::size_t before = lid > 0 ? exits[(lid - 1) * targets_.size() + target] : 0;
    const auto first = std::upper_bound(possible.begin(), possible.end(), before);
    for (std::size_t i = 0; i < possible.size(); ++i) {
        const auto turn = static_cast<std::size_t>(first - possible.begin()) + i;
        const std::uint8_t port = possible[turn % possible.size()];
        const unsigned earlier = several ? earlier_to(from.ports[port].remote_node) : 0;
        if (several && earlier == 0 && (best_new == 0 || load[port] < load[best_new])) {
            best_new = port;
            fewest = 0;
        }
        const bool fewer = earlier != 0 && earlier < fewest;
        if (best == 0 || load[port] < load[best] || (load[port] == load[best] && fewer)) {
            best = port;
            fewest = fewer ? earlier : fewest;
        }
    }
    return best_new != 0 ? best_new : best;
}

}  // namespace fabric
