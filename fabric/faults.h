// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Scripted faults of one stream of packets: a peer's, the SA's answers, a port's.
//
//     fabric.sa().faults().drop_next(2);
//     fabric.peer(ip).delay(5);
//     fabric.port(2).drop_all();
//
// Faults add up: a packet is first counted against the drops, then against the duplicates and the
// hold-backs; what survives is late by the delay. All calls may come from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <vector>

#include "fabric/mutex.h"

namespace fabric {

class Faults {
  public:
    using Deliver = std::function<void(unsigned long delay)>;

    void drop_next(unsigned count = 1);  ///< the next `count` packets are lost
    void drop_all();                     ///< all are, until clear()
    void delay(unsigned long ticks);     ///< each is late by that, until clear() or another delay
    void duplicate_next(unsigned count = 1);  ///< the next `count` arrive twice
    void hold_next(unsigned count = 1);  ///< the next `count` wait for one that is not held back,
                                         ///< and follow it

    /// Forgets all faults. Packets that are being held back are delivered now.
    void clear();

    unsigned long dropped() const;  ///< packets lost here so far

    /// For the fabric: has `deliver` called as the faults say, never, once or twice, now or when a
    /// later packet passes, with the delay that applies.
    void pass(const Deliver& deliver);

  private:
    mutable Mutex mutex_;
    std::atomic<bool> any_ = false;
    unsigned drops_ TA_GUARDED(mutex_) = 0;
    bool drop_all_ TA_GUARDED(mutex_) = false;
    unsigned long delay_ TA_GUARDED(mutex_) = 0;
    unsigned duplicates_ TA_GUARDED(mutex_) = 0;
    unsigned holds_ TA_GUARDED(mutex_) = 0;
    std::vector<Deliver> held_ TA_GUARDED(mutex_);
    unsigned long dropped_ TA_GUARDED(mutex_) = 0;
};

}  // namespace fabric
