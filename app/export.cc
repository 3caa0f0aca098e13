// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/export.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "app/report.h"
#include "app/table.h"

namespace app {
namespace {

using Json = nlohmann::ordered_json;

constexpr int json_version = 1;

/* The number of the port of ours at which the path begins; 0: none. */
int port_of(const RecordPath& path, const std::vector<fabric::EndPort>& ports) {
    const auto at =
        std::ranges::find(ports, fabric::wire(path.record->sgid), &fabric::EndPort::gid);
    return at == ports.end() ? 0 : at->at.port;
}

std::vector<RecordPath> paths_of(const Peer& peer) {
    return peer.resolved ? app::paths_of(peer.record) : std::vector<RecordPath>();
}

const char* state_of(const Peer& peer) {
    return peer.resolved ? "resolved" : peer.asked ? "unresolved" : "not asked";
}

double gigabits(std::uint8_t rate) {
    return fabric::rate_bandwidth(rate) / 10.0;
}

Json hops_to_json(const RecordPath& path, Ways& ways) {
    Json all = Json::array();
    for (const Hop& hop : ways.hops(*path.record)) {
        Json row = {{"node", ways.name(hop)}};
        if (hop.in)
            row["in"] = hop.in;
        if (hop.out) {
            row["out"] = hop.out;
            row["rate_gbps"] = gigabits(hop.rate);
        }
        all.push_back(row);
    }
    return all;
}

Json to_json(const RecordPath& path, int port) {
    const ib_path_record_v2_t& record = *path.record;
    return {{"kind", path.kind},
            {"port", port},
            {"slid", record.slid},
            {"dlid", record.dlid},
            {"pkey", record.pkey},
            {"sl", record.sl},
            {"rate_gbps", gigabits(record.rate)},
            {"mtu", record.mtu >= 1 && record.mtu <= 5 ? 128 << record.mtu : 0}};
}

Json to_json(const fabric::Host& host, const Peer& peer, const std::vector<fabric::EndPort>& ports,
             Ways* ways) {
    Json row = {{"address", fabric::format_ip(host.ip)},
                {"host", host.machine()},
                {"rail", host.rail},
                {"state", state_of(peer)}};
    if (!peer.resolved) {
        row["reason"] = peer.why_not;
        return row;
    }
    row["lid"] = lid_of(peer.record);
    row["qpn"] = peer.record.qpn & 0xFFFFFF;
    row["gid"] = format_gid(peer.record.gid);
    row["paths"] = Json::array();
    for (const RecordPath& path : paths_of(peer)) {
        row["paths"].push_back(to_json(path, port_of(path, ports)));
        if (ways)
            row["paths"].back()["hops"] = hops_to_json(path, *ways);
    }
    Json& latency = row["latency_ns"] = Json::object();
    for (const auto& [key, duration] : {std::pair("resolution", peer.learned),
                                        {"arp", peer.arp},
                                        {"sa", peer.sa},
                                        {"cache", peer.cached}})
        if (duration)
            latency[key] = *duration;
    return row;
}

Json to_json(Machine& machine) {
    const fabric::Host& host = machine.site().our_host();
    Json ports = Json::array();
    for (const fabric::EndPort& port : our_ports(machine))
        ports.push_back({{"port", port.at.port}, {"lid", port.lid}, {"up", port.up}});
    return {{"address", fabric::format_ip(host.ip)},
            {"host", host.machine()},
            {"rail", host.rail},
            {"ports", ports}};
}

Json to_json(const ResolveCounts& counts) {
    return {{"requests_to_learn", counts.first_pass},
            {"requests_to_the_cache", counts.second_pass},
            {"cache_hits", counts.hits},
            {"arp_requests", counts.arp_requests},
            {"path_queries", counts.path_queries},
            {"retries", counts.retries},
            {"timeouts", counts.timeouts},
            {"elapsed_ms", counts.ticks}};
}

Json latencies_to_json(const std::vector<Peer>& peers) {
    Json all = Json::object();
    for (const Latencies& row : latencies_of(peers)) {
        const Quantiles q = row.quantiles();
        all[row.key] = {
            {"count", q.count}, {"p50", q.p50}, {"p90", q.p90}, {"p99", q.p99}, {"max", q.most}};
    }
    return all;
}

std::string csv_cell(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == text.npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text)
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    return quoted + "\"";
}

std::string csv_line(const std::vector<std::string>& cells) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i)
        line += (i ? "," : "") + csv_cell(cells[i]);
    return line + "\n";
}

std::string nanoseconds(const std::optional<Duration>& duration) {
    return duration ? std::to_string(*duration) : "";
}

}  // namespace

std::string to_json(Machine& machine, const Resolver& resolver, const std::vector<Peer>& peers,
                    const Departure& departure, Ways* ways) {
    Json rows = Json::array();
    const std::vector<fabric::EndPort> ports = our_ports(machine);
    for (const Peer& peer : peers)
        rows.push_back(to_json(machine.site().hosts[peer.host], peer, ports, ways));
    const Json result = {
        {"version", json_version},
        {"fabric", machine.site().topology.file},
        {"host", to_json(machine)},
        {"peers", rows},
        {"unresolved", std::ranges::count(resolver.peers(), false, &Peer::resolved)},
        {"counts", to_json(resolver.counts())},
        {"latency_ns", latencies_to_json(resolver.peers())},
        {"remains", departure.remains}};
    // Names may be of any bytes.
    return result.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string to_csv(Machine& machine, const std::vector<Peer>& peers) {
    const std::vector<fabric::EndPort> ports = our_ports(machine);
    std::vector<std::string> names = {"address", "host", "rail", "state",
                                      "reason",  "lid",  "qpn",  "gid"};
    for (const char* kind : {"primary", "secondary"})
        for (const char* field : {"port", "slid", "dlid", "rate", "mtu"})
            names.push_back(std::string(kind) + "_" + field);
    names.insert(names.end(), {"resolution_ns", "arp_ns", "sa_ns", "cache_ns"});
    std::string text = csv_line(names);
    for (const Peer& peer : peers) {
        const fabric::Host& host = machine.site().hosts[peer.host];
        std::vector<std::string> cells = {fabric::format_ip(host.ip), printable(host.machine()),
                                          printable(host.rail), state_of(peer), peer.why_not};
        cells.resize(8);
        if (peer.resolved) {
            cells[5] = std::to_string(lid_of(peer.record));
            cells[6] = format_qpn(peer.record.qpn);
            cells[7] = format_gid(peer.record.gid);
        }
        for (const RecordPath& path : paths_of(peer)) {
            cells.resize(path.kind == std::string("primary") ? 8 : 13);
            for (const unsigned number : {static_cast<unsigned>(port_of(path, ports)),
                                          unsigned{path.record->slid}, unsigned{path.record->dlid}})
                cells.push_back(std::to_string(number));
            cells.push_back(format_rate(path.record->rate));
            cells.push_back(format_mtu(path.record->mtu));
        }
        cells.resize(18);
        for (const auto& duration : {peer.learned, peer.arp, peer.sa, peer.cached})
            cells.push_back(nanoseconds(duration));
        text += csv_line(cells);
    }
    return text;
}

}  // namespace app
