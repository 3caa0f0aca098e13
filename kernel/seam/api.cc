// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the module has for other modules, under names that C can write down.
#include "platform/atomic.h"
#include "tarv/tarv-api.h"

extern "C" tarv_stat_t tarv_get_ib_data_for_c(u32 req_ip, u32 src_ip,
					      tarv_paths_t path_records_count,
					      tarv_arp_data_t *arp_data,
					      tarv_get_ib_data_reply_fn_t rep_cb, void *context,
					      u8 bInvalidate) __asm__("tarv_get_ib_data");

extern "C" tarv_stat_t tarv_get_ib_data_for_c(u32 req_ip, u32 src_ip,
					      tarv_paths_t path_records_count,
					      tarv_arp_data_t *arp_data,
					      tarv_get_ib_data_reply_fn_t rep_cb, void *context,
					      u8 bInvalidate)
{
	return tarv_get_ib_data(req_ip, src_ip, path_records_count, arp_data, rep_cb, context,
				bInvalidate);
}

extern "C" bool tarv_static_path_in_use()
{
	return !read_once(sa_queries_enabled);
}
