/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * An InfiniBand subnet in software: adapters, each an ib_device of this kernel, switches, and the
 * links between them. A subnet manager, IPoIB and the diagnostics run on it as on hardware.
 * docs/softib.md tells how it is used.
 *
 *   fabric.c    nodes and ports: how they are made and joined, and how a link trains
 *   wire.c      the queue of packets under way, and the worker that carries them
 *   switch.c    what a switch does with a packet: tables, directed routes, its own answers
 *   sma.c       the subnet management agent of a node
 *   pma.c       the performance management agent: a port's counters
 *   trap.c      notices to the subnet manager, repeated until it represses them
 *   faults.c    packets lost, late and doubled on purpose
 *   capture.c   a capture file of what is sent
 *   adapter.c   an adapter as an ib_device
 *   queues.c    its completion queues and queue pairs
 *   subnet.c    the text that describes a subnet, and the files of debugfs
 *
 * Locks. sib_lock guards all that is the subnet's: nodes, ports, tables, links, counters, the
 * queue, faults. It is taken with interrupts disabled, inside a queue pair's lock if need be, and
 * nothing outside this module is called under it. One ordered worker does everything that calls
 * out: completions, receptions, events. So who has taken something out of the subnet under the lock
 * and then flushed the worker (sib_wire_flush) knows that nobody uses it any more.
 */
#ifndef KERNEL_SOFTIB_SOFTIB_H
#define KERNEL_SOFTIB_SOFTIB_H

#include <linux/if_infiniband.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <rdma/ib_mad.h>
#include <rdma/ib_pma.h>
#include <rdma/ib_smi.h>
#include <rdma/ib_verbs.h>

#define SIB_PKEYS 32	     /* of a port: one block of its table */
#define SIB_PKEY_FULL 0x8000 /* the bit of a full member's */
#define SIB_LIDS 0xc000
#define SIB_FIRST_MLID 0xc000
#define SIB_MLIDS 1024
#define SIB_PERMISSIVE 0xffff
#define SIB_ADAPTER_PORTS 2
#define SIB_SWITCH_PORTS 254
#define SIB_NAME 32
#define SIB_LONGEST_ROUTE 64
#define SIB_LONGEST_PACKET 4096 /* of a datagram's payload */
#define SIB_GROUP_QPN 0xffffff

/* A port's physical state. */
enum { SIB_PHYS_POLLING = 2, SIB_PHYS_DISABLED = 3, SIB_PHYS_LINK_UP = 5 };

/* What an adapter is told of a port, in the order in which it is told. */
enum sib_event {
	SIB_EVENT_ERR,
	SIB_EVENT_PKEY,
	SIB_EVENT_GID,
	SIB_EVENT_LID,
	SIB_EVENT_SM,
	SIB_EVENT_REREGISTER,
	SIB_EVENT_ACTIVE,
	SIB_EVENTS
};

/* PortInfo as on the wire. The kernel's structure leaves its last four bytes unnamed. */
struct sib_port_info {
	union {
		struct ib_port_info basic;
		struct {
			u8 named[60];
			__be16 cap_mask2;
			u8 ext_active_supported; /* speeds above QDR: 4 bits, 4 bits */
			u8 ext_enabled;
		};
	};
};
static_assert(sizeof(struct sib_port_info) == IB_SMP_DATA_SIZE);
static_assert(offsetofend(struct ib_port_info, link_roundtrip_latency) == 60);

struct sib_switch_info {
	__be16 linear_cap, random_cap, mcast_cap, linear_top;
	u8 default_port, default_primary, default_not_primary, life_state;
	__be16 lids_per_port, enforce_cap;
	u8 flags, reserved;
	__be16 mcast_top;
} __packed;

struct sib_counters {
	u64 sent_words, received_words, sent, received;
	u64 sent_unicast, received_unicast, sent_multicast, received_multicast;
	u64 discarded;	 /* could not be sent: no link, too long for it, lost on purpose */
	u64 not_relayed; /* by a switch that has no route for it */
	u64 bad_pkey_out, bad_pkey_in;
	u64 vl15_dropped;
	u64 errors;
	u64 link_downed;
};

struct sib_port {
	struct sib_node *node;
	struct sib_port *peer;
	u8 number;
	bool pulled;   /* its cable is, by the administrator */
	bool disabled; /* by the subnet manager */
	__be64 guid;
	struct sib_port_info info;
	__be16 pkeys[SIB_PKEYS];
	unsigned long mkey_lease_end; /* in jiffies; 0: the lease does not run */
	struct sib_counters counters;
	unsigned long events; /* bits of enum sib_event, not told yet */
	struct list_head untold;
};

struct sib_switch {
	struct sib_switch_info info;
	u8 *ports_of_lids;	/* linear forwarding table */
	__be16 *ports_of_mlids; /* multicast forwarding table, SIB_MLIDS for every 16 ports */
};

/* The notices that a node sends. */
enum sib_trap_kind {
	SIB_TRAP_LINK,
	SIB_TRAP_LOCAL,
	SIB_TRAP_MKEY,
	SIB_TRAP_PKEY,
	SIB_TRAP_QKEY,
	SIB_TRAPS
};

struct sib_trap {
	__be64 tid; /* 0: none is outstanding */
	u8 port;    /* that sends it */
	u8 type;
	u16 number;
	unsigned long due;
	u8 details[54];
};

struct sib_node {
	struct list_head link;
	__be64 guid;
	char name[SIB_NAME];
	char description[IB_DEVICE_NODE_DESC_MAX];
	u8 ports_count;
	bool present; /* false: an adapter that has been removed, whose links are down */
	struct sib_adapter
		*adapter; /* null in a switch, and in an adapter that is not there any more */
	struct sib_switch *sw;
	u32 next_qpn; /* a removed adapter's numbers do not come again */
	struct sib_trap traps[SIB_TRAPS];
	struct sib_port ports[]; /* number 0 is a switch's own, and not used in an adapter */
};

struct sib_qp;

struct sib_packet {
	struct list_head link;
	struct sib_port *at; /* which it leaves, or else where it comes in */
	bool leaves;
	bool loopback; /* of what a queue pair sends to a group, for those beside it */
	unsigned long due;
	u8 hops;

	/* As long as it has not left: the sender, who is told of it. */
	struct sib_qp *qp;
	u64 wr_id;
	bool signaled;

	bool solicited, has_grh, has_imm;
	u8 sl;
	u16 slid, dlid, pkey;
	u32 sqpn, dqpn, qkey;
	__be32 imm;
	struct ib_grh grh;
	u32 len;
	u8 data[];
};

extern spinlock_t sib_lock;
extern struct list_head sib_nodes;

static inline u8 sib_state(const struct sib_port *p)
{
	return p->info.basic.linkspeed_portstate & 15;
}
static inline u16 sib_lid(const struct sib_port *p)
{
	return be16_to_cpu(p->info.basic.lid);
}
static inline u8 sib_lmc(const struct sib_port *p)
{
	return p->info.basic.mkeyprot_resv_lmc & 7;
}
/* LIDs, M_Key and the like are an adapter's port's, and of a switch its port 0's. */
static inline bool sib_is_end_port(const struct sib_port *p)
{
	return !p->node->sw || p->number == 0;
}
static inline bool sib_owns_lid(const struct sib_port *p, u16 lid)
{
	return sib_lid(p) && lid >> sib_lmc(p) == sib_lid(p) >> sib_lmc(p);
}
/* Packets for QP 0 have a lane of their own, which works before the port is active. */
static inline bool sib_is_smp(const struct sib_packet *p)
{
	return p->dqpn == 0;
}
static inline bool sib_is_multicast(const struct sib_packet *p)
{
	return p->dlid >= SIB_FIRST_MLID && p->dlid != SIB_PERMISSIVE;
}
static inline bool sib_pkeys_match(u16 one, u16 other)
{
	return (one & 0x7fff) && (one & 0x7fff) == (other & 0x7fff) &&
	       ((one | other) & SIB_PKEY_FULL);
}

/* fabric.c; where nothing else is said, sib_lock is held */

/* Without the lock; null for want of memory. The node is part of the subnet then. */
struct sib_node *sib_node_create(const char *name, u64 guid, unsigned int ports, bool is_switch);
struct sib_node *sib_node_by_name(const char *name);
void sib_nodes_free(void); /* without the lock; the worker is at rest */
bool sib_join(struct sib_port *a, struct sib_port *b);
/* What a port can: widths and speeds as in PortInfo, those above QDR apart; the code of the MTU. */
void sib_port_limits(struct sib_port *p, u8 widths, u8 speeds, u8 ext_speeds, u8 mtu);
void sib_retrain(
	struct sib_port *p); /* the link goes down, and up again if nothing is against it */
void sib_tell(struct sib_port *p, enum sib_event event);
void sib_tell_all(void); /* the worker, without the lock */
bool sib_port_has_pkey(const struct sib_port *p, u16 pkey, unsigned int *index);

/* wire.c */
int sib_wire_start(void);
void sib_wire_stop(void);
/* A packet of that length, all zero, that will leave that port; null for want of memory. */
struct sib_packet *sib_packet_new(struct sib_port *from, u32 len);
/* The wire owns the packet from here on, and in the two that follow. sib_lock is held in all. */
void sib_wire_send(struct sib_packet *p);
void sib_wire_leave(struct sib_port *out, struct sib_packet *p);
void sib_wire_loop_back(struct sib_port *at, struct sib_packet *p);
struct sib_packet *sib_packet_copy(const struct sib_packet *p);
void sib_wire_wake(void);
void sib_wire_flush(void); /* without the lock */

/* switch.c; sib_lock is held */
void sib_switch_route(struct sib_node *n, struct sib_port *in, struct sib_packet *p);
void sib_switch_receive(struct sib_port *in, struct sib_packet *p);

/* sma.c, pma.c; sib_lock is held. True: there is an answer. */
enum sib_sma_result { SIB_SMA_IGNORED, SIB_SMA_CONSUMED, SIB_SMA_ANSWERED };
enum sib_sma_result sib_sma_handle(struct sib_node *n, u8 in_port, u16 slid,
				   const struct ib_smp *in, struct ib_smp *out);
bool sib_pma_handle(struct sib_node *n, u8 in_port, const struct ib_pma_mad *in,
		    struct ib_pma_mad *out);

/* trap.c; sib_lock is held. Details are the notice's, as on the wire, its issuer's LID put in. */
void sib_trap_link(struct sib_node *n);
void sib_trap_local(struct sib_port *p, bool description);
void sib_trap_mkey(struct sib_port *p, u16 slid, const struct ib_smp *smp);
void sib_trap_key(struct sib_port *p, const struct sib_packet *packet, bool pkey);
void sib_trap_repress(struct sib_node *n, __be64 tid);
void sib_traps_stop(void); /* without the lock */

/* faults.c; sib_lock is held */
struct sib_fate {
	bool lost;
	unsigned int copies; /* beside the packet */
	unsigned int delay_ms;
};
struct sib_fate sib_fate(const struct sib_port *out, struct sib_packet *p);
int sib_fault_add(char *line); /* without the lock */
void sib_faults_clear(void);   /* without the lock */
struct seq_file;
void sib_faults_show(struct seq_file *s);

/* capture.c */
void sib_capture(const struct sib_packet *p); /* sib_lock is held */
extern const struct file_operations sib_capture_file;

/* adapter.c; without the lock, with the subnet's mutex held */
int sib_adapter_add(struct sib_node *n);
void sib_adapter_remove(struct sib_node *n);
void sib_adapter_event(struct sib_adapter *a, u8 port, enum sib_event event);

/* queues.c; the worker, without the lock */
void sib_adapter_receive(struct sib_adapter *a, struct sib_port *at, const struct sib_packet *p);
void sib_qp_sent(struct sib_qp *qp, u64 wr_id, u32 len, bool signaled);
/* Whether what is posted is still to be sent: it is not once its queue pair has failed. */
bool sib_qp_sends(struct sib_qp *qp);

#endif
