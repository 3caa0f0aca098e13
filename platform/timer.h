// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Kernel timers: the IB stack's timer services.
//
// Life cycle: init_timing once, set `expires`, `function` and `data`, add_timing; the timer fires
// once and is then idle again, so that its own function may set a new expiry and add it anew. A
// timer's storage must outlive del_timing_sync.
#pragma once

#include "platform/types.h"

struct timer_list {
    unsigned long expires;                 // tick at which the function is due
    void (*function)(unsigned long data);  // called in timer context, no lock held
    unsigned long data;
    alignas(16) unsigned char room[128];  // the host's
};

/* Prepares an idle timer; the three public fields keep their values. Context: process. */
void init_timing(timer_list* timer) PLATFORM_LINK(init_timing);

/* Starts an idle timer: it fires at the first tick at or after `expires`, never before.
 * Context: any; also from its own function, and with a spin lock held. */
void add_timing(timer_list* timer) PLATFORM_LINK(add_timing);

/* Stops the timer and waits until its function, if it runs on another CPU, has returned; a function
 * that starts its own timer again meanwhile is stopped too. Returns 1 when the timer was pending,
 * else 0. Context: process; never from the timer's own function, no lock held that it takes. */
int del_timing_sync(timer_list* timer) PLATFORM_LINK(del_timing_sync);
