// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Fabrics and host lists as files describe them: what is understood, what is refused and where.

#include "fabric/topology.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>
#include <sstream>

namespace fabric {
namespace {

Topology read(const std::string& text) {
    std::istringstream in(text);
    return read_topology(in, "fab");
}

const Node& node_called(const Topology& topology, const std::string& id) {
    for (const Node& node : topology.nodes) {
        if (node.id == id)
            return node;
    }
    throw std::out_of_range(id);
}

const Port& port(const Topology& topology, const std::string& id, std::size_t number) {
    return node_called(topology, id).ports.at(number);
}

/// What is wrong with an input, or nothing.
std::string complaint(const std::function<void()>& attempt) {
    try {
        attempt();
    } catch (const InputError& error) {
        return error.what();
    }
    return {};
}

template <typename Case>
std::string case_name(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

// One adapter "A" on port 1 of switch "S"; quirks are tried in its place.
const std::string pair = "Switch 4 \"S\"\n[1] \"A\"[1]\nCa 2 \"A\"\n[1] \"S\"[1]\n";

// --- What is understood --------------------------------------------------------------------------

struct Quirk {
    const char* name;
    std::string text;
    const char* node;  // the port to look at ...
    std::size_t port;
    std::function<std::uint64_t(const Port&)> field;  // ... and what of it
    std::uint64_t expected;
};

std::uint64_t guid(const Port& p) {
    return p.guid;
}
std::uint64_t lid(const Port& p) {
    return p.lid;
}
std::uint64_t lmc(const Port& p) {
    return p.lmc;
}
std::uint64_t rate(const Port& p) {
    return p.rate;
}
std::uint64_t mtu(const Port& p) {
    return p.mtu;
}
std::uint64_t linked(const Port& p) {
    return p.linked ? 1 : 0;
}
std::uint64_t remote_port(const Port& p) {
    return static_cast<std::uint64_t>(p.remote_port);
}

/// A switch of which one line, the link to "A"[1], is the case's.
std::string switch_line(const std::string& line) {
    return "Ca 2 \"A\"\nSwitch 4 \"S\"\n" + line;
}
/// An adapter of which one line, the link to "S"[1], is the case's.
std::string adapter_line(const std::string& line) {
    return "Switch 4 \"S\"\nCa 2 \"A\"\n" + line;
}
std::string record(const std::string& lines) {
    return "Ca 2 \"A\"\n" + lines;
}

class Quirks : public testing::TestWithParam<Quirk> {};

TEST_P(Quirks, AreUnderstood) {
    const Quirk& quirk = GetParam();
    const Topology topology = read(quirk.text);
    EXPECT_EQ(quirk.field(port(topology, quirk.node, quirk.port)), quirk.expected) << quirk.text;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Topology, Quirks, testing::Values(
    Quirk{"listed_from_both_ends", pair, "A", 1, linked, 1},
    Quirk{"listed_by_the_switch_only", switch_line("[3] \"A\"[2]"), "A", 2, remote_port, 3},
    Quirk{"listed_by_the_adapter_only", adapter_line("[2] \"S\"[4]"), "S", 4, remote_port, 2},
    Quirk{"blanks_anywhere", switch_line("  [ 3 ]\t\"A\" [ 2 ]  "), "A", 2, remote_port, 3},
    Quirk{"crlf", "Ca 2 \"A\"\r\nSwitch 4 \"S\"\r\n\r\n[3] \"A\"[2]\r\n", "A", 2, remote_port, 3},
    Quirk{"no_newline_at_the_end_and_comments",
        "#x\nCa 2 \"A\" # \"a\n  # y\n" + std::string("Switch 4 \"S\"#z\n[3] \"A\"[2]#"), "A",
        2, remote_port, 3},
    Quirk{"hash_in_an_id", "Ca 1 \"A#1\"\nSwitch 4 \"S\"\n[2] \"A#1\"[1] # x", "A#1", 1, remote_port, 2},
    Quirk{"chassis_headings_and_external_ports",
        "DR path slid 0; dlid 0; 0 -> new remote ca {0008} portnum 1 lid 1-1 \"x\"\n"
              "Chassis 1 (guid 0x8)\nNon-Chassis Nodes\n" +
        switch_line("[3][ext 7] \"A\"[2](1f)[ext 9]"),
        "A", 2, remote_port, 3},
    Quirk{"hca_is_an_adapter", "Hca 1 \"A\"\nRt 1 \"R\"\n[1] \"A\"[1]", "A", 1, linked, 1},
    Quirk{"cable_between_two_ports_of_a_node", record("[1] \"A\"[2]"), "A", 2, remote_port, 1},
    Quirk{"unknown_properties", "vendid=0x2c\ndevid=1013\nsysimgguid=0x5\nlinkwidth=4x\n" + pair, "A", 1, linked, 1},
    Quirk{"port_guid_at_the_near_end", adapter_line("[1](0xabc) \"S\"[1]"), "A", 1, guid, 0xabc},
    Quirk{"port_guid_at_the_far_end", switch_line("[1] \"A\"[1](abc)"), "A", 1, guid, 0xabc},
    Quirk{"port_guid_behind_the_nodes", "caguid=0x0f0(0f9)\n" + record(""), "A", 1, guid, 0xf9},
    Quirk{"port_guid_from_the_nodes", "caguid=f0\n" + record(""), "A", 2, guid, 0xf2},
    Quirk{"port_guid_from_the_nodes_unless_taken", "caguid=f0\n" + record("") + "caguid=f2\nCa 1 \"B\"", "A", 2, guid, 0x100000},
    Quirk{"port_guid_from_the_id", "Ca 1 \"H-0a1b2c03001c2a10\"", "H-0a1b2c03001c2a10", 1, guid, 0x0a1b2c03001c2a11},
    Quirk{"switch_guid_is_port_0s", "switchguid=0xf0(f1)\n" + switch_line("").substr(9) + record(""), "S", 0, guid, 0xf1},
    Quirk{"adapter_guids_made", pair, "A", 2, guid, 0x100002},
    Quirk{"switch_guids_made", pair, "S", 0, guid, 0x200000},
    Quirk{"made_guids_avoid_given_ones", "caguid=0x100001(0x100000)\nCa 1 \"B\"\n" + record(""), "A", 1, guid, 0x100003},
    Quirk{"lid_in_an_adapters_line", adapter_line("[1] \"S\"[1] # lid 5 lmc 2 \"s\" lid 9 4xQDR"), "A", 1, lid, 5},
    Quirk{"lmc_in_an_adapters_line", adapter_line("[1] \"S\"[1] # lid 4 lmc 2 \"s\" lid 9 4xQDR"), "A", 1, lmc, 2},
    Quirk{"switchs_lid_in_an_adapters_line", adapter_line("[1] \"S\"[1] # lid 5 lmc 2 \"s\" lid 9 4xQDR"), "S", 0, lid, 9},
    Quirk{"adapters_lid_in_a_switchs_line", switch_line("[1] \"A\"[1] # \"a\" lid 5 4xQDR"), "A", 1, lid, 5},
    Quirk{"adapters_lid_without_a_name", switch_line("[1] \"A\"[1] # lid 5"), "A", 1, lid, 5},
    Quirk{"lid_words_in_a_name_are_a_name", switch_line("[1] \"A\"[1] # \"a lid 7 4xEDR # b\" lid 5"), "A", 1, lid, 5},
    Quirk{"switchs_lid_in_its_record", record("Switch 1 \"S\" # \"s\" enhanced port 0 lid 49151 lmc 0"), "S", 0, lid, 49151},
    Quirk{"lid_0_is_none", switch_line("[1] \"A\"[1] # \"a\" lid 0 4xQDR"), "A", 1, lid, 0},
    Quirk{"rate_in_the_comment", switch_line("[1] \"A\"[1] # \"a\" lid 5 12xEDR"), "A", 1, rate, 18},
    Quirk{"rate_missing_is_4xSDR", pair, "S", 1, rate, 3},
    Quirk{"rate_by_width", switch_line("[1] \"A\"[1] w=12"), "S", 1, rate, 4},
    Quirk{"rate_of_the_slower_end", adapter_line("[1] \"S\"[1] # 1xFDR\nSwitch 2 \"T\"\n[1] \"T\"[2] # 4xSDR"), "A", 1, rate, 11},
    Quirk{"two_rates_are_not_compared_by_code", "Ca 1 \"A\"\n[1] \"B\"[1] # 4xFDR\nCa 1 \"B\"\n[1] \"A\"[1] # 12xQDR", "A", 1, rate, 12},
    Quirk{"mtu_in_the_comment", switch_line("[1] \"A\"[1] # \"a\" lid 5 4xQDR mtu 2048"), "A", 1, mtu, 4},
    Quirk{"unknown_words_in_comments", switch_line("[1] \"A\"[1] # a's 3\" panel, lid open, slot 4 4xZDR"), "A", 1, rate, 3}), case_name<Quirk>);
// clang-format on

TEST(Topology, NamesComeFromTheRecordsComment) {
    const Topology topology = read(
        "Ca 1 \"A\" # \"node17 HCA-1\"\nCa 1 \"B\" # no name\nCa 1 \"C\" # \"\"\n"
        "Switch 1 \"D\"\t# \"Leaf #6\" base port 0 lid 10 lmc 0\n");
    std::vector<std::string> names;
    for (const Node& node : topology.nodes)
        names.push_back(node.name);
    EXPECT_THAT(names, testing::ElementsAre("node17 HCA-1", "B", "C", "Leaf #6"));
}

// --- What is refused -----------------------------------------------------------------------------

struct Refusal {
    const char* name;
    std::string text;
    std::string message;
};

class Refusals : public testing::TestWithParam<Refusal> {};

TEST_P(Refusals, NameTheLineAndTheFault) {
    EXPECT_EQ(complaint([] { read(GetParam().text); }), GetParam().message) << GetParam().text;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Topology, Refusals, testing::Values(
    Refusal{"empty_file", "", "fab:1: the file describes no node, expected at least one adapter (Ca or Hca)"},
    Refusal{"no_adapter", "\nSwitch 4 \"S\"\n", "fab:2: the fabric has no adapter, expected at least one (Ca or Hca)"},
    Refusal{"unknown_line", "Ca 1 \"A\"\n  Tca 1 \"B\"",
        "fab:2: found \"Tca 1 \"B\"\", expected a node (Switch, Ca, Hca or Rt), a link "
        "([port] \"node\"[port]) or a GUID line"},
    Refusal{"node_report", "Ca : 0x0008f10403960558 ports 2 devid 0x5a44 \"host1\"",
        "fab:1: this is a list of nodes, as ibnetdiscover -l, -H or -S prints it; what it prints "
        "without that option is a topology, which this is not"},
    Refusal{"port_report", "CA 3 1 0x0008f10403960559 4x QDR - SW 1 1", "fab:1: this is a list of ports, as "
        "ibnetdiscover -p prints it; what it prints without that option is a topology, which this is not"},
    Refusal{"unknown_property", "nodeguid=0x1", "fab:1: found \"nodeguid\"=, expected vendid, devid, sysimgguid, switchguid, caguid or rtguid"},
    Refusal{"no_ports", "Ca \"A\"", "fab:1: found \"\"A\"\", expected number of ports"},
    Refusal{"zero_ports", "Ca 0 \"A\"", "fab:1: number of ports 0 is outside 1 to 254"},
    Refusal{"too_many_ports", "Ca 255 \"A\"", "fab:1: number of ports 255 is outside 1 to 254"},
    Refusal{"half_a_number", "Ca 1x \"A\"", "fab:1: number of ports \"1x\" is not a decimal number"},
    Refusal{"endless_id", "Ca 1 \"A", "fab:1: the quote before \"A\" is never closed"},
    Refusal{"bare_id", "Ca 1 A", "fab:1: found \"A\", expected the node's id in quotes"},
    Refusal{"text_after_a_record", "Ca 1 \"A\" B", "fab:1: found \"B\", expected nothing more after the node's id"},
    Refusal{"node_twice", "Ca 1 \"A\"\n\nCa 1 \"A\"", "fab:3: node \"A\" is described twice, first in line 1"},
    Refusal{"link_before_a_node", "[1] \"A\"[1]", "fab:1: found a link, expected a node before it"},
    Refusal{"link_to_nowhere", record("[1] \"B\"[1]\n#"), "fab:2: the link goes to \"B\", a node that is not described"},
    Refusal{"own_port_out_of_range", record("[3] \"A\"[1]"), "fab:2: node \"A\" has ports 1 to 2, not 3"},
    Refusal{"far_port_out_of_range", record("[1] \"B\"[9]\nSwitch 8 \"B\""), "fab:2: the link goes to port 9 of \"B\", which has ports 1 to 8"},
    Refusal{"port_zero", record("[0] \"A\"[1]"), "fab:2: port number 0 is outside 1 to 254"},
    Refusal{"linked_to_itself", record("[1] \"A\"[1]"), "fab:2: port \"A\"[1] is linked to itself"},
    Refusal{"listed_twice", record("[1] \"A\"[2]\n[1] \"A\"[2]"), "fab:3: port 1 of \"A\" is listed twice, first in line 2"},
    Refusal{"ends_that_disagree", "Switch 4 \"S\"\n[1] \"A\"[1]\nCa 2 \"A\"\n[1] \"S\"[2]",
        "fab:4: port \"A\"[1] is linked to \"S\"[2] here, but to \"S\"[1] in line 2"},
    Refusal{"two_links_into_one_port", "Switch 4 \"S\"\n[1] \"A\"[1]\n[2] \"A\"[1]\nCa 2 \"A\"",
        "fab:3: port \"A\"[1] is linked to \"S\"[2] here, but to \"S\"[1] in line 2"},
    Refusal{"unclosed_port", record("[1 \"A\"[2]"), "fab:2: found \"\"A\"[2]\", expected ']' after the port number"},
    Refusal{"link_without_a_far_port", record("[1] \"A\""), "fab:2: found the end of the line, expected '[' and a port number"},
    Refusal{"text_after_a_link", record("[1] \"A\"[2] up"), "fab:2: found \"up\", expected a comment or the end of the line after the link"},
    Refusal{"width_unknown", record("[1] \"A\"[2] w=5"), "fab:2: width \"5\" is none of 1, 2, 4, 8, 12"},
    Refusal{"guid_not_hexadecimal", "caguid=0x12g4\n" + record(""), "fab:1: caguid \"0x12g4\" is not a 64-bit hexadecimal number"},
    Refusal{"guid_too_long", "caguid=0x11112222333344445\n" + record(""),
        "fab:1: caguid \"0x11112222333344445\" is not a 64-bit hexadecimal number"},
    Refusal{"guid_zero", record("[1](0) \"A\"[2]"), "fab:2: port GUID is 0"},
    Refusal{"guid_of_another_kind", "switchguid=5\n" + record(""), "fab:2: the GUID in line 1 is one of another kind of node than \"A\""},
    Refusal{"guid_without_a_node", record("caguid=5\n\n"), "fab:2: found a GUID, expected a node after it"},
    Refusal{"two_guids_for_a_node", "caguid=5\ncaguid=6\n" + record(""),
        "fab:2: a second node GUID, where line 1 gave one and no node came between"},
    Refusal{"node_guid_twice", "caguid=5\n" + record("caguid=0x05\nCa 1 \"B\""),
        "fab:3: node GUID 0x5 is given to \"B\" here, but is that of \"A\""},
    Refusal{"port_guid_twice",
        "Switch 4 \"S\"\n" + record("[1](f1) \"S\"[1]\n[2](f1) \"S\"[2]"),
        "fab:4: port GUID 0xf1 is given to \"A\"[2] here, but to \"A\"[1] in line 3"},
    Refusal{"port_with_two_guids",
        "Switch 4 \"S\"\n[1] \"A\"[1](f1)\n" + record("[1](f2) \"S\"[1]"),
        "fab:4: port \"A\"[1] has GUID 0xf2 here, but 0xf1 in line 2"},
    Refusal{"lid_too_large", switch_line("[1] \"A\"[1] # \"a\" lid 49152"), "fab:3: LID 49152 is outside 0 to 49151"},
    Refusal{"lid_half_a_number", switch_line("[1] \"A\"[1] # \"a\" lid 5a"), "fab:3: LID \"5a\" is not a decimal number"},
    Refusal{"lmc_too_large", adapter_line("[1] \"S\"[1] # lid 5 lmc 8 \"s\""), "fab:3: LMC 8 is outside 0 to 7"},
    Refusal{"mtu_odd", switch_line("[1] \"A\"[1] # mtu 1500"), "fab:3: MTU 1500 is none of 256, 512, 1024, 2048, 4096"},
    Refusal{"lid_twice", switch_line("[1] \"A\"[1] # \"a\" lid 7\n[2] \"A\"[2] # \"a\" lid 7"),
        "fab:4: LID 7 is given to \"A\"[2] here, but to \"A\"[1] in line 3"},
    Refusal{"lid_inside_anothers_range", adapter_line("[1] \"S\"[1] # lid 4 lmc 2 \"s\" lid 7"),
        "fab:3: LID 7 is given to \"S\"[0] here, but to \"A\"[1] in line 3"},
    Refusal{"lid_range_too_high", adapter_line("[1] \"S\"[1] # lid 49151 lmc 1 \"s\""), "fab:3: LID 49151 with LMC 1 reaches beyond 49151"},
    Refusal{"port_with_two_lids",
        "Switch 4 \"S\"\n[1] \"A\"[1] # \"a\" lid 5\n" + record("[1] \"S\"[1] # lid 6"),
        "fab:4: port \"A\"[1] has LID 6 here, but LID 5 elsewhere"}), case_name<Refusal>);
// clang-format on

TEST(Topology, AFileThatIsNotThereIsNamed) {
    EXPECT_EQ(complaint([] { read_topology(std::string("no/such.file")); }),
              "no/such.file: cannot be opened");
}

// --- Rates ---------------------------------------------------------------------------------------

TEST(Rates, EveryCodeReadsBackFromItsText) {
    for (std::uint8_t code = 2; code <= 23; ++code)
        EXPECT_EQ(parse_rate(format_rate(code)), code) << format_rate(code);
}

TEST(Rates, WidthsAndSpeedsHaveTheCodesOfTheirBandwidths) {
    const std::vector<std::pair<const char*, int>> rates{
        {"1xSDR", 2},   {"4xSDR", 3},  {"12xSDR", 4},  {"1xDDR", 5},   {"4xDDR", 6},  {"4xQDR", 7},
        {"12xDDR", 8},  {"8xQDR", 9},  {"12xQDR", 10}, {"1xFDR", 11},  {"4xFDR", 12}, {"8xFDR", 13},
        {"12xFDR", 14}, {"1xEDR", 15}, {"4xEDR", 16},  {"12xEDR", 18}, {"2xHDR", 16}, {"4xHDR", 17},
        {"4xNDR", 21},  {"4xXDR", 23}, {"12xXDR", 23}, {"4xFDR10", 7}, {"1xQDR", 3},  {"2xFDR", 19},
        {"4x", 0},      {"QDR", 0},    {"3xQDR", 0},   {"4xQDRs", 0},  {"-4xQDR", 0}, {"", 0}};
    for (const auto& [text, code] : rates)
        EXPECT_EQ(parse_rate(text), code) << text;
}

// --- Saving and making ---------------------------------------------------------------------------

bool same_port(const Port& one, const Port& other) {
    return one.linked == other.linked && one.remote_node == other.remote_node &&
           one.remote_port == other.remote_port && one.guid == other.guid && one.lid == other.lid &&
           one.lmc == other.lmc && one.rate == other.rate && one.mtu == other.mtu;
}

void expect_same(const Topology& one, const Topology& other) {
    EXPECT_EQ(one.origin, other.origin);
    EXPECT_EQ(one.origin_port, other.origin_port);
    ASSERT_EQ(one.nodes.size(), other.nodes.size());
    for (std::size_t i = 0; i < one.nodes.size(); ++i) {
        const Node& node = one.nodes[i];
        const Node& twin = other.nodes[i];
        ASSERT_TRUE(node.kind == twin.kind && node.id == twin.id && node.name == twin.name &&
                    node.guid == twin.guid)
            << node.id;
        ASSERT_TRUE(std::equal(node.ports.begin(), node.ports.end(), twin.ports.begin(),
                               twin.ports.end(), same_port))
            << node.id;
    }
}

TEST(Saving, ReadsBackAsItWas) {
    const Topology mixed = read(
        "# Initiated from node 0000000000000077 port 0000000000000079\n"
        "rtguid=0x77\nRt 2 \"R\" # \"router #1\"\n[2] \"S\"[3] # lid 8 lmc 1 \"s\" 1xSDR\n"
        "Ca 1 \"A\"\n[1] \"B\"[1] # lid 4 lmc 0 \"b\" lid 5 mtu 4096\nCa 1 \"B\"\n"
        "switchguid=0xf0(f1)\nSwitch 4 \"S\" # \"s\" base port 0 lid 2 lmc 0\n");
    EXPECT_EQ(mixed.origin_port, 2);
    for (const Topology& topology : {mixed, make_fabric({.hosts = 1000})}) {
        std::stringstream text;
        text << std::hex;  // the stream's own settings must not show in the file
        write_topology(text, topology);
        expect_same(topology, read_topology(text, "saved"));
    }
}

TEST(Making, LinksEveryHostAndGivesLidsAndGuidsOnce) {
    const Topology topology = make_fabric({.hosts = 1000, .two_port_percent = 25});
    std::set<std::uint64_t> guids;
    std::set<int> lids;
    std::size_t ports = 0;
    std::size_t two_ports = 0;
    for (const Node& node : topology.nodes) {
        if (node.kind != NodeKind::adapter)
            continue;
        two_ports += node.ports.size() == 3;
        for (std::size_t i = 1; i < node.ports.size(); ++i, ++ports) {
            EXPECT_TRUE(node.ports[i].linked) << node.id;
            guids.insert(node.ports[i].guid);
            lids.insert(node.ports[i].lid);
        }
    }
    const Node& first = topology.nodes.front();
    ASSERT_EQ(first.ports.size(), 3u);
    EXPECT_NE(first.ports[1].remote_node, first.ports[2].remote_node);
    EXPECT_EQ(two_ports, 251u);
    EXPECT_EQ(ports, 1251u);
    EXPECT_EQ(guids.size(), ports);
    EXPECT_EQ(lids.size(), ports);
}

TEST(Making, RefusesWhatNoFabricCanBe) {
    EXPECT_THROW(make_fabric({.hosts = 0}), std::invalid_argument);
    EXPECT_THROW(make_fabric({.two_port_percent = 101}), std::invalid_argument);
    EXPECT_THROW(make_fabric({.hosts_per_leaf = 127}), std::invalid_argument);
    EXPECT_THROW(make_fabric({.hosts = 70000, .lids = false}), std::invalid_argument);
    EXPECT_THROW(make_fabric({.hosts = 48000}), std::invalid_argument) << "no LIDs for so many";
}

// --- Hosts ---------------------------------------------------------------------------------------

// node01 has one linked port of two, node02 two; two adapters share node03.
const std::string hosts_text =
    "Switch 8 \"S\"\n[1] \"A\"[1]\n[2] \"B\"[1]\n[3] \"B\"[2]\n"
    "Ca 2 \"A\" # \"node01 HCA-1\"\nCa 2 \"B\" # \"node02 HCA-1\"\n"
    "Ca 1 \"C\" # \"node03 HCA-1\"\nCa 1 \"D\" # \"node03 HCA-2\"\n"
    "Ca 1 \"E\" # \"MT4115 adapter\"\nCa 1 \"F\" # \"MT4115 adapter\"\n";

std::vector<std::string> described(const std::vector<Host>& hosts) {
    std::vector<std::string> lines;
    for (const Host& host : hosts)
        lines.push_back(format_ip(host.ip) + " " + host.name);
    return lines;
}

TEST(Hosts, AreNamedUnambiguouslyAndDealtAddressesInOrder) {
    EXPECT_THAT(described(deal_addresses(read(hosts_text))),
                testing::ElementsAre("10.0.0.1 node01", "10.0.0.2 node02", "10.0.0.3 node03 HCA-1",
                                     "10.0.0.4 node03 HCA-2", "10.0.0.5 E", "10.0.0.6 F"));
    const auto many = deal_addresses(make_fabric({.hosts = 1000}));
    EXPECT_EQ(described(many).at(999), "10.0.3.232 node1000");
}

TEST(Hosts, TakeTheirAddressesFromAList) {
    std::istringstream list(
        "127.0.0.1 localhost\n::1 localhost node02\n# ours\n\n192.168.1.7\tstore node02 # "
        "node01\r\n  10.9.8.7 D\n10.0.0.1 node01.site "
        "node01\n");
    EXPECT_THAT(
        described(read_hosts(list, "list", read(hosts_text))),
        testing::ElementsAre("10.0.0.1 node01", "192.168.1.7 node02", "10.9.8.7 node03 HCA-2"));
}

TEST(Hosts, AreFoundInAListThatIsAboutMore) {
    const Topology topology = read(
        "Ca 1 \"A\" # \"gpu01 mlx5_1\"\nCa 1 \"B\" # \"gpu01 mlx5_0\"\nCa 1 \"C\" # \"node02 "
        "HCA-1\"\n"
        "Ca 1 \"D\" # \"Switch 7 Aggregation Node\"\n");
    std::istringstream list(
        "127.0.0.1 localhost\n255.255.255.255 broadcasthost\nfe80::1%lo0 localhost\n"
        "192.168.0.9 storage\n192.168.0.1 gpu01.site gpu01\n10.0.0.1 gpu01-ib0.site\n"
        "10.0.1.1 gpu01-ib1\n10.0.2.1 gpu01-ib2\n10.0.0.2 node02\n192.168.0.2 node02\n"
        "10.0.0.2 node02-ib0\n");
    std::size_t skipped = 0;
    const std::vector<Host> hosts = pick_hosts(list, "list", topology, skipped);
    EXPECT_THAT(described(hosts), testing::ElementsAre("10.0.1.1 gpu01 mlx5_1",
                                                       "10.0.0.1 gpu01 mlx5_0", "10.0.0.2 node02"));
    EXPECT_EQ(skipped, 5u)
        << "broadcast, storage, gpu01 beside its rail, a third rail, another network";
    EXPECT_EQ(choose_host(topology, hosts, "gpu01"), 1u);
    EXPECT_EQ(hosts[0].rail, "mlx5_1");
    std::istringstream twice("10.0.0.1 gpu01\n10.0.0.1 node02\n");
    EXPECT_THROW(pick_hosts(twice, "list", topology, skipped), InputError);
}

class HostRefusals : public testing::TestWithParam<Refusal> {};

TEST_P(HostRefusals, NameTheLineAndTheFault) {
    const Topology topology = read(hosts_text);
    EXPECT_EQ(complaint([&] {
                  std::istringstream list("10.0.0.1 node01\n" + GetParam().text);
                  read_hosts(list, "list", topology);
              }),
              GetParam().message);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Hosts, HostRefusals, testing::Values(
    Refusal{"not_an_address", "node02 10.0.0.2", "list:2: found \"node02\", expected an IPv4 address"},
    Refusal{"no_name", "10.0.0.2 # node02", "list:2: found the end of the line, expected a name after 10.0.0.2"},
    Refusal{"unknown_name", "10.0.0.2 node9 n9", "list:2: no host of the fabric is called \"node9\""},
    Refusal{"address_twice", "\n10.0.0.1 node02", "list:3: address 10.0.0.1 is given twice, first in line 1"},
    Refusal{"host_twice", "10.0.0.2 A", "list:2: host \"node01\" has address 10.0.0.2 here, but 10.0.0.1 in line 1"},
    Refusal{"two_hosts_in_a_line", "10.0.0.2 node02 node01", "list:2: \"node02\" and \"node01\" are two hosts"},
    Refusal{"multicast", "224.0.0.1 node02", "list:2: 224.0.0.1 cannot be a host's address"},
    Refusal{"no_address_at_all", "0.0.0.0 node02", "list:2: 0.0.0.0 cannot be a host's address"}), case_name<Refusal>);
// clang-format on

TEST(Hosts, TheChosenOneHasTheNameOrElseTwoLinkedPorts) {
    const Topology topology = read(hosts_text);
    const std::vector<Host> hosts = deal_addresses(topology);
    EXPECT_EQ(choose_host(topology, hosts), 1u);
    EXPECT_EQ(choose_host(topology, hosts, "node01"), 0u);
    EXPECT_EQ(choose_host(topology, hosts, "node03 HCA-2"), 3u);
    EXPECT_EQ(choose_host(topology, hosts, "C"), 2u);
    EXPECT_EQ(choose_host(topology, hosts, "node03"), 2u) << "the first rail";
    EXPECT_EQ(choose_host(topology, hosts, "node04"), std::nullopt);
    EXPECT_EQ(choose_host(topology, {hosts[0], hosts[2]}), 0u) << "none has two linked ports";
    EXPECT_EQ(choose_host(topology, {}), std::nullopt);
}

TEST(Addresses, AreDottedQuadsInNetworkByteOrder) {
    const std::uint32_t ip = parse_ip("10.0.2.255").value();
    unsigned char bytes[4];
    std::memcpy(bytes, &ip, sizeof bytes);
    EXPECT_THAT(bytes, testing::ElementsAre(10, 0, 2, 255));
    EXPECT_EQ(format_ip(ip), "10.0.2.255");
    for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.4 ", "1..2.3", "a.b.c.d",
                             "0x1.2.3.4", "1.2.3.-4", "::1"})
        EXPECT_EQ(parse_ip(text), std::nullopt) << text;
}

}  // namespace
}  // namespace fabric
