// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// One port's road to its fabric: whole management datagrams, out and in. ibsim's sockets are one
// (ibsim.h), an adapter's own port is another (umad.h).
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>

#include "fabric/packet.h"

namespace rdma {

/// What was asked for cannot be had. what() is one line: what is missing, and what to do about it.
class DeviceError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Transport {
  public:
    virtual ~Transport() = default;

    /// A datagram of the GSI, or with destination QP 0 one for the port's own agent. The upper half
    /// of its transaction ID is the transport's; an answer brings back the lower one. A datagram
    /// that cannot be sent is lost. From any thread.
    virtual void send(const fabric::Packet& packet) = 0;

    /// The next datagram, or nothing within that time. From one thread at a time.
    virtual std::optional<fabric::Packet> receive(std::chrono::milliseconds wait) = 0;
};

}  // namespace rdma
