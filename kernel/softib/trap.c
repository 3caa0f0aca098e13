// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Notices to the subnet manager (traps), IBA volume 1, 13.4.8 and 14.2.5.1. A node has at most one
 * of each kind outstanding, the latest. It is sent again and again, at the interval that the
 * manager has set, until the manager represses it.
 */
#include <asm/unaligned.h>
#include <linux/jiffies.h>
#include <linux/string.h>
#include <linux/workqueue.h>

#include "kernel/softib/softib.h"

#define FIRST_TID 0x736f667400000000ULL

static void repeat(struct work_struct *work);
static DECLARE_DELAYED_WORK(repeat_work, repeat);
static u32 last_tid;

/* The time within which the manager should have answered: a packet's longest life, there and back.
 */
static unsigned long interval(const struct sib_port *p)
{
	unsigned int timeout = p->info.basic.clientrereg_resv_subnetto & 31;

	return 1 + 2 * usecs_to_jiffies(4096ULL * (1ULL << min(timeout, 20u)) / 1000);
}

static void send(struct sib_node *n, struct sib_trap *t)
{
	struct sib_port *p = &n->ports[t->port];
	struct sib_packet *packet;
	struct ib_smp *smp;

	if (!sib_lid(p) || !p->info.basic.sm_lid) {
		t->tid = 0; /* There is no manager yet, and the one that comes reads everything. */
		return;
	}
	t->due = jiffies + interval(p);
	schedule_delayed_work(&repeat_work, interval(p));
	packet = sib_packet_new(p, IB_MGMT_MAD_SIZE);
	if (!packet)
		return;
	packet->slid = sib_lid(p);
	packet->dlid = be16_to_cpu(p->info.basic.sm_lid);
	packet->sl = p->info.basic.neighbormtu_mastersmsl & 15;
	packet->pkey = IB_DEFAULT_PKEY_FULL;
	smp = (struct ib_smp *)packet->data;
	smp->base_version = 1;
	smp->mgmt_class = IB_MGMT_CLASS_SUBN_LID_ROUTED;
	smp->class_version = 1;
	smp->method = IB_MGMT_METHOD_TRAP;
	smp->attr_id = IB_SMP_ATTR_NOTICE;
	smp->tid = t->tid;
	smp->mkey = p->info.basic.mkey;
	smp->data[0] = t->type;
	smp->data[3] = n->sw ? 2 : 1; /* who produces it */
	put_unaligned_be16(t->number, smp->data + 4);
	put_unaligned_be16(sib_lid(p), smp->data + 6);
	memcpy(smp->data + 10, t->details, sizeof(t->details));
	sib_wire_send(packet);
}

static struct sib_trap *new_trap(struct sib_port *p, enum sib_trap_kind kind, u8 type, u16 number)
{
	struct sib_trap *t = &p->node->traps[kind];

	*t = (struct sib_trap){
		.tid = cpu_to_be64(FIRST_TID | ++last_tid),
		.port = p->number,
		.type = type,
		.number = number,
	};
	return t;
}

void sib_trap_link(struct sib_node *n)
{
	struct sib_trap *t = new_trap(&n->ports[0], SIB_TRAP_LINK, IB_NOTICE_TYPE_URGENT, 128);

	put_unaligned_be16(sib_lid(&n->ports[0]), t->details);
	send(n, t);
}

void sib_trap_local(struct sib_port *p, bool description)
{
	struct sib_trap *t = new_trap(p, SIB_TRAP_LOCAL, IB_NOTICE_TYPE_INFO, 144);

	put_unaligned_be16(sib_lid(p), t->details + 2);
	t->details[5] = description; /* another change than one of capabilities */
	memcpy(t->details + 6, &p->info.basic.cap_mask, 4);
	t->details[11] = description ? IB_NOTICE_TRAP_NODE_DESC_CHG : 0;
	send(p->node, t);
}

void sib_trap_mkey(struct sib_port *p, u16 slid, const struct ib_smp *smp)
{
	bool directed = smp->mgmt_class == IB_MGMT_CLASS_SUBN_DIRECTED_ROUTE;
	struct sib_trap *t = new_trap(p, SIB_TRAP_MKEY, IB_NOTICE_TYPE_SECURITY, 256);
	unsigned int hops;

	put_unaligned_be16(slid, t->details + 2);
	t->details[6] = smp->method;
	memcpy(t->details + 8, &smp->attr_id, 2);
	memcpy(t->details + 10, &smp->attr_mod, 4);
	memcpy(t->details + 14, &smp->mkey, 8);
	if (directed) {
		hops = min_t(unsigned int, smp->hop_cnt, 30);
		memcpy(t->details + 4, &smp->dr_slid, 2);
		t->details[23] = IB_NOTICE_TRAP_DR_NOTICE | hops |
				 (smp->hop_cnt > hops ? IB_NOTICE_TRAP_DR_TRUNC : 0);
		memcpy(t->details + 24, smp->return_path, hops);
	}
	send(p->node, t);
}

void sib_trap_key(struct sib_port *p, const struct sib_packet *packet, bool pkey)
{
	struct sib_trap *t = new_trap(p, pkey ? SIB_TRAP_PKEY : SIB_TRAP_QKEY,
				      IB_NOTICE_TYPE_SECURITY, pkey ? 257 : 258);
	__be16 *violations = pkey ? &p->info.basic.pkey_violations : &p->info.basic.qkey_violations;

	if (*violations != cpu_to_be16(0xffff))
		be16_add_cpu(violations, 1);
	put_unaligned_be16(packet->slid, t->details + 2);
	put_unaligned_be16(packet->dlid, t->details + 4);
	put_unaligned_be32(pkey ? packet->pkey : packet->qkey, t->details + 6);
	put_unaligned_be32((u32)packet->sl << 28 | packet->sqpn, t->details + 10);
	put_unaligned_be32(packet->dqpn, t->details + 14);
	if (packet->has_grh) {
		memcpy(t->details + 18, packet->grh.sgid.raw, 16);
		memcpy(t->details + 34, packet->grh.dgid.raw, 16);
	}
	send(p->node, t);
}

void sib_trap_repress(struct sib_node *n, __be64 tid)
{
	unsigned int kind;

	for (kind = 0; kind < SIB_TRAPS; kind++)
		if (n->traps[kind].tid == tid)
			n->traps[kind].tid = 0;
}

static void repeat(struct work_struct *work)
{
	struct sib_node *n;
	unsigned int kind;

	spin_lock_irq(&sib_lock);
	list_for_each_entry (n, &sib_nodes, link)
		for (kind = 0; kind < SIB_TRAPS; kind++) {
			struct sib_trap *t = &n->traps[kind];

			if (!t->tid)
				continue;
			if (time_after_eq(jiffies, t->due))
				send(n, t);
			else
				schedule_delayed_work(&repeat_work, t->due - jiffies);
		}
	spin_unlock_irq(&sib_lock);
}

void sib_traps_stop(void)
{
	struct sib_node *n;

	spin_lock_irq(&sib_lock);
	list_for_each_entry (n, &sib_nodes, link)
		memset(n->traps, 0, sizeof(n->traps));
	spin_unlock_irq(&sib_lock);
	cancel_delayed_work_sync(&repeat_work);
}
