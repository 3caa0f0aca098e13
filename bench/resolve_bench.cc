// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a client, an ARP packet and a waiting request cost at 16 to 49,151 peers, the most that one
// InfiniBand subnet has unicast LIDs for.
//
// The module stands on the host's virtual kernel, in one thread, with a driver that sends nothing:
// what is measured is the module and the host's locks and memory under it. Times are for comparing
// rows of one run.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "host/kernel.h"
#include "platform/memory.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr u32 our_ip = 0x0100000A;  // 10.0.0.1

/// The n-th peer, from 10.1.0.0 on.
u32 peer_ip(u32 n) {
    return htonl(0x0A010000 + n);
}

/// As many different peers in an order that no walk of memory could guess.
std::vector<u32> shuffled_peers(u32 count) {
    std::vector<u32> peers(count);
    for (u32 n = 0; n < count; n++)
        peers[n] = peer_ip(n);
    std::shuffle(peers.begin(), peers.end(), std::mt19937(1));
    return peers;
}

tarv_stat_t send_nothing(tarv_arp_data_t*, void*, int) {
    return tarv_stat_ok;
}

tarv_stat_t answer_interface(u32, gx_p_key_t* pkey, u32*, int*, int* loopback) {
    *pkey = 0xFFFF;
    *loopback = 0;
    return tarv_stat_ok;
}

/// A fault of the benchmark itself must not become a figure.
void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "resolve_bench: %s\n", what);
        std::abort();
    }
}

/// The parts of the engine that need no adapter, with a driver attached and ARP intake on. SA
/// queries count as on, so that no peer is given a static path.
class Engine {
  public:
    Engine() {
        write_once(halted, 0);
        tarv_sa_start();
        tarv_hash_init();
        tarv_req_list_init();
        tarv_sa_req_list_init();
        write_once(enabled, 1);
        write_once(sa_queries_enabled, 1);
        write_once(statics_inv_enabled, 1);
        require(tarv_attach(answer_interface, send_nothing, nullptr, &handle_) == tarv_stat_ok,
                "the driver could not be attached");
    }
    ~Engine() {
        tarv_detach(handle_);
        tarv_sa_req_list_destroy();
        tarv_req_list_destroy();
        tarv_hash_destroy();
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// An ARP reply of the peer comes in.
    static void learn(u32 peer) {
        tarv_arp_data_t record = {};
        record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_LID | TARV_MASK_QPN;
        record.arp_operation = TARV_ARP_OP_REPLY;
        record.src_ip = peer;
        record.dst_ip = our_ip;
        record.lid = static_cast<u16>(peer >> 16);
        require(tarv_process_arp_data(&record) == tarv_stat_ok, "ARP data was refused");
    }

    static void forget(u32 peer) {
        tarv_hash_entry_t* entry = nullptr;
        require(tarv_hash_remove_entry(peer, &entry) == tarv_stat_ok, "an entry was missing");
        kfree(entry);
    }

  private:
    host::Kernel kernel_;
    void* handle_ = nullptr;
};

void count_reply(tarv_stat_t, tarv_arp_data_t*, void* context) {
    ++*static_cast<u64*>(context);
}

/// A client asks for an address that the cache has.
void hit(benchmark::State& state) {
    const Engine engine;
    const std::vector<u32> peers = shuffled_peers(static_cast<u32>(state.range(0)));
    for (const u32 peer : peers)
        Engine::learn(peer);
    tarv_arp_data_t record;
    std::size_t next = 0;
    for (auto _ : state) {
        require(tarv_get_ib_data(peers[next], our_ip, tarv_paths_none, &record, nullptr, nullptr,
                                 0) == tarv_stat_ok,
                "a hit missed");
        benchmark::DoNotOptimize(record);
        next = next + 1 < peers.size() ? next + 1 : 0;
    }
}

/// A client that gives no callback asks for an address that the cache has not.
void miss(benchmark::State& state) {
    const Engine engine;
    const u32 count = static_cast<u32>(state.range(0));
    for (const u32 peer : shuffled_peers(count))
        Engine::learn(peer);
    tarv_arp_data_t record;
    u32 next = 0;
    for (auto _ : state) {
        require(tarv_get_ib_data(peer_ip(count + next), our_ip, tarv_paths_none, &record, nullptr,
                                 nullptr, 0) == tarv_stat_not_found,
                "a miss hit");
        next = next + 1 < count ? next + 1 : 0;
    }
}

/// A peer is removed and learned again from its ARP packet.
void insert(benchmark::State& state) {
    const Engine engine;
    const std::vector<u32> peers = shuffled_peers(static_cast<u32>(state.range(0)));
    for (const u32 peer : peers)
        Engine::learn(peer);
    std::size_t next = 0;
    for (auto _ : state) {
        Engine::forget(peers[next]);
        Engine::learn(peers[next]);
        next = next + 1 < peers.size() ? next + 1 : 0;
    }
}

/// A request is filed for an unknown address and completed by the ARP reply, with as many others
/// waiting.
void pending_round_trip(benchmark::State& state) {
    const Engine engine;
    const std::vector<u32> peers = shuffled_peers(static_cast<u32>(state.range(0)));
    tarv_arp_data_t record = {};
    u64 others_answered = 0;
    for (const u32 peer : peers)
        tarv_get_ib_data(peer, our_ip, tarv_paths_none, &record, count_reply, &others_answered, 0);
    const u32 wanted = peer_ip(static_cast<u32>(peers.size()));
    u64 answered = 0;
    for (auto _ : state) {
        require(tarv_get_ib_data(wanted, our_ip, tarv_paths_none, &record, count_reply, &answered,
                                 0) == tarv_stat_pending,
                "a request was not filed");
        Engine::learn(wanted);
        Engine::forget(wanted);
    }
    require(answered == static_cast<u64>(state.iterations()) && others_answered == 0,
            "replies do not match requests");
}

void sizes(benchmark::internal::Benchmark* bench) {
    for (const int peers : {16, 256, 4096, 49151})
        bench->Arg(peers);
    bench->ArgName("peers");
}

BENCHMARK(hit)->Apply(sizes);
BENCHMARK(miss)->Apply(sizes);
BENCHMARK(insert)->Apply(sizes);
BENCHMARK(pending_round_trip)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
