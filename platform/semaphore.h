// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Counting semaphores, and giving up the processor: the calls that may sleep without allocating.
#pragma once

#include "platform/annotations.h"
#include "platform/types.h"

/* Storage as for the locks: `room` is the host's. */
struct TA_CAPABILITY("semaphore") semaphore {
    alignas(64) unsigned char room[128];
};

/* Makes the semaphore ready with `count` free places. Context: process. */
void sema_init(semaphore* sem, int count, const char* name) PLATFORM_LINK(sema_init);

/* Takes a place, waiting for one. Context: process, event; no spin lock held. */
void down(semaphore* sem) PLATFORM_LINK(down);

/* Gives a place back. Context: process, event. */
void up(semaphore* sem) PLATFORM_LINK(up);

/* Lets other tasks run, then goes on. Context: process, event; no spin lock held. */
void schedule() PLATFORM_LINK(schedule);

/* One place of the semaphore is held from here to the end of the scope. */
class [[nodiscard]] TA_SCOPED semaphore_guard {
  public:
    explicit semaphore_guard(semaphore& sem) TA_ACQ(sem) TA_NO_ANALYSIS : sem_(sem) { down(&sem); }
    ~semaphore_guard() TA_REL() TA_NO_ANALYSIS { up(&sem_); }
    semaphore_guard(const semaphore_guard&) = delete;
    semaphore_guard& operator=(const semaphore_guard&) = delete;

  private:
    semaphore& sem_;
};
