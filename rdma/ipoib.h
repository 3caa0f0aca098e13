// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The IPoIB driver that the module has on a real host: it stands beside the kernel's own, on the
// same interface. The module's ARP requests go out by a packet socket, to the interface's broadcast
// address, and every ARP packet that comes in there is handed to the module. Requests for us are
// answered by the kernel.
//
// A packet socket tells neither the LID from which a packet came nor the Q_Key, so the records go
// without them.
#pragma once

#include <atomic>
#include <thread>

#include "fabric/capture.h"
#include "fabric/driver.h"
#include "fabric/works.h"
#include "rdma/interface.h"

namespace rdma {

class Ipoib final : public fabric::Driver {
  public:
    /// Throws DeviceError as find_interface() and ArpSocket do.
    Ipoib(fabric::Works& works, fabric::Tap& tap, const Interface& interface);
    ~Ipoib() override;

    const Interface& interface() const { return interface_; }

    tarv_stat_t send_request(const tarv_arp_data_t& record, int media_reset) override;
    tarv_stat_t interface_info(std::uint32_t ip, gx_p_key_t* pkey, int* loopback) const override;

  private:
    void listen();
    void receive(const fabric::Bytes& bytes);
    void look(fabric::Direction direction, const fabric::ArpPacket& arp) const;

    fabric::Works& works_;
    fabric::Tap& tap_;
    const Interface interface_;
    const ArpSocket socket_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace rdma
