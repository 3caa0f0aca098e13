// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/traffic.h"

#include <algorithm>
#include <span>

#include "fabric/rmpp.h"
#include "fabric/wire.h"
#include "platform/jiffies.h"

namespace app {
namespace {

/* Ticks after which a question that is still wanted has been repeated: the lists' timers look every
 * 1 s and every 3 s at what has waited so long, and may be late. */
constexpr unsigned long longest_wait(Question question) {
    return (question == Question::arp ? 2 * 1 : 2 * 3) * HZ + HZ / 2;
}

/* Below the half that a kernel may use for itself. */
std::uint32_t transaction_of(const fabric::MadHeader& header) {
    return static_cast<std::uint32_t>(header.transaction);
}

/* The destination that a path query asks for; empty when the MAD is none. */
std::optional<fabric::Gid> query_destination(const fabric::MadHeader& header,
                                             const fabric::Bytes& mad) {
    if (header.method != fabric::method_get_multi || mad.size() < fabric::sa_data_offset)
        return {};
    const auto data = std::span(mad).subspan(fabric::sa_data_offset);
    const auto query = fabric::decode<fabric::MultiPathRecord>(data);
    fabric::Gid gid;
    if (!query || data.size() < query->wire_size + gid.size() * (query->sgid_count + 1u))
        return {};
    const auto first = data.subspan(query->wire_size + gid.size() * query->sgid_count, gid.size());
    std::ranges::copy(first, gid.begin());
    return gid;
}

}  // namespace

void Traffic::see(const fabric::SeenPacket& seen) {
    const std::lock_guard guard(mutex_);
    if (seen.packet.dest_qp == fabric::gsi_qp)
        see_mad(seen);
    else
        see_arp(seen);
}

void Traffic::see_arp(const fabric::SeenPacket& seen) {
    const auto arp = fabric::decode<fabric::ArpPacket>(seen.packet.payload);
    if (!arp || arp->ether_type != fabric::arp_ether_type)
        return;
    if (seen.direction == fabric::Direction::in) {
        if (const auto asked = addresses_.find(arp->sender_ip); asked != addresses_.end())
            asked->second.answered = asked->second.over = true;
        if (const auto asked = destinations_.find(arp->sender_gid); asked != destinations_.end())
            asked->second.over = true;
    } else if (arp->operation == fabric::arp_request) {
        ask(Question::arp, addresses_, arp->target_ip, seen);
    }
}

void Traffic::see_mad(const fabric::SeenPacket& seen) {
    const auto header = fabric::decode<fabric::MadHeader>(seen.packet.payload);
    if (!header || header->management_class != fabric::sa_class ||
        fabric::is_rmpp_control(seen.packet.payload))
        return;
    if (seen.direction == fabric::Direction::out) {
        if (const auto destination = query_destination(*header, seen.packet.payload)) {
            queries_[transaction_of(*header)] = *destination;
            ask(Question::paths, destinations_, *destination, seen);
        }
    } else if (const auto query = queries_.find(transaction_of(*header));
               query != queries_.end() && header->status == 0) {
        if (const auto asked = destinations_.find(query->second); asked != destinations_.end())
            asked->second.answered = true;
    }
}

template <class Map>
void Traffic::ask(Question question, Map& map, const typename Map::key_type& key,
                  const fabric::SeenPacket& seen) {
    const auto found = map.find(key);
    const bool soon =
        found != map.end() && seen.jiffies - found->second.last <= longest_wait(question);
    const bool repeats = soon && !found->second.over;
    if (found != map.end() && !soon && !found->second.answered)
        ++counts_at(question, found->second.port).timeouts;
    ++counts_at(question, seen.port).sent;
    counts_at(question, seen.port).repeats += repeats;
    map[key] = {seen.port, repeats ? found->second.first : now_(), seen.jiffies};
}

QuestionCounts& Traffic::counts_at(Question question, int port) {
    const auto index = static_cast<std::size_t>(std::max(port, 0));
    counts_.resize(std::max(counts_.size(), index + 1));
    return counts_[index][static_cast<std::size_t>(question)];
}

QuestionCounts Traffic::counts(Question question, int port) const {
    const std::lock_guard guard(mutex_);
    const auto index = static_cast<std::size_t>(port);
    return index < counts_.size() ? counts_[index][static_cast<std::size_t>(question)]
                                  : QuestionCounts();
}

QuestionCounts Traffic::counts(Question question) const {
    const std::lock_guard guard(mutex_);
    QuestionCounts all;
    for (const auto& port : counts_) {
        const QuestionCounts& row = port[static_cast<std::size_t>(question)];
        all.sent += row.sent;
        all.repeats += row.repeats;
        all.timeouts += row.timeouts;
    }
    return all;
}

std::optional<Duration> Traffic::first_query(const fabric::Gid& destination) const {
    const std::lock_guard guard(mutex_);
    const auto found = destinations_.find(destination);
    return found == destinations_.end() ? std::nullopt : std::optional(found->second.first);
}

void Traffic::settle(unsigned long jiffies) {
    const std::lock_guard guard(mutex_);
    settle(Question::arp, addresses_, jiffies);
    settle(Question::paths, destinations_, jiffies);
    std::erase_if(queries_, [&](const auto& row) { return !destinations_.contains(row.second); });
}

template <class Map>
void Traffic::settle(Question question, Map& map, unsigned long jiffies) {
    std::erase_if(map, [&](const auto& row) {
        const Asked& asked = row.second;
        const bool old = jiffies > asked.last && jiffies - asked.last > longest_wait(question);
        if (old && !asked.answered)
            ++counts_at(question, asked.port).timeouts;
        return old;
    });
}

}  // namespace app
