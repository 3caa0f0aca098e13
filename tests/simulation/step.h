// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Steps: what a simulation is made of. A step is a line of text, so that a run can be written down,
// cut down and played again:
//
//     world hosts 8 jiffy 4294966796
//     load timeout 300
//     write "sa_queries on\n"
//     ask address 3 from 0 paths 2 flags 1
//     pass ticks 1000
//
// Numbers are small and mean something only together with the world (address 3 is its third host).
// Every step can be taken in every state: what makes no sense there does nothing. That is what
// allows any step to be left out.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

#include "tests/simulation/random.h"

namespace soak {

enum class Kind : std::uint8_t {
    ask,
    lookup,
    arp,
    write,
    read,
    chunk,
    close,
    peer_asks,
    announce,
    peer_link,
    peer_gid,
    peer_lid,
    peer_qpn,
    peer_fault,
    sa_fault,
    sa_answer,
    port_fault,
    calm,
    link,
    lid,
    mtu,
    sm,
    event,
    pkeys,
    pkey,
    fail,
    empty_hand,
    level,
    attach,
    detach,
    pass,
    load,
    unload,
    count
};
inline constexpr auto kinds = static_cast<std::size_t>(Kind::count);
inline constexpr std::size_t most_arguments = 4;

struct Step {
    Kind kind = Kind::pass;
    std::array<std::uint32_t, most_arguments> value{};
    std::string text;  ///< of write
};

/// The surroundings that steps are taken in.
struct WorldShape {
    std::uint32_t hosts = 8;
    std::uint64_t first_jiffy = 1000;
};

/// A world and what happens in it.
struct Episode {
    WorldShape shape;
    std::vector<Step> steps;
};

/// What a kind is called, and the arguments that it takes.
struct KindRow {
    const char* name;
    unsigned weight;  ///< how often it is chosen, against the sum of all
    struct Argument {
        const char* name = nullptr;
        std::uint32_t most = 0;
    };
    std::array<Argument, most_arguments> arguments;
};
const KindRow& row_of(Kind kind);
std::span<const KindRow, kinds> all_rows();

/// A world, and a step in it, by chance.
WorldShape choose_world(Random& random);
Step choose_step(Random& random, const WorldShape& shape);

/// Without line ends.
std::string to_text(const WorldShape& shape);
std::string to_text(const Step& step);

/// Reads what to_text() makes, a line each; blank lines and what follows a '#' at the start of a
/// line are passed over. Throws fabric::InputError with the line for anything else.
Episode read_episode(std::istream& in, const std::string& file);

/// What an "ask" and an "arp" do, in their numbers.
inline constexpr std::uint32_t ask_callback = 1;
inline constexpr std::uint32_t ask_invalidate = 2;
inline constexpr std::uint32_t ask_again = 4;      ///< the callback asks once more, at once
inline constexpr std::uint32_t ask_many = 8;       ///< six times the same
inline constexpr std::uint32_t ask_answered = 16;  ///< the peer's ARP data comes before the driver
                                                   ///< has returned from sending the request

}  // namespace soak
