// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Completion queues and queue pairs: datagrams only. There is no DMA: buffers have kernel
 * addresses, and a send is copied into its packet when it is posted.
 */
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kernel/softib/queues.h"

struct member {
	struct list_head link;
	union ib_gid gid;
	struct sib_qp *qp;
};

static struct sib_cq *cq_of(struct ib_cq *c)
{
	return container_of(c, struct sib_cq, ibcq);
}

static struct sib_qp *qp_of(struct ib_qp *q)
{
	return container_of(q, struct sib_qp, ibqp);
}

/* Completion queues */

static void complete_wr(struct ib_cq *ibcq, const struct ib_wc *wc, bool solicited)
{
	struct sib_cq *cq = cq_of(ibcq);
	unsigned long flags;
	bool call;

	spin_lock_irqsave(&cq->lock, flags);
	if (WARN_ON_ONCE(cq->count == cq->size)) {
		spin_unlock_irqrestore(&cq->lock, flags);
		return;
	}
	cq->ring[(cq->head + cq->count++) % cq->size] = *wc;
	call = cq->armed || (cq->armed_for_solicited && (solicited || wc->status != IB_WC_SUCCESS));
	if (call)
		cq->armed = cq->armed_for_solicited = false;
	spin_unlock_irqrestore(&cq->lock, flags);
	if (call)
		ibcq->comp_handler(ibcq, ibcq->cq_context);
}

static int poll_cq(struct ib_cq *ibcq, int most, struct ib_wc *wc)
{
	struct sib_cq *cq = cq_of(ibcq);
	unsigned long flags;
	int polled;

	spin_lock_irqsave(&cq->lock, flags);
	for (polled = 0; polled < most && cq->count; polled++, cq->count--) {
		wc[polled] = cq->ring[cq->head];
		cq->head = (cq->head + 1) % cq->size;
	}
	spin_unlock_irqrestore(&cq->lock, flags);
	return polled;
}

static int req_notify_cq(struct ib_cq *ibcq, enum ib_cq_notify_flags how)
{
	struct sib_cq *cq = cq_of(ibcq);
	unsigned long flags;
	int missed;

	spin_lock_irqsave(&cq->lock, flags);
	if ((how & IB_CQ_SOLICITED_MASK) == IB_CQ_SOLICITED)
		cq->armed_for_solicited = true;
	else
		cq->armed = true;
	missed = (how & IB_CQ_REPORT_MISSED_EVENTS) && cq->count;
	spin_unlock_irqrestore(&cq->lock, flags);
	return missed;
}

static int create_cq(struct ib_cq *ibcq, const struct ib_cq_init_attr *attr, struct ib_udata *udata)
{
	struct sib_cq *cq = cq_of(ibcq);

	if (udata)
		return -EOPNOTSUPP;
	if (attr->cqe < 1 || attr->cqe > SIB_MOST_CQES)
		return -EINVAL;
	cq->ring = kvcalloc(attr->cqe, sizeof(*cq->ring), GFP_KERNEL);
	if (!cq->ring)
		return -ENOMEM;
	spin_lock_init(&cq->lock);
	cq->size = attr->cqe;
	ibcq->cqe = attr->cqe;
	return 0;
}

static int destroy_cq(struct ib_cq *ibcq, struct ib_udata *udata)
{
	sib_wire_flush(); /* its handler may be running */
	kvfree(cq_of(ibcq)->ring);
	return 0;
}

/* Queue pairs */

static int check_qp(const struct ib_qp_init_attr *attr)
{
	bool special = attr->qp_type == IB_QPT_SMI || attr->qp_type == IB_QPT_GSI;

	if (attr->srq || (!special && attr->qp_type != IB_QPT_UD) ||
	    (attr->create_flags & ~IB_QP_CREATE_BLOCK_MULTICAST_LOOPBACK))
		return -EOPNOTSUPP;
	if (attr->cap.max_send_wr > SIB_MOST_WRS || attr->cap.max_recv_wr > SIB_MOST_WRS ||
	    attr->cap.max_recv_sge > SIB_MOST_SGES || attr->cap.max_send_sge > SIB_MOST_SEND_SGES)
		return -EINVAL;
	return 0;
}

static u32 new_qpn(struct sib_node *n, enum ib_qp_type type)
{
	u32 qpn;

	if (type == IB_QPT_SMI || type == IB_QPT_GSI)
		return type == IB_QPT_GSI;
	spin_lock_irq(&sib_lock);
	qpn = n->next_qpn++;
	spin_unlock_irq(&sib_lock);
	return qpn;
}

static int create_qp(struct ib_qp *ibqp, struct ib_qp_init_attr *attr, struct ib_udata *udata)
{
	struct sib_adapter *a = sib_adapter_of(ibqp->device);
	struct sib_qp *qp = qp_of(ibqp);
	int rc = udata ? -EOPNOTSUPP : check_qp(attr);

	if (rc)
		return rc;
	spin_lock_init(&qp->lock);
	qp->state = IB_QPS_RESET;
	qp->port = attr->qp_type == IB_QPT_UD ? 0 : attr->port_num;
	qp->signal_all = attr->sq_sig_type == IB_SIGNAL_ALL_WR;
	qp->blocks_loopback = attr->create_flags & IB_QP_CREATE_BLOCK_MULTICAST_LOOPBACK;
	qp->cap = attr->cap;
	qp->ring = kvcalloc(max(qp->cap.max_recv_wr, 1u), sizeof(*qp->ring), GFP_KERNEL);
	if (!qp->ring)
		return -ENOMEM;
	ibqp->qp_num = new_qpn(a->node, attr->qp_type);
	spin_lock_irq(&a->lock);
	list_add_tail(&qp->link, &a->qps);
	spin_unlock_irq(&a->lock);
	return 0;
}

static int destroy_qp(struct ib_qp *ibqp, struct ib_udata *udata)
{
	struct sib_adapter *a = sib_adapter_of(ibqp->device);
	struct sib_qp *qp = qp_of(ibqp);
	struct member *m, *next;

	spin_lock_irq(&a->lock);
	list_del(&qp->link);
	list_for_each_entry_safe (m, next, &a->members, link)
		if (m->qp == qp) {
			list_del(&m->link);
			kfree(m);
		}
	spin_unlock_irq(&a->lock);
	sib_wire_flush();
	kvfree(qp->ring);
	return 0;
}

/* Takes the oldest receive; the queue pair's lock is held. */
static struct sib_receive *take_receive(struct sib_qp *qp)
{
	struct sib_receive *r = &qp->ring[qp->receives_head];

	if (!qp->receives)
		return NULL;
	qp->receives_head = (qp->receives_head + 1) % qp->cap.max_recv_wr;
	qp->receives--;
	return r;
}

/* What has been posted to a queue pair that has failed comes back. */
static void flush_receives(struct sib_qp *qp)
{
	struct ib_wc wc = { .status = IB_WC_WR_FLUSH_ERR, .opcode = IB_WC_RECV, .qp = &qp->ibqp };
	struct sib_receive *r;
	unsigned long flags;

	for (;;) {
		spin_lock_irqsave(&qp->lock, flags);
		r = qp->state == IB_QPS_ERR ? take_receive(qp) : NULL;
		if (r)
			wc.wr_id = r->wr_id;
		spin_unlock_irqrestore(&qp->lock, flags);
		if (!r)
			return;
		local_bh_disable();
		complete_wr(qp->ibqp.recv_cq, &wc, false);
		local_bh_enable();
	}
}

static int change_qp(struct sib_qp *qp, const struct ib_qp_attr *attr, int mask)
{
	enum ib_qp_state from = mask & IB_QP_CUR_STATE ? attr->cur_qp_state : qp->state;
	enum ib_qp_state to = mask & IB_QP_STATE ? attr->qp_state : from;

	if (!ib_modify_qp_is_ok(from, to, qp->ibqp.qp_type, mask) ||
	    ((mask & IB_QP_PORT) && !sib_port_of(qp->ibqp.device, attr->port_num)) ||
	    ((mask & IB_QP_PKEY_INDEX) && attr->pkey_index >= SIB_PKEYS))
		return -EINVAL;
	if (mask & IB_QP_PORT)
		qp->port = attr->port_num;
	if (mask & IB_QP_PKEY_INDEX)
		qp->pkey_index = attr->pkey_index;
	if (mask & IB_QP_QKEY)
		qp->qkey = attr->qkey;
	qp->state = to;
	if (to == IB_QPS_RESET)
		qp->receives = 0;
	return 0;
}

static int modify_qp(struct ib_qp *ibqp, struct ib_qp_attr *attr, int mask, struct ib_udata *udata)
{
	struct sib_qp *qp = qp_of(ibqp);
	bool failed;
	int rc;

	spin_lock_irq(&qp->lock);
	rc = change_qp(qp, attr, mask);
	failed = qp->state == IB_QPS_ERR;
	spin_unlock_irq(&qp->lock);
	if (!rc && failed) {
		sib_wire_flush();
		flush_receives(qp);
	}
	return rc;
}

static int query_qp(struct ib_qp *ibqp, struct ib_qp_attr *attr, int mask,
		    struct ib_qp_init_attr *init)
{
	struct sib_qp *qp = qp_of(ibqp);

	spin_lock_irq(&qp->lock);
	*attr = (struct ib_qp_attr){
		.qp_state = qp->state,
		.cur_qp_state = qp->state,
		.qkey = qp->qkey,
		.pkey_index = qp->pkey_index,
		.port_num = qp->port,
		.cap = qp->cap,
	};
	spin_unlock_irq(&qp->lock);
	*init = (struct ib_qp_init_attr){
		.cap = qp->cap,
		.qp_type = ibqp->qp_type,
		.sq_sig_type = qp->signal_all ? IB_SIGNAL_ALL_WR : IB_SIGNAL_REQ_WR,
	};
	return 0;
}

static int post_one_receive(struct sib_qp *qp, const struct ib_recv_wr *wr)
{
	struct sib_receive *r;

	if (qp->state == IB_QPS_RESET || wr->num_sge > SIB_MOST_SGES)
		return -EINVAL;
	if (qp->receives == qp->cap.max_recv_wr)
		return -ENOMEM;
	r = &qp->ring[(qp->receives_head + qp->receives++) % qp->cap.max_recv_wr];
	r->wr_id = wr->wr_id;
	r->sges = wr->num_sge;
	memcpy(r->sge, wr->sg_list, wr->num_sge * sizeof(*r->sge));
	return 0;
}

static int post_recv(struct ib_qp *ibqp, const struct ib_recv_wr *wr, const struct ib_recv_wr **bad)
{
	struct sib_qp *qp = qp_of(ibqp);
	unsigned long flags;
	bool failed;
	int rc = 0;

	spin_lock_irqsave(&qp->lock, flags);
	while (wr && !(rc = post_one_receive(qp, wr)))
		wr = wr->next;
	failed = qp->state == IB_QPS_ERR;
	spin_unlock_irqrestore(&qp->lock, flags);
	if (rc && bad)
		*bad = wr;
	if (failed)
		flush_receives(qp);
	return rc;
}

static void fill_route(struct sib_packet *p, const struct sib_port *from,
		       const struct rdma_ah_attr *to)
{
	const struct ib_global_route *g;

	p->sl = rdma_ah_get_sl(to);
	p->dlid = rdma_ah_get_dlid(to);
	p->slid =
		p->dlid == SIB_PERMISSIVE
			? SIB_PERMISSIVE
			: sib_lid(from) | (rdma_ah_get_path_bits(to) & ((1 << sib_lmc(from)) - 1));
	if (!(rdma_ah_get_ah_flags(to) & IB_AH_GRH))
		return;
	g = rdma_ah_read_grh(to);
	p->has_grh = true;
	p->grh = (struct ib_grh){
		.version_tclass_flow =
			cpu_to_be32(6 << 28 | g->traffic_class << 20 | (g->flow_label & 0xfffff)),
		/* From the transport header to the invariant checksum. */
		.paylen = cpu_to_be16(20 + (p->has_imm ? 4 : 0) + ALIGN(p->len, 4) + 4),
		.next_hdr = 0x1b,
		.hop_limit = g->hop_limit,
		.dgid = g->dgid,
		.sgid.global = { .subnet_prefix = from->info.basic.gid_prefix,
				 .interface_id = from->guid },
	};
}

static struct sib_packet *gather(struct sib_port *from, const struct ib_send_wr *wr)
{
	struct sib_packet *p;
	u32 len = 0;
	u8 *at;
	int i;

	for (i = 0; i < wr->num_sge; i++)
		len += wr->sg_list[i].length;
	if (len > SIB_LONGEST_PACKET)
		return ERR_PTR(-EINVAL);
	p = sib_packet_new(from, len);
	if (!p)
		return ERR_PTR(-ENOMEM);
	for (i = 0, at = p->data; i < wr->num_sge; at += wr->sg_list[i].length, i++)
		memcpy(at, (void *)(uintptr_t)wr->sg_list[i].addr, wr->sg_list[i].length);
	return p;
}

static int post_one_send(struct sib_qp *qp, const struct ib_send_wr *wr)
{
	struct sib_port *from = sib_port_of(qp->ibqp.device, qp->port);
	const struct ib_ud_wr *ud = ud_wr(wr);
	unsigned int pkey_index;
	struct sib_packet *p;

	if ((qp->state != IB_QPS_RTS && qp->state != IB_QPS_ERR) || !from || !ud->ah ||
	    (wr->opcode != IB_WR_SEND && wr->opcode != IB_WR_SEND_WITH_IMM) ||
	    wr->num_sge > SIB_MOST_SEND_SGES)
		return -EINVAL;
	if (qp->sends == qp->cap.max_send_wr)
		return -ENOMEM;
	p = gather(from, wr);
	if (IS_ERR(p))
		return PTR_ERR(p);
	p->qp = qp;
	p->wr_id = wr->wr_id;
	p->signaled = qp->signal_all || (wr->send_flags & IB_SEND_SIGNALED);
	p->solicited = wr->send_flags & IB_SEND_SOLICITED;
	p->has_imm = wr->opcode == IB_WR_SEND_WITH_IMM;
	p->imm = p->has_imm ? wr->ex.imm_data : 0;
	p->sqpn = qp->ibqp.qp_num;
	p->dqpn = ud->remote_qpn;
	/* With its top bit set it means the queue pair's own. */
	p->qkey = ud->remote_qkey & IB_QP_SET_QKEY ? qp->qkey : ud->remote_qkey;
	pkey_index = p->sqpn == 1 ? ud->pkey_index : qp->pkey_index;
	spin_lock(&sib_lock);
	fill_route(p, from, &container_of(ud->ah, struct sib_ah, ibah)->attr);
	p->pkey = p->sqpn == 0		   ? IB_DEFAULT_PKEY_FULL
		  : pkey_index < SIB_PKEYS ? be16_to_cpu(from->pkeys[pkey_index])
					   : 0;
	sib_wire_send(p);
	spin_unlock(&sib_lock);
	qp->sends++;
	return 0;
}

static int post_send(struct ib_qp *ibqp, const struct ib_send_wr *wr, const struct ib_send_wr **bad)
{
	struct sib_qp *qp = qp_of(ibqp);
	unsigned long flags;
	int rc = 0;

	spin_lock_irqsave(&qp->lock, flags);
	while (wr && !(rc = post_one_send(qp, wr)))
		wr = wr->next;
	spin_unlock_irqrestore(&qp->lock, flags);
	if (rc && bad)
		*bad = wr;
	return rc;
}

bool sib_qp_sends(struct sib_qp *qp)
{
	bool sends;

	spin_lock_irq(&qp->lock);
	sends = qp->state == IB_QPS_RTS;
	spin_unlock_irq(&qp->lock);
	return sends;
}

void sib_qp_sent(struct sib_qp *qp, u64 wr_id, u32 len, bool signaled)
{
	struct ib_wc wc = {
		.wr_id = wr_id, .opcode = IB_WC_SEND, .qp = &qp->ibqp, .byte_len = len
	};

	spin_lock_irq(&qp->lock);
	wc.status = qp->state == IB_QPS_RTS ? IB_WC_SUCCESS : IB_WC_WR_FLUSH_ERR;
	qp->sends--;
	spin_unlock_irq(&qp->lock);
	if (signaled || wc.status != IB_WC_SUCCESS)
		complete_wr(qp->ibqp.send_cq, &wc, false);
}

/* Copies to a receive's buffers from that offset on; false: it does not fit. */
static bool scatter(const struct sib_receive *r, u32 offset, const void *from, u32 len)
{
	int i;

	for (i = 0; i < r->sges && len; i++) {
		u32 room = r->sge[i].length, part;

		if (offset >= room) {
			offset -= room;
			continue;
		}
		part = min(len, room - offset);
		memcpy((u8 *)(uintptr_t)r->sge[i].addr + offset, from, part);
		from += part;
		len -= part;
		offset = 0;
	}
	return !len;
}

enum verdict { RECEIVED, NOT_FOR_IT, BAD_PKEY, BAD_QKEY, NO_RECEIVE };

/* The queue pair's lock is held. */
static enum verdict judge(const struct sib_qp *qp, const struct sib_port *at,
			  const struct sib_packet *p, unsigned int *pkey_index)
{
	unsigned int index = qp->pkey_index;
	bool match;

	if (qp->port != at->number || (qp->state != IB_QPS_RTR && qp->state != IB_QPS_RTS))
		return NOT_FOR_IT;
	if (p->loopback && qp->blocks_loopback && qp->ibqp.qp_num == p->sqpn &&
	    p->dqpn == SIB_GROUP_QPN)
		return NOT_FOR_IT;
	if (p->dqpn) {
		spin_lock(&sib_lock);
		match = p->dqpn == 1 ? sib_port_has_pkey(at, p->pkey, &index)
				     : sib_pkeys_match(be16_to_cpu(at->pkeys[index]), p->pkey);
		spin_unlock(&sib_lock);
		if (!match)
			return BAD_PKEY;
		if (qp->qkey != p->qkey)
			return BAD_QKEY;
	}
	*pkey_index = index;
	return qp->receives ? RECEIVED : NO_RECEIVE;
}

/* In both cases the first 40 bytes are the global header's. */
static bool fill_receive(const struct sib_receive *r, const struct sib_packet *p)
{
	if (p->has_grh)
		scatter(r, 0, &p->grh, sizeof(p->grh));
	return scatter(r, sizeof(p->grh), p->data, p->len);
}

static enum verdict receive(struct sib_qp *qp, struct sib_port *at, const struct sib_packet *p,
			    u8 path_bits)
{
	struct ib_wc wc = {
		.status = IB_WC_SUCCESS,
		.opcode = IB_WC_RECV,
		.byte_len = p->len + sizeof(struct ib_grh),
		.qp = &qp->ibqp,
		.src_qp = p->sqpn,
		.slid = p->slid,
		.sl = p->sl,
		.port_num = at->number,
		.dlid_path_bits = path_bits,
		.wc_flags = (p->has_grh ? IB_WC_GRH : 0) | (p->has_imm ? IB_WC_WITH_IMM : 0),
		.ex.imm_data = p->imm,
	};
	struct sib_receive *r;
	enum verdict verdict;
	unsigned int index;

	spin_lock_irq(&qp->lock);
	verdict = judge(qp, at, p, &index);
	if (verdict == RECEIVED) {
		r = take_receive(qp);
		wc.wr_id = r->wr_id;
		wc.pkey_index = index;
		if (!fill_receive(r, p))
			wc.status = IB_WC_LOC_LEN_ERR;
	}
	spin_unlock_irq(&qp->lock);
	if (verdict == RECEIVED)
		complete_wr(qp->ibqp.recv_cq, &wc, p->solicited);
	return verdict;
}

/* To whom a packet goes. They stay as long as the worker, which asks, is at it. */
static unsigned int find_qps(struct sib_adapter *a, const struct sib_packet *p,
			     struct sib_qp **found)
{
	struct sib_qp *qp;
	unsigned int count = 0;
	struct member *m;

	spin_lock_irq(&a->lock);
	if (p->dqpn == SIB_GROUP_QPN) {
		list_for_each_entry (m, &a->members, link)
			if (p->has_grh && count < SIB_MOST_MEMBERS &&
			    !memcmp(&m->gid, &p->grh.dgid, sizeof(m->gid)))
				found[count++] = m->qp;
	} else {
		list_for_each_entry (qp, &a->qps, link)
			if (qp->ibqp.qp_num == p->dqpn && count < SIB_MOST_MEMBERS)
				found[count++] = qp;
	}
	spin_unlock_irq(&a->lock);
	return count;
}

static void note(struct sib_port *at, const struct sib_packet *p, enum verdict verdict)
{
	spin_lock_irq(&sib_lock);
	if (verdict == BAD_PKEY) {
		at->counters.bad_pkey_in++;
		sib_trap_key(at, p, true);
	} else if (verdict == BAD_QKEY) {
		sib_trap_key(at, p, false);
	} else if (verdict == NO_RECEIVE && sib_is_smp(p)) {
		at->counters.vl15_dropped++;
	}
	spin_unlock_irq(&sib_lock);
}

void sib_adapter_receive(struct sib_adapter *a, struct sib_port *at, const struct sib_packet *p)
{
	struct sib_qp *found[SIB_MOST_MEMBERS];
	unsigned int count = find_qps(a, p, found), i;
	enum verdict verdict;
	u8 path_bits;

	spin_lock_irq(&sib_lock);
	path_bits = p->dlid & ((1 << sib_lmc(at)) - 1);
	spin_unlock_irq(&sib_lock);
	for (i = 0; i < count; i++) {
		verdict = receive(found[i], at, p, path_bits);
		if (verdict > NOT_FOR_IT)
			note(at, p, verdict);
	}
}

/* Multicast groups */

static int attach_mcast(struct ib_qp *ibqp, union ib_gid *gid, u16 lid)
{
	struct sib_adapter *a = sib_adapter_of(ibqp->device);
	struct member *m = kmalloc(sizeof(*m), GFP_KERNEL);

	if (!m)
		return -ENOMEM;
	m->gid = *gid;
	m->qp = qp_of(ibqp);
	spin_lock_irq(&a->lock);
	list_add_tail(&m->link, &a->members);
	spin_unlock_irq(&a->lock);
	return 0;
}

static int detach_mcast(struct ib_qp *ibqp, union ib_gid *gid, u16 lid)
{
	struct sib_adapter *a = sib_adapter_of(ibqp->device);
	struct member *m, *found = NULL;

	spin_lock_irq(&a->lock);
	list_for_each_entry (m, &a->members, link)
		if (m->qp == qp_of(ibqp) && !memcmp(&m->gid, gid, sizeof(*gid))) {
			list_del(&m->link);
			found = m;
			break;
		}
	spin_unlock_irq(&a->lock);
	kfree(found);
	return found ? 0 : -EINVAL;
}

const struct ib_device_ops sib_queue_ops = {
	.poll_cq = poll_cq,
	.req_notify_cq = req_notify_cq,
	.create_cq = create_cq,
	.destroy_cq = destroy_cq,
	.create_qp = create_qp,
	.modify_qp = modify_qp,
	.query_qp = query_qp,
	.destroy_qp = destroy_qp,
	.post_send = post_send,
	.post_recv = post_recv,
	.attach_mcast = attach_mcast,
	.detach_mcast = detach_mcast,

	INIT_RDMA_OBJ_SIZE(ib_cq, sib_cq, ibcq),
	INIT_RDMA_OBJ_SIZE(ib_qp, sib_qp, ibqp),
};
