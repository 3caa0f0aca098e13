// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/metrics.h"

#include <cstdio>
#include <utility>

#include "app/table.h"
#include "fabric/wire.h"
#include "platform/atomic.h"
#include "platform/jiffies.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-req-list.h"

namespace app {

/* A family is announced before its samples. */
class Metrics::Text {
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
    /// Of a family that has samples of several names.
    void suffix(const char* suffix) { suffix_ = suffix; }
    std::string end() { return std::move(text_) + "# EOF\n"; }

  private:
    std::string name_, suffix_, text_;
};

namespace {

using Text = Metrics::Text;

std::string label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + value + "\"";
}

/* 0 is none, as in records. */
std::string port_label(std::size_t port) {
    return label("port", port ? std::to_string(port) : "none");
}

std::string question_label(Question question) {
    return label("for", question == Question::arp ? "arp" : "paths");
}

std::string seconds(unsigned long ticks) {
    char text[32];
    std::snprintf(text, sizeof text, "%lu.%03lu", ticks / HZ, ticks % HZ * 1000 / HZ);
    return text;
}

constexpr unsigned long idle_bounds[] = {1, 10, 60, 300, 900, 3600};  // seconds

/* What is in the table. */
struct Contents {
    std::uint64_t entries = 0, by_hand = 0;
    std::uint64_t of_port[LookUps::ports] = {};
    std::uint64_t idle[std::size(idle_bounds)] = {};  // no longer than that
    unsigned long idle_ticks = 0;

    void count(const tarv_hash_entry_t& entry, unsigned long now) {
        const u32 port = entry.arp_data.local_port_num;
        const unsigned long used = read_once(entry.timestamp);
        const unsigned long ticks = now > used ? now - used : 0;
        ++entries;
        by_hand += (entry.arp_data.mask & TARV_MASK_STATIC) != 0;
        const bool has_port = entry.arp_data.mask & TARV_MASK_LOCAL_PORT;
        ++of_port[has_port && port < LookUps::ports ? port : 0];
        for (std::size_t i = 0; i < std::size(idle_bounds); ++i)
            idle[i] += ticks <= idle_bounds[i] * HZ;
        idle_ticks += ticks;
    }
};

/* The lock is given back after each chain: the counts need not be of one moment. */
Contents look_at_table(unsigned long now) {
    Contents contents;
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; ++bucket) {
        const read_guard guard(tarv_lock);
        for (const auto* entry = tarv_table.hash_buckets[bucket]; entry; entry = entry->next)
            contents.count(*entry, now);
    }
    return contents;
}

void tell_table(Text& text, std::size_t ports, unsigned long now) {
    const Contents contents = look_at_table(now);
    text.family("tarv_cache_entries", "gauge", "Entries in the table of addresses.");
    text.sample(contents.entries);
    text.family("tarv_cache_static_entries", "gauge", "Of these, those made by hand.");
    text.sample(contents.by_hand);
    text.family("tarv_cache_port_entries", "gauge", "Entries by the port that leads there.");
    for (std::size_t port = 0; port <= ports; ++port)
        text.sample(contents.of_port[port], port_label(port));
    text.family("tarv_cache_idle_seconds", "gaugehistogram", "How long entries were not used.");
    text.suffix("_bucket");
    for (std::size_t i = 0; i < std::size(idle_bounds); ++i)
        text.sample(contents.idle[i], label("le", std::to_string(idle_bounds[i]) + ".0"));
    text.sample(contents.entries, label("le", "+Inf"));
    text.suffix("_gcount");
    text.sample(contents.entries);
    text.suffix("_gsum");
    text.sample(seconds(contents.idle_ticks));
}

/* The locks are held one after the other, never two. */
void tell_pending(Text& text) {
    std::uint64_t waiting_for_arp = 0, waiting_for_paths = 0;
    {
        const spin_guard guard(tarv_rl_lock);
        waiting_for_arp = requests.count;
    }
    {
        const spin_guard guard(tarv_sa_rl_lock);
        waiting_for_paths = sa_requests.count;
    }
    text.family("tarv_requests_pending", "gauge", "Requests that wait, and for what.");
    text.sample(waiting_for_arp, question_label(Question::arp));
    text.sample(waiting_for_paths, question_label(Question::paths));
}

/* A name may be of any bytes. */
std::string label_text(const std::string& name) {
    std::string text;
    for (const char c : printable(name))
        text += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    return text;
}

void tell_host(Text& text, const fabric::Host& host) {
    text.family("tarv_host", "info", "Who this is.");
    text.suffix("_info");
    text.sample(1, label("host", label_text(host.name)) + "," +
                       label("address", fabric::format_ip(host.ip)));
}

void tell_memory(Text& text) {
    const host::MemoryUse memory = host::memory_use();
    text.family("tarv_memory_bytes", "gauge", "Memory that the module has allocated.");
    text.sample(memory.bytes);
    text.family("tarv_allocations", "counter", "Allocations that the module has made.");
    text.sample(memory.allocations);
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
    traffic_.see(seen);
    const auto port = static_cast<std::size_t>(seen.port) - 1;
    if (port < ports_.size())
        ++ports_[port][seen.direction == fabric::Direction::in][kind_of(seen.packet)];
}

void Metrics::tell_look_ups(Text& text, const LookUps& look_ups) const {
    text.family("tarv_cache_hits", "counter",
                "Clients' requests that the table answered, by the port that leads there.");
    for (std::size_t port = 0; port <= ports_.size(); ++port)
        text.sample(look_ups.hits(port), port_label(port));
    text.family("tarv_cache_misses", "counter", "Clients' requests that it could not answer.");
    text.sample(look_ups.misses);
    text.family("tarv_requests_refused", "counter", "Clients' requests that failed at once.");
    text.sample(look_ups.refused);
    text.family("tarv_replies", "counter", "What clients were told later.");
    text.sample(look_ups.answered, label("status", "ok"));
    text.sample(look_ups.timed_out, label("status", "timeout"));
    text.sample(look_ups.failed, label("status", "error"));
}

void Metrics::tell_questions(Text& text) {
    traffic_.settle(machine_.kernel().jiffies());
    constexpr struct {
        const char* name;
        const char* help;
        std::size_t (*value)(const QuestionCounts&);
    } families[] = {{"tarv_questions", "What was asked of the fabric, without repetitions.",
                     [](const QuestionCounts& row) { return row.sent - row.repeats; }},
                    {"tarv_retries", "Repetitions of what was asked.",
                     [](const QuestionCounts& row) { return row.repeats; }},
                    {"tarv_timeouts", "What was asked, not answered, and given up.",
                     [](const QuestionCounts& row) { return row.timeouts; }}};
    for (const auto& family : families) {
        text.family(family.name, "counter", family.help);
        for (std::size_t port = 1; port <= ports_.size(); ++port)
            for (const Question question : questions)
                text.sample(family.value(traffic_.counts(question, static_cast<int>(port))),
                            port_label(port) + "," + question_label(question));
    }
}

void Metrics::tell_packets(Text& text) const {
    text.family("tarv_packets", "counter", "Packets that crossed a port.");
    for (std::size_t port = 0; port < ports_.size(); ++port)
        for (std::size_t direction = 0; direction < 2; ++direction)
            for (std::size_t kind = 0; kind < kinds; ++kind)
                text.sample(ports_[port][direction][kind],
                            port_label(port + 1) + "," +
                                label("direction", direction_names[direction]) + "," +
                                label("kind", kind_names[kind]));
}

void Metrics::tell_ports(Text& text) const {
    std::vector<fabric::EndPort> ports;
    for (int port = 1; port <= machine_.adapter().ports(); ++port)
        ports.push_back(machine_.adapter().port(port));
    text.family("tarv_port_up", "gauge", "Whether a port's link is up.");
    for (std::size_t port = 1; port <= ports.size(); ++port)
        text.sample(ports[port - 1].up, port_label(port));
    text.family("tarv_port_lid", "gauge", "A port's base LID; 0 where it has none.");
    for (std::size_t port = 1; port <= ports.size(); ++port)
        text.sample(ports[port - 1].lid, port_label(port));
}

std::string Metrics::text(const LookUps& look_ups) {
    const unsigned long now = machine_.kernel().jiffies();
    Text text;
    tell_host(text, machine_.site().our_host());
    tell_table(text, ports_.size(), now);
    tell_pending(text);
    tell_look_ups(text, look_ups);
    tell_questions(text);
    tell_packets(text);
    tell_ports(text);
    tell_memory(text);
    text.family("tarv_up_seconds", "gauge", "How long the host has been up.");
    text.sample(seconds(now - start_));
    return text.end();
}

}  // namespace app
