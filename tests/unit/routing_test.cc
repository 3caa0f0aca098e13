// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ways that packets take through a fabric, and what links that go down change about them.

#include "fabric/routing.h"

#include <gtest/gtest.h>

#include <sstream>

namespace fabric {
namespace {

// Two leaves joined by a spine and, in more hops, by a chain; A and B below leaf 1, C below leaf 2
// with a second port on leaf 1, D and E back to back, F on a switch of its own.
enum NodeIndex { leaf1, leaf2, spine1, spine2, chain, lone, a, b, c, d, e, f };

Topology example() {
    std::istringstream in(
        "Switch 8 \"L1\"\n[1] \"A\"[1] # 4xQDR mtu 2048\n[2] \"B\"[1] # 12xQDR\n"
        "[3] \"C\"[2] # 4xSDR\n[5] \"S1\"[1] # 4xFDR\n[6] \"S2\"[1] # 12xQDR\n[7] \"X\"[1] # "
        "4xHDR\n"
        "Switch 8 \"L2\"\n[1] \"C\"[1] # 4xHDR mtu 4096\n[5] \"S1\"[2] # 4xHDR mtu 1024\n"
        "[6] \"S2\"[2] # 12xQDR\n"
        "Switch 8 \"S1\"\nSwitch 8 \"S2\"\nSwitch 8 \"X\"\n[2] \"Y\"[1]\n"
        "Switch 8 \"Y\"\n[2] \"F\"[1]\n"
        "Ca 1 \"A\"\nCa 1 \"B\"\nCa 2 \"C\"\nCa 1 \"D\"\n[1] \"E\"[1] # 4xEDR mtu 4096\n"
        "Ca 2 \"E\"\nCa 1 \"F\"\n");
    return read_topology(in, "example");
}

/// "hops rate mtu" in codes, or "none".
std::string text(const std::optional<Route>& route) {
    if (!route)
        return "none";
    return std::to_string(route->hops) + " " + std::to_string(route->rate) + " " +
           std::to_string(route->mtu);
}

struct Way {
    const char* name;
    PortId from;
    PortId to;
    std::vector<PortId> down;
    const char* expected;
};

using Ways = testing::TestWithParam<Way>;

TEST_P(Ways, AreTheSameBothWaysAndAfterRepair) {
    const Way& way = GetParam();
    const Topology topology = example();
    Routing routing(topology);
    const std::string whole = text(routing.route(way.from, way.to));
    for (const PortId& port : way.down)
        routing.set_link(port.node, port.port, false);
    EXPECT_EQ(text(routing.route(way.from, way.to)), way.expected);
    EXPECT_EQ(text(routing.route(way.to, way.from)), way.expected);
    for (const PortId& port : way.down)
        routing.set_link(port.node, port.port, true);
    EXPECT_EQ(text(routing.route(way.from, way.to)), whole);
}

INSTANTIATE_TEST_SUITE_P(
    Routing, Ways,
    testing::Values(
        Way{"one_switch", {a, 1}, {b, 1}, {}, "2 7 4"},
        Way{"two_tiers_by_the_spine_in_turn_not_the_wider", {a, 1}, {c, 1}, {}, "4 7 3"},
        Way{"two_tiers_round_a_link_down", {b, 1}, {c, 1}, {{leaf1, 5}}, "4 10 5"},
        Way{"two_tiers_round_a_link_down_at_its_far_end", {b, 1}, {c, 1}, {{spine1, 1}}, "4 10 5"},
        Way{"no_spine_left", {b, 1}, {c, 1}, {{leaf1, 6}, {spine1, 2}}, "none"},
        Way{"shorter_before_wider", {b, 1}, {c, 2}, {}, "2 3 0"},
        Way{"adapters_do_not_forward", {b, 1}, {c, 1}, {{leaf1, 5}, {leaf1, 6}}, "none"},
        Way{"a_chain_of_switches", {a, 1}, {f, 1}, {}, "4 3 4"},
        Way{"own_link_down", {a, 1}, {b, 1}, {{a, 1}}, "none"},
        Way{"own_link_down_at_the_switch", {a, 1}, {b, 1}, {{leaf1, 1}}, "none"},
        Way{"between_ports_of_a_host", {c, 1}, {c, 2}, {}, "4 3 3"},
        Way{"back_to_back", {d, 1}, {e, 1}, {}, "1 16 5"},
        Way{"back_to_back_down", {d, 1}, {e, 1}, {{e, 1}}, "none"},
        Way{"beside_back_to_back", {d, 1}, {a, 1}, {}, "none"},
        Way{"not_linked", {e, 2}, {a, 1}, {}, "none"},
        Way{"to_itself", {a, 1}, {a, 1}, {}, "0 7 4"},
        Way{"to_itself_down", {a, 1}, {a, 1}, {{leaf1, 1}}, "none"},
        Way{"to_a_switch", {a, 1}, {spine1, 0}, {}, "2 7 4"}),
    [](const auto& row) { return row.param.name; });

TEST(Routing, ALinkNeedsBothItsEnds) {
    const Topology topology = example();
    Routing routing(topology);
    routing.set_link(a, 1, false);
    routing.set_link(leaf1, 1, false);
    routing.set_link(a, 1, true);
    EXPECT_FALSE(routing.link_up(a, 1));
    routing.set_link(leaf1, 1, true);
    EXPECT_TRUE(routing.link_up(a, 1));
    EXPECT_FALSE(routing.link_up(e, 2)) << "not linked at all";
}

}  // namespace
}  // namespace fabric
