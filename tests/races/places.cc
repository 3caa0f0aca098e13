// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/races/places.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace stress {
namespace {

constexpr Place all_places[] = {
    {"take_during_release", "a request is taken while its maker, done sending, lets go of it", 1,
     drive_take_during_release},
    {"driver_change", "the driver is exchanged while it is called", 1, drive_driver_change},
    {"time_out_of_arp", "the ARP time-out pass and the completion reach for one request", 1,
     drive_time_out_of_arp},
    {"time_out_of_paths", "the SA time-out pass and the completion reach for one request", 1,
     drive_time_out_of_paths},
    {"enter_together", "two enter one new peer into the cache at once", 1, drive_enter_together},
    {"static_path", "ARP intake uses the static path while a command sets it", 1,
     drive_static_path},
    {"context_torn_down", "a port's SA context goes between a query's making and its posting", 1,
     drive_context_torn_down},
    {"answer_before_send_ends", "the SA answers before the query's maker is done with it", 1,
     drive_answer_before_send_ends},
    {"event_during_query", "the adapter changes while an SA answer is taken in", 1,
     drive_event_during_query},
    {"unload_during_callback", "the module is unloaded while a callback runs", 4,
     drive_unload_during_callback},
    {"unload_during_query", "the module is unloaded while its timer makes a query", 4,
     drive_unload_during_query},
    {"halt_during_filing", "a halt passes the lists while a request is being filed", 4,
     drive_halt_during_filing},
    {"halt_during_reissue", "a halt comes while the timer issues 2000 requests anew", 80,
     drive_halt_during_reissue},
    {"halt_during_query", "a halt comes while a query is made, or an answer tried", 4,
     drive_halt_during_query},
};

void drive_place(Arena& arena, const Place& place, unsigned rounds) {
    const unsigned long before = violations();
    const auto since = std::chrono::steady_clock::now();
    const Tally tally = place.drive(arena, rounds);
    arena.reload();
    if (tally.met == 0)
        violation("%s: the race never happened in %u rounds", place.name, rounds);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - since;
    std::printf("%-24s %8u rounds %8lu races %7.1f s  %s%s\n", place.name, rounds, tally.met,
                took.count(), tally.note.c_str(), violations() > before ? "  VIOLATED" : "");
    std::fflush(stdout);
}

}  // namespace

Visitor meet_at(const void* lock, Meeting& meeting, bool late) {
    return [lock, &meeting, late, met = std::make_shared<bool>(false)](const void* object) {
        if (object != lock || *met)
            return;
        *met = true;
        meeting.arrive();
        if (late)
            std::this_thread::yield();
    };
}

std::span<const Place> places() {
    return all_places;
}

void drive_places(Arena& arena, const std::string& name, unsigned times) {
    for (const Place& place : all_places) {
        if (name != "all" && name != place.name)
            continue;
        progress(place.what);
        drive_place(arena, place, std::max(times / place.price, 1u));
    }
}

}  // namespace stress
