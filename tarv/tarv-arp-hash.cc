// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table, and the operations on single entries and on all of it.
#include "tarv/tarv-arp-hash.h"

#include "platform/jiffies.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash-private.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";
constexpr const char* lookup = TARV_NAME_OF(tarv_hash_seq_cache_lookup);
constexpr const char* update = TARV_NAME_OF(tarv_hash_update_ib_data);

/* 2^17 and 2^16 heads: the addresses of one subnet have no two under one head, and those of a full
 * fabric in all its subnets few. */
constexpr u32 address_index_bits = 17;
constexpr u32 gid_index_bits = 16;

constinit index_of<tarv_hash_entry_t, &tarv_hash_entry_t::next_by_address, address_index_bits>
    by_address TA_GUARDED(tarv_lock) = {};

/* By GID; of one GID, in the order in which a walk over the table meets the entries. */
struct gid_order {
    using key_t = gx_gid_t;
    static const gx_gid_t& key(const tarv_hash_entry_t* entry) { return entry->arp_data.gid; }
    static u32 hash(const gx_gid_t& gid) { return tarv_gid_hash(gid); }
    static u64 rank(const tarv_hash_entry_t* entry) { return tarv_index_rank(entry->number); }
    static int compare(const tarv_hash_entry_t* entry, const gx_gid_t& gid) {
        return __builtin_memcmp(entry->arp_data.gid.raw, gid.raw, sizeof gid.raw);
    }
    static bool before(const tarv_hash_entry_t* one, const tarv_hash_entry_t* other) {
        if (const int compared = compare(one, other->arp_data.gid))
            return compared < 0;
        const u32 bucket = tarv_hash_func(one->arp_data.dst_ip);
        const u32 other_bucket = tarv_hash_func(other->arp_data.dst_ip);
        return bucket != other_bucket ? bucket < other_bucket : one->number > other->number;
    }
};
constinit ordered_of<tarv_hash_entry_t, &tarv_hash_entry_t::by_gid, gid_order, gid_index_bits>
    by_gid TA_GUARDED(tarv_lock) = {};

/* The number of the entry that was added last. */
constinit u64 last_number TA_GUARDED(tarv_lock) = 0;

/* The newest entry of the address, or null. */
tarv_hash_entry_t* find(u32 req_ip) TA_REQ_SHARED(tarv_lock) {
    for (tarv_hash_entry_t* entry : by_address.under(tarv_address_hash(req_ip)))
        if (entry->arp_data.dst_ip == req_ip)
            return entry;
    return nullptr;
}

/* The newest entry of the address that may be removed or replaced, or null. */
tarv_hash_entry_t* find_unprotected(u32 req_ip) TA_REQ_SHARED(tarv_lock) {
    const bool statics_too = read_once(statics_inv_enabled);
    for (tarv_hash_entry_t* entry : by_address.under(tarv_address_hash(req_ip)))
        if (entry->arp_data.dst_ip == req_ip &&
            (statics_too || !(entry->arp_data.mask & TARV_MASK_STATIC)))
            return entry;
    return nullptr;
}

/* Finds by GID as the index does, by a walk that can be followed in the log. */
tarv_hash_entry_t* trace_gid(const gx_gid_t& gid) TA_REQ_SHARED(tarv_lock) {
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        TARV_LOG_FROM(lookup, TARV_FUNC, "Checking Bucket: %d\n", bucket);
        for (tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket]; entry;
             entry = entry->next) {
            TARV_LOG_FROM(lookup, TARV_FUNC, "\tChecking Entry: %p (next: %p)\n",
                          static_cast<void*>(entry), static_cast<void*>(entry->next));
            if (entry->arp_data.gid == gid)
                return entry;
        }
    }
    return nullptr;
}

/* Stamps the entry, which becomes the first of its chain. */
void link_in(tarv_hash_entry_t* entry) TA_REQ(tarv_lock) {
    KASSERT(write_is_held(&tarv_lock) && !entry->link);
    const u32 address = entry->arp_data.dst_ip;
    const u32 bucket = tarv_hash_func(address);
    const tarv_hash_link_t head = &tarv_table.hash_buckets[bucket];
    entry->next = *head;
    entry->link = head;
    if (entry->next)
        entry->next->link = &entry->next;
    *head = entry;
    entry->timestamp = jiffies();
    entry->number = ++last_number;
    by_address.enter(entry, tarv_address_hash(address));
    by_gid.enter(entry);
    tarv_hash_lengths[bucket]++;
    write_once(tarv_table.size, tarv_table.size + 1);
}

void touch(tarv_hash_entry_t* entry) TA_REQ_SHARED(tarv_lock) {
    // Many readers use an entry in one tick: only the first one takes its cache line from the
    // others.
    const unsigned long now = jiffies();
    if (read_once(entry->timestamp) != now)
        write_once(entry->timestamp, now);
}

void copy_record(const tarv_hash_entry_t* entry, tarv_arp_data_t* out) TA_REQ_SHARED(tarv_lock) {
    *out = entry->arp_data;
    tarv_aim_paths(out);
}

/* Not a plain copy: other readers may be stamping the entry meanwhile, and the table's own fields
 * are nobody else's. */
void copy_entry(const tarv_hash_entry_t* entry, tarv_hash_entry_t* out) TA_REQ_SHARED(tarv_lock) {
    out->next = entry->next;
    out->list_struct = entry->list_struct;
    copy_record(entry, &out->arp_data);
    out->timestamp = read_once(entry->timestamp);
}

/* The record becomes that of the newest entry of the address that may be replaced; false: there is
 * none. */
bool replace(u32 req_ip, const tarv_arp_data_t& record) TA_REQ(tarv_lock) {
    tarv_hash_entry_t* const entry = find_unprotected(req_ip);
    if (!entry)
        return false;
    TARV_LOG_FROM(update, TARV_DEBUG, "IP: %08X found.\n", req_ip);
    // In a chain, or under a head, of another address nobody would find it again.
    KASSERT(record.dst_ip == req_ip);
    const bool moves = !(entry->arp_data.gid == record.gid);
    if (moves)
        by_gid.remove(entry);
    entry->arp_data = record;
    // Whatever the mask says now: no pointer into the caller's record may stay behind.
    tarv_aim_paths(&entry->arp_data);
    if (moves)
        by_gid.enter(entry);
    touch(entry);
    return true;
}

/* The record holds a valid path that starts at the local port with that GID. */
bool has_path_from(const tarv_arp_data_t& record, const gx_gid_t& sgid) {
    return ((record.mask & TARV_MASK_PRIMARY_PATH) && record.paths[0].sgid == sgid) ||
           ((record.mask & TARV_MASK_SECONDARY_PATH) && record.paths[1].sgid == sgid);
}

/* Frees the entries that `goes` is true of; `function` says that there are none at all. */
template <class Goes>
void purge(const char* function, size_t looked_at, Goes goes) TA_EXCL(tarv_lock) {
    tarv_hash_taken_t taken;
    {
        const write_guard guard(tarv_lock);
        if (tarv_table.size == 0)
            TARV_LOG_FROM(function, TARV_DEBUG, "The ARP table is empty.\n");
        taken.take(looked_at, goes);
    }
    taken.free_all();
}

bool always(const tarv_hash_entry_t*) {
    return true;
}

}  // namespace

constinit rwlock_t tarv_lock = {};
constinit tarv_hash_t tarv_table = {};
constinit u32 tarv_hash_lengths[TARV_HASH_BUCKETS] = {};

void tarv_hash_unlink(tarv_hash_entry_t* entry) {
    KASSERT(write_is_held(&tarv_lock) && tarv_table.size > 0);
    KASSERT(entry->link && *entry->link == entry);
    *entry->link = entry->next;
    if (entry->next)
        entry->next->link = entry->link;
    entry->link = nullptr;
    const u32 address = entry->arp_data.dst_ip;
    by_address.remove(entry, tarv_address_hash(address));
    by_gid.remove(entry);
    tarv_hash_lengths[tarv_hash_func(address)]--;
    write_once(tarv_table.size, tarv_table.size - 1);
}

void tarv_hash_prefetch_links(const tarv_hash_entry_t* entry) {
    by_address.prefetch(tarv_address_hash(entry->arp_data.dst_ip));
    by_gid.prefetch(entry->arp_data.gid);
    __builtin_prefetch(&entry->link);
}

u32 tarv_hash_func(u32 req_ip) {
    u32 h = req_ip ^ (req_ip >> 16);
    h ^= h >> 8;
    h ^= h >> 3;
    return h & (TARV_HASH_BUCKETS - 1);
}

tarv_stat_t tarv_hash_init() {
    rwlock_init(&tarv_lock, "tarv_lock");
    {
        const write_guard guard(tarv_lock);
        tarv_table = {};
        for (u32& length : tarv_hash_lengths)
            length = 0;
        tarv_index_draw();
        by_address.clear();
        by_gid.clear();
    }
    tarv_garbage_collector_start();
    return tarv_stat_ok;
}

void tarv_hash_destroy() {
    del_timing_sync(&tarv_garbage_collector_timer);
    purge(__func__, 0, always);
}

tarv_stat_t tarv_hash_add_entry(tarv_hash_entry_t* entry) {
    const write_guard guard(tarv_lock);
    link_in(entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_get_entry(u32 req_ip, tarv_hash_entry_t* out) {
    const read_guard guard(tarv_lock);
    tarv_hash_entry_t* entry = find(req_ip);
    if (!entry)
        return tarv_stat_not_found;
    TARV_LOG(TARV_DEBUG, "IP: %08X found.\n", req_ip);
    if (out)
        copy_entry(entry, out);
    touch(entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_get_entry_data(u32 req_ip, tarv_arp_data_t* out) {
    const read_guard guard(tarv_lock);
    tarv_hash_entry_t* entry = find(req_ip);
    if (!entry)
        return tarv_stat_not_found;
    TARV_LOG(TARV_DEBUG, "IP: %08X found.\n", req_ip);
    if (out)
        copy_record(entry, out);
    touch(entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_remove_entry(u32 req_ip, tarv_hash_entry_t** out) {
    const write_guard guard(tarv_lock);
    tarv_hash_entry_t* const entry = find_unprotected(req_ip);
    if (!entry)
        return tarv_stat_not_found;
    tarv_hash_unlink(entry);
    *out = entry;
    TARV_LOG(TARV_DEBUG, "IP: %08X found and removed.\n", req_ip);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_update_ib_data(u32 req_ip, tarv_arp_data_t* record) {
    const write_guard guard(tarv_lock);
    return replace(req_ip, *record) ? tarv_stat_ok : tarv_stat_not_found;
}

tarv_hash_entered_t tarv_hash_enter(tarv_arp_data_t* record, tarv_hash_rule_t rule,
                                    tarv_hash_entry_t* entry) {
    // To whoever reads the log these are separate steps, each with a name of its own.
    const u32 address = record->dst_ip;
    const write_guard guard(tarv_lock);
    const bool replaces = rule == tarv_hash_replace;
    if (replaces && replace(address, *record))
        return tarv_hash_replaced;
    if (tarv_hash_entry_t* const known = find(address)) {
        TARV_LOG_FROM(
            replaces ? TARV_NAME_OF(tarv_hash_get_entry_data) : TARV_NAME_OF(tarv_hash_get_entry),
            TARV_DEBUG, "IP: %08X found.\n", address);
        if (replaces)
            copy_record(known, record);
        touch(known);
        return tarv_hash_refused;
    }
    if (!entry)
        return tarv_hash_wants_entry;
    entry->arp_data = *record;
    tarv_aim_paths(&entry->arp_data);
    link_in(entry);
    return tarv_hash_added;
}

tarv_stat_t tarv_hash_remove_all() {
    purge(__func__, 0, always);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_remove_entries_by_sgid(gx_gid_t* sgid) {
    purge(__func__, offsetof(tarv_hash_entry_t, arp_data.paths[0].sgid),
          [&](const tarv_hash_entry_t* entry) { return has_path_from(entry->arp_data, *sgid); });
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_seq_cache_lookup(gx_gid_t* gid, tarv_arp_data_t* out) {
    const read_guard guard(tarv_lock);
    tarv_hash_entry_t* const entry =
        tarv_log_enabled(TARV_FUNC) ? trace_gid(*gid) : by_gid.first(*gid);
    if (!entry)
        return tarv_stat_not_found;
    TARV_LOG(TARV_FUNC, "Entry found !!! \n");
    copy_record(entry, out);
    touch(entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_set_paths(u32 req_ip, ib_path_record_v2_t* pri_path,
                                ib_path_record_v2_t* sec_path) {
    const write_guard guard(tarv_lock);
    tarv_hash_entry_t* entry = find(req_ip);
    if (!entry)
        return tarv_stat_not_found;
    TARV_LOG(TARV_DEBUG, "IP: %08X found.\n", req_ip);
    tarv_arp_data_t& record = entry->arp_data;
    if (pri_path) {
        record.paths[0] = *pri_path;
        if (record.paths_count == 0)
            record.paths_count = 1;
        record.mask |= TARV_MASK_PRIMARY_PATH;
        record.primary_path = &record.paths[0];
        TARV_LOG(TARV_DEBUG, "Primary path added.\n");
    }
    if (sec_path) {
        record.paths[1] = *sec_path;
        if (record.paths_count == 1)
            record.paths_count = 2;
        record.mask |= TARV_MASK_SECONDARY_PATH;
        record.secondary_path = &record.paths[1];
        TARV_LOG(TARV_DEBUG, "Secondary path added.\n");
    }
    touch(entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_update_paths(u32 req_ip, ib_path_record_v2_t* paths, int path_count,
                                   tarv_paths_t needed_paths_count, tarv_hash_entry_t* out) {
    tarv_change_path_pkey(req_ip, paths, path_count);

    const write_guard guard(tarv_lock);
    tarv_hash_entry_t* entry = find(req_ip);
    if (!entry)
        return tarv_stat_not_found;
    TARV_LOG(TARV_DEBUG, "IP: %08X found.\n", req_ip);
    tarv_arp_data_t& record = entry->arp_data;
    if (path_count != 0 && paths) {
        TARV_LOG(TARV_DEBUG, "Received %d paths.\n", path_count);
        for (int i = 0; i < path_count; i++)
            record.paths[i] = paths[i];
        record.primary_path = &record.paths[0];
        record.paths_count = path_count;
        record.mask |= TARV_MASK_PRIMARY_PATH;
        TARV_LOG(TARV_DEBUG, "Primary path added<mask 0x%X>.\n", record.mask);
        if (path_count >= 2) {
            record.secondary_path = &record.paths[1];
            record.mask |= TARV_MASK_SECONDARY_PATH;
            TARV_LOG(TARV_DEBUG, "Secondary path added<mask 0x%X>.\n", record.mask);
        } else {
            record.mask &= ~TARV_MASK_SECONDARY_PATH;
        }
    }
    touch(entry);
    if (!tarv_mask_has_paths(record.mask, needed_paths_count))
        return tarv_stat_pending;
    if (out)
        copy_entry(entry, out);
    return tarv_stat_ok;
}
