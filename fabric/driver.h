// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What an IPoIB driver has to do with the module, whichever interface it drives: it attaches
// itself, sends ARP requests when asked to, and hands ARP data in.
//
// Life cycle: attach() finds the module by the names that it registered and gives it the driver's
// functions; detach() waits until nothing is being handed over, then takes them back. One driver is
// attached at a time.
#pragma once

#include <condition_variable>

#include "fabric/mutex.h"
#include "fabric/wire.h"
#include "host/services.h"
#include "tarv/tarv.h"

namespace fabric {

/// Whether its header is that of ARP for IPv4 over InfiniBand.
bool is_ipoib_arp(const ArpPacket& arp);

/// What the packet itself says, for the module. A driver that knows the sender's LID and the Q_Key
/// adds them.
tarv_arp_data_t make_arp_data(const ArpPacket& arp, int port);

class Driver {
  public:
    virtual ~Driver() = default;

    /// The module's answer; tarv_stat_error also when no module is there.
    tarv_stat_t attach();
    tarv_stat_t detach();
    bool attached() const;

    // What the module calls, in any context.

    /// Has an ARP request sent for `record`.
    virtual tarv_stat_t send_request(const tarv_arp_data_t& record, int media_reset) = 0;
    /// The P_Key of the interface that serves an address, and whether the address is our own.
    virtual tarv_stat_t interface_info(std::uint32_t ip, gx_p_key_t* pkey, int* loopback) const = 0;

  protected:
    /// A packet is being handed over, for the scope: detach() waits for its end. False when the
    /// driver is not attached; then nothing may be handed in.
    class [[nodiscard]] Intake {
      public:
        explicit Intake(Driver& driver);
        ~Intake();
        Intake(const Intake&) = delete;
        Intake& operator=(const Intake&) = delete;
        explicit operator bool() const { return begun_; }

      private:
        Driver& driver_;
        bool begun_;
    };

    /// To the module, during an Intake that has begun.
    void hand_in(tarv_arp_data_t record) const;

  private:
    /// What it uses of the module for as long as it is attached.
    struct Uses {
        host::InterModuleUse attach, detach, process;
    };

    // Changes only while the driver is not attached and nothing is being handed in.
    Uses uses_;
    mutable Mutex attachment_mutex_;
    std::condition_variable_any idle_;
    bool attached_ TA_GUARDED(attachment_mutex_) = false;
    void* handle_ TA_GUARDED(attachment_mutex_) = nullptr;
    int intakes_ TA_GUARDED(attachment_mutex_) = 0;
};

}  // namespace fabric
