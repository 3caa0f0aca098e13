// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The ports' SA contexts: set-up, refresh, take-down.
#include "tarv/tarv-sa.h"

#include "platform/printk.h"
#include "platform/semaphore.h"
#include "tarv/logger.h"
#include "tarv/tarv-hca.h"
#include "tarv/tarv-sa-private.h"

namespace {

constexpr char tarv_unit[] = "tarv_sa";
constexpr const char* set_up = TARV_NAME_OF(tarv_sa_init);

constexpr u32 datagrams_per_port = 1000;

/* What a set-up finds out before anything is changed. */
struct setup_t {
    gx_guid_t hca_guid;
    int port_count;
    gx_gid_t gid;
    gx_p_key_t p_key;
    gx_lid_t sm_lid;
    gx_service_level_t service_level;
    gsi_class_handle_t gsi_class_handle;
    gsi_dtgrm_pool_handle_t gsi_pool_handle;
};

tarv_sa_port_data_t& port_data(int port_num) {
    return tarv_sa_g.ports[port_num - 1];
}

tarv_stat_t tarv_sa_get_hca_guid_and_port_count(setup_t* setup) {
    const open_hca hca;
    if (hca.status() != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_hca_open() failed <%d>\n", hca.status());
        return tarv_stat_error;
    }
    TARV_LOG(TARV_FUNC, "hca handle is 0x%p.\n", static_cast<void*>(hca.handle()));
    gx_hca_attrib_t attributes = {};
    const gx_return_t code = gx_hca_query(hca.handle(), &attributes);
    if (code != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_hca_query() failed <%d>\n", code);
        return tarv_stat_error;
    }
    if (attributes.port_num > TARV_SA_MAX_PORTS) {
        TARV_LOG(TARV_ERROR, "The HCA has %u ports, only %d are supported.\n", attributes.port_num,
                 TARV_SA_MAX_PORTS);
        return tarv_stat_error;
    }
    setup->hca_guid = attributes.guid;
    setup->port_count = static_cast<int>(attributes.port_num);
    return tarv_stat_ok;
}

tarv_stat_t tarv_sa_get_port_gid_and_pkey(int port_num, setup_t* setup) {
    const open_hca hca;
    if (hca.status() != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_hca_open() failed <%d>\n", hca.status());
        return tarv_stat_error;
    }
    TARV_LOG(TARV_FUNC, "hca handle is 0x%p.\n", static_cast<void*>(hca.handle()));
    u32 size = 1;
    gx_return_t code =
        gx_get_port_gid_tbl(hca.handle(), static_cast<u8>(port_num), &size, &setup->gid);
    if (code != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_get_port_gid_tbl() failed <%d>\n", code);
        return tarv_stat_error;
    }
    if (size == 0) {
        TARV_LOG(TARV_DEBUG, "Port #%d has no GID.\n", port_num);
        return tarv_stat_error;
    }
    size = 1;
    code = gx_get_port_partition_tbl(hca.handle(), static_cast<u8>(port_num), &size, &setup->p_key);
    if (code != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_get_port_partition_tbl() failed <%d>\n", code);
        return tarv_stat_error;
    }
    if (size == 0) {
        TARV_LOG(TARV_DEBUG, "Port #%d has no P_Key.\n", port_num);
        return tarv_stat_error;
    }
    TARV_LOG(TARV_FUNC, "Port #%d Partition key is 0x%X.\n", port_num, setup->p_key);
    return tarv_stat_ok;
}

tarv_stat_t tarv_sa_reg_to_gsi(int port_num, setup_t* setup) {
    void* context = reinterpret_cast<void*>(static_cast<unsigned long>(port_num));
    if (gsi_register_class(SA_MGT_CLASS, SA_CLASS_VERSION, gx_default_hca_name(),
                           static_cast<u8>(port_num), 0, 1, tarv_sa_send_done_cb,
                           tarv_sa_recv_done_cb, context, &setup->gsi_class_handle) != 0) {
        setup->gsi_class_handle = nullptr;
        TARV_LOG(TARV_ERROR, "Can't register to GSI\n");
        sa_count(tarv_sa_g.stat.err_gsi_reg);
        return tarv_stat_error;
    }
    if (setup->gsi_pool_handle)
        return tarv_stat_ok;
    TARV_LOG(TARV_DEBUG, "Creating new GSI datagram pool\n");
    if (gsi_dtgrm_pool_create_named(datagrams_per_port, &setup->gsi_pool_handle, "tarv") != 0) {
        TARV_LOG(TARV_ERROR, "Can't allocate GSI datagram pool\n");
        sa_count(tarv_sa_g.stat.err_gsi_pool_create);
        setup->gsi_pool_handle = nullptr;
        gsi_deregister_class(setup->gsi_class_handle);
        return tarv_stat_error;
    }
    return tarv_stat_ok;
}

void commit(int port_num, const setup_t& setup) TA_EXCL(tarv_sa_lock) {
    const spin_guard guard(tarv_sa_lock);
    write_once(tarv_sa_g.hca_guid, setup.hca_guid);
    write_once(tarv_sa_g.port_count, setup.port_count);
    tarv_sa_port_data_t& port = port_data(port_num);
    sa_write_gid(port, setup.gid);
    write_once(port.p_key, setup.p_key);
    write_once(port.sm_lid, setup.sm_lid);
    write_once(port.service_level, setup.service_level);
    write_once(port.gsi_class_handle, setup.gsi_class_handle);
    write_once(port.gsi_pool_handle, setup.gsi_pool_handle);
    write_once(port.is_valid, 1);
    TARV_LOG_FROM(set_up, TARV_DEBUG,
                  "gid:0x%LX,0x%LX, p_key:%X, sm_lid:%d,\ngsi_class_handle:%p, "
                  "gsi_pool_handle:%p\n",
                  gid_high(setup.gid), gid_low(setup.gid), setup.p_key, setup.sm_lid,
                  static_cast<void*>(setup.gsi_class_handle),
                  static_cast<void*>(setup.gsi_pool_handle));
}

/* Ends the port's registration; it is not valid any more from the first moment on. */
void tarv_sa_dereg_frm_gsi(int port_num) TA_EXCL(tarv_sa_lock) {
    gsi_class_handle_t handle = nullptr;
    {
        const spin_guard guard(tarv_sa_lock);
        tarv_sa_port_data_t& port = port_data(port_num);
        handle = port.gsi_class_handle;
        write_once(port.gsi_class_handle, nullptr);
        write_once(port.is_valid, 0);
    }
    if (!handle)
        return;
    while (gsi_deregister_class(handle) != 0)
        schedule();
}

void release_pool(int port_num) TA_EXCL(tarv_sa_lock) {
    gsi_dtgrm_pool_handle_t pool = nullptr;
    {
        const spin_guard guard(tarv_sa_lock);
        tarv_sa_port_data_t& port = port_data(port_num);
        pool = port.gsi_pool_handle;
        write_once(port.gsi_pool_handle, nullptr);
        write_once(port.is_valid, 0);
    }
    if (pool)
        gsi_dtgrm_pool_destroy(pool);
}

}  // namespace

constinit spinlock_t tarv_sa_lock = {};
constinit tarv_sa_global_st tarv_sa_g = {};
constinit atomic_t tarv_gsi_pending_cnt = {};

void tarv_sa_start() {
    spin_lock_init(&tarv_sa_lock, "tarv_sa_lock");
    const spin_guard guard(tarv_sa_lock);
    tarv_sa_g = {};
}

tarv_stat_t tarv_sa_init(tarv_sa_new_path_cb_t new_path_cb, int port_num) {
    if (!sa_port_in_range(port_num)) {
        TARV_LOG(TARV_ERROR, "Port #%d is not supported, ports are 1 to %d.\n", port_num,
                 TARV_SA_MAX_PORTS);
        return tarv_stat_error;
    }
    {
        const spin_guard guard(tarv_sa_lock);
        if (port_data(port_num).is_valid) {
            TARV_LOG(TARV_ERROR, "Allready initialized.\n");
            return tarv_stat_error;
        }
        write_once(tarv_sa_g.new_path_cb, new_path_cb);
    }
    setup_t setup = {};
    if (tarv_sa_get_hca_guid_and_port_count(&setup) != tarv_stat_ok) {
        TARV_LOG(TARV_ERROR, "Cannot get HCA guid and port count.\n");
        return tarv_stat_error;
    }
    if (tarv_sa_get_port_gid_and_pkey(port_num, &setup) != tarv_stat_ok) {
        TARV_LOG(TARV_ERROR, "Cannot get port #%d gid and pkey\n", port_num);
        return tarv_stat_error;
    }
    const tarv_stat_t status = tarv_sa_get_sa_info(port_num, &setup.sm_lid, &setup.service_level);
    if (status != tarv_stat_ok) {
        TARV_LOG(TARV_ERROR, "Cannot get SA Info.\n");
        return status;
    }
    {
        const spin_guard guard(tarv_sa_lock);
        setup.gsi_pool_handle = port_data(port_num).gsi_pool_handle;
    }
    if (tarv_sa_reg_to_gsi(port_num, &setup) != tarv_stat_ok) {
        TARV_LOG(TARV_ERROR, "Cannot register to GSI.\n");
        return tarv_stat_error;
    }
    commit(port_num, setup);
    return tarv_stat_ok;
}

tarv_stat_t tarv_sa_get_sa_info(int port_num, gx_lid_t* sm_lid, gx_service_level_t* sm_sl) {
    const open_hca hca;
    if (hca.status() != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_hca_open() failed <%d>\n", hca.status());
        return tarv_stat_error;
    }
    TARV_LOG(TARV_FUNC, "hca handle is 0x%p.\n", static_cast<void*>(hca.handle()));
    gx_port_attrib_t port_attrib = {};
    const gx_return_t code = gx_port_query(hca.handle(), static_cast<u8>(port_num), &port_attrib);
    if (code != gx_return_ok) {
        TARV_LOG(TARV_DEBUG, "gx_port_query() failed <%d>\n", code);
        return tarv_stat_error;
    }
    const gx_sm_address_info_t& sm = port_attrib.port_sma_address_info;
    TARV_LOG(TARV_FUNC, "port_attrib.port_base_lid: 0x%08X.\n", port_attrib.port_base_lid);
    TARV_LOG(TARV_FUNC, "port_attrib.port_num: 0x%08X.\n", port_attrib.port_num);
    TARV_LOG(TARV_FUNC, "port_attrib.port_sma_address_info.port_num: 0x%08X.\n", sm.port_num);
    TARV_LOG(TARV_FUNC, "port_attrib.port_sma_address_info.service_level: 0x%08X.\n",
             sm.service_level);
    TARV_LOG(TARV_FUNC, "port_attrib.port_sma_address_info.sm_lid: 0x%08X.\n", sm.sm_lid);
    TARV_LOG(TARV_FUNC, "port_attrib.port_sgid_table_size: 0x%08X.\n",
             port_attrib.port_sgid_table_size);
    *sm_lid = sm.sm_lid;
    *sm_sl = sm.service_level;
    return tarv_stat_ok;
}

tarv_stat_t tarv_sa_update_sa_info(int port_num) {
    gx_lid_t sm_lid = 0;
    gx_service_level_t sm_sl = 0;
    const tarv_stat_t status = tarv_sa_get_sa_info(port_num, &sm_lid, &sm_sl);
    if (status != tarv_stat_ok)
        return status;
    if (!sa_port_in_range(port_num))
        return tarv_stat_error;
    const spin_guard guard(tarv_sa_lock);
    tarv_sa_port_data_t& port = port_data(port_num);
    if (!port.is_valid)
        return tarv_stat_error;
    write_once(port.sm_lid, sm_lid);
    write_once(port.service_level, sm_sl);
    return tarv_stat_ok;
}

bool tarv_sa_known_gid(int port_num, gx_gid_t* gid) {
    constexpr gx_gid_t none = {};
    if (!sa_port_in_range(port_num))
        return false;
    *gid = sa_read_gid(port_data(port_num));
    return !(*gid == none);
}

void tarv_sa_destroy(int port_num) {
    if (sa_port_in_range(port_num))
        tarv_sa_dereg_frm_gsi(port_num);
}

/* All ports that there are records for: an adapter may have come to report fewer than were set up.
 */
void tarv_sa_cleanup() {
    const int port_count = read_once(tarv_sa_g.port_count);
    TARV_LOG(TARV_DEBUG, "Port count is %d.\n", port_count);
    for (int port_num = 1; port_num <= TARV_SA_MAX_PORTS; port_num++) {
        if (port_num <= port_count)
            TARV_LOG(TARV_DEBUG, "Trying to release port %d ...\n", port_num);
        tarv_sa_dereg_frm_gsi(port_num);
    }
    // A callback on one port's answer may be making a query on another. Only when no answer is
    // being taken in any more is every datagram back.
    for (int port_num = 1; port_num <= TARV_SA_MAX_PORTS; port_num++)
        release_pool(port_num);
}

tarv_stat_t tarv_sa_set_local_gids(gx_gid_t* gid_port1, gx_gid_t* gid_port2) {
    if (gid_port1)
        sa_write_gid(port_data(1), *gid_port1);
    if (gid_port2)
        sa_write_gid(port_data(2), *gid_port2);
    return tarv_stat_ok;
}

tarv_stat_t tarv_sa_set_local_pkeys(gx_p_key_t pkey_port1, gx_p_key_t pkey_port2) {
    write_once(port_data(1).p_key, pkey_port1);
    write_once(port_data(2).p_key, pkey_port2);
    return tarv_stat_ok;
}

/* Without the lock: a picture of a moment, for a person. */
void tarv_sa_show_stat() TA_NO_ANALYSIS {
    const tarv_sa_stat_t& stat = tarv_sa_g.stat;
    printk("err: param: %d, port: %d, get: %d, dgram: %d, gsi err: %d, %d\n",
           read_once(stat.err_parm), read_once(stat.err_inval_port), read_once(stat.err_pool_get),
           read_once(stat.err_dgrm_null), read_once(stat.err_gsi_reg),
           read_once(stat.err_gsi_pool_create));
    const int port_count = read_once(tarv_sa_g.port_count);
    printk("port num: %d\n", port_count);
    for (int port_num = 1; port_num <= port_count; port_num++) {
        const tarv_sa_port_data_t& port = port_data(port_num);
        printk(" valid: %d, pkey: %d, sl: %d, sm lid: %d, gsi h: %p, gsi pool h: %p\n",
               read_once(port.is_valid), read_once(port.p_key), read_once(port.service_level),
               read_once(port.sm_lid), static_cast<void*>(read_once(port.gsi_class_handle)),
               static_cast<void*>(read_once(port.gsi_pool_handle)));
    }
}
