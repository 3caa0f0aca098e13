// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * An adapter as an ib_device: its attributes, the management agents behind it, and how it comes and
 * goes.
 */
#include <linux/module.h>
#include <linux/slab.h>

#include "kernel/softib/queues.h"

static int query_device(struct ib_device *d, struct ib_device_attr *a, struct ib_udata *udata)
{
	*a = (struct ib_device_attr){
		.sys_image_guid = d->node_guid,
		.vendor_part_id = 1,
		.hw_ver = 1,
		.max_mr_size = U64_MAX,
		.page_size_cap = PAGE_SIZE,
		.kernel_cap_flags = IBK_LOCAL_DMA_LKEY | IBK_BLOCK_MULTICAST_LOOPBACK,
		.max_qp = 1024,
		.max_qp_wr = SIB_MOST_WRS,
		.max_send_sge = SIB_MOST_SEND_SGES,
		.max_recv_sge = SIB_MOST_SGES,
		.max_cq = 1024,
		.max_cqe = SIB_MOST_CQES,
		.max_mr = 1024,
		.max_pd = 1024,
		.max_ah = 65536,
		.max_mcast_grp = 1024,
		.max_mcast_qp_attach = SIB_MOST_MEMBERS,
		.max_total_mcast_qp_attach = 1024 * SIB_MOST_MEMBERS,
		.max_pkeys = SIB_PKEYS,
	};
	return 0;
}

static unsigned int active_speed(const struct sib_port *p)
{
	unsigned int ext = p->info.ext_active_supported >> 4;

	return ext ? ext << 4 : p->info.basic.linkspeedactive_enabled >> 4;
}

static int query_port(struct ib_device *d, u32 number, struct ib_port_attr *a)
{
	struct sib_port *p = sib_port_of(d, number);
	const struct ib_port_info *info;
	unsigned long flags;

	if (!p)
		return -EINVAL;
	info = &p->info.basic;
	spin_lock_irqsave(&sib_lock, flags);
	a->state = sib_state(p);
	a->phys_state = info->portphysstate_linkdown >> 4;
	a->max_mtu = info->inittypereply_mtucap & 15;
	a->active_mtu = info->neighbormtu_mastersmsl >> 4;
	a->gid_tbl_len = 1;
	a->port_cap_flags = be32_to_cpu(info->cap_mask);
	a->max_msg_sz = SIB_LONGEST_PACKET;
	a->bad_pkey_cntr = be16_to_cpu(info->pkey_violations);
	a->qkey_viol_cntr = be16_to_cpu(info->qkey_violations);
	a->pkey_tbl_len = SIB_PKEYS;
	a->sm_lid = be16_to_cpu(info->sm_lid);
	a->lid = sib_lid(p);
	a->lmc = sib_lmc(p);
	a->max_vl_num = info->vlcap_inittype >> 4;
	a->sm_sl = info->neighbormtu_mastersmsl & 15;
	a->subnet_timeout = info->clientrereg_resv_subnetto & 31;
	a->active_width = info->link_width_active;
	a->active_speed = active_speed(p);
	spin_unlock_irqrestore(&sib_lock, flags);
	return 0;
}

static int modify_port(struct ib_device *d, u32 number, int mask, struct ib_port_modify *change)
{
	struct sib_port *p = sib_port_of(d, number);
	__be32 *capabilities, now;

	if (!p)
		return -EINVAL;
	if (mask & ~IB_PORT_RESET_QKEY_CNTR)
		return -EOPNOTSUPP;
	capabilities = &p->info.basic.cap_mask;
	spin_lock_irq(&sib_lock);
	if (mask & IB_PORT_RESET_QKEY_CNTR)
		p->info.basic.qkey_violations = 0;
	now = (*capabilities | cpu_to_be32(change->set_port_cap_mask)) &
	      ~cpu_to_be32(change->clr_port_cap_mask);
	if (now != *capabilities) {
		*capabilities = now;
		sib_trap_local(p, false);
	}
	spin_unlock_irq(&sib_lock);
	return 0;
}

static int modify_device(struct ib_device *d, int mask, struct ib_device_modify *change)
{
	struct sib_node *n = sib_adapter_of(d)->node;
	unsigned int number;

	if (mask & ~IB_DEVICE_MODIFY_NODE_DESC)
		return -EOPNOTSUPP;
	if (!(mask & IB_DEVICE_MODIFY_NODE_DESC))
		return 0;
	spin_lock_irq(&sib_lock);
	memcpy(d->node_desc, change->node_desc, sizeof(d->node_desc));
	memcpy(n->description, change->node_desc, sizeof(n->description));
	for (number = 1; number <= n->ports_count; number++)
		sib_trap_local(&n->ports[number], true);
	spin_unlock_irq(&sib_lock);
	return 0;
}

static int query_gid(struct ib_device *d, u32 number, int index, union ib_gid *gid)
{
	struct sib_port *p = sib_port_of(d, number);
	unsigned long flags;

	if (!p || index)
		return -EINVAL;
	spin_lock_irqsave(&sib_lock, flags);
	gid->global.subnet_prefix = p->info.basic.gid_prefix;
	spin_unlock_irqrestore(&sib_lock, flags);
	gid->global.interface_id = p->guid;
	return 0;
}

static int query_pkey(struct ib_device *d, u32 number, u16 index, u16 *pkey)
{
	struct sib_port *p = sib_port_of(d, number);
	unsigned long flags;

	if (!p || index >= SIB_PKEYS)
		return -EINVAL;
	spin_lock_irqsave(&sib_lock, flags);
	*pkey = be16_to_cpu(p->pkeys[index]);
	spin_unlock_irqrestore(&sib_lock, flags);
	return 0;
}

static int get_port_immutable(struct ib_device *d, u32 number, struct ib_port_immutable *i)
{
	i->gid_tbl_len = 1;
	i->pkey_tbl_len = SIB_PKEYS;
	i->core_cap_flags = RDMA_CORE_PORT_IBA_IB;
	i->max_mad_size = IB_MGMT_MAD_SIZE;
	return 0;
}

static enum rdma_link_layer get_link_layer(struct ib_device *d, u32 number)
{
	return IB_LINK_LAYER_INFINIBAND;
}

/* Without a completion where it comes from this host itself, and not over the wire. */
static int process_mad(struct ib_device *d, int how, u32 number, const struct ib_wc *wc,
		       const struct ib_grh *grh, const struct ib_mad *in, struct ib_mad *out,
		       size_t *size, u16 *pkey_index)
{
	struct sib_node *n = sib_adapter_of(d)->node;
	enum sib_sma_result result = SIB_SMA_IGNORED;
	struct sib_port *p = sib_port_of(d, number);
	unsigned long flags;

	if (!p)
		return IB_MAD_RESULT_FAILURE;
	spin_lock_irqsave(&sib_lock, flags);
	switch (in->mad_hdr.mgmt_class) {
	case IB_MGMT_CLASS_SUBN_LID_ROUTED:
	case IB_MGMT_CLASS_SUBN_DIRECTED_ROUTE:
		result = sib_sma_handle(n, number, wc ? wc->slid : sib_lid(p),
					(const struct ib_smp *)in, (struct ib_smp *)out);
		break;
	case IB_MGMT_CLASS_PERF_MGMT:
		if (sib_pma_handle(n, number, (const struct ib_pma_mad *)in,
				   (struct ib_pma_mad *)out))
			result = SIB_SMA_ANSWERED;
		break;
	}
	spin_unlock_irqrestore(&sib_lock, flags);
	return IB_MAD_RESULT_SUCCESS | (result == SIB_SMA_ANSWERED   ? IB_MAD_RESULT_REPLY
					: result == SIB_SMA_CONSUMED ? IB_MAD_RESULT_CONSUMED
								     : 0);
}

static int create_ah(struct ib_ah *ah, struct rdma_ah_init_attr *init, struct ib_udata *udata)
{
	container_of(ah, struct sib_ah, ibah)->attr = *init->ah_attr;
	return 0;
}

static int query_ah(struct ib_ah *ah, struct rdma_ah_attr *attr)
{
	*attr = container_of(ah, struct sib_ah, ibah)->attr;
	return 0;
}

static int destroy_ah(struct ib_ah *ah, u32 how)
{
	return 0;
}

static int alloc_pd(struct ib_pd *pd, struct ib_udata *udata)
{
	return 0;
}

static int dealloc_pd(struct ib_pd *pd, struct ib_udata *udata)
{
	return 0;
}

/* ib_core wants these of every adapter, though nobody needs memory to be registered here. */
static struct ib_mr *get_dma_mr(struct ib_pd *pd, int access)
{
	return ERR_PTR(-EOPNOTSUPP);
}

static struct ib_mr *reg_user_mr(struct ib_pd *pd, u64 start, u64 length, u64 at, int access,
				 struct ib_udata *udata)
{
	return ERR_PTR(-EOPNOTSUPP);
}

static int dereg_mr(struct ib_mr *mr, struct ib_udata *udata)
{
	return -EOPNOTSUPP;
}

static const struct ib_device_ops adapter_ops = {
	.owner = THIS_MODULE,
	.driver_id = RDMA_DRIVER_UNKNOWN,
	.uverbs_abi_ver = 1,

	.query_device = query_device,
	.modify_device = modify_device,
	.query_port = query_port,
	.modify_port = modify_port,
	.get_port_immutable = get_port_immutable,
	.get_link_layer = get_link_layer,
	.query_gid = query_gid,
	.query_pkey = query_pkey,
	.process_mad = process_mad,
	.alloc_pd = alloc_pd,
	.dealloc_pd = dealloc_pd,
	.create_ah = create_ah,
	.query_ah = query_ah,
	.destroy_ah = destroy_ah,
	.get_dma_mr = get_dma_mr,
	.reg_user_mr = reg_user_mr,
	.dereg_mr = dereg_mr,

	INIT_RDMA_OBJ_SIZE(ib_ah, sib_ah, ibah),
	INIT_RDMA_OBJ_SIZE(ib_pd, sib_pd, ibpd),
};

void sib_adapter_event(struct sib_adapter *a, u8 port, enum sib_event event)
{
	static const enum ib_event_type types[SIB_EVENTS] = {
		[SIB_EVENT_ERR] = IB_EVENT_PORT_ERR,
		[SIB_EVENT_PKEY] = IB_EVENT_PKEY_CHANGE,
		[SIB_EVENT_GID] = IB_EVENT_GID_CHANGE,
		[SIB_EVENT_LID] = IB_EVENT_LID_CHANGE,
		[SIB_EVENT_SM] = IB_EVENT_SM_CHANGE,
		[SIB_EVENT_REREGISTER] = IB_EVENT_CLIENT_REREGISTER,
		[SIB_EVENT_ACTIVE] = IB_EVENT_PORT_ACTIVE,
	};
	struct ib_event e = { .device = &a->ibdev,
			      .event = types[event],
			      .element.port_num = port };

	ib_dispatch_event(&e);
}

static struct sib_adapter *new_adapter(struct sib_node *n)
{
	struct sib_adapter *a = ib_alloc_device(sib_adapter, ibdev);
	struct ib_device *d;

	if (!a)
		return NULL;
	a->node = n;
	spin_lock_init(&a->lock);
	INIT_LIST_HEAD(&a->qps);
	INIT_LIST_HEAD(&a->members);
	d = &a->ibdev;
	d->node_type = RDMA_NODE_IB_CA;
	d->node_guid = n->guid;
	d->phys_port_cnt = n->ports_count;
	d->num_comp_vectors = 1;
	strscpy(d->node_desc, n->description, sizeof(d->node_desc));
	ib_set_device_ops(d, &adapter_ops);
	ib_set_device_ops(d, &sib_queue_ops);
	return a;
}

static void set_present(struct sib_node *n, struct sib_adapter *a, bool present)
{
	unsigned int number;

	spin_lock_irq(&sib_lock);
	n->adapter = a;
	n->present = present;
	for (number = 1; number <= n->ports_count; number++)
		sib_retrain(&n->ports[number]);
	spin_unlock_irq(&sib_lock);
}

int sib_adapter_add(struct sib_node *n)
{
	struct sib_adapter *a = new_adapter(n);
	int rc;

	if (!a)
		return -ENOMEM;
	a->parent = root_device_register(n->name);
	if (IS_ERR(a->parent)) {
		rc = PTR_ERR(a->parent);
		goto no_parent;
	}
	a->ibdev.dev.parent = a->parent;
	rc = ib_register_device(&a->ibdev, n->name, NULL);
	if (rc)
		goto not_registered;
	set_present(n, a, true);
	return 0;

not_registered:
	root_device_unregister(a->parent);
no_parent:
	ib_dealloc_device(&a->ibdev);
	return rc;
}

/*
 * Its links go first, so that its neighbours and its users are told. Then the wire forgets it, and
 * what its users still send on their way out goes nowhere, but is completed.
 */
void sib_adapter_remove(struct sib_node *n)
{
	struct sib_adapter *a = n->adapter;
	struct device *parent = a->parent;

	set_present(n, a, false);
	sib_wire_flush();
	spin_lock_irq(&sib_lock);
	n->adapter = NULL;
	spin_unlock_irq(&sib_lock);
	sib_wire_flush();
	ib_unregister_device(&a->ibdev);
	ib_dealloc_device(&a->ibdev);
	root_device_unregister(parent);
}
