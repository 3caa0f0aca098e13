// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The performance management agent: a port's counters, as `perfquery` reads and resets them. IBA
 * volume 1, 16.1.
 */
#include <linux/minmax.h>
#include <linux/stddef.h>
#include <linux/string.h>

#include "kernel/softib/softib.h"

#define ALL_PORTS 0xff
#define RESPONSE_TIME 16

/* A counter as in PortCounters, which stop at their highest value. */
struct row {
	u8 offset, bytes;
	__be16 select;
	u16 member;
};

#define ROW(field, select, member)                                                            \
	{                                                                                     \
		offsetof(struct ib_pma_portcounters, field),                                  \
			sizeof_field(struct ib_pma_portcounters, field), cpu_to_be16(select), \
			offsetof(struct sib_counters, member)                                 \
	}
static const struct row rows[] = {
	ROW(link_downed_counter, 1 << 2, link_downed),
	ROW(port_rcv_errors, 1 << 3, errors),
	ROW(port_rcv_switch_relay_errors, 1 << 5, not_relayed),
	ROW(port_xmit_discards, 1 << 6, discarded),
	ROW(port_xmit_constraint_errors, 1 << 7, bad_pkey_out),
	ROW(port_rcv_constraint_errors, 1 << 8, bad_pkey_in),
	ROW(vl15_dropped, 1 << 11, vl15_dropped),
	ROW(port_xmit_data, 1 << 12, sent_words),
	ROW(port_rcv_data, 1 << 13, received_words),
	ROW(port_xmit_packets, 1 << 14, sent),
	ROW(port_rcv_packets, 1 << 15, received),
};
#undef ROW

/* The wide ones, all of 64 bits. */
#define ROW(field, select, member)                                                 \
	{                                                                          \
		offsetof(struct ib_pma_portcounters_ext, field), sizeof(__be64),   \
			cpu_to_be16(select), offsetof(struct sib_counters, member) \
	}
static const struct row wide_rows[] = {
	ROW(port_xmit_data, 1 << 0, sent_words),
	ROW(port_rcv_data, 1 << 1, received_words),
	ROW(port_xmit_packets, 1 << 2, sent),
	ROW(port_rcv_packets, 1 << 3, received),
	ROW(port_unicast_xmit_packets, 1 << 4, sent_unicast),
	ROW(port_unicast_rcv_packets, 1 << 5, received_unicast),
	ROW(port_multicast_xmit_packets, 1 << 6, sent_multicast),
	ROW(port_multicast_rcv_packets, 1 << 7, received_multicast),
};
#undef ROW

static u64 *counter(struct sib_port *p, const struct row *row)
{
	return (void *)&p->counters + row->member;
}

static void put(u8 *at, unsigned int bytes, u64 value)
{
	while (bytes--) {
		at[bytes] = value;
		value >>= 8;
	}
}

/* Of one port, or the sum of all. */
static u64 sum(struct sib_node *n, u8 select, const struct row *row)
{
	unsigned int number;
	u64 value = 0;

	if (select != ALL_PORTS)
		return *counter(&n->ports[select], row);
	for (number = 1; number <= n->ports_count; number++)
		value += *counter(&n->ports[number], row);
	return value;
}

static void reset(struct sib_node *n, u8 select, const struct row *row)
{
	unsigned int number;

	for (number = 0; number <= n->ports_count; number++)
		if (select == ALL_PORTS || select == number)
			*counter(&n->ports[number], row) = 0;
}

/* Both forms begin alike: a reserved byte, the port, and which counters a Set resets. */
static __be16 counters(struct sib_node *n, bool set, const struct row *row, size_t count, u8 *data)
{
	struct ib_pma_portcounters *head = (struct ib_pma_portcounters *)data;
	u8 select = head->port_select;
	__be16 chosen = head->counter_select;

	if (select != ALL_PORTS && (select > n->ports_count || (!n->sw && select == 0)))
		return cpu_to_be16(IB_MGMT_MAD_STATUS_INVALID_ATTRIB_VALUE);
	memset(data + 4, 0, sizeof_field(struct ib_pma_mad, data) - 4);
	for (; count--; row++) {
		u64 most = row->bytes == 8 ? U64_MAX : (1ULL << 8 * row->bytes) - 1;

		if (set && (chosen & row->select))
			reset(n, select, row);
		put(data + row->offset, row->bytes, min(sum(n, select, row), most));
	}
	return 0;
}

static __be16 class_port_info(u8 *data)
{
	struct ib_class_port_info info = {
		.base_version = 1,
		.class_version = 1,
		.capability_mask = IB_PMA_CLASS_CAP_ALLPORTSELECT | IB_PMA_CLASS_CAP_EXT_WIDTH,
	};

	ib_set_cpi_resp_time(&info, RESPONSE_TIME);
	memset(data, 0, sizeof_field(struct ib_pma_mad, data));
	memcpy(data, &info, sizeof(info));
	return 0;
}

bool sib_pma_handle(struct sib_node *n, u8 in_port, const struct ib_pma_mad *in,
		    struct ib_pma_mad *out)
{
	bool set = in->mad_hdr.method == IB_MGMT_METHOD_SET;
	struct ib_mad_hdr *header = &out->mad_hdr;

	if (!set && in->mad_hdr.method != IB_MGMT_METHOD_GET)
		return false;
	*out = *in;
	header->method = IB_MGMT_METHOD_GET_RESP;
	if (header->attr_id == IB_PMA_CLASS_PORT_INFO && !set)
		header->status = class_port_info(out->data);
	else if (header->attr_id == IB_PMA_PORT_COUNTERS)
		header->status = counters(n, set, rows, ARRAY_SIZE(rows), out->data);
	else if (header->attr_id == IB_PMA_PORT_COUNTERS_EXT)
		header->status = counters(n, set, wide_rows, ARRAY_SIZE(wide_rows), out->data);
	else
		header->status = cpu_to_be16(IB_MGMT_MAD_STATUS_UNSUPPORTED_METHOD_ATTRIB);
	return true;
}
