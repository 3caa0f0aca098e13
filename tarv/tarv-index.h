// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Indexes over entries that somebody else keeps: they find those with a given key at a cost that
// does not grow with their number.
//
// The cache keeps its entries in 32 chains and the request lists keep theirs newest first; those
// orders can be seen and stay. An index stands beside them. It is a static array of heads and links
// inside the entries, so that entering can never fail for want of memory. There are three kinds:
//
//   index_of    entries with keys that hardly two of them share
//   groups_of   entries of which any number may share a key, newest first
//   ordered_of  entries of which any number may share a key, where one is sought: the first of them
//
// What is found under a head shares some bits of a hash with what was sought and no more: compare
// the keys. An index has no lock; whatever guards the entries guards it.
//
// A hash is 32 bits wide, and its low bits choose the head. All hashes depend on numbers that are
// drawn at every load, so that nobody outside can choose addresses or GIDs that all share one.
#pragma once

#include "platform/bug.h"
#include "platform/types.h"
#include "tarv/sa-mads.h"

/* `Next` is the entry's link, `Bits` the logarithm of the number of heads. An entry is taken out by
 * a walk from its head: there are no links back. */
template <class T, T* T::*Next, u32 Bits>
class index_of {
    static_assert(Bits <= 32);

  public:
    /* Forgets all entries, without touching them. */
    void clear() { __builtin_memset(heads_, 0, sizeof heads_); }

    void enter(T* entry, u32 hash) {
        T*& head = heads_[slot_of(hash)];
        entry->*Next = head;
        head = entry;
    }
    /* The entry is in the index, under that hash. */
    void remove(T* entry, u32 hash) { *link_to(entry, hash) = entry->*Next; }

    /* The entries under the head of that hash, the last one entered first. */
    class iterator {
      public:
        explicit iterator(T* at) : at_(at) {}
        T* operator*() const { return at_; }
        iterator& operator++() {
            at_ = at_->*Next;
            return *this;
        }
        bool operator!=(const iterator& other) const { return at_ != other.at_; }

      private:
        T* at_;
    };
    class range {
      public:
        explicit range(T* first) : first_(first) {}
        iterator begin() const { return iterator(first_); }
        iterator end() const { return iterator(nullptr); }

      private:
        T* first_;
    };
    range under(u32 hash) const { return range(heads_[slot_of(hash)]); }

    /* The head will be needed soon. */
    void prefetch(u32 hash) const { __builtin_prefetch(&heads_[slot_of(hash)]); }

  private:
    static u32 slot_of(u32 hash) { return hash & (slots - 1); }
    T** link_to(T* entry, u32 hash) {
        T** link = &heads_[slot_of(hash)];
        while (*link != entry) {
            KASSERT(*link);
            link = &((*link)->*Next);
        }
        return link;
    }

    static constexpr u32 slots = u32{1} << Bits;
    T* heads_[slots];
};

/* An entry's place in its group. */
template <class T>
struct group_links_t {
    T* next;   // of the newest one of a group: under the same head
    T* older;  // in the group
    T* newer;  // null: the newest one, which stands for the group in the index
};

/* A group is a chain from its newest entry to its oldest one. Only the newest one stands under a
 * head. `Key::of(entry)` is what the members of a group have in common, `Key::hash(key)` its hash.
 */
template <class T, group_links_t<T> T::*Links, class Key, u32 Bits>
class groups_of {
  public:
    using key_t = typename Key::type;

    void clear() { __builtin_memset(heads_, 0, sizeof heads_); }

    /* The newest entry with that key, or null. */
    T* newest(const key_t& key) const {
        for (T* entry = heads_[slot_of(key)]; entry; entry = (entry->*Links).next)
            if (Key::of(entry) == key)
                return entry;
        return nullptr;
    }
    static T* older(const T* entry) { return (entry->*Links).older; }
    static bool is_newest(const T* entry) { return !(entry->*Links).newer; }

    /* The entry becomes the newest of its group. */
    void enter(T* entry) {
        T** const link = link_to(Key::of(entry));
        T* const before = *link;
        entry->*Links = {before ? (before->*Links).next : nullptr, before, nullptr};
        if (before)
            (before->*Links).newer = entry;
        *link = entry;
    }

    /* Takes the entry out of its group. */
    void remove(T* entry) {
        const group_links_t<T> links = entry->*Links;
        if (links.older)
            (links.older->*Links).newer = links.newer;
        if (links.newer) {
            KASSERT((links.newer->*Links).older == entry);
            (links.newer->*Links).older = links.older;
            return;
        }
        if (links.older)
            (links.older->*Links).next = links.next;
        T** const link = link_to(Key::of(entry));
        KASSERT(*link == entry);
        *link = links.older ? links.older : links.next;
    }

  private:
    static u32 slot_of(const key_t& key) { return Key::hash(key) & (slots - 1); }

    /* What points at the newest entry with that key, or at null behind the last one under the head.
     */
    T** link_to(const key_t& key) {
        T** link = &heads_[slot_of(key)];
        while (*link && !(Key::of(*link) == key))
            link = &((*link)->*Links).next;
        return link;
    }

    static constexpr u32 slots = u32{1} << Bits;
    T* heads_[slots];
};

/* An entry's place in an ordered index. */
template <class T>
struct order_links_t {
    T* before;  // those that come before the entry
    T* after;
};

/* Under each head stands a search tree, mostly of one entry. Its shape is that of a treap, by ranks
 * that nobody can guess: its depth grows with the logarithm of their number whatever keys are
 * chosen. `Order::before(one, other)` orders entries, of which no two are equal;
 * `Order::compare(entry, key)` is below, at or above 0 where the entry's key is below, at or above
 * `key`, and `Order::rank(entry)` and `Order::hash(key)` are what they say. None of them may change
 * while the entry is in the index. */
template <class T, order_links_t<T> T::*Links, class Order, u32 Bits>
class ordered_of {
  public:
    using key_t = typename Order::key_t;

    void clear() { __builtin_memset(heads_, 0, sizeof heads_); }

    /* The first entry, in their order, that has that key; or null. */
    T* first(const key_t& key) const {
        T* found = nullptr;
        for (T* at = heads_[slot_of(key)]; at;) {
            const int compared = Order::compare(at, key);
            if (compared == 0)
                found = at;
            at = compared < 0 ? (at->*Links).after : (at->*Links).before;
        }
        return found;
    }

    void enter(T* entry) {
        T** link = &heads_[slot_of(Order::key(entry))];
        while (*link && Order::rank(*link) >= Order::rank(entry))
            link = towards(*link, entry);
        // The branch below is parted into what comes before the entry and what comes after it.
        T* rest = *link;
        *link = entry;
        T** before = &(entry->*Links).before;
        T** after = &(entry->*Links).after;
        while (rest) {
            if (Order::before(rest, entry)) {
                *before = rest;
                before = &(rest->*Links).after;
                rest = *before;
            } else {
                *after = rest;
                after = &(rest->*Links).before;
                rest = *after;
            }
        }
        *before = *after = nullptr;
    }

    /* The entry is in the index. */
    void remove(T* entry) {
        T** link = &heads_[slot_of(Order::key(entry))];
        while (*link != entry) {
            KASSERT(*link);
            link = towards(*link, entry);
        }
        // Its two branches become one.
        T* before = (entry->*Links).before;
        T* after = (entry->*Links).after;
        while (before && after) {
            if (Order::rank(before) >= Order::rank(after)) {
                *link = before;
                link = &(before->*Links).after;
                before = *link;
            } else {
                *link = after;
                link = &(after->*Links).before;
                after = *link;
            }
        }
        *link = before ? before : after;
    }

    /* The head will be needed soon. */
    void prefetch(const key_t& key) const { __builtin_prefetch(&heads_[slot_of(key)]); }

  private:
    static u32 slot_of(const key_t& key) { return Order::hash(key) & (slots - 1); }
    static T** towards(T* at, const T* entry) {
        return Order::before(entry, at) ? &(at->*Links).before : &(at->*Links).after;
    }

    static constexpr u32 slots = u32{1} << Bits;
    T* heads_[slots];
};

/* What the hashes of one load depend on. */
struct tarv_index_draw_t {
    u64 block;   // of addresses; odd
    u64 gid[4];  // one for each quarter of a GID
    u64 rank;    // odd
};
extern tarv_index_draw_t tarv_index_drawn;

/* Draws anew; tarv_index_set makes what is drawn from one number. Every index must be empty, and
 * nobody else at work. */
void tarv_index_draw();
void tarv_index_set(u64 seed);

/* The hash of an IPv4 address in network byte order. Addresses that follow one another get heads of
 * their own, since hosts of one subnet are numbered so; which blocks of addresses share heads
 * depends on what was drawn. */
inline u32 tarv_address_hash(u32 address) {
    const u32 number = __builtin_bswap32(address);
    const u32 block = number >> 16;
    // Bits 48 and up of the product depend on all bits of the block.
    return number + static_cast<u32>((block + 1) * tarv_index_drawn.block >> 48);
}

/* The hash of a GID: each quarter is multiplied by a number of its own before anything is folded.
 * Of any two GIDs the chance to share bits of the hash is that of throwing dice. */
inline u32 tarv_gid_hash(const gx_gid_t& gid) {
    const u64(&drawn)[4] = tarv_index_drawn.gid;
    const u64 high = gid_high(gid);
    const u64 low = gid_low(gid);
    const u64 sum = static_cast<u32>(high) * drawn[0] + (high >> 32) * drawn[1] +
                    static_cast<u32>(low) * drawn[2] + (low >> 32) * drawn[3];
    return static_cast<u32>(sum >> 32);
}

/* The rank of something in a treap, from a number that nothing else there has. */
inline u64 tarv_index_rank(u64 number) {
    const u64 mixed = (number + 1) * tarv_index_drawn.rank;
    return (mixed ^ (mixed >> 32)) * 0xD6E8FEB86659FD93ull;
}
