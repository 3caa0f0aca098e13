// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The requests that wait for an ARP reply.
#include "tarv/tarv-req-list.h"

#include "tarv/tarv-pending.h"

namespace {

constexpr char tarv_unit[] = "tarv_req_list";
constexpr const char* handler = TARV_NAME_OF(tarv_req_timer_handler);

constexpr u32 arp_timeout = 1000;  // ticks

/* 2^15 heads: every request of a storm comes here first, and counts those like it. */
constinit pending_places_t<15> places TA_GUARDED(tarv_rl_lock) = {};

/* Takes the due requests off the list in a walk over all of it that can be followed in the log. */
void trace_due(tarv_found_list& timed_out) TA_EXCL(tarv_rl_lock) {
    const spin_guard guard(tarv_rl_lock);
    for (tarv_list_entry_t* entry : tarv_request_list(requests.head)) {
        TARV_LOG_FROM(handler, TARV_FUNC, "Checking request entry: <0x%p>\n",
                      static_cast<void*>(entry));
        if (!pending_may_be_taken(entry) || !pending_is_due(entry, arp_timeout))
            continue;
        TARV_LOG_FROM(handler, TARV_FUNC, "\t\t-> timeouted!\n");
        pending_take(requests, places, entry);
        timed_out.push(entry);
    }
}

/* The same, oldest first, without the log. */
void take_due(tarv_found_list& timed_out) TA_EXCL(tarv_rl_lock) {
    for (bool more = true; more;) {
        const spin_guard guard(tarv_rl_lock);
        more = pending_take_due(requests, places, arp_timeout, timed_out);
    }
    pending_sort(timed_out);
}

/* Takes a piece of the list off; whether there was anything. */
bool take_piece(tarv_found_list& taken) TA_EXCL(tarv_rl_lock) {
    const spin_guard guard(tarv_rl_lock);
    u32 count = 0;
    for (tarv_list_entry_t* entry : tarv_request_list(requests.head)) {
        if (count++ == pending_piece)
            break;
        pending_take(requests, places, entry);
        taken.push(entry);
    }
    return count;
}

/* The same of those that wait for the address, newest first; whether there may be more. */
bool take_piece_of(u32 req_ip, tarv_found_list& taken) TA_EXCL(tarv_rl_lock) {
    const spin_guard guard(tarv_rl_lock);
    for (u32 count = 0; count < pending_piece; count++) {
        tarv_list_entry_t* const entry = places.by_address.newest(req_ip);
        if (!entry)
            return false;
        pending_take(requests, places, entry);
        taken.push(entry);
    }
    return true;
}

}  // namespace

constinit spinlock_t tarv_rl_lock = {};
constinit tarv_list_t requests = {};
constinit timer_list tarv_req_timer = {};

tarv_stat_t tarv_req_list_init() {
    spin_lock_init(&tarv_rl_lock, "tarv_rl_lock");
    tarv_list_t* list = nullptr;
    {
        const spin_guard guard(tarv_rl_lock);
        pending_clear(requests, places);
        list = &requests;
    }
    pending_make_timer(&tarv_req_timer, tarv_req_timer_handler, list);
    return tarv_stat_ok;
}

void tarv_req_list_destroy() {
    del_timing_sync(&tarv_req_timer);
    list_head taken_head;
    INIT_LIST_HEAD(&taken_head);
    tarv_found_list taken(taken_head);
    while (take_piece(taken))
        while (tarv_list_entry_t* entry = taken.pop())
            tarv_free_request(entry);
}

tarv_stat_t tarv_add_arp_request(tarv_list_entry_t* entry) {
    const spin_guard guard(tarv_rl_lock);
    TARV_LOG(TARV_DEBUG, "Added req: %p\n", static_cast<void*>(entry));
    pending_push(requests, places, entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_remove_arp_request(tarv_list_entry_t* entry) {
    const spin_guard guard(tarv_rl_lock);
    pending_take(requests, places, entry);
    return tarv_stat_ok;
}

bool tarv_release_arp_request(tarv_list_entry_t* entry, const tarv_maker_t* maker,
                              bool drop_reply) {
    pending_release_t release;
    {
        const spin_guard guard(tarv_rl_lock);
        release = pending_release(requests, places, entry, maker, drop_reply);
    }
    if (release == pending_release_t::give_last_word)
        pending_give_last_word(entry);
    return release != pending_release_t::was_taken;
}

int tarv_num_identical_reqs(tarv_list_entry_t* entry) {
    const spin_guard guard(tarv_rl_lock);
    return places.count_identical(entry);
}

tarv_stat_t tarv_find_and_move_arp_requests_to_list(u32 req_ip, list_head* found_list) {
    INIT_LIST_HEAD(found_list);
    tarv_found_list found(*found_list);
    while (take_piece_of(req_ip, found)) {
    }
    return found.empty() ? tarv_stat_not_found : tarv_stat_ok;
}

void tarv_req_timer_handler(unsigned long) {
    if (pending_is_worth_a_look(requests)) {
        list_head timed_out_head;
        INIT_LIST_HEAD(&timed_out_head);
        tarv_found_list timed_out(timed_out_head);
        if (tarv_log_enabled(TARV_FUNC))
            trace_due(timed_out);
        else
            take_due(timed_out);
        for ([[maybe_unused]] const tarv_list_entry_t* entry : timed_out)
            TARV_LOG(TARV_FUNC, "All the timeouted requests processed.\n");
        if (!timed_out.empty()) {
            write_once(tarv_media_reset, 1);
            TARV_LOG(TARV_DEBUG, "*** At least one timeout found resetting media ***\n");
        }
        while (tarv_list_entry_t* entry = timed_out.pop()) {
            TARV_LOG(TARV_FUNC, "found entry : 0x%p\n", static_cast<void*>(entry));
            pending_give_last_word(entry);
        }
    }
    if (!read_once(halted))
        pending_start_timer(&tarv_req_timer);
}

void tarv_req_list_dump() {
    pending_dump("ib-arp", [](pending_page_t& page, bool is_first) {
        const spin_guard guard(tarv_rl_lock);
        return pending_turn_page(requests, places, page, is_first);
    });
}
