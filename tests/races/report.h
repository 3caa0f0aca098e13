// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the stress found and what it did. All of it is counted without ordering threads: a counter
// that everybody looks at must not hide a race from the thread sanitizer.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

namespace stress {

/// Something that must never happen has happened. The first ones are printed, all are counted; the
/// run goes on, to show what else there is.
void violation(const char* format, ...) __attribute__((format(printf, 1, 2)));
unsigned long violations();

class Counter {
  public:
    void operator++(int) { value_.fetch_add(1, std::memory_order_relaxed); }
    unsigned long value() const { return value_.load(std::memory_order_relaxed); }
    void restart() { value_ = 0; }

  private:
    std::atomic<unsigned long> value_ = 0;
};

struct Counters {
    Counter resolutions;  ///< calls of the module's main function
    Counter hits;         ///< of them, answered at once
    Counter refused;      ///< of them, refused
    Counter callbacks;
    Counter time_outs;  ///< of the callbacks
    Counter lookups;    ///< by GID
    Counter arp_sent;
    Counter arp_received;
    Counter events;
    Counter commands;
    Counter reads;
    Counter attachments;
    Counter trace_changes;
    Counter reloads;
    Counter silent;  ///< requests that were waiting for ARP when the module went

    void restart();
};
extern Counters counted;

/// A line of progress, not more often than once in a few seconds.
void progress(const std::string& line);

/// Ends the program when `what` has not happened for so long that it never will.
class Patience {
  public:
    explicit Patience(const char* what) : what_(what) {}
    /// One more look without success: others get the processor.
    void wait();

  private:
    const char* const what_;
    const std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
};

/// Waits for a condition that another thread makes true.
template <class Condition>
void wait_until(const char* what, Condition condition) {
    Patience patience(what);
    while (!condition())
        patience.wait();
}

}  // namespace stress
