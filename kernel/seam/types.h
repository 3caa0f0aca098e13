/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * The data of the waist (platform/) as C sees them. platform/ is C++ and takes names that the
 * kernel has for itself, so no C file can include it: where the names differ, those here have the
 * prefix plat_. What each thing means is told in platform/; kernel/seam/compare.cc holds the two
 * together.
 */
#ifndef KERNEL_SEAM_TYPES_H
#define KERNEL_SEAM_TYPES_H

#include "kernel/include/tarv_record.h"

/* The kernel's, or in C++ the waist's, not the mirror's own. */
#ifndef __cplusplus
struct file;
struct module;
#endif

/* memory.h */
typedef enum plat_gfp_t {
	PLAT_GFP_ATOMIC = 0x20,
	PLAT_GFP_KERNEL = 0xD0,
} plat_gfp_t;

/* spinlock.h, semaphore.h, timer.h */
struct plat_spinlock {
	unsigned char room[192];
} __attribute__((aligned(64)));

struct plat_rwlock {
	unsigned char room[192];
} __attribute__((aligned(64)));

struct plat_semaphore {
	unsigned char room[128];
} __attribute__((aligned(64)));

struct plat_timer {
	unsigned long expires;
	void (*function)(unsigned long data);
	unsigned long data;
	unsigned char room[128] __attribute__((aligned(16)));
};

#define PLAT_HZ 1000

/* module.h */

enum {
	module_param_byte,
	module_param_ulong,
};

typedef struct module_param_t {
	const char *name;
	u8 type;
	void *variable;
	u16 permissions;
} module_param_t;

typedef struct module_export_t {
	const char *name;
	const void *address;
} module_export_t;

typedef struct module_info_t {
	const char *name;
	const char *description;
	const char *depends;
	const char *vermagic;
	int (*init)(void);
	void (*exit)(void);
	const module_param_t *params;
	u32 param_count;
	const module_export_t *exports;
	u32 export_count;
} module_info_t;

/* proc.h */
typedef int read_proc_t(char *page, char **start, long off, int count, int *eof, void *data);
typedef int write_proc_t(struct file *file, const char *buffer, unsigned long count, void *data);

struct plat_proc_entry {
	u16 mode;
	void *data;
	read_proc_t *read_proc;
	write_proc_t *write_proc;
	struct module *owner;
};

/* repository.h */
struct rep_key;
struct rep_notification;
typedef struct rep_key *rep_key_t;
typedef struct rep_notification *rep_notify_t;

/* verbs.h */
typedef enum gx_return_t {
	gx_return_ok = 0,
	gx_return_error = -1,
	gx_return_again = -2,
	gx_return_invalid_param = -3,
	gx_return_not_found = -4,
} gx_return_t;

enum {
	gx_port_state_down = 1,
	gx_port_state_init = 2,
	gx_port_state_armed = 3,
	gx_port_state_active = 4,
};

typedef struct gx_sm_address_info_t {
	u8 port_num;
	gx_lid_t sm_lid;
	u8 service_level;
} gx_sm_address_info_t;

typedef struct gx_hca_attrib_t {
	u64 guid;
	u32 port_num;
} gx_hca_attrib_t;

typedef struct gx_port_attrib_t {
	u8 port_num;
	u8 port_state;
	u8 port_mtu;
	u8 port_lmc;
	gx_lid_t port_base_lid;
	u32 port_sgid_table_size;
	u32 port_pkey_table_size;
	gx_sm_address_info_t port_sma_address_info;
} gx_port_attrib_t;

typedef struct gx_hca_t {
	const struct gx_hca_ops_t *operations;
	void *context;
} gx_hca_t;
typedef gx_hca_t *gx_hca_h_t;

enum {
	gx_async_r_port_mtu = 0x1000,
	gx_async_r_port_lid = 0x2000,
	gx_async_r_port_link_up = 0x10000,
	gx_async_r_port_link_down = 0x20000,
	gx_async_r_port_sm_change = 0x40000,
};

typedef struct gx_event_record_t {
	u32 event_type;
	u8 port_num;
} gx_event_record_t;

enum {
	gx_async_even_all = 16,
};

typedef struct gx_request_event_record_t {
	u32 req_event_type;
	void *handle;
} gx_request_event_record_t;

/* gsi.h */
typedef struct gsi_dtgrm_t {
	u8 priv[104];
	u8 mad[256];
	u8 cache_pad[24];
	void *rmpp_payload;
	u32 rmpp_payload_size;
	void *rmpp_context;
	u32 rmpp_dir_switch_needed;
	u32 rqp;
	u32 rqk;
	gx_lid_t rlid;
	u8 sl;
	u32 pkey_idx;
	u64 guid;
	u8 path_bits;
	u8 static_rate;
	u8 is_marked_for_release;
	u8 is_in_use;
} __attribute__((packed)) gsi_dtgrm_t;

struct gsi_class;
struct gsi_dtgrm_pool;
typedef struct gsi_class *gsi_class_handle_t;
typedef struct gsi_dtgrm_pool *gsi_dtgrm_pool_handle_t;

#endif
