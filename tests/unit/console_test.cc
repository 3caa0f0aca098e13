// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The console with its lines coming from a pipe, and the words that it offers to whoever types.
#include "app/console.h"

#include <gmock/gmock.h>

#include <string>

#include "tests/support/program.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/* What went to standard error stands in between. */
support::Result converse(const std::string& lines) {
    return support::shell("printf '%s' '" + lines + "' | " TARV_HOST " console 2>&1");
}

constexpr const char* loaded = R"(tarv-module.cc,v 1.37 2005/05/25 08:15:38
TARV: Initialized.
LOGGER: Added key quorvane/modules/tarv/, trace level 1
)";
constexpr const char* gone = "\nno timer armed, no datagram out, no name registered.\n";

// The first request waits for the wire, and the line behind it finds what was learned.
TEST(Console, AnswersAPipeLineByLineWithoutAPrompt) {
    const support::Result session = converse(R"(
# Blank lines and those that begin like this one do nothing.
add 10.0.0.1 10.9.0.2 5
  show 10.9.0.2
resolve 10.0.0.2
cat control
resolve 10.0.0.2
resolve 10.5.5.5 no-callback
cat version
exit
fly)");
    EXPECT_EQ(session.status, 0);
    const std::string record =
        "ip 10.0.0.2 mask 0x27f lid 12 gid 0xfe800000000000000a1b2c03001c2a21 qpn 0x4a0002 "
        "qkey 0xb1b cap 128 port 1 paths 0\n";
    const std::string show = "ERROR   : TARV : tarv_proc_cmd_show:(tarv_api):";
    EXPECT_THAT(
        session.out,
        StartsWith(
            loaded + show + "Looking for IP: 10.9.0.2.\n" + show +
            "IP: 10.9.0.2 (Please pay attention that only the valid fields are shown.)\n" + show +
            "===================\n" + show + "Validity mask: 0x00008213 (33299)\n" + show +
            "Src IP: 10.0.0.1 0x0100000A (16777226)\n" + show + "LID: 0x0005 (5)\n" + show +
            "Local port number: 0x00000001 (1)\nresolve 1: pending\nreply 1: ok\n" + record +
            "IP address       HW type     Flags       HW address            Mask     Device\n"
            "10.9.0.2         0x1         0x8213      00:AA:00:00:00:05     *        ipoib\n"
            "10.0.0.2         0x1         0x27f       00:AA:00:00:00:0C     *        ipoib\n"
            "resolve 2: ok\n" +
            record +
            "resolve 3: not_found\n"
            "tarv 1.21 IB_CODE_DRAVONIK_V4_355_BR_V (3.4) (2.6.9-34.ELsmp) (Mar 19 2006) "
            "07:54:49\nTARV: Unloaded.\nUnloaded; nothing remains: "));
    EXPECT_THAT(session.out, EndsWith(gone));
}

TEST(Console, KnowsHostsByTheirNames) {
    const support::Result session = converse(
        "add node01 node02 5\ncat control\nresolve node03 from node01\nremove  node02 \n"
        "add 10.0.0.1 node99 7\ncat control\nfabric node04 clear");
    EXPECT_EQ(session.status, 0);
    EXPECT_THAT(session.out, HasSubstr("\n10.0.0.2         0x1 "));
    EXPECT_THAT(session.out, HasSubstr("resolve 1: pending\nreply 1: ok\nip 10.0.0.3 "));
    EXPECT_EQ(session.out.find("\n10.0.0.2 "), session.out.rfind("\n10.0.0.2 "));
}

TEST(Console, ShowsTheKernelLogAsItIsTold) {
    const support::Result session =
        converse("dmesg -C\ndmesg -D\nshow 10.1.1.1\ndmesg -E\nshow 10.2.2.2\ndmesg");
    EXPECT_EQ(session.status, 0);
    const std::string first = "Looking for IP: 10.1.1.1.\n", second = "Looking for IP: 10.2.2.2.\n";
    const std::size_t second_live = session.out.find("\nERROR   : TARV : tarv_proc_cmd_show:");
    const std::size_t stamped = session.out.find("\n[    1.");
    ASSERT_LT(second_live, stamped);
    EXPECT_THAT(session.out.substr(second_live, stamped - second_live), HasSubstr(second));
    EXPECT_EQ(session.out.find(first), session.out.rfind(first));
    EXPECT_GT(session.out.find(first), stamped);
    EXPECT_GT(session.out.rfind(second), session.out.find(first));
    EXPECT_EQ(session.out.find("TARV: Initialized.", stamped), std::string::npos);
}

TEST(Console, HelpListsItsOwnWordsAndTheControlFiles) {
    const std::string out = converse("?").out;
    for (const char* line : {"\n  resolve IP [from IP] ", "\n  quit\n", "\n  dmesg [-C|-D|-E]\n",
                             "\n  remove ip - removes the specified entry from the arp table",
                             "\n  set_retry_cnt cnt - set the number of"})
        EXPECT_THAT(out, HasSubstr(line));
}

struct BadLine {
    const char* name;
    std::string line;
    std::string message;
};
class BadLines : public testing::TestWithParam<BadLine> {};

TEST_P(BadLines, AreToldWithTheirNumberAndTheSessionGoesOn) {
    const support::Result session = converse("\n" + GetParam().line + "\ncat version\n");
    EXPECT_EQ(session.status, 1);
    EXPECT_THAT(session.out,
                StartsWith(loaded + ("console:2: " + GetParam().message) + "\ntarv 1.21 "));
}

INSTANTIATE_TEST_SUITE_P(
    Console, BadLines,
    testing::ValuesIn(std::vector<BadLine>{
        {"Unknown", "Show 10.0.0.2", "there is no command \"Show\"; did you mean \"show\"?"},
        {"File", "cat kmsg", "there is no file \"kmsg\" (usage: cat control|version)"},
        {"NoFile", "cat", "control or version is missing (usage: cat control|version)"},
        {"SurplusWord", "quit now", "\"now\" is one word too many (usage: quit)"},
        {"Option", "dmesg -x", "\"-x\" is one word too many (usage: dmesg [-C|-D|-E])"},
        {"Address", "resolve nod02",
         "\"nod02\" is no IPv4 address and no host, where IP should stand; did you mean "
         "\"node02\"? "
         "(usage: resolve IP [from IP] "
         "[paths none|primary|both] [invalidate] [no-callback])"},
        {"Port", "event lid port 3 to 9",
         "a port is 3, and 2 at most (usage: event "
         "link_up|link_down|lid|mtu|sm_change|NUMBER port N [to VALUE])"},
        {"Peer", "fabric node99 drop",
         "there is no peer \"node99\"; did you mean \"node09\"? (usage: fabric show | PEER|sa|port "
         "N FAULT ...)"},
        {"Level", "level module 6", "a level is 6, and 5 at most (usage: level module|logger N)"},
    }),
    [](const auto& row) { return row.param.name; });

class Completion : public testing::Test {
  protected:
    std::vector<std::string> offered(const std::string& before, const std::string& word) {
        return console_.complete(before, word);
    }

    app::Site site_ = app::read_site({});
    app::HostOptions options_;
    app::Terminal terminal_{"", {}};
    app::Machine machine_{site_, options_, {}};
    app::Console console_{machine_, site_, terminal_};
};

TEST_F(Completion, OffersCommandsAndTheWordsThatFollowThem) {
    EXPECT_THAT(offered("", "s"),
                ElementsAre("sa_queries", "set_retry_cnt", "setlocalgids", "setlocalpkeys",
                            "setstaticpath", "show", "show_paths", "show_stat", "statics_inv"));
    EXPECT_THAT(offered("", "d"), ElementsAre("disable", "dmesg", "dump"));
    EXPECT_THAT(offered("sa_queries ", ""), ElementsAre("off", "on"));
    EXPECT_THAT(offered("cat ", ""), ElementsAre("control", "version"));
    EXPECT_THAT(offered("event ", "link"), ElementsAre("link_down", "link_up"));
    EXPECT_THAT(offered("flush ", ""), ElementsAre());
    EXPECT_THAT(offered("fly ", ""), ElementsAre());
}

// Addresses are the fabric's, and those that were typed before.
TEST_F(Completion, OffersAddressesWhereOneCanStand) {
    machine_.start();
    EXPECT_THAT(offered("add 10.0.0.1 ", "10.9"), ElementsAre());
    console_.perform("add 10.0.0.1 10.9.0.2 5");
    EXPECT_THAT(offered("show ", "10.9"), ElementsAre("10.9.0.2"));
    EXPECT_THAT(offered("resolve ", "10.0.0.10"), ElementsAre("10.0.0.10"));
    EXPECT_THAT(offered("resolve 10.0.0.2 ", "p"), ElementsAre("paths", "primary"));
    EXPECT_THAT(offered("fabric ", "10.0.0.16"), ElementsAre("10.0.0.16"));
    EXPECT_THAT(offered("remove ", "node1"),
                ElementsAre("node10", "node11", "node12", "node13", "node14", "node15", "node16"));
    EXPECT_THAT(offered("set_retry_cnt ", "10"), ElementsAre());
}

}  // namespace
