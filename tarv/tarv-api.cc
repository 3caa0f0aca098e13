// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Resolution requests: the decision between the cache, an ARP request and an SA query, and the
// re-issue of requests that were not answered in time.
#include "tarv/tarv-api.h"

#include "platform/atomic.h"
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-ptr.h"
#include "tarv/tarv-sa.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

constexpr const char* decision = TARV_NAME_OF(__tarv_get_ib_data);

/* Requests that may wait for one answer before further ones stop asking for it again. */
constexpr int max_identical_requests = 3;

/* What a client asked for. */
struct query_t {
    u32 req_ip;
    u32 src_ip;
    tarv_paths_t paths;
    tarv_get_ib_data_reply_fn_t rep_cb;
    void* context;
    int retry_count;
};

/* Fills a new request; its maker is busy with it. */
void fill_request(tarv_list_entry_t* entry, const query_t& query, const tarv_arp_data_t* record) {
    entry->reply_cb = reinterpret_cast<void*>(query.rep_cb);
    entry->context = query.context;
    entry->req_ip = query.req_ip;
    entry->src_ip = query.src_ip;
    entry->is_from_fwd = 0;
    entry->requested_paths = query.paths;
    entry->n_retries = query.retry_count;
    entry->orig_arp_data = *record;
    tarv_aim_paths(&entry->orig_arp_data);
}

/* Values that name no number of paths are taken for none. */
bool wants_paths(tarv_paths_t paths) {
    return paths == tarv_paths_primary || paths == tarv_paths_both;
}

void invalidate(u32 req_ip) {
    tarv_hash_entry_t* entry = nullptr;
    const tarv_stat_t status = tarv_hash_remove_entry(req_ip, &entry);
    kfree(entry);
    TARV_LOG_FROM(decision, TARV_FUNC, "Invalidate is ON, Entry <IP:0x%X> %s.\n", req_ip,
                  status == tarv_stat_ok ? "removed" : "not found");
}

/* The peer is known, paths to it are not: files a request for them and asks the SA. `record` is the
 * cache's. */
tarv_stat_t request_paths(const query_t& query, const tarv_arp_data_t* record) {
    kptr<tarv_list_entry_t> owner(GFP_ATOMIC);
    if (!owner) {
        TARV_LOG_FROM(decision, TARV_ERROR, "Not enough memory to allocate a SA request entry.\n");
        return tarv_stat_error;
    }
    fill_request(owner.get(), query, record);
    owner->dgid = record->gid;
    owner->needed_paths_mask = query.paths == tarv_paths_both ? 3 : 1;
    const int identical =
        query.paths == tarv_paths_primary ? tarv_sa_num_identical_reqs(owner.get()) : 0;

    tarv_maker_t maker = {};
    owner->maker = &maker;
    tarv_set_request_static_flag(owner.get());
    if (tarv_sa_add_request(owner.get()) != tarv_stat_ok) {
        TARV_LOG_FROM(decision, TARV_ERROR,
                      "Error adding the new sa request entry to the container.\n");
        return tarv_stat_error;
    }
    // The list owns the request, but leaves it alone until it is let go of.
    tarv_list_entry_t* entry = owner.release();
    if (identical > max_identical_requests) {
        TARV_LOG_FROM(decision, TARV_WARNING, "Many identical path query requests\n");
        tarv_sa_release_request(entry, &maker, false);
        return tarv_stat_pending;
    }
    gx_gid_t dgid = record->gid;
    if (tarv_sa_query_path(record->local_port_num, &dgid) != tarv_stat_ok) {
        TARV_LOG_FROM(decision, TARV_ERROR, "Error initiating multipath record query.\n");
        tarv_sa_release_request(entry, &maker, true);
        return tarv_stat_error;
    }
    tarv_sa_release_request(entry, &maker, false);
    return tarv_stat_pending;
}

void build_arp_request(const query_t& query, tarv_arp_data_t* record) {
    *record = {};
    record->mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_ARP_OP;
    record->arp_operation = TARV_ARP_OP_REQUEST;
    record->dst_ip = query.req_ip;
    record->src_ip = query.src_ip;
    record->context = query.context;
}

/* Hands the ARP request in `record` to the driver, for a request that is already filed. From here
 * on an answer may take the request at any time, even before the driver returns. */
tarv_stat_t send_arp_request(tarv_list_entry_t* entry, const tarv_maker_t* maker,
                             const driver_call& driver, tarv_arp_data_t* record) {
    const int media_reset = read_once(tarv_media_reset);
    if (driver.send_arp_data(record, driver.context, media_reset) != tarv_stat_ok) {
        TARV_LOG_FROM(decision, TARV_ERROR, "send_arp_data_fn() failed.\n");
        // A request that was answered in spite of the failure has had, or gets, its callback: its
        // caller is told to expect that, and not of a failure as well.
        return tarv_release_arp_request(entry, maker, true) ? tarv_stat_error : tarv_stat_pending;
    }
    TARV_LOG_FROM(decision, TARV_DEBUG, "send_arp_data_fn() finished tarv_media_reset = 0.\n");
    if (media_reset)
        write_once(tarv_media_reset, 0);
    record->mask = 0;
    tarv_release_arp_request(entry, maker, false);
    return tarv_stat_pending;
}

/* The peer is not known: files a request and asks for it by ARP, using the caller's record. */
tarv_stat_t request_address(const query_t& query, tarv_arp_data_t* record) {
    const driver_call driver;
    if (!driver.send_arp_data) {
        TARV_LOG_FROM(decision, TARV_ERROR,
                      "No send_arp_data() registered - can't send ARP request.(hint: call "
                      "tarv_attach())\n");
        return tarv_stat_error;
    }
    kptr<tarv_list_entry_t> owner(GFP_ATOMIC);
    if (!owner) {
        TARV_LOG_FROM(decision, TARV_ERROR, "Not enough memory to allocate a request entry.\n");
        return tarv_stat_error;
    }
    fill_request(owner.get(), query, record);
    const int identical = tarv_num_identical_reqs(owner.get());

    tarv_maker_t maker = {};
    owner->maker = &maker;
    tarv_set_request_static_flag(owner.get());
    if (tarv_add_arp_request(owner.get()) != tarv_stat_ok) {
        TARV_LOG_FROM(decision, TARV_ERROR,
                      "Error adding the new request entry to the container.\n");
        return tarv_stat_error;
    }
    tarv_list_entry_t* entry = owner.release();
    build_arp_request(query, record);
    if (identical > max_identical_requests) {
        TARV_LOG_FROM(decision, TARV_WARNING, "Many identical ARP requests\n");
        record->mask = 0;
        tarv_release_arp_request(entry, &maker, false);
        return tarv_stat_pending;
    }
    return send_arp_request(entry, &maker, driver, record);
}

}  // namespace

constinit u8 halted = 0;
constinit u8 sa_queries_enabled = 0;
constinit int get_data_retry = 3;
constinit int tarv_media_reset = 1;

tarv_stat_t tarv_get_ib_data(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
                             tarv_arp_data_t* arp_data, tarv_get_ib_data_reply_fn_t rep_cb,
                             void* context, u8 bInvalidate) {
    if (read_once(halted)) {
        TARV_LOG(TARV_DEBUG, "module is in halt state (not sending ARP during stack stop).\n");
        return tarv_stat_error;
    }
    const tarv_stat_t status = __tarv_get_ib_data(req_ip, src_ip, path_records_count, arp_data,
                                                  rep_cb, context, bInvalidate, 0);
    TARV_LOG(TARV_DEBUG, "status from __tarv_get_ib_data() - %d\n", status);
    return status;
}

tarv_stat_t __tarv_get_ib_data(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
                               tarv_arp_data_t* arp_data, tarv_get_ib_data_reply_fn_t rep_cb,
                               void* context, u8 bInvalidate, int retry_count) {
    const query_t query = {req_ip, src_ip, path_records_count, rep_cb, context, retry_count};
    if (bInvalidate)
        invalidate(req_ip);
    if (tarv_hash_get_entry_data(req_ip, arp_data) != tarv_stat_ok)
        return rep_cb ? request_address(query, arp_data) : tarv_stat_not_found;
    if (!wants_paths(path_records_count) || tarv_mask_has_paths(arp_data->mask, path_records_count))
        return tarv_stat_ok;
    if (!rep_cb)
        return tarv_stat_not_found;
    if (!read_once(sa_queries_enabled))
        return tarv_stat_ok;
    return request_paths(query, arp_data);
}

int tarv_retry_ib_data_request(tarv_list_entry_t* entry, tarv_arp_data_t* arp_data) {
    const kptr<tarv_arp_data_t> temp(GFP_ATOMIC);
    if (!temp) {
        TARV_LOG(TARV_ERROR, "Not enough memory to allocate a temp_arp_data (%d).\n",
                 static_cast<int>(sizeof(tarv_arp_data_t)));
        return 0;
    }
    tarv_stat_t status = tarv_stat_timeout;
    tarv_arp_data_t* answer = arp_data;
    if (entry->n_retries >= read_once(get_data_retry) || read_once(halted)) {
        TARV_LOG(TARV_DEBUG, "maximum number of retries. stopped trying.\n");
    } else {
        TARV_LOG(TARV_DEBUG, "trying again after %d of retries for request\n", entry->n_retries);
        *temp = entry->orig_arp_data;
        tarv_aim_paths(temp.get());
        status =
            __tarv_get_ib_data(entry->req_ip, entry->src_ip, entry->requested_paths, temp.get(),
                               reinterpret_cast<tarv_get_ib_data_reply_fn_t>(entry->reply_cb),
                               entry->context, 0, entry->n_retries + 1);
        TARV_LOG(TARV_DEBUG, "status from __tarv_get_ib_data() - %d\n", status);
        if (status == tarv_stat_pending)
            return 0;
        if (status == tarv_stat_ok)
            answer = temp.get();
        else
            TARV_LOG(TARV_ERROR, "__tarv_get_ib_data() returned :%d\n", status);
    }
    if (!tarv_reply(entry, status, answer) && status != tarv_stat_ok)
        TARV_LOG(TARV_ERROR, "can't call reply callback (is NULL)\n");
    return 1;
}
