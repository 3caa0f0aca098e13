/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * What stands behind the adapter verbs and the GSI of the waist: an adapter, which registers itself
 * whenever it comes and takes itself back when it goes. There is one at a time, or none.
 */
#ifndef KERNEL_SERVICES_ADAPTER_H
#define KERNEL_SERVICES_ADAPTER_H

#include "kernel/seam/calls.h"

#define ADAPTER_MAX_PORTS 16

struct gsi_class;

/* How an adapter carries management datagrams. */
struct gsi_operations {
	/* A class is about to be used; its `priv` is the adapter's. 0, or nonzero. May sleep. */
	int (*open)(void *context, struct gsi_class *class);

	/*
	 * Nonzero: datagrams of the class are on their way or a completion runs; to be called
	 * again. After 0 the class is gone. May sleep.
	 */
	int (*close)(void *context, struct gsi_class *class);

	/*
	 * Takes a datagram to send; it is completed with gsi_send_done, never from inside this
	 * call. Nonzero: it is still the caller's. Any context.
	 */
	int (*post)(void *context, struct gsi_class *class, gsi_dtgrm_t *dtgrm);
};

struct adapter {
	const char *name;
	void *context;		   /* first argument of all operations */
	const gx_hca_ops_t *verbs; /* any context: from a picture that it keeps */
	const struct gsi_operations *gsi;
};

/*
 * The adapter is there: its ports that are active are reported. -EBUSY when there is another. May
 * sleep.
 */
int adapter_register(const struct adapter *adapter);

/*
 * The adapter goes: all ports are reported down, and who holds it is waited for. When this returns
 * nobody uses it; until then its operations must work. May sleep.
 */
void adapter_unregister(const struct adapter *adapter);

/*
 * Something happened to a port: one of gx_async_r_port_*. Whether the link is up is asked for when
 * that is reported, so a port that goes down and comes back meanwhile is reported down and up, and
 * one whose link never was reported up is not reported down. Any context.
 */
void adapter_event(u8 port, u32 event_type);

/*
 * The adapter that is there, or null. It stays until adapter_release: one that wants to go waits.
 * To be called where the adapter's links are reported, since those end with the adapter.
 */
const struct adapter *adapter_hold(void);
void adapter_release(void);

#endif
