// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/fabric.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <stdexcept>
#include <utility>

#include "fabric/waist.h"
#include "fabric/works.h"
#include "host/check.h"

namespace fabric {
namespace {

constexpr int longest_prefix = 24;  // a network is not taken to be smaller than that

std::atomic<Fabric*> the_fabric = nullptr;

/* The smallest network in which all hosts are, as a mask in network order. */
std::uint32_t common_mask(const std::vector<Host>& hosts) {
    std::uint32_t differing = 0;
    for (const Host& host : hosts)
        differing |= ntohl(host.ip) ^ ntohl(hosts.front().ip);
    int prefix = std::min(longest_prefix, std::countl_zero(differing));
    return prefix == 0 ? 0 : htonl(~0u << (32 - prefix));
}

const Host& chosen(const std::vector<Host>& hosts, std::size_t index) {
    if (index >= hosts.size())
        throw std::invalid_argument("the fabric has no host number " + std::to_string(index));
    return hosts[index];
}

/* The host that the manager must reach, and where most ways begin or end. A device's fabric has a
 * manager of its own. */
int home_of(const Host& host, const FabricOptions& options) {
    return options.uplink != nullptr ? -1 : host.node;
}

}  // namespace

/* The parts in the order in which they depend on each other. Scheduled work ends before the first
 * of them goes. */
struct Fabric::Parts {
    Topology topology;
    std::vector<Host> hosts;
    std::size_t our_host;
    Works works;
    Tap tap;
    Subnet subnet;
    SubnetPorts ports;
    Uplink* uplink;
    Adapter adapter;
    Network network;
    Gsi gsi;
    Sa sa;
    Peers peers;
    Ipoib ipoib;
    Waist waist;

    Parts(Topology given, std::vector<Host> given_hosts, std::size_t index,
          const FabricOptions& options)
        : topology(std::move(given)),
          hosts(std::move(given_hosts)),
          our_host(index),
          subnet(topology, options.subnet, home_of(chosen(hosts, index), options)),
          ports(subnet, topology, hosts[index].node),
          uplink(options.uplink),
          adapter(works, uplink != nullptr ? static_cast<const Ports&>(*uplink) : ports),
          network(works, subnet, tap, hosts[index].node, adapter.ports(), uplink),
          gsi(works, network, adapter),
          sa(works, subnet, network),
          peers(subnet, network, topology, hosts, index),
          ipoib(subnet, network, adapter, hosts[index].node, hosts[index].ip, interface_qpn(index),
                common_mask(hosts)),
          waist(adapter, gsi, ipoib) {
        network.set_delays(options.delays);
        gsi.set_translations(options.translations);
        network.connect({
            .sa = [this](const Packet& packet) { sa.receive(packet); },
            .peers = [this](const Packet& packet) { peers.hear(packet); },
            .gsi = [this](int port, const Packet& packet) { gsi.receive(port, packet); },
            .ipoib = [this](int port, const Packet& packet) { ipoib.receive(port, packet); },
            .ipoib_port = [this] { return ipoib.port(); },
        });
    }
};

Fabric::Fabric(Topology topology, std::vector<Host> hosts, std::size_t our_host,
               const FabricOptions& options)
    : parts_(std::make_unique<Parts>(std::move(topology), std::move(hosts), our_host, options)) {
    the_fabric = this;
    if (Uplink* const uplink = parts_->uplink)
        uplink->start({.arrived =
                           [this](int port, Packet packet) {
                               network().arrive_by_uplink(port, std::move(packet));
                           },
                       .changed = [this](gx_event_record_t event) { follow_uplink(event); }});
}

Fabric::~Fabric() {
    if (parts_->uplink != nullptr)
        parts_->uplink->stop();
    parts_->works.close();
    the_fabric = nullptr;
}

Fabric& Fabric::current() {
    Fabric* fabric = the_fabric;
    if (fabric == nullptr)
        host::die("a simulated fabric was asked for, but there is none");
    return *fabric;
}

const Topology& Fabric::topology() const {
    return parts_->topology;
}
const std::vector<Host>& Fabric::hosts() const {
    return parts_->hosts;
}
const Host& Fabric::our_host() const {
    return parts_->hosts[parts_->our_host];
}
Adapter& Fabric::adapter() {
    return parts_->adapter;
}
Gsi& Fabric::gsi() {
    return parts_->gsi;
}
Subnet& Fabric::subnet() {
    return parts_->subnet;
}
Sa& Fabric::sa() {
    return parts_->sa;
}
Peers& Fabric::peers() {
    return parts_->peers;
}
Ipoib& Fabric::ipoib() {
    return parts_->ipoib;
}
Network& Fabric::network() {
    return parts_->network;
}

Faults& Fabric::port(int number) {
    return parts_->network.port_faults(number);
}

Faults& Fabric::peer(std::uint32_t ip) {
    return parts_->peers.faults(ip);
}

void Fabric::refuse_for_uplink(const char* what) const {
    if (parts_->uplink != nullptr)
        throw std::invalid_argument(std::string(what) +
                                    " can be changed on a simulated fabric only");
}

/* The peers' ARP follows what becomes of our ports. */
void Fabric::follow_uplink(gx_event_record_t event) {
    const int number = event.port_num;
    const std::optional<EndPort> picture = subnet().at({our_host().node, number});
    if (const bool up = adapter().port(number).up; picture && picture->linked && picture->up != up)
        subnet().set_up(picture->at, up);
    raise_event(event.event_type, number);
}

void Fabric::set_link(int port, bool up) {
    refuse_for_uplink("a port's link");
    EndPort end = adapter().port(port);
    if (end.up == up)
        return;
    subnet().set_up(end.at, up);
    raise_event(up ? gx_async_r_port_link_up : gx_async_r_port_link_down, port);
}

void Fabric::set_lid(int port, std::uint16_t lid) {
    refuse_for_uplink("a LID");
    subnet().set_lid(adapter().port(port).at, lid);
    raise_event(gx_async_r_port_lid, port);
}

void Fabric::set_mtu(int port, std::uint8_t mtu_code) {
    refuse_for_uplink("an MTU");
    subnet().set_mtu(adapter().port(port).at, mtu_code);
    raise_event(gx_async_r_port_mtu, port);
}

void Fabric::set_pkeys(int port, std::vector<std::uint16_t> table) {
    refuse_for_uplink("a partition table");
    subnet().set_pkeys(adapter().port(port).at, std::move(table));
}

void Fabric::move_sm(std::uint16_t lid, std::uint8_t sl) {
    refuse_for_uplink("the subnet manager");
    subnet().move_manager(lid, sl);
    for (int port = 1; port <= adapter().ports(); port++) {
        if (adapter().port(port).up)
            raise_event(gx_async_r_port_sm_change, port);
    }
}

void Fabric::raise_event(std::uint32_t type, int port) {
    adapter().raise(type, port);
}

void Fabric::peer_asks(std::uint32_t ip) {
    peers().ask(ip, our_host().ip, ipoib().pkey());
}

void Fabric::peer_announces(std::uint32_t ip) {
    peers().announce(ip, ipoib().station(), ipoib().pkey());
}

Tap& Fabric::tap() {
    return parts_->tap;
}

}  // namespace fabric
