// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the files of the cache share and nobody else includes: taking entries in and out of the
// chains and the indexes, and the walk over all entries.
#pragma once

#include "platform/atomic.h"
#include "platform/list.h"
#include "tarv/tarv-arp-hash.h"

/* Where a chain points at an entry: a bucket's head or the `next` of the entry before. Unlinking
 * through it needs no special case for the head. */
using tarv_hash_link_t = tarv_hash_entry_t**;

/* Takes the entry out of its chain and the indexes; it keeps its `next`. */
void tarv_hash_unlink(tarv_hash_entry_t* entry) TA_REQ(tarv_lock);

/* Calls `visit(bucket, entry)` for every entry, each chain from its head. The chains are walked
 * side by side: while one entry is looked at, the next ones of all other chains are on their way
 * from memory, which is where the time of a walk over a large table goes. The entry that is visited
 * may be unlinked. */
template <class Visit>
void tarv_hash_walk_abreast(Visit visit) TA_REQ_SHARED(tarv_lock) {
    struct cursor_t {
        u32 bucket;
        tarv_hash_entry_t* entry;
    };
    cursor_t cursors[TARV_HASH_BUCKETS];
    u32 count = 0;
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++)
        if (tarv_hash_entry_t* const head = tarv_table.hash_buckets[bucket])
            cursors[count++] = {bucket, head};
    while (count) {
        u32 kept = 0;
        for (u32 i = 0; i < count; i++) {
            const cursor_t at = cursors[i];
            tarv_hash_entry_t* const next = at.entry->next;
            __builtin_prefetch(next);
            __builtin_prefetch(next ? &next->timestamp : nullptr);
            visit(at.bucket, at.entry);
            if (next)
                cursors[kept++] = {at.bucket, next};
        }
        count = kept;
    }
}
