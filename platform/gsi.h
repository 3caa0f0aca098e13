// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The General Services Interface: management datagrams (MADs) to and from queue pair 1 of a port.
//
// The service owns the common MAD header on the wire. Between it and the module the header's
// attribute ID, transaction ID and attribute modifier are host-order integers; the service converts
// them, assigns transaction IDs, and leaves `status` in network order. It runs RMPP: a request's
// RMPP data block is segmented and sent behind the MAD's headers, an answer's segments are
// reassembled.
//
// A datagram belongs to its pool, to the module (from get to put or post, and inside a completion
// callback until it is put), or to the service (from a successful post to the send completion).
#pragma once

#include "platform/types.h"
#include "platform/verbs.h"

/* The record in which a MAD travels. The module fills the address and the MAD and reads both in
 * what it receives; the rest is the service's. Packed: the layout is part of the interface. */
struct [[gnu::packed]] gsi_dtgrm_t {
    u8 priv[104];  // private to the service
    u8 mad[256];   // the MAD
    u8 cache_pad[24];
    void* rmpp_payload;          // attached RMPP data block
    u32 rmpp_payload_size;       // its size in bytes
    void* rmpp_context;          // the service's RMPP state
    u32 rmpp_dir_switch_needed;  // nonzero: the transfer turns round once the request is sent
    gx_qp_t rqp;                 // remote queue pair
    gx_q_key_t rqk;              // remote Q_Key; 0: the service's own
    gx_lid_t rlid;               // remote LID
    gx_service_level_t sl;
    u32 pkey_idx;    // P_Key index
    gx_guid_t guid;  // remote GUID
    u8 path_bits;    // source path bits
    u8 static_rate;
    u8 is_marked_for_release;
    u8 is_in_use;
};

static_assert(sizeof(gsi_dtgrm_t) == 435);
static_assert(offsetof(gsi_dtgrm_t, mad) == 104);
static_assert(offsetof(gsi_dtgrm_t, rmpp_payload) == 384);
static_assert(offsetof(gsi_dtgrm_t, rmpp_payload_size) == 392);
static_assert(offsetof(gsi_dtgrm_t, rmpp_context) == 396);
static_assert(offsetof(gsi_dtgrm_t, rmpp_dir_switch_needed) == 404);
static_assert(offsetof(gsi_dtgrm_t, rqp) == 408);
static_assert(offsetof(gsi_dtgrm_t, rqk) == 412);
static_assert(offsetof(gsi_dtgrm_t, rlid) == 416);
static_assert(offsetof(gsi_dtgrm_t, sl) == 418);
static_assert(offsetof(gsi_dtgrm_t, pkey_idx) == 419);
static_assert(offsetof(gsi_dtgrm_t, guid) == 423);
static_assert(offsetof(gsi_dtgrm_t, path_bits) == 431);
static_assert(offsetof(gsi_dtgrm_t, static_rate) == 432);
static_assert(offsetof(gsi_dtgrm_t, is_marked_for_release) == 433);
static_assert(offsetof(gsi_dtgrm_t, is_in_use) == 434);

struct gsi_class;
using gsi_class_handle_t = gsi_class*;
struct gsi_dtgrm_pool;
using gsi_dtgrm_pool_handle_t = gsi_dtgrm_pool*;

/* A completion: `context` is the one given at registration. Receive context, no lock held. The
 * callee gives the datagram back with gsi_dtgrm_pool_put. */
using gsi_dtgrm_cb_t = void(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);

/* Registers for a management class on a port of an adapter. `is_server` nonzero: unsolicited
 * requests of the class are wanted too; `uses_rmpp` nonzero: the service runs RMPP for the class. 0
 * on success. Context: process, event. */
int gsi_register_class(u8 mgt_class, u8 class_ver, const char* hca_name, u8 port, int is_server,
                       int uses_rmpp, gsi_dtgrm_cb_t* send_done, gsi_dtgrm_cb_t* recv_done,
                       void* context, gsi_class_handle_t* handle) PLATFORM_LINK(gsi_register_class);

/* Ends a registration. Nonzero: datagrams of the class are still in flight or a completion is
 * running; nothing was done, call again. After 0 no completion is called. Context: process, event.
 */
int gsi_deregister_class(gsi_class_handle_t handle) PLATFORM_LINK(gsi_deregister_class);

/* Makes a pool of `count` datagrams; `name` stays valid. 0 on success. Context: process, event. */
int gsi_dtgrm_pool_create_named(u32 count, gsi_dtgrm_pool_handle_t* pool, const char* name)
    PLATFORM_LINK(gsi_dtgrm_pool_create_named);

/* Destroys a pool into which every datagram has come back. Context: process, event. */
void gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t pool) PLATFORM_LINK(gsi_dtgrm_pool_destroy);

/* Takes a datagram, with undefined contents, out of a pool. 0 on success. Context: any. */
int gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm)
    PLATFORM_LINK(gsi_dtgrm_pool_get);

/* Gives a datagram, with all that is attached to it, back to its pool. Context: any. */
void gsi_dtgrm_pool_put(gsi_dtgrm_t* dtgrm) PLATFORM_LINK(gsi_dtgrm_pool_put);

/* Attaches a zero-filled RMPP data block of `size` bytes and returns it; null: no memory.
 * Context: any; no spin lock held. */
void* gsi_dtgrm_alloc_rmpp_buf(gsi_dtgrm_t* dtgrm, u32 size)
    PLATFORM_LINK(gsi_dtgrm_alloc_rmpp_buf);

/* Of a received datagram: the reassembled RMPP data block (from MAD offset 36 on), or null when the
 * answer came in one MAD. `*paysize`: in both cases the bytes of SA header and data, counted from
 * MAD offset 36. Context: receive. */
void* gsi_dtgrm_get_rmpp_buf(gsi_dtgrm_t* dtgrm, int* paysize)
    PLATFORM_LINK(gsi_dtgrm_get_rmpp_buf);

/* Sends the datagram. 0: it is the service's until the send completion; otherwise it is still the
 * caller's. Never completes from inside the call. Context: any; a spin lock may be held. */
int gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm)
    PLATFORM_LINK(gsi_post_send_dtgrm);
