// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Commands that show the module's state in the kernel log. Their output has the level of an error,
// so that it appears at the lowest trace level that prints anything.
#include "platform/printk.h"
#include "tarv/logger.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-api-parse.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-ptr.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

struct labelled_value_t {
    const char* label;
    u32 value;
};

void show_path(const char* function, const char* which, const ib_path_record_v2_t& path) {
    TARV_LOG_FROM(function, TARV_ERROR, "%s DGID (128 bits): 0x%016LX%016LX \n", which,
                  gid_high(path.dgid), gid_low(path.dgid));
    TARV_LOG_FROM(function, TARV_ERROR, "%s SGID (128 bits): 0x%016LX%016LX \n", which,
                  gid_high(path.sgid), gid_low(path.sgid));
    TARV_LOG_FROM(function, TARV_ERROR, "%s DLID: 0x%04X (%d)\n", which, path.dlid, path.dlid);
    TARV_LOG_FROM(function, TARV_ERROR, "%s SLID: 0x%04X (%d)\n", which, path.slid, path.slid);
    const labelled_value_t values[] = {
        {"Raw Traffic (1 bit)", path.raw_traffic},
        {"Flow Label (20 bits)", path.flow_label},
        {"Hop Limit (8 bits)", path.hop_limut},
        {"Traffic Class(8 bits)", path.traffic_class},
        {"Numb Path (7 bits)", path.numb_path},
        {"P_Key (16 bits)", path.pkey},
        {"SL (16 bits)", path.sl},
        {"MTU Selector (2 bits)", path.mtu_selector},
        {"MTU (6 bits)", path.mtu},
        {"Rate Selector (2 bits)", path.rate_selector},
        {"Rate (6 bits)", path.rate},
        {"PktLifeTime Selector (2 bits)", path.pkt_life_time_selector},
        {"PktLifeTime (6 bits)", path.pkt_life_time},
    };
    for (const labelled_value_t& row : values)
        TARV_LOG_FROM(function, TARV_ERROR, "%s %s: 0x%08X (%d)\n", which, row.label, row.value,
                      row.value);
}

/* The fields that the mask declares valid. */
void show_fields(const char* function, const tarv_arp_data_t& record) {
    const u32 mask = record.mask;
    if (mask & TARV_MASK_SRC_IP)
        TARV_LOG_FROM(function, TARV_ERROR, "Src IP: %d.%d.%d.%d 0x%08X (%d)\n",
                      TARV_IP_BYTES(record.src_ip), record.src_ip, record.src_ip);
    if (mask & TARV_MASK_LID)
        TARV_LOG_FROM(function, TARV_ERROR, "LID: 0x%04X (%d)\n", record.lid, record.lid);
    if (mask & TARV_MASK_QKEY)
        TARV_LOG_FROM(function, TARV_ERROR, "QKEY: 0x%08X (%d)\n", record.qkey, record.qkey);
    if (mask & TARV_MASK_QPN)
        TARV_LOG_FROM(function, TARV_ERROR, "QPN (24 bits): 0x%08X (%d)\n", record.qpn, record.qpn);
    if (mask & TARV_MASK_CAP_FLG)
        TARV_LOG_FROM(function, TARV_ERROR, "Capability flag (8 bits): %08X (%d)\n", record.cap_flg,
                      record.cap_flg);
    if (mask & TARV_MASK_GID)
        TARV_LOG_FROM(function, TARV_ERROR, "GID (128 bits): 0x%016LX%016LX \n",
                      gid_high(record.gid), gid_low(record.gid));
    if (mask & TARV_MASK_LOCAL_PORT)
        TARV_LOG_FROM(function, TARV_ERROR, "Local port number: 0x%08X (%d)\n",
                      record.local_port_num, record.local_port_num);
    if (mask & TARV_MASK_PRIMARY_PATH)
        show_path(function, "Primary", record.paths[0]);
    if (mask & TARV_MASK_SECONDARY_PATH)
        show_path(function, "Secondary", record.paths[1]);
}

/* The one argument of both commands. */
bool parse_address(int argc, char** argv, u32* ip, const char* function) {
    if (argc != 2) {
        TARV_LOG_FROM(function, TARV_DEBUG, "Wrong usage. <%d>\n", argc);
        return false;
    }
    if (parseipstr(argv[1], ip) != tarv_stat_ok) {
        TARV_LOG_FROM(function, TARV_DEBUG, "Could not parse ip address.\n");
        return false;
    }
    return true;
}

void announce(const char* function, u32 ip) {
    TARV_LOG_FROM(function, TARV_ERROR, "Looking for IP: %d.%d.%d.%d.\n", TARV_IP_BYTES(ip));
}

void complain_of_memory(const char* function) {
    TARV_LOG_FROM(function, TARV_ERROR, "Failed allocate memory for tarv_hash_entry_t (%d).\n",
                  static_cast<int>(sizeof(tarv_hash_entry_t)));
}

}  // namespace

void tarv_proc_cmd_show(int argc, char** argv) {
    u32 ip = 0;
    if (!parse_address(argc, argv, &ip, __func__))
        return;
    announce(__func__, ip);
    const kptr<tarv_hash_entry_t> copy(GFP_KERNEL);
    if (!copy) {
        complain_of_memory(__func__);
        return;
    }
    if (tarv_hash_get_entry(ip, copy.get()) != tarv_stat_ok) {
        TARV_LOG(TARV_ERROR, "Entry not found.\n");
        return;
    }
    TARV_LOG(TARV_ERROR,
             "IP: %d.%d.%d.%d (Please pay attention that only the valid fields are shown.)\n",
             TARV_IP_BYTES(ip));
    TARV_LOG(TARV_ERROR, "===================\n");
    TARV_LOG(TARV_ERROR, "Validity mask: 0x%08X (%d)\n", copy->arp_data.mask, copy->arp_data.mask);
    show_fields(__func__, copy->arp_data);
}

void tarv_proc_cmd_show_paths(int argc, char** argv) {
    u32 ip = 0;
    if (!parse_address(argc, argv, &ip, __func__))
        return;
    const kptr<tarv_hash_entry_t> copy(GFP_KERNEL);
    if (!copy) {
        complain_of_memory(__func__);
        return;
    }
    announce(__func__, ip);
    if (tarv_hash_get_entry(ip, copy.get()) != tarv_stat_ok) {
        TARV_LOG(TARV_ERROR, "Entry not found.\n");
        return;
    }
    const tarv_arp_data_t& record = copy->arp_data;
    for (int i = 0; i < record.paths_count && i < TARV_MAX_PATHS; i++) {
        TARV_LOG(TARV_ERROR, "================== Path #%d =========================\n\n", i + 1);
        show_path(__func__, "Primary", record.paths[i]);
    }
}

void tarv_proc_cmd_dump(int, char**) {
    printk("We have %d pending gsi datagrams.\n", atomic_read(&tarv_gsi_pending_cnt));
    tarv_req_list_dump();
    tarv_sa_req_list_dump();
    tarv_hash_dump();
}

void tarv_proc_cmd_show_stat(int, char**) {
    tarv_sa_show_stat();
}
