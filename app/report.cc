// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/report.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "app/table.h"

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

/* "12 <- 11": the peer's LID and ours on the path that begins at a port of ours. */
std::string path_cell(const tarv_arp_data_t& record, const fabric::Gid& port) {
    for (const auto& [kind, path] : paths_of(record))
        if (fabric::wire(path->sgid) == port)
            return text("%u <- %u", unsigned{path->dlid}, unsigned{path->slid});
    return "-";
}

/* What all paths have, or each in its turn where they differ. */
template <class Format>
std::string property_cell(const tarv_arp_data_t& record, Format format) {
    Row values;
    for (const auto& [kind, path] : paths_of(record))
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
    Row row = {fabric::format_ip(host.ip),     printable(host.machine()), printable(host.rail),
               std::to_string(lid_of(record)), format_qpn(record.qpn),    format_gid(record.gid)};
    for (const fabric::EndPort& port : ports)
        row.push_back(path_cell(record, port.gid));
    row.push_back(property_cell(record, [](const auto& path) { return format_rate(path.rate); }));
    row.push_back(property_cell(record, [](const auto& path) { return format_mtu(path.mtu); }));
    return row;
}

/* What is left out first where there is no room stands last. */
enum Rank { always, rail, lid, rate, mtu, ways, qpn, gid };

Table peer_table(const std::vector<fabric::EndPort>& ports) {
    Table table{{{"address"},
                 {"host"},
                 {"rail", 'l', rail},
                 {"LID", 'r', lid},
                 {"QPN", 'l', qpn},
                 {"GID", 'l', gid}},
                {}};
    for (const fabric::EndPort& port : ports)
        table.columns.push_back({text("port %d", port.at.port), 'r', ways});
    table.columns.push_back({"rate", 'r', rate});
    table.columns.push_back({"MTU", 'r', mtu});
    return table;
}

/* Takes the column away, where it says nothing. */
void drop_column(Table& table, std::size_t number) {
    table.columns.erase(table.columns.begin() + static_cast<std::ptrdiff_t>(number));
    for (Row& row : table.rows)
        row.erase(row.begin() + static_cast<std::ptrdiff_t>(number));
}

std::string say_what_is_left_out(const Table& table, std::size_t width) {
    std::string names;
    for (const std::string& title : table.left_out(width))
        names += (names.empty() ? "" : ", ") + title;
    return names.empty() ? "" : "No room for " + names + ".\n";
}

std::size_t unresolved(const std::vector<Peer>& peers) {
    return static_cast<std::size_t>(std::ranges::count(peers, false, &Peer::resolved));
}

}  // namespace

std::vector<fabric::EndPort> our_ports(Machine& machine) {
    std::vector<fabric::EndPort> ports;
    for (int number = 1; number <= machine.adapter().ports(); ++number)
        if (const fabric::EndPort port = machine.adapter().port(number); port.linked)
            ports.push_back(port);
    return ports;
}

std::vector<Peer> choose_peers(Machine& machine, std::vector<Peer> peers, const std::string& only,
                               const std::string& sort) {
    const auto& hosts = machine.site().hosts;
    if (!only.empty())
        std::erase_if(peers,
                      [&](const Peer& peer) { return peer.resolved != (only == "resolved"); });
    const auto by = [&](auto key) { std::ranges::stable_sort(peers, {}, key); };
    if (sort == "address")
        by([&](const Peer& peer) { return ntohl(hosts[peer.host].ip); });
    else if (sort == "host")
        by([&](const Peer& peer) { return hosts[peer.host].name; });
    else if (sort == "lid")
        by([](const Peer& peer) { return lid_of(peer.record); });
    else if (sort == "latency")
        by([](const Peer& peer) { return ~peer.learned.value_or(~Duration{0}); });
    return peers;
}

std::vector<RecordPath> paths_of(const tarv_arp_data_t& record) {
    std::vector<RecordPath> paths;
    if (record.mask & TARV_MASK_PRIMARY_PATH)
        paths.push_back({"primary", &record.paths[0]});
    if (record.mask & TARV_MASK_SECONDARY_PATH)
        paths.push_back({"secondary", &record.paths[1]});
    return paths;
}

unsigned lid_of(const tarv_arp_data_t& record) {
    return record.mask & TARV_MASK_PRIMARY_PATH ? record.paths[0].dlid : record.lid;
}

std::string format_gid(const gx_gid_t& gid) {
    const fabric::Gid bytes = fabric::wire(gid);
    char buffer[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, bytes.data(), buffer, sizeof buffer);
}

std::string format_qpn(std::uint32_t qpn) {
    return text("0x%06x", qpn & 0xFFFFFF);
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
        return counted(bytes, "byte");
    if (bytes < 10 * 1024 * 1024)
        return std::to_string((bytes + 1023) / 1024) + " KiB";
    return std::to_string((bytes + 1024 * 1024 - 1) / (1024 * 1024)) + " MiB";
}

std::string format_seconds(unsigned long ticks) {
    return text("%lu.%03lu s", ticks / 1000, ticks % 1000);
}

/* What our host is on. */
std::string format_surroundings(const Site& site) {
    const std::string adapter =
        site.device ? "Adapter    " + printable(site.device->device().name()) : "";
    if (site.interface)
        return adapter + ", interface " + printable(site.interface->name);
    std::set<std::string> machines;
    for (const fabric::Host& host : site.hosts)
        if (host.node >= 0)
            machines.insert(host.machine());
    const auto switches = static_cast<std::size_t>(std::ranges::count(
        site.topology.nodes, fabric::NodeKind::switch_node, &fabric::Node::kind));
    return (adapter.empty() ? "" : adapter + "\n") + "Fabric     " + printable(site.topology.file) +
           ": " + counted(machines.size(), "host") + ", " + counted(switches, "switch", "es");
}

std::string format_machine(Machine& machine, std::size_t width) {
    const fabric::Host& host = machine.site().our_host();
    std::string result = format_surroundings(machine.site());
    result += "\nThis host  " + printable(host.name) + ", " + fabric::format_ip(host.ip);
    for (const fabric::EndPort& port : our_ports(machine))
        result +=
            text(", port %d LID %u", port.at.port, unsigned{port.lid}) + (port.up ? "" : " (down)");
    return wrap(result + "\n", width, std::string("This host  ").size());
}

std::string format_peers(Machine& machine, const std::vector<Peer>& peers, std::size_t width,
                         std::size_t most) {
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
    Table table = peer_table(ports);
    for (const Peer* peer : shown)
        table.rows.push_back(peer_row(machine.site().hosts[peer->host], *peer, ports));
    constexpr std::size_t rail_column = 2;
    if (std::ranges::all_of(table.rows, [](const Row& row) { return row[rail_column].empty(); }))
        drop_column(table, rail_column);
    std::string lines = table.format(width) + say_what_is_left_out(table, width);
    if (!cut)
        return lines;
    std::size_t place = 0;
    for (std::size_t line = 0; line < 1 + first_shown; ++line)
        place = lines.find('\n', place) + 1;
    return lines.insert(place, "... and " + std::to_string(all - shown.size()) + " more ...\n");
}

std::string format_records(Machine& machine, const std::vector<Peer>& peers) {
    std::string result;
    for (const Peer& peer : peers) {
        if (!peer.resolved)
            continue;
        const fabric::Host& host = machine.site().hosts[peer.host];
        const tarv_arp_data_t& record = peer.record;
        result += fabric::format_ip(host.ip) + "  " + printable(host.name) + "\n";
        result += text("  GID %s, QPN %s, flags 0x%02x, LID %u, through port %u\n",
                       format_gid(record.gid).c_str(), format_qpn(record.qpn).c_str(),
                       unsigned{record.cap_flg}, lid_of(record), record.local_port_num);
        for (const auto& [kind, path] : paths_of(record))
            result +=
                text("  %-9s path  LID %u -> %u, %s, MTU %s, SL %u, P_Key 0x%04x, from %s\n", kind,
                     unsigned{path->slid}, unsigned{path->dlid}, format_rate(path->rate).c_str(),
                     format_mtu(path->mtu).c_str(), unsigned{path->sl}, unsigned{path->pkey},
                     format_gid(path->sgid).c_str());
    }
    return result;
}

std::string format_unresolved(Machine& machine, const std::vector<Peer>& peers, std::size_t width) {
    Table table{{{""}, {""}, {""}, {"reason", 'l', 1}}, {}};
    std::map<std::string, std::size_t> reasons;
    std::size_t not_asked = 0;
    std::string why_not;
    for (const Peer& peer : peers) {
        const fabric::Host& host = machine.site().hosts[peer.host];
        if (!peer.asked) {
            ++not_asked;
            why_not = peer.why_not;
        } else if (!peer.resolved) {
            table.rows.push_back(
                {"", fabric::format_ip(host.ip), printable(host.name), peer.why_not});
            ++reasons[peer.why_not];
        }
    }
    if (table.rows.empty() && not_asked == 0)
        return {};
    const bool told_apart = table.left_out(width).empty();
    table.columns[3].title.clear();
    std::string result = "Not resolved:\n" + table.format(width);
    if (!told_apart)
        for (const auto& [reason, times] : reasons)
            result += std::to_string(times) + ": " + reason + "\n";
    if (not_asked)
        result += "  " + counted(not_asked, "peer") + " not asked for: " + why_not + "\n";
    return result;
}

std::string format_counts(const ResolveCounts& counts, const std::vector<Peer>& peers,
                          std::size_t width) {
    Table table{{{""}, {"", 'r'}, {"", 'l', 1}}, {}};
    table.rows = {
        {"peers", std::to_string(peers.size()),
         unresolved(peers) ? std::to_string(unresolved(peers)) + " not resolved" : "all resolved"},
        {"requests", std::to_string(counts.first_pass + counts.second_pass),
         std::to_string(counts.first_pass) + " to learn, " + std::to_string(counts.second_pass) +
             " more to ask the cache"},
        {"cache hits", std::to_string(counts.hits)},
        {"ARP requests", std::to_string(counts.arp_requests)},
        {"path queries", std::to_string(counts.path_queries)},
        {"retries", std::to_string(counts.retries)},
        {"time-outs", std::to_string(counts.timeouts)},
        {"elapsed", format_seconds(counts.ticks)}};
    return table.format(width);
}

std::string format_departure(const Departure& departure, std::size_t width) {
    std::string result =
        departure.capture_whole ? "" : "The capture is not whole: its file could not be written.\n";
    if (departure.remains.empty())
        return wrap(result + "Unloaded; nothing remains: " +
                        counted(departure.memory.allocations, "allocation") + " made and freed, " +
                        format_bytes(departure.memory.peak_bytes) +
                        " at most;\nno timer armed, no datagram out, no name registered.\n",
                    width);
    result += "Unloaded, but not all is gone:\n";
    for (const std::string& line : departure.remains)
        result += "  " + line + "\n";
    return result;
}

}  // namespace app
