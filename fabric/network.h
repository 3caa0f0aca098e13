// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The road between our host and the others: a packet leaves, crosses the fabric in its time, and
// arrives at whoever its headers name, or at nobody.
//
// A packet is lost when the port that sends it or the port that it is for is down at that moment,
// when nothing leads there, or when a fault says so. Management datagrams (to or from queue pair 1)
// arrive in the GSI context, all others in the driver's.
//
// Where our ports are those of a device (ports.h), management datagrams go out by it and come in by
// it. They meet the faults of our port as all others do, but no delays: those are the fabric's own.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "fabric/capture.h"
#include "fabric/faults.h"
#include "fabric/packet.h"
#include "fabric/subnet.h"
#include "fabric/works.h"

namespace fabric {

/// How long packets are under way, in ticks.
struct Delays {
    unsigned long arp = 1;         ///< each leg of an ARP exchange
    unsigned long sa_request = 1;  ///< a management datagram to the SA
    unsigned long sa_reply = 1;    ///< an answer on its way back
};

class Network final : public Wire {
  public:
    /// Who hears what arrives. `port` is our adapter's, where it is given.
    struct Receivers {
        std::function<void(const Packet&)> sa;
        std::function<void(const Packet&)> peers;
        std::function<void(int port, const Packet&)> gsi;
        std::function<void(int port, const Packet&)> ipoib;
        std::function<int()> ipoib_port;  ///< where our interface hears broadcasts; 0: nowhere
    };

    /// `uplink`: the device of our ports; null where they are the subnet's.
    Network(Works& works, Subnet& subnet, Tap& tap, int our_node, int our_ports, Uplink* uplink);
    void connect(Receivers receivers) { receivers_ = std::move(receivers); }

    void set_delays(const Delays& delays);

    /// Faults of our port: they hold for every packet that crosses it, in or out. Throws
    /// std::invalid_argument for a port that is not there.
    Faults& port_faults(int port);

    /// Sends from our port. From any context, with locks held; nothing arrives inside the call.
    void send(int port, Packet packet) override;

    /// A management datagram came in by the device.
    void arrive_by_uplink(int port, Packet packet);

    /// Another port of the fabric sends to us; `late` is added to the time under way.
    void send_to_us(PortId from, Packet packet, unsigned long late);

  private:
    using Shared = std::shared_ptr<const Packet>;

    unsigned long ticks_for(const Packet& packet, bool outward) const;
    void arrive_far(const Packet& packet) const;
    void arrive_here(PortId from, int port, const Packet& packet) const;
    void look(Direction direction, int port, const Packet& packet) const;

    Works& works_;
    Subnet& subnet_;
    Tap& tap_;
    const int our_node_;
    Uplink* const uplink_;
    std::vector<std::unique_ptr<Faults>> port_faults_;  ///< index is the port number less 1
    Receivers receivers_;
    mutable Mutex mutex_;
    Delays delays_ TA_GUARDED(mutex_);
};

}  // namespace fabric
