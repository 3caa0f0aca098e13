// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/wire.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace fabric {
namespace {

using In = std::span<const std::uint8_t>;
using Out = std::span<std::uint8_t>;

std::uint64_t get_bits(In in, unsigned bit, unsigned width) {
    std::uint64_t value = 0;
    unsigned end = bit + width;
    for (unsigned at = bit; at < end;) {
        unsigned take = std::min(8 - at % 8, end - at);
        unsigned below = 8 - at % 8 - take;
        value = value << take | (in[at / 8] >> below & (0xFFu >> (8 - take)));
        at += take;
    }
    return value;
}

void put_bits(Out out, unsigned bit, unsigned width, std::uint64_t value) {
    unsigned end = bit + width;
    for (unsigned at = bit; at < end;) {
        unsigned take = std::min(8 - at % 8, end - at);
        unsigned below = 8 - at % 8 - take;
        unsigned part = static_cast<unsigned>(value >> (end - at - take)) & (0xFFu >> (8 - take));
        out[at / 8] = static_cast<std::uint8_t>(out[at / 8] | part << below);
        at += take;
    }
}

/* One row of a format's table. */
template <class T>
struct Row {
    const char* name;
    unsigned bit;
    unsigned width;
    void (*put)(const Row&, const T&, Out);
    void (*get)(const Row&, T&, In);
};

template <class M>
struct MemberOf;
template <class T, class V>
struct MemberOf<V T::*> {
    using Record = T;
    using Value = V;
};

/* An integer of `width` bits at bit `bit` of byte `byte`, counted from the most significant. */
template <auto Member>
constexpr auto field(const char* name, unsigned byte, unsigned bit, unsigned width) {
    using T = typename MemberOf<decltype(Member)>::Record;
    using V = typename MemberOf<decltype(Member)>::Value;
    return Row<T>{name, byte * 8 + bit, width,
                  [](const Row<T>& row, const T& value, Out out) {
                      put_bits(out, row.bit, row.width, value.*Member);
                  },
                  [](const Row<T>& row, T& value, In in) {
                      value.*Member = static_cast<V>(get_bits(in, row.bit, row.width));
                  }};
}

/* A whole integer of its member's own size. */
template <auto Member>
constexpr auto whole(const char* name, unsigned byte) {
    using V = typename MemberOf<decltype(Member)>::Value;
    return field<Member>(name, byte, 0, sizeof(V) * 8);
}

template <auto Member>
constexpr auto gid(const char* name, unsigned byte) {
    using T = typename MemberOf<decltype(Member)>::Record;
    return Row<T>{name, byte * 8, 128,
                  [](const Row<T>& row, const T& value, Out out) {
                      std::memcpy(&out[row.bit / 8], (value.*Member).data(), 16);
                  },
                  [](const Row<T>& row, T& value, In in) {
                      std::memcpy((value.*Member).data(), &in[row.bit / 8], 16);
                  }};
}

/* An IPv4 address, kept in network order. */
template <auto Member>
constexpr auto address(const char* name, unsigned byte) {
    using T = typename MemberOf<decltype(Member)>::Record;
    return Row<T>{name, byte * 8, 32,
                  [](const Row<T>& row, const T& value, Out out) {
                      put_bits(out, row.bit, 32, ntohl(value.*Member));
                  },
                  [](const Row<T>& row, T& value, In in) {
                      value.*Member = htonl(static_cast<std::uint32_t>(get_bits(in, row.bit, 32)));
                  }};
}

template <class T>
struct Format;

#define FIELD(member, byte, bit, width) field<&T::member>(#member, byte, bit, width)
#define WHOLE(member, byte) whole<&T::member>(#member, byte)
#define GID(member, byte) gid<&T::member>(#member, byte)
#define ADDRESS(member, byte) address<&T::member>(#member, byte)

template <>
struct Format<MadHeader> {
    using T = MadHeader;
    static constexpr Row<T> rows[] = {
        WHOLE(base_version, 0), WHOLE(management_class, 1), WHOLE(class_version, 2),
        WHOLE(method, 3),       WHOLE(status, 4),           WHOLE(class_specific, 6),
        WHOLE(transaction, 8),  WHOLE(attribute, 16),       WHOLE(modifier, 20),
    };
};

template <>
struct Format<RmppHeader> {
    using T = RmppHeader;
    static constexpr Row<T> rows[] = {
        WHOLE(version, 0), WHOLE(type, 1),    WHOLE(flags, 2),
        WHOLE(status, 3),  WHOLE(segment, 4), WHOLE(length, 8),
    };
};

template <>
struct Format<SaHeader> {
    using T = SaHeader;
    static constexpr Row<T> rows[] = {
        WHOLE(sm_key, 0),
        WHOLE(attribute_offset, 8),
        WHOLE(component_mask, 12),
    };
};

/* What is asked of a path, and what it has, from that byte on. */
#define PATH_TERMS(byte)                                                         \
    FIELD(raw_traffic, (byte), 0, 1), FIELD(flow_label, (byte), 4, 20),          \
        FIELD(hop_limit, (byte), 24, 8), WHOLE(traffic_class, (byte) + 4),       \
        FIELD(reversible, (byte) + 5, 0, 1), FIELD(numb_path, (byte) + 5, 1, 7), \
        WHOLE(pkey, (byte) + 6), FIELD(sl, (byte) + 8, 12, 4),                   \
        FIELD(mtu_selector, (byte) + 10, 0, 2), FIELD(mtu, (byte) + 10, 2, 6),   \
        FIELD(rate_selector, (byte) + 11, 0, 2), FIELD(rate, (byte) + 11, 2, 6), \
        FIELD(life_time_selector, (byte) + 12, 0, 2), FIELD(life_time, (byte) + 12, 2, 6)

template <>
struct Format<MultiPathRecord> {
    using T = MultiPathRecord;
    static constexpr Row<T> rows[] = {
        PATH_TERMS(0),
        FIELD(independence, 14, 0, 2),
        WHOLE(sgid_count, 15),
        WHOLE(dgid_count, 16),
    };
};

template <>
struct Format<PathRecord> {
    using T = PathRecord;
    static constexpr Row<T> rows[] = {
        GID(dgid, 8),    GID(sgid, 24),  WHOLE(dlid, 40),
        WHOLE(slid, 42), PATH_TERMS(44), WHOLE(preference, 57),
    };
};

template <>
struct Format<ArpPacket> {
    using T = ArpPacket;
    static constexpr Row<T> rows[] = {
        WHOLE(ether_type, 0),    WHOLE(hardware_type, 4),      WHOLE(protocol_type, 6),
        WHOLE(hardware_size, 8), WHOLE(protocol_size, 9),      WHOLE(operation, 10),
        WHOLE(sender_flags, 12), FIELD(sender_qpn, 13, 0, 24), GID(sender_gid, 16),
        ADDRESS(sender_ip, 32),  WHOLE(target_flags, 36),      FIELD(target_qpn, 37, 0, 24),
        GID(target_gid, 40),     ADDRESS(target_ip, 56),
    };
};

template <>
struct Format<LocalRouteHeader> {
    using T = LocalRouteHeader;
    static constexpr Row<T> rows[] = {
        FIELD(virtual_lane, 0, 0, 4),
        FIELD(version, 0, 4, 4),
        FIELD(sl, 1, 0, 4),
        FIELD(next, 1, 6, 2),
        WHOLE(dlid, 2),
        FIELD(length, 4, 5, 11),
        WHOLE(slid, 6),
    };
};

template <>
struct Format<GlobalRouteHeader> {
    using T = GlobalRouteHeader;
    static constexpr Row<T> rows[] = {
        FIELD(version, 0, 0, 4), WHOLE(length, 4), WHOLE(next, 6),
        WHOLE(hop_limit, 7),     GID(sgid, 8),     GID(dgid, 24),
    };
};

template <>
struct Format<BaseTransportHeader> {
    using T = BaseTransportHeader;
    static constexpr Row<T> rows[] = {
        WHOLE(opcode, 0),         FIELD(pad, 1, 2, 2),       WHOLE(pkey, 2),
        FIELD(dest_qp, 5, 0, 24), FIELD(sequence, 9, 0, 24),
    };
};

template <>
struct Format<DatagramHeader> {
    using T = DatagramHeader;
    static constexpr Row<T> rows[] = {
        WHOLE(qkey, 0),
        FIELD(src_qp, 5, 0, 24),
    };
};

template <>
struct Format<NodeInfo> {
    using T = NodeInfo;
    static constexpr Row<T> rows[] = {
        WHOLE(node_type, 2),  WHOLE(ports, 3),          WHOLE(node_guid, 12),
        WHOLE(port_guid, 20), WHOLE(partition_cap, 28), WHOLE(local_port, 36),
    };
};

template <>
struct Format<PortInfo> {
    using T = PortInfo;
    static constexpr Row<T> rows[] = {
        WHOLE(gid_prefix, 8),   WHOLE(lid, 16),       WHOLE(sm_lid, 18),
        FIELD(state, 32, 4, 4), FIELD(lmc, 34, 5, 3), FIELD(neighbor_mtu, 36, 0, 4),
        FIELD(sm_sl, 36, 4, 4),
    };
};

#undef FIELD
#undef WHOLE
#undef GID
#undef ADDRESS
#undef PATH_TERMS

/* A table is sound when its rows stand in wire order, do not overlap and end inside the format. */
template <class T>
constexpr bool sound() {
    unsigned end = 0;
    for (const Row<T>& row : Format<T>::rows) {
        if (row.bit < end || row.width == 0)
            return false;
        end = row.bit + row.width;
    }
    return end <= T::wire_size * 8;
}

static_assert(sound<MadHeader>() && sound<RmppHeader>() && sound<SaHeader>());
static_assert(sound<MultiPathRecord>() && sound<PathRecord>() && sound<ArpPacket>());
static_assert(sound<LocalRouteHeader>() && sound<GlobalRouteHeader>());
static_assert(sound<BaseTransportHeader>() && sound<DatagramHeader>());
static_assert(sound<NodeInfo>() && sound<PortInfo>());
static_assert(MadHeader::wire_size == rmpp_offset);
static_assert(rmpp_offset + RmppHeader::wire_size == sa_offset);
static_assert(sa_data_offset == 56 && sa_data_size == 200);

}  // namespace

template <class T>
void encode(const T& value, std::span<std::uint8_t> out) {
    Out place = out.first(T::wire_size);
    std::fill(place.begin(), place.end(), std::uint8_t{0});
    for (const Row<T>& row : Format<T>::rows)
        row.put(row, value, place);
}

template <class T>
std::optional<T> decode(std::span<const std::uint8_t> in) {
    if (in.size() < T::wire_size)
        return std::nullopt;
    T value;
    for (const Row<T>& row : Format<T>::rows)
        row.get(row, value, in);
    return value;
}

template <class T>
std::vector<FieldPlace> places() {
    std::vector<FieldPlace> all;
    for (const Row<T>& row : Format<T>::rows)
        all.push_back({row.name, row.bit, row.width});
    return all;
}

#define WIRE_FORMAT(T)                                                  \
    template void encode<T>(const T&, std::span<std::uint8_t>);         \
    template std::optional<T> decode<T>(std::span<const std::uint8_t>); \
    template std::vector<FieldPlace> places<T>()
WIRE_FORMAT(MadHeader);
WIRE_FORMAT(RmppHeader);
WIRE_FORMAT(SaHeader);
WIRE_FORMAT(MultiPathRecord);
WIRE_FORMAT(PathRecord);
WIRE_FORMAT(ArpPacket);
WIRE_FORMAT(NodeInfo);
WIRE_FORMAT(PortInfo);
WIRE_FORMAT(LocalRouteHeader);
WIRE_FORMAT(GlobalRouteHeader);
WIRE_FORMAT(BaseTransportHeader);
WIRE_FORMAT(DatagramHeader);
#undef WIRE_FORMAT

Gid make_gid(std::uint64_t prefix, std::uint64_t guid) {
    Gid gid{};
    put_bits(gid, 0, 64, prefix);
    put_bits(gid, 64, 64, guid);
    return gid;
}

std::uint64_t guid_of(const Gid& gid) {
    return get_bits(gid, 64, 64);
}

gx_gid_t held(const Gid& gid) {
    gx_gid_t result;
    std::reverse_copy(gid.begin(), gid.end(), result.raw);
    return result;
}

Gid wire(const gx_gid_t& gid) {
    Gid result;
    std::reverse_copy(gid.raw, gid.raw + sizeof gid.raw, result.begin());
    return result;
}

std::string format_gid(const Gid& gid) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, gid.data(), text, sizeof text);
    return text;
}

std::size_t GidHash::operator()(const Gid& gid) const {
    std::uint64_t halves[2];
    std::memcpy(halves, gid.data(), sizeof halves);
    std::uint64_t mixed = (halves[0] ^ 0x9E3779B97F4A7C15) + halves[1] * 0xD6E8FEB86659FD93;
    return static_cast<std::size_t>(mixed ^ mixed >> 32);
}

}  // namespace fabric
