// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/network.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "platform/jiffies.h"

namespace fabric {
namespace {

bool is_management(const Packet& packet) {
    return packet.dest_qp == gsi_qp || packet.src_qp == gsi_qp;
}

host::Context context_of(const Packet& packet) {
    return is_management(packet) ? host::Context::gsi : host::Context::driver;
}

/* What crosses one of our ports keeps its order. */
unsigned lane_of(int port) {
    return static_cast<unsigned>(port);
}

}  // namespace

Network::Network(Works& works, Subnet& subnet, Tap& tap, int our_node, int our_ports,
                 Uplink* uplink)
    : works_(works), subnet_(subnet), tap_(tap), our_node_(our_node), uplink_(uplink) {
    for (int i = 0; i < our_ports; i++)
        port_faults_.push_back(std::make_unique<Faults>());
}

void Network::set_delays(const Delays& delays) {
    MutexLock lock(mutex_);
    delays_ = delays;
}

Faults& Network::port_faults(int port) {
    if (port < 1 || port > static_cast<int>(port_faults_.size()))
        throw std::invalid_argument("the adapter has no port " + std::to_string(port));
    return *port_faults_[static_cast<std::size_t>(port - 1)];
}

unsigned long Network::ticks_for(const Packet& packet, bool outward) const {
    MutexLock lock(mutex_);
    if (!is_management(packet))
        return delays_.arp;
    return outward ? delays_.sa_request : delays_.sa_reply;
}

void Network::look(Direction direction, int port, const Packet& packet) const {
    tap_.see({direction, port, jiffies(), packet});
}

void Network::send(int port, Packet packet) {
    std::optional<EndPort> from = subnet_.at({our_node_, port});
    if (!from || !from->up)
        return;
    Shared shared = std::make_shared<const Packet>(std::move(packet));
    look(Direction::out, port, *shared);
    if (uplink_ != nullptr && is_management(*shared))
        return port_faults(port).pass([this, port, shared](unsigned long late) {
            if (late == 0)
                return uplink_->send(port, *shared);
            works_.schedule(
                host::Context::gsi, late, [this, port, shared] { uplink_->send(port, *shared); },
                lane_of(port));
        });
    unsigned long ticks = ticks_for(*shared, true);
    port_faults(port).pass([this, port, shared, ticks](unsigned long late) {
        works_.schedule(
            context_of(*shared), ticks + late, [this, shared] { arrive_far(*shared); },
            lane_of(port));
    });
}

void Network::arrive_by_uplink(int port, Packet packet) {
    Shared shared = std::make_shared<const Packet>(std::move(packet));
    port_faults(port).pass([this, port, shared](unsigned long late) {
        const auto arrive = [this, port, shared] {
            look(Direction::in, port, *shared);
            receivers_.gsi(port, *shared);
        };
        works_.schedule(host::Context::gsi, late, arrive, lane_of(port));
    });
}

void Network::arrive_far(const Packet& packet) const {
    if (packet.dlid >= first_multicast_lid)
        return receivers_.peers(packet);
    std::optional<EndPort> from = subnet_.by_lid(packet.slid);
    SubnetManager manager = subnet_.manager();
    if (packet.dest_qp == gsi_qp) {
        if (packet.dlid == manager.lid && from && subnet_.reaches(from->at, manager.at))
            receivers_.sa(packet);
        return;
    }
    std::optional<EndPort> to = subnet_.by_lid(packet.dlid);
    if (from && to && subnet_.reaches(from->at, to->at))
        receivers_.peers(packet);
}

void Network::send_to_us(PortId from, Packet packet, unsigned long late) {
    int port = receivers_.ipoib_port();
    if (packet.dlid < first_multicast_lid) {
        std::optional<EndPort> to = subnet_.by_lid(packet.dlid);
        port = to && to->at.node == our_node_ ? to->at.port : 0;
    }
    if (port == 0)
        return;
    Shared shared = std::make_shared<const Packet>(std::move(packet));
    unsigned long ticks = ticks_for(*shared, false) + late;
    port_faults(port).pass([this, from, port, shared, ticks](unsigned long later) {
        works_.schedule(
            context_of(*shared), ticks + later,
            [this, from, port, shared] { arrive_here(from, port, *shared); }, lane_of(port));
    });
}

void Network::arrive_here(PortId from, int port, const Packet& packet) const {
    if (!subnet_.reaches(from, {our_node_, port}))
        return;
    look(Direction::in, port, packet);
    if (packet.dest_qp == gsi_qp)
        receivers_.gsi(port, packet);
    else
        receivers_.ipoib(port, packet);
}

}  // namespace fabric
