// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The formats that the SA path client exchanges with the Subnet Administrator (InfiniBand
// Architecture, "Subnet Administration"), and the host form in which path records are held.
//
// Two byte orders meet here. On the wire every field is big-endian. Outside the wire a path record
// is in host form: the same 64 bytes with the same fields in the same places, but with integers in
// host order and GIDs with their least significant byte first, as the adapter verbs layer delivers
// them. The SA client converts at the wire; nobody else does.
#pragma once

#include "platform/types.h"
#include "platform/verbs.h"
#include "tarv/mad.h"

/* A path from one port to another: PathRecord, 64 bytes. Held in host form. */
struct [[gnu::packed]] ib_path_record_v2_t {
    u32 reserved0;
    u32 reserved1;
    gx_gid_t dgid;
    gx_gid_t sgid;
    u16 dlid;
    u16 slid;
    union {
        u32 flow_word;
        struct [[gnu::packed]] {
            u32 hop_limut : 8;
            u32 flow_label : 20;
            u32 reserved3 : 3;
            u32 raw_traffic : 1;
        };
    };
    u8 traffic_class;
    u8 numb_path : 7;
    u8 reversible : 1;
    u16 pkey;
    union {
        u16 sl_word;
        struct [[gnu::packed]] {
            u16 sl : 4;
            u16 reserved4 : 12;
        };
    };
    u8 mtu : 6;  // code: 1 256, 2 512, 3 1024, 4 2048, 5 4096 bytes
    u8 mtu_selector : 2;
    u8 rate : 6;  // code: 2 2.5, 3 10, 4 30 Gb/s, ...
    u8 rate_selector : 2;
    u8 pkt_life_time : 6;  // 4.096 microseconds times 2 to this power
    u8 pkt_life_time_selector : 2;
    u8 preference;
    u8 reserved2[6];
};

static_assert(sizeof(ib_path_record_v2_t) == 64);
static_assert(offsetof(ib_path_record_v2_t, dgid) == 8);
static_assert(offsetof(ib_path_record_v2_t, sgid) == 24);
static_assert(offsetof(ib_path_record_v2_t, dlid) == 40);
static_assert(offsetof(ib_path_record_v2_t, slid) == 42);
static_assert(offsetof(ib_path_record_v2_t, flow_word) == 44);
static_assert(offsetof(ib_path_record_v2_t, traffic_class) == 48);
static_assert(offsetof(ib_path_record_v2_t, pkey) == 50);
static_assert(offsetof(ib_path_record_v2_t, sl_word) == 52);
static_assert(offsetof(ib_path_record_v2_t, preference) == 57);
static_assert(offsetof(ib_path_record_v2_t, reserved2) == 58);

/* A question for paths between sets of ports: MultiPathRecord, as on the wire. Behind the 24 bytes
 * stand `sgid_count` source GIDs, then `dgid_count` destination GIDs. */
struct [[gnu::packed]] ib_multi_path_record_v2_t {
    u32 flow_word;  // RawTraffic 1 bit, reserved 3, FlowLabel 20, HopLimit 8
    u8 tclass;
    u8 numb_path : 7;  // how many paths are wanted
    u8 reversible : 1;
    u16 pkey;
    u16 sl_word;  // reserved 12 bits, SL 4
    u8 mtu : 6;
    u8 mtu_selector : 2;
    u8 rate : 6;
    u8 rate_selector : 2;
    u8 pkt_life_time : 6;
    u8 pkt_life_time_selector : 2;
    u8 reserved5;
    u8 reserved6 : 6;
    u8 indep_sel : 2;
    u8 sgid_count;
    u8 dgid_count;
    u8 reserved7[7];
    gx_gid_t s_d_gid[];
};

static_assert(sizeof(ib_multi_path_record_v2_t) == 24);
static_assert(offsetof(ib_multi_path_record_v2_t, tclass) == 4);
static_assert(offsetof(ib_multi_path_record_v2_t, pkey) == 6);
static_assert(offsetof(ib_multi_path_record_v2_t, sl_word) == 8);
static_assert(offsetof(ib_multi_path_record_v2_t, reserved5) == 13);
static_assert(offsetof(ib_multi_path_record_v2_t, sgid_count) == 15);
static_assert(offsetof(ib_multi_path_record_v2_t, dgid_count) == 16);
static_assert(offsetof(ib_multi_path_record_v2_t, s_d_gid) == 24);

inline constexpr u32 SA_DATA_SIZE = 200;

/* An SA MAD. The module leaves the RMPP header to the GSI service. */
struct [[gnu::packed]] sa_mad_v2_t {
    mad_hdr_t hdr;
    u8 rmpp_version;
    u8 rmpp_type;
    u8 rmpp_flags;
    u8 rmpp_status;
    u32 segment_num;
    u32 payload_len;
    u64 sm_key;
    u16 attr_offset;  // distance of two records, in units of 8 bytes
    u16 reserved;
    u64 component_mask;
    u8 payload[SA_DATA_SIZE];
};

static_assert(sizeof(sa_mad_v2_t) == MAD_SIZE);
static_assert(offsetof(sa_mad_v2_t, rmpp_version) == 24);
static_assert(offsetof(sa_mad_v2_t, segment_num) == 28);
static_assert(offsetof(sa_mad_v2_t, payload_len) == 32);
static_assert(offsetof(sa_mad_v2_t, sm_key) == 36);
static_assert(offsetof(sa_mad_v2_t, attr_offset) == 44);
static_assert(offsetof(sa_mad_v2_t, component_mask) == 48);
static_assert(offsetof(sa_mad_v2_t, payload) == 56);

/* An SA MAD from offset 36 on: what RMPP carries. */
struct [[gnu::packed]] sa_mad_v2_rmpp_payload_t {
    u64 sm_key;
    u16 attr_offset;
    u16 reserved;
    u64 component_mask;
    u8 payload[SA_DATA_SIZE];
};

static_assert(sizeof(sa_mad_v2_rmpp_payload_t) == 220);
static_assert(offsetof(sa_mad_v2_rmpp_payload_t, attr_offset) == 8);
static_assert(offsetof(sa_mad_v2_rmpp_payload_t, component_mask) == 12);
static_assert(offsetof(sa_mad_v2_rmpp_payload_t, payload) == 20);

/* Bytes of the SA header at the start of an RMPP data block. */
inline constexpr u32 SA_HEADER_SIZE = offsetof(sa_mad_v2_rmpp_payload_t, payload);

/* Paths asked for in a query, taken from an answer, and held in a record. */
inline constexpr int TARV_MAX_PATHS = 3;

/* Source GIDs of a query: its list holds these and one destination. */
inline constexpr int SA_MAX_SGIDS = 2;
static_assert(sizeof(ib_multi_path_record_v2_t) + (SA_MAX_SGIDS + 1) * sizeof(gx_gid_t) <=
              SA_DATA_SIZE);

inline constexpr u8 MAD_BASE_VERSION = 1;
inline constexpr u8 SA_MGT_CLASS = 3;
inline constexpr u8 SA_CLASS_VERSION = 2;
inline constexpr u8 SA_METHOD_GET_MULTI = 0x14;
inline constexpr u16 SA_ATTR_MULTI_PATH_RECORD = 0x003A;
inline constexpr u32 SA_QP = 1;

/* Copies `size` bytes in reverse order: the conversion between wire and host order of anything.
 * `destination` may be `source`, which is then reversed in place; other overlaps are not allowed.
 */
void ntoh(char* destination, char* source, u8 size);

/* Makes the host form of the path record that stands in wire form at `wire` (64 bytes). What the
 * module does not use of a record is left 0; the record counts as one path. */
void ib_path_record_from_wire(const void* wire, ib_path_record_v2_t* path);

/* The two halves of a GID as numbers: subnet prefix and interface ID. */
inline u64 gid_high(const gx_gid_t& gid) {
    u64 half;
    __builtin_memcpy(&half, gid.raw + 8, sizeof half);
    return half;
}
inline u64 gid_low(const gx_gid_t& gid) {
    u64 half;
    __builtin_memcpy(&half, gid.raw, sizeof half);
    return half;
}
