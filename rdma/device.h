// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An adapter on a real fabric, or on one that ibsim simulates: what its ports are like, the way for
// their management datagrams, and the events that a change of them makes.
//
// Each port is looked at from time to time, by questions to its own agent, and at once when the
// adapter tells of an event. What differs from the look before becomes events of the module's kind.
// A port whose link is no InfiniBand, or that nobody wants, has no transport and counts as down.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fabric/mutex.h"
#include "fabric/ports.h"
#include "rdma/port_facts.h"
#include "rdma/transport.h"

namespace rdma {

class Device final : public fabric::Uplink {
  public:
    using Roads = std::vector<std::unique_ptr<Transport>>;

    /// `roads` are the ports' transports from port 1 on, null for a port that is left out. Throws
    /// DeviceError when a port does not answer.
    Device(std::string name, Roads roads, std::chrono::milliseconds look_every);
    ~Device() override;

    /// Throws DeviceError when no port is active, or the SA of an active one does not answer.
    /// Before start().
    void require_service();

    /// Throws DeviceError when that port is not active.
    void require_active(int port) const;

    /// The adapter told of something at a port: it is looked at anew, and `event` is passed on even
    /// if no difference is seen.
    void note(int port, std::optional<gx_async_record_t> event);

    PortFacts facts(int port) const;

    const char* name() const override { return name_.c_str(); }
    gx_guid_t guid() const override { return guid_; }
    int count() const override { return static_cast<int>(ports_.size()); }
    fabric::EndPort port(int number) const override;
    fabric::SubnetManager manager(int number) const override;
    std::vector<std::uint16_t> pkeys(int number) const override;
    void send(int number, fabric::Packet packet) override;
    void start(Receivers receivers) override;
    void stop() override;

  private:
    struct Port {
        int number = 0;
        std::unique_ptr<Transport> road;
        std::thread thread;
        std::atomic<std::uint32_t> transaction = 1;
        mutable fabric::Mutex mutex;
        PortFacts facts TA_GUARDED(mutex);
        PortFacts coming TA_GUARDED(mutex);  ///< the look that is under way
        std::optional<gx_async_record_t> noted TA_GUARDED(mutex);
    };

    Port& at(int number) const { return *ports_.at(static_cast<std::size_t>(number - 1)); }
    void first_look(Port& port);
    std::string why_not_active(int number) const;
    void look(Port& port) const;
    void serve(Port& port);
    std::vector<fabric::Gid> gids() const;
    void take(Port& port, fabric::Packet packet);
    std::vector<gx_event_record_t> finish_look(Port& port);

    const std::string name_;
    const std::chrono::milliseconds look_every_;
    std::vector<std::unique_ptr<Port>> ports_;
    gx_guid_t guid_ = 0;
    Receivers receivers_;
    std::atomic<bool> stopping_ = false;
};

}  // namespace rdma
