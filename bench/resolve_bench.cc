// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What resolving a whole subnet costs a peer: ARP request and reply, the query for both paths and
// the SA's answer, the callback. All of the module, the driver and the simulated fabric in virtual
// time, with 128 requests on their way. Making the fabric is not measured.
#include <ctime>

#include "app/machine.h"
#include "bench/bench.h"
#include "fabric/topology.h"

namespace {

constexpr std::size_t outstanding_at_most = 128;

/// A client that asks for everybody, both paths.
class Client {
  public:
    explicit Client(app::Machine& machine)
        : machine_(machine),
          get_ib_data_(machine.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn")) {}

    /// Asks for each of `peers`, and returns when all have answered.
    void resolve(const std::vector<u32>& peers) {
        std::size_t next = 0;
        while (answered_ < peers.size()) {
            while (next < peers.size() && next - answered_ < outstanding_at_most)
                ask(peers[next++]);
            machine_.kernel().advance(1);
        }
    }

  private:
    void ask(u32 ip) {
        tarv_arp_data_t record = {};
        bench::require(get_ib_data_(ip, machine_.fabric().our_host().ip, tarv_paths_both, &record,
                                    reply, this, 0) == tarv_stat_pending,
                       "a request did not become pending");
    }
    static void reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
        bench::require(status == tarv_stat_ok && record->paths_count == 2,
                       "a peer was not resolved with both its paths");
        static_cast<Client*>(context)->answered_++;
    }

    app::Machine& machine_;
    tarv_get_ib_data_fn_t* const get_ib_data_;
    std::size_t answered_ = 0;
};

/// Our two ports and the switches have LIDs too, so that this is as many peers as one subnet has.
constexpr u32 most_peers = 48'700;

app::Site site_of(int peers) {
    app::Site site;
    site.topology = fabric::make_fabric({.hosts = peers + 1,
                                         .two_port_percent = 0,

                                         .hosts_per_leaf = 126,
                                         .spines = 2,
                                         .lids = false});
    site.hosts = fabric::deal_addresses(site.topology);
    return site;
}

void resolve(benchmark::State& state) {
    const auto peers = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        app::Machine machine(site_of(static_cast<int>(peers)), app::HostOptions(), host::Options{});
        machine.start();
        machine.switch_on();
        std::vector<u32> addresses;
        for (const u32 n : bench::shuffled(static_cast<u32>(peers)))
            addresses.push_back(machine.fabric().hosts()[n + 1].ip);
        Client client(machine);
        const std::clock_t start = std::clock();
        client.resolve(addresses);
        const std::clock_t taken = std::clock() - start;
        state.SetIterationTime(static_cast<double>(taken) / CLOCKS_PER_SEC /
                               static_cast<double>(peers));
        bench::require(machine.stop().remains.empty(), "something remained after the unload");
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    // Ten small fabrics one after another: one alone is over before its time can be told.
    bench::row("resolve", "tarv", 1000, resolve)->UseManualTime()->Iterations(10);
    bench::row("resolve", "tarv", most_peers, resolve)->UseManualTime()->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
}
