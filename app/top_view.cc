// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/top_view.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <limits>
#include <sstream>

#include "app/report.h"
#include "app/table.h"
#include "tarv/tarv.h"

namespace app {
namespace {

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", value);
    return text;
}

std::string at_port(const char* name, const std::string& port) {
    return name + ("{port=\"" + port + "\"}");
}

std::string question(const char* name, const std::string& port, const char* what) {
    return name + ("{port=\"" + port + "\",for=\"") + what + "\"}";
}

/* Questions by ARP and for paths together. */
double both(const Samples& samples, const char* name, const std::string& port) {
    return samples.at(question(name, port, "arp")) + samples.at(question(name, port, "paths"));
}

std::string up_time(double seconds) {
    const auto all = static_cast<unsigned long>(seconds);
    char text[48];
    std::snprintf(text, sizeof text, "%lu:%02lu:%02lu", all / 3600, all / 60 % 60, all % 60);
    return text;
}

std::string first_label(const Samples& samples, const std::string& name, const std::string& label) {
    const std::vector<std::string> values = samples.labels(name, label);
    return values.empty() ? "" : values[0];
}

std::string format_host(const Samples& now, std::size_t width) {
    return wrap(printable(first_label(now, "tarv_host_info", "host")) + ", " +
                    printable(first_label(now, "tarv_host_info", "address")) + ", up " +
                    up_time(now.at("tarv_up_seconds")) + ", " +
                    format_bytes(static_cast<std::size_t>(now.at("tarv_memory_bytes"))) + "\n",
                width);
}

std::string format_bound(double seconds) {
    return seconds < 60     ? number(seconds) + " s"
           : seconds < 3600 ? number(seconds / 60) + " min"
                            : number(seconds / 3600) + " h";
}

/* How many entries were not used for how long; classes without any are left out. */
std::string format_ages(const Samples& now) {
    constexpr const char* name = "tarv_cache_idle_seconds_bucket";
    std::string text, shorter;
    double counted = 0;
    for (const std::string& bound : now.labels(name, "le")) {
        const double value = now.at(std::string(name) + "{le=\"" + bound + "\"}");
        const bool last = bound == "+Inf";
        if (value > counted)
            text += (text.empty() ? "; idle: " : ", ") + number(value - counted) +
                    (last ? " longer than " + shorter
                          : " up to " + format_bound(std::strtod(bound.c_str(), nullptr)));
        if (!last)
            shorter = format_bound(std::strtod(bound.c_str(), nullptr));
        counted = value;
    }
    return text;
}

std::string format_table_state(const Samples& now, std::size_t width) {
    const double by_hand = now.at("tarv_cache_static_entries");
    return wrap("Entries " + number(now.at("tarv_cache_entries")) +
                    (by_hand > 0 ? ", " + number(by_hand) + " by hand" : "") + format_ages(now) +
                    "\n",
                width) +
           wrap("Pending " + number(now.at("tarv_requests_pending{for=\"arp\"}")) + " for ARP, " +
                    number(now.at("tarv_requests_pending{for=\"paths\"}")) + " for paths\n",
                width);
}

double sum(const Samples& samples, const std::string& name) {
    double all = 0;
    for (const std::string& port : samples.labels(name, "port"))
        all += samples.at(at_port(name.c_str(), port));
    return all;
}

/* Of the clients: how much of it, and how often in a second of late. */
std::string format_requests(const Samples& now, const Samples& before, std::size_t width) {
    constexpr struct {
        const char* title;
        double (*value)(const Samples&);
    } rows[] = {
        {"hits", [](const Samples& s) { return sum(s, "tarv_cache_hits_total"); }},
        {"misses", [](const Samples& s) { return s.at("tarv_cache_misses_total"); }},
        {"refused", [](const Samples& s) { return s.at("tarv_requests_refused_total"); }},
        {"replies", [](const Samples& s) { return s.at("tarv_replies_total{status=\"ok\"}"); }},
        {"time-outs",
         [](const Samples& s) { return s.at("tarv_replies_total{status=\"timeout\"}"); }}};
    const double passed = now.at("tarv_up_seconds") - before.at("tarv_up_seconds");
    Table table{{{"clients"}, {"total", 'r'}}, {}};
    const bool rates = !before.empty() && passed > 0;
    if (rates)
        table.columns.push_back({"a second", 'r'});
    for (const auto& row : rows) {
        table.rows.push_back({row.title, number(row.value(now))});
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.1f", (row.value(now) - row.value(before)) / passed);
        if (rates)
            table.rows.back().push_back(rate);
    }
    return table.format(width);
}

std::string format_ports(const Samples& now, std::size_t width) {
    Table table{{{"port", 'r'},
                 {"link", 'l', 2},
                 {"LID", 'r', 3},
                 {"peers", 'r'},
                 {"hits", 'r', 1},
                 {"misses", 'r'},
                 {"paths asked", 'r', 4},
                 {"retries", 'r'},
                 {"time-outs", 'r'}},
                {}};
    for (const std::string& port : now.labels("tarv_port_up", "port"))
        table.rows.push_back({port, now.at(at_port("tarv_port_up", port)) > 0 ? "up" : "down",
                              number(now.at(at_port("tarv_port_lid", port))),
                              number(now.at(at_port("tarv_cache_port_entries", port))),
                              number(now.at(at_port("tarv_cache_hits_total", port))),
                              number(now.at(question("tarv_questions_total", port, "arp"))),
                              number(now.at(question("tarv_questions_total", port, "paths"))),
                              number(both(now, "tarv_retries_total", port)),
                              number(both(now, "tarv_timeouts_total", port))});
    return table.format(width);
}

/* A row of the table as the control file has it, which ends its hardware address with the LID. */
std::vector<std::string> entry_row(const std::string& line) {
    std::istringstream words(line);
    std::string address, type, flags, hardware;
    if (!(words >> address >> type >> flags >> hardware) || hardware.size() != 17)
        return {};
    const unsigned long mask = std::strtoul(flags.c_str(), nullptr, 16);
    const unsigned long lid =
        std::strtoul((hardware.substr(12, 2) + hardware.substr(15, 2)).c_str(), nullptr, 16);
    const int paths =
        ((mask & TARV_MASK_PRIMARY_PATH) != 0) + ((mask & TARV_MASK_SECONDARY_PATH) != 0);
    return {address, std::to_string(lid), std::to_string(paths), flags,
            mask & TARV_MASK_STATIC ? "by hand" : ""};
}

std::string format_entries(std::string_view control, double all, std::size_t width,
                           std::size_t rows) {
    Table table{{{"address"}, {"LID", 'r'}, {"paths", 'r'}, {"flags"}, {"", 'l', 1}}, {}};
    std::istringstream lines{std::string(control)};
    std::string line;
    for (std::getline(lines, line); std::getline(lines, line);)
        if (std::vector<std::string> row = entry_row(line); !row.empty())
            table.rows.push_back(std::move(row));
    if (table.rows.empty() || rows < 3)
        return {};
    all = std::max(all, static_cast<double>(table.rows.size()));
    if (table.rows.size() + 1 > rows)
        table.rows.resize(rows - 2);
    const auto left = all - static_cast<double>(table.rows.size());
    return table.format(width) + (left > 0 ? "... and " + number(left) + " more ...\n" : "");
}

}  // namespace

Samples::Samples(std::string_view text) {
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        const std::size_t blank = line.rfind(' ');
        if (line.starts_with('#') || blank == line.npos)
            continue;
        std::string name = line.substr(0, blank);
        values_[name] = std::strtod(line.c_str() + blank, nullptr);
        order_.push_back(std::move(name));
    }
}

double Samples::at(const std::string& sample) const {
    const auto found = values_.find(sample);
    return found == values_.end() ? 0 : found->second;
}

std::vector<std::string> Samples::labels(const std::string& name, const std::string& label) const {
    std::vector<std::string> result;
    for (const std::string& sample : order_) {
        const std::size_t at = sample.find(label + "=\"", name.size());
        if (!sample.starts_with(name + "{") || at == sample.npos)
            continue;
        const std::size_t begin = at + label.size() + 2;
        const std::string value = sample.substr(begin, sample.find('"', begin) - begin);
        if (std::ranges::find(result, value) == result.end())
            result.push_back(value);
    }
    return result;
}

std::string format_top(const Samples& now, const Samples& before, std::string_view control,
                       std::size_t width, std::size_t height) {
    const std::string head = format_host(now, width) + format_table_state(now, width) + "\n" +
                             format_requests(now, before, width) + "\n" + format_ports(now, width) +
                             "\n";
    const auto taken = static_cast<std::size_t>(std::ranges::count(head, '\n'));
    return cut(head + format_entries(control, now.at("tarv_cache_entries"), width,
                                     height > taken ? height - taken : 0),
               width, height);
}

}  // namespace app
