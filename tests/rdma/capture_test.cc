// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a capture shows to somebody who has never seen this code: tshark reads it field by field.
#include <chrono>

#include "tests/support/gsi_client.h"
#include "tests/support/program.h"
#include "tests/support/tools.h"

namespace {

using fabric_testing::GsiClient, fabric_testing::SmallMachine;
using support::shell, support::temporary;

/* The fields of the packets that a filter lets through, a line each, blanks between. */
std::string fields(const std::string& file, const std::string& filter,
                   const std::vector<std::string>& names) {
    std::string command = "tshark -r " + file + " -Y '" + filter + "' -T fields -E separator=/s";
    for (const std::string& name : names)
        command += " -e " + name;
    return shell(command).out;
}

TEST(Capture, IsReadAsItWasSent) {
    SKIP_WITHOUT_PROGRAMS("tshark");
    using std::chrono::system_clock;
    const std::string file = temporary("erf");
    const auto seconds = [] {
        return std::to_string(system_clock::to_time_t(system_clock::now()));
    };
    const std::string before = seconds();
    {
        SmallMachine machine;
        GsiClient client;
        machine.fabric().tap().capture_to(file);
        client.ask(0x2001, {fabric_testing::gid(0x1001), fabric_testing::gid(0x1002)});
        machine.fabric().peer_announces(support::host_ip(2));
        host::Kernel::current().advance(2);
        EXPECT_TRUE(machine.fabric().tap().stop_capture());
    }
    const std::string after = seconds();
    const std::vector<std::string> mad = {
        "infiniband.lrh.slid",        "infiniband.lrh.dlid",      "infiniband.mad.method",
        "infiniband.mad.attributeid", "infiniband.rmpp.rmpptype", "infiniband.rmpp.segmentnumber"};
    EXPECT_EQ(fields(file, "infiniband.mad.method", mad),
              "11 1 0x14 0x003a 0x01 0x00000001\n"
              "1 11 0x94 0x003a 0x02 0x00000001\n"
              "11 1 0x14 0x003a 0x02 0x00000000\n"
              "1 11 0x94 0x0035 0x01 0x00000001\n"
              "11 1 0x14 0x0035 0x02 0x00000001\n");
    EXPECT_EQ(fields(file, "infiniband.rmpp.rmpptype == 1 && infiniband.mad.attributeid == 0x3a",
                     {"infiniband.sa.componentmask", "infiniband.multipathrecord.numbpath",
                      "infiniband.multipathrecord.p_key", "infiniband.multipathrecord.sgidcount",
                      "infiniband.multipathrecord.dgidcount", "infiniband.multipathrecord.sdgid"}),
              "0x00007000001c00c0 0x03 0xffff 0x02 0x01 fe80::1001,fe80::1002,fe80::2001\n");
    EXPECT_EQ(fields(file, "infiniband.rmpp.rmpptype == 1 && infiniband.mad.attributeid == 0x35",
                     {"infiniband.rmpp.payloadlength", "infiniband.pathrecord.sgid",
                      "infiniband.pathrecord.dgid", "infiniband.pathrecord.slid",
                      "infiniband.pathrecord.dlid", "infiniband.pathrecord.p_key",
                      "infiniband.pathrecord.mtu", "infiniband.pathrecord.rate"}),
              "0x00000094 fe80::1001 fe80::2001 0x000b 0x0015 0xffff 0x04 0x03\n");
    EXPECT_EQ(fields(file, "arp",
                     {"arp.hw.type", "arp.hw.size", "arp.opcode", "arp.src.proto_ipv4",
                      "arp.dst.proto_ipv4"}),
              "32 20 2 10.0.0.2 10.0.0.1\n");
    EXPECT_EQ(fields(file, "_ws.malformed || _ws.short", {"frame.number"}), "");
    EXPECT_EQ(
        fields(file, "frame.time_epoch < " + before + " || frame.time_epoch > " + after + ".999999",
               {"frame.number", "frame.time_epoch"}),
        "");
}

TEST(Capture, EndsWithTheLastPacketThatFitsOnTheDisk) {
    const std::string file = temporary("erf");
    const std::string said =
        shell("(trap '' XFSZ; ulimit -f 8; " TARV_HOST " run --resolve-all -q --capture " + file +
              "; echo \"status $?\") | cat")
            .out;
    EXPECT_NE(said.find("The capture is not whole: "), std::string::npos) << said;
    EXPECT_TRUE(said.ends_with("\nstatus 1\n")) << said;
    SKIP_WITHOUT_PROGRAMS("tshark");
    const support::Result read = shell("tshark -r " + file + " -T fields -e frame.number");
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_GT(std::ranges::count(read.out, '\n'), 10);
}

}  // namespace
