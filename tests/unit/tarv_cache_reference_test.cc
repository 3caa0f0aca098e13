// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The cache against a plain one, over random steps: 32 chains that are walked from their heads,
// which is what the table promises to look like whatever finds its entries.
#include <algorithm>
#include <array>
#include <functional>
#include <list>
#include <optional>
#include <random>

#include "tests/support/kernel_test.h"
#include "tests/support/records.h"

namespace {

using support::gid;
using support::table;

/// One entry of the plain cache.
struct Known {
    tarv_arp_data_t record;
    unsigned long timestamp;
};
using Chain = std::list<Known>;

class PlainCache {
  public:
    void add(const tarv_arp_data_t& record) {
        chain_of(record.dst_ip).push_front({record, jiffies()});
    }
    /// The newest one, used now; `unprotected`: that may be removed.
    Known* find(u32 address, bool unprotected = false) {
        for (Known& known : chain_of(address))
            if (known.record.dst_ip == address &&
                !(unprotected && !statics_inv_enabled && known.record.mask & TARV_MASK_STATIC))
                return use(known);
        return nullptr;
    }
    Known* find(const gx_gid_t& wanted) {
        for (Chain& chain : chains_)
            for (Known& known : chain)
                if (known.record.gid == wanted)
                    return use(known);
        return nullptr;
    }
    void remove(const Known* which) {
        remove_if([which](const Known& known) { return &known == which; });
    }
    void remove_if(const std::function<bool(const Known&)>& goes) {
        for (Chain& chain : chains_)
            chain.remove_if(goes);
    }
    void age() {
        remove_if([](const Known& known) {
            return !(known.record.mask & TARV_MASK_STATIC) &&
                   known.timestamp + arp_cache_timeout_sec * HZ <= jiffies();
        });
    }
    const std::array<Chain, TARV_HASH_BUCKETS>& chains() const { return chains_; }

  private:
    static Known* use(Known& known) {
        known.timestamp = jiffies();
        return &known;
    }
    Chain& chain_of(u32 address) { return chains_[tarv_hash_func(address)]; }

    std::array<Chain, TARV_HASH_BUCKETS> chains_;
};

/// The QKEY tells records apart, the rest is what decisions are made by.
auto essence(const tarv_arp_data_t& record) {
    return std::tuple(record.dst_ip, record.qkey, record.mask, record.lid, record.paths_count,
                      std::to_array(record.gid.raw), record.paths[0].dlid);
}

class CacheReference : public support::KernelTest, public testing::WithParamInterface<unsigned> {
  protected:
    CacheReference() {
        arp_cache_timeout_sec = 40;
        tarv_hash_init();
    }
    void TearDown() override {
        tarv_hash_destroy();
        KernelTest::TearDown();
    }

    void step();
    void compare_tables();

  private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(rng_() % limit); }
    u32 some_address() { return addresses_[below(static_cast<unsigned>(addresses_.size()))]; }
    gx_gid_t some_gid() { return gid(static_cast<u8>(16 * below(12))); }
    tarv_arp_data_t new_record(u32 address);

    void add();
    void look_up(u32 address);
    void look_up(gx_gid_t wanted);
    void update(u32 address);
    void set_path(u32 address);
    void remove(u32 address);
    void remove_from(gx_gid_t sgid);
    void remove_all();
    void pass_time(unsigned long ticks);

    std::mt19937 rng_{GetParam()};
    PlainCache plain_;
    u32 last_qkey_ = 0;
    // Few enough to collide: neighbours, the same host of other subnets, one bucket's, nonsense.
    const std::vector<u32> addresses_ = [] {
        // The last one has a byte at each border between lengths.
        std::vector<u32> all = {0, ~0u, htonl(0x0A64'6309)};
        for (u32 n = 0; n < 40; n++) {
            all.push_back(htonl(0x0A000001 + n));
            all.push_back(htonl(0x0A000001 + (n << 16)));
            all.push_back(support::ip_in_bucket(7, static_cast<int>(n)));
        }
        return all;
    }();
};

tarv_arp_data_t CacheReference::new_record(u32 address) {
    tarv_arp_data_t record = {};
    record.dst_ip = address;
    record.qkey = ++last_qkey_;
    record.lid = static_cast<u16>(below(1000));
    record.gid = some_gid();
    record.mask = below(8) ? 0 : u32{TARV_MASK_STATIC};
    if (below(2)) {
        record.mask |= TARV_MASK_PRIMARY_PATH;
        record.paths[0].sgid = some_gid();
    }
    tarv_aim_paths(&record);
    return record;
}

void CacheReference::add() {
    const tarv_arp_data_t record = new_record(some_address());
    support::add(record);
    plain_.add(record);
}

void CacheReference::look_up(u32 address) {
    tarv_arp_data_t found;
    const Known* expected = plain_.find(address);
    ASSERT_EQ(tarv_hash_get_entry_data(address, &found) == tarv_stat_ok, expected != nullptr);
    if (!expected)
        return;
    ASSERT_EQ(essence(found), essence(expected->record));
}

void CacheReference::look_up(gx_gid_t wanted) {
    tarv_arp_data_t found;
    const Known* expected = plain_.find(wanted);
    ASSERT_EQ(tarv_hash_seq_cache_lookup(&wanted, &found) == tarv_stat_ok, expected != nullptr);
    if (!expected)
        return;
    ASSERT_EQ(essence(found), essence(expected->record));
}

void CacheReference::update(u32 address) {
    tarv_arp_data_t record = new_record(address);
    Known* expected = plain_.find(address, true);
    ASSERT_EQ(tarv_hash_update_ib_data(address, &record) == tarv_stat_ok, expected != nullptr);
    if (expected)
        expected->record = record;
}

void CacheReference::set_path(u32 address) {
    ib_path_record_v2_t path = support::path(some_gid(), some_gid(), static_cast<u16>(below(100)));
    Known* expected = plain_.find(address);
    ASSERT_EQ(tarv_hash_set_paths(address, &path, nullptr) == tarv_stat_ok, expected != nullptr);
    if (!expected)
        return;
    expected->record.paths[0] = path;
    expected->record.paths_count = std::max(expected->record.paths_count, 1);
    expected->record.mask |= TARV_MASK_PRIMARY_PATH;
}

void CacheReference::remove(u32 address) {
    tarv_hash_entry_t* removed = nullptr;
    const Known* expected = plain_.find(address, true);
    ASSERT_EQ(tarv_hash_remove_entry(address, &removed) == tarv_stat_ok, expected != nullptr);
    if (!expected)
        return;
    ASSERT_EQ(essence(removed->arp_data), essence(expected->record));
    plain_.remove(expected);
    kfree(removed);
}

void CacheReference::remove_from(gx_gid_t sgid) {
    tarv_hash_remove_entries_by_sgid(&sgid);
    plain_.remove_if([&](const Known& known) {
        return known.record.mask & TARV_MASK_PRIMARY_PATH && known.record.paths[0].sgid == sgid;
    });
}

/// Ageing falls due every 15,000 ticks; the tick of a run is one of those that are stopped at.
void CacheReference::pass_time(unsigned long ticks) {
    const unsigned long end = jiffies() + ticks;
    while (kernel.next_due() <= end) {
        kernel.advance(kernel.next_due() - jiffies());
        plain_.age();
    }
    kernel.advance(end - jiffies());
}

void CacheReference::remove_all() {
    tarv_hash_remove_all();
    plain_.remove_if([](const Known&) { return true; });
}

void CacheReference::step() {
    const unsigned choice = below(1000);
    if (choice < 250)
        add();
    else if (choice < 450)
        look_up(some_address());
    else if (choice < 550)
        look_up(some_gid());
    else if (choice < 700)
        update(some_address());
    else if (choice < 750)
        set_path(some_address());
    else if (choice < 970)
        remove(some_address());
    else if (choice < 975)
        remove_from(some_gid());
    else if (choice < 990)
        write_once(statics_inv_enabled, below(2));
    else if (choice < 999)
        pass_time(below(3000));
    else if (below(20) == 0)
        remove_all();
}

void CacheReference::compare_tables() {
    std::string text =
        "IP address       HW type     Flags       HW address            Mask     Device\n";
    std::size_t size = 0;
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        const tarv_hash_entry_t* entry = table().hash_buckets[bucket];
        for (const Known& known : plain_.chains()[bucket]) {
            ASSERT_NE(entry, nullptr);
            ASSERT_EQ(essence(entry->arp_data), essence(known.record));
            ASSERT_EQ(entry->timestamp, known.timestamp);
            const u32 ip = known.record.dst_ip;
            text +=
                host::kformat("%-16s 0x%-10x0x%-10x00:AA:00:00:%02X:%02X     *        ipoib\n",
                              host::kformat("%u.%u.%u.%u", TARV_IP_BYTES(ip)).c_str(), 1,
                              known.record.mask, known.record.lid >> 8, known.record.lid & 0xFF);
            entry = entry->next;
            size++;
        }
        ASSERT_EQ(entry, nullptr);
    }
    ASSERT_EQ(table().size, size);
    char* rendered = nullptr;
    u32 length = 0;
    tarv_hash_print_to_string(&rendered, &length);
    EXPECT_EQ(std::string(rendered, length), text);
    kfree(rendered);
}

TEST_P(CacheReference, AgreesAtEveryStep) {
    for (int i = 0; i < support::random_steps && !HasFatalFailure(); i++) {
        // What can be followed in the log is done another way, with the same result.
        trace(i % 200 == 0 ? TARV_FUNC : TARV_PANIC);
        step();
        host::clear_console();
        if (i % 500 == 0)
            compare_tables();
    }
    compare_tables();
}
INSTANTIATE_TEST_SUITE_P(Seeds, CacheReference, testing::Range(1u, 6u));

}  // namespace
