// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Our host's IPoIB driver: the one that the module has ARP requests sent through, and that hands
// ARP packets to it.
//
// Packets for addresses that are not ours are dropped.
//
// The driver has one interface, with our host's address, on the first port that is up. It chooses
// anew when it has to send and its port is down, and when the module asks for a media reset.
// The calls "send_arp" and "get_if_info" can be made to fail (host/faults.h).
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "fabric/adapter.h"
#include "fabric/driver.h"
#include "fabric/mutex.h"
#include "fabric/network.h"
#include "fabric/peers.h"

namespace fabric {

/// An ARP request that the module had sent.
struct SentRequest {
    unsigned long jiffies;
    std::uint32_t target_ip;
    int media_reset;
    tarv_arp_data_t record;  ///< as the module gave it
};

class Ipoib final : public Driver {
  public:
    /// The interface's network is `network`/`prefix`, in network order.
    /// It lives on that node of the subnet, whose adapter is given.
    Ipoib(Subnet& subnet, Network& network, const Adapter& adapter, int node, std::uint32_t ip,
          std::uint32_t qpn, std::uint32_t prefix_mask);

    /// The interface's port now; 0: no port is up.
    int port() const;
    Station station() const;

    /// The interface's partition, for its packets and for whoever asks; 0xFFFF by default.
    void set_pkey(std::uint16_t pkey);
    std::uint16_t pkey() const;
    void set_flags(std::uint8_t flags);
    /// Further address of ours.
    void add_address(std::uint32_t ip);
    /// Mask of the network that the interface serves, in network order.
    void set_mask(std::uint32_t mask);
    std::uint32_t mask() const;

    /// The peers answer the next requests before send_request() has returned, as when a packet
    /// arrives in the middle of it.
    void answer_inside_next(unsigned count);

    std::size_t media_resets() const;   ///< asked for by the module so far
    std::size_t requests_sent() const;  ///< by the module's order, lost ones included
    /// The last of them (at most 16384), oldest first, and forgetting them.
    std::vector<SentRequest> requests() const;
    void forget_requests();

    /// An IPoIB packet arrived at our port.
    void receive(int port, const Packet& packet);

    tarv_stat_t send_request(const tarv_arp_data_t& record, int media_reset) override;
    tarv_stat_t interface_info(std::uint32_t ip, gx_p_key_t* pkey, int* loopback) const override;

  private:
    bool is_ours(std::uint32_t ip) const TA_REQ(mutex_);
    void answer_inside(std::uint32_t ip);
    void choose_port();
    bool is_for_us(const ArpPacket& arp, const Packet& packet) const;
    void answer(const ArpPacket& arp, const Packet& packet, int port);

    Subnet& subnet_;
    Network& network_;
    const Adapter& adapter_;
    const int node_;
    const std::uint32_t qpn_;
    mutable Mutex mutex_;
    std::vector<std::uint32_t> addresses_ TA_GUARDED(mutex_);
    std::uint32_t mask_ TA_GUARDED(mutex_);
    std::uint16_t pkey_ TA_GUARDED(mutex_) = 0xFFFF;
    std::uint8_t flags_ TA_GUARDED(mutex_) = interface_flags;
    int port_ TA_GUARDED(mutex_) = 0;
    std::size_t media_resets_ TA_GUARDED(mutex_) = 0;
    std::size_t sent_ TA_GUARDED(mutex_) = 0;
    unsigned quick_ TA_GUARDED(mutex_) = 0;  ///< requests to be answered inside
    std::deque<SentRequest> requests_ TA_GUARDED(mutex_);
};

}  // namespace fabric
