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
#include <string>
#include <vector>

#include "fabric/fabric.h"
#include "tarv/tarv.h"
#include "tests/simulation/outcome.h"

namespace soak {

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

class Model {
  public:
    using Chain = std::vector<Cached>;      ///< oldest first
    using Requests = std::vector<Waiting>;  ///< oldest first

    struct Port {
        bool valid = false;
        gx_gid_t gid{};
        std::uint16_t sm_lid = 0;
    };

    explicit Model(fabric::Fabric& fabric) : fabric_(fabric) {}

    // What happens, just before it does.

    void load(unsigned long timeout_seconds);
    void unload();
    void attach(bool attached) { attached_ = attached; }
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
    /// The GSI service is going to hand out no datagram although it says it does.
    void empty_hand() { empty_hand_ = true; }

    /// Whom the module has to call back for what happened since the last call, in order.
    std::vector<Reply> take_replies();

    /// The table as the control file shows it.
    std::string text() const;

    // What must be there now.

    const std::array<Chain, buckets>& table() const { return table_; }
    const Requests& arp_requests() const { return arp_; }
    const Requests& sa_requests() const { return sa_; }
    const std::array<Port, 8>& ports() const { return ports_; }
    std::size_t size() const;
    int port_count() const { return port_count_; }
    const ib_path_record_v2_t& static_path() const { return static_path_; }

    // What a failure of the kernel may have changed, as it is.

    struct Switches {
        bool halted, enabled, sa_queries, statics_inv, attached, media_reset, empty_hand;
        int retries;

        bool operator==(const Switches&) const = default;
    };
    Switches switches() const;
    void take_over(std::array<Chain, buckets> table, Requests arp, Requests sa,
                   const std::array<Port, 8>& ports, int port_count, const Switches& switches,
                   const ib_path_record_v2_t& static_path);

    /// How often a complete path was read from a command.
    unsigned long paths_read() const { return paths_read_; }
    const Tally& tally() const { return tally_; }

  private:
    struct Words;

    Cached* find(std::uint32_t ip);
    Cached* find_replaceable(std::uint32_t ip);
    void add(const tarv_arp_data_t& record);
    bool remove(std::uint32_t ip);
    template <class Doomed>
    void remove_if(Doomed doomed, Outcome outcome);
    void remove_all();

    tarv_stat_t decide(const Question& question, int retries, tarv_arp_data_t& record);
    tarv_stat_t ask_arp(const Question& question, int retries);
    tarv_stat_t ask_sa(const Question& question, int retries, const tarv_arp_data_t& cached);
    void reissue(const Waiting& waiting);
    void time_out(Requests& list, std::uint32_t limit, bool arp);
    /// Whoever waits for that peer; `packet` told of it.
    void complete(const tarv_arp_data_t& record, const tarv_arp_data_t& packet);
    void reply(const Waiting& waiting, tarv_stat_t status, const tarv_arp_data_t* record);
    bool query(std::uint32_t port);
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
    std::array<Chain, buckets> table_;
    Requests arp_;
    Requests sa_;
    std::array<Port, 8> ports_{};
    int port_count_ = 0;
    std::vector<Reply> replies_;
    ib_path_record_v2_t static_path_{};
    ib_path_record_v2_t last_path_{};
    unsigned long timeout_ = 0;  // in ticks
    bool halted_ = false;
    bool enabled_ = false;
    bool sa_queries_ = false;
    bool statics_inv_ = true;
    bool attached_ = false;
    bool media_reset_ = true;
    bool empty_hand_ = false;
    int retry_limit_ = 3;
    unsigned long paths_read_ = 0;
    Tally tally_;
};

}  // namespace soak
