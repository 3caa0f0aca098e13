// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Ageing: a timer that frees the entries nobody has used for a while.
#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash-private.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";

constexpr unsigned long ageing_period = 15000;  // ticks

/* What one run goes by. */
struct ageing_t {
    unsigned long now;
    unsigned long idle_limit;  // ticks
};

bool has_idled_out(const tarv_hash_entry_t* entry, const ageing_t& run) {
    return !(entry->arp_data.mask & TARV_MASK_STATIC) &&
           read_once(entry->timestamp) + run.idle_limit <= run.now;
}

/* The last of an entry that is in the table no more. */
void bury(tarv_hash_entry_t* entry) {
    KASSERT(!entry->link);
    TARV_LOG_FROM("tarv_garbage_collector_timer_handler", TARV_DEBUG,
                  "Arp entry with IP: %08X timeouted and was removed.\n", entry->arp_data.dst_ip);
    kfree(entry);
}

/* The run as it can be followed in the log: bucket after bucket, entry after entry. */
void trace_ageing(const ageing_t& run) TA_REQ(tarv_lock) {
    constexpr char handler[] = "tarv_garbage_collector_timer_handler";
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        TARV_LOG_FROM(handler, TARV_FUNC, "Checking Bucket: %d\n", bucket);
        tarv_hash_link_t link = &tarv_table.hash_buckets[bucket];
        while (tarv_hash_entry_t* entry = *link) {
            const unsigned long timestamp = read_once(entry->timestamp);
            TARV_LOG_FROM(
                handler, TARV_FUNC,
                "\tChecking Entry: %p (next: %p), jiffies:%lu, die at: %lu timestamp %lu, \n",
                static_cast<void*>(entry), static_cast<void*>(entry->next), run.now,
                timestamp + run.idle_limit, timestamp);
            if (!has_idled_out(entry, run)) {
                link = &entry->next;
                continue;
            }
            tarv_hash_unlink(entry);
            TARV_LOG_FROM(handler, TARV_FUNC, "\t");
            bury(entry);
        }
    }
}

/* Entries that a run took out, chained through `next` in the order of the table. */
struct taken_t {
    tarv_hash_entry_t* first[TARV_HASH_BUCKETS];
    tarv_hash_link_t last[TARV_HASH_BUCKETS];
};

void take_idle(const ageing_t& run, taken_t& taken) TA_REQ(tarv_lock) {
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        taken.first[bucket] = nullptr;
        taken.last[bucket] = &taken.first[bucket];
    }
    tarv_hash_walk_t walk(offsetof(tarv_hash_entry_t, timestamp));
    while (tarv_hash_entry_t* const entry = walk.next()) {
        if (!has_idled_out(entry, run))
            continue;
        tarv_hash_unlink(entry);
        entry->next = nullptr;
        *taken.last[walk.bucket()] = entry;
        taken.last[walk.bucket()] = &entry->next;
    }
}

void bury_all(taken_t& taken) TA_EXCL(tarv_lock) {
    for (tarv_hash_entry_t* entry : taken.first) {
        while (entry) {
            tarv_hash_entry_t* const next = entry->next;
            bury(entry);
            entry = next;
        }
    }
}

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
    taken_t taken = {};
    {
        const write_guard guard(tarv_lock);
        const ageing_t run = {jiffies(), read_once(arp_cache_timeout_sec) * HZ};
        if (tarv_log_enabled(TARV_FUNC))
            trace_ageing(run);
        else
            take_idle(run, taken);
        tarv_garbage_collector_timer.expires = jiffies() + ageing_period;
        add_timing(&tarv_garbage_collector_timer);
    }
    bury_all(taken);
}
