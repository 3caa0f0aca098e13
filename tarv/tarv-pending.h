// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the two request lists have in common. Everything here runs under the lock of the list that
// it is given; the lists' own files say so to the compiler.
#pragma once

#include "platform/jiffies.h"
#include "platform/printk.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-req-list.h"

/* Both timers run this often, in ticks. */
inline constexpr unsigned long pending_timer_period = 1000;

inline u32 pending_stamp() {
    return static_cast<u32>(jiffies());
}

using pending_by_age = list_of<tarv_list_entry_t, offsetof(tarv_list_entry_t, by_age)>;

/* Where the requests of a list are found without a walk over it, in an index with 2^Bits heads. The
 * list's own order, newest first, is that of the numbers. */
template <u32 Bits>
struct pending_places_t {
    index_of<tarv_list_entry_t, offsetof(tarv_list_entry_t, by_address), Bits> by_address;
    list_head by_age;
    u64 last_number;
};

template <u32 Bits>
void pending_clear(tarv_list_t& list, pending_places_t<Bits>& places) {
    INIT_LIST_HEAD(&list.head);
    write_once(list.count, 0);
    places.by_address.clear();
    INIT_LIST_HEAD(&places.by_age);
    places.last_number = 0;
}

/* Puts the request at the head of the list, but for its place by age. */
template <u32 Bits>
void pending_link(tarv_list_t& list, pending_places_t<Bits>& places, tarv_list_entry_t* entry) {
    tarv_request_list(list.head).push(entry);
    entry->number = ++places.last_number;
    places.by_address.enter(entry, tarv_address_hash(entry->req_ip));
    write_once(list.count, list.count + 1);
}

/* Stamps the request and puts it at the head of the list. Stamps are given under the lock: a later
 * one is never older. */
template <u32 Bits>
void pending_push(tarv_list_t& list, pending_places_t<Bits>& places, tarv_list_entry_t* entry) {
    entry->timestamp = pending_stamp();
    pending_by_age(places.by_age).push_back(entry);
    pending_link(list, places, entry);
}

/* Takes the request off the list, to be put back or let go: it keeps its place by age. */
inline void pending_set_aside(tarv_list_t& list, tarv_list_entry_t* entry) {
    KASSERT(list.count > 0);
    tarv_request_list::unlink(entry);
    index_leave(entry->by_address);
    index_leave(entry->by_dgid);
    write_once(list.count, list.count - 1);
    if (entry->maker)
        entry->maker->taken = true;
    entry->maker = nullptr;
}

/* The end of having been set aside for a request that does not come back. */
inline void pending_let_go(tarv_list_entry_t* entry) {
    pending_by_age::unlink(entry);
}

inline void pending_take(tarv_list_t& list, tarv_list_entry_t* entry) {
    pending_set_aside(list, entry);
    pending_let_go(entry);
}

template <u32 Bits>
int pending_count_identical(pending_places_t<Bits>& places, const tarv_list_entry_t* entry) {
    int identical = 0;
    for (const tarv_list_entry_t* other : places.by_address.with(tarv_address_hash(entry->req_ip)))
        if (other->req_ip == entry->req_ip && other->requested_paths == entry->requested_paths)
            identical++;
    return identical;
}

/* The request has waited for `limit` ticks, or nobody may wait any more. Ticks are counted modulo
 * 2^32. */
inline bool pending_is_due(const tarv_list_entry_t* entry, u32 limit) {
    return pending_stamp() - entry->timestamp >= limit || read_once(halted);
}

/* Takes those off the list that are due, busy ones excepted, and appends them to `found` in the
 * order in which they came onto the list. Looks at no others: who has waited longest comes first.
 */
template <u32 Bits>
void pending_take_due(tarv_list_t& list, pending_places_t<Bits>& places, u32 limit,
                      tarv_found_list& found) {
    u64 last_number = 0;
    bool in_order = true;
    for (tarv_list_entry_t* entry : pending_by_age(places.by_age)) {
        if (!pending_is_due(entry, limit))
            break;
        const bool is_aside = list_empty(&entry->list_struct);
        if (is_aside || tarv_get_request_static_flag(entry))
            continue;
        pending_take(list, entry);
        found.push_back(entry);
        in_order = in_order && entry->number > last_number;
        last_number = entry->number;
    }
    // Who was put back came onto the list later than others of the same age.
    if (!in_order)
        found.sort([](const tarv_list_entry_t* one, const tarv_list_entry_t* other) {
            return one->number < other->number;
        });
}

/* Sets a list's timer up for its first run, or again after one. */
inline void pending_start_timer(timer_list* timer) {
    timer->expires = jiffies() + pending_timer_period;
    add_timing(timer);
}

inline void pending_make_timer(timer_list* timer, void (*handler)(unsigned long), void* list) {
    init_timing(timer);
    timer->function = handler;
    timer->data = reinterpret_cast<unsigned long>(list);
    pending_start_timer(timer);
}

inline void pending_dump(tarv_list_t& list, const char* title) {
    printk("\n\nPending %s requests: %d\n", title, list.count);
    printk("***********************\n");
    printk("Req Ip  \tSrc Ip  \tFWD\n");
    for (const tarv_list_entry_t* entry : tarv_request_list(list.head)) {
        printk("%03d.%03d.%03d.%03d", TARV_IP_BYTES(entry->req_ip));
        printk("\t%03d.%03d.%03d.%03d", TARV_IP_BYTES(entry->src_ip));
        printk("\t%s", entry->is_from_fwd ? "Yes" : "No ");
        printk("\n");
    }
    printk("\n\n");
}
