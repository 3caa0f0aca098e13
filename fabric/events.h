// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Asynchronous events of the adapter, on their way to the callbacks registered for them.
//
// A callback is called in event context, one event at a time and in the order in which they
// happened, also when it gives up the processor while it handles one.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <vector>

#include "fabric/mutex.h"
#include "fabric/works.h"
#include "platform/verbs.h"

namespace fabric {

class Events {
  public:
    explicit Events(Works& works) : works_(works) {}

    using Callback = gx_sleepable_async_event_cb_t;

    /// `owner` is the handle on which the callback was registered.
    void add(gx_hca_h_t owner, Callback* callback, const std::vector<gx_event_record_t>& first);

    /// Ends the registration: events that are queued are dropped, a running callback is waited for.
    /// False when there is no such registration. Dies when called from inside the callback.
    bool remove(gx_hca_h_t owner, Callback* callback);

    /// Has an event delivered to all callbacks.
    void raise(gx_event_record_t event);

    bool any_on(gx_hca_h_t owner) const;
    std::size_t count() const;

  private:
    struct Registration {
        gx_hca_h_t owner;
        Callback* callback;
        std::deque<gx_event_record_t> queue;
        bool running = false;
        bool removed = false;
    };
    using Shared = std::shared_ptr<Registration>;

    void queue(const Shared& registration, gx_event_record_t event) TA_REQ(mutex_);
    void drain(const Shared& registration);

    Works& works_;
    mutable Mutex mutex_;  ///< of the list and of every registration in it
    std::condition_variable_any idle_;
    std::vector<Shared> registrations_ TA_GUARDED(mutex_);
};

}  // namespace fabric
