// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The requests that wait for SA path records.
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-pending.h"
#include "tarv/tarv-req-list.h"

namespace {

constexpr char tarv_unit[] = "tarv_sa_req_list";
constexpr const char* handler = TARV_NAME_OF(tarv_sa_req_timer_handler);

constexpr u32 sa_timeout = 3000;  // ticks

struct dgid_key {
    using type = gx_gid_t;
    static const gx_gid_t& of(const tarv_list_entry_t* entry) { return entry->dgid; }
    static u32 hash(const gx_gid_t& gid) { return tarv_gid_hash(gid); }
};

/* Here requests are found by the peer's GID as well. */
struct sa_places_t : pending_places_t<14> {
    groups_of<tarv_list_entry_t, &tarv_list_entry_t::by_dgid, dgid_key, 14> by_dgid;

    void clear() {
        pending_places_t::clear();
        by_dgid.clear();
    }
    void enter(tarv_list_entry_t* entry) {
        pending_places_t::enter(entry);
        by_dgid.enter(entry);
    }
    void leave(tarv_list_entry_t* entry) {
        pending_places_t::leave(entry);
        by_dgid.remove(entry);
    }
};
constinit sa_places_t places TA_GUARDED(tarv_sa_rl_lock) = {};

/* Takes the due requests off the list in a walk over all of it that can be followed in the log. */
void trace_due(tarv_found_list& timed_out) TA_EXCL(tarv_sa_rl_lock) {
    const spin_guard guard(tarv_sa_rl_lock);
    for (tarv_list_entry_t* entry : tarv_request_list(sa_requests.head)) {
        TARV_LOG_FROM(handler, TARV_FUNC, "Checking sa request entry: <0x%p>, static flag:%d\n",
                      static_cast<void*>(entry), tarv_get_request_static_flag(entry));
        if (!pending_may_be_taken(entry) || !pending_is_due(entry, sa_timeout))
            continue;
        TARV_LOG_FROM(handler, TARV_FUNC, "\t\t-> timeouted!\n");
        pending_take(sa_requests, places, entry);
        timed_out.push(entry);
    }
}

/* The same, oldest first, without the log. */
void take_due(tarv_found_list& timed_out) TA_EXCL(tarv_sa_rl_lock) {
    for (bool more = true; more;) {
        const spin_guard guard(tarv_sa_rl_lock);
        more = pending_take_due(sa_requests, places, sa_timeout, timed_out);
    }
    pending_sort(timed_out);
}

/* Takes the newest request off the list, passing over the busy ones unless they are wanted too;
 * null when there is none. */
tarv_list_entry_t* take_first(bool busy_too) TA_EXCL(tarv_sa_rl_lock) {
    const spin_guard guard(tarv_sa_rl_lock);
    for (tarv_list_entry_t* entry : tarv_request_list(sa_requests.head)) {
        if (!busy_too && !pending_may_be_taken(entry))
            continue;
        pending_take(sa_requests, places, entry);
        return entry;
    }
    return nullptr;
}

/* A last word may be a re-issue, which comes onto the list too: it has one retry less left, so this
 * ends. */
void give_last_words(bool busy_too) TA_EXCL(tarv_sa_rl_lock) {
    while (tarv_list_entry_t* entry = take_first(busy_too))
        pending_give_last_word(entry);
}

/* Leaves an answer with the maker of a busy request; of two answers the one with more paths. */
void leave_answer(tarv_maker_t* maker, const ib_path_record_v2_t* paths, int path_count)
    TA_REQ(tarv_sa_rl_lock) {
    KASSERT(spin_is_held(&tarv_sa_rl_lock));
    if (!maker || path_count < maker->answer.count)
        return;
    maker->answer.count = path_count;
    for (int i = 0; i < path_count; i++)
        maker->answer.paths[i] = paths[i];
}

/* Sets a piece of the requests for the answer's GID aside, newest first; whether there may be more.
 * The next piece begins at the newest again, and comes past the busy ones once more. */
bool set_piece_aside(const ib_path_record_v2_t* paths, int path_count, tarv_found_list& tried)
    TA_EXCL(tarv_sa_rl_lock) {
    const spin_guard guard(tarv_sa_rl_lock);
    u32 count = 0;
    tarv_list_entry_t* older = nullptr;
    for (tarv_list_entry_t* entry = places.by_dgid.newest(paths[0].dgid); entry; entry = older) {
        older = places.by_dgid.older(entry);
        if (tarv_request_state(entry) == tarv_request_state_t::busy) {
            leave_answer(entry->maker, paths, path_count);
            continue;
        }
        pending_set_aside(sa_requests, places, entry);
        tried.push(entry);
        if (++count == pending_piece)
            return true;
    }
    return false;
}

/* Ends the setting aside for a piece: those that the answer satisfied are `found`, the others go
 * back to the list, or to `unanswered`, for their last word, when nobody may wait any more. */
bool end_piece_of_trial(tarv_found_list& tried, tarv_found_list& found, tarv_found_list& unanswered)
    TA_EXCL(tarv_sa_rl_lock) {
    const spin_guard guard(tarv_sa_rl_lock);
    for (u32 count = 0; count < pending_piece; count++) {
        tarv_list_entry_t* const entry = tried.pop();
        if (!entry)
            return false;
        const bool is_satisfied = !entry->not_valid;
        entry->not_valid = 0;
        if (!is_satisfied && !read_once(halted)) {
            pending_link(sa_requests, places, entry);
            continue;
        }
        pending_let_go(entry);
        (is_satisfied ? found : unanswered).push_back(entry);
    }
    return true;
}

}  // namespace

constinit spinlock_t tarv_sa_rl_lock = {};
constinit tarv_list_t sa_requests = {};
constinit timer_list tarv_sa_req_timer = {};

tarv_stat_t tarv_sa_req_list_init() {
    spin_lock_init(&tarv_sa_rl_lock, "tarv_sa_rl_lock");
    tarv_list_t* list = nullptr;
    {
        const spin_guard guard(tarv_sa_rl_lock);
        pending_clear(sa_requests, places);
        list = &sa_requests;
    }
    pending_make_timer(&tarv_sa_req_timer, tarv_sa_req_timer_handler, list);
    return tarv_stat_ok;
}

void tarv_sa_req_list_drain() {
    del_timing_sync(&tarv_sa_req_timer);
    give_last_words(false);
}

void tarv_sa_req_list_destroy() {
    del_timing_sync(&tarv_sa_req_timer);
    give_last_words(true);
}

tarv_stat_t tarv_sa_add_request(tarv_list_entry_t* entry) {
    entry->not_valid = 0;
    const spin_guard guard(tarv_sa_rl_lock);
    TARV_LOG(TARV_DEBUG, "Added SA req: %p\n", static_cast<void*>(entry));
    pending_push(sa_requests, places, entry);
    return tarv_stat_ok;
}

tarv_stat_t tarv_sa_remove_request(tarv_list_entry_t* entry) {
    const spin_guard guard(tarv_sa_rl_lock);
    pending_take(sa_requests, places, entry);
    return tarv_stat_ok;
}

/* While an answer is tried on it the request stays busy, so that the next one is kept as well. */
void tarv_sa_release_request(tarv_list_entry_t* entry, tarv_maker_t* maker, bool drop_reply) {
    pending_release_t release;
    tarv_path_answer_t answer;
    do {
        const spin_guard guard(tarv_sa_rl_lock);
        release = pending_release(sa_requests, places, entry, maker, drop_reply);
        if (release == pending_release_t::give_answer) {
            answer = maker->answer;
            maker->answer.count = 0;
        }
    } while (release == pending_release_t::give_answer && !tarv_answer_request(entry, &answer));
    if (release == pending_release_t::give_last_word)
        pending_give_last_word(entry);
}

int tarv_sa_num_identical_reqs(tarv_list_entry_t* entry) {
    const spin_guard guard(tarv_sa_rl_lock);
    return places.count_identical(entry);
}

tarv_stat_t tarv_sa_find_and_move_requests_to_list(ib_path_record_v2_t* new_path, int path_count,
                                                   u32, list_head* found_list) {
    INIT_LIST_HEAD(found_list);
    tarv_found_list found(*found_list);
    list_head tried_head, unanswered_head;
    INIT_LIST_HEAD(&tried_head);
    INIT_LIST_HEAD(&unanswered_head);
    tarv_found_list tried(tried_head);
    tarv_found_list unanswered(unanswered_head);
    while (set_piece_aside(new_path, path_count, tried)) {
    }
    for (tarv_list_entry_t* entry : tried) {
        const tarv_stat_t status = tarv_hash_update_paths(entry->req_ip, new_path, path_count,
                                                          entry->requested_paths, nullptr);
        if (status == tarv_stat_ok)
            continue;
        entry->not_valid = 1;
        if (status != tarv_stat_not_found)
            TARV_LOG(TARV_ERROR, "tarv_hash_update_paths() failed. returned %d\n", status);
    }
    while (end_piece_of_trial(tried, found, unanswered)) {
    }
    while (tarv_list_entry_t* entry = unanswered.pop())
        pending_give_last_word(entry);
    return found.empty() ? tarv_stat_not_found : tarv_stat_ok;
}

void tarv_sa_req_timer_handler(unsigned long) {
    if (pending_is_worth_a_look(sa_requests)) {
        list_head timed_out_head;
        INIT_LIST_HEAD(&timed_out_head);
        tarv_found_list timed_out(timed_out_head);
        if (tarv_log_enabled(TARV_FUNC))
            trace_due(timed_out);
        else
            take_due(timed_out);
        for (tarv_list_entry_t* entry : timed_out)
            tarv_retry_ib_data_request(entry, nullptr);
        while (tarv_list_entry_t* entry = timed_out.pop()) {
            TARV_LOG(TARV_FUNC, "found entry : 0x%p\n", static_cast<void*>(entry));
            tarv_free_request(entry);
        }
    }
    if (!read_once(halted))
        pending_start_timer(&tarv_sa_req_timer);
}

void tarv_sa_req_list_dump() {
    pending_dump("sa", [](pending_page_t& page, bool is_first) {
        const spin_guard guard(tarv_sa_rl_lock);
        return pending_turn_page(sa_requests, places, page, is_first);
    });
}
