// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Hosts: the adapters of a topology under the names and addresses by which people call them.

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <istream>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "fabric/topology.h"

namespace fabric {
namespace {

constexpr std::uint32_t first_dealt_ip = 0x0A000001;  // 10.0.0.1, in host byte order

std::string first_word(const std::string& name) {
    return name.substr(0, name.find_first_of(" \t"));
}

bool is_host(const Node& node) {
    return node.kind == NodeKind::adapter && node.name.find("Aggregation Node") == node.name.npos;
}

/// The hosts by all names, without addresses.
std::vector<Host> name_hosts(const Topology& topology) {
    std::unordered_map<std::string, int> words;
    std::unordered_map<std::string, int> names;
    for (const Node& node : topology.nodes) {
        if (is_host(node)) {
            ++words[first_word(node.name)];
            ++names[node.name];
        }
    }
    std::vector<Host> hosts;
    for (std::size_t i = 0; i < topology.nodes.size(); ++i) {
        const Node& node = topology.nodes[i];
        if (!is_host(node))
            continue;
        const std::string word = first_word(node.name);
        const bool word_will_do = !word.empty() && words[word] == 1;
        const bool name_will_do = names[node.name] == 1;
        const std::string& long_name = name_will_do ? node.name : node.id;
        const bool is_rail = !word_will_do && name_will_do && node.name.size() > word.size() + 1;
        hosts.push_back({static_cast<int>(i), word_will_do ? word : long_name, 0,
                         is_rail ? node.name.substr(word.size() + 1) : ""});
    }
    return hosts;
}

/// Which of two adapters of a host is the earlier rail: "HCA-1" before "HCA-2" before "HCA-10".
/// Their order in the file says nothing, ibnetdiscover lists what it has found last first.
bool is_earlier_rail(const Host& one, const Host& other) {
    return std::pair(one.rail.size(), one.rail) < std::pair(other.rail.size(), other.rail);
}

/// Lines that stand in every machine's /etc/hosts and speak of no host of the fabric: loopback, and
/// IPv6, of which the address resolution knows nothing.
bool is_of_no_concern(const std::string& address) {
    const std::optional<std::uint32_t> ip = parse_ip(address);
    return ip ? ntohl(*ip) >> 24 == 127 : address.find(':') != std::string::npos;
}

/// Addresses that no host can have: this network, multicast and what lies above.
bool is_host_ip(std::uint32_t ip) {
    const std::uint32_t first = ntohl(ip) >> 24;
    return first != 0 && first < 224;
}

/// Reads one list into the hosts of one topology.
class HostList {
  public:
    HostList(std::string file, const Topology& topology)
        : file_(std::move(file)), hosts_(name_hosts(topology)), lines_(hosts_.size(), 0) {
        for (std::size_t i = 0; i < hosts_.size(); ++i)
            by_name_.emplace(hosts_[i].name, i);
        // A node's id serves as well, except where it is another host's name.
        for (std::size_t i = 0; i < hosts_.size(); ++i)
            by_name_.emplace(topology.nodes[static_cast<std::size_t>(hosts_[i].node)].id, i);
    }

    std::vector<Host> read(std::istream& in) {
        std::string text;
        while (std::getline(in, text)) {
            ++line_;
            read_line(text.substr(0, text.find('#')));
        }
        if (in.bad())
            throw InputError(file_, 0, "cannot be read");
        std::erase_if(hosts_, [](const Host& host) { return host.ip == 0; });
        return std::move(hosts_);
    }

  private:
    void read_line(const std::string& text) {
        std::istringstream words(text);
        std::string address;
        if (!(words >> address) || is_of_no_concern(address))
            return;
        const std::optional<std::uint32_t> ip = parse_ip(address);
        if (!ip)
            fail("found \"" + address + "\", expected an IPv4 address");
        if (!is_host_ip(*ip))
            fail(address + " cannot be a host's address");
        const auto [place, is_new] = ip_lines_.emplace(*ip, line_);
        if (!is_new)
            fail("address " + address + " is given twice, first in line " +
                 std::to_string(place->second));
        assign(find_host(words, address), *ip);
    }

    std::size_t find_host(std::istream& words, const std::string& address) const {
        std::optional<std::size_t> host;
        std::string unknown;
        for (std::string name; words >> name;) {
            const auto found = by_name_.find(name);
            if (found == by_name_.end()) {
                unknown = unknown.empty() ? name : unknown;
                continue;
            }
            if (host && *host != found->second)
                fail("\"" + hosts_[*host].name + "\" and \"" + name + "\" are two hosts");
            host = found->second;
        }
        if (!host && unknown.empty())
            fail("found the end of the line, expected a name after " + address);
        if (!host)
            fail("no host of the fabric is called \"" + unknown + "\"");
        return *host;
    }

    void assign(std::size_t index, std::uint32_t ip) {
        Host& host = hosts_[index];
        if (lines_[index] != 0)
            fail("host \"" + host.name + "\" has address " + format_ip(ip) + " here, but " +
                 format_ip(host.ip) + " in line " + std::to_string(lines_[index]));
        host.ip = ip;
        lines_[index] = line_;
    }

    [[noreturn]] void fail(const std::string& message) const {
        throw InputError(file_, line_, message);
    }

    std::string file_;
    std::vector<Host> hosts_;
    std::vector<int> lines_;  ///< where each host got its address
    std::unordered_map<std::string, std::size_t> by_name_;
    std::unordered_map<std::uint32_t, int> ip_lines_;
    int line_ = 0;
};

/// Takes the addresses of the hosts of one topology out of a list that is about more than them.
class HostPicker {
  public:
    HostPicker(std::string file, const Topology& topology)
        : file_(std::move(file)), hosts_(name_hosts(topology)), claims_(hosts_.size()) {
        for (std::size_t i = 0; i < hosts_.size(); ++i)
            rails_[hosts_[i].machine()].push_back(i);
        for (auto& [machine, rails] : rails_)
            std::stable_sort(rails.begin(), rails.end(), [&](std::size_t one, std::size_t other) {
                return is_earlier_rail(hosts_[one], hosts_[other]);
            });
        for (std::size_t i = 0; i < hosts_.size(); ++i) {
            rails_.try_emplace(hosts_[i].name, 1, i);
            rails_.try_emplace(topology.nodes[static_cast<std::size_t>(hosts_[i].node)].id, 1, i);
        }
    }

    std::vector<Host> read(std::istream& in, std::size_t& skipped) {
        int line = 0;
        for (std::string text; std::getline(in, text);) {
            std::istringstream words(text.substr(0, text.find('#')));
            std::string address;
            ++line;
            if (!(words >> address) || is_of_no_concern(address))
                continue;
            const std::optional<std::uint32_t> ip = parse_ip(address);
            if (!ip)
                throw InputError(file_, line,
                                 "found \"" + address + "\", expected an IPv4 address");
            skipped += !is_host_ip(*ip) || !claim(words, *ip);
        }
        if (in.bad())
            throw InputError(file_, 0, "cannot be read");
        check_addresses();
        std::erase_if(hosts_, [](const Host& host) { return host.ip == 0; });
        return std::move(hosts_);
    }

  private:
    enum Claim : std::uint8_t { none, by_bare_name, by_rail };

    /// False when the line is of no use, or takes the use from an earlier one.
    bool claim(std::istream& words, std::uint32_t ip) {
        std::optional<std::size_t> index;
        Claim strongest = none;
        for (std::string name; words >> name;)
            if (const auto [found, strength] = find(name); strength > strongest) {
                index = found;
                strongest = strength;
            }
        if (!index || strongest <= claims_[*index])
            return index && hosts_[*index].ip == ip;
        const bool first = claims_[*index] == none || hosts_[*index].ip == ip;
        hosts_[*index].ip = ip;
        claims_[*index] = strongest;
        return first;
    }

    std::pair<std::size_t, Claim> find(const std::string& full_name) const {
        for (const std::string& name : {full_name, full_name.substr(0, full_name.find('.'))}) {
            if (const auto found = rails_.find(name); found != rails_.end())
                return {found->second[0], by_bare_name};
            const std::size_t dash = name.rfind("-ib");
            if (dash == name.npos || dash + 4 != name.size() || name[dash + 3] < '0')
                continue;
            const auto found = rails_.find(name.substr(0, dash));
            const auto number = static_cast<std::size_t>(name[dash + 3] - '0');
            if (found != rails_.end() && number < found->second.size())
                return {found->second[number], by_rail};
        }
        return {0, none};
    }

    void check_addresses() const {
        std::unordered_map<std::uint32_t, const Host*> holders;
        for (const Host& host : hosts_)
            if (const auto [place, is_new] = holders.emplace(host.ip, &host); host.ip && !is_new)
                throw InputError(file_, 0,
                                 "address " + format_ip(host.ip) + " is given to \"" +
                                     place->second->name + "\" and to \"" + host.name + "\"");
    }

    std::string file_;
    std::vector<Host> hosts_;
    std::vector<Claim> claims_;  ///< by which each host got its address
    std::unordered_map<std::string, std::vector<std::size_t>> rails_;
};

bool has_two_linked_ports(const Node& node) {
    return std::count_if(node.ports.begin(), node.ports.end(),
                         [](const Port& port) { return port.linked; }) >= 2;
}

}  // namespace

std::vector<Host> deal_addresses(const Topology& topology) {
    std::vector<Host> hosts = name_hosts(topology);
    std::uint32_t next = first_dealt_ip;
    for (Host& host : hosts)
        host.ip = htonl(next++);
    return hosts;
}

std::vector<Host> read_hosts(std::istream& in, const std::string& file, const Topology& topology) {
    return HostList(file, topology).read(in);
}

std::vector<Host> read_hosts(const std::string& path, const Topology& topology) {
    std::ifstream in(path);
    if (!in)
        throw InputError(path, 0, "cannot be opened");
    return read_hosts(in, path, topology);
}

std::vector<Host> pick_hosts(std::istream& in, const std::string& file, const Topology& topology,
                             std::size_t& skipped_lines) {
    return HostPicker(file, topology).read(in, skipped_lines);
}

std::optional<std::size_t> choose_host(const Topology& topology, const std::vector<Host>& hosts,
                                       const std::string& name) {
    const auto node_of = [&](const Host& host) -> const Node& {
        return topology.nodes[static_cast<std::size_t>(host.node)];
    };
    const auto index_of = [&](auto matches) -> std::optional<std::size_t> {
        const auto found = std::find_if(hosts.begin(), hosts.end(), matches);
        if (found == hosts.end())
            return std::nullopt;
        return static_cast<std::size_t>(found - hosts.begin());
    };
    if (hosts.empty())
        return std::nullopt;
    if (name.empty())
        return index_of([&](const Host& host) { return has_two_linked_ports(node_of(host)); })
            .value_or(0);
    const auto by_name = index_of([&](const Host& host) { return host.name == name; });
    if (by_name)
        return by_name;
    const auto by_id = index_of([&](const Host& host) { return node_of(host).id == name; });
    if (by_id)
        return by_id;
    return index_of([&](const Host& host) {
        return host.machine() == name && std::ranges::none_of(hosts, [&](const Host& other) {
                   return other.machine() == name && is_earlier_rail(other, host);
               });
    });
}

std::string format_ip(std::uint32_t ip) {
    unsigned char bytes[4];
    std::memcpy(bytes, &ip, sizeof bytes);
    std::string text;
    for (const unsigned char byte : bytes)
        text += (text.empty() ? "" : ".") + std::to_string(byte);
    return text;
}

std::optional<std::uint32_t> parse_ip(const std::string& text) {
    in_addr address{};
    // Text with a zero byte inside would otherwise be taken for what stands in front of it.
    if (text.find('\0') != text.npos || inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return address.s_addr;
}

}  // namespace fabric
