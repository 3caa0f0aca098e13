// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The tests' fabric in virtual time without a module, seen through the waist's calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/check.h"
#include "host/faults.h"
#include "host/kernel.h"
#include "tests/support/site.h"

namespace fabric_testing {

using support::read, support::site;

inline std::uint32_t ip(int n) {
    return support::host_ip(n);
}
/// Bytes as "00 01 ff".
inline std::string hex(std::span<const std::uint8_t> bytes) {
    std::string text = support::hex(bytes);
    if (!text.empty())
        text.pop_back();
    return text;
}
inline fabric::Gid gid(std::uint64_t guid) {
    return support::wire_gid(guid);
}

class World {
  public:
    explicit World(const fabric::FabricOptions& options = {}) : World(site(), options) {}
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
