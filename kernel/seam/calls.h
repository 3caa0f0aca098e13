/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * The calls of the waist under their link names. What each does, and from which contexts it may be
 * called, is told in platform/.
 */
#ifndef KERNEL_SEAM_CALLS_H
#define KERNEL_SEAM_CALLS_H

#include "kernel/seam/types.h"

#ifdef __cplusplus
#define PLAT_NORETURN [[noreturn]]
#else
#define PLAT_NORETURN __attribute__((noreturn))
#endif

/* jiffies.h, memory.h, printk.h, string.h, uaccess.h */
unsigned long plat_jiffies(void);
void *plat_kmalloc(size_t size, plat_gfp_t flags);
void plat_kfree(const void *memory);
int plat_printk(const char *format, ...) __attribute__((format(printf, 1, 2)));
int plat_strcmp(const char *a, const char *b);
size_t plat_strlen(const char *s);
char *plat_strsep(char **s, const char *separators);
unsigned long plat_simple_strtoul(const char *s, char **end, unsigned int base);
int plat_isspace(unsigned char c);
int plat_snprintf(char *buffer, size_t size, const char *format, ...)
	__attribute__((format(printf, 3, 4)));
unsigned long plat_copy_from_user(void *to, const void *from, unsigned long size);

/* bug.h */
PLAT_NORETURN void plat_bug(const char *expression, const char *file, u32 line);

/* spinlock.h */
void plat_spin_lock_init(struct plat_spinlock *lock, const char *name);
void plat_rwlock_init(struct plat_rwlock *lock, const char *name);
unsigned long plat_spin_lock_irqsave(struct plat_spinlock *lock);
unsigned long plat_read_lock_irqsave(struct plat_rwlock *lock);
unsigned long plat_write_lock_irqsave(struct plat_rwlock *lock);
void plat_spin_unlock_irqrestore(struct plat_spinlock *lock, unsigned long flags);
void plat_read_unlock_irqrestore(struct plat_rwlock *lock, unsigned long flags);
void plat_write_unlock_irqrestore(struct plat_rwlock *lock, unsigned long flags);
bool plat_spin_is_held(const struct plat_spinlock *lock);
bool plat_read_is_held(const struct plat_rwlock *lock);
bool plat_write_is_held(const struct plat_rwlock *lock);

/* semaphore.h */
void plat_sema_init(struct plat_semaphore *sem, int count, const char *name);
void plat_down(struct plat_semaphore *sem);
void plat_up(struct plat_semaphore *sem);
void plat_schedule(void);

/* timer.h */
void plat_init_timing(struct plat_timer *timer);
void plat_add_timing(struct plat_timer *timer);
int plat_del_timing_sync(struct plat_timer *timer);

/* module.h */
struct module *plat_this_module(void);
void plat_inter_module_register(const char *name, struct module *owner, const void *userdata);
void plat_inter_module_unregister(const char *name);

/* proc.h */
struct plat_proc_entry *plat_create_proc_entry(const char *name, u16 mode,
					       struct plat_proc_entry *parent);
struct plat_proc_entry *plat_proc_mkdir(const char *name, struct plat_proc_entry *parent);
void plat_remove_proc_entry(const char *name, struct plat_proc_entry *parent);

/* repository.h, logger.h */
typedef void rep_change_cb_t(rep_key_t key, u64 value, void *context);

rep_key_t plat_rep_get_root(void);
int plat_rep_open_key(rep_key_t root, const char *path, u32 flags, rep_key_t *key);
int plat_rep_get_value(rep_key_t key, const char *name, u32 flags, void *value, u32 *size);
int plat_rep_notify_key_change(rep_key_t key, u32 flags, u32 events, rep_change_cb_t *callback,
			       void *context, rep_notify_t *handle);
void plat_rep_close_key(rep_key_t key);
void plat_rep_notify_del(rep_notify_t handle);
extern int plat_logger_trace_level;
void plat_trace_lvl_change_cb(rep_key_t key, u64 value, void *context);

/* verbs.h */
typedef struct gx_hca_ops_t {
	gx_return_t (*modify_hca)(void *context);
	gx_return_t (*query_hca)(void *context, gx_hca_attrib_t *attributes);
	gx_return_t (*query_port)(void *context, u8 port, gx_port_attrib_t *attributes);
	gx_return_t (*get_port_gid_tbl)(void *context, u8 port, u32 *size, gx_gid_t *table);
	gx_return_t (*get_port_partition_tbl)(void *context, u8 port, u32 *size, gx_p_key_t *table);
} gx_hca_ops_t;

typedef void gx_sleepable_async_event_cb_t(gx_event_record_t event);

const char *plat_gx_default_hca_name(void);
gx_return_t plat_gx_hca_open(const char *name, u32 flags, gx_hca_h_t *hca);
gx_return_t plat_gx_hca_close(gx_hca_h_t hca);
gx_return_t plat_gx_set_sleepable_async_event_cb(gx_hca_h_t hca, gx_request_event_record_t request,
						 gx_sleepable_async_event_cb_t *callback);
gx_return_t plat_gx_dell_sleepable_async_event_cb(gx_hca_h_t hca,
						  gx_sleepable_async_event_cb_t *callback);
int plat_port_num2base_gid(gx_hca_h_t hca, u8 port, gx_gid_t *gid);
int plat_port_num2base_lid(gx_hca_h_t hca, u8 port, gx_lid_t *lid);
int plat_base_gid2port_num(gx_hca_h_t hca, const gx_gid_t *gid, int *port);
int plat_pkey_index2pkey(gx_hca_h_t hca, u8 port, int index, gx_p_key_t *pkey);

/* gsi.h */
typedef void gsi_dtgrm_cb_t(gsi_class_handle_t handle, void *context, gsi_dtgrm_t *dtgrm);

int plat_gsi_register_class(u8 mgt_class, u8 class_ver, const char *hca_name, u8 port,
			    int is_server, int uses_rmpp, gsi_dtgrm_cb_t *send_done,
			    gsi_dtgrm_cb_t *recv_done, void *context, gsi_class_handle_t *handle);
int plat_gsi_deregister_class(gsi_class_handle_t handle);
int plat_gsi_dtgrm_pool_create_named(u32 count, gsi_dtgrm_pool_handle_t *pool, const char *name);
void plat_gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t pool);
int plat_gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t **dtgrm);
void plat_gsi_dtgrm_pool_put(gsi_dtgrm_t *dtgrm);
void *plat_gsi_dtgrm_alloc_rmpp_buf(gsi_dtgrm_t *dtgrm, u32 size);
void *plat_gsi_dtgrm_get_rmpp_buf(gsi_dtgrm_t *dtgrm, int *paysize);
int plat_gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t *dtgrm);

#endif
