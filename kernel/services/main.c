// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The beginning and the end of the services.
 */
#include <linux/init.h>
#include <linux/module.h>

#include "kernel/services/rules.h"
#include "kernel/services/services.h"

static int __init quorvane_init(void)
{
	int error;

	error = rules_start();
	if (error)
		return error;
	error = repository_start();
	if (error)
		goto no_repository;
	error = adapter_start();
	if (error)
		goto no_adapter;
	return 0;

no_adapter:
	repository_stop();
no_repository:
	rules_stop();
	return error;
}

static void __exit quorvane_exit(void)
{
	adapter_stop();
	repository_stop();
	proc_stop();
	rules_stop();
}

module_init(quorvane_init);
module_exit(quorvane_exit);
MODULE_DESCRIPTION("Host services for the IB_ARP repository module.");
MODULE_VERSION("1.21");
MODULE_LICENSE("Dual BSD/GPL");
