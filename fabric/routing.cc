// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause

#include "fabric/routing.h"

#include <stdexcept>
#include <utility>

namespace fabric {
namespace {

// An unknown MTU (or rate) may be anything, so it narrows no path and ranks above all that is
// known.
int rank_of_rate(std::uint8_t code) {
    const int bandwidth = data_bandwidth(code);
    return bandwidth == 0 ? 1 << 30 : bandwidth;
}
int rank_of_mtu(std::uint8_t code) {
    return code == 0 ? 1 << 30 : code;
}

template <typename Way>
bool is_wider(const Way& one, const Way& other) {
    const std::pair first(rank_of_rate(one.rate), rank_of_mtu(one.mtu));
    const std::pair second(rank_of_rate(other.rate), rank_of_mtu(other.mtu));
    return first > second;
}

template <typename Way, typename Link>
void add_link(Way& way, const Link& link) {
    ++way.hops;
    way.rate = slower_rate(way.rate, link.rate);
    way.mtu = smaller_mtu(way.mtu, link.mtu);
}

}  // namespace

Routing::Routing(const Topology& topology, int home) : topology_(topology), home_(home) {
    std::size_t flags = 0;
    int switches = 0;
    for (const Node& node : topology.nodes) {
        first_flag_.push_back(flags);
        flags += node.ports.size();
        switch_number_.push_back(node.kind == NodeKind::switch_node ? switches++ : -1);
    }
    down_.assign(flags, 0);
    cache_.resize(static_cast<std::size_t>(switches));
    make_edges();
}

void Routing::make_edges() {
    for (std::size_t index = 0; index < topology_.nodes.size(); ++index) {
        const Node& node = topology_.nodes[index];
        if (node.kind != NodeKind::switch_node)
            continue;
        first_edge_.push_back(edges_.size());
        for (std::size_t number = 0; number < node.ports.size(); ++number) {
            const Port& port = node.ports[number];
            if (!port.linked)
                continue;
            const int to = switch_number_[static_cast<std::size_t>(port.remote_node)];
            if (to < 0)
                continue;
            const Port& far_end = port_at(port.remote_node, port.remote_port);
            edges_.push_back({to, static_cast<int>(index), static_cast<int>(number),
                              slower_rate(port.rate, far_end.rate),
                              smaller_mtu(port.mtu, far_end.mtu)});
        }
    }
    first_edge_.push_back(edges_.size());
}

const Port& Routing::port_at(int node, int port) const {
    return topology_.nodes.at(static_cast<std::size_t>(node))
        .ports.at(static_cast<std::size_t>(port));
}

std::size_t Routing::flag_index(int node, int port) const {
    return first_flag_[static_cast<std::size_t>(node)] + static_cast<std::size_t>(port);
}

bool Routing::link_up(int node, int port) const {
    const Port& end = port_at(node, port);
    return end.linked && down_[flag_index(node, port)] == 0 &&
           down_[flag_index(end.remote_node, end.remote_port)] == 0;
}

void Routing::set_link(int node, int port, bool up) {
    const Port& end = port_at(node, port);
    std::uint8_t& down = down_[flag_index(node, port)];
    const bool changed = (down != 0) == up;
    down = up ? 0 : 1;
    const auto is_switch = [&](int index) {
        return switch_number_[static_cast<std::size_t>(index)] >= 0;
    };
    // The links of adapters are looked at with every question; only those in between are kept.
    if (!changed || !end.linked || !is_switch(node) || !is_switch(end.remote_node))
        return;
    for (Steps& steps : cache_)
        steps.clear();
}

std::optional<int> Routing::enter(PortId from, Route& route) const {
    const int own = switch_number_[static_cast<std::size_t>(from.node)];
    if (own >= 0)
        return own;
    if (!link_up(from.node, from.port))
        return std::nullopt;
    const Port& port = port_at(from.node, from.port);
    const int next = switch_number_[static_cast<std::size_t>(port.remote_node)];
    if (next < 0)
        return std::nullopt;
    add_link(route, port);
    const Port& far_end = port_at(port.remote_node, port.remote_port);
    route.rate = slower_rate(route.rate, far_end.rate);
    route.mtu = smaller_mtu(route.mtu, far_end.mtu);
    return next;
}

std::optional<Route> Routing::route(PortId from, PortId to) {
    const Port& source = port_at(from.node, from.port);
    const Port& target = port_at(to.node, to.port);
    Route route;
    const bool from_switch = switch_number_[static_cast<std::size_t>(from.node)] >= 0;
    if (!from_switch && from.node == to.node && from.port == to.port) {
        if (!link_up(from.node, from.port))
            return std::nullopt;
        return Route{0, source.rate, source.mtu};
    }
    const bool to_switch = switch_number_[static_cast<std::size_t>(to.node)] >= 0;
    const bool back_to_back = !from_switch && !to_switch && source.linked &&
                              source.remote_node == to.node && source.remote_port == to.port;
    if (back_to_back) {
        if (!link_up(from.node, from.port))
            return std::nullopt;
        add_link(route, source);
        add_link(route, target);
        route.hops = 1;
        return route;
    }
    const std::optional<int> first = enter(from, route);
    const std::optional<int> last = enter(to, route);
    if (!first || !last)
        return std::nullopt;
    const bool backwards = from.node == home_;
    const Step& step = backwards ? steps_to(*first)[static_cast<std::size_t>(*last)]
                                 : steps_to(*last)[static_cast<std::size_t>(*first)];
    if (step.hops < 0)
        return std::nullopt;
    return Route{route.hops + step.hops, slower_rate(route.rate, step.rate),
                 smaller_mtu(route.mtu, step.mtu)};
}

const Routing::Steps& Routing::steps_to(int destination) {
    Steps& steps = cache_[static_cast<std::size_t>(destination)];
    if (steps.empty())
        search(destination, steps);
    return steps;
}

/// Breadth first from the destination. A switch's step is final before it is taken out of the
/// frontier, because all that lead to it on a shortest path are taken out before it.
void Routing::search(int destination, Steps& steps) {
    steps.assign(cache_.size(), Step{});
    steps[static_cast<std::size_t>(destination)].hops = 0;
    frontier_.assign(1, destination);
    for (std::size_t next = 0; next < frontier_.size(); ++next) {
        const auto at = static_cast<std::size_t>(frontier_[next]);
        for (std::size_t i = first_edge_[at]; i < first_edge_[at + 1]; ++i) {
            const Edge& edge = edges_[i];
            Step way = steps[at];
            add_link(way, edge);
            Step& best = steps[static_cast<std::size_t>(edge.to)];
            const bool is_new = best.hops < 0;
            if (!is_new && (best.hops != way.hops || !is_wider(way, best)))
                continue;
            if (!link_up(edge.node, edge.port))
                continue;
            if (is_new)
                frontier_.push_back(edge.to);
            best = way;
        }
    }
}

}  // namespace fabric
