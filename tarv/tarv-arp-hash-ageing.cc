// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Ageing: a timer that frees the entries nobody has used for a while.
#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";

constexpr unsigned long ageing_period = 15000;  // ticks

}  // namespace

constinit unsigned long arp_cache_timeout_sec = 300;
constinit timer_list tarv_garbage_collector_timer = {};

void tarv_garbage_collector_start() TA_NO_ANALYSIS {
    init_timing(&tarv_garbage_collector_timer);
    tarv_garbage_collector_timer.function = tarv_garbage_collector_timer_handler;
    // The handler knows its table; the argument only tells a reader of a timer dump whose it is.
    tarv_garbage_collector_timer.data = reinterpret_cast<unsigned long>(&tarv_table);
    tarv_garbage_collector_timer.expires = jiffies() + ageing_period;
    add_timing(&tarv_garbage_collector_timer);
}

void tarv_garbage_collector_timer_handler(unsigned long) {
    const write_guard guard(tarv_lock);
    const unsigned long now = jiffies();
    const unsigned long idle_limit = read_once(arp_cache_timeout_sec) * HZ;
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        TARV_LOG(TARV_FUNC, "Checking Bucket: %d\n", bucket);
        tarv_hash_entry_t** link = &tarv_table.hash_buckets[bucket];
        while (tarv_hash_entry_t* entry = *link) {
            const unsigned long timestamp = read_once(entry->timestamp);
            TARV_LOG(TARV_FUNC,
                     "\tChecking Entry: %p (next: %p), jiffies:%lu, die at: %lu timestamp %lu, \n",
                     static_cast<void*>(entry), static_cast<void*>(entry->next), now,
                     timestamp + idle_limit, timestamp);
            if ((entry->arp_data.mask & TARV_MASK_STATIC) || timestamp + idle_limit > now) {
                link = &entry->next;
                continue;
            }
            *link = entry->next;
            write_once(tarv_table.size, tarv_table.size - 1);
            TARV_LOG(TARV_FUNC, "\t");
            TARV_LOG(TARV_DEBUG, "Arp entry with IP: %08X timeouted and was removed.\n",
                     entry->arp_data.dst_ip);
            kfree(entry);
        }
    }
    tarv_garbage_collector_timer.expires = jiffies() + ageing_period;
    add_timing(&tarv_garbage_collector_timer);
}
