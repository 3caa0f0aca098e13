// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The adapter verbs layer: opening the host's InfiniBand adapter, reading its attributes and
// tables, hearing of its events. Plus the stack's address services on top of it.
//
// Byte order: integers are in host order. A GID is held with its least significant byte first: byte
// 0 of a gx_gid_t is byte 15 of the GID on the wire. Ports are numbered from 1. Results: 0 is
// success, any other value a failure code.
//
// Contexts. None of the calls is made with a spin lock held. Two kinds of them differ in what they
// ask of a host:
//   at once     gx_default_hca_name, gx_hca_open, gx_hca_close and the address services are also
//               called from timers and where packets are received, and answer without sleeping. An
//               adapter whose queries sleep is no reason not to: the host keeps a picture of its
//               ports, takes it anew before it delivers an event, and answers from that.
//   may sleep   the queries of an adapter's attributes and tables, and the registration of
//               callbacks, are made in process and event context only.
#pragma once

#include "platform/types.h"

using gx_lid_t = u16;
using gx_p_key_t = u16;
using gx_q_key_t = u32;
using gx_qp_t = u32;
using gx_guid_t = u64;
using gx_service_level_t = u8;

enum gx_return_t : int {
    gx_return_ok = 0,
    gx_return_error = -1,
    gx_return_again = -2,          // no resources now
    gx_return_invalid_param = -3,  // no such port, index, name or handle
    gx_return_not_found = -4,
};

struct gx_gid_t {
    u8 raw[16];

    friend bool operator==(const gx_gid_t& a, const gx_gid_t& b) {
        return __builtin_memcmp(a.raw, b.raw, sizeof a.raw) == 0;
    }
};

/* Where a port's subnet manager is reached. */
struct gx_sm_address_info_t {
    u8 port_num;
    gx_lid_t sm_lid;
    gx_service_level_t service_level;
};

enum gx_port_state_t : u8 {
    gx_port_state_down = 1,
    gx_port_state_init = 2,
    gx_port_state_armed = 3,
    gx_port_state_active = 4,
};

struct gx_hca_attrib_t {
    gx_guid_t guid;
    u32 port_num;  // the adapter's number of ports
};

struct gx_port_attrib_t {
    u8 port_num;
    gx_port_state_t port_state;
    u8 port_mtu;  // code: 1 256, 2 512, 3 1024, 4 2048, 5 4096 bytes
    u8 port_lmc;
    gx_lid_t port_base_lid;
    u32 port_sgid_table_size;
    u32 port_pkey_table_size;
    gx_sm_address_info_t port_sma_address_info;
};

/* An adapter's operations, which may sleep. Each takes the adapter's own context first. The two
 * table queries take a size that comes in as the caller's room and goes out as the number of
 * entries written, both counted in entries from entry 0. */
struct gx_hca_ops_t {
    gx_return_t (*modify_hca)(void* context);  // not used here
    gx_return_t (*query_hca)(void* context, gx_hca_attrib_t* attributes);
    gx_return_t (*query_port)(void* context, u8 port, gx_port_attrib_t* attributes);
    gx_return_t (*get_port_gid_tbl)(void* context, u8 port, u32* size, gx_gid_t* table);
    gx_return_t (*get_port_partition_tbl)(void* context, u8 port, u32* size, gx_p_key_t* table);
};

/* An open adapter. */
struct gx_hca_t {
    const gx_hca_ops_t* operations;
    void* context;
};
using gx_hca_h_t = gx_hca_t*;

/* The name of the host's default adapter, a string that stays. Context: any, as for the next two.
 */
const char* gx_default_hca_name() PLATFORM_LINK(gx_default_hca_name);

/* Opens the adapter of that name; `flags` is 0. On success `*hca` is to be closed once. A path
 * query opens and closes it each time, so neither does more than count. A host whose adapter has
 * not come yet, or has gone, opens one without ports: the module is loaded only once. */
gx_return_t gx_hca_open(const char* name, u32 flags, gx_hca_h_t* hca) PLATFORM_LINK(gx_hca_open);
gx_return_t gx_hca_close(gx_hca_h_t hca) PLATFORM_LINK(gx_hca_close);

/* Context of these four: process, event. */
inline gx_return_t gx_hca_query(gx_hca_h_t hca, gx_hca_attrib_t* attributes) {
    return hca->operations->query_hca(hca->context, attributes);
}
inline gx_return_t gx_port_query(gx_hca_h_t hca, u8 port, gx_port_attrib_t* attributes) {
    return hca->operations->query_port(hca->context, port, attributes);
}
inline gx_return_t gx_get_port_gid_tbl(gx_hca_h_t hca, u8 port, u32* size, gx_gid_t* table) {
    return hca->operations->get_port_gid_tbl(hca->context, port, size, table);
}
inline gx_return_t gx_get_port_partition_tbl(gx_hca_h_t hca, u8 port, u32* size,
                                             gx_p_key_t* table) {
    return hca->operations->get_port_partition_tbl(hca->context, port, size, table);
}

/* What can happen to an adapter. Other values occur. */
enum gx_async_record_t : u32 {
    gx_async_r_port_mtu = 0x1000,
    gx_async_r_port_lid = 0x2000,
    gx_async_r_port_link_up = 0x10000,
    gx_async_r_port_link_down = 0x20000,
    gx_async_r_port_sm_change = 0x40000,
};
struct gx_event_record_t {
    gx_async_record_t event_type;
    u8 port_num;
};

/* Which events a callback wants. */
enum gx_async_event_t : u32 {
    gx_async_even_all = 16,  // every event of the adapter
};
struct gx_request_event_record_t {
    gx_async_event_t req_event_type;
    void* handle;  // of the object whose events are wanted; not used with gx_async_even_all
};

/* Called in event context, which may sleep, one event at a time, no lock held. What the address
 * services and the queries answer is by then what the event tells of. */
using gx_sleepable_async_event_cb_t = void(gx_event_record_t event);

/* Has `callback` called for the adapter's events from now on. Ports that are active already are
 * reported to it as link-up events. Context: process. */
gx_return_t gx_set_sleepable_async_event_cb(gx_hca_h_t hca, gx_request_event_record_t request,
                                            gx_sleepable_async_event_cb_t* callback)
    PLATFORM_LINK(gx_set_sleepable_async_event_cb);

/* Ends that; when it returns, the callback is not running and will not be called. Context: process.
 */
gx_return_t gx_dell_sleepable_async_event_cb(gx_hca_h_t hca,
                                             gx_sleepable_async_event_cb_t* callback)
    PLATFORM_LINK(gx_dell_sleepable_async_event_cb);

/* Address services: a port's base GID (entry 0 of its GID table) and base LID, the port that has a
 * base GID, and an entry of a port's P_Key table. 0 on success, and nothing is stored otherwise.
 * Context: any; they do not sleep. */
int port_num2base_gid(gx_hca_h_t hca, u8 port, gx_gid_t* gid) PLATFORM_LINK(port_num2base_gid);
int port_num2base_lid(gx_hca_h_t hca, u8 port, gx_lid_t* lid) PLATFORM_LINK(port_num2base_lid);
int base_gid2port_num(gx_hca_h_t hca, const gx_gid_t* gid, int* port)
    PLATFORM_LINK(base_gid2port_num);
int pkey_index2pkey(gx_hca_h_t hca, u8 port, int index, gx_p_key_t* pkey)
    PLATFORM_LINK(pkey_index2pkey);
