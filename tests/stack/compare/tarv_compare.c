// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The same peers by tarv and by what the kernel itself offers: the address of each, and the paths
 * to it from two ports of ours. The kernel's connection manager resolves one path at a time, so it
 * has an identifier for each of our addresses; all requests are made at once.
 *
 *   peers   how many: from 10.0.0.2 on. Our ports have 10.0.0.1 and 10.0.0.200
 *   run     "tarv" or "cm": resolves them; the log says how many, how long it took, and how long
 *           processors were busy meanwhile
 *   compare the log says how many paths both have found, and how many of them are not the same
 */
#include <linux/completion.h>
#include <linux/inet.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/tick.h>
#include <net/net_namespace.h>
#include <rdma/rdma_cm.h>

#include "kernel/include/inter_module.h"
#include "kernel/include/tarv_client.h"

enum { MOST_PEERS = 128, PORTS = 2, PATIENCE_MS = 10000 };

static const u32 our_address[PORTS] = { 0x0a000001, 0x0a0000c8 };
#define FIRST_PEER 0x0a000002

/* What both must say of a path, in host order. */
struct way {
	union ib_gid from, to;
	u16 slid, dlid, pkey;
	u8 sl, mtu, rate;
};

static struct peer {
	__be32 ip;
	struct way by_tarv[PORTS], by_cm[PORTS];
	struct rdma_cm_id *id[PORTS];
} peer[MOST_PEERS];

static unsigned int peers = 64;
module_param(peers, uint, 0644);

/* Of the run that is under way. */
static atomic_t left, resolved;
static DECLARE_COMPLETION(all_ended);

static void ended(bool well)
{
	if (well)
		atomic_inc(&resolved);
	if (atomic_dec_and_test(&left))
		complete(&all_ended);
}

/* By tarv. */

static void turn(const gx_gid_t *held, union ib_gid *gid)
{
	int i;

	for (i = 0; i < 16; i++)
		gid->raw[i] = held->raw[15 - i];
}

static void take_record(struct peer *p, const tarv_arp_data_t *record)
{
	int i;

	for (i = 0; i < PORTS; i++) {
		const ib_path_record_v2_t *from = &record->paths[i];
		struct way *to = &p->by_tarv[i];

		turn(&from->sgid, &to->from);
		turn(&from->dgid, &to->to);
		to->slid = from->slid;
		to->dlid = from->dlid;
		to->pkey = from->pkey;
		to->sl = from->sl;
		to->mtu = from->mtu;
		to->rate = from->rate;
	}
	ended(record->mask & TARV_MASK_SECONDARY_PATH);
}

static void on_reply(tarv_stat_t status, tarv_arp_data_t *record, void *context)
{
	if (status == tarv_stat_ok)
		take_record(context, record);
	else
		ended(false);
}

static void ask_tarv(tarv_get_ib_data_fn_t *get, tarv_arp_data_t *room)
{
	unsigned int i;

	for (i = 0; i < peers; i++) {
		int status = get((__force u32)peer[i].ip, (__force u32)htonl(our_address[0]),
				 tarv_paths_both, room, on_reply, &peer[i], 0);

		if (status != tarv_stat_pending)
			on_reply(status, room, &peer[i]);
	}
}

/* By the connection manager. */

static void take_route(struct rdma_cm_id *id)
{
	const struct sa_path_rec *from = id->route.path_rec;
	struct way *to = id->context;

	to->from = from->sgid;
	to->to = from->dgid;
	to->slid = be16_to_cpu(from->ib.slid);
	to->dlid = be16_to_cpu(from->ib.dlid);
	to->pkey = be16_to_cpu(from->pkey);
	to->sl = from->sl;
	to->mtu = from->mtu;
	to->rate = from->rate;
	ended(true);
}

static int on_event(struct rdma_cm_id *id, struct rdma_cm_event *event)
{
	if (event->event == RDMA_CM_EVENT_ROUTE_RESOLVED)
		take_route(id);
	else if (event->event != RDMA_CM_EVENT_ADDR_RESOLVED || rdma_resolve_route(id, PATIENCE_MS))
		ended(false);
	return 0;
}

static bool resolve_by_cm(struct peer *p, int port)
{
	struct sockaddr_in from = { .sin_family = AF_INET,
				    .sin_addr.s_addr = htonl(our_address[port]) };
	struct sockaddr_in to = { .sin_family = AF_INET, .sin_addr.s_addr = p->ip };
	struct rdma_cm_id *id;

	id = rdma_create_id(&init_net, on_event, &p->by_cm[port], RDMA_PS_TCP, IB_QPT_RC);
	if (IS_ERR(id))
		return false;
	p->id[port] = id;
	return !rdma_resolve_addr(id, (struct sockaddr *)&from, (struct sockaddr *)&to,
				  PATIENCE_MS);
}

static void ask_cm(void)
{
	unsigned int i;
	int port;

	for (i = 0; i < peers; i++)
		for (port = 0; port < PORTS; port++)
			if (!resolve_by_cm(&peer[i], port))
				ended(false);
}

static void end_cm(void)
{
	unsigned int i;
	int port;

	for (i = 0; i < peers; i++)
		for (port = 0; port < PORTS; port++) {
			if (peer[i].id[port])
				rdma_destroy_id(peer[i].id[port]);
			peer[i].id[port] = NULL;
		}
}

/* Runs. */

static u64 idle_us(void)
{
	u64 sum = 0, now;
	int cpu;

	for_each_online_cpu(cpu) sum += get_cpu_idle_time_us(cpu, &now);
	return sum;
}

static int run_set(const char *text, const struct kernel_param *kp)
{
	bool by_cm = sysfs_streq(text, "cm");
	tarv_get_ib_data_fn_t *get;
	tarv_arp_data_t *room = kzalloc(sizeof(*room), GFP_KERNEL);
	u64 begin, idle, wall;
	bool in_time;

	get = (tarv_get_ib_data_fn_t *)inter_module_get("tarv_get_ib_data_fn");
	if (!get || !room || peers > MOST_PEERS) {
		if (get)
			inter_module_put("tarv_get_ib_data_fn");
		kfree(room);
		return -EINVAL;
	}
	reinit_completion(&all_ended);
	atomic_set(&left, by_cm ? peers * PORTS : peers);
	atomic_set(&resolved, 0);
	idle = idle_us();
	begin = ktime_get_ns();
	if (by_cm)
		ask_cm();
	else
		ask_tarv(get, room);
	in_time = wait_for_completion_timeout(&all_ended, msecs_to_jiffies(3 * PATIENCE_MS));
	wall = div_u64(ktime_get_ns() - begin, 1000);
	idle = idle_us() - idle;
	if (by_cm)
		end_cm();
	pr_info("tarv_compare: %s %d of %u, took %llu us, busy %lld us%s\n", by_cm ? "cm" : "tarv",
		atomic_read(&resolved), by_cm ? peers * PORTS : peers, wall,
		(s64)(wall * num_online_cpus() - idle), in_time ? "" : ", and some never ended");
	inter_module_put("tarv_get_ib_data_fn");
	kfree(room);
	return 0;
}

static bool same(const struct way *a, const struct way *b)
{
	return !memcmp(&a->from, &b->from, sizeof(a->from)) &&
	       !memcmp(&a->to, &b->to, sizeof(a->to)) && a->slid == b->slid && a->dlid == b->dlid &&
	       a->pkey == b->pkey && a->sl == b->sl && a->mtu == b->mtu && a->rate == b->rate;
}

static void tell(const struct peer *p, const char *who, const struct way *path)
{
	pr_info("tarv_compare: %pI4 by %s: %pI6c -> %pI6c, LID %u -> %u, P_Key %x, SL %u, MTU %u, "
		"rate %u\n",
		&p->ip, who, path->from.raw, path->to.raw, path->slid, path->dlid, path->pkey,
		path->sl, path->mtu, path->rate);
}

static int compare_set(const char *text, const struct kernel_param *kp)
{
	unsigned int i, found = 0, different = 0;
	int port;

	for (i = 0; i < peers; i++)
		for (port = 0; port < PORTS; port++) {
			const struct way *tarv = &peer[i].by_tarv[port];
			const struct way *cm = &peer[i].by_cm[port];

			found += tarv->dlid && cm->dlid;
			if (same(tarv, cm))
				continue;
			different++;
			tell(&peer[i], "tarv", tarv);
			tell(&peer[i], "cm", cm);
		}
	pr_info("tarv_compare: %u paths found by both, %u different\n", found, different);
	return 0;
}

#define WRITTEN(name)                                                            \
	static const struct kernel_param_ops name##_ops = { .set = name##_set }; \
	module_param_cb(name, &name##_ops, NULL, 0200)
WRITTEN(run);
WRITTEN(compare);

static int __init compare_init(void)
{
	int i;

	for (i = 0; i < MOST_PEERS; i++)
		peer[i].ip = htonl(FIRST_PEER + i);
	return 0;
}

static void __exit compare_exit(void)
{
}

module_init(compare_init);
module_exit(compare_exit);
MODULE_DESCRIPTION("Resolves peers by tarv and by the kernel's connection manager");
MODULE_LICENSE("Dual BSD/GPL");
