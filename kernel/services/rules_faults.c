// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "kernel/services/rules_faults.h"

#include <linux/atomic.h>
#include <linux/debugfs.h>
#include <linux/export.h>
#include <linux/kernel.h>
#include <linux/seq_file.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "kernel/services/rules.h"

static struct fault {
	const char *call;
	atomic_t calls; /* since the last time that its failure was asked for */
	atomic_t fails_in;
} faults[] = {
	{ "kmalloc" },
	{ "copy_from_user" },
	{ "create_proc_entry" },
	{ "proc_mkdir" },
	{ "rep_open_key" },
	{ "rep_get_value" },
	{ "rep_notify_key_change" },
	{ "gx_hca_open" },
	{ "gx_set_sleepable_async_event_cb" },
	{ "gx_query_hca" },
	{ "gx_query_port" },
	{ "gx_get_port_gid_tbl" },
	{ "gx_get_port_partition_tbl" },
	{ "port_num2base_gid" },
	{ "port_num2base_lid" },
	{ "base_gid2port_num" },
	{ "pkey_index2pkey" },
	{ "gsi_register_class" },
	{ "gsi_dtgrm_pool_create_named" },
	{ "gsi_dtgrm_pool_get" },
	{ "gsi_dtgrm_alloc_rmpp_buf" },
	{ "gsi_post_send_dtgrm" },
};

static struct fault *find_fault(const char *call)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(faults); i++)
		if (!strcmp(faults[i].call, call))
			return &faults[i];
	return NULL;
}

bool rules_fail(const char *call)
{
	struct fault *f = find_fault(call);

	if (WARN(!f, "%s cannot be made to fail\n", call))
		return false;
	atomic_inc(&f->calls);
	return atomic_add_unless(&f->fails_in, -1, 0) && !atomic_read(&f->fails_in);
}
EXPORT_SYMBOL_GPL(rules_fail);

static int show_faults(struct seq_file *file, void *unused)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(faults); i++)
		seq_printf(file, "%s %d\n", faults[i].call, atomic_read(&faults[i].calls));
	return 0;
}

static ssize_t set_fault(struct file *file, const char __user *from, size_t size, loff_t *position)
{
	char text[64] = "", call[48];
	struct fault *f;
	int fails_in;

	if (size >= sizeof(text))
		return -EINVAL;
	if (copy_from_user(text, from, size))
		return -EFAULT;
	if (sscanf(text, "%47s %d", call, &fails_in) != 2 || fails_in < 0)
		return -EINVAL;
	f = find_fault(call);
	if (!f)
		return -EINVAL;
	atomic_set(&f->calls, 0);
	atomic_set(&f->fails_in, fails_in);
	return size;
}

static int open_faults(struct inode *inode, struct file *file)
{
	return single_open(file, show_faults, NULL);
}

static const struct file_operations faults_file = {
	.open = open_faults,
	.read = seq_read,
	.write = set_fault,
	.llseek = seq_lseek,
	.release = single_release,
};

void rules_faults_start(struct dentry *folder)
{
	debugfs_create_file("fail", 0644, folder, NULL, &faults_file);
}
