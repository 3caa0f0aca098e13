// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the program tells about a run, as text: who we are, what was learned of the peers, what it
// cost, and what the module left behind.
#pragma once

#include <string>
#include <vector>

#include "app/machine.h"
#include "app/resolve.h"

namespace app {

// A `width` other than 0 is that of the terminal that it has to fit.

/// The fabric and our place in it; a few lines.
std::string format_machine(Machine& machine, std::size_t width = 0);

/// Our ports that are linked, in their order.
std::vector<fabric::EndPort> our_ports(Machine& machine);

/// Of the peers those that are "resolved" or "unresolved" (empty: all), sorted by "address",
/// "host", "lid" or "latency", the slowest first (empty: as they are).
std::vector<Peer> choose_peers(Machine& machine, std::vector<Peer> peers, const std::string& only,
                               const std::string& sort);

/// One line for each resolved peer; of more than `most` the first and the last few, and how many
/// were left out in between.
std::string format_peers(Machine& machine, const std::vector<Peer>& peers, std::size_t width = 0,
                         std::size_t most = 40);

/// What is known of each resolved peer, its paths in full.
std::string format_records(Machine& machine, const std::vector<Peer>& peers);

/// One line for each peer that was asked for and not resolved, and one for all that were not even
/// asked for; empty when all were resolved.
std::string format_unresolved(Machine& machine, const std::vector<Peer>& peers,
                              std::size_t width = 0);

std::string format_counts(const ResolveCounts& counts, const std::vector<Peer>& peers,
                          std::size_t width = 0);

/// That nothing remains, in one line with the totals, or what does, one line each.
std::string format_departure(const Departure& departure, std::size_t width = 0);

struct RecordPath {
    const char* kind;  ///< "primary" or "secondary"
    const ib_path_record_v2_t* record;
};
/// The paths that a record holds, primary first. They point into it.
std::vector<RecordPath> paths_of(const tarv_arp_data_t& record);

/// The peer's LID. The path tells it for certain: a driver may not know from which an ARP packet
/// came.
unsigned lid_of(const tarv_arp_data_t& record);

std::string format_gid(const gx_gid_t& gid);      ///< as an IPv6 address in its short form
std::string format_qpn(std::uint32_t qpn);        ///< its 24 bits, in base 16 as everywhere
std::string format_rate(std::uint8_t code);       ///< "40 Gb/s"; "-" for a code that means none
std::string format_mtu(std::uint8_t code);        ///< "2048"; "-" for a code that means none
std::string format_bytes(std::size_t bytes);      ///< "512 bytes", "61 KiB"
std::string format_seconds(unsigned long ticks);  ///< "0.013 s"

}  // namespace app
