// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How the SA refuses, how scripts make it answer wrong, and the answers that no SA can be asked for
// in peace. What it answers otherwise is compared with OpenSM (tests/rdma).
#include "host/console.h"
#include "tests/support/gsi_client.h"

using namespace fabric;
using namespace fabric_testing;
using testing::SizeIs;

namespace {

class SaTest : public FabricTest {
  protected:
    Sa& sa = fabric.sa();
    GsiClient client;
};

/* Who says what of an exchange: way, method, attribute, and of RMPP type, flags, segment and length
 * or window. */
std::string gist(const SeenPacket& seen) {
    const auto mad = *decode<MadHeader>(seen.packet.payload);
    const auto rmpp = *decode<RmppHeader>(std::span(seen.packet.payload).subspan(rmpp_offset));
    return host::kformat("%s %02x %02x %d %d %u %u", seen.direction == Direction::out ? ">" : "<",
                         mad.method, mad.attribute, rmpp.type, rmpp.flags, rmpp.segment,
                         rmpp.length);
}

TEST_F(SaTest, AnswersByteForByte) {
    std::vector<std::string> exchange;
    std::optional<Packet> answer;
    fabric.on_packet([&](const SeenPacket& seen) {
        exchange.push_back(gist(seen));
        if (exchange.back().starts_with("< 94 35"))
            answer = seen.packet;
    });
    client.ask(0x2001);
    EXPECT_THAT(exchange,
                testing::ElementsAre("> 14 3a 1 7 1 220", "< 94 3a 2 1 1 1", "> 14 3a 2 1 0 1",
                                     "< 94 35 1 7 1 84", "> 14 35 2 1 1 1"));
    ASSERT_TRUE(answer);
    EXPECT_EQ(hex(answer->payload),
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
              "00 15 00 0b 00 00 00 00 00 80 ff ff 00 00 84 83 92 00 00 00 00 00 00 00");
    // A wire carries whole MADs.
    answer->payload.resize(mad_size);
    {
        host::ContextScope scope(host::Context::gsi);
        fabric.gsi().receive(1, *answer);
    }
    ASSERT_THAT(client.answers, SizeIs(2));
    for (const Received& received : client.answers) {
        EXPECT_EQ(received.paysize, 84);
        EXPECT_EQ(received.attribute(), 0x3A);
    }
}

/* What a client sees of one query, changed on its way: "dropped" or the status. */
struct RefusalCase {
    const char* name;
    void (*change)(gsi_dtgrm_t*, u8* block);
    int status;  // -1: no answer
};
const RefusalCase refusal_cases[] = {
    {"proper", [](gsi_dtgrm_t*, u8*) {}, 0},
    {"peer down", [](gsi_dtgrm_t*, u8*) { Fabric::current().set_peer_link(ip(2), false); }, 0x0500},
    {"peer up", [](gsi_dtgrm_t*, u8*) { Fabric::current().set_peer_link(ip(2), true); }, 0},
    {"no count of sources", [](gsi_dtgrm_t*, u8* b) { b[17] = 0x04; }, 0x0600},
    {"more GIDs than room", [](gsi_dtgrm_t*, u8* b) { b[20 + 15] = 12; }, 0x0600},
    {"no GIDs", [](gsi_dtgrm_t*, u8* b) { b[20 + 16] = 0; }, 0x0600},
    {"another method", [](gsi_dtgrm_t* d, u8*) { d->mad[3] = 0x12; }, 0x000C},
    {"another attribute", [](gsi_dtgrm_t* d, u8*) { d->mad[16] = 0x38; }, 0x000C},
    {"where no manager is", [](gsi_dtgrm_t* d, u8*) { d->rlid = 31; }, -1},
    {"to another queue pair", [](gsi_dtgrm_t* d, u8*) { d->rqp = 7; }, -1},
    {"without a switch of direction", [](gsi_dtgrm_t* d, u8*) { d->rmpp_dir_switch_needed = 0; },
     -1},
    {"under the key that managers have", [](gsi_dtgrm_t*, u8* b) { b[7] = 1; }, 0},
    {"under another key", [](gsi_dtgrm_t*, u8* b) { b[7] = 7; }, -1},
};

TEST_F(SaTest, RefusesWhatIsNoProperQuery) {
    for (const RefusalCase& c : refusal_cases) {
        SCOPED_TRACE(c.name);
        client.answers.clear();
        gsi_dtgrm_t* dtgrm = client.query({gid(0x1001)}, gid(0x2001));
        c.change(dtgrm, static_cast<u8*>(dtgrm->rmpp_payload));
        EXPECT_EQ(gsi_post_send_dtgrm(client.handle, dtgrm), 0);
        kernel.advance(2);
        std::vector<int> statuses;
        for (const Received& answer : client.answers)
            statuses.push_back(answer.status());
        EXPECT_EQ(statuses, c.status < 0 ? std::vector<int>{} : std::vector{c.status});
    }
}

/* The service takes only what is of the class that the client registered for; what it refuses is
 * still the client's. */
TEST_F(SaTest, IsNotReachedUnderAnotherClass) {
    gsi_dtgrm_t* dtgrm = client.query({gid(0x1001)}, gid(0x2001));
    dtgrm->mad[1] = 4;
    EXPECT_NE(gsi_post_send_dtgrm(client.handle, dtgrm), 0);
    gsi_dtgrm_pool_put(dtgrm);
}

/* A scripted fault, unless the module's own tests look at it, and what the client gets to see of
 * the answers to two queries, ten ticks apart: "TICK:STATUS:ATTRIBUTE:CLASS.VERSION:SIZE". */
struct ScriptCase {
    const char* name;
    void (*script)(Sa&);
    std::vector<std::string> seen;
};
// clang-format off
const ScriptCase script_cases[] = {
    {"none", [](Sa&) {}, {"2:0:3a:3.2:84", "12:0:3a:3.2:84"}},
    {"twice", [](Sa& s) { s.faults().duplicate_next(); }, {"2:0:3a:3.2:84", "2:0:3a:3.2:84", "12:0:3a:3.2:84"}},
    {"status", [](Sa& s) { s.answer_with_status(0x700); }, {"2:700:3a:3.2:220", "12:700:3a:3.2:220"}},
    {"no records", [](Sa& s) { s.answer_with_records(0, 1); }, {"2:0:3a:3.2:20", "12:0:3a:3.2:84"}},
    {"three", [](Sa& s) { s.answer_with_records(3, 1); }, {"2:0:3a:3.2:212", "12:0:3a:3.2:84"}},
    {"given", [](Sa& s) { s.answer_with({{}, {}}, 1); }, {"2:0:3a:3.2:148", "12:0:3a:3.2:84"}},
    {"cut in the header", [](Sa& s) { s.answer_truncated_to(7, 1); }, {"2:0:3a:3.2:7", "12:0:3a:3.2:84"}},
};
// clang-format on

TEST_F(SaTest, AnswersWrongAsToldTo) {
    for (const ScriptCase& c : script_cases) {
        SCOPED_TRACE(c.name);
        client.answers.clear();
        unsigned long start = kernel.jiffies();
        c.script(sa);
        client.ask(0x2001);
        kernel.advance(8);
        client.ask(0x2001);
        kernel.advance(50);
        std::vector<std::string> seen;
        for (const Received& answer : client.answers)
            seen.push_back(host::kformat("%lu:%x:%x:%d.%d:%d", answer.jiffies - start,
                                         answer.status(), answer.attribute(), answer.mad[1],
                                         answer.mad[2], answer.paysize));
        EXPECT_EQ(seen, c.seen);
        sa.clear();
    }
}

/* An answer in segments: how, what is lost on the way, and whether it gets there. */
struct SegmentCase {
    const char* name;
    unsigned records;
    std::size_t piece;    // 0: as the size demands
    unsigned long ticks;  // after which something is lost: 1 the first acknowledgement, 2 segment 2
    void (*lose)(Fabric&);
    std::size_t packets;  // that arrive at our port, the question's acknowledgement included
    bool whole;
};
const SegmentCase segment_cases[] = {
    {"two records, forced", 2, 64, 1, [](Fabric&) {}, 3, true},
    {"one record, forced", 1, 64, 1, [](Fabric&) {}, 3, true},
    {"six records", 6, 0, 1, [](Fabric&) {}, 3, true},
    {"twenty segments", 20, 64, 1, [](Fabric&) {}, 21, true},
    {"an acknowledgement lost", 20, 64, 1, [](Fabric& f) { f.port(1).drop_next(2); }, 22, true},
    {"a segment lost", 20, 64, 2, [](Fabric& f) { f.port(1).drop_next(1); }, 28, true},
    {"lost for good", 6, 0, 1, [](Fabric& f) { f.port(1).drop_all(); }, 2, false},
};

TEST_F(SaTest, SendsLongAnswersInSegments) {
    for (const SegmentCase& c : segment_cases) {
        SCOPED_TRACE(c.name);
        client.answers.clear();
        sa.answer_with_records(c.records, 1);
        if (c.piece != 0)
            sa.answer_over_rmpp(c.piece, 1);
        EXPECT_EQ(gsi_post_send_dtgrm(client.handle, client.query({gid(0x1001)}, gid(0x2001))), 0);
        std::size_t packets = 0;
        fabric.on_packet(
            [&](const SeenPacket& seen) { packets += seen.direction == Direction::in ? 1 : 0; });
        kernel.advance(c.ticks);
        c.lose(fabric);
        kernel.advance(1000);
        EXPECT_EQ(packets, c.packets);
        ASSERT_THAT(client.answers, SizeIs(c.whole ? 1 : 0));
        if (c.whole) {
            EXPECT_THAT(client.answers[0].block, SizeIs(20 + 64 * c.records));
            EXPECT_THAT(client.answers[0].records(), SizeIs(c.records));
            EXPECT_EQ(client.answers[0].records().back().dlid, 21);
        }
        fabric.port(1).clear();
        fabric.on_packet({});
    }
}

/* The two translations of the GSI service against the two dialects. */
struct DialectCase {
    const char* name;
    SaDialect dialect;
    GsiTranslations translations;
    std::uint16_t status, attribute;
};
constexpr DialectCase dialect_cases[] = {
    {"both on", SaDialect::current, {true, true}, 0, 0x3A},
    {"mask as the module made it", SaDialect::current, {false, true}, 0x0600, 0x3A},
    {"attribute as the SA sent it", SaDialect::current, {true, false}, 0, 0x35},
    {"both off", SaDialect::current, {false, false}, 0x0600, 0x35},
    {"original, both off", SaDialect::original, {false, false}, 0, 0x3A},
};

TEST_F(SaTest, AndTheModuleUnderstandEachOtherThroughTranslations) {
    for (const DialectCase& c : dialect_cases) {
        SCOPED_TRACE(c.name);
        client.answers.clear();
        sa.speak(c.dialect);
        fabric.gsi().set_translations(c.translations);
        client.ask(0x2001);
        ASSERT_THAT(client.answers, SizeIs(1));
        EXPECT_EQ(client.answers[0].status(), c.status);
        EXPECT_EQ(client.answers[0].attribute(), c.attribute);
    }
}

}  // namespace
