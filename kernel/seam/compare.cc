// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Holds the C mirror of the waist and of the record to the C++ that it mirrors: sizes, offsets,
// values and the types of all calls. It makes no code. The ordinary build compiles it, so that
// nobody who changes a header of the waist has to build for a kernel to learn what else has to
// change.
#include "platform/bug.h"
#include "platform/gsi.h"
#include "platform/jiffies.h"
#include "platform/logger.h"
#include "platform/memory.h"
#include "platform/module.h"
#include "platform/printk.h"
#include "platform/proc.h"
#include "platform/repository.h"
#include "platform/semaphore.h"
#include "platform/spinlock.h"
#include "platform/string.h"
#include "platform/timer.h"
#include "platform/types.h"
#include "platform/uaccess.h"
#include "platform/verbs.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv.h"

// The mirror's own types, compared by their layout, under the waist's names.
namespace mirror
{
#include "kernel/seam/types.h"
using gfp_t = plat_gfp_t;
using spinlock_t = plat_spinlock;
using rwlock_t = plat_rwlock;
using semaphore = plat_semaphore;
using timer_list = plat_timer;
using proc_dir_entry = plat_proc_entry;
} // namespace mirror

// The mirror's calls, with the waist's types in place of the mirror's, compared by their types.
namespace calls
{
#define plat_gfp_t gfp_t
#define plat_spinlock spinlock_t
#define plat_rwlock rwlock_t
#define plat_semaphore semaphore
#define plat_timer timer_list
#define plat_proc_entry proc_dir_entry
#include "kernel/include/tarv_client.h"
#include "kernel/seam/calls.h"
#undef plat_gfp_t
#undef plat_spinlock
#undef plat_rwlock
#undef plat_semaphore
#undef plat_timer
#undef plat_proc_entry
} // namespace calls

namespace
{

// EACH(WHAT, WITH, NAME...): WHAT(WITH, NAME); for each name. A name takes one more scan, of which
// there are some 80.
#define EACH(what, with, ...) __VA_OPT__(SCAN(EACH_ONE(what, with, __VA_ARGS__)))
#define EACH_ONE(what, with, name, ...) \
	what(with, name);               \
	__VA_OPT__(EACH_LATER NOTHING()()(what, with, __VA_ARGS__))
#define EACH_LATER() EACH_ONE
#define NOTHING()
#define SCAN(...) SCAN_16(SCAN_16(SCAN_16(SCAN_16(__VA_ARGS__))))
#define SCAN_16(...) SCAN_4(SCAN_4(SCAN_4(SCAN_4(__VA_ARGS__))))
#define SCAN_4(...) SCAN_1(SCAN_1(SCAN_1(SCAN_1(__VA_ARGS__))))
#define SCAN_1(...) __VA_ARGS__

#define SAME_TYPE(type)                                                 \
	static_assert(sizeof(mirror::type) == sizeof(::type) &&         \
			      alignof(mirror::type) == alignof(::type), \
		      #type " has another size or alignment")
#define SAME_FIELD(type, field)                                                     \
	static_assert(offsetof(mirror::type, field) == offsetof(::type, field) &&   \
			      sizeof(mirror::type::field) == sizeof(::type::field), \
		      #type "::" #field " is elsewhere or has another size")
#define SAME_STRUCT(type, ...) \
	SAME_TYPE(type);       \
	EACH(SAME_FIELD, type, __VA_ARGS__)
#define SAME_VALUE(of, name) \
	static_assert(static_cast<long>(mirror::name) == static_cast<long>(::name), #name)
#define SAME_VALUES(...) EACH(SAME_VALUE, , __VA_ARGS__)
#define SAME_CALL(c, cxx) \
	static_assert(__is_same(decltype(calls::c), decltype(::cxx)), #c " differs from " #cxx)
#define SAME_BUT_FOR(prefix, name) SAME_CALL(prefix##name, name)
#define SAME_CALLS(...) EACH(SAME_BUT_FOR, plat_, __VA_ARGS__)
#define SAME_FUNCTION(space, type, field)                                               \
	static_assert(__is_same(decltype(space::type::field), decltype(::type::field)), \
		      #type "::" #field " differs")
#define SAME_FUNCTION_TYPE(of, type) static_assert(__is_same(calls::type, ::type), #type " differs")
#define SAME_FUNCTION_TYPES(...) EACH(SAME_FUNCTION_TYPE, , __VA_ARGS__)

// memory.h, spinlock.h, semaphore.h, timer.h, jiffies.h
SAME_TYPE(gfp_t);
static_assert(mirror::PLAT_GFP_ATOMIC == int{ GFP_ATOMIC } &&
	      mirror::PLAT_GFP_KERNEL == int{ GFP_KERNEL });
SAME_TYPE(spinlock_t);
SAME_TYPE(rwlock_t);
SAME_TYPE(semaphore);
SAME_STRUCT(timer_list, expires, function, data, room);
SAME_FUNCTION(mirror, timer_list, function);
static_assert(PLAT_HZ == HZ);

// module.h
SAME_VALUES(module_param_byte, module_param_ulong);
SAME_STRUCT(module_param_t, name, type, variable, permissions);
SAME_STRUCT(module_export_t, name, address);
SAME_STRUCT(module_info_t, name, description, depends, vermagic, init, exit, params, param_count,
	    exports, export_count);
SAME_FUNCTION(mirror, module_info_t, init);
SAME_FUNCTION(mirror, module_info_t, exit);

// proc.h
SAME_STRUCT(proc_dir_entry, mode, data, read_proc, write_proc, owner);
SAME_FUNCTION(mirror, proc_dir_entry, read_proc);
SAME_FUNCTION(mirror, proc_dir_entry, write_proc);

// verbs.h
SAME_TYPE(gx_gid_t);
SAME_TYPE(gx_return_t);
SAME_VALUES(gx_return_ok, gx_return_error, gx_return_again, gx_return_invalid_param,
	    gx_return_not_found);
SAME_VALUES(gx_port_state_down, gx_port_state_init, gx_port_state_armed, gx_port_state_active);
SAME_STRUCT(gx_sm_address_info_t, port_num, sm_lid, service_level);
SAME_STRUCT(gx_hca_attrib_t, guid, port_num);
SAME_STRUCT(gx_port_attrib_t, port_num, port_state, port_mtu, port_lmc, port_base_lid,
	    port_sgid_table_size, port_pkey_table_size, port_sma_address_info);
SAME_STRUCT(gx_hca_t, operations, context);
SAME_VALUES(gx_async_r_port_mtu, gx_async_r_port_lid, gx_async_r_port_link_up,
	    gx_async_r_port_link_down, gx_async_r_port_sm_change, gx_async_even_all);
SAME_STRUCT(gx_event_record_t, event_type, port_num);
SAME_STRUCT(gx_request_event_record_t, req_event_type, handle);

// gsi.h
SAME_STRUCT(gsi_dtgrm_t, priv, mad, rmpp_payload, rmpp_payload_size, rmpp_context,
	    rmpp_dir_switch_needed, rqp, rqk, rlid, sl, pkey_idx, guid, path_bits, static_rate,
	    is_marked_for_release, is_in_use);

// tarv.h, sa-mads.h
SAME_STRUCT(ib_path_record_v2_t, dgid, sgid, dlid, slid, flow_word, traffic_class, pkey, sl_word,
	    preference, reserved2);
SAME_TYPE(tarv_stat_t);
SAME_VALUES(tarv_stat_ok, tarv_stat_pending, tarv_stat_timeout, tarv_stat_error,
	    tarv_stat_not_found);
SAME_TYPE(tarv_paths_t);
SAME_VALUES(tarv_paths_none, tarv_paths_primary, tarv_paths_both);
SAME_VALUES(TARV_MASK_SRC_IP, TARV_MASK_DST_IP, TARV_MASK_GID, TARV_MASK_QPN, TARV_MASK_LID,
	    TARV_MASK_QKEY, TARV_MASK_CAP_FLG, TARV_MASK_PRIMARY_PATH, TARV_MASK_SECONDARY_PATH,
	    TARV_MASK_LOCAL_PORT, TARV_MASK_ARP_OP, TARV_MASK_STATIC);
SAME_VALUES(TARV_ARP_OP_REQUEST, TARV_ARP_OP_REPLY);
SAME_STRUCT(tarv_arp_data_t, mask, arp_operation, src_ip, dst_ip, gid, qpn, cap_flg, lid, qkey,
	    primary_path, secondary_path, local_port_num, paths_count, paths, context);

// All calls, and the functions that are handed about.
static_assert(sizeof(calls::gx_hca_ops_t) == sizeof(::gx_hca_ops_t));
static_assert(offsetof(calls::gx_hca_ops_t, query_port) == offsetof(::gx_hca_ops_t, query_port));
static_assert(offsetof(calls::gx_hca_ops_t, get_port_gid_tbl) ==
	      offsetof(::gx_hca_ops_t, get_port_gid_tbl));
SAME_FUNCTION(calls, gx_hca_ops_t, modify_hca);
SAME_FUNCTION(calls, gx_hca_ops_t, query_hca);
SAME_FUNCTION(calls, gx_hca_ops_t, query_port);
SAME_FUNCTION(calls, gx_hca_ops_t, get_port_gid_tbl);
SAME_FUNCTION(calls, gx_hca_ops_t, get_port_partition_tbl);
SAME_FUNCTION_TYPES(rep_change_cb_t, gx_sleepable_async_event_cb_t, gsi_dtgrm_cb_t,
		    tarv_get_ib_data_reply_fn_t, send_arp_data_fn_t, get_if_info_fn_t,
		    tarv_get_ib_data_fn_t, tarv_process_arp_data_fn_t, tarv_attach_fn_t,
		    tarv_detach_fn_t, tarv_seq_cache_lookup_fn_t);
SAME_CALLS(jiffies, kmalloc, kfree, printk, simple_strtoul, copy_from_user, bug);
SAME_CALL(plat_strcmp, kstrcmp);
SAME_CALL(plat_strlen, kstrlen);
SAME_CALL(plat_strsep, kstrsep);
SAME_CALL(plat_isspace, kisspace);
SAME_CALL(plat_snprintf, ksnprintf);
SAME_CALLS(spin_lock_init, rwlock_init, spin_lock_irqsave, read_lock_irqsave, write_lock_irqsave,
	   spin_unlock_irqrestore, read_unlock_irqrestore, write_unlock_irqrestore, spin_is_held,
	   read_is_held, write_is_held, sema_init, down, up, schedule);
SAME_CALLS(init_timing, add_timing, del_timing_sync);
SAME_CALLS(this_module, inter_module_register, inter_module_unregister);
SAME_CALLS(create_proc_entry, proc_mkdir, remove_proc_entry);
SAME_CALLS(rep_get_root, rep_open_key, rep_get_value, rep_notify_key_change, rep_close_key,
	   rep_notify_del, logger_trace_level, trace_lvl_change_cb);
SAME_CALLS(gx_default_hca_name, gx_hca_open, gx_hca_close, gx_set_sleepable_async_event_cb,
	   gx_dell_sleepable_async_event_cb, port_num2base_gid, port_num2base_lid,
	   base_gid2port_num, pkey_index2pkey);
SAME_CALLS(gsi_register_class, gsi_deregister_class, gsi_dtgrm_pool_create_named,
	   gsi_dtgrm_pool_destroy, gsi_dtgrm_pool_get, gsi_dtgrm_pool_put, gsi_dtgrm_alloc_rmpp_buf,
	   gsi_dtgrm_get_rmpp_buf, gsi_post_send_dtgrm);
SAME_CALL(tarv_get_ib_data, tarv_get_ib_data);
SAME_CALL(TARV_trace_level, TARV_trace_level);
SAME_CALL(TARV_log_rep_h, TARV_log_rep_h);

} // namespace
