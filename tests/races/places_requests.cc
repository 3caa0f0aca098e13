// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Places around requests that wait for ARP: their maker, and those who take them off the list.
#include <array>
#include <atomic>

#include "host/check.h"
#include "platform/atomic.h"
#include "tarv/tarv-api.h"
#include "tests/races/doors.h"
#include "tests/races/places.h"

namespace stress {
namespace {

tarv_paths_t paths_of(unsigned round) {
    return static_cast<tarv_paths_t>(round / 2 % 3);
}

/* The peer answers. */
void hear(const Site& site, unsigned peer, unsigned generation) {
    site.driver.deliver(site.identities.heard(peer, generation, TARV_ARP_OP_REPLY));
}

/* The answer came inside the send: whatever the driver says of the send, it is the request's. */
void must_be_pending(const Request& request) {
    if (request.status() != tarv_stat_pending)
        violation("a request that was taken while it was sent got status %d", request.status());
}

}  // namespace

/* The answer comes when the driver is about to return. In every other round the maker is held at
 * the lock under which it lets go, until the request has been taken; else the two just run, now and
 * then with a handicap for the maker. */
Tally drive_take_during_release(Site& site, unsigned rounds) {
    Tally tally;
    Meeting sent;
    std::atomic<bool> making = false;
    std::atomic<bool> taken = false;
    bool has_sent = false;
    unsigned now = 0;
    const DriverDoes does(site, on_this_thread([&](const tarv_arp_data_t&) {
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
            new_request().ask(site.client, round % peer_count, paths_of(round), true);
            making = false;
            // Among many identical requests nothing is sent.
            if (!has_sent)
                sent.arrive();
        },
        [&](unsigned round) {
            sent.arrive();
            hear(site, round % peer_count, round);
            tally.met += making;
            taken = true;
        },
        [](unsigned) {});
    return tally;
}

Tally drive_reply_inside_send(Site& site, unsigned rounds) {
    Tally tally;
    Request* request = nullptr;
    unsigned now = 0;
    const DriverDoes does(site, on_this_thread([&](const tarv_arp_data_t&) {
                              const int before = request->replies();
                              hear(site, now % peer_count, now);
                              tally.met +=
                                  request->replies() > before || paths_of(now) != tarv_paths_none;
                              return now % 5 == 4 ? tarv_stat_error : tarv_stat_ok;
                          }));
    for (now = 0; now < rounds; now++) {
        request = &new_request();
        request->ask(site.client, now % peer_count, paths_of(now), true);
        must_be_pending(*request);
    }
    return tally;
}

Tally drive_reply_beside_send(Site& site, unsigned rounds) {
    Tally tally;
    Meeting sending;
    Meeting heard;
    unsigned now = 0;
    bool has_sent = false;
    const DriverDoes does(site, on_this_thread([&](const tarv_arp_data_t&) {
                              has_sent = true;
                              sending.arrive();
                              heard.arrive();
                              return now % 5 == 4 ? tarv_stat_error : tarv_stat_ok;
                          }));
    in_step(
        rounds,
        [&](unsigned round) {
            now = round;
            has_sent = false;
        },
        [&](unsigned round) {
            Request& request = new_request();
            request.ask(site.client, round % peer_count, paths_of(round), true);
            must_be_pending(request);
            if (has_sent)
                return;
            sending.arrive();
            heard.arrive();
        },
        [&](unsigned round) {
            sending.arrive();
            hear(site, round % peer_count, round);
            heard.arrive();
        },
        [&](unsigned) { tally.met += has_sent; });
    return tally;
}

namespace {

/* A driver that knows its own context. */
template <int Number>
struct NumberedDriver {
    static inline const int context = Number;

    static tarv_stat_t send(tarv_arp_data_t*, void* given, int) {
        if (given != &context)
            violation("torn driver: the send function of one driver got the context of another");
        return tarv_stat_ok;
    }
    static tarv_stat_t info(u32, gx_p_key_t*, u32*, int*, int*) { return tarv_stat_error; }
    static void attach() {
        void* handle = nullptr;
        if (tarv_attach(info, send, const_cast<int*>(&context), &handle) != tarv_stat_ok)
            violation("a driver cannot be attached though there is none");
    }
};

void attach_numbered(unsigned number) {
    number % 2 == 0 ? NumberedDriver<0>::attach() : NumberedDriver<1>::attach();
}

}  // namespace

/* A request knows that there is a driver, and files itself, when the driver goes and another one
 * comes. In every third round the two reach for the attachment at the same time. */
Tally drive_driver_change(Site& site, unsigned rounds) {
    Tally tally;
    Meeting held;
    Meeting changed;
    site.driver.detach();
    attach_numbered(0);
    in_step(
        rounds, [](unsigned) {},
        [&](unsigned round) {
            const void* const meet_at = round % 3 == 2 ? &driver_lock : &tarv_rl_lock;
            bool met = false;
            const AtMyDoor door(Door::lock, [&](const void* lock) {
                if (lock != meet_at || met)
                    return;
                met = true;
                held.arrive();
                if (round % 3 != 2)
                    changed.arrive();
            });
            new_request().ask(site.client, round % peer_count, tarv_paths_none, true);
        },
        [&](unsigned round) {
            held.arrive();
            tarv_detach(TARV_ATTACH_HANDLE);
            attach_numbered(round + 1);
            tally.met++;
            if (round % 3 != 2)
                changed.arrive();
        },
        // Among many identical requests nothing would be sent.
        [&](unsigned round) { hear(site, round % peer_count, round); });
    tarv_detach(TARV_ATTACH_HANDLE);
    site.driver.attach();
    return tally;
}

namespace {

/* Holds a thread at the first time that it comes to the lock, until the other has come too; who of
 * them then goes first differs from round to round. */
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

std::string split(unsigned long one, const char* one_name, unsigned long other,
                  const char* other_name) {
    return std::to_string(one) + " " + one_name + ", " + std::to_string(other) + " " + other_name;
}

/* In every third round the request has no retry left: the time-out pass ends it. */
void allow_retries(unsigned round) {
    write_once(get_data_retry, round % 3 == 0 ? 0 : 3);
}

}  // namespace

Tally drive_time_out_of_arp(Site& site, unsigned rounds) {
    Tally tally;
    const TimerByHand timer(tarv_req_timer);
    Meeting meeting;
    Request* request = nullptr;
    unsigned long time_outs = 0;
    in_step(
        rounds,
        [&](unsigned round) {
            allow_retries(round);
            request = &new_request();
            request->ask(site.client, round % peer_count, tarv_paths_none, true);
            skip_ticks(1000);
        },
        [&](unsigned round) {
            const host::ContextScope scope(host::Context::timer);
            const AtMyDoor door(Door::lock, meet_at(&tarv_rl_lock, meeting, round % 4 == 0));
            tarv_req_timer_handler(tarv_req_timer.data);
            tally.met++;
        },
        [&](unsigned round) {
            const AtMyDoor door(Door::lock, meet_at(&tarv_rl_lock, meeting, round % 4 == 1));
            hear(site, round % peer_count, round);
        },
        [&](unsigned) {
            if (request->replies() != 1)
                violation("lost answer: a request that timed out while it was completed has %d",
                          request->replies());
            time_outs += request->told() == tarv_stat_timeout;
        });
    write_once(get_data_retry, 3);
    tally.note = split(rounds - time_outs, "answered", time_outs, "timed out");
    return tally;
}

/* The SA is silent; its answers are made here. The pass that comes first issues the request anew,
 * so that the answer finds nothing, and comes again. */
Tally drive_time_out_of_paths(Site& site, unsigned rounds) {
    Tally tally;
    site.wait_for_ports();
    site.fabric.sa().faults().drop_all();
    {
        const TimerByHand timer(tarv_sa_req_timer);
        Meeting meeting;
        Request* request = nullptr;
        unsigned long time_outs = 0;
        const auto answer = [&](unsigned round) {
            const host::ContextScope scope(host::Context::gsi);
            ib_path_record_v2_t paths[2];
            site.identities.paths_to(round % peer_count, round, paths);
            tarv_process_path_rec_data(paths, 2, 1);
        };
        in_step(
            rounds,
            [&](unsigned round) {
                allow_retries(round);
                Site::command("remove " + text_of(address_of(round % peer_count)) + "\n");
                hear(site, round % peer_count, round);
                request = &new_request();
                request->ask(site.client, round % peer_count, tarv_paths_both, false);
                if (request->status() != tarv_stat_pending)
                    violation("a query could not be sent: status %d", request->status());
                skip_ticks(3000);
            },
            [&](unsigned round) {
                const host::ContextScope scope(host::Context::timer);
                const AtMyDoor door(Door::lock, meet_at(&tarv_sa_rl_lock, meeting, round % 4 == 0));
                tarv_sa_req_timer_handler(tarv_sa_req_timer.data);
                tally.met++;
            },
            [&](unsigned round) {
                const AtMyDoor door(Door::lock, meet_at(&tarv_sa_rl_lock, meeting, round % 4 == 1));
                answer(round);
            },
            [&](unsigned round) {
                if (request->replies() == 0)
                    answer(round);
                if (request->replies() != 1)
                    violation("lost answer: a request that timed out while it was completed has %d",
                              request->replies());
                time_outs += request->told() == tarv_stat_timeout;
            });
        write_once(get_data_retry, 3);
        tally.note = split(rounds - time_outs, "answered", time_outs, "timed out");
    }
    site.fabric.sa().clear();
    return tally;
}

}  // namespace stress
