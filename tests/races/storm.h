// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Everything at once: the simulation's scripts by chance, on many threads that play them line by
// line, while the module is unloaded and loaded again and again.
//
// The chooser says what happens; how a line is played where nobody waits for anybody is said in
// storm_lines.cc, a function a verb. Records are made as the identities want them, so that a torn
// one is known. The rules are those of a kernel: nobody is inside the module's functions when it
// goes, and the driver is detached then. All else (timers, answers of the SA, events, readers and
// writers of files, the host's log level) goes on.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "app/script_line.h"
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

class Storm {
  public:
    explicit Storm(Arena& arena);

    std::atomic<bool> over = false;
    Entrance module;   ///< for who calls the module's functions
    Entrance files;    ///< for who opens its files; closed only while it is loaded
    Entrance weather;  ///< for who changes the fabric

    std::atomic<long> waiting = 0;  ///< requests without an answer, about

    /// Plays one script after the other until it is over.
    void play();
    /// Hands packets over until nothing comes any more.
    void receive();
    void end_receiving();

    /// What the driver does with an ARP request.
    tarv_stat_t send(const tarv_arp_data_t& request);

    // The verbs.
    void resolve(app::ScriptLine& line);
    void look_up(app::ScriptLine& line);
    void hear_packet(app::ScriptLine& line);
    void hear_peer(app::ScriptLine& line);
    void command(app::ScriptLine& line);
    void read_file(app::ScriptLine& line);
    void read_part(app::ScriptLine& line);
    void raise_event(app::ScriptLine& line);
    void change_pkeys(app::ScriptLine& line);
    void disturb(app::ScriptLine& line);
    void calm(app::ScriptLine& line);
    void change_level(app::ScriptLine& line);
    void reattach(app::ScriptLine& line);
    void rest(app::ScriptLine& line);

  private:
    /// A packet on its way to the receiving thread; `arrived` is set when it is through.
    struct Packet {
        unsigned peer;
        std::atomic<bool>* arrived;
    };
    void play_line(const std::string& text);
    std::string in_our_words(const std::string& command);
    void be_told();
    void hear(unsigned peer, tarv_arp_op_t operation);
    void hand_over(unsigned peer, std::atomic<bool>* arrived);
    template <class Work>
    void go_through(Entrance& entrance, Work work);

    Arena& arena_;
    const std::vector<std::string> addresses_;  ///< our own first
    const std::uint16_t lids_[2];               ///< of our ports at first
    const fabric::SubnetManager manager_;       ///< at first
    std::atomic<unsigned> generation_ = 1;      ///< of the peers, and number of commands
    std::mutex attachment_;
    const OnReply on_reply_ = [this](Request&, tarv_stat_t) { be_told(); };
    std::mutex queue_mutex_;
    std::condition_variable queue_changed_;
    std::deque<Packet> queue_;
    bool nothing_comes_ = false;
};

/// Prints what was done.
void storm(Arena& arena, double seconds);

}  // namespace stress
