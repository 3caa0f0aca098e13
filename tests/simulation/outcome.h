// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What has happened in a run, counted: a run in which something never happened has not proved it.
#pragma once

#include <array>
#include <cstddef>

#include "tests/simulation/silent_end.h"

namespace soak {

enum class Outcome {
    hits,
    hits_with_paths,
    misses,
    refused_halted,
    no_driver,
    arp_asked,
    arp_failed,
    sa_asked,
    sa_failed,
    held_back,
    reissued,
    timed_out,
    replies_ok,
    replies_timeout,
    replies_error,
    replies_not_found,
    silent_unloaded,
    silent_no_memory,
    learned,
    updated,
    kept_static,
    static_paths,
    answers_used,
    answers_unmatched,
    answers_dropped,
    paths_stored,
    put_back,
    own_pkeys,
    aged,
    purged,
    media_resets,
    arp_packets,
    sa_answers,
    events,
    timer_runs,
    faults,
    taken_over,
    compared,
    looked_up,
    tables_read,
    readers_busy,
    halts,
    loads,
    loads_failed,
    unloads,
    worlds,
    worlds_at_wrap,
    log_lines,
    count
};
inline constexpr auto outcomes = static_cast<std::size_t>(Outcome::count);

/// As a reader of the summary sees it.
const char* name_of(Outcome outcome);

struct Tally {
    std::array<unsigned long, outcomes> number{};

    void note(Outcome outcome, unsigned long times = 1) {
        number[static_cast<std::size_t>(outcome)] += times;
    }
    void note(SilentEnd end) {
        note(end == SilentEnd::waiting_for_arp_at_unload ? Outcome::silent_unloaded
                                                         : Outcome::silent_no_memory);
    }
    void add(const Tally& other) {
        for (std::size_t i = 0; i < outcomes; ++i)
            number[i] += other.number[i];
    }
};

}  // namespace soak
