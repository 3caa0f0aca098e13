// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Our host on its real fabric: an adapter of this machine and an IPoIB interface on it, as the
// waist's calls and the module reach them.
//
// One exists at a time, inside the life of a host::Kernel in real time.
#pragma once

#include "fabric/adapter.h"
#include "fabric/capture.h"
#include "fabric/gsi.h"
#include "fabric/waist.h"
#include "fabric/works.h"
#include "rdma/device.h"
#include "rdma/ipoib.h"

namespace rdma {

class Host final : private fabric::Wire {
  public:
    /// The device outlives the host. Throws DeviceError as Ipoib does.
    Host(Device& device, const Interface& interface, const fabric::GsiTranslations& translations);
    ~Host() override;

    fabric::Adapter& adapter() { return adapter_; }
    fabric::Gsi& gsi() { return gsi_; }
    fabric::Tap& tap() { return tap_; }
    Ipoib& ipoib() { return ipoib_; }

  private:
    void send(int port, fabric::Packet packet) override;
    void arrived(int port, fabric::Packet packet);

    Device& device_;
    fabric::Works works_;
    fabric::Tap tap_;
    fabric::Adapter adapter_;
    fabric::Gsi gsi_;
    Ipoib ipoib_;
    fabric::Waist waist_;
};

}  // namespace rdma
