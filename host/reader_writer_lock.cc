// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "host/reader_writer_lock.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <thread>

namespace host {
namespace {

/* Threads beyond these count themselves in the lock. */
constexpr std::size_t slot_count = 128;
std::array<ReaderSlot, slot_count> slots;
std::atomic<std::size_t> slots_used = 0;  // no slot from here on was ever given out

constinit std::mutex slots_mutex;
std::bitset<slot_count> slots_taken;  // guarded by slots_mutex

constinit thread_local bool asked_for_slot = false;

/* Gives the thread's slot back when the thread ends. Apart from `reader_slot`, so that reading that
 * one stays a plain load. */
struct SlotLease {
    ~SlotLease() {
        if (!reader_slot)
            return;
        const std::lock_guard guard(slots_mutex);
        slots_taken.reset(static_cast<std::size_t>(reader_slot - slots.data()));
        reader_slot = nullptr;
    }
};

/* Once in the life of a thread. */
void ask_for_slot() {
    asked_for_slot = true;
    thread_local const SlotLease lease;
    const std::lock_guard guard(slots_mutex);
    std::size_t free = 0;
    while (free < slot_count && slots_taken.test(free))
        free++;
    if (free == slot_count)
        return;
    slots_taken.set(free);
    slots_used = std::max<std::size_t>(slots_used, free + 1);
    reader_slot = &slots[free];
}

}  // namespace

constinit thread_local ReaderSlot* reader_slot = nullptr;

// Behind the writer, or before the next one: nobody writes while a reader has the writer's mutex.
void ReaderWriterLock::lock_shared_slowly() {
    if (!asked_for_slot)
        ask_for_slot();
    const std::lock_guard guard(writer_);
    if (reader_slot)
        reader_slot->holds.store(this);
    else
        others_.fetch_add(1);
}

bool ReaderWriterLock::has_readers() const {
    const auto used = slots.begin() + static_cast<std::ptrdiff_t>(slots_used.load());
    return others_.load() != 0 || std::any_of(slots.begin(), used, [this](const ReaderSlot& s) {
               return s.holds == this;
           });
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
