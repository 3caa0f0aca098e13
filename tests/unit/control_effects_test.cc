// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The module's state as the inspecting commands print it, and what comes of an invalidation. What
// commands do to entries, paths and switches is compared with a model at every step of the
// simulation.
#include "tests/support/module_test.h"

using namespace support;

namespace {

using ControlEffects = ControlTest;

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
    EXPECT_EQ(said("show 10.0.0.2").size(), 4u) << "no field but the address is valid";
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
