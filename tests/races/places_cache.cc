// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Places around the cache: those who enter a peer that it does not know yet.
#include <memory>

#include "platform/atomic.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tests/races/places.h"

namespace stress {
namespace {

/* Calls `meet` when the thread comes to the cache's lock for that time. */
Visitor at_visit(int number, std::function<void()> meet) {
    return [number, meet = std::move(meet), visits = std::make_shared<int>(0)](const void* lock) {
        if (lock == &tarv_lock && ++*visits == number)
            meet();
    };
}

/* What the cache has of the peer, all of it. */
struct Found {
    int entries = 0;
    u32 mask = 0;  // of the first one
};

Found found(unsigned peer) {
    const u32 address = address_of(peer);
    const read_guard guard(tarv_lock);
    Found all;
    for (const tarv_hash_entry_t* entry = tarv_table.hash_buckets[tarv_hash_func(address)]; entry;
         entry = entry->next)
        if (entry->arp_data.dst_ip == address && ++all.entries == 1)
            all.mask = entry->arp_data.mask;
    return all;
}

/* Two packets of a new peer; or a packet, and a command that comes in between what the packet finds
 * and what it does, or that runs beside it. */
enum class Rival { packet, command_in_between, command_beside };

Rival rival_in(unsigned round) {
    return static_cast<Rival>(round % 3);
}
bool is_protected(unsigned round) {
    return round / 3 % 2 == 0;
}

void check_single(unsigned round, unsigned peer) {
    const Found all = found(peer);
    if (all.entries != 1)
        violation("double entry: there are %d entries for %s", all.entries,
                  text_of(address_of(peer)).c_str());
    // Whatever the packet found, a protected entry outlives it.
    if (rival_in(round) == Rival::command_in_between && is_protected(round) &&
        !(all.mask & TARV_MASK_STATIC))
        violation("lost command: a packet replaced or hid the protected entry for %s",
                  text_of(address_of(peer)).c_str());
}

}  // namespace

/* A packet of a peer that the cache does not know comes to its lock once to see that, and once to
 * enter it. There it is held until the other one has come as far, or is done. */
Tally drive_enter_together(Arena& arena, unsigned rounds) {
    Tally tally;
    Meeting meeting;
    bool here = false;
    const auto hear = [&](unsigned round, unsigned generation, Visitor visitor) {
        const AtMyDoor door(Door::lock, std::move(visitor));
        arena.hear(round % peer_count, generation);
    };
    const auto come = [&] { meeting.arrive(); };
    in_step(
        rounds,
        [&](unsigned round) {
            write_once(statics_inv_enabled, is_protected(round) ? 0 : 1);
            here = false;
        },
        [&](unsigned round) {
            const bool beside = rival_in(round) == Rival::command_beside;
            hear(round, round, at_visit(beside ? 1 : 2, [&] {
                     here = true;
                     meeting.arrive();
                     if (rival_in(round) == Rival::command_in_between)
                         meeting.arrive();
                 }));
            // Nothing is held where nothing comes for the second time.
            tally.met += here;
        },
        [&](unsigned round) {
            if (rival_in(round) == Rival::packet) {
                hear(round, round + 1, at_visit(2, come));
                return;
            }
            const unsigned peer = round % peer_count;
            const std::string command = round % 2
                                            ? arena.identities.add_command(peer, round)
                                            : arena.identities.add_ib_arp_command(peer, round);
            if (rival_in(round) == Rival::command_in_between) {
                meeting.arrive();
                Arena::command(command);
                meeting.arrive();
            } else {
                const AtMyDoor door(Door::lock, at_visit(1, come));
                Arena::command(command);
            }
        },
        [&](unsigned round) {
            check_single(round, round % peer_count);
            write_once(statics_inv_enabled, 1);
            Arena::command("flush\n");
        });
    write_once(statics_inv_enabled, 1);
    return tally;
}

}  // namespace stress
