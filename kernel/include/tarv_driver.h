/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * How an IPoIB driver comes to tarv: it finds the module's functions by their names, and attaches
 * its own. One driver at a time.
 */
#ifndef TARV_DRIVER_H
#define TARV_DRIVER_H

#include <linux/errno.h>

#include "kernel/include/inter_module.h"
#include "kernel/include/tarv_client.h"

struct tarv_driver {
	tarv_attach_fn_t *attach;
	tarv_detach_fn_t *detach;
	tarv_process_arp_data_fn_t *process_arp_data; /* takes in an ARP packet */
	void *handle;
};

/* When nobody calls the functions any more. */
static inline void tarv_driver_put(struct tarv_driver *d)
{
	if (d->attach)
		inter_module_put("tarv_attach_fn");
	if (d->detach)
		inter_module_put("tarv_detach_fn");
	if (d->process_arp_data)
		inter_module_put("tarv_process_arp_data_fn");
	*d = (struct tarv_driver){};
}

/* -ENOENT: tarv is not there, or is leaving. Process context, as for all of these. */
static inline int tarv_driver_get(struct tarv_driver *d)
{
	d->attach = (tarv_attach_fn_t *)inter_module_get("tarv_attach_fn");
	d->detach = (tarv_detach_fn_t *)inter_module_get("tarv_detach_fn");
	d->process_arp_data =
		(tarv_process_arp_data_fn_t *)inter_module_get("tarv_process_arp_data_fn");
	if (d->attach && d->detach && d->process_arp_data)
		return 0;
	tarv_driver_put(d);
	return -ENOENT;
}

/* -EBUSY: there is another driver. */
static inline int tarv_driver_attach(struct tarv_driver *d, get_if_info_fn_t get_if_info,
				     send_arp_data_fn_t send_arp_data)
{
	return d->attach(get_if_info, send_arp_data, NULL, &d->handle) == tarv_stat_ok ? 0 : -EBUSY;
}

/* Nobody is in the driver's functions when this returns. */
static inline void tarv_driver_detach(struct tarv_driver *d)
{
	d->detach(d->handle);
}

#endif
