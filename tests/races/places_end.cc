// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Places around the module's end: its unload, and the halt that comes before one.
#include <atomic>
#include <cstring>
#include <thread>

#include "host/check.h"
#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tests/races/places.h"

namespace stress {
namespace {

/* The timer's function runs as soon as it can, once `prepare` has made what it is to find. Until
 * then it does not run: it might be held before anybody lets it go. */
template <class Prepare>
void fire_after(timer_list& timer, Prepare prepare) {
    del_timing_sync(&timer);
    prepare();
    timer.expires = jiffies();
    add_timing(&timer);
}

/* A callback that is inside the module until somebody lets it go; unless it runs on the thread that
 * made the request, since the answer came before that was done. */
struct Inside {
    const std::thread::id asker = std::this_thread::get_id();
    std::atomic<bool> entered = false;
    std::atomic<host::Context> context = host::Context::process;
    std::atomic<bool> let_go = false;
    std::atomic<bool> left = false;
    OnReply on_reply = [this](Request&, tarv_stat_t) {
        context = host::current_context();
        entered = true;
        if (std::this_thread::get_id() != asker)
            wait_until("the unload comes to a callback", [this] { return let_go.load(); });
        left = true;
    };
};

/* Who runs the callback, and the door at which an unload waits for it. On a busy machine it may be
 * somebody else: a timer, because an answer came too late. Then it is let go at once. */
struct Way {
    const char* name;
    host::Context context;
    Door door;
    bool (*is_it)(const void* object);
    /// Makes a request and brings its callback about.
    void (*begin)(Arena& arena, Inside& inside, unsigned round);
};

void by_arp_timer(Arena& arena, Inside& inside, unsigned round) {
    write_once(get_data_retry, 0);
    fire_after(tarv_req_timer, [&] {
        new_request().ask(arena.client, round % peer_count, tarv_paths_none, true,
                          &inside.on_reply);
        skip_ticks(1000);
    });
}

void ask_for_paths(Arena& arena, Inside& inside, unsigned round) {
    arena.hear(round % peer_count, round);
    Request& request = new_request();
    if (request.ask(arena.client, round % peer_count, tarv_paths_both, false, &inside.on_reply) !=
        tarv_stat_pending)
        violation("a query could not be sent: status %d", request.status());
}

void by_sa_timer(Arena& arena, Inside& inside, unsigned round) {
    write_once(get_data_retry, 0);
    arena.fabric.sa().faults().drop_next(1);
    fire_after(tarv_sa_req_timer, [&] {
        ask_for_paths(arena, inside, round);
        skip_ticks(3000);
    });
}

constexpr Way ways[] = {
    {"the ARP timer", host::Context::timer, Door::timer_stop,
     [](const void* object) { return object == &tarv_req_timer; }, by_arp_timer},
    {"the SA timer", host::Context::timer, Door::timer_stop,
     [](const void* object) { return object == &tarv_sa_req_timer; }, by_sa_timer},
    {"the SA's answer", host::Context::gsi, Door::class_still_busy,
     [](const void*) { return true; }, ask_for_paths},
    {"a halt", host::Context::process, Door::file_removal,
     [](const void* name) {
         return std::strcmp(static_cast<const char*>(name), control_path) == 0;
     },
     [](Arena& arena, Inside& inside, unsigned round) {
         new_request().ask(arena.client, round % peer_count, tarv_paths_none, true,
                           &inside.on_reply);
     }},
};

}  // namespace

/* The callback is let go when the unload has come to where it waits for whoever runs it. */
Tally drive_unload_during_callback(Arena& arena, unsigned rounds) {
    Tally tally;
    for (unsigned round = 0; round < rounds; round++) {
        const Way& way = ways[round % std::size(ways)];
        Inside inside;
        arena.wait_for_ports();
        std::thread halter;
        way.begin(arena, inside, round);
        if (way.door == Door::file_removal)
            halter = std::thread([] { Arena::command("halt\n"); });
        wait_until(way.name, [&] { return inside.entered.load(); });
        const bool as_meant = inside.context == way.context;
        tally.met += as_meant;
        inside.let_go = !as_meant;
        {
            const AtMyDoor door(way.door, [&](const void* object) {
                if (way.is_it(object))
                    inside.let_go = true;
            });
            arena.unload();
        }
        if (!inside.left)
            violation("the unload did not wait for a callback that %s runs", way.name);
        if (halter.joinable())
            halter.join();
        arena.load();
    }
    return tally;
}

namespace {

/* Who makes a query while the module is unloaded, and the door at which the unload waits for it. */
struct QueryMaker {
    host::Context context;
    Door door;
    bool (*is_it)(const void* object);
    /// Brings the query about, on another thread.
    void (*begin)(Arena& arena, const OnReply& ask_again, unsigned round);
};

constexpr QueryMaker query_makers[] = {
    // The ARP timer issues a request anew for a peer that has become known meanwhile.
    {host::Context::timer, Door::timer_stop,
     [](const void* object) { return object == &tarv_req_timer; },
     [](Arena& arena, const OnReply&, unsigned round) {
         fire_after(tarv_req_timer, [&] {
             new_request().ask(arena.client, round % peer_count, tarv_paths_both, true);
             Arena::command(arena.identities.add_ib_arp_command(round % peer_count, round));
             skip_ticks(1000);
         });
     }},
    // The client that is told of an answer on the second port asks again for a peer on the first.
    {host::Context::gsi, Door::class_still_busy, [](const void*) { return true; },
     [](Arena& arena, const OnReply& ask_again, unsigned round) {
         const unsigned generation = round | 1;
         arena.hear(0, generation + 1);
         arena.hear(1, generation);
         new_request().ask(arena.client, 1, tarv_paths_both, false, &ask_again);
     }},
};

}  // namespace

/* The query's maker has a datagram, and is held until the unload comes to where it waits for it. */
Tally drive_unload_during_query(Arena& arena, unsigned rounds) {
    Tally tally;
    const std::thread::id me = std::this_thread::get_id();
    std::atomic<bool> making = false;
    std::atomic<bool> let_go = false;
    const OnReply ask_again = [&](Request&, tarv_stat_t) {
        new_request().ask(arena.client, 0, tarv_paths_both, false);
        // On the thread that is to unload the module there is nobody to hold.
        if (std::this_thread::get_id() == me)
            making = true;
    };
    for (unsigned round = 0; round < rounds; round++) {
        const QueryMaker& maker = query_makers[round % std::size(query_makers)];
        making = false;
        let_go = false;
        arena.wait_for_ports();
        {
            const AtDoor buffer(Door::query_buffer, [&](const void*) {
                if (std::this_thread::get_id() == me)
                    return;
                if (host::current_context() != maker.context)
                    let_go = true;
                else
                    tally.met++;
                making = true;
                wait_until("the unload comes to a query", [&] { return let_go.load(); });
            });
            maker.begin(arena, ask_again, round);
            wait_until("a query is made", [&] { return making.load(); });
            const AtMyDoor door(maker.door, [&](const void* object) {
                if (maker.is_it(object))
                    let_go = true;
            });
            arena.unload();
        }
        arena.load();
    }
    return tally;
}

/* In even rounds the halt comes while the driver sends: it passes over the busy request, whose
 * maker gives it its last word. In odd rounds halt and maker come to the list at the same time. */
Tally drive_halt_during_filing(Arena& arena, unsigned rounds) {
    Tally tally;
    Meeting under_way, passed, locks;  // under way: past the test for a halted module
    unsigned now = 0;
    bool racing = false;
    unsigned long told = 0;
    Request* request = nullptr;
    const DriverDoes does(arena, on_this_thread([&](const tarv_arp_data_t&) {
                              if (racing && now % 2 == 0) {
                                  under_way.arrive();
                                  passed.arrive();
                              }
                              return tarv_stat_ok;
                          }));
    in_step(
        rounds,
        [&](unsigned round) {
            // A halt goes to the list only when something waits there.
            racing = false;
            new_request().ask(arena.client, 0, tarv_paths_none, true);
            now = round;
            racing = true;
        },
        [&](unsigned round) {
            // It counts the others first; the second time it files.
            int times = 0;
            const AtMyDoor door(Door::lock, [&](const void* lock) {
                if (lock != &tarv_rl_lock || round % 2 == 0 || ++times != 2)
                    return;
                under_way.arrive();
                locks.arrive();
            });
            request = &new_request();
            request->ask(arena.client, 1 + round % (peer_count - 1), tarv_paths_none, true);
        },
        [&](unsigned round) {
            bool met = round % 2 == 0;
            const AtMyDoor door(Door::lock, [&](const void* lock) {
                if (lock != &tarv_rl_lock || met)
                    return;
                met = true;
                locks.arrive();
            });
            under_way.arrive();
            Arena::command("halt\n");
            tally.met += met;
            // The timer may just have had the list's only request in its hands.
            if (!met)
                locks.arrive();
            if (round % 2 == 0)
                passed.arrive();
        },
        [&](unsigned) {
            arena.unload();
            told += request->replies() != 0;
            arena.load();
        });
    tally.note =
        std::to_string(told) + " timed out, " + std::to_string(rounds - told) + " were refused";
    return tally;
}

/* The ARP timer is issuing many requests anew, and is inside the driver with one of them. */
Tally drive_halt_during_reissue(Arena& arena, unsigned rounds) {
    constexpr unsigned waiting = 2000;
    Tally tally;
    Meeting sending, passed;
    unsigned until_met = 0;
    const DriverDoes does(arena, [&, me = std::this_thread::get_id()](const tarv_arp_data_t&) {
        if (std::this_thread::get_id() != me && --until_met == 0) {
            sending.arrive();
            passed.arrive();
        }
        return tarv_stat_ok;
    });
    for (unsigned round = 0; round < rounds; round++) {
        fire_after(tarv_req_timer, [&] {
            for (unsigned i = 0; i < waiting; i++)
                new_request().ask(arena.client, peer_count + i, tarv_paths_none, false);
            skip_ticks(1000);
            until_met = 1 + round * 37 % waiting;
        });
        sending.arrive();
        Arena::command("halt\n");
        tally.met++;
        passed.arrive();
        arena.unload();
        arena.load();
    }
    tally.note = std::to_string(waiting) + " waited each time";
    return tally;
}

/* In even rounds the maker of a query is held until the halt has passed over its request. In odd
 * rounds the halt comes while one path is tried on a request for two, which would wait on. */
Tally drive_halt_during_query(Arena& arena, unsigned rounds) {
    Tally tally;
    arena.fabric.sa().faults().drop_all();
    {
        Meeting busy, passed;
        Request* request = nullptr;
        const auto hold = [&] {
            busy.arrive();
            passed.arrive();
        };
        const auto ask = [&](unsigned round) {
            request->ask(arena.client, round % peer_count, tarv_paths_both, false);
        };
        in_step(
            rounds,
            [&](unsigned round) {
                arena.wait_for_ports();
                arena.hear(round % peer_count, round);
                request = &new_request();
                if (round % 2 == 1)
                    ask(round);
            },
            [&](unsigned round) {
                if (round % 2 == 0) {
                    const AtMyDoor door(Door::query_buffer, [&](const void*) { hold(); });
                    ask(round);
                    return;
                }
                const host::ContextScope scope(host::Context::gsi);
                const AtMyDoor door(Door::lock, [&, met = false](const void* lock) mutable {
                    if (lock != &tarv_lock || met)
                        return;
                    met = true;
                    hold();
                });
                ib_path_record_v2_t paths[2];
                arena.identities.paths_to(round % peer_count, round, paths);
                tarv_process_path_rec_data(paths, 1, 1);
            },
            [&](unsigned) {
                busy.arrive();
                Arena::command("halt\n");
                tally.met++;
                passed.arrive();
            },
            [&](unsigned) {
                if (request->replies() != 1)
                    violation("lost answer: a client of a halted module has %d",
                              request->replies());
                arena.reload();
            });
    }
    arena.fabric.sa().clear();
    return tally;
}

}  // namespace stress
