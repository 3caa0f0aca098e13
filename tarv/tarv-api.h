// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The resolution core: what clients, the IPoIB driver and the verbs layer call, and the switches
// that an administrator sets.
//
// The road of a request: tarv_get_ib_data looks in the cache; a miss is filed and an ARP request
// sent through the attached driver; tarv_process_arp_data learns the peer and either answers or
// asks the SA for paths; tarv_process_path_rec_data stores the paths and answers. Requests that
// nobody answers are handed to tarv_retry_ib_data_request by their list's timer.
//
// A client that got tarv_stat_pending gets at most one call of its callback; with any other status,
// none.
#pragma once

#include "platform/annotations.h"
#include "platform/spinlock.h"
#include "tarv/tarv-req-list.h"
#include "tarv/tarv.h"

/* The switches. Plain variables without a lock: write them with write_once and read them with
 * read_once. tarv_init sets them to the values given here. */
extern u8 halted;   // 0; 1: refuse requests, time out what waits. Not cleared until unload
extern u8 enabled;  // 0; 1: take ARP data in
extern u8 sa_queries_enabled;   // 0; 1: ask the SA for paths
extern u8 statics_inv_enabled;  // 1; 0: static entries are neither replaced nor invalidated
extern int get_data_retry;      // 3; re-issues of a request before it times out
extern int tarv_media_reset;    // 1; what the next ARP request tells the driver

/* The attached driver; null while there is none. Written under the lock. */
extern spinlock_t driver_lock;
extern send_arp_data_fn_t local_send_arp_data_fn;
extern get_if_info_fn_t local_get_if_info_fn;
extern void* send_arp_data_fn_context;

/* A visit to the attached driver: its functions and their context, all of one and the same driver,
 * to be called during the scope. It is counted, and tarv_detach waits for its end: nothing in it
 * may wait. Context: any; no lock held. */
class [[nodiscard]] driver_call {
  public:
    driver_call() TA_EXCL(driver_lock);
    ~driver_call() TA_EXCL(driver_lock);
    driver_call(const driver_call&) = delete;
    driver_call& operator=(const driver_call&) = delete;

    /* Null: no driver is attached, or it has no such function. */
    send_arp_data_fn_t send_arp_data = nullptr;
    get_if_info_fn_t get_if_info = nullptr;
    void* context = nullptr;
};

/* Makes the attachment ready, with no driver. Process context; nobody else is at it. */
void tarv_driver_start() TA_EXCL(driver_lock);

/* The open adapter; null while the engine is stopped. */
extern gx_hca_h_t hca_h;

/* The path that every peer gets while SA queries are off. ARP intake and commands both change it:
 * take a copy under the lock, change that, put back what changed. */
extern spinlock_t static_path_lock;
extern ib_path_record_v2_t static_path TA_GUARDED(static_path_lock);

/* What tarv_attach hands out and tarv_detach wants back. */
#define TARV_ATTACH_HANDLE (reinterpret_cast<void*>(0xBEEF))

/* Asks for the InfiniBand address data of `req_ip`, and for path records.
 *
 * `req_ip` and `src_ip` are the address to resolve and the caller's own, in network byte order.
 *
 * `arp_data` is the caller's record, not null: the answer on tarv_stat_ok, else overwritten.
 *
 * `rep_cb` is called with `context` when a pending request ends; null asks only the cache.
 *
 * `bInvalidate` nonzero drops first what the cache has of the address.
 *
 * Result: tarv_stat_ok with the record filled; tarv_stat_pending; tarv_stat_not_found without a
 * callback; or tarv_stat_error. Context: any; never sleeps; no lock held. Exported. */
tarv_stat_t tarv_get_ib_data(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
                             tarv_arp_data_t* arp_data, tarv_get_ib_data_reply_fn_t rep_cb,
                             void* context, u8 bInvalidate);

/* The same without the test for a halted module; a request made here has been re-issued
 * `retry_count` times. */
tarv_stat_t __tarv_get_ib_data(u32 req_ip, u32 src_ip, tarv_paths_t path_records_count,
                               tarv_arp_data_t* arp_data, tarv_get_ib_data_reply_fn_t rep_cb,
                               void* context, u8 bInvalidate, int retry_count);

/* Re-issues a request that its caller has taken off its list and frees afterwards, or ends it with
 * its callback, which then gets `arp_data`; a re-issue that finds all it wants in the cache ends
 * with tarv_stat_ok and the record. 1 when the request ended, 0 when a new one carries on or
 * nothing could be done. Never sleeps; no lock held. */
int tarv_retry_ib_data_request(tarv_list_entry_t* entry, tarv_arp_data_t* arp_data);

/* Attaches the one IPoIB driver. `context` is given back to `send_arp_data_fn`. `*handle` receives
 * the handle for tarv_detach. tarv_stat_error when one is attached. While one is being detached,
 * waits for its end. Process context. */
tarv_stat_t tarv_attach(get_if_info_fn_t get_if_info_fn, send_arp_data_fn_t send_arp_data_fn,
                        void* context, void** handle);

/* Detaches it; requests that wait go on waiting. tarv_stat_error for a wrong handle. When it
 * returns, none of the driver's functions is running or will be called, so that the driver may go.
 * For that it waits until those that run have returned. Process context; may sleep. It must not be
 * called from inside one of these functions, nor from a callback or any other call that is made in
 * the course of one, nor with something held that they wait for: it would wait for itself. */
tarv_stat_t tarv_detach(void* handle);

/* Takes in an ARP packet that the driver received, request or reply: learns its sender and
 * completes the requests that wait for it. The record is only read. tarv_stat_ok, or what went
 * wrong last. Driver receive context; never sleeps; no lock held. */
tarv_stat_t tarv_process_arp_data(tarv_arp_data_t* arp_data);

void swap_ips(u32* src_ip, u32* dst_ip);

/* Takes in the `path_count` (1 to 3) records of an SA answer, all towards the first one's DGID, and
 * completes the requests that they satisfy. GSI receive context; never sleeps; no lock held. */
void tarv_process_path_rec_data(ib_path_record_v2_t* new_path, int path_count, u32 local_port_num);

/* Answers a request from an SA answer that came while its maker, the caller, was busy with it, and
 * frees it. False: the answer was not what it wants, or there is no memory; it is still its
 * maker's. Never sleeps; no lock held. */
bool tarv_answer_request(tarv_list_entry_t* request, tarv_path_answer_t* answer);

/* Starts the engine; what a failing step leaves is undone. Stops it. Process context. */
tarv_stat_t tarv_init();
void tarv_destroy();
void tarv_aync_ev_destroy_cleanup();

/* The adapter's events. Event context. */
void tarv_async_event_cb(gx_event_record_t event_record);

/* A reply callback that only logs. */
void tarv_get_ib_data_reply_dummy_fn(tarv_stat_t status, tarv_arp_data_t* arp_data, void* context);
