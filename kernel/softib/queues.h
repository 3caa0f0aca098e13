/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * What adapter.c and queues.c share: an adapter's verbs, the structures in which ib_core keeps
 * them.
 */
#ifndef KERNEL_SOFTIB_QUEUES_H
#define KERNEL_SOFTIB_QUEUES_H

#include "kernel/softib/softib.h"

#define SIB_MOST_WRS 4096
#define SIB_MOST_SGES 4
#define SIB_MOST_SEND_SGES 20
#define SIB_MOST_CQES 65536
#define SIB_MOST_MEMBERS 16 /* queue pairs of one adapter in one group */

struct sib_adapter {
	struct ib_device ibdev;
	struct sib_node *node;
	struct device *parent; /* IPoIB makes it the parent of its interfaces, too */
	spinlock_t lock;       /* the two lists */
	struct list_head qps, members;
};

struct sib_cq {
	struct ib_cq ibcq;
	spinlock_t lock; /* all below */
	struct ib_wc *ring;
	u32 size, head, count;
	bool armed, armed_for_solicited;
};

struct sib_receive {
	u64 wr_id;
	int sges;
	struct ib_sge sge[SIB_MOST_SGES];
};

struct sib_qp {
	struct ib_qp ibqp;
	struct list_head link;
	bool signal_all, blocks_loopback;
	struct ib_qp_cap cap;
	spinlock_t lock; /* all below; sib_lock may be taken inside */
	enum ib_qp_state state;
	u8 port;
	u16 pkey_index;
	u32 qkey, sends, receives_head, receives;
	struct sib_receive *ring;
};

struct sib_ah {
	struct ib_ah ibah;
	struct rdma_ah_attr attr;
};

struct sib_pd {
	struct ib_pd ibpd;
};

static inline struct sib_adapter *sib_adapter_of(struct ib_device *d)
{
	return container_of(d, struct sib_adapter, ibdev);
}

static inline struct sib_port *sib_port_of(struct ib_device *d, u32 number)
{
	struct sib_node *n = sib_adapter_of(d)->node;

	return number >= 1 && number <= n->ports_count ? &n->ports[number] : NULL;
}

extern const struct ib_device_ops sib_queue_ops;

#endif
