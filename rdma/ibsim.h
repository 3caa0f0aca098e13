// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A port of a fabric that ibsim simulates, reached by ibsim's own sockets, as its client library
// does it: a control socket on which a client attaches to a node, and a socket for datagrams. All
// are Unix datagram sockets with abstract names that begin with what IBSIM_SOCKNAME says.
//
// A client gets what is for port 1 of its node. ibsim has room for ten clients, a subnet manager
// included.
#pragma once

#include <memory>
#include <string>

#include "rdma/transport.h"

namespace rdma {

/// Attaches to that node. Throws DeviceError when there is no ibsim or no such node in it.
std::unique_ptr<Transport> attach_to_ibsim(const std::string& node);

}  // namespace rdma
