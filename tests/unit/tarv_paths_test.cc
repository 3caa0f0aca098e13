// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Path records on their way into the cache: how they are stored, when a request is satisfied, and
// which P_Key they are given.
#include "tests/support/module_test.h"

namespace {

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
    const host::DriverCall call("get_if_info");
    EXPECT_EQ(unused, nullptr);
    *scratch = 1;
    driver.asked.push_back(address);
    *pkey = interface_pkey;
    *loopback = driver.loopback;
    return driver.status;
}

class Paths : public support::ModuleTest {
  protected:
    Paths() {
        tarv_hash_init();
        driver = {};
    }
    void TearDown() override {
        tarv_hash_destroy();
        ModuleTest::TearDown();
    }
    /// Three records from local ports 1, 2 and 1 towards LIDs 101, 102 and 103.
    ib_path_record_v2_t received[3] = {
        support::path(support::gid(1), port_gid(0x1001), 101, 0xFFFF),
        support::path(support::gid(1), port_gid(0x1002), 102, 0xFFFF),
        support::path(support::gid(1), port_gid(0x1001), 103, 0xFFFF)};
};

/// P_Keys as "8001 7FFF".
std::vector<std::uint16_t> pkeys(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::uint16_t> result;
    for (std::uint16_t pkey; in >> std::hex >> pkey;)
        result.push_back(pkey);
    return result;
}

/// What becomes of three records' P_Keys FFFF. Port 1's table is 8011.
struct Rewrite {
    const char* name;
    bool attached;
    tarv_stat_t driver_status;
    int loopback;
    int count;
    const char* port2_table;
    const char* pkeys;
    const char* told;
};
constexpr auto ok = tarv_stat_ok;
constexpr char skipped[] = "W change pkey of path(s) from SA was skipped\n";
class PKeyRewrite : public Paths, public testing::WithParamInterface<Rewrite> {};
TEST_P(PKeyRewrite, GivesThePKeyThatIsUsedTowardsThePeer) {
    const Rewrite& row = GetParam();
    fabric.set_pkeys(1, {0x8011});
    fabric.set_pkeys(2, pkeys(row.port2_table));
    driver.status = row.driver_status;
    driver.loopback = row.loopback;
    write_once(local_get_if_info_fn, row.attached ? interface_info : nullptr);
    trace(TARV_DEBUG);
    // Also when the cache does not know the address.
    EXPECT_EQ(tarv_hash_update_paths(peer, received, row.count, tarv_paths_none, nullptr),
              tarv_stat_not_found);
    EXPECT_EQ((std::vector<std::uint16_t>{received[0].pkey, received[1].pkey, received[2].pkey}),
              pkeys(row.pkeys));
    std::string lines = told_by("tarv_change_path_pkey", unit);
    if (lines.ends_with(skipped))
        lines.resize(lines.size() - sizeof skipped + 1);
    else
        EXPECT_EQ(lines.find("W "), std::string::npos) << "a warning tells of the consequence";
    EXPECT_EQ(lines, row.told);
    EXPECT_EQ(driver.asked, std::vector<u32>(row.attached, peer));
    EXPECT_EQ(fabric.adapter().open_handles(), 0u);
}
#define LOOPBACK "D local_get_if_info_fn set loopback flag to true\n"
INSTANTIATE_TEST_SUITE_P(
    Answers, PKeyRewrite,
    testing::Values(Rewrite{"no_driver", false, ok, 0, 2, "8022", "FFFF FFFF FFFF",
                            "W local_get_if_info_fn is not attached\n"},
                    Rewrite{"driver_fails", true, tarv_stat_error, 1, 2, "8022", "FFFF FFFF FFFF",
                            "W local_get_if_info_fn failed\n"},
                    Rewrite{"none", true, ok, 0, 0, "8022", "FFFF FFFF FFFF", ""},
                    Rewrite{"one", true, ok, 0, 1, "8022", "8123 FFFF FFFF",
                            "D pkey of first path changed to: 0x8123\n"},
                    Rewrite{"third_never", true, ok, 0, 3, "8022", "8123 8123 FFFF",
                            "D pkey of first path changed to: 0x8123\n"
                            "D pkey of second path changed to: 0x8123\n"},
                    Rewrite{"own_ports", true, ok, 1, 2, "22 8022", "8011 8022 FFFF",
                            LOOPBACK "D pkey of first path changed to: 0x8011\n"
                                     "D pkey of second path changed to: 0x8022\n"},
                    Rewrite{"second_port_has_none", true, ok, 1, 2, "22 23", "8011 FFFF FFFF",
                            LOOPBACK "D pkey of first path changed to: 0x8011\n"
                                     "W tarv_get_local_pkey failed\n"}),
    support::row_name);

TEST_F(Paths, AreLeftAloneWhenTheFirstPortHasNoPKey) {
    fabric.set_pkeys(1, {0x11});
    driver.loopback = 1;
    write_once(local_get_if_info_fn, interface_info);
    tarv_change_path_pkey(peer, received, 2);
    EXPECT_EQ(received[0].pkey, 0xFFFF);
    EXPECT_EQ(received[1].pkey, 0xFFFF);
}

/// The search for a full-member P_Key of the port with that GUID, when port 2 has that table and
/// the first call of a service fails (null: none does). 0: there is none.
struct Search {
    const char* name;
    std::uint64_t guid;
    const char* table;
    const char* failing;
    int pkey;
    const char* told;
};
class LocalPKey : public Paths, public testing::WithParamInterface<Search> {};
TEST_P(LocalPKey, IsTheFirstFullMemberOfFive) {
    const Search& row = GetParam();
    fabric.set_pkeys(2, pkeys(row.table));
    if (row.failing)
        host::fail_nth(row.failing, 1);
    trace(TARV_DEBUG);
    gx_gid_t sgid = port_gid(row.guid);
    gx_p_key_t pkey = 0;
    EXPECT_EQ(tarv_get_local_pkey(&sgid, &pkey), row.pkey ? tarv_stat_ok : tarv_stat_error);
    EXPECT_TRUE(row.pkey == 0 || row.pkey == pkey) << pkey;
    EXPECT_EQ(told_by("tarv_get_local_pkey", unit), row.told);
    EXPECT_EQ(fabric.adapter().open_handles(), 0u);
}
#define LIMITED_TO_INDEX_3                                            \
    "D will scan port 2\n"                                            \
    "D pkey of index 0 in port 2 is not usable (1). will try next.\n" \
    "D pkey of index 1 in port 2 is not usable (2). will try next.\n" \
    "D pkey of index 2 in port 2 is not usable (3). will try next.\n" \
    "D pkey of index 3 in port 2 is not usable (7fff). will try next.\n"
INSTANTIATE_TEST_SUITE_P(
    Tables, LocalPKey,
    testing::Values(
        Search{"first", 0x1002, "8001 8002", nullptr, 0x8001,
               "D will scan port 2\nD found local pkey 8001 at index 0\n"},
        Search{"behind_an_unreadable_one", 0x1002, "8001 8000", "pkey_index2pkey", 0x8000,
               "D will scan port 2\nW pkey_index2pkey failed for index 0. will try next\n"
               "D found local pkey 8000 at index 1\n"},
        Search{"fifth", 0x1002, "1 2 3 7FFF FFFF", nullptr, 0xFFFF,
               LIMITED_TO_INDEX_3 "D found local pkey ffff at index 4\n"},
        Search{"sixth_is_too_far", 0x1002, "1 2 3 7FFF 5 8006", nullptr, 0,
               LIMITED_TO_INDEX_3 "D pkey of index 4 in port 2 is not usable (5). will try next.\n"
                                  "E no local full member pkey found for port 2\n"},
        Search{"peer_s_port", 0x2001, "8001", nullptr, 0, "E base_gid2port_num failed \n"},
        Search{"no_adapter", 0x1002, "8001", "gx_hca_open", 0, "E gx_hca_open failed \n"}),
    support::row_name);

}  // namespace
