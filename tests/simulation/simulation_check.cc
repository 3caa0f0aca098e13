// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What is looked at: the module's table and lists against themselves and against the model.
#include <algorithm>
#include <utility>

#include "fabric/topology.h"
#include "host/faults.h"
#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-req-list.h"
#include "tarv/tarv-sa-private.h"
#include "tests/simulation/made.h"
#include "tests/simulation/simulation.h"

namespace soak {
namespace {

constexpr unsigned long latest_arp = 2000;  // ticks that a request may be listed, with the period
constexpr unsigned long latest_sa = 4000;

std::string about(std::uint32_t ip) {
    return "the entry of " + fabric::format_ip(ip);
}

Waiting waiting_of(const tarv_list_entry_t& entry) {
    return {entry.req_ip,
            entry.src_ip,
            entry.requested_paths,
            entry.context,
            entry.reply_cb != nullptr,
            entry.n_retries,
            entry.timestamp,
            entry.dgid};
}

}  // namespace

void Simulation::check_state() {
    ++walks_;
    check_tables();
    const bool known = knows();
    {
        const spin_guard guard(tarv_rl_lock);
        if (walk(requests, model_.arp_requests(), true) && known)
            compare_requests(requests, model_.arp_requests(), true);
    }
    {
        const spin_guard guard(tarv_sa_rl_lock);
        if (walk(sa_requests, model_.sa_requests(), false) && known)
            compare_requests(sa_requests, model_.sa_requests(), false);
    }
    account();
    if (violation_)
        return;
    if (known)
        compare_tables();
    else
        take_over();
    tally_.note(known ? Outcome::compared : Outcome::taken_over);
}

/* Every entry stands in the chain that its address belongs to, and `size` is their number. */
void Simulation::check_tables() {
    const read_guard guard(tarv_lock);
    std::size_t size = 0;
    for (std::size_t bucket = 0; bucket < buckets; ++bucket)
        for (const tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket]; entry;
             entry = entry->next) {
            const tarv_arp_data_t& record = entry->arp_data;
            if (bucket_of(record.dst_ip) != bucket)
                return fail("chain_broken",
                            about(record.dst_ip) + " is in bucket " + std::to_string(bucket));
            if (++size > tarv_table.size)
                return fail("wrong_size", "the chains have more entries than size says, " +
                                              std::to_string(tarv_table.size));
            if (((record.mask & TARV_MASK_PRIMARY_PATH) && record.primary_path != record.paths) ||
                ((record.mask & TARV_MASK_SECONDARY_PATH) &&
                 record.secondary_path != record.paths + 1))
                return fail("stray_path", about(record.dst_ip) + " points at paths of others");
        }
    if (size != tarv_table.size)
        fail("wrong_size", "size says " + std::to_string(tarv_table.size) + ", the chains have " +
                               std::to_string(size));
}

void Simulation::compare_tables() {
    const read_guard guard(tarv_lock);
    for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
        const Model::Chain& chain = model_.table()[bucket];
        const tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket];
        for (std::size_t i = chain.size(); i-- > 0; entry = entry->next) {
            const Cached& expected = chain[i];
            if (!entry || entry->arp_data.dst_ip != expected.record.dst_ip) {
                const tarv_hash_entry_t* later = entry;
                while (later && later->arp_data.dst_ip != expected.record.dst_ip)
                    later = later->next;
                if (!later)
                    return missing_entry(expected);
                return fail("entry_kept", about(entry->arp_data.dst_ip) +
                                              " should not be there, or not there [" +
                                              last_window_ + "]");
            }
            compare_entry(expected, entry->arp_data, entry->timestamp);
        }
        if (entry)
            return fail("entry_kept",
                        about(entry->arp_data.dst_ip) + " should be gone [" + last_window_ + "]");
    }
    const auto is = model_.switches();
    const Model::Switches found = {halted != 0,
                                   enabled != 0,
                                   sa_queries_enabled != 0,
                                   statics_inv_enabled != 0,
                                   local_send_arp_data_fn != nullptr,
                                   tarv_media_reset != 0,
                                   fabric_.gsi().hands_out_nothing_next(),
                                   get_data_retry};
    if (!(is == found))
        fail("wrong_switch",
             std::string("a switch does not stand as it was set [") + last_window_ + "]");
    for (std::size_t i = 0; i < model_.ports().size(); ++i) {
        const tarv_sa_port_data_t& port = tarv_sa_g.ports[i];
        const Model::Port& expected = model_.ports()[i];
        if ((port.is_valid != 0) != expected.valid ||
            (expected.valid && (!(port.gid == expected.gid) || port.sm_lid != expected.sm_lid)))
            fail("wrong_port", "the SA context of port " + std::to_string(i + 1) +
                                   " is not what the events made it [" + last_window_ + "]");
    }
}

void Simulation::missing_entry(const Cached& expected) {
    const bool aged_static = expected.is_static() && last_window_ == ageing_window;
    fail(aged_static ? "static_entry_aged" : "entry_lost",
         about(expected.record.dst_ip) + " is gone [" + last_window_ + "]");
}

void Simulation::compare_entry(const Cached& expected, const tarv_arp_data_t& found,
                               unsigned long stamp) {
    const bool is_protected = expected.is_static() && !statics_inv_enabled;
    if (!same_record(expected.record, found))
        fail(is_protected ? "static_entry_overwritten" : "stale_entry",
             about(expected.record.dst_ip) + " " + difference(expected.record, found) + " [" +
                 last_window_ + "]");
    if (stamp != expected.stamp)
        fail("wrong_age", about(expected.record.dst_ip) + " was last used at tick " +
                              std::to_string(expected.stamp) + ", but it says " +
                              std::to_string(stamp) + " [" + last_window_ + "]");
}

/* False when the list cannot be walked. Marks the tokens of those that wait. */
bool Simulation::walk(const tarv_list_t& list, const Model::Requests&, bool arp) {
    const char* const name = arp ? "the ARP list" : "the SA list";
    std::size_t count = 0;
    for (const list_head* link = list.head.next; link != &list.head; link = link->next) {
        const auto* const entry = reinterpret_cast<const tarv_list_entry_t*>(
            reinterpret_cast<const char*>(link) - offsetof(tarv_list_entry_t, list_struct));
        if (link->next->prev != link || ++count > list.count) {
            fail("wrong_count", std::string(name) + " says " + std::to_string(list.count) +
                                    " and has more, or its links are broken");
            return false;
        }
        if (atomic_read(&entry->static_flag) != 0)
            fail("busy_for_ever",
                 std::string("a request on ") + name + " is marked busy, but its maker is gone");
        if (!entry->reply_cb || entry->context == administrator)
            continue;
        Token& token = *static_cast<Token*>(entry->context);
        if (token.seen == walks_)
            fail("listed_twice", "request " + std::to_string(token.number) + " waits twice");
        token.seen = walks_;
        token.waits_for_arp = arp;
    }
    if (count != list.count)
        fail("wrong_count", std::string(name) + " says " + std::to_string(list.count) +
                                " and has " + std::to_string(count));
    return true;
}

void Simulation::compare_requests(const tarv_list_t& list, const Model::Requests& expected,
                                  bool arp) {
    const std::string name =
        std::string(arp ? "the ARP list" : "the SA list") + " [" + last_window_ + "]";
    const list_head* link = list.head.next;
    for (std::size_t i = expected.size(); i-- > 0; link = link->next) {
        if (link == &list.head)
            return fail("request_lost",
                        name + " lacks a request for " + fabric::format_ip(expected[i].ip));
        const Waiting found = waiting_of(*reinterpret_cast<const tarv_list_entry_t*>(
            reinterpret_cast<const char*>(link) - offsetof(tarv_list_entry_t, list_struct)));
        const Waiting& want = expected[i];
        if (found.ip != want.ip || found.from != want.from || found.paths != want.paths ||
            found.context != want.context || found.callback != want.callback)
            return fail("request_lost", name + " has a request for " + fabric::format_ip(found.ip) +
                                            " where one for " + fabric::format_ip(want.ip) +
                                            " should stand");
        if (found.retries != want.retries || found.stamp != want.stamp ||
            (!arp && !(found.dgid == want.dgid)))
            return fail("wrong_request", name + ": the request for " + fabric::format_ip(want.ip) +
                                             " has another number of retries, time or GID");
    }
    if (link != &list.head)
        fail("request_kept", name + " has a request that should be gone");
}

/* Why a request that is on no list may have ended without a word; none: it may not. */
SilentEnd Simulation::silent_end(const Token& token) const {
    if (!loaded_ && token.waits_for_arp)
        return SilentEnd::waiting_for_arp_at_unload;
    return host::failed_calls_of("kmalloc") != no_memory_before_
               ? SilentEnd::no_memory_for_the_reissue
               : SilentEnd::none;
}

/* Each request that a callback was promised for waits on a list, was answered, or has ended in
 * silence for a reason that there is. */
void Simulation::account() {
    std::erase_if(waiting_, [&](Token* token) {
        if (token->state != State::pending || token->seen == walks_)
            return token->state != State::pending;
        token->state = State::silent;
        const SilentEnd end = silent_end(*token);
        if (end == SilentEnd::none)
            fail("lost_callback", "request " + std::to_string(token->number) + " for " +
                                      fabric::format_ip(token->question.ip) +
                                      " is on no list and was not answered [" + last_window_ + "]");
        else
            tally_.note(end);
        return true;
    });
}

void Simulation::take_over() {
    std::array<Model::Chain, buckets> table;
    {
        const read_guard guard(tarv_lock);
        for (std::size_t bucket = 0; bucket < buckets; ++bucket) {
            for (const tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket]; entry;
                 entry = entry->next)
                table[bucket].push_back({entry->arp_data, entry->timestamp});
            std::reverse(table[bucket].begin(), table[bucket].end());
        }
    }
    const auto copy = [](const tarv_list_t& list) {
        Model::Requests copies;
        for (const list_head* link = list.head.prev; link != &list.head; link = link->prev)
            copies.push_back(waiting_of(*reinterpret_cast<const tarv_list_entry_t*>(
                reinterpret_cast<const char*>(link) - offsetof(tarv_list_entry_t, list_struct))));
        return copies;
    };
    Model::Requests arp, sa;
    {
        const spin_guard guard(tarv_rl_lock);
        arp = copy(requests);
    }
    {
        const spin_guard guard(tarv_sa_rl_lock);
        sa = copy(sa_requests);
    }
    std::array<Model::Port, 8> ports;
    for (std::size_t i = 0; i < ports.size(); ++i)
        ports[i] = {tarv_sa_g.ports[i].is_valid != 0, tarv_sa_g.ports[i].gid,
                    tarv_sa_g.ports[i].sm_lid};
    ib_path_record_v2_t path;
    {
        const spin_guard guard(static_path_lock);
        path = static_path;
    }
    model_.take_over(std::move(table), std::move(arp), std::move(sa), ports, tarv_sa_g.port_count,
                     {halted != 0, enabled != 0, sa_queries_enabled != 0, statics_inv_enabled != 0,
                      local_send_arp_data_fn != nullptr, tarv_media_reset != 0,
                      fabric_.gsi().hands_out_nothing_next(), get_data_retry},
                     path);
}

void Simulation::check_counts() {
    const auto in_flight = fabric_.gsi().datagrams_in_flight();
    const auto pending = atomic_read(&tarv_gsi_pending_cnt);
    if (pending != static_cast<int>(in_flight))
        fail("wrong_pending_count", "tarv_gsi_pending_cnt says " + std::to_string(pending) +
                                        ", posted and not completed are " +
                                        std::to_string(in_flight));
    if (const std::size_t out = fabric_.gsi().datagrams_out(); out != in_flight)
        fail("datagram_lost", std::to_string(out - in_flight) +
                                  " datagrams are neither in their pool nor in flight");
}

/* Asks the module for each entry by itself: what a walk finds, every lookup has to find. */
void Simulation::look_up_all() TA_NO_ANALYSIS {
    const std::uint32_t nobody = ip_of(61);
    bool has_nobody = false;
    for (tarv_hash_entry_t* head : tarv_table.hash_buckets)
        for (tarv_hash_entry_t* entry = head; entry; entry = entry->next) {
            const unsigned long stamp = entry->timestamp;
            tarv_hash_entry_t copy;
            const tarv_arp_data_t& record = entry->arp_data;
            has_nobody |= record.dst_ip == nobody;
            tally_.note(Outcome::looked_up);
            if (tarv_hash_get_entry(record.dst_ip, &copy) != tarv_stat_ok ||
                !same_record(record, copy.arp_data))
                fail("index_broken", about(record.dst_ip) + " is not what its address finds");
            entry->timestamp = stamp;
        }
    if (tarv_hash_get_entry(nobody, nullptr) == tarv_stat_ok && !has_nobody)
        fail("index_broken", "an entry that is in no chain was found by its address");
    for (std::uint32_t i = 0; i < 4; ++i) {
        gx_gid_t gid = gid_of((static_cast<std::uint32_t>(steps_) / 64 + i * 16) % 64);
        tarv_hash_entry_t* first = nullptr;
        for (tarv_hash_entry_t* head : tarv_table.hash_buckets)
            for (tarv_hash_entry_t* entry = head; entry && !first; entry = entry->next)
                first = entry->arp_data.gid == gid ? entry : nullptr;
        const unsigned long stamp = first ? first->timestamp : 0;
        tarv_arp_data_t copy;
        const tarv_stat_t status = tarv_hash_seq_cache_lookup(&gid, &copy);
        if (status != (first ? tarv_stat_ok : tarv_stat_not_found) ||
            (first && !same_record(first->arp_data, copy)))
            fail("index_broken", "a GID does not find the first entry that has it");
        if (first)
            first->timestamp = stamp;
    }
    for (const bool arp : {true, false}) {
        const Model::Requests& all = arp ? model_.arp_requests() : model_.sa_requests();
        for (const Waiting& waiting : all) {
            tarv_list_entry_t like{};
            like.req_ip = waiting.ip;
            like.requested_paths = waiting.paths;
            const auto count = std::count_if(all.begin(), all.end(), [&](const Waiting& other) {
                return other.ip == waiting.ip && other.paths == waiting.paths;
            });
            if ((arp ? tarv_num_identical_reqs(&like) : tarv_sa_num_identical_reqs(&like)) != count)
                fail("index_broken", "identical requests are miscounted");
        }
    }
}

/* Timers run, and nobody waits for longer than they let him. */
void Simulation::check_patience() {
    const auto late = [](const Waiting& waiting, unsigned long latest) {
        return static_cast<std::uint32_t>(jiffies()) - waiting.stamp > latest;
    };
    const bool halted_now = model_.switches().halted;
    for (const Waiting& waiting : model_.arp_requests())
        if (!halted_now && late(waiting, latest_arp))
            fail("overdue", "a request waits for ARP data for too long");
    for (const Waiting& waiting : model_.sa_requests())
        if (!halted_now && late(waiting, latest_sa))
            fail("overdue", "a request waits for paths for too long");
    for (const Timer& timer : timers_)
        if (jiffies() - timer.last_run > timer.period && !(halted_now && timer.period == 1000))
            fail("timer_stopped",
                 "a timer of " + std::to_string(timer.period) + " ticks has not run for longer");
}

void Simulation::check_remains() {
    std::string lines;
    for (const std::string& line : kernel_.remains())
        lines += (lines.empty() ? "" : "; ") + line;
    if (!lines.empty())
        fail("remains", lines);
}

}  // namespace soak
