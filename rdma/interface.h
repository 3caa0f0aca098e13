// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An IPoIB interface of this machine, as its kernel tells of it, and a packet socket on it.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "fabric/wire.h"

namespace rdma {

/// A hardware address of RFC 4391: flags, the queue pair's number, the port's GID.
using HardwareAddress = std::array<std::uint8_t, 20>;

struct Interface {
    std::string name;
    int index = 0;
    int port = 1;            ///< of its adapter
    std::uint32_t ip = 0;    ///< network order
    std::uint32_t mask = 0;  ///< network order
    std::uint16_t pkey = 0xFFFF;
    HardwareAddress address{};
    HardwareAddress broadcast{};
};

/// The adapter's interface of that name, or the first of that port of it if no name is given.
/// Throws DeviceError when there is none, or when it has no IPv4 address or is down.
Interface find_interface(const std::string& name, const std::string& adapter, int port);

/// ARP packets of an interface, without the 4 bytes in front of them.
class ArpSocket {
  public:
    /// Throws DeviceError without the right to open one.
    explicit ArpSocket(const Interface& interface);
    ~ArpSocket();
    ArpSocket(const ArpSocket&) = delete;
    ArpSocket& operator=(const ArpSocket&) = delete;

    bool send(std::span<const std::uint8_t> packet, const HardwareAddress& to) const;
    /// The next packet that somebody else sent, or nothing within that time.
    std::optional<fabric::Bytes> receive(std::chrono::milliseconds wait) const;

  private:
    const int interface_;
    const int fd_;
};

}  // namespace rdma
