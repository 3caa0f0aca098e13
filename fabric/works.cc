// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/works.h"

#include <condition_variable>
#include <utility>

#include "fabric/mutex.h"

namespace fabric {

struct Works::Gate {
    Mutex mutex;
    std::condition_variable_any left;
    bool closed TA_GUARDED(mutex) = false;
    int running TA_GUARDED(mutex) = 0;

    bool enter() {
        MutexLock lock(mutex);
        if (closed)
            return false;
        running++;
        return true;
    }

    void leave() {
        MutexLock lock(mutex);
        running--;
        left.notify_all();
    }
};

Works::Works() : gate_(std::make_shared<Gate>()) {}

Works::~Works() {
    close();
}

void Works::schedule(host::Context context, unsigned long ticks, std::function<void()> work,
                     unsigned lane) {
    auto run = [gate = gate_, work = std::move(work)] {
        if (!gate->enter())
            return;
        work();
        gate->leave();
    };
    host::Kernel::current().schedule(context, ticks, std::move(run), lane);
}

void Works::close() {
    MutexLock lock(gate_->mutex);
    gate_->closed = true;
    while (gate_->running > 0)
        gate_->left.wait(gate_->mutex);
}

}  // namespace fabric
