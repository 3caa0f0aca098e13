// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An IPoIB driver as the module sees one: it attaches itself, sends ARP requests when it is told
// to, tells about its interface, and hands in what ARP packets say. Its wire is a function that has
// the peer's reply arrive one tick later. docs/clients.md explains each step.
#include <cstdio>

#include "app/options.h"
#include "fabric/fabric.h"
#include "host/kernel.h"
#include "host/services.h"
#include "tarv/tarv-module.h"
#include "tarv/tarv.h"

namespace {

template <class Function>
Function* module_function(const char* name) {
    // A real one would put the name when it is done with it, and so keep the module until then.
    return host::InterModuleUse(name).function<Function>();
}

struct Driver {
    u32 our_ip = 0;
    void* handle = nullptr;
    int resets = 0;
};

/* An ARP packet came in: everything that it says, and where it came in. Receive context. */
void receive_arp(const fabric::Station& sender, u32 target_ip) {
    tarv_arp_data_t record = {};
    record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
                  TARV_MASK_LID | TARV_MASK_QKEY | TARV_MASK_CAP_FLG | TARV_MASK_LOCAL_PORT;
    record.arp_operation = TARV_ARP_OP_REPLY;
    record.src_ip = sender.ip;
    record.dst_ip = target_ip;
    record.gid = fabric::held(sender.gid);
    record.qpn = sender.qpn;
    record.cap_flg = sender.flags;
    record.lid = sender.lid;
    record.qkey = fabric::broadcast_qkey;
    record.local_port_num = 1;
    // The module works on a copy. It may call clients back before it returns.
    module_function<tarv_process_arp_data_fn_t>("tarv_process_arp_data_fn")(&record);
}

/* The module wants an ARP request sent. Any context; must neither sleep nor keep the record. */
tarv_stat_t send_arp(tarv_arp_data_t* record, void* context, int media_reset) {
    auto* const driver = static_cast<Driver*>(context);
    driver->resets += media_reset;
    std::printf("ARP request for %s%s\n", fabric::format_ip(record->dst_ip).c_str(),
                media_reset ? ", after a media reset" : "");
    fabric::Peers& peers = fabric::Fabric::current().peers();
    if (peers.has(record->dst_ip))
        host::Kernel::current().schedule(
            host::Context::driver, 1,
            [sender = peers.station(record->dst_ip), our_ip = driver->our_ip] {
                receive_arp(sender, our_ip);
            });
    return tarv_stat_ok;  // it went out; whether anybody answers is another matter
}

/* Which P_Key the interface that serves an address has, and whether the address is our own. */
tarv_stat_t get_if_info(u32 ip, gx_p_key_t* pkey, u32*, int*, int* loopback) {
    *pkey = 0x8001;
    *loopback = ip == fabric::Fabric::current().our_host().ip;
    return tarv_stat_ok;
}

void on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    std::printf("a client is told %d\n", status);
    *static_cast<bool*>(context) = status == tarv_stat_ok && record->paths[0].pkey == 0x8001;
}

bool ask(const char* ip, u32 our_ip) {
    tarv_arp_data_t record = {};
    bool answered = false;
    module_function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn")(
        *fabric::parse_ip(ip), our_ip, tarv_paths_none, &record, on_reply, &answered, 0);
    host::Kernel::current().advance(5000);
    return answered;
}

}  // namespace

int main() {
    // A host with an adapter, and the module without any driver.
    host::Kernel kernel;
    const app::Site site = app::read_site({});
    fabric::Fabric fabric(site.topology, site.hosts, site.us);
    if (host::load_module(tarv_module) != 0)
        return 1;
    // After a load the module drops all ARP data until it is told to take it in.
    host::ProcFile("quorvane/tarv/control").write("enable\n");

    Driver driver = {.our_ip = fabric.our_host().ip};
    auto* const attach = module_function<tarv_attach_fn_t>("tarv_attach_fn");
    if (attach(get_if_info, send_arp, &driver, &driver.handle) != tarv_stat_ok)
        return 1;
    // There is room for one driver.
    bool good = attach(get_if_info, send_arp, &driver, &driver.handle) == tarv_stat_error;
    good &= ask("10.0.0.2", driver.our_ip);
    good &= !ask("10.0.0.200", driver.our_ip);
    // The first request after the load, and each after one that nobody answered.
    good &= driver.resets == 4;

    // No packet may be handed in any more; then the attachment can end, and the module go.
    good &= module_function<tarv_detach_fn_t>("tarv_detach_fn")(driver.handle) == tarv_stat_ok;
    host::unload_module(tarv_module);
    return good && kernel.remains().empty() ? 0 : 1;
}
