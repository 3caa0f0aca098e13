// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A topology file, and behind a byte 0 a host list. Whatever they hold, they are refused with an
// InputError or make a fabric, and what was read can be written and read again.
#include <sstream>

#include "fabric/fabric.h"
#include "tests/fuzz/input.h"

namespace {

/* As far as a file tells it: of ports without a link it says nothing. */
std::string written(const fabric::Topology& topology) {
    std::ostringstream out;
    fabric::write_topology(out, topology);
    return out.str();
}

void check_round_trip(const fabric::Topology& topology) {
    const std::string text = written(topology);
    std::istringstream in(text);
    fuzz::require(written(fabric::read_topology(in, "again")) == text,
                  "what was written does not read the same:\n" + text);
}

void build(const fabric::Topology& topology, const std::vector<fabric::Host>& hosts) {
    const auto us = fabric::choose_host(topology, hosts);
    if (!us)
        return;
    const host::Kernel kernel;
    try {
        fabric::Fabric fabric(topology, hosts, *us);
        fabric.adapter().port(1);
    } catch (const fabric::InputError&) {
        return;
    }
    fuzz::require(kernel.remains().empty(), "a fabric left something behind");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    std::istringstream topology_text(input.text_until(0));
    const bool has_list = !input.at_end();
    std::istringstream hosts_text(input.rest());
    fabric::Topology topology;
    try {
        topology = fabric::read_topology(topology_text, "site");
    } catch (const fabric::InputError&) {
        return 0;
    }
    check_round_trip(topology);
    try {
        build(topology, has_list ? fabric::read_hosts(hosts_text, "hosts", topology)
                                 : fabric::deal_addresses(topology));
    } catch (const fabric::InputError&) {
        return 0;
    }
    return 0;
}
