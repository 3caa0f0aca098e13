// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ports' SA contexts: what a set-up asks for and logs, what each of its failures leaves, and
// how contexts come and go.
#include "tarv/tarv-sa-private.h"
#include "tests/support/module_test.h"

namespace {

using support::Lines;

void paths_arrived(ib_path_record_v2_t*, int, u32) {}

tarv_stat_t set_up(int port) {
    return tarv_sa_init(paths_arrived, port);
}

const std::string nothing_set_up =
    " valid: 0, pkey: 0, sl: 0, sm lid: 0, gsi h: null, gsi pool h: null";

class SaContext : public support::SaTest {
  protected:
    explicit SaContext(int our_ports = 2) : SaTest(our_ports) {}

    /// What show_stat prints, whatever the trace levels.
    Lines shown() {
        told("tarv_sa");
        trace(TARV_PANIC);
        tarv_sa_show_stat();
        return told("tarv_sa", masked());
    }
    /// Its line of a port, its pointers as they are.
    std::string exactly_shown(int port) {
        told("tarv_sa");
        trace(TARV_PANIC);
        tarv_sa_show_stat();
        return told("tarv_sa")[static_cast<std::size_t>(port) + 1];
    }
    std::vector<std::size_t> open() {
        return {fabric.adapter().open_handles(), fabric.gsi().open_classes(), fabric.gsi().pools()};
    }
};
/// Adapter handles, GSI classes and pools.
using Open = std::vector<std::size_t>;

TEST_F(SaContext, ShowsNoPortsBeforeTheFirstSetUp) {
    EXPECT_EQ(shown(),
              (Lines{"err: param: 0, port: 0, get: 0, dgram: 0, gsi err: 0, 0", "port num: 0"}));
    EXPECT_EQ(tarv_sa_set_local_gids(nullptr, nullptr), tarv_stat_ok);
    EXPECT_EQ(tarv_sa_set_local_pkeys(1, 2), tarv_stat_ok);
    tarv_sa_cleanup();
}

TEST_F(SaContext, IsSetUpStepByStep) {
    fabric.set_pkeys(2, {0x8005, 0xFFFF});
    fabric.move_sm(11, 3);
    trace(TARV_FUNC);
    EXPECT_EQ(set_up(2), tarv_stat_ok);
    EXPECT_EQ(
        told("tarv_sa", masked()),
        (Lines{
            "F tarv_sa_get_hca_guid_and_port_count: hca handle is 0xP.",
            "F tarv_sa_get_port_gid_and_pkey: hca handle is 0xP.",
            "F tarv_sa_get_port_gid_and_pkey: Port #2 Partition key is 0x8005.",
            "F tarv_sa_get_sa_info: hca handle is 0xP.",
            "F tarv_sa_get_sa_info: port_attrib.port_base_lid: 0x0000000C.",
            "F tarv_sa_get_sa_info: port_attrib.port_num: 0x00000002.",
            "F tarv_sa_get_sa_info: port_attrib.port_sma_address_info.port_num: 0x00000002.",
            "F tarv_sa_get_sa_info: port_attrib.port_sma_address_info.service_level: 0x00000003.",
            "F tarv_sa_get_sa_info: port_attrib.port_sma_address_info.sm_lid: 0x0000000B.",
            "F tarv_sa_get_sa_info: port_attrib.port_sgid_table_size: 0x00000001.",
            "D tarv_sa_reg_to_gsi: Creating new GSI datagram pool",
            "D tarv_sa_init: gid:0xFE80000000000000,0x1002, p_key:8005, sm_lid:11,",
            "gsi_class_handle:P, gsi_pool_handle:P"}));
    EXPECT_EQ(open(), (Open{0, 1, 1}));
    EXPECT_EQ(fabric.gsi().registered(),
              (Lines{"class 3 version 2 on port 2, client, RMPP", "pool tarv of 1000"}));
    EXPECT_EQ(shown(),
              (Lines{"err: param: 0, port: 0, get: 0, dgram: 0, gsi err: 0, 0", "port num: 2",
                     nothing_set_up,
                     " valid: 1, pkey: 32773, sl: 3, sm lid: 11, gsi h: P, gsi pool h: P"}));
}

/// The `nth` call of a service fails during the set-up of port 1: which function logs what of it,
/// what the set-up then says, and the last two of the counters.
struct Failure {
    const char* name;
    const char* service;
    unsigned long nth;
    const char* function;
    const char* step;
    const char* setup;
    const char* counters;
};
class SetUpFailures : public SaContext, public testing::WithParamInterface<Failure> {};
TEST_P(SetUpFailures, LeaveNothing) {
    const Failure& row = GetParam();
    for (const bool of_the_step : {true, false}) {
        host::clear_faults();
        host::fail_nth(row.service, row.nth);
        trace(TARV_DEBUG);
        EXPECT_EQ(set_up(1), tarv_stat_error);
        EXPECT_EQ(told_by(of_the_step ? row.function : "tarv_sa_init", "tarv_sa"),
                  of_the_step ? row.step : row.setup);
        EXPECT_EQ(open(), (Open{0, 0, 0}));
    }
    EXPECT_EQ(shown(), (Lines{"err: param: 0, port: 0, get: 0, dgram: 0, gsi err: " +
                                  std::string(row.counters),
                              "port num: 0"}));
    EXPECT_EQ(set_up(1), tarv_stat_ok) << "nothing stands in the way of the next one";
    EXPECT_EQ(open(), (Open{0, 1, 1}));
}
constexpr char hca_fn[] = "tarv_sa_get_hca_guid_and_port_count";
constexpr char gid_fn[] = "tarv_sa_get_port_gid_and_pkey";
constexpr char sa_fn[] = "tarv_sa_get_sa_info";
constexpr char gsi_fn[] = "tarv_sa_reg_to_gsi";
constexpr char no_open[] = "D gx_hca_open() failed <-2>\n";
constexpr char no_hca[] = "E Cannot get HCA guid and port count.\n";
constexpr char no_gid[] = "E Cannot get port #1 gid and pkey\n";
constexpr char no_sa[] = "E Cannot get SA Info.\n";
constexpr char no_gsi[] = "E Cannot register to GSI.\n";
INSTANTIATE_TEST_SUITE_P(
    Services, SetUpFailures,
    testing::Values(Failure{"first_open", "gx_hca_open", 1, hca_fn, no_open, no_hca, "0, 0"},
                    Failure{"adapter", "gx_hca_query", 1, hca_fn, "D gx_hca_query() failed <-1>\n",
                            no_hca, "0, 0"},
                    Failure{"second_open", "gx_hca_open", 2, gid_fn, no_open, no_gid, "0, 0"},
                    Failure{"gid", "gx_get_port_gid_tbl", 1, gid_fn,
                            "D gx_get_port_gid_tbl() failed <-1>\n", no_gid, "0, 0"},
                    Failure{"pkey", "gx_get_port_partition_tbl", 1, gid_fn,
                            "D gx_get_port_partition_tbl() failed <-1>\n", no_gid, "0, 0"},
                    Failure{"third_open", "gx_hca_open", 3, sa_fn, no_open, no_sa, "0, 0"},
                    Failure{"port", "gx_port_query", 1, sa_fn, "D gx_port_query() failed <-1>\n",
                            no_sa, "0, 0"},
                    Failure{"class", "gsi_register_class", 1, gsi_fn, "E Can't register to GSI\n",
                            no_gsi, "2, 0"},
                    Failure{
                        "pool", "gsi_dtgrm_pool_create_named", 1, gsi_fn,
                        "D Creating new GSI datagram pool\nE Can't allocate GSI datagram pool\n",
                        no_gsi, "0, 2"}),
    support::row_name);

TEST_F(SaContext, NeedsAPKeyAndAGid) {
    trace(TARV_DEBUG);
    for (const bool has_pkey : {false, true}) {
        if (has_pkey)
            fabric.subnet().set_gid(fabric.adapter().port(1).at, {});
        fabric.set_pkeys(1, has_pkey ? std::vector<u16>{0xFFFF} : std::vector<u16>{});
        EXPECT_EQ(set_up(1), tarv_stat_error);
        EXPECT_EQ(told("tarv_sa"), (Lines{std::string("D ") + gid_fn + ": Port #1 has no " +
                                              (has_pkey ? "GID." : "P_Key."),
                                          "E tarv_sa_init: Cannot get port #1 gid and pkey"}));
        EXPECT_EQ(open(), (Open{0, 0, 0}));
    }
}

TEST_F(SaContext, KeepsItsPoolFromLinkDownToLinkUp) {
    ASSERT_EQ(set_up(1), tarv_stat_ok);
    const std::string before = exactly_shown(1);
    tarv_sa_destroy(1);
    EXPECT_EQ(open(), (Open{0, 0, 1}));
    EXPECT_EQ(shown()[2], " valid: 0, pkey: 65535, sl: 0, sm lid: 1, gsi h: null, gsi pool h: P");
    tarv_sa_destroy(1);  // a second link down finds nothing to do

    host::fail_nth("gsi_register_class", 1);
    EXPECT_EQ(set_up(1), tarv_stat_error);
    EXPECT_EQ(open(), (Open{0, 0, 1})) << "a failed set-up keeps it too";
    trace(TARV_DEBUG);
    EXPECT_EQ(set_up(1), tarv_stat_ok);
    EXPECT_EQ(told_by("tarv_sa_reg_to_gsi", "tarv_sa"), "") << "no new pool";
    const std::string after = exactly_shown(1);
    const auto pool_of = [](const std::string& line) { return line.substr(line.find("pool h")); };
    EXPECT_EQ(pool_of(after), pool_of(before));

    tarv_sa_destroy(1);
    tarv_sa_cleanup();
    EXPECT_EQ(open(), (Open{0, 0, 0})) << "the clean-up takes a pool that was kept";
}

TEST_F(SaContext, IsCleanedUpPortByPort) {
    ASSERT_EQ(set_up(1), tarv_stat_ok);
    ASSERT_EQ(set_up(2), tarv_stat_ok);
    EXPECT_EQ(open(), (Open{0, 2, 2}));
    trace(TARV_FUNC);
    tarv_sa_cleanup();
    EXPECT_EQ(told("tarv_sa"), (Lines{"D tarv_sa_cleanup: Port count is 2.",
                                      "D tarv_sa_cleanup: Trying to release port 1 ...",
                                      "D tarv_sa_cleanup: Trying to release port 2 ..."}));
    EXPECT_EQ(open(), (Open{0, 0, 0}));
    EXPECT_EQ(shown()[1], "port num: 2") << "what was found out stays";
    EXPECT_EQ(shown()[3],
              " valid: 0, pkey: 65535, sl: 0, sm lid: 1, gsi h: null, gsi pool h: null");
}

TEST_F(SaContext, FollowsTheSubnetManager) {
    ASSERT_EQ(set_up(1), tarv_stat_ok);
    fabric.move_sm(12, 5);
    EXPECT_EQ(tarv_sa_update_sa_info(2), tarv_stat_error) << "it is not set up";
    EXPECT_EQ(tarv_sa_update_sa_info(1), tarv_stat_ok);
    EXPECT_EQ(shown()[2], " valid: 1, pkey: 65535, sl: 5, sm lid: 12, gsi h: P, gsi pool h: P");
}

class SaPortNumbers : public SaContext, public testing::WithParamInterface<int> {};
TEST_P(SaPortNumbers, AreRefused) {
    ASSERT_EQ(set_up(1), tarv_stat_ok);
    const Lines before = shown();
    trace(TARV_ERROR);
    EXPECT_EQ(set_up(GetParam()), tarv_stat_error);
    EXPECT_EQ(told("tarv_sa").size(), 1u);
    EXPECT_EQ(tarv_sa_update_sa_info(GetParam()), tarv_stat_error);
    tarv_sa_destroy(GetParam());
    EXPECT_EQ(shown(), before);
    EXPECT_EQ(open(), (Open{0, 1, 1}));
}
INSTANTIATE_TEST_SUITE_P(OutsideOneToEight, SaPortNumbers, testing::Values(-1, 0, 3, 9, 257, 1000));

class ManyPorts : public SaContext, public testing::WithParamInterface<int> {
  protected:
    ManyPorts() : SaContext(GetParam()) {}
};
TEST_P(ManyPorts, AreServedUpToEight) {
    const bool too_many = GetParam() > 8;
    for (const int port : {1, 8}) {
        trace(TARV_ERROR);
        EXPECT_EQ(set_up(port), too_many ? tarv_stat_error : tarv_stat_ok);
        EXPECT_EQ(told("tarv_sa").empty(), !too_many);
    }
    EXPECT_EQ(shown()[1], too_many ? "port num: 0" : "port num: 8");
    EXPECT_EQ(open(), too_many ? (Open{0, 0, 0}) : (Open{0, 2, 2}));
    // As after a set-up on an adapter that reports fewer.
    tarv_sa_g.port_count = 1;
    tarv_sa_cleanup();
    EXPECT_EQ(open(), (Open{0, 0, 0}));
}
INSTANTIATE_TEST_SUITE_P(Adapters, ManyPorts, testing::Values(8, 9));

}  // namespace
