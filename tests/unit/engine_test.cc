// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The engine: its start and stop, and the adapter's events in between.
#include "platform/module.h"
#include "tarv/tarv-sa-private.h"
#include "tests/support/module_test.h"

namespace {

using namespace support;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr u32 primary = TARV_MASK_PRIMARY_PATH;

struct EngineTest : RunningTest {
    void raise(u32 type, int port) {
        fabric.raise_event(type, port);
        kernel.settle();
    }
    bool knows(u32 address) { return tarv_hash_get_entry(address, nullptr) == tarv_stat_ok; }
};

struct FailingStart {
    const char* name;
    const char* service;
    const char* line;
};
struct FailingStartTest : EngineTest, testing::WithParamInterface<FailingStart> {};

TEST_P(FailingStartTest, LeavesNothing) {
    unload();
    host::clear_console();
    trace(TARV_DEBUG);
    host::fail_nth(GetParam().service, 1);
    EXPECT_EQ(tarv_init(), tarv_stat_error);
    EXPECT_THAT(
        masked(),
        ElementsAre("D tarv_api/tarv_aync_ev_init: " + std::string(GetParam().line),
                    "E tarv_api/tarv_init: Error initializing async events registration<-255>.",
                    "D tarv_arp_hash/tarv_hash_destroy: The ARP table is empty."));
    EXPECT_EQ(kernel.remains(), Lines{});
    EXPECT_EQ(hca_h, nullptr);

    host::fail_nth(GetParam().service, 1);
    EXPECT_EQ(host::load_module(tarv_module), -1);
    EXPECT_EQ(kernel.remains(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(
    Site, FailingStartTest,
    testing::Values(FailingStart{"no_adapter", "gx_hca_open", "gx_hca_open() failed <-2>"},
                    FailingStart{"no_events", "gx_set_sleepable_async_event_cb",
                                 "gx_set_sleepable_async_event_cb() failed <-1>"}),
    row_name);

/* The host stops at the first name that is withdrawn without being registered: of two that are
 * gone, the one whose turn comes first. */
TEST_F(EngineTest, NamesAreWithdrawnInTheirOrder) {
    const std::vector<const char*> order = {"tarv_get_ib_data_fn", "tarv_attach_fn",
                                            "tarv_detach_fn", "tarv_process_arp_data_fn",
                                            "tarv_seq_cache_lookup_fn"};
    fabric.ipoib().detach();
    for (std::size_t i = 0; i + 1 < order.size(); i++)
        EXPECT_DEATH(
            {
                inter_module_unregister(order[i]);
                inter_module_unregister(order[i + 1]);
                host::unload_module(tarv_module);
            },
            std::string("nobody registered the name ") + order[i] + " ");
}

/* A path that is not valid any more still names the port that it came from. */
TEST_F(EngineTest, ALinkDownPurgesWhoHasAPathFromThere) {
    know(2, TARV_MASK_PRIMARY_PATH);
    know(3, TARV_MASK_SECONDARY_PATH);
    fabric.set_link(2, false);
    kernel.settle();
    EXPECT_TRUE(knows(host_ip(2)));
    EXPECT_FALSE(knows(host_ip(3)));
}

/* Whoever breaks a rule of locks is told their names. */
TEST_F(EngineTest, LocksBearTheirOwnNames) {
    for (const auto& [lock, name] : {std::pair{&driver_lock, "driver_lock"},
                                     {&static_path_lock, "static_path_lock"},
                                     {&tarv_rl_lock, "tarv_rl_lock"},
                                     {&tarv_sa_rl_lock, "tarv_sa_rl_lock"},
                                     {&tarv_sa_lock, "tarv_sa_lock"}}) {
        const spin_guard guard(*lock);
        EXPECT_EQ(host::held_locks(), name);
    }
    const read_guard guard(tarv_lock);
    EXPECT_EQ(host::held_locks(), "tarv_lock");
}

struct Refused {
    const char* name;
    u32 type;
    int port;
    Lines logged;
};
struct RefusedTest : EngineTest, testing::WithParamInterface<Refused> {};

TEST_P(RefusedTest, OnlyLogs) {
    know(2, primary);
    trace(TARV_DEBUG);
    raise(GetParam().type, GetParam().port);
    EXPECT_EQ(masked(), GetParam().logged);
    EXPECT_EQ(fabric.gsi().open_classes(), 2u);
    EXPECT_TRUE(knows(host_ip(2)));
}

Lines refused_link_up(int port, const std::string& why) {
    return {"D tarv_api/tarv_async_event_cb: Received link_up <port:" + std::to_string(port) + ">",
            "E tarv_sa/tarv_sa_init: " + std::string(why)};
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Site, RefusedTest, testing::Values(
    Refused{"unknown", 0xABCDE, 2, {"D tarv_api/tarv_async_event_cb: Received async event <type: ABCDE> <port:2>"}},
    Refused{"second_link_up", 0x10000, 1, refused_link_up(1, "Allready initialized.")},
    Refused{"link_up_9", 0x10000, 9, refused_link_up(9, "Port #9 is not supported, ports are 1 to 8.")},
    Refused{"link_up_0", 0x10000, 0, refused_link_up(0, "Port #0 is not supported, ports are 1 to 8.")},
    Refused{"link_down_9", 0x20000, 9, {"D tarv_api/tarv_async_event_cb: Received link_down <port:9>"}},
    Refused{"sm_change_9", 0x40000, 9, {"D tarv_sa/tarv_sa_get_sa_info: gx_port_query() failed <-3>"}}), row_name);
// clang-format on

TEST_F(EngineTest, TheLastWordsAreSpokenBeforeTheAdapterIsClosed) {
    struct Last {
        static void reply(tarv_stat_t, tarv_arp_data_t*, void* test) {
            auto* engine = static_cast<EngineTest*>(test);
            engine->note(hca_h ? "open" : "closed");
            EXPECT_EQ(engine->fabric.gsi().open_classes(), 2u);
            EXPECT_THAT(host::inter_module_names(), IsEmpty());
        }
    };
    know(2);
    tarv_get_ib_data(host_ip(2), host_ip(1), tarv_paths_both, &record, Last::reply, this, 0);
    unload();
    EXPECT_THAT(timeline, Contains("+0 open"));
}

TEST_F(EngineTest, OnlyOneDriverAttaches) {
    trace(TARV_ERROR);
    void* handle = nullptr;
    EXPECT_EQ(tarv_attach(nullptr, StandInDriver::send_arp, nullptr, &handle), tarv_stat_error);
    EXPECT_EQ(tarv_detach(&handle), tarv_stat_error);
    EXPECT_EQ(tarv_detach(nullptr), tarv_stat_error);
    EXPECT_EQ(ask(host_ip(2)), tarv_stat_pending) << "still attached";
    EXPECT_EQ(tarv_detach(reinterpret_cast<void*>(0xBEEF)), tarv_stat_ok);
    EXPECT_EQ(tarv_attach(nullptr, StandInDriver::send_arp, nullptr, &handle), tarv_stat_ok);
    EXPECT_EQ(handle, reinterpret_cast<void*>(0xBEEF));
    EXPECT_EQ(tarv_attach(nullptr, StandInDriver::send_arp, nullptr, &handle), tarv_stat_error);
    const std::string invalid = "E tarv_api/tarv_detach: Invalid handle.";
    EXPECT_THAT(
        masked(),
        ElementsAre(
            "E tarv_api/tarv_attach: send_arp_data_fn OR get_if_info_fn allready registered.",
            invalid, invalid,
            "E tarv_api/tarv_attach: send_arp_data_fn OR get_if_info_fn allready registered."));
    EXPECT_EQ(waiting_for_arp(), 1u) << "it goes on waiting";
}

}  // namespace
