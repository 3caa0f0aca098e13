// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the adapter, the GSI service and the IPoIB driver of our host need of whatever fabric is
// there: what our ports are like, and a wire to send management datagrams on. The simulated fabric
// offers both (subnet.h, network.h), and so does a device on a real one.
//
// Ports are numbered from 1. All calls come from any thread and context, do not sleep, and are made
// with no lock of the module held.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "fabric/packet.h"
#include "fabric/routing.h"
#include "fabric/wire.h"
#include "platform/verbs.h"

namespace fabric {

inline bool operator==(const PortId& a, const PortId& b) {
    return a.node == b.node && a.port == b.port;
}

struct EndPort {
    PortId at;
    Gid gid{};
    std::uint16_t lid = 0;  ///< the base LID; 0: not linked
    std::uint8_t lmc = 0;
    std::uint8_t mtu = 0;
    std::uint8_t rate = 0;
    bool linked = false;  ///< the topology has a link there (a switch's own port counts as linked)
    bool up = false;
};

struct SubnetManager {
    PortId at;
    std::uint16_t lid = 0;
    std::uint8_t sl = 0;
};

/// Our adapter's ports, as they are at the moment of the call.
class Ports {
  public:
    virtual ~Ports() = default;

    virtual const char* name() const = 0;  ///< the adapter's
    virtual gx_guid_t guid() const = 0;    ///< the adapter's
    virtual int count() const = 0;

    // `number` is that of a port that is there.

    virtual EndPort port(int number) const = 0;
    virtual SubnetManager manager(int number) const = 0;  ///< the one that the port hears
    /// The partition table, entry 0 first; never empty.
    virtual std::vector<std::uint16_t> pkeys(int number) const = 0;
};

/// Carries packets away from our ports.
class Wire {
  public:
    virtual ~Wire() = default;

    /// Nothing arrives inside the call. A packet that cannot be sent is lost.
    virtual void send(int port, Packet packet) = 0;
};

/// A device on a real fabric: ports and a wire for management datagrams, and what comes of them.
class Uplink : public Ports, public Wire {
  public:
    /// Called on threads of the device's own.
    struct Receivers {
        std::function<void(int port, Packet packet)> arrived;  ///< a management datagram, for us
        /// A port is now what the event tells of.
        std::function<void(gx_event_record_t event)> changed;
    };

    virtual void start(Receivers receivers) = 0;
    virtual void stop() = 0;  ///< nothing is called afterwards
};

}  // namespace fabric
