// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How many path queries a second OpenSM answers to the module, and how many to a client that does
// nothing but send and receive: the same queries, 64 outstanding, in turn in one run.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <semaphore>
#include <span>
#include <sstream>
#include <stdexcept>

#include "app/machine.h"
#include "app/options.h"
#include "rdma/ibsim.h"
#include "tarv/tarv-sa.h"
#include "tests/support/machine.h"
#include "tests/support/opensm.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int hosts = 300, outstanding = 64, queries = 10'000, rounds = 25;

/* What a run of queries took. */
struct Cost {
    double per_second;
    double processor_us;  // of this program, a query
};

double processor_seconds() {
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

template <class Run>
Cost cost_of(Run run) {
    const double before = processor_seconds();
    const auto start = Clock::now();
    run();
    return {queries / std::chrono::duration<double>(Clock::now() - start).count(),
            1e6 * (processor_seconds() - before) / queries};
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
    header.modifier = 0xFFFFFFFF;
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
void run_bare_client(rdma::Transport& road, const fabric::EndPort& from, std::uint16_t sm_lid,
                     const std::vector<fabric::Gid>& peers) {
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
}

/* The module's client of the SA, by itself, on the whole of the host: queries are built, posted,
 * sent and completed, answers are matched, taken in and checked, as when somebody waits for them.
 * Whole resolutions would be bound by the peers' ARP, which is simulated in ticks. Here, too,
 * nothing but answers makes it send. One exists at a time. */
class ModuleClient {
  public:
    explicit ModuleClient(const std::vector<fabric::Gid>& peers) {
        std::ranges::transform(peers, std::back_inserter(peers_), fabric::held);
        the_client = this;
        tarv_sa_destroy(our_port);
        if (tarv_sa_init(on_paths, our_port) != tarv_stat_ok)
            throw std::runtime_error("the module's client of the SA does not begin");
    }

    void run(int count = queries) {
        count_ = count;
        asked_ = answered_ = 0;
        for (int i = 0; i < outstanding; i++)
            ask_next();
        if (!done_.try_acquire_for(std::chrono::seconds(30)))
            throw std::runtime_error("the module's client has no sound answer");
    }

  private:
    static constexpr int our_port = 1;

    void ask_next() {
        const int number = asked_++;
        if (number >= count_)
            return;
        gx_gid_t to = peers_[static_cast<std::size_t>(number) % peers_.size()];
        if (tarv_sa_query_path(our_port, &to) != tarv_stat_ok)
            throw std::runtime_error("a query could not be made");
    }
    static void on_paths(ib_path_record_v2_t*, int, u32) {
        the_client->ask_next();
        if (++the_client->answered_ == the_client->count_)
            the_client->done_.release();
    }

    static inline ModuleClient* the_client;
    std::vector<gx_gid_t> peers_;
    int count_ = 0;
    std::atomic<int> asked_ = 0;
    std::atomic<int> answered_ = 0;
    std::binary_semaphore done_{0};
};

/* Without what belongs to the asker: the transaction and the source. */
fabric::Bytes common_part(const fabric::Packet& asked) {
    fabric::Bytes mad = asked.payload;
    std::fill_n(mad.begin() + 8, 8, std::uint8_t{0});
    std::fill_n(mad.begin() + fabric::sa_data_offset + fabric::MultiPathRecord::wire_size, 16,
                std::uint8_t{0});
    return mad;
}

/* Throws unless the first query that the module sends is the bare client's. */
void check_same_query(app::Machine& machine, ModuleClient& client, const fabric::Packet& bare) {
    std::optional<fabric::Packet> first;
    machine.on_packet([&](const fabric::SeenPacket& seen) {
        if (seen.direction == fabric::Direction::out && !first)
            first = seen.packet;
    });
    client.run(1);
    machine.on_packet({});
    if (common_part(first.value()) != common_part(bare))
        throw std::runtime_error("the two clients do not ask the same");
}

/* The subnet, and in turn on two of its adapters the two clients. */
class Contest {
  public:
    Contest() : ground_(net(), id(manager)), machine_(site(), options(), {host::Clock::real_time}) {
        machine_.start();
        from_ = rdma::open_device("ibsim:" + id(bare))->device().port(1);
        road_ = rdma::attach_to_ibsim(id(bare));
        for (const fabric::Host& host : machine_.site().hosts) {
            const fabric::Node& node =
                machine_.site().topology.nodes.at(static_cast<std::size_t>(host.node));
            const fabric::Gid gid = support::wire_gid(node.ports.at(1).guid);
            if (gid != from_.gid && host.ip != machine_.site().our_host().ip)
                peers_.push_back(gid);
        }
        module_.emplace(peers_);
        sm_lid_ = machine_.site().device->device().manager(1).lid;
        check_same_query(machine_, *module_, query(from_, sm_lid_, peers_[0], 0));
    }

    Cost run_bare() {
        return cost_of([this] { run_bare_client(*road_, from_, sm_lid_, peers_); });
    }
    Cost run_module() {
        return cost_of([this] { module_->run(); });
    }

  private:
    // Which of the adapters.
    static constexpr std::size_t ours = 0, bare = 1, manager = 2;

    static const fabric::Topology& made() {
        static const fabric::Topology topology =
            fabric::make_fabric({.hosts = hosts, .two_port_percent = 0, .lids = false});
        return topology;
    }
    static std::string net() {
        std::ostringstream text;
        write_topology(text, made());
        return text.str();
    }
    static std::string id(std::size_t number) {
        for (const fabric::Node& node : made().nodes)
            if (node.kind == fabric::NodeKind::adapter && number-- == 0)
                return node.id;
        throw std::out_of_range("there are fewer adapters");
    }
    app::HostOptions options() const {
        app::HostOptions options;
        options.adapter = "ibsim:" + id(ours);
        options.fabric = ground_.picture_file();
        options.debug_level = 0;
        return options;
    }
    app::Site site() const {
        ground_.picture();
        return app::read_site(options());
    }

    support::Ground ground_;
    app::Machine machine_;
    fabric::EndPort from_;
    std::unique_ptr<rdma::Transport> road_;
    std::vector<fabric::Gid> peers_;
    std::optional<ModuleClient> module_;
    std::uint16_t sm_lid_ = 0;
};

/* One round of both; what somebody else does to the machine meanwhile they share. */
void path_queries(benchmark::State& state) {
    static Contest contest;
    for (auto _ : state) {
        const Cost bare = contest.run_bare();
        const Cost module = contest.run_module();
        state.counters = {{"bare/s", bare.per_second},
                          {"module/s", module.per_second},
                          {"bare_us", bare.processor_us},
                          {"module_us", module.processor_us},
                          {"ratio", module.per_second / bare.per_second}};
    }
}
BENCHMARK(path_queries)->Iterations(1)->Repetitions(rounds)->DisplayAggregatesOnly();

}  // namespace

BENCHMARK_MAIN();
