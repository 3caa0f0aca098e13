// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A request: the steps of its road, what it carries, and each step of it that can fail.
#include <cstring>

#include "tests/support/module_test.h"

namespace {

using namespace support;
using testing::Contains;
using testing::ElementsAre;

using RequestTest = RunningTest;

TEST_F(RequestTest, AHaltedModuleRefusesEvenWhatItKnows) {
    know(2);
    write_once(halted, 1);
    trace(TARV_DEBUG);
    std::memset(&record, 0xA5, sizeof record);
    const tarv_arp_data_t before = record;
    EXPECT_EQ(tarv_get_ib_data(host_ip(2), host_ip(1), tarv_paths_none, &record, reply, nullptr, 0),
              tarv_stat_error);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
    EXPECT_THAT(masked(), ElementsAre("D tarv_api/tarv_get_ib_data: module is in halt state (not "
                                      "sending ARP during stack stop)."));
}

TEST_F(RequestTest, OfAResolutionEachStepIsLoggedLetterByLetter) {
    trace(TARV_DEBUG);
    EXPECT_EQ(ask(host_ip(2), tarv_paths_both), tarv_stat_pending);
    EXPECT_EQ(record.mask, 0u);
    kernel.advance(10);

    EXPECT_EQ(
        masked(),
        (Lines{
            "D tarv_req_list/tarv_add_arp_request: Added req: P",
            "D tarv_api/__tarv_get_ib_data: send_arp_data_fn() finished tarv_media_reset = 0.",
            "D tarv_api/tarv_get_ib_data: status from __tarv_get_ib_data() - -253",
            "D tarv_api/tarv_process_arp_data: ARP processed <src_ip:0200000a,dst_ip:0100000a>",
            "D tarv_sa_req_list/tarv_sa_add_request: Added SA req: P",
            "D tarv_sa/tarv_sa_query_path: 2 sgids passed to "
            "tarv_sa_build_multi_path_rec_query_mad()",
            "D tarv_sa/tarv_sa_build_multi_path_rec_query_mad: Building RMPP payload",
            "D tarv_sa/tarv_sa_build_multi_path_rec_query_mad: Requesting 3 paths.",
            "D tarv_sa/tarv_sa_query_path: tarv_sa_build_multi_path_rec_query_mad() ok !!!",
            "D tarv_sa/tarv_sa_query_path: Sending the path query on port 1",
            "D tarv_sa/tarv_sa_parse_path_rec_query_mad_reply: **** GSI returned payload size of "
            "148 ****",
            "D tarv_sa/tarv_sa_parse_path_rec_query_mad_reply: Non-RMPP reply received",
            "",
            "D tarv_sa/tarv_sa_parse_path_rec_query_mad_reply: **** paysize - 20 = 128, sizeof "
            "ib_path_record_v2_t = 64 ****",
            "D tarv_sa/tarv_sa_recv_done_cb: Check     SGID: 0xFE8000000000000000001001 port: 1, "
            "SLID:11",
            "",
            "D tarv_sa/tarv_sa_recv_done_cb: Local port GID: 0xFE8000000000000000001001 port: 1",
            "",
            "D tarv_arp_hash/tarv_change_path_pkey: pkey of first path changed to: 0xffff",
            "D tarv_arp_hash/tarv_change_path_pkey: pkey of second path changed to: 0xffff",
            "D tarv_arp_hash/tarv_hash_update_paths: IP: 0200000A found.",
            "D tarv_arp_hash/tarv_hash_update_paths: Received 2 paths.",
            "D tarv_arp_hash/tarv_hash_update_paths: Primary path added<mask 0x2FF>.",
            "D tarv_arp_hash/tarv_hash_update_paths: Secondary path added<mask 0x3FF>.",
            "D tarv_arp_hash/tarv_hash_get_entry: IP: 0200000A found.",
        }));
    EXPECT_THAT(timeline,
                ElementsAre("+2 query on port 1 to lid 1 sl 0", "+4 client told 0 with 10.0.0.2"));

    EXPECT_EQ(ask(host_ip(2), tarv_paths_both), tarv_stat_ok);
    EXPECT_THAT(masked(),
                ElementsAre("D tarv_arp_hash/tarv_hash_get_entry_data: IP: 0200000A found.",
                            "D tarv_api/tarv_get_ib_data: status from __tarv_get_ib_data() - 0"));
}

TEST_F(RequestTest, WhatIsInvalidatedIsTraced) {
    know(2, TARV_MASK_STATIC);
    trace(TARV_FUNC);
    for (const auto& [statics, said] : {std::pair{0, "not found"}, {1, "removed"}}) {
        write_once(statics_inv_enabled, statics);
        ask(host_ip(2), tarv_paths_none, "client", 1);
        EXPECT_THAT(masked(), Contains("F tarv_api/__tarv_get_ib_data: Invalidate is ON, Entry "
                                       "<IP:0x200000A> " +
                                       std::string(said) + "."));
    }
}

TEST_F(RequestTest, AQueryKeepsTheRecordThatItsRequestBeganWith) {
    know(2);
    ask(host_ip(2), tarv_paths_both);
    const spin_guard guard(tarv_sa_rl_lock);
    const tarv_arp_data_t& kept = (*tarv_request_list(sa_requests.head).begin())->orig_arp_data;
    EXPECT_EQ(kept.dst_ip, host_ip(2));
    EXPECT_EQ(kept.primary_path, &kept.paths[0]);
    EXPECT_EQ(kept.secondary_path, &kept.paths[1]);
}

/* A call that fails while host 2, who answers nothing, is asked for and asked again, or the SA. */
struct Failing {
    const char* name;
    const char* service;
    tarv_paths_t paths;         // wanted of an entry that has none; none: there is no entry
    unsigned long first_ticks;  // after the request, before the call fails
    tarv_stat_t status;
    Lines logged;
};
struct FailingTest : RequestTest, testing::WithParamInterface<Failing> {};

TEST_P(FailingTest, IsLoggedAndEndsTheRequest) {
    const Failing& row = GetParam();
    fabric.peer(host_ip(2)).drop_all();
    if (row.paths != tarv_paths_none)
        know(2);
    trace(TARV_ERROR);
    if (row.first_ticks == 0)
        host::fail_nth(row.service, 1);
    EXPECT_EQ(ask(host_ip(2), row.paths), row.status);
    if (row.status == tarv_stat_error && row.service == std::string("send_arp")) {
        EXPECT_EQ(record.mask, 0x403u) << "the caller sees what could not be sent";
        EXPECT_EQ(record.dst_ip, host_ip(2));
    }
    host::fail_nth(row.service, 1);
    kernel.advance(row.first_ticks);
    host::clear_faults();
    kernel.advance(2000 - row.first_ticks);
    EXPECT_EQ(masked(), row.logged);
    EXPECT_EQ(waiting_for_arp() + waiting_for_paths(), 0u);
}

const std::string no_memory = "E tarv_api/__tarv_get_ib_data: Not enough memory to allocate a ";
const std::string returned =
    "E tarv_api/tarv_retry_ib_data_request: __tarv_get_ib_data() returned :";
const std::string no_callback =
    "E tarv_api/tarv_retry_ib_data_request: can't call reply callback (is NULL)";
const std::string not_sent = "E tarv_api/__tarv_get_ib_data: send_arp_data_fn() failed.";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Site, FailingTest, testing::Values(
    Failing{"send", "send_arp", tarv_paths_none, 0, tarv_stat_error, {not_sent, returned + "-256", no_callback}},
    Failing{"send_again", "send_arp", tarv_paths_none, 1000, tarv_stat_pending, {not_sent, returned + "-255", returned + "-256", no_callback}},
    Failing{"memory_for_arp", "kmalloc", tarv_paths_none, 0, tarv_stat_error, {no_memory + "request entry."}},
    Failing{"memory_for_paths", "kmalloc", tarv_paths_primary, 0, tarv_stat_error, {no_memory + "SA request entry."}},
    Failing{"memory_to_ask_again", "kmalloc", tarv_paths_none, 1000, tarv_stat_pending,
        {"E tarv_api/tarv_retry_ib_data_request: Not enough memory to allocate a temp_arp_data (" + std::to_string(sizeof(tarv_arp_data_t)) + ")."}}),
    row_name);
// clang-format on

}  // namespace
