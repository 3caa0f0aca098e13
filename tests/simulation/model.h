// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What must be true: a second, plain account of the module, kept without any of its code.
//
// The model is told everything that the module is told, just before the module is: a client's
// question, an ARP packet, an SA answer, an event, a command, a timer that fires. From that it says
// what the module has to answer, whom it has to call back with what, and what its table and its
// lists have to hold afterwards. It knows of no failure of the kernel: where one occurs, whoever
// compares takes the module's state over by the calls at the end.
//
// It is made for few hosts: everything is found by walking.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fabric/fabric.h"
#include "tarv/tarv.h"
#include "tests/simulation/counts.h"

namespace simulation {

/// An entry of the address table.
struct Cached {
    tarv_arp_data_t record{};
    unsigned long stamp = 0;  ///< the tick of its last use

    bool is_static() const { return record.mask & TARV_MASK_STATIC; }
};

/// A request that waits for ARP data or for paths.
struct Waiting {
    std::uint32_t ip = 0;
    std::uint32_t from = 0;
    tarv_paths_t paths = tarv_paths_none;
    void* context = nullptr;
    bool callback = false;  ///< somebody is to be called back
    int retries = 0;
    std::uint32_t stamp = 0;  ///< low 32 bits of the tick at which it came onto its list
    gx_gid_t dgid{};          ///< of a request for paths
};

/// A call of a client's callback.
struct Reply {
    void* context = nullptr;
    tarv_stat_t status = tarv_stat_ok;
    tarv_arp_data_t record{};  ///< with tarv_stat_ok only
};

/// What a client asks.
struct Question {
    std::uint32_t ip = 0;
    std::uint32_t from = 0;
    tarv_paths_t paths = tarv_paths_none;
    void* context = nullptr;
    bool callback = true;
    bool invalidate = false;
};

/// An SA answer as it was handed to the module.
struct Answer {
    int port = 0;                         ///< where it arrived
    const std::uint8_t* mad = nullptr;    ///< 256 bytes, the common header in host order
    const std::uint8_t* block = nullptr;  ///< its data where it came in segments, else null
    int size = 0;                         ///< of SA header and data
};

/// A context of the administrator's own requests, which nobody outside the module sees answered.
inline void* const administrator = reinterpret_cast<void*>(0xBEEF);

inline constexpr std::size_t buckets = 32;
std::size_t bucket_of(std::uint32_t ip);

/// Equal in every field; the path pointers are not data.
bool same_record(const tarv_arp_data_t& a, const tarv_arp_data_t& b);
/// The first field in which they differ, with both values.
std::string difference(const tarv_arp_data_t& expected, const tarv_arp_data_t& found);

/// What must be true of the module at some moment, or what is.
struct State {
    using Chain = std::vector<Cached>;      ///< oldest first
    using Requests = std::vector<Waiting>;  ///< oldest first

    struct Port {
        bool valid = false;
        gx_gid_t gid{};
        std::uint16_t sm_lid = 0;
        std::uint8_t sm_sl = 0;
    };
    struct Switches {
        bool halted = false, enabled = false, sa_queries = false, statics_inv = true;
        bool attached = false, media_reset = true, empty_hand = false;
        int retries = 3;

        bool operator==(const Switches&) const = default;
    };

    std::array<Chain, buckets> table;
    Requests arp;
    Requests sa;
    std::array<Port, 8> ports{};
    int port_count = 0;
    Switches is;
    ib_path_record_v2_t static_path{};
};

/// The first thing in which the module's state is not what it must be.
struct Difference {
    const char* name;  ///< a word, the same for the same kind of fault
    std::string text;
};
std::optional<Difference> compare(const State& expected, const State& found);

/// What the module sends: an ARP request to the driver, or a query to the SA.
struct Sent {
    std::uint32_t ip = 0;     ///< that an ARP request is for; 0: it is a query
    std::uint32_t from = 0;   ///< in whose name
    void* context = nullptr;  ///< of the client
    int media_reset = 0;
    int port = 0;  ///< of a query, as all that follows
    std::uint16_t sm_lid = 0;
    std::uint8_t sm_sl = 0;
    std::vector<gx_gid_t> gids;  ///< the sources, then the destination

    bool operator==(const Sent& other) const = default;
};
std::string text_of(const Sent& sent);

class Model {
  public:
    explicit Model(fabric::Fabric& fabric) : fabric_(fabric) {}

    // What happens, just before it does.

    void load(unsigned long timeout_seconds);
    void unload();
    void attach(bool attached) { now_.is.attached = attached; }
    /// The result that the client must get; with tarv_stat_ok `record` becomes the answer.
    tarv_stat_t ask(const Question& question, tarv_arp_data_t& record);
    tarv_stat_t lookup(const gx_gid_t& gid, tarv_arp_data_t& record);
    tarv_stat_t arp(const tarv_arp_data_t& packet);
    void answer(const Answer& answer);
    void event(std::uint32_t type, int port);
    void arp_timer();
    void sa_timer();
    void age();
    void command(const std::string& bytes);

    /// Whom the module has to call back for what happened since the last call, in order.
    std::vector<Reply> take_replies() { return std::exchange(replies_, {}); }
    /// What it has to send for it, in order.
    std::vector<Sent> take_sent() { return std::exchange(sent_, {}); }

    /// The table as the control file shows it.
    std::string text() const;

    /// What must be there now.
    const State& state() const { return now_; }
    /// What a failure of the kernel may have changed is as the module says.
    void take_over(const State& found) { now_ = found; }
    /// The GSI service is going to hand out no datagram although it says that it does.
    void set_empty_hand(bool empty) { now_.is.empty_hand = empty; }

    /// How often a complete path was read from a command.
    unsigned long paths_read() const { return paths_read_; }
    const Counts& counts() const { return counts_; }

  private:
    struct Words;
    using Chain = State::Chain;
    using Requests = State::Requests;

    Cached* find(std::uint32_t ip);
    Cached* find_replaceable(std::uint32_t ip);
    void add(const tarv_arp_data_t& record);
    bool remove(std::uint32_t ip);
    template <class Doomed>
    void remove_if(Doomed doomed, Count counted);
    void remove_all();

    tarv_stat_t decide(const Question& question, int retries, tarv_arp_data_t& record);
    tarv_stat_t ask_arp(const Question& question, int retries);
    tarv_stat_t ask_sa(const Question& question, int retries, const tarv_arp_data_t& cached);
    void reissue(const Waiting& waiting);
    void time_out(Requests& list, std::uint32_t limit, bool arp);
    /// Whoever waits for that peer; `packet` told of it.
    void complete(const tarv_arp_data_t& record, const tarv_arp_data_t& packet);
    void reply(const Waiting& waiting, tarv_stat_t status, const tarv_arp_data_t* record);
    bool query(std::uint32_t port, const gx_gid_t& dgid);
    void give_static_path(tarv_arp_data_t& record);
    void rewrite_pkeys(std::uint32_t ip, ib_path_record_v2_t* paths, int count);
    bool local_pkey(const gx_gid_t& sgid, std::uint16_t& pkey);
    bool store(std::uint32_t ip, ib_path_record_v2_t* paths, int count, tarv_paths_t wanted);
    int read_answer(const Answer& answer, ib_path_record_v2_t* paths) const;

    void add_static(const Words& words, bool by_gid);
    void add_path(const Words& words);
    void set_static_path(const Words& words);
    void set_local_gids(const Words& words);
    bool read_path_fields(const Words& words, std::size_t first_word, std::size_t first_field,
                          ib_path_record_v2_t& path, const ib_path_record_v2_t& repeated);

    fabric::Fabric& fabric_;
    State now_;
    std::vector<Reply> replies_;
    std::vector<Sent> sent_;
    ib_path_record_v2_t last_path_{};
    unsigned long timeout_ = 0;  // in ticks
    unsigned long paths_read_ = 0;
    Counts counts_;
};

}  // namespace simulation
