/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * The rules of the waist, asserted while the module runs. Only test builds (TARV_RULES=y) have
 * them; elsewhere all of this is nothing.
 *
 *   - Nobody who holds a lock of the module takes another.
 *   - Nothing is called out of the module, and nothing calls into it, while one is held.
 *   - What may sleep is called only where that is allowed.
 *   - No lock is held longer than /sys/kernel/debug/quorvane/hold_limit_us allows (0: any time).
 *
 * Whoever breaks one causes a WARN, with the names of the call and of the lock.
 *
 * /sys/kernel/debug/quorvane/holds has, for each lock, how often it was taken and the longest time
 * that it was held, in nanoseconds; whatever is written to it clears the times.
 *
 * /sys/kernel/debug/quorvane/fail: "CALL N" makes the N-th call of that name from now on fail,
 * once; N 0 takes it back. Reading tells each name that can be given, and how often it was called
 * since it was last written. (The insmod of busybox tries again when a load fails.)
 */
#ifndef KERNEL_SERVICES_RULES_H
#define KERNEL_SERVICES_RULES_H

#include <linux/types.h>

#ifdef TARV_RULES

/* A lock of the module is about to be taken, was taken, is about to be given back. */
void rules_taking(const void *lock, const char *name);
void rules_taken(const void *lock, const char *name);
void rules_releasing(const void *lock);

/* `call` may sleep; `call` is a way out of the module or into it. */
void rules_may_sleep(const char *call);
void rules_no_lock(const char *call);

/* The caller holds that lock; yes, where no account is kept. */
bool rules_held(const void *lock);

/* That call is to fail now. */
bool rules_fail(const char *call);

int rules_start(void);
void rules_stop(void);

#else

static inline void rules_taking(const void *lock, const char *name)
{
}
static inline void rules_taken(const void *lock, const char *name)
{
}
static inline void rules_releasing(const void *lock)
{
}
static inline void rules_may_sleep(const char *call)
{
}
static inline void rules_no_lock(const char *call)
{
}
static inline bool rules_held(const void *lock)
{
	return true;
}
static inline bool rules_fail(const char *call)
{
	return false;
}
static inline int rules_start(void)
{
	return 0;
}
static inline void rules_stop(void)
{
}

#endif
#endif
