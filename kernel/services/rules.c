// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Who holds a lock of the module, and for how long. Only in test builds.
 *
 * Holders are kept by task. Nobody is interrupted while he holds a lock by anything that takes one:
 * on an ordinary kernel interrupts are off, on a real-time one softirqs run in tasks of their own.
 */
#include "kernel/services/rules.h"

#include <linux/bug.h>
#include <linux/debugfs.h>
#include <linux/export.h>
#include <linux/ktime.h>
#include <linux/sched.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "kernel/services/rules_faults.h"

#define MOST_HOLDERS 64
#define MOST_LOCKS 16

struct hold {
	struct task_struct *task; /* null: the place is free */
	const void *lock;
	const char *name;
	u64 since;
};

/* Outlives the module, so it keeps the name itself. */
struct lock_record {
	char name[32];
	u64 times;
	u64 longest; /* nanoseconds */
};

static struct hold holds[MOST_HOLDERS];
static struct lock_record records[MOST_LOCKS];
static DEFINE_RAW_SPINLOCK(records_lock); /* guards the records */
static u32 hold_limit_us;
static struct dentry *folder;

/* What this task holds: that lock, or, where none is given, any. */
static struct hold *find_hold(const void *lock)
{
	size_t i;

	for (i = 0; i < MOST_HOLDERS; i++)
		if (READ_ONCE(holds[i].task) == current && (!lock || holds[i].lock == lock))
			return &holds[i];
	return NULL;
}

static const char *held_name(void)
{
	const struct hold *h = find_hold(NULL);

	return h ? h->name : NULL;
}

static void note(const char *name, u64 time)
{
	unsigned long flags;
	size_t i;

	raw_spin_lock_irqsave(&records_lock, flags);
	for (i = 0; i < MOST_LOCKS && records[i].name[0]; i++)
		if (!strcmp(records[i].name, name))
			break;
	if (i < MOST_LOCKS) {
		strscpy(records[i].name, name, sizeof(records[i].name));
		records[i].times++;
		records[i].longest = max(records[i].longest, time);
	}
	raw_spin_unlock_irqrestore(&records_lock, flags);
}

void rules_taking(const void *lock, const char *name)
{
	const char *held = held_name();

	WARN(held, "the lock %s is taken while %s is held\n", name, held);
}
EXPORT_SYMBOL_GPL(rules_taking);

void rules_taken(const void *lock, const char *name)
{
	size_t i;

	for (i = 0; i < MOST_HOLDERS; i++) {
		struct hold *h = &holds[i];

		if (!READ_ONCE(h->task) && !cmpxchg(&h->task, NULL, current)) {
			h->lock = lock;
			h->name = name;
			h->since = ktime_get_mono_fast_ns();
			return;
		}
	}
	WARN_ONCE(1, "more than %d holders of locks\n", MOST_HOLDERS);
}
EXPORT_SYMBOL_GPL(rules_taken);

void rules_releasing(const void *lock)
{
	const u32 limit = READ_ONCE(hold_limit_us);
	struct hold *h = find_hold(lock);
	u64 time;

	if (WARN(!h, "a lock is released by a task that does not hold it\n"))
		return;
	time = ktime_get_mono_fast_ns() - h->since;
	WARN(limit && time > 1000ull * limit, "the lock %s was held for %llu ns\n", h->name, time);
	note(h->name, time);
	h->lock = NULL;
	smp_store_release(&h->task, NULL);
}
EXPORT_SYMBOL_GPL(rules_releasing);

bool rules_held(const void *lock)
{
	return find_hold(lock);
}
EXPORT_SYMBOL_GPL(rules_held);

void rules_may_sleep(const char *call)
{
	const char *held = held_name();

	WARN(held, "%s, which may sleep, is called while %s is held\n", call, held);
	WARN(!held && (in_atomic() || irqs_disabled()),
	     "%s, which may sleep, is called in atomic context\n", call);
}
EXPORT_SYMBOL_GPL(rules_may_sleep);

void rules_no_lock(const char *call)
{
	const char *held = held_name();

	WARN(held, "%s: %s is held\n", call, held);
}
EXPORT_SYMBOL_GPL(rules_no_lock);

static int show_holds(struct seq_file *file, void *unused)
{
	struct lock_record shown[MOST_LOCKS];
	size_t i;

	raw_spin_lock_irq(&records_lock);
	memcpy(shown, records, sizeof(shown));
	raw_spin_unlock_irq(&records_lock);
	for (i = 0; i < MOST_LOCKS && shown[i].name[0]; i++)
		seq_printf(file, "%s %llu times, longest %llu ns\n", shown[i].name, shown[i].times,
			   shown[i].longest);
	return 0;
}

static ssize_t clear_holds(struct file *file, const char __user *from, size_t size,
			   loff_t *position)
{
	raw_spin_lock_irq(&records_lock);
	memset(records, 0, sizeof(records));
	raw_spin_unlock_irq(&records_lock);
	return size;
}

static int open_holds(struct inode *inode, struct file *file)
{
	return single_open(file, show_holds, NULL);
}

static const struct file_operations holds_file = {
	.open = open_holds,
	.read = seq_read,
	.write = clear_holds,
	.llseek = seq_lseek,
	.release = single_release,
};

int rules_start(void)
{
	folder = debugfs_create_dir("quorvane", NULL);
	debugfs_create_u32("hold_limit_us", 0644, folder, &hold_limit_us);
	debugfs_create_file("holds", 0644, folder, NULL, &holds_file);
	rules_faults_start(folder);
	return 0;
}

void rules_stop(void)
{
	debugfs_remove(folder);
}
