// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a line at the console does. One that begins with a command of the control file is written to
// it as it stands; the other words are the host's own, and stand in a table.
//
// A Console must outlive the unloading of the module, which gives requests that still wait their
// last word.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/console_terminal.h"
#include "app/look_ups.h"
#include "app/machine.h"
#include "app/options.h"
#include "app/script_host.h"

namespace app {

class Console {
  public:
    Console(Machine& machine, const Site& site, Terminal& terminal);
    /// Stops the machine: the module gives requests that still wait their last word.
    ~Console() { machine_.stop(); }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Carries a line out. Throws fabric::InputError for one that is not understood, with its
    /// place, "console:LINE", and other exceptions when it cannot be done.
    void perform(const std::string& line);

    bool quit() const { return quit_; }
    const LookUps& look_ups() const { return look_ups_; }
    bool waits_for_replies() const { return waiting_ > 0; }

    /// Words that may follow `before`, of those that begin with `word`, sorted.
    std::vector<std::string> complete(const std::string& before, const std::string& word) const;

    // The host's own words call these.

    Machine& machine() { return machine_; }
    const Site& site() const { return site_; }
    Terminal& terminal() { return terminal_; }
    /// Asks the module for an address. The reply is posted when it comes.
    void resolve(const ScriptRequest& request);
    int line_number() const { return line_number_; }
    void leave() { quit_ = true; }

  private:
    struct Request {
        Console* console;
        std::size_t number;
        std::mutex mutex;        // guards the rest
        bool announced = false;  // its number has been printed
        std::string reply;       // that came before
    };
    static void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);
    [[noreturn]] void refuse_command(const std::string& word) const;
    void remember_addresses(const std::string& line);

    Machine& machine_;
    const Site& site_;
    Terminal& terminal_;
    std::deque<Request> requests_;  // they stay where they are: the module points at them
    std::atomic<std::size_t> waiting_ = 0;
    LookUps look_ups_;
    int line_number_ = 0;
    std::set<std::string> addresses_;  // and names of the fabric, and what occurred in lines
    bool quit_ = false;
};

}  // namespace app
