// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The SA client's state, shared by its set-up and its queries and by nobody else.
//
// Some fields are also read without the lock, where a value of a moment ago does no harm. Those are
// written and read with write_once and read_once (a GID byte by byte): another CPU sees every part
// of them either old or new.
#pragma once

#include "platform/atomic.h"
#include "platform/gsi.h"
#include "platform/spinlock.h"
#include "tarv/tarv-sa.h"

extern spinlock_t tarv_sa_lock;

/* One port. */
struct tarv_sa_port_data_t {
    int is_valid;  // 1: complete, and usable for queries; written under the lock
    gx_gid_t gid;
    gx_p_key_t p_key;
    gx_lid_t sm_lid;
    gx_service_level_t service_level;
    gsi_class_handle_t gsi_class_handle TA_GUARDED(tarv_sa_lock);
    gsi_dtgrm_pool_handle_t gsi_pool_handle TA_GUARDED(tarv_sa_lock);
};

/* Counters, never reset. */
struct tarv_sa_stat_t {
    int err_parm;
    int err_inval_port;  // queries on a port that is not valid
    int err_pool_get;    // queries for which there was no datagram
    int err_dgrm_null;
    int err_gsi_reg;          // failed registrations
    int err_gsi_pool_create;  // failed pool creations
};

struct tarv_sa_global_st {
    gx_guid_t hca_guid;
    int port_count;  // of the adapter; 0 until the first set-up; at most TARV_SA_MAX_PORTS
    tarv_sa_port_data_t ports[TARV_SA_MAX_PORTS];  // port n is entry n - 1
    tarv_sa_stat_t stat;
    tarv_sa_new_path_cb_t new_path_cb;
};

extern tarv_sa_global_st tarv_sa_g;

inline bool sa_port_in_range(int port_num) {
    return port_num >= 1 && port_num <= TARV_SA_MAX_PORTS;
}

inline void sa_count(int& counter) {
    __atomic_add_fetch(&counter, 1, __ATOMIC_RELAXED);
}

inline gx_gid_t sa_read_gid(const tarv_sa_port_data_t& port) {
    gx_gid_t gid;
    for (u32 i = 0; i < sizeof gid.raw; i++)
        gid.raw[i] = read_once(port.gid.raw[i]);
    return gid;
}

inline void sa_write_gid(tarv_sa_port_data_t& port, const gx_gid_t& gid) {
    for (u32 i = 0; i < sizeof gid.raw; i++)
        write_once(port.gid.raw[i], gid.raw[i]);
}
