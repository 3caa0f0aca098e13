// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Kernel timers: the rules. When they fire is the executor's business.
#include "platform/timer.h"

#include <cstdio>
#include <cstring>

#include "host/executor.h"
#include "host/internal.h"

namespace host {
namespace {

constexpr std::uint64_t timer_kind = 0x74696D65726C6973ull;

void usable(const timer_list* timer, const char* call) {
    enter(call);
    std::uint64_t stamp = 0;
    std::memcpy(&stamp, timer->room, sizeof stamp);
    if (stamp != stamp_of(timer_kind))
        die("%s: the timer at %p was never initialised", call, static_cast<const void*>(timer));
}

/* Between these lies every timer that was ever armed. Nearly all memory that is freed lies outside,
 * and is told so without asking the executor. */
std::atomic<std::uintptr_t> lowest_timer, highest_timer;

void begin_timers() {
    lowest_timer = ~std::uintptr_t{0};
    highest_timer = 0;
}

void note_armed(const timer_list* timer) {
    const auto address = reinterpret_cast<std::uintptr_t>(timer);
    auto low = lowest_timer.load();
    while (address < low && !lowest_timer.compare_exchange_weak(low, address)) {
    }
    auto high = highest_timer.load();
    while (address > high && !highest_timer.compare_exchange_weak(high, address)) {
    }
}

void report_armed(std::vector<std::string>& lines) {
    for (const ArmedTimer& armed : executor().armed_timers()) {
        char text[64];
        std::snprintf(text, sizeof text, "timer: armed for tick %lu, calls ", armed.due);
        lines.push_back(text +
                        describe_address(reinterpret_cast<const void*>(armed.timer->function)));
    }
}

}  // namespace

const Service timer_service = {begin_timers, begin_timers, report_armed};

const timer_list* active_timer_within(const void* memory, std::size_t size) {
    const auto begin = reinterpret_cast<std::uintptr_t>(memory);
    if (begin > highest_timer.load(std::memory_order_relaxed) ||
        begin + size <= lowest_timer.load(std::memory_order_relaxed))
        return nullptr;
    return executor().timer_within(memory, size);
}

}  // namespace host

void init_timing(timer_list* timer) {
    host::enter("init_timing");
    if (host::executor().timer_armed(timer))
        host::die("init_timing: the timer at %p is pending", static_cast<const void*>(timer));
    const std::uint64_t stamp = host::stamp_of(host::timer_kind);
    std::memcpy(timer->room, &stamp, sizeof stamp);
}

void add_timing(timer_list* timer) {
    host::usable(timer, "add_timing");
    if (!timer->function)
        host::die("add_timing: the timer at %p has no function", static_cast<const void*>(timer));
    host::note_armed(timer);
    host::executor().add_timer(timer);
}

int del_timing_sync(timer_list* timer) {
    host::usable(timer, "del_timing_sync");
    if (host::this_thread.timer == timer)
        host::die("del_timing_sync: called from the timer's own function");
    host::must_sleep("del_timing_sync");
    return host::executor().stop_timer(timer);
}
