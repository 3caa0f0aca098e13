// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Spin locks and reader-writer spin locks, always taken with the local interrupt state saved and
// interrupts disabled.
//
// Rules: whoever holds one does not sleep, does not take a second lock of the module, and calls out
// of the module only for services that this waist opens to "any" context. The module uses only the
// guards at the end, which the compiler checks; the calls are what a host implements.
#pragma once

#include "platform/annotations.h"
#include "platform/types.h"

/* A lock's storage belongs to the host, which keeps in `room` what its kind of lock needs. Locks
 * have static storage: their address is their class for a lock checker, `name` what it calls them.
 */
struct TA_CAPABILITY("spin lock") spinlock_t {
    alignas(64) unsigned char room[192];
};
struct TA_CAPABILITY("reader-writer spin lock") rwlock_t {
    alignas(64) unsigned char room[192];
};

/* Makes the lock ready, unlocked. Context: process, with nobody else at the lock. `name` is kept.
 */
void spin_lock_init(spinlock_t* lock, const char* name) PLATFORM_LINK(spin_lock_init);
void rwlock_init(rwlock_t* lock, const char* name) PLATFORM_LINK(rwlock_init);

/* Saves the interrupt state, disables interrupts, takes the lock; returns the saved state. */
unsigned long spin_lock_irqsave(spinlock_t* lock) PLATFORM_LINK(spin_lock_irqsave);
unsigned long read_lock_irqsave(rwlock_t* lock) PLATFORM_LINK(read_lock_irqsave);
unsigned long write_lock_irqsave(rwlock_t* lock) PLATFORM_LINK(write_lock_irqsave);

/* Gives the lock back and restores the interrupt state. */
void spin_unlock_irqrestore(spinlock_t* lock, unsigned long flags)
    PLATFORM_LINK(spin_unlock_irqrestore);
void read_unlock_irqrestore(rwlock_t* lock, unsigned long flags)
    PLATFORM_LINK(read_unlock_irqrestore);
void write_unlock_irqrestore(rwlock_t* lock, unsigned long flags)
    PLATFORM_LINK(write_unlock_irqrestore);

/* Whether the calling CPU holds the lock: as a spin lock, at least for reading, for writing. For
 * assertions only, since a host that keeps no account of its locks says yes. A lock that somebody
 * else holds is not held. */
bool spin_is_held(const spinlock_t* lock) PLATFORM_LINK(spin_is_held);
bool read_is_held(const rwlock_t* lock) PLATFORM_LINK(read_is_held);
bool write_is_held(const rwlock_t* lock) PLATFORM_LINK(write_is_held);

/* The lock is held from here to the end of the scope. */
class [[nodiscard]] TA_SCOPED spin_guard {
  public:
    explicit spin_guard(spinlock_t& lock) TA_ACQ(lock) TA_NO_ANALYSIS
        : lock_(lock),
          flags_(spin_lock_irqsave(&lock)) {}
    ~spin_guard() TA_REL() TA_NO_ANALYSIS { spin_unlock_irqrestore(&lock_, flags_); }
    spin_guard(const spin_guard&) = delete;
    spin_guard& operator=(const spin_guard&) = delete;

  private:
    spinlock_t& lock_;
    unsigned long flags_;
};

/* Held for reading: other readers may hold it too. */
class [[nodiscard]] TA_SCOPED read_guard {
  public:
    explicit read_guard(rwlock_t& lock) TA_ACQ_SHARED(lock) TA_NO_ANALYSIS
        : lock_(lock),
          flags_(read_lock_irqsave(&lock)) {}
    ~read_guard() TA_REL() TA_NO_ANALYSIS { read_unlock_irqrestore(&lock_, flags_); }
    read_guard(const read_guard&) = delete;
    read_guard& operator=(const read_guard&) = delete;

  private:
    rwlock_t& lock_;
    unsigned long flags_;
};

/* Held for writing: nobody else holds it. */
class [[nodiscard]] TA_SCOPED write_guard {
  public:
    explicit write_guard(rwlock_t& lock) TA_ACQ(lock) TA_NO_ANALYSIS
        : lock_(lock),
          flags_(write_lock_irqsave(&lock)) {}
    ~write_guard() TA_REL() TA_NO_ANALYSIS { write_unlock_irqrestore(&lock_, flags_); }
    write_guard(const write_guard&) = delete;
    write_guard& operator=(const write_guard&) = delete;

  private:
    rwlock_t& lock_;
    unsigned long flags_;
};
