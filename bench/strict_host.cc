// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The strict host, which is the program's and the tests' machine, with two hosts on its fabric and
// the module not loaded; all threads may enter it. What the module costs with all the checks that
// the tests have.
#include <optional>

#include "app/machine.h"
#include "bench/bench.h"

namespace bench {
namespace {

std::optional<app::Machine> machine;

app::Site two_hosts() {
    const fabric::Topology topology = fabric::make_fabric({.hosts = 2});
    return {.topology = topology, .hosts = fabric::deal_addresses(topology)};
}

}  // namespace

const char* const host_name = "strict";

Host::Host() {
    app::HostOptions options;
    options.logger_level = 0;
    machine.emplace(two_hosts(), options, host::Options{.shared = true});
}

Host::~Host() {
    machine.reset();
}

void pass_ticks(unsigned long ticks) {
    machine->kernel().advance(ticks);
}

}  // namespace bench
