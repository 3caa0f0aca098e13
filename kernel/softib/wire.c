// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The wire: packets under way, hop by hop, and the one worker that carries them. A packet is taken
 * from the queue at each port that it leaves or comes to, so that a long way, a loop or a group of
 * many members needs no stack. Packets for one port keep their order, but for those that faults.c
 * delays.
 */
#include <linux/jiffies.h>
#include <linux/slab.h>
#include <linux/timer.h>
#include <linux/workqueue.h>

#include "kernel/softib/softib.h"

#define HEADER_WORDS 7 /* LRH, BTH, DETH, and the checksums, in units of 4 bytes */
#define MOST_LATE 16384

static LIST_HEAD(queue);
static LIST_HEAD(late); /* by when they are due */
static unsigned int late_count;
static struct workqueue_struct *worker;
static void carry(struct work_struct *work);
static DECLARE_WORK(carry_work, carry);
static void late_is_due(struct timer_list *timer);
static DEFINE_TIMER(late_timer, late_is_due);

struct sib_packet *sib_packet_new(struct sib_port *from, u32 len)
{
	struct sib_packet *p = kzalloc(struct_size(p, data, len), GFP_ATOMIC);

	if (p) {
		p->at = from;
		p->leaves = true;
		p->len = len;
	}
	return p;
}

struct sib_packet *sib_packet_copy(const struct sib_packet *p)
{
	struct sib_packet *copy = kmemdup(p, struct_size(p, data, p->len), GFP_ATOMIC);

	if (copy)
		copy->qp = NULL;
	return copy;
}

void sib_wire_wake(void)
{
	queue_work(worker, &carry_work);
}

static void late_is_due(struct timer_list *timer)
{
	sib_wire_wake();
}

void sib_wire_send(struct sib_packet *p)
{
	list_add_tail(&p->link, &queue);
	sib_wire_wake();
}

static void send_late(struct sib_packet *p)
{
	struct list_head *before = &late;

	if (late_count == MOST_LATE) {
		kfree(p);
		return;
	}
	while (before->prev != &late &&
	       time_after(list_entry(before->prev, struct sib_packet, link)->due, p->due))
		before = before->prev;
	list_add_tail(&p->link, before);
	late_count++;
	sib_wire_wake(); /* sets the timer */
}

static u64 words(const struct sib_packet *p)
{
	return HEADER_WORDS + (p->has_grh ? sizeof(p->grh) / 4 : 0) + DIV_ROUND_UP(p->len, 4);
}

static void count_sent(struct sib_counters *c, const struct sib_packet *p)
{
	c->sent++;
	c->sent_words += words(p);
	if (sib_is_multicast(p))
		c->sent_multicast++;
	else
		c->sent_unicast++;
}

static void count_received(struct sib_counters *c, const struct sib_packet *p)
{
	c->received++;
	c->received_words += words(p);
	if (sib_is_multicast(p))
		c->received_multicast++;
	else
		c->received_unicast++;
}

/* Whether a packet can leave a port now: data needs a link that the manager has made active. */
static bool passes(const struct sib_port *out, const struct sib_packet *p)
{
	const struct sib_port *in = out->peer;

	if (!in)
		return false;
	if (sib_is_smp(p))
		return sib_state(out) >= IB_PORT_INIT && sib_state(in) >= IB_PORT_INIT;
	return sib_state(out) == IB_PORT_ACTIVE && sib_state(in) >= IB_PORT_ARMED &&
	       p->len <= ib_mtu_enum_to_int(out->info.basic.neighbormtu_mastersmsl >> 4);
}

void sib_wire_leave(struct sib_port *out, struct sib_packet *p)
{
	struct sib_fate fate;

	if (!passes(out, p) || ++p->hops > SIB_LONGEST_ROUTE) {
		out->counters.discarded++;
		kfree(p);
		return;
	}
	count_sent(&out->counters, p);
	fate = sib_fate(out, p);
	if (fate.lost) {
		kfree(p);
		return;
	}
	p->at = out->peer;
	p->leaves = false;
	while (fate.copies--) {
		struct sib_packet *copy = sib_packet_copy(p);

		if (copy)
			sib_wire_send(copy);
	}
	if (!fate.delay_ms) {
		sib_wire_send(p);
		return;
	}
	p->due = jiffies + msecs_to_jiffies(fate.delay_ms);
	send_late(p);
}

void sib_wire_loop_back(struct sib_port *at, struct sib_packet *p)
{
	p->at = at;
	p->leaves = false;
	p->loopback = true;
	sib_wire_send(p);
}

/* Out of the port at which it was made. */
static void leave_home(struct sib_packet *p)
{
	struct sib_port *home = p->at;
	struct sib_packet *copy;

	sib_capture(p);
	p->qp = NULL;
	if (home->node->sw)
		return sib_switch_route(home->node, home, p);
	if (sib_owns_lid(home, p->dlid) && (sib_is_smp(p) || sib_state(home) == IB_PORT_ACTIVE))
		return sib_wire_loop_back(home, p);
	if (sib_is_multicast(p)) {
		copy = sib_packet_copy(p);
		if (copy)
			sib_wire_loop_back(home, copy);
	}
	sib_wire_leave(home, p);
}

/* In at a port. True: the packet is for an adapter, and the caller's. */
static bool arrive(struct sib_packet *p)
{
	struct sib_port *at = p->at;

	if (!p->loopback) {
		/* The link may have gone since the packet set out. */
		if (sib_state(at) < (sib_is_smp(p) ? IB_PORT_INIT : IB_PORT_ARMED)) {
			kfree(p);
			return false;
		}
		count_received(&at->counters, p);
	}
	if (at->node->adapter)
		return true;
	if (at->node->sw)
		sib_switch_receive(at, p);
	else
		kfree(p);
	return false;
}

static void step(struct sib_packet *p)
{
	struct sib_port *at = p->at;
	struct sib_adapter *adapter;
	struct sib_qp *qp = p->qp;
	bool signaled = p->signaled;
	u64 wr_id = p->wr_id;
	u32 len = p->len;

	if (p->leaves) {
		if (qp && !sib_qp_sends(qp)) {
			kfree(p);
		} else {
			spin_lock_irq(&sib_lock);
			leave_home(p);
			spin_unlock_irq(&sib_lock);
		}
		if (qp)
			sib_qp_sent(qp, wr_id, len, signaled);
		return;
	}
	spin_lock_irq(&sib_lock);
	adapter = arrive(p) ? at->node->adapter : NULL;
	spin_unlock_irq(&sib_lock);
	if (adapter) {
		sib_adapter_receive(adapter, at, p);
		kfree(p);
	}
}

/* What is in the queue now, and what has become due. */
static void take_batch(struct list_head *batch)
{
	struct sib_packet *p, *next;

	spin_lock_irq(&sib_lock);
	list_splice_init(&queue, batch);
	list_for_each_entry_safe (p, next, &late, link) {
		if (time_before(jiffies, p->due)) {
			mod_timer(&late_timer, p->due);
			break;
		}
		list_move_tail(&p->link, batch);
		late_count--;
	}
	spin_unlock_irq(&sib_lock);
}

static void carry(struct work_struct *work)
{
	struct sib_packet *p;
	LIST_HEAD(batch);

	sib_tell_all();
	take_batch(&batch);
	while ((p = list_first_entry_or_null(&batch, struct sib_packet, link))) {
		list_del(&p->link);
		/* Completions raise softirqs, which are to run here and not late. */
		local_bh_disable();
		step(p);
		local_bh_enable();
		cond_resched();
	}
}

void sib_wire_flush(void)
{
	flush_work(&carry_work);
}

int sib_wire_start(void)
{
	worker = alloc_ordered_workqueue("softib", WQ_MEM_RECLAIM | WQ_HIGHPRI);
	return worker ? 0 : -ENOMEM;
}

static void free_packets(struct list_head *list)
{
	struct sib_packet *p, *next;

	list_for_each_entry_safe (p, next, list, link)
		kfree(p);
}

/*
 * All adapters have gone, and nothing is late any more from here on: the timer wakes a worker that
 * is still there, which finds nothing to set it for.
 */
void sib_wire_stop(void)
{
	LIST_HEAD(gone);

	spin_lock_irq(&sib_lock);
	list_splice_init(&late, &gone);
	late_count = 0;
	spin_unlock_irq(&sib_lock);
	free_packets(&gone);
	del_timer_sync(&late_timer);
	destroy_workqueue(worker);
	free_packets(&queue);
}
