// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Counts what the host sends to find its peers: ARP requests and path queries, which of them were
// repeated, and when a peer's paths were first asked for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "app/latency.h"
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
    explicit Traffic(std::function<Duration()> now) : now_(std::move(now)) {}
    void see(const fabric::SeenPacket& seen);
    TrafficCounts counts() const;
    /// When the first query for paths to that destination was sent; empty when none was.
    std::optional<Duration> first_query(const fabric::Gid& destination) const;

  private:
    void see_arp(const fabric::Packet& packet);
    void see_query(const fabric::Packet& packet);

    const std::function<Duration()> now_;
    mutable std::mutex mutex_;
    TrafficCounts counts_;
    std::unordered_set<std::uint32_t> addresses_;
    std::unordered_map<fabric::Gid, Duration, fabric::GidHash> first_queries_;
};

}  // namespace app
