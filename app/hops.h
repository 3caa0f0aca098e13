// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Which switches a path goes through, and by which of their ports.
//
// The topology tells it, with the routes that the simulated subnet has. Of a real fabric a picture
// is all that is known here; its manager may have chosen another of the shortest ways.
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

    /// The way that packets of the path take; empty where the topology lacks a port, or a way.
    std::vector<Hop> hops(const ib_path_record_v2_t& path);
    /// What people call the node.
    std::string name(const Hop& hop) const;

  private:
    const fabric::Node& node_at(int node) const;
    const fabric::Port& port_at(fabric::PortId at) const;

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
