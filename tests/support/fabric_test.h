// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The tests' machine without its module: the fabric, seen through the waist's calls.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/check.h"
#include "host/faults.h"
#include "host/kernel.h"
#include "tests/support/machine.h"

namespace fabric_testing {

using support::read_fabric, support::SmallMachine;

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

class FabricTest : public testing::Test {
  protected:
    support::SmallMachine machine;
    host::Kernel& kernel = machine.kernel();
    fabric::Fabric& fabric = machine.fabric();
};

}  // namespace fabric_testing
