// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/races/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace stress {
namespace {

constexpr unsigned long printed_violations = 20;
constexpr auto longest_wait = std::chrono::seconds(30);
constexpr auto quiet = std::chrono::seconds(5);

std::atomic<unsigned long> found = 0;

}  // namespace

Counters counted;

void Counters::restart() {
    for (Counter* counter :
         {&resolutions, &hits, &refused, &callbacks, &time_outs, &lookups, &arp_sent, &arp_received,
          &events, &commands, &reads, &attachments, &trace_changes, &reloads, &silent})
        counter->restart();
}

void violation(const char* format, ...) {
    if (found.fetch_add(1) >= printed_violations)
        return;
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "tarv-stress: VIOLATION: %s\n", text);
}

unsigned long violations() {
    return found;
}

void progress(const std::string& line) {
    static std::chrono::steady_clock::time_point last;
    const auto now = std::chrono::steady_clock::now();
    if (now - last < quiet)
        return;
    last = now;
    std::fprintf(stderr, "tarv-stress: %s\n", line.c_str());
}

void Patience::wait() {
    std::this_thread::yield();
    if (std::chrono::steady_clock::now() - since_ < longest_wait)
        return;
    // Threads are stuck, so nothing can be taken down in order any more.
    violation("%s: it never happened", what_);
    std::_Exit(1);
}

}  // namespace stress
