/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * A real InfiniBand adapter behind the adapter verbs and the GSI: one of Linux's RDMA stack.
 *
 * Module tarv_ib. Of the adapters that the machine has it takes the first that has an InfiniBand
 * port, or the one that its parameter `hca` names, whenever that comes; when it goes, the module
 * waits for the next. Ports of another kind (Ethernet) are left alone.
 *
 * /sys/kernel/debug/tarv_ib counts the datagrams: sent, failed (could not be sent), answered,
 * unanswered (nothing came within ten seconds).
 */
#ifndef KERNEL_IB_IB_H
#define KERNEL_IB_IB_H

#include <rdma/ib_verbs.h>

#include "kernel/seam/calls.h"

struct gsi_operations;

/*
 * The adapter that is in use, or null. It stays registered until ib_device_put, so nobody keeps it
 * for long. Any context.
 */
struct ib_device *tarv_ib_device_get(void);

/* Between the wire's order and that of the verbs layer, least significant byte first. */
static inline void gid_from_wire(gx_gid_t *to, const void *from)
{
	int i;

	for (i = 0; i < sizeof(to->raw); i++)
		to->raw[sizeof(to->raw) - 1 - i] = ((const u8 *)from)[i];
}

static inline void gid_to_wire(void *to, const gx_gid_t *from)
{
	int i;

	for (i = 0; i < sizeof(from->raw); i++)
		((u8 *)to)[i] = from->raw[sizeof(from->raw) - 1 - i];
}

/* gsi.c: on the adapter that is the operations' context. */
extern const struct gsi_operations ib_gsi;
int ib_gsi_start(void);
void ib_gsi_stop(void);

#endif
