// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The two intakes: ARP packets that the driver hands over, and the SA's path records.
#include <cstring>

#include "tests/support/module_test.h"

namespace {

using namespace support;
using testing::Contains;
using testing::ElementsAre;

struct IntakeTest : RunningTest {
    /// Clients whose ARP requests get lost wait for host 2.
    void wait_for_2(const std::vector<tarv_paths_t>& wanted) {
        fabric.peer(host_ip(2)).drop_all();
        for (std::size_t n = 0; n < wanted.size(); n++)
            EXPECT_EQ(ask(host_ip(2), wanted[n], std::string(1, static_cast<char>('a' + n))),
                      tarv_stat_pending);
    }
};

struct Operation {
    const char* name;
    u8 enabled;
    int operation;
    tarv_stat_t status;
    bool learned;
    Lines logged;
};
struct OperationTest : IntakeTest, testing::WithParamInterface<Operation> {};

TEST_P(OperationTest, LearnsFromRequestsAndRepliesAlike) {
    const Operation& row = GetParam();
    wait_for_2({tarv_paths_none});
    write_once(enabled, row.enabled);
    trace(TARV_DEBUG);
    const tarv_arp_data_t before = heard(2, static_cast<tarv_arp_op_t>(row.operation));
    EXPECT_EQ(hear(before), row.status);
    EXPECT_EQ(masked(), row.logged);
    EXPECT_EQ(table().size, row.learned ? 1u : 0u);
    EXPECT_EQ(replies.size(), row.learned ? 1u : 0u);
    if (row.learned) {
        EXPECT_EQ(replies[0].mask, 0x27Fu);
        EXPECT_EQ(replies[0].src_ip, host_ip(1));
        EXPECT_EQ(replies[0].dst_ip, host_ip(2));
    }
    EXPECT_EQ(hear(heard(3, static_cast<tarv_arp_op_t>(row.operation))), row.status)
        << "nobody waits for that peer";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Site, OperationTest, testing::Values(
    Operation{"disabled", 0, 2, tarv_stat_ok, false, {}},
    Operation{"request", 1, 1, tarv_stat_ok, true, {"D tarv_api/tarv_process_arp_data: ARP_REQ received <src_ip:0200000a,dst_ip:0100000a>"}},
    Operation{"reply", 1, 2, tarv_stat_ok, true, {"D tarv_api/tarv_process_arp_data: ARP processed <src_ip:0200000a,dst_ip:0100000a>"}},
    Operation{"third", 1, 3, tarv_stat_error, false, {"E tarv_api/tarv_process_arp_data: Invalid ARP operation<3>."}},
    Operation{"zeroth", 1, 0, tarv_stat_error, false, {"E tarv_api/tarv_process_arp_data: Invalid ARP operation<0>."}}), row_name);
// clang-format on

TEST_F(IntakeTest, AQueryThatCannotBeMadeIsAnError) {
    wait_for_2({tarv_paths_both});
    trace(TARV_ERROR);
    host::fail_nth("gsi_post_send_dtgrm", 1);
    EXPECT_EQ(hear(heard(2)), tarv_stat_error);
    EXPECT_THAT(masked(), ElementsAre("E tarv_api/tarv_process_arp_data: Error initiating "
                                      "multipath record query."));
}

TEST_F(IntakeTest, WithoutMemoryThePacketIsDropped) {
    wait_for_2({tarv_paths_none});
    trace(TARV_ERROR);
    host::fail_nth("kmalloc", 1);
    EXPECT_EQ(hear(heard(2)), tarv_stat_ok);
    host::fail_nth("kmalloc", 2);
    EXPECT_EQ(hear(heard(2)), tarv_stat_not_found);
    EXPECT_THAT(
        masked(),
        ElementsAre(
            "E tarv_api/tarv_process_arp_data: Failed allocate memory for local_arp_data (" +
                std::to_string(sizeof(tarv_arp_data_t)) + ").",
            "E tarv_api/tarv_process_arp_data: Not enough memory to allocate new arp entry."));
    EXPECT_EQ(table().size, 0u);
    EXPECT_EQ(waiting_for_arp(), 1u);
}

/* What came of a send whose answer was there before it had returned is seen in what it was given.
 */
TEST_F(IntakeTest, AReplyInsideTheSendLeavesTheDriversRecordAlone) {
    for (const tarv_stat_t sent : {tarv_stat_ok, tarv_stat_error}) {
        u32 mask_after = 0;
        StandInDriver driver{[&](tarv_arp_data_t& data, int) {
            hear(heard(2));
            mask_after = data.mask;
            return sent;
        }};
        use(driver);
        EXPECT_EQ(ask(host_ip(2), tarv_paths_none, "client", 1), tarv_stat_pending);
        EXPECT_EQ(mask_after, 0x403u);
        EXPECT_EQ(record.mask, sent == tarv_stat_ok ? 0u : 0x403u);
        tarv_detach(TARV_ATTACH_HANDLE);
    }
}

TEST_F(IntakeTest, ADriverThatDetachesItselfWhileItIsCalledIsStopped) {
    StandInDriver driver{[&](tarv_arp_data_t&, int) { return tarv_detach(TARV_ATTACH_HANDLE); }};
    use(driver);
    EXPECT_DEATH(ask(host_ip(2)), "down: may sleep, but was called inside send_arp_data_fn");
}

struct PathIntakeTest : IntakeTest {};

/* The entry goes between the storing of the paths and its lookup: the reply callback of a request
 * that is answered before removes it. */
TEST_F(PathIntakeTest, ARequestWhoseEntryVanishedIsReissuedAfterAllReplies) {
    struct Remover {
        static void reply(tarv_stat_t status, tarv_arp_data_t*, void* test) {
            static_cast<PathIntakeTest*>(test)->note("remover told " + std::to_string(status));
            tarv_hash_remove_all();
        }
    };
    write_once(get_data_retry, 1);
    know(2);
    tarv_get_ib_data(host_ip(2), host_ip(1), tarv_paths_both, &record, Remover::reply, this, 0);
    ask(host_ip(2), tarv_paths_both);
    fabric.peer(host_ip(2)).drop_all();
    trace(TARV_DEBUG);
    kernel.advance(3);
    const Lines lines = masked();
    EXPECT_THAT(lines,
                Contains("D tarv_api/tarv_process_path_rec_data: should send a retry for request"));
    EXPECT_THAT(
        lines,
        Contains(
            "D tarv_api/tarv_retry_ib_data_request: trying again after 0 of retries for request"));
    EXPECT_THAT(arp_requests(), ElementsAre("+2 10.0.0.2 reset 1"));
    kernel.advance(2000);
    timeline.erase(timeline.begin(), timeline.begin() + 2);
    EXPECT_THAT(timeline, ElementsAre("+2 remover told 0", "+2000 client told -254"));
}

TEST_F(PathIntakeTest, WithoutMemoryTheAnswerIsDroppedAndTheRequestWaits) {
    know(2);
    ask(host_ip(2), tarv_paths_both);
    host::fail_nth("kmalloc", 1);
    trace(TARV_ERROR);
    kernel.advance(10);
    EXPECT_THAT(
        masked(),
        ElementsAre(
            "E tarv_api/tarv_process_path_rec_data: Not enough memory for tarv_hash_entry."));
    EXPECT_EQ(waiting_for_paths(), 1u);
    kernel.advance(3000);
    EXPECT_EQ(timeline.back(), "+3002 client told 0 with 10.0.0.2");
}

}  // namespace
