// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A fabric as large as a subnet can be.
#include "host/services.h"
#include "platform/module.h"
#include "tests/support/gsi_client.h"

using namespace fabric;
using namespace fabric_testing;

namespace {

int heard;
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
