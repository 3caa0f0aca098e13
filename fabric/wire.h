// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What crosses the fabric, byte for byte: management datagrams with their RMPP and SA headers, path
// records, IPoIB ARP, and the link headers around them.
//
// Each format is a structure of plain integers and a table that says which bits of the wire hold
// which member; encode() and decode() work from the table alone. Integers are in host order in the
// structures. GIDs are in wire order here, most significant byte first; held() and wire() convert
// from and to the adapter verbs layer's order. IPv4 addresses are kept in network order, as
// everywhere on this host.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/verbs.h"

namespace fabric {

using Bytes = std::vector<std::uint8_t>;
using Gid = std::array<std::uint8_t, 16>;

inline constexpr std::uint64_t default_subnet_prefix = 0xfe80000000000000;

Gid make_gid(std::uint64_t prefix, std::uint64_t guid);
std::uint64_t guid_of(const Gid& gid);  ///< the low half, the port GUID
gx_gid_t held(const Gid& gid);
Gid wire(const gx_gid_t& gid);
std::string format_gid(const Gid& gid);

struct GidHash {
    std::size_t operator()(const Gid& gid) const;
};

// Management datagrams. A MAD has 256 bytes at most; behind the three headers (56 bytes) stand up
// to 200 bytes of attribute data.

inline constexpr std::size_t mad_size = 256;
inline constexpr std::size_t rmpp_offset = 24;
inline constexpr std::size_t sa_offset = 36;       ///< where an RMPP data block begins in a MAD
inline constexpr std::size_t sa_header_size = 20;  ///< at the start of an RMPP data block
inline constexpr std::size_t sa_data_offset = sa_offset + sa_header_size;
inline constexpr std::size_t sa_data_size = mad_size - sa_data_offset;

inline constexpr std::uint8_t sa_class = 3;
inline constexpr std::uint8_t sa_class_version = 2;
inline constexpr std::uint8_t method_get = 0x01;
inline constexpr std::uint8_t method_get_table = 0x12;
inline constexpr std::uint8_t method_get_table_resp = 0x92;
inline constexpr std::uint8_t method_get_multi = 0x14;
inline constexpr std::uint8_t method_get_multi_resp = 0x94;
inline constexpr std::uint16_t attribute_path_record = 0x0035;
inline constexpr std::uint16_t attribute_multi_path_record = 0x003A;
inline constexpr std::uint32_t gsi_qp = 1;
inline constexpr std::uint32_t gsi_qkey = 0x80010000;

struct MadHeader {
    static constexpr std::size_t wire_size = 24;
    std::uint8_t base_version = 1;
    std::uint8_t management_class = 0;
    std::uint8_t class_version = 0;
    std::uint8_t method = 0;  ///< with the response bit
    std::uint16_t status = 0;
    std::uint16_t class_specific = 0;
    std::uint64_t transaction = 0;
    std::uint16_t attribute = 0;
    std::uint32_t modifier = 0;
};

inline constexpr std::uint8_t rmpp_data = 1;
inline constexpr std::uint8_t rmpp_ack = 2;
inline constexpr std::uint8_t rmpp_stop = 3;
inline constexpr std::uint8_t rmpp_abort = 4;
inline constexpr std::uint8_t rmpp_active = 1;
inline constexpr std::uint8_t rmpp_first = 2;
inline constexpr std::uint8_t rmpp_last = 4;

struct RmppHeader {
    static constexpr std::size_t wire_size = 12;
    std::uint8_t version = 0;
    std::uint8_t type = 0;
    std::uint8_t flags = 0;  ///< response time in the upper five bits
    std::uint8_t status = 0;
    std::uint32_t segment = 0;
    std::uint32_t length = 0;  ///< PayloadLength of data, NewWindowLast of an acknowledgement
};

struct SaHeader {
    static constexpr std::size_t wire_size = sa_header_size;
    std::uint64_t sm_key = 0;
    std::uint16_t attribute_offset = 0;  ///< in units of 8 bytes
    std::uint64_t component_mask = 0;
};

/// The fixed part of a MultiPathRecord; `sgid_count` source GIDs, then `dgid_count` destination
/// GIDs follow on the wire.
struct MultiPathRecord {
    static constexpr std::size_t wire_size = 24;
    std::uint8_t raw_traffic = 0;
    std::uint32_t flow_label = 0;
    std::uint8_t hop_limit = 0;
    std::uint8_t traffic_class = 0;
    std::uint8_t reversible = 0;
    std::uint8_t numb_path = 0;
    std::uint16_t pkey = 0;
    std::uint8_t sl = 0;
    std::uint8_t mtu_selector = 0;
    std::uint8_t mtu = 0;
    std::uint8_t rate_selector = 0;
    std::uint8_t rate = 0;
    std::uint8_t life_time_selector = 0;
    std::uint8_t life_time = 0;
    std::uint8_t independence = 0;
    std::uint8_t sgid_count = 0;
    std::uint8_t dgid_count = 0;
};

struct PathRecord {
    static constexpr std::size_t wire_size = 64;
    Gid dgid{};
    Gid sgid{};
    std::uint16_t dlid = 0;
    std::uint16_t slid = 0;
    std::uint8_t raw_traffic = 0;
    std::uint32_t flow_label = 0;
    std::uint8_t hop_limit = 0;
    std::uint8_t traffic_class = 0;
    std::uint8_t reversible = 0;
    std::uint8_t numb_path = 0;
    std::uint16_t pkey = 0;
    std::uint8_t sl = 0;
    std::uint8_t mtu_selector = 0;
    std::uint8_t mtu = 0;
    std::uint8_t rate_selector = 0;
    std::uint8_t rate = 0;
    std::uint8_t life_time_selector = 0;
    std::uint8_t life_time = 0;
    std::uint8_t preference = 0;
};

// Subnet management datagrams: a common header, and 64 bytes of attribute data. On a directed route
// without a hop they are for the port's own agent.

inline constexpr std::size_t smp_data_offset = 64;
inline constexpr std::size_t smp_data_size = 64;
inline constexpr std::uint8_t directed_route_class = 0x81;
inline constexpr std::uint16_t attribute_node_info = 0x0011;
inline constexpr std::uint16_t attribute_port_info = 0x0015;
inline constexpr std::uint16_t attribute_pkey_table = 0x0016;  ///< 32 entries of 16 bits a block
inline constexpr std::uint16_t permissive_lid = 0xFFFF;

/// Of a NodeInfo what identifies an adapter and the port that was asked.
struct NodeInfo {
    static constexpr std::size_t wire_size = 40;
    std::uint8_t node_type = 0;  ///< 1: adapter
    std::uint8_t ports = 0;
    std::uint64_t node_guid = 0;
    std::uint64_t port_guid = 0;
    std::uint16_t partition_cap = 0;  ///< entries of a port's partition table
    std::uint8_t local_port = 0;
};

/// Of a PortInfo what a host has to know about its port.
struct PortInfo {
    static constexpr std::size_t wire_size = smp_data_size;
    std::uint64_t gid_prefix = 0;
    std::uint16_t lid = 0;
    std::uint16_t sm_lid = 0;
    std::uint8_t state = 0;  ///< 1 down, 2 initializing, 3 armed, 4 active
    std::uint8_t lmc = 0;
    std::uint8_t neighbor_mtu = 0;
    std::uint8_t sm_sl = 0;
};

// IPoIB: every datagram begins with 4 bytes, its Ethernet type and two reserved ones.

inline constexpr std::uint16_t arp_ether_type = 0x0806;
inline constexpr std::uint16_t arp_request = 1;
inline constexpr std::uint16_t arp_reply = 2;

/// An ARP packet of IP over InfiniBand (RFC 4391) with the IPoIB header in front of it. A hardware
/// address is a byte of flags, the queue pair's number and the port's GID.
struct ArpPacket {
    static constexpr std::size_t wire_size = 60;
    std::uint16_t ether_type = arp_ether_type;
    std::uint16_t hardware_type = 32;
    std::uint16_t protocol_type = 0x0800;
    std::uint8_t hardware_size = 20;
    std::uint8_t protocol_size = 4;
    std::uint16_t operation = 0;
    std::uint8_t sender_flags = 0;
    std::uint32_t sender_qpn = 0;
    Gid sender_gid{};
    std::uint32_t sender_ip = 0;  ///< network order
    std::uint8_t target_flags = 0;
    std::uint32_t target_qpn = 0;
    Gid target_gid{};
    std::uint32_t target_ip = 0;  ///< network order
};

// Link, network and transport headers of an unreliable datagram.

struct LocalRouteHeader {
    static constexpr std::size_t wire_size = 8;
    std::uint8_t virtual_lane = 0;
    std::uint8_t version = 0;
    std::uint8_t sl = 0;
    std::uint8_t next = 0;  ///< 2: BTH follows, 3: GRH follows
    std::uint16_t dlid = 0;
    std::uint16_t length = 0;  ///< in words of 4 bytes, up to and without the variant CRC
    std::uint16_t slid = 0;
};

struct GlobalRouteHeader {
    static constexpr std::size_t wire_size = 40;
    std::uint8_t version = 6;
    std::uint16_t length = 0;
    std::uint8_t next = 0x1B;
    std::uint8_t hop_limit = 0;
    Gid sgid{};
    Gid dgid{};
};

struct BaseTransportHeader {
    static constexpr std::size_t wire_size = 12;
    std::uint8_t opcode = 0x64;  ///< unreliable datagram, send only
    std::uint8_t pad = 0;
    std::uint16_t pkey = 0;
    std::uint32_t dest_qp = 0;
    std::uint32_t sequence = 0;
};

struct DatagramHeader {
    static constexpr std::size_t wire_size = 8;
    std::uint32_t qkey = 0;
    std::uint32_t src_qp = 0;
};

/// Writes `value` over its wire_size bytes at the start of `out`: every bit that the table does not
/// name becomes 0.
template <class T>
void encode(const T& value, std::span<std::uint8_t> out);

/// Reads a T from the start of `in`; empty when `in` is too short.
template <class T>
std::optional<T> decode(std::span<const std::uint8_t> in);

/// For checks and lists: a member's name and its place, counted in bits from the first byte's most
/// significant bit.
struct FieldPlace {
    const char* name;
    unsigned bit;
    unsigned width;
};
template <class T>
std::vector<FieldPlace> places();

}  // namespace fabric
