// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The subnet as its manager knows it: every end port with its GID, LIDs, state and partition keys,
// found by place, by LID and by GID at the same cost at any size.
//
// End ports are the ports of adapters and routers and the management port (0) of switches. The
// manager gives each end port 2^LMC consecutive LIDs, the first of them divisible by their number,
// out of the unicast LIDs 1 to 0xBFFF. LIDs that the topology file gives are kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fabric/mutex.h"
#include "fabric/ports.h"
#include "fabric/routing.h"
#include "fabric/topology.h"
#include "fabric/wire.h"

namespace fabric {

inline constexpr std::uint16_t last_unicast_lid = 0xBFFF;

/// What the way between two end ports allows.
struct Way {
    int hops = 0;  ///< links on the way
    std::uint8_t mtu = 0;
    std::uint8_t rate = 0;
};

struct SubnetOptions {
    std::uint8_t lmc = 0;  ///< of adapter ports; with one given, LIDs of the file that do not fit
                           ///< are replaced
    std::uint8_t sm_sl = 0;
};

class Subnet {
  public:
    /// Gives out the LIDs. Throws InputError for LIDs that overlap, when there are none left, and
    /// when no manager would be heard at home.
    /// The topology must outlive the subnet.
    /// `home`: the node that has to hear the manager; -1: none.
    Subnet(const Topology& topology, const SubnetOptions& options, int home = -1);

    std::optional<EndPort> at(PortId ref) const;
    std::optional<EndPort> by_lid(std::uint16_t lid) const;  ///< any LID of the port
    std::optional<EndPort> by_gid(const Gid& gid) const;

    /// Both ports are up, and something leads from one to the other.
    bool reaches(PortId from, PortId to) const;

    /// The way from a port to one of another's LIDs, counted from its base LID. Empty when the port
    /// is not reached.
    std::optional<Way> way(PortId from, PortId to, unsigned lid = 0) const;

    /// The port's table, entry 0 first. By default one entry, the default partition's full member.
    std::vector<std::uint16_t> pkeys(PortId ref) const;
    /// The P_Key that two ports use between them: in both tables, for at least one as full member.
    /// `wanted` with value restricts the search to that partition.
    std::optional<std::uint16_t> common_pkey(PortId a, PortId b,
                                             std::optional<std::uint16_t> wanted) const;

    SubnetManager manager() const;

    // Changes. A port or a LID that can't be used throws std::invalid_argument.
    void set_up(PortId ref, bool up);
    void set_lid(PortId ref, std::uint16_t lid);
    void set_mtu(PortId ref, std::uint8_t mtu);
    void set_gid(PortId ref, const Gid& gid);  ///< found by the new one only from now on
    void set_pkeys(PortId ref, std::vector<std::uint16_t> table);
    void move_manager(std::uint16_t lid, std::uint8_t sl);

  private:
    using Index = std::int32_t;

    void add_end_ports(const Topology& topology, const SubnetOptions& options) TA_REQ(mutex_);
    void give_lids(const Topology& topology) TA_REQ(mutex_);
    bool claim(Index index, std::uint16_t lid) TA_REQ(mutex_);
    Index index_of(PortId ref) const TA_REQ(mutex_);
    EndPort& known(PortId ref) TA_REQ(mutex_);
    bool both_up(PortId one, PortId other) const TA_REQ(mutex_);

    mutable Mutex mutex_;
    std::vector<Index> first_port_of_node_;  ///< into ports_; constant after construction
    std::vector<EndPort> ports_ TA_GUARDED(mutex_);
    std::vector<Index> by_lid_ TA_GUARDED(mutex_);
    std::unordered_map<Gid, Index, GidHash> by_gid_ TA_GUARDED(mutex_);
    std::unordered_map<Index, std::vector<std::uint16_t>> pkeys_ TA_GUARDED(mutex_);
    SubnetManager manager_ TA_GUARDED(mutex_);
    mutable Routing routing_ TA_GUARDED(mutex_);
};

/// The ports of one adapter of the subnet, as its own host sees them.
class SubnetPorts final : public Ports {
  public:
    /// The adapter is a node of the subnet's topology.
    SubnetPorts(const Subnet& subnet, const Topology& topology, int node);

    const char* name() const override { return "hca0"; }
    gx_guid_t guid() const override { return guid_; }
    int count() const override { return count_; }
    EndPort port(int number) const override { return *subnet_.at({node_, number}); }
    SubnetManager manager(int) const override { return subnet_.manager(); }
    std::vector<std::uint16_t> pkeys(int number) const override {
        return subnet_.pkeys({node_, number});
    }

  private:
    const Subnet& subnet_;
    const int node_;
    const int count_;
    const gx_guid_t guid_;
};

}  // namespace fabric
