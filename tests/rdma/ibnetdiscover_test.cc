// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the real ibnetdiscover prints, in all its styles, of one fabric: it loads as that fabric, or
// is refused with what to do.
#include <gmock/gmock.h>

#include "fabric/subnet.h"
#include "tests/support/machine.h"
#include "tests/support/opensm.h"

namespace {

using fabric::Topology;
using support::Ground;

/* Two adapters in one host, a second host, and a switch's engine for reductions, which is none. */
const char net[] = R"(
Switch 8 "leaf01"
[1] "node01 HCA-1"[1] # lid 0 4xQDR
[2] "node01 HCA-2"[1] # lid 0 4xDDR
[3] "node02 HCA-1"[1] # lid 0 12xSDR
[4] "Aggregation Node"[1] # lid 0 4xQDR
[5] "leaf02"[5] # lid 0 1xSDR

Switch 8 "leaf02"
[5] "leaf01"[5] # lid 0 1xSDR

Hca 1 "node01 HCA-1"
[1] "leaf01"[1] # lid 0 lmc 0 "leaf01" lid 0 4xQDR

Hca 1 "node01 HCA-2"
[1] "leaf01"[2] # lid 0 lmc 0 "leaf01" lid 0 4xDDR

Hca 1 "node02 HCA-1"
[1] "leaf01"[3] # lid 0 lmc 0 "leaf01" lid 0 12xSDR

Hca 1 "Aggregation Node"
[1] "leaf01"[4] # lid 0 lmc 0 "leaf01" lid 0 4xQDR
)";

/* All that the program knows of the fabric. */
std::string summary(const std::string& text) {
    const Topology topology = support::read_fabric(text);
    std::ostringstream out;
    write_topology(out, topology);
    const std::vector<fabric::Host> hosts = deal_addresses(topology);
    for (const fabric::Host& host : hosts)
        out << host.machine() << " rail \"" << host.rail << "\"\n";
    if (const auto node01 = choose_host(topology, hosts, "node01"))
        out << "node01 is " << hosts[*node01].rail << "\n";
    const int seat = fabric::Subnet(topology, {}).manager().at.node;
    out << "manager at " << topology.nodes[static_cast<std::size_t>(seat)].name << "\n";
    return out.str();
}

std::string without_blank_lines(const std::string& text) {
    std::istringstream in(text);
    std::string all;
    for (std::string line; std::getline(in, line);)
        all += line.empty() ? "" : line + "\n";
    return all;
}

std::string refusal(const std::string& text) {
    try {
        support::read_fabric(text);
    } catch (const fabric::InputError& error) {
        return error.what();
    }
    return "none";
}

TEST(Ibnetdiscover, LoadsInEveryStyleOrIsRefusedWithTheCure) {
    SKIP_WITHOUT_OPENSM();
    Ground ground(net, "node02 HCA-1");
    const std::string plain = summary(ground.picture());
    EXPECT_THAT(plain,
                testing::AllOf(testing::HasSubstr("1xSDR"), testing::HasSubstr("4xDDR"),
                               testing::HasSubstr("12xSDR"),
                               testing::HasSubstr("\nnode02 rail \"\"\nnode01 rail \"HCA-2\"\n"
                                                  "node01 rail \"HCA-1\"\nnode01 is HCA-1\n"
                                                  "manager at node01 HCA-1\n")));
    for (const char* const style :
         {"-s", "-g", "-f", "-s -g", "-f -s", "-f -g", "-f -s -g", "-m", "-v"}) {
        const std::string text = ground.picture(style);
        EXPECT_EQ(summary(text), plain) << style;
        EXPECT_EQ(summary(without_blank_lines(text)), plain) << style << ", no blank lines";
    }
    for (const char* const report : {"-l", "-H", "-S", "-p"})
        EXPECT_THAT(refusal(ground.picture(report)),
                    testing::AllOf(testing::HasSubstr(report),
                                   testing::HasSubstr("without that option is a topology")));
    EXPECT_THAT(refusal(ground.picture("-R")), testing::HasSubstr("describes no node"));
}

}  // namespace
