// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * A switch: forwards by its tables and along directed routes, answers what is for itself, and sees
 * to P_Keys where the manager wants that. IBA volume 1, 14.2.2 (directed routes) and 18.2
 * (relaying).
 */
#include <linux/slab.h>

#include "kernel/softib/softib.h"

/* In the byte of PortInfo that ends with them. */
#define ENFORCE_INBOUND 8
#define ENFORCE_OUTBOUND 4

static void not_relayed(struct sib_port *in, struct sib_packet *p)
{
	in->counters.not_relayed++;
	kfree(p);
}

/*
 * The table of a port has the P_Keys of who is behind it. Inbound, a packet carries the sender's
 * own key, which a limited member's would not match: there the partition alone counts, which a full
 * key tells. Outbound, keys match as at an adapter.
 */
static bool is_refused(struct sib_port *p, const struct sib_packet *packet, u8 direction)
{
	u16 pkey = packet->pkey | (direction == ENFORCE_INBOUND ? SIB_PKEY_FULL : 0);

	if (sib_is_smp(packet) || p->number == 0 ||
	    !(p->info.basic.operationalvl_pei_peo_fpi_fpo & direction) ||
	    sib_port_has_pkey(p, pkey, NULL))
		return false;
	if (direction == ENFORCE_INBOUND)
		p->counters.bad_pkey_in++;
	else
		p->counters.bad_pkey_out++;
	return true;
}

static void leave_by(struct sib_node *n, unsigned int number, struct sib_packet *p)
{
	if (is_refused(&n->ports[number], p, ENFORCE_OUTBOUND))
		kfree(p);
	else
		sib_wire_leave(&n->ports[number], p);
}

static void route_multicast(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	unsigned int group = p->dlid - SIB_FIRST_MLID, number;
	struct sib_packet *copy;

	if (group >= SIB_MLIDS)
		return not_relayed(in, p);
	for (number = 1; number <= n->ports_count; number++) {
		u16 mask = be16_to_cpu(n->sw->ports_of_mlids[number / 16 * SIB_MLIDS + group]);

		if (number == in->number || !(mask & 1 << number % 16))
			continue;
		copy = sib_packet_copy(p);
		if (copy)
			leave_by(n, number, copy);
	}
	kfree(p);
}

/* By the tables; what the switch sends itself comes from its port 0. */
void sib_switch_route(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	unsigned int number;

	if (sib_is_multicast(p))
		return route_multicast(n, in, p);
	if (p->dlid == 0 || p->dlid > be16_to_cpu(n->sw->info.linear_top))
		return not_relayed(in, p);
	number = n->sw->ports_of_lids[p->dlid];
	if (number == 0 || number > n->ports_count)
		return not_relayed(in, p);
	leave_by(n, number, p);
}

static void turn_round(struct sib_packet *p)
{
	swap(p->sqpn, p->dqpn);
	swap(p->slid, p->dlid);
}

static void direct(struct sib_node *n, struct sib_port *in, struct sib_packet *p);

static void answer_smp(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	struct ib_smp *smp = (struct ib_smp *)p->data, out;

	if (sib_sma_handle(n, in->number, p->slid, smp, &out) != SIB_SMA_ANSWERED) {
		kfree(p);
		return;
	}
	*smp = out;
	if (p->dlid == SIB_PERMISSIVE)
		swap(p->sqpn, p->dqpn);
	else
		turn_round(p);
	sib_capture(p);
	/* A route that ends with a part by LIDs goes back by them to where that part began. */
	if (smp->mgmt_class == IB_MGMT_CLASS_SUBN_DIRECTED_ROUTE &&
	    smp->dr_dlid == IB_LID_PERMISSIVE)
		direct(n, in, p);
	else
		sib_switch_route(n, &n->ports[0], p);
}

static void leave_directed(struct sib_node *n, struct sib_port *in, u8 number, struct sib_packet *p)
{
	if (number == 0 || number > n->ports_count)
		return not_relayed(in, p);
	p->slid = p->dlid = SIB_PERMISSIVE;
	sib_wire_leave(&n->ports[number], p);
}

/* The directed part of the route ends here and the rest goes by LIDs. */
static void leave_routed(struct sib_node *n, struct sib_port *in, __be16 dlid, struct sib_packet *p)
{
	p->slid = sib_lid(&n->ports[0]);
	p->dlid = be16_to_cpu(dlid);
	sib_switch_route(n, in, p);
}

static void direct_out(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	struct ib_smp *smp = (struct ib_smp *)p->data;

	if (smp->hop_ptr == 0 && smp->hop_cnt) {
		/* It came here by LIDs, and the directed part begins. */
		smp->hop_ptr = 1;
		return leave_directed(n, in, smp->initial_path[1], p);
	}
	if (smp->hop_ptr && smp->hop_ptr < smp->hop_cnt) {
		smp->return_path[smp->hop_ptr++] = in->number;
		return leave_directed(n, in, smp->initial_path[smp->hop_ptr], p);
	}
	if (smp->hop_ptr == smp->hop_cnt + 1)
		return answer_smp(n, in, p);
	if (smp->hop_ptr != smp->hop_cnt)
		return not_relayed(in, p);
	if (smp->hop_cnt)
		smp->return_path[smp->hop_ptr] = in->number;
	smp->hop_ptr++;
	if (smp->dr_dlid == IB_LID_PERMISSIVE)
		answer_smp(n, in, p);
	else
		leave_routed(n, in, smp->dr_dlid, p);
}

static void direct_back(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	struct ib_smp *smp = (struct ib_smp *)p->data;

	if (smp->hop_ptr >= 2 && smp->hop_ptr <= smp->hop_cnt + 1) {
		smp->hop_ptr--;
		return leave_directed(n, in, smp->return_path[smp->hop_ptr], p);
	}
	if (smp->hop_ptr != 1 || smp->dr_slid == IB_LID_PERMISSIVE)
		return not_relayed(in, p);
	smp->hop_ptr = 0;
	leave_routed(n, in, smp->dr_slid, p);
}

/* One step of a directed route: C14-9 and C14-13. */
static void direct(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	struct ib_smp *smp = (struct ib_smp *)p->data;

	if (smp->hop_cnt >= IB_SMP_MAX_PATH_HOPS)
		return not_relayed(in, p);
	if (ib_get_smp_direction(smp))
		direct_back(n, in, p);
	else
		direct_out(n, in, p);
}

static void answer_gmp(struct sib_node *n, struct sib_port *in, struct sib_packet *p)
{
	struct ib_pma_mad *mad = (struct ib_pma_mad *)p->data, out;

	if (p->dqpn != 1 || p->len != IB_MGMT_MAD_SIZE ||
	    mad->mad_hdr.mgmt_class != IB_MGMT_CLASS_PERF_MGMT || p->qkey != IB_QP1_QKEY ||
	    !sib_pma_handle(n, in->number, mad, &out)) {
		kfree(p);
		return;
	}
	*mad = out;
	turn_round(p);
	p->has_grh = false;
	sib_capture(p);
	sib_switch_route(n, &n->ports[0], p);
}

void sib_switch_receive(struct sib_port *in, struct sib_packet *p)
{
	bool is_own = sib_owns_lid(&in->node->ports[0], p->dlid) || p->dlid == SIB_PERMISSIVE;
	const struct ib_smp *smp = (const struct ib_smp *)p->data;

	if (is_refused(in, p, ENFORCE_INBOUND)) {
		kfree(p);
		return;
	}
	if (!is_own)
		return sib_switch_route(in->node, in, p);
	if (!sib_is_smp(p))
		return answer_gmp(in->node, in, p);
	if (p->len != IB_MGMT_MAD_SIZE)
		return not_relayed(in, p);
	if (smp->mgmt_class == IB_MGMT_CLASS_SUBN_DIRECTED_ROUTE)
		direct(in->node, in, p);
	else
		answer_smp(in->node, in, p);
}
