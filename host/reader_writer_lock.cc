// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "host/reader_writer_lock.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <thread>

namespace host {
namespace {

/* Which lock its thread holds for reading; null: none. */
struct alignas(64) Slot {
    std::atomic<const ReaderWriterLock*> holds = nullptr;
};

/* Threads beyond these count themselves in the lock. */
constexpr std::size_t slot_count = 128;
std::array<Slot, slot_count> slots;
std::atomic<std::size_t> slots_used = 0;  // no slot from here on was ever given out

constinit std::mutex slots_mutex;
std::bitset<slot_count> slots_taken;  // guarded by slots_mutex

constinit thread_local Slot* own_slot = nullptr;
constinit thread_local bool asked_for_slot = false;

/* Gives the thread's slot back when the thread ends. Apart from `own_slot`, so that reading that
 * one stays a plain load. */
struct SlotLease {
    ~SlotLease() {
        if (!own_slot)
            return;
        const std::lock_guard guard(slots_mutex);
        slots_taken.reset(static_cast<std::size_t>(own_slot - slots.data()));
        own_slot = nullptr;
    }
};

Slot* ask_for_slot() {
    if (asked_for_slot)
        return nullptr;
    asked_for_slot = true;
    thread_local const SlotLease lease;
    const std::lock_guard guard(slots_mutex);
    std::size_t free = 0;
    while (free < slot_count && slots_taken.test(free))
        free++;
    if (free == slot_count)
        return nullptr;
    slots_taken.set(free);
    slots_used = std::max<std::size_t>(slots_used, free + 1);
    return own_slot = &slots[free];
}

Slot* slot_of_thread() {
    return own_slot ? own_slot : ask_for_slot();
}

}  // namespace

// Either the reader sees the writer, or the writer sees the reader: both write first and look then,
// in one order that all threads agree upon.
void ReaderWriterLock::lock_shared() {
    Slot* const slot = slot_of_thread();
    const auto enter = [&] { slot ? slot->holds.store(this) : void(others_.fetch_add(1)); };
    enter();
    if (!writing_.load()) [[likely]]
        return;
    unlock_shared();
    const std::lock_guard guard(writer_);
    enter();
}

void ReaderWriterLock::unlock_shared() {
    if (Slot* const slot = own_slot) [[likely]]
        slot->holds.store(nullptr, std::memory_order_release);
    else
        others_.fetch_sub(1, std::memory_order_release);
}

bool ReaderWriterLock::has_readers() const {
    const auto used = slots.begin() + static_cast<std::ptrdiff_t>(slots_used.load());
    return others_.load() != 0 ||
           std::any_of(slots.begin(), used, [this](const Slot& s) { return s.holds == this; });
}

void ReaderWriterLock::lock() {
    writer_.lock();
    writing_.store(true);
    while (has_readers())
        std::this_thread::yield();
}

void ReaderWriterLock::unlock() {
    writing_.store(false, std::memory_order_release);
    writer_.unlock();
}

bool ReaderWriterLock::try_lock() {
    if (!writer_.try_lock())
        return false;
    writing_.store(true);
    if (!has_readers())
        return true;
    unlock();
    return false;
}

}  // namespace host
