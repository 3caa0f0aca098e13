// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/races/identity.h"

#include <cstdio>

#include "tests/races/report.h"

namespace stress {
namespace {

// The QPN says where a record comes from: bits 16 to 23 are the peer's number, the low ones its
// generation; or the mark of a command with the command's number.
constexpr u32 generation_bits = 0xFFFF;
constexpr u32 by_add = 0x800000;
constexpr u32 by_add_ib_arp = 0xC00000;
constexpr u32 command_bits = 0x3FFFFF;

// The flow label does so for a path: 0 for the SA's, else a mark with the command's number.
constexpr u32 by_set_static_path = 0x40000;
constexpr u32 by_add_path = 0x80000;
constexpr u32 number_bits = 0x3FFFF;

constexpr u32 full_member = 0x8000;

u32 mixed(u32 a, u32 b) {
    u32 h = a * 0x9E3779B1u ^ b * 0x85EBCA77u;
    h ^= h >> 15;
    return h * 0xC2B2AE3Du ^ h >> 13;
}

template <class... Arguments>
std::string format(const char* text, Arguments... arguments) {
    char line[512];
    std::snprintf(line, sizeof line, text, arguments...);
    return line;
}

std::string gid_text(const gx_gid_t& gid) {
    return format("0x%016llx%016llx", gid_high(gid), gid_low(gid));
}

/* The fields of a path that follow from a command's number, in the order of the words, from the
 * first that addpath and setstaticpath share. None of those is 0 that may not be. */
std::string path_words(u32 mark, u32 number) {
    const u32 n = number & number_bits;
    return format("%u %u %u %u %u %u %u %u %u %u %u %u", n & 1, mark | n, n & 0xFF, ~n & 0xFF,
                  full_member | (n & 0x7FFF), n & 0xF, n & 3, 1 + (n & 0x1F), ~n & 3,
                  1 + (n >> 1 & 0x1F), n >> 2 & 3, n >> 3 & 0x3F);
}

bool follows_from_its_number(const ib_path_record_v2_t& path) {
    const u32 n = path.flow_label & number_bits;
    return path.raw_traffic == (n & 1) && path.hop_limut == (n & 0xFF) &&
           path.traffic_class == (~n & 0xFF) && path.sl == (n & 0xF) &&
           path.mtu_selector == (n & 3) && path.mtu == 1 + (n & 0x1F) &&
           path.rate_selector == (~n & 3) && path.rate == 1 + (n >> 1 & 0x1F) &&
           path.pkt_life_time_selector == (n >> 2 & 3) && path.pkt_life_time == (n >> 3 & 0x3F);
}

u16 command_lid(u32 number) {
    return static_cast<u16>(mixed(number, 3) % 0xBFFF + 1);
}

}  // namespace

u32 address_of(unsigned peer) {
    return 10u | (1 + (peer >> 8)) << 16 | peer << 24;  // 10.0.1.PEER and on
}
u32 our_address() {
    return 10u | 1u << 24;
}
std::string text_of(u32 address) {
    return fabric::format_ip(address);
}

Identities::Identities(fabric::Fabric& fabric) : local_gids_{} {
    for (const fabric::Host& host : fabric.hosts()) {
        if (!fabric.peers().has(host.ip))
            continue;
        const fabric::Station at = fabric.peers().station(host.ip);
        stations_.push_back({fabric::held(at.gid), at.lid});
    }
    for (int port = 1; port <= 2; port++)
        local_gids_[port - 1] = fabric::held(fabric.adapter().port(port).gid);
}

const Identities::Station& Identities::station(unsigned peer, unsigned generation) const {
    return stations_[(peer * 7 + generation) % stations_.size()];
}

tarv_arp_data_t Identities::heard(unsigned peer, unsigned generation,
                                  tarv_arp_op_t operation) const {
    const u32 g = generation & generation_bits;
    tarv_arp_data_t record = {};
    record.mask = 0x27F;
    record.arp_operation = operation;
    record.src_ip = address_of(peer);
    record.dst_ip = our_address();
    record.gid = station(peer, g).gid;
    record.lid = station(peer, g).lid;
    record.qpn = peer << 16 | g;
    record.qkey = mixed(peer, g);
    record.cap_flg = static_cast<u8>(mixed(peer, g) >> 8);
    record.local_port_num = 1 + (g & 1);
    return record;
}

std::string Identities::add_command(unsigned peer, unsigned number) const {
    const u32 n = number & command_bits;
    return format("add 10.0.0.1 %s %u %u %u\n", text_of(address_of(peer)).c_str(), command_lid(n),
                  by_add | n, mixed(n, 1));
}

std::string Identities::add_ib_arp_command(unsigned peer, unsigned number) const {
    const u32 n = number & command_bits;
    const Station& at = station(peer, n);
    return format("addibarp 10.0.0.1 %s %s %u %u %u %u\n", text_of(address_of(peer)).c_str(),
                  gid_text(at.gid).c_str(), at.lid, by_add_ib_arp | n, mixed(n, 2), 1 + (n & 1));
}

std::string Identities::add_path_command(unsigned peer, unsigned number) const {
    const Station& at = station(peer, number);
    return format("addpath %s %s %s %s %u %u ", text_of(address_of(peer)).c_str(),
                  number & 1 ? "p" : "s", gid_text(at.gid).c_str(),
                  gid_text(local_gids_[number & 1]).c_str(), at.lid,
                  command_lid(number & number_bits)) +
           path_words(by_add_path, number) + "\n";
}

std::string Identities::set_static_path_command(unsigned number) const {
    return "setstaticpath " + path_words(by_set_static_path, number) + "\n";
}

std::string Identities::local_gid_text(int port) const {
    return gid_text(local_gids_[port - 1]);
}

void Identities::paths_to(unsigned peer, unsigned generation,
                          ib_path_record_v2_t (&paths)[2]) const {
    const Station& at = station(peer, generation);
    for (int i = 0; i < 2; i++) {
        paths[i] = {};
        paths[i].dgid = at.gid;
        paths[i].dlid = at.lid;
        paths[i].sgid = local_gids_[i];
        paths[i].numb_path = 1;
        paths[i].pkey = 0xFFFF;
    }
}

unsigned Identities::static_path_number(const ib_path_record_v2_t& path) {
    return path.flow_label & by_set_static_path ? path.flow_label & number_bits : 0;
}

bool Identities::is_station(const gx_gid_t& gid, u16 lid) const {
    for (const Station& one : stations_)
        if (one.gid == gid)
            return one.lid == lid;
    return false;
}

const char* Identities::fault_of_learned(const tarv_arp_data_t& record) const {
    const unsigned peer = record.qpn >> 16;
    if (peer >= peer_count || record.dst_ip != address_of(peer))
        return "its QPN is another peer's";
    const tarv_arp_data_t whole = heard(peer, record.qpn & generation_bits, TARV_ARP_OP_REPLY);
    if (!(record.gid == whole.gid))
        return "its GID is of another generation than its QPN";
    if (record.lid != whole.lid)
        return "its LID is of another generation than its QPN";
    if (record.qkey != whole.qkey || record.cap_flg != whole.cap_flg ||
        record.local_port_num != whole.local_port_num)
        return "its Q_Key, flags or port are of another generation than its QPN";
    return nullptr;
}

const char* Identities::fault_of_static(const tarv_arp_data_t& record) const {
    const u32 n = record.qpn & command_bits;
    if ((record.qpn & ~command_bits) == by_add_ib_arp) {
        const unsigned peer = record.dst_ip >> 24;
        const Station& at = station(peer, n);
        return record.gid == at.gid && record.lid == at.lid && record.qkey == mixed(n, 2) &&
                       record.local_port_num == 1 + (n & 1)
                   ? nullptr
                   : "what addibarp gave it is not of one command";
    }
    return (record.qpn & ~command_bits) == by_add && record.gid == gx_gid_t{} &&
                   record.lid == command_lid(n) && record.qkey == mixed(n, 1) &&
                   record.local_port_num == 1
               ? nullptr
               : "what add gave it is not of one command";
}

const char* Identities::fault_of_path(const ib_path_record_v2_t& path,
                                      const tarv_arp_data_t& record) const {
    if (path.flow_label != 0 && !follows_from_its_number(path))
        return "a path of it is not of one command";
    if (path.flow_label & by_add_path && path.slid != command_lid(path.flow_label & number_bits))
        return "a path of it has the source LID of another command";
    if (path.flow_label & by_set_static_path &&
        (!(path.dgid == record.gid) || path.dlid != record.lid))
        return "its static path does not lead to it";
    return is_station(path.dgid, path.dlid) ? nullptr
                                            : "the GID and the LID of a path are not of one port";
}

const char* Identities::fault_of(const tarv_arp_data_t& record, u32 address) const {
    if (record.dst_ip != address)
        return "it is another address's";
    if (record.primary_path != &record.paths[0] || record.secondary_path != &record.paths[1])
        return "its path pointers do not lead to its own paths";
    const char* fault = record.qpn & by_add ? fault_of_static(record) : fault_of_learned(record);
    if (!fault && record.mask & TARV_MASK_PRIMARY_PATH)
        fault = fault_of_path(record.paths[0], record);
    if (!fault && record.mask & TARV_MASK_SECONDARY_PATH)
        fault = fault_of_path(record.paths[1], record);
    return fault;
}

void Identities::check(const tarv_arp_data_t& record, u32 address, const char* when) const {
    if (const char* fault = fault_of(record, address))
        violation("torn record: %s handed to %s: %s (QPN 0x%06x, LID %u)", text_of(address).c_str(),
                  when, fault, record.qpn, record.lid);
}

}  // namespace stress
