// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The GSI service as its clients know it: the life of a datagram, and what becomes of classes and
// requests.
#include "tests/support/gsi_client.h"

using namespace fabric;
using namespace fabric_testing;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using GsiTest = FabricTest;

TEST_F(GsiTest, PoolsHoldExactlyWhatWasAskedFor) {
    GsiClient client(1, 2);
    gsi_dtgrm_t* first = client.get();
    gsi_dtgrm_t* second = client.get();
    gsi_dtgrm_t* none = nullptr;
    EXPECT_NE(gsi_dtgrm_pool_get(client.pool, &none), 0);
    EXPECT_EQ(fabric.gsi().datagrams_out(), 2u);
    gsi_dtgrm_pool_put(first);
    EXPECT_EQ(client.get(), first);
    EXPECT_NE(first->mad[0], 0) << "a datagram does not come zero-filled";
    gsi_dtgrm_pool_put(first);
    gsi_dtgrm_pool_put(second);
    fabric.gsi().hand_out_nothing_next();
    EXPECT_EQ(gsi_dtgrm_pool_get(client.pool, &none), 0);
    EXPECT_EQ(none, nullptr);
}

TEST_F(GsiTest, KeepsAClassWhileItsSendsAreInFlight) {
    GsiClient client;
    ASSERT_EQ(gsi_post_send_dtgrm(client.handle, client.query({gid(0x1001)}, gid(0x2001))), 0);
    EXPECT_NE(gsi_deregister_class(client.handle), 0);
    kernel.settle();
    client.close();
    kernel.advance(10);
    EXPECT_THAT(client.answers, IsEmpty()) << "the answer came for nobody";
    EXPECT_EQ(fabric.gsi().datagrams_out(), 0u);
}

TEST_F(GsiTest, ForgetsRequestsThatNobodyAnswersInTime) {
    GsiClient client;
    fabric.gsi().set_request_lifetime(20);
    fabric.sa().faults().drop_next();
    client.ask(0x2001);
    EXPECT_EQ(fabric.gsi().requests_waiting(), 1u);
    kernel.advance(20);
    EXPECT_EQ(fabric.gsi().requests_waiting(), 0u);
    fabric.sa().faults().delay(25);
    client.ask(0x2001);
    kernel.advance(50);
    EXPECT_THAT(client.answers, IsEmpty()) << "an answer after that is late";
}

TEST_F(GsiTest, LosesWhatCrossesAPortThatIsDown) {
    GsiClient client;
    client.ask(0x2001);
    EXPECT_THAT(client.answers, SizeIs(1));
    fabric.set_link(1, false);
    client.ask(0x2001);
    EXPECT_EQ(client.sends, 2) << "the send completes nevertheless";
    fabric.set_link(1, true);
    gsi_post_send_dtgrm(client.handle, client.query({gid(0x1001)}, gid(0x2001)));
    kernel.advance(1);
    fabric.set_link(1, false);
    kernel.advance(5);
    EXPECT_THAT(client.answers, SizeIs(1)) << "nor does an answer arrive that is under way";
}

TEST_F(GsiTest, ReportsWhatIsLeftOpen) {
    GsiClient client;
    gsi_dtgrm_t* dtgrm = client.get();
    EXPECT_THAT(kernel.remains(), ElementsAre("1 registered GSI class(es)", "1 GSI pool(s)",
                                              "1 GSI datagram(s) not in their pool"));
    gsi_dtgrm_pool_put(dtgrm);
    client.close();
    EXPECT_THAT(kernel.remains(), IsEmpty());
}

gsi_dtgrm_t* given_back(GsiClient& client) {
    gsi_dtgrm_t* dtgrm = client.get();
    gsi_dtgrm_pool_put(dtgrm);
    return dtgrm;
}
gsi_dtgrm_t* posted(GsiClient& client) {
    gsi_dtgrm_t* dtgrm = client.query({gid(0x1001)}, gid(0x2001));
    gsi_post_send_dtgrm(client.handle, dtgrm);
    return dtgrm;
}

/* What stops the program, and how it is named. */
struct DeathCase {
    const char* name;
    void (*act)(GsiClient&);
    const char* message;
};
// clang-format off
const DeathCase death_cases[] = {
    {"given back twice", [](GsiClient& c) { gsi_dtgrm_pool_put(given_back(c)); },
     "gsi_dtgrm_pool_put: the datagram .* of pool \"test\" was given back already"},
    {"given back in flight", [](GsiClient& c) { gsi_dtgrm_pool_put(posted(c)); },
     "gsi_dtgrm_pool_put: .* is still in flight"},
    {"posted twice", [](GsiClient& c) { gsi_post_send_dtgrm(c.handle, posted(c)); },
     "gsi_post_send_dtgrm: .* was posted already"},
    {"posted on a closed class", [](GsiClient& c) { gsi_deregister_class(c.handle); posted(c); },
     "gsi_post_send_dtgrm: the class of port 1 is deregistered"},
    {"touched after it was given back", [](GsiClient& c) { given_back(c)->mad[100] = 1; c.get(); },
     "gsi_dtgrm_pool_get: .* was written to after it was given back"},
    {"touched in flight",
     [](GsiClient& c) {
         static_cast<u8*>(posted(c)->rmpp_payload)[219] = 1;
         host::Kernel::current().advance(1);
     },
     "gsi_post_send_dtgrm: .* was written to while it was in flight"},
    {"lost", [](GsiClient& c) { c.get(); c.close(); },
     "gsi_dtgrm_pool_destroy: 1 datagram.s. of pool \"test\" were not given back"},
    {"class closed twice", [](GsiClient& c) { gsi_deregister_class(c.handle); gsi_deregister_class(c.handle); },
     "gsi_deregister_class: the class of port 1 is deregistered"},
    {"size of what was not received", [](GsiClient& c) { int size; gsi_dtgrm_get_rmpp_buf(c.get(), &size); },
     "gsi_dtgrm_get_rmpp_buf: .* was not received"},
    {"pool made where nobody may sleep",
     [](GsiClient& c) {
         host::ContextScope scope(host::Context::timer);
         gsi_dtgrm_pool_create_named(1, &c.pool, "other");
     },
     "gsi_dtgrm_pool_create_named"},
};
// clang-format on

TEST(GsiDeathTest, StopsAtWhatBreaksTheRules) {
    for (const DeathCase& c : death_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                SmallMachine machine;
                GsiClient client;
                c.act(client);
            },
            c.message);
    }
}

}  // namespace
