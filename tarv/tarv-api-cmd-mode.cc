// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Commands that switch the module's modes and set its tunables.
#include "platform/atomic.h"
#include "platform/string.h"
#include "tarv/logger.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-api-parse.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

constexpr int max_retries = 10;

/* The word after the command sets a switch. */
void set_switch(int argc, char** argv, u8& variable, const char* when_on, const char* when_off,
                const char* function) {
    if (argc < 2) {
        TARV_LOG_FROM(function, TARV_DEBUG, "Not enough parameters.\n");
    } else if (kstrcmp(argv[1], "on") == 0) {
        write_once(variable, 1);
        TARV_LOG_FROM(function, TARV_DEBUG, "%s", when_on);
    } else if (kstrcmp(argv[1], "off") == 0) {
        write_once(variable, 0);
        TARV_LOG_FROM(function, TARV_DEBUG, "%s", when_off);
    } else {
        TARV_LOG_FROM(function, TARV_DEBUG, "Illegal parameter.\n");
    }
}

}  // namespace

void tarv_proc_cmd_halt(int, char**) {
    write_once(halted, 1);
    TARV_LOG(TARV_DEBUG, "module will get into halt state (not sending ARP during stack stop).\n");
    tarv_req_timer_handler(tarv_req_timer.data);
    tarv_sa_req_timer_handler(tarv_sa_req_timer.data);
}

void tarv_proc_cmd_enable(int, char**) {
    write_once(enabled, 1);
}

void tarv_proc_cmd_disable(int, char**) {
    write_once(enabled, 0);
}

void tarv_proc_cmd_sa_queries(int argc, char** argv) {
    set_switch(argc, argv, sa_queries_enabled, "SA queries enabled.\n", "SA queries disabled.\n",
               __func__);
}

void tarv_proc_cmd_statics_inv(int argc, char** argv) {
    set_switch(argc, argv, statics_inv_enabled, "Static arp entries may now be invalidated.\n",
               "Static entries may NOT be invalidated.\n", __func__);
}

void tarv_proc_cmd_set_local_gids(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    gx_gid_t gids[2];
    if (parsegidstr(argv[1], &gids[0]) != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "Could not parse port1 gid address.\n");
        return;
    }
    if (argc == 3 && parsegidstr(argv[2], &gids[1]) != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "Could not parse port2 gid address.\n");
        return;
    }
    tarv_sa_set_local_gids(&gids[0], argc == 3 ? &gids[1] : nullptr);
}

void tarv_proc_cmd_set_local_pkeys(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    const auto port1_pkey = static_cast<gx_p_key_t>(parse_number(argv[1]));
    if (port1_pkey == 0) {
        TARV_LOG(TARV_DEBUG, "Could not parse port1 pkey.\n");
        return;
    }
    const auto port2_pkey = static_cast<gx_p_key_t>(argc == 3 ? parse_number(argv[2]) : 0);
    if (argc == 3 && port2_pkey == 0) {
        TARV_LOG(TARV_DEBUG, "Could not parse port2 pkey.\n");
        return;
    }
    tarv_sa_set_local_pkeys(port1_pkey, port2_pkey);
}

void tarv_proc_cmd_set_retry_cnt(int argc, char** argv) {
    if (argc != 2) {
        TARV_LOG(TARV_ERROR, "Wrong usage. <%d>\n", argc);
        return;
    }
    const int count = static_cast<int>(parse_number(argv[1]));
    if (count == 0) {
        TARV_LOG(TARV_ERROR, "Could not parse retry number.\n");
        return;
    }
    if (count > max_retries) {
        TARV_LOG(TARV_ERROR, "Can't set retry number to %d (max number is %d).\n", count,
                 max_retries);
        return;
    }
    TARV_LOG(TARV_DEBUG, "ARP retry number: old: %d, new: %d.\n", read_once(get_data_retry), count);
    write_once(get_data_retry, count);
}
