// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Standard output for a host that must not wait for whoever reads it: what is said is written by a
// thread of its own. A reader who sleeps for too long loses lines, and is told how many; what
// cannot be written is told on standard error, once, and remembered. When nobody reads any more,
// there is SIGPIPE as ever.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace app {

class Output {
  public:
    /// Keeps so many bytes for a reader who sleeps.
    explicit Output(int descriptor, std::size_t most = std::size_t{16} << 20);
    /// Waits until all is written.
    ~Output() { finish(); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// From any thread, under any lock.
    void say(const std::string& text);
    /// Waits until all is written, which whoever reads may make last. False when something was not.
    /// Nothing can be said afterwards.
    bool finish();

  private:
    void tell_losses();
    void write_all();
    void write_out(const std::string& text);

    const int descriptor_;
    const std::size_t most_;
    std::atomic<int> error_ = 0;  // of the last write that failed

    std::mutex mutex_;  // guards the rest
    std::condition_variable said_;
    std::string text_;
    std::size_t lost_lines_ = 0;
    bool finishing_ = false;
    std::thread writer_;
};

}  // namespace app
