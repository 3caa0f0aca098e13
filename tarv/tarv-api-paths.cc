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

}  // namespace

void tarv_process_path_rec_data(ib_path_record_v2_t* new_path, int path_count, u32 local_port_num) {
    const kptr<tarv_hash_entry_t> scratch(GFP_ATOMIC);
    if (!scratch) {
        TARV_LOG(TARV_ERROR, "Not enough memory for tarv_hash_entry.\n");
        return;
    }
    list_head found_head;
    if (tarv_sa_find_and_move_requests_to_list(new_path, path_count, local_port_num, &found_head) ==
        tarv_stat_not_found) {
        TARV_LOG(TARV_WARNING, "No matching requests for the received Path Record Query Reply.\n");
        return;
    }
    // `not_valid` is 1 here for what has been answered. All callbacks come before any re-issue.
    tarv_found_list found(found_head);
    for (tarv_list_entry_t* request : found) {
        request->not_valid = tarv_hash_get_entry(request->req_ip, scratch.get()) == tarv_stat_ok;
        if (request->not_valid)
            tarv_reply(request, tarv_stat_ok, &scratch->arp_data);
        else
            TARV_LOG(TARV_DEBUG, "should send a retry for request\n");
    }
    while (tarv_list_entry_t* request = found.pop()) {
        if (!request->not_valid)
            tarv_retry_ib_data_request(request, nullptr);
        tarv_free_request(request);
    }
}
