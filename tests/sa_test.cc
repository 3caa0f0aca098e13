// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the SA answers, and how scripts make it answer wrong.
#include "tests/support/gsi_client.h"

using namespace fabric;
using namespace fabric_testing;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class SaTest : public FabricTest {
  protected:
    Sa& sa = fabric.sa();
    GsiClient client;
};

TEST_F(SaTest, AnswersByteForByte) {
    std::vector<Bytes> wire;
    fabric.on_packet([&](const SeenPacket& seen) {
        if (seen.direction == Direction::in)
            wire.push_back(seen.packet.payload);
    });
    sa.set_service_level(5);
    client.ask(0x2001);
    ASSERT_THAT(wire, SizeIs(1));
    EXPECT_EQ(hex(wire[0]),
              // common header
              "01 03 02 94 00 00 00 00 00 00 00 00 00 00 00 01 00 35 00 00 ff ff ff ff "
              // RMPP: one segment of 84 bytes
              "01 01 07 00 00 00 00 01 00 00 00 54 "
              // SA header: records of 8 times 8 bytes
              "00 00 00 00 00 00 00 00 00 08 00 00 00 00 30 00 00 1c 00 c0 "
              // PathRecord: a 10 Gb/s link on the way, 2048 bytes, 18, reversible
              "00 00 00 00 00 00 00 00 "
              "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 20 01 "
              "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 10 01 "
              "00 15 00 0b 00 00 00 00 00 81 ff ff 00 05 84 83 92 00 00 00 00 00 00 00");
    ASSERT_THAT(client.answers, SizeIs(1));
    EXPECT_EQ(client.answers[0].paysize, 84);
    EXPECT_EQ(client.answers[0].attribute(), 0x3A);
}

/* A query's sources and destination, and what comes back: status, or "SLID>DLID" a record. */
struct PathCase {
    const char* name;
    std::vector<std::uint64_t> sources;
    std::uint64_t destination;
    void (*before)(Fabric&);
    std::uint16_t status;
    std::vector<std::string> paths;
};
const PathCase path_cases[] = {
    {"two sources", {0x1001, 0x1002}, 0x3001, [](Fabric&) {}, 0, {"11>31", "12>31"}},
    {"LID dealt out by the manager", {0x1001}, 0x4001, [](Fabric&) {}, 0, {"11>2"}},
    {"to oneself", {0x1001}, 0x1001, [](Fabric&) {}, 0, {"11>11"}},
    {"unknown destination", {0x1001}, 0x9999, [](Fabric&) {}, 0x0500, {}},
    {"unknown source", {0x9999}, 0x2001, [](Fabric&) {}, 0x0500, {}},
    {"peer down", {0x1001}, 0x2001, [](Fabric& f) { f.set_peer_link(ip(2), false); }, 0x0500, {}},
    {"no partition in common",
     {0x1001},
     0x3001,
     [](Fabric& f) { f.subnet().set_pkeys(f.peers().station(ip(3)).at, {0x7FFE}); },
     0,
     {}},
    {"both ends limited members",
     {0x1002},
     0x4001,
     [](Fabric& f) {
         f.set_pkeys(2, {0x7FFF});
         f.subnet().set_pkeys(f.peers().station(ip(4)).at, {0x7FFF});
     },
     0,
     {}},
};

TEST_F(SaTest, FindsPaths) {
    for (const PathCase& c : path_cases) {
        SCOPED_TRACE(c.name);
        c.before(fabric);
        client.answers.clear();
        std::vector<Gid> sources;
        for (std::uint64_t guid : c.sources)
            sources.push_back(gid(guid));
        client.ask(c.destination, sources);
        ASSERT_THAT(client.answers, SizeIs(1));
        EXPECT_EQ(client.answers[0].status(), c.status);
        std::vector<std::string> paths;
        for (const PathRecord& record : client.answers[0].records())
            paths.push_back(std::to_string(record.slid) + ">" + std::to_string(record.dlid));
        EXPECT_EQ(paths, c.paths);
    }
}

}  // namespace
