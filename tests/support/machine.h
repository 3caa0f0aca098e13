// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The one machine of the tests, and its fabric: our host and three others on one switch, which is
// also where the subnet manager sits, LID 1. Our ports have the GUIDs 0x1001, 0x1002, ... and the
// LIDs 11, 12,
// ...; Bob has 0x2001 and 21, Carol 0x3001 and 31, Dave 0x4001 and the first LID that is free. In
// this order they have the addresses 10.0.0.1 to 10.0.0.4.
#pragma once

#include <span>
#include <sstream>
#include <string>

#include "app/machine.h"

namespace support {

inline fabric::Topology read_fabric(const std::string& text) {
    std::istringstream in(text);
    return fabric::read_topology(in, "small");
}

inline fabric::Topology small_fabric(int our_ports = 2) {
    std::ostringstream text;
    text << "switchguid=0x200000\nSwitch 32 \"Sw\"\n"
            "[1] \"Bob\"[1] # 4xSDR\n[2] \"Carol\"[1] # 4xQDR\n[3] \"Dave\"[1] # 4xQDR\n"
            "caguid=0x1000\nHca "
         << our_ports << " \"Us\"\n";
    for (int n = 1; n <= our_ports; n++)
        text << "[" << n << "](" << 1000 + n << ") \"Sw\"[" << 10 + n << "] # lid " << 10 + n
             << " lmc 0 \"Sw\" lid 1 4xQDR\n";
    text << "caguid=0x2000\nHca 1 \"Bob\"\n[1](2001) \"Sw\"[1] # lid 21 lmc 0 \"Sw\" lid 1 4xSDR\n"
            "caguid=0x3000\nHca 1 \"Carol\"\n"
            "[1](3001) \"Sw\"[2] # lid 31 lmc 0 \"Sw\" lid 1 4xQDR\n"
            "caguid=0x4000\nHca 1 \"Dave\"\n[1](4001) \"Sw\"[3] # 4xQDR\n";
    return read_fabric(text.str());
}

/// That machine in virtual time. The module is not loaded yet, and will log nothing.
class SmallMachine : public app::Machine {
  public:
    explicit SmallMachine(int our_ports = 2, const fabric::FabricOptions& options = {})
        : Machine({small_fabric(our_ports), fabric::deal_addresses(small_fabric(our_ports)), 0}, {},
                  {}, {}, options) {
        host::set_repository_value("quorvane/modules/tarv/", "debug-level", 0);
    }
};

/// 10.0.0.N.
inline std::uint32_t host_ip(int number) {
    return *fabric::parse_ip("10.0.0." + std::to_string(number));
}

/// The default-prefix GID of a port, as it stands on the wire and in the module's order.
inline fabric::Gid wire_gid(std::uint64_t guid) {
    return fabric::make_gid(fabric::default_subnet_prefix, guid);
}
inline gx_gid_t port_gid(std::uint64_t guid) {
    return fabric::held(wire_gid(guid));
}

/// Bytes as "00 01 ff ", a blank after each.
inline std::string hex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += host::kformat("%02x ", byte);
    return text;
}

}  // namespace support
