// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ground of tests that need an adapter: a small fabric, and the console with its pointers made
// comparable.
//
// Our host has ports with the GUIDs 0x1001, 0x1002, ... and the LIDs 11, 12, ...; Bob has 0x2001
// and LID 31; the subnet manager sits on the switch, LID 1.
#pragma once

#include <span>
#include <sstream>
#include <string>

#include "fabric/fabric.h"
#include "tarv/tarv-sa.h"
#include "tests/support/kernel_test.h"

namespace support {

inline fabric::Topology site(int our_ports) {
    std::ostringstream text;
    text << "switchguid=0x200000\nSwitch 32 \"Sw\"\n[32] \"Bob\"[1]\n";
    for (int n = 1; n <= our_ports; n++)
        text << "[" << n << "] \"Us\"[" << n << "]\n";
    text << "caguid=0x1000\nHca " << our_ports << " \"Us\"\n";
    for (int n = 1; n <= our_ports; n++)
        text << "[" << n << "](" << 1000 + n << ") \"Sw\"[" << n << "] # lid " << 10 + n
             << " lmc 0 \"Sw\" lid 1 4xQDR\n";
    text
        << "caguid=0x2000\nHca 1 \"Bob\"\n[1](2001) \"Sw\"[32] # lid 31 lmc 0 \"Sw\" lid 1 4xQDR\n";
    std::istringstream in(text.str());
    return fabric::read_topology(in, "site");
}

/// Bytes as "00 01 ff ", a blank after each.
inline std::string hex(std::span<const u8> bytes) {
    std::string text;
    for (const u8 byte : bytes)
        text += host::kformat("%02x ", byte);
    return text;
}

/// The default-prefix GID of a port, in the module's order.
inline gx_gid_t port_gid(std::uint64_t guid) {
    return fabric::held(fabric::make_gid(fabric::default_subnet_prefix, guid));
}

class FabricTest : public KernelTest {
  protected:
    explicit FabricTest(int our_ports = 2)
        : fabric(site(our_ports), fabric::deal_addresses(site(our_ports)), 0) {}

    /// told(), with every pointer as "P", or "null".
    Lines masked() {
        static const std::regex null("\\b0{16}\\b"), pointer("([^0-9A-Fa-f])[0-9a-f]{16}\\b");
        Lines lines = told("tarv_sa");
        for (std::string& line : lines)
            line = std::regex_replace(std::regex_replace(line, null, "null"), pointer, "$1P");
        return lines;
    }

    fabric::Fabric fabric;
};

/// The same with the SA client on it, all its ports still to be set up.
class SaTest : public FabricTest {
  protected:
    explicit SaTest(int our_ports = 2) : FabricTest(our_ports) { tarv_sa_start(); }
    void TearDown() override {
        tarv_sa_cleanup();
        kernel.advance(20000);  // requests that the fabric still remembers are forgotten
        EXPECT_EQ(atomic_read(&tarv_gsi_pending_cnt), 0);
        FabricTest::TearDown();
    }
};

}  // namespace support
