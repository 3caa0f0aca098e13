// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Where a console's lines come from and go to. At a terminal there is a prompt with line editing,
// a history and completion; otherwise lines are read as they are and nothing is echoed.
//
// All is read and printed by one thread. What other threads have to say they post; it is printed
// between two lines of that thread, above the prompt when somebody is typing at it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace app {

/// The words with which the one that is being typed could go on, given what stands in front of it.
using Complete =
    std::function<std::vector<std::string>(const std::string& before, const std::string& word)>;

/// One exists at a time.
class Terminal {
  public:
    Terminal(std::string prompt, Complete complete);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    bool interactive() const { return interactive_; }
    /// Columns for what is printed; 0 where there is no terminal, and room for all.
    std::size_t width() const;

    /// Waits for a line. False when there are no more, or `stop` says so; it is asked again and
    /// again. Ctrl-C at the prompt drops what was typed.
    bool read_line(std::string& line, const std::function<bool()>& stop);

    /// Prints what was posted, then the text; it ends with a line end.
    void print(const std::string& text);
    /// From any thread, under any lock.
    void post(const std::string& text);
    /// The same for lines of the kernel log, which can be kept away.
    void post_log(const std::string& text) {
        if (log_shown_)
            post(text);
    }
    void show_log(bool shown) { log_shown_ = shown; }

  private:
    bool wait(bool (Terminal::*read)(std::string&), std::string& line,
              const std::function<bool()>& stop);
    bool read_typed(std::string& line);
    bool read_piped(std::string& line);
    bool take_piped(std::string& line);
    void print_posted();
    void heed_signals();

    const std::string prompt_;
    const bool interactive_;
    const int posted_event_;
    bool ended_ = false;
    std::atomic<bool> log_shown_ = true;
    std::string piped_;

    std::mutex mutex_;  // guards what was posted
    std::string posted_;
};

}  // namespace app
