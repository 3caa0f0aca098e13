// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// While it exists, SIGINT, SIGTERM and SIGPIPE are remembered instead of ending the program, so
// that it can end in order. The second SIGINT or SIGTERM does what the signal did before; any
// number of SIGPIPEs does no more, because the last words go to the same pipe. One StopSignals
// exists at a time.
#pragma once

#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstddef>
#include <iterator>

namespace app {

#ifdef __SANITIZE_THREAD__
constexpr bool thread_sanitizer = true;
#else
constexpr bool thread_sanitizer = false;
#endif

class StopSignals {
  public:
    StopSignals() {
        if (thread_sanitizer) {
            // Its run time can lose a signal that meets a thread's first sleep.
            const timespec no_time = {0, 0};
            nanosleep(&no_time, nullptr);
        }
        told_ = false;
        struct sigaction action {};
        action.sa_handler = remember;
        for (std::size_t i = 0; i < std::size(numbers_); ++i)
            sigaction(numbers_[i], &action, &before_[i]);
    }
    ~StopSignals() { restore(); }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    static bool told() { return told_; }

  private:
    static void remember(int number) {
        if (!told_.exchange(true) || number == SIGPIPE)
            return;
        restore();
        raise(number);
    }
    static void restore() {
        for (std::size_t i = 0; i < std::size(numbers_); ++i)
            sigaction(numbers_[i], &before_[i], nullptr);
    }

    static constexpr int numbers_[] = {SIGINT, SIGTERM, SIGPIPE};
    static inline std::atomic<bool> told_ = false;
    static_assert(std::atomic<bool>::is_always_lock_free);
    static inline struct sigaction before_[std::size(numbers_)] = {};
};

}  // namespace app
