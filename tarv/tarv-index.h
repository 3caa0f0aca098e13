// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An index over entries that somebody else keeps: finds those with a given hash at a cost that does
// not grow with their number.
//
// The cache keeps its entries in 32 chains and the request lists keep theirs newest first; those
// orders can be seen and stay. An index stands beside them. It is a static array of heads and links
// inside the entries, so that entering can never fail for want of memory. Among entries with the
// same hash, the one that was entered last comes first.
//
// What is found shares a hash with what was sought and no more: compare the keys. An index has no
// lock; whatever guards the entries guards it.
//
// A hash is 32 bits wide, and its low bits choose the head. Addresses that follow one another get
// heads of their own, since hosts of one subnet are numbered so. Which blocks of addresses share
// heads depends on a multiplier that is drawn at every load, so that nobody can choose addresses
// that all share one.
#pragma once

#include "platform/bug.h"
#include "platform/types.h"
#include "tarv/sa-mads.h"

/* An entry's place in one index; null links while it is in none. */
struct index_links_t {
    index_links_t* next;   // under the same head
    index_links_t** link;  // what points at this one
    u32 hash;
};

/* Takes whatever has these links out of the index that it is in, if it is in one. */
inline void index_leave(index_links_t& links) {
    if (!links.link)
        return;
    KASSERT(*links.link == &links);
    *links.link = links.next;
    if (links.next)
        links.next->link = links.link;
    links = {};
}

/* `Offset` is offsetof(T, links), `Bits` the logarithm of the number of heads. */
template <class T, size_t Offset, u32 Bits>
class index_of {
    static_assert(Bits <= 32);

  public:
    /* Forgets all entries, without touching them. */
    void clear() { __builtin_memset(heads_, 0, sizeof heads_); }

    void enter(T* entry, u32 hash) {
        index_links_t* const links = links_of(entry);
        KASSERT(!links->link);
        index_links_t** const head = &heads_[slot_of(hash)];
        *links = {*head, head, hash};
        if (links->next)
            links->next->link = &links->next;
        *head = links;
    }

    /* Nothing happens to an entry that is not in the index. */
    static void remove(T* entry) { index_leave(*links_of(entry)); }

    /* The entries of one hash, the last one entered first. The walk survives the removal of the
     * entry that it stands on. */
    class iterator {
      public:
        iterator(index_links_t* at, u32 hash) : hash_(hash) { settle(at); }
        T* operator*() const { return reinterpret_cast<T*>(reinterpret_cast<char*>(at_) - Offset); }
        iterator& operator++() {
            settle(next_);
            return *this;
        }
        bool operator!=(const iterator& other) const { return at_ != other.at_; }

      private:
        void settle(index_links_t* at) {
            while (at && at->hash != hash_)
                at = at->next;
            at_ = at;
            next_ = at ? at->next : nullptr;
        }

        index_links_t* at_ = nullptr;
        index_links_t* next_ = nullptr;
        u32 hash_;
    };
    class range {
      public:
        range(index_links_t* first, u32 hash) : first_(first), hash_(hash) {}
        iterator begin() const { return iterator(first_, hash_); }
        iterator end() const { return iterator(nullptr, hash_); }

      private:
        index_links_t* first_;
        u32 hash_;
    };
    range with(u32 hash) const { return range(heads_[slot_of(hash)], hash); }

  private:
    static u32 slot_of(u32 hash) { return hash & (slots - 1); }
    static index_links_t* links_of(T* entry) {
        return reinterpret_cast<index_links_t*>(reinterpret_cast<char*>(entry) + Offset);
    }

    static constexpr u32 slots = u32{1} << Bits;
    index_links_t* heads_[slots];
};

/* Odd; drawn anew by tarv_index_draw(). */
extern u64 tarv_index_multiplier;

/* Draws the multiplier. Every index must be empty, and nobody else at work. */
void tarv_index_draw();

/* The hash of an IPv4 address in network byte order. */
inline u32 tarv_address_hash(u32 address) {
    const u32 number = __builtin_bswap32(address);
    const u32 block = number >> 16;
    // Bits 48 and up of the product depend on all bits of the block.
    return number + static_cast<u32>((block + 1) * tarv_index_multiplier >> 48);
}

/* The hash of a GID. */
inline u32 tarv_gid_hash(const gx_gid_t& gid) {
    const u64 high = gid_high(gid);
    u64 mixed = (high ^ (high >> 32)) * 0x9E3779B97F4A7C15ull + gid_low(gid);
    mixed = (mixed ^ (mixed >> 29)) * tarv_index_multiplier;
    return static_cast<u32>(mixed >> 32);
}
