// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a request costs while others wait, for peers of their own or all for one, and what a run of
// the lists' timers costs when nothing is due and when all are, at 16 to 49,151 waiting requests.
//
// A request's life is the same for all: it is allocated, those like it are counted, it is filed,
// the address becomes known, it is taken off, its client is called, it is freed.
#include <mutex>
#include <unordered_map>

#include "bench/bench.h"
#include "bench/plain.h"
#include "tarv/tarv-api.h"

namespace {

using namespace bench;

u64 replies = 0;

void count_reply(tarv_stat_t, tarv_arp_data_t*, void*) {
    replies++;
}

/// A request for peer n, as a maker leaves it.
void fill(tarv_list_entry_t& request, u32 n) {
    request.req_ip = peer_ip(n);
    request.src_ip = our_ip;
    request.requested_paths = tarv_paths_both;
    request.reply_cb = reinterpret_cast<void*>(count_reply);
    request.dgid = peer_gid(n);
}

tarv_list_entry_t* make_request(u32 n) {
    auto* const request = make<tarv_list_entry_t>();
    fill(*request, n);
    return request;
}

void answer_all(tarv_found_list found) {
    while (tarv_list_entry_t* const request = found.pop()) {
        tarv_reply(request, tarv_stat_ok, nullptr);
        kfree(request);
    }
}

/// The module's list of requests that wait for an ARP reply. Its timer runs when it is told to.
class ModuleList {
  public:
    ModuleList() {
        tarv_req_list_init();
        del_timing_sync(&tarv_req_timer);
    }
    ~ModuleList() { tarv_req_list_destroy(); }
    ModuleList(const ModuleList&) = delete;
    ModuleList& operator=(const ModuleList&) = delete;

    void add(u32 n) { tarv_add_arp_request(make_request(n)); }
    void file(u32 n) {
        tarv_list_entry_t* const request = make_request(n);
        benchmark::DoNotOptimize(tarv_num_identical_reqs(request));
        tarv_add_arp_request(request);
    }
    void complete(u32 n) {
        list_head found;
        tarv_find_and_move_arp_requests_to_list(peer_ip(n), &found);
        answer_all(tarv_found_list(found));
    }
    /// Of its address, only this one.
    void give_up(tarv_list_entry_t* request) {
        tarv_remove_arp_request(request);
        tarv_reply(request, tarv_stat_ok, nullptr);
        kfree(request);
    }
    void run_timer() {
        tarv_req_timer_handler(0);
        del_timing_sync(&tarv_req_timer);
    }
};

/// The module's list of requests that wait for the SA.
class ModuleSaList {
  public:
    ModuleSaList() {
        tarv_sa_req_list_init();
        del_timing_sync(&tarv_sa_req_timer);
        // Their last word, when the list goes, is to be a time-out.
        write_once(get_data_retry, 0);
    }
    ~ModuleSaList() { tarv_sa_req_list_destroy(); }
    ModuleSaList(const ModuleSaList&) = delete;
    ModuleSaList& operator=(const ModuleSaList&) = delete;

    void add(u32 n) { tarv_sa_add_request(make_request(n)); }
    void run_timer() {
        tarv_sa_req_timer_handler(0);
        del_timing_sync(&tarv_sa_req_timer);
    }
};

/// One list, walked.
class PlainLists {
  public:
    PlainLists() {
        init_timing(&timer_);
        timer_.function = [](unsigned long) {};
    }

    void add(u32 n) { list_.file(make_request(n)); }
    void file(u32 n) {
        tarv_list_entry_t* const request = make_request(n);
        benchmark::DoNotOptimize(list_.count_identical(request));
        list_.file(request);
    }
    void complete(u32 n) {
        list_head found;
        INIT_LIST_HEAD(&found);
        list_.take(peer_ip(n), tarv_found_list(found));
        answer_all(tarv_found_list(found));
    }
    void run_timer() {
        list_head found;
        INIT_LIST_HEAD(&found);
        list_.take_due(1000, tarv_found_list(found));
        answer_all(tarv_found_list(found));
        timer_.expires = jiffies() + 1000;
        add_timing(&timer_);
        del_timing_sync(&timer_);
    }

  private:
    PlainList list_;
    timer_list timer_ = {};
};

/// A standard multimap whose nodes are the requests.
class MultiMap {
  public:
    explicit MultiMap(u32 capacity) { map_.reserve(capacity); }

    void add(u32 n) { file(n); }
    void file(u32 n) {
        const std::lock_guard lock(mutex_);
        const auto [first, last] = map_.equal_range(peer_ip(n));
        int identical = 0;
        for (auto at = first; at != last; ++at)
            identical += at->second.requested_paths == tarv_paths_both;
        benchmark::DoNotOptimize(identical);
        fill(map_.emplace(peer_ip(n), tarv_list_entry_t())->second, n);
    }
    void complete(u32 n) {
        Map::node_type found;
        while ((found = take(peer_ip(n))))
            tarv_reply(&found.mapped(), tarv_stat_ok, nullptr);
    }

  private:
    struct Hash {
        std::size_t operator()(u32 address) const {
            const std::size_t product = address * 0x9E3779B97F4A7C15ull;
            return product ^ product >> 32;
        }
    };
    using Map = std::unordered_multimap<u32, tarv_list_entry_t, Hash, std::equal_to<>,
                                        KernelAllocator<std::pair<const u32, tarv_list_entry_t>>>;

    Map::node_type take(u32 ip) {
        const std::lock_guard lock(mutex_);
        const auto found = map_.find(ip);
        return found == map_.end() ? Map::node_type() : map_.extract(found);
    }

    std::mutex mutex_;
    Map map_;
};

template <class List>
void fill_up(List& list, u32 waiting) {
    for (const u32 n : shuffled(waiting))
        list.add(n);
}

/// One after another, addresses that nobody waits for yet.
template <class List>
void round_trips(benchmark::State& state, List& list) {
    const auto waiting = static_cast<u32>(state.range(0));
    fill_up(list, waiting);
    const std::vector<u32> order = shuffled(waiting, 2);
    std::size_t at = 0;
    replies = 0;
    for (auto _ : state) {
        const u32 n = waiting + order[at];
        list.file(n);
        list.complete(n);
        at = at + 1 < order.size() ? at + 1 : 0;
    }
    require(replies == static_cast<u64>(state.iterations()), "replies do not match requests");
}

template <class List>
void pending(benchmark::State& state) {
    List list;
    round_trips(state, list);
}

void pending_multimap(benchmark::State& state) {
    MultiMap list(static_cast<u32>(state.range(0)) + 1);
    round_trips(state, list);
}

template <class List>
void idle_timer(benchmark::State& state) {
    List list;
    fill_up(list, static_cast<u32>(state.range(0)));
    replies = 0;
    for (auto _ : state)
        list.run_timer();
    require(replies == 0, "something was due");
}

tarv_stat_t send_nothing(tarv_arp_data_t*, void*, int) {
    return tarv_stat_ok;
}

tarv_stat_t answer_interface(u32, gx_p_key_t* pkey, u32*, int*, int* loopback) {
    *pkey = 0xFFFF;
    *loopback = 0;
    return tarv_stat_ok;
}

/// The whole of it as a client and a driver see it: a request for an unknown peer, the ARP request
/// that a driver drops, the peer's ARP packet, the callback; then the peer is forgotten.
class WholeCall {
  public:
    WholeCall() {
        tarv_driver_start();
        write_once(enabled, 1);
        write_once(sa_queries_enabled, 1);
        tarv_hash_init();
        require(tarv_attach(answer_interface, send_nothing, nullptr, &handle_) == tarv_stat_ok,
                "the driver could not be attached");
    }
    ~WholeCall() {
        tarv_detach(handle_);
        tarv_hash_destroy();
    }
    WholeCall(const WholeCall&) = delete;
    WholeCall& operator=(const WholeCall&) = delete;

    void add(u32 n) { file(n); }
    void file(u32 n) {
        tarv_arp_data_t record;
        require(tarv_get_ib_data(peer_ip(n), our_ip, tarv_paths_none, &record, count_reply, nullptr,
                                 0) == tarv_stat_pending,
                "a request was not filed");
    }
    void complete(u32 n) {
        tarv_arp_data_t heard = peer_record(n);
        heard.arp_operation = TARV_ARP_OP_REPLY;
        heard.src_ip = peer_ip(n);
        heard.dst_ip = our_ip;
        require(tarv_process_arp_data(&heard) == tarv_stat_ok, "ARP data was refused");
        tarv_hash_entry_t* entry = nullptr;
        require(tarv_hash_remove_entry(peer_ip(n), &entry) == tarv_stat_ok, "an entry was missing");
        kfree(entry);
    }

    void run_timer() { list_.run_timer(); }

  private:
    ModuleList list_;
    void* handle_ = nullptr;
};

/// Whom request n is for: each for a peer of its own, or all for one peer that is dead.
u32 apart(u32 n) {
    return n;
}
u32 alike(u32) {
    return 0;
}

/// One more request comes and goes, for a peer that others wait for already.
void one_more(benchmark::State& state, u32 (*peer_of)(u32)) {
    ModuleList list;
    const auto waiting = static_cast<u32>(state.range(0));
    for (const u32 n : shuffled(waiting))
        list.add(peer_of(n));
    const std::vector<u32> order = shuffled(waiting, 2);
    std::size_t at = 0;
    for (auto _ : state) {
        tarv_list_entry_t* const request = make_request(peer_of(order[at]));
        benchmark::DoNotOptimize(tarv_num_identical_reqs(request));
        tarv_add_arp_request(request);
        list.give_up(request);
        at = at + 1 < order.size() ? at + 1 : 0;
    }
}

/// A run of the timer that issues all requests anew.
void all_due(benchmark::State& state, u32 (*peer_of)(u32)) {
    WholeCall calls;
    write_once(get_data_retry, 1 << 30);
    for (const u32 n : shuffled(static_cast<u32>(state.range(0))))
        calls.file(peer_of(n));
    replies = 0;
    for (auto _ : state) {
        pass_ticks(1000);
        calls.run_timer();
    }
    require(replies == 0, "a request was given up");
}

void register_rows() {
    for (const u32 waiting : {16u, 256u, 4096u, full_subnet}) {
        row("pending", "tarv", waiting, pending<ModuleList>);
        row("pending", "multimap", waiting, pending_multimap);
        row("pending", "plain", waiting, pending<PlainLists>);
        row("pending", "tarv_call", waiting, pending<WholeCall>);
        row("idle_timer_arp", "tarv", waiting, idle_timer<ModuleList>);
        row("idle_timer_sa", "tarv", waiting, idle_timer<ModuleSaList>);
        row("idle_timer", "plain", waiting, idle_timer<PlainLists>);
        row("one_more", "apart", waiting, [](auto& state) { one_more(state, apart); });
        row("one_more", "alike", waiting, [](auto& state) { one_more(state, alike); });
        row("all_due", "apart", waiting, [](auto& state) { all_due(state, apart); });
        row("all_due", "alike", waiting, [](auto& state) { all_due(state, alike); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, register_rows);
}
