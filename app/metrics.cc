// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/metrics.h"

#include <cstdio>
#include <utility>

#include "fabric/wire.h"
#include "platform/jiffies.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-req-list.h"

namespace app {
namespace {

/* Puts together the text. A family is announced before its samples. */
class Text {
  public:
    void family(const char* name, const char* type, const char* help) {
        name_ = name;
        suffix_ = type == std::string("counter") ? "_total" : "";
        text_ += "# TYPE " + name_ + " " + type + "\n# HELP " + name_ + " " + help + "\n";
    }
    void sample(const std::string& value, const std::string& labels = {}) {
        text_ += name_ + suffix_ + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
    }
    void sample(std::uint64_t value, const std::string& labels = {}) {
        sample(std::to_string(value), labels);
    }
    std::string end() { return std::move(text_) + "# EOF\n"; }

  private:
    std::string name_, suffix_, text_;
};

std::string label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + value + "\"";
}

std::string port_label(std::size_t index) {
    return label("port", std::to_string(index + 1));
}

/* The locks are held one after the other, never two. */
void tell_module(Text& text) {
    std::uint64_t entries = 0, waiting_for_arp = 0, waiting_for_paths = 0;
    {
        const read_guard guard(tarv_lock);
        entries = tarv_table.size;
    }
    {
        const spin_guard guard(tarv_rl_lock);
        waiting_for_arp = requests.count;
    }
    {
        const spin_guard guard(tarv_sa_rl_lock);
        waiting_for_paths = sa_requests.count;
    }
    text.family("tarv_cache_entries", "gauge", "Entries in the table of addresses.");
    text.sample(entries);
    text.family("tarv_requests_pending", "gauge", "Requests that wait, and for what.");
    text.sample(waiting_for_arp, label("for", "arp"));
    text.sample(waiting_for_paths, label("for", "paths"));
}

}  // namespace

Metrics::Metrics(Machine& machine)
    : machine_(machine),
      start_(machine.kernel().jiffies()),
      ports_(static_cast<std::size_t>(machine.adapter().ports())) {
    machine_.on_packet([this](const fabric::SeenPacket& seen) { see(seen); });
}

Metrics::~Metrics() {
    machine_.on_packet({});
}

Metrics::Kind Metrics::kind_of(const fabric::Packet& packet) {
    if (packet.dest_qp == fabric::gsi_qp)
        return sa;
    const auto arp = fabric::decode<fabric::ArpPacket>(packet.payload);
    if (!arp || arp->ether_type != fabric::arp_ether_type)
        return other;
    return arp->operation == fabric::arp_request ? arp_request
           : arp->operation == fabric::arp_reply ? arp_reply
                                                 : other;
}

void Metrics::see(const fabric::SeenPacket& seen) {
    const auto port = static_cast<std::size_t>(seen.port) - 1;
    if (port < ports_.size())
        ++ports_[port][seen.direction == fabric::Direction::in][kind_of(seen.packet)];
}

std::string Metrics::text() const {
    Text text;
    tell_module(text);
    text.family("tarv_packets", "counter", "Packets that crossed a port.");
    for (std::size_t port = 0; port < ports_.size(); ++port)
        for (std::size_t direction = 0; direction < 2; ++direction)
            for (std::size_t kind = 0; kind < kinds; ++kind)
                text.sample(ports_[port][direction][kind],
                            port_label(port) + "," +
                                label("direction", direction_names[direction]) + "," +
                                label("kind", kind_names[kind]));
    text.family("tarv_port_up", "gauge", "Whether a port's link is up.");
    for (std::size_t port = 0; port < ports_.size(); ++port)
        text.sample(machine_.adapter().port(static_cast<int>(port) + 1).up, port_label(port));
    text.family("tarv_port_lid", "gauge", "A port's base LID; 0 where it has none.");
    for (std::size_t port = 0; port < ports_.size(); ++port)
        text.sample(machine_.adapter().port(static_cast<int>(port) + 1).lid, port_label(port));
    const host::MemoryUse memory = host::memory_use();
    text.family("tarv_memory_bytes", "gauge", "Memory that the module has allocated.");
    text.sample(memory.bytes);
    text.family("tarv_allocations", "counter", "Allocations that the module has made.");
    text.sample(memory.allocations);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f",
                  static_cast<double>(machine_.kernel().jiffies() - start_) / HZ);
    text.family("tarv_up_seconds", "gauge", "How long the host has been up.");
    text.sample(std::string(seconds));
    return text.end();
}

}  // namespace app
