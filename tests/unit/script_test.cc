// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Scripts that cannot be played, and expectations that fail. What scripts do when all is well
// stands in tests/scripts.
#include "app/script.h"

#include <gmock/gmock.h>
#include <sstream>

#include "app/script_text.h"
#include "fabric/topology.h"
#include "tests/support/machine_test.h"
#include "tests/support/program.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

struct Played {
    int status;
    std::string out;
    std::string err;
};

app::Script read(const std::string& text) {
    std::istringstream in(text);
    return app::read_script(in, "s", app::read_site({}));
}

Played play(const std::string& text) {
    const app::Script script = read(text);
    std::ostringstream out, err;
    app::ScriptHost host(app::read_site({}), script.first_jiffy, out, err);
    const int status = app::run_script(script, host);
    return {status, out.str(), err.str()};
}

struct BadScript {
    const char* name;
    std::string text;
    std::string message;  // how it begins
};
class BadScripts : public testing::TestWithParam<BadScript> {};

TEST_P(BadScripts, AreRefusedWithTheirPlace) {
    try {
        read(GetParam().text);
        ADD_FAILURE() << "it was read";
    } catch (const fabric::InputError& error) {
        EXPECT_THAT(error.what(), StartsWith(GetParam().message));
        EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Script, BadScripts,
    testing::ValuesIn(std::vector<BadScript>{
        {"UnknownVerb", "load\n\n# x\nfly\n", "s:4: there is no verb \"fly\""},
        {"VerbInCapitals", "Load", "s:1: there is no verb \"Load\""},
        {"SurplusWord", "unload now", "s:1: \"now\" is one word too many (usage: unload)"},
        {"UnknownParameter", "load x=1", "s:1: the module has no parameter of the name in \"x=1\""},
        {"ParameterWithoutValue", "load arp_cache_timeout_sec", "s:1: the value in "},
        {"ParameterTooWide", "load tarv_is_mode_redundant=256", "s:1: the value in "},
        {"UnknownEscape", "control a\\q", "s:1: only \\n \\t"},
        {"HalfAnEscape", "control a\\x1", "s:1: only \\n \\t"},
        {"EscapeAtTheEnd", "control a\\", "s:1: only \\n \\t"},
        {"UnknownFile", "cat kmsg", "s:1: there is no file \"kmsg\""},
        {"NoChunk", "cat control 0", "s:1: CHUNK is 0"},
        {"ChunkNoNumber", "cat control 7x", "s:1: \"7x\" is no number, where CHUNK"},
        {"AddressMissing", "resolve # 10.0.0.2", "s:1: IP is missing (usage: resolve IP"},
        {"AddressNone", "resolve 10.0.0",
         "s:1: \"10.0.0\" is no IPv4 address and no host, where IP"},
        {"PathsWord", "resolve 10.0.0.2 paths three", "s:1: \"three\" is neither"},
        {"ResolveWord", "resolve 10.0.0.2 fast", "s:1: \"fast\" is not understood"},
        {"GidTooLong", "lookup-gid 0x" + std::string(33, '1'), "s:1: \"0x11"},
        {"GidDigits", "lookup-gid 0x12g4", "s:1: \"0x12g4\" is no GID"},
        {"ArpWithoutKind", "arp from 10.0.0.2", "s:1: request or reply is missing"},
        {"ArpWithoutSender", "arp reply to 10.0.0.2", "s:1: from is missing"},
        {"ArpValueTooWide", "arp reply from 10.0.0.2 lid 0x10000", "s:1: lid is 0x10000, and"},
        {"EventType", "event fire port 1", "s:1: \"fire\" is no type of event"},
        {"EventPort", "event link_up port 3", "s:1: a port is 3, and 2 at most"},
        {"EventPortZero", "event link_up port 0", "s:1: ports are numbered from 1"},
        {"LinkHasNoValue", "event link_up port 1 to 7", "s:1: \"to\" is one word too many"},
        {"UnknownPeer", "fabric 10.9.9.9 drop", "s:1: there is no peer \"10.9.9.9\""},
        {"OurselvesNoPeer", "fabric node01 drop", "s:1: there is no peer \"node01\""},
        {"NoFault", "fabric sa", "s:1: a fault is missing"},
        {"FaultMisspelt", "fabric sa truncte 9",
         "s:1: \"truncte\" is no fault of the SA; did you mean \"truncate\"?; there are drop"},
        {"FaultOfTheSaOnly", "fabric node02 status 1", "s:1: \"status\" is no fault of packets"},
        {"UnknownService", "fail printk nth 1", "s:1: there is no service \"printk\""},
        {"ZerothCall", "fail kmalloc nth 0", "s:1: N counts from 1"},
        {"LevelOfWhom", "level 4", "s:1: module or logger is missing"},
        {"LevelTooHigh", "level module 6", "s:1: a level is 6, and 5 at most"},
        {"TickTooFar", "tick 99999999999999999999", "s:1: \"999"},
        {"JiffiesAfterLoad", "load\njiffies 5", "s:2: the tick counter can be set before"},
        {"JiffiesAfterTick", "tick 0\njiffies 5", "s:2: the tick counter can be set before"},
        {"ExpectNothing", "expect", "s:1: line, no line, reply, entry or nobody is missing"},
        {"ExpectNoText", "expect line  ", "s:1: TEXT is missing"},
        {"ExpectStatus", "expect reply 1 fine",
         "s:1: \"fine\" is no status; there are 0 ok, -253 pending"},
        {"ExpectField", "expect entry 10.0.0.2 age 3", "s:1: \"age\" is no field of an entry"},
        {"ExpectNoField", "expect entry 10.0.0.2", "s:1: FIELD is missing"},
    }),
    support::row_name);

struct Failure {
    const char* name;
    std::string text;     // after a load
    std::string message;  // all of standard error
};
class Failures : public testing::TestWithParam<Failure> {};

TEST_P(Failures, AreToldWithExpectedAndActual) {
    const Played played = play("load\n" + GetParam().text);
    EXPECT_EQ(played.status, 1);
    EXPECT_EQ(played.err, GetParam().message);
    EXPECT_THAT(played.out, HasSubstr("TARV: Unloaded.\n")) << "it goes on to its end";
}

INSTANTIATE_TEST_SUITE_P(
    Script, Failures,
    testing::ValuesIn(std::vector<Failure>{
        {"Line", "cat version\nexpect line tarv 1.21\ncat control\nexpect line tarv 1.21",
         "s:5: expected line \"tarv 1.21\", actual lines:\n"
         "  IP address       HW type     Flags       HW address            Mask     Device\n"},
        {"LineWhereNoneIs", "expect line 1.37\ntick 1\nexpect line 1.37",
         "s:4: expected line \"1.37\", actual lines none\n"},
        {"NoLine", "resolve 10.0.0.2\nexpect no line pending",
         "s:3: expected no line \"pending\", actual line \"resolve 1: pending\"\n"},
        {"Reply", "resolve 10.0.0.2\nexpect reply 1 ok",
         "s:3: expected reply 1 ok, actual pending\n"},
        {"ReplyOfNobody", "expect reply 1 ok",
         "s:2: expected reply 1 ok, actual no such request\n"},
        {"EntryThatIsNone", "expect entry 10.0.0.2 lid 1",
         "s:2: expected entry 10.0.0.2, actual none\n"},
        {"EntryFields",
         "control add 10.0.0.1 10.0.0.2 5\nexpect entry 10.0.0.2 lid 6 mask 0x8213 gid ::1",
         "s:3: expected entry 10.0.0.2 lid 6, actual 5\n"
         "s:3: expected entry 10.0.0.2 gid 0x00000000000000000000000000000001, actual "
         "0x00000000000000000000000000000000\n"},
        {"SecondLoad", "load", "s:2: load: the module is loaded already\n"},
        {"ResolveWithoutModule", "unload\nresolve 10.0.0.2\nload",
         "s:3: resolve 1: no module offers tarv_get_ib_data_fn\n"},
        {"FileWithoutModule", "unload\ncat control\ncat version\nexpect line No such\nload",
         "s:3: cat: control: No such file or directory\n"},
        {"LidOfAnother", "event lid port 1 to 12", "s:2: LID 12 can't be given to the port\n"},
    }),
    support::row_name);

TEST(Script, LooksAtAnEntryWithoutRefreshingItsAge) {
    const Played played = play(
        "load arp_cache_timeout_sec=20\ncontrol enable\nresolve 10.0.0.2\ntick 29999\n"
        "expect entry 10.0.0.2 lid 12\ntick 1\ncat control\nexpect no line 10.0.0.2");
    EXPECT_EQ(played.status, 0) << played.err;
}

TEST(Script, ReportsWhatTheModuleLeaves) {
    // A module that is never told to go is told at the end; one that could not be loaded has gone.
    EXPECT_THAT(play("load").out, HasSubstr("TARV: Unloaded.\n"));
    EXPECT_EQ(play("fail gx_hca_open nth 1\nload\nload").status, 0);
}

TEST(Script, HidesAddressesAndNothingElse) {
    for (const std::string same :
         {"0000000000000000", "0000000000001001", "0x0000000100001001", "0a1b2c03001c2a21",
          "0xFE800000000000000A1B2C03001C2A21", "00005555DEADBEEF", "00007f0012345678a"})
        EXPECT_EQ(app::hide_addresses("a " + same + "."), "a " + same + ".");
    EXPECT_EQ(app::hide_addresses("<0x00007f0012345678> 0000602000000010, 00"),
              "<0xxxxxxxxxxxxxxxxx> xxxxxxxxxxxxxxxx, 00");
}

int exit_status(const std::string& script, const std::string& rest) {
    return support::shell("printf '" + script + "' | " TARV_HOST " script " + rest).status;
}

TEST(Script, TellsItsOutcomeByTheExitStatus) {
    EXPECT_EQ(exit_status("load\\nresolve 10.0.0.2\\n", "-"), 0);
    EXPECT_EQ(exit_status("expect reply 1 ok\\n", "-"), 1);
    EXPECT_EQ(exit_status("load\\nfly\\n", "-"), 2);
    EXPECT_EQ(exit_status("", "/no/such/file"), 2);
    EXPECT_EQ(exit_status("", "/"), 2);
    EXPECT_EQ(exit_status("", "- --param x=1"), 2) << "a script loads for itself";
    EXPECT_EQ(exit_status("", "- --as nobody"), 2);
}

}  // namespace
