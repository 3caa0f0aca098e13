// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Pending requests: the resolutions that the cache could not answer. A request waits on one of two
// lists, for an ARP reply (`requests`) or for SA path records (`sa_requests`), newest first. Each
// list has a lock and a timer that hands requests which waited too long back for a retry or a
// time-out.
//
// Ownership: whoever takes a request off a list owns it, answers it at most once, and frees it.
//
// The states of a request, in tarv_request_state_t, change under the lock of its list only:
//
//   (made)     -> busy             filed, before its ARP request or path query goes out, so that an
//                                  answer that comes back at once finds it
//   busy       -> waiting, silent  its maker is done sending and lets go of it; silent when the
//                                  maker reports a failure, so that nobody is to be told any more
//   busy       -> taken            by ARP data; or by its maker: see below
//   waiting    -> set aside        an SA answer is tried on it
//   set aside  -> waiting          it did not bring what the request wants
//   waiting, silent, set aside -> taken
//
// The maker and the takers. While its maker is busy with a request, its `static_flag` is set: the
// timers and the matching of SA answers pass it over. What they pass over they must not lose:
//
// - ARP data does not wait. It takes the request at once and says so in the maker's own
//   `tarv_maker_t`. So the maker learns whether the request is still its own without touching it.
// - An SA answer leaves its paths there. The maker, letting go, answers the request from them.
// - A halt ends what waits, once. From then on nothing comes to wait any more: who lets go of a
//   request, or would put it back, looks at `halted` under the list's lock and gives the last word
//   itself. So every request is found by the halt, or its maker finds the halt.
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

/* Where a request is in its life; see above. */
enum class tarv_request_state_t : u8 {
    busy,       // on its list, its maker is sending
    waiting,    // on its list
    silent,     // the same, with nobody to be told
    set_aside,  // off its list, to be put back or taken; keeps its place by age
    taken,      // off its list for good: whoever took it answers and frees it
};

/* The records of an SA answer, all towards one GID, in host form. */
struct tarv_path_answer_t {
    int count = 0;
    ib_path_record_v2_t paths[TARV_MAX_PATHS];
};

/* Stands on the stack of a request's maker while it sends; guarded by the lock of the list that the
 * request is on. */
struct tarv_maker_t {
    bool taken = false;         // somebody has taken the request: it may be gone
    tarv_path_answer_t answer;  // came meanwhile; none while its count is 0
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

    /* Where the maker is told what it has missed; null once it is done sending. */
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
using tarv_request_list = list_of<tarv_list_entry_t, offsetof(tarv_list_entry_t, list_struct)>;
using tarv_found_list = list_of<tarv_list_entry_t, offsetof(tarv_list_entry_t, found_list_struct)>;
using pending_by_age = list_of<tarv_list_entry_t, offsetof(tarv_list_entry_t, by_age)>;

inline void tarv_set_request_static_flag(tarv_list_entry_t* entry) {
    atomic_set(&entry->static_flag, 1);
}
inline void tarv_clear_request_static_flag(tarv_list_entry_t* entry) {
    atomic_set(&entry->static_flag, 0);
}
inline int tarv_get_request_static_flag(tarv_list_entry_t* entry) {
    return atomic_read(&entry->static_flag);
}

/* The state of a request that is filed. Under the lock of its list. */
inline tarv_request_state_t tarv_request_state(const tarv_list_entry_t* entry) {
    if (list_empty(&entry->list_struct))
        return list_empty(&entry->by_age) ? tarv_request_state_t::taken
                                          : tarv_request_state_t::set_aside;
    if (atomic_read(&entry->static_flag))
        return tarv_request_state_t::busy;
    return entry->reply_cb ? tarv_request_state_t::waiting : tarv_request_state_t::silent;
}

/* Calls the request's reply callback where it has one; returns whether it had. No lock held. */
inline bool tarv_reply(const tarv_list_entry_t* entry, tarv_stat_t status,
                       tarv_arp_data_t* record) {
    const auto reply = reinterpret_cast<tarv_get_ib_data_reply_fn_t>(entry->reply_cb);
    if (reply)
        reply(status, record, entry->context);
    return reply != nullptr;
}

/* The last of a request, by whoever owns it: it is on no list, and so in no index, and a maker who
 * was busy with it knows that it was taken. */
inline void tarv_free_request(tarv_list_entry_t* entry) {
    KASSERT(!tarv_request_list::is_linked(entry) && !tarv_found_list::is_linked(entry));
    KASSERT(!pending_by_age::is_linked(entry));
    KASSERT(!entry->maker);
    kfree(entry);
}

/* The ARP requests. */

extern spinlock_t tarv_rl_lock;
extern tarv_list_t requests TA_GUARDED(tarv_rl_lock);
extern timer_list tarv_req_timer;

/* Empties the list and starts its timer. Process context. Always tarv_stat_ok. */
tarv_stat_t tarv_req_list_init() TA_EXCL(tarv_rl_lock);

/* Stops the timer, waiting for a running handler, and frees what waits, without a reply. Process
 * context; nobody files requests any more. */
void tarv_req_list_destroy() TA_EXCL(tarv_rl_lock);

/* Stamps the request and puts it at the head of the list, which owns it then. Always tarv_stat_ok.
 */
tarv_stat_t tarv_add_arp_request(tarv_list_entry_t* entry) TA_EXCL(tarv_rl_lock);

/* Takes the request off the list; it is the caller's. Always tarv_stat_ok. */
tarv_stat_t tarv_remove_arp_request(tarv_list_entry_t* entry) TA_EXCL(tarv_rl_lock);

/* The maker is done sending `entry`, which it filed with `maker` in it, and lets go of it: it must
 * not be touched any more. False: it was taken meanwhile. Otherwise it waits, without its reply
 * callback when `drop_reply` is set, or, when the module is halted, has had its last word. */
bool tarv_release_arp_request(tarv_list_entry_t* entry, const tarv_maker_t* maker, bool drop_reply)
    TA_EXCL(tarv_rl_lock);

/* How many requests wait for the same address with the same number of paths, `entry` included when
 * it is one of them. */
int tarv_num_identical_reqs(tarv_list_entry_t* entry) TA_EXCL(tarv_rl_lock);

/* Takes every request for the address, busy or not, off the list and hands them over on
 * `found_list` (made empty first), oldest first. tarv_stat_not_found when there was none. */
tarv_stat_t tarv_find_and_move_arp_requests_to_list(u32 req_ip, list_head* found_list)
    TA_EXCL(tarv_rl_lock);

/* Every 1000 ticks: hands requests that have waited 1000 ticks (all of them when the module is
 * halted) to tarv_retry_ib_data_request. Timer context, or the process that halts the module. */
void tarv_req_timer_handler(unsigned long context) TA_EXCL(tarv_rl_lock);

/* Prints the list to the console. */
void tarv_req_list_dump() TA_EXCL(tarv_rl_lock);

/* The SA requests: the same for `sa_requests`, where the differences are. */

extern spinlock_t tarv_sa_rl_lock;
extern tarv_list_t sa_requests TA_GUARDED(tarv_sa_rl_lock);
extern timer_list tarv_sa_req_timer;

tarv_stat_t tarv_sa_req_list_init() TA_EXCL(tarv_sa_rl_lock);

/* Stops the timer, waiting for a running handler, then gives every waiting request its last word
 * through tarv_retry_ib_data_request and frees it. The drain comes first, while ARP timer and GSI
 * completions may still be filing requests here: it leaves those alone whose makers are busy. */
void tarv_sa_req_list_drain() TA_EXCL(tarv_sa_rl_lock);
void tarv_sa_req_list_destroy() TA_EXCL(tarv_sa_rl_lock);

tarv_stat_t tarv_sa_add_request(tarv_list_entry_t* entry) TA_EXCL(tarv_sa_rl_lock);
tarv_stat_t tarv_sa_remove_request(tarv_list_entry_t* entry) TA_EXCL(tarv_sa_rl_lock);
int tarv_sa_num_identical_reqs(tarv_list_entry_t* entry) TA_EXCL(tarv_sa_rl_lock);

/* As for an ARP request; one to which an SA answer has come meanwhile is answered with its paths.
 */
void tarv_sa_release_request(tarv_list_entry_t* entry, tarv_maker_t* maker, bool drop_reply)
    TA_EXCL(tarv_sa_rl_lock);

/* An SA answer came: stores its `path_count` records (at most 3) into the cache for every request
 * that waits for the GID of the first and is not busy, and hands those requests over on
 * `found_list` (made empty first), oldest first, whose cache entry now has all the paths that they
 * want. The others go back to the list, with the time stamp they had, or have their last word when
 * the module is halted. tarv_stat_not_found when none is handed over. For busy ones the records are
 * left with their makers. */
tarv_stat_t tarv_sa_find_and_move_requests_to_list(ib_path_record_v2_t* new_path, int path_count,
                                                   u32 local_port_num, list_head* found_list)
    TA_EXCL(tarv_sa_rl_lock);

/* As for the ARP requests, with 3000 ticks. */
void tarv_sa_req_timer_handler(unsigned long context) TA_EXCL(tarv_sa_rl_lock);

void tarv_sa_req_list_dump() TA_EXCL(tarv_sa_rl_lock);
