// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Every decision about a request: hit or miss, with or without a callback, a driver, paths, the SA;
// and every step that can fail.
#include <cstring>

#include "tests/support/module_test.h"

namespace {

using namespace support;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr u32 primary = TARV_MASK_PRIMARY_PATH;
constexpr u32 secondary = TARV_MASK_SECONDARY_PATH;
constexpr u32 both = primary | secondary;

struct Hit {
    const char* name;
    int wanted;
    u32 cached;
    bool callback;
    u8 sa_on;
    tarv_stat_t status;
};
struct HitTest : SiteTest, testing::WithParamInterface<Hit> {};

TEST_P(HitTest, IsDecidedByWhatIsWantedAndCached) {
    const Hit& row = GetParam();
    know(2, row.cached);
    write_once(sa_queries_enabled, row.sa_on);
    const auto wanted = static_cast<tarv_paths_t>(row.wanted);
    EXPECT_EQ(ask(host_ip(2), wanted, row.callback ? "client" : ""), row.status);
    EXPECT_EQ(record.dst_ip, host_ip(2));
    EXPECT_EQ(record.mask & both, row.cached);
    kernel.advance(20);
    const bool pending = row.status == tarv_stat_pending;
    EXPECT_EQ(queries(), pending ? 1u : 0u);
    ASSERT_EQ(replies.size(), pending ? 1u : 0u);
    if (pending) {
        EXPECT_EQ(replies[0].record.mask & both, both);
    }
    EXPECT_THAT(arp_requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Site, HitTest,
    testing::Values(Hit{"none_wanted", 0, 0, true, 1, tarv_stat_ok},
                    Hit{"none_wanted_no_callback", 0, 0, false, 1, tarv_stat_ok},
                    Hit{"primary_there", 1, primary, true, 1, tarv_stat_ok},
                    Hit{"primary_there_no_callback_sa_off", 1, primary, false, 0, tarv_stat_ok},
                    Hit{"both_there", 2, both, true, 1, tarv_stat_ok},
                    Hit{"both_there_no_callback", 2, both, false, 1, tarv_stat_ok},
                    Hit{"primary_missing_no_callback", 1, 0, false, 1, tarv_stat_not_found},
                    Hit{"primary_missing_no_callback_sa_off", 1, secondary, false, 0,
                        tarv_stat_not_found},
                    Hit{"secondary_missing_no_callback", 2, primary, false, 1, tarv_stat_not_found},
                    Hit{"primary_missing_sa_off", 1, 0, true, 0, tarv_stat_ok},
                    Hit{"secondary_missing_sa_off", 2, primary, true, 0, tarv_stat_ok},
                    Hit{"primary_missing", 1, 0, true, 1, tarv_stat_pending},
                    Hit{"only_secondary_of_both", 2, secondary, true, 1, tarv_stat_pending},
                    Hit{"secondary_missing", 2, primary, true, 1, tarv_stat_pending},
                    Hit{"three_paths", 3, 0, true, 1, tarv_stat_ok},
                    Hit{"minus_one_path", -1, 0, false, 1, tarv_stat_ok}),
    row_name);

struct RequestTest : SiteTest {
    static const tarv_list_entry_t* newest_for_paths() TA_NO_ANALYSIS {
        return *tarv_request_list(sa_requests.head).begin();
    }
};

TEST_F(RequestTest, AMissWithoutADriverIsAnError) {
    fabric.ipoib().detach();
    trace(TARV_ERROR);
    EXPECT_EQ(ask(host_ip(2), tarv_paths_none, ""), tarv_stat_not_found);
    EXPECT_EQ(ask(host_ip(2)), tarv_stat_error);
    EXPECT_THAT(masked(),
                ElementsAre("E tarv_api/__tarv_get_ib_data: No send_arp_data() registered "
                            "- can't send ARP request.(hint: call tarv_attach())"));
    EXPECT_EQ(waiting_for_arp(), 0u);
}

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

struct Invalidation {
    const char* name;
    bool known;
    u32 more;
    u8 statics;
    const char* logged;
    tarv_stat_t status;
};
struct InvalidationTest : SiteTest, testing::WithParamInterface<Invalidation> {};

TEST_P(InvalidationTest, DropsWhatMayBeDroppedAndResolvesAfresh) {
    const Invalidation& row = GetParam();
    if (row.known)
        know(2, row.more);
    write_once(statics_inv_enabled, row.statics);
    trace(TARV_FUNC);
    EXPECT_EQ(ask(host_ip(2), tarv_paths_none, "client", 1), row.status);
    EXPECT_THAT(
        masked(),
        Contains(
            std::string("F tarv_api/__tarv_get_ib_data: Invalidate is ON, Entry <IP:0x200000A> ") +
            row.logged + "."));
    EXPECT_EQ(arp_requests().size(), row.status == tarv_stat_pending ? 1u : 0u);
    EXPECT_EQ(table().size, row.status == tarv_stat_pending ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Site, InvalidationTest,
    testing::Values(
        Invalidation{"learned", true, 0, 0, "removed", tarv_stat_pending},
        Invalidation{"unknown", false, 0, 1, "not found", tarv_stat_pending},
        Invalidation{"static_entry", true, TARV_MASK_STATIC, 1, "removed", tarv_stat_pending},
        Invalidation{"kept_static", true, TARV_MASK_STATIC, 0, "not found", tarv_stat_ok}),
    row_name);

TEST_F(RequestTest, AWaitingRequestRemembersWhatItNeeds) {
    know(2);
    for (const tarv_paths_t wanted : {tarv_paths_primary, tarv_paths_both}) {
        ask(host_ip(2), wanted);
        const tarv_list_entry_t* entry = newest_for_paths();
        EXPECT_EQ(entry->req_ip, host_ip(2));
        EXPECT_EQ(entry->src_ip, host_ip(1));
        EXPECT_EQ(entry->requested_paths, wanted);
        EXPECT_EQ(entry->needed_paths_mask, wanted == tarv_paths_both ? 3 : 1);
        EXPECT_EQ(entry->dgid, heard(2).gid);
        EXPECT_EQ(entry->n_retries, 0);
        EXPECT_EQ(entry->orig_arp_data.dst_ip, host_ip(2));
        EXPECT_EQ(entry->orig_arp_data.primary_path, &entry->orig_arp_data.paths[0]);
        EXPECT_EQ(entry->orig_arp_data.secondary_path, &entry->orig_arp_data.paths[1]);
    }
    kernel.advance(10);
}

TEST_F(RequestTest, AnArpRequestHoldsNothingButItsFiveFields) {
    fabric.peer(host_ip(2)).drop_all();
    clients.push_back({{"client", replies}, this});
    std::memset(&record, 0xA5, sizeof record);
    ASSERT_EQ(tarv_get_ib_data(host_ip(2), host_ip(1), tarv_paths_both, &record, reply,
                               &clients.back(), 0),
              tarv_stat_pending);
    kernel.advance(2000);
    const std::vector<fabric::SentRequest> sent = fabric.ipoib().requests();
    ASSERT_EQ(sent.size(), 3u) << "the request and its re-issues";
    for (const fabric::SentRequest& request : sent) {
        tarv_arp_data_t rest = request.record;
        EXPECT_EQ(rest.mask, 0x403u);
        EXPECT_EQ(rest.arp_operation, 1);
        EXPECT_EQ(rest.src_ip, host_ip(1));
        EXPECT_EQ(rest.dst_ip, host_ip(2));
        EXPECT_EQ(rest.context, &clients.back());
        rest.mask = rest.arp_operation = 0;
        rest.src_ip = rest.dst_ip = 0;
        rest.context = nullptr;
        EXPECT_THAT(std::vector<u8>(reinterpret_cast<u8*>(&rest), reinterpret_cast<u8*>(&rest + 1)),
                    testing::Each(0));
    }
    EXPECT_EQ(record.mask, 0u);
}

TEST_F(RequestTest, AnArpRequestThatCannotBeSentStaysWithoutItsCallback) {
    host::fail_nth("send_arp", 1);
    trace(TARV_ERROR);
    EXPECT_EQ(ask(host_ip(2)), tarv_stat_error);
    EXPECT_THAT(masked(), ElementsAre("E tarv_api/__tarv_get_ib_data: send_arp_data_fn() failed."));
    EXPECT_EQ(record.mask, 0x403u);
    EXPECT_EQ(record.arp_operation, TARV_ARP_OP_REQUEST);
    EXPECT_EQ(record.dst_ip, host_ip(2));
    EXPECT_EQ(waiting_for_arp(), 1u);
    kernel.advance(2000);
    EXPECT_EQ(masked(), retired_without_callback());
    EXPECT_EQ(waiting_for_arp(), 0u);
    ask(host_ip(3));
    EXPECT_THAT(arp_requests(), ElementsAre("+0 10.0.0.2 reset 1", "+2000 10.0.0.3 reset 1"));
    EXPECT_THAT(timeline, IsEmpty());
}

TEST_F(RequestTest, AReissueThatCannotBeSentEndsItsRequest) {
    fabric.peer(host_ip(2)).drop_all();
    ask(host_ip(2));
    host::fail_nth("send_arp", 1);
    trace(TARV_ERROR);
    kernel.advance(1000);
    EXPECT_THAT(timeline, ElementsAre("+1000 client told -255"));
    EXPECT_FALSE(replies.at(0).with_record);
    EXPECT_THAT(
        masked(),
        ElementsAre("E tarv_api/__tarv_get_ib_data: send_arp_data_fn() failed.",
                    "E tarv_api/tarv_retry_ib_data_request: __tarv_get_ib_data() returned :-255"));
    EXPECT_EQ(waiting_for_arp(), 1u);
    kernel.advance(1000);
    EXPECT_EQ(masked(), retired_without_callback());
}

TEST_F(RequestTest, NoMemoryForARequestIsAnError) {
    trace(TARV_ERROR);
    host::fail_nth("kmalloc", 1);
    EXPECT_EQ(ask(host_ip(2)), tarv_stat_error);
    know(2);
    host::fail_nth("kmalloc", 1);
    EXPECT_EQ(ask(host_ip(2), tarv_paths_primary), tarv_stat_error);
    EXPECT_THAT(
        masked(),
        ElementsAre(
            "E tarv_api/__tarv_get_ib_data: Not enough memory to allocate a request entry.",
            "E tarv_api/__tarv_get_ib_data: Not enough memory to allocate a SA request entry."));
    EXPECT_EQ(waiting_for_arp() + waiting_for_paths(), 0u);
    kernel.settle();
    EXPECT_EQ(queries() + arp_requests().size(), 0u);
}

TEST_F(RequestTest, NoMemoryForAReissueEndsTheRequestInSilence) {
    fabric.peer(host_ip(2)).drop_all();
    ask(host_ip(2));
    host::fail_nth("kmalloc", 1);
    trace(TARV_ERROR);
    kernel.advance(1000);
    EXPECT_THAT(masked(), ElementsAre("E tarv_api/tarv_retry_ib_data_request: Not enough memory to "
                                      "allocate a temp_arp_data (" +
                                      std::to_string(sizeof(tarv_arp_data_t)) + ")."));
    EXPECT_EQ(waiting_for_arp(), 0u);
    EXPECT_THAT(timeline, IsEmpty());
}

}  // namespace
