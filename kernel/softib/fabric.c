// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Nodes and their ports, how links train, and what an adapter is told of it.
 */
#include <linux/overflow.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kernel/softib/softib.h"

#define SUBNET_TIMEOUT 18 /* 4.096 us * 2^18: a second, until the manager says otherwise */
#define RESPONSE_TIME 16
#define ADAPTER_CAPABILITIES                                                                       \
	(IB_PORT_TRAP_SUP | IB_PORT_SYS_IMAGE_GUID_SUP | IB_PORT_CM_SUP | IB_PORT_CLIENT_REG_SUP | \
	 IB_PORT_CAP_MASK_NOTICE_SUP | IB_PORT_OTHER_LOCAL_CHANGES_SUP)
#define SWITCH_CAPABILITIES (IB_PORT_TRAP_SUP | IB_PORT_SYS_IMAGE_GUID_SUP)

DEFINE_SPINLOCK(sib_lock);
LIST_HEAD(sib_nodes);
static LIST_HEAD(untold_ports);

static void start_port(struct sib_port *p, struct sib_node *n, u8 number)
{
	struct ib_port_info *info = &p->info.basic;

	p->node = n;
	p->number = number;
	p->guid = cpu_to_be64(be64_to_cpu(n->guid) + (n->sw ? 0 : number));
	p->pkeys[0] = cpu_to_be16(IB_DEFAULT_PKEY_FULL);
	INIT_LIST_HEAD(&p->untold);
	info->portphysstate_linkdown = SIB_PHYS_POLLING << 4 | SIB_PHYS_POLLING;
	info->linkspeed_portstate = IB_PORT_DOWN;
	/* One lane for data: there is nothing to map service levels to. */
	info->vlcap_inittype = 1 << 4;
	info->operationalvl_pei_peo_fpi_fpo = 1 << 4;
	info->clientrereg_resv_subnetto = SUBNET_TIMEOUT;
	info->resv_resptimevalue = RESPONSE_TIME;
	if (sib_is_end_port(p)) {
		info->gid_prefix = cpu_to_be64(0xfe80ULL << 48);
		info->guid_cap = 1;
		info->cap_mask = cpu_to_be32(n->sw ? SWITCH_CAPABILITIES : ADAPTER_CAPABILITIES);
	}
	sib_port_limits(p, IB_WIDTH_1X | IB_WIDTH_4X, IB_SPEED_SDR | IB_SPEED_DDR | IB_SPEED_QDR, 0,
			IB_MTU_4096);
	if (n->sw && number == 0) {
		info->linkspeed_portstate = (info->linkspeed_portstate & 0xf0) | IB_PORT_ACTIVE;
		info->portphysstate_linkdown = SIB_PHYS_LINK_UP << 4 | SIB_PHYS_POLLING;
	}
}

static struct sib_switch *new_switch(unsigned int ports)
{
	size_t multicast_size = array3_size(ports / 16 + 1, SIB_MLIDS, sizeof(__be16));
	struct sib_switch *sw = kzalloc(sizeof(*sw), GFP_KERNEL);

	if (!sw)
		return NULL;
	sw->ports_of_lids = kvmalloc(SIB_LIDS, GFP_KERNEL);
	sw->ports_of_mlids = kvzalloc(multicast_size, GFP_KERNEL);
	if (!sw->ports_of_lids || !sw->ports_of_mlids) {
		kvfree(sw->ports_of_lids);
		kvfree(sw->ports_of_mlids);
		kfree(sw);
		return NULL;
	}
	memset(sw->ports_of_lids, 0xff, SIB_LIDS);
	sw->info = (struct sib_switch_info){
		.linear_cap = cpu_to_be16(SIB_LIDS - 1),
		.mcast_cap = cpu_to_be16(SIB_MLIDS),
		.default_primary = 0xff,
		.default_not_primary = 0xff,
		.enforce_cap = cpu_to_be16(SIB_PKEYS),
		.flags = 0xc0, /* enforces P_Keys inbound and outbound */
	};
	return sw;
}

struct sib_node *sib_node_create(const char *name, u64 guid, unsigned int ports, bool is_switch)
{
	struct sib_node *n = kzalloc(struct_size(n, ports, ports + 1), GFP_KERNEL);
	unsigned int i;

	if (!n)
		return NULL;
	if (is_switch) {
		n->sw = new_switch(ports);
		if (!n->sw) {
			kfree(n);
			return NULL;
		}
	}
	strscpy(n->name, name, sizeof(n->name));
	strscpy(n->description, name, sizeof(n->description));
	n->guid = cpu_to_be64(guid);
	n->ports_count = ports;
	n->present = is_switch;
	for (i = 0; i <= ports; i++)
		start_port(&n->ports[i], n, i);
	spin_lock_irq(&sib_lock);
	list_add_tail(&n->link, &sib_nodes);
	spin_unlock_irq(&sib_lock);
	return n;
}

struct sib_node *sib_node_by_name(const char *name)
{
	struct sib_node *n;

	list_for_each_entry (n, &sib_nodes, link)
		if (!strcmp(n->name, name))
			return n;
	return NULL;
}

void sib_nodes_free(void)
{
	struct sib_node *n, *next;

	list_for_each_entry_safe (n, next, &sib_nodes, link) {
		list_del(&n->link);
		if (n->sw) {
			kvfree(n->sw->ports_of_lids);
			kvfree(n->sw->ports_of_mlids);
			kfree(n->sw);
		}
		kfree(n);
	}
}

bool sib_join(struct sib_port *a, struct sib_port *b)
{
	if (a->peer || b->peer || a == b)
		return false;
	a->peer = b;
	b->peer = a;
	sib_retrain(a);
	return true;
}

void sib_port_limits(struct sib_port *p, u8 widths, u8 speeds, u8 ext_speeds, u8 mtu)
{
	struct ib_port_info *info = &p->info.basic;

	info->link_width_supported = info->link_width_enabled = widths;
	info->linkspeed_portstate = speeds << 4 | sib_state(p);
	info->linkspeedactive_enabled = speeds;
	p->info.ext_active_supported = ext_speeds;
	p->info.ext_enabled = ext_speeds;
	info->inittypereply_mtucap = mtu;
	info->neighbormtu_mastersmsl = mtu << 4 | (info->neighbormtu_mastersmsl & 15);
	if (ext_speeds)
		p->node->ports[p->node->sw ? 0 : p->number].info.basic.cap_mask |=
			cpu_to_be32(IB_PORT_EXTENDED_SPEEDS_SUP);
	/* What a port that never trains says of itself. */
	info->link_width_active = 1 << (fls(widths) - 1);
	info->linkspeedactive_enabled |= 1 << (fls(speeds) - 1) << 4;
}

/* The best that both ends allow. False: there is nothing that both do. */
static bool agree(struct sib_port *a, struct sib_port *b)
{
	struct ib_port_info *one = &a->info.basic, *other = &b->info.basic;
	u8 widths = one->link_width_enabled & other->link_width_enabled;
	u8 speeds = one->linkspeedactive_enabled & other->linkspeedactive_enabled & 15;
	u8 ext = a->info.ext_enabled & b->info.ext_enabled;

	if (!widths || !speeds)
		return false;
	one->link_width_active = other->link_width_active = 1 << (fls(widths) - 1);
	speeds = 1 << (fls(speeds) - 1) << 4;
	one->linkspeedactive_enabled = speeds | (one->linkspeedactive_enabled & 15);
	other->linkspeedactive_enabled = speeds | (other->linkspeedactive_enabled & 15);
	ext = ext ? 1 << (fls(ext) - 1) << 4 : 0;
	a->info.ext_active_supported = ext | (a->info.ext_active_supported & 15);
	b->info.ext_active_supported = ext | (b->info.ext_active_supported & 15);
	return true;
}

static void set_link(struct sib_port *p, bool up)
{
	struct ib_port_info *info = &p->info.basic;
	u8 was = sib_state(p), state = up ? IB_PORT_INIT : IB_PORT_DOWN;
	u8 phys = up ? SIB_PHYS_LINK_UP : p->disabled ? SIB_PHYS_DISABLED : SIB_PHYS_POLLING;

	info->linkspeed_portstate = (info->linkspeed_portstate & 0xf0) | state;
	info->portphysstate_linkdown = (info->portphysstate_linkdown & 15) | phys << 4;
	if (was == state)
		return;
	if (!up)
		p->counters.link_downed++;
	if (p->node->sw) {
		p->node->sw->info.life_state |= 4; /* the state of a port has changed */
		sib_trap_link(p->node);
	} else if (was != IB_PORT_DOWN) {
		sib_tell(p, SIB_EVENT_ERR);
	}
}

static bool is_ready(const struct sib_port *p)
{
	return p->node->present && !p->pulled && !p->disabled;
}

void sib_retrain(struct sib_port *p)
{
	struct sib_port *q = p->peer;
	bool up = q && is_ready(p) && is_ready(q) && agree(p, q);

	set_link(p, up);
	if (q)
		set_link(q, up);
}

void sib_tell(struct sib_port *p, enum sib_event event)
{
	__set_bit(event, &p->events);
	if (list_empty(&p->untold))
		list_add_tail(&p->untold, &untold_ports);
	sib_wire_wake();
}

void sib_tell_all(void)
{
	struct sib_adapter *adapter;
	unsigned long events;
	struct sib_port *p;
	unsigned int event;

	for (;;) {
		spin_lock_irq(&sib_lock);
		p = list_first_entry_or_null(&untold_ports, struct sib_port, untold);
		if (p) {
			list_del_init(&p->untold);
			events = p->events;
			p->events = 0;
			adapter = p->node->adapter;
		}
		spin_unlock_irq(&sib_lock);
		if (!p)
			return;
		if (adapter)
			for_each_set_bit(event, &events, SIB_EVENTS)
				sib_adapter_event(adapter, p->number, event);
	}
}

bool sib_port_has_pkey(const struct sib_port *p, u16 pkey, unsigned int *index)
{
	unsigned int i;

	for (i = 0; i < SIB_PKEYS; i++)
		if (sib_pkeys_match(be16_to_cpu(p->pkeys[i]), pkey)) {
			if (index)
				*index = i;
			return true;
		}
	return false;
}
