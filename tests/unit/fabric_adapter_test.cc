// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The adapter as the verbs layer shows it, its events, and the LIDs that the subnet manager gives.
#include <map>

#include "host/console.h"
#include "tests/support/fabric_test.h"

using namespace fabric;
using namespace fabric_testing;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class AdapterTest : public FabricTest {
  protected:
    AdapterTest() {
        EXPECT_EQ(gx_hca_open(gx_default_hca_name(), 0, &hca), gx_return_ok);
        heard.clear();
        hear = [](gx_event_record_t) {};
    }

    static void listen(gx_event_record_t event) {
        EXPECT_EQ(host::current_context(), host::Context::event);
        heard.push_back(host::kformat("%x@%d", event.event_type, event.port_num));
        hear(event);
    }
    gx_return_t register_callback() {
        return gx_set_sleepable_async_event_cb(hca, {gx_async_even_all, nullptr}, listen);
    }

    gx_hca_h_t hca = nullptr;
    static inline std::vector<std::string> heard;
    static inline std::function<void(gx_event_record_t)> hear;
};

TEST_F(AdapterTest, ShowsItsAttributes) {
    gx_hca_attrib_t adapter{};
    EXPECT_EQ(gx_hca_query(hca, &adapter), gx_return_ok);
    EXPECT_EQ(adapter.guid, 0x1000u);
    EXPECT_EQ(adapter.port_num, 2u);

    fabric.move_sm(21, 6);
    fabric.set_pkeys(2, {0x7FFF, 0x8001, 0x8002});
    gx_port_attrib_t port{};
    EXPECT_EQ(gx_port_query(hca, 2, &port), gx_return_ok);
    EXPECT_EQ(port.port_num, 2);
    EXPECT_EQ(port.port_state, gx_port_state_active);
    EXPECT_EQ(port.port_base_lid, 12);
    EXPECT_EQ(port.port_mtu, 4);
    EXPECT_EQ(port.port_sma_address_info.port_num, 2);
    EXPECT_EQ(port.port_sma_address_info.sm_lid, 21);
    EXPECT_EQ(port.port_sma_address_info.service_level, 6);
    EXPECT_EQ(port.port_pkey_table_size, 3u);

    gx_gid_t gids[3] = {};
    u32 size = 3;
    EXPECT_EQ(gx_get_port_gid_tbl(hca, 2, &size, gids), gx_return_ok);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(gids[0], held(gid(0x1002)));
    gx_p_key_t pkeys[2] = {};
    size = 2;
    EXPECT_EQ(gx_get_port_partition_tbl(hca, 2, &size, pkeys), gx_return_ok);
    EXPECT_EQ(size, 2u);
    EXPECT_THAT(pkeys, ElementsAre(0x7FFF, 0x8001));
    EXPECT_NE(gx_port_query(hca, 3, &port), gx_return_ok);
    gx_hca_h_t other;
    EXPECT_NE(gx_hca_open("hca1", 0, &other), gx_return_ok);
}

TEST_F(AdapterTest, TellsOfPortsThatAreUpAndOfWhatHappensToThem) {
    fabric.set_link(2, false);
    ASSERT_EQ(register_callback(), gx_return_ok);
    EXPECT_THAT(heard, IsEmpty());
    kernel.settle();
    EXPECT_THAT(heard, ElementsAre("10000@1"));
    heard.clear();

    fabric.set_link(2, true);
    fabric.set_link(2, true);
    fabric.set_lid(1, 77);
    fabric.set_mtu(2, 5);
    fabric.move_sm(21, 0);
    fabric.raise_event(0x4711, 9);
    fabric.set_link(1, false);
    kernel.settle();
    EXPECT_THAT(heard, ElementsAre("10000@2", "2000@1", "1000@2", "40000@1", "40000@2", "4711@9",
                                   "20000@1"));
    EXPECT_EQ(fabric.adapter().port(1).lid, 77);
    EXPECT_EQ(fabric.adapter().port(2).mtu, 5);
    EXPECT_THROW(fabric.set_lid(1, 21), std::invalid_argument);
    EXPECT_THROW(fabric.set_link(3, true), std::invalid_argument);
}

TEST_F(AdapterTest, DeliversOneEventAtATimeAndNoneAfterTheEnd) {
    int depth = 0;
    hear = [&](gx_event_record_t event) {
        EXPECT_EQ(++depth, 1);
        if (event.event_type == gx_async_r_port_link_up)
            fabric.raise_event(0x99, event.port_num);
        kernel.settle();
        depth--;
    };
    ASSERT_EQ(register_callback(), gx_return_ok);
    kernel.settle();
    EXPECT_THAT(heard, ElementsAre("10000@1", "10000@2", "99@1", "99@2"));

    fabric.raise_event(0x77, 1);
    EXPECT_EQ(gx_dell_sleepable_async_event_cb(hca, listen), gx_return_ok);
    kernel.settle();
    EXPECT_EQ(heard.size(), 4u);
    EXPECT_NE(gx_dell_sleepable_async_event_cb(hca, listen), gx_return_ok);
    EXPECT_THAT(kernel.remains(), ElementsAre("1 open adapter(s)"));
    EXPECT_EQ(gx_hca_close(hca), gx_return_ok);
    EXPECT_THAT(kernel.remains(), IsEmpty());
}

using AdapterDeathTest = AdapterTest;

TEST_F(AdapterDeathTest, StopsAtWhatBreaksTheRules) {
    gx_hca_attrib_t adapter;
    EXPECT_DEATH(
        {
            gx_hca_close(hca);
            gx_hca_query(hca, &adapter);
        },
        "gx_hca_query: the adapter handle .* is not open");
    EXPECT_DEATH(
        {
            gx_hca_close(hca);
            gx_hca_close(hca);
        },
        "gx_hca_close: the adapter handle .* is not open");
    EXPECT_DEATH(
        {
            register_callback();
            gx_hca_close(hca);
        },
        "gx_hca_close: an event callback is still registered");
    EXPECT_DEATH(Fabric(fabric.topology(), fabric.hosts(), 0), "second fabric");
}

/* Topologies and the base LIDs that their ports get, by GUID. */
struct LidCase {
    const char* name;
    std::uint8_t lmc;
    const char* switch_lid;
    const char* lids[3];  // of the hosts, as the file gives them
    std::map<std::uint64_t, std::uint16_t> expected;
};
const LidCase lid_cases[] = {
    {"none given", 0, "0", {"0", "0", "0"}, {{0xA0, 1}, {0x11, 2}, {0x21, 3}, {0x31, 4}}},
    {"some given", 0, "2", {"0", "1", "0"}, {{0xA0, 2}, {0x11, 3}, {0x21, 1}, {0x31, 4}}},
    {"several LIDs a port", 2, "1", {"0", "8", "0"}, {{0xA0, 1}, {0x11, 4}, {0x21, 8}, {0x31, 12}}},
    {"given ones that do not fit",
     1,
     "1",
     {"3", "6", "0"},
     {{0xA0, 1}, {0x11, 2}, {0x21, 6}, {0x31, 4}}},
};

std::string star(const LidCase& c) {
    std::string text = host::kformat(
        "switchguid=0xa0\nSwitch\t3 \"S\"\t# \"S\" base port 0 lid %s lmc 0\n", c.switch_lid);
    for (int i = 1; i <= 3; i++)
        text += host::kformat("[%d]\t\"H%d\"[1]\t# 4xQDR\n", i, i);
    for (int i = 1; i <= 3; i++) {
        text += host::kformat("\ncaguid=0x%d0\nHca\t1 \"H%d\"\n", i, i);
        text += host::kformat("[1](%d1)\t\"S\"[%d]\t# lid %s lmc 0 \"S\" lid %s 4xQDR\n", i, i,
                              c.lids[i - 1], c.switch_lid);
    }
    return text;
}

TEST(SubnetManagerTest, KeepsGivenLidsAndGivesTheMissingOnes) {
    for (const LidCase& c : lid_cases) {
        SCOPED_TRACE(c.name);
        Topology topology = read_fabric(star(c));
        Subnet subnet(topology, {.lmc = c.lmc});
        for (const auto& [guid, lid] : c.expected) {
            std::optional<EndPort> port = subnet.by_gid(gid(guid));
            ASSERT_TRUE(port);
            EXPECT_EQ(port->lid, lid) << std::hex << guid;
            EXPECT_TRUE(subnet.by_lid(lid)->at == port->at);
        }
        EXPECT_EQ(subnet.manager().lid, c.expected.at(0xA0));
    }
}

/* Where the manager sits, by the port that the dump was made from and by which node is our host:
 * never on an island that it is not on, nor at a port without a link. */
TEST(SubnetManagerTest, SitsWhereTheDumpWasMadeOrElseWhereOurHostHearsIt) {
    const std::string nodes =
        "Switch 4 \"Empty\"\nSwitch 4 \"Island\"\n[1] \"Robinson\"[1]\n"
        "Switch 4 \"Main\"\n[1] \"Us\"[2]\n"
        "Ca 1 \"Robinson\"\nCa 2 \"Us\"\nCa 1 \"Left\"\n[1] \"Right\"[1]\nCa 1 \"Right\"\n"
        "Ca 1 \"Alone\"\n";
    enum Index { empty, island, mainland, robinson, us, left, right, alone };
    constexpr std::uint64_t our_ports[] = {0x100003, 0x100004}, right_port = 0x100008;
    struct Case {
        std::uint64_t origin;
        int home, place;
    };
    for (const Case& c : {Case{0, robinson, island},
                          {0, us, mainland},
                          {0, left, left},
                          {0, right, left},
                          {our_ports[1], us, us},
                          {our_ports[0], us, mainland},
                          {our_ports[1], robinson, island},
                          {0x200000, us, mainland},
                          {0x200002, us, mainland},
                          {right_port, left, right}}) {
        const Topology topology = read_fabric(
            host::kformat("#\n# Initiated from node 00000000000a0001 port %016lx\n", c.origin) +
            nodes);
        EXPECT_EQ(Subnet(topology, {}, c.home).manager().at.node, c.place)
            << std::hex << c.origin << " " << c.home;
        EXPECT_THROW(Subnet(topology, {}, alone), InputError);
    }
}

}  // namespace
