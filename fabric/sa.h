// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The subnet's administrator (SA): takes in MultiPathRecord queries as they come over the wire and
// answers them out of what the subnet is like at that moment.
//
// A query names source and destination GIDs. For each pair whose ports reach each other and share a
// partition there is a path; ports with several LIDs have as many further paths, and others, less
// preferred, from each LID of one to each of the other. As many records as the query asks for are
// answered: all paths of the first pair, then those of the second, and so on. A selector takes a
// path for one with a smaller MTU, a lower rate or a shorter life time, where that is what it asks
// for. Up to three records fit one MAD; more go in several segments. Whatever becomes of a query,
// it is acknowledged, since a kernel does that below an SA. A bad query comes back as it was, with
// a status: 0x0200 no proper RMPP header, 0x0600 a required component is missing, 0x0500 a GID that
// no active port has, 0x000C another question than this SA answers.
//
// For tests the answers can be made wrong, for the next `count` or for all until clear():
//
//     fabric.sa().faults().drop_next(2);
//     fabric.sa().answer_with_status(0x0700);
//     fabric.sa().answer_with_records(1, 3);   // one record each in the next three answers
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "fabric/faults.h"
#include "fabric/mutex.h"
#include "fabric/network.h"
#include "fabric/rmpp.h"
#include "fabric/subnet.h"
#include "fabric/works.h"

namespace fabric {

/// How the SA numbers a query's components SGIDCount and DGIDCount, both of which it requires, and
/// under which attribute ID it answers.
enum class SaDialect {
    current,   ///< 19 and 20; answers carry 0x0035, the attribute of their records
    original,  ///< 18 and 19; answers carry 0x003A, the attribute of the query
};

class Sa {
  public:
    Sa(Works& works, Subnet& subnet, Network& network);

    static constexpr unsigned always = ~0u;

    void speak(SaDialect dialect);

    /// Faults of whole answers. An answer of several segments is lost, late or held back as one.
    Faults& faults() { return faults_; }

    void answer_with_status(std::uint16_t status, unsigned count = always);
    void answer_with_attribute(std::uint16_t attribute, unsigned count = always);
    void answer_with_base_version(std::uint8_t version, unsigned count = always);
    void answer_with_class(std::uint8_t management_class, unsigned count = always);
    void answer_with_class_version(std::uint8_t version, unsigned count = always);
    /// Exactly so many records: surplus ones are left out, missing ones are copies of the others.
    void answer_with_records(unsigned records, unsigned count = always);
    /// Exactly these records, whatever was asked.
    void answer_with(std::vector<PathRecord> records, unsigned count = always);
    /// SA header and data are cut off after so many bytes.
    void answer_truncated_to(std::size_t bytes, unsigned count = always);
    /// In segments of `piece` bytes of data, at least two of them where there is data for two.
    void answer_over_rmpp(std::size_t piece = PathRecord::wire_size, unsigned count = always);
    /// Takes all of these back, and the faults.
    void clear();

    unsigned long queries() const;  ///< heard so far

    /// A management datagram arrived at the SA's port.
    void receive(const Packet& packet);

  private:
    struct Answer {
        MadHeader header;
        SaHeader sa;
        Bytes records;
        std::optional<std::size_t> cut;
        std::size_t piece = sa_data_size;
    };
    struct Edit {
        std::function<void(Answer&)> apply;
        unsigned left;
    };
    struct Transfer {
        RmppSender sender;
        Packet envelope;  ///< of its segments
        int tries = 0;
    };
    struct Query {
        MultiPathRecord record;
        std::uint64_t components = 0;
        std::vector<Gid> sgids;
        std::vector<Gid> dgids;
    };
    using Key = std::uint64_t;

    static Packet envelope_to(const Packet& question);
    void edit(std::function<void(Answer&)> apply, unsigned count);
    void apply_edits(Answer& answer);
    std::uint16_t check(const Packet& packet, const MadHeader& header, Query& query) const;
    std::uint16_t resolve(const Query& query, Bytes& records) const;
    void add_paths(const Query& query, const EndPort& from, const EndPort& to, unsigned& room,
                   Bytes& records) const;
    std::optional<PathRecord> path(const Query& query, const EndPort& from, const EndPort& to,
                                   unsigned source, unsigned destination) const;
    std::optional<PathRecord> one_way(const Query& query, const EndPort& from, const EndPort& to,
                                      unsigned destination) const;
    void refuse(const Packet& question, const Answer& answer);
    void send(const Packet& question, const Answer& answer);
    void acknowledged(const Packet& packet, const MadHeader& header, const RmppHeader& rmpp);
    void send_window(Key key);
    void watch_transfer(Key key, std::uint32_t acked_before);
    void transmit(const Packet& envelope, Bytes mad, unsigned long late) const;

    Works& works_;
    Subnet& subnet_;
    Network& network_;
    Faults faults_;
    mutable Mutex mutex_;
    SaDialect dialect_ TA_GUARDED(mutex_) = SaDialect::current;
    std::vector<Edit> edits_ TA_GUARDED(mutex_);
    std::unordered_map<Key, Transfer> transfers_ TA_GUARDED(mutex_);
    unsigned long queries_ TA_GUARDED(mutex_) = 0;
};

}  // namespace fabric
