// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the two request lists have in common. Everything here runs under the lock of the list that
// it is given; the lists' own files say so to the compiler.
#pragma once

#include "platform/jiffies.h"
#include "platform/printk.h"
#include "tarv/logger.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-req-list.h"

/* Both timers run this often, in ticks. */
inline constexpr unsigned long pending_timer_period = 1000;

inline u32 pending_stamp() {
    return static_cast<u32>(jiffies());
}

/* Requests that are taken off a list, or shown, while its lock is held once. */
inline constexpr u32 pending_piece = 256;

struct pending_address_key {
    using type = u32;
    static u32 of(const tarv_list_entry_t* entry) { return entry->req_ip; }
    static u32 hash(u32 address) { return tarv_address_hash(address); }
};
template <u32 Bits>
using pending_by_address =
    groups_of<tarv_list_entry_t, &tarv_list_entry_t::by_address, pending_address_key, Bits>;

/* Where the requests of a list are found without a walk over it, in an index with 2^Bits heads. The
 * list's own order, newest first, is that of the numbers. */
template <u32 Bits>
struct pending_places_t {
    pending_by_address<Bits> by_address;
    list_head by_age;
    u64 last_number;
    tarv_list_entry_t* shown_next;  // of a dump that is under way

    void clear() {
        by_address.clear();
        INIT_LIST_HEAD(&by_age);
        last_number = 0;
        shown_next = nullptr;
    }

    /* The newest request for an address keeps the account of all that wait for it. */
    void enter(tarv_list_entry_t* entry) {
        by_address.enter(entry);
        keep_account(entry, by_address.older(entry));
        if (u32* const alike = alike_in(entry, entry->requested_paths))
            ++*alike;
    }
    void leave(tarv_list_entry_t* entry) {
        const bool was_newest = by_address.is_newest(entry);
        tarv_list_entry_t* const older = by_address.older(entry);
        by_address.remove(entry);
        if (was_newest && older)
            keep_account(older, entry);
        tarv_list_entry_t* const newest = was_newest ? older : by_address.newest(entry->req_ip);
        if (newest)
            if (u32* const alike = alike_in(newest, entry->requested_paths))
                --*alike;
    }

    int count_identical(const tarv_list_entry_t* entry) const {
        tarv_list_entry_t* const newest = by_address.newest(entry->req_ip);
        if (!newest)
            return 0;
        if (const u32* const alike = alike_in(newest, entry->requested_paths))
            return static_cast<int>(*alike);
        // Of values that name no number of paths there is no account.
        int identical = 0;
        for (const tarv_list_entry_t* other = newest; other; other = by_address.older(other))
            identical += other->requested_paths == entry->requested_paths;
        return identical;
    }

  private:
    static void keep_account(tarv_list_entry_t* entry, const tarv_list_entry_t* until_now) {
        for (u32 paths = 0; paths < 3; paths++)
            entry->alike[paths] = until_now ? until_now->alike[paths] : 0;
    }
    static u32* alike_in(tarv_list_entry_t* newest, tarv_paths_t paths) {
        return paths >= tarv_paths_none && paths <= tarv_paths_both ? &newest->alike[paths]
                                                                    : nullptr;
    }
};

template <class Places>
void pending_clear(tarv_list_t& list, Places& places) {
    INIT_LIST_HEAD(&list.head);
    write_once(list.count, 0);
    places.clear();
}

/* Puts the request at the head of the list, but for its place by age. */
template <class Places>
void pending_link(tarv_list_t& list, Places& places, tarv_list_entry_t* entry) {
    tarv_request_list(list.head).push(entry);
    entry->number = ++places.last_number;
    places.enter(entry);
    write_once(list.count, list.count + 1);
}

/* Stamps the request and puts it at the head of the list. Stamps are given under the lock: a later
 * one is never older. From then on others may take it, unless its maker says that he is busy. */
template <class Places>
void pending_push(tarv_list_t& list, Places& places, tarv_list_entry_t* entry) {
    KASSERT(!entry->maker || tarv_get_request_static_flag(entry));
    entry->timestamp = pending_stamp();
    pending_by_age(places.by_age).push_back(entry);
    pending_link(list, places, entry);
}

/* Takes the request off the list, to be put back or let go: it keeps its place by age. Its maker,
 * if it is busy, is told, and is not busy with it any more. */
template <class Places>
void pending_set_aside(tarv_list_t& list, Places& places, tarv_list_entry_t* entry) {
    KASSERT(list.count > 0);
    if (places.shown_next == entry)
        places.shown_next = tarv_request_list(list.head).next(entry);
    tarv_request_list::unlink(entry);
    places.leave(entry);
    write_once(list.count, list.count - 1);
    if (entry->maker)
        entry->maker->taken = true;
    entry->maker = nullptr;
    tarv_clear_request_static_flag(entry);
}

/* The end of having been set aside for a request that does not come back. */
inline void pending_let_go(tarv_list_entry_t* entry) {
    pending_by_age::unlink(entry);
}

template <class Places>
void pending_take(tarv_list_t& list, Places& places, tarv_list_entry_t* entry) {
    pending_set_aside(list, places, entry);
    pending_let_go(entry);
}

/* The last word for a request that was taken. No lock held. */
inline void pending_give_last_word(tarv_list_entry_t* entry) {
    tarv_retry_ib_data_request(entry, nullptr);
    tarv_free_request(entry);
}

/* What its maker has to do with a request that it lets go of. */
enum class pending_release_t : u8 {
    nothing,      // it waits
    was_taken,    // nothing either: it may be gone
    give_answer,  // it is still busy, and an answer has come
    give_last_word,
};

/* Answers are better than last words, and nobody is left to wait in a halted module. */
template <class Places>
pending_release_t pending_release(tarv_list_t& list, Places& places, tarv_list_entry_t* entry,
                                  const tarv_maker_t* maker, bool drop_reply) {
    if (maker->taken)
        return pending_release_t::was_taken;
    if (drop_reply)
        entry->reply_cb = nullptr;
    if (maker->answer.count > 0 && entry->reply_cb)
        return pending_release_t::give_answer;
    if (read_once(halted)) {
        pending_take(list, places, entry);
        return pending_release_t::give_last_word;
    }
    entry->maker = nullptr;
    tarv_clear_request_static_flag(entry);
    return pending_release_t::nothing;
}

/* Whether the timer has to look at the list: read without the lock, except in a halted module.
 * There a request that is filed beside this look would be found by neither the timer nor, if it
 * does not see the halt yet, its maker. */
inline bool pending_is_worth_a_look(const tarv_list_t& list) TA_NO_ANALYSIS {
    return read_once(list.count) != 0 || read_once(halted);
}

/* By who answers or ends requests in the order of their coming: neither its maker is busy with it
 * nor somebody else trying an answer on it. */
inline bool pending_may_be_taken(const tarv_list_entry_t* entry) {
    const tarv_request_state_t state = tarv_request_state(entry);
    return state == tarv_request_state_t::waiting || state == tarv_request_state_t::silent;
}

/* The request has waited for `limit` ticks, or nobody may wait any more. Ticks are counted modulo
 * 2^32. */
inline bool pending_is_due(const tarv_list_entry_t* entry, u32 limit) {
    return pending_stamp() - entry->timestamp >= limit || read_once(halted);
}

/* Takes a piece of those off the list that are due, busy ones excepted, and appends them to `found`
 * by their age. Looks at no others: who has waited longest comes first. Returns whether there may
 * be more. */
template <class Places>
bool pending_take_due(tarv_list_t& list, Places& places, u32 limit, tarv_found_list& found) {
    u32 taken = 0;
    for (tarv_list_entry_t* entry : pending_by_age(places.by_age)) {
        if (!pending_is_due(entry, limit))
            break;
        if (!pending_may_be_taken(entry))
            continue;
        pending_take(list, places, entry);
        found.push_back(entry);
        if (++taken == pending_piece)
            return true;
    }
    return false;
}

/* Puts requests into the order in which they came onto their list: who was put back came onto it
 * later than others of the same age. */
inline void pending_sort(tarv_found_list& found) {
    u64 last_number = 0;
    bool in_order = true;
    for (const tarv_list_entry_t* entry : found) {
        in_order = in_order && entry->number > last_number;
        last_number = entry->number;
    }
    if (!in_order)
        found.sort([](const tarv_list_entry_t* one, const tarv_list_entry_t* other) {
            return one->number < other->number;
        });
}

/* Sets a list's timer up for its first run, or again after one. */
inline void pending_start_timer(timer_list* timer) {
    timer->expires = jiffies() + pending_timer_period;
    add_timing(timer);
}

inline void pending_make_timer(timer_list* timer, void (*handler)(unsigned long), void* list) {
    init_timing(timer);
    timer->function = handler;
    timer->data = reinterpret_cast<unsigned long>(list);
    pending_start_timer(timer);
}

/* What a dump shows of a request. */
struct pending_line_t {
    u32 req_ip;
    u32 src_ip;
    u8 is_from_fwd;
};

/* A part of a dump, from where the part before ended. */
struct pending_page_t {
    pending_line_t lines[64];
    u32 length;
    u32 count;  // requests on the list
};

/* Fills a page, the first one from the head of the list; false: the page before was the last one.
 * One dump of a list at a time. */
template <class Places>
bool pending_turn_page(tarv_list_t& list, Places& places, pending_page_t& page, bool is_first) {
    tarv_request_list all(list.head);
    tarv_list_entry_t* entry = is_first ? all.first() : places.shown_next;
    page.count = list.count;
    page.length = 0;
    for (; entry && page.length < sizeof page.lines / sizeof page.lines[0]; entry = all.next(entry))
        page.lines[page.length++] = {entry->req_ip, entry->src_ip, entry->is_from_fwd};
    places.shown_next = entry;
    return is_first || page.length;
}

inline void pending_print(const pending_page_t& page) {
    for (u32 i = 0; i < page.length; i++) {
        const pending_line_t& line = page.lines[i];
        printk("%03d.%03d.%03d.%03d", TARV_IP_BYTES(line.req_ip));
        printk("\t%03d.%03d.%03d.%03d", TARV_IP_BYTES(line.src_ip));
        printk("\t%s", line.is_from_fwd ? "Yes" : "No ");
        printk("\n");
    }
}

/* Prints a list; `turn` fills the next page of it under the list's lock. Nothing is printed there:
 * a console may take a millisecond for a line. */
template <class Turn>
void pending_dump(const char* title, Turn turn) {
    pending_page_t page;
    turn(page, true);
    printk("\n\nPending %s requests: %d\n", title, page.count);
    printk("***********************\n");
    printk("Req Ip  \tSrc Ip  \tFWD\n");
    do
        pending_print(page);
    while (turn(page, false));
    printk("\n\n");
}
