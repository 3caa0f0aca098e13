// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The adapters of this machine, through libibumad, and their events, through libibverbs.
//
// Both of a port's agents are without the kernel's RMPP: whole datagrams go in and out, and the
// GSI service does RMPP itself. The kernel puts a number of its own into the upper half of each
// transaction ID.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rdma/device.h"

namespace rdma {

/// A running watch over an adapter's asynchronous events; none are told after its end.
class EventWatch {
  public:
    virtual ~EventWatch() = default;
};

/// Opens an adapter of this machine; `only_port` leaves its other ports out, 0 none. Throws
/// DeviceError when there is no such adapter, without the rights, and as Device does.
std::unique_ptr<Device> open_adapter(const std::string& name, int only_port);

/// Has the adapter's events noted by the device. Null when the adapter tells of none: then there is
/// only what regular looks find.
std::unique_ptr<EventWatch> watch_events(Device& device);

}  // namespace rdma
