// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/ipoib.h"

#include <algorithm>
#include <span>

#include "fabric/peers.h"
#include "platform/jiffies.h"

namespace rdma {
namespace {

using fabric::ArpPacket, fabric::Direction;

constexpr std::size_t header_size = 4;  // in front of a packet on the wire, but not at the socket
constexpr std::chrono::milliseconds stop_wait{100};

struct HardwareParts {
    std::uint8_t flags;
    std::uint32_t qpn;
    fabric::Gid gid;
};

HardwareParts parts_of(const HardwareAddress& address) {
    HardwareParts parts{address[0], 0, {}};
    parts.qpn = std::uint32_t{address[1]} << 16 | std::uint32_t{address[2]} << 8 | address[3];
    std::copy(address.begin() + 4, address.end(), parts.gid.begin());
    return parts;
}

}  // namespace

Ipoib::Ipoib(fabric::Works& works, fabric::Tap& tap, const Interface& interface)
    : works_(works), tap_(tap), interface_(interface), socket_(interface_), thread_([this] {
          listen();
      }) {}

Ipoib::~Ipoib() {
    stopping_ = true;
    thread_.join();
}

tarv_stat_t Ipoib::interface_info(std::uint32_t ip, gx_p_key_t* pkey, int* loopback) const {
    const bool ours = ip == interface_.ip;
    if (!ours && ((ip ^ interface_.ip) & interface_.mask) != 0)
        return tarv_stat_not_found;
    *pkey = interface_.pkey;
    *loopback = ours ? 1 : 0;
    return tarv_stat_ok;
}

/* There is no medium to reset that the kernel's own driver would not look after. A request tells
 * all who hear it that its sender has our hardware address, so it is sent in our name also where
 * the module names another: who is invalidated is named as the source himself. */
tarv_stat_t Ipoib::send_request(const tarv_arp_data_t& record, int) {
    const HardwareParts us = parts_of(interface_.address);
    ArpPacket arp;
    arp.operation = fabric::arp_request;
    arp.sender_flags = us.flags;
    arp.sender_qpn = us.qpn;
    arp.sender_gid = us.gid;
    arp.sender_ip = interface_.ip;
    arp.target_ip = record.dst_ip;
    fabric::Bytes bytes(ArpPacket::wire_size);
    encode(arp, bytes);
    look(Direction::out, arp);
    const bool sent = socket_.send(std::span(bytes).subspan(header_size), interface_.broadcast);
    return sent ? tarv_stat_ok : tarv_stat_error;
}

void Ipoib::listen() {
    while (!stopping_)
        if (std::optional<fabric::Bytes> bytes = socket_.receive(stop_wait))
            works_.schedule(host::Context::driver, 0,
                            [this, packet = std::move(*bytes)] { receive(packet); });
}

void Ipoib::receive(const fabric::Bytes& bytes) {
    fabric::Bytes whole = {fabric::arp_ether_type >> 8, fabric::arp_ether_type & 0xFF, 0, 0};
    whole.insert(whole.end(), bytes.begin(), bytes.end());
    const std::optional<ArpPacket> arp = fabric::decode<ArpPacket>(whole);
    if (!arp || !fabric::is_ipoib_arp(*arp))
        return;
    look(Direction::in, *arp);
    const Intake intake(*this);
    if (intake)
        hand_in(fabric::make_arp_data(*arp, interface_.port));
}

/* As an analyser is shown it; the LIDs are not known here. */
void Ipoib::look(Direction direction, const ArpPacket& arp) const {
    fabric::Packet packet;
    packet.pkey = interface_.pkey;
    packet.qkey = fabric::broadcast_qkey;
    packet.src_qp = arp.sender_qpn;
    packet.dest_qp = arp.operation == fabric::arp_request ? fabric::multicast_qp : arp.target_qpn;
    packet.payload.resize(ArpPacket::wire_size);
    encode(arp, packet.payload);
    tap_.see({direction, interface_.port, jiffies(), packet});
}

}  // namespace rdma
