// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The whole road of a request: ARP, the SA, both paths, the reply; and what becomes of one that
// nobody answers. All of it also across the moment at which the low half of the tick counter starts
// from 0 again.
#include "tests/support/module_test.h"

namespace {

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

struct RoadTest : SiteTest, testing::WithParamInterface<unsigned long> {
    RoadTest() : SiteTest(GetParam()) {}
};

TEST_P(RoadTest, OneResolutionIsLoggedLetterByLetter) {
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

TEST_P(RoadTest, AnArpRequestThatNobodyAnswersIsSentFourTimes) {
    fabric.peer(host_ip(2)).drop_all();
    kernel.advance(500);
    EXPECT_EQ(ask(host_ip(2), tarv_paths_primary), tarv_stat_pending);
    kernel.advance(100);
    ask(host_ip(3), tarv_paths_none, "other");
    kernel.advance(1900);
    ask(host_ip(4), tarv_paths_none, "late");
    trace(TARV_DEBUG);
    kernel.advance(3000);

    EXPECT_THAT(arp_requests(), ElementsAre("+500 10.0.0.2 reset 1", "+600 10.0.0.3 reset 0",
                                            "+2000 10.0.0.2 reset 1", "+2500 10.0.0.4 reset 0",
                                            "+3000 10.0.0.2 reset 1", "+4000 10.0.0.2 reset 1"));
    EXPECT_THAT(timeline, ElementsAre("+602 other told 0 with 10.0.0.3",
                                      "+2502 late told 0 with 10.0.0.4", "+5000 client told -254"));
    const std::string reset =
        "D tarv_req_list/tarv_req_timer_handler: *** At least one timeout found resetting media "
        "***";
    Lines expected = {
        "D tarv_api/tarv_process_arp_data: ARP processed <src_ip:0400000a,dst_ip:0100000a>"};
    for (const char* again : {"trying again after 1 of retries for request",
                              "trying again after 2 of retries for request"})
        expected.insert(
            expected.end(),
            {reset, "D tarv_api/tarv_retry_ib_data_request: " + std::string(again),
             "D tarv_req_list/tarv_add_arp_request: Added req: P",
             "D tarv_api/__tarv_get_ib_data: send_arp_data_fn() finished tarv_media_reset = 0.",
             "D tarv_api/tarv_retry_ib_data_request: status from __tarv_get_ib_data() - -253"});
    expected.push_back(reset);
    expected.push_back(
        "D tarv_api/tarv_retry_ib_data_request: maximum number of retries. stopped trying.");
    EXPECT_EQ(masked(), expected);
}

INSTANTIATE_TEST_SUITE_P(Ticks, RoadTest, testing::Values(1000ul, before_wrap),
                         [](const auto& row) {
                             return std::string(row.index == 0 ? "early" : "before_the_wrap");
                         });

}  // namespace
