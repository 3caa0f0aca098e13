/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * Management datagrams between their users and the adapter that carries them.
 */
#ifndef KERNEL_SERVICES_GSI_H
#define KERNEL_SERVICES_GSI_H

#include <linux/container_of.h>
#include <linux/list.h>

#include "kernel/seam/calls.h"
#include "kernel/services/adapter.h"

/* A registration for a management class on a port. */
struct gsi_class {
	const struct adapter *adapter;
	u8 port;
	gsi_dtgrm_cb_t *send_done;
	gsi_dtgrm_cb_t *recv_done;
	void *context;
	void *priv; /* the adapter's */
};

/* A datagram with what is known about it here. */
struct gsi_datagram {
	struct gsi_dtgrm_pool *pool; /* null: it was received */
	struct gsi_class *class;     /* where it was posted, or received */
	int paysize;		     /* of a received one: bytes from MAD offset 36 on */
	gsi_dtgrm_t dtgrm __attribute__((aligned(8)));
};

static inline struct gsi_datagram *gsi_datagram(gsi_dtgrm_t *dtgrm)
{
	return container_of(dtgrm, struct gsi_datagram, dtgrm);
}

/* A datagram to deliver; null: no memory. Any context. */
gsi_dtgrm_t *gsi_new_received(struct gsi_class *class);

/* Hands over what was sent and what was received. Softirq or process context, no lock held. */
void gsi_send_done(gsi_dtgrm_t *dtgrm);
void gsi_deliver(gsi_dtgrm_t *dtgrm);

#endif
