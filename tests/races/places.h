// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The racy places: moments at which two threads of the module come to the same thing. Each is
// driven on purpose, round after round, and counts in how many rounds the two truly met. A place
// where they never met proves nothing, and fails the run.
//
// The two are brought together from outside: in the driver's functions, and at the doors between
// the module and its kernel. From there on they run freely.
#pragma once

#include <span>
#include <string>
#include <thread>

#include "tests/races/arena.h"
#include "tests/races/doors.h"
#include "tests/races/report.h"

namespace stress {

struct Tally {
    unsigned long met = 0;
    std::string note;  ///< how it ended, where there is more than one way
};

struct Place {
    const char* name;
    const char* what;
    unsigned price;  ///< of a round: so many rounds of a cheap place take as long
    Tally (*drive)(Arena& arena, unsigned rounds);
};

std::span<const Place> places();

/// Drives the places of that name ("all": all, "none": none) and prints a line for each.
void drive_places(Arena& arena, const std::string& name, unsigned times);

/// Where two threads wait for each other, again and again.
class Meeting {
  public:
    void arrive() {
        const unsigned mine = arrived_.fetch_add(1) + 1;
        const unsigned both = mine + mine % 2;
        wait_until("two threads meet", [&] { return arrived_.load() - both < ~0u / 2; });
    }

  private:
    std::atomic<unsigned> arrived_ = 0;
};

/// Holds a thread at the first time that it comes to the lock, until the other has come too. Who is
/// `late` then lets the other go first; that should differ from round to round.
Visitor meet_at(const void* lock, Meeting& meeting, bool late = false);

/// Each round: `before` on this thread, then `mine` on it and `other` on a thread of its own at the
/// same time, then `after` on this thread.
template <class Before, class Mine, class Other, class After>
void in_step(unsigned rounds, Before before, Mine mine, Other other, After after) {
    Meeting begin;
    Meeting end;
    std::thread partner([&] {
        for (unsigned round = 0; round < rounds; round++) {
            begin.arrive();
            other(round);
            end.arrive();
        }
    });
    for (unsigned round = 0; round < rounds; round++) {
        before(round);
        begin.arrive();
        mine(round);
        end.arrive();
        after(round);
    }
    partner.join();
}

// The places, by the subject of their files.
Tally drive_take_during_release(Arena& arena, unsigned rounds);
Tally drive_driver_change(Arena& arena, unsigned rounds);
Tally drive_time_out_of_arp(Arena& arena, unsigned rounds);
Tally drive_time_out_of_paths(Arena& arena, unsigned rounds);
Tally drive_enter_together(Arena& arena, unsigned rounds);
Tally drive_static_path(Arena& arena, unsigned rounds);
Tally drive_context_torn_down(Arena& arena, unsigned rounds);
Tally drive_answer_before_send_ends(Arena& arena, unsigned rounds);
Tally drive_event_during_query(Arena& arena, unsigned rounds);
Tally drive_unload_during_callback(Arena& arena, unsigned rounds);
Tally drive_unload_during_query(Arena& arena, unsigned rounds);
Tally drive_halt_during_filing(Arena& arena, unsigned rounds);
Tally drive_halt_during_reissue(Arena& arena, unsigned rounds);
Tally drive_halt_during_query(Arena& arena, unsigned rounds);

}  // namespace stress
