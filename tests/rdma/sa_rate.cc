// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How many path queries a second OpenSM answers to the module, and how many to a client that does
// nothing but send and receive; in turn, in one run, with 64 outstanding. Run by hand: it says
// figures, and judges none.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <span>
#include <sstream>
#include <thread>

#include "app/machine.h"
#include "app/options.h"
#include "rdma/ibsim.h"
#include "tests/support/machine.h"
#include "tests/support/opensm.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int hosts = 300, outstanding = 64, queries = 20'000, rounds = 7;

double per_second(Clock::time_point start) {
    return queries / std::chrono::duration<double>(Clock::now() - start).count();
}

/* The module's own query, from one port to one destination. */
fabric::Packet query(const fabric::EndPort& from, std::uint16_t sm_lid, const fabric::Gid& to,
                     std::uint64_t transaction) {
    fabric::Packet packet;
    packet.slid = from.lid;
    packet.dlid = sm_lid;
    packet.dest_qp = packet.src_qp = fabric::gsi_qp;
    packet.qkey = fabric::gsi_qkey;
    packet.payload.resize(fabric::mad_size);
    const std::span<std::uint8_t> mad(packet.payload);
    fabric::MadHeader header;
    header.management_class = fabric::sa_class;
    header.class_version = fabric::sa_class_version;
    header.method = fabric::method_get_multi;
    header.transaction = transaction;
    header.attribute = fabric::attribute_multi_path_record;
    encode(header, mad);
    encode(
        fabric::RmppHeader{1, fabric::rmpp_data,
                           fabric::rmpp_active | fabric::rmpp_first | fabric::rmpp_last, 0, 1, 220},
        mad.subspan(fabric::rmpp_offset));
    fabric::SaHeader sa;
    sa.attribute_offset = 3;
    sa.component_mask = 0x00003000001C00C0;
    encode(sa, mad.subspan(fabric::sa_offset));
    fabric::MultiPathRecord record;
    record.numb_path = 3;
    record.pkey = 0xFFFF;
    record.independence = record.sgid_count = record.dgid_count = 1;
    encode(record, mad.subspan(fabric::sa_data_offset));
    auto at = packet.payload.begin() + fabric::sa_data_offset + fabric::MultiPathRecord::wire_size;
    at = std::copy(from.gid.begin(), from.gid.end(), at);
    std::copy(to.begin(), to.end(), at);
    return packet;
}

/* Lost ones would stop it: nothing but answers makes it send. */
double rate_of_bare_client(rdma::Transport& road, const fabric::EndPort& from, std::uint16_t sm_lid,
                           const std::vector<fabric::Gid>& peers) {
    const auto start = Clock::now();
    int sent = 0;
    const auto send = [&] {
        road.send(query(from, sm_lid, peers[static_cast<std::size_t>(sent) % peers.size()],
                        static_cast<std::uint64_t>(sent)));
        sent++;
    };
    while (sent < outstanding)
        send();
    for (int answered = 0; answered < queries; answered++) {
        const auto answer = road.receive(std::chrono::seconds(2));
        if (!answer || answer->payload[4] != 0 || answer->payload[5] != 0)
            throw std::runtime_error("the bare client has no sound answer");
        if (sent < queries)
            send();
    }
    return per_second(start);
}

/* Every peer's address is asked for anew each time it comes round, which takes an ARP request, to
 * the simulated peers, and a query. The 64 outstanding are requests, some of which wait for their
 * ARP reply, which comes at a tick: the module has fewer queries on their way than the bare client.
 */
class ModuleClient {
  public:
    explicit ModuleClient(app::Machine& machine)
        : machine_(machine),
          get_ib_data_(machine.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn")) {}

    double rate(const std::vector<std::uint32_t>& peers) {
        const auto start = Clock::now();
        answered_ = 0;
        for (int sent = 0; answered_ < queries;) {
            while (sent < queries && sent - answered_ < outstanding)
                ask(peers[static_cast<std::size_t>(sent++) % peers.size()]);
            std::this_thread::yield();
        }
        return per_second(start);
    }

    int failed() const { return failed_; }

  private:
    void ask(std::uint32_t ip) {
        tarv_arp_data_t record{};
        if (get_ib_data_(ip, machine_.site().our_host().ip, tarv_paths_primary, &record, on_reply,
                         this, 1) != tarv_stat_pending)
            throw std::runtime_error("a request did not become pending");
    }
    static void on_reply(tarv_stat_t status, tarv_arp_data_t*, void* client) {
        auto& self = *static_cast<ModuleClient*>(client);
        self.failed_ += status != tarv_stat_ok;
        self.answered_++;
    }

    app::Machine& machine_;
    tarv_get_ib_data_fn_t* const get_ib_data_;
    std::atomic<int> answered_ = 0;
    std::atomic<int> failed_ = 0;
};

TEST(SaRate, NextToABareClient) {
    SKIP_WITHOUT_OPENSM();
    const fabric::Topology made =
        fabric::make_fabric({.hosts = hosts, .two_port_percent = 0, .lids = false});
    std::ostringstream net;
    write_topology(net, made);
    const auto id = [&](std::size_t n) { return made.nodes.at(n).id; };
    std::vector<std::size_t> adapters;
    for (std::size_t n = 0; n < made.nodes.size(); n++)
        if (made.nodes[n].kind == fabric::NodeKind::adapter)
            adapters.push_back(n);
    support::Ground ground(net.str(), id(adapters[2]));
    ground.picture();

    app::HostOptions options;
    options.adapter = "ibsim:" + id(adapters[0]);
    options.fabric = ground.picture_file();
    options.debug_level = 0;
    app::Machine machine(app::read_site(options), options, {host::Clock::real_time});
    machine.start();
    machine.switch_on();
    ModuleClient client(machine);
    const rdma::Device& device = machine.site().device->device();

    const fabric::EndPort from = rdma::open_device("ibsim:" + id(adapters[1]))->device().port(1);
    const auto road = rdma::attach_to_ibsim(id(adapters[1]));
    std::vector<fabric::Gid> gids;
    std::vector<std::uint32_t> addresses;
    for (const fabric::Host& host : machine.site().hosts) {
        const fabric::Node& node =
            machine.site().topology.nodes.at(static_cast<std::size_t>(host.node));
        const fabric::Gid gid = support::wire_gid(node.ports.at(1).guid);
        if (gid == from.gid || host.ip == machine.site().our_host().ip)
            continue;
        gids.push_back(gid);
        addresses.push_back(host.ip);
    }
    for (int round = 0; round < rounds; round++) {
        const double bare = rate_of_bare_client(*road, from, device.manager(1).lid, gids);
        const double module = client.rate(addresses);
        std::printf("bare %.0f/s  module %.0f/s  ratio %.2f\n", bare, module, module / bare);
    }
    EXPECT_EQ(client.failed(), 0);
}

}  // namespace
