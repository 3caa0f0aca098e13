// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The P_Key that this host uses towards a peer, written into path records. All of it runs without a
// lock of the module: it asks the driver and the adapter.
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-hca.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";

constexpr const char* rewrite = TARV_NAME_OF(tarv_change_path_pkey);

/* Entries of a port's P_Key table that are looked at. */
constexpr int scanned_pkeys = 5;

/* Asks the attached driver about the interface that serves the address. */
bool ask_interface(u32 ip, gx_p_key_t* pkey, int* loopback) {
    const driver_call driver;
    if (!driver.get_if_info) {
        TARV_LOG_FROM(rewrite, TARV_WARNING, "local_get_if_info_fn is not attached\n");
        return false;
    }
    int scratch = 0;
    if (driver.get_if_info(ip, pkey, nullptr, &scratch, loopback) != tarv_stat_ok) {
        TARV_LOG_FROM(rewrite, TARV_WARNING, "local_get_if_info_fn failed\n");
        return false;
    }
    return true;
}

}  // namespace

tarv_stat_t tarv_get_local_pkey(gx_gid_t* sgid, gx_p_key_t* pkey) {
    const open_hca hca;
    if (hca.status() != gx_return_ok) {
        TARV_LOG(TARV_ERROR, "gx_hca_open failed \n");
        return tarv_stat_error;
    }
    int port = 0;
    if (base_gid2port_num(hca.handle(), sgid, &port) != 0) {
        TARV_LOG(TARV_ERROR, "base_gid2port_num failed \n");
        return tarv_stat_error;
    }
    TARV_LOG(TARV_DEBUG, "will scan port %d\n", port);
    for (int index = 0; index < scanned_pkeys; index++) {
        if (pkey_index2pkey(hca.handle(), static_cast<u8>(port), index, pkey) != 0) {
            TARV_LOG(TARV_WARNING, "pkey_index2pkey failed for index %d. will try next\n", index);
        } else if (*pkey & 0x8000) {
            TARV_LOG(TARV_DEBUG, "found local pkey %hx at index %d\n", *pkey, index);
            return tarv_stat_ok;
        } else {
            TARV_LOG(TARV_DEBUG,
                     "pkey of index %d in port %d is not usable (%hx). will try next.\n", index,
                     port, *pkey);
        }
    }
    TARV_LOG(TARV_ERROR, "no local full member pkey found for port %d\n", port);
    return tarv_stat_error;
}

void tarv_change_path_pkey(u32 req_ip, ib_path_record_v2_t* paths, int path_count) {
    gx_p_key_t pkey = 0;
    int loopback = 0;
    if (!ask_interface(req_ip, &pkey, &loopback)) {
        TARV_LOG(TARV_WARNING, "change pkey of path(s) from SA was skipped\n");
        return;
    }
    if (loopback)
        TARV_LOG(TARV_DEBUG, "local_get_if_info_fn set loopback flag to true\n");

    for (int i = 0; i < path_count && i < 2; i++) {
        if (loopback && tarv_get_local_pkey(&paths[i].sgid, &pkey) != tarv_stat_ok) {
            TARV_LOG(TARV_WARNING, "tarv_get_local_pkey failed\n");
            TARV_LOG(TARV_WARNING, "change pkey of path(s) from SA was skipped\n");
            return;
        }
        if (i == 0)
            TARV_LOG(TARV_DEBUG, "pkey of first path changed to: 0x%hx\n", pkey);
        else
            TARV_LOG(TARV_DEBUG, "pkey of second path changed to: 0x%hx\n", pkey);
        paths[i].pkey = pkey;
    }
}
