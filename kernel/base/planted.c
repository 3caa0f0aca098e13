// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "kernel/base/planted.h"

#include <linux/compiler.h>
#include <linux/debugfs.h>
#include <linux/delay.h>
#include <linux/kthread.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "kernel/seam/calls.h"

static struct plat_spinlock outer, inner;
static struct dentry *folder;

static void plant_nested(void)
{
	unsigned long flags = plat_spin_lock_irqsave(&outer);

	plat_spin_unlock_irqrestore(&inner, plat_spin_lock_irqsave(&inner));
	plat_spin_unlock_irqrestore(&outer, flags);
}

static void plant_sleep(void)
{
	unsigned long flags = plat_spin_lock_irqsave(&outer);

	plat_kfree(plat_kmalloc(64, PLAT_GFP_KERNEL));
	plat_spin_unlock_irqrestore(&outer, flags);
}

static void plant_callout(void)
{
	unsigned long flags = plat_spin_lock_irqsave(&outer);
	gx_hca_t unused;
	gx_gid_t gid;

	plat_port_num2base_gid(&unused, 1, &gid);
	plat_spin_unlock_irqrestore(&outer, flags);
}

static void plant_hold(void)
{
	unsigned long flags = plat_spin_lock_irqsave(&outer);

	mdelay(20);
	plat_spin_unlock_irqrestore(&outer, flags);
}

static void plant_leak(void)
{
	void *volatile forgotten = plat_kmalloc(4000, PLAT_GFP_KERNEL);

	forgotten = NULL;
	(void)forgotten;
}

static void plant_freed(void)
{
	char *memory = plat_kmalloc(64, PLAT_GFP_KERNEL);

	plat_kfree(memory);
	OPTIMIZER_HIDE_VAR(memory);
	if (memory)
		WRITE_ONCE(memory[8], 1);
}

static void nothing(unsigned long data)
{
}

static void plant_timer(void)
{
	struct plat_timer *timer = plat_kmalloc(sizeof(*timer), PLAT_GFP_KERNEL);

	if (!timer)
		return;
	plat_init_timing(timer);
	timer->expires = plat_jiffies() + 600 * PLAT_HZ;
	timer->function = nothing;
	plat_add_timing(timer);
	plat_kfree(timer);
}

static unsigned long raced;

static int write_raced(void *unused)
{
	int i;

	for (i = 0; i < 200000; i++) {
		raced++;
		barrier();
		if (!(i % 1000))
			cond_resched();
	}
	return 0;
}

static void plant_race(void)
{
	struct task_struct *other = kthread_create(write_raced, NULL, "tarv_planted");

	if (IS_ERR(other))
		return;
	get_task_struct(other);
	wake_up_process(other);
	write_raced(NULL);
	kthread_stop(other);
	put_task_struct(other);
}

static const struct {
	const char *word;
	void (*commit)(void);
} faults[] = {
	{ "nested", plant_nested }, { "sleep", plant_sleep }, { "callout", plant_callout },
	{ "hold", plant_hold },	    { "leak", plant_leak },   { "freed", plant_freed },
	{ "timer", plant_timer },   { "race", plant_race },
};

static ssize_t plant(struct file *file, const char __user *from, size_t size, loff_t *position)
{
	char text[16] = "";
	size_t i;

	if (size >= sizeof(text))
		return -EINVAL;
	if (copy_from_user(text, from, size))
		return -EFAULT;
	strim(text);
	for (i = 0; i < ARRAY_SIZE(faults); i++) {
		if (!strcmp(text, faults[i].word)) {
			faults[i].commit();
			return size;
		}
	}
	return -EINVAL;
}

static const struct file_operations plant_file = { .write = plant };

void planted_start(void)
{
	plat_spin_lock_init(&outer, "planted_outer");
	plat_spin_lock_init(&inner, "planted_inner");
	folder = debugfs_create_dir("tarv", NULL);
	debugfs_create_file("plant", 0200, folder, NULL, &plant_file);
}

void planted_stop(void)
{
	debugfs_remove(folder);
}
