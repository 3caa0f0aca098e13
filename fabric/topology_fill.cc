// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Fills in what a topology leaves out: GUIDs and rates.

#include <unordered_set>

#include "fabric/topology.h"

namespace fabric {
namespace {

constexpr std::uint8_t default_rate = 3;  // 4xSDR, what every device can do
constexpr std::uint64_t first_adapter_guid = 0x100000;
constexpr std::uint64_t first_switch_guid = 0x200000;

class GuidFiller {
  public:
    explicit GuidFiller(Topology& topology) : topology_(topology) {
        for (const Node& node : topology.nodes) {
            node_guids_.insert(node.guid);
            for (const Port& port : node.ports)
                port_guids_.insert(port.guid);
        }
    }

    void fill() {
        for (Node& node : topology_.nodes) {
            const bool given = node.guid != 0;
            if (!given) {
                node.guid = fresh(node.kind);
                node_guids_.insert(node.guid);
            }
            if (node.kind == NodeKind::switch_node) {
                fill_port(node, 0, true);
                continue;
            }
            for (std::size_t number = 1; number < node.ports.size(); ++number)
                fill_port(node, number, given);
        }
    }

  private:
    /// The ports of an adapter usually have the GUIDs that follow the node's; the management port
    /// of a switch, which stands for all its ports, has the node's own.
    void fill_port(Node& node, std::size_t number, bool as_usual) {
        Port& port = node.ports[number];
        if (port.guid != 0)
            return;
        const std::uint64_t usual = node.guid + number;
        const bool taken =
            port_guids_.contains(usual) || (number != 0 && node_guids_.contains(usual));
        port.guid = as_usual && !taken ? usual : fresh(node.kind);
        port_guids_.insert(port.guid);
    }

    std::uint64_t fresh(NodeKind kind) {
        std::uint64_t& next = kind == NodeKind::switch_node ? next_switch_ : next_adapter_;
        while (node_guids_.contains(next) || port_guids_.contains(next))
            ++next;
        return next++;
    }

    Topology& topology_;
    std::unordered_set<std::uint64_t> node_guids_;
    std::unordered_set<std::uint64_t> port_guids_;
    std::uint64_t next_adapter_ = first_adapter_guid;
    std::uint64_t next_switch_ = first_switch_guid;
};

}  // namespace

void fill_missing(Topology& topology) {
    GuidFiller(topology).fill();
    for (Node& node : topology.nodes) {
        for (Port& port : node.ports) {
            if (port.linked && port.rate == 0)
                port.rate = default_rate;
        }
    }
}

}  // namespace fabric
