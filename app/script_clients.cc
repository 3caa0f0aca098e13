// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verbs with which a script acts on the module as its clients and as its driver.
#include <algorithm>
#include <cstring>
#include <limits>

#include "app/script_verbs.h"

namespace app {
namespace {

constexpr std::uint64_t any_u32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t most_times = 10000;

/* A number is what a client may pass too, though it means none of the three. */
tarv_paths_t read_paths(ScriptLine& line) {
    constexpr std::pair<const char*, tarv_paths_t> names[] = {
        {"none", tarv_paths_none}, {"primary", tarv_paths_primary}, {"both", tarv_paths_both}};
    for (const auto& [name, paths] : names)
        if (line.take(name))
            return paths;
    if (const auto number = line.number_if("paths", 255))
        return static_cast<tarv_paths_t>(*number);
    line.fail("\"" + line.word("none, primary or both") +
              "\" is neither none nor primary nor both");
}

/* What a script's client can do beyond one at the console. */
bool read_more_of_request(ScriptLine& line, ScriptRequest& request) {
    if (line.take("in-driver"))
        request.in_driver = true;
    else if (line.take("again"))
        request.again = true;
    else if (line.take("times"))
        request.times = static_cast<unsigned>(line.number("N", most_times));
    else
        return false;
    return true;
}

/* What an ARP packet said, where a word said it; the rest is the peer's own. */
struct ArpWords {
    std::optional<std::uint64_t> operation, port, lid, qpn, qkey, flags, mask;
    std::optional<gx_gid_t> gid;
    std::optional<gx_gid_t> path_from;  // the record brings a path of its own
    std::vector<std::pair<std::uint64_t, std::string>>
        replaced;  // bytes of the record, at an offset
};

struct ArpWord {
    const char* name;
    std::optional<std::uint64_t> ArpWords::*value;
    std::uint64_t most;
};
constexpr ArpWord arp_words[] = {
    {"op", &ArpWords::operation, 0xFFFF}, {"port", &ArpWords::port, any_u32},
    {"lid", &ArpWords::lid, 0xFFFF},      {"qpn", &ArpWords::qpn, any_u32},
    {"qkey", &ArpWords::qkey, any_u32},   {"flags", &ArpWords::flags, 0xFF},
    {"mask", &ArpWords::mask, any_u32},
};

void read_arp_word(ScriptLine& line, ArpWords& words) {
    if (line.take("gid")) {
        words.gid = line.gid("GID");
        return;
    }
    if (line.take("path-from")) {
        words.path_from = line.gid("GID");
        return;
    }
    if (line.take("bytes")) {
        const std::uint64_t offset = line.number("OFFSET", sizeof(tarv_arp_data_t));
        words.replaced.emplace_back(offset, line.bytes("HEX"));
        if (offset + words.replaced.back().second.size() > sizeof(tarv_arp_data_t))
            line.fail("the bytes reach beyond the record");
        return;
    }
    for (const ArpWord& row : arp_words)
        if (line.take(row.name)) {
            words.*row.value = line.number(row.name, row.most);
            return;
        }
    line.fail("\"" + line.word("") + "\" is not understood");
}

tarv_arp_data_t make_record(fabric::Fabric& fabric, const ArpWords& words, std::uint32_t from,
                            std::uint32_t to) {
    const bool known = fabric.peers().has(from);
    const fabric::Station peer = known ? fabric.peers().station(from) : fabric::Station{};
    tarv_arp_data_t record{};
    record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
                  TARV_MASK_LID | TARV_MASK_QKEY | TARV_MASK_CAP_FLG | TARV_MASK_LOCAL_PORT;
    record.arp_operation = static_cast<u16>(*words.operation);
    record.src_ip = from;
    record.dst_ip = to;
    record.gid = words.gid.value_or(fabric::held(peer.gid));
    record.qpn = static_cast<u32>(words.qpn.value_or(peer.qpn));
    record.lid = static_cast<gx_lid_t>(words.lid.value_or(peer.lid));
    record.qkey = static_cast<u32>(words.qkey.value_or(fabric::broadcast_qkey));
    record.cap_flg = static_cast<u8>(words.flags.value_or(peer.flags));
    record.local_port_num =
        static_cast<u32>(words.port.value_or(static_cast<std::uint64_t>(fabric.ipoib().port())));
    if (words.path_from) {
        record.mask |= TARV_MASK_PRIMARY_PATH;
        record.paths_count = 1;
        record.paths[0].dgid = record.gid;
        record.paths[0].sgid = *words.path_from;
        record.paths[0].dlid = record.lid;
    }
    record.mask = static_cast<u32>(words.mask.value_or(record.mask));
    for (const auto& [offset, bytes] : words.replaced)
        std::memcpy(reinterpret_cast<char*>(&record) + offset, bytes.data(), bytes.size());
    return record;
}

}  // namespace

ScriptRequest read_request(ScriptLine& line, const ScriptReading& reading,
                           bool (*more)(ScriptLine&, ScriptRequest&)) {
    ScriptRequest request;
    request.ip = reading.ip(line);
    request.from = reading.site->our_host().ip;
    while (!line.at_end()) {
        if (line.take("from"))
            request.from = reading.ip(line);
        else if (line.take("paths"))
            request.paths = read_paths(line);
        else if (line.take("invalidate"))
            request.invalidate = true;
        else if (line.take("no-callback"))
            request.callback = false;
        else if (!more || !more(line, request))
            line.fail("\"" + line.word("") + "\" is not understood");
    }
    return request;
}

ScriptAction read_resolve(ScriptLine& line, ScriptReading& reading) {
    const ScriptRequest request = read_request(line, reading, read_more_of_request);
    return [request](ScriptHost& host, const std::string&) { host.resolve(request); };
}

ScriptAction read_lookup_gid(ScriptLine& line, ScriptReading&) {
    const gx_gid_t gid = line.gid("GID");
    return [gid](ScriptHost& host, const std::string&) { host.look_up(gid); };
}

ScriptAction read_arp(ScriptLine& line, ScriptReading& reading) {
    ArpWords words;
    if (line.take("request"))
        words.operation = TARV_ARP_OP_REQUEST;
    else if (line.take("reply"))
        words.operation = TARV_ARP_OP_REPLY;
    else
        line.fail("request or reply is missing");
    if (!line.take("from"))
        line.fail("from is missing");
    const std::uint32_t from = reading.ip(line);
    const std::uint32_t to = line.take("to") ? reading.ip(line) : reading.site->our_host().ip;
    while (!line.at_end())
        read_arp_word(line, words);
    return [words, from, to](ScriptHost& host, const std::string&) {
        host.hear(make_record(host.fabric(), words, from, to));
    };
}

ScriptAction read_attach(ScriptLine&, ScriptReading&) {
    return [](ScriptHost& host, const std::string&) { host.attach_driver(); };
}

ScriptAction read_detach(ScriptLine&, ScriptReading&) {
    return [](ScriptHost& host, const std::string&) { host.detach_driver(); };
}

ScriptAction read_driver(ScriptLine& line, ScriptReading&) {
    if (line.take("quick")) {
        const auto count = static_cast<unsigned>(line.number_if("N", any_u32).value_or(1));
        return [count](ScriptHost& host, const std::string&) {
            host.fabric().ipoib().answer_inside_next(count);
        };
    }
    if (!line.take("pkey"))
        line.fail("quick or pkey is missing");
    const auto pkey = static_cast<std::uint16_t>(line.number("N", 0xFFFF));
    return [pkey](ScriptHost& host, const std::string&) { host.fabric().ipoib().set_pkey(pkey); };
}

}  // namespace app
