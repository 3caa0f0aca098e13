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

struct spin_room {
	spinlock_t lock;
	struct lock_class_key key;
	const char *name;
};

struct rw_room {
	rwlock_t lock;
	struct lock_class_key key;
	const char *name;
};

static_assert(sizeof(struct spin_room) <= sizeof(struct plat_spinlock));
static_assert(sizeof(struct rw_room) <= sizeof(struct plat_rwlock));
static_assert(sizeof(struct semaphore) <= sizeof(struct plat_semaphore));
static_assert(__alignof__(struct rw_room) <= __alignof__(struct plat_rwlock));

static struct spin_room *in_spinlock(struct plat_spinlock *lock)
{
	return (struct spin_room *)lock->room;
}

static struct rw_room *in_rwlock(struct plat_rwlock *lock)
{
	return (struct rw_room *)lock->room;
}

static struct semaphore *in_semaphore(struct plat_semaphore *sem)
{
	return (struct semaphore *)sem->room;
}

void plat_spin_lock_init(struct plat_spinlock *lock, const char *name)
{
	struct spin_room *r = in_spinlock(lock);

	r->name = name;
	spin_lock_init(&r->lock);
	lockdep_set_class_and_name(&r->lock, &r->key, name);
}

void plat_rwlock_init(struct plat_rwlock *lock, const char *name)
{
	struct rw_room *r = in_rwlock(lock);

	r->name = name;
	rwlock_init(&r->lock);
	lockdep_set_class_and_name(&r->lock, &r->key, name);
}

unsigned long plat_spin_lock_irqsave(struct plat_spinlock *lock) __acquires(lock)
{
	struct spin_room *r = in_spinlock(lock);
	unsigned long flags;

	rules_taking(lock, r->name);
	spin_lock_irqsave(&r->lock, flags);
	rules_taken(lock, r->name);
	return flags;
}

void plat_spin_unlock_irqrestore(struct plat_spinlock *lock, unsigned long flags) __releases(lock)
{
	rules_releasing(lock);
	spin_unlock_irqrestore(&in_spinlock(lock)->lock, flags);
}

unsigned long plat_read_lock_irqsave(struct plat_rwlock *lock) __acquires(lock)
{
	struct rw_room *r = in_rwlock(lock);
	unsigned long flags;

	rules_taking(lock, r->name);
	read_lock_irqsave(&r->lock, flags);
	rules_taken(lock, r->name);
	return flags;
}

void plat_read_unlock_irqrestore(struct plat_rwlock *lock, unsigned long flags) __releases(lock)
{
	rules_releasing(lock);
	read_unlock_irqrestore(&in_rwlock(lock)->lock, flags);
}

unsigned long plat_write_lock_irqsave(struct plat_rwlock *lock) __acquires(lock)
{
	struct rw_room *r = in_rwlock(lock);
	unsigned long flags;

	rules_taking(lock, r->name);
	write_lock_irqsave(&r->lock, flags);
	rules_taken(lock, r->name);
	return flags;
}

void plat_write_unlock_irqrestore(struct plat_rwlock *lock, unsigned long flags) __releases(lock)
{
	rules_releasing(lock);
	write_unlock_irqrestore(&in_rwlock(lock)->lock, flags);
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
	return rules_held(lock) &&
	       !known_free(&((const struct spin_room *)lock->room)->lock, HELD_ANYHOW);
}

bool plat_read_is_held(const struct plat_rwlock *lock)
{
	return rules_held(lock) &&
	       !known_free(&((const struct rw_room *)lock->room)->lock, HELD_ANYHOW);
}

bool plat_write_is_held(const struct plat_rwlock *lock)
{
	return rules_held(lock) &&
	       !known_free(&((const struct rw_room *)lock->room)->lock, HELD_FOR_WRITING);
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

void plat_schedule(void)
{
	rules_may_sleep("schedule");
	schedule();
}
