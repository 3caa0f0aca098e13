// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The options that all verbs of the program share: which fabric, which of its hosts we are, and how
// the module is loaded. Reading them starts nothing.
#pragma once

#include <string>
#include <vector>

#include "app/command_line.h"
#include "fabric/topology.h"

namespace app {

struct HostOptions {
    std::string fabric;         ///< topology file; empty: the built-in one
    std::string hosts;          ///< host list; empty: the built-in one, or dealt addresses
    bool strict_hosts = false;  ///< the list may speak of nothing else
    std::string as;             ///< who we are; empty: see fabric::choose_host()
    std::vector<std::string> parameters;  ///< of the module, NAME=VALUE
    int debug_level = 1;                  ///< the module's own trace level
    int logger_level = 5;                 ///< the host-wide trace level
    std::string capture;                  ///< file for the packets; empty: none
};

/// Adds those that choose the fabric and the host; `options` receives the values.
void add_site_options(CommandLine& line, HostOptions& options);
/// Adds all.
void add_host_options(CommandLine& line, HostOptions& options);

/// The ticks of so many seconds; ~0ul where none were given.
unsigned long ticks_of(double seconds);

/// A fabric with people's names and addresses for its hosts, and which of them we are.
struct Site {
    fabric::Topology topology;
    std::vector<fabric::Host> hosts;
    std::size_t us = 0;             ///< index into hosts
    std::size_t skipped_lines = 0;  ///< of the host list, which are about none of them

    const fabric::Host& our_host() const { return hosts[us]; }
};

/// Reads what the options name. Throws fabric::InputError for what stands in files, UsageError for
/// what stands on the command line.
Site read_site(const HostOptions& options);

}  // namespace app
