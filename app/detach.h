// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Going on without the shell that started the program: in a process of its own, in a session of its
// own, with its lines in a file or in the journal.
#pragma once

#include <optional>
#include <string>

namespace app {

class Detachment {
  public:
    /// Lines will go to that file, behind what is in it; with an empty name to the journal. Throws
    /// UsageError where there is none or the file cannot be opened.
    explicit Detachment(const std::string& log_file);
    ~Detachment();
    Detachment(const Detachment&) = delete;
    Detachment& operator=(const Detachment&) = delete;

    /// Goes on in a new process, in which the result is empty. In the first one it is the exit
    /// status, when the new one is ready or has ended before it was. No other thread may run yet.
    std::optional<int> split();

    /// In the new process: tells the user that text, and lets the first process end. Standard
    /// output and error are the log from here on.
    void ready(const std::string& text);

    /// Where lines go, also before all is ready.
    int log() const { return log_; }

    /// "the journal", or the file.
    const std::string& log_name() const { return log_name_; }

  private:
    std::string log_name_;
    int log_ = -1;
    int first_process_ = -1;  // a pipe to it, until it is told
};

}  // namespace app
