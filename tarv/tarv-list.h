// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The kernel's list links with types: a view of a list head as a list of T, linked through the
// links that stand at a fixed offset inside T. An entry may be on several lists through different
// links.
#pragma once

#include "platform/bug.h"
#include "platform/list.h"

/* `Offset` is offsetof(T, links). The view owns nothing and costs nothing; make one where needed.
 */
template <class T, size_t Offset>
class list_of {
  public:
    explicit list_of(list_head& head) : head_(head) {}

    bool empty() const { return list_empty(&head_); }

    /* Links `entry` in as the first. */
    void push(T* entry) {
        KASSERT(!is_linked(entry));
        list_add(links_of(entry), &head_);
    }

    /* Links `entry` in as the last. */
    void push_back(T* entry) {
        KASSERT(!is_linked(entry));
        list_add_tail(links_of(entry), &head_);
    }

    /* The first entry, or the one behind `entry`; null when there is none. */
    T* first() const { return empty() ? nullptr : entry_of(head_.next); }
    T* next(T* entry) const {
        list_head* const links = links_of(entry)->next;
        return links == &head_ ? nullptr : entry_of(links);
    }

    /* Unlinks the first entry and returns it; null when there is none. */
    T* pop() {
        if (empty())
            return nullptr;
        T* entry = entry_of(head_.next);
        unlink(entry);
        return entry;
    }

    /* Takes `entry` off the list that it is on through these links. */
    static void unlink(T* entry) {
        list_head* const links = links_of(entry);
        KASSERT(is_linked(entry) && links->next->prev == links && links->prev->next == links);
        list_del_init(links);
    }

    /* Whether `entry` is on a list through these links. Links that are zero-filled are on none. */
    static bool is_linked(T* entry) {
        const list_head* const links = links_of(entry);
        return links->next && links->next != links;
    }

    /* From first to last. The walk survives the unlinking of the entry that it stands on. */
    class iterator {
      public:
        explicit iterator(list_head* at) : at_(at), next_(at->next) {}
        T* operator*() const { return entry_of(at_); }
        iterator& operator++() {
            at_ = next_;
            next_ = at_->next;
            return *this;
        }
        bool operator!=(const iterator& other) const { return at_ != other.at_; }

      private:
        list_head* at_;
        list_head* next_;
    };
    iterator begin() const { return iterator(head_.next); }
    iterator end() const { return iterator(&head_); }

    /* Puts the entries into the order in which `before(one, other)` is false of each with the one
     * in front of it. Entries that neither comes before the other stay in their order. n log n
     * steps. */
    template <class Before>
    void sort(Before before) {
        // As in counting: run i holds 2^i entries in order, or none; one more entry carries.
        list_head runs[max_runs];
        for (list_head& run : runs)
            INIT_LIST_HEAD(&run);
        while (T* entry = pop()) {
            list_head carried;
            INIT_LIST_HEAD(&carried);
            list_of(carried).push(entry);
            u32 i = 0;
            for (; i + 1 < max_runs && !list_empty(&runs[i]); i++)
                list_of(carried).merge_in_front(runs[i], before);
            list_of(runs[i]).merge_in_front(carried, before);
        }
        for (list_head& run : runs)
            merge_in_front(run, before);
    }

  private:
    /* Enough for 2^32 entries. */
    static constexpr u32 max_runs = 32;

    /* Merges the ordered entries of `other`, which is left empty, into this ordered list; of equal
     * ones those of `other` come first. */
    template <class Before>
    void merge_in_front(list_head& other, Before before) {
        list_head* at = head_.next;
        while (T* entry = list_of(other).pop()) {
            while (at != &head_ && before(entry_of(at), entry))
                at = at->next;
            list_add_tail(links_of(entry), at);
        }
    }

    static list_head* links_of(T* entry) {
        return reinterpret_cast<list_head*>(reinterpret_cast<char*>(entry) + Offset);
    }
    static T* entry_of(list_head* links) {
        return reinterpret_cast<T*>(reinterpret_cast<char*>(links) - Offset);
    }

    list_head& head_;
};
