// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verbs with which a script acts on the fabric: faults of packets and of the SA's answers, and
// the adapter's events.
#include <algorithm>
#include <limits>

#include "app/script_verbs.h"
#include "app/suggest.h"

namespace app {
namespace {

constexpr std::uint64_t any_unsigned = std::numeric_limits<unsigned>::max();

/* Who sends, or what is crossed by, the packets that are at fault. */
struct Target {
    enum { peer, sa, port } kind = peer;
    std::uint32_t ip = 0;
    int port_number = 0;
};

/* Of any packets. */
struct PacketFault {
    const char* name;
    bool counts;  // a number of packets, 1 where it is not given
    void (*apply)(fabric::Faults&, std::uint64_t value);
};
constexpr PacketFault packet_faults[] = {
    {"drop", true,
     [](fabric::Faults& faults, std::uint64_t n) { faults.drop_next(static_cast<unsigned>(n)); }},
    {"duplicate", true,
     [](fabric::Faults& faults, std::uint64_t n) {
         faults.duplicate_next(static_cast<unsigned>(n));
     }},
    {"reorder", true,
     [](fabric::Faults& faults, std::uint64_t n) { faults.hold_next(static_cast<unsigned>(n)); }},
    {"delay", false, [](fabric::Faults& faults, std::uint64_t ticks) { faults.delay(ticks); }},
};

/* Of the SA's answers. */
struct AnswerFault {
    const char* name;
    std::uint64_t most;
    void (*apply)(fabric::Sa&, std::uint64_t value, unsigned count);
};
template <class Value, void (fabric::Sa::*change)(Value, unsigned)>
void change_answer(fabric::Sa& sa, std::uint64_t value, unsigned count) {
    (sa.*change)(static_cast<Value>(value), count);
}
constexpr AnswerFault answer_faults[] = {
    {"status", 0xFFFF, change_answer<std::uint16_t, &fabric::Sa::answer_with_status>},
    {"attribute", 0xFFFF, change_answer<std::uint16_t, &fabric::Sa::answer_with_attribute>},
    {"class", 0xFF, change_answer<std::uint8_t, &fabric::Sa::answer_with_class>},
    {"version", 0xFF, change_answer<std::uint8_t, &fabric::Sa::answer_with_base_version>},
    {"class-version", 0xFF, change_answer<std::uint8_t, &fabric::Sa::answer_with_class_version>},
    {"records", 64, change_answer<unsigned, &fabric::Sa::answer_with_records>},
    {"truncate", 4096, change_answer<std::size_t, &fabric::Sa::answer_truncated_to>},
    {"segments", 220, change_answer<std::size_t, &fabric::Sa::answer_over_rmpp>},
};

/* Those of packets; of the SA's answers too. */
std::vector<std::string> fault_words(bool sa) {
    std::vector<std::string> words;
    for (const PacketFault& fault : packet_faults)
        words.emplace_back(fault.name);
    for (const AnswerFault& fault : answer_faults)
        if (sa)
            words.emplace_back(fault.name);
    words.emplace_back("clear");
    return words;
}

fabric::Faults& faults_of(fabric::Fabric& fabric, const Target& target) {
    if (target.kind == Target::sa)
        return fabric.sa().faults();
    return target.kind == Target::port ? fabric.port(target.port_number) : fabric.peer(target.ip);
}

std::uint32_t read_peer_ip(ScriptLine& line, const ScriptReading& reading, const char* what) {
    const std::string name = line.word(what);
    const auto ip = address_of(*reading.site, name);
    for (const fabric::Host& host : reading.site->hosts)
        if (ip && host.ip == *ip && host.ip != reading.site->our_host().ip)
            return host.ip;
    line.fail("there is no peer \"" + name + "\"" + suggest(name, names_of(*reading.site)));
}

Target read_target(ScriptLine& line, const ScriptReading& reading) {
    if (line.take("sa") || line.take("SA"))
        return {.kind = Target::sa};
    if (line.take("port"))
        return {.kind = Target::port, .port_number = reading.port(line)};
    return {.kind = Target::peer, .ip = read_peer_ip(line, reading, "PEER, sa or port")};
}

FabricAction read_packet_fault(ScriptLine& line, const PacketFault& fault, const Target& target) {
    if (fault.name == std::string_view("drop") && line.take("all"))
        return [target](fabric::Fabric& fabric) { faults_of(fabric, target).drop_all(); };
    const std::uint64_t value = fault.counts ? line.number_if(fault.name, any_unsigned).value_or(1)
                                             : line.number(fault.name, most_ticks);
    return [target, value, apply = fault.apply](fabric::Fabric& fabric) {
        apply(faults_of(fabric, target), value);
    };
}

FabricAction read_answer_fault(ScriptLine& line, const AnswerFault& fault) {
    const std::uint64_t value = line.number(fault.name, fault.most);
    const auto count = static_cast<unsigned>(
        line.take("next") ? line.number("a number of answers", any_unsigned) : fabric::Sa::always);
    return [value, count, apply = fault.apply](fabric::Fabric& fabric) {
        apply(fabric.sa(), value, count);
    };
}

FabricAction read_clear(const Target& target) {
    return [target](fabric::Fabric& fabric) {
        if (target.kind == Target::sa)
            fabric.sa().clear();
        else
            faults_of(fabric, target).clear();
    };
}

FabricAction read_fault(ScriptLine& line, const Target& target) {
    if (line.take("clear"))
        return read_clear(target);
    for (const PacketFault& fault : packet_faults)
        if (line.take(fault.name))
            return read_packet_fault(line, fault, target);
    for (const AnswerFault& fault : answer_faults)
        if (target.kind == Target::sa && line.take(fault.name))
            return read_answer_fault(line, fault);
    const std::string word = line.word("a fault");
    const bool sa = target.kind == Target::sa;
    line.fail("\"" + word + "\" is no fault of " +
              (sa ? "the SA" : "packets that are not the SA's") + suggest(word, fault_words(sa)) +
              "; there are " + list_faults(sa));
}

/* Makes the event true where it can be: the link goes down, the port gets the LID, and so on. What
 * is true already, or has no value, is only reported. */
struct EventType {
    const char* name;
    std::uint32_t type;
    std::uint64_t most;  // of the value; 0: it takes none
    bool (*change)(fabric::Fabric&, int port, std::uint64_t value);
};

bool change_link(fabric::Fabric& fabric, int port, bool up) {
    const bool changes = fabric.adapter().port(port).up != up;
    if (changes)
        fabric.set_link(port, up);
    return changes;
}

constexpr EventType event_types[] = {
    {"link_up", gx_async_r_port_link_up, 0,
     [](fabric::Fabric& fabric, int port, std::uint64_t) {
         return change_link(fabric, port, true);
     }},
    {"link_down", gx_async_r_port_link_down, 0,
     [](fabric::Fabric& fabric, int port, std::uint64_t) {
         return change_link(fabric, port, false);
     }},
    {"lid", gx_async_r_port_lid, fabric::last_unicast_lid,
     [](fabric::Fabric& fabric, int port, std::uint64_t lid) {
         if (lid != 0)
             fabric.set_lid(port, static_cast<std::uint16_t>(lid));
         return lid != 0;
     }},
    {"mtu", gx_async_r_port_mtu, 5,
     [](fabric::Fabric& fabric, int port, std::uint64_t mtu) {
         if (mtu != 0)
             fabric.set_mtu(port, static_cast<std::uint8_t>(mtu));
         return mtu != 0;
     }},
    {"sm_change", gx_async_r_port_sm_change, fabric::last_unicast_lid,
     [](fabric::Fabric& fabric, int, std::uint64_t lid) {
         if (lid != 0)
             fabric.move_sm(static_cast<std::uint16_t>(lid), fabric.subnet().manager().sl);
         return lid != 0;
     }},
};

EventType read_event_type(ScriptLine& line) {
    for (const EventType& row : event_types)
        if (line.take(row.name))
            return row;
    const auto number = line.number_if("TYPE", std::numeric_limits<std::uint32_t>::max());
    if (!number)
        line.fail("\"" + line.word("TYPE") + "\" is no type of event");
    return {"", static_cast<std::uint32_t>(*number), 0,
            [](fabric::Fabric&, int, std::uint64_t) { return false; }};
}

}  // namespace

std::string list_faults(bool sa) {
    std::string list;
    for (const PacketFault& fault : packet_faults)
        list += std::string(fault.name) + (fault.counts ? " [N], " : " TICKS, ");
    list += "drop all, ";
    for (const AnswerFault& fault : answer_faults)
        if (sa)
            list += std::string(fault.name) + " N [next COUNT], ";
    return list + "clear";
}

FabricAction read_fault_action(ScriptLine& line, const ScriptReading& reading) {
    const Target target = read_target(line, reading);
    std::vector<FabricAction> faults;
    do
        faults.push_back(read_fault(line, target));
    while (!line.at_end());
    return [faults](fabric::Fabric& fabric) {
        for (const FabricAction& apply : faults)
            apply(fabric);
    };
}

FabricAction read_event_action(ScriptLine& line, const ScriptReading& reading) {
    const EventType event = read_event_type(line);
    if (!line.take("port"))
        line.fail("port is missing");
    const int port = reading.port(line);
    const std::uint64_t value =
        event.most > 0 && line.take("to") ? line.number("VALUE", event.most) : 0;
    if (event.type == gx_async_r_port_sm_change && value != 0 && line.take("sl"))
        return [value, sl = line.number("sl", 15)](fabric::Fabric& fabric) {
            fabric.move_sm(static_cast<std::uint16_t>(value), static_cast<std::uint8_t>(sl));
        };
    return [event, port, value](fabric::Fabric& fabric) {
        if (!event.change(fabric, port, value))
            fabric.raise_event(event.type, port);
    };
}

namespace {

ScriptAction on_fabric(FabricAction act) {
    return [act = std::move(act)](ScriptHost& host, const std::string&) { act(host.fabric()); };
}

/* What a peer is made to have or to do. */
FabricAction read_peer_action(ScriptLine& line, std::uint32_t ip) {
    if (line.take("asks"))
        return [ip](fabric::Fabric& fabric) { fabric.peer_asks(ip); };
    if (line.take("announces"))
        return [ip](fabric::Fabric& fabric) { fabric.peer_announces(ip); };
    if (line.take("up"))
        return [ip](fabric::Fabric& fabric) { fabric.set_peer_link(ip, true); };
    if (line.take("down"))
        return [ip](fabric::Fabric& fabric) { fabric.set_peer_link(ip, false); };
    if (line.take("gid"))
        return [ip, gid = fabric::wire(line.gid("GID"))](fabric::Fabric& fabric) {
            fabric.change_peer(ip, {.gid = gid});
        };
    if (line.take("lid"))
        return [ip, lid = line.number("lid", fabric::last_unicast_lid)](fabric::Fabric& fabric) {
            fabric.subnet().set_lid(fabric.peers().station(ip).at, static_cast<std::uint16_t>(lid));
        };
    if (line.take("qpn"))
        return [ip, qpn = line.number("qpn", 0xFFFFFF)](fabric::Fabric& fabric) {
            fabric.change_peer(ip, {.qpn = static_cast<std::uint32_t>(qpn)});
        };
    line.fail("\"" + line.word("asks, announces, up, down, gid, lid or qpn") +
              "\" is nothing that a peer does");
}

fabric::Packet make_packet(bool mad, const std::string& payload) {
    fabric::Packet packet;
    packet.slid = 1;
    packet.src_qp = packet.dest_qp = mad ? fabric::gsi_qp : fabric::multicast_qp;
    packet.qkey = mad ? fabric::gsi_qkey : fabric::broadcast_qkey;
    packet.payload.assign(payload.begin(), payload.end());
    return packet;
}

}  // namespace

ScriptAction read_fabric_fault(ScriptLine& line, ScriptReading& reading) {
    return on_fabric(read_fault_action(line, reading));
}

ScriptAction read_event(ScriptLine& line, ScriptReading& reading) {
    return on_fabric(read_event_action(line, reading));
}

ScriptAction read_peer(ScriptLine& line, ScriptReading& reading) {
    const std::uint32_t ip = read_peer_ip(line, reading, "PEER");
    return on_fabric(read_peer_action(line, ip));
}

ScriptAction read_pkeys(ScriptLine& line, ScriptReading& reading) {
    if (!line.take("port"))
        line.fail("port is missing");
    const int port = reading.port(line);
    std::vector<std::uint16_t> table;
    do
        table.push_back(static_cast<std::uint16_t>(line.number("VALUE", 0xFFFF)));
    while (!line.at_end());
    return on_fabric([port, table](fabric::Fabric& fabric) { fabric.set_pkeys(port, table); });
}

/* It arrives as it is, at once, in the context in which such packets arrive. */
ScriptAction read_packet(ScriptLine& line, ScriptReading& reading) {
    const bool mad = line.take("mad");
    if (!mad && !line.take("ipoib"))
        line.fail("mad or ipoib is missing");
    if (!line.take("port"))
        line.fail("port is missing");
    const int port = reading.port(line);
    std::optional<int> size;
    if (mad && line.take("size"))
        size = static_cast<int>(line.number("size", any_unsigned));
    const fabric::Packet packet = make_packet(mad, line.at_end() ? "" : line.bytes("HEX"));
    return [mad, port, size, packet](ScriptHost& host, const std::string&) {
        fabric::Fabric& fabric = host.fabric();
        if (size)
            fabric.gsi().report_size_next(*size);
        host.kernel().schedule(mad ? host::Context::gsi : host::Context::driver, 0, [=, &fabric] {
            mad ? fabric.gsi().receive(port, packet) : fabric.ipoib().receive(port, packet);
        });
    };
}

}  // namespace app
