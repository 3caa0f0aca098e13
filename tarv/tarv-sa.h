// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The SA path client: a context for each port of the adapter, path queries, and their answers.
//
// A port's context is made on link up, refreshed when the subnet manager moves, taken down on link
// down, and released when the engine stops. Its datagram pool outlives a link down and serves the
// next set-up of the port. A query carries nothing of the request that caused it: answers are tied
// to requests by their destination GID.
//
// Locks: `tarv_sa_lock` guards the contexts. It is held while a datagram is taken from a pool and
// while it is posted, never across a call to the adapter or the registration with the GSI service.
#pragma once

#include "platform/atomic.h"
#include "platform/gsi.h"
#include "tarv/tarv.h"

/* Ports that there are records for, numbered from 1. */
inline constexpr int TARV_SA_MAX_PORTS = 8;

/* Called with the records of an answer (host form, at most 3, the caller's) and the number of the
 * local port on which it arrived. Receive context; must not sleep. */
using tarv_sa_new_path_cb_t = void (*)(ib_path_record_v2_t* paths, int path_count,
                                       u32 local_port_num);

/* Query datagrams that were posted and whose send has not completed. */
extern atomic_t tarv_gsi_pending_cnt;

/* Makes the client ready, with no port set up. Process context; nobody else is at it. */
void tarv_sa_start();

/* Sets a port's context up; answers go to `new_path_cb` from now on, for all ports, also when the
 * set-up fails. tarv_stat_error when the port is set up already, or cannot be: without a GID or a
 * P_Key, for one. Event context. */
tarv_stat_t tarv_sa_init(tarv_sa_new_path_cb_t new_path_cb, int port_num);

/* Reads the port's subnet manager anew. tarv_stat_error when that fails or the port is not set up.
 */
tarv_stat_t tarv_sa_update_sa_info(int port_num);

/* Asks the adapter for the address of the port's subnet manager. Event context. */
tarv_stat_t tarv_sa_get_sa_info(int port_num, gx_lid_t* sm_lid, gx_service_level_t* sm_sl);

/* The GID that the port had when it was set up last, or was given since. False: it never was. No
 * lock; any context. */
bool tarv_sa_known_gid(int port_num, gx_gid_t* gid);

/* Takes a port's context down, keeping its pool; waits until the GSI service lets go. Event
 * context. */
void tarv_sa_destroy(int port_num);

/* Takes all contexts down and destroys their pools. Process context. */
void tarv_sa_cleanup();

/* Overrides the GIDs of ports 1 and 2 (null: left alone), or their P_Keys, until the next set-up of
 * the port. Process context; no lock. Always tarv_stat_ok. */
tarv_stat_t tarv_sa_set_local_gids(gx_gid_t* gid_port1, gx_gid_t* gid_port2);
tarv_stat_t tarv_sa_set_local_pkeys(gx_p_key_t pkey_port1, gx_p_key_t pkey_port2);

/* Prints counters and contexts to the console. Process context; no lock. */
void tarv_sa_show_stat();

/* Sends, on local port `port_num`, a query for paths from the host's valid ports to `*dst_gid`.
 * tarv_stat_ok when it is on its way. Any context; never sleeps; no lock held. */
tarv_stat_t tarv_sa_query_path(u32 port_num, gx_gid_t* dst_gid);

/* A step of it: takes a datagram from the port's pool and builds in it the query for `sgid_count`
 * source GIDs followed by `dgid_count` destination GIDs. On tarv_stat_ok the datagram is the
 * caller's. */
tarv_stat_t tarv_sa_build_multi_path_rec_query_mad(u32 port_num, int sgid_count, int dgid_count,
                                                   gx_gid_t* sd_gids, gsi_dtgrm_t** dtgrm);

/* Completions of the GSI service; `context` is the port number. */
void tarv_sa_send_done_cb(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);
void tarv_sa_recv_done_cb(gsi_class_handle_t handle, void* context, gsi_dtgrm_t* dtgrm);

/* Checks an answer and converts its records into `new_path`; `*path_count` comes in as the room
 * there and goes out as their number. tarv_stat_error for what is to be dropped. */
tarv_stat_t tarv_sa_parse_path_rec_query_mad_reply(gsi_dtgrm_t* dtgrm,
                                                   ib_path_record_v2_t* new_path, int* path_count);
