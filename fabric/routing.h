// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Which way packets take through a fabric: whether one port reaches another, over how many links,
// and what the narrowest of them allows.
//
// Routes are those that OpenSM's default, min-hop, gives a subnet that it brings up. Only switches
// forward. Each has an exit for every LID, out of those with the fewest hops to it the one that has
// been given to the fewest LIDs before: rates and MTUs do not count. The further LIDs of a port
// prefer exits to other switches than the LIDs before them have. Who comes first when LIDs are
// given their exits decides which link they share, so the order is OpenSM's too.
//
// An adapter's link that goes down changes no route, as a manager keeps what is still right; a link
// between switches does, and all are made anew. A switch's exits are found when they are first
// needed.
//
// Not synchronised: one thread at a time. The topology must outlive the object; its links are read
// when the object is made.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <optional>
#include <span>
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
    /// `lmc`: of all adapters' ports; 0: of each what the topology says.
    explicit Routing(const Topology& topology, std::uint8_t lmc = 0);

    /// The way from a port to one of another's LIDs, counted from its base LID, modulo their
    /// number. Empty when there is none. A port reaches itself over no link, as long as its own
    /// link is up. Throws std::out_of_range for a port that is not there. `links`, when given, gets
    /// the ends that lead out of the nodes on the way, in its order.
    std::optional<Route> route(PortId from, PortId to, unsigned lid = 0,
                               std::vector<PortId>* links = nullptr);

    /// Whether there is a way; at one cost at any size.
    bool reaches(PortId from, PortId to);

    /// Takes a port's end of its link down or up. A link carries packets while both ends are up.
    /// Throws std::out_of_range for a port that is not there.
    void set_link(int node, int port, bool up);

    /// Whether the port is linked and both ends of the link are up.
    bool link_up(int node, int port) const;

  private:
    static constexpr std::size_t ports_of_switch = 255;

    /// A link from a switch to another, by their numbers among the switches.
    struct Edge {
        int to = -1;
        int port = 0;  ///< at the near end
    };
    /// A port that has LIDs, and the switch at which packets to it arrive or which it is of.
    struct Target {
        PortId at;
        int leaf = -1;
        unsigned lids = 1;
    };
    using Exits = std::vector<std::uint8_t>;  ///< of a switch, by LID and target; 0: none
    using PortSet = std::bitset<ports_of_switch>;
    using Load = std::array<std::uint32_t, ports_of_switch>;  ///< of a switch's exits, in LIDs

    const Node& node_of_switch(int number) const;
    const Port& port_at(PortId at) const;
    std::size_t flag_index(int node, int port) const;
    int switch_of(int node) const { return switch_number_[static_cast<std::size_t>(node)]; }
    void make_edges();
    void order_targets(std::uint8_t lmc);
    void add_target(PortId at, int leaf, unsigned lids);
    std::optional<int> leaf_of(PortId at) const;
    bool is_back_to_back(PortId from, PortId to) const;
    bool edge_up(int from, const Edge& edge) const;
    void add_link(Route& route, PortId near_end) const;
    int exit_towards(int from, std::size_t target, unsigned lid);
    int only_link_between(int from, int to) const;
    const Exits& exits_of(int number);
    void find_first_exits(int from);
    void list_exits(int leaf, std::vector<std::uint8_t>& ports) const;
    std::uint8_t choose_exit(const Node& from, std::size_t target, unsigned lid,
                             std::span<const std::uint8_t> possible, const Exits& exits,
                             const Load& load) const;
    void find_components();

    const Topology& topology_;
    std::vector<std::size_t> first_flag_;  ///< of each node, in down_
    std::vector<std::uint8_t> down_;       ///< of each port of each node
    std::vector<int> switch_number_;       ///< of each node, -1 when it is no switch
    std::vector<int> switches_;            ///< their nodes
    std::vector<std::size_t> first_edge_;  ///< of each switch, in edges_, and one past the last
    std::vector<Edge> edges_;
    std::vector<Target> targets_;  ///< in the order in which they are given exits
    std::vector<int> target_of_;   ///< of each port of each node, -1 when it is none
    unsigned most_lids_ = 1;       ///< of a target
    std::vector<Exits> exits_;     ///< by switch; empty where nobody asked yet
    std::vector<int> component_;   ///< by switch, which reach each other; empty until asked for
    std::vector<int> hops_;        ///< by switch, from the one that is looked at; -1: none
    std::vector<PortSet> firsts_;  ///< by switch, on whose shortest paths these exits are
    std::vector<int> frontier_;
};

}  // namespace fabric
