// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/resolve.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <utility>

#include "app/script_text.h"
#include "host/check.h"
#include "host/services.h"
#include "platform/jiffies.h"

namespace app {
namespace {

/* A real SA has two paths to a peer where two of our ports are up, or where ports have several
 * LIDs. */
tarv_paths_t wanted_of_sa(const fabric::Adapter& adapter) {
    int paths = 0;
    for (int number = 1; number <= adapter.ports(); ++number)
        if (const fabric::EndPort port = adapter.port(number); port.up)
            paths += 1 << port.lmc;
    return paths >= 2 ? tarv_paths_both : tarv_paths_primary;
}

/* The most paths that are useful: both where two local ports lead to the port at which the peer
 * answers, or where one does by several LIDs. */
tarv_paths_t wanted_paths(Machine& machine, const fabric::Host& host) {
    if (machine.site().device)
        return wanted_of_sa(machine.adapter());
    fabric::Fabric& fabric = machine.fabric();
    if (!fabric.peers().has(host.ip))
        return tarv_paths_primary;
    const fabric::EndPort peer = *fabric.subnet().at(fabric.peers().station(host.ip).at);
    int paths = 0;
    for (int number = 1; number <= fabric.adapter().ports(); ++number)
        if (const fabric::EndPort port = fabric.adapter().port(number);
            fabric.subnet().reaches(port.at, peer.at))
            paths += 1 << (port.lmc + peer.lmc);
    return paths >= 2 ? tarv_paths_both : tarv_paths_primary;
}

/* Has the traffic counted for the scope. */
class Watch {
  public:
    Watch(Machine& machine, Traffic& traffic) : machine_(machine) {
        machine_.on_packet([&traffic](const fabric::SeenPacket& seen) { traffic.see(seen); });
    }
    ~Watch() { machine_.on_packet({}); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

  private:
    Machine& machine_;
};

}  // namespace

std::vector<Peer> peers_of(Machine& machine) {
    const Site& site = machine.site();
    std::vector<Peer> peers;
    for (std::size_t i = 0; i < site.hosts.size(); ++i)
        if (i != site.us)
            peers.push_back(peer_at(machine, i));
    return peers;
}

Peer peer_at(Machine& machine, std::size_t host) {
    Peer peer;
    peer.host = host;
    peer.wanted = wanted_paths(machine, machine.site().hosts[host]);
    return peer;
}

Resolver::Resolver(Machine& machine, std::vector<Peer> peers, ResolveOptions options)
    : machine_(machine),
      peers_(std::move(peers)),
      options_(std::move(options)),
      get_ib_data_(machine.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn")) {
    for (std::size_t peer = 0; peer < peers_.size(); ++peer)
        slots_.push_back({.resolver = this, .peer = peer});
}

Resolver::~Resolver() {
    if (outstanding() > 0)
        machine_.stop();
}

std::vector<Latencies> latencies_of(const std::vector<Peer>& peers) {
    struct Kind {
        const char* name;
        const char* key;
        std::optional<Duration> Peer::*duration;
    };
    constexpr Kind kinds[] = {{"resolution", "resolution", &Peer::learned},
                              {"its ARP part", "arp", &Peer::arp},
                              {"its SA part", "sa", &Peer::sa},
                              {"from the cache", "cache", &Peer::cached}};
    std::vector<Latencies> all;
    for (const Kind& kind : kinds) {
        all.push_back({kind.name, kind.key, {}});
        for (const Peer& peer : peers)
            if (peer.*kind.duration)
                all.back().durations.push_back(*(peer.*kind.duration));
    }
    return all;
}

/* Ticks are all that there is in virtual time. */
Duration Resolver::now() const {
    if (machine_.kernel().clock() == host::Clock::virtual_time)
        return machine_.kernel().jiffies() * (1'000'000'000ul / HZ);
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<Duration>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

/* The query for paths goes out when the ARP reply has been taken in. */
void Resolver::split_latency(Peer& peer) {
    if (!peer.learned)
        return;
    const Slot& slot = slots_[static_cast<std::size_t>(&peer - peers_.data())];
    const auto query = traffic_.first_query(fabric::wire(peer.record.gid));
    peer.arp = *peer.learned;
    if (!query || *query < slot.asked_at || *query > slot.asked_at + *peer.learned)
        return;
    peer.arp = *query - slot.asked_at;
    peer.sa = *peer.learned - *peer.arp;
}

std::size_t Resolver::outstanding() const {
    const std::lock_guard guard(mutex_);
    return outstanding_;
}

void Resolver::run(const ShowProgress& progress) {
    const Watch watch(machine_, traffic_);
    started_ = last_end_ = machine_.kernel().jiffies();
    std::vector<std::size_t> all(peers_.size());
    std::iota(all.begin(), all.end(), 0);
    counts_.first_pass = pass(all, progress);
    std::ranges::for_each(peers_, [this](Peer& peer) { split_latency(peer); });
    first_pass_ = false;
    if (given_up_.empty()) {
        std::erase_if(all, [this](std::size_t peer) { return !peers_[peer].resolved; });
        counts_.second_pass = pass(all, progress);
    }
    const QuestionCounts arp = traffic_.counts(Question::arp);
    const QuestionCounts paths = traffic_.counts(Question::paths);
    counts_.arp_requests = arp.sent;
    counts_.path_queries = paths.sent;
    counts_.retries = arp.repeats + paths.repeats;
    counts_.ticks = machine_.kernel().jiffies() - started_;
    for (std::size_t peer = 0; peer < peers_.size(); ++peer)
        if (!peers_[peer].resolved)
            peers_[peer].why_not = explain(peer);
}

/* The number of requests made. */
std::size_t Resolver::pass(const std::vector<std::size_t>& order, const ShowProgress& progress) {
    for (std::size_t next = 0;;) {
        while (next < order.size() && outstanding() < options_.outstanding)
            ask(order[next++]);
        const std::size_t pending = outstanding();
        if (progress)
            progress(next - pending, order.size());
        if ((next == order.size() && pending == 0) || must_give_up())
            return next;
        machine_.kernel().advance(1);
    }
}

void Resolver::ask(std::size_t peer) {
    Slot& slot = slots_[peer];
    {
        const std::lock_guard guard(mutex_);
        peers_[peer].asked = true;
        slot.status = tarv_stat_pending;
        slot.asked_at = now();
        ++outstanding_;
    }
    // The module writes to the caller's record also when the answer comes later, and that may be
    // before this call has returned.
    tarv_arp_data_t record{};
    const tarv_stat_t status = call_module(peer, peers_[peer].wanted, record, &slot);
    if (status == tarv_stat_pending)
        return;
    counts_.hits += status == tarv_stat_ok;
    end(slot, status, &record);
}

void Resolver::on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    host::must_hold_no_lock("a reply callback");
    auto& slot = *static_cast<Slot*>(context);
    slot.resolver->end(slot, status, record);
}

void Resolver::end(Slot& slot, tarv_stat_t status, const tarv_arp_data_t* record) {
    const Duration ended_at = now();
    const unsigned long now = machine_.kernel().jiffies();
    const std::lock_guard guard(mutex_);
    Peer& peer = peers_[slot.peer];
    slot.status = status;
    peer.resolved = status == tarv_stat_ok;
    if (peer.resolved) {
        peer.record = *record;
        // An SA may have given more than was wanted.
        if (peer.wanted == tarv_paths_primary)
            peer.record.mask &= ~TARV_MASK_SECONDARY_PATH;
        (first_pass_ ? peer.learned : peer.cached) = ended_at - slot.asked_at;
    }
    counts_.timeouts += status == tarv_stat_timeout;
    last_end_ = now;
    --outstanding_;
}

bool Resolver::must_give_up() {
    const unsigned long now = machine_.kernel().jiffies();
    unsigned long last_end;
    {
        const std::lock_guard guard(mutex_);
        last_end = last_end_;
    }
    if (options_.stop && options_.stop())
        give_up("the run was interrupted");
    else if (now - started_ >= options_.limit)
        give_up("the time was up");
    else if (now > last_end && now - last_end >= options_.silence)
        give_up("nothing was answered any more");
    return !given_up_.empty();
}

/* A halted module says time-out to whoever waits, so that nobody does when it is unloaded. */
void Resolver::give_up(std::string reason) {
    given_up_ = std::move(reason);
    {
        const std::lock_guard guard(mutex_);
        for (Slot& slot : slots_)
            slot.called_off = slot.status == tarv_stat_pending;
    }
    machine_.command("halt");
}

std::string Resolver::explain(std::size_t peer) const {
    const Slot& slot = slots_[peer];
    if (slot.called_off || !peers_[peer].asked)
        return given_up_;
    if (slot.status != tarv_stat_timeout)
        return "refused by the module, " + numbered_status(slot.status);
    if (!given_up_.empty())
        return "time-out";
    // Without a callback only the cache is asked.
    tarv_arp_data_t record{};
    if (peers_[peer].wanted == tarv_paths_both &&
        call_module(peer, tarv_paths_primary, record, nullptr) == tarv_stat_ok)
        return "time-out: the SA gave only one path to it";
    return call_module(peer, tarv_paths_none, record, nullptr) == tarv_stat_ok
               ? "time-out: it answers ARP, but the SA gave no path to it"
               : "time-out: no answer to ARP requests";
}

tarv_stat_t Resolver::call_module(std::size_t peer, tarv_paths_t wanted, tarv_arp_data_t& record,
                                  Slot* slot) const {
    const Site& site = machine_.site();
    return get_ib_data_(site.hosts[peers_[peer].host].ip, site.our_host().ip, wanted, &record,
                        slot ? on_reply : nullptr, slot, 0);
}

}  // namespace app
