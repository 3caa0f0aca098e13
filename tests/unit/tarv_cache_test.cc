// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The address cache: what is logged, in which order it finds, and the text that it is rendered
// into. What becomes of entries is compared with a model at every step of the simulation.
#include "host/check.h"
#include "host/faults.h"
#include "host/services.h"
#include "tests/support/machine_test.h"
#include "tests/support/records.h"

namespace {

using support::add;
using support::gid;
using support::ip;
using support::ip_in_bucket;
using support::Lines;
using support::record;
using support::table;

constexpr char unit[] = "tarv_arp_hash";

class Cache : public support::MachineTest {
  protected:
    Cache() { tarv_hash_init(); }
    void TearDown() override {
        tarv_hash_destroy();
        MachineTest::TearDown();
    }
};

const u32 known = ip("10.0.0.1");
const u32 unknown = ip("10.0.0.2");
tarv_hash_entry_t copied;
tarv_arp_data_t new_data = record(known, TARV_MASK_LID, 2);
gx_gid_t first_gid = gid(1);

TEST_F(Cache, LogsWhatItFinds) {
    trace(TARV_DEBUG);
    EXPECT_EQ(tarv_hash_remove_all(), tarv_stat_ok);
    EXPECT_EQ(tarv_hash_remove_entries_by_sgid(&first_gid), tarv_stat_ok);
    add(record(known, 0));
    EXPECT_EQ(tarv_hash_update_ib_data(known, &new_data), tarv_stat_ok);
    EXPECT_EQ(tarv_hash_get_entry(known, &copied), tarv_stat_ok);
    EXPECT_EQ(copied.arp_data.lid, new_data.lid);
    EXPECT_EQ(tarv_hash_get_entry(known, nullptr), tarv_stat_ok);
    EXPECT_EQ(tarv_hash_get_entry_data(known, nullptr), tarv_stat_ok);
    tarv_hash_entry_t* entry = nullptr;
    EXPECT_EQ(tarv_hash_remove_entry(known, &entry), tarv_stat_ok);
    kfree(entry);
    add(record(known, 0));
    EXPECT_EQ(tarv_hash_remove_all(), tarv_stat_ok);
    EXPECT_EQ(told(unit), (Lines{"D tarv_hash_remove_all: The ARP table is empty.",
                                 "D tarv_hash_remove_entries_by_sgid: The ARP table is empty.",
                                 "D tarv_hash_update_ib_data: IP: 0100000A found.",
                                 "D tarv_hash_get_entry: IP: 0100000A found.",
                                 "D tarv_hash_get_entry: IP: 0100000A found.",
                                 "D tarv_hash_get_entry_data: IP: 0100000A found.",
                                 "D tarv_hash_remove_entry: IP: 0100000A found and removed."}));
    EXPECT_EQ(tarv_hash_get_entry(unknown, &copied), tarv_stat_not_found);
    EXPECT_EQ(tarv_hash_get_entry(unknown, nullptr), tarv_stat_not_found);
    EXPECT_EQ(tarv_hash_get_entry_data(unknown, nullptr), tarv_stat_not_found);
    EXPECT_EQ(tarv_hash_update_ib_data(unknown, &new_data), tarv_stat_not_found);
    EXPECT_EQ(tarv_hash_remove_entry(unknown, &entry), tarv_stat_not_found);
    EXPECT_EQ(console(), Lines{});
}

TEST_F(Cache, TracesALookupByGid) {
    const tarv_hash_entry_t* old = add(record(ip_in_bucket(1, 0), 0));
    const tarv_hash_entry_t* young = add(record(ip_in_bucket(1, 1), 0));
    trace(TARV_FUNC);
    gx_gid_t zero = {};
    tarv_hash_seq_cache_lookup(&zero, &copied.arp_data);
    const std::string fn = "F tarv_hash_seq_cache_lookup: ";
    EXPECT_EQ(told(unit), (Lines{fn + "Checking Bucket: 0", fn + "Checking Bucket: 1",
                                 fn + host::kformat("\tChecking Entry: %p (next: %p)", young, old),
                                 fn + "Entry found !!! "}));
    zero = gid(9);
    tarv_hash_seq_cache_lookup(&zero, &copied.arp_data);
    EXPECT_EQ(console().size(), 34u) << "32 buckets, 2 entries";
}

/* A slow console holds nobody up. */
TEST_F(Cache, DumpsTheSameWithoutMemoryForAPicture) {
    host::set_console([](const host::LogLine&) { host::must_hold_no_lock("a line of the dump"); });
    for (u32 n = 0; n < 300; n++)
        add(record(n % 2 ? n : ip_in_bucket(3, static_cast<int>(n)), TARV_MASK_DST_IP));
    tarv_hash_dump();
    const Lines whole = console();
    EXPECT_EQ(whole.size(), 5u + 300u + 2u);
    host::fail_nth("kmalloc", 1);
    tarv_hash_dump();
    EXPECT_EQ(console(), whole);
    host::set_console({});
}

// The text in the layout of the kernel's own ARP table.

/// Renders, and checks the buffer's size.
std::string render(std::size_t room) {
    char* buffer = nullptr;
    u32 length = 1;
    const std::size_t before = host::memory_use().bytes;
    tarv_hash_print_to_string(&buffer, &length);
    EXPECT_EQ(host::memory_use().bytes - before, room);
    EXPECT_EQ(buffer[length], '\0');
    std::string text(buffer, length);
    kfree(buffer);
    return text;
}
const std::string header =
    "IP address       HW type     Flags       HW address            Mask     Device\n";

class TextSizes : public Cache, public testing::WithParamInterface<int> {};
TEST_P(TextSizes, AreExact) {
    const auto n = static_cast<std::size_t>(GetParam());
    for (std::size_t i = 0; i < n; i++)
        add(record(~static_cast<u32>(i), 0xFFFFFFFF, 0xFFFF));
    EXPECT_EQ(render(80 * (n + 1)).size(), 79 + 78 * n);
}
INSTANTIATE_TEST_SUITE_P(Entries, TextSizes, testing::Values(0, 1, 2, 100));

TEST_F(Cache, NeverOverrunsItsBuffer) {
    for (u32 i = 1; i <= 5; i++)
        add(record(i, 0));
    // As if they had been added between the look at the size and the lock.
    for (const u32 seen : {0u, 2u}) {
        table().size = seen;
        EXPECT_EQ(render(80 * (seen + 1)).size(), 79 + 78 * seen);
    }
    table().size = 5;
}

}  // namespace
