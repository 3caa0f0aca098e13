// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The module's table and request list as they would be without indexes: 32 chains and one list,
// walked from their heads. The entries, the hash function, the locks, the memory and the formatting
// of text are the module's and its host's.
#pragma once

#include <memory>
#include <string>

#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "platform/spinlock.h"
#include "platform/string.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-req-list.h"

namespace bench {

inline rwlock_t plain_table_lock = {};
inline spinlock_t plain_list_lock = {};

class PlainTable {
  public:
    PlainTable() { rwlock_init(&plain_table_lock, "plain_table_lock"); }
    ~PlainTable() {
        for (tarv_hash_entry_t*& head : buckets_)
            while (head)
                kfree(unlink(&head));
    }
    PlainTable(const PlainTable&) = delete;
    PlainTable& operator=(const PlainTable&) = delete;

    void add(tarv_hash_entry_t* entry) {
        entry->timestamp = jiffies();
        const write_guard guard(plain_table_lock);
        tarv_hash_entry_t** const head = &buckets_[tarv_hash_func(entry->arp_data.dst_ip)];
        entry->next = *head;
        *head = entry;
        size_++;
    }

    bool get(u32 ip, tarv_arp_data_t* out) {
        const read_guard guard(plain_table_lock);
        tarv_hash_entry_t* const entry = *find(ip);
        if (!entry)
            return false;
        *out = entry->arp_data;
        tarv_aim_paths(out);
        write_once(entry->timestamp, jiffies());
        return true;
    }

    tarv_hash_entry_t* remove(u32 ip) {
        const write_guard guard(plain_table_lock);
        tarv_hash_entry_t** const link = find(ip);
        return *link ? unlink(link) : nullptr;
    }

    void age(unsigned long idle_limit) {
        const write_guard guard(plain_table_lock);
        const unsigned long now = jiffies();
        for (tarv_hash_entry_t*& head : buckets_) {
            tarv_hash_entry_t** link = &head;
            while (tarv_hash_entry_t* const entry = *link) {
                if ((entry->arp_data.mask & TARV_MASK_STATIC) ||
                    read_once(entry->timestamp) + idle_limit > now)
                    link = &entry->next;
                else
                    kfree(unlink(link));
            }
        }
    }

    /// The caller's to kfree.
    char* print(u32* length) {
        static constexpr char header[] =
            "IP address       HW type     Flags       HW address            Mask     Device\n";
        const size_t size = (static_cast<size_t>(size_) + 1) * 80;
        char* const text = static_cast<char*>(kmalloc(size, GFP_KERNEL));
        const read_guard guard(plain_table_lock);
        __builtin_memcpy(text, header, sizeof header);
        *length = sizeof header - 1;
        for (const tarv_hash_entry_t* head : buckets_)
            for (const tarv_hash_entry_t* entry = head; entry; entry = entry->next)
                *length += print_line(text + *length, entry->arp_data);
        return text;
    }

  private:
    /* The link to the newest entry of the address; to null when there is none. */
    tarv_hash_entry_t** find(u32 ip) {
        tarv_hash_entry_t** link = &buckets_[tarv_hash_func(ip)];
        while (*link && (*link)->arp_data.dst_ip != ip)
            link = &(*link)->next;
        return link;
    }

    tarv_hash_entry_t* unlink(tarv_hash_entry_t** link) {
        tarv_hash_entry_t* const entry = *link;
        *link = entry->next;
        size_--;
        return entry;
    }

    static u32 print_line(char* at, const tarv_arp_data_t& record) {
        char address[16];
        char hw_address[18];
        ksnprintf(address, sizeof address, "%u.%u.%u.%u", TARV_IP_BYTES(record.dst_ip));
        ksnprintf(hw_address, sizeof hw_address, "00:AA:00:00:%02X:%02X", record.lid >> 8,
                  record.lid & 0xFF);
        return static_cast<u32>(ksnprintf(at, 79, "%-16s 0x%-10x0x%-10x%s     *        %s\n",
                                          address, 1, record.mask, hw_address, "ipoib"));
    }

    tarv_hash_entry_t* buckets_[TARV_HASH_BUCKETS] = {};
    u32 size_ = 0;
};

class PlainList {
  public:
    PlainList() {
        spin_lock_init(&plain_list_lock, "plain_list_lock");
        INIT_LIST_HEAD(&head_);
    }
    ~PlainList() {
        while (tarv_list_entry_t* const entry = tarv_request_list(head_).pop())
            kfree(entry);
    }
    PlainList(const PlainList&) = delete;
    PlainList& operator=(const PlainList&) = delete;

    int count_identical(const tarv_list_entry_t* entry) {
        const spin_guard guard(plain_list_lock);
        int identical = 0;
        for (const tarv_list_entry_t* other : tarv_request_list(head_))
            identical +=
                other->req_ip == entry->req_ip && other->requested_paths == entry->requested_paths;
        return identical;
    }

    void file(tarv_list_entry_t* entry) {
        entry->timestamp = static_cast<u32>(jiffies());
        const spin_guard guard(plain_list_lock);
        tarv_request_list(head_).push(entry);
    }

    /// Moves the requests for the address to `found`, oldest first.
    void take(u32 ip, tarv_found_list found) {
        const spin_guard guard(plain_list_lock);
        for (tarv_list_entry_t* entry : tarv_request_list(head_)) {
            if (entry->req_ip != ip)
                continue;
            tarv_request_list::unlink(entry);
            found.push(entry);
        }
    }

    /// Moves those to `found` that have waited for `limit` ticks, oldest first.
    void take_due(u32 limit, tarv_found_list found) {
        const spin_guard guard(plain_list_lock);
        for (tarv_list_entry_t* entry : tarv_request_list(head_)) {
            if (tarv_get_request_static_flag(entry) ||
                static_cast<u32>(jiffies()) - entry->timestamp < limit)
                continue;
            tarv_request_list::unlink(entry);
            found.push(entry);
        }
    }

  private:
    list_head head_;
};

}  // namespace bench
