// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a lookup, a miss, and a peer's going and coming back cost in the module's cache and in other
// tables, at 16 to 200,000 peers, with one thread and with two.
#include "bench/bench.h"
#include "bench/peers.h"

namespace {

using namespace bench;

/// The table under measurement: one at a time, kept from row to row while it is the same one.
struct Fixture {
    virtual ~Fixture() = default;
    u32 peers = 0;
    std::vector<u32> order;
};
std::unique_ptr<Fixture> current;

template <class Table>
struct Filled : Fixture {
    explicit Filled(u32 count) : table(count) {
        peers = count;
        order = shuffled(count);
        [[maybe_unused]] const typename Table::Visit visit;
        for (const u32 n : shuffled(count, 2))
            table.learn(n);
    }
    Table table;
};

/// Runs before each row, while no thread of it exists yet.
template <class Table>
void prepare(const benchmark::State& state) {
    const auto peers = static_cast<u32>(state.range(0));
    if (dynamic_cast<Filled<Table>*>(current.get()) && current->peers == peers)
        return;
    current.reset();
    current = std::make_unique<Filled<Table>>(peers);
}

template <class Table>
Filled<Table>& filled() {
    return static_cast<Filled<Table>&>(*current);
}

/// Goes round the peers, each thread from a place of its own. The first one passes the time: a tick
/// now and then, so that time stamps change as they do in a kernel.
class Round {
  public:
    Round(const benchmark::State& state, const std::vector<u32>& order)
        : order_(order),
          at_(order.size() * static_cast<std::size_t>(state.thread_index()) /
              static_cast<std::size_t>(state.threads())),
          passes_time_(state.thread_index() == 0) {}

    u32 next() {
        if (++steps_ % steps_per_tick == 0 && passes_time_)
            pass_ticks(1);
        if (++at_ >= order_.size())
            at_ = 0;
        return order_[at_];
    }

  private:
    static constexpr u64 steps_per_tick = 4096;
    const std::vector<u32>& order_;
    std::size_t at_;
    u64 steps_ = 0;
    const bool passes_time_;
};

template <class Table>
void must_hit(Table& table, u32 n, tarv_arp_data_t& record) {
    require(table.get(n, record) && record.dst_ip == peer_ip(n), "a hit missed");
    benchmark::DoNotOptimize(record);
}

template <class Table>
void hit_in_order(benchmark::State& state, const std::vector<u32>& order) {
    Table& table = filled<Table>().table;
    typename Table::Visit visit;
    Round round(state, order);
    tarv_arp_data_t record;
    for (auto _ : state) {
        must_hit(table, round.next(), record);
        visit.pause();
    }
}

template <class Table>
void hit(benchmark::State& state) {
    hit_in_order<Table>(state, current->order);
}

/// Address after address.
template <class Table>
void hit_consecutive(benchmark::State& state) {
    std::vector<u32> order(current->peers);
    for (u32 n = 0; n < current->peers; n++)
        order[n] = n;
    hit_in_order<Table>(state, order);
}

/// Addresses that the table has not.
template <class Table>
void miss(benchmark::State& state) {
    Table& table = filled<Table>().table;
    typename Table::Visit visit;
    Round round(state, current->order);
    tarv_arp_data_t record;
    for (auto _ : state) {
        require(!table.get(current->peers + round.next(), record), "a miss hit");
        visit.pause();
    }
}

template <class Table>
void relearn(benchmark::State& state) {
    Table& table = filled<Table>().table;
    typename Table::Visit visit;
    Round round(state, current->order);
    for (auto _ : state) {
        const u32 n = round.next();
        table.forget(n);
        table.learn(n);
        visit.pause();
    }
}

/// 95 % hits; every 20th time a peer goes and comes back. These are peers of each thread's own that
/// nobody looks up, so that still no hit may miss: one in eight goes and comes.
template <class Table>
void mix(benchmark::State& state) {
    constexpr u32 share = 8;
    Table& table = filled<Table>().table;
    std::vector<u32> staying, moving;
    for (const u32 n : current->order) {
        if (n % share != 0)
            staying.push_back(n);
        else if (n / share % static_cast<u32>(state.threads()) ==
                 static_cast<u32>(state.thread_index()))
            moving.push_back(n);
    }
    typename Table::Visit visit;
    Round round(state, staying);
    Round movers(state, moving);
    tarv_arp_data_t record;
    u32 operations = 0;
    for (auto _ : state) {
        if (++operations % 20) {
            must_hit(table, round.next(), record);
        } else {
            const u32 n = movers.next();
            table.forget(n);
            table.learn(n);
        }
        visit.pause();
    }
}

/// Only the module finds peers by their port as well.
void hit_by_gid(benchmark::State& state) {
    Round round(state, current->order);
    tarv_arp_data_t record;
    for (auto _ : state) {
        const u32 n = round.next();
        gx_gid_t gid = peer_gid(n);
        require(tarv_hash_seq_cache_lookup(&gid, &record) == tarv_stat_ok &&
                    record.dst_ip == peer_ip(n),
                "a hit by GID missed");
        benchmark::DoNotOptimize(record);
    }
}

template <class Table>
void register_hits(const std::string& who, u32 peers) {
    const auto setup = prepare<Table>;
    row("hit", who, peers, hit<Table>)->Setup(setup);
    row("hit", who, peers, hit<Table>, 2)->Setup(setup);
    row("hit_consecutive", who, peers, hit_consecutive<Table>)->Setup(setup);
}

template <class Table>
void register_table(const std::string& who, u32 peers, bool can_miss = true) {
    const auto setup = prepare<Table>;
    register_hits<Table>(who, peers);
    if (can_miss)
        row("miss", who, peers, miss<Table>)->Setup(setup);
    row("mix", who, peers, mix<Table>)->Setup(setup);
    row("mix", who, peers, mix<Table>, 2)->Setup(setup);
    row("relearn", who, peers, relearn<Table>)->Setup(setup);
}

void register_rows() {
    for (const u32 peers : {16u, 256u, 4096u, full_subnet, 200'000u}) {
        row("hit_by_gid", "tarv", peers, hit_by_gid)->Setup(prepare<Module>);
        register_table<Module>("tarv", peers);
        register_table<BareLimit>("bare", peers, false);
        register_table<FlatMap>("flat", peers);
        register_table<FlatRecords>("flat_records", peers);
        register_table<StandardMap>("unordered", peers);
        register_table<RcuTable>("urcu", peers);
        register_table<TbbMap>("tbb", peers);
        register_table<PlainWalk>("plain", peers);
        register_hits<ModuleCall>("tarv_call", peers);
        register_hits<FlatMapKernelLock>("flat_our_lock", peers);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, register_rows, [] { current.reset(); });
}
