// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Path queries to the SA, and their answers.
#include "platform/bug.h"
#include "tarv/logger.h"
#include "tarv/tarv-sa-private.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr char tarv_unit[] = "tarv_sa";

constexpr const char* build = TARV_NAME_OF(tarv_sa_build_multi_path_rec_query_mad);
constexpr const char* parse = TARV_NAME_OF(tarv_sa_parse_path_rec_query_mad_reply);
constexpr const char* receive = TARV_NAME_OF(tarv_sa_recv_done_cb);

/* Components of a MultiPathRecord that every query selects, and the bit of the first GID in the
 * list when the mask is read as a little-endian number. */
constexpr u64 base_component_mask = 0x00000000000C00C0;
constexpr int first_gid_component = 20;

/* Appends the GIDs of the valid local ports in ascending order and returns their number. A query
 * has room for two: the port that it is sent on, and the lowest other one. */
int collect_source_gids(u32 port_num, gx_gid_t* gids) {
    const int port_count = read_once(tarv_sa_g.port_count);
    const bool sender_counts = port_num >= 1 && port_num <= static_cast<u32>(port_count) &&
                               read_once(tarv_sa_g.ports[port_num - 1].is_valid);
    int others = sender_counts ? SA_MAX_SGIDS - 1 : SA_MAX_SGIDS;
    int count = 0;
    for (int n = 1; n <= port_count; n++) {
        const tarv_sa_port_data_t& port = tarv_sa_g.ports[n - 1];
        if (!read_once(port.is_valid))
            continue;
        const bool is_sender = sender_counts && static_cast<u32>(n) == port_num;
        if (!is_sender && others-- <= 0)
            continue;
        gids[count++] = sa_read_gid(port);
    }
    return count;
}

/* Takes a datagram from the port's pool. On tarv_stat_ok it may still be null. */
tarv_stat_t take_datagram(u32 port_num, gsi_dtgrm_t** dtgrm) TA_EXCL(tarv_sa_lock) {
    const bool in_range = port_num >= 1 && port_num <= TARV_SA_MAX_PORTS;
    int code = 0;
    {
        const spin_guard guard(tarv_sa_lock);
        if (in_range && tarv_sa_g.ports[port_num - 1].is_valid) {
            code = gsi_dtgrm_pool_get(tarv_sa_g.ports[port_num - 1].gsi_pool_handle, dtgrm);
            if (code == 0)
                return tarv_stat_ok;
            TARV_LOG_FROM(build, TARV_ERROR, "gsi_dtgrm_pool_get() failed <%d>\n", code);
        } else {
            TARV_LOG_FROM(build, TARV_ERROR, "Invalid port object <is_valid:%d>\n", 0);
        }
    }
    sa_count(code ? tarv_sa_g.stat.err_pool_get : tarv_sa_g.stat.err_inval_port);
    return tarv_stat_error;
}

/* The common header, and where the MAD goes. */
void build_mad(u32 port_num, gsi_dtgrm_t* dtgrm) {
    const tarv_sa_port_data_t& port = tarv_sa_g.ports[port_num - 1];
    __builtin_memset(dtgrm->mad, 0, sizeof dtgrm->mad);
    dtgrm->rlid = read_once(port.sm_lid);
    dtgrm->sl = read_once(port.service_level);
    dtgrm->rqp = SA_QP;
    dtgrm->rqk = 0;
    dtgrm->guid = 0;
    dtgrm->path_bits = 0;
    dtgrm->static_rate = 0;
    auto* header = reinterpret_cast<mad_hdr_t*>(dtgrm->mad);
    header->base_ver = MAD_BASE_VERSION;
    header->mgt_class = SA_MGT_CLASS;
    header->class_ver = SA_CLASS_VERSION;
    header->method = SA_METHOD_GET_MULTI;
    header->transact_id = 0;
    header->attrib_id = SA_ATTR_MULTI_PATH_RECORD;
    header->attrib_modifier = 0xFFFFFFFF;
}

void build_query(sa_mad_v2_rmpp_payload_t* block, int sgid_count, int dgid_count,
                 gx_gid_t* sd_gids) {
    auto* record = reinterpret_cast<ib_multi_path_record_v2_t*>(block->payload);
    block->sm_key = 0;
    block->attr_offset = __builtin_bswap16(sizeof(ib_multi_path_record_v2_t) / 8);
    u64 component_mask = __builtin_bswap64(base_component_mask);
    record->pkey = 0xFFFF;
    record->indep_sel = 1;
    record->sgid_count = static_cast<u8>(sgid_count);
    record->dgid_count = static_cast<u8>(dgid_count);
    for (int i = 0; i < sgid_count + dgid_count; i++) {
        ntoh(reinterpret_cast<char*>(record->s_d_gid[i].raw),
             reinterpret_cast<char*>(sd_gids[i].raw), sizeof(gx_gid_t));
        component_mask |= 1ull << (first_gid_component + i);
    }
    block->component_mask = component_mask;
    record->numb_path = TARV_MAX_PATHS;
}

/* The answer is one to a path query, and a good one. */
bool is_path_answer(const gsi_dtgrm_t* dtgrm) {
    const auto* header = reinterpret_cast<const mad_hdr_t*>(dtgrm->mad);
    if (header->base_ver != MAD_BASE_VERSION || header->mgt_class != SA_MGT_CLASS ||
        header->class_ver != SA_CLASS_VERSION) {
        TARV_LOG_FROM(parse, TARV_WARNING,
                      "Invalid base version<%d>, mgmt class<%d> or class version<%d>\n",
                      header->base_ver, header->mgt_class, header->class_ver);
        return false;
    }
    if (header->attrib_id != SA_ATTR_MULTI_PATH_RECORD) {
        TARV_LOG_FROM(parse, TARV_WARNING, "Invalid attribute ID. <0x%04X>\n", header->attrib_id);
        return false;
    }
    const u16 status = __builtin_bswap16(header->status);
    if (status != 0) {
        TARV_LOG_FROM(parse, TARV_DEBUG, "Incoming mad has an error status <0x%X> -> dropped.\n",
                      status);
        return false;
    }
    return true;
}

/* Finds the local port at which the answer's first path starts and hands the answer on. */
void deliver(ib_path_record_v2_t* paths, int path_count, u32 arrival_port) {
    const gx_gid_t sgid = paths[0].sgid;
    const int port_count = read_once(tarv_sa_g.port_count);
    for (int n = 1; n <= port_count; n++) {
        const gx_gid_t gid = sa_read_gid(tarv_sa_g.ports[n - 1]);
        TARV_LOG_FROM(receive, TARV_DEBUG, "Check     SGID: 0x%08LX%08LX port: %d, SLID:%d\n\n",
                      gid_high(sgid), gid_low(sgid), n, paths[0].slid);
        TARV_LOG_FROM(receive, TARV_DEBUG, "Local port GID: 0x%08LX%08LX port: %d\n\n",
                      gid_high(gid), gid_low(gid), n);
        if (!(gid == sgid))
            continue;
        if (const tarv_sa_new_path_cb_t new_path_cb = read_once(tarv_sa_g.new_path_cb))
            new_path_cb(paths, path_count, arrival_port);
        return;
    }
    TARV_LOG_FROM(receive, TARV_DEBUG,
                  "SGID of the incoming PATH_RECORD_REPLY does not match any of the local ports "
                  "gids.\n");
}

}  // namespace

tarv_stat_t tarv_sa_query_path(u32 port_num, gx_gid_t* dst_gid) {
    gx_gid_t sd_gids[SA_MAX_SGIDS + 1];
    const int sgid_count = collect_source_gids(port_num, sd_gids);
    sd_gids[sgid_count] = *dst_gid;
    TARV_LOG(TARV_DEBUG, "%d sgids passed to tarv_sa_build_multi_path_rec_query_mad()\n",
             sgid_count);

    gsi_dtgrm_t* dtgrm = nullptr;
    const tarv_stat_t status =
        tarv_sa_build_multi_path_rec_query_mad(port_num, sgid_count, 1, sd_gids, &dtgrm);
    if (status != tarv_stat_ok) {
        TARV_LOG(TARV_DEBUG, "tarv_sa_build_multi_path_rec_query_mad() failed <%d>\n", status);
        return tarv_stat_error;
    }
    TARV_LOG(TARV_DEBUG, "tarv_sa_build_multi_path_rec_query_mad() ok !!!\n");
    {
        const spin_guard guard(tarv_sa_lock);
        TARV_LOG(TARV_DEBUG, "Sending the path query on port %d\n", port_num);
        const tarv_sa_port_data_t& port = tarv_sa_g.ports[port_num - 1];
        int code = 0;
        if (port.is_valid) {
            // Counted before, since on another CPU the send may be completed before the post
            // returns.
            atomic_inc(&tarv_gsi_pending_cnt);
            code = gsi_post_send_dtgrm(port.gsi_class_handle, dtgrm);
            if (code == 0)
                return tarv_stat_ok;
            atomic_dec(&tarv_gsi_pending_cnt);
        }
        TARV_LOG(TARV_DEBUG,
                 "Invalid port object <is_valid:%d> or gsi_post_send_dtgrm() failed <%d>\n",
                 port.is_valid, code);
    }
    gsi_dtgrm_pool_put(dtgrm);
    return tarv_stat_error;
}

tarv_stat_t tarv_sa_build_multi_path_rec_query_mad(u32 port_num, int sgid_count, int dgid_count,
                                                   gx_gid_t* sd_gids, gsi_dtgrm_t** dtgrm) {
    *dtgrm = nullptr;
    if (take_datagram(port_num, dtgrm) != tarv_stat_ok)
        return tarv_stat_error;
    if (!*dtgrm) {
        const unsigned long sa_data = reinterpret_cast<unsigned long>(*dtgrm) +
                                      offsetof(gsi_dtgrm_t, mad) + offsetof(sa_mad_v2_t, payload);
        TARV_LOG(TARV_ERROR, "sa_mad->payload == NULL, or = 0x48: %p (*dtgrm: %p)\n",
                 reinterpret_cast<void*>(sa_data), static_cast<void*>(*dtgrm));
        return tarv_stat_error;
    }
    build_mad(port_num, *dtgrm);
    TARV_LOG(TARV_DEBUG, "Building RMPP payload\n");
    void* block = gsi_dtgrm_alloc_rmpp_buf(*dtgrm, sizeof(sa_mad_v2_rmpp_payload_t));
    if (!block) {
        TARV_LOG(TARV_ERROR, "gsi_dtgrm_alloc_rmpp_buf() failed\n");
        gsi_dtgrm_pool_put(*dtgrm);
        return tarv_stat_error;
    }
    (*dtgrm)->rmpp_dir_switch_needed = 1;
    build_query(static_cast<sa_mad_v2_rmpp_payload_t*>(block), sgid_count, dgid_count, sd_gids);
    TARV_LOG(TARV_DEBUG, "Requesting %d paths.\n", TARV_MAX_PATHS);
    return tarv_stat_ok;
}

void tarv_sa_send_done_cb(gsi_class_handle_t, void* context, gsi_dtgrm_t* dtgrm) {
    TARV_LOG(TARV_FUNC, "Datagram <0x%p> send on port #%ld completed. Returning to pool ...\n",
             static_cast<void*>(dtgrm), reinterpret_cast<long>(context));
    gsi_dtgrm_pool_put(dtgrm);
    const int pending = atomic_dec(&tarv_gsi_pending_cnt);
    KASSERT(pending >= 0);
}

void tarv_sa_recv_done_cb(gsi_class_handle_t, void* context, gsi_dtgrm_t* dtgrm) {
    ib_path_record_v2_t new_path[TARV_MAX_PATHS];
    int path_count = TARV_MAX_PATHS;
    if (tarv_sa_parse_path_rec_query_mad_reply(dtgrm, new_path, &path_count) == tarv_stat_ok)
        deliver(new_path, path_count, static_cast<u32>(reinterpret_cast<unsigned long>(context)));
    else
        TARV_LOG(TARV_DEBUG, "Error processing the incoming MAD\n");
    gsi_dtgrm_pool_put(dtgrm);
}

tarv_stat_t tarv_sa_parse_path_rec_query_mad_reply(gsi_dtgrm_t* dtgrm,
                                                   ib_path_record_v2_t* new_path, int* path_count) {
    if (!is_path_answer(dtgrm))
        return tarv_stat_error;
    int paysize = 0;
    const auto* block =
        static_cast<const sa_mad_v2_rmpp_payload_t*>(gsi_dtgrm_get_rmpp_buf(dtgrm, &paysize));
    TARV_LOG(TARV_DEBUG, "**** GSI returned payload size of %d ****\n", paysize);
    const u8* records = nullptr;
    if (block) {
        TARV_LOG(TARV_DEBUG, "RMPP reply received\n\n");
        records = block->payload;
    } else {
        TARV_LOG(TARV_DEBUG, "Non-RMPP reply received\n\n");
        records = reinterpret_cast<const sa_mad_v2_t*>(dtgrm->mad)->payload;
    }
    constexpr int record_size = sizeof(ib_path_record_v2_t);
    // Wider than the size that was reported, which may be any number.
    const long data_size = long{paysize} - SA_HEADER_SIZE;
    TARV_LOG(TARV_DEBUG, "**** paysize - 20 = %d, sizeof ib_path_record_v2_t = %d ****\n",
             static_cast<int>(data_size), record_size);
    if (data_size / record_size < *path_count)
        *path_count = static_cast<int>(data_size / record_size);
    // Without a whole record there is nothing that could be matched to anybody.
    if (*path_count < 1)
        return tarv_stat_error;
    for (int i = 0; i < *path_count; i++)
        ib_path_record_from_wire(records + i * record_size, &new_path[i]);
    return tarv_stat_ok;
}
