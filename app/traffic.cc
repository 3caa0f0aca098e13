// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/traffic.h"

#include <algorithm>
#include <span>

#include "fabric/rmpp.h"
#include "fabric/wire.h"

namespace app {
namespace {

/* The destination that a path query asks for; empty when the MAD is none, or an acknowledgement
 * inside somebody else's answer. */
std::optional<fabric::Gid> query_destination(const fabric::Bytes& mad) {
    const auto header = fabric::decode<fabric::MadHeader>(mad);
    if (!header || header->management_class != fabric::sa_class ||
        header->method != fabric::method_get_multi || mad.size() < fabric::sa_data_offset)
        return {};
    const auto rmpp = fabric::rmpp_header(mad);
    if (rmpp && rmpp->type != 0 && rmpp->type != fabric::rmpp_data)
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
    if (seen.direction != fabric::Direction::out)
        return;
    const std::lock_guard guard(mutex_);
    if (seen.packet.dest_qp == fabric::gsi_qp)
        see_query(seen.packet);
    else
        see_arp(seen.packet);
}

void Traffic::see_arp(const fabric::Packet& packet) {
    const auto arp = fabric::decode<fabric::ArpPacket>(packet.payload);
    if (!arp || arp->ether_type != fabric::arp_ether_type || arp->operation != fabric::arp_request)
        return;
    ++counts_.arp_requests;
    counts_.repeats += !addresses_.insert(arp->target_ip).second;
}

void Traffic::see_query(const fabric::Packet& packet) {
    const auto destination = query_destination(packet.payload);
    if (!destination)
        return;
    ++counts_.path_queries;
    counts_.repeats += !first_queries_.try_emplace(*destination, now_()).second;
}

std::optional<Duration> Traffic::first_query(const fabric::Gid& destination) const {
    const std::lock_guard guard(mutex_);
    const auto found = first_queries_.find(destination);
    return found == first_queries_.end() ? std::nullopt : std::optional(found->second);
}

TrafficCounts Traffic::counts() const {
    const std::lock_guard guard(mutex_);
    return counts_;
}

}  // namespace app
