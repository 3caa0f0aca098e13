// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The tables that are compared: the module's own, the limit that no table can beat, the plain walk,
// and what the well-known libraries offer. All hold the same records, and each does for a peer:
//
//   learn(n)        enters the record of peer n, which the table has not
//   forget(n)       takes it out again, and gives its memory back
//   get(n, record)  copies it out whole under the table's lock; false when the table has not got it
//
// A Visit stands around a thread's use of a table; pause() in it is called between operations.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <tbb/concurrent_hash_map.h>
#include <urcu/urcu-qsbr.h>
// Wants a flavour to be included before.
#include <urcu/rculfhash.h>

#include <bit>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "bench/bench.h"
#include "bench/plain.h"
#include "tarv/tarv-api.h"

namespace bench {

struct NoVisit {
    void pause() {}
};

/// The same good hash for everybody who brings none of his own.
struct Mixed {
    std::size_t operator()(u32 address) const {
        const std::size_t product = address * 0x9E3779B97F4A7C15ull;
        return product ^ product >> 32;
    }
};

inline tarv_hash_entry_t* make_entry(u32 n) {
    auto* const entry = make<tarv_hash_entry_t>();
    entry->arp_data = peer_record(n);
    tarv_aim_paths(&entry->arp_data);
    return entry;
}

/// The module's cache.
class Module {
  public:
    using Visit = NoVisit;
    explicit Module(u32) {
        tarv_hash_init();
        // Nobody's time is measured while entries grow old.
        del_timing_sync(&tarv_garbage_collector_timer);
    }
    ~Module() { tarv_hash_destroy(); }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    void learn(u32 n) { tarv_hash_add_entry(make_entry(n)); }
    void forget(u32 n) {
        tarv_hash_entry_t* entry = nullptr;
        require(tarv_hash_remove_entry(peer_ip(n), &entry) == tarv_stat_ok, "an entry was missing");
        kfree(entry);
    }
    bool get(u32 n, tarv_arp_data_t& out) {
        return tarv_hash_get_entry_data(peer_ip(n), &out) == tarv_stat_ok;
    }
};

/// The same, as a client reaches it.
class ModuleCall : public Module {
  public:
    using Module::Module;
    bool get(u32 n, tarv_arp_data_t& out) {
        return tarv_get_ib_data(peer_ip(n), our_ip, tarv_paths_both, &out, nullptr, nullptr, 0) ==
               tarv_stat_ok;
    }
};

/// Does what the module does of a hit, but for finding the entry: an array knows where it is.
class BareLimit {
  public:
    using Visit = NoVisit;
    explicit BareLimit(u32 capacity) : entries_(capacity) {
        rwlock_init(&lock_, "bare_limit_lock");
    }
    ~BareLimit() {
        for (const tarv_hash_entry_t* entry : entries_)
            kfree(entry);
    }
    BareLimit(const BareLimit&) = delete;
    BareLimit& operator=(const BareLimit&) = delete;

    void learn(u32 n) { put(n, make_entry(n)); }
    void forget(u32 n) { kfree(put(n, nullptr)); }
    bool get(u32 n, tarv_arp_data_t& out) {
        const read_guard guard(lock_);
        tarv_hash_entry_t* const entry = entries_[n];
        out = entry->arp_data;
        tarv_aim_paths(&out);
        const unsigned long now = jiffies();
        if (read_once(entry->timestamp) != now)
            write_once(entry->timestamp, now);
        return true;
    }

  private:
    tarv_hash_entry_t* put(u32 n, tarv_hash_entry_t* entry) {
        if (entry)
            entry->timestamp = jiffies();
        const write_guard guard(lock_);
        return std::exchange(entries_[n], entry);
    }

    static inline rwlock_t lock_ = {};
    std::vector<tarv_hash_entry_t*> entries_;
};

/// 32 chains, walked.
class PlainWalk {
  public:
    using Visit = NoVisit;
    explicit PlainWalk(u32) {}
    void learn(u32 n) { table_.add(make_entry(n)); }
    void forget(u32 n) { kfree(table_.remove(peer_ip(n))); }
    bool get(u32 n, tarv_arp_data_t& out) { return table_.get(peer_ip(n), &out); }

  private:
    PlainTable table_;
};

/// A map that locks nothing, under a lock of the standard library.
template <class Map>
class Shared {
  public:
    using Visit = NoVisit;
    explicit Shared(u32 capacity) { map_.reserve(capacity); }
    void learn(u32 n) {
        const tarv_arp_data_t record = peer_record(n);
        const std::unique_lock lock(mutex_);
        map_.emplace(record.dst_ip, record);
    }
    void forget(u32 n) {
        const std::unique_lock lock(mutex_);
        map_.erase(peer_ip(n));
    }
    bool get(u32 n, tarv_arp_data_t& out) {
        const std::shared_lock lock(mutex_);
        const auto found = map_.find(peer_ip(n));
        if (found == map_.end())
            return false;
        out = found->second;
        return true;
    }

  private:
    std::shared_mutex mutex_;
    Map map_;
};
using StandardMap =
    Shared<std::unordered_map<u32, tarv_arp_data_t, Mixed, std::equal_to<>,
                              KernelAllocator<std::pair<const u32, tarv_arp_data_t>>>>;

/// The lock of the standard library, and the kernel's that the module has: who reads, who writes.
struct StandardLock {
    using Mutex = std::shared_mutex;
    using Read = std::shared_lock<Mutex>;
    using Write = std::unique_lock<Mutex>;
};
struct KernelLock {
    struct Mutex : rwlock_t {
        Mutex() : rwlock_t() { rwlock_init(this, "flat_map_lock"); }
    };
    using Read = read_guard;
    using Write = write_guard;
};

/// Abseil's, with the hash that it recommends, its own. Records of their own, as everybody else has
/// them and as its documentation recommends where values are large or must stay where they are.
template <class Lock>
class FlatMapUnder {
  public:
    using Visit = NoVisit;
    explicit FlatMapUnder(u32 capacity) { map_.reserve(capacity); }
    ~FlatMapUnder() {
        for (const auto& [address, record] : map_)
            kfree(record);
    }
    FlatMapUnder(const FlatMapUnder&) = delete;
    FlatMapUnder& operator=(const FlatMapUnder&) = delete;

    void learn(u32 n) {
        tarv_arp_data_t* const record = make<tarv_arp_data_t>(peer_record(n));
        const typename Lock::Write lock(mutex_);
        map_.emplace(record->dst_ip, record);
    }
    void forget(u32 n) { kfree(take(peer_ip(n))); }
    bool get(u32 n, tarv_arp_data_t& out) {
        const typename Lock::Read lock(mutex_);
        const auto found = map_.find(peer_ip(n));
        if (found == map_.end())
            return false;
        out = *found->second;
        return true;
    }

  private:
    tarv_arp_data_t* take(u32 ip) {
        const typename Lock::Write lock(mutex_);
        const auto found = map_.find(ip);
        require(found != map_.end(), "an entry was missing");
        tarv_arp_data_t* const record = found->second;
        map_.erase(found);
        return record;
    }

    typename Lock::Mutex mutex_;
    absl::flat_hash_map<u32, tarv_arp_data_t*> map_;
};
using FlatMap = FlatMapUnder<StandardLock>;
using FlatMapKernelLock = FlatMapUnder<KernelLock>;

/// The same with the records in the table itself: nothing is allocated for one, and none has an
/// address that stays.
using FlatRecords = Shared<absl::flat_hash_map<u32, tarv_arp_data_t>>;

/// oneTBB's map locks each record by itself.
class TbbMap {
  public:
    using Visit = NoVisit;
    explicit TbbMap(u32 capacity) : map_(capacity) {}
    void learn(u32 n) {
        const tarv_arp_data_t record = peer_record(n);
        map_.emplace(record.dst_ip, record);
    }
    void forget(u32 n) { map_.erase(peer_ip(n)); }
    bool get(u32 n, tarv_arp_data_t& out) {
        Map::const_accessor found;
        if (!map_.find(found, peer_ip(n)))
            return false;
        out = found->second;
        return true;
    }

  private:
    struct Compare {
        static std::size_t hash(u32 address) { return Mixed()(address); }
        static bool equal(u32 one, u32 other) { return one == other; }
    };
    using Map = tbb::concurrent_hash_map<u32, tarv_arp_data_t, Compare,
                                         KernelAllocator<std::pair<const u32, tarv_arp_data_t>>>;
    Map map_;
};

/// The userspace RCU library's table. Readers take no lock at all: who removes a record waits until
/// every thread has paused.
class RcuTable {
  public:
    class Visit {
      public:
        Visit() { urcu_qsbr_register_thread(); }
        ~Visit() { urcu_qsbr_unregister_thread(); }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;
        void pause() {
            if (++operations_ % 64 == 0)
                urcu_qsbr_quiescent_state();
        }

      private:
        unsigned operations_ = 0;
    };

    explicit RcuTable(u32 capacity) {
        const unsigned long size = std::bit_ceil(capacity);
        table_ = cds_lfht_new_flavor(size, size, size, 0, &urcu_qsbr_flavor, nullptr);
        require(table_ != nullptr, "no RCU table");
    }
    ~RcuTable() {
        const Visit visit;
        cds_lfht_iter at;
        for (cds_lfht_first(table_, &at); cds_lfht_node* const node = cds_lfht_iter_get_node(&at);
             cds_lfht_next(table_, &at))
            discard(node);
        urcu_qsbr_barrier();
        require(cds_lfht_destroy(table_, nullptr) == 0, "the RCU table was not empty");
    }
    RcuTable(const RcuTable&) = delete;
    RcuTable& operator=(const RcuTable&) = delete;

    void learn(u32 n) {
        auto* const node = make<Node>();
        node->record = peer_record(n);
        cds_lfht_node_init(node);
        urcu_qsbr_read_lock();
        cds_lfht_add(table_, Mixed()(node->record.dst_ip), node);
        urcu_qsbr_read_unlock();
    }
    void forget(u32 n) {
        urcu_qsbr_read_lock();
        cds_lfht_node* const node = find(n);
        require(node != nullptr, "an entry was missing");
        discard(node);
        urcu_qsbr_read_unlock();
    }
    bool get(u32 n, tarv_arp_data_t& out) {
        urcu_qsbr_read_lock();
        const cds_lfht_node* const node = find(n);
        if (node)
            out = static_cast<const Node*>(node)->record;
        urcu_qsbr_read_unlock();
        return node != nullptr;
    }

  private:
    struct Node : cds_lfht_node, rcu_head {
        tarv_arp_data_t record;
    };

    cds_lfht_node* find(u32 n) {
        const u32 address = peer_ip(n);
        cds_lfht_iter at;
        cds_lfht_lookup(table_, Mixed()(address), is_of, &address, &at);
        return cds_lfht_iter_get_node(&at);
    }
    static int is_of(cds_lfht_node* node, const void* address) {
        return static_cast<const Node*>(node)->record.dst_ip == *static_cast<const u32*>(address);
    }
    void discard(cds_lfht_node* node) {
        cds_lfht_del(table_, node);
        urcu_qsbr_call_rcu(static_cast<Node*>(node),
                           [](rcu_head* head) { kfree(static_cast<Node*>(head)); });
    }

    cds_lfht* table_;
};

}  // namespace bench
