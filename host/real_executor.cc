// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Real time: 1000 ticks a second, and threads for every context, so that what runs at the same time
// on a multiprocessor does so here. Timers and completions have several, as if each had its CPU: a
// timer keeps to the thread on which it was armed first, a port's completions to that of their
// lane. Work for the process context that nobody waits for has a thread too.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <map>
#include <mutex>
#include <thread>

#include "host/executor.h"
#include "host/internal.h"
#include "platform/jiffies.h"

namespace host {
namespace {

using SteadyClock = std::chrono::steady_clock;
using Tick = std::chrono::duration<unsigned long, std::ratio<1, HZ>>;

/* The tick counter. */
class Ticks {
  public:
    explicit Ticks(unsigned long first) : first_(first), start_(SteadyClock::now()) {}

    unsigned long now() const {
        return first_ + std::chrono::duration_cast<Tick>(SteadyClock::now() - start_).count();
    }
    /* No thread waits for longer than a day at a time: a moment that lies too far ahead for the
     * clock to express is looked at again then. */
    SteadyClock::time_point moment_of(unsigned long tick) const {
        constexpr unsigned long day = 24ul * 60 * 60 * HZ;
        return start_ + std::chrono::milliseconds(std::min(tick, now() + day) - first_);
    }

  private:
    const unsigned long first_;
    const SteadyClock::time_point start_;
};

/* A queue of one context and the thread that serves it. */
class Worker {
  public:
    Worker(Context context, const Ticks& ticks, std::atomic<unsigned long>& activity)
        : context_(context), ticks_(ticks), activity_(activity), thread_([this] { serve(); }) {}
    ~Worker() { stop(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void stop();
    void add(unsigned long ticks, std::function<void()> work);
    void wait_idle();
    unsigned long first_due() const;

    void arm(timer_list* timer);
    bool disarm_and_wait(const timer_list* timer);
    bool armed(const timer_list* timer) const;
    const timer_list* timer_within(const void* memory, std::size_t size) const;
    std::vector<ArmedTimer> armed_timers() const;

  private:
    void serve();
    void run_first(std::unique_lock<std::mutex>& lock);
    void changed();
    bool idle() const { return !running_ && queue_.first_due() > ticks_.now(); }

    const Context context_;
    const Ticks& ticks_;
    std::atomic<unsigned long>& activity_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;      // the queue has changed, or the thread is to stop
    std::condition_variable finished_;  // an entry has run, or has been taken out
    TimeQueue queue_;
    const timer_list* running_timer_ = nullptr;
    bool running_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

void Worker::stop() {
    {
        const std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
    queue_.clear();
}

void Worker::changed() {
    activity_.fetch_add(1);
    wake_.notify_all();
}

void Worker::add(unsigned long ticks, std::function<void()> work) {
    const std::lock_guard guard(mutex_);
    if (stopping_)
        return;
    queue_.add(ticks_.now() + ticks, {context_, std::move(work), nullptr});
    changed();
}

void Worker::wait_idle() {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [this] { return stopping_ || idle(); });
}

unsigned long Worker::first_due() const {
    const std::lock_guard guard(mutex_);
    return queue_.first_due();
}

void Worker::arm(timer_list* timer) {
    const std::lock_guard guard(mutex_);
    if (queue_.armed(timer))
        die("add_timing: the timer at %p is pending", static_cast<const void*>(timer));
    if (stopping_)
        return;
    queue_.arm(timer, ticks_.now());
    changed();
}

// A function that arms its own timer while it is waited for is stopped as well, so both conditions
// must hold at the same moment.
bool Worker::disarm_and_wait(const timer_list* timer) {
    std::unique_lock lock(mutex_);
    bool was_armed = queue_.disarm(timer);
    while (running_timer_ == timer) {
        finished_.wait(lock);
        was_armed |= queue_.disarm(timer);
    }
    finished_.notify_all();
    return was_armed;
}

bool Worker::armed(const timer_list* timer) const {
    const std::lock_guard guard(mutex_);
    return queue_.armed(timer);
}

const timer_list* Worker::timer_within(const void* memory, std::size_t size) const {
    const std::lock_guard guard(mutex_);
    if (const timer_list* timer = queue_.armed_within(memory, size))
        return timer;
    const auto begin = reinterpret_cast<std::uintptr_t>(memory);
    const auto running = reinterpret_cast<std::uintptr_t>(running_timer_);
    // The function itself may free its timer; nobody else may while it runs.
    const bool within = running >= begin && running < begin + size;
    return within && this_thread.timer != running_timer_ ? running_timer_ : nullptr;
}

std::vector<ArmedTimer> Worker::armed_timers() const {
    const std::lock_guard guard(mutex_);
    return queue_.armed_timers();
}

void Worker::run_first(std::unique_lock<std::mutex>& lock) {
    activity_.fetch_add(1);
    {
        TimeQueue::Entry entry = queue_.pop();
        running_ = true;
        running_timer_ = entry.timer;
        lock.unlock();
        run_entry(entry);
    }
    lock.lock();
    running_ = false;
    running_timer_ = nullptr;
    finished_.notify_all();
}

void Worker::serve() {
    this_thread.worker = true;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const unsigned long due = queue_.first_due();
        if (due == never)
            wake_.wait(lock);
        else if (due > ticks_.now())
            wake_.wait_until(lock, ticks_.moment_of(due));
        else
            run_first(lock);
    }
    finished_.notify_all();
}

/* How many threads a context has, in the order of Context. */
constexpr std::array threads_of = {1, 1, 3, 2, 1};

class RealExecutor final : public Executor {
  public:
    explicit RealExecutor(unsigned long first_jiffy) : ticks_(first_jiffy) {
        for (std::size_t i = 0; i < workers_.size(); ++i)
            for (int thread = 0; thread < threads_of[i]; ++thread)
                workers_[i].push_back(
                    std::make_unique<Worker>(static_cast<Context>(i), ticks_, activity_));
    }
    ~RealExecutor() override { stop(); }

    void stop() override {
        for_all([](Worker& worker) { worker.stop(); });
    }
    unsigned long now() const override { return ticks_.now(); }
    void advance(unsigned long ticks) override {
        std::this_thread::sleep_until(ticks_.moment_of(ticks_.now() + ticks));
    }
    void settle() override;
    unsigned long next_due() const override;
    void schedule(Context context, unsigned long ticks, std::function<void()> work,
                  unsigned lane) override {
        const Workers& workers = workers_[static_cast<std::size_t>(context)];
        workers[lane % workers.size()]->add(ticks, std::move(work));
    }
    void yield() override { std::this_thread::yield(); }
    bool run_others(const char*, const char*, unsigned long) override { return false; }

    void add_timer(timer_list* timer) override { worker_of(timer).arm(timer); }
    bool stop_timer(timer_list* timer) override { return worker_of(timer).disarm_and_wait(timer); }
    bool timer_armed(const timer_list* timer) const override {
        return std::ranges::any_of(timers(), [&](auto& worker) { return worker->armed(timer); });
    }
    const timer_list* timer_within(const void* memory, std::size_t size) const override;
    std::vector<ArmedTimer> armed_timers() const override;

  private:
    using Workers = std::vector<std::unique_ptr<Worker>>;

    const Workers& timers() const { return workers_[static_cast<std::size_t>(Context::timer)]; }
    Worker& worker_of(const timer_list* timer);
    template <class Call>
    void for_all(Call call) const {
        for (const Workers& workers : workers_)
            for (const auto& worker : workers)
                call(*worker);
    }

    const Ticks ticks_;
    std::atomic<unsigned long> activity_{0};  // entries queued and begun, ever
    std::array<Workers, threads_of.size()> workers_;
    std::mutex places_mutex_;
    std::map<const timer_list*, std::size_t> places_;  // which thread is a timer's
};

Worker& RealExecutor::worker_of(const timer_list* timer) {
    const std::lock_guard guard(places_mutex_);
    const auto place = places_.try_emplace(timer, places_.size() % timers().size()).first;
    return *timers()[place->second];
}

const timer_list* RealExecutor::timer_within(const void* memory, std::size_t size) const {
    for (const auto& worker : timers())
        if (const timer_list* timer = worker->timer_within(memory, size))
            return timer;
    return nullptr;
}

std::vector<ArmedTimer> RealExecutor::armed_timers() const {
    std::vector<ArmedTimer> all;
    for (const auto& worker : timers())
        std::ranges::copy(worker->armed_timers(), std::back_inserter(all));
    return all;
}

// Work of one context makes work for another. All are idle at once only when nothing was queued or
// begun while they were found idle one after the other.
void RealExecutor::settle() {
    if (this_thread.worker)
        die("settle: called from scheduled work, which would wait for itself");
    unsigned long before = 0;
    do {
        before = activity_.load();
        for_all([](Worker& worker) { worker.wait_idle(); });
    } while (activity_.load() != before);
}

unsigned long RealExecutor::next_due() const {
    unsigned long first = never;
    for_all([&](const Worker& worker) { first = std::min(first, worker.first_due()); });
    return first;
}

}  // namespace

std::unique_ptr<Executor> make_real_executor(unsigned long first_jiffy) {
    return std::make_unique<RealExecutor>(first_jiffy);
}

}  // namespace host
