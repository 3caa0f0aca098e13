// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/faults.h"

#include <utility>

namespace fabric {

void Faults::drop_next(unsigned count) {
    MutexLock lock(mutex_);
    drops_ = count;
    any_ = true;
}

void Faults::drop_all() {
    MutexLock lock(mutex_);
    drop_all_ = true;
    any_ = true;
}

void Faults::delay(unsigned long ticks) {
    MutexLock lock(mutex_);
    delay_ = ticks;
    any_ = true;
}

void Faults::duplicate_next(unsigned count) {
    MutexLock lock(mutex_);
    duplicates_ = count;
    any_ = true;
}

void Faults::hold_next(unsigned count) {
    MutexLock lock(mutex_);
    holds_ = count;
    any_ = true;
}

void Faults::clear() {
    std::vector<Deliver> released;
    {
        MutexLock lock(mutex_);
        any_ = false;
        drops_ = 0;
        drop_all_ = false;
        delay_ = 0;
        duplicates_ = 0;
        holds_ = 0;
        released.swap(held_);
    }
    for (const Deliver& deliver : released)
        deliver(0);
}

unsigned long Faults::dropped() const {
    MutexLock lock(mutex_);
    return dropped_;
}

void Faults::pass(const Deliver& deliver) {
    if (!any_)
        return deliver(0);
    unsigned long late = 0;
    int copies = 1;
    std::vector<Deliver> released;
    {
        MutexLock lock(mutex_);
        if (drop_all_ || drops_ > 0) {
            if (!drop_all_)
                drops_--;
            dropped_++;
            return;
        }
        if (holds_ > 0) {
            holds_--;
            held_.push_back(deliver);
            return;
        }
        if (duplicates_ > 0) {
            duplicates_--;
            copies = 2;
        }
        late = delay_;
        released.swap(held_);
    }
    for (int i = 0; i < copies; i++)
        deliver(late);
    for (const Deliver& before : released)
        before(late);
}

}  // namespace fabric
