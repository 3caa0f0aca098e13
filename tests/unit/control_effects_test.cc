// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the commands do, beyond what they say: entries, paths, switches, pending requests; and the
// module's state as the inspecting commands print it.
#include "tarv/tarv-sa-private.h"
#include "tests/support/module_test.h"

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using ControlEffects = ControlTest;

/* An entry as a command makes it: mask, LID, QP number, Q_Key, port and GID. */
struct Added {
    const char* name;
    const char* command;
    const char* record;
};

class ControlAdds : public ControlTest, public testing::WithParamInterface<Added> {};

INSTANTIATE_TEST_SUITE_P(
    Entries, ControlAdds,
    testing::Values(
        Added{"plain", "add 10.0.0.1 10.0.0.2 5", "8213 5 0 0 1 0"},
        Added{"qp_and_qkey", "add 10.0.0.1 10.0.0.2 5 0x48 17", "823B 5 48 11 1 0"},
        Added{"lid_0", "add 10.0.0.1 10.0.0.2 0 0", "821B 0 0 0 1 0"},
        Added{"lid_of_ones", "add 10.0.0.1 10.0.0.2 0xffffffff", "8213 FFFF 0 0 1 0"},
        Added{"no_qp", "add 10.0.0.1 10.0.0.2 0x10005 0xffffffff 4294967295", "8213 5 0 0 1 0"},
        Added{"gid", "addibarp 10.0.0.1 10.0.0.2 0xabcdef", "8207 0 0 0 1 ABCDEF"},
        Added{"all", "addibarp 10.0.0.1 10.0.0.2 0x1 7 0x48 0x11 2", "823F 7 48 11 2 1"},
        Added{"nothing_else", "addibarp 10.0.0.1 10.0.0.2 0x1 0xffffffff 0xffffffff 0xffffffff 300",
              "8207 0 0 0 12C 1"},
        Added{"gid_and_lid", "addibarp 10.0.0.1 10.0.0.2 0x1 0xffff", "8217 FFFF 0 0 1 1"}),
    row_name);

TEST_P(ControlAdds, AStaticEntry) {
    command(GetParam().command);
    tarv_arp_data_t record = {};
    ASSERT_EQ(tarv_hash_get_entry_data(ip("10.0.0.2"), &record), tarv_stat_ok);
    EXPECT_EQ(host::kformat("%X %X %X %X %X %LX", record.mask, record.lid, record.qpn, record.qkey,
                            record.local_port_num, gid_low(record.gid)),
              GetParam().record);
    EXPECT_EQ(record.src_ip, ip("10.0.0.1"));
    EXPECT_EQ(gid_high(record.gid), 0u);
    EXPECT_EQ(record.paths_count, 0);
}

/* The path that `full_path` describes, as it is shown. */
constexpr char full_path[] =
    " 0xfe800000000000000002c90300001234 0xfe800000000000000002c90300005678"
    " 5 0xa007 1 0x12345 64 9 0x8001 3 2 4 1 6 3 18";

Lines path_lines(const std::string& function, const std::string& which) {
    Lines lines;
    for (const char* text :
         {" DGID (128 bits): 0xFE800000000000000002C90300001234 ",
          " SGID (128 bits): 0xFE800000000000000002C90300005678 ", " DLID: 0x0005 (5)",
          " SLID: 0xA007 (40967)", " Raw Traffic (1 bit): 0x00000001 (1)",
          " Flow Label (20 bits): 0x00012345 (74565)", " Hop Limit (8 bits): 0x00000040 (64)",
          " Traffic Class(8 bits): 0x00000009 (9)", " Numb Path (7 bits): 0x00000001 (1)",
          " P_Key (16 bits): 0x00008001 (32769)", " SL (16 bits): 0x00000003 (3)",
          " MTU Selector (2 bits): 0x00000002 (2)", " MTU (6 bits): 0x00000004 (4)",
          " Rate Selector (2 bits): 0x00000001 (1)", " Rate (6 bits): 0x00000006 (6)",
          " PktLifeTime Selector (2 bits): 0x00000003 (3)",
          " PktLifeTime (6 bits): 0x00000012 (18)"})
        lines.push_back(error(function, which + text));
    return lines;
}

Lines block(int number) {
    return {error("tarv_proc_cmd_show_paths", "================== Path #" + std::to_string(number) +
                                                  " ========================="),
            ""};
}

class ControlShow : public ControlTest {
  protected:
    void SetUp() override {
        ControlTest::SetUp();
        set_level(TARV_ERROR);
    }
    static Lines show(const Lines& messages) {
        Lines lines;
        for (const std::string& message : messages)
            lines.push_back(error("tarv_proc_cmd_show", message));
        return lines;
    }
};

TEST_F(ControlShow, PrintsTheFieldsThatAreValid) {
    command("add 10.0.0.1 10.0.0.2 5");
    EXPECT_EQ(said("show 10.0.0.2"),
              show({"Looking for IP: 10.0.0.2.",
                    "IP: 10.0.0.2 (Please pay attention that only the valid fields are shown.)",
                    "===================", "Validity mask: 0x00008213 (33299)",
                    "Src IP: 10.0.0.1 0x0100000A (16777226)", "LID: 0x0005 (5)",
                    "Local port number: 0x00000001 (1)"}));
}

TEST_F(ControlShow, PrintsAnEntryThatHasEverything) {
    tarv_arp_data_t peer = record(ip("10.0.0.2"), 0x867F, 0xABCD);
    peer.src_ip = ip("192.168.200.255");
    peer.gid = gid(0xF0);
    peer.qpn = 0xFFFFFF;
    peer.qkey = 0x80000001;
    peer.cap_flg = 0x90;
    peer.local_port_num = 2;
    add(peer);
    command(std::string("addpath 10.0.0.2 p") + full_path);
    command("addpath 10.0.0.2 s * * * * * * * * * * * * * * * *");
    EXPECT_EQ(said("show 10.0.0.2"),
              show({"Looking for IP: 10.0.0.2.",
                    "IP: 10.0.0.2 (Please pay attention that only the valid fields are shown.)",
                    "===================", "Validity mask: 0x000087FF (34815)",
                    "Src IP: 192.168.200.255 0xFFC8A8C0 (-3626816)", "LID: 0xABCD (43981)",
                    "QKEY: 0x80000001 (-2147483647)", "QPN (24 bits): 0x00FFFFFF (16777215)",
                    "Capability flag (8 bits): 00000090 (144)",
                    "GID (128 bits): 0xFFFEFDFCFBFAF9F8F7F6F5F4F3F2F1F0 ",
                    "Local port number: 0x00000002 (2)"}) +
                  path_lines("tarv_proc_cmd_show", "Primary") +
                  path_lines("tarv_proc_cmd_show", "Secondary"));
    EXPECT_EQ(said("show_paths 10.0.0.2"),
              Lines{error("tarv_proc_cmd_show_paths", "Looking for IP: 10.0.0.2.")} + block(1) +
                  path_lines("tarv_proc_cmd_show_paths", "Primary") + block(2) +
                  path_lines("tarv_proc_cmd_show_paths", "Primary"));
}

/* The number of paths counts, not the mask, and never more than a record has room for. */
TEST_F(ControlShow, PrintsThreePathsAtMost) {
    tarv_arp_data_t peer = record(ip("10.0.0.2"), TARV_MASK_DST_IP);
    peer.paths_count = 5;
    add(peer);
    const Lines lines = said("show_paths 10.0.0.2");
    EXPECT_EQ(lines.size(), 1u + 3 * (2 + 17));
    EXPECT_EQ(lines[1 + 2 * (2 + 17)], block(3)[0]);
}

TEST_F(ControlEffects, SetsTheLocalPkeysThatStatisticsShow) {
    const std::string handles = ", gsi h: P, gsi pool h: P";
    const auto stat = [&](const char* one, const char* two) {
        return Lines{"err: param: 0, port: 0, get: 0, dgram: 0, gsi err: 0, 0", "port num: 2",
                     std::string(" valid: 1, pkey: ") + one + ", sl: 5, sm lid: 31" + handles,
                     std::string(" valid: 1, pkey: ") + two + ", sl: 5, sm lid: 31" + handles};
    };
    fabric.move_sm(31, 5);
    kernel.advance(10);
    EXPECT_EQ(said("show_stat"), stat("65535", "65535"));
    command("setlocalpkeys 0x18001 32770");
    EXPECT_EQ(said("show_stat"), stat("32769", "32770"));
    command("setlocalpkeys 0x8003 0");
    EXPECT_EQ(said("show_stat"), stat("32769", "32770"));
    command("setlocalpkeys 0xffff");
    EXPECT_EQ(said("show_stat"), stat("65535", "0"));
}

TEST_F(ControlEffects, SetsTheLocalGidsUntilThePortComesUpAnew) {
    const auto gids = [] {
        return std::vector<u64>{
            gid_high(sa_read_gid(tarv_sa_g.ports[0])), gid_low(sa_read_gid(tarv_sa_g.ports[0])),
            gid_high(sa_read_gid(tarv_sa_g.ports[1])), gid_low(sa_read_gid(tarv_sa_g.ports[1]))};
    };
    const u64 prefix = 0xFE80000000000000;
    ASSERT_THAT(gids(), ElementsAre(prefix, 0x1001, prefix, 0x1002));
    command("setlocalgids 0x1 0x2g");
    EXPECT_THAT(gids(), ElementsAre(prefix, 0x1001, prefix, 0x1002));
    command("setlocalgids 0xfe80000000000000000000000000000a");
    EXPECT_THAT(gids(), ElementsAre(prefix, 0xA, prefix, 0x1002));
    command("setlocalgids 0x1 0x20000000000000003");
    EXPECT_THAT(gids(), ElementsAre(0, 1, 2, 3));
    fabric.set_link(2, false);
    fabric.set_link(2, true);
    kernel.advance(10);
    EXPECT_THAT(gids(), ElementsAre(0, 1, prefix, 0x1002));
}

/* The record that "addpath" built last is repeated by "*", also when it could not be stored. */
TEST_F(ControlEffects, RepeatsTheLastPath) {
    command(std::string("addpath 10.0.0.9 p") + full_path);
    command("addpath 10.0.0.9 p 0x1 0x2 3 4 0 0 0 0 0 0 0 4 0 3 0 9");
    command("add 10.0.0.1 10.0.0.2 5");
    command("addpath 10.0.0.2 s * * * * * * * * * * * * * * * *rest");
    tarv_arp_data_t record = {};
    ASSERT_EQ(tarv_hash_get_entry_data(ip("10.0.0.2"), &record), tarv_stat_ok);
    EXPECT_EQ(record.mask & TARV_MASK_BOTH_PATHS, u32{TARV_MASK_SECONDARY_PATH});
    EXPECT_EQ(record.paths_count, 0);
    const ib_path_record_v2_t& path = record.paths[1];
    EXPECT_EQ(gid_low(path.dgid), 0x0002C90300001234u);
    EXPECT_EQ(gid_high(path.sgid), 0xFE80000000000000u);
    EXPECT_EQ(path.flow_word, 0x81234540u);
    EXPECT_EQ(path.pkey, 0x8001);
    EXPECT_EQ(path.sl_word, 3);
    EXPECT_EQ(path.mtu_selector << 6 | path.mtu, 0x84);
    EXPECT_EQ(path.numb_path, 1);
    EXPECT_EQ(path.reversible, 0);
    EXPECT_EQ(path.preference, 0);
}

TEST_F(ControlEffects, RepeatsZerosBeforeTheFirstPath) {
    command("add 10.0.0.1 10.0.0.2 5");
    command("addpath 10.0.0.2 p * * * * * * * * * * * * * * * *");
    tarv_arp_data_t record = {};
    ASSERT_EQ(tarv_hash_get_entry_data(ip("10.0.0.2"), &record), tarv_stat_ok);
    ib_path_record_v2_t zeros = {};
    zeros.numb_path = 1;
    EXPECT_EQ(__builtin_memcmp(&record.paths[0], &zeros, sizeof zeros), 0);
    EXPECT_EQ(record.paths_count, 1);
    EXPECT_TRUE(record.mask & TARV_MASK_PRIMARY_PATH);
}

/* Each edit of the static path, and its record afterwards: flow word, traffic class, P_Key, SL
 * word, the bytes of MTU, rate and life time. */
TEST_F(ControlEffects, EditsTheStaticPath) {
    struct Edit {
        const char* words;
        std::vector<u32> fields;
    };
    const auto fields = [] {
        const spin_guard guard(static_path_lock);
        const ib_path_record_v2_t& path = static_path;
        return std::vector<u32>{path.flow_word,
                                path.traffic_class,
                                path.pkey,
                                path.sl_word,
                                u32{path.mtu_selector} << 6 | path.mtu,
                                u32{path.rate_selector} << 6 | path.rate,
                                u32{path.pkt_life_time_selector} << 6 | path.pkt_life_time};
    };
    EXPECT_EQ(fields(), (std::vector<u32>{0, 0, 0xFFFF, 0, 3, 0, 0}));
    for (const Edit& edit :
         {Edit{"* * * * * * * 5 * * * *", {0, 0, 0xFFFF, 0, 5, 0, 0}},
          Edit{"1 0x12345 * * 0 * * * * * * *", {0x81234500, 0, 0, 0, 5, 0, 0}},
          Edit{"0 0x1fffff 0x1ff 256 1 0x1f 6 0x7f 7 65 4 0x7f",
               {0x0FFFFFFF, 0, 1, 15, 0xBF, 0xC1, 0x3F}},
          Edit{"* 0 * 7 * * 1 64 2 2 2 2", {0x000000FF, 7, 1, 15, 0x40, 0xC1, 0x3F}},
          Edit{"2 * 0 0 * 16 * 1 * 128 * *", {0, 0, 1, 0, 0x41, 0xC0, 0x3F}}}) {
        command(std::string("setstaticpath ") + edit.words);
        EXPECT_EQ(fields(), edit.fields) << edit.words;
    }
}

/* Replies of pending requests, as "ADDRESS STATUS". */
Lines replies;
u32 asked[8];

void reply(tarv_stat_t status, tarv_arp_data_t*, void* context) {
    replies.push_back(fabric::format_ip(*static_cast<u32*>(context)) + " " +
                      std::to_string(static_cast<int>(status)));
}

class ControlPending : public ControlTest {
  protected:
    void SetUp() override {
        ControlTest::SetUp();
        replies.clear();
        count_ = 0;
        command("sa_queries on");
        fabric.ipoib().attach();
    }
    tarv_stat_t ask(const char* address, tarv_paths_t paths = tarv_paths_none) {
        tarv_arp_data_t record = {};
        asked[count_] = ip(address);
        return tarv_get_ib_data(ip(address), ip("10.0.0.1"), paths, &record, reply,
                                &asked[count_++], 0);
    }
    /* Two requests for addresses that nobody has, and one for paths. */
    void leave_some_pending() {
        command("addibarp 10.0.0.1 10.0.0.3 0xfe800000000000000000000000002001");
        command("add 10.0.0.1 10.0.0.2 5 0x48");
        EXPECT_EQ(ask("10.0.0.8"), tarv_stat_pending);
        EXPECT_EQ(ask("10.0.0.9"), tarv_stat_pending);
        EXPECT_EQ(ask("10.0.0.3", tarv_paths_primary), tarv_stat_pending);
    }

  private:
    int count_ = 0;
};

TEST_F(ControlPending, IsDumpedToTheConsole) {
    leave_some_pending();
    const Lines titles = {"***********************", "Req Ip  \tSrc Ip  \tFWD"};
    const Lines gap = {"", ""};
    const Lines requests_then =
        Lines{"We have 1 pending gsi datagrams."} + gap + Lines{"Pending ib-arp requests: 2"} +
        titles +
        Lines{"010.000.000.009\t010.000.000.001\tNo ", "010.000.000.008\t010.000.000.001\tNo "} +
        gap + gap + Lines{"Pending sa requests: 1"} + titles +
        Lines{"010.000.000.003\t010.000.000.001\tNo "} + gap + gap;
    const Lines table_then =
        Lines{"IB-Arp Table entries: 2", "********************",
              "Ip             \tLid     \tQPN     ", "010.000.000.003\tNA      \tNA      ",
              "010.000.000.002\t0x00000005\t0x00000048"} +
        gap;
    EXPECT_EQ(said("dump all"), requests_then + table_then);
    kernel.advance(900);
    EXPECT_THAT(replies, ElementsAre("10.0.0.3 0"));
    command("flush");
    command("halt");
    const Lines requests_now = Lines{"We have 0 pending gsi datagrams."} + gap +
                               Lines{"Pending ib-arp requests: 0"} + titles + gap + gap +
                               Lines{"Pending sa requests: 0"} + titles + gap + gap;
    const Lines table_now = Lines{"IB-Arp Table entries: 0", "********************",
                                  "Ip             \tLid     \tQPN     "} +
                            gap;
    EXPECT_EQ(said("dump"), requests_now + table_now);
}

TEST_F(ControlPending, IsTriedAgainAsOftenAsTheRetryCountSays) {
    for (const auto& [line, sends] : {std::pair{"set_retry_cnt 11", 4},
                                      {"set_retry_cnt 1", 2},
                                      {"set_retry_cnt 10", 11},
                                      {"set_retry_cnt 0", 11}}) {
        command(line);
        fabric.ipoib().forget_requests();
        EXPECT_EQ(ask("10.0.0.9"), tarv_stat_pending);
        kernel.advance(30'000);
        EXPECT_EQ(fabric.ipoib().requests().size(), static_cast<std::size_t>(sends)) << line;
    }
    // The count holds for requests that wait already.
    EXPECT_EQ(ask("10.0.0.9"), tarv_stat_pending);
    command("set_retry_cnt 2");
    fabric.ipoib().forget_requests();
    kernel.advance(30'000);
    EXPECT_EQ(fabric.ipoib().requests().size(), 2u);
    EXPECT_EQ(replies.size(), 5u);
}

/* An invalidated address is resolved anew; the console hears how that ended. */
TEST_F(ControlEffects, InvalidatesAndResolvesAnew) {
    fabric.ipoib().attach();
    command("enable");
    command("sa_queries on");
    command("add 10.0.0.9 10.0.0.2 99");
    command("add 10.0.0.9 10.0.0.8 99");
    console();
    command("invalidate 10.0.0.2 1");
    kernel.advance(100);
    EXPECT_THAT(console(), testing::Contains(debug("tarv_get_ib_data_reply_dummy_fn",
                                                   "Entry <IP:10.0.0.2> invalidated ok")));
    tarv_arp_data_t record = {};
    ASSERT_EQ(tarv_hash_get_entry_data(ip("10.0.0.2"), &record), tarv_stat_ok);
    EXPECT_EQ(record.mask & (TARV_MASK_STATIC | TARV_MASK_PRIMARY_PATH),
              u32{TARV_MASK_PRIMARY_PATH});
    EXPECT_EQ(fabric.ipoib().requests().at(0).record.src_ip, ip("10.0.0.2"));
    command("invalidate 10.0.0.8 0");
    console();
    kernel.advance(5'000);
    EXPECT_THAT(console(), testing::Contains(debug("tarv_get_ib_data_reply_dummy_fn",
                                                   "Invalidation failed <Status:-254>.")));
    EXPECT_EQ(tarv_hash_get_entry_data(ip("10.0.0.8"), nullptr), tarv_stat_not_found);
}

}  // namespace
