// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The common header of a management datagram (InfiniBand Architecture, "Management Model").
#pragma once

#include "platform/types.h"

/* 24 bytes at the start of every MAD. Between the module and the GSI service `transact_id`,
 * `attrib_id` and `attrib_modifier` are host-order integers; `status` is as on the wire,
 * big-endian. */
struct [[gnu::packed]] mad_hdr_t {
    u8 base_ver;   // version of the MAD format: 1
    u8 mgt_class;  // management class: 3 is Subnet Administration
    u8 class_ver;  // version of the class's format: 2
    u8 method : 7;
    u8 r : 1;  // set in a response
    union {
        struct [[gnu::packed]] {
            u16 status;
            u16 class_specific;
        };
        struct [[gnu::packed]] {  // of a directed-route MAD
            u16 dr_status;        // bit 15 of the wire value is the D bit
            u8 hop_pointer;
            u8 hop_count;
        };
    };
    u64 transact_id;
    u16 attrib_id;
    u16 reserved;
    u32 attrib_modifier;
};

static_assert(sizeof(mad_hdr_t) == 24);
static_assert(offsetof(mad_hdr_t, base_ver) == 0);
static_assert(offsetof(mad_hdr_t, mgt_class) == 1);
static_assert(offsetof(mad_hdr_t, class_ver) == 2);
static_assert(offsetof(mad_hdr_t, status) == 4);
static_assert(offsetof(mad_hdr_t, class_specific) == 6);
static_assert(offsetof(mad_hdr_t, hop_pointer) == 6);
static_assert(offsetof(mad_hdr_t, transact_id) == 8);
static_assert(offsetof(mad_hdr_t, attrib_id) == 16);
static_assert(offsetof(mad_hdr_t, reserved) == 18);
static_assert(offsetof(mad_hdr_t, attrib_modifier) == 20);

inline constexpr u32 MAD_SIZE = 256;
