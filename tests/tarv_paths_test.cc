// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Path records on their way into the cache: how they are stored, when a request is satisfied, and
// which P_Key they are given.
#include "host/faults.h"
#include "tests/support/fabric_test.h"
#include "tests/support/records.h"

namespace {

using support::Lines;
using support::logged;
using support::port_gid;

constexpr char unit[] = "tarv_arp_hash";
const u32 peer = support::ip("10.0.0.2");

/// What the attached driver answers, and what it was asked.
struct Driver {
    tarv_stat_t status = tarv_stat_ok;
    int loopback = 0;
    std::vector<u32> asked = {};
} driver;
constexpr gx_p_key_t interface_pkey = 0x8123;

tarv_stat_t interface_info(u32 address, gx_p_key_t* pkey, u32* unused, int* scratch,
                           int* loopback) {
    host::must_hold_no_lock("get_if_info");
    EXPECT_EQ(unused, nullptr);
    *scratch = 1;
    driver.asked.push_back(address);
    *pkey = interface_pkey;
    *loopback = driver.loopback;
    return driver.status;
}

class Paths : public support::FabricTest {
  protected:
    Paths() {
        tarv_hash_init();
        driver = {};
    }
    void TearDown() override {
        tarv_hash_destroy();
        FabricTest::TearDown();
    }
    /// Three records from local ports 1, 2 and 1 towards LIDs 101, 102 and 103.
    ib_path_record_v2_t received[3] = {
        support::path(support::gid(1), port_gid(0x1001), 101, 0xFFFF),
        support::path(support::gid(1), port_gid(0x1002), 102, 0xFFFF),
        support::path(support::gid(1), port_gid(0x1001), 103, 0xFFFF)};
};

std::string line(tarv_log_level_t level, const char* function, const std::string& text) {
    return logged(level, unit, function, text);
}

/// Paths given by command to an entry that had so many: its count and mask afterwards.
struct Setting {
    const char* name;
    int count_before;
    bool primary;
    bool secondary;
    int count;
    u32 mask;
};
class SetPaths : public Paths, public testing::WithParamInterface<Setting> {};
TEST_P(SetPaths, CountsStepByStep) {
    const Setting& row = GetParam();
    tarv_arp_data_t data = support::record(peer, TARV_MASK_STATIC);
    data.paths_count = row.count_before;
    const tarv_hash_entry_t* entry = support::add(data);
    write_once(statics_inv_enabled, 0);  // static entries take paths all the same
    trace(TARV_DEBUG);
    EXPECT_EQ(tarv_hash_set_paths(peer, row.primary ? &received[0] : nullptr,
                                  row.secondary ? &received[1] : nullptr),
              tarv_stat_ok);
    Lines expected = {line(TARV_DEBUG, "tarv_hash_set_paths", "IP: 0200000A found.")};
    if (row.primary)
        expected.push_back(line(TARV_DEBUG, "tarv_hash_set_paths", "Primary path added."));
    if (row.secondary)
        expected.push_back(line(TARV_DEBUG, "tarv_hash_set_paths", "Secondary path added."));
    EXPECT_EQ(console(), expected);
    EXPECT_EQ(entry->arp_data.paths_count, row.count);
    EXPECT_EQ(entry->arp_data.mask, row.mask | TARV_MASK_STATIC);
    EXPECT_EQ(entry->arp_data.paths[0].dlid, row.primary ? 101 : 0);
    EXPECT_EQ(entry->arp_data.paths[1].dlid, row.secondary ? 102 : 0);
    EXPECT_EQ(entry->arp_data.paths[0].pkey, row.primary ? 0xFFFF : 0);
    EXPECT_EQ(tarv_hash_set_paths(peer + 1, &received[0], nullptr), tarv_stat_not_found);
}
INSTANTIATE_TEST_SUITE_P(Commands, SetPaths,
                         testing::Values(Setting{"primary", 0, true, false, 1, 0x080},
                                         Setting{"secondary_first", 0, false, true, 0, 0x100},
                                         Setting{"both", 0, true, true, 2, 0x180},
                                         Setting{"second_of_two", 1, false, true, 2, 0x100},
                                         Setting{"primary_again", 2, true, false, 2, 0x080},
                                         Setting{"secondary_of_three", 3, false, true, 3, 0x100},
                                         Setting{"nothing", 0, false, false, 0, 0}),
                         support::row_name);

/// An answer of `count` paths for an entry that holds `before`; what a request that wants `wanted`
/// is told, and what the entry is like then.
struct Update {
    const char* name;
    int before;
    int count;
    int wanted;
    tarv_stat_t status;
    u32 mask;
    int paths_count;
};
class UpdatePaths : public Paths, public testing::WithParamInterface<Update> {};
TEST_P(UpdatePaths, StoresAndDecides) {
    const Update& row = GetParam();
    const tarv_hash_entry_t* entry = support::add(support::record(peer, TARV_MASK_LID));
    if (row.before)
        tarv_hash_update_paths(peer, received, row.before, tarv_paths_none, nullptr);
    std::swap(received[0], received[2]);
    tarv_hash_entry_t copy = {};
    trace(TARV_DEBUG);
    EXPECT_EQ(tarv_hash_update_paths(peer, row.count ? received : nullptr, row.count,
                                     static_cast<tarv_paths_t>(row.wanted), &copy),
              row.status);
    Lines expected = {line(TARV_DEBUG, "tarv_hash_update_paths", "IP: 0200000A found.")};
    const auto told = [&](const char* format, auto number) {
        expected.push_back(
            line(TARV_DEBUG, "tarv_hash_update_paths", host::kformat(format, number)));
    };
    if (row.count) {
        told("Received %d paths.", row.count);
        // The mask as it is at that moment: an older secondary path is still marked.
        told("Primary path added<mask 0x%X>.", row.before > 1 ? 0x190 : 0x090);
    }
    if (row.count > 1)
        told("Secondary path added<mask 0x%X>.", 0x190);
    Lines lines = console();
    lines.erase(lines.begin(), lines.begin() + 2);  // no driver: two warnings
    EXPECT_EQ(lines, expected);

    EXPECT_EQ(entry->arp_data.mask, row.mask | TARV_MASK_LID);
    EXPECT_EQ(entry->arp_data.paths_count, row.paths_count);
    EXPECT_EQ(entry->arp_data.primary_path, &entry->arp_data.paths[0]);
    EXPECT_EQ(entry->arp_data.secondary_path, &entry->arp_data.paths[1]);
    for (int i = 0; i < row.count; i++)
        EXPECT_EQ(entry->arp_data.paths[i].dlid,
                  (std::vector{103, 102, 101})[static_cast<std::size_t>(i)]);
    EXPECT_EQ(copy.arp_data.dst_ip, row.status == tarv_stat_ok ? peer : 0)
        << "a copy goes only to who is satisfied";
}
constexpr auto ok = tarv_stat_ok, pending = tarv_stat_pending;
INSTANTIATE_TEST_SUITE_P(Answers, UpdatePaths,
                         testing::Values(Update{"one_for_one", 0, 1, 1, ok, 0x080, 1},
                                         Update{"one_for_both", 0, 1, 2, pending, 0x080, 1},
                                         Update{"two_for_both", 0, 2, 2, ok, 0x180, 2},
                                         Update{"three_for_both", 0, 3, 2, ok, 0x180, 3},
                                         Update{"one_withdraws_two", 2, 1, 2, pending, 0x080, 1},
                                         Update{"one_after_two_for_one", 2, 1, 1, ok, 0x080, 1},
                                         Update{"none_for_none", 0, 0, 0, ok, 0, 0},
                                         Update{"none_for_one", 0, 0, 1, pending, 0, 0},
                                         Update{"none_with_older_two", 2, 0, 2, ok, 0x180, 2},
                                         Update{"two_for_nobody", 0, 2, 3, pending, 0x180, 2}),
                         support::row_name);

/// The rewrite of three records' P_Keys 0xFFFF.
struct Rewrite {
    const char* name;
    tarv_stat_t driver_status;
    int loopback;
    int count;
    std::vector<std::uint16_t> port2_table;  ///< port 1's is 0x8011
    std::vector<int> pkeys;
    Lines lines;  ///< those of tarv_change_path_pkey
};
class PKeyRewrite : public Paths, public testing::WithParamInterface<Rewrite> {
  protected:
    std::vector<int> pkeys() const {
        return {received[0].pkey, received[1].pkey, received[2].pkey};
    }
    Lines rewrite_lines() {
        Lines lines = console();
        std::erase_if(lines, [](const std::string& text) {
            return text.find("tarv_change_path_pkey:") == std::string::npos;
        });
        return lines;
    }
};
TEST_P(PKeyRewrite, GivesThePKeyThatIsUsedTowardsThePeer) {
    const Rewrite& row = GetParam();
    fabric.set_pkeys(1, {0x8011});
    fabric.set_pkeys(2, row.port2_table);
    driver.status = row.driver_status;
    driver.loopback = row.loopback;
    write_once(local_get_if_info_fn, interface_info);
    trace(TARV_DEBUG);
    // Also when the cache does not know the address.
    EXPECT_EQ(tarv_hash_update_paths(peer, received, row.count, tarv_paths_none, nullptr),
              tarv_stat_not_found);
    EXPECT_EQ(pkeys(), row.pkeys);
    EXPECT_EQ(rewrite_lines(), row.lines);
    EXPECT_EQ(driver.asked, std::vector<u32>{peer});
    EXPECT_EQ(fabric.adapter().open_handles(), 0u);
}
Lines of_rewrite(std::initializer_list<std::pair<tarv_log_level_t, const char*>> texts) {
    Lines lines;
    for (const auto& [level, text] : texts)
        lines.push_back(line(level, "tarv_change_path_pkey", text));
    return lines;
}
constexpr char loopback[] = "local_get_if_info_fn set loopback flag to true";
constexpr char no_pkey[] = "tarv_get_local_pkey failed";
constexpr char skipped[] = "change pkey of path(s) from SA was skipped";
INSTANTIATE_TEST_SUITE_P(
    Answers, PKeyRewrite,
    testing::Values(Rewrite{"one",
                            ok,
                            0,
                            1,
                            {0x8022},
                            {0x8123, 0xFFFF, 0xFFFF},
                            of_rewrite({{TARV_DEBUG, "pkey of first path changed to: 0x8123"}})},
                    Rewrite{"third_never",
                            ok,
                            0,
                            3,
                            {0x8022},
                            {0x8123, 0x8123, 0xFFFF},
                            of_rewrite({{TARV_DEBUG, "pkey of first path changed to: 0x8123"},
                                        {TARV_DEBUG, "pkey of second path changed to: 0x8123"}})},
                    Rewrite{"none", ok, 0, 0, {0x8022}, {0xFFFF, 0xFFFF, 0xFFFF}, Lines{}},
                    Rewrite{"driver_fails",
                            tarv_stat_error,
                            1,
                            2,
                            {0x8022},
                            {0xFFFF, 0xFFFF, 0xFFFF},
                            of_rewrite({{TARV_WARNING, "local_get_if_info_fn failed"},
                                        {TARV_WARNING, skipped}})},
                    Rewrite{"own_ports",
                            ok,
                            1,
                            2,
                            {0x22, 0x8022},
                            {0x8011, 0x8022, 0xFFFF},
                            of_rewrite({{TARV_DEBUG, loopback},
                                        {TARV_DEBUG, "pkey of first path changed to: 0x8011"},
                                        {TARV_DEBUG, "pkey of second path changed to: 0x8022"}})},
                    Rewrite{"second_port_has_none",
                            ok,
                            1,
                            2,
                            {0x22, 0x23},
                            {0x8011, 0xFFFF, 0xFFFF},
                            of_rewrite({{TARV_DEBUG, loopback},
                                        {TARV_DEBUG, "pkey of first path changed to: 0x8011"},
                                        {TARV_WARNING, no_pkey},
                                        {TARV_WARNING, skipped}})}),
    support::row_name);

TEST_F(PKeyRewrite, IsSkippedWithoutADriver) {
    trace(TARV_DEBUG);
    tarv_change_path_pkey(peer, received, 2);
    EXPECT_EQ(pkeys(), (std::vector<int>{0xFFFF, 0xFFFF, 0xFFFF}));
    EXPECT_EQ(console(), of_rewrite({{TARV_WARNING, "local_get_if_info_fn is not attached"},
                                     {TARV_WARNING, skipped}}));
}

TEST_F(PKeyRewrite, StopsAtTheFirstRecord) {
    fabric.set_pkeys(1, {0x11});
    driver.loopback = 1;
    write_once(local_get_if_info_fn, interface_info);
    tarv_change_path_pkey(peer, received, 2);
    EXPECT_EQ(pkeys(), (std::vector<int>{0xFFFF, 0xFFFF, 0xFFFF}));
}

/// The search for a full-member P_Key of the port with GUID `guid`, whose table is that.
struct Search {
    const char* name;
    std::uint64_t guid;
    std::vector<std::uint16_t> table;
    const char* failing;  ///< a service whose first call fails, or null
    tarv_stat_t status;
    int pkey;
    Lines lines;
};
class LocalPKey : public Paths, public testing::WithParamInterface<Search> {};
TEST_P(LocalPKey, IsTheFirstFullMemberOfFive) {
    const Search& row = GetParam();
    fabric.set_pkeys(2, row.table);
    if (row.failing)
        host::fail_nth(row.failing, 1);
    trace(TARV_DEBUG);
    gx_gid_t sgid = port_gid(row.guid);
    gx_p_key_t pkey = 0;
    EXPECT_EQ(tarv_get_local_pkey(&sgid, &pkey), row.status);
    EXPECT_TRUE(row.status != tarv_stat_ok || pkey == row.pkey) << pkey;
    EXPECT_EQ(console(), row.lines);
    EXPECT_EQ(fabric.adapter().open_handles(), 0u);
}
Lines of_search(std::initializer_list<std::pair<tarv_log_level_t, const char*>> texts) {
    Lines lines;
    for (const auto& [level, text] : texts)
        lines.push_back(line(level, "tarv_get_local_pkey", text));
    return lines;
}
constexpr char scan[] = "will scan port 2";
INSTANTIATE_TEST_SUITE_P(
    Tables, LocalPKey,
    testing::Values(
        Search{"first",
               0x1002,
               {0x8001, 0x8002},
               nullptr,
               ok,
               0x8001,
               of_search({{TARV_DEBUG, scan}, {TARV_DEBUG, "found local pkey 8001 at index 0"}})},
        Search{"behind_limited_and_unreadable",
               0x1002,
               {0x1, 0x7FFF, 0x8000},
               "pkey_index2pkey",
               ok,
               0x8000,
               of_search({{TARV_DEBUG, scan},
                          {TARV_WARNING, "pkey_index2pkey failed for index 0. will try next"},
                          {TARV_DEBUG,
                           "pkey of index 1 in port 2 is not usable (7fff). will try next."},
                          {TARV_DEBUG, "found local pkey 8000 at index 2"}})},
        Search{
            "fifth",
            0x1002,
            {0x1, 0x2, 0x3, 0x4, 0xFFFF},
            nullptr,
            ok,
            0xFFFF,
            of_search({{TARV_DEBUG, scan},
                       {TARV_DEBUG, "pkey of index 0 in port 2 is not usable (1). will try next."},
                       {TARV_DEBUG, "pkey of index 1 in port 2 is not usable (2). will try next."},
                       {TARV_DEBUG, "pkey of index 2 in port 2 is not usable (3). will try next."},
                       {TARV_DEBUG, "pkey of index 3 in port 2 is not usable (4). will try next."},
                       {TARV_DEBUG, "found local pkey ffff at index 4"}})},
        Search{
            "sixth_is_too_far",
            0x1002,
            {0x1, 0x2, 0x3, 0x4, 0x5, 0x8006},
            nullptr,
            tarv_stat_error,
            0,
            of_search({{TARV_DEBUG, scan},
                       {TARV_DEBUG, "pkey of index 0 in port 2 is not usable (1). will try next."},
                       {TARV_DEBUG, "pkey of index 1 in port 2 is not usable (2). will try next."},
                       {TARV_DEBUG, "pkey of index 2 in port 2 is not usable (3). will try next."},
                       {TARV_DEBUG, "pkey of index 3 in port 2 is not usable (4). will try next."},
                       {TARV_DEBUG, "pkey of index 4 in port 2 is not usable (5). will try next."},
                       {TARV_ERROR, "no local full member pkey found for port 2"}})},
        Search{"peer_s_port",
               0x2001,
               {0x8001},
               nullptr,
               tarv_stat_error,
               0,
               of_search({{TARV_ERROR, "base_gid2port_num failed "}})},
        Search{"no_adapter",
               0x1002,
               {0x8001},
               "gx_hca_open",
               tarv_stat_error,
               0,
               of_search({{TARV_ERROR, "gx_hca_open failed "}})}),
    support::row_name);

}  // namespace
