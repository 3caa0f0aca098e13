// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/device.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "rdma/records.h"

namespace rdma {
namespace {

using std::chrono::milliseconds;
using Time = std::chrono::steady_clock::time_point;

constexpr milliseconds answer_wait{500};  // for a question before the device is started
constexpr int answer_tries = 4;
constexpr milliseconds longest_wait{100};  // until a receiver looks whether it is to stop
constexpr std::size_t pkeys_in_block = 32;
constexpr std::uint16_t attribute_class_port_info = 0x0001;

const char* const state_names[] = {"without a state", "Down", "Initializing", "Armed", "Active"};

Time now() {
    return std::chrono::steady_clock::now();
}

/* Sends `question` until something comes that `is_answer` takes. */
bool ask(Transport& road, const fabric::Packet& question,
         const std::function<bool(const fabric::Packet&)>& is_answer) {
    for (int i = 0; i < answer_tries; i++) {
        road.send(question);
        const Time end = now() + answer_wait;
        for (Time at = now(); at < end; at = now()) {
            const auto left = std::chrono::ceil<milliseconds>(end - at);
            if (const auto packet = road.receive(left); packet && is_answer(*packet))
                return true;
        }
    }
    return false;
}

std::uint32_t pkey_blocks(const PortFacts& facts) {
    const std::size_t entries = facts.node.partition_cap;
    return static_cast<std::uint32_t>(std::max<std::size_t>(1, (entries + 31) / pkeys_in_block));
}

/* What every SA answers: a question about itself. */
fabric::Packet question_to_sa(const PortFacts& facts, std::uint32_t transaction) {
    fabric::Packet packet;
    packet.slid = facts.port.lid;
    packet.dlid = facts.port.sm_lid;
    packet.sl = facts.port.sm_sl;
    packet.dest_qp = packet.src_qp = fabric::gsi_qp;
    packet.qkey = fabric::gsi_qkey;
    packet.payload.resize(fabric::mad_size);
    fabric::MadHeader header;
    header.management_class = fabric::sa_class;
    header.class_version = fabric::sa_class_version;
    header.method = fabric::method_get;
    header.transaction = transaction;
    header.attribute = attribute_class_port_info;
    encode(header, packet.payload);
    return packet;
}

}  // namespace

Device::Device(std::string name, Roads roads, milliseconds look_every)
    : name_(std::move(name)), look_every_(look_every) {
    for (std::unique_ptr<Transport>& road : roads) {
        auto port = std::make_unique<Port>();
        port->number = static_cast<int>(ports_.size()) + 1;
        port->road = std::move(road);
        if (port->road)
            first_look(*port);
        ports_.push_back(std::move(port));
        if (guid_ == 0)
            guid_ = facts(static_cast<int>(ports_.size())).node.node_guid;
    }
}

Device::~Device() {
    stop();
}

void Device::first_look(Port& port) {
    PortFacts seen;
    const auto learn = [&](Fact fact, std::uint32_t block) {
        const std::uint32_t transaction = port.transaction++;
        const bool learned =
            ask(*port.road, make_question(fact, transaction, block), [&](const auto& packet) {
                const auto header = fabric::decode<fabric::MadHeader>(packet.payload);
                return header && static_cast<std::uint32_t>(header->transaction) == transaction &&
                       take_answer(packet, seen);
            });
        if (!learned)
            throw DeviceError("port " + std::to_string(port.number) + " of " + name_ +
                              " does not answer questions about itself");
    };
    learn(Fact::node, 0);
    for (std::uint32_t block = 0; block < pkey_blocks(seen); block++)
        learn(Fact::pkeys, block);
    learn(Fact::port, 0);
    fabric::MutexLock lock(port.mutex);
    port.facts = port.coming = seen;
}

/* Empty for a port that is active. */
std::string Device::why_not_active(int number) const {
    const std::string where = "port " + std::to_string(number) + " of " + name_;
    if (!at(number).road)
        return where + " is left out, or its link is no InfiniBand";
    const PortFacts seen = facts(number);
    if (seen.up())
        return {};
    const std::size_t state = std::min<std::size_t>(seen.port.state, 4);
    return where + " is " + state_names[state] +
           (state == 1 ? ": it has no link; see to its cable and the switch"
                       : ": no subnet manager has set it up; start one, such as opensm");
}

void Device::require_active(int port) const {
    if (const std::string why_not = why_not_active(port); !why_not.empty())
        throw DeviceError(why_not);
}

void Device::require_service() {
    std::string why_not;
    bool any = false;
    for (const std::unique_ptr<Port>& port : ports_) {
        if (const std::string reason = why_not_active(port->number); !reason.empty()) {
            if (port->road)
                why_not = reason;
            continue;
        }
        any = true;
        const PortFacts seen = facts(port->number);
        const std::uint32_t transaction = port->transaction++;
        const auto is_answer = [&](const fabric::Packet& packet) {
            const auto header = fabric::decode<fabric::MadHeader>(packet.payload);
            return header && header->management_class == fabric::sa_class &&
                   static_cast<std::uint32_t>(header->transaction) == transaction;
        };
        if (!ask(*port->road, question_to_sa(seen, transaction), is_answer))
            throw DeviceError("port " + std::to_string(port->number) + " of " + name_ +
                              ": the SA at LID " + std::to_string(seen.port.sm_lid) +
                              " does not answer; see to the subnet manager there");
    }
    if (!any)
        throw DeviceError(why_not.empty() ? name_ + " has no InfiniBand port" : why_not);
}

PortFacts Device::facts(int number) const {
    const Port& port = at(number);
    fabric::MutexLock lock(port.mutex);
    return port.facts;
}

fabric::EndPort Device::port(int number) const {
    const PortFacts seen = facts(number);
    fabric::EndPort end;
    end.at = {0, number};
    end.gid = fabric::make_gid(seen.port.gid_prefix, seen.node.port_guid);
    end.lid = seen.port.lid;
    end.lmc = seen.port.lmc;
    end.mtu = seen.port.neighbor_mtu;
    end.linked = seen.port.state > 1;
    end.up = seen.up();
    return end;
}

fabric::SubnetManager Device::manager(int number) const {
    const PortFacts seen = facts(number);
    return {{}, seen.port.sm_lid, seen.port.sm_sl};
}

std::vector<std::uint16_t> Device::pkeys(int number) const {
    return facts(number).pkeys;
}

void Device::send(int number, fabric::Packet packet) {
    if (const Port& port = at(number); port.road)
        port.road->send(packet);
}

void Device::start(Receivers receivers) {
    receivers_ = std::move(receivers);
    stopping_ = false;
    for (const std::unique_ptr<Port>& port : ports_)
        if (port->road)
            port->thread = std::thread([this, at = port.get()] { serve(*at); });
}

void Device::stop() {
    stopping_ = true;
    for (const std::unique_ptr<Port>& port : ports_)
        if (port->thread.joinable())
            port->thread.join();
}

void Device::serve(Port& port) {
    for (Time next_look = now(); !stopping_;) {
        if (now() >= next_look) {
            look(port);
            next_look = now() + look_every_;
        }
        const auto left = std::chrono::ceil<milliseconds>(next_look - now());
        if (auto packet = port.road->receive(std::clamp(left, milliseconds(0), longest_wait)))
            take(port, std::move(*packet));
    }
}

/* The port's own facts come last: with them the look is complete. */
void Device::look(Port& port) const {
    std::uint32_t blocks;
    {
        fabric::MutexLock lock(port.mutex);
        blocks = pkey_blocks(port.facts);
    }
    for (std::uint32_t block = 0; block < blocks; block++)
        port.road->send(make_question(Fact::pkeys, port.transaction++, block));
    port.road->send(make_question(Fact::port, port.transaction++));
}

void Device::note(int number, std::optional<gx_async_record_t> event) {
    Port& port = at(number);
    if (!port.road)
        return;
    {
        fabric::MutexLock lock(port.mutex);
        if (event)
            port.noted = event;
    }
    look(port);
}

std::vector<fabric::Gid> Device::gids() const {
    std::vector<fabric::Gid> all;
    for (int number = 1; number <= count(); ++number)
        all.push_back(port(number).gid);
    return all;
}

void Device::take(Port& port, fabric::Packet packet) {
    const auto header = fabric::decode<fabric::MadHeader>(packet.payload);
    if (!header)
        return;
    if (header->management_class != fabric::directed_route_class) {
        cut_behind_records(packet.payload, gids());
        return receivers_.arrived(port.number, std::move(packet));
    }
    bool complete;
    {
        fabric::MutexLock lock(port.mutex);
        complete = take_answer(packet, port.coming) && Fact{header->attribute} == Fact::port;
    }
    if (!complete)
        return;
    for (const gx_event_record_t& event : finish_look(port))
        receivers_.changed(event);
}

std::vector<gx_event_record_t> Device::finish_look(Port& port) {
    fabric::MutexLock lock(port.mutex);
    std::vector<gx_event_record_t> events = events_between(port.facts, port.coming, port.number);
    port.facts = port.coming;
    if (const auto noted = std::exchange(port.noted, std::nullopt);
        noted && events.empty() && port.facts.up())
        events.push_back({*noted, static_cast<u8>(port.number)});
    return events;
}

}  // namespace rdma
