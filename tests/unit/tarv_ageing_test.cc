// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Ageing: at which run of the timer an entry goes, and what the run tells.
#include "platform/jiffies.h"
#include "tests/support/machine_test.h"
#include "tests/support/records.h"

namespace {

using support::add;
using support::ip_in_bucket;
using support::Lines;
using support::record;
using support::table;

class Ageing : public support::MachineTest {
  protected:
    Ageing() { tarv_hash_init(); }
    void TearDown() override {
        tarv_hash_destroy();
        MachineTest::TearDown();
    }
};

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
