// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Locks and semaphores, in the room that the module leaves for them. Each lock of the module is a
 * class of its own for lockdep, with the name that the module gives it.
 */
#include <linux/lockdep.h>
#include <linux/sched.h>
#include <linux/semaphore.h>
#include <linux/spinlock.h>

#include "kernel/seam/calls.h"
#include "kernel/services/rules.h"

/* What the room of a lock holds. */
struct lock_room {
	union {
		spinlock_t spin;
		rwlock_t rw;
	};
	struct lock_class_key key;
	const char *name;
};

static_assert(sizeof(struct lock_room) <= sizeof(struct plat_spinlock));
static_assert(sizeof(struct lock_room) <= sizeof(struct plat_rwlock));
static_assert(__alignof__(struct lock_room) <= __alignof__(struct plat_spinlock));
static_assert(__alignof__(struct lock_room) <= __alignof__(struct plat_rwlock));
static_assert(sizeof(struct semaphore) <= sizeof(struct plat_semaphore));

static struct lock_room *room_of(const void *lock)
{
	return (struct lock_room *)lock;
}

static struct semaphore *in_semaphore(struct plat_semaphore *sem)
{
	return (struct semaphore *)sem->room;
}

void plat_spin_lock_init(struct plat_spinlock *lock, const char *name)
{
	struct lock_room *r = room_of(lock);

	r->name = name;
	spin_lock_init(&r->spin);
	lockdep_set_class_and_name(&r->spin, &r->key, name);
}

void plat_rwlock_init(struct plat_rwlock *lock, const char *name)
{
	struct lock_room *r = room_of(lock);

	r->name = name;
	rwlock_init(&r->rw);
	lockdep_set_class_and_name(&r->rw, &r->key, name);
}

unsigned long plat_spin_lock_irqsave(struct plat_spinlock *lock) __acquires(lock)
{
	struct lock_room *r = room_of(lock);
	unsigned long flags;

	rules_taking(lock, r->name);
	spin_lock_irqsave(&r->spin, flags);
	rules_taken(lock, r->name);
	return flags;
}

void plat_spin_unlock_irqrestore(struct plat_spinlock *lock, unsigned long flags) __releases(lock)
{
	rules_releasing(lock);
	spin_unlock_irqrestore(&room_of(lock)->spin, flags);
}

unsigned long plat_read_lock_irqsave(struct plat_rwlock *lock) __acquires(lock)
{
	struct lock_room *r = room_of(lock);
	unsigned long flags;

	rules_taking(lock, r->name);
	read_lock_irqsave(&r->rw, flags);
	rules_taken(lock, r->name);
	return flags;
}

void plat_read_unlock_irqrestore(struct plat_rwlock *lock, unsigned long flags) __releases(lock)
{
	rules_releasing(lock);
	read_unlock_irqrestore(&room_of(lock)->rw, flags);
}

unsigned long plat_write_lock_irqsave(struct plat_rwlock *lock) __acquires(lock)
{
	struct lock_room *r = room_of(lock);
	unsigned long flags;

	rules_taking(lock, r->name);
	write_lock_irqsave(&r->rw, flags);
	rules_taken(lock, r->name);
	return flags;
}

void plat_write_unlock_irqrestore(struct plat_rwlock *lock, unsigned long flags) __releases(lock)
{
	rules_releasing(lock);
	write_unlock_irqrestore(&room_of(lock)->rw, flags);
}

/*
 * Who holds a lock is known to lockdep, and in test builds to the rules. Elsewhere nobody keeps an
 * account of it, and the answer is yes.
 */
#ifdef CONFIG_LOCKDEP
#define known_free(lock, how) (lockdep_is_held_type(lock, how) == LOCK_STATE_NOT_HELD)
#else
#define known_free(lock, how) (false)
#endif

enum { HELD_FOR_WRITING = 0, HELD_ANYHOW = -1 }; /* as lockdep counts */

bool plat_spin_is_held(const struct plat_spinlock *lock)
{
	return rules_held(lock) && !known_free(&room_of(lock)->spin, HELD_ANYHOW);
}

bool plat_read_is_held(const struct plat_rwlock *lock)
{
	return rules_held(lock) && !known_free(&room_of(lock)->rw, HELD_ANYHOW);
}

bool plat_write_is_held(const struct plat_rwlock *lock)
{
	return rules_held(lock) && !known_free(&room_of(lock)->rw, HELD_FOR_WRITING);
}

void plat_sema_init(struct plat_semaphore *sem, int count, const char *name)
{
	sema_init(in_semaphore(sem), count);
}

/*
 * The module's semaphores are for those who read and write its files, and they queue before they
 * come here, where a signal can end their wait (kernel/services/proc_file.c). So nobody waits long.
 */
void plat_down(struct plat_semaphore *sem)
{
	rules_may_sleep("down");
	down(in_semaphore(sem));
}

void plat_up(struct plat_semaphore *sem)
{
	up(in_semaphore(sem));
}

/*
 * The module waits with this for somebody who is inside it, in a loop. A task of a higher priority
 * would get the processor back at once, for ever: so it sleeps for a tick.
 */
void plat_schedule(void)
{
	rules_may_sleep("schedule");
	schedule_timeout_uninterruptible(1);
}
