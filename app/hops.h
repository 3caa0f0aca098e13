// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Which switches a path goes through, and by which of their ports.
//
// The topology tells it, as the simulated SA computes paths: the shortest way, of several the one
// with the fastest slowest link, and of those the one by the lowest port numbers. Of a real fabric
// a picture is all that is known here; its manager may have chosen another of the shortest ways.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "app/machine.h"
#include "app/resolve.h"
#include "fabric/routing.h"

namespace app {

/// A node that a packet meets on its way, the first and the last included.
struct Hop {
    int node = -1;          ///< index into the topology's nodes
    int in = 0;             ///< port by which it comes; 0: it begins here
    int out = 0;            ///< port by which it leaves; 0: it ends here
    std::uint8_t rate = 0;  ///< code of the link by which it leaves; 0: it ends here
};

/// Finds ways. The site must outlive it, and have a topology. One thread at a time.
class Ways {
  public:
    explicit Ways(const Site& site);

    /// The way from a port to another; empty where the topology lacks a port, or a way.
    std::vector<Hop> hops(const gx_gid_t& from, const gx_gid_t& to);
    /// What people call the node.
    std::string name(const Hop& hop) const;

  private:
    struct Link {
        fabric::PortId far;
        std::uint8_t rate = 0;
        std::uint8_t mtu = 0;
    };
    Link link_at(fabric::PortId port) const;
    const fabric::Node& node_at(int node) const;
    int way_out(fabric::PortId at, fabric::PortId to);

    const Site& site_;
    fabric::Routing routing_;
    std::unordered_map<std::uint64_t, fabric::PortId> ports_;  // of adapters, by GUID
    std::unordered_map<int, std::string> names_;               // of hosts, by node
};

/// Throws UsageError for a site without a topology.
void require_topology(const Site& site);

/// Each path of each resolved peer hop by hop; of more than `most` peers the first ones, and how
/// many were left out. `width` as in report.h.
std::string format_hops(Machine& machine, const std::vector<Peer>& peers, std::size_t width,
                        std::size_t most);

}  // namespace app
