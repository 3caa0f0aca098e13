// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A simulated InfiniBand fabric around our host: what the waist's verbs and GSI calls reach while
// it exists.
//
// It is made from a topology, the hosts with their addresses, and the index of the host that we
// are. Then there are: our adapter (adapter.h), the GSI service behind its ports (gsi.h), a subnet
// manager that gave out the LIDs (subnet.h), its SA (sa.h), every other host's IPoIB interface
// (peers.h), and our own IPoIB driver (ipoib.h). Management datagrams and ARP packets cross between
// them as bytes (network.h, wire.h), can be looked at (capture.h) and can be lost, late, doubled or
// out of order (faults.h).
//
// With a device on a real fabric (FabricOptions::uplink) our ports are the device's and its
// fabric's SA is the one that is asked; the peers' ARP remains simulated, on a topology that is a
// picture of that fabric.
//
// Exactly one Fabric exists at a time, inside the life of a host::Kernel, to whose list of remains
// it adds what a module left open in it. All calls may come from any thread; scripting calls act on
// what happens after them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fabric/adapter.h"
#include "fabric/capture.h"
#include "fabric/gsi.h"
#include "fabric/ipoib.h"
#include "fabric/network.h"
#include "fabric/peers.h"
#include "fabric/sa.h"
#include "fabric/subnet.h"
#include "fabric/topology.h"

namespace fabric {

struct FabricOptions {
    SubnetOptions subnet = {};
    Delays delays = {};
    GsiTranslations translations = {};
    /// The device that our ports are, and by which management datagrams go and come; its ports are
    /// in the topology under their GUIDs. Null: they are simulated. It outlives the fabric.
    Uplink* uplink = nullptr;
};

class Fabric {
  public:
    /// Throws InputError when the topology can't be used, std::invalid_argument when there is no
    /// such host.
    Fabric(Topology topology, std::vector<Host> hosts, std::size_t our_host,
           const FabricOptions& options = {});
    ~Fabric();
    Fabric(const Fabric&) = delete;
    Fabric& operator=(const Fabric&) = delete;

    /// The one that exists; the program stops when there is none.
    static Fabric& current();

    const Topology& topology() const;
    const std::vector<Host>& hosts() const;
    const Host& our_host() const;

    Adapter& adapter();
    Gsi& gsi();
    Subnet& subnet();
    Sa& sa();
    Peers& peers();
    Ipoib& ipoib();
    Network& network();

    // Scripts. Ports are our adapter's, from 1; addresses are in network order. What is not there
    // throws std::invalid_argument, and so does a change to the ports of a device.

    Faults& port(int number);        ///< of every packet that crosses the port
    Faults& peer(std::uint32_t ip);  ///< of the ARP packets that the peer sends

    /// The port's link goes down or comes up. Nothing happens when it is so already.
    void set_link(int port, bool up);
    void set_lid(int port, std::uint16_t lid);
    void set_mtu(int port, std::uint8_t mtu_code);
    void set_pkeys(int port, std::vector<std::uint16_t> table);
    /// Another subnet manager takes over, at that LID; all ports that are up hear of it.
    void move_sm(std::uint16_t lid, std::uint8_t sl);
    /// An event of that number, whatever it means.
    void raise_event(std::uint32_t type, int port);

    /// The peer asks for our address; the peer tells us its own unasked.
    void peer_asks(std::uint32_t ip);
    void peer_announces(std::uint32_t ip);
    void change_peer(std::uint32_t ip, const PeerChange& change) { peers().change(ip, change); }
    void set_peer_link(std::uint32_t ip, bool up) { peers().set_link(ip, up); }

    Tap& tap();
    void on_packet(Tap::Hook hook) { tap().on_packet(std::move(hook)); }

  private:
    struct Parts;
    void refuse_for_uplink(const char* what) const;
    void follow_uplink(gx_event_record_t event);

    std::unique_ptr<Parts> parts_;
};

}  // namespace fabric
