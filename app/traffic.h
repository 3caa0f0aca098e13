// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the host asks of the fabric to find its peers, seen in the packets that cross its ports: for
// whom it asks by ARP, for whose paths it asks the SA, what it has to ask again, and what it gives
// up.
//
// A question that is asked again soon is repeated, unless what it belongs to has begun anew: for an
// address with its answer, for paths with the next ARP packet from there. One that no answer came
// to and that has not been repeated for so long that the module must have given it up has timed
// out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "app/latency.h"
#include "fabric/capture.h"

namespace app {

enum class Question { arp, paths };
inline constexpr Question questions[] = {Question::arp, Question::paths};

struct QuestionCounts {
    std::size_t sent = 0;
    std::size_t repeats = 0;   ///< of those
    std::size_t timeouts = 0;  ///< questions, however often repeated
};

/// Has to be shown every packet that crosses our ports. Calls may come from any thread.
class Traffic {
  public:
    explicit Traffic(std::function<Duration()> now) : now_(std::move(now)) {}
    void see(const fabric::SeenPacket& seen);

    QuestionCounts counts(Question question) const;  ///< through all ports
    QuestionCounts counts(Question question, int port) const;

    /// When the first query for paths to that destination was sent; empty when none was.
    std::optional<Duration> first_query(const fabric::Gid& destination) const;

    /// Counts what has timed out by now, and forgets what was asked long ago. `jiffies` is the
    /// kernel's time.
    void settle(unsigned long jiffies);

  private:
    struct Asked {
        int port = 0;
        Duration first = 0;
        unsigned long last = 0;  ///< in the kernel's time
        bool answered = false;
        bool over = false;  ///< asked again, it is a new one
    };
    template <class Key, class Hash = std::hash<Key>>
    using AskedOf = std::unordered_map<Key, Asked, Hash>;

    template <class Map>
    void ask(Question question, Map& map, const typename Map::key_type& key,
             const fabric::SeenPacket& seen);
    template <class Map>
    void settle(Question question, Map& map, unsigned long jiffies);
    QuestionCounts& counts_at(Question question, int port);
    void see_arp(const fabric::SeenPacket& seen);
    void see_mad(const fabric::SeenPacket& seen);

    const std::function<Duration()> now_;
    mutable std::mutex mutex_;                           // guards the rest
    std::vector<std::array<QuestionCounts, 2>> counts_;  // by port, by question
    AskedOf<std::uint32_t> addresses_;
    AskedOf<fabric::Gid, fabric::GidHash> destinations_;
    std::unordered_map<std::uint32_t, fabric::Gid> queries_;  // by transaction
};

}  // namespace app
