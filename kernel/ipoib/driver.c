// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The IPoIB driver of tarv, beside Linux's own: it hands in the ARP packets that the IPoIB
 * interfaces of the adapter in use receive, and sends ARP requests through them.
 *
 * An interface is one of ours when the GID in its hardware address is that of one of the adapter's
 * ports; which one is seen by that, too. Only the namespace in which the machine boots counts.
 *
 * /sys/kernel/debug/tarv_ipoib counts packets: received (handed in or looked up), sent, deferred
 * (from where nothing can be sent) and unroutable ones, and the resets of the media that were asked
 * for. There is nothing to reset from here.
 */
#include <linux/atomic.h>
#include <linux/debugfs.h>
#include <linux/if_arp.h>
#include <linux/if_infiniband.h>
#include <linux/inetdevice.h>
#include <linux/init.h>
#include <linux/module.h>
#include <linux/netdevice.h>
#include <linux/skbuff.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/workqueue.h>
#include <net/arp.h>
#include <net/route.h>
#include <rdma/ib_sa.h>

#include "kernel/ib/ib.h"
#include "kernel/include/tarv_driver.h"
#include "kernel/ipoib/lids.h"
#include "kernel/services/rules.h"

/* An IPoIB hardware address: flags, QPN, GID. In a broadcast address the P_Key is part of the GID.
 */
enum { ADDRESS_FLAGS = 0, ADDRESS_QPN = 1, ADDRESS_GID = 4, ADDRESS_PKEY = 8 };

static struct tarv_driver tarv;
static gx_hca_h_t hca;
static struct dentry *folder;
static atomic_t received, sent, deferred, unroutable, media_resets;

/* The adapter's port of an interface; 0: the interface is none of ours. */
static u8 port_of(const struct net_device *dev)
{
	gx_gid_t gid;
	int port;

	if (dev->type != ARPHRD_INFINIBAND || !net_eq(dev_net(dev), &init_net))
		return 0;
	gid_from_wire(&gid, dev->dev_addr + ADDRESS_GID);
	return plat_base_gid2port_num(hca, &gid, &port) ? 0 : port;
}

static gx_p_key_t pkey_of(const struct net_device *dev)
{
	return dev->broadcast[ADDRESS_PKEY] << 8 | dev->broadcast[ADDRESS_PKEY + 1];
}

/* That of the broadcast group, which all who are in it use; false while the group is not joined. */
static bool qkey_of(const struct net_device *dev, u8 port, u32 *qkey)
{
	struct ib_device *device = tarv_ib_device_get();
	struct ib_sa_mcmember_rec group;
	union ib_gid mgid;
	int error;

	if (!device)
		return false;
	memcpy(mgid.raw, dev->broadcast + ADDRESS_GID, sizeof(mgid.raw));
	error = ib_sa_get_mcmember_rec(device, port, &mgid, &group);
	ib_device_put(device);
	*qkey = error ? 0 : be32_to_cpu(group.qkey);
	return !error;
}

/* What an IPoIB hardware address tells of its owner. */
static void read_address(const u8 *address, tarv_arp_data_t *record)
{
	record->mask |= TARV_MASK_GID | TARV_MASK_QPN | TARV_MASK_CAP_FLG;
	record->cap_flg = address[ADDRESS_FLAGS];
	record->qpn = address[ADDRESS_QPN] << 16 | address[ADDRESS_QPN + 1] << 8 |
		      address[ADDRESS_QPN + 2];
	gid_from_wire(&record->gid, address + ADDRESS_GID);
}

/* What is known about whoever is heard through an interface. */
static void read_interface(const struct net_device *dev, u8 port, tarv_arp_data_t *record)
{
	record->mask |= TARV_MASK_LOCAL_PORT;
	record->local_port_num = port;
	if (qkey_of(dev, port, &record->qkey))
		record->mask |= TARV_MASK_QKEY;
}

static void hand_in(tarv_arp_data_t *record)
{
	tarv.process_arp_data(record);
}

/* Intake. */

/* What the packet says, as far as it is an IPoIB ARP packet. */
static bool read_packet(const struct sk_buff *skb, tarv_arp_data_t *record)
{
	const struct arphdr *arp = arp_hdr(skb);
	const u8 *sender = (const u8 *)(arp + 1);
	const u8 *target = sender + INFINIBAND_ALEN + sizeof(record->src_ip);

	if (arp->ar_hrd != htons(ARPHRD_INFINIBAND) || arp->ar_pro != htons(ETH_P_IP) ||
	    arp->ar_hln != INFINIBAND_ALEN || arp->ar_pln != sizeof(record->src_ip) ||
	    (arp->ar_op != htons(ARPOP_REQUEST) && arp->ar_op != htons(ARPOP_REPLY)))
		return false;
	record->mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP;
	record->arp_operation = ntohs(arp->ar_op);
	read_address(sender, record);
	memcpy(&record->src_ip, sender + INFINIBAND_ALEN, sizeof(record->src_ip));
	memcpy(&record->dst_ip, target + INFINIBAND_ALEN, sizeof(record->dst_ip));
	return true;
}

/*
 * Who asks whether an address is free has none yet. Our own requests come back through the
 * adapter's other ports.
 */
static bool is_of_peer(const tarv_arp_data_t *record)
{
	const __be32 sender = (__force __be32)record->src_ip;

	return sender && inet_addr_type(&init_net, sender) != RTN_LOCAL;
}

/*
 * The LID from which the packet came is lost on its way here. While paths are made from the static
 * one, in which it is the peer's, it is looked up; otherwise the SA tells it with the paths, and
 * the record does without.
 */
static void take_in(tarv_arp_data_t *record)
{
	atomic_inc(&received);
	if (tarv_static_path_in_use())
		lids_hand_in(record);
	else
		hand_in(record);
}

static int on_packet(struct sk_buff *skb, struct net_device *dev, struct packet_type *type,
		     struct net_device *original)
{
	tarv_arp_data_t record = {};
	const u8 port = port_of(dev);

	skb = port ? skb_share_check(skb, GFP_ATOMIC) : skb;
	if (skb && port && skb->pkt_type != PACKET_OTHERHOST && skb->pkt_type != PACKET_LOOPBACK &&
	    pskb_may_pull(skb, arp_hdr_len(dev)) && read_packet(skb, &record) &&
	    is_of_peer(&record)) {
		read_interface(dev, port, &record);
		take_in(&record);
	}
	kfree_skb(skb);
	return NET_RX_SUCCESS;
}

static struct packet_type packets = { .type = cpu_to_be16(ETH_P_ARP), .func = on_packet };

/* Routes. */

/* The way to an address: an interface of ours, and our address there. */
struct way {
	struct net_device *dev; /* held */
	__be32 from;
	bool is_local; /* the address is this host's own */
};

static bool find_local(__be32 ip, struct way *way)
{
	*way = (struct way){ .dev = ip_dev_find(&init_net, ip), .from = ip, .is_local = true };
	return way->dev;
}

/* ARP does not cross a router. */
static bool find_route(__be32 ip, struct way *way)
{
	struct flowi4 flow = { .daddr = ip };
	struct rtable *route = ip_route_output_key(&init_net, &flow);
	bool direct;

	if (IS_ERR(route))
		return false;
	direct = !route->rt_uses_gateway;
	if (direct) {
		*way = (struct way){ .dev = route->dst.dev, .from = flow.saddr };
		dev_hold(way->dev);
	}
	ip_rt_put(route);
	return direct;
}

static bool find_way(__be32 ip, struct way *way)
{
	if (!(inet_addr_type(&init_net, ip) == RTN_LOCAL ? find_local(ip, way)
							 : find_route(ip, way)))
		return false;
	if (port_of(way->dev))
		return true;
	dev_put(way->dev);
	return false;
}

static tarv_stat_t get_if_info(u32 ip, gx_p_key_t *pkey, u32 *unused, int *scratch, int *loopback)
{
	struct way way;

	rules_no_lock("get_if_info");
	if (!find_way((__force __be32)ip, &way))
		return tarv_stat_error;
	*pkey = pkey_of(way.dev);
	*loopback = way.is_local;
	dev_put(way.dev);
	return tarv_stat_ok;
}

/* Sending. */

/* A request that comes from where nothing can be sent. */
struct request {
	struct list_head link;
	__be32 ip;
	__be32 from;
};

static LIST_HEAD(requests);
static DEFINE_SPINLOCK(requests_lock); /* guards the list */

/* Nobody answers a request for an address of our own, so it is answered here. */
static void answer_ourselves(__be32 ip, __be32 from, const struct net_device *dev)
{
	const u8 port = port_of(dev);
	tarv_arp_data_t record = {
		.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP,
		.arp_operation = TARV_ARP_OP_REPLY,
		.src_ip = (__force u32)ip,
		.dst_ip = (__force u32)from,
	};

	read_address(dev->dev_addr, &record);
	if (!plat_port_num2base_lid(hca, port, &record.lid))
		record.mask |= TARV_MASK_LID;
	read_interface(dev, port, &record);
	hand_in(&record);
}

/*
 * A request tells everybody who hears it that its sender has our hardware address. So it is sent
 * from an address of ours, also where the module names another: for who is to be invalidated it
 * names the peer itself, and for some none.
 */
static tarv_stat_t send_through(const struct way *way, __be32 ip, __be32 from)
{
	if (inet_addr_type(&init_net, from) != RTN_LOCAL)
		from = way->from;
	if (!netif_running(way->dev))
		return tarv_stat_error;
	if (way->is_local) {
		answer_ourselves(ip, from, way->dev);
		return tarv_stat_ok;
	}
	arp_send(ARPOP_REQUEST, ETH_P_ARP, ip, way->dev, from, NULL, way->dev->dev_addr, NULL);
	atomic_inc(&sent);
	return tarv_stat_ok;
}

static tarv_stat_t send_request(__be32 ip, __be32 from)
{
	tarv_stat_t status = tarv_stat_error;
	struct way way;

	if (find_way(ip, &way)) {
		status = send_through(&way, ip, from);
		dev_put(way.dev);
	}
	if (status != tarv_stat_ok)
		atomic_inc(&unroutable);
	return status;
}

static struct request *take_request(void)
{
	struct request *r;

	spin_lock_irq(&requests_lock);
	r = list_first_entry_or_null(&requests, struct request, link);
	if (r)
		list_del(&r->link);
	spin_unlock_irq(&requests_lock);
	return r;
}

static void send_deferred(struct work_struct *unused)
{
	struct request *r;

	while ((r = take_request())) {
		send_request(r->ip, r->from);
		kfree(r);
	}
}
static DECLARE_WORK(deferred_work, send_deferred);

static tarv_stat_t defer_request(__be32 ip, __be32 from)
{
	struct request *r = kmalloc(sizeof(*r), GFP_ATOMIC);
	unsigned long flags;

	if (!r)
		return tarv_stat_error;
	*r = (struct request){ .ip = ip, .from = from };
	spin_lock_irqsave(&requests_lock, flags);
	list_add_tail(&r->link, &requests);
	spin_unlock_irqrestore(&requests_lock, flags);
	atomic_inc(&deferred);
	schedule_work(&deferred_work);
	return tarv_stat_ok;
}

/* Routing and sending do not bear interrupts that are disabled. */
static tarv_stat_t send_arp_data(tarv_arp_data_t *record, void *context, int media_reset)
{
	const __be32 ip = (__force __be32)record->dst_ip, from = (__force __be32)record->src_ip;

	rules_no_lock("send_arp_data");
	if (media_reset)
		atomic_inc(&media_resets);
	return in_hardirq() || irqs_disabled() ? defer_request(ip, from) : send_request(ip, from);
}

/* Beginning and end. */

static void add_counters(void)
{
	folder = debugfs_create_dir("tarv_ipoib", NULL);
	debugfs_create_atomic_t("received", 0444, folder, &received);
	debugfs_create_atomic_t("sent", 0444, folder, &sent);
	debugfs_create_atomic_t("deferred", 0444, folder, &deferred);
	debugfs_create_atomic_t("unroutable", 0444, folder, &unroutable);
	debugfs_create_atomic_t("media_resets", 0444, folder, &media_resets);
	lids_start(folder, hand_in);
}

static int __init tarv_ipoib_init(void)
{
	int error = tarv_driver_get(&tarv);

	if (error)
		return error;
	if (plat_gx_hca_open(plat_gx_default_hca_name(), 0, &hca) != gx_return_ok) {
		error = -ENODEV;
		goto no_hca;
	}
	add_counters();
	error = tarv_driver_attach(&tarv, get_if_info, send_arp_data);
	if (error)
		goto no_driver;
	dev_add_pack(&packets);
	return 0;

no_driver:
	lids_stop();
	debugfs_remove(folder);
	plat_gx_hca_close(hca);
no_hca:
	tarv_driver_put(&tarv);
	return error;
}

/* Nothing comes in any more, nothing is looked up any more, nothing goes out any more. */
static void __exit tarv_ipoib_exit(void)
{
	dev_remove_pack(&packets);
	lids_stop();
	tarv_driver_detach(&tarv);
	flush_work(&deferred_work);
	debugfs_remove(folder);
	plat_gx_hca_close(hca);
	tarv_driver_put(&tarv);
}

module_init(tarv_ipoib_init);
module_exit(tarv_ipoib_exit);
MODULE_DESCRIPTION("The IPoIB driver of tarv, beside that of Linux.");
MODULE_VERSION("1.21");
MODULE_LICENSE("Dual BSD/GPL");
