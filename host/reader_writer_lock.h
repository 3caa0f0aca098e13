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

class ReaderWriterLock {
  public:
    void lock_shared();
    void unlock_shared();

    /// Keeps new readers out and waits for those that are in.
    void lock();
    void unlock();
    bool try_lock();

  private:
    bool has_readers() const;

    std::mutex writer_;  // the writer's, or that of a reader who waits for the writer
    std::atomic<bool> writing_ = false;
    std::atomic<unsigned> others_ = 0;  // readers in threads that have no slot
};

}  // namespace host
