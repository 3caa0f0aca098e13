// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A small fabric in virtual time for tests: our host with two ports and three others on one switch,
// seen through the waist's calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "fabric/fabric.h"
#include "host/check.h"
#include "host/faults.h"
#include "host/kernel.h"

namespace fabric_testing {

inline constexpr char site[] = R"(
switchguid=0x200000
Switch	8 "Sw"
[1]	"Us"[1]	# 4xQDR
[2]	"Us"[2]	# 4xQDR
[3]	"Bob"[1]	# 4xSDR
[4]	"Carol"[1]	# 4xQDR
[5]	"Dave"[1]	# 4xQDR

caguid=0x1000
Hca	2 "Us"
[1](1001)	"Sw"[1]	# lid 11 lmc 0 "Sw" lid 1 4xQDR
[2](1002)	"Sw"[2]	# lid 12 lmc 0 "Sw" lid 1 4xQDR

caguid=0x2000
Hca	1 "Bob"
[1](2001)	"Sw"[3]	# lid 21 lmc 0 "Sw" lid 1 4xSDR

caguid=0x3000
Hca	1 "Carol"
[1](3001)	"Sw"[4]	# lid 31 lmc 0 "Sw" lid 1 4xQDR

caguid=0x4000
Hca	1 "Dave"
[1](4001)	"Sw"[5]	# 4xQDR
)";

/// 10.0.0.N, as the hosts' addresses are dealt out: 1 is ours, 2 Bob's, 3 Carol's, 4 Dave's.
inline std::uint32_t ip(int n) {
    return *fabric::parse_ip("10.0.0." + std::to_string(n));
}

inline fabric::Topology read(const std::string& text) {
    std::istringstream in(text);
    return fabric::read_topology(in, "site");
}

inline fabric::Gid gid(std::uint64_t guid) {
    return fabric::make_gid(fabric::default_subnet_prefix, guid);
}

/// Bytes as "00 01 ff".
inline std::string hex(std::span<const std::uint8_t> bytes) {
    std::string text;
    char number[4];
    for (std::uint8_t byte : bytes) {
        std::snprintf(number, sizeof number, "%02x ", byte);
        text += number;
    }
    if (!text.empty())
        text.pop_back();
    return text;
}

class World {
  public:
    explicit World(const fabric::FabricOptions& options = {}, const std::string& text = site)
        : World(read(text), options) {}
    World(const fabric::Topology& topology, const fabric::FabricOptions& options)
        : fabric(topology, deal_addresses(topology), 0, options) {}

    host::Kernel kernel;
    fabric::Fabric fabric;
};

class FabricTest : public testing::Test {
  protected:
    World world;
    host::Kernel& kernel = world.kernel;
    fabric::Fabric& fabric = world.fabric;
};

}  // namespace fabric_testing
