// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/report.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <set>

namespace app {
namespace {

constexpr std::size_t first_shown = 10;  // of a table too long to be shown, and
constexpr std::size_t last_shown = 5;

using Row = std::vector<std::string>;

template <class... Arguments>
std::string text(const char* format, Arguments... arguments) {
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, format, arguments...);
    return buffer;
}

std::string count(std::size_t number, const char* noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

/* The paths that a record holds, primary first. */
std::vector<const ib_path_record_v2_t*> paths_of(const tarv_arp_data_t& record) {
    std::vector<const ib_path_record_v2_t*> paths;
    if (record.mask & TARV_MASK_PRIMARY_PATH)
        paths.push_back(&record.paths[0]);
    if (record.mask & TARV_MASK_SECONDARY_PATH)
        paths.push_back(&record.paths[1]);
    return paths;
}

/* "12 <- 11": the peer's LID and ours on the path that begins at a port of ours. */
std::string path_cell(const tarv_arp_data_t& record, const fabric::Gid& port) {
    for (const ib_path_record_v2_t* path : paths_of(record))
        if (fabric::wire(path->sgid) == port)
            return text("%u <- %u", unsigned{path->dlid}, unsigned{path->slid});
    return "-";
}

/* What all paths have, or each in its turn where they differ. */
template <class Format>
std::string property_cell(const tarv_arp_data_t& record, Format format) {
    Row values;
    for (const ib_path_record_v2_t* path : paths_of(record))
        values.push_back(format(*path));
    if (values.empty())
        return "-";
    if (std::ranges::count(values, values[0]) == static_cast<std::ptrdiff_t>(values.size()))
        return values[0];
    std::string cell;
    for (const std::string& value : values)
        cell += (cell.empty() ? "" : ", ") + value;
    return cell;
}

Row peer_row(const fabric::Host& host, const Peer& peer,
             const std::vector<fabric::EndPort>& ports) {
    const tarv_arp_data_t& record = peer.record;
    Row row = {fabric::format_ip(host.ip), host.name, std::to_string(record.lid),
               text("%06x", record.qpn & 0xFFFFFF), format_gid(record.gid)};
    for (const fabric::EndPort& port : ports)
        row.push_back(path_cell(record, port.gid));
    row.push_back(property_cell(record, [](const auto& path) { return format_rate(path.rate); }));
    row.push_back(property_cell(record, [](const auto& path) { return format_mtu(path.mtu); }));
    return row;
}

std::vector<fabric::EndPort> our_ports(Machine& machine) {
    std::vector<fabric::EndPort> ports;
    for (int number = 1; number <= machine.fabric().adapter().ports(); ++number)
        if (const fabric::EndPort port = machine.fabric().adapter().port(number); port.linked)
            ports.push_back(port);
    return ports;
}

std::size_t unresolved(const std::vector<Peer>& peers) {
    return static_cast<std::size_t>(std::ranges::count(peers, false, &Peer::resolved));
}

}  // namespace

std::string format_gid(const gx_gid_t& gid) {
    const fabric::Gid bytes = fabric::wire(gid);
    char buffer[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, bytes.data(), buffer, sizeof buffer);
}

std::string format_rate(std::uint8_t code) {
    const int bandwidth = fabric::rate_bandwidth(code);
    if (bandwidth == 0)
        return "-";
    return bandwidth % 10 ? text("%d.%d Gb/s", bandwidth / 10, bandwidth % 10)
                          : text("%d Gb/s", bandwidth / 10);
}

std::string format_mtu(std::uint8_t code) {
    return code >= 1 && code <= 5 ? std::to_string(128u << code) : "-";
}

std::string format_bytes(std::size_t bytes) {
    if (bytes < 1024)
        return count(bytes, "byte");
    if (bytes < 10 * 1024 * 1024)
        return std::to_string((bytes + 1023) / 1024) + " KiB";
    return std::to_string((bytes + 1024 * 1024 - 1) / (1024 * 1024)) + " MiB";
}

std::string format_seconds(unsigned long ticks) {
    return text("%lu.%03lu s", ticks / 1000, ticks % 1000);
}

std::string format_columns(const std::vector<Row>& rows, const std::string& sides) {
    std::vector<std::size_t> widths(sides.size());
    for (const Row& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    std::string result;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string padding(widths[i] - row[i].size(), ' ');
            line += (i ? "  " : "") + (sides[i] == 'r' ? padding + row[i] : row[i] + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        result += line + "\n";
    }
    return result;
}

std::string format_machine(Machine& machine) {
    const fabric::Topology& topology = machine.fabric().topology();
    const fabric::Host& host = machine.fabric().our_host();
    const auto adapters = static_cast<std::size_t>(
        std::ranges::count(topology.nodes, fabric::NodeKind::adapter, &fabric::Node::kind));
    const auto switches = static_cast<std::size_t>(
        std::ranges::count(topology.nodes, fabric::NodeKind::switch_node, &fabric::Node::kind));
    std::string result = "Fabric     " + topology.file + ": " + count(adapters, "host") + ", " +
                         std::to_string(switches) + (switches == 1 ? " switch" : " switches");
    result += "\nThis host  " + host.name + ", " + fabric::format_ip(host.ip);
    for (const fabric::EndPort& port : our_ports(machine))
        result +=
            text(", port %d LID %u", port.at.port, unsigned{port.lid}) + (port.up ? "" : " (down)");
    return result + "\n";
}

std::string format_peers(Machine& machine, const std::vector<Peer>& peers, std::size_t most) {
    std::vector<const Peer*> shown;
    for (const Peer& peer : peers)
        if (peer.resolved)
            shown.push_back(&peer);
    if (shown.empty())
        return {};
    const std::size_t all = shown.size();
    const bool cut = all > most && all > first_shown + last_shown;
    if (cut)
        shown.erase(shown.begin() + first_shown, shown.end() - last_shown);
    const std::vector<fabric::EndPort> ports = our_ports(machine);
    std::vector<Row> rows = {{"address", "host", "LID", "QPN", "GID"}};
    for (const fabric::EndPort& port : ports)
        rows[0].push_back(text("port %d", port.at.port));
    rows[0].insert(rows[0].end(), {"rate", "MTU"});
    for (const Peer* peer : shown)
        rows.push_back(peer_row(machine.fabric().hosts()[peer->host], *peer, ports));
    std::string table = format_columns(rows, "llrll" + std::string(ports.size(), 'r') + "rr");
    if (!cut)
        return table;
    std::size_t place = 0;
    for (std::size_t line = 0; line < 1 + first_shown; ++line)
        place = table.find('\n', place) + 1;
    return table.insert(place, "... and " + std::to_string(all - shown.size()) + " more ...\n");
}

std::string format_unresolved(Machine& machine, const std::vector<Peer>& peers) {
    std::vector<Row> rows;
    std::size_t not_asked = 0;
    std::string why_not;
    for (const Peer& peer : peers) {
        const fabric::Host& host = machine.fabric().hosts()[peer.host];
        if (!peer.asked) {
            ++not_asked;
            why_not = peer.why_not;
        } else if (!peer.resolved) {
            rows.push_back({"", fabric::format_ip(host.ip), host.name, peer.why_not});
        }
    }
    if (rows.empty() && not_asked == 0)
        return {};
    std::string result = "Not resolved:\n" + format_columns(rows, "llll");
    if (not_asked)
        result += "  " + count(not_asked, "peer") + " not asked for: " + why_not + "\n";
    return result;
}

std::string format_counts(const ResolveCounts& counts, const std::vector<Peer>& peers) {
    const std::vector<Row> rows = {
        {"peers", std::to_string(peers.size()),
         unresolved(peers) ? std::to_string(unresolved(peers)) + " not resolved" : "all resolved"},
        {"requests", std::to_string(counts.first_pass + counts.second_pass),
         std::to_string(counts.first_pass) + " to learn, " + std::to_string(counts.second_pass) +
             " more to ask the cache"},
        {"cache hits", std::to_string(counts.hits)},
        {"ARP requests", std::to_string(counts.traffic.arp_requests)},
        {"path queries", std::to_string(counts.traffic.path_queries)},
        {"retries", std::to_string(counts.traffic.repeats)},
        {"time-outs", std::to_string(counts.timeouts)},
        {"elapsed", format_seconds(counts.ticks)}};
    return format_columns(rows, "lrl");
}

std::string format_departure(const Departure& departure) {
    if (departure.remains.empty())
        return "Unloaded; nothing remains: " + count(departure.memory.allocations, "allocation") +
               " made and freed, " + format_bytes(departure.memory.peak_bytes) +
               " at most at one time;\nno timer armed, no datagram out, no name registered.\n";
    std::string result = "Unloaded, but not all is gone:\n";
    for (const std::string& line : departure.remains)
        result += "  " + line + "\n";
    return result;
}

}  // namespace app
