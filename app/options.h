// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The options that all verbs of the program share: which fabric, which of its hosts we are, and how
// the module is loaded. Reading them starts nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "fabric/topology.h"
#include "rdma/interface.h"
#include "rdma/open.h"

namespace app {

struct HostOptions {
    std::string fabric;         ///< topology file; empty: the built-in one
    std::string hosts;          ///< host list; empty: the built-in one, or dealt addresses
    bool strict_hosts = false;  ///< the list may speak of nothing else
    std::string as;             ///< who we are; empty: see fabric::choose_host()
    std::vector<std::string> parameters;  ///< of the module, NAME=VALUE
    int debug_level = 1;                  ///< the module's own trace level
    int logger_level = 5;                 ///< the host-wide trace level
    bool old_kernel = false;              ///< 128 KiB of memory in one piece, and no more
    std::string capture;                  ///< file for the packets; empty: none
    std::string adapter;                  ///< of a real fabric, see rdma/open.h; empty: simulated
    std::string interface;                ///< IPoIB interface on it; empty: the adapter's first
    bool keep_component_mask = false;     ///< no fabric::GsiTranslations::set_component_bit_20
    bool keep_answer_attribute = false;   ///< none of the answers' attribute
};

/// Adds those that choose a simulated fabric and the host; `options` receives the values.
void add_site_options(CommandLine& line, HostOptions& options);
/// Adds all.
void add_host_options(CommandLine& line, HostOptions& options);

/// The ticks of so many seconds; ~0ul where none were given.
unsigned long ticks_of(double seconds);

/// A fabric with people's names and addresses for its hosts, and which of them we are.
struct Site {
    fabric::Topology topology;
    std::vector<fabric::Host> hosts;
    std::size_t us = 0;                             ///< index into hosts
    std::size_t skipped_lines = 0;                  ///< of the host list, about none of them
    std::shared_ptr<rdma::Opened> device = {};      ///< our adapter; null: simulated
    std::optional<rdma::Interface> interface = {};  ///< set: peers are real too, and hosts but us
                                                    ///< have no node

    const fabric::Host& our_host() const { return hosts[us]; }
};

/// The address that a word is, or that the host of that name has; of several rails the first one's.
std::optional<std::uint32_t> address_of(const Site& site, const std::string& word);

/// What people call its hosts, in their order.
std::vector<std::string> names_of(const Site& site);

/// Reads the topology that the options name, and its hosts; which of them we are is left open.
/// Throws as read_site() for files and the command line.
Site read_picture(const HostOptions& options);

/// Reads what the options name, and opens the adapter that they name. Throws fabric::InputError for
/// what stands in files, UsageError for what stands on the command line, rdma::DeviceError for an
/// adapter that cannot be used.
Site read_site(const HostOptions& options);

}  // namespace app
