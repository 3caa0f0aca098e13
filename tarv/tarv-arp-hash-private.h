// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the files of the cache share and nobody else includes: taking entries out of the chains and
// the indexes, and the walk over all entries.
#pragma once

#include "platform/bug.h"
#include "platform/memory.h"
#include "tarv/tarv-arp-hash.h"

/* Where a chain points at an entry: a bucket's head or the `next` of the entry before. Unlinking
 * through it needs no special case for the head. */
using tarv_hash_link_t = tarv_hash_entry_t**;

/* Entries in each chain. */
extern u32 tarv_hash_lengths[TARV_HASH_BUCKETS] TA_GUARDED(tarv_lock);

/* Takes the entry out of its chain and the indexes; it keeps its `next`. */
void tarv_hash_unlink(tarv_hash_entry_t* entry) TA_REQ(tarv_lock);

/* Says that the entry will be unlinked soon. */
void tarv_hash_prefetch_links(const tarv_hash_entry_t* entry) TA_REQ(tarv_lock);

/* A walk over all entries, each chain from its head. The chains are walked side by side: while one
 * entry is looked at, the next ones of all other chains are on their way from memory, which is
 * where the time of a walk over a large table goes. Of each entry its beginning is fetched, and
 * what stands `looked_at` bytes behind it. The entries that were got may be unlinked. */
class tarv_hash_walk_t {
  public:
    explicit tarv_hash_walk_t(size_t looked_at = 0) TA_REQ_SHARED(tarv_lock)
        : looked_at_(looked_at) {
        KASSERT(read_is_held(&tarv_lock));
        for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++)
            if (tarv_hash_entry_t* const head = tarv_table.hash_buckets[bucket])
                cursors_[count_++] = {bucket, head};
    }

    /* Null at the end. */
    tarv_hash_entry_t* next() TA_REQ_SHARED(tarv_lock) {
        if (at_ == count_) {
            count_ = kept_;
            at_ = kept_ = 0;
            if (!count_)
                return nullptr;
        }
        const cursor_t cursor = cursors_[at_++];
        bucket_ = cursor.bucket;
        if (tarv_hash_entry_t* const follower = cursor.entry->next) {
            __builtin_prefetch(follower);
            __builtin_prefetch(reinterpret_cast<const char*>(follower) + looked_at_);
            cursors_[kept_++] = {cursor.bucket, follower};
        }
        return cursor.entry;
    }

    /* Of the entry that was got last. */
    u32 bucket() const { return bucket_; }

  private:
    struct cursor_t {
        u32 bucket;
        tarv_hash_entry_t* entry;
    };
    const size_t looked_at_;
    cursor_t cursors_[TARV_HASH_BUCKETS];
    u32 count_ = 0;  // cursors of this round
    u32 at_ = 0;     // the next one of them
    u32 kept_ = 0;   // cursors of the next round, in the room of those that are done
    u32 bucket_ = 0;
};

/* Entries that were taken out of the table, chained through `next` in its order. They are freed
 * when the lock has been given back. */
class tarv_hash_taken_t {
  public:
    tarv_hash_taken_t() {
        for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++)
            last_[bucket] = &first_[bucket];
    }
    tarv_hash_taken_t(const tarv_hash_taken_t&) = delete;
    tarv_hash_taken_t& operator=(const tarv_hash_taken_t&) = delete;

    /* Takes out every entry that `goes` is true of. `looked_at`: as for the walk. */
    template <class Goes>
    void take(size_t looked_at, Goes goes) TA_REQ(tarv_lock) {
        // What the unlinking of an entry touches is fetched while it waits for that of others. The
        // walk has gone past them and does not need them any more.
        constexpr u32 most_waiting = 16;
        going_t waiting[most_waiting];
        u32 begun = 0;
        u32 done = 0;
        tarv_hash_walk_t walk(looked_at);
        while (tarv_hash_entry_t* const entry = walk.next()) {
            if (!goes(entry))
                continue;
            tarv_hash_prefetch_links(entry);
            if (begun - done == most_waiting)
                take_out(waiting[done++ % most_waiting]);
            waiting[begun++ % most_waiting] = {entry, walk.bucket()};
        }
        while (done != begun)
            take_out(waiting[done++ % most_waiting]);
    }

    /* Calls `last_word` for each, in the order of the table, and frees it. */
    template <class LastWord>
    void free_all(LastWord last_word) TA_EXCL(tarv_lock) {
        for (tarv_hash_entry_t* entry : first_) {
            while (entry) {
                KASSERT(!entry->link);
                tarv_hash_entry_t* const next = entry->next;
                last_word(entry);
                kfree(entry);
                entry = next;
            }
        }
    }
    void free_all() TA_EXCL(tarv_lock) {
        free_all([](const tarv_hash_entry_t*) {});
    }

  private:
    struct going_t {
        tarv_hash_entry_t* entry;
        u32 bucket;
    };
    void take_out(const going_t& going) TA_REQ(tarv_lock) {
        tarv_hash_unlink(going.entry);
        going.entry->next = nullptr;
        *last_[going.bucket] = going.entry;
        last_[going.bucket] = &going.entry->next;
    }

    tarv_hash_entry_t* first_[TARV_HASH_BUCKETS] = {};
    tarv_hash_link_t last_[TARV_HASH_BUCKETS];
};
