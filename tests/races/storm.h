// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Everything at once: clients, peers, the driver, the fabric, administrators and readers, each on
// threads of their own, while the module is unloaded and loaded again and again.
//
// Who does what is in storm_parts.cc, a function a part. The rules by which they play are those of
// a kernel: nobody is inside the module's functions when it goes, and the driver is detached then.
// All others (timers, answers of the SA, events, readers and writers of files, the host's log
// level) go on.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>

#include "tests/races/arena.h"

namespace stress {

/// A thread's own source of chance.
class Chance {
  public:
    unsigned below(unsigned limit) { return static_cast<unsigned>(source_() % limit); }
    bool one_in(unsigned many) { return below(many) == 0; }

  private:
    std::minstd_rand source_{std::random_device{}()};
};
Chance& chance();

struct Storm {
    explicit Storm(Arena& on) : arena(on) {}

    Arena& arena;
    std::atomic<bool> over = false;
    Entrance module;   ///< for who calls the module's functions
    Entrance files;    ///< for who opens its files; closed only while it is loaded
    Entrance weather;  ///< for who changes the fabric

    std::atomic<unsigned> generation = 1;  ///< of the peers, and number of commands
    std::atomic<long> waiting = 0;         ///< requests without an answer, about

    /// What the driver does with an ARP request.
    tarv_stat_t send(const tarv_arp_data_t& request);

    // The parts. Each runs on its own thread until it is over; receive() until end_receiving().
    void ask();
    void announce();
    void receive();
    void change_fabric();
    void administrate();
    void read_files();
    void change_trace_level();
    void reattach_driver();

    /// No packet will be handed to the receiving thread any more.
    void end_receiving();

  private:
    /// A packet on its way to the receiving thread; `arrived` is set when it is through.
    struct Packet {
        unsigned peer;
        std::atomic<bool>* arrived;
    };
    void ask_once();
    void be_told();
    void hear(unsigned peer, tarv_arp_op_t operation);
    void hand_over(unsigned peer, std::atomic<bool>* arrived);
    template <class Work>
    void go_through(Entrance& entrance, Work work);

    const OnReply on_reply_ = [this](Request&, tarv_stat_t) { be_told(); };
    std::mutex queue_mutex_;
    std::condition_variable queue_changed_;
    std::deque<Packet> queue_;
    bool nothing_comes_ = false;
};

/// Prints what was done.
void storm(Arena& arena, double seconds);

}  // namespace stress
