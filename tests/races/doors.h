// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Doors between the module and its kernel. The linker leads some calls that the module makes of the
// waist through functions of ours. There a thread can be held up, so that two of them meet where a
// race needs them; there time can be made to run faster than a clock does.
//
// What a door does is done by visitors. The module knows nothing of it.
#pragma once

#include <cstdint>
#include <functional>

struct timer_list;

namespace stress {

enum class Door : std::uint8_t {
    lock,              ///< before a lock of the module is taken; the object is the lock
    unlocked,          ///< after a spin lock was given back
    query_buffer,      ///< a query has its datagram and is not yet posted
    answer_buffer,     ///< an answer of the SA is about to be taken apart
    timer_stop,        ///< before a timer is stopped and its function waited for
    timer_stopped,     ///< after that; the object is the timer, as before
    class_still_busy,  ///< the GSI service has refused to end a registration
    file_removal,      ///< before a file is removed and its handlers are waited for
    idle,              ///< before a thread that waits for others gives its processor away
};
inline constexpr std::size_t door_count = 9;

/// `object` is what the call is about.
using Visitor = std::function<void(const void* object)>;

/// For its life, `visitor` is called by every thread that comes to the door. When it ends, no
/// thread may be on its way through it.
class AtDoor {
  public:
    AtDoor(Door door, Visitor visitor);
    ~AtDoor();
    AtDoor(const AtDoor&) = delete;
    AtDoor& operator=(const AtDoor&) = delete;

  private:
    const Door door_;
    const Visitor visitor_;
};

/// The same for the calling thread only, instead of what is there for all.
class AtMyDoor {
  public:
    AtMyDoor(Door door, Visitor visitor);
    ~AtMyDoor();
    AtMyDoor(const AtMyDoor&) = delete;
    AtMyDoor& operator=(const AtMyDoor&) = delete;

  private:
    const Door door_;
    const Visitor visitor_;
    const Visitor* const outer_;
};

/// How many ticks the module sees pass in one tick of the host. Set before the module is loaded.
void set_clock_speed(unsigned long speed);

/// Lets ticks pass at once, for everybody who looks at the counter.
void skip_ticks(unsigned long ticks);

/// While it exists, that timer is never started: its function runs when a test calls it.
class TimerByHand {
  public:
    explicit TimerByHand(timer_list& timer);
    ~TimerByHand();
    TimerByHand(const TimerByHand&) = delete;
    TimerByHand& operator=(const TimerByHand&) = delete;

  private:
    timer_list& timer_;
};

/// Threads give their processor away at one lock in so many; 0: none does.
void set_unrest(unsigned one_in);

}  // namespace stress
