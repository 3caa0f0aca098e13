/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * A small fabric in memory: an adapter with one or two ports, a subnet manager at LID 1, and peers
 * that answer ARP and are known to the SA. For trying tarv out on a machine without an adapter, and
 * for its tests.
 *
 * Modules: tarv_loop is the adapter, its GSI and the SA; tarv_loop_ipoib the IPoIB driver.
 *
 * This host is 10.0.0.1, the peers are 10.0.0.2, 10.0.0.3 and so on. Peer number n (from 1) has
 * LID 0x10 + n, QPN 0x400 + n, and its GUID ends in n * 16 + 1.
 *
 * Scripted faults and what else can be changed stand in /sys/kernel/debug/tarv_loop:
 *
 *   portN/up, portN/lid, portN/sm_lid, portN/mtu   a write changes the port and raises the event
 *   sa_lose, arp_lose      so many of the next answers are lost
 *   sa_delay_ms, arp_delay_ms    answers come that much later
 *   sa_status              the status of the SA's answers, 0 for no error
 *   sa_records             records in an answer; 0: one for each of our ports
 *   sa_rmpp                1: answers come by RMPP; 0: those that fit, in one MAD
 *   queries, answers       what the SA received and gave, read only
 *   arp_requests, arp_media_resets    what the driver was asked for, read only
 *   arp_hear               "FIRST COUNT": the driver hears ARP packets of so many peers
 */
#ifndef KERNEL_LOOP_LOOP_H
#define KERNEL_LOOP_LOOP_H

#include <linux/types.h>

#include "kernel/seam/calls.h"

#define LOOP_MAX_PORTS 2
#define LOOP_QKEY 0xb1b
#define LOOP_PKEY 0xffff
#define LOOP_PATH_RATE 7 /* 40 Gb/s */
#define LOOP_MTU 4	 /* 2048 bytes */

struct dentry;
struct gsi_operations;

/* peers.c */

/* A peer's number by its address or by its GID in wire order; 0 where there is none. */
u32 loop_peer_by_ip(__be32 ip);
u32 loop_peer_by_gid(const u8 *wire);

__be32 loop_peer_ip(u32 peer);
gx_lid_t loop_peer_lid(u32 peer);
u32 loop_peer_qpn(u32 peer);
u32 loop_peers(void);

/* In the order of the verbs layer: least significant byte first. Host number 0 is this one. */
void loop_gid(u32 host, u8 port, gx_gid_t *gid);

/* adapter.c */

/* One of our ports by its GID in wire order; false where it is none of ours. */
bool loop_port_by_gid(const u8 *wire, gx_port_attrib_t *attributes);
u32 loop_ports(void);

/* The folder of debugfs. */
struct dentry *loop_debugfs(void);

/* gsi.c */

extern const struct gsi_operations loop_gsi;
void loop_gsi_start(struct dentry *folder);
void loop_gsi_stop(void);

#endif
