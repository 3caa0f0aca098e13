/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * Faults to be found, for trying whether they are. Only test builds (TARV_RULES=y) have them.
 *
 * A word written to /sys/kernel/debug/tarv/plant commits the fault, with the services that the
 * module uses:
 *
 *   nested   a lock of the module is taken while another is held
 *   sleep    memory that may be waited for is asked for under a lock
 *   callout  the adapter is called under a lock
 *   hold     a lock is held for 20 ms; found where hold_limit_us is lower
 *   leak     memory is forgotten
 *   freed    freed memory is written to
 *   timer    memory with an armed timer in it is freed
 *   race     two threads write a variable without a lock
 */
#ifndef KERNEL_BASE_PLANTED_H
#define KERNEL_BASE_PLANTED_H

#ifdef TARV_RULES
void planted_start(void);
void planted_stop(void);
#else
static inline void planted_start(void)
{
}
static inline void planted_stop(void)
{
}
#endif

#endif
