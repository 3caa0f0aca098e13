// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The subnet management agent, the same for adapters and switches: IBA volume 1, chapter 14.
 */
#include <linux/jiffies.h>
#include <linux/string.h>

#include "kernel/softib/softib.h"

#define BAD_FIELD cpu_to_be16(IB_MGMT_MAD_STATUS_INVALID_ATTRIB_VALUE)
#define UNSUPPORTED cpu_to_be16(IB_MGMT_MAD_STATUS_UNSUPPORTED_METHOD_ATTRIB)
#define LIDS_IN_BLOCK 64
#define MLIDS_IN_BLOCK 32

/* An attribute that is asked for or set; `data` has what is to be set, and then what is answered.
 */
struct request {
	struct sib_node *node;
	u8 in_port;
	u32 modifier;
	bool set;
	u8 *data;
};

static u8 nibbles(u8 high, u8 low)
{
	return high << 4 | (low & 15);
}

static struct sib_port *management_port(struct sib_node *n, u8 in_port)
{
	return &n->ports[n->sw ? 0 : in_port];
}

/* Null: there is no port of that number. */
static struct sib_port *port_of(const struct request *r, u32 number)
{
	struct sib_node *n = r->node;

	if (!n->sw && number == 0)
		number = r->in_port;
	return number <= n->ports_count ? &n->ports[number] : NULL;
}

static __be16 answer(const struct request *r, const void *from, size_t size)
{
	memset(r->data, 0, IB_SMP_DATA_SIZE);
	memcpy(r->data, from, size);
	return 0;
}

static __be16 node_description(const struct request *r)
{
	return r->set ? UNSUPPORTED : answer(r, r->node->description, sizeof(r->node->description));
}

static __be16 node_info(const struct request *r)
{
	const struct sib_node *n = r->node;
	struct ib_node_info info = {
		.base_version = 1,
		.class_version = 1,
		.node_type = n->sw ? RDMA_NODE_IB_SWITCH : RDMA_NODE_IB_CA,
		.num_ports = n->ports_count,
		.sys_guid = n->guid,
		.node_guid = n->guid,
		.port_guid = n->ports[n->sw ? 0 : r->in_port].guid,
		.partition_cap = cpu_to_be16(SIB_PKEYS),
		.device_id = cpu_to_be16(1),
		.revision = cpu_to_be32(1),
		.local_port_num = r->in_port,
	};

	return r->set ? UNSUPPORTED : answer(r, &info, sizeof(info));
}

/* What only the port of an adapter, or a switch's port 0, has. */
static void set_end_port(struct sib_port *p, const struct ib_port_info *wanted)
{
	struct ib_port_info *info = &p->info.basic;

	if (wanted->lid != info->lid || (wanted->mkeyprot_resv_lmc & 7) != sib_lmc(p))
		sib_tell(p, SIB_EVENT_LID);
	if (wanted->sm_lid != info->sm_lid ||
	    (wanted->neighbormtu_mastersmsl & 15) != (info->neighbormtu_mastersmsl & 15))
		sib_tell(p, SIB_EVENT_SM);
	if (wanted->gid_prefix != info->gid_prefix)
		sib_tell(p, SIB_EVENT_GID);
	if (wanted->clientrereg_resv_subnetto & 0x80)
		sib_tell(p, SIB_EVENT_REREGISTER);
	info->mkey = wanted->mkey;
	info->mkey_lease_period = wanted->mkey_lease_period;
	info->gid_prefix = wanted->gid_prefix;
	info->lid = wanted->lid;
	info->sm_lid = wanted->sm_lid;
	info->mkeyprot_resv_lmc = wanted->mkeyprot_resv_lmc & 0xc7;
	info->neighbormtu_mastersmsl =
		nibbles(info->neighbormtu_mastersmsl >> 4, wanted->neighbormtu_mastersmsl);
	info->clientrereg_resv_subnetto = wanted->clientrereg_resv_subnetto & 31;
	/* Violations are counted down to what is written, which is zero. */
	info->mkey_violations &= wanted->mkey_violations;
	info->pkey_violations &= wanted->pkey_violations;
	info->qkey_violations &= wanted->qkey_violations;
}

/* Zero means no change, and all ones whatever is supported. */
static u8 enabled(u8 now, u8 wanted, u8 all, u8 supported)
{
	return !wanted ? now : wanted == all ? supported : wanted & supported;
}

static void set_link(struct sib_port *p, const struct sib_port_info *wanted)
{
	struct ib_port_info *info = &p->info.basic;
	u8 mtu = wanted->basic.neighbormtu_mastersmsl >> 4;
	u8 lanes = wanted->basic.operationalvl_pei_peo_fpi_fpo;

	info->link_width_enabled =
		enabled(info->link_width_enabled, wanted->basic.link_width_enabled, 0xff,
			info->link_width_supported);
	info->linkspeedactive_enabled = nibbles(info->linkspeedactive_enabled >> 4,
						enabled(info->linkspeedactive_enabled & 15,
							wanted->basic.linkspeedactive_enabled & 15,
							15, info->linkspeed_portstate >> 4));
	p->info.ext_enabled = enabled(p->info.ext_enabled, wanted->ext_enabled & 31, 31,
				      p->info.ext_active_supported & 15);
	if (mtu)
		info->neighbormtu_mastersmsl = nibbles(mtu, info->neighbormtu_mastersmsl);
	info->operationalvl_pei_peo_fpi_fpo =
		nibbles(lanes >> 4 ?: info->operationalvl_pei_peo_fpi_fpo >> 4, lanes);
	info->vl_high_limit = wanted->basic.vl_high_limit;
	info->vlstallcnt_hoqlife = wanted->basic.vlstallcnt_hoqlife;
	info->localphyerrors_overrunerrors = wanted->basic.localphyerrors_overrunerrors;
}

static void set_state(struct sib_port *p, u8 state, u8 phys)
{
	struct ib_port_info *info = &p->info.basic;

	if (phys == SIB_PHYS_DISABLED || phys == SIB_PHYS_POLLING)
		p->disabled = phys == SIB_PHYS_DISABLED;
	if (state == IB_PORT_DOWN || phys == SIB_PHYS_DISABLED || phys == SIB_PHYS_POLLING) {
		sib_retrain(p);
		return;
	}
	if (state != IB_PORT_ARMED && state != IB_PORT_ACTIVE)
		return;
	if (state == IB_PORT_ACTIVE && sib_state(p) != IB_PORT_ACTIVE)
		sib_tell(p, SIB_EVENT_ACTIVE);
	info->linkspeed_portstate = nibbles(info->linkspeed_portstate >> 4, state);
}

static bool can_become(const struct sib_port *p, u8 state)
{
	switch (state) {
	case IB_PORT_NOP:
	case IB_PORT_DOWN:
		return true;
	case IB_PORT_ARMED:
		return sib_state(p) == IB_PORT_INIT || sib_state(p) == IB_PORT_ARMED;
	case IB_PORT_ACTIVE:
		return sib_state(p) == IB_PORT_ARMED || sib_state(p) == IB_PORT_ACTIVE;
	default:
		return false;
	}
}

static __be16 set_port_info(struct sib_port *p, const struct sib_port_info *wanted)
{
	u8 state = wanted->basic.linkspeed_portstate & 15;
	u16 lid = be16_to_cpu(wanted->basic.lid);

	if (!can_become(p, state) || wanted->basic.neighbormtu_mastersmsl >> 4 > IB_MTU_4096)
		return BAD_FIELD;
	if (sib_is_end_port(p)) {
		if (lid == 0 || lid >= SIB_FIRST_MLID)
			return BAD_FIELD;
		set_end_port(p, &wanted->basic);
	}
	set_link(p, wanted);
	set_state(p, state, wanted->basic.portphysstate_linkdown >> 4);
	return 0;
}

static __be16 port_info(const struct request *r)
{
	struct sib_port *p = port_of(r, r->modifier & 0xff);
	struct sib_port_info *out = (struct sib_port_info *)r->data;
	__be16 status;

	if (!p)
		return BAD_FIELD;
	status = r->set ? set_port_info(p, out) : 0;
	*out = p->info;
	out->basic.local_port_num = r->in_port;
	return status;
}

static __be16 switch_info(const struct request *r)
{
	const struct sib_switch_info *wanted = (const struct sib_switch_info *)r->data;
	struct sib_switch_info *info = &r->node->sw->info;

	if (r->set) {
		if (be16_to_cpu(wanted->linear_top) >= SIB_LIDS)
			return BAD_FIELD;
		info->linear_top = wanted->linear_top;
		info->default_port = wanted->default_port;
		info->default_primary = wanted->default_primary;
		info->default_not_primary = wanted->default_not_primary;
		info->mcast_top = wanted->mcast_top;
		/* That a port's state has changed is cleared by writing it. */
		info->life_state =
			(wanted->life_state & 0xf8) | (info->life_state & ~wanted->life_state & 4);
	}
	return answer(r, info, sizeof(*info));
}

static __be16 table(const struct request *r, void *at, size_t size)
{
	if (r->set)
		memcpy(at, r->data, size);
	return answer(r, at, size);
}

static __be16 pkey_table(const struct request *r)
{
	struct sib_port *p = port_of(r, r->node->sw ? r->modifier >> 16 : 0);

	if (!p || (r->modifier & 0xffff))
		return BAD_FIELD;
	if (r->set && memcmp(p->pkeys, r->data, sizeof(p->pkeys)) && sib_is_end_port(p))
		sib_tell(p, SIB_EVENT_PKEY);
	return table(r, p->pkeys, sizeof(p->pkeys));
}

/* A port has the one GUID that it was made with, which nobody can set. */
static __be16 guid_info(const struct request *r)
{
	if (r->modifier)
		return BAD_FIELD;
	return answer(r, &management_port(r->node, r->in_port)->guid, sizeof(__be64));
}

static __be16 linear_table(const struct request *r)
{
	if (r->modifier >= SIB_LIDS / LIDS_IN_BLOCK)
		return BAD_FIELD;
	return table(r, r->node->sw->ports_of_lids + r->modifier * LIDS_IN_BLOCK, LIDS_IN_BLOCK);
}

static __be16 multicast_table(const struct request *r)
{
	u32 block = r->modifier & 0x1ff, position = r->modifier >> 28;

	if (block >= SIB_MLIDS / MLIDS_IN_BLOCK || position > r->node->ports_count / 16)
		return BAD_FIELD;
	return table(r, r->node->sw->ports_of_mlids + position * SIB_MLIDS + block * MLIDS_IN_BLOCK,
		     MLIDS_IN_BLOCK * sizeof(__be16));
}

static const struct {
	__be16 id;
	bool of_switches;
	__be16 (*handle)(const struct request *r);
} attributes[] = {
	{ IB_SMP_ATTR_NODE_DESC, false, node_description },
	{ IB_SMP_ATTR_NODE_INFO, false, node_info },
	{ IB_SMP_ATTR_PORT_INFO, false, port_info },
	{ IB_SMP_ATTR_PKEY_TABLE, false, pkey_table },
	{ IB_SMP_ATTR_GUID_INFO, false, guid_info },
	{ IB_SMP_ATTR_SWITCH_INFO, true, switch_info },
	{ IB_SMP_ATTR_LINEAR_FORWARD_TABLE, true, linear_table },
	{ IB_SMP_ATTR_MCAST_FORWARD_TABLE, true, multicast_table },
};

static __be16 handle_attribute(const struct request *r, __be16 id)
{
	unsigned int i;

	for (i = 0; i < ARRAY_SIZE(attributes); i++)
		if (attributes[i].id == id && (r->node->sw || !attributes[i].of_switches))
			return attributes[i].handle(r);
	return UNSUPPORTED;
}

/*
 * Whether the port's M_Key lets a request through, IBA volume 1, 14.2.4. A violation starts the
 * lease, and when that has run out without a manager who knows the key, the port is open to all.
 */
static bool mkey_allows(struct sib_port *p, const struct ib_smp *smp)
{
	struct ib_port_info *info = &p->info.basic;

	if (p->mkey_lease_end && time_after(jiffies, p->mkey_lease_end)) {
		p->mkey_lease_end = 0;
		info->mkeyprot_resv_lmc &= 0x3f;
	}
	if (!info->mkey || smp->mkey == info->mkey) {
		p->mkey_lease_end = 0;
		return true;
	}
	return smp->method == IB_MGMT_METHOD_GET && info->mkeyprot_resv_lmc >> 6 < 2;
}

static void mkey_refuses(struct sib_port *p, u16 slid, const struct ib_smp *smp)
{
	struct ib_port_info *info = &p->info.basic;
	unsigned int lease = be16_to_cpu(info->mkey_lease_period);

	if (info->mkey_violations != cpu_to_be16(0xffff))
		be16_add_cpu(&info->mkey_violations, 1);
	if (lease && !p->mkey_lease_end)
		p->mkey_lease_end = (jiffies + lease * HZ) ?: 1;
	sib_trap_mkey(p, slid, smp);
}

enum sib_sma_result sib_sma_handle(struct sib_node *n, u8 in_port, u16 slid,
				   const struct ib_smp *in, struct ib_smp *out)
{
	struct sib_port *p = management_port(n, in_port);
	struct request request = {
		.node = n,
		.in_port = in_port,
		.modifier = be32_to_cpu(in->attr_mod),
		.set = in->method == IB_MGMT_METHOD_SET,
		.data = out->data,
	};

	if (in->method == IB_MGMT_METHOD_TRAP_REPRESS) {
		sib_trap_repress(n, in->tid);
		return SIB_SMA_CONSUMED;
	}
	/* SMInfo is the manager's. */
	if ((!request.set && in->method != IB_MGMT_METHOD_GET) ||
	    in->attr_id == IB_SMP_ATTR_SM_INFO)
		return SIB_SMA_IGNORED;
	if (!mkey_allows(p, in)) {
		mkey_refuses(p, slid, in);
		return SIB_SMA_CONSUMED;
	}
	*out = *in;
	out->method = IB_MGMT_METHOD_GET_RESP;
	out->status = handle_attribute(&request, in->attr_id);
	if (!request.set && in->attr_id == IB_SMP_ATTR_PORT_INFO &&
	    in->mkey != p->info.basic.mkey && p->info.basic.mkeyprot_resv_lmc >> 6)
		memset(out->data, 0, sizeof(__be64)); /* the key is shown to those who know it */
	if (out->mgmt_class == IB_MGMT_CLASS_SUBN_DIRECTED_ROUTE)
		out->status |= IB_SMP_DIRECTION;
	return SIB_SMA_ANSWERED;
}
