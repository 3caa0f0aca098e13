// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/module_state.h"

#include <algorithm>

#include "fabric/topology.h"
#include "platform/atomic.h"
#include "platform/timer.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-req-list.h"
#include "tarv/tarv-sa-private.h"

namespace simulation {

const ModuleTimer module_timers[3] = {
    {&tarv_req_timer, 1000, "ARP timer", &Model::arp_timer},
    {&tarv_sa_req_timer, 1000, "SA timer", &Model::sa_timer},
    {&tarv_garbage_collector_timer, 15000, "ageing", &Model::age},
};

namespace {

std::string about(std::uint32_t ip) {
    return "the entry of " + fabric::format_ip(ip);
}

const tarv_list_entry_t& request_of(const list_head* link) {
    return *reinterpret_cast<const tarv_list_entry_t*>(reinterpret_cast<const char*>(link) -
                                                       offsetof(tarv_list_entry_t, list_struct));
}

/* Every entry stands in the chain that its address belongs to, and `size` is their number. */
std::optional<Difference> read_table(State& state) {
    const read_guard guard(tarv_lock);
    std::size_t size = 0;
    for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
        State::Chain& chain = state.table[bucket];
        chain.clear();
        for (const tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket]; entry;
             entry = entry->next) {
            const tarv_arp_data_t& record = entry->arp_data;
            if (bucket_of(record.dst_ip) != bucket)
                return Difference{"chain_broken",
                                  about(record.dst_ip) + " is in bucket " + std::to_string(bucket)};
            if (((record.mask & TARV_MASK_PRIMARY_PATH) && record.primary_path != record.paths) ||
                ((record.mask & TARV_MASK_SECONDARY_PATH) &&
                 record.secondary_path != record.paths + 1))
                return Difference{"stray_path",
                                  about(record.dst_ip) + " points at another's paths"};
            if (++size > tarv_table.size)
                break;
            chain.push_back({record, entry->timestamp});
        }
        std::reverse(chain.begin(), chain.end());
    }
    if (size == tarv_table.size)
        return {};
    return Difference{"wrong_size", "size says " + std::to_string(tarv_table.size) +
                                        ", the chains have " +
                                        (size > tarv_table.size ? "more" : std::to_string(size))};
}

std::optional<Difference> read_requests(const tarv_list_t& list, State::Requests& found,
                                        const char* name) {
    found.clear();
    for (const list_head* link = list.head.next; link != &list.head; link = link->next) {
        const tarv_list_entry_t& entry = request_of(link);
        if (link->next->prev != link || found.size() == list.count)
            return Difference{"wrong_count", std::string(name) + " says " +
                                                 std::to_string(list.count) +
                                                 " and has more, or its links are broken"};
        if (atomic_read(&entry.static_flag) != 0)
            return Difference{"busy_for_ever", std::string("a request on ") + name +
                                                   " is marked busy, but its maker is gone"};
        if (&list == &sa_requests &&
            entry.needed_paths_mask != (entry.requested_paths == tarv_paths_both ? 3 : 1))
            return Difference{"request_broken", "a request for paths does not say what it needs"};
        found.push_back({entry.req_ip, entry.src_ip, entry.requested_paths, entry.context,
                         entry.reply_cb != nullptr, entry.n_retries, entry.timestamp, entry.dgid});
    }
    std::reverse(found.begin(), found.end());
    if (found.size() == list.count)
        return {};
    return Difference{"wrong_count", std::string(name) + " says " + std::to_string(list.count) +
                                         " and has " + std::to_string(found.size())};
}

std::optional<Difference> compare_chain(const State::Chain& expected, const State::Chain& found,
                                        bool statics_inv) {
    for (std::size_t i = expected.size(), at = found.size(); i-- > 0; --at) {
        const Cached& want = expected[i];
        const auto is_it = [&](const Cached& entry) {
            return entry.record.dst_ip == want.record.dst_ip;
        };
        if (at == 0 || !is_it(found[at - 1])) {
            const bool later =
                std::any_of(found.begin(), found.begin() + static_cast<long>(at), is_it);
            if (later)
                return Difference{"entry_kept", about(found[at - 1].record.dst_ip) +
                                                    " should not be there, or not there"};
            return Difference{want.is_static() ? "static_entry_lost" : "entry_lost",
                              about(want.record.dst_ip) + " is gone"};
        }
        const Cached& is = found[at - 1];
        if (!same_record(want.record, is.record))
            return Difference{
                want.is_static() && !statics_inv ? "static_entry_overwritten" : "stale_entry",
                about(want.record.dst_ip) + " " + difference(want.record, is.record)};
        if (is.stamp != want.stamp)
            return Difference{"wrong_age", about(want.record.dst_ip) + " was last used at tick " +
                                               std::to_string(want.stamp) + ", but it says " +
                                               std::to_string(is.stamp)};
    }
    if (found.size() > expected.size())
        return Difference{
            "entry_kept",
            about(found[found.size() - expected.size() - 1].record.dst_ip) + " should be gone"};
    return {};
}

std::optional<Difference> compare_requests(const State::Requests& expected,
                                           const State::Requests& found, bool arp) {
    const std::string list = arp ? "the ARP list" : "the SA list";
    for (std::size_t i = 0; i < std::max(expected.size(), found.size()); ++i) {
        if (i >= found.size())
            return Difference{"request_lost",
                              list + " lacks a request for " + fabric::format_ip(expected[i].ip)};
        const Waiting& is = found[i];
        if (i >= expected.size())
            return Difference{
                "request_kept",
                list + " has a request for " + fabric::format_ip(is.ip) + " that should be gone"};
        const Waiting& want = expected[i];
        if (is.ip != want.ip || is.from != want.from || is.paths != want.paths ||
            is.context != want.context || is.callback != want.callback)
            return Difference{"request_lost", list + " has a request for " +
                                                  fabric::format_ip(is.ip) + " where one for " +
                                                  fabric::format_ip(want.ip) + " should stand"};
        if (is.retries != want.retries || is.stamp != want.stamp ||
            (!arp && !(is.dgid == want.dgid)))
            return Difference{"wrong_request", list + ": the request for " +
                                                   fabric::format_ip(want.ip) +
                                                   " has another number of retries, time or GID"};
    }
    return {};
}

bool same_port(const State::Port& one, const State::Port& other) {
    return one.valid == other.valid &&
           (!one.valid ||
            (one.gid == other.gid && one.sm_lid == other.sm_lid && one.sm_sl == other.sm_sl));
}

}  // namespace

std::optional<Difference> read_state(State& state) {
    auto broken = read_table(state);
    if (!broken) {
        const spin_guard guard(tarv_rl_lock);
        broken = read_requests(requests, state.arp, "the ARP list");
    }
    if (!broken) {
        const spin_guard guard(tarv_sa_rl_lock);
        broken = read_requests(sa_requests, state.sa, "the SA list");
    }
    for (std::size_t i = 0; i < state.ports.size(); ++i) {
        const tarv_sa_port_data_t& port = tarv_sa_g.ports[i];
        state.ports[i] = {port.is_valid != 0, port.gid, port.sm_lid,
                          static_cast<std::uint8_t>(port.service_level)};
    }
    state.port_count = tarv_sa_g.port_count;
    {
        const spin_guard guard(static_path_lock);
        state.static_path = static_path;
    }
    state.is = {halted != 0,
                enabled != 0,
                sa_queries_enabled != 0,
                statics_inv_enabled != 0,
                local_send_arp_data_fn != nullptr,
                tarv_media_reset != 0,
                fabric::Fabric::current().gsi().hands_out_nothing_next(),
                get_data_retry};
    return broken;
}

std::optional<Difference> compare(const State& expected, const State& found) {
    for (std::size_t bucket = 0; bucket < buckets; ++bucket)
        if (auto wrong =
                compare_chain(expected.table[bucket], found.table[bucket], expected.is.statics_inv))
            return wrong;
    if (auto wrong = compare_requests(expected.arp, found.arp, true))
        return wrong;
    if (auto wrong = compare_requests(expected.sa, found.sa, false))
        return wrong;
    if (!(expected.is == found.is))
        return Difference{"wrong_switch", "a switch does not stand as it was set"};
    for (std::size_t i = 0; i < expected.ports.size(); ++i)
        if (!same_port(expected.ports[i], found.ports[i]))
            return Difference{"wrong_port", "the SA context of port " + std::to_string(i + 1) +
                                                " is not what the events made it"};
    return {};
}

namespace {

std::optional<Difference> check_addresses(const State& found) TA_NO_ANALYSIS {
    for (const State::Chain& chain : found.table)
        for (const Cached& entry : chain) {
            const std::uint32_t ip = entry.record.dst_ip;
            const auto newest = std::find_if(chain.rbegin(), chain.rend(), [&](const Cached& one) {
                return one.record.dst_ip == ip;
            });
            tarv_arp_data_t copy;
            if (tarv_hash_get_entry_data(ip, &copy) != tarv_stat_ok ||
                !same_record(newest->record, copy))
                return Difference{"index_broken", about(ip) + " is not what its address finds"};
        }
    return {};
}

std::optional<Difference> check_gid(const State& found, gx_gid_t gid) {
    const Cached* first = nullptr;
    for (const State::Chain& chain : found.table)
        for (std::size_t i = chain.size(); i-- > 0 && !first;)
            first = chain[i].record.gid == gid ? &chain[i] : nullptr;
    tarv_arp_data_t copy;
    const tarv_stat_t status = tarv_hash_seq_cache_lookup(&gid, &copy);
    if (status != (first ? tarv_stat_ok : tarv_stat_not_found) ||
        (first && !same_record(first->record, copy)))
        return Difference{"index_broken", "a GID does not find the first entry that has it"};
    return {};
}

/* Looking things up makes them younger, which nobody may see. */
void restore_stamps(const State& found) TA_NO_ANALYSIS {
    for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
        std::size_t i = found.table[bucket].size();
        for (tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket]; entry; entry = entry->next)
            entry->timestamp = found.table[bucket][--i].stamp;
    }
}

}  // namespace

std::optional<Difference> check_indexes(const State& found, std::size_t sample) {
    auto wrong = check_addresses(found);
    std::size_t entry_number = 0;
    for (const State::Chain& chain : found.table)
        for (const Cached& entry : chain)
            if (!wrong && (sample == all_gids || (entry_number++ + sample) % 8 == 0))
                wrong = check_gid(found, entry.record.gid);
    if (!wrong)
        wrong = check_gid(found, {{static_cast<u8>(sample), 0xEE}});
    restore_stamps(found);
    for (const bool arp : {true, false})
        for (const Waiting& waiting : arp ? found.arp : found.sa) {
            const State::Requests& all = arp ? found.arp : found.sa;
            tarv_list_entry_t like{};
            like.req_ip = waiting.ip;
            like.requested_paths = waiting.paths;
            const auto count = std::ranges::count_if(all, [&](const Waiting& other) {
                return other.ip == waiting.ip && other.paths == waiting.paths;
            });
            const int told =
                arp ? tarv_num_identical_reqs(&like) : tarv_sa_num_identical_reqs(&like);
            if (!wrong && told != count)
                wrong = Difference{"index_broken", "identical requests are miscounted"};
        }
    return wrong;
}

std::optional<Difference> check_datagrams(fabric::Gsi& gsi) {
    const auto in_flight = gsi.datagrams_in_flight();
    const auto pending = atomic_read(&tarv_gsi_pending_cnt);
    if (pending != static_cast<int>(in_flight))
        return Difference{"wrong_pending_count",
                          "tarv_gsi_pending_cnt says " + std::to_string(pending) +
                              ", posted and not completed are " + std::to_string(in_flight)};
    if (const std::size_t out = gsi.datagrams_out(); out != in_flight)
        return Difference{
            "datagram_lost",
            std::to_string(out - in_flight) + " datagrams are neither in their pool nor in flight"};
    return {};
}

}  // namespace simulation
