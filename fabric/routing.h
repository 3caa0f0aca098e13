// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Which way packets take through a fabric: whether one port reaches another, over how many links,
// and what the narrowest of them allows.
//
// A packet takes a shortest path; only switches forward. Of several shortest paths it takes one
// with the fastest slowest link, and of those one with the largest MTU that is known. The answers
// to one destination switch are found together when the first is asked for, and kept until a link
// between switches changes. A host at whose ports most ways begin or end can be named: all of these
// are found together, since a way back is the way there.
//
// Not synchronised: one thread at a time. The topology must outlive the object; its links are read
// when the object is made.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "fabric/topology.h"

namespace fabric {

/// A port of a node of the topology. For a switch any of its ports stands for the switch itself.
struct PortId {
    int node = -1;
    int port = 0;
};

struct Route {
    int hops = 0;           ///< links on the way: 1 back to back, 2 by way of one switch
    std::uint8_t rate = 0;  ///< code of the slowest link; 0: none on the way or none known
    std::uint8_t mtu = 0;   ///< code of the smallest MTU known on the way; 0: none known
};

class Routing {
  public:
    /// `home`: the node that most ways begin or end at; -1: none.
    explicit Routing(const Topology& topology, int home = -1);

    /// The way from one port to another; empty when there is none. A port reaches itself over no
    /// link, as long as its own link is up. Throws std::out_of_range for a port that is not there.
    std::optional<Route> route(PortId from, PortId to);

    /// Takes a port's end of its link down or up. A link carries packets while both ends are up.
    /// Throws std::out_of_range for a port that is not there.
    void set_link(int node, int port, bool up);

    /// Whether the port is linked and both ends of the link are up.
    bool link_up(int node, int port) const;

  private:
    /// A link from a switch to another, by their numbers among the switches.
    struct Edge {
        int to = -1;
        int node = -1;  ///< the near end, as the topology has it
        int port = 0;
        std::uint8_t rate = 0;
        std::uint8_t mtu = 0;
    };
    /// The way from one switch to the destination.
    struct Step {
        std::int32_t hops = -1;  ///< -1: not reached
        std::uint8_t rate = 0;
        std::uint8_t mtu = 0;
    };
    using Steps = std::vector<Step>;

    const Port& port_at(int node, int port) const;
    std::size_t flag_index(int node, int port) const;
    /// The switch that a packet of the port enters first, having added the link to it to `route`;
    /// empty when the port has no link that is up or there is no switch behind it.
    std::optional<int> enter(PortId from, Route& route) const;
    void make_edges();
    const Steps& steps_to(int destination);
    void search(int destination, Steps& steps);

    const Topology& topology_;
    const int home_;
    std::vector<std::size_t> first_flag_;  ///< of each node, in down_
    std::vector<std::uint8_t> down_;       ///< of each port of each node
    std::vector<int> switch_number_;       ///< of each node, -1 when it is no switch
    std::vector<std::size_t> first_edge_;  ///< of each switch, in edges_, and one past the last
    std::vector<Edge> edges_;
    std::vector<Steps> cache_;  ///< by destination switch; empty where nobody asked yet
    std::vector<int> frontier_;
};

}  // namespace fabric
