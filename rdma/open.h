// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// From the name of an adapter, as a user gives it, to the adapter.
#pragma once

#include <memory>
#include <string>

#include "rdma/device.h"

namespace rdma {

/// An open device with all that belongs to it.
class Opened {
  public:
    virtual ~Opened() = default;
    virtual Device& device() = 0;
};

/// "mlx5_0", or "mlx5_0:2" for its second port alone; or "ibsim:NODE", the node's port 1 on a
/// running ibsim, or "ibsim:NODE,NODE", an adapter whose ports are those of one-port nodes. Throws
/// DeviceError.
std::unique_ptr<Opened> open_device(const std::string& text);

/// Whether the text names a port of an ibsim, which has no IPoIB interface.
bool is_ibsim(const std::string& text);

}  // namespace rdma
