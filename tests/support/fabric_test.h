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
        Lines lines = told("tarv_sa");
        for (std::string& line : lines)
            line = without_pointers(line);
        return lines;
    }

    fabric::Fabric fabric;

  private:
    /// A pointer is printed as 16 small hexadecimal digits.
    static std::string without_pointers(const std::string& line) {
        std::string result;
        for (std::size_t at = 0; at < line.size();) {
            const std::size_t end =
                std::min(line.find_first_not_of("0123456789abcdefABCDEF", at), line.size());
            const std::string run = line.substr(at, end - at);
            if (run.size() != 16 || run.find_first_of("ABCDEF") != std::string::npos)
                result += run;
            else
                result += run.find_first_not_of('0') == std::string::npos ? "null" : "P";
            result += line.substr(end, 1);
            at = end + 1;
        }
        return result;
    }
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
