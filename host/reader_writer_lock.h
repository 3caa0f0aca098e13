// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A reader-writer lock whose readers do not share a cache line: a reader writes nothing but a slot
// of its own thread, so that readers on many CPUs do not slow one another down. A writer pays for
// it: it looks at the slots of all threads.
//
// A thread holds at most one such lock at a time.
#pragma once

#include <atomic>
#include <mutex>

namespace host {

class ReaderWriterLock;

/// Which lock its thread holds for reading; null: none.
struct alignas(64) ReaderSlot {
    std::atomic<const ReaderWriterLock*> holds = nullptr;
};

/// The thread's own; null before it first reads, and in threads for which there was none left.
extern constinit thread_local ReaderSlot* reader_slot;

class ReaderWriterLock {
  public:
    // Either the reader sees the writer, or the writer sees the reader: both write first and look
    // then, in one order that all threads agree upon.
    void lock_shared() {
        if (ReaderSlot* const slot = reader_slot) [[likely]] {
            slot->holds.store(this);
            if (!writing_.load()) [[likely]]
                return;
            slot->holds.store(nullptr, std::memory_order_release);
        }
        lock_shared_slowly();
    }
    void unlock_shared() {
        if (ReaderSlot* const slot = reader_slot) [[likely]]
            slot->holds.store(nullptr, std::memory_order_release);
        else
            others_.fetch_sub(1, std::memory_order_release);
    }

    /// Keeps new readers out and waits for those that are in.
    void lock();
    void unlock();
    bool try_lock();

  private:
    void lock_shared_slowly();
    bool has_readers() const;

    std::mutex writer_;  // the writer's, or that of a reader who waits for the writer
    std::atomic<bool> writing_ = false;
    std::atomic<unsigned> others_ = 0;  // readers in threads that have no slot
};

}  // namespace host
