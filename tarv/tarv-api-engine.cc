// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The engine: its start and stop, and the adapter's events in between.
#include "platform/module.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";
constexpr const char* event = TARV_NAME_OF(tarv_async_event_cb);

/* What other modules find by name. */
struct api_name_t {
    const char* name;
    const void* function;
};

template <class Function>
const void* address_of(Function* function) {
    return reinterpret_cast<const void*>(function);
}

void register_api() {
    // The types keep what clients call by name and what is registered in step.
    static_assert(__is_same(tarv_get_ib_data_fn_t, decltype(tarv_get_ib_data)));
    static_assert(__is_same(tarv_process_arp_data_fn_t, decltype(tarv_process_arp_data)));
    static_assert(__is_same(tarv_detach_fn_t, decltype(tarv_detach)));
    static_assert(__is_same(tarv_attach_fn_t, decltype(tarv_attach)));
    static_assert(__is_same(tarv_seq_cache_lookup_fn_t, decltype(tarv_hash_seq_cache_lookup)));
    const api_name_t names[] = {
        {"tarv_get_ib_data_fn", address_of(tarv_get_ib_data)},
        {"tarv_process_arp_data_fn", address_of(tarv_process_arp_data)},
        {"tarv_detach_fn", address_of(tarv_detach)},
        {"tarv_attach_fn", address_of(tarv_attach)},
        {"tarv_seq_cache_lookup_fn", address_of(tarv_hash_seq_cache_lookup)},
    };
    for (const api_name_t& api : names)
        inter_module_register(api.name, this_module(), api.function);
}

/* In the order of withdrawal, which is not that of the registration. */
void unregister_api() {
    const char* const names[] = {"tarv_get_ib_data_fn", "tarv_attach_fn", "tarv_detach_fn",
                                 "tarv_process_arp_data_fn", "tarv_seq_cache_lookup_fn"};
    for (const char* name : names)
        inter_module_unregister(name);
}

/* A module that is loaded again in the same memory begins like one that is loaded afresh. */
void reset_state() {
    write_once(halted, 0);
    write_once(enabled, 0);
    write_once(sa_queries_enabled, 0);
    write_once(statics_inv_enabled, 1);
    write_once(get_data_retry, 3);
    write_once(tarv_media_reset, 1);
    tarv_driver_start();
    spin_lock_init(&static_path_lock, "static_path_lock");
    const spin_guard guard(static_path_lock);
    static_path = {};
    static_path.numb_path = 1;
    static_path.pkey = 0xFFFF;
    static_path.mtu = 3;  // 1024 bytes
}

tarv_stat_t tarv_aync_ev_init() {
    gx_hca_h_t hca = nullptr;
    gx_return_t code = gx_hca_open(gx_default_hca_name(), 0, &hca);
    if (code != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_hca_open() failed <%d>\n", code);
        return tarv_stat_error;
    }
    write_once(hca_h, hca);
    const gx_request_event_record_t request = {gx_async_even_all, nullptr};
    code = gx_set_sleepable_async_event_cb(hca, request, tarv_async_event_cb);
    if (code != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_set_sleepable_async_event_cb() failed <%d>\n", code);
        write_once(hca_h, nullptr);
        gx_hca_close(hca);
        return tarv_stat_error;
    }
    return tarv_stat_ok;
}

/* An adapter that does not tell any more which GID the port had leaves it to what the SA client
 * remembers. */
void link_down(u8 port) {
    gx_gid_t gid;
    if (port_num2base_gid(hca_h, port, &gid) == 0 || tarv_sa_known_gid(port, &gid))
        tarv_hash_remove_entries_by_sgid(&gid);
    TARV_LOG_FROM(event, TARV_DEBUG, "Received link_down <port:%d>\n", port);
    tarv_sa_destroy(port);
}

/* The steps of a start, in their order. What a start that fails has done is undone in the reverse
 * order; a stop has an order of its own, because there requests may be under way. */
struct start_step_t {
    const char* name;  // in the log
    tarv_stat_t (*start)();
    void (*undo)();
};
const start_step_t start_steps[] = {
    {"ibarp hash table", tarv_hash_init, tarv_hash_destroy},
    {"requests list", tarv_req_list_init, tarv_req_list_destroy},
    {"async events registration", tarv_aync_ev_init, tarv_aync_ev_destroy_cleanup},
    {"SA requests list", tarv_sa_req_list_init, tarv_sa_req_list_destroy},
};

}  // namespace

constinit gx_hca_h_t hca_h = nullptr;

tarv_stat_t tarv_init() {
    reset_state();
    tarv_sa_start();

    for (u32 done = 0; done < sizeof start_steps / sizeof start_steps[0]; done++) {
        const tarv_stat_t status = start_steps[done].start();
        if (status == tarv_stat_ok)
            continue;
        TARV_LOG(TARV_ERROR, "Error initializing %s<%d>.\n", start_steps[done].name, status);
        while (done-- > 0)
            start_steps[done].undo();
        return status;
    }
    register_api();
    printk("TARV: Initialized.\n");
    return tarv_stat_ok;
}

void tarv_aync_ev_destroy_cleanup() {
    gx_dell_sleepable_async_event_cb(hca_h, tarv_async_event_cb);
    gx_hca_h_t hca = hca_h;
    write_once(hca_h, nullptr);
    gx_hca_close(hca);
    tarv_sa_cleanup();
}

void tarv_destroy() {
    unregister_api();
    // From here on nothing is re-issued: what still waits gets its last word.
    write_once(halted, 1);
    // A query that the ARP timer is making holds a datagram, which must be back before the pools
    // go. What it has moved on to the SA list is there for the drain.
    del_timing_sync(&tarv_req_timer);
    tarv_sa_req_list_drain();
    tarv_aync_ev_destroy_cleanup();
    tarv_req_list_destroy();
    // Nobody is busy with a request any more.
    tarv_sa_req_list_destroy();
    tarv_hash_destroy();
    printk("TARV: Unloaded.\n");
}

void tarv_async_event_cb(gx_event_record_t event_record) {
    const u8 port = event_record.port_num;
    switch (event_record.event_type) {
        case gx_async_r_port_link_up:
            TARV_LOG(TARV_DEBUG, "Received link_up <port:%d>\n", port);
            tarv_sa_init(tarv_process_path_rec_data, port);
            break;
        case gx_async_r_port_link_down:
            link_down(port);
            break;
        case gx_async_r_port_mtu:
        case gx_async_r_port_lid:
            tarv_hash_remove_all();
            break;
        case gx_async_r_port_sm_change:
            tarv_sa_update_sa_info(port);
            break;
        default:
            TARV_LOG(TARV_DEBUG, "Received async event <type: %X> <port:%d>\n",
                     static_cast<u32>(event_record.event_type), port);
            break;
    }
}

void tarv_get_ib_data_reply_dummy_fn(tarv_stat_t status, tarv_arp_data_t* arp_data, void*) {
    if (status == tarv_stat_ok)
        TARV_LOG(TARV_DEBUG, "Entry <IP:%d.%d.%d.%d> invalidated ok\n",
                 TARV_IP_BYTES(arp_data->dst_ip));
    else
        TARV_LOG(TARV_DEBUG, "Invalidation failed <Status:%d>.\n", status);
}
