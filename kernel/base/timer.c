// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Time: the module's 1000 ticks a second on a kernel that has HZ of them.
 *
 * Both the tick counter and the expiry of timers come from the kernel's counter, the one rounded
 * down and the other up. So when a timer fires, its tick has come, by the counter that the module
 * reads; never early.
 */
#include <linux/jiffies.h>
#include <linux/math64.h>
#include <linux/timer.h>
#include <linux/version.h>

#include "kernel/seam/calls.h"
#include "kernel/services/rules.h"

struct timer_room {
	struct timer_list timer;
	struct lock_class_key key;
};

static_assert(sizeof(struct timer_room) <= sizeof_field(struct plat_timer, room));
static_assert(__alignof__(struct timer_room) <= 16);

static struct timer_room *in_timer(struct plat_timer *timer)
{
	return (struct timer_room *)timer->room;
}

static u64 ticks_at(u64 kernel_ticks)
{
	return mul_u64_u32_div(kernel_ticks, PLAT_HZ, HZ);
}

unsigned long plat_jiffies(void)
{
	return ticks_at(get_jiffies_64());
}

static void fire(struct timer_list *inner)
{
	struct timer_room *r = container_of(inner, struct timer_room, timer);
	struct plat_timer *timer = container_of((unsigned char *)r, struct plat_timer, room[0]);

	timer->function(timer->data);
	rules_no_lock("the return of a timer's function");
}

void plat_init_timing(struct plat_timer *timer)
{
	struct timer_room *r = in_timer(timer);

#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 16, 0)
	timer_init_key(&r->timer, fire, 0, "tarv_timer", &r->key);
#else
	init_timer_key(&r->timer, fire, 0, "tarv_timer", &r->key);
#endif
}

/* A tick that has passed is due now. */
void plat_add_timing(struct plat_timer *timer)
{
	u64 now = get_jiffies_64();
	u64 ticks = ticks_at(now);
	s64 ahead = max_t(s64, (s64)(timer->expires - ticks), 0);
	u64 due = div_u64((ticks + ahead) * HZ + PLAT_HZ - 1, PLAT_HZ);

	mod_timer(&in_timer(timer)->timer, (unsigned long)max(due, now));
}

int plat_del_timing_sync(struct plat_timer *timer)
{
	rules_may_sleep("del_timing_sync");
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 2, 0)
	return timer_delete_sync(&in_timer(timer)->timer);
#else
	return del_timer_sync(&in_timer(timer)->timer);
#endif
}
