// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Makes fabrics of any size, for tests and benchmarks.

#include <stdexcept>
#include <utility>

#include "fabric/topology.h"

namespace fabric {
namespace {

constexpr std::uint8_t qdr = 7;
constexpr int max_ports = 254;
constexpr int leaves_per_group = 16;
constexpr std::size_t max_lid = 0xBFFF;

// Without the sum that would overflow next to the largest count.
int rounded_up(int count, int share) {
    return (count - 1) / share + 1;
}

class Maker {
  public:
    explicit Maker(const FabricShape& shape) : shape_(shape) {}

    Topology make() {
        check_shape();
        make_nodes();
        link_hosts();
        link_switches();
        if (shape_.lids)
            give_lids();
        fill_missing(topology_);
        topology_.file = "made";
        return std::move(topology_);
    }

  private:
    /// Whether the running share of two-port hosts grows by one whole host at this one.
    bool has_two_ports(int host) const {
        const std::int64_t percent = shape_.two_port_percent;
        return host == 0 || host * percent / 100 != (std::int64_t{host} + 1) * percent / 100;
    }

    void check_shape() {
        if (shape_.hosts < 1 || shape_.two_port_percent < 0 || shape_.two_port_percent > 100)
            throw std::invalid_argument("a fabric needs a host, and a share of 0 to 100 percent");
        if (shape_.spines < 1 || shape_.spines > max_ports || shape_.hosts_per_leaf < 1 ||
            shape_.hosts_per_leaf > max_ports / 2 || leaf_ports() > max_ports)
            throw std::invalid_argument("a leaf switch has 254 ports for hosts and spines");
        leaves_ = rounded_up(shape_.hosts, shape_.hosts_per_leaf);
        groups_ = rounded_up(leaves_, leaves_per_group);
        if (groups_ > max_ports)
            throw std::invalid_argument("a core switch has 254 ports for groups of leaf switches");
    }

    int leaf_ports() const { return 2 * shape_.hosts_per_leaf + shape_.spines; }

    void add(NodeKind kind, const std::string& id, const std::string& name, int ports) {
        Node node;
        node.kind = kind;
        node.id = id;
        node.name = name;
        node.ports.resize(static_cast<std::size_t>(ports) + 1);
        topology_.nodes.push_back(std::move(node));
    }

    /// The index of the first of `count` switches.
    int add_switches(const std::string& name, int count, int ports) {
        const auto first = static_cast<int>(topology_.nodes.size());
        for (int i = 1; i <= count; ++i)
            add(NodeKind::switch_node, name + std::to_string(i), name + std::to_string(i), ports);
        return first;
    }

    void make_nodes() {
        for (int host = 0; host < shape_.hosts; ++host) {
            const std::string name = "node" + std::to_string(host + 1);
            add(NodeKind::adapter, name, name + " HCA-1", has_two_ports(host) ? 2 : 1);
        }
        first_leaf_ = add_switches("leaf", leaves_, leaf_ports());
        if (leaves_ > 1)
            first_spine_ = add_switches("spine", groups_ * shape_.spines, leaves_per_group + 1);
        if (groups_ > 1)
            first_core_ = add_switches("core", shape_.spines, groups_);
    }

    Port& port_at(int node, int port) {
        return topology_.nodes[static_cast<std::size_t>(node)]
            .ports[static_cast<std::size_t>(port)];
    }

    void link(int node, int port, int far_node, int far_port) {
        Port& end = port_at(node, port);
        Port& far_end = port_at(far_node, far_port);
        end.linked = far_end.linked = true;
        end.rate = far_end.rate = qdr;
        end.remote_node = far_node;
        end.remote_port = far_port;
        far_end.remote_node = node;
        far_end.remote_port = port;
    }

    /// A second port goes to the leaf after that of the first, where ports are kept for it.
    void link_hosts() {
        const int below = shape_.hosts_per_leaf;
        for (int host = 0; host < shape_.hosts; ++host) {
            const int leaf = host / below;
            const int place = host % below + 1;
            link(host, 1, first_leaf_ + leaf, place);
            if (has_two_ports(host))
                link(host, 2, first_leaf_ + (leaf + 1) % leaves_, below + place);
        }
    }

    void link_switches() {
        if (leaves_ == 1)
            return;
        for (int up = 0; up < shape_.spines; ++up) {
            const int up_port = 2 * shape_.hosts_per_leaf + 1 + up;
            for (int leaf = 0; leaf < leaves_; ++leaf)
                link(first_leaf_ + leaf, up_port, spine(leaf / leaves_per_group, up),
                     leaf % leaves_per_group + 1);
            for (int group = 0; groups_ > 1 && group < groups_; ++group)
                link(spine(group, up), leaves_per_group + 1, first_core_ + up, group + 1);
        }
    }

    int spine(int group, int number) const { return first_spine_ + group * shape_.spines + number; }

    void give_lids() {
        std::size_t lid = 0;
        for (Node& node : topology_.nodes) {
            const bool is_switch = node.kind == NodeKind::switch_node;
            const std::size_t end = is_switch ? 1 : node.ports.size();
            for (std::size_t port = is_switch ? 0 : 1; port < end; ++port)
                node.ports[port].lid = static_cast<std::uint16_t>(++lid);
        }
        if (lid > max_lid)
            throw std::invalid_argument("more ports than a subnet has LIDs");
    }

    const FabricShape shape_;
    int leaves_ = 0;
    int groups_ = 0;
    int first_leaf_ = -1;
    int first_spine_ = -1;
    int first_core_ = -1;
    Topology topology_;
};

}  // namespace

Topology make_fabric(const FabricShape& shape) {
    return Maker(shape).make();
}

}  // namespace fabric
