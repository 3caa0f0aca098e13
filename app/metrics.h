// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How a host is doing, for a monitoring system: what its module keeps at this moment, how it has
// served its clients, and what has crossed its ports since this object came, in the OpenMetrics
// text format.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "app/look_ups.h"
#include "app/machine.h"
#include "app/traffic.h"

namespace app {

class Metrics {
  public:
    /// Has the packets counted as long as it lives; nobody else may look at them meanwhile.
    explicit Metrics(Machine& machine);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    /// With what clients were answered. Any thread in process context. Takes the module's locks for
    /// a moment each.
    std::string text(const LookUps& look_ups = {});

    /// Puts together the text.
    class Text;

  private:
    enum Kind { arp_request, arp_reply, sa, other, kinds };
    static constexpr const char* kind_names[kinds] = {"arp_request", "arp_reply", "sa", "other"};
    static constexpr const char* direction_names[] = {"out", "in"};
    using Counts = std::array<std::array<std::atomic<std::uint64_t>, kinds>, 2>;  // by direction

    static Kind kind_of(const fabric::Packet& packet);
    void see(const fabric::SeenPacket& seen);
    void tell_look_ups(Text& text, const LookUps& look_ups) const;
    void tell_questions(Text& text);
    void tell_packets(Text& text) const;
    void tell_ports(Text& text) const;

    Machine& machine_;
    const unsigned long start_;
    std::vector<Counts> ports_;  // the first is port 1
    Traffic traffic_{[] { return Duration{0}; }};
};

}  // namespace app
