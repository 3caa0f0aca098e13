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

// The mirror's own types, compared by their layout.
namespace mirror
{
#include "kernel/seam/types.h"
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

#define SAME_TYPE(c, cxx)                                                          \
	static_assert(sizeof(mirror::c) == sizeof(::cxx), #c " has another size"); \
	static_assert(alignof(mirror::c) == alignof(::cxx), #c " has another alignment")
#define SAME_FIELD(c, cxx, field)                                               \
	static_assert(offsetof(mirror::c, field) == offsetof(::cxx, field) &&   \
			      sizeof(mirror::c::field) == sizeof(::cxx::field), \
		      #c "::" #field " is elsewhere or has another size")
#define SAME_VALUE(name) \
	static_assert(static_cast<long>(mirror::name) == static_cast<long>(::name), #name)
#define SAME_CALL(c, cxx) \
	static_assert(__is_same(decltype(calls::c), decltype(::cxx)), #c " differs from " #cxx)
#define SAME_FUNCTION(c, cxx, field)                                       \
	static_assert(__is_same(decltype(c::field), decltype(cxx::field)), \
		      #cxx "::" #field " differs")
#define SAME_FUNCTION_TYPE(type) static_assert(__is_same(calls::type, ::type), #type " differs")

// memory.h, spinlock.h, semaphore.h, timer.h, jiffies.h
SAME_TYPE(plat_gfp_t, gfp_t);
static_assert(mirror::PLAT_GFP_ATOMIC == int{ GFP_ATOMIC } &&
	      mirror::PLAT_GFP_KERNEL == int{ GFP_KERNEL });
SAME_TYPE(plat_spinlock, spinlock_t);
SAME_TYPE(plat_rwlock, rwlock_t);
SAME_TYPE(plat_semaphore, semaphore);
SAME_TYPE(plat_timer, timer_list);
SAME_FIELD(plat_timer, timer_list, expires);
SAME_FIELD(plat_timer, timer_list, function);
SAME_FUNCTION(mirror::plat_timer, ::timer_list, function);
SAME_FIELD(plat_timer, timer_list, data);
SAME_FIELD(plat_timer, timer_list, room);
static_assert(PLAT_HZ == HZ);

// module.h
SAME_VALUE(module_param_byte);
SAME_VALUE(module_param_ulong);
SAME_TYPE(module_param_t, module_param_t);
SAME_FIELD(module_param_t, module_param_t, name);
SAME_FIELD(module_param_t, module_param_t, type);
SAME_FIELD(module_param_t, module_param_t, variable);
SAME_FIELD(module_param_t, module_param_t, permissions);
SAME_TYPE(module_export_t, module_export_t);
SAME_FIELD(module_export_t, module_export_t, name);
SAME_FIELD(module_export_t, module_export_t, address);
SAME_TYPE(module_info_t, module_info_t);
SAME_FIELD(module_info_t, module_info_t, name);
SAME_FIELD(module_info_t, module_info_t, description);
SAME_FIELD(module_info_t, module_info_t, depends);
SAME_FIELD(module_info_t, module_info_t, vermagic);
SAME_FIELD(module_info_t, module_info_t, init);
SAME_FIELD(module_info_t, module_info_t, exit);
SAME_FUNCTION(mirror::module_info_t, ::module_info_t, init);
SAME_FUNCTION(mirror::module_info_t, ::module_info_t, exit);
SAME_FIELD(module_info_t, module_info_t, params);
SAME_FIELD(module_info_t, module_info_t, param_count);
SAME_FIELD(module_info_t, module_info_t, exports);
SAME_FIELD(module_info_t, module_info_t, export_count);

// proc.h
SAME_TYPE(plat_proc_entry, proc_dir_entry);
SAME_FIELD(plat_proc_entry, proc_dir_entry, mode);
SAME_FIELD(plat_proc_entry, proc_dir_entry, data);
SAME_FIELD(plat_proc_entry, proc_dir_entry, read_proc);
SAME_FIELD(plat_proc_entry, proc_dir_entry, write_proc);
SAME_FIELD(plat_proc_entry, proc_dir_entry, owner);
SAME_FUNCTION(mirror::plat_proc_entry, ::proc_dir_entry, read_proc);
SAME_FUNCTION(mirror::plat_proc_entry, ::proc_dir_entry, write_proc);

// verbs.h
SAME_TYPE(gx_gid_t, gx_gid_t);
SAME_TYPE(gx_return_t, gx_return_t);
SAME_VALUE(gx_return_ok);
SAME_VALUE(gx_return_error);
SAME_VALUE(gx_return_again);
SAME_VALUE(gx_return_invalid_param);
SAME_VALUE(gx_return_not_found);
SAME_VALUE(gx_port_state_down);
SAME_VALUE(gx_port_state_init);
SAME_VALUE(gx_port_state_armed);
SAME_VALUE(gx_port_state_active);
SAME_TYPE(gx_sm_address_info_t, gx_sm_address_info_t);
SAME_FIELD(gx_sm_address_info_t, gx_sm_address_info_t, port_num);
SAME_FIELD(gx_sm_address_info_t, gx_sm_address_info_t, sm_lid);
SAME_FIELD(gx_sm_address_info_t, gx_sm_address_info_t, service_level);
SAME_TYPE(gx_hca_attrib_t, gx_hca_attrib_t);
SAME_FIELD(gx_hca_attrib_t, gx_hca_attrib_t, guid);
SAME_FIELD(gx_hca_attrib_t, gx_hca_attrib_t, port_num);
SAME_TYPE(gx_port_attrib_t, gx_port_attrib_t);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_num);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_state);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_mtu);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_lmc);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_base_lid);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_sgid_table_size);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_pkey_table_size);
SAME_FIELD(gx_port_attrib_t, gx_port_attrib_t, port_sma_address_info);
SAME_TYPE(gx_hca_t, gx_hca_t);
SAME_FIELD(gx_hca_t, gx_hca_t, operations);
SAME_FIELD(gx_hca_t, gx_hca_t, context);
SAME_VALUE(gx_async_r_port_mtu);
SAME_VALUE(gx_async_r_port_lid);
SAME_VALUE(gx_async_r_port_link_up);
SAME_VALUE(gx_async_r_port_link_down);
SAME_VALUE(gx_async_r_port_sm_change);
SAME_VALUE(gx_async_even_all);
SAME_TYPE(gx_event_record_t, gx_event_record_t);
SAME_FIELD(gx_event_record_t, gx_event_record_t, event_type);
SAME_FIELD(gx_event_record_t, gx_event_record_t, port_num);
SAME_TYPE(gx_request_event_record_t, gx_request_event_record_t);
SAME_FIELD(gx_request_event_record_t, gx_request_event_record_t, req_event_type);
SAME_FIELD(gx_request_event_record_t, gx_request_event_record_t, handle);

// gsi.h
SAME_TYPE(gsi_dtgrm_t, gsi_dtgrm_t);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, priv);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, mad);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rmpp_payload);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rmpp_payload_size);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rmpp_context);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rmpp_dir_switch_needed);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rqp);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rqk);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, rlid);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, sl);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, pkey_idx);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, guid);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, path_bits);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, static_rate);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, is_marked_for_release);
SAME_FIELD(gsi_dtgrm_t, gsi_dtgrm_t, is_in_use);

// tarv.h, sa-mads.h
SAME_TYPE(ib_path_record_v2_t, ib_path_record_v2_t);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, dgid);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, sgid);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, dlid);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, slid);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, flow_word);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, traffic_class);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, pkey);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, sl_word);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, preference);
SAME_FIELD(ib_path_record_v2_t, ib_path_record_v2_t, reserved2);
SAME_VALUE(tarv_stat_ok);
SAME_VALUE(tarv_stat_pending);
SAME_VALUE(tarv_stat_timeout);
SAME_VALUE(tarv_stat_error);
SAME_VALUE(tarv_stat_not_found);
SAME_TYPE(tarv_stat_t, tarv_stat_t);
SAME_VALUE(tarv_paths_none);
SAME_VALUE(tarv_paths_primary);
SAME_VALUE(tarv_paths_both);
SAME_TYPE(tarv_paths_t, tarv_paths_t);
SAME_VALUE(TARV_MASK_SRC_IP);
SAME_VALUE(TARV_MASK_DST_IP);
SAME_VALUE(TARV_MASK_GID);
SAME_VALUE(TARV_MASK_QPN);
SAME_VALUE(TARV_MASK_LID);
SAME_VALUE(TARV_MASK_QKEY);
SAME_VALUE(TARV_MASK_CAP_FLG);
SAME_VALUE(TARV_MASK_PRIMARY_PATH);
SAME_VALUE(TARV_MASK_SECONDARY_PATH);
SAME_VALUE(TARV_MASK_LOCAL_PORT);
SAME_VALUE(TARV_MASK_ARP_OP);
SAME_VALUE(TARV_MASK_STATIC);
SAME_VALUE(TARV_ARP_OP_REQUEST);
SAME_VALUE(TARV_ARP_OP_REPLY);
SAME_TYPE(tarv_arp_data_t, tarv_arp_data_t);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, mask);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, arp_operation);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, src_ip);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, dst_ip);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, gid);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, qpn);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, cap_flg);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, lid);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, qkey);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, primary_path);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, secondary_path);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, local_port_num);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, paths_count);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, paths);
SAME_FIELD(tarv_arp_data_t, tarv_arp_data_t, context);

// All calls, and the functions that are handed about.
static_assert(sizeof(calls::gx_hca_ops_t) == sizeof(::gx_hca_ops_t));
SAME_FUNCTION(calls::gx_hca_ops_t, ::gx_hca_ops_t, modify_hca);
SAME_FUNCTION(calls::gx_hca_ops_t, ::gx_hca_ops_t, query_hca);
SAME_FUNCTION(calls::gx_hca_ops_t, ::gx_hca_ops_t, query_port);
SAME_FUNCTION(calls::gx_hca_ops_t, ::gx_hca_ops_t, get_port_gid_tbl);
SAME_FUNCTION(calls::gx_hca_ops_t, ::gx_hca_ops_t, get_port_partition_tbl);
static_assert(offsetof(calls::gx_hca_ops_t, query_port) == offsetof(::gx_hca_ops_t, query_port));
static_assert(offsetof(calls::gx_hca_ops_t, get_port_gid_tbl) ==
	      offsetof(::gx_hca_ops_t, get_port_gid_tbl));
SAME_FUNCTION_TYPE(rep_change_cb_t);
SAME_FUNCTION_TYPE(gx_sleepable_async_event_cb_t);
SAME_FUNCTION_TYPE(gsi_dtgrm_cb_t);
SAME_FUNCTION_TYPE(tarv_get_ib_data_reply_fn_t);
SAME_FUNCTION_TYPE(send_arp_data_fn_t);
SAME_FUNCTION_TYPE(get_if_info_fn_t);
SAME_FUNCTION_TYPE(tarv_get_ib_data_fn_t);
SAME_FUNCTION_TYPE(tarv_process_arp_data_fn_t);
SAME_FUNCTION_TYPE(tarv_attach_fn_t);
SAME_FUNCTION_TYPE(tarv_detach_fn_t);
SAME_FUNCTION_TYPE(tarv_seq_cache_lookup_fn_t);
SAME_CALL(plat_jiffies, jiffies);
SAME_CALL(plat_kmalloc, kmalloc);
SAME_CALL(plat_kfree, kfree);
SAME_CALL(plat_printk, printk);
SAME_CALL(plat_strcmp, kstrcmp);
SAME_CALL(plat_strlen, kstrlen);
SAME_CALL(plat_strsep, kstrsep);
SAME_CALL(plat_simple_strtoul, simple_strtoul);
SAME_CALL(plat_isspace, kisspace);
SAME_CALL(plat_snprintf, ksnprintf);
SAME_CALL(plat_copy_from_user, copy_from_user);
SAME_CALL(plat_spin_lock_init, spin_lock_init);
SAME_CALL(plat_rwlock_init, rwlock_init);
SAME_CALL(plat_spin_lock_irqsave, spin_lock_irqsave);
SAME_CALL(plat_read_lock_irqsave, read_lock_irqsave);
SAME_CALL(plat_write_lock_irqsave, write_lock_irqsave);
SAME_CALL(plat_spin_unlock_irqrestore, spin_unlock_irqrestore);
SAME_CALL(plat_read_unlock_irqrestore, read_unlock_irqrestore);
SAME_CALL(plat_write_unlock_irqrestore, write_unlock_irqrestore);
SAME_CALL(plat_bug, bug);
SAME_CALL(plat_spin_is_held, spin_is_held);
SAME_CALL(plat_read_is_held, read_is_held);
SAME_CALL(plat_write_is_held, write_is_held);
SAME_CALL(plat_sema_init, sema_init);
SAME_CALL(plat_down, down);
SAME_CALL(plat_up, up);
SAME_CALL(plat_schedule, schedule);
SAME_CALL(plat_init_timing, init_timing);
SAME_CALL(plat_add_timing, add_timing);
SAME_CALL(plat_del_timing_sync, del_timing_sync);
SAME_CALL(plat_this_module, this_module);
SAME_CALL(plat_inter_module_register, inter_module_register);
SAME_CALL(plat_inter_module_unregister, inter_module_unregister);
SAME_CALL(plat_create_proc_entry, create_proc_entry);
SAME_CALL(plat_proc_mkdir, proc_mkdir);
SAME_CALL(plat_remove_proc_entry, remove_proc_entry);
SAME_CALL(plat_rep_get_root, rep_get_root);
SAME_CALL(plat_rep_open_key, rep_open_key);
SAME_CALL(plat_rep_get_value, rep_get_value);
SAME_CALL(plat_rep_notify_key_change, rep_notify_key_change);
SAME_CALL(plat_rep_close_key, rep_close_key);
SAME_CALL(plat_rep_notify_del, rep_notify_del);
SAME_CALL(plat_logger_trace_level, logger_trace_level);
SAME_CALL(plat_trace_lvl_change_cb, trace_lvl_change_cb);
SAME_CALL(plat_gx_default_hca_name, gx_default_hca_name);
SAME_CALL(plat_gx_hca_open, gx_hca_open);
SAME_CALL(plat_gx_hca_close, gx_hca_close);
SAME_CALL(plat_gx_set_sleepable_async_event_cb, gx_set_sleepable_async_event_cb);
SAME_CALL(plat_gx_dell_sleepable_async_event_cb, gx_dell_sleepable_async_event_cb);
SAME_CALL(plat_port_num2base_gid, port_num2base_gid);
SAME_CALL(plat_port_num2base_lid, port_num2base_lid);
SAME_CALL(plat_base_gid2port_num, base_gid2port_num);
SAME_CALL(plat_pkey_index2pkey, pkey_index2pkey);
SAME_CALL(plat_gsi_register_class, gsi_register_class);
SAME_CALL(plat_gsi_deregister_class, gsi_deregister_class);
SAME_CALL(plat_gsi_dtgrm_pool_create_named, gsi_dtgrm_pool_create_named);
SAME_CALL(plat_gsi_dtgrm_pool_destroy, gsi_dtgrm_pool_destroy);
SAME_CALL(plat_gsi_dtgrm_pool_get, gsi_dtgrm_pool_get);
SAME_CALL(plat_gsi_dtgrm_pool_put, gsi_dtgrm_pool_put);
SAME_CALL(plat_gsi_dtgrm_alloc_rmpp_buf, gsi_dtgrm_alloc_rmpp_buf);
SAME_CALL(plat_gsi_dtgrm_get_rmpp_buf, gsi_dtgrm_get_rmpp_buf);
SAME_CALL(plat_gsi_post_send_dtgrm, gsi_post_send_dtgrm);
SAME_CALL(tarv_get_ib_data, tarv_get_ib_data);
SAME_CALL(TARV_trace_level, TARV_trace_level);
SAME_CALL(TARV_log_rep_h, TARV_log_rep_h);

} // namespace
