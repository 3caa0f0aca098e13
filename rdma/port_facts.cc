// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/port_facts.h"

#include <algorithm>

namespace rdma {
namespace {

using fabric::MadHeader;

constexpr std::size_t pkeys_in_block = 32;
constexpr std::uint8_t get_response = 0x81;
constexpr std::uint16_t direction_bit = 0x8000;  // of a directed answer's status

/* The used entries of the block, and where it ends the table with an empty one. */
void take_pkeys(std::span<const std::uint8_t> data, std::size_t block,
                std::vector<std::uint16_t>& pkeys) {
    pkeys.resize(block * pkeys_in_block);
    for (std::size_t i = 0; i < pkeys_in_block; i++)
        pkeys.push_back(static_cast<std::uint16_t>(data[2 * i] << 8 | data[2 * i + 1]));
    while (pkeys.size() > 1 && pkeys.back() == 0)
        pkeys.pop_back();
}

}  // namespace

fabric::Packet make_question(Fact fact, std::uint32_t transaction, std::uint32_t block) {
    fabric::Packet packet;
    packet.slid = packet.dlid = fabric::permissive_lid;
    packet.payload.resize(fabric::mad_size);
    MadHeader header;
    header.management_class = fabric::directed_route_class;
    header.class_version = 1;
    header.method = fabric::method_get;
    header.transaction = transaction;
    header.attribute = static_cast<std::uint16_t>(fact);
    header.modifier = block;  // of PortInfo it is a port's number, and 0 the one that is asked
    encode(header, packet.payload);
    // No LID takes part in the route, on either side of it.
    std::fill_n(packet.payload.begin() + 32, 4, std::uint8_t{0xFF});
    return packet;
}

bool take_answer(const fabric::Packet& answer, PortFacts& facts) {
    const auto header = fabric::decode<MadHeader>(answer.payload);
    if (!header || answer.payload.size() < fabric::smp_data_offset + fabric::smp_data_size ||
        header->method != get_response || (header->status & ~direction_bit) != 0)
        return false;
    const auto data = std::span(answer.payload).subspan(fabric::smp_data_offset);
    switch (Fact{header->attribute}) {
        case Fact::node:
            facts.node = *fabric::decode<fabric::NodeInfo>(data);
            return true;
        case Fact::port:
            facts.port = *fabric::decode<fabric::PortInfo>(data);
            return true;
        case Fact::pkeys:
            take_pkeys(data, header->modifier & 0xFFFF, facts.pkeys);
            return true;
    }
    return false;
}

std::vector<gx_event_record_t> events_between(const PortFacts& before, const PortFacts& after,
                                              int number) {
    std::vector<gx_event_record_t> events;
    const auto add = [&](gx_async_record_t type) {
        events.push_back({type, static_cast<u8>(number)});
    };
    const fabric::PortInfo &was = before.port, &is = after.port;
    if (before.up() != after.up()) {
        add(after.up() ? gx_async_r_port_link_up : gx_async_r_port_link_down);
        return events;
    }
    if (!after.up())
        return events;
    if (was.lid != is.lid || was.lmc != is.lmc)
        add(gx_async_r_port_lid);
    if (was.neighbor_mtu != is.neighbor_mtu)
        add(gx_async_r_port_mtu);
    if (was.sm_lid != is.sm_lid || was.sm_sl != is.sm_sl)
        add(gx_async_r_port_sm_change);
    return events;
}

}  // namespace rdma
