// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * What the kernel's module loader sees of tarv: parameters, exported symbols, beginning and end.
 */
#include <linux/init.h>
#include <linux/module.h>
#include <linux/moduleparam.h>

#include "kernel/include/tarv_client.h"
#include "kernel/seam/calls.h"

/* The module's; variables of C++ have the names that they are given. */
extern const module_info_t tarv_module;
extern unsigned long arp_cache_timeout_sec;
extern u8 tarv_is_mode_redundant;

/* A value out of range is as wrong as one that is no number. */
static int set_ulong(const char *text, const struct kernel_param *param)
{
	return param_set_ulong(text, param) ? -EINVAL : 0;
}

static int set_byte(const char *text, const struct kernel_param *param)
{
	return param_set_byte(text, param) ? -EINVAL : 0;
}

static const struct kernel_param_ops ulong_at_load = { .set = set_ulong };
static const struct kernel_param_ops byte_at_load = { .set = set_byte };

module_param_cb(arp_cache_timeout_sec, &ulong_at_load, &arp_cache_timeout_sec, 0);
__MODULE_PARM_TYPE(arp_cache_timeout_sec, "ulong");
MODULE_PARM_DESC(arp_cache_timeout_sec,
		 "Idle time in seconds after which an entry that is not static is dropped (300)");

module_param_cb(tarv_is_mode_redundant, &byte_at_load, &tarv_is_mode_redundant, 0);
__MODULE_PARM_TYPE(tarv_is_mode_redundant, "byte");
MODULE_PARM_DESC(tarv_is_mode_redundant, "Accepted and not used (1)");

EXPORT_SYMBOL(tarv_get_ib_data);
EXPORT_SYMBOL(TARV_trace_level);
EXPORT_SYMBOL(TARV_log_rep_h);
EXPORT_SYMBOL_GPL(tarv_static_path_in_use);

struct module *plat_this_module(void)
{
	return THIS_MODULE;
}

static int __init tarv_frame_init(void)
{
	return tarv_module.init();
}

static void __exit tarv_frame_exit(void)
{
	tarv_module.exit();
}

module_init(tarv_frame_init);
module_exit(tarv_frame_exit);
MODULE_DESCRIPTION("IB_ARP repository module.");
MODULE_VERSION("1.21");
MODULE_LICENSE("Dual BSD/GPL");
