// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The IPoIB driver and the peers' interfaces, with functions registered in the module's place.
#include "host/services.h"
#include "platform/module.h"
#include "tests/support/fabric_test.h"

using namespace fabric;
using namespace fabric_testing;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/* What the stand-in for the module was given. */
struct Given {
    send_arp_data_fn_t send = nullptr;
    get_if_info_fn_t info = nullptr;
    void* context = nullptr;
    void* detached = nullptr;
    std::vector<tarv_arp_data_t> heard;
} given;

tarv_stat_t attach(get_if_info_fn_t info, send_arp_data_fn_t send, void* context, void** handle) {
    given.info = info;
    given.send = send;
    given.context = context;
    *handle = reinterpret_cast<void*>(0xBEEF);
    return tarv_stat_ok;
}

tarv_stat_t detach(void* handle) {
    given.detached = handle;
    return tarv_stat_ok;
}

tarv_stat_t process(tarv_arp_data_t* record) {
    EXPECT_EQ(host::current_context(), host::Context::driver);
    given.heard.push_back(*record);
    return tarv_stat_ok;
}

/* The names of a module, for as long as it is there. */
class StandIn {
  public:
    explicit StandIn(Fabric& fabric) : fabric_(fabric) {
        given = {};
        add("tarv_attach_fn", attach);
        add("tarv_detach_fn", detach);
        add("tarv_process_arp_data_fn", process);
        EXPECT_EQ(fabric.ipoib().attach(), tarv_stat_ok);
    }
    ~StandIn() {
        if (fabric_.ipoib().attached())
            fabric_.ipoib().detach();
        for (const char* name : names_)
            inter_module_unregister(name);
    }

  private:
    template <class F>
    void add(const char* name, F* function) {
        inter_module_register(name, this_module(), reinterpret_cast<const void*>(function));
        names_.push_back(name);
    }
    Fabric& fabric_;
    std::vector<const char*> names_;
};

/* The module has an address asked for; what its send function answered. */
tarv_stat_t ask_for(std::uint32_t address, int media_reset = 0) {
    tarv_arp_data_t record{};
    record.mask = 0x403;
    record.arp_operation = 1;
    record.src_ip = ip(1);
    record.dst_ip = address;
    return given.send(&record, given.context, media_reset);
}

class IpoibTest : public FabricTest {
  protected:
    static tarv_stat_t ask(int n, int media_reset = 0) { return ask_for(ip(n), media_reset); }
    StandIn module{fabric};
};

TEST_F(IpoibTest, AsksByBroadcastAndHandsTheAnswerOver) {
    std::vector<std::string> wire;
    fabric.on_packet([&](const SeenPacket& seen) { wire.push_back(hex(seen.packet.payload)); });
    EXPECT_EQ(ask(2), tarv_stat_ok);
    kernel.advance(1);
    EXPECT_THAT(given.heard, IsEmpty());
    kernel.advance(1);

    std::string us = "80 4a 00 01 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 10 01 0a 00 00 01";
    std::string bob = "80 4a 00 02 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 20 01 0a 00 00 02";
    std::string nobody = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 0a 00 00 02";
    EXPECT_THAT(wire, ElementsAre("08 06 00 00 00 20 08 00 14 04 00 01 " + us + " " + nobody,
                                  "08 06 00 00 00 20 08 00 14 04 00 02 " + bob + " " + us));
    ASSERT_THAT(given.heard, SizeIs(1));
    const tarv_arp_data_t& record = given.heard[0];
    EXPECT_EQ(record.mask, 0x27Fu);
    EXPECT_EQ(record.arp_operation, 2);
    EXPECT_EQ(record.src_ip, ip(2));
    EXPECT_EQ(record.dst_ip, ip(1));
    EXPECT_EQ(record.gid, held(gid(0x2001)));
    EXPECT_EQ(record.qpn, 0x4A0002u);
    EXPECT_EQ(record.cap_flg, 0x80);
    EXPECT_EQ(record.lid, 21);
    EXPECT_EQ(record.qkey, 0xB1Bu);
    EXPECT_EQ(record.local_port_num, 1u);
}

TEST_F(IpoibTest, HearsOnlyWhatIsForUsWhileAttached) {
    fabric.peer_asks(ip(3));
    fabric.peers().ask(ip(3), ip(4));
    fabric.peer_announces(ip(2));
    kernel.advance(1);
    ASSERT_THAT(given.heard, SizeIs(2));
    EXPECT_EQ(given.heard[0].arp_operation, 1);
    EXPECT_EQ(given.heard[0].src_ip, ip(3));
    EXPECT_EQ(given.heard[1].arp_operation, 2);
    EXPECT_EQ(given.heard[1].src_ip, ip(2));
    kernel.advance(1);
    EXPECT_EQ(fabric.peers().replies_heard(), 1u) << "the asking peer is answered";

    fabric.ipoib().detach();
    EXPECT_EQ(given.detached, reinterpret_cast<void*>(0xBEEF));
    fabric.peer_asks(ip(3));
    kernel.advance(3);
    EXPECT_THAT(given.heard, SizeIs(2));
}

struct InfoCase {
    const char* name;
    const char* address;
    tarv_stat_t status;
    int loopback;
};
constexpr InfoCase info_cases[] = {
    {"own", "10.0.0.1", tarv_stat_ok, 1},
    {"peer", "10.0.0.9", tarv_stat_ok, 0},
    {"elsewhere", "10.0.1.9", tarv_stat_not_found, -1},
};

TEST_F(IpoibTest, TellsThePartitionOfAnAddress) {
    fabric.ipoib().set_pkey(0x8123);
    for (const InfoCase& c : info_cases) {
        SCOPED_TRACE(c.name);
        gx_p_key_t pkey = 0;
        int scratch = -1;
        int loopback = -1;
        EXPECT_EQ(given.info(*parse_ip(c.address), &pkey, nullptr, &scratch, &loopback), c.status);
        EXPECT_EQ(loopback, c.loopback);
        EXPECT_EQ(pkey, c.status == tarv_stat_ok ? 0x8123 : 0);
    }
    host::fail_nth("get_if_info", 1);
    gx_p_key_t pkey = 0;
    int loopback = -1;
    EXPECT_EQ(given.info(ip(2), &pkey, nullptr, nullptr, &loopback), tarv_stat_error);
}

TEST_F(IpoibTest, LeavesAPortThatIsDownAndReturnsOnAMediaReset) {
    fabric.set_link(1, false);
    EXPECT_EQ(ask(2), tarv_stat_ok);
    kernel.advance(2);
    ASSERT_THAT(given.heard, SizeIs(1));
    EXPECT_EQ(given.heard[0].local_port_num, 2u);

    fabric.set_link(1, true);
    EXPECT_EQ(ask(2), tarv_stat_ok);
    EXPECT_EQ(fabric.ipoib().port(), 2);
    EXPECT_EQ(ask(2, 1), tarv_stat_ok);
    EXPECT_EQ(fabric.ipoib().port(), 1);
    EXPECT_EQ(fabric.ipoib().media_resets(), 1u);

    fabric.set_link(1, false);
    fabric.set_link(2, false);
    EXPECT_EQ(ask(2), tarv_stat_error);
    EXPECT_THAT(fabric.ipoib().requests(), SizeIs(4));
}

/* A fault of the peer's packets, and the ticks after the first request at which answers to three
 * requests, sent at ticks 0, 10 and 20, arrive. */
struct FaultCase {
    const char* name;
    void (*script)(Fabric&);
    std::vector<unsigned long> arrivals;
};
const FaultCase fault_cases[] = {
    {"none", [](Fabric&) {}, {2, 12, 22}},
    {"peer drops two", [](Fabric& f) { f.peer(ip(2)).drop_next(2); }, {22}},
    {"peer drops all", [](Fabric& f) { f.peer(ip(2)).drop_all(); }, {}},
    {"peer late", [](Fabric& f) { f.peer(ip(2)).delay(15); }, {17, 27, 37}},
    {"peer doubles", [](Fabric& f) { f.peer(ip(2)).duplicate_next(1); }, {2, 2, 12, 22}},
    {"peer reorders", [](Fabric& f) { f.peer(ip(2)).hold_next(1); }, {12, 12, 22}},
    {"another peer drops", [](Fabric& f) { f.peer(ip(3)).drop_all(); }, {2, 12, 22}},
    {"port late both ways", [](Fabric& f) { f.port(1).delay(3); }, {8, 18, 28}},
    {"port loses a request", [](Fabric& f) { f.port(1).drop_next(1); }, {12, 22}},
    {"other port drops", [](Fabric& f) { f.port(2).drop_all(); }, {2, 12, 22}},
    {"slower legs", [](Fabric& f) { f.network().set_delays({.arp = 4}); }, {8, 18, 28}},
};

TEST_F(IpoibTest, MeetsScriptedFaults) {
    for (const FaultCase& c : fault_cases) {
        SCOPED_TRACE(c.name);
        given.heard.clear();
        c.script(fabric);
        std::vector<unsigned long> arrivals;
        for (unsigned long tick = 0; tick < 50; tick++) {
            if (tick == 0 || tick == 10 || tick == 20)
                ask(2);
            kernel.advance(1);
            for (; arrivals.size() < given.heard.size();)
                arrivals.push_back(tick + 1);
        }
        EXPECT_EQ(arrivals, c.arrivals);
        fabric.peer(ip(2)).clear();
        fabric.port(1).clear();
        fabric.port(2).clear();
        fabric.network().set_delays({});
    }
}

/* The subnet manager has hardly a LID left. */
TEST(IpoibScale, HearsEveryHostOfASubnetThatIsFull) {
    const Topology topology =
        make_fabric({.hosts = 46'000, .two_port_percent = 0, .hosts_per_leaf = 120});
    const std::vector<Host> hosts = deal_addresses(topology);
    app::Machine machine({topology, hosts, 0}, {}, {});
    const StandIn module(machine.fabric());
    for (std::size_t i = 1; i < hosts.size(); i++)
        ASSERT_EQ(ask_for(hosts[i].ip), tarv_stat_ok);
    machine.kernel().advance(2);
    ASSERT_THAT(given.heard, SizeIs(hosts.size() - 1));
    for (std::size_t i = 1; i < hosts.size(); i++) {
        ASSERT_EQ(given.heard[i - 1].src_ip, hosts[i].ip);
        ASSERT_EQ(given.heard[i - 1].lid, machine.fabric().peers().station(hosts[i].ip).lid);
    }
}

}  // namespace
