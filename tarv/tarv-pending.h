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

inline void pending_clear(tarv_list_t& list) {
    INIT_LIST_HEAD(&list.head);
    write_once(list.count, 0);
}

inline void pending_push(tarv_list_t& list, tarv_list_entry_t* entry) {
    tarv_request_list(list.head).push(entry);
    write_once(list.count, list.count + 1);
}

inline void pending_take(tarv_list_t& list, tarv_list_entry_t* entry) {
    tarv_request_list::unlink(entry);
    write_once(list.count, list.count - 1);
    if (entry->maker)
        entry->maker->taken = true;
    entry->maker = nullptr;
}

inline int pending_count_identical(tarv_list_t& list, const tarv_list_entry_t* entry) {
    int identical = 0;
    for (const tarv_list_entry_t* other : tarv_request_list(list.head))
        if (other->req_ip == entry->req_ip && other->requested_paths == entry->requested_paths)
            identical++;
    return identical;
}

/* The request has waited for `limit` ticks, or nobody may wait any more. Ticks are counted modulo
 * 2^32. */
inline bool pending_is_due(const tarv_list_entry_t* entry, u32 limit) {
    return pending_stamp() - entry->timestamp >= limit || read_once(halted);
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
