// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/picture.h"

#include <algorithm>
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

  private:
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

std::string Picture::text() const {
    std::string dot = "graph " + quoted(printable(site_.topology.file)) +
                      " {\n  ranksep=1.5;\n"
                      "  node [shape=box, fontname=\"sans-serif\", fontsize=10];\n"
                      "  edge [fontname=\"sans-serif\", fontsize=8];\n";
    for (const auto& [box, members] : boxes_) {
        const std::string style = box == site_.our_host().node ? ", style=filled, fillcolor=gold"
                                  : is_host(box)               ? ""
                                                 : ", style=filled, fillcolor=lightgrey";
        dot +=
            "  n" + std::to_string(box) + " [label=" + quoted(label(box, members)) + style + "];\n";
    }
    for (const auto& [ends, link] : links_) {
        const std::uint8_t fastest = fastest_.at(levels_of(ends.first, ends.second));
        const bool slow = fabric::rate_bandwidth(link.rate) < fabric::rate_bandwidth(fastest);
        dot += "  n" + std::to_string(ends.first) + " -- n" + std::to_string(ends.second) +
               " [tooltip=" + quoted(format_rate(link.rate)) +
               (link.count > 1 ? ", penwidth=2, label=" + quoted(std::to_string(link.count) + "x")
                               : "") +
               (slow ? ", color=red" : "") + "];\n";
    }
    return dot + "}\n";
}

}  // namespace

std::string to_dot(const Site& site) {
    return Picture(site).text();
}

}  // namespace app
