// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The requests that wait for an ARP reply.
#include "tarv/tarv-req-list.h"

#include "tarv/tarv-pending.h"

namespace {

constexpr char tarv_unit[] = "tarv_req_list";

constexpr u32 arp_timeout = 1000;  // ticks

/* 2^15 heads: every request of a storm comes here first, and counts those like it. */
constinit pending_places_t<15> places TA_GUARDED(tarv_rl_lock) = {};

/* Read without the lock: whether a walk is worth while. */
bool nothing_waits() TA_NO_ANALYSIS {
    return read_once(requests.count) == 0;
}

/* Takes the due requests off the list in a walk over all of it that can be followed in the log. */
void trace_due(tarv_found_list& timed_out) TA_EXCL(tarv_rl_lock) {
    constexpr char handler[] = "tarv_req_timer_handler";
    const spin_guard guard(tarv_rl_lock);
    for (tarv_list_entry_t* entry : tarv_request_list(requests.head)) {
        TARV_LOG_FROM(handler, TARV_FUNC, "Checking request entry: <0x%p>\n",
                      static_cast<void*>(entry));
        if (tarv_get_request_static_flag(entry) || !pending_is_due(entry, arp_timeout))
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
