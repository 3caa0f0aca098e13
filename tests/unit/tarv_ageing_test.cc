// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Ageing: at which run of the timer an entry goes, and what the run tells.
#include "tests/support/kernel_test.h"
#include "tests/support/records.h"

namespace {

using support::add;
using support::ip_in_bucket;
using support::Lines;
using support::record;
using support::table;

class Ageing : public support::KernelTest {
  protected:
    explicit Ageing(unsigned long first_jiffy = 1000) : KernelTest(first_jiffy) {
        tarv_hash_init();
    }
    void TearDown() override {
        tarv_hash_destroy();
        KernelTest::TearDown();
    }
};

/// An entry added `added` ticks after the table was made, and last looked up at `used` (0: never).
/// It is there one tick before `gone`, a run of the timer, and not any more afterwards.
struct Life {
    const char* name;
    unsigned long timeout;
    unsigned long added;
    unsigned long used;
    unsigned long gone;
};
constexpr unsigned long never = 0;

class Lives : public Ageing, public testing::WithParamInterface<std::tuple<Life, unsigned long>> {
  protected:
    Lives() : Ageing(std::get<1>(GetParam())) {}
};
TEST_P(Lives, EndAtTheRunAfterTheIdleTime) {
    const Life& life = std::get<0>(GetParam());
    arp_cache_timeout_sec = life.timeout;
    const unsigned long start = jiffies();
    kernel.advance(life.added);
    const u32 mask = life.gone == never ? TARV_MASK_STATIC : 0u;
    add(record(1, mask));
    if (life.used) {
        kernel.advance(start + life.used - jiffies());
        EXPECT_EQ(tarv_hash_get_entry(1, nullptr), tarv_stat_ok);
    }
    const unsigned long end = life.gone == never ? 10000000 : life.gone;
    kernel.advance(start + end - 1 - jiffies());
    EXPECT_EQ(table().size, 1u);
    kernel.advance(1);
    EXPECT_EQ(table().size, life.gone == never ? 1u : 0u);
}
INSTANTIATE_TEST_SUITE_P(
    Entries, Lives,
    testing::Combine(testing::Values(Life{"exactly_at_a_run", 300, 0, 0, 300000},
                                     Life{"just_missed_a_run", 300, 1, 0, 315000},
                                     Life{"used_since", 300, 0, 200001, 510000},
                                     Life{"used_at_the_last_moment", 300, 0, 299999, 600000},
                                     Life{"other_timeout", 20, 0, 0, 30000},
                                     Life{"no_timeout", 0, 14999, 0, 15000},
                                     Life{"static_for_ever", 300, 0, 0, never},
                                     Life{"static_without_timeout", 0, 0, 0, never}),
                     testing::Values(1000ul, support::before_wrap)),
    [](const auto& row) {
        return std::string(std::get<0>(row.param).name) +
               (std::get<1>(row.param) == 1000 ? "" : "_at_the_wrap");
    });

TEST_F(Ageing, NeverComesBeyondTheTickCounter) {
    for (const unsigned long timeout : {~0ul, ~0ul / HZ + 1, ~0ul / HZ, (~0ul - 1000) / HZ}) {
        arp_cache_timeout_sec = timeout;
        add(record(1, 0));
        kernel.advance(15000);
        EXPECT_EQ(table().size, 1u) << timeout;
        tarv_hash_remove_all();
    }
}

TEST_F(Ageing, TracesEveryBucketAndEntry) {
    arp_cache_timeout_sec = 10;
    const tarv_hash_entry_t* stays = add(record(ip_in_bucket(1, 0), TARV_MASK_STATIC));
    const u32 address = ip_in_bucket(1, 1);
    const std::string gone = host::kformat("%p", add(record(address, 0)));
    trace(TARV_FUNC);
    kernel.advance(15000);

    const std::string fn = "F tarv_garbage_collector_timer_handler: ";
    const std::string times = ", jiffies:16000, die at: 11000 timestamp 1000, ";
    Lines expected = {
        fn + "Checking Bucket: 0", fn + "Checking Bucket: 1",
        fn + "\tChecking Entry: " + gone + host::kformat(" (next: %p)", stays) + times,
        // The tab has no line end, so the next line's priority is not at the start of a line.
        fn + "\t<6>DEBUG   : TARV : tarv_garbage_collector_timer_handler:(tarv_arp_hash):" +
            host::kformat("Arp entry with IP: %08X timeouted and was removed.", address),
        fn + host::kformat("\tChecking Entry: %p (next: %p)", stays, nullptr) + times};
    for (int bucket = 2; bucket < 32; bucket++)
        expected.push_back(fn + "Checking Bucket: " + std::to_string(bucket));
    EXPECT_EQ(told("tarv_arp_hash"), expected);

    trace(TARV_DEBUG);
    kernel.advance(15000);
    EXPECT_EQ(console(), Lines{}) << "nothing was removed";
}

}  // namespace
