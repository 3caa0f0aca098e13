// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The other hosts' IPoIB interfaces: each answers an ARP request for its address, and sends ARP
// packets of its own when it is told to.
//
// An interface lives on its host's first linked port. It is a member of the broadcast group that
// our own interface is in. Finding the one that an ARP request is for costs the same with 49,151
// hosts as with two.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fabric/faults.h"
#include "fabric/mutex.h"
#include "fabric/network.h"
#include "fabric/subnet.h"

namespace fabric {

inline constexpr std::uint32_t broadcast_qkey = 0x00000B1B;
inline constexpr std::uint8_t interface_flags = 0x80;  ///< it can have reliable connections

/// The queue pair of the interface of the host with that index.
std::uint32_t interface_qpn(std::size_t host_index);

/// The group to which broadcasts of a partition go.
Gid broadcast_gid(std::uint16_t pkey);

/// Where an interface is reached.
struct Station {
    std::uint32_t ip = 0;  ///< network order
    PortId at;
    std::uint16_t lid = 0;
    Gid gid{};
    std::uint32_t qpn = 0;
    std::uint8_t flags = interface_flags;
};

/// An ARP packet from one station about an address; without `to` it is a broadcast.
Packet make_arp(const Station& from, std::uint16_t operation, std::uint32_t target_ip,
                std::uint16_t pkey, const Station* to);

/// What is to become different about a peer's interface.
struct PeerChange {
    std::optional<std::uint32_t> qpn = {};
    std::optional<Gid> gid = {};  ///< of the port on which it lives
    std::optional<int> port = {};
    std::optional<std::uint8_t> flags = {};
};

class Peers {
  public:
    /// `our_host` is left out: it is not a peer.
    Peers(Subnet& subnet, Network& network, const Topology& topology,
          const std::vector<Host>& hosts, std::size_t our_host);

    std::size_t count() const;
    bool has(std::uint32_t ip) const;

    // An address that no peer has throws std::invalid_argument in all of these.

    Station station(std::uint32_t ip) const;  ///< as it is now
    Faults& faults(std::uint32_t ip);         ///< of the ARP packets that the peer sends
    void change(std::uint32_t ip, const PeerChange& change);
    void set_link(std::uint32_t ip, bool up);  ///< of the port on which its interface lives

    /// The peer broadcasts an ARP request for an address.
    void ask(std::uint32_t ip, std::uint32_t target_ip, std::uint16_t pkey = 0xFFFF);
    /// The peer sends an ARP reply that nobody asked for.
    void announce(std::uint32_t ip, const Station& to, std::uint16_t pkey = 0xFFFF);

    unsigned long requests_heard() const;  ///< ARP requests that reached the peer they were for
    unsigned long replies_heard() const;   ///< ARP replies that did

    /// An IPoIB packet from our host arrived at the others.
    void hear(const Packet& packet);

  private:
    struct Peer {
        std::uint32_t ip;
        PortId at;
        std::uint32_t qpn;
        std::uint8_t flags;
    };

    Station station_of(const Peer& peer) const;
    std::optional<Peer> find(std::uint32_t ip) const;
    Peer known(std::uint32_t ip) const;
    void send(const Peer& from, Packet packet);

    Subnet& subnet_;
    Network& network_;
    mutable Mutex mutex_;
    std::unordered_map<std::uint32_t, Peer> by_ip_ TA_GUARDED(mutex_);
    std::unordered_map<std::uint32_t, std::unique_ptr<Faults>> faults_ TA_GUARDED(mutex_);
    unsigned long requests_ TA_GUARDED(mutex_) = 0;
    unsigned long replies_ TA_GUARDED(mutex_) = 0;
};

}  // namespace fabric
