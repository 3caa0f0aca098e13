// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the host's own sources share and nobody else includes: the state of a thread, the check at
// the door of every call, and how a service takes part in the life of a Kernel.
//
// A Kernel is an epoch. Objects that live in the module's storage (locks, semaphores, timers) carry
// a stamp made of their kind and the epoch in which they were made ready. Storage that was never
// made ready, or only under an earlier Kernel, therefore never passes for a usable object.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "host/check.h"

struct module;
struct timer_list;

namespace host {

enum class LockMode : std::uint8_t { spin, read, write };

/// What the host knows of a thread. Plain and constant-initialised, so that reading it costs no
/// more than any thread-local word: it is on the path of every lock.
struct ThreadState {
    Context context = Context::process;
    LockMode mode = LockMode::spin;
    const void* held = nullptr;         ///< the one spin lock that the thread may hold
    const char* held_name = nullptr;    ///< its name
    unsigned long flags = 0;            ///< the interrupt state that taking it returned
    unsigned long taken = 0;            ///< locks ever taken; makes each saved state another number
    const char* driver_call = nullptr;  ///< the driver's function that the thread is inside of
    const timer_list* timer = nullptr;  ///< whose function the thread runs
    const void* proc_entry = nullptr;   ///< whose handler the thread runs
    const void* notification = nullptr;  ///< whose callback the thread runs
    bool worker = false;                 ///< a thread of the real-time kernel
};
extern constinit thread_local ThreadState this_thread;

/// 0 while no Kernel exists, else a number that no earlier Kernel had.
extern std::atomic<std::uint64_t> current_epoch;
/// The only thread that may use the kernel; null when every thread may.
extern std::atomic<const ThreadState*> only_thread;

/// Options::files_keep_modules of the current Kernel.
extern std::atomic<bool> files_keep_modules;

[[noreturn]] void die_at_the_door(const char* call);

/// Stands at the start of every call of the waist: a Kernel exists, and this thread may use it.
inline void enter(const char* call) {
    const ThreadState* only = only_thread.load(std::memory_order_relaxed);
    if (current_epoch.load(std::memory_order_relaxed) == 0 || (only && only != &this_thread))
        [[unlikely]]
        die_at_the_door(call);
}

/// The stamp of an object of this kind that was made ready under the current Kernel.
inline std::uint64_t stamp_of(std::uint64_t kind) {
    return kind ^ (current_epoch.load(std::memory_order_relaxed) * 0x9E3779B97F4A7C15ull);
}

const char* name_of(Context context);
bool is_atomic(Context context);

/// Whether this process may be held up: what must_sleep asks, without dying.
bool may_sleep();

/// A process may not be interrupted by, and work may not end with, a lock held.
void must_return_lock_free(const char* what, const void* function);

/// "SYMBOL+0x12" or "PROGRAM+0x1234" where the loader knows the address, else the address.
std::string describe_address(const void* address);

/// A timer that is armed, or whose function another thread runs, in these bytes; or null.
const timer_list* active_timer_within(const void* memory, std::size_t size);

/// A module is in use, and must not be unloaded, from a use_module() that gave true to the
/// end_use_of_module() that follows. False when it is about to go. Nobody (null) can be used
/// always.
bool use_module(struct module* owner);
void end_use_of_module(struct module* owner);

/// A service's part in the life of a Kernel. begin() starts from nothing, end() gives back what is
/// still there, remains() appends what a finished module should not have left.
struct Service {
    void (*begin)();
    void (*end)();
    void (*remains)(std::vector<std::string>& lines);
};
extern const Service fault_service;
extern const Service console_service;
extern const Service memory_service;
extern const Service timer_service;
extern const Service proc_service;
extern const Service module_service;
extern const Service repository_service;

}  // namespace host
