// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Time and scheduling of the host: what runs when, in virtual and in real time.
#include "host/kernel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <latch>
#include <mutex>
#include <thread>

#include "host/check.h"
#include "platform/jiffies.h"
#include "platform/memory.h"
#include "platform/semaphore.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

namespace {

using host::Clock;
using host::Context;
using host::Kernel;
using testing::ElementsAre;

/* Everything is told relative to the first tick, once in the middle of the counter's range and once
 * close before its low 32 bits wrap. */
class VirtualKernel : public testing::TestWithParam<unsigned long> {
  protected:
    unsigned long tick() const { return ::jiffies() - GetParam(); }
    void note(const std::string& what) { log_.push_back(what + "@" + std::to_string(tick())); }
    void at(unsigned long ticks, const std::string& what, Context context = Context::driver) {
        kernel_.schedule(context, ticks, [this, what] { note(what); });
    }

    Kernel kernel_{{.clock = Clock::virtual_time, .first_jiffy = GetParam()}};
    std::vector<std::string> log_;
};
INSTANTIATE_TEST_SUITE_P(Start, VirtualKernel, testing::Values(1000ul, 0xFFFFFF38ul),
                         [](const auto& run) { return run.index ? "BeforeWrap" : "Low"; });

/* A timer that notes when it fires, and calls back. */
struct NotingTimer {
    NotingTimer(std::function<void()> fired, unsigned long expires) : on_fire(std::move(fired)) {
        init_timing(&timer);
        timer.function = [](unsigned long data) {
            reinterpret_cast<NotingTimer*>(data)->on_fire();
        };
        timer.data = reinterpret_cast<unsigned long>(this);
        start(expires);
    }
    void start(unsigned long expires) {
        timer.expires = expires;
        add_timing(&timer);
    }
    std::function<void()> on_fire;
    timer_list timer{};
};

/* While one thread passes the time, others read it and allocate. */
TEST(SharedKernel, LetsAllThreadsCall) {
    Kernel kernel({.clock = Clock::virtual_time, .first_jiffy = 1000, .shared = true});
    std::atomic<bool> stopped = false;
    std::thread other([&] {
        while (!stopped || jiffies() < 2000)
            kfree(kmalloc(16, GFP_ATOMIC));
    });
    for (int i = 0; i < 1000; i++)
        kernel.advance(1);
    stopped = true;
    other.join();
    EXPECT_EQ(kernel.remains(), std::vector<std::string>());
}

TEST_P(VirtualKernel, RunsInOrderOfDueTickThenAge) {
    at(7, "late");
    at(3, "first");
    NotingTimer timer([&] { note("timer"); }, GetParam() + 3);
    at(3, "second", Context::gsi);
    EXPECT_EQ(kernel_.next_due(), GetParam() + 3);
    kernel_.advance(300);
    EXPECT_THAT(log_, ElementsAre("first@3", "timer@3", "second@3", "late@7"));
    EXPECT_EQ(tick(), 300u);
    EXPECT_EQ(kernel_.next_due(), ~0ul);
}

TEST_P(VirtualKernel, RunsWorkOfNoDelayInTheSameTickButNeverAtOnce) {
    kernel_.schedule(Context::driver, 2, [this] {
        at(0, "inner");
        note("outer");
    });
    at(0, "now");
    EXPECT_TRUE(log_.empty());
    kernel_.settle();
    EXPECT_THAT(log_, ElementsAre("now@0"));
    at(2, "sibling");
    kernel_.advance(2);
    EXPECT_THAT(log_, ElementsAre("now@0", "outer@2", "sibling@2", "inner@2"));
}

TEST_P(VirtualKernel, FiresAnExpiredTimerAtTheNextTick) {
    NotingTimer past([&] { note("past"); }, GetParam() - 50);
    NotingTimer present([&] { note("present"); }, GetParam());
    kernel_.settle();
    EXPECT_TRUE(log_.empty());
    kernel_.advance(1);
    EXPECT_THAT(log_, ElementsAre("past@1", "present@1"));
}

TEST_P(VirtualKernel, LetsATimerStartItselfAgain) {
    NotingTimer* again = nullptr;
    NotingTimer timer(
        [&] {
            note("tick");
            again->start(::jiffies() + 10);
        },
        GetParam() + 10);
    again = &timer;
    kernel_.advance(35);
    EXPECT_THAT(log_, ElementsAre("tick@10", "tick@20", "tick@30"));
    EXPECT_EQ(del_timing_sync(&timer.timer), 1);
    EXPECT_EQ(del_timing_sync(&timer.timer), 0);
    kernel_.advance(100);
    EXPECT_EQ(log_.size(), 3u);
}

TEST_P(VirtualKernel, RunsEverythingInItsContext) {
    static constexpr Context all[] = {Context::process, Context::event, Context::timer,
                                      Context::gsi, Context::driver};
    std::vector<Context> seen;
    for (const Context context : all)
        kernel_.schedule(context, 1, [&] { seen.push_back(host::current_context()); });
    kernel_.advance(1);
    EXPECT_THAT(seen, testing::ElementsAreArray(all));
    EXPECT_EQ(host::current_context(), Context::process);
}

TEST_P(VirtualKernel, HandlesOneEventAtATimeEvenWhenOneWaits) {
    kernel_.schedule(Context::event, 1, [this] {
        note("event begins");
        ::schedule();
        ::schedule();
        note("event ends");
    });
    at(1, "next event", Context::event);
    at(1, "receive");
    kernel_.advance(5);
    EXPECT_THAT(log_, ElementsAre("event begins@1", "receive@1", "event ends@2", "next event@2"));
}

TEST_P(VirtualKernel, WaitsForASemaphoreByLettingOthersRun) {
    static semaphore done;
    sema_init(&done, 0, "done");
    kernel_.schedule(Context::event, 40, [] { up(&done); });
    down(&done);
    EXPECT_EQ(tick(), 40u);
}

TEST_P(VirtualKernel, ReportsWhatAnArmedTimerAndAWatcherLeave) {
    EXPECT_THAT(kernel_.remains(), ElementsAre());
    NotingTimer timer([] {}, GetParam() + 9);
    auto token = kernel_.watch([](auto& lines) { lines.push_back("a datagram"); });
    EXPECT_THAT(kernel_.remains(), ElementsAre(testing::StartsWith("timer: armed for tick " +
                                                                   std::to_string(GetParam() + 9)),
                                               "a datagram"));
    del_timing_sync(&timer.timer);
    token.reset();
    EXPECT_THAT(kernel_.remains(), ElementsAre());
}

/* Two that wait for each other, on threads of their own. */
TEST(RealKernel, TwoTimersAndTwoPortsCompletionsOverlap) {
    Kernel kernel({.clock = Clock::real_time});
    static std::latch both(2);
    static timer_list timers[2];
    for (timer_list& timer : timers) {
        init_timing(&timer);
        timer.function = [](unsigned long) { both.arrive_and_wait(); };
        timer.expires = jiffies() + 1;
        add_timing(&timer);
    }
    both.wait();
    std::latch completions(2);
    for (const unsigned port : {1, 2})
        kernel.schedule(
            Context::gsi, 0, [&] { completions.arrive_and_wait(); }, port);
    completions.wait();
    // Those of one port do not.
    std::atomic<int> inside = 0, beside = 0;
    for (int i = 0; i < 20; ++i)
        kernel.schedule(
            Context::gsi, 0,
            [&] {
                beside += inside++;
                std::this_thread::yield();
                --inside;
            },
            2);
    kernel.settle();
    EXPECT_EQ(beside, 0);
    for (timer_list& timer : timers)
        del_timing_sync(&timer);
}

TEST(RealKernel, ManyMoreReadersThanCpusKeepWritersOut) {
    const Kernel kernel({.clock = Clock::real_time});
    static rwlock_t rw;
    rwlock_init(&rw, "rw");
    constexpr int readers = 200;
    // Twice, so that those of the second time are given what the first ones had.
    for (int round = 0; round < 2; ++round) {
        std::barrier all_read(readers + 1);
        std::atomic<int> reading = readers;
        std::vector<std::jthread> threads;
        for (int i = 0; i < readers; ++i)
            threads.emplace_back([&] {
                const read_guard guard(rw);
                all_read.arrive_and_wait();  // at the same time as all others
                --reading;
            });
        all_read.arrive_and_wait();
        const write_guard guard(rw);
        EXPECT_EQ(reading, 0);
    }
}

}  // namespace
