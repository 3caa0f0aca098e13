// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a port is like, asked of its own agent: subnet management datagrams on a directed route
// without a hop, which every adapter answers from what it is like at that moment.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "fabric/packet.h"
#include "fabric/ports.h"

namespace rdma {

struct PortFacts {
    fabric::NodeInfo node;
    fabric::PortInfo port;
    std::vector<std::uint16_t> pkeys = {0};  ///< without the unused end of the table

    bool up() const { return port.state == 4; }
};

/// What can be asked.
enum class Fact : std::uint16_t {
    node = fabric::attribute_node_info,
    port = fabric::attribute_port_info,
    pkeys = fabric::attribute_pkey_table,
};

/// The question; `block` is that of the partition table.
fabric::Packet make_question(Fact fact, std::uint32_t transaction, std::uint32_t block = 0);

/// Takes the answer to a question into `facts`; false when it is no sound one. A block of the
/// partition table replaces that block and what is behind it.
bool take_answer(const fabric::Packet& answer, PortFacts& facts);

/// The events that lead from one picture of port `number` to another, in order; empty when the
/// module would see no difference. While the port is not up nothing but its going down is told.
std::vector<gx_event_record_t> events_between(const PortFacts& before, const PortFacts& after,
                                              int number);

}  // namespace rdma
