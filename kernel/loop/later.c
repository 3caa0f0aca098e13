// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "kernel/loop/later.h"

#include <linux/export.h>
#include <linux/jiffies.h>
#include <linux/version.h>

static struct later *take_due(struct later_queue *q)
{
	struct later *item;

	spin_lock_irq(&q->lock);
	q->running = NULL;
	item = list_first_entry_or_null(&q->items, struct later, link);
	if (item && time_before(jiffies, item->due)) {
		mod_timer(&q->timer, item->due);
		item = NULL;
	}
	if (item) {
		list_del(&item->link);
		q->running = item->owner;
	}
	spin_unlock_irq(&q->lock);
	return item;
}

static void run_due(struct tasklet_struct *tasklet)
{
	struct later_queue *q = from_tasklet(q, tasklet, tasklet);
	struct later *item;

	while ((item = take_due(q)))
		item->run(item, false);
}

static void wake(struct timer_list *timer)
{
	struct later_queue *q = container_of(timer, struct later_queue, timer);

	tasklet_schedule(&q->tasklet);
}

void later_start(struct later_queue *q)
{
	*q = (struct later_queue){};
	spin_lock_init(&q->lock);
	INIT_LIST_HEAD(&q->items);
	tasklet_setup(&q->tasklet, run_due);
	timer_setup(&q->timer, wake, 0);
}
EXPORT_SYMBOL_GPL(later_start);

/* Keeps the items in the order in which they are due; of equals the first comes first. */
static bool insert(struct later_queue *q, struct later *item)
{
	struct later *before;
	unsigned long flags;
	bool stopped;

	spin_lock_irqsave(&q->lock, flags);
	stopped = q->stopped;
	if (!stopped) {
		list_for_each_entry_reverse (before, &q->items, link)
			if (!time_before(item->due, before->due))
				break;
		list_add(&item->link, &before->link);
	}
	spin_unlock_irqrestore(&q->lock, flags);
	return !stopped;
}

void later_add(struct later_queue *q, struct later *item, void *owner, unsigned int ms,
	       void (*run)(struct later *item, bool dropped))
{
	item->owner = owner;
	item->run = run;
	item->due = jiffies + (ms ? msecs_to_jiffies(ms) + 1 : 0);
	if (insert(q, item))
		tasklet_schedule(&q->tasklet);
	else
		run(item, true);
}
EXPORT_SYMBOL_GPL(later_add);

bool later_drop(struct later_queue *q, void *owner)
{
	struct later *item, *next;
	LIST_HEAD(dropped);
	bool running;

	spin_lock_irq(&q->lock);
	running = q->running == owner;
	list_for_each_entry_safe (item, next, &q->items, link)
		if (item->owner == owner)
			list_move_tail(&item->link, &dropped);
	spin_unlock_irq(&q->lock);
	list_for_each_entry_safe (item, next, &dropped, link)
		item->run(item, true);
	return !running;
}
EXPORT_SYMBOL_GPL(later_drop);

static void stop_timer(struct timer_list *timer)
{
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 2, 0)
	timer_delete_sync(timer);
#else
	del_timer_sync(timer);
#endif
}

/*
 * The timer schedules the tasklet and the tasklet starts the timer: with the queue empty, for good,
 * neither comes again.
 */
void later_stop(struct later_queue *q)
{
	struct later *item, *next;
	LIST_HEAD(dropped);

	spin_lock_irq(&q->lock);
	q->stopped = true;
	list_splice_init(&q->items, &dropped);
	spin_unlock_irq(&q->lock);
	stop_timer(&q->timer);
	tasklet_kill(&q->tasklet);
	stop_timer(&q->timer);
	list_for_each_entry_safe (item, next, &dropped, link)
		item->run(item, true);
}
EXPORT_SYMBOL_GPL(later_stop);
