/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * Between the files of quorvane, the module of host services that tarv finds in place: names
 * between modules, /proc/quorvane, the configuration repository, the adapter and the GSI. It stays
 * loaded while tarv comes and goes.
 */
#ifndef KERNEL_SERVICES_SERVICES_H
#define KERNEL_SERVICES_SERVICES_H

#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/proc_fs.h>

#include "kernel/seam/calls.h"

/* An entry below /proc. Directories stay until the services go. */
struct entry {
	struct plat_proc_entry plat; /* what its maker holds */
	struct list_head link;
	struct proc_dir_entry *pde;
	bool directory;
	struct mutex reading; /* held for a whole pass of the read handler */
	struct mutex writing; /* held while the write handler runs */
	char path[];
};

extern const struct proc_ops entry_file_ops;

/* Each undoes itself when it fails, with a negative error number. */
int repository_start(void);
void repository_stop(void);
int adapter_start(void);
void adapter_stop(void);
void proc_stop(void);

#endif
