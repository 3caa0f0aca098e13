// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The address cache: one table of address records keyed by the peer's IPv4 address.
//
// Ownership: an entry is made by a caller and belongs to the table from the moment that it is
// added. The table frees what it purges and what it ages out; tarv_hash_remove_entry hands an entry
// back. The table never allocates.
//
// Duplicates: tarv_hash_add_entry does not refuse a second entry for an address. A new entry goes
// to the head of its chain and lookups take the first match, so the newest entry hides older ones
// until it is removed. Whoever learns or is told of a peer comes through tarv_hash_enter instead,
// which looks and adds in one step, so that two at once do not make two entries.
//
// Static entries (TARV_MASK_STATIC) are never aged out. While `statics_inv_enabled` is 0 they are
// also passed over by removal by address and by replacement of the record. The purges take them
// like others.
//
// Cost: an entry is found by its address and by its GID, added, replaced and removed at the same
// cost whatever the size of the table and whatever addresses and GIDs are in it. What looks at all
// entries walks the chains side by side.
//
// Locks: every operation takes `tarv_lock` itself, and holds it only for its walk and its copy:
// entries are freed, and lines formatted and printed, after it. Nothing is called out under it, and
// no other lock of the module is held with it. Contexts: any, except where an operation says
// otherwise.
#pragma once

#include "platform/annotations.h"
#include "platform/list.h"
#include "platform/spinlock.h"
#include "platform/timer.h"
#include "tarv/tarv-index.h"
#include "tarv/tarv.h"

inline constexpr u32 TARV_HASH_BUCKETS = 32;

/* One cached peer. */
struct tarv_hash_entry_st {
    tarv_hash_entry_st* next;  // in the chain of its bucket
    list_head list_struct;     // not used
    tarv_arp_data_t arp_data;  // dst_ip is the key
    unsigned long timestamp;   // jiffies of the last use; readers store it too, with write_once

    /* The table's own: where it finds the entry without a walk. A search by address reads only the
     * first of them, and that only when it goes past the entry. */
    tarv_hash_entry_st* next_by_address;  // under the same head
    tarv_hash_entry_st** link;            // what points at the entry in its chain
    order_links_t<tarv_hash_entry_st> by_gid;
    u64 number;  // higher than that of all entries that were added before
};
using tarv_hash_entry_t = tarv_hash_entry_st;

struct tarv_hash_t {
    tarv_hash_entry_t* hash_buckets[TARV_HASH_BUCKETS];
    u32 size;  // entries in all chains
};

/* Whoever looks at the table in a memory image goes by these. */
static_assert(offsetof(tarv_hash_entry_t, next) == 0);
static_assert(offsetof(tarv_hash_entry_t, list_struct) == 8);
static_assert(offsetof(tarv_hash_entry_t, arp_data) == 24);
static_assert(offsetof(tarv_hash_entry_t, timestamp) == 296);
static_assert(offsetof(tarv_hash_entry_t, next_by_address) == 304);
static_assert(sizeof(tarv_hash_entry_t) == 344);
static_assert(offsetof(tarv_hash_t, hash_buckets) == 0);
static_assert(offsetof(tarv_hash_t, size) == 256);
static_assert(sizeof(tarv_hash_t) == 264);

extern rwlock_t tarv_lock;
extern tarv_hash_t tarv_table TA_GUARDED(tarv_lock);

/* Seconds of idleness after which an entry that is not static is removed; read at every run. What
 * does not fit the tick counter, the largest value above all, means never. */
extern unsigned long arp_cache_timeout_sec;

extern timer_list tarv_garbage_collector_timer;

/* The bucket, 0 to 31, of an address (network byte order, read as a number as it stands in memory).
 */
u32 tarv_hash_func(u32 req_ip);

/* Empties the table without freeing anything and starts the ageing timer. Process context; first
 * step of the engine start. Always tarv_stat_ok. */
tarv_stat_t tarv_hash_init() TA_EXCL(tarv_lock);

/* Stops the ageing timer, waiting for a running handler, and frees every entry. Process context. */
void tarv_hash_destroy() TA_EXCL(tarv_lock);

/* Stamps the entry, links it at the head of its chain; the table owns it. Always tarv_stat_ok. */
tarv_stat_t tarv_hash_add_entry(tarv_hash_entry_t* entry) TA_EXCL(tarv_lock);

/* Finds the newest entry of `req_ip` and refreshes its age. `*out`, where given, becomes a copy of
 * the entry, or of its record, with the record's path pointers aimed at the copy's own paths; the
 * copy's `next` is the table's and not to be followed. tarv_stat_ok or tarv_stat_not_found. */
tarv_stat_t tarv_hash_get_entry(u32 req_ip, tarv_hash_entry_t* out) TA_EXCL(tarv_lock);
tarv_stat_t tarv_hash_get_entry_data(u32 req_ip, tarv_arp_data_t* out) TA_EXCL(tarv_lock);

/* Takes the newest removable entry of `req_ip` out of the table; `*out` is the caller's to free.
 * tarv_stat_not_found, and `*out` untouched, when there is none. */
tarv_stat_t tarv_hash_remove_entry(u32 req_ip, tarv_hash_entry_t** out) TA_EXCL(tarv_lock);

/* Replaces the whole record of the newest replaceable entry of `req_ip` by `*record`, mask and
 * paths included, and refreshes its age. The new record is for the same address.
 * tarv_stat_not_found when there is none. */
tarv_stat_t tarv_hash_update_ib_data(u32 req_ip, tarv_arp_data_t* record) TA_EXCL(tarv_lock);

/* What tarv_hash_enter does with an address that has an entry already. */
enum tarv_hash_rule_t {
    tarv_hash_keep,     // refuses
    tarv_hash_replace,  // replaces the record of the newest replaceable entry, and else refuses
};
enum tarv_hash_entered_t {
    tarv_hash_added,
    tarv_hash_replaced,
    tarv_hash_refused,
    tarv_hash_wants_entry,  // the address has no entry, and none was given to be added
};

/* Makes `*record` what the table knows of the peer `record->dst_ip`, in one step. `entry`, made for
 * it by the caller, is filled and added where the address has none; it is the table's after
 * tarv_hash_added only. Null: nothing is added; a caller who may not know whether an entry will be
 * needed asks first. What refuses is used: its age is refreshed, and it is copied to `*record`
 * unless the rule is to keep. */
tarv_hash_entered_t tarv_hash_enter(tarv_arp_data_t* record, tarv_hash_rule_t rule,
                                    tarv_hash_entry_t* entry) TA_EXCL(tarv_lock);

/* Frees every entry. Always tarv_stat_ok. */
tarv_stat_t tarv_hash_remove_all() TA_EXCL(tarv_lock);

/* Frees every entry that holds a valid path from the local port with that GID. Always tarv_stat_ok.
 */
tarv_stat_t tarv_hash_remove_entries_by_sgid(gx_gid_t* sgid) TA_EXCL(tarv_lock);

/* Finds the first entry, in table order, whose record has that GID, whatever its mask; copies the
 * record to `*out` and refreshes the entry's age. Offered to other modules. tarv_stat_ok or
 * tarv_stat_not_found. */
tarv_stat_t tarv_hash_seq_cache_lookup(gx_gid_t* gid, tarv_arp_data_t* out) TA_EXCL(tarv_lock);

/* Stores a primary path, a secondary path, or both (null: not given) into the newest entry of
 * `req_ip`, static or not, as they are. tarv_stat_ok or tarv_stat_not_found. */
tarv_stat_t tarv_hash_set_paths(u32 req_ip, ib_path_record_v2_t* pri_path,
                                ib_path_record_v2_t* sec_path) TA_EXCL(tarv_lock);

/* Stores the `path_count` (at most 3) records of an SA answer into the newest entry of `req_ip`,
 * after rewriting the P_Keys of `paths` in place (also when there is no entry). tarv_stat_ok when
 * the entry then has all paths that `needed_paths_count` asks for, and `*entry`, where given, is a
 * copy of it; tarv_stat_pending when one is missing; tarv_stat_not_found without an entry. */
tarv_stat_t tarv_hash_update_paths(u32 req_ip, ib_path_record_v2_t* paths, int path_count,
                                   tarv_paths_t needed_paths_count, tarv_hash_entry_t* entry)
    TA_EXCL(tarv_lock);

/* Rewrites the P_Key of the first two of `paths` to what this host uses towards `req_ip`: that of
 * the interface that serves the address, or, for one of our own addresses, a full-member P_Key of
 * the port at which the path starts. Asks the driver and the adapter: no lock may be held. What
 * cannot be found out leaves the records as they are. */
void tarv_change_path_pkey(u32 req_ip, ib_path_record_v2_t* paths, int path_count)
    TA_EXCL(tarv_lock);

/* The first full-member P_Key among the first five of the local port whose base GID is `*sgid`.
 * tarv_stat_error when there is none; no lock may be held. */
tarv_stat_t tarv_get_local_pkey(gx_gid_t* sgid, gx_p_key_t* pkey) TA_EXCL(tarv_lock);

/* The ageing timer: every 15000 ticks, frees the entries that have been idle too long. */
void tarv_garbage_collector_timer_handler(unsigned long context) TA_EXCL(tarv_lock);
void tarv_garbage_collector_start();

/* Prints the table to the console. Process context. */
void tarv_hash_dump() TA_EXCL(tarv_lock);

/* Renders the table in the layout of the kernel's own ARP table into a new buffer: `*buffer` is the
 * caller's to kfree, `*len` its length without the NUL. Null and 0 when there is no memory. Process
 * context. */
void tarv_hash_print_to_string(char** buffer, u32* len) TA_EXCL(tarv_lock);
