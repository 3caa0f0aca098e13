// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Commands that put entries into the cache by hand, take them out, and have them resolved anew.
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-api-parse.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-ptr.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

/* An optional number that was not given. */
constexpr u32 not_given = 0xFFFFFFFF;

u32 optional_number(int argc, char** argv, int index) {
    return index < argc ? static_cast<u32>(parse_number(argv[index])) : not_given;
}

/* What "add" and "addibarp" have in common from their third word on. */
struct new_entry_t {
    u32 src_ip;
    u32 dst_ip;
    u32 lid;
    u32 qpn;
    u32 qkey;
    u32 local_port_num;
    bool has_gid;
    gx_gid_t gid;
};

bool parse_addresses(char** argv, new_entry_t* wanted, const char* function) {
    if (parseipstr(argv[1], &wanted->src_ip) != tarv_stat_ok) {
        TARV_LOG_FROM(function, TARV_DEBUG, "Could not parse source ip address.\n");
        return false;
    }
    if (parseipstr(argv[2], &wanted->dst_ip) != tarv_stat_ok) {
        TARV_LOG_FROM(function, TARV_DEBUG, "Could not parse destination ip address.\n");
        return false;
    }
    return true;
}

void fill_record(const new_entry_t& wanted, tarv_arp_data_t* record) {
    record->src_ip = wanted.src_ip;
    record->dst_ip = wanted.dst_ip;
    record->mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP;
    if (wanted.has_gid) {
        record->gid = wanted.gid;
        record->mask |= TARV_MASK_GID;
    }
    if (wanted.lid != not_given) {
        record->lid = static_cast<gx_lid_t>(wanted.lid);
        record->mask |= TARV_MASK_LID;
    }
    if (wanted.qpn != not_given) {
        record->qpn = wanted.qpn;
        record->mask |= TARV_MASK_QPN;
    }
    if (wanted.qkey != not_given) {
        record->qkey = wanted.qkey;
        record->mask |= TARV_MASK_QKEY;
    }
    record->local_port_num = wanted.local_port_num;
    record->mask |= TARV_MASK_LOCAL_PORT | TARV_MASK_STATIC;
}

void add_static_entry(const new_entry_t& wanted, const char* function) {
    kptr<tarv_hash_entry_t> entry(GFP_KERNEL);
    if (!entry) {
        TARV_LOG_FROM(function, TARV_ERROR, "Not enough memory to allocate new ib-arp entry.\n");
        return;
    }
    tarv_arp_data_t record = {};
    fill_record(wanted, &record);
    const tarv_hash_entered_t outcome = tarv_hash_enter(&record, tarv_hash_keep, entry.get());
    if (outcome == tarv_hash_refused) {
        TARV_LOG_FROM(function, TARV_WARNING, "The IP allready exists.\n");
        return;
    }
    if (outcome != tarv_hash_added) {
        TARV_LOG_FROM(function, TARV_ERROR, "Error adding entry to the table.\n");
        return;
    }
    entry.release();
    TARV_LOG_FROM(function, TARV_DEBUG, "ARP entry <IP:%08X> added.\n", wanted.dst_ip);
}

}  // namespace

void tarv_proc_cmd_add(int argc, char** argv) {
    if (argc < 4) {
        TARV_LOG(TARV_DEBUG, "Not enough parameters.\n");
        return;
    }
    new_entry_t wanted = {};
    if (!parse_addresses(argv, &wanted, __func__))
        return;
    // Every LID counts as given, also one that is all ones.
    wanted.lid = parse_number(argv[3]) & 0xFFFF;
    wanted.qpn = optional_number(argc, argv, 4);
    wanted.qkey = optional_number(argc, argv, 5);
    wanted.local_port_num = 1;
    add_static_entry(wanted, __func__);
}

void tarv_proc_cmd_add_ib_arp(int argc, char** argv) {
    if (argc < 4) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    new_entry_t wanted = {};
    if (!parse_addresses(argv, &wanted, __func__))
        return;
    if (parsegidstr(argv[3], &wanted.gid) != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "Could not parse destination gid address.\n");
        return;
    }
    wanted.has_gid = true;
    wanted.lid = optional_number(argc, argv, 4);
    wanted.qpn = optional_number(argc, argv, 5);
    wanted.qkey = optional_number(argc, argv, 6);
    wanted.local_port_num = 1;
    if (argc >= 8) {
        wanted.local_port_num = static_cast<u32>(parse_number(argv[7]));
        if (wanted.local_port_num == 0) {
            TARV_LOG(TARV_DEBUG, "Could not parse port number.\n");
            return;
        }
    }
    add_static_entry(wanted, __func__);
}

void tarv_proc_cmd_remove(int argc, char** argv) {
    if (argc != 2) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    u32 ip = 0;
    if (parseipstr(argv[1], &ip) != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "Could not parse ip address.\n");
        return;
    }
    tarv_hash_entry_t* entry = nullptr;
    if (tarv_hash_remove_entry(ip, &entry) == tarv_stat_not_found)
        TARV_LOG(TARV_WARNING, "The IP address <%08X> not found in the ib-arp table.\n", ip);
    kfree(entry);
}

void tarv_proc_cmd_invalidate(int argc, char** argv) {
    if (argc != 3) {
        TARV_LOG(TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return;
    }
    u32 ip = 0;
    if (parseipstr(argv[1], &ip) != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "Could not parse ip address.\n");
        return;
    }
    const int path_count = static_cast<int>(parse_number(argv[2]));
    if (path_count < 0) {
        TARV_LOG(TARV_DEBUG, "Could not parse path_count.\n");
        return;
    }
    if (path_count > tarv_paths_both) {
        TARV_LOG(TARV_DEBUG, "Invalid path_count.\n");
        return;
    }
    tarv_arp_data_t record = {};
    tarv_get_ib_data(ip, ip, static_cast<tarv_paths_t>(path_count), &record,
                     tarv_get_ib_data_reply_dummy_fn, reinterpret_cast<void*>(0xBEEF), 1);
}

void tarv_proc_cmd_flush(int, char**) {
    tarv_hash_remove_all();
}
