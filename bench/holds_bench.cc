// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How long the module keeps a lock, and interrupts off with it, where it deals with all peers or
// all requests at once: the longest single hold of any of its locks during each such operation.
#include <time.h>

#include <algorithm>

#include "bench/bench.h"
#include "host/console.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash-private.h"

namespace {

using namespace bench;

/// Seconds of this thread's processor: with interrupts off, nobody else would get it.
double now() {
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// No two locks are held together.
double locked_at;
double longest;

}  // namespace

// The linker puts these in front of the host's locks (see CMakeLists.txt).
#define TIMED_LOCK(kind, type)                                                                   \
    unsigned long real_##kind##_lock(type* lock) __asm__("__real_plat_" #kind "_lock_irqsave");  \
    unsigned long timed_##kind##_lock(type* lock) __asm__("__wrap_plat_" #kind "_lock_irqsave"); \
    void real_##kind##_unlock(                                                                   \
        type* lock, unsigned long flags) __asm__("__real_plat_" #kind "_unlock_irqrestore");     \
    void timed_##kind##_unlock(                                                                  \
        type* lock, unsigned long flags) __asm__("__wrap_plat_" #kind "_unlock_irqrestore");     \
    unsigned long timed_##kind##_lock(type* lock) {                                              \
        const unsigned long flags = real_##kind##_lock(lock);                                    \
        locked_at = now();                                                                       \
        return flags;                                                                            \
    }                                                                                            \
    void timed_##kind##_unlock(type* lock, unsigned long flags) {                                \
        longest = std::max(longest, now() - locked_at);                                          \
        real_##kind##_unlock(lock, flags);                                                       \
    }
TIMED_LOCK(spin, spinlock_t)
TIMED_LOCK(read, rwlock_t)
TIMED_LOCK(write, rwlock_t)

namespace {

constexpr unsigned long ageing_period = 15'000;

gx_gid_t our_gid() {
    gx_gid_t gid = {};
    gid.raw[0] = 1;
    return gid;
}

/// A host whose cache knows all peers, with both their paths from our port, and on both of whose
/// lists a request waits for each of them, or all of these requests for one peer.
class Full {
  public:
    Full(u32 peers, bool all_for_one) {
        write_once(halted, 0);
        write_once(get_data_retry, 0);
        arp_cache_timeout_sec = 1'000'000'000;
        tarv_driver_start();
        tarv_hash_init();
        tarv_req_list_init();
        tarv_sa_req_list_init();
        del_timing_sync(&tarv_req_timer);
        del_timing_sync(&tarv_sa_req_timer);
        for (const u32 n : shuffled(peers))
            tarv_hash_add_entry(make_entry(n));
        for (const u32 n : shuffled(peers, 2)) {
            tarv_add_arp_request(make_request(all_for_one ? 0 : n));
            tarv_sa_add_request(make_request(all_for_one ? 0 : n));
        }
    }
    ~Full() {
        tarv_sa_req_list_destroy();
        tarv_req_list_destroy();
        tarv_hash_destroy();
        arp_cache_timeout_sec = 300;
    }
    Full(const Full&) = delete;
    Full& operator=(const Full&) = delete;

  private:
    static tarv_hash_entry_t* make_entry(u32 n) {
        auto* const entry = make<tarv_hash_entry_t>();
        entry->arp_data = peer_record(n);
        for (ib_path_record_v2_t& path : entry->arp_data.paths)
            path.sgid = our_gid();
        tarv_aim_paths(&entry->arp_data);
        return entry;
    }
    static tarv_list_entry_t* make_request(u32 n) {
        auto* const request = make<tarv_list_entry_t>();
        request->req_ip = peer_ip(n);
        request->src_ip = our_ip;
        request->requested_paths = tarv_paths_both;
        request->dgid = peer_gid(n);
        return request;
    }
};

void purge_from(gx_gid_t sgid) {
    tarv_hash_remove_entries_by_sgid(&sgid);
}

void age(unsigned long idle_seconds) {
    arp_cache_timeout_sec = idle_seconds;
    pass_ticks(ageing_period);
}

void time_out(void (*handler)(unsigned long), timer_list& timer) {
    pass_ticks(3'000);
    longest = 0;
    handler(0);
    del_timing_sync(&timer);
}

void hear_one() {
    list_head found;
    tarv_find_and_move_arp_requests_to_list(peer_ip(0), &found);
    while (tarv_list_entry_t* const request = tarv_found_list(found).pop())
        tarv_free_request(request);
}

/// One path, where all want two: all are tried and go back.
void answer_one() {
    list_head found;
    ib_path_record_v2_t path = {};
    path.dgid = peer_gid(0);
    require(tarv_sa_find_and_move_requests_to_list(&path, 1, 1, &found) == tarv_stat_not_found,
            "one path was enough");
}

/// What taking all entries out of the chains and indexes costs by itself, in the order in which the
/// chains have them.
void unlink_all() {
    std::vector<tarv_hash_entry_t*> entries;
    {
        const write_guard guard(tarv_lock);
        for (tarv_hash_walk_t walk; tarv_hash_entry_t* const entry = walk.next();)
            entries.push_back(entry);
    }
    longest = 0;
    {
        const write_guard guard(tarv_lock);
        for (tarv_hash_entry_t* entry : entries)
            tarv_hash_unlink(entry);
    }
    for (tarv_hash_entry_t* entry : entries)
        kfree(entry);
}

struct Path {
    const char* name;
    void (*run)();
    bool all_for_one = false;
};

constexpr Path paths[] = {
    {"ageing_idle", [] { age(1'000'000'000); }},
    {"ageing_all", [] { age(1); }},
    {"purge_none", [] { purge_from({}); }},
    {"purge_all", [] { purge_from(our_gid()); }},
    {"flush", [] { tarv_hash_remove_all(); }},
    {"cache_destroy", [] { tarv_hash_destroy(); }},
    {"bare_unlinking", unlink_all},
    {"arp_answer_for_all", hear_one, true},
    {"sa_answer_for_all", answer_one, true},
    {"arp_destroy", [] { tarv_req_list_destroy(); }},
    {"sa_destroy", [] { tarv_sa_req_list_destroy(); }},
    {"arp_timer_all_due", [] { time_out(tarv_req_timer_handler, tarv_req_timer); }},
    {"sa_timer_all_due", [] { time_out(tarv_sa_req_timer_handler, tarv_sa_req_timer); }},
    {"cache_dump", [] { tarv_hash_dump(); }},
    {"arp_dump", [] { tarv_req_list_dump(); }},
    {"sa_dump", [] { tarv_sa_req_list_dump(); }},
    {"render",
     [] {
         char* text = nullptr;
         u32 length = 0;
         tarv_hash_print_to_string(&text, &length);
         kfree(text);
     }},
};

void hold(benchmark::State& state, const Path& path) {
    for (auto _ : state) {
        const Full full(static_cast<u32>(state.range(0)), path.all_for_one);
        longest = 0;
        path.run();
        state.SetIterationTime(longest);
        host::clear_console();
    }
}

void register_rows() {
    for (const Path& path : paths)
        row("hold", path.name, full_subnet, [&path](benchmark::State& state) { hold(state, path); })
            ->UseManualTime()
            ->Iterations(1);
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, register_rows);
}
