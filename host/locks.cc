// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Spin locks and reader-writer spin locks. Underneath are locks that sleep and that the thread
// sanitizer understands; above them is the bookkeeping that tells a misuse at once. A thread holds
// at most one lock, so the bookkeeping is one slot of thread-local storage and touches nothing that
// is shared.
#include <mutex>
#include <new>

#include "host/internal.h"
#include "host/reader_writer_lock.h"
#include "platform/spinlock.h"

namespace {

using host::LockMode;
using host::this_thread;

template <class Mutex>
struct Lock {
    std::uint64_t stamp;
    const char* name;
    Mutex mutex;
};
using SpinLock = Lock<std::mutex>;
using RwLock = Lock<host::ReaderWriterLock>;

static_assert(sizeof(SpinLock) <= sizeof(spinlock_t::room));
static_assert(sizeof(RwLock) <= sizeof(rwlock_t::room));

constexpr std::uint64_t spin_kind = 0x7370696E6C6F636Bull;
constexpr std::uint64_t rw_kind = 0x72776C6F636B2121ull;

/* Bit 9 of the saved state says that interrupts were on; the rest makes it a number of its own. */
constexpr unsigned long interrupts_on = 0x200;

template <class L>
L* object_in(unsigned char* room) {
    return std::launder(reinterpret_cast<L*>(room));
}

/* A lock that is ready already is made ready again, in place, when a module is loaded again. */
template <class L>
void make_ready(unsigned char* room, const char* name, std::uint64_t kind, const char* call) {
    host::enter(call);
    L* lock = object_in<L>(room);
    if (lock->stamp != host::stamp_of(kind)) {
        lock = new (room) L{host::stamp_of(kind), name, {}};
        return;
    }
    if (this_thread.held == room || !lock->mutex.try_lock())
        host::die("%s: the lock %s is made ready while it is held", call, lock->name);
    lock->name = name;
    lock->mutex.unlock();
}

[[noreturn]] void die_taking(const void* room, const char* name, const char* call) {
    if (this_thread.held == room)
        host::die("%s: the lock %s is taken twice by one thread", call, name);
    host::die("%s: the lock %s is taken while %s is held", call, name, this_thread.held_name);
}

template <class L>
L* usable(unsigned char* room, std::uint64_t kind, const char* call) {
    host::enter(call);
    L* lock = object_in<L>(room);
    if (lock->stamp != host::stamp_of(kind)) [[unlikely]]
        host::die("%s: the lock at %p was never initialised", call, static_cast<void*>(room));
    if (this_thread.held) [[unlikely]]
        die_taking(room, lock->name, call);
    return lock;
}

unsigned long note_taken(const void* room, const char* name, LockMode mode) {
    this_thread.held = room;
    this_thread.held_name = name;
    this_thread.mode = mode;
    this_thread.flags = (++this_thread.taken << 16) | interrupts_on;
    return this_thread.flags;
}

const char* name_of_mode(LockMode mode) {
    static constexpr const char* names[] = {"as a spin lock", "for reading", "for writing"};
    return names[static_cast<std::size_t>(mode)];
}

template <class L>
[[noreturn]] void die_releasing(unsigned char* room, std::uint64_t kind, LockMode mode,
                                const char* call) {
    host::enter(call);
    const L* lock = object_in<L>(room);
    if (lock->stamp != host::stamp_of(kind))
        host::die("%s: the lock at %p was never initialised", call, static_cast<void*>(room));
    if (this_thread.held != room)
        host::die("%s: the lock %s is released by a thread that does not hold it", call,
                  lock->name);
    if (this_thread.mode != mode)
        host::die("%s: the lock %s was taken %s and is released %s", call, lock->name,
                  name_of_mode(this_thread.mode), name_of_mode(mode));
    host::die("%s: the lock %s is released with interrupt flags that are not its own", call,
              lock->name);
}

/* Whoever holds a lock was let in when taking it. */
template <class L>
L* note_released(unsigned char* room, unsigned long flags, std::uint64_t kind, LockMode mode,
                 const char* call) {
    const bool is_own =
        this_thread.held == room && this_thread.mode == mode && this_thread.flags == flags;
    if (!is_own) [[unlikely]]
        die_releasing<L>(room, kind, mode, call);
    this_thread.held = nullptr;
    return object_in<L>(room);
}

bool holds(const unsigned char* room, LockMode mode, const char* call) {
    host::enter(call);
    return this_thread.held == room && this_thread.mode == mode;
}

}  // namespace

void spin_lock_init(spinlock_t* lock, const char* name) {
    make_ready<SpinLock>(lock->room, name, spin_kind, "spin_lock_init");
}

void rwlock_init(rwlock_t* lock, const char* name) {
    make_ready<RwLock>(lock->room, name, rw_kind, "rwlock_init");
}

unsigned long spin_lock_irqsave(spinlock_t* lock) {
    SpinLock* own = usable<SpinLock>(lock->room, spin_kind, "spin_lock_irqsave");
    own->mutex.lock();
    return note_taken(lock->room, own->name, LockMode::spin);
}

unsigned long read_lock_irqsave(rwlock_t* lock) {
    RwLock* own = usable<RwLock>(lock->room, rw_kind, "read_lock_irqsave");
    own->mutex.lock_shared();
    return note_taken(lock->room, own->name, LockMode::read);
}

unsigned long write_lock_irqsave(rwlock_t* lock) {
    RwLock* own = usable<RwLock>(lock->room, rw_kind, "write_lock_irqsave");
    own->mutex.lock();
    return note_taken(lock->room, own->name, LockMode::write);
}

void spin_unlock_irqrestore(spinlock_t* lock, unsigned long flags) {
    note_released<SpinLock>(lock->room, flags, spin_kind, LockMode::spin, "spin_unlock_irqrestore")
        ->mutex.unlock();
}

void read_unlock_irqrestore(rwlock_t* lock, unsigned long flags) {
    note_released<RwLock>(lock->room, flags, rw_kind, LockMode::read, "read_unlock_irqrestore")
        ->mutex.unlock_shared();
}

void write_unlock_irqrestore(rwlock_t* lock, unsigned long flags) {
    note_released<RwLock>(lock->room, flags, rw_kind, LockMode::write, "write_unlock_irqrestore")
        ->mutex.unlock();
}

bool spin_is_held(const spinlock_t* lock) {
    return holds(lock->room, LockMode::spin, "spin_is_held");
}

bool read_is_held(const rwlock_t* lock) {
    return holds(lock->room, LockMode::read, "read_is_held") || write_is_held(lock);
}

bool write_is_held(const rwlock_t* lock) {
    return holds(lock->room, LockMode::write, "write_is_held");
}
