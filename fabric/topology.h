// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A fabric as a file describes it: nodes, ports, links. Reads the text that `ibnetdiscover` prints
// and that `ibsim` reads, and host lists in the form of /etc/hosts.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace fabric {

/// Input that cannot be understood or used. what() is "FILE:LINE: what was wrong", or "FILE: ..."
/// for a file that cannot be read at all (line 0).
class InputError : public std::runtime_error {
  public:
    InputError(const std::string& file, int line, const std::string& message);
};

enum class NodeKind { adapter, switch_node, router };

/// Codes as in a PathRecord: MTU 1 to 5 (256 to 4096 bytes), rate 2 (2.5 Gb/s), 3 (10), 4 (30), ...
struct Port {
    bool linked = false;
    int remote_node = -1;  ///< index into Topology::nodes
    int remote_port = 0;
    std::uint64_t guid = 0;
    std::uint16_t lid = 0;  ///< 0: the file gives none
    std::uint8_t lmc = 0;
    std::uint8_t rate = 0;  ///< of the link, from its width and speed; 0: the file says nothing
    std::uint8_t mtu = 0;   ///< 0: the file says nothing
    int line = 0;           ///< where the file speaks of it
};

struct Node {
    NodeKind kind = NodeKind::adapter;
    std::string id;    ///< the quoted name by which links refer to it
    std::string name;  ///< the description in its comment where there is one, else the id
    std::uint64_t guid = 0;
    std::vector<Port>
        ports;  ///< index is the port number; port 0 is a switch's own management port
    int line = 0;
};

struct Topology {
    std::string file;
    std::vector<Node> nodes;  ///< in file order; missing GUIDs and rates have been filled in
    int origin = -1;          ///< the node that ibnetdiscover ran on; -1: the file does not say
    int origin_port = 0;      ///< by which it looked; that of the switch itself is 0
};

/// Reads a topology. Throws InputError for what is not understood, and for a fabric that can't be
/// used: no adapter, a node described twice, a GUID or LID given to two ports, a port number
/// outside its node, a link to a node or a port that is not there or that is linked to somewhere
/// else.
///
/// A link may be listed from both ends or from one. Where its two lines give two rates the slower
/// counts, and where neither gives one it is 4xSDR. A GUID that the file does not give is the one
/// in the node's id ("H-" or "S-" and 16 digits), the node's plus the port number, or the next of
/// 0x100000 on (adapters, each node before its ports) or 0x200000 on (switches) that the file does
/// not use.
Topology read_topology(std::istream& in, const std::string& file);
Topology read_topology(const std::string& path);

/// Gives what is missing and what read_topology() promises: GUIDs to the nodes and ports that have
/// none, a rate to the links that have none. For topologies that are made, not read.
void fill_missing(Topology& topology);

/// Writes a topology in the form that `ibnetdiscover` prints. Reading it back gives the same nodes,
/// links, LIDs and rates, the same GUIDs of all nodes and linked ports, and the same origin.
void write_topology(std::ostream& out, const Topology& topology);

/// What make_fabric() builds: hosts below leaf switches, leaf switches below spines, and where one
/// group of leaves is not enough, groups below core switches.
struct FabricShape {
    int hosts = 16;
    int two_port_percent = 25;  ///< of the hosts, evenly spread; the first is always one of them
    int hosts_per_leaf = 16;    ///< a leaf switch has two ports for each
    int spines = 4;             ///< in a group of up to 16 leaf switches, and as many core switches
    bool lids = true;           ///< LIDs are given, from 1 on: the nodes must fit in one subnet
};

/// A fabric of that shape, the same at every call: hosts "node1 HCA-1", "node2 HCA-1", ... with
/// 4xQDR to "leaf1", "leaf2", ... A second port goes to another leaf than the first, where there is
/// one. Throws std::invalid_argument for a shape that no fabric can have.
Topology make_fabric(const FabricShape& shape);

/// The bandwidth behind a rate code in units of 100 Mb/s; 0 for a code that means none.
int rate_bandwidth(std::uint8_t code);

/// What of it is data. Neither the codes nor the bandwidths are in this order, since line codings
/// differ: compare rates by this only.
int data_bandwidth(std::uint8_t code);

/// The code with the next lower bandwidth of data; 0 for that of the lowest and for one that means
/// none.
std::uint8_t next_slower_rate(std::uint8_t code);

/// Of two rate codes (or MTU codes) that of the slower (or smaller), where 0 means unknown and
/// yields to the other.
std::uint8_t slower_rate(std::uint8_t one, std::uint8_t other);
std::uint8_t smaller_mtu(std::uint8_t one, std::uint8_t other);

/// The rate code of a link from its width and speed, as in "4xQDR"; 0 when the text is none. A
/// bandwidth that has no code counts as the next lower one.
std::uint8_t parse_rate(std::string_view text);

/// A width and speed that have that rate code; empty for a code that means none.
std::string_view format_rate(std::uint8_t code);

/// A host of the fabric: an adapter node under the name by which people call it, with its address.
struct Host {
    int node = -1;
    std::string name;  ///< first word of the node's name where that is unambiguous, else all of it
                       ///< where that is, else the node's id
    std::uint32_t ip =
        0;  ///< network byte order: the first number stands in the lowest-addressed byte
    std::string rail = {};  ///< where several adapters share the name's first word, what tells this
                            ///< one from the others; else empty

    /// The name without the rail.
    std::string machine() const {
        return rail.empty() ? name : name.substr(0, name.size() - rail.size() - 1);
    }
};

/// The hosts of a topology, in file order, with addresses dealt out from 10.0.0.1 on. What a switch
/// has inside it to take part in reductions looks like an adapter and is none.
std::vector<Host> deal_addresses(const Topology& topology);

/// The hosts of a topology, in file order, with the addresses of a list (address, name, further
/// names; '#' comments). One of a line's names has to be a host's name or its node's id; the others
/// may be anything that is not another host's. Throws InputError for an address or a line that is
/// not understood, an address given twice, a name that no host of the fabric has, a host given two
/// addresses. Hosts that the list does not name are left out; loopback and IPv6 lines are passed
/// over.
std::vector<Host> read_hosts(std::istream& in, const std::string& file, const Topology& topology);
std::vector<Host> read_hosts(const std::string& path, const Topology& topology);

/// The same of a list that speaks of other machines and networks too, as a cluster's /etc/hosts
/// does: its lines about them are skipped, and counted. NAME-ibN names the N-th rail of a host and
/// counts more than its bare name, which names the first rail; of two lines that count the same the
/// first holds. A name's domain does not matter.
std::vector<Host> pick_hosts(std::istream& in, const std::string& file, const Topology& topology,
                             std::size_t& skipped_lines);

/// The host of that name, or else of that node id, or else the first rail of that host; by default
/// the first with two linked ports, else the first. Empty when no host has the name.
std::optional<std::size_t> choose_host(const Topology& topology, const std::vector<Host>& hosts,
                                       const std::string& name = {});

/// Dotted quad of an address in network byte order.
std::string format_ip(std::uint32_t ip);

/// Reads a dotted quad; empty when it is none.
std::optional<std::uint32_t> parse_ip(const std::string& text);

}  // namespace fabric
