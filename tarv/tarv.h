// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The vocabulary that the module and everybody who talks to it share: the address record of an IPv4
// peer on the InfiniBand fabric, the status codes, and the callbacks.
//
// One record type serves five ends: the answer to a client, the ARP request handed to the IPoIB
// driver, the ARP data that the driver hands in, the data of a cache entry, and the copy that a
// waiting request keeps of its caller's record.
#pragma once

#include "platform/types.h"
#include "platform/verbs.h"
#include "tarv/sa-mads.h"

/* Outcome of an operation. */
enum tarv_stat_t : int {
    tarv_stat_ok = 0,
    tarv_stat_pending = -253,    // the answer comes later, through the reply callback
    tarv_stat_timeout = -254,    // retries used up, or the module was halted; to callbacks only
    tarv_stat_error = -255,      // no memory, no driver, refused, bad handle, bad ARP operation
    tarv_stat_not_found = -256,  // no entry, no matching request, or a miss without a callback
};

/* SA path records that a caller wants with an answer. */
enum tarv_paths_t : int {
    tarv_paths_none = 0,
    tarv_paths_primary = 1,
    tarv_paths_both = 2,
};

/* Bits of tarv_arp_data_t::mask: which fields hold data. */
enum tarv_mask_t : u32 {
    TARV_MASK_SRC_IP = 0x0001,
    TARV_MASK_DST_IP = 0x0002,
    TARV_MASK_GID = 0x0004,
    TARV_MASK_QPN = 0x0008,
    TARV_MASK_LID = 0x0010,
    TARV_MASK_QKEY = 0x0020,
    TARV_MASK_CAP_FLG = 0x0040,
    TARV_MASK_PRIMARY_PATH = 0x0080,
    TARV_MASK_SECONDARY_PATH = 0x0100,
    TARV_MASK_LOCAL_PORT = 0x0200,
    TARV_MASK_ARP_OP = 0x0400,  // only in ARP requests handed to the driver
    TARV_MASK_STATIC = 0x8000,  // made by the administrator: never aged out
    TARV_MASK_BOTH_PATHS = TARV_MASK_PRIMARY_PATH | TARV_MASK_SECONDARY_PATH,
};

/* Values of tarv_arp_data_t::arp_operation (those of the ARP standard). */
enum tarv_arp_op_t : u16 {
    TARV_ARP_OP_REQUEST = 1,
    TARV_ARP_OP_REPLY = 2,
};

/* What is known about one peer. IPv4 addresses are in network byte order; `lid`, `qpn` and `qkey`
 * are kept as they were delivered. */
struct tarv_arp_data_t {
    u32 mask;
    u16 arp_operation;
    u32 src_ip;  // from the driver: the ARP sender; in the cache and in answers: our own address
    u32 dst_ip;  // in the cache and in answers: the peer; in an ARP request: the address asked for
    gx_gid_t gid;  // the peer's port
    u32 qpn;       // 24 bits
    u8 cap_flg;    // the driver's; passed on unchanged
    gx_lid_t lid;
    u32 qkey;
    /* Aimed at the record's own paths[0] and paths[1]. Follow one only while its mask bit is set;
     * in a copy that somebody else made, read `paths` instead. */
    ib_path_record_v2_t* primary_path;
    ib_path_record_v2_t* secondary_path;
    u32 local_port_num;  // the local port, from 1, through which the peer is reached
    int paths_count;     // how many of `paths` hold a record
    ib_path_record_v2_t paths[TARV_MAX_PATHS];  // towards the peer, in host form; primary first
    void* context;                              // in an ARP request: the requesting caller's
};

/* Drivers and clients that were built by themselves go by this layout. */
static_assert(offsetof(tarv_arp_data_t, mask) == 0);
static_assert(offsetof(tarv_arp_data_t, arp_operation) == 4);
static_assert(offsetof(tarv_arp_data_t, src_ip) == 8);
static_assert(offsetof(tarv_arp_data_t, dst_ip) == 12);
static_assert(offsetof(tarv_arp_data_t, gid) == 16);
static_assert(offsetof(tarv_arp_data_t, qpn) == 32);
static_assert(offsetof(tarv_arp_data_t, cap_flg) == 36);
static_assert(offsetof(tarv_arp_data_t, lid) == 38);
static_assert(offsetof(tarv_arp_data_t, qkey) == 40);
static_assert(offsetof(tarv_arp_data_t, primary_path) == 48);
static_assert(offsetof(tarv_arp_data_t, secondary_path) == 56);
static_assert(offsetof(tarv_arp_data_t, local_port_num) == 64);
static_assert(offsetof(tarv_arp_data_t, paths_count) == 68);
static_assert(offsetof(tarv_arp_data_t, paths) == 72);
static_assert(offsetof(tarv_arp_data_t, context) == 264);
static_assert(sizeof(tarv_arp_data_t) == 272);
static_assert(sizeof(tarv_stat_t) == 4 && sizeof(tarv_paths_t) == 4 && sizeof(gx_gid_t) == 16);

/* Called once when a pending request ends, in the context of whatever ended it (driver receive, GSI
 * receive, timer, or the process that halts the module), with no lock of the module held. It must
 * not sleep. `record` is given with tarv_stat_ok only, belongs to the module and is valid during
 * the call; `context` is the caller's. */
using tarv_get_ib_data_reply_fn_t = void (*)(tarv_stat_t status, tarv_arp_data_t* record,
                                             void* context);

/* The driver's function that sends an ARP request. In `record`: mask 0x403, arp_operation, src_ip,
 * dst_ip and the requesting caller's context; all else is 0. It must not be kept. `media_reset` 1:
 * ARP requests have gone unanswered (or none was sent since the load), the driver should reset its
 * media state first. Any context, no lock held; must not sleep. tarv_stat_ok when the request went
 * out. */
using send_arp_data_fn_t = tarv_stat_t (*)(tarv_arp_data_t* record, void* context, int media_reset);

/* The driver's query about the interface that serves an address (network byte order): its P_Key,
 * and whether the address is one of this host's own (nonzero). The third argument may be null, the
 * value of the fourth is not used; both are the driver's. Any context; must not sleep. */
using get_if_info_fn_t = tarv_stat_t (*)(u32 ip, gx_p_key_t* pkey, u32* unused, int* scratch,
                                         int* loopback);

/* The module's functions as other modules find them by name. */
using tarv_get_ib_data_fn_t = tarv_stat_t(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
                                          tarv_arp_data_t* arp_data,
                                          tarv_get_ib_data_reply_fn_t rep_cb, void* context,
                                          u8 bInvalidate);
using tarv_process_arp_data_fn_t = tarv_stat_t(tarv_arp_data_t* arp_data);
using tarv_attach_fn_t = tarv_stat_t(get_if_info_fn_t get_if_info_fn,
                                     send_arp_data_fn_t send_arp_data_fn, void* context,
                                     void** handle);
using tarv_detach_fn_t = tarv_stat_t(void* handle);
using tarv_seq_cache_lookup_fn_t = tarv_stat_t(gx_gid_t* gid, tarv_arp_data_t* out);

/* Aims a record's path pointers at its own paths. */
inline void tarv_aim_paths(tarv_arp_data_t* record) {
    record->primary_path = &record->paths[0];
    record->secondary_path = &record->paths[1];
}

/* A record with that mask holds the paths that are wanted; never true for another value of
 * `wanted`. */
inline bool tarv_mask_has_paths(u32 mask, tarv_paths_t wanted) {
    switch (wanted) {
        case tarv_paths_none:
            return true;
        case tarv_paths_primary:
            return mask & TARV_MASK_PRIMARY_PATH;
        case tarv_paths_both:
            return (mask & TARV_MASK_BOTH_PATHS) == TARV_MASK_BOTH_PATHS;
    }
    return false;
}
