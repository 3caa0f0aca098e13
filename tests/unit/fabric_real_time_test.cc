// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The fabric in real time: queries, ARP packets, events and scripts at the same moment on the
// threads of all contexts. What happens when is not looked at; that nothing is lost is, and the
// thread sanitizer sees the rest. Beside it, a fabric as large as a subnet can be.
#include <atomic>
#include <thread>

#include "host/services.h"
#include "platform/module.h"
#include "tests/support/gsi_client.h"

using namespace fabric;
using namespace fabric_testing;

namespace {

std::atomic<int> heard;
std::atomic<int> events;
send_arp_data_fn_t send_fn;
void* send_context;

tarv_stat_t attach(get_if_info_fn_t, send_arp_data_fn_t send, void* context, void** handle) {
    send_fn = send;
    send_context = context;
    *handle = nullptr;
    return tarv_stat_ok;
}
tarv_stat_t detach(void*) {
    return tarv_stat_ok;
}
tarv_stat_t process(tarv_arp_data_t*) {
    heard++;
    return tarv_stat_ok;
}

/* The names of a module, for as long as it is there. */
class Names {
  public:
    Names() {
        add("tarv_attach_fn", attach);
        add("tarv_detach_fn", detach);
        add("tarv_process_arp_data_fn", process);
    }
    ~Names() {
        for (const char* name : {"tarv_attach_fn", "tarv_detach_fn", "tarv_process_arp_data_fn"})
            inter_module_unregister(name);
    }

  private:
    template <class F>
    static void add(const char* name, F* function) {
        inter_module_register(name, this_module(), reinterpret_cast<const void*>(function));
    }
};

tarv_stat_t ask(std::uint32_t address) {
    tarv_arp_data_t record{};
    record.mask = 0x403;
    record.src_ip = ip(1);
    record.dst_ip = address;
    return send_fn(&record, send_context, 0);
}

template <class Condition>
void wait_until(host::Kernel& kernel, Condition condition) {
    for (int i = 0; i < 20000 && !condition(); i++)
        kernel.advance(1);
    EXPECT_TRUE(condition());
}

TEST(FabricRealTime, LosesNothingAmongThreads) {
    constexpr int rounds = 200;
    heard = 0;
    events = 0;
    host::Kernel kernel({.clock = host::Clock::real_time});
    Topology topology = read(site);
    Fabric fabric(topology, deal_addresses(topology), 0);
    Names names;
    ASSERT_EQ(fabric.ipoib().attach(), tarv_stat_ok);
    gx_hca_h_t hca = nullptr;
    ASSERT_EQ(gx_hca_open(gx_default_hca_name(), 0, &hca), gx_return_ok);
    auto count = [](gx_event_record_t) { events++; };
    gx_sleepable_async_event_cb_t* callback = count;
    ASSERT_EQ(gx_set_sleepable_async_event_cb(hca, {gx_async_even_all, nullptr}, callback),
              gx_return_ok);
    std::atomic<int> packets = 0;
    fabric.on_packet([&](const SeenPacket&) { packets++; });
    GsiClient client(1, 2 * rounds);

    std::thread asker([&] {
        for (int i = 0; i < rounds; i++)
            gsi_post_send_dtgrm(client.handle, client.query({gid(0x1001)}, gid(0x3001)));
    });
    std::thread resolver([&] {
        for (int i = 0; i < rounds; i++)
            ask(ip(2));
    });
    for (int i = 0; i < rounds; i++) {
        fabric.peer_asks(ip(3));
        fabric.raise_event(0x99, 1);
        fabric.move_sm(1, 0);
        fabric.peer(ip(4)).delay(1);
        fabric.sa().faults().delay(i % 3);
    }
    asker.join();
    resolver.join();
    wait_until(kernel, [&] { return heard == 2 * rounds && events == 2 + 3 * rounds; });
    wait_until(kernel, [&] { return fabric.gsi().requests_waiting() == 0; });
    kernel.settle();
    EXPECT_EQ(client.sends, rounds);
    EXPECT_EQ(client.answers.size(), static_cast<std::size_t>(rounds));
    EXPECT_GE(packets, 6 * rounds);

    fabric.raise_event(0x98, 1);
    EXPECT_EQ(gx_dell_sleepable_async_event_cb(hca, callback), gx_return_ok);
    fabric.peer_asks(ip(3));
    EXPECT_EQ(fabric.ipoib().detach(), tarv_stat_ok);
    EXPECT_EQ(gx_hca_close(hca), gx_return_ok);
    client.close();
    fabric.on_packet({});
}

/* One switch with as many adapters as there are LIDs beside its own. */
Topology full_subnet() {
    constexpr int hosts = last_unicast_lid - 1;
    Topology topology;
    topology.file = "full";
    Node middle;
    middle.kind = NodeKind::switch_node;
    middle.id = middle.name = "S";
    middle.guid = 0xF0000000;
    middle.ports.resize(hosts + 1);
    middle.ports[0].guid = middle.guid;
    topology.nodes.resize(hosts + 1);
    for (int i = 1; i <= hosts; i++) {
        Node& node = topology.nodes[static_cast<std::size_t>(i)];
        node.id = node.name = "H" + std::to_string(i);
        node.guid = static_cast<std::uint64_t>(i) << 8;
        node.ports.resize(2);
        Port& near = node.ports[1];
        near.guid = node.guid + 1;
        near.linked = true;
        near.remote_node = 0;
        near.remote_port = i;
        near.rate = 3;
        Port& far = middle.ports[static_cast<std::size_t>(i)];
        far = near;
        far.guid = 0;
        far.remote_node = i;
        far.remote_port = 1;
    }
    topology.nodes[0] = middle;
    return topology;
}

TEST(FabricScale, AnswersForEveryHostOfAFullSubnet) {
    heard = 0;
    World world(full_subnet(), {});
    Names names;
    ASSERT_EQ(world.fabric.ipoib().attach(), tarv_stat_ok);
    EXPECT_EQ(world.fabric.hosts().size(), 0xBFFEu);
    for (std::size_t i = 1; i < world.fabric.hosts().size(); i++)
        ASSERT_EQ(ask(world.fabric.hosts()[i].ip), tarv_stat_ok);
    world.kernel.advance(2);
    EXPECT_EQ(heard, 0xBFFD);
    GsiClient client;
    client.ask(std::uint64_t{0xBFFE} << 8 | 1, {gid(0x101)});
    ASSERT_EQ(client.answers.size(), 1u);
    ASSERT_EQ(client.answers[0].records().size(), 1u);
    EXPECT_EQ(client.answers[0].records()[0].dlid, 0xBFFF);
}

}  // namespace
