// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The intake of SA path records.
#include "platform/memory.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-ptr.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";

constexpr const char* intake = TARV_NAME_OF(tarv_process_path_rec_data);

/* Answers requests whose paths are in the cache, and frees them. */
void complete_requests(list_head& found_head, tarv_hash_entry_t* scratch) {
    // `not_valid` is 1 here for what has been answered. All callbacks come before any re-issue.
    tarv_found_list found(found_head);
    for (tarv_list_entry_t* request : found) {
        request->not_valid = tarv_hash_get_entry(request->req_ip, scratch) == tarv_stat_ok;
        if (request->not_valid)
            tarv_reply(request, tarv_stat_ok, &scratch->arp_data);
        else
            TARV_LOG_FROM(intake, TARV_DEBUG, "should send a retry for request\n");
    }
    while (tarv_list_entry_t* request = found.pop()) {
        if (!request->not_valid)
            tarv_retry_ib_data_request(request, nullptr);
        tarv_free_request(request);
    }
}

}  // namespace

void tarv_process_path_rec_data(ib_path_record_v2_t* new_path, int path_count, u32 local_port_num) {
    const kptr<tarv_hash_entry_t> scratch(GFP_ATOMIC);
    if (!scratch) {
        TARV_LOG(TARV_ERROR, "Not enough memory for tarv_hash_entry.\n");
        return;
    }
    list_head found;
    if (tarv_sa_find_and_move_requests_to_list(new_path, path_count, local_port_num, &found) ==
        tarv_stat_not_found) {
        TARV_LOG(TARV_WARNING, "No matching requests for the received Path Record Query Reply.\n");
        return;
    }
    complete_requests(found, scratch.get());
}

bool tarv_answer_request(tarv_list_entry_t* request, tarv_path_answer_t* answer) {
    const kptr<tarv_hash_entry_t> scratch(GFP_ATOMIC);
    if (!scratch) {
        TARV_LOG(TARV_ERROR, "Not enough memory for tarv_hash_entry.\n");
        return false;
    }
    const tarv_stat_t status = tarv_hash_update_paths(request->req_ip, answer->paths, answer->count,
                                                      request->requested_paths, nullptr);
    if (status != tarv_stat_ok) {
        if (status != tarv_stat_not_found)
            TARV_LOG(TARV_ERROR, "tarv_hash_update_paths() failed. returned %d\n", status);
        return false;
    }
    tarv_sa_remove_request(request);
    list_head found;
    INIT_LIST_HEAD(&found);
    tarv_found_list(found).push(request);
    complete_requests(found, scratch.get());
    return true;
}
