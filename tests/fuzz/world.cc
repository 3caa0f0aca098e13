// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/fuzz/world.h"

#include <cstdio>
#include <cstdlib>

#include "tarv/tarv-req-list.h"

namespace fuzz {
namespace {

constexpr std::uint8_t first_of_network = 10;

app::Site site() {
    const fabric::Topology topology = fabric::make_fabric({.hosts = 4, .spines = 1});
    return {topology, fabric::deal_addresses(topology), 0};
}

/* What an administrator sets before anything happens, as one byte says. */
struct Settings {
    explicit Settings(std::uint8_t byte)
        : level(byte & 7),
          enabled((byte & 8) == 0),
          sa_queries((byte & 0x10) == 0),
          statics_inv((byte & 0x20) == 0) {}
    int level;
    bool enabled, sa_queries, statics_inv;
};

u32 waiting_for_arp() TA_NO_ANALYSIS {
    return requests.count;
}

}  // namespace

void require(bool holds, const std::string& message) {
    if (holds)
        return;
    std::fprintf(stderr, "fuzz: %s\n", message.c_str());
    std::abort();
}

World::World(Input& input) {
    const Settings settings(input.take<std::uint8_t>());
    app::HostOptions options;
    options.debug_level = settings.level;
    machine_ = std::make_unique<app::Machine>(site(), options, host::Options{});
    machine_->start();
    if (settings.enabled)
        command("enable");
    if (settings.sa_queries)
        command("sa_queries on");
    if (!settings.statics_inv)
        command("statics_inv off");
}

World::~World() {
    // A request that waits for ARP when the module goes is forgotten without a word.
    const u32 waiting = waiting_for_arp();
    for (const std::string& line : machine_->stop().remains)
        require(false, "left behind: " + line);
    u32 forgotten = 0;
    for (const Client& client : clients_) {
        require(client.answers <= (client.promised ? 1u : 0u),
                "a client was answered " + std::to_string(client.answers) + " times");
        forgotten += client.promised && client.answers == 0;
    }
    require(forgotten <= waiting, std::to_string(forgotten) + " clients were never answered, and " +
                                      std::to_string(waiting) + " requests waited for ARP");
}

std::uint32_t World::ip(std::uint8_t host) {
    return std::uint32_t{first_of_network} | std::uint32_t{host} << 24;
}

void World::answered(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    host::must_hold_no_lock("a reply callback");
    static_cast<Client*>(context)->answers++;
    require(status != tarv_stat_ok || record != nullptr, "a good answer without its record");
}

void World::ask(std::uint32_t address, std::uint8_t how) {
    const auto get = machine_->function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn");
    Client& client = clients_.emplace_back();
    const bool calls_back = (how & 8) == 0;
    const tarv_stat_t status =
        get(address, ip(1), static_cast<tarv_paths_t>(how & 3), &client.record,
            calls_back ? answered : nullptr, &client, how >> 2 & 1);
    client.promised = calls_back && status == tarv_stat_pending;
    require(status != tarv_stat_ok || client.record.primary_path == &client.record.paths[0],
            "a record whose path lies elsewhere");
}

void World::inspect(std::uint32_t address) {
    const std::string ip = fabric::format_ip(address);
    command("dump");
    command("show " + ip);
    command("show_paths " + ip);
    command("show_stat");
    host::ProcFile("quorvane/tarv/control").read(1u << 20);
}

}  // namespace fuzz
