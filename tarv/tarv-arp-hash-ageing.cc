// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Ageing: a timer that frees the entries nobody has used for a while.
#include "platform/atomic.h"
#include "platform/bug.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash-private.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";
constexpr const char* handler = TARV_NAME_OF(tarv_garbage_collector_timer_handler);

constexpr unsigned long ageing_period = 15000;  // ticks

/* What one run goes by. */
struct ageing_t {
    unsigned long now;
    unsigned long idle_limit;  // ticks
};

constexpr unsigned long never = ~0ul;

/* The limit in ticks; `never` where that is more than there are. */
unsigned long idle_limit() {
    const unsigned long seconds = read_once(arp_cache_timeout_sec);
    return seconds > never / HZ ? never : seconds * HZ;
}

unsigned long removal_time(unsigned long timestamp, const ageing_t& run) {
    return timestamp > never - run.idle_limit ? never : timestamp + run.idle_limit;
}

bool has_idled_out(const tarv_hash_entry_t* entry, const ageing_t& run) {
    return !(entry->arp_data.mask & TARV_MASK_STATIC) &&
           removal_time(read_once(entry->timestamp), run) <= run.now;
}

void tell(const tarv_hash_entry_t* entry) {
    TARV_LOG_FROM(handler, TARV_DEBUG, "Arp entry with IP: %08X timeouted and was removed.\n",
                  entry->arp_data.dst_ip);
}

/* The run as it can be followed in the log: bucket after bucket, entry after entry. */
void trace_ageing(const ageing_t& run) TA_REQ(tarv_lock) {
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        TARV_LOG_FROM(handler, TARV_FUNC, "Checking Bucket: %d\n", bucket);
        tarv_hash_link_t link = &tarv_table.hash_buckets[bucket];
        while (tarv_hash_entry_t* entry = *link) {
            const unsigned long timestamp = read_once(entry->timestamp);
            TARV_LOG_FROM(
                handler, TARV_FUNC,
                "\tChecking Entry: %p (next: %p), jiffies:%lu, die at: %lu timestamp %lu, \n",
                static_cast<void*>(entry), static_cast<void*>(entry->next), run.now,
                removal_time(timestamp, run), timestamp);
            if (!has_idled_out(entry, run)) {
                link = &entry->next;
                continue;
            }
            tarv_hash_unlink(entry);
            TARV_LOG_FROM(handler, TARV_FUNC, "\t");
            tell(entry);
            kfree(entry);
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
    tarv_hash_taken_t taken;
    {
        const write_guard guard(tarv_lock);
        const ageing_t run = {jiffies(), idle_limit()};
        if (tarv_log_enabled(TARV_FUNC))
            trace_ageing(run);
        else
            taken.take(offsetof(tarv_hash_entry_t, timestamp),
                       [&](const tarv_hash_entry_t* entry) { return has_idled_out(entry, run); });
        tarv_garbage_collector_timer.expires = jiffies() + ageing_period;
        add_timing(&tarv_garbage_collector_timer);
    }
    taken.free_all(tell);
}
