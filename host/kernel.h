// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The user-space host: a strict kernel in one process. This header is its life cycle, its clock and
// its scheduling; the headers beside it are what a test or a program asks of the single services.
//
// Exactly one Kernel exists at a time. While it exists, the functions of platform/ work.
//
// Virtual time: one thread, or one that passes the time while others only call. Ticks pass only in
// advance(), and everything that falls due runs there, in the order of its due tick, then in the
// order in which it was scheduled: one input, one transcript. Real time: 1000 ticks a second. Every
// context but process has threads of its own, so that timers, GSI completions, driver receives and
// adapter events truly run at the same time. So do two timers, and completions of two ports.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace host {

enum class Clock { virtual_time, real_time };

/// The contexts of the waist. `gsi` and `driver` are its receive context on two threads.
enum class Context : std::uint8_t { process, event, timer, gsi, driver };

struct Options {
    Clock clock = Clock::virtual_time;
    unsigned long first_jiffy = 1000;  ///< the tick counter's first value
    /// An open file of /proc keeps the module that owns it, as in a kernel of old; otherwise the
    /// file is taken away from under its users, as in one of today.
    bool files_keep_modules = true;
    bool shared = false;  ///< virtual time: all threads may call, while one of them passes the time
};

class Kernel {
  public:
    explicit Kernel(const Options& options = {});
    /// Stops all threads. What was scheduled and is not yet due is dropped.
    ~Kernel();
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;

    /// The one that exists; the program stops when there is none.
    static Kernel& current();

    Clock clock() const;
    unsigned long jiffies() const;

    /// Virtual time: `ticks` ticks pass. Real time: the caller sleeps for that long.
    void advance(unsigned long ticks);

    /// Virtual time: runs what is due now, without a tick passing. Real time: waits until nothing
    /// that is due now is waiting or running.
    void settle();

    /// Virtual time: the tick at which the next timer or scheduled work is due; ~0ul when there is
    /// none.
    unsigned long next_due() const;

    /// Has `work` run in `context` when `ticks` ticks have passed (0: as soon as it can, but never
    /// inside this call). From any context, with locks held. Real time: what has the same `lane` in
    /// a context comes one after the other, in order; completions of different lanes may overlap.
    void schedule(Context context, unsigned long ticks, std::function<void()> work,
                  unsigned lane = 0);

    /// Everything that a finished module should not have left: one line each, empty when clean.
    /// Memory, armed timers, /proc files, inter-module names, repository registrations, and
    /// whatever the watchers report.
    std::vector<std::string> remains() const;

    /// Adds to remains(): `report` appends its lines. It is called until the returned token is
    /// dropped.
    std::shared_ptr<void> watch(std::function<void(std::vector<std::string>&)> report);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace host
