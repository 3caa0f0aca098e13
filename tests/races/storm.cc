// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The course of a storm: its threads, the module's unloads and loads in the middle of it, and what
// is printed of it in the end.
#include "tests/races/storm.h"

#include <cstdio>
#include <thread>
#include <vector>

#include "tests/races/doors.h"
#include "tests/races/report.h"

namespace stress {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int players = 9;
constexpr unsigned unrest = 16;

/* A halt in the middle of things leaves none for the unload to end in silence. */
void reload(Storm& storm, Arena& arena) {
    if (chance().one_in(3))
        Arena::command("halt\n");
    storm.module.close();
    arena.unload();
    storm.waiting = 0;
    // A file that is being made is not yet ready to be opened.
    storm.files.close();
    arena.load();
    storm.files.open();
    storm.weather.open();
    storm.module.open();
}

struct Figure {
    const char* name;
    const Counter& counter;
    bool must_be;  // a storm without any is none
};

void print_figures(const Arena& arena, double seconds, unsigned long queries_before) {
    const Figure figures[] = {
        {"resolutions", counted.resolutions, true},
        {"hits", counted.hits, true},
        {"refused", counted.refused, false},
        {"lookups by GID", counted.lookups, true},
        {"callbacks", counted.callbacks, true},
        {"of them time-outs", counted.time_outs, true},
        {"ARP packets sent", counted.arp_sent, true},
        {"ARP packets received", counted.arp_received, true},
        {"fabric changes", counted.events, true},
        {"commands", counted.commands, true},
        {"reads", counted.reads, true},
        {"trace level changes", counted.trace_changes, true},
        {"driver attachments", counted.attachments, true},
        {"reloads", counted.reloads, true},
        {"requests ended in silence", counted.silent, false},
    };
    std::printf("storm of %.1f s\n", seconds);
    for (const Figure& figure : figures) {
        std::printf("  %-28s %10lu\n", figure.name, figure.counter.value());
        if (figure.must_be && figure.counter.value() == 0)
            violation("the storm made no %s", figure.name);
    }
    std::printf("  %-28s %10lu\n", "queries heard by the SA",
                const_cast<Arena&>(arena).fabric.sa().queries() - queries_before);
}

}  // namespace

Chance& chance() {
    thread_local Chance mine;
    return mine;
}

void storm(Arena& arena, double seconds) {
    Storm storm(arena);

    const unsigned long queries = arena.fabric.sa().queries();
    const DriverDoes does(arena,
                          [&](const tarv_arp_data_t& request) { return storm.send(request); });
    set_unrest(unrest);
    counted.restart();
    const auto begin = Clock::now();
    const auto passed = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    std::thread receiver(&Storm::receive, &storm);
    std::vector<std::thread> threads;
    threads.reserve(players);
    for (int i = 0; i < players; i++)
        threads.emplace_back(&Storm::play, &storm);
    while (passed() < seconds) {
        arena.kernel.advance(20 + chance().below(200));
        reload(storm, arena);
        progress("storm, " + std::to_string(static_cast<int>(passed())) + " s, " +
                 std::to_string(counted.resolutions.value()) + " resolutions, " +
                 std::to_string(counted.reloads.value()) + " reloads");
    }
    storm.over = true;
    for (std::thread& thread : threads)
        thread.join();
    arena.reload();
    storm.end_receiving();
    receiver.join();
    set_unrest(0);
    print_figures(arena, passed(), queries);
}

}  // namespace stress
