// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The fabric's own locks: std::mutex with contracts that clang checks.
//
// Every part of the fabric guards its state with one Mutex and holds none while it calls another
// part, the kernel or the module. So there is no order of locks to keep.
#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/annotations.h"

namespace fabric {

class TA_CAPABILITY("mutex") Mutex {
  public:
    void lock() TA_ACQ() TA_NO_ANALYSIS { mutex_.lock(); }
    void unlock() TA_REL() TA_NO_ANALYSIS { mutex_.unlock(); }

  private:
    std::mutex mutex_;
};

/// The mutex is held from here to the end of the scope.
class [[nodiscard]] TA_SCOPED MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) TA_ACQ(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() TA_REL() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

}  // namespace fabric
