// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Resolving all peers of the host, as a client of the module: once for real, then once more from
// what the module's cache holds by then.
//
// Works alike in real and in virtual time; all durations are ticks of the kernel. However the
// fabric behaves, the passes end: when everybody was answered, when nothing came back for too long,
// at the overall limit, or when told to stop. What is then still pending is called off by halting
// the module.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/latency.h"
#include "app/machine.h"
#include "app/traffic.h"
#include "tarv/tarv.h"

namespace app {

/// Somebody to resolve, and what came of it.
struct Peer {
    std::size_t host = 0;  ///< index into the site's hosts
    tarv_paths_t wanted = tarv_paths_primary;
    bool asked = false;
    bool resolved = false;
    tarv_arp_data_t record{};  ///< once resolved; read `paths`, not the pointers
    std::string why_not;       ///< where it was not resolved

    // How long its answer took, where there was one: on the fabric, of that until its ARP reply had
    // been taken in and from then on, and from the cache.
    std::optional<Duration> learned, arp, sa, cached;
};

struct ResolveOptions {
    std::size_t outstanding = 128;   ///< requests at one time
    unsigned long silence = 30'000;  ///< without any answer, after which it gives up
    unsigned long limit = ~0ul;      ///< for both passes together
    std::function<bool()> stop;      ///< asked at every tick; empty: never
};

struct ResolveCounts {
    std::size_t first_pass = 0;   ///< requests
    std::size_t second_pass = 0;  ///< requests
    std::size_t hits = 0;         ///< requests that were answered inside the call
    std::size_t timeouts = 0;     ///< requests that ended so
    std::size_t arp_requests = 0;
    std::size_t path_queries = 0;
    std::size_t retries = 0;  ///< of both
    unsigned long ticks = 0;
};

/// Called at every tick of a pass.
using ShowProgress = std::function<void(std::size_t ended, std::size_t all)>;

/// Every host of the machine's site but ourselves, with as many paths as can be had.
std::vector<Peer> peers_of(Machine& machine);
/// The host with that index in the site's list.
Peer peer_at(Machine& machine, std::size_t host);

/// The durations of a run by what took them.
std::vector<Latencies> latencies_of(const std::vector<Peer>& peers);

class Resolver {
  public:
    Resolver(Machine& machine, std::vector<Peer> peers, ResolveOptions options);
    /// Stops the machine if a request is still pending: the module knows where its answer goes.
    ~Resolver();
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    /// Both passes. The second asks for those whom the first one found. Meanwhile the fabric's
    /// packets are looked at here.
    void run(const ShowProgress& progress = {});

    const std::vector<Peer>& peers() const { return peers_; }
    const ResolveCounts& counts() const { return counts_; }

  private:
    /* The context of a request. A pass uses each at most once. */
    struct Slot {
        Resolver* resolver;
        std::size_t peer;
        tarv_stat_t status = tarv_stat_not_found;
        Duration asked_at = 0;
        bool called_off = false;
    };

    static void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);
    std::size_t pass(const std::vector<std::size_t>& order, const ShowProgress& progress);
    void ask(std::size_t peer);
    void end(Slot& slot, tarv_stat_t status, const tarv_arp_data_t* record);
    bool must_give_up();
    void give_up(std::string reason);
    std::string explain(std::size_t peer) const;
    tarv_stat_t call_module(std::size_t peer, tarv_paths_t wanted, tarv_arp_data_t& record,
                            Slot* slot) const;
    std::size_t outstanding() const;
    Duration now() const;
    void split_latency(Peer& peer);

    Machine& machine_;
    std::vector<Peer> peers_;
    std::vector<Slot> slots_;
    const ResolveOptions options_;
    tarv_get_ib_data_fn_t* const get_ib_data_;
    ResolveCounts counts_;
    Traffic traffic_{[this] { return now(); }};
    bool first_pass_ = true;
    unsigned long started_ = 0;
    std::string given_up_;  ///< why; empty while the passes go on

    mutable std::mutex mutex_;  ///< of all that replies change: slots, records, and these
    std::size_t outstanding_ = 0;
    unsigned long last_end_ = 0;
};

}  // namespace app
