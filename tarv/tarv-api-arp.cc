// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The intake of the ARP packets that the IPoIB driver receives.
#include "platform/atomic.h"
#include "platform/bug.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-ptr.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

constexpr const char* intake = TARV_NAME_OF(tarv_process_arp_data);

/* The verbs layer numbers ports with 8 bits; what does not fit is no port. */
u8 port_number(u32 local_port_num) {
    return local_port_num <= 0xFF ? static_cast<u8>(local_port_num) : 0;
}

/* Gives the peer in `record` the static path, its own ends filled in. The template is used by every
 * intake and by commands: the work is done on a copy, and only the new P_Key is put back. */
void add_static_path(tarv_arp_data_t* record) {
    ib_path_record_v2_t path;
    {
        const spin_guard guard(static_path_lock);
        path = static_path;
    }
    const gx_p_key_t pkey = path.pkey;
    tarv_change_path_pkey(record->dst_ip, &path, 1);
    if (path.pkey != pkey) {
        const spin_guard guard(static_path_lock);
        static_path.pkey = path.pkey;
    }
    if (record->mask & TARV_MASK_PRIMARY_PATH)
        return;
    path.dlid = record->lid;
    path.dgid = record->gid;
    gx_lid_t slid = path.slid;
    port_num2base_lid(read_once(hca_h), port_number(record->local_port_num), &slid);
    path.slid = slid;
    port_num2base_gid(read_once(hca_h), port_number(record->local_port_num), &path.sgid);
    record->paths[0] = path;
    record->mask |= TARV_MASK_PRIMARY_PATH;
}

/* The cache learns `record`; false: there is no memory for a new entry. Where the peer's entry may
 * not be replaced, `record` becomes its record. */
bool learn(tarv_arp_data_t* record, tarv_hash_entered_t* outcome) {
    *outcome = tarv_hash_enter(record, tarv_hash_replace, nullptr);
    if (*outcome != tarv_hash_wants_entry)
        return true;
    kptr<tarv_hash_entry_t> entry(GFP_ATOMIC);
    if (!entry) {
        TARV_LOG_FROM(intake, TARV_ERROR, "Not enough memory to allocate new arp entry.\n");
        return false;
    }
    // Meanwhile somebody else may have entered the peer: then there is nothing to be added.
    record->mask |= TARV_MASK_SRC_IP;
    *outcome = tarv_hash_enter(record, tarv_hash_replace, entry.get());
    if (*outcome == tarv_hash_added)
        entry.release();
    return true;
}

/* Moves a request, which is the caller's, on to the SA: it waits there for paths to `dgid`. */
tarv_stat_t request_paths(tarv_list_entry_t* request, const gx_gid_t& dgid, u32 local_port_num) {
    kptr<tarv_list_entry_t> owner(request);
    tarv_maker_t maker = {};
    owner->maker = &maker;
    owner->dgid = dgid;
    tarv_set_request_static_flag(request);
    owner->needed_paths_mask = owner->requested_paths == tarv_paths_both ? 3 : 1;
    if (tarv_sa_add_request(request) != tarv_stat_ok) {
        TARV_LOG_FROM(intake, TARV_ERROR,
                      "Error adding the new sa request entry to the container.\n");
    } else if (tarv_sa_query_path(local_port_num, &request->dgid) != tarv_stat_ok) {
        TARV_LOG_FROM(intake, TARV_ERROR, "Error initiating multipath record query.\n");
        tarv_sa_remove_request(request);
    } else {
        tarv_sa_release_request(owner.release(), &maker, false);
        return tarv_stat_ok;
    }
    tarv_reply(request, tarv_stat_error, nullptr);
    return tarv_stat_error;
}

/* What the peer's record holds is all that the request can get now. */
bool is_answered_by(const tarv_list_entry_t* request, const tarv_arp_data_t& record) {
    return request->requested_paths == tarv_paths_none || !read_once(sa_queries_enabled) ||
           (record.mask & TARV_MASK_STATIC &&
            tarv_mask_has_paths(record.mask, request->requested_paths));
}

/* Completes the requests that waited for the peer in `record`; `result` is the outcome so far. What
 * an administrator's record leaves open about the way to the peer, the packet tells. */
tarv_stat_t complete_requests(tarv_arp_data_t* record, const tarv_arp_data_t* packet,
                              tarv_stat_t result) {
    list_head found_head;
    if (tarv_find_and_move_arp_requests_to_list(record->dst_ip, &found_head) != tarv_stat_ok)
        return result;
    tarv_found_list found(found_head);
    const gx_gid_t& dgid = record->mask & TARV_MASK_GID ? record->gid : packet->gid;
    const u32 local_port_num =
        record->mask & TARV_MASK_LOCAL_PORT ? record->local_port_num : packet->local_port_num;
    while (tarv_list_entry_t* request = found.pop()) {
        if (is_answered_by(request, *record)) {
            tarv_reply(request, tarv_stat_ok, record);
            tarv_free_request(request);
        } else {
            result = request_paths(request, dgid, local_port_num);
        }
    }
    return result;
}

}  // namespace

constinit u8 enabled = 0;
constinit u8 statics_inv_enabled = 1;
constinit spinlock_t static_path_lock = {};
constinit ib_path_record_v2_t static_path = {};

void swap_ips(u32* src_ip, u32* dst_ip) {
    const u32 ip = *src_ip;
    *src_ip = *dst_ip;
    *dst_ip = ip;
}

tarv_stat_t tarv_process_arp_data(tarv_arp_data_t* arp_data) {
    const kptr<tarv_arp_data_t> record(GFP_ATOMIC);
    if (!record) {
        TARV_LOG(TARV_ERROR, "Failed allocate memory for local_arp_data (%d).\n",
                 static_cast<int>(sizeof(tarv_arp_data_t)));
        return tarv_stat_ok;
    }
    *record = *arp_data;
    tarv_aim_paths(record.get());
    if (!read_once(enabled))
        return tarv_stat_ok;
    switch (record->arp_operation) {
        case TARV_ARP_OP_REQUEST:
            TARV_LOG(TARV_DEBUG, "ARP_REQ received <src_ip:%08x,dst_ip:%08x>\n", record->src_ip,
                     record->dst_ip);
            break;
        case TARV_ARP_OP_REPLY:
            TARV_LOG(TARV_DEBUG, "ARP processed <src_ip:%08x,dst_ip:%08x>\n", record->src_ip,
                     record->dst_ip);
            break;
        default:
            TARV_LOG(TARV_ERROR, "Invalid ARP operation<%d>.\n", record->arp_operation);
            return tarv_stat_error;
    }
    // From here on dst_ip is the peer, the cache's key.
    swap_ips(&record->src_ip, &record->dst_ip);
    if (!read_once(sa_queries_enabled))
        add_static_path(record.get());

    tarv_hash_entered_t outcome;
    if (!learn(record.get(), &outcome))
        return tarv_stat_not_found;
    if (outcome == tarv_hash_replaced)
        return tarv_stat_ok;
    // Where the entry is the administrator's and protected, it is the answer as well.
    return complete_requests(record.get(), arp_data, tarv_stat_ok);
}
