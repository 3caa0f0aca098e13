// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/ipoib.h"

#include <algorithm>
#include <utility>

#include "fabric/fabric.h"
#include "fabric/witness.h"
#include "host/check.h"
#include "host/faults.h"
#include "platform/jiffies.h"

namespace fabric {
namespace {

constexpr std::size_t requests_kept = 16384;

tarv_arp_data_t make_record(const ArpPacket& arp, const Packet& packet, int port) {
    tarv_arp_data_t record = make_arp_data(arp, port);
    record.mask |= TARV_MASK_LID | TARV_MASK_QKEY;
    record.lid = packet.slid;
    record.qkey = packet.qkey;
    return record;
}

}  // namespace

Ipoib::Ipoib(Subnet& subnet, Network& network, const Adapter& adapter, int node, std::uint32_t ip,
             std::uint32_t qpn, std::uint32_t prefix_mask)
    : subnet_(subnet),
      network_(network),
      adapter_(adapter),
      node_(node),
      qpn_(qpn),
      addresses_{ip},
      mask_(prefix_mask) {
    choose_port();
}

int Ipoib::port() const {
    MutexLock lock(mutex_);
    return port_;
}

Station Ipoib::station() const {
    MutexLock lock(mutex_);
    Station station{addresses_.front(), {node_, port_}, 0, {}, qpn_, flags_};
    if (std::optional<EndPort> end = subnet_.at(station.at); end && port_ != 0) {
        station.lid = end->lid;
        station.gid = end->gid;
    }
    return station;
}

void Ipoib::choose_port() {
    int chosen = 0;
    for (int number = adapter_.ports(); number >= 1; number--) {
        if (adapter_.port(number).up)
            chosen = number;
    }
    MutexLock lock(mutex_);
    port_ = chosen;
}

void Ipoib::set_pkey(std::uint16_t pkey) {
    MutexLock lock(mutex_);
    pkey_ = pkey;
}

std::uint16_t Ipoib::pkey() const {
    MutexLock lock(mutex_);
    return pkey_;
}

void Ipoib::set_flags(std::uint8_t flags) {
    MutexLock lock(mutex_);
    flags_ = flags;
}

void Ipoib::add_address(std::uint32_t ip) {
    MutexLock lock(mutex_);
    addresses_.push_back(ip);
}

void Ipoib::set_mask(std::uint32_t mask) {
    MutexLock lock(mutex_);
    mask_ = mask;
}

std::uint32_t Ipoib::mask() const {
    MutexLock lock(mutex_);
    return mask_;
}

std::size_t Ipoib::media_resets() const {
    MutexLock lock(mutex_);
    return media_resets_;
}

std::size_t Ipoib::requests_sent() const {
    MutexLock lock(mutex_);
    return sent_;
}

std::vector<SentRequest> Ipoib::requests() const {
    MutexLock lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

void Ipoib::forget_requests() {
    MutexLock lock(mutex_);
    requests_.clear();
}

bool Ipoib::is_ours(std::uint32_t ip) const {
    return std::find(addresses_.begin(), addresses_.end(), ip) != addresses_.end();
}

tarv_stat_t Ipoib::interface_info(std::uint32_t ip, gx_p_key_t* pkey, int* loopback) const {
    if (host::fails_now("get_if_info"))
        return tarv_stat_error;
    MutexLock lock(mutex_);
    bool ours = is_ours(ip);
    if (!ours && ((ip ^ addresses_.front()) & mask_) != 0)
        return tarv_stat_not_found;
    *pkey = pkey_;
    *loopback = ours ? 1 : 0;
    return tarv_stat_ok;
}

void Ipoib::answer_inside_next(unsigned count) {
    MutexLock lock(mutex_);
    quick_ = count;
}

/* What the peer would answer to a broadcast, without the way. */
void Ipoib::answer_inside(std::uint32_t ip) {
    Peers& peers = Fabric::current().peers();
    if (!peers.has(ip))
        return;
    const Station peer = peers.station(ip), us = station();
    ArpPacket arp;
    arp.operation = arp_reply;
    arp.sender_ip = peer.ip;
    arp.sender_gid = peer.gid;
    arp.sender_qpn = peer.qpn;
    arp.sender_flags = peer.flags;
    arp.target_ip = us.ip;
    Packet packet;
    packet.slid = peer.lid;
    packet.qkey = broadcast_qkey;
    const host::ContextScope driver(host::Context::driver);
    hand_in(make_record(arp, packet, us.at.port));
}

tarv_stat_t Ipoib::send_request(const tarv_arp_data_t& record, int media_reset) {
    if (Witness* const sees = witness())
        sees->arp_request(record, media_reset);
    bool quick = false;
    {
        MutexLock lock(mutex_);
        quick = quick_ > 0;
        quick_ -= quick ? 1 : 0;
        sent_++;
        media_resets_ += media_reset != 0 ? 1 : 0;
        requests_.push_back({jiffies(), record.dst_ip, media_reset, record});
        if (requests_.size() > requests_kept)
            requests_.pop_front();
    }
    if (quick)
        answer_inside(record.dst_ip);
    if (host::fails_now("send_arp"))
        return tarv_stat_error;
    int before = port();
    if (media_reset != 0 || before == 0 || !adapter_.port(before).up)
        choose_port();
    Station from = station();
    if (from.at.port == 0)
        return tarv_stat_error;
    from.ip = record.src_ip;
    network_.send(from.at.port, make_arp(from, arp_request, record.dst_ip, pkey(), nullptr));
    return tarv_stat_ok;
}

/* A reply that was sent to us is for us whatever it names as its target: who asks in another's name
 * gets an answer in that name. */
bool Ipoib::is_for_us(const ArpPacket& arp, const Packet& packet) const {
    if (packet.dest_qp != qpn_ && packet.dest_qp != multicast_qp)
        return false;
    MutexLock lock(mutex_);
    return (arp.operation == arp_reply && packet.dest_qp == qpn_) || is_ours(arp.target_ip);
}

void Ipoib::receive(int port, const Packet& packet) {
    std::optional<ArpPacket> arp = decode<ArpPacket>(packet.payload);
    if (!arp || !is_ipoib_arp(*arp) || !is_for_us(*arp, packet))
        return;
    const Intake intake(*this);
    if (!intake)
        return;
    hand_in(make_record(*arp, packet, port));
    if (arp->operation == arp_request)
        answer(*arp, packet, port);
}

/* The peer that asks for us is told where we are. */
void Ipoib::answer(const ArpPacket& arp, const Packet& packet, int port) {
    Station us = station();
    us.ip = arp.target_ip;
    Station peer{arp.sender_ip, {}, packet.slid, arp.sender_gid, arp.sender_qpn, arp.sender_flags};
    network_.send(port, make_arp(us, arp_reply, peer.ip, packet.pkey, &peer));
}

}  // namespace fabric
