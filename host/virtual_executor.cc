// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Virtual time. Ticks pass only when somebody waits: in advance(), and in the calls by which the
// kernel's own code waits for others. Time jumps from one due moment to the next.
#include <algorithm>
#include <atomic>

#include "host/executor.h"
#include "host/internal.h"

namespace host {
namespace {

/* After so many ticks in one wait nobody is going to end it: the program is at a standstill. */
constexpr unsigned long longest_wait = 10'000'000;

class VirtualExecutor final : public Executor {
  public:
    explicit VirtualExecutor(unsigned long first_jiffy) : now_(first_jiffy) {}

    void stop() override { queue_.clear(); }
    unsigned long now() const override { return now_; }
    unsigned long next_due() const override { return queue_.first_due(); }

    void advance(unsigned long ticks) override;
    void settle() override { run_until(now_); }
    void schedule(Context context, unsigned long ticks, std::function<void()> work,
                  unsigned) override {
        queue_.add(now_ + ticks, {context, std::move(work), nullptr});
    }
    void yield() override;
    bool run_others(const char* call, const char* name, unsigned long since) override;

    void add_timer(timer_list* timer) override {
        if (queue_.armed(timer))
            die("add_timing: the timer at %p is pending", static_cast<const void*>(timer));
        queue_.arm(timer, now_);
    }
    bool stop_timer(timer_list* timer) override { return queue_.disarm(timer); }
    bool timer_armed(const timer_list* timer) const override { return queue_.armed(timer); }
    const timer_list* timer_within(const void* memory, std::size_t size) const override {
        return queue_.armed_within(memory, size);
    }
    std::vector<ArmedTimer> armed_timers() const override { return queue_.armed_timers(); }

  private:
    /// The tick of what may run now. While an event is being handled and waits, no other event is:
    /// they come one at a time.
    unsigned long first_due() const {
        return events_ ? queue_.first_due_without(Context::event) : queue_.first_due();
    }
    void run_first();
    bool run_until(unsigned long last);

    TimeQueue queue_;
    std::atomic<unsigned long> now_;  // also read by threads that do not pass the time
    unsigned events_ = 0;             ///< events being handled
};

void VirtualExecutor::run_first() {
    now_ = std::max(now(), first_due());
    TimeQueue::Entry entry = events_ ? queue_.pop_without(Context::event) : queue_.pop();
    const bool event = entry.context == Context::event;
    events_ += event;
    run_entry(entry);
    events_ -= event;
}

bool VirtualExecutor::run_until(unsigned long last) {
    bool ran = false;
    for (; first_due() <= last; ran = true)
        run_first();
    return ran;
}

void VirtualExecutor::advance(unsigned long ticks) {
    const unsigned long last = now_ + ticks;
    run_until(last);
    now_ = std::max(now(), last);
}

// A caller that yields in a loop waits for something that only the passing of time may bring.
void VirtualExecutor::yield() {
    if (!run_until(now_))
        advance(1);
}

bool VirtualExecutor::run_others(const char* call, const char* name, unsigned long since) {
    if (first_due() == never || now_ - since > longest_wait)
        die("%s: waits for %s, which nobody is left to give", call, name);
    run_first();
    return true;
}

}  // namespace

std::unique_ptr<Executor> make_virtual_executor(unsigned long first_jiffy) {
    return std::make_unique<VirtualExecutor>(first_jiffy);
}

}  // namespace host
