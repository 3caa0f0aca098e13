// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A datagram on its way through the fabric.
#pragma once

#include <cstdint>

#include "fabric/wire.h"

namespace fabric {

inline constexpr std::uint16_t first_multicast_lid = 0xC000;
inline constexpr std::uint32_t multicast_qp = 0xFFFFFF;

/// The addresses of an unreliable datagram, as its headers carry them, and its bytes.
struct Packet {
    std::uint16_t slid = 0;
    std::uint16_t dlid = 0;
    std::uint8_t sl = 0;
    bool has_grh = false;  ///< the GIDs are those of a global route header
    Gid sgid{};
    Gid dgid{};
    std::uint16_t pkey = 0;
    std::uint32_t dest_qp = 0;
    std::uint32_t qkey = 0;
    std::uint32_t src_qp = 0;
    Bytes payload;
};

/// The packet with its link headers, as an analyser on the cable sees it. The two CRCs at its end
/// are zero: the ports check them in hardware and nothing here can damage a packet in between. A
/// management datagram that holds less than its 256 bytes is followed by zeros up to them.
Bytes encode_link(const Packet& packet);

}  // namespace fabric
