// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Pending requests: the resolutions that the cache could not answer. A request waits on one of two
// lists, for an ARP reply (`requests`) or for SA path records (`sa_requests`), newest first. Each
// list has a lock and a timer that hands requests which waited too long back for a retry or a
// time-out.
//
// Ownership: whoever takes a request off a list owns it, answers it at most once, and frees it.
//
// The maker and the takers. A request is on its list before its ARP request or path query goes out,
// so that an answer that comes back at once finds it. While its maker is still busy sending, its
// `static_flag` is set: the timers and the matching of SA replies pass it over. ARP data does not
// wait: it takes the request at once, and tells the maker so through the maker's own
// `tarv_maker_t`, under the list's lock. So the maker learns whether the request is still its own
// without touching it.
//
// Cost: a request is filed, counted, matched and taken off at the same cost however many wait, for
// one address or for many, and the timer looks only at those that have waited long enough. Many are
// taken off, or shown, in pieces: no lock is held for more than one of them.
//
// Locks: every operation takes its list's lock itself. No callback, re-issue or other operation of
// the module is called under one. Contexts: any, except for init and destroy (process).
#pragma once

#include "platform/annotations.h"
#include "platform/atomic.h"
#include "platform/bug.h"
#include "platform/list.h"
#include "platform/memory.h"
#include "platform/spinlock.h"
#include "platform/timer.h"
#include "tarv/tarv-index.h"
#include "tarv/tarv-list.h"
#include "tarv/tarv.h"

/* Stands on the stack of a request's maker while it sends; guarded by the lock of the ARP list. */
struct tarv_maker_t {
    bool taken;  // somebody has taken the request: it may be gone
};

/* One pending request. */
struct tarv_list_entry {
    list_head list_struct;        // on `requests` or `sa_requests`
    list_head found_list_struct;  // on a private list of whoever is taking it off
    u8 is_from_fwd;
    u32 req_ip;      // the address to resolve, network byte order
    u32 src_ip;      // the caller's source address
    u32 timestamp;   // low 32 bits of jiffies when it came onto its list
    void* reply_cb;  // the caller's tarv_get_ib_data_reply_fn_t; may be null
    void* context;   // the caller's
    tarv_paths_t requested_paths;
    u8 needed_paths_mask;           // 1 primary, 3 both; of an SA request
    gx_gid_t dgid;                  // the peer's GID, by which SA answers are matched
    u8 not_valid;                   // scratch of the matching; 0 while on the SA list
    int n_retries;                  // how often it has been re-issued already
    tarv_arp_data_t orig_arp_data;  // the caller's record as it was given
    atomic_t static_flag;           // the maker is busy with it

    /* Where the maker is to be told that the request was taken; null once it is done sending. */
    tarv_maker_t* maker;

    /* The lists' own: where they find the request without a walk. */
    group_links_t<tarv_list_entry> by_address;
    group_links_t<tarv_list_entry> by_dgid;  // of an SA request
    list_head by_age;  // on a list of those that stand on the same list, oldest stamp first
    u64 number;        // higher than that of all requests that came onto the list before
    u32 alike[3];      // of the newest one for its address: how many want none, one, both paths
};
using tarv_list_entry_t = tarv_list_entry;

/* Whoever looks at a list in a memory image goes by these. */
static_assert(offsetof(tarv_list_entry, list_struct) == 0);
static_assert(offsetof(tarv_list_entry, found_list_struct) == 16);
static_assert(offsetof(tarv_list_entry, is_from_fwd) == 32);
static_assert(offsetof(tarv_list_entry, req_ip) == 36);
static_assert(offsetof(tarv_list_entry, src_ip) == 40);
static_assert(offsetof(tarv_list_entry, timestamp) == 44);
static_assert(offsetof(tarv_list_entry, reply_cb) == 48);
static_assert(offsetof(tarv_list_entry, context) == 56);
static_assert(offsetof(tarv_list_entry, requested_paths) == 64);
static_assert(offsetof(tarv_list_entry, needed_paths_mask) == 68);
static_assert(offsetof(tarv_list_entry, dgid) == 69);
static_assert(offsetof(tarv_list_entry, not_valid) == 85);
static_assert(offsetof(tarv_list_entry, n_retries) == 88);
static_assert(offsetof(tarv_list_entry, orig_arp_data) == 96);
static_assert(offsetof(tarv_list_entry, static_flag) == 368);
static_assert(sizeof(tarv_list_entry::static_flag) == 4);

struct tarv_list_t {
    list_head head;
    u32 count;
};

static_assert(offsetof(tarv_list_t, head) == 0);
static_assert(offsetof(tarv_list_t, count) == 16);
static_assert(sizeof(tarv_list_t) == 24);

/* The two lists, the private lists that requests are collected on, and the lists by age. */
