// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/events.h"

#include <algorithm>

#include "fabric/witness.h"
#include "host/check.h"

namespace fabric {
namespace {

/* The registration whose callback this thread is in. */
thread_local const void* callback_here = nullptr;

}  // namespace

void Events::add(gx_hca_h_t owner, Callback* callback,
                 const std::vector<gx_event_record_t>& first) {
    MutexLock lock(mutex_);
    auto registration = std::make_shared<Registration>();
    registration->owner = owner;
    registration->callback = callback;
    registrations_.push_back(registration);
    for (const gx_event_record_t& event : first)
        queue(registration, event);
}

bool Events::remove(gx_hca_h_t owner, Callback* callback) {
    MutexLock lock(mutex_);
    auto found = std::find_if(registrations_.begin(), registrations_.end(), [&](const Shared& r) {
        return r->owner == owner && r->callback == callback;
    });
    if (found == registrations_.end())
        return false;
    Shared registration = *found;
    if (callback_here == registration.get())
        host::die("gx_dell_sleepable_async_event_cb: called from the callback that it waits for");
    registrations_.erase(found);
    registration->removed = true;
    registration->queue.clear();
    while (registration->running)
        idle_.wait(mutex_);
    return true;
}

void Events::raise(gx_event_record_t event) {
    MutexLock lock(mutex_);
    for (const Shared& registration : registrations_)
        queue(registration, event);
}

void Events::queue(const Shared& registration, gx_event_record_t event) {
    registration->queue.push_back(event);
    works_.schedule(host::Context::event, 0, [this, registration] { drain(registration); });
}

/* Whoever finds the registration idle delivers all that is queued: an event that falls due while
 * the callback is running has its turn when the callback returns. */
void Events::drain(const Shared& registration) {
    MutexLock lock(mutex_);
    if (registration->running)
        return;
    registration->running = true;
    while (!registration->removed && !registration->queue.empty()) {
        gx_event_record_t event = registration->queue.front();
        registration->queue.pop_front();
        mutex_.unlock();
        callback_here = registration.get();
        Witness* const sees = witness();
        if (sees != nullptr)
            sees->before_event(event);
        registration->callback(event);
        if (sees != nullptr)
            sees->after_event();
        callback_here = nullptr;
        mutex_.lock();
    }
    registration->running = false;
    idle_.notify_all();
}

bool Events::any_on(gx_hca_h_t owner) const {
    MutexLock lock(mutex_);
    return std::any_of(registrations_.begin(), registrations_.end(),
                       [&](const Shared& r) { return r->owner == owner; });
}

std::size_t Events::count() const {
    MutexLock lock(mutex_);
    return registrations_.size();
}

}  // namespace fabric
