// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Who the peers are. What a peer says of itself follows from its address and from the number of the
// generation that it is in, and so does what an administrator says of it. Whoever finds a GID of
// one generation beside a LID of another holds a record that was torn.
//
// In each generation a peer lives on another host of the fabric, so that the SA knows paths to it.
#pragma once

#include <string>
#include <vector>

#include "fabric/fabric.h"
#include "tarv/tarv.h"

namespace stress {

inline constexpr unsigned peer_count = 48;
inline constexpr unsigned first_static_peer = 40;  ///< from here on an administrator speaks of them

/// The address of a peer, or with a higher number of nobody, and our own, in network order.
u32 address_of(unsigned peer);
u32 our_address();
std::string text_of(u32 address);

class Identities {
  public:
    explicit Identities(fabric::Fabric& fabric);

    /// What the driver hands over when it hears the peer in that generation.
    tarv_arp_data_t heard(unsigned peer, unsigned generation, tarv_arp_op_t operation) const;

    /// The commands by which an administrator makes the peer's entry, gives it paths by hand, and
    /// sets the path of those that have none.
    std::string add_command(unsigned peer, unsigned number) const;
    std::string add_ib_arp_command(unsigned peer, unsigned number) const;
    std::string add_path_command(unsigned peer, unsigned number) const;
    std::string set_static_path_command(unsigned number) const;

    /// Paths to the peer in that generation, as the SA would answer.
    void paths_to(unsigned peer, unsigned generation, ib_path_record_v2_t (&paths)[2]) const;

    /// Complains of a record that was handed out for that address and is not of one piece. `when`
    /// says who got it.
    void check(const tarv_arp_data_t& record, u32 address, const char* when) const;

    /// The number of the setstaticpath command that made the path; 0 for one of another origin.
    static unsigned static_path_number(const ib_path_record_v2_t& path);

    /// GIDs of our ports, as they are given in a command.
    std::string local_gid_text(int port) const;

  private:
    struct Station {
        gx_gid_t gid;
        u16 lid;
    };
    const Station& station(unsigned peer, unsigned generation) const;
    const char* fault_of(const tarv_arp_data_t& record, u32 address) const;
    const char* fault_of_learned(const tarv_arp_data_t& record) const;
    const char* fault_of_static(const tarv_arp_data_t& record) const;
    const char* fault_of_path(const ib_path_record_v2_t& path, const tarv_arp_data_t& record) const;
    bool is_station(const gx_gid_t& gid, u16 lid) const;

    std::vector<Station> stations_;
    gx_gid_t local_gids_[2];
};

}  // namespace stress
