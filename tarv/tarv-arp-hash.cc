// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table, and the operations on single entries and on all of it.
#include "tarv/tarv-arp-hash.h"

#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";

/* Where a chain points at an entry: a bucket's head or the `next` of the entry before. Unlinking
 * through it needs no special case for the head. */
using link_t = tarv_hash_entry_t**;

link_t bucket_of(u32 req_ip) TA_REQ_SHARED(tarv_lock) {
    return &tarv_table.hash_buckets[tarv_hash_func(req_ip)];
}

/* The newest entry of the address, or null. */
tarv_hash_entry_t* find(u32 req_ip) TA_REQ_SHARED(tarv_lock) {
    tarv_hash_entry_t* entry = *bucket_of(req_ip);
    while (entry && entry->arp_data.dst_ip != req_ip)
        entry = entry->next;
    return entry;
}

/* The link to the newest entry of the address that may be removed or replaced; it points at null
 * where there is none. */
link_t find_unprotected(u32 req_ip) TA_REQ_SHARED(tarv_lock) {
    const bool statics_too = read_once(statics_inv_enabled);
    link_t link = bucket_of(req_ip);
    for (; *link; link = &(*link)->next) {
        const tarv_arp_data_t& record = (*link)->arp_data;
        if (record.dst_ip == req_ip && (statics_too || !(record.mask & TARV_MASK_STATIC)))
            break;
    }
    return link;
}

tarv_hash_entry_t* unlink(link_t link) TA_REQ(tarv_lock) {
    tarv_hash_entry_t* entry = *link;
    *link = entry->next;
    write_once(tarv_table.size, tarv_table.size - 1);
    return entry;
}

void touch(tarv_hash_entry_t* entry) TA_REQ_SHARED(tarv_lock) {
    write_once(entry->timestamp, jiffies());
}

void copy_record(const tarv_hash_entry_t* entry, tarv_arp_data_t* out) TA_REQ_SHARED(tarv_lock) {
    *out = entry->arp_data;
    tarv_aim_paths(out);
}

/* Not a plain copy: other readers may be stamping the entry meanwhile. */
void copy_entry(const tarv_hash_entry_t* entry, tarv_hash_entry_t* out) TA_REQ_SHARED(tarv_lock) {
    out->next = entry->next;
    out->list_struct = entry->list_struct;
    copy_record(entry, &out->arp_data);
    out->timestamp = read_once(entry->timestamp);
}

void free_all() TA_REQ(tarv_lock) {
    for (tarv_hash_entry_t*& head : tarv_table.hash_buckets)
        while (head)
            kfree(unlink(&head));
}

/* The record holds a valid path that starts at the local port with that GID. */
bool has_path_from(const tarv_arp_data_t& record, const gx_gid_t& sgid) {
    return ((record.mask & TARV_MASK_PRIMARY_PATH) && record.paths[0].sgid == sgid) ||
           ((record.mask & TARV_MASK_SECONDARY_PATH) && record.paths[1].sgid == sgid);
}

}  // namespace

constinit rwlock_t tarv_lock = {};
constinit tarv_hash_t tarv_table = {};

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
    }
    tarv_garbage_collector_start();
    return tarv_stat_ok;
}

void tarv_hash_destroy() {
    del_timing_sync(&tarv_garbage_collector_timer);
    const write_guard guard(tarv_lock);
    if (tarv_table.size == 0)
        TARV_LOG(TARV_DEBUG, "The ARP table is empty.\n");
    else
        free_all();
}

tarv_stat_t tarv_hash_add_entry(tarv_hash_entry_t* entry) {
    entry->timestamp = jiffies();
    const write_guard guard(tarv_lock);
    const link_t head = bucket_of(entry->arp_data.dst_ip);
    entry->next = *head;
    *head = entry;
    write_once(tarv_table.size, tarv_table.size + 1);
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
    const link_t link = find_unprotected(req_ip);
    if (!*link)
        return tarv_stat_not_found;
    *out = unlink(link);
    TARV_LOG(TARV_DEBUG, "IP: %08X found and removed.\n", req_ip);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_update_ib_data(u32 req_ip, tarv_arp_data_t* record) {
    const write_guard guard(tarv_lock);
    tarv_hash_entry_t* entry = *find_unprotected(req_ip);
    if (!entry)
        return tarv_stat_not_found;
    TARV_LOG(TARV_DEBUG, "IP: %08X found.\n", req_ip);
    entry->arp_data = *record;
    // Whatever the mask says now: no pointer into the caller's record may stay behind.
    tarv_aim_paths(&entry->arp_data);
    touch(entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_remove_all() {
    const write_guard guard(tarv_lock);
    if (tarv_table.size == 0)
        TARV_LOG(TARV_DEBUG, "The ARP table is empty.\n");
    else
        free_all();
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_remove_entries_by_sgid(gx_gid_t* sgid) {
    const write_guard guard(tarv_lock);
    if (tarv_table.size == 0)
        TARV_LOG(TARV_DEBUG, "The ARP table is empty.\n");
    for (tarv_hash_entry_t*& head : tarv_table.hash_buckets) {
        link_t link = &head;
        while (*link) {
            if (has_path_from((*link)->arp_data, *sgid))
                kfree(unlink(link));
            else
                link = &(*link)->next;
        }
    }
    return tarv_stat_ok;
}

tarv_stat_t tarv_hash_seq_cache_lookup(gx_gid_t* gid, tarv_arp_data_t* out) {
    const read_guard guard(tarv_lock);
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        TARV_LOG(TARV_FUNC, "Checking Bucket: %d\n", bucket);
        for (tarv_hash_entry_t* entry = tarv_table.hash_buckets[bucket]; entry;
             entry = entry->next) {
            TARV_LOG(TARV_FUNC, "\tChecking Entry: %p (next: %p)\n", static_cast<void*>(entry),
                     static_cast<void*>(entry->next));
            if (entry->arp_data.gid == *gid) {
                TARV_LOG(TARV_FUNC, "Entry found !!! \n");
                copy_record(entry, out);
                touch(entry);
                return tarv_stat_ok;
            }
        }
    }
    return tarv_stat_not_found;
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
