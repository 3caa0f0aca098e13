/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * tarv for other modules of the kernel: what it exports.
 *
 * A module that links against these depends on tarv: it is loaded after it and removed before it.
 * One that has to do without finds the functions by name (inter_module.h).
 */
#ifndef TARV_CLIENT_H
#define TARV_CLIENT_H

#include "tarv_record.h"

/* Ends a pending request, once. Any context, no lock held; must not sleep. `record` is given with
 * tarv_stat_ok only and is valid during the call. */
typedef void (*tarv_get_ib_data_reply_fn_t)(tarv_stat_t status, tarv_arp_data_t *record,
					    void *context);

/* The driver's: sends an ARP request; tells about the interface that serves an address. Any
 * context, no lock held; must not sleep. */
typedef tarv_stat_t (*send_arp_data_fn_t)(tarv_arp_data_t *record, void *context, int media_reset);
typedef tarv_stat_t (*get_if_info_fn_t)(u32 ip, gx_p_key_t *pkey, u32 *unused, int *scratch,
					int *loopback);

/* The module's functions as they are found by name (inter_module.h): "tarv_get_ib_data_fn" and so
 * on, the name of the type without its ending. */
typedef tarv_stat_t tarv_get_ib_data_fn_t(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
					  tarv_arp_data_t *arp_data,
					  tarv_get_ib_data_reply_fn_t rep_cb, void *context,
					  u8 bInvalidate);
typedef tarv_stat_t tarv_process_arp_data_fn_t(tarv_arp_data_t *arp_data);
typedef tarv_stat_t tarv_attach_fn_t(get_if_info_fn_t get_if_info_fn,
				     send_arp_data_fn_t send_arp_data_fn, void *context,
				     void **handle);
typedef tarv_stat_t tarv_detach_fn_t(void *handle);
typedef tarv_stat_t tarv_seq_cache_lookup_fn_t(gx_gid_t *gid, tarv_arp_data_t *out);

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Asks for the InfiniBand address of `req_ip`, with `path_records_count` paths. The record is
 * filled at once with tarv_stat_ok; with tarv_stat_pending `rep_cb` is called, once, possibly
 * before this returns. A null `rep_cb` asks the cache alone. Nonzero `bInvalidate`: what the cache
 * holds is thrown away first.
 *
 * Any context, also with interrupts disabled; never sleeps; no spin lock held.
 */
tarv_stat_t tarv_get_ib_data(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
			     tarv_arp_data_t *arp_data, tarv_get_ib_data_reply_fn_t rep_cb,
			     void *context, u8 bInvalidate);

/*
 * Whether a peer's path is made from the static one for the time being: from the LID in its record,
 * and not by asking the SA. For the driver. Any context.
 */
bool tarv_static_path_in_use(void);

#ifdef __cplusplus
}
#endif

/* The module's trace level, and the repository's handle by which it follows its key. */
extern int TARV_trace_level;
extern struct rep_notification *TARV_log_rep_h;

#endif
