// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Places around paths: the static one, and the queries to the SA with the ports' contexts that they
// go through.
#include <atomic>
#include <memory>
#include <thread>

#include "host/check.h"
#include "host/kernel.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-sa-private.h"
#include "tests/races/places.h"

namespace stress {
namespace {

/* The cache knows the peer and no path to it. */
void know(const Arena& arena, unsigned peer, unsigned generation) {
    Arena::command("remove " + text_of(address_of(peer)) + "\n");
    arena.hear(peer, generation);
}

/* What the cache has as the peer's static path. */
ib_path_record_v2_t cached_path(const Arena& arena, unsigned peer) {
    tarv_arp_data_t record = {};
    if (arena.client.get(address_of(peer), our_address(), tarv_paths_none, &record, nullptr,
                         nullptr, 0) != tarv_stat_ok)
        violation("the cache has no entry for %s", text_of(address_of(peer)).c_str());
    arena.identities.check(record, address_of(peer), "a caller");
    return record.paths[0];
}

}  // namespace

namespace {

/* The static path of one round: the command with this number sets it, and the intake is told this
 * P_Key. */
unsigned number_of(unsigned round) {
    return 1 + round % 0x3FFFF;
}
u16 key_of(unsigned round) {
    return static_cast<u16>(0x8000 | ((round + 0x4000) & 0x7FFF));
}

/* The P_Key of the command, never that of a round nearby: what did not change is not put back. */
u16 key_of_command(unsigned round) {
    return static_cast<u16>(0x8000 | (number_of(round) & 0x7FFF));
}

/* What the intake of the round stored is of one command, and what the next one stores is of this
 * round's. The driver does not tell that one a P_Key: it is the one that the round's intake put
 * back, or that of the command where the command may have come last. */
void check_static_path(const Arena& arena, unsigned round, bool command_may_be_last) {
    const unsigned peer = round % peer_count;
    const unsigned got = Identities::static_path_number(cached_path(arena, peer));
    if (round > 0 && got != number_of(round) && got != number_of(round - 1))
        violation("torn record: a static path is of command %u in round %u", got, round);
    arena.hear(peer, round, TARV_ARP_OP_REQUEST);
    const ib_path_record_v2_t path = cached_path(arena, peer);
    if (Identities::static_path_number(path) != number_of(round))
        violation("lost command: the static path is of command %u after command %u",
                  Identities::static_path_number(path), number_of(round));
    const bool is_commands = path.pkey == key_of_command(round);
    if (path.pkey != key_of(round) && !(command_may_be_last && is_commands))
        violation("torn record: a static path has P_Key 0x%x instead of 0x%x", path.pkey,
                  key_of(round));
}

}  // namespace

/* The intake copies the path, asks the driver for the P_Key, and puts the key back. The command
 * comes in between; or the two come to the lock together; or they just run, without anything that
 * orders them, and it is seen whether they ran at the same time. */
Tally drive_static_path(Arena& arena, unsigned rounds) {
    enum Kind { in_between, at_the_lock, at_will };
    Tally tally;
    Meeting asked, set, locks;
    std::atomic<unsigned> now = 0;
    std::atomic<bool> racing = false;
    std::atomic<bool> key_is_known = true;
    std::atomic<int> under_way = 0;
    std::atomic<bool> both = false;
    const auto kind_of = [](unsigned round) { return static_cast<Kind>(round % 3); };
    const auto lost = [](const tarv_arp_data_t&) { return tarv_stat_ok; };
    const DriverDoes does(arena, lost, [&](gx_p_key_t* pkey) {
        if (!key_is_known)
            return tarv_stat_error;
        *pkey = key_of(now);
        if (racing && kind_of(now) == in_between) {
            asked.arrive();
            set.arrive();
        }
        return tarv_stat_ok;
    });
    Arena::command("sa_queries off");
    const auto race = [&](unsigned round, const auto& work) {
        const AtMyDoor door(
            Door::lock,
            meet_at(kind_of(round) == at_the_lock ? &static_path_lock : nullptr, locks));
        if (under_way.fetch_add(1, std::memory_order_relaxed) == 1)
            both.store(true, std::memory_order_relaxed);
        work();
        under_way.fetch_sub(1, std::memory_order_relaxed);
    };
    in_step(
        rounds,
        [&](unsigned round) {
            now = round;
            racing = true;
            both = false;
        },
        [&](unsigned round) {
            const std::string command = arena.identities.set_static_path_command(number_of(round));
            if (kind_of(round) == in_between)
                asked.arrive();
            race(round, [&] { Arena::command(command); });
            if (kind_of(round) == in_between)
                set.arrive();
        },
        [&](unsigned round) {
            race(round, [&] { arena.hear(round % peer_count, round, TARV_ARP_OP_REQUEST); });
        },
        [&](unsigned round) {
            tally.met += both;
            racing = false;
            key_is_known = false;
            check_static_path(arena, round, kind_of(round) != in_between);
            key_is_known = true;
        });
    return tally;
}

namespace {

/* When the context goes: the query has its datagram when the link goes down, or down and up again;
 * or the two reach for the context at the same time. */
enum class Going { down, down_and_up, at_once };

Going going_in(unsigned round) {
    return static_cast<Going>(round % 3);
}
int port_of(unsigned round) {
    return 1 + static_cast<int>(round % 2);
}

/* What the maker of a query was told when the port's context went. */
void check_query(unsigned round, const Request& request) {
    if (going_in(round) == Going::down && request.status() != tarv_stat_error)
        violation("a query was posted through a context that was gone: status %d",
                  request.status());
    if (going_in(round) == Going::down_and_up && request.status() != tarv_stat_pending)
        violation("a query was not posted through the new context: status %d", request.status());
}

}  // namespace

Tally drive_context_torn_down(Arena& arena, unsigned rounds) {
    Tally tally;
    arena.wait_for_ports();
    Meeting built;
    Meeting gone;
    Meeting locks;
    unsigned long sent = 0;
    bool has_met = false;
    Request* request = nullptr;
    const auto ask = [&](unsigned round) {
        Visitor at_lock;
        has_met = false;
        const AtMyDoor buffer(Door::query_buffer, [&](const void*) {
            has_met = true;
            built.arrive();
            if (going_in(round) == Going::at_once)
                at_lock = meet_at(&tarv_sa_lock, locks);
            else
                gone.arrive();
        });
        const AtMyDoor lock(Door::lock, [&](const void* object) {
            if (at_lock)
                at_lock(object);
        });
        request->ask(arena.client, round % peer_count, tarv_paths_both, false);
        sent += request->status() == tarv_stat_pending;
        // A late answer to an earlier request may have brought the paths.
        if (!has_met)
            built.arrive();
    };
    const auto tear_down = [&](unsigned round) {
        built.arrive();
        if (!has_met)
            return;
        const bool at_once = going_in(round) == Going::at_once;
        const AtMyDoor lock(Door::lock, meet_at(at_once ? &tarv_sa_lock : nullptr, locks));
        Arena::event(gx_async_r_port_link_down, port_of(round));
        if (going_in(round) == Going::down_and_up)
            Arena::event(gx_async_r_port_link_up, port_of(round));
        tally.met++;
        if (!at_once)
            gone.arrive();
    };
    in_step(
        rounds,
        [&](unsigned round) {
            know(arena, round % peer_count, round);
            request = &new_request();
        },
        ask, tear_down,
        [&](unsigned round) {
            if (!has_met)
                return;
            check_query(round, *request);
            if (going_in(round) != Going::down_and_up)
                Arena::event(gx_async_r_port_link_up, port_of(round));
        });
    tally.note = std::to_string(sent) + " queries went out";
    return tally;
}

/* The query is posted and its maker held there until its answer has been looked for among the
 * requests. The answer passes the busy request over, and its maker, done with it, answers it. */
Tally drive_answer_before_send_ends(Arena& arena, unsigned rounds) {
    Tally tally;
    arena.wait_for_ports();
    const TimerByHand timer(tarv_sa_req_timer);
    const std::thread::id me = std::this_thread::get_id();
    std::atomic<bool> looked_for = false;
    bool posted = false;
    const AtDoor looked(Door::unlocked, [&](const void* lock) {
        if (lock == &tarv_sa_rl_lock && std::this_thread::get_id() != me)
            looked_for = true;
    });
    for (unsigned round = 0; round < rounds; round++) {
        know(arena, round % peer_count, round & ~1u);
        Request& request = new_request();
        // The pass of the answer before lets go of the lock once more when it ends.
        host::Kernel::current().settle();
        looked_for = false;
        posted = false;
        {
            const AtMyDoor buffer(Door::query_buffer, [&](const void*) { posted = true; });
            const AtMyDoor lock(Door::unlocked, [&](const void* object) {
                if (object == &tarv_sa_lock && posted)
                    wait_until("the SA's answer is looked for", [&] { return looked_for.load(); });
            });
            request.ask(arena.client, round % peer_count, tarv_paths_both, false);
        }
        if (request.status() == tarv_stat_ok)
            continue;
        tally.met += looked_for;
        if (request.replies() != 1)
            violation("lost answer: it came while its query's maker was busy, which has %d",
                      request.replies());
    }
    return tally;
}

namespace {

struct Change {
    gx_async_record_t type;
    bool wait_for_end;  // of the event, before the answer goes on
};

/* A link that goes down waits for the answer that is being taken in, so it is not waited for. */
constexpr Change changes[] = {
    {gx_async_r_port_sm_change, true}, {gx_async_r_port_lid, true},
    {gx_async_r_port_mtu, true},       {gx_async_r_port_link_down, false},
    {gx_async_r_port_lid, false},      {gx_async_r_port_sm_change, false},
};

}  // namespace

/* The SA's answer is held at the door when the event comes, and goes on beside it or after it. What
 * the event purges is resolved anew: the driver answers at once. */
Tally drive_event_during_query(Arena& arena, unsigned rounds) {
    Tally tally;
    std::atomic<unsigned> now = 0;
    std::atomic<bool> expected = false;
    std::atomic<bool> arrived = false;
    std::atomic<unsigned> going_on = 0;  // rounds whose answer may go on
    const DriverDoes does(arena, [&](const tarv_arp_data_t& request) {
        arena.hear(request.dst_ip >> 24, now);
        return tarv_stat_ok;
    });
    arena.wait_for_ports();
    {
        const AtDoor answers(Door::answer_buffer, [&](const void*) {
            if (!expected.exchange(false))
                return;
            const unsigned mine = now;
            arrived = true;
            wait_until("an event begins", [&] { return going_on > mine; });
        });
        for (unsigned round = 0; round < rounds; round++) {
            const Change& change = changes[round % std::size(changes)];
            now = round;
            know(arena, round % peer_count, round);
            arrived = false;
            expected = true;
            Request& request = new_request();
            // A late answer to an earlier request may have brought the paths; or it is held just
            // now.
            if (request.ask(arena.client, round % peer_count, tarv_paths_both, false) !=
                    tarv_stat_pending &&
                expected.exchange(false))
                continue;
            wait_until("the SA answers", [&] { return arrived.load(); });
            tally.met++;
            const int port = 1 + static_cast<int>(round & 1);
            if (!change.wait_for_end)
                going_on = round + 1;
            Arena::event(change.type, port);
            going_on = round + 1;
            if (change.type == gx_async_r_port_link_down)
                Arena::event(gx_async_r_port_link_up, port);
        }
        arena.kernel.settle();
    }
    return tally;
}

}  // namespace stress
