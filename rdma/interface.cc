// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/interface.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "rdma/transport.h"

namespace rdma {
namespace {

namespace fs = std::filesystem;

constexpr int type_infiniband = 32;  // as in an ARP packet
constexpr std::uint16_t ethertype_arp = fabric::arp_ether_type;
constexpr std::size_t longest_packet = 256;

const fs::path interfaces = "/sys/class/net";

/* The first word of an attribute; empty when there is no such attribute. */
std::string attribute(const std::string& interface, const char* name) {
    std::string word;
    std::ifstream(interfaces / interface / name) >> word;
    return word;
}

int number(const std::string& text, int otherwise = 0) {
    return text.empty() ? otherwise : static_cast<int>(std::strtol(text.c_str(), nullptr, 0));
}

bool is_ipoib(const std::string& interface) {
    return number(attribute(interface, "type")) == type_infiniband;
}

bool belongs_to(const std::string& interface, const std::string& adapter) {
    std::error_code none;
    return fs::exists(interfaces / interface / "device/infiniband" / adapter, none);
}

/* A child interface, of a partition, says what its parent says. */
int port_of(const std::string& interface) {
    return number(attribute(interface, "dev_port"), number(attribute(interface, "dev_id"))) + 1;
}

HardwareAddress hardware(const std::string& text) {
    HardwareAddress address{};
    const char* at = text.c_str();
    for (std::uint8_t& byte : address) {
        char* end = nullptr;
        byte = static_cast<std::uint8_t>(std::strtoul(at, &end, 16));
        at = *end == ':' ? end + 1 : end;
    }
    return address;
}

/* Those of the adapter, or of that port of it if it is not 0, by name. */
std::vector<std::string> interfaces_of(const std::string& adapter, int port) {
    std::error_code none;
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(interfaces, none)) {
        const std::string name = entry.path().filename();
        if (is_ipoib(name) && belongs_to(name, adapter) && (port == 0 || port_of(name) == port))
            names.push_back(name);
    }
    std::ranges::sort(names);
    return names;
}

std::string choose(const std::string& adapter, int port) {
    const std::vector<std::string> names = interfaces_of(adapter, port);
    if (names.empty())
        throw DeviceError("port " + std::to_string(port) + " of " + adapter +
                          " has no IPoIB interface; load ib_ipoib and give it an address, or name "
                          "another port's with --interface");
    return names[0];
}

void require_of(const std::string& adapter, const std::string& name) {
    const std::vector<std::string> names = interfaces_of(adapter, 0);
    if (std::ranges::count(names, name) > 0)
        return;
    std::string cure;
    for (const std::string& each : names)
        cure += (cure.empty() ? "; it has " : ", ") + each;
    throw DeviceError(name + " is no IPoIB interface of " + adapter +
                      (names.empty() ? ", which has none; load ib_ipoib" : cure));
}

/* The interface's first IPv4 address, with its mask and flags. */
void read_address(Interface& interface) {
    ifaddrs* all = nullptr;
    unsigned flags = 0;
    if (getifaddrs(&all) == 0) {
        for (const ifaddrs* at = all; at != nullptr; at = at->ifa_next) {
            if (interface.name != at->ifa_name)
                continue;
            flags |= at->ifa_flags;
            if (interface.ip != 0 || at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET)
                continue;
            interface.ip = reinterpret_cast<const sockaddr_in*>(at->ifa_addr)->sin_addr.s_addr;
            interface.mask = reinterpret_cast<const sockaddr_in*>(at->ifa_netmask)->sin_addr.s_addr;
        }
        freeifaddrs(all);
    }
    if ((flags & IFF_UP) == 0)
        throw DeviceError("the interface " + interface.name + " is down; ip link set " +
                          interface.name + " up");
    if (interface.ip == 0)
        throw DeviceError("the interface " + interface.name +
                          " has no IPv4 address; ip addr add ADDRESS/BITS dev " + interface.name);
}

/* Room for a hardware address of 20 bytes, where sockaddr_ll has 8. */
union PacketAddress {
    sockaddr_ll link;
    std::uint8_t room[offsetof(sockaddr_ll, sll_addr) + sizeof(HardwareAddress)];
};

int open_socket(const Interface& interface) {
    const int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ethertype_arp));
    if (fd < 0)
        throw DeviceError(
            "no packet socket can be opened: " + std::generic_category().message(errno) +
            "; that takes CAP_NET_RAW, as root has");
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ethertype_arp);
    address.sll_ifindex = interface.index;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        close(fd);
        throw DeviceError("the packet socket cannot be bound to " + interface.name + ": " +
                          std::generic_category().message(error));
    }
    return fd;
}

}  // namespace

Interface find_interface(const std::string& name, const std::string& adapter, int port) {
    Interface found;
    found.name = name.empty() ? choose(adapter, port) : name;
    require_of(adapter, found.name);
    found.index = static_cast<int>(if_nametoindex(found.name.c_str()));
    read_address(found);
    found.port = port_of(found.name);
    // Bit 15 says full member, which an interface's own P_Key always has.
    found.pkey = static_cast<std::uint16_t>(number(attribute(found.name, "pkey"), 0xFFFF) | 0x8000);
    found.address = hardware(attribute(found.name, "address"));
    found.broadcast = hardware(attribute(found.name, "broadcast"));
    return found;
}

ArpSocket::ArpSocket(const Interface& interface)
    : interface_(interface.index), fd_(open_socket(interface)) {}

ArpSocket::~ArpSocket() {
    close(fd_);
}

bool ArpSocket::send(std::span<const std::uint8_t> packet, const HardwareAddress& to) const {
    PacketAddress address{};
    address.link.sll_family = AF_PACKET;
    address.link.sll_protocol = htons(ethertype_arp);
    address.link.sll_ifindex = interface_;
    address.link.sll_halen = sizeof to;
    std::copy(to.begin(), to.end(), address.room + offsetof(sockaddr_ll, sll_addr));
    return sendto(fd_, packet.data(), packet.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) == static_cast<ssize_t>(packet.size());
}

std::optional<fabric::Bytes> ArpSocket::receive(std::chrono::milliseconds wait) const {
    pollfd waits{fd_, POLLIN, 0};
    if (poll(&waits, 1, static_cast<int>(wait.count())) <= 0)
        return std::nullopt;
    fabric::Bytes packet(longest_packet);
    PacketAddress from{};
    socklen_t length = sizeof from;
    const ssize_t got = recvfrom(fd_, packet.data(), packet.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&from), &length);
    if (got < 0 || from.link.sll_pkttype == PACKET_OUTGOING)
        return std::nullopt;
    packet.resize(static_cast<std::size_t>(got));
    return packet;
}

}  // namespace rdma
