// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Places around requests that wait for ARP: their maker, and those who take them off the list.
#include <array>
#include <atomic>
#include <functional>
#include <utility>

#include "host/check.h"
#include "platform/atomic.h"
#include "tarv/tarv-api.h"
#include "tests/races/places.h"

namespace stress {
namespace {

tarv_paths_t paths_of(unsigned round) {
    return static_cast<tarv_paths_t>(round / 2 % 3);
}

}  // namespace

/* The answer comes when the driver is about to return. In every other round the maker is held at
 * the lock under which it lets go, until the request has been taken; else the two just run, now and
 * then with a handicap for the maker. */
Tally drive_take_during_release(Arena& arena, unsigned rounds) {
    Tally tally;
    Meeting sent;
    std::atomic<bool> making = false;
    std::atomic<bool> taken = false;
    bool has_sent = false;
    unsigned now = 0;
    const DriverDoes does(arena, on_this_thread([&](const tarv_arp_data_t&) {
                              has_sent = true;
                              sent.arrive();
                              if (now % 4 == 0)
                                  std::this_thread::yield();
                              return now % 5 == 4 ? tarv_stat_error : tarv_stat_ok;
                          }));
    const auto hold = [&](const void* lock) {
        if (lock == &tarv_rl_lock && has_sent && now % 2 == 1)
            wait_until("the request is taken", [&] { return taken.load(); });
    };
    in_step(
        rounds,
        [&](unsigned round) {
            now = round;
            has_sent = false;
            taken = false;
            making = true;
        },
        [&](unsigned round) {
            const AtMyDoor door(Door::lock, hold);
            new_request().ask(arena.client, round % peer_count, paths_of(round), true);
            making = false;
            // Among many identical requests nothing is sent.
            if (!has_sent)
                sent.arrive();
        },
        [&](unsigned round) {
            sent.arrive();
            arena.hear(round % peer_count, round);
            tally.met += making;
            taken = true;
        },
        [](unsigned) {});
    return tally;
}

namespace {

/* What the thread that makes a request does inside the driver's functions. */
std::function<void()> inside_driver;
std::thread::id maker;

/* A driver that knows its own context, and when it may be called no more. */
template <int Number>
struct NumberedDriver {
    static inline const int context = Number;
    static inline std::atomic<bool> gone = true;

    static void be_called(const char* function) {
        const host::DriverCall call(function);
        if (gone.load(std::memory_order_relaxed))
            violation("%s was entered after tarv_detach had returned", function);
        if (std::this_thread::get_id() == maker)
            inside_driver();
        if (gone.load(std::memory_order_relaxed))
            violation("%s was still running when tarv_detach returned", function);
    }
    static tarv_stat_t send(tarv_arp_data_t*, void* given, int) {
        if (given != &context)
            violation("torn driver: the send function of one driver got the context of another");
        be_called("send_arp_data_fn");
        return tarv_stat_ok;
    }
    static tarv_stat_t info(u32, gx_p_key_t*, u32*, int*, int*) {
        be_called("get_if_info_fn");
        return tarv_stat_error;
    }
    static void attach() {
        gone.store(false, std::memory_order_relaxed);
        void* handle = nullptr;
        if (tarv_attach(info, send, const_cast<int*>(&context), &handle) != tarv_stat_ok)
            violation("a driver cannot be attached though there is none");
    }
    static void detach() {
        tarv_detach(TARV_ATTACH_HANDLE);
        gone.store(true, std::memory_order_relaxed);
    }
};

void attach_numbered(unsigned number) {
    number % 2 == 0 ? NumberedDriver<0>::attach() : NumberedDriver<1>::attach();
}
void detach_numbered(unsigned number) {
    number % 2 == 0 ? NumberedDriver<0>::detach() : NumberedDriver<1>::detach();
}

/* Where the one who calls the driver is when it goes: about to call it, inside one of its
 * functions, or at the attachment at the same time. */
enum class Calling { soon, send, info, at_once };

Calling calling_in(unsigned round) {
    return static_cast<Calling>(round % 4);
}

/* The lock at which the caller meets who detaches; null: elsewhere. */
const void* lock_met_in(unsigned round) {
    switch (calling_in(round)) {
        case Calling::soon:
            return &tarv_rl_lock;
        case Calling::at_once:
            return &driver_lock;
        default:
            return nullptr;
    }
}

}  // namespace

/* The driver goes and another one comes while a request is made or a packet taken in. The caller is
 * held until the detaching has come to wait for it, or has not waited. */
Tally drive_driver_change(Arena& arena, unsigned rounds) {
    Tally tally;
    Meeting held, leaving, lock_of_driver;
    Calling calling = Calling::soon;
    const auto hold = [&] {
        held.arrive();
        leaving.arrive();
    };
    maker = std::this_thread::get_id();
    inside_driver = [&] {
        if (calling == Calling::send || calling == Calling::info)
            hold();
        calling = Calling::at_once;  // once is enough
    };
    arena.driver.detach();
    attach_numbered(0);
    Arena::command("sa_queries off\n");
    in_step(
        rounds, [&](unsigned round) { calling = calling_in(round); },
        [&](unsigned round) {
            bool met = false;
            const AtMyDoor door(Door::lock, [&](const void* lock) {
                if (met || lock != lock_met_in(round))
                    return;
                met = true;
                lock == &tarv_rl_lock ? hold() : lock_of_driver.arrive();
            });
            if (calling_in(round) == Calling::info)
                arena.hear(round % peer_count, round);
            else
                new_request().ask(arena.client, round % peer_count, tarv_paths_none, true);
        },
        [&](unsigned round) {
            bool waits = calling_in(round) == Calling::at_once;
            const AtMyDoor lock(Door::lock,
                                meet_at(waits ? &driver_lock : nullptr, lock_of_driver));
            const AtMyDoor door(Door::idle, [&](const void*) {
                if (!std::exchange(waits, true))
                    leaving.arrive();
            });
            if (!waits)
                held.arrive();
            detach_numbered(round);
            tally.met++;
            if (!waits)
                leaving.arrive();
            attach_numbered(round + 1);
        },
        // Among many identical requests nothing would be sent.
        [&](unsigned round) {
            calling = Calling::at_once;
            arena.hear(round % peer_count, round);
        });
    detach_numbered(rounds);
    arena.driver.attach();
    return tally;
}

namespace {

/* In every third round the request has no retry left: the time-out pass ends it. */
void allow_retries(unsigned round) {
    write_once(get_data_retry, round % 3 == 0 ? 0 : 3);
}

/* A list whose time-out pass and completion are to meet. */
struct TimedList {
    timer_list& timer;
    void (*pass)(unsigned long);
    const void* lock;
    unsigned long limit;  // ticks that a request may wait
    /// Makes a request for the round's peer.
    void (*ask)(Arena& arena, unsigned round, Request& request);
    /// Answers those for it.
    void (*complete)(const Arena& arena, unsigned round);
};

/* The pass that comes first may issue the request anew, so that the answer finds nothing: it then
 * comes again. */
Tally drive_time_out(Arena& arena, unsigned rounds, const TimedList& list) {
    Tally tally;
    const TimerByHand timer(list.timer);
    Meeting meeting;
    Request* request = nullptr;
    unsigned long time_outs = 0;
    in_step(
        rounds,
        [&](unsigned round) {
            allow_retries(round);
            request = &new_request();
            list.ask(arena, round, *request);
            skip_ticks(list.limit);
        },
        [&](unsigned round) {
            const host::ContextScope scope(host::Context::timer);
            const AtMyDoor door(Door::lock, meet_at(list.lock, meeting, round % 4 == 0));
            list.pass(list.timer.data);
            tally.met++;
        },
        [&](unsigned round) {
            const AtMyDoor door(Door::lock, meet_at(list.lock, meeting, round % 4 == 1));
            list.complete(arena, round);
        },
        [&](unsigned round) {
            if (request->replies() == 0)
                list.complete(arena, round);
            if (request->replies() != 1)
                violation("lost answer: a request that timed out while it was completed has %d",
                          request->replies());
            time_outs += request->told() == tarv_stat_timeout;
        });
    write_once(get_data_retry, 3);
    tally.note = std::to_string(rounds - time_outs) + " answered, " + std::to_string(time_outs) +
                 " timed out";
    return tally;
}

}  // namespace

Tally drive_time_out_of_arp(Arena& arena, unsigned rounds) {
    return drive_time_out(
        arena, rounds,
        {tarv_req_timer, tarv_req_timer_handler, &tarv_rl_lock, 1000,
         [](Arena& a, unsigned round, Request& request) {
             request.ask(a.client, round % peer_count, tarv_paths_none, true);
         },
         [](const Arena& a, unsigned round) { a.hear(round % peer_count, round); }});
}

/* The SA is silent; its answers are made here. */
Tally drive_time_out_of_paths(Arena& arena, unsigned rounds) {
    arena.wait_for_ports();
    arena.fabric.sa().faults().drop_all();
    const Tally tally = drive_time_out(
        arena, rounds,
        {tarv_sa_req_timer, tarv_sa_req_timer_handler, &tarv_sa_rl_lock, 3000,
         [](Arena& a, unsigned round, Request& request) {
             Arena::command("remove " + text_of(address_of(round % peer_count)) + "\n");
             a.hear(round % peer_count, round);
             request.ask(a.client, round % peer_count, tarv_paths_both, false);
             if (request.status() != tarv_stat_pending)
                 violation("a query could not be sent: status %d", request.status());
         },
         [](const Arena& a, unsigned round) {
             const host::ContextScope scope(host::Context::gsi);
             ib_path_record_v2_t paths[2];
             a.identities.paths_to(round % peer_count, round, paths);
             tarv_process_path_rec_data(paths, 2, 1);
         }});
    arena.fabric.sa().clear();
    return tally;
}

}  // namespace stress
