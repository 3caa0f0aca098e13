// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The options that all verbs of the program share: which fabric, which of its hosts we are, and how
// the module is loaded. Reading them starts nothing.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "fabric/topology.h"

namespace CLI {
class App;
}

namespace app {

/// What the user asked for cannot be had. what() is one line that says what and where.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct HostOptions {
    std::string fabric;  ///< topology file; empty: the built-in one
    std::string hosts;   ///< host list; empty: the built-in one, or dealt addresses
    std::string as;      ///< who we are; empty: see fabric::choose_host()
    std::vector<std::string> parameters;  ///< of the module, NAME=VALUE
    int debug_level = 1;                  ///< the module's own trace level
    int logger_level = 5;                 ///< the host-wide trace level
    std::string capture;                  ///< file for the packets; empty: none
};

/// Adds them to a verb; `options` receives the values and stays where it is.
void add_host_options(CLI::App& verb, HostOptions& options);

/// Adds `--for SECONDS` with that help text. The value is above 0 where it was given.
void add_for_option(CLI::App& verb, double& seconds, const std::string& help);

/// The ticks of a `--for`; ~0ul where it was not given.
unsigned long ticks_of(double seconds);

/// A fabric with people's names and addresses for its hosts, and which of them we are.
struct Site {
    fabric::Topology topology;
    std::vector<fabric::Host> hosts;
    std::size_t us = 0;  ///< index into hosts

    const fabric::Host& our_host() const { return hosts[us]; }
};

/// Reads what the options name. Throws fabric::InputError for what stands in files, UsageError for
/// what stands on the command line.
Site read_site(const HostOptions& options);

}  // namespace app
