// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * A client of tarv that does what is written to /sys/module/tarv_test/parameters, and holds the
 * module to what it promises its clients: each request that is pending is answered once, none that
 * was not, and an answer is of the address that was asked for.
 *
 *   ask     "IP PATHS [invalidate] [cached] [atomic]"   one request; the log has what comes of it.
 *           cached: without a callback; atomic: with interrupts disabled
 *   fill    "COUNT"             so many peers from 10.64.0.0 on are heard of
 *   lookup  "COUNT"             so many of them are asked for; the log has the mean time
 *   storm   "THREADS ROUNDS"    threads ask for peers of 10.0.0.0/24 at random
 *   hold    1, 0                takes a name of the module's, and gives it back
 *   waiting                     how many requests are
 */
#include <linux/completion.h>
#include <linux/delay.h>
#include <linux/kthread.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/random.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "kernel/include/inter_module.h"
#include "kernel/include/tarv_client.h"

#define OUR_IP htonl(0x0a000001)

/* A request stays on the list, answered or not, until this module goes: so a second answer finds
 * it, and one that never came is seen. */
struct request {
	struct list_head link;
	__be32 ip;
	tarv_paths_t paths;
	bool loud;
	atomic_t answers;
};

static LIST_HEAD(requests);
static DEFINE_SPINLOCK(requests_lock); /* guards the list */
static atomic_t waiting = ATOMIC_INIT(0);

static void tell(const struct request *q, const char *how, tarv_stat_t status,
		 const tarv_arp_data_t *record)
{
	if (!q->loud)
		return;
	if (status == tarv_stat_ok)
		pr_info("tarv_test: %pI4 %s: ok, mask %x lid %x qpn %x paths %d dlid %x\n", &q->ip,
			how, record->mask, record->lid, record->qpn, record->paths_count,
			record->mask & TARV_MASK_PRIMARY_PATH ? record->paths[0].dlid : 0);
	else
		pr_info("tarv_test: %pI4 %s: status %d\n", &q->ip, how, status);
}

static void check_record(const struct request *q, tarv_stat_t status, const tarv_arp_data_t *record)
{
	if (status != tarv_stat_ok)
		return;
	WARN(record->dst_ip != (__force u32)q->ip, "asked for %pI4, told of %pI4\n", &q->ip,
	     &record->dst_ip);
	WARN(record->mask & TARV_MASK_PRIMARY_PATH && !record->paths[0].dlid,
	     "a path of %pI4 leads nowhere\n", &q->ip);
}

static void on_reply(tarv_stat_t status, tarv_arp_data_t *record, void *context)
{
	struct request *q = context;

	WARN(atomic_inc_return(&q->answers) != 1, "a request for %pI4 was answered twice\n",
	     &q->ip);
	WARN((status == tarv_stat_ok) != !!record, "status %d with record %p\n", status, record);
	WARN(status == tarv_stat_pending, "answered with pending\n");
	check_record(q, status, record);
	tell(q, "answered", status, record);
	atomic_dec(&waiting);
}

/* One request; its status, or an error number when it could not be made. */
static int ask(tarv_get_ib_data_fn_t *get, struct request form, bool invalidate, bool cached,
	       bool atomic)
{
	tarv_arp_data_t *record = kzalloc(sizeof(*record), GFP_KERNEL);
	struct request *q = kmemdup(&form, sizeof(form), GFP_KERNEL);
	unsigned long flags = 0;
	int status = -ENOMEM;

	if (!record || !q) {
		kfree(q);
		goto out;
	}
	spin_lock_irq(&requests_lock);
	list_add(&q->link, &requests);
	spin_unlock_irq(&requests_lock);
	atomic_inc(&waiting);
	if (atomic)
		local_irq_save(flags);
	status = get((__force u32)q->ip, (__force u32)OUR_IP, q->paths, record,
		     cached ? NULL : on_reply, q, invalidate);
	if (atomic)
		local_irq_restore(flags);
	if (status != tarv_stat_pending) {
		WARN(atomic_inc_return(&q->answers) != 1, "status %d, and answered\n", status);
		atomic_dec(&waiting);
	}
	check_record(q, status, record);
	tell(q, "asked", status, record);
out:
	kfree(record);
	return status;
}

static int ask_set(const char *text, const struct kernel_param *kp)
{
	tarv_get_ib_data_fn_t *get;
	struct request form = { .loud = true };
	int paths, status;
	u8 ip[4];

	if (sscanf(text, "%hhu.%hhu.%hhu.%hhu %d", &ip[0], &ip[1], &ip[2], &ip[3], &paths) != 5)
		return -EINVAL;
	memcpy(&form.ip, ip, sizeof(form.ip));
	form.paths = paths;
	get = (tarv_get_ib_data_fn_t *)inter_module_get("tarv_get_ib_data_fn");
	if (!get)
		return -ENOENT;
	status = ask(get, form, strstr(text, "invalidate"), strstr(text, "cached"),
		     strstr(text, "atomic"));
	inter_module_put("tarv_get_ib_data_fn");
	return status == -ENOMEM ? status : 0;
}

/* Every kind of request; a few of each hundred throw away what is cached. */
static int storm_rounds;
static atomic_t storm_threads;
static DECLARE_COMPLETION(storm_done);

static int storm_thread(void *get)
{
	int i;

	for (i = 0; i < storm_rounds; i++) {
		u32 dice = get_random_u32();
		struct request form = {
			.ip = htonl(0x0a000002 + dice % 64),
			.paths = (dice >> 8) % 3,
		};

		ask(get, form, (dice >> 16) % 100 < 5, (dice >> 24) % 8 == 0, dice >> 31);
		if (i % 16 == 0)
			usleep_range(200, 2000);
	}
	if (atomic_dec_and_test(&storm_threads))
		complete(&storm_done);
	return 0;
}

static int storm_set(const char *text, const struct kernel_param *kp)
{
	void *get = (void *)inter_module_get("tarv_get_ib_data_fn");
	int threads, i;

	if (!get)
		return -ENOENT;
	if (sscanf(text, "%d %d", &threads, &storm_rounds) != 2 || threads < 1) {
		inter_module_put("tarv_get_ib_data_fn");
		return -EINVAL;
	}
	reinit_completion(&storm_done);
	atomic_set(&storm_threads, threads);
	for (i = 0; i < threads; i++)
		if (IS_ERR(kthread_run(storm_thread, get, "tarv-storm/%d", i)) &&
		    atomic_dec_and_test(&storm_threads))
			complete(&storm_done);
	wait_for_completion(&storm_done);
	inter_module_put("tarv_get_ib_data_fn");
	return 0;
}

static int fill_set(const char *text, const struct kernel_param *kp)
{
	tarv_process_arp_data_fn_t *hear;
	tarv_arp_data_t *record;
	u32 count, i;

	if (kstrtou32(text, 0, &count))
		return -EINVAL;
	hear = (tarv_process_arp_data_fn_t *)inter_module_get("tarv_process_arp_data_fn");
	record = kzalloc(sizeof(*record), GFP_KERNEL);
	for (i = 0; hear && record && i < count; i++) {
		u32 ip = 0x0a400000 + i;

		record->mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
			       TARV_MASK_LID | TARV_MASK_QKEY | TARV_MASK_CAP_FLG |
			       TARV_MASK_LOCAL_PORT;
		record->arp_operation = TARV_ARP_OP_REPLY;
		record->src_ip = (__force u32)htonl(ip);
		record->dst_ip = (__force u32)OUR_IP;
		record->lid = i;
		record->local_port_num = 1;
		memcpy(record->gid.raw, &ip, sizeof(ip));
		hear(record);
		if (i % 256 == 0)
			cond_resched();
	}
	kfree(record);
	if (hear)
		inter_module_put("tarv_process_arp_data_fn");
	return hear && record ? 0 : -ENOENT;
}

static int lookup_set(const char *text, const struct kernel_param *kp)
{
	tarv_get_ib_data_fn_t *get;
	tarv_arp_data_t *record;
	u32 count, i, hits = 0;
	u64 begin;

	if (kstrtou32(text, 0, &count) || !count)
		return -EINVAL;
	get = (tarv_get_ib_data_fn_t *)inter_module_get("tarv_get_ib_data_fn");
	record = kzalloc(sizeof(*record), GFP_KERNEL);
	begin = ktime_get_ns();
	for (i = 0; get && record && i < count; i++)
		hits += get((__force u32)htonl(0x0a400000 + i), (__force u32)OUR_IP,
			    tarv_paths_none, record, NULL, NULL, 0) == tarv_stat_ok;
	pr_info("tarv_test: %u hits of %u, %llu ns each\n", hits, count,
		div_u64(ktime_get_ns() - begin, count));
	kfree(record);
	if (get)
		inter_module_put("tarv_get_ib_data_fn");
	return get ? 0 : -ENOENT;
}

static bool held;

static void hold(bool wanted)
{
	if (wanted && !held)
		held = inter_module_get("tarv_attach_fn");
	else if (!wanted && held) {
		inter_module_put("tarv_attach_fn");
		held = false;
	}
}

static int hold_set(const char *text, const struct kernel_param *kp)
{
	bool wanted;
	int error = kstrtobool(text, &wanted);

	if (error)
		return error;
	hold(wanted);
	return held == wanted ? 0 : -ENOENT;
}

static int waiting_get(char *to, const struct kernel_param *kp)
{
	return sysfs_emit(to, "%d\n", atomic_read(&waiting));
}

#define WRITTEN(name)                                                            \
	static const struct kernel_param_ops name##_ops = { .set = name##_set }; \
	module_param_cb(name, &name##_ops, NULL, 0200)
WRITTEN(ask);
WRITTEN(storm);
WRITTEN(fill);
WRITTEN(lookup);
WRITTEN(hold);
static const struct kernel_param_ops waiting_ops = { .get = waiting_get };
module_param_cb(waiting, &waiting_ops, NULL, 0444);

static int __init test_init(void)
{
	return 0;
}

static void __exit test_exit(void)
{
	struct request *q, *next;

	hold(false);
	list_for_each_entry_safe (q, next, &requests, link)
		kfree(q);
}

module_init(test_init);
module_exit(test_exit);
MODULE_DESCRIPTION("A client that tests tarv");
MODULE_LICENSE("Dual BSD/GPL");
