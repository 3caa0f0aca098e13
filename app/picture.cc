// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/picture.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "app/report.h"
#include "app/table.h"

namespace app {
namespace {

constexpr std::size_t most_single_hosts = 48;

struct Link {
    std::size_t count = 0;
    std::uint8_t rate = 0;  // of the slowest
};

using Pair = std::pair<int, int>;

class Picture {
  public:
    explicit Picture(const Site& site) : site_(site), nodes_(site.topology.nodes) {
        put_into_boxes();
        find_levels();
        join();
    }
    std::string text() const;
    std::string drawing() const;

  private:
    /* Where a box is drawn. */
    struct Place {
        std::string label;
        double x = 0, y = 0, width = 0;  // of its middle
    };
    std::map<int, Place> places() const;
    void set_out(const std::vector<int>& row, std::map<int, Place>& places, double width) const;
    bool is_slow(const Pair& ends, const Link& link) const;
    const char* colour(int box) const;
    bool is_host(int node) const { return at(node).kind == fabric::NodeKind::adapter; }
    const fabric::Node& at(int node) const { return nodes_[static_cast<std::size_t>(node)]; }
    std::multiset<int> neighbours(int node) const;
    void put_into_boxes();
    void find_levels();
    void join();
    std::string host_name(int node) const;
    std::string label(int box, const std::vector<int>& members) const;

    const Site& site_;
    const std::vector<fabric::Node>& nodes_;
    std::map<int, std::vector<int>> boxes_;  // nodes, by the first of them
    std::vector<int> box_of_;
    std::vector<int> levels_;  // of nodes: how far above the hosts
    Pair levels_of(int upper, int lower) const {
        return {levels_[static_cast<std::size_t>(upper)], levels_[static_cast<std::size_t>(lower)]};
    }
    std::map<Pair, Link> links_;            // by the boxes, the upper one first
    std::map<Pair, std::uint8_t> fastest_;  // by their levels
};

std::multiset<int> Picture::neighbours(int node) const {
    std::multiset<int> result;
    for (const fabric::Port& port : at(node).ports)
        if (port.linked)
            result.insert(port.remote_node);
    return result;
}

void Picture::put_into_boxes() {
    const bool large =
        static_cast<std::size_t>(std::ranges::count(nodes_, fabric::NodeKind::adapter,
                                                    &fabric::Node::kind)) > most_single_hosts;
    std::map<std::multiset<int>, int> alike;
    for (int node = 0; node < static_cast<int>(nodes_.size()); ++node) {
        const bool single = !large || !is_host(node) || node == site_.our_host().node;
        const int box = single ? node : alike.try_emplace(neighbours(node), node).first->second;
        box_of_.push_back(box);
        boxes_[box].push_back(node);
    }
}

/* Breadth first, beginning with all hosts. */
void Picture::find_levels() {
    levels_.assign(nodes_.size(), -1);
    std::vector<int> found;
    for (int node = 0; node < static_cast<int>(nodes_.size()); ++node)
        if (is_host(node)) {
            levels_[static_cast<std::size_t>(node)] = 0;
            found.push_back(node);
        }
    for (std::size_t next = 0; next < found.size(); ++next)
        for (const int above : neighbours(found[next]))
            if (int& level = levels_[static_cast<std::size_t>(above)]; level < 0) {
                level = levels_[static_cast<std::size_t>(found[next])] + 1;
                found.push_back(above);
            }
}

void Picture::join() {
    for (int node = 0; node < static_cast<int>(nodes_.size()); ++node)
        for (const fabric::Port& port : at(node).ports) {
            if (!port.linked || port.remote_node < node)
                continue;
            int upper = node, lower = port.remote_node;
            if (levels_[static_cast<std::size_t>(upper)] < levels_[static_cast<std::size_t>(lower)])
                std::swap(upper, lower);
            Link& link = links_[{box_of_[static_cast<std::size_t>(upper)],
                                 box_of_[static_cast<std::size_t>(lower)]}];
            ++link.count;
            link.rate = fabric::slower_rate(link.rate, port.rate);
            std::uint8_t& fastest = fastest_[levels_of(upper, lower)];
            if (fabric::rate_bandwidth(port.rate) > fabric::rate_bandwidth(fastest))
                fastest = port.rate;
        }
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text)
        result += c == '\n' ? "\\n" : c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    return result + "\"";
}

std::string Picture::host_name(int node) const {
    const auto host = std::ranges::find(site_.hosts, node, &fabric::Host::node);
    return printable(host == site_.hosts.end() ? at(node).name : host->name);
}

std::string Picture::label(int box, const std::vector<int>& members) const {
    if (!is_host(box))
        return printable(at(box).name);
    if (members.size() > 1)
        return std::to_string(members.size()) + " hosts\n" + host_name(members.front()) + " … " +
               host_name(members.back());
    const auto host = std::ranges::find(site_.hosts, box, &fabric::Host::node);
    return host_name(box) + (host == site_.hosts.end() ? "" : "\n" + fabric::format_ip(host->ip));
}

const char* Picture::colour(int box) const {
    return box == site_.our_host().node ? "gold" : is_host(box) ? "white" : "lightgrey";
}

bool Picture::is_slow(const Pair& ends, const Link& link) const {
    const std::uint8_t fastest = fastest_.at(levels_of(ends.first, ends.second));
    return fabric::rate_bandwidth(link.rate) < fabric::rate_bandwidth(fastest);
}

std::string Picture::text() const {
    std::string dot = "graph " + quoted(printable(site_.topology.file)) +
                      " {\n  ranksep=1.5;\n"
                      "  node [shape=box, fontname=\"sans-serif\", fontsize=10];\n"
                      "  edge [fontname=\"sans-serif\", fontsize=8];\n";
    for (const auto& [box, members] : boxes_) {
        const std::string fill = colour(box);
        dot += "  n" + std::to_string(box) + " [label=" + quoted(label(box, members)) +
               (fill == "white" ? "" : ", style=filled, fillcolor=" + fill) + "];\n";
    }
    for (const auto& [ends, link] : links_) {
        dot += "  n" + std::to_string(ends.first) + " -- n" + std::to_string(ends.second) +
               " [tooltip=" + quoted(format_rate(link.rate)) +
               (link.count > 1 ? ", penwidth=2, label=" + quoted(std::to_string(link.count) + "x")
                               : "") +
               (is_slow(ends, link) ? ", color=red" : "") + "];\n";
    }
    return dot + "}\n";
}

// The drawing's measures, in its own units.
constexpr double least_row_height = 130, widest = 6 /* times its height */, box_height = 34,
                 gap = 12, letter = 6.5;

double width_of(const std::string& label) {
    std::size_t longest = 0;
    for (std::size_t at = 0; at <= label.size();) {
        const std::size_t end = std::min(label.find('\n', at), label.size());
        longest = std::max(longest, display_width(label.substr(at, end - at)));
        at = end + 1;
    }
    return 2 * gap + letter * static_cast<double>(longest);
}

/* Side by side over the whole width. */
void Picture::set_out(const std::vector<int>& row, std::map<int, Place>& places,
                      double width) const {
    double taken = 0;
    for (const int box : row)
        taken += places.at(box).width;
    const double between = (width - taken) / static_cast<double>(row.size() + 1);
    double x = 0;
    for (const int box : row) {
        Place& place = places.at(box);
        place.x = x + between + place.width / 2;
        x += between + place.width;
    }
}

/* The highest level stands above. Below it each row is in the order of what it is linked to, which
 * leaves few crossings. */
std::map<int, Picture::Place> Picture::places() const {
    std::map<int, Place> places;
    std::map<int, std::vector<int>, std::greater<>> rows;
    std::map<int, double> taken;
    for (const auto& [box, members] : boxes_) {
        const int level = std::max(levels_[static_cast<std::size_t>(box)], is_host(box) ? 0 : 1);
        const std::string name = label(box, members);
        places[box] = {name, 0, 0, width_of(name)};
        rows[level].push_back(box);
        taken[level] += places[box].width + gap;
    }
    double width = 0, y = box_height;
    for (const auto& [level, row_width] : taken)
        width = std::max(width, row_width + gap);
    const double row_height =
        std::max(least_row_height, width / widest / static_cast<double>(rows.size()));
    for (auto& [level, row] : rows) {
        std::map<int, std::pair<double, int>> above;  // sum of the places and how many
        for (const auto& [ends, link] : links_)
            if (places.at(ends.first).y > 0) {
                above[ends.second].first += places.at(ends.first).x;
                ++above[ends.second].second;
            }
        std::ranges::stable_sort(row, {}, [&](int box) {
            const auto found = above.find(box);
            return found == above.end() ? 0 : found->second.first / found->second.second;
        });
        set_out(row, places, width);
        for (const int box : row)
            places.at(box).y = y;
        y += row_height;
    }
    return places;
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text)
        result += c == '<' ? "&lt;" : c == '&' ? "&amp;" : std::string{c};
    return result;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string text_at(double x, double y, const std::string& text, const char* attributes = "") {
    return "<text" + std::string(attributes) + " x='" + number(x) + "' y='" + number(y) + "'>" +
           escaped(text) + "</text>";
}

std::string Picture::drawing() const {
    const std::map<int, Place> places = this->places();
    double width = 0, height = 0;
    std::string lines, boxes;
    for (const auto& [box, place] : places) {
        width = std::max(width, place.x + place.width / 2 + gap);
        height = std::max(height, place.y + box_height);
        boxes += "<rect x='" + number(place.x - place.width / 2) + "' y='" +
                 number(place.y - box_height / 2) + "' width='" + number(place.width) +
                 "' height='" + number(box_height) + "' fill='" + colour(box) + "'/>";
        const std::size_t end = place.label.find('\n');
        boxes += text_at(place.x, place.y + (end == std::string::npos ? 4 : -3),
                         place.label.substr(0, end));
        if (end != std::string::npos)
            boxes += text_at(place.x, place.y + 11, place.label.substr(end + 1));
        boxes += "\n";
    }
    for (const auto& [ends, link] : links_) {
        const Place &upper = places.at(ends.first), &lower = places.at(ends.second);
        // Between two of one row it goes around what stands in between.
        const double bend = upper.y == lower.y ? least_row_height : 0;
        const double y = (upper.y + lower.y) / 2 - bend;
        lines += "<path d='M" + number(upper.x) + " " + number(upper.y) + " Q" +
                 number((upper.x + lower.x) / 2) + " " + number(y) + " " + number(lower.x) + " " +
                 number(lower.y) + "'" + (is_slow(ends, link) ? " class='slow'" : "") +
                 (link.count > 1 ? " stroke-width='2'" : "") + "><title>" + format_rate(link.rate) +
                 "</title></path>";
        if (link.count > 1)
            lines += text_at(lower.x + (upper.x - lower.x) * 0.3,
                             lower.y + (upper.y - lower.y) * 0.3 - bend / 2,
                             std::to_string(link.count) + "x", " class='n'");
        lines += "\n";
    }
    const std::string size = "width='" + number(width) + "' height='" + number(height) + "'";
    return "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 " + number(width) + " " +
           number(height) + "' " + size +
           ">\n<style>text{font:10px sans-serif;text-anchor:middle}rect,path{stroke:#333}"
           "path{fill:none}.slow{stroke:red}.n{paint-order:stroke;stroke:white;stroke-width:3px}</"
           "style>\n<rect " +
           size + " fill='white' style='stroke:none'/>\n" + lines + boxes + "</svg>\n";
}

}  // namespace

std::string to_svg(const Site& site) {
    return Picture(site).drawing();
}

std::string to_dot(const Site& site) {
    return Picture(site).text();
}

}  // namespace app
