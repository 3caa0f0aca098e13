// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/fabric.h"

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <stdexcept>
#include <utility>

#include "fabric/works.h"
#include "host/check.h"
#include "host/kernel.h"

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
    Adapter adapter;
    Network network;
    Gsi gsi;
    Sa sa;
    Peers peers;
    Ipoib ipoib;
    std::shared_ptr<void> watch;

    Parts(Topology given, std::vector<Host> given_hosts, std::size_t index,
          const FabricOptions& options)
        : topology(std::move(given)),
          hosts(std::move(given_hosts)),
          our_host(index),
          subnet(topology, options.subnet, chosen(hosts, index).node),
          adapter(works, subnet, topology, chosen(hosts, index).node),
          network(works, subnet, tap, adapter.node(), adapter.ports()),
          gsi(works, network, adapter, subnet),
          sa(works, subnet, network),
          peers(subnet, network, topology, hosts, index),
          ipoib(subnet, network, adapter, hosts[index].ip, interface_qpn(index),
                common_mask(hosts)) {
        network.set_delays(options.delays);
        gsi.set_translations(options.translations);
        network.connect({
            .sa = [this](const Packet& packet) { sa.receive(packet); },
            .peers = [this](const Packet& packet) { peers.hear(packet); },
            .gsi = [this](int port, const Packet& packet) { gsi.receive(port, packet); },
            .ipoib = [this](int port, const Packet& packet) { ipoib.receive(port, packet); },
            .ipoib_port = [this] { return ipoib.port(); },
        });
        watch = host::Kernel::current().watch([this](std::vector<std::string>& lines) {
            adapter.report(lines);
            gsi.report(lines);
        });
    }
};

Fabric::Fabric(Topology topology, std::vector<Host> hosts, std::size_t our_host,
               const FabricOptions& options)
    : parts_(std::make_unique<Parts>(std::move(topology), std::move(hosts), our_host, options)) {
    Fabric* none = nullptr;
    if (!the_fabric.compare_exchange_strong(none, this))
        host::die("a second fabric was made while one exists");
}

Fabric::~Fabric() {
    parts_->works.close();
    parts_->watch.reset();
    the_fabric = nullptr;
}

Fabric& Fabric::current() {
    Fabric* fabric = the_fabric;
    if (fabric == nullptr)
        host::die("the verbs layer or the GSI service was called, but there is no fabric");
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

void Fabric::set_link(int port, bool up) {
    EndPort end = adapter().port(port);
    if (end.up == up)
        return;
    subnet().set_up(end.at, up);
    raise_event(up ? gx_async_r_port_link_up : gx_async_r_port_link_down, port);
}

void Fabric::set_lid(int port, std::uint16_t lid) {
    subnet().set_lid(adapter().port(port).at, lid);
    raise_event(gx_async_r_port_lid, port);
}

void Fabric::set_mtu(int port, std::uint8_t mtu_code) {
    subnet().set_mtu(adapter().port(port).at, mtu_code);
    raise_event(gx_async_r_port_mtu, port);
}

void Fabric::set_pkeys(int port, std::vector<std::uint16_t> table) {
    subnet().set_pkeys(adapter().port(port).at, std::move(table));
}

void Fabric::move_sm(std::uint16_t lid, std::uint8_t sl) {
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

void Fabric::on_packet(Tap::Hook hook) {
    parts_->tap.on_packet(std::move(hook));
}

void Fabric::capture_to(const std::string& path) {
    parts_->tap.capture_to(path);
}

void Fabric::stop_capture() {
    parts_->tap.stop_capture();
}

}  // namespace fabric
