// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/peers.h"

#include <stdexcept>
#include <utility>

namespace fabric {
namespace {

constexpr std::uint32_t first_interface_qpn = 0x4A0001;
constexpr std::uint16_t broadcast_lid = first_multicast_lid;

PortId first_linked_port(const Topology& topology, int node) {
    const std::vector<Port>& ports = topology.nodes.at(static_cast<std::size_t>(node)).ports;
    for (std::size_t i = 1; i < ports.size(); i++) {
        if (ports[i].linked)
            return {node, static_cast<int>(i)};
    }
    return {node, 1};
}

}  // namespace

std::uint32_t interface_qpn(std::size_t host_index) {
    return first_interface_qpn + static_cast<std::uint32_t>(host_index);
}

Gid broadcast_gid(std::uint16_t pkey) {
    return make_gid(0xFF12401B00000000 | std::uint64_t{pkey} << 16, 0x00000000FFFFFFFF);
}

Packet make_arp(const Station& from, std::uint16_t operation, std::uint32_t target_ip,
                std::uint16_t pkey, const Station* to) {
    ArpPacket arp;
    arp.operation = operation;
    arp.sender_flags = from.flags;
    arp.sender_qpn = from.qpn;
    arp.sender_gid = from.gid;
    arp.sender_ip = from.ip;
    arp.target_ip = target_ip;
    Packet packet;
    packet.slid = from.lid;
    packet.pkey = pkey;
    packet.qkey = broadcast_qkey;
    packet.src_qp = from.qpn;
    if (to != nullptr) {
        arp.target_flags = to->flags;
        arp.target_qpn = to->qpn;
        arp.target_gid = to->gid;
        packet.dlid = to->lid;
        packet.dest_qp = to->qpn;
    } else {
        packet.dlid = broadcast_lid;
        packet.dest_qp = multicast_qp;
        packet.has_grh = true;
        packet.sgid = from.gid;
        packet.dgid = broadcast_gid(pkey);
    }
    packet.payload.resize(ArpPacket::wire_size);
    encode(arp, packet.payload);
    return packet;
}

Peers::Peers(Subnet& subnet, Network& network, const Topology& topology,
             const std::vector<Host>& hosts, std::size_t our_host)
    : subnet_(subnet), network_(network) {
    MutexLock lock(mutex_);
    by_ip_.reserve(hosts.size());
    for (std::size_t i = 0; i < hosts.size(); i++) {
        PortId at = first_linked_port(topology, hosts[i].node);
        if (i != our_host)
            by_ip_[hosts[i].ip] = {hosts[i].ip, at, interface_qpn(i), interface_flags};
    }
}

std::size_t Peers::count() const {
    MutexLock lock(mutex_);
    return by_ip_.size();
}

bool Peers::has(std::uint32_t ip) const {
    return find(ip).has_value();
}

std::optional<Peers::Peer> Peers::find(std::uint32_t ip) const {
    MutexLock lock(mutex_);
    auto found = by_ip_.find(ip);
    return found == by_ip_.end() ? std::nullopt : std::optional(found->second);
}

Peers::Peer Peers::known(std::uint32_t ip) const {
    std::optional<Peer> peer = find(ip);
    if (!peer)
        throw std::invalid_argument("no peer has the address " + format_ip(ip));
    return *peer;
}

Station Peers::station_of(const Peer& peer) const {
    Station station{peer.ip, peer.at, 0, {}, peer.qpn, peer.flags};
    if (std::optional<EndPort> port = subnet_.at(peer.at)) {
        station.lid = port->lid;
        station.gid = port->gid;
    }
    return station;
}

Station Peers::station(std::uint32_t ip) const {
    return station_of(known(ip));
}

Faults& Peers::faults(std::uint32_t ip) {
    known(ip);
    MutexLock lock(mutex_);
    std::unique_ptr<Faults>& faults = faults_[ip];
    if (!faults)
        faults = std::make_unique<Faults>();
    return *faults;
}

void Peers::change(std::uint32_t ip, const PeerChange& change) {
    Peer peer = known(ip);
    if (change.port) {
        if (!subnet_.at({peer.at.node, *change.port}))
            throw std::invalid_argument("the peer has no port " + std::to_string(*change.port));
        peer.at.port = *change.port;
    }
    if (change.gid)
        subnet_.set_gid(peer.at, *change.gid);
    peer.qpn = change.qpn.value_or(peer.qpn);
    peer.flags = change.flags.value_or(peer.flags);
    MutexLock lock(mutex_);
    by_ip_[ip] = peer;
}

void Peers::set_link(std::uint32_t ip, bool up) {
    subnet_.set_up(known(ip).at, up);
}

void Peers::send(const Peer& from, Packet packet) {
    Faults* faults = nullptr;
    {
        MutexLock lock(mutex_);
        auto found = faults_.find(from.ip);
        if (found != faults_.end())
            faults = found->second.get();
    }
    if (faults == nullptr)
        return network_.send_to_us(from.at, std::move(packet), 0);
    faults->pass([this, at = from.at, packet = std::move(packet)](unsigned long late) {
        network_.send_to_us(at, packet, late);
    });
}

void Peers::ask(std::uint32_t ip, std::uint32_t target_ip, std::uint16_t pkey) {
    Peer peer = known(ip);
    send(peer, make_arp(station_of(peer), arp_request, target_ip, pkey, nullptr));
}

void Peers::announce(std::uint32_t ip, const Station& to, std::uint16_t pkey) {
    Peer peer = known(ip);
    send(peer, make_arp(station_of(peer), arp_reply, to.ip, pkey, &to));
}

unsigned long Peers::requests_heard() const {
    MutexLock lock(mutex_);
    return requests_;
}

unsigned long Peers::replies_heard() const {
    MutexLock lock(mutex_);
    return replies_;
}

void Peers::hear(const Packet& packet) {
    std::optional<ArpPacket> arp = decode<ArpPacket>(packet.payload);
    if (!arp || arp->ether_type != arp_ether_type)
        return;
    std::optional<Peer> peer = find(arp->target_ip);
    std::optional<EndPort> asker = subnet_.by_lid(packet.slid);
    if (!peer || !asker || !subnet_.reaches(asker->at, peer->at) ||
        !subnet_.common_pkey(asker->at, peer->at, packet.pkey) ||
        (packet.dest_qp != multicast_qp && packet.dest_qp != peer->qpn))
        return;
    {
        MutexLock lock(mutex_);
        (arp->operation == arp_request ? requests_ : replies_)++;
    }
    if (arp->operation != arp_request)
        return;
    Station back{arp->sender_ip,  asker->at,       packet.slid,
                 arp->sender_gid, arp->sender_qpn, arp->sender_flags};
    send(*peer, make_arp(station_of(*peer), arp_reply, arp->sender_ip, packet.pkey, &back));
}

}  // namespace fabric
