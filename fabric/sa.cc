// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Queries and the paths that answer them. How an answer travels, and how it is made wrong, is in
// sa_answer.cc.
#include "fabric/sa.h"

#include <algorithm>
#include <utility>

namespace fabric {
namespace {

// Components of a MultiPathRecord, as bits of the mask.
constexpr std::uint64_t with_reversible = 1 << 5;
constexpr std::uint64_t with_numb_path = 1 << 6;
constexpr std::uint64_t with_pkey = 1 << 7;
constexpr std::uint64_t with_sl = 1 << 9;
constexpr std::uint64_t with_mtu_selector = 1 << 10;
constexpr std::uint64_t with_mtu = 1 << 11;
constexpr std::uint64_t with_rate_selector = 1 << 12;
constexpr std::uint64_t with_rate = 1 << 13;
constexpr std::uint64_t with_life_time_selector = 1 << 14;
constexpr std::uint64_t with_life_time = 1 << 15;
constexpr std::uint64_t selectors =
    with_mtu_selector | with_rate_selector | with_life_time_selector;
constexpr std::uint64_t gid_counts_current = 3 << 19;
constexpr std::uint64_t gid_counts_original = 3 << 18;

constexpr std::uint16_t bad_rmpp = 0x0200;
constexpr std::uint16_t bad_gid = 0x0500;
constexpr std::uint16_t missing_component = 0x0600;
constexpr std::uint16_t unsupported = 0x000C;

constexpr std::uint64_t default_sm_key = 1;
constexpr std::uint8_t packet_life_time = 18;  // 4.096 us * 2^18
constexpr unsigned all_paths = 127;
constexpr std::uint8_t partly_redundant = 2;  // the preference of a path that shares a LID

enum Selector : std::uint8_t { greater_than = 0, less_than = 1, exactly = 2, largest = 3 };

/* What a path's value is taken for under a query's selector: a path can be used as one with less.
 * Empty when it does not suit. */
std::optional<std::uint8_t> narrowed(std::uint8_t selector, std::uint8_t wanted,
                                     std::uint8_t value) {
    if (selector == greater_than)
        return value > wanted ? std::optional(value) : std::nullopt;
    if (selector == exactly)
        return value >= wanted ? std::optional(wanted) : std::nullopt;
    if (selector == largest || value < wanted)
        return value;
    return wanted > 1 ? std::optional(static_cast<std::uint8_t>(wanted - 1)) : std::nullopt;
}

/* The same of a rate, whose codes are in no order, and which is not narrowed to an exact one. */
std::optional<std::uint8_t> narrowed_rate(std::uint8_t selector, std::uint8_t wanted,
                                          std::uint8_t value) {
    const int difference = data_bandwidth(value) - data_bandwidth(wanted);
    if (selector == greater_than)
        return difference > 0 ? std::optional(value) : std::nullopt;
    if (selector == exactly)
        return difference == 0 ? std::optional(value) : std::nullopt;
    if (selector == largest || difference < 0)
        return value;
    const std::uint8_t slower = next_slower_rate(wanted);
    return slower != 0 ? std::optional(slower) : std::nullopt;
}

/* Gives a path what the query asks of it; false when it cannot have that. A value without its
 * selector, or the other way round, asks for nothing. */
bool suit(std::uint64_t components, const MultiPathRecord& ask, PathRecord& path) {
    const auto settle = [&](std::uint64_t both, auto narrow, std::uint8_t selector,
                            std::uint8_t wanted, std::uint8_t& value) {
        if ((components & both) != both)
            return true;
        const std::optional<std::uint8_t> settled = narrow(selector, wanted, value);
        value = settled.value_or(value);
        return settled.has_value();
    };
    if ((components & with_sl) != 0)
        path.sl = ask.sl;
    if ((components & with_pkey) != 0)
        path.pkey = ask.pkey;
    return settle(with_mtu_selector | with_mtu, narrowed, ask.mtu_selector, ask.mtu, path.mtu) &&
           settle(with_rate_selector | with_rate, narrowed_rate, ask.rate_selector, ask.rate,
                  path.rate) &&
           settle(with_life_time_selector | with_life_time, narrowed, ask.life_time_selector,
                  ask.life_time, path.life_time);
}

/* What no SA answers, not even with a refusal: other methods than its questions have, and a key
 * that is neither none nor the one that all managers have unless they are given another. */
bool is_heard(const Bytes& mad, const MadHeader& header) {
    const bool known = header.method == method_get || header.method == method_get_table ||
                       header.method == method_get_multi;
    const auto sa = decode<SaHeader>(std::span(mad).subspan(std::min(mad.size(), sa_offset)));
    return known && (!sa || sa->sm_key == 0 || sa->sm_key == default_sm_key);
}

bool is_whole_request(const RmppHeader& rmpp) {
    constexpr std::uint8_t flags = rmpp_active | rmpp_first | rmpp_last;
    return rmpp.version == 1 && rmpp.type == rmpp_data && (rmpp.flags & flags) == flags &&
           rmpp.segment == 1;
}

std::vector<Gid> gids_at(std::span<const std::uint8_t> from, std::size_t count) {
    std::vector<Gid> gids(count);
    for (std::size_t i = 0; i < count; i++)
        std::copy_n(from.begin() + static_cast<std::ptrdiff_t>(i * sizeof(Gid)), sizeof(Gid),
                    gids[i].begin());
    return gids;
}

}  // namespace

Sa::Sa(Works& works, Subnet& subnet, Network& network)
    : works_(works), subnet_(subnet), network_(network) {}

void Sa::speak(SaDialect dialect) {
    MutexLock lock(mutex_);
    dialect_ = dialect;
}

unsigned long Sa::queries() const {
    MutexLock lock(mutex_);
    return queries_;
}

void Sa::receive(const Packet& packet) {
    std::optional<MadHeader> header = decode<MadHeader>(packet.payload);
    if (!header || header->management_class != sa_class || header->base_version != 1)
        return;
    std::optional<RmppHeader> rmpp = rmpp_header(packet.payload);
    if (rmpp && rmpp->type != rmpp_data)
        return acknowledged(packet, *header, *rmpp);
    if (rmpp && is_whole_request(*rmpp))
        transmit(envelope_to(packet), acknowledge(packet.payload, 1, 1), 0);
    if (!is_heard(packet.payload, *header))
        return;
    Query query;
    Answer answer;
    answer.header = *header;
    answer.header.method |= 0x80;
    answer.header.status = check(packet, *header, query);
    answer.sa.component_mask = query.components;
    if (answer.header.status == 0)
        answer.header.status = resolve(query, answer.records);
    {
        MutexLock lock(mutex_);
        queries_++;
        if (dialect_ == SaDialect::current && header->attribute == attribute_multi_path_record)
            answer.header.attribute = attribute_path_record;
    }
    apply_edits(answer);
    send(packet, answer);
}

/* Takes the query apart. The status with which it is to be refused, or 0. */
std::uint16_t Sa::check(const Packet& packet, const MadHeader& header, Query& query) const {
    if (header.method != method_get_multi || header.attribute != attribute_multi_path_record ||
        header.class_version != sa_class_version)
        return unsupported;
    std::optional<RmppHeader> rmpp = rmpp_header(packet.payload);
    if (!rmpp || !is_whole_request(*rmpp))
        return bad_rmpp;
    std::span<const std::uint8_t> block = std::span(packet.payload).subspan(sa_offset);
    std::optional<SaHeader> sa = decode<SaHeader>(block);
    if (!sa || block.size() < sa_header_size + MultiPathRecord::wire_size)
        return missing_component;
    query.components = sa->component_mask;
    query.record = *decode<MultiPathRecord>(block.subspan(sa_header_size));
    std::uint64_t required;
    {
        MutexLock lock(mutex_);
        required = dialect_ == SaDialect::current ? gid_counts_current : gid_counts_original;
    }
    if ((query.components & required) != required)
        return missing_component;
    std::span<const std::uint8_t> gids = block.subspan(sa_header_size + MultiPathRecord::wire_size);
    std::size_t sources = query.record.sgid_count;
    std::size_t all = sources + query.record.dgid_count;
    if (sources == 0 || all == sources || all * sizeof(Gid) > gids.size())
        return missing_component;
    query.sgids = gids_at(gids, sources);
    query.dgids = gids_at(gids.subspan(sources * sizeof(Gid)), all - sources);
    return 0;
}

std::uint16_t Sa::resolve(const Query& query, Bytes& records) const {
    std::vector<std::pair<EndPort, EndPort>> pairs;
    for (const Gid& sgid : query.sgids) {
        for (const Gid& dgid : query.dgids) {
            std::optional<EndPort> from = subnet_.by_gid(sgid);
            std::optional<EndPort> to = subnet_.by_gid(dgid);
            if (!from || !to || !from->up || !to->up)
                return bad_gid;
            pairs.emplace_back(*from, *to);
        }
    }
    unsigned room = (query.components & with_numb_path) != 0 ? query.record.numb_path : all_paths;
    for (const auto& [from, to] : pairs)
        add_paths(query, from, to, room, records);
    return 0;
}

/* All paths between two ports, as long as there is room: first those that have neither LID in
 * common, then the others, which are preferred less. */
void Sa::add_paths(const Query& query, const EndPort& from, const EndPort& to, unsigned& room,
                   Bytes& records) const {
    const auto add = [&](unsigned source, unsigned destination, std::uint8_t preference) {
        if (room == 0)
            return;
        std::optional<PathRecord> record = path(query, from, to, source, destination);
        if (!record)
            return;
        record->slid = static_cast<std::uint16_t>(from.lid + source);
        record->dlid = static_cast<std::uint16_t>(to.lid + destination);
        record->preference = preference;
        records.resize(records.size() + PathRecord::wire_size);
        encode(*record, std::span(records).last(PathRecord::wire_size));
        room--;
    };
    const unsigned sources = 1u << from.lmc;
    const unsigned destinations = 1u << to.lmc;
    for (unsigned i = 0; i < std::min(sources, destinations); i++)
        add(i, i, 0);
    for (unsigned i = 0; i < sources && room > 0; i++)
        for (unsigned j = 0; j < destinations; j++)
            if (i != j)
                add(i, j, partly_redundant);
}

/* The path between two LIDs, counted from the base LIDs of their ports; empty when there is none
 * that suits. It can be used in reverse when the way back suits, too; which it does where nothing
 * is asked that the two may differ in. */
std::optional<PathRecord> Sa::path(const Query& query, const EndPort& from, const EndPort& to,
                                   unsigned source, unsigned destination) const {
    std::optional<PathRecord> record = one_way(query, from, to, destination);
    if (!record)
        return std::nullopt;
    record->reversible =
        (query.components & selectors) == 0 || one_way(query, to, from, source).has_value();
    const bool unwanted = (query.components & with_reversible) != 0 &&
                          query.record.reversible != 0 && record->reversible == 0;
    return unwanted ? std::nullopt : record;
}

std::optional<PathRecord> Sa::one_way(const Query& query, const EndPort& from, const EndPort& to,
                                      unsigned destination) const {
    std::optional<Way> way = subnet_.way(from.at, to.at, destination);
    std::optional<std::uint16_t> wanted;
    if ((query.components & with_pkey) != 0)
        wanted = query.record.pkey;
    std::optional<std::uint16_t> pkey = subnet_.common_pkey(from.at, to.at, wanted);
    if (!way || !pkey)
        return std::nullopt;
    PathRecord record;
    record.dgid = to.gid;
    record.sgid = from.gid;
    record.pkey = *pkey;
    record.mtu_selector = record.rate_selector = record.life_time_selector = exactly;
    record.mtu = way->mtu;
    record.rate = way->rate;
    record.life_time = way->hops == 0 ? std::uint8_t{0} : packet_life_time;
    return suit(query.components, query.record, record) ? std::optional(record) : std::nullopt;
}

}  // namespace fabric
