// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Builders of addresses, records, cache entries and paths.
#pragma once

#include <arpa/inet.h>

#include <stdexcept>

#include "platform/memory.h"
#include "tarv/tarv-arp-hash.h"

namespace support {

/// "10.0.0.1" in network byte order.
inline u32 ip(const char* text) {
    in_addr address;
    if (inet_pton(AF_INET, text, &address) != 1)
        throw std::invalid_argument(text);
    return address.s_addr;
}

/// The `n`-th address (from 0) that falls into that bucket.
inline u32 ip_in_bucket(u32 bucket, int n = 0) {
    for (u32 address = 1;; address++)
        if (tarv_hash_func(address) == bucket && n-- == 0)
            return address;
}

/// A GID that differs from others in all its bytes' neighbourhoods: no byte repeats.
inline gx_gid_t gid(u8 first) {
    gx_gid_t result;
    for (size_t i = 0; i < sizeof result.raw; i++)
        result.raw[i] = static_cast<u8>(first + i);
    return result;
}

inline ib_path_record_v2_t path(const gx_gid_t& dgid, const gx_gid_t& sgid, u16 dlid,
                                u16 pkey = 0x7FFF) {
    ib_path_record_v2_t record = {};
    record.dgid = dgid;
    record.sgid = sgid;
    record.dlid = dlid;
    record.pkey = pkey;
    return record;
}

/// A record of that peer, with those bits of its mask set.
inline tarv_arp_data_t record(u32 peer, u32 mask, u16 lid = 0) {
    tarv_arp_data_t result = {};
    result.mask = mask;
    result.dst_ip = peer;
    result.lid = lid;
    return result;
}

/// Adds an entry to the cache, which owns it.
inline tarv_hash_entry_t* add(const tarv_arp_data_t& data) {
    auto* entry = static_cast<tarv_hash_entry_t*>(kmalloc(sizeof(tarv_hash_entry_t), GFP_KERNEL));
    *entry = {};
    entry->arp_data = data;
    tarv_aim_paths(&entry->arp_data);
    tarv_hash_add_entry(entry);
    return entry;
}

inline tarv_hash_t& table() TA_NO_ANALYSIS {
    return tarv_table;
}

}  // namespace support
