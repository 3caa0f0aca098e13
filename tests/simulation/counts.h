// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What has happened in a run, counted: a run in which something never happened has not proved it.
#pragma once

#include <array>
#include <cstddef>

namespace simulation {

// clang-format off
#define SIMULATION_COUNTS(COUNT) \
    COUNT(hits, "hits") \
    COUNT(hits_with_paths, "hits with paths") \
    COUNT(misses, "misses") \
    COUNT(refused_halted, "refused while halted") \
    COUNT(no_driver, "refused without a driver") \
    COUNT(arp_asked, "ARP requests") \
    COUNT(arp_failed, "ARP requests that failed") \
    COUNT(sa_asked, "SA queries") \
    COUNT(sa_failed, "SA queries that failed") \
    COUNT(held_back, "held back as identical") \
    COUNT(reissued, "re-issued") \
    COUNT(timed_out, "timed out") \
    COUNT(replies_ok, "called back: ok") \
    COUNT(replies_timeout, "called back: timeout") \
    COUNT(replies_error, "called back: error") \
    COUNT(replies_not_found, "called back: not found") \
    COUNT(silent_unloaded, "silent: unloaded while waiting for ARP") \
    COUNT(silent_no_memory, "silent: no memory to re-issue") \
    COUNT(learned, "peers learned") \
    COUNT(updated, "peers updated") \
    COUNT(kept_static, "protected static entries kept") \
    COUNT(static_paths, "static paths given") \
    COUNT(answers_used, "SA answers that completed requests") \
    COUNT(answers_unmatched, "SA answers that completed none") \
    COUNT(answers_dropped, "SA answers dropped") \
    COUNT(paths_stored, "paths stored") \
    COUNT(put_back, "requests put back") \
    COUNT(own_pkeys, "P_Keys of our own ports") \
    COUNT(aged, "entries aged out") \
    COUNT(purged, "entries purged") \
    COUNT(media_resets, "media resets") \
    COUNT(packets, "packets of the module compared") \
    COUNT(arp_packets, "ARP packets taken in") \
    COUNT(sa_answers, "SA answers delivered") \
    COUNT(events, "adapter events") \
    COUNT(timer_runs, "timer runs") \
    COUNT(faults, "calls made to fail") \
    COUNT(taken_over, "states taken over after them") \
    COUNT(compared, "states compared") \
    COUNT(looked_up, "entries looked up one by one") \
    COUNT(tables_read, "tables read") \
    COUNT(readers_busy, "readers told to wait") \
    COUNT(halts, "halts") \
    COUNT(loads, "loads") \
    COUNT(loads_failed, "loads that failed") \
    COUNT(unloads, "unloads") \
    COUNT(worlds, "worlds") \
    COUNT(worlds_at_wrap, "worlds at the wrap of the tick counter") \
    COUNT(lines, "lines said")
// clang-format on

enum class Count {
#define COUNT(name, text) name,
    SIMULATION_COUNTS(COUNT)
#undef COUNT
};

/// As a reader of the summary sees them.
inline constexpr const char* count_names[] = {
#define COUNT(name, text) text,
    SIMULATION_COUNTS(COUNT)
#undef COUNT
};

struct Counts {
    std::array<unsigned long, std::size(count_names)> number{};

    void note(Count what, unsigned long times = 1) {
        number[static_cast<std::size_t>(what)] += times;
    }
    void add(const Counts& other) {
        for (std::size_t i = 0; i < number.size(); ++i)
            number[i] += other.number[i];
    }
};

}  // namespace simulation
