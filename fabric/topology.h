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
#include <vector>

namespace fabric {

/// Input that cannot be understood or used. what() is "FILE:LINE: what was wrong".
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
};

/// Reads a topology. Throws InputError for what is not understood, and for a fabric that can't be
/// used: no adapter, a node described twice, a GUID or LID given to two ports, a port number
/// outside its node, a link to a node or a port that is not there or that is linked to somewhere
/// else.
Topology read_topology(std::istream& in, const std::string& file);
Topology read_topology(const std::string& path);

/// A host of the fabric: an adapter node under the name by which people call it, with its address.
struct Host {
    int node = -1;
    std::string name;  ///< first word of the node's name where that is unambiguous, else all of it
    std::uint32_t ip =
        0;  ///< network byte order: the first number stands in the lowest-addressed byte
};

/// The hosts of a topology, in file order, with addresses dealt out from 10.0.0.1 on.
std::vector<Host> deal_addresses(const Topology& topology);

/// The hosts of a topology with the addresses of a list (address, name, further names; '#'
/// comments). Throws InputError for an address or a line that is not understood, an address given
/// twice, a name that no host of the fabric has, a host given two addresses. Hosts that the list
/// does not name are left out.
std::vector<Host> read_hosts(std::istream& in, const std::string& file, const Topology& topology);
std::vector<Host> read_hosts(const std::string& path, const Topology& topology);

/// The host of that name, or by default the first with two linked ports, else the first. Empty when
/// no host has the name.
std::optional<std::size_t> choose_host(const Topology& topology, const std::vector<Host>& hosts,
                                       const std::string& name = {});

/// Dotted quad of an address in network byte order.
std::string format_ip(std::uint32_t ip);

/// Reads a dotted quad; empty when it is none.
std::optional<std::uint32_t> parse_ip(const std::string& text);

}  // namespace fabric
