// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The IPoIB driver of the fabric in memory: peers answer ARP requests.
 */
#include <linux/atomic.h>
#include <linux/debugfs.h>
#include <linux/init.h>
#include <linux/module.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "kernel/include/tarv_driver.h"
#include "kernel/loop/later.h"
#include "kernel/loop/loop.h"
#include "kernel/services/rules.h"

static struct tarv_driver tarv;
static struct later_queue air;
static u32 arp_delay_ms;
static atomic_t arp_lose = ATOMIC_INIT(0), arp_requests = ATOMIC_INIT(0),
		arp_media_resets = ATOMIC_INIT(0);

struct reply {
	struct later later;
	u32 peer;
};

/* An ARP packet of the peer comes in. */
static void hear(u32 peer, u16 operation)
{
	tarv_arp_data_t record = {
		.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
			TARV_MASK_LID | TARV_MASK_QKEY | TARV_MASK_CAP_FLG | TARV_MASK_LOCAL_PORT,
		.arp_operation = operation,
		.src_ip = (__force u32)loop_peer_ip(peer),
		.dst_ip = (__force u32)loop_peer_ip(0),
		.qpn = loop_peer_qpn(peer),
		.lid = loop_peer_lid(peer),
		.qkey = LOOP_QKEY,
		.cap_flg = 0x80,
		.local_port_num = 1,
	};

	loop_gid(peer, 1, &record.gid);
	tarv.process_arp_data(&record);
}

static void reply(struct later *item, bool dropped)
{
	struct reply *r = container_of(item, struct reply, later);

	if (!dropped)
		hear(r->peer, TARV_ARP_OP_REPLY);
	kfree(r);
}

static tarv_stat_t send_arp_data(tarv_arp_data_t *record, void *context, int media_reset)
{
	u32 peer = loop_peer_by_ip((__force __be32)record->dst_ip);
	struct reply *r;

	rules_no_lock("send_arp_data");
	atomic_inc(&arp_requests);
	if (media_reset)
		atomic_inc(&arp_media_resets);
	if (!peer || atomic_add_unless(&arp_lose, -1, 0))
		return tarv_stat_ok;
	r = kmalloc(sizeof(*r), GFP_ATOMIC);
	if (!r)
		return tarv_stat_error;
	r->peer = peer;
	later_add(&air, &r->later, &air, READ_ONCE(arp_delay_ms), reply);
	return tarv_stat_ok;
}

static tarv_stat_t get_if_info(u32 ip, gx_p_key_t *pkey, u32 *unused, int *scratch, int *loopback)
{
	rules_no_lock("get_if_info");
	*pkey = LOOP_PKEY;
	*loopback = (__force __be32)ip == loop_peer_ip(0);
	return tarv_stat_ok;
}

/* "FIRST COUNT": gratuitous requests of so many peers come in, one after the other. */
static ssize_t hear_write(struct file *file, const char __user *from, size_t size, loff_t *position)
{
	unsigned int first, count, i;
	char text[32] = "";

	if (size >= sizeof(text) || copy_from_user(text, from, size))
		return -EINVAL;
	if (sscanf(text, "%u %u", &first, &count) != 2 || !first || first > loop_peers() ||
	    count > loop_peers() - first + 1)
		return -EINVAL;
	for (i = 0; i < count; i++) {
		local_bh_disable();
		hear(first + i, TARV_ARP_OP_REQUEST);
		local_bh_enable();
		cond_resched();
	}
	return size;
}

static const struct file_operations hear_ops = {
	.owner = THIS_MODULE,
	.write = hear_write,
};

static const char *const file_names[] = { "arp_lose", "arp_delay_ms", "arp_requests",
					  "arp_media_resets", "arp_hear" };

static void add_files(void)
{
	struct dentry *folder = loop_debugfs();

	debugfs_create_atomic_t(file_names[0], 0644, folder, &arp_lose);
	debugfs_create_u32(file_names[1], 0644, folder, &arp_delay_ms);
	debugfs_create_atomic_t(file_names[2], 0444, folder, &arp_requests);
	debugfs_create_atomic_t(file_names[3], 0444, folder, &arp_media_resets);
	debugfs_create_file(file_names[4], 0200, folder, NULL, &hear_ops);
}

static int __init tarv_loop_ipoib_init(void)
{
	int error = tarv_driver_get(&tarv);

	if (error)
		return error;
	later_start(&air);
	error = tarv_driver_attach(&tarv, get_if_info, send_arp_data);
	if (error)
		tarv_driver_put(&tarv);
	else
		add_files();
	return error;
}

static void __exit tarv_loop_ipoib_exit(void)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(file_names); i++)
		debugfs_lookup_and_remove(file_names[i], loop_debugfs());
	tarv_driver_detach(&tarv);
	later_stop(&air);
	tarv_driver_put(&tarv);
}

module_init(tarv_loop_ipoib_init);
module_exit(tarv_loop_ipoib_exit);
MODULE_DESCRIPTION("The IPoIB driver of the fabric in memory.");
MODULE_VERSION("1.21");
MODULE_LICENSE("Dual BSD/GPL");
