// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The loaded host that an input acts on, made anew for each: a strict kernel in virtual time, four
// hosts on one switch of which we are the first, the module, and the driver attached to it.
//
// What must hold whatever the input: every rule of the kernel, which checks itself; each request is
// answered at most once, and none but those that wait for ARP at the unload is forgotten; the
// module leaves nothing behind. A broken rule is abort(), which is a fuzzer's finding.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "app/machine.h"
#include "host/check.h"
#include "tarv/tarv.h"
#include "tests/fuzz/input.h"

namespace fuzz {

/// Ends the program with that message unless `holds`.
void require(bool holds, const std::string& message);

class World {
  public:
    /// The first byte of the input sets the module's trace level and modes.
    explicit World(Input& input);
    /// Unloads the module and looks at what is left.
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    host::Kernel& kernel() { return machine_->kernel(); }
    fabric::Fabric& fabric() { return machine_->fabric(); }

    /// The address of a host from 1 on; those above 4 are nobody's.
    static std::uint32_t ip(std::uint8_t host);

    /// A client asks for an address. Bits 0 and 1 of `how` are the paths that it wants, bit 2 that
    /// the cache is not to be believed, bit 3 that it gives no callback.
    void ask(std::uint32_t address, std::uint8_t how);

    void command(const std::string& text) { machine_->command(text); }
    /// Looks at the table and all requests through everything that prints them.
    void inspect(std::uint32_t address);

  private:
    struct Client {
        bool promised = false;
        unsigned answers = 0;
        tarv_arp_data_t record{};
    };
    static void answered(tarv_stat_t status, tarv_arp_data_t* record, void* context);

    std::deque<Client> clients_;  // they stay where they are: the module points at them
    std::unique_ptr<app::Machine> machine_;
};

}  // namespace fuzz
