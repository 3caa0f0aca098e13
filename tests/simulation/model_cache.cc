// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The model's table, and how records are compared.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "app/script_text.h"
#include "fabric/topology.h"
#include "platform/jiffies.h"
#include "tests/simulation/model.h"

namespace simulation {
namespace {

bool same_path(const ib_path_record_v2_t& a, const ib_path_record_v2_t& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

std::size_t bucket_of(std::uint32_t ip) {
    ip ^= ip >> 16;
    ip ^= ip >> 8;
    ip ^= ip >> 3;
    return ip % buckets;
}

bool same_record(const tarv_arp_data_t& a, const tarv_arp_data_t& b) {
    return a.mask == b.mask && a.arp_operation == b.arp_operation && a.src_ip == b.src_ip &&
           a.dst_ip == b.dst_ip && a.gid == b.gid && a.qpn == b.qpn && a.cap_flg == b.cap_flg &&
           a.lid == b.lid && a.qkey == b.qkey && a.local_port_num == b.local_port_num &&
           a.paths_count == b.paths_count && a.context == b.context &&
           std::equal(std::begin(a.paths), std::end(a.paths), b.paths, same_path);
}

std::string difference(const tarv_arp_data_t& expected, const tarv_arp_data_t& found) {
    char pointers[64] = "";
    if (expected.context != found.context)
        std::snprintf(pointers, sizeof pointers, " (and another context)");
    for (std::size_t i = 0; i < TARV_MAX_PATHS; ++i)
        if (!same_path(expected.paths[i], found.paths[i]))
            std::snprintf(pointers, sizeof pointers, " (path %zu differs)", i);
    return "must be\n    " + app::format_record(expected) + "\n  but is\n    " +
           app::format_record(found) + pointers;
}

std::string text_of(const Sent& sent) {
    if (sent.ip != 0)
        return "an ARP request of " + fabric::format_ip(sent.from) + " for " +
               fabric::format_ip(sent.ip) + (sent.media_reset ? " with a media reset" : "");
    std::string text = "a query on port " + std::to_string(sent.port) + " to LID " +
                       std::to_string(sent.sm_lid) + " SL " + std::to_string(sent.sm_sl) + ":";
    for (const gx_gid_t& gid : sent.gids)
        text += ' ' + app::format_digits(gid);
    return text;
}

// The newest entry of an address is the one that counts.
Cached* Model::find(std::uint32_t ip) {
    Chain& chain = now_.table[bucket_of(ip)];
    const auto found = std::find_if(chain.rbegin(), chain.rend(),
                                    [&](const Cached& entry) { return entry.record.dst_ip == ip; });
    return found == chain.rend() ? nullptr : &*found;
}

Cached* Model::find_replaceable(std::uint32_t ip) {
    Chain& chain = now_.table[bucket_of(ip)];
    const auto found = std::find_if(chain.rbegin(), chain.rend(), [&](const Cached& entry) {
        return entry.record.dst_ip == ip && (now_.is.statics_inv || !entry.is_static());
    });
    return found == chain.rend() ? nullptr : &*found;
}

void Model::add(const tarv_arp_data_t& record) {
    now_.table[bucket_of(record.dst_ip)].push_back({record, jiffies()});
}

bool Model::remove(std::uint32_t ip) {
    const Cached* const entry = find_replaceable(ip);
    if (!entry)
        return false;
    Chain& chain = now_.table[bucket_of(ip)];
    chain.erase(chain.begin() + (entry - chain.data()));
    return true;
}

template <class Doomed>
void Model::remove_if(Doomed doomed, Count counted) {
    for (Chain& chain : now_.table)
        counts_.note(counted, std::erase_if(chain, doomed));
}

void Model::remove_all() {
    remove_if([](const Cached&) { return true; }, Count::purged);
}

void Model::age() {
    remove_if(
        [&](const Cached& entry) {
            return !entry.is_static() && entry.stamp + timeout_ <= jiffies();
        },
        Count::aged);
}

void Model::event(std::uint32_t type, int number) {
    const bool known = number >= 1 && fabric_.adapter().has_port(number);
    const auto index = static_cast<std::size_t>(number - 1);
    if (type == gx_async_r_port_mtu || type == gx_async_r_port_lid)
        return remove_all();
    if (!known)
        return;
    const gx_gid_t gid = fabric::held(fabric_.adapter().port(number).gid);
    if (type == gx_async_r_port_link_up && !now_.ports[index].valid) {
        now_.ports[index] = {true, gid, fabric_.subnet().manager().lid,
                             fabric_.subnet().manager().sl};
        now_.port_count = fabric_.adapter().ports();
    } else if (type == gx_async_r_port_sm_change && now_.ports[index].valid) {
        now_.ports[index].sm_lid = fabric_.subnet().manager().lid;
        now_.ports[index].sm_sl = fabric_.subnet().manager().sl;
    } else if (type == gx_async_r_port_link_down) {
        remove_if(
            [&](const Cached& entry) {
                const tarv_arp_data_t& record = entry.record;
                return ((record.mask & TARV_MASK_PRIMARY_PATH) && record.paths[0].sgid == gid) ||
                       ((record.mask & TARV_MASK_SECONDARY_PATH) && record.paths[1].sgid == gid);
            },
            Count::purged);
        now_.ports[index].valid = false;
    }
}

tarv_stat_t Model::lookup(const gx_gid_t& gid, tarv_arp_data_t& record) {
    for (Chain& chain : now_.table)
        for (std::size_t i = chain.size(); i-- > 0;)
            if (chain[i].record.gid == gid) {
                chain[i].stamp = jiffies();
                record = chain[i].record;
                return tarv_stat_ok;
            }
    return tarv_stat_not_found;
}

std::string Model::text() const {
    std::string text =
        "IP address       HW type     Flags       HW address            Mask     Device\n";
    for (const Chain& chain : now_.table)
        for (std::size_t i = chain.size(); i-- > 0;) {
            const tarv_arp_data_t& record = chain[i].record;
            char line[128];
            std::snprintf(line, sizeof line,
                          "%-16s 0x1         0x%-10x00:AA:00:00:%02X:%02X     *        ipoib\n",
                          fabric::format_ip(record.dst_ip).c_str(), record.mask, record.lid >> 8,
                          record.lid & 0xFF);
            text += line;
        }
    return text;
}

}  // namespace simulation
