// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Who runs what, and when: the one interface behind which virtual and real time stand, and the
// time-ordered queue that both are made of.
//
// A tick belongs to everything that waits. Of two entries the one with the earlier tick runs first,
// and within a tick the one that was queued first. Timers and scheduled work share that order.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "host/kernel.h"
#include "platform/timer.h"

namespace host {

inline constexpr unsigned long never = ~0ul;

/// An armed timer as a report shows it.
struct ArmedTimer {
    const timer_list* timer;
    unsigned long due;
};

/// Entries ordered by due tick and age. Not locked: its owner does that.
class TimeQueue {
  public:
    struct Entry {
        Context context = Context::process;
        std::function<void()> work;   ///< empty for a timer
        timer_list* timer = nullptr;  ///< null for work
    };

    void add(unsigned long due, Entry entry);
    /// Queues an idle timer for the first tick at or after its expiry that is still to come.
    void arm(timer_list* timer, unsigned long now);
    /// Takes a timer out again; false when it was not armed.
    bool disarm(const timer_list* timer);
    bool armed(const timer_list* timer) const { return armed_.contains(timer); }

    /// The tick of the first entry, or never.
    unsigned long first_due() const {
        return entries_.empty() ? never : entries_.begin()->first.first;
    }
    /// The tick of the first entry that is not of the context `without`, or never.
    unsigned long first_due_without(Context without) const;
    /// Takes the first entry out; there is one.
    Entry pop();
    Entry pop_without(Context without);

    /// An armed timer whose structure begins in these bytes, or null.
    const timer_list* armed_within(const void* memory, std::size_t size) const;
    std::vector<ArmedTimer> armed_timers() const;
    void clear();

  private:
    using Key = std::pair<unsigned long, std::uint64_t>;
    using Entries = std::map<Key, Entry>;
    Entry take(Entries::iterator position);
    Entries::const_iterator find_without(Context without) const;

    Entries entries_;
    std::map<const timer_list*, Key> armed_;
    std::uint64_t next_ = 0;
};

class Executor {
  public:
    virtual ~Executor() = default;

    /// Lets what runs come to its end and drops the rest. Nothing runs afterwards.
    virtual void stop() = 0;

    virtual unsigned long now() const = 0;
    virtual void advance(unsigned long ticks) = 0;
    virtual void settle() = 0;
    virtual unsigned long next_due() const = 0;
    virtual void schedule(Context context, unsigned long ticks, std::function<void()> work,
                          unsigned lane) = 0;

    /// One turn for everybody else.
    virtual void yield() = 0;
    /// The calling thread waits, since the tick `since`, for `name`. True: others have run, and it
    /// should look again. False: it is to block, because others run without it.
    virtual bool run_others(const char* call, const char* name, unsigned long since) = 0;

    virtual void add_timer(timer_list* timer) = 0;
    /// Stops the timer and waits for its function; true when it was armed.
    virtual bool stop_timer(timer_list* timer) = 0;
    virtual bool timer_armed(const timer_list* timer) const = 0;
    /// A timer that is armed, or whose function another thread runs, in these bytes; or null.
    virtual const timer_list* timer_within(const void* memory, std::size_t size) const = 0;
    virtual std::vector<ArmedTimer> armed_timers() const = 0;
};

std::unique_ptr<Executor> make_virtual_executor(unsigned long first_jiffy);
std::unique_ptr<Executor> make_real_executor(unsigned long first_jiffy);

/// The current Kernel's.
Executor& executor();

/// Runs an entry in its context, and sees that it holds no lock before and after.
void run_entry(TimeQueue::Entry& entry);

}  // namespace host
