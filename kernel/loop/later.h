/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * Things to be done later, in softirq context, one at a time: what an adapter and its fabric do on
 * their own.
 */
#ifndef KERNEL_LOOP_LATER_H
#define KERNEL_LOOP_LATER_H

#include <linux/interrupt.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/timer.h>

struct later {
	struct list_head link;
	unsigned long due; /* in the kernel's ticks */
	void *owner;
	/* Does it, or only gives back what it holds. Called once; the item is its own then. */
	void (*run)(struct later *item, bool dropped);
};

struct later_queue {
	spinlock_t lock; /* guards the rest */
	struct list_head items;
	void *running; /* the owner of the item that is being done */
	bool stopped;
	struct tasklet_struct tasklet;
	struct timer_list timer;
};

/* Makes a queue ready, or ends it: what has not been done by then is dropped. Process context. */
void later_start(struct later_queue *queue);
void later_stop(struct later_queue *queue);

/* Has `item` done in `ms` milliseconds, for `owner`. Any context. */
void later_add(struct later_queue *queue, struct later *item, void *owner, unsigned int ms,
	       void (*run)(struct later *item, bool dropped));

/* Drops what waits for `owner`. False while an item of his is being done. Process context. */
bool later_drop(struct later_queue *queue, void *owner);

#endif
