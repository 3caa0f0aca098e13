// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Counts what the host sends to find its peers: ARP requests and path queries, and which of them
// were repeated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_set>

#include "fabric/capture.h"

namespace app {

struct TrafficCounts {
    std::size_t arp_requests = 0;
    std::size_t path_queries = 0;
    std::size_t repeats = 0;  ///< of both, those that ask for what was asked for before
};

/// Has to be shown every packet that crosses our ports. Calls may come from any thread.
class Traffic {
  public:
    void see(const fabric::SeenPacket& seen);
    TrafficCounts counts() const;

  private:
    void see_arp(const fabric::Packet& packet);
    void see_query(const fabric::Packet& packet);

    mutable std::mutex mutex_;
    TrafficCounts counts_;
    std::unordered_set<std::uint32_t> addresses_;
    std::unordered_set<fabric::Gid, fabric::GidHash> destinations_;
};

}  // namespace app
