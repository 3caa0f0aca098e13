// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A client of the module: it has to reach a peer of which it knows the IPv4 address, and asks for
// the peer's InfiniBand address and the paths to it. docs/clients.md explains each step.
#include <cstdio>

#include "app/machine.h"
#include "fabric/topology.h"
#include "host/services.h"
#include "tarv/tarv.h"

namespace {

/// A peer of the client. It is the context of its request, so it must live until the request has
/// ended.
struct Peer {
    u32 ip = 0;
    tarv_stat_t status = tarv_stat_not_found;
    tarv_arp_data_t record = {};
};

/* How a request ends, whether at once or later. Must not sleep. */
void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    auto* const peer = static_cast<Peer*>(context);
    if (status == tarv_stat_ok) {
        // The record is the module's and gone after this call, and its path pointers lead into it.
        peer->record = *record;
        tarv_aim_paths(&peer->record);
    }
    peer->status = status;
}

void resolve(tarv_get_ib_data_fn_t* get_ib_data, Peer& peer, u32 our_ip) {
    // The callback may come before the call returns, so all must be ready for it.
    peer.status = tarv_stat_pending;
    // The module writes to this record whatever the outcome.
    tarv_arp_data_t record = {};
    const tarv_stat_t status =
        get_ib_data(peer.ip, our_ip, tarv_paths_both, &record, on_reply, &peer, 0);
    // Any other status is the last word: no callback follows.
    if (status != tarv_stat_pending)
        on_reply(status, &record, &peer);
}

bool report(const char* when, const Peer& peer, tarv_stat_t expected) {
    std::printf("%s: %s ", when, fabric::format_ip(peer.ip).c_str());
    if (peer.status != tarv_stat_ok)
        std::printf("status %d\n", peer.status);
    else if (peer.record.mask & TARV_MASK_PRIMARY_PATH)
        std::printf("LID %u, QPN 0x%x, primary path %u -> %u\n", peer.record.lid, peer.record.qpn,
                    peer.record.primary_path->slid, peer.record.primary_path->dlid);
    else
        std::printf("LID %u, QPN 0x%x, no path\n", peer.record.lid, peer.record.qpn);
    return peer.status == expected;
}

}  // namespace

int main() {
    // The host on which the client lives; on a real one somebody else has loaded the module.
    app::Machine machine(app::read_site({}), {}, host::Options{});
    machine.start();
    machine.switch_on();
    const u32 our_ip = machine.fabric().our_host().ip;

    // The module is found by name, so that the client can be loaded without it.
    // From here to the end of its use the module stays.
    host::InterModuleUse use("tarv_get_ib_data_fn");
    if (!use)
        return 1;
    auto* const get_ib_data = use.function<tarv_get_ib_data_fn_t>();

    Peer peer = {.ip = *fabric::parse_ip("10.0.0.2")};
    resolve(get_ib_data, peer, our_ip);
    bool good = report("asked", peer, tarv_stat_pending);
    machine.kernel().advance(10);
    good &= report("10 ticks later", peer, tarv_stat_ok);
    resolve(get_ib_data, peer, our_ip);
    good &= report("asked again", peer, tarv_stat_ok);

    // Whoever waits when the module is halted is told so; afterwards it refuses at once.
    Peer nobody = {.ip = *fabric::parse_ip("10.0.0.200")};
    resolve(get_ib_data, nobody, our_ip);
    machine.command("halt");
    good &= report("halted", nobody, tarv_stat_timeout);
    resolve(get_ib_data, peer, our_ip);
    good &= report("asked a halted module", peer, tarv_stat_error);
    use.end();
    return good && machine.stop().remains.empty() ? 0 : 1;
}
