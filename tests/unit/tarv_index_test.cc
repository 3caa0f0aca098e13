// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The indexes and the sorting of lists, apart from their users: what is found and in which order,
// and how hashes spread.
#include "tarv/tarv-index.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <list>
#include <random>
#include <set>
#include <vector>

#include "tarv/tarv-list.h"
#include "tests/support/machine_test.h"
#include "tests/support/records.h"

namespace {

struct Item {
    int number;
    u32 key;
    Item* next;
    group_links_t<Item> group;
    order_links_t<Item> order;
    list_head list;
};
constexpr u32 bits = 4;
using List = list_of<Item, offsetof(Item, list)>;

/// Keys that differ by a multiple of 16 are under one head.
struct Key {
    using type = u32;
    static u32 of(const Item* item) { return item->key; }
    static u32 hash(u32 key) { return key; }
};
struct Order {
    using key_t = u32;
    static u32 key(const Item* item) { return item->key; }
    static u32 hash(u32 key) { return key; }
    static u64 rank(const Item* item) { return tarv_index_rank(static_cast<u64>(item->number)); }
    static int compare(const Item* item, u32 key) {
        return item->key == key ? 0 : item->key < key ? -1 : 1;
    }
    static bool before(const Item* one, const Item* other) {
        return std::pair(one->key, -one->number) < std::pair(other->key, -other->number);
    }
};

/// As many as there are heads: nobody is linked to anybody else.
TEST(Indexes, GiveEveryRemainderAHeadOfItsOwn) {
    index_of<Item, &Item::next, bits> plain = {};
    groups_of<Item, &Item::group, Key, bits> groups = {};
    ordered_of<Item, &Item::order, Order, bits> ordered = {};
    std::vector<Item> items(1u << bits);
    for (Item& item : items) {
        item.key = static_cast<u32>(&item - items.data());
        plain.enter(&item, item.key);
        groups.enter(&item);
        ordered.enter(&item);
    }
    for (const Item& item : items) {
        EXPECT_TRUE(!item.next && !item.group.next) << item.key;
        EXPECT_TRUE(!item.order.before && !item.order.after) << item.key;
    }
}

/// Many of one key, the worst order of entering; so many steps to any of them.
TEST(Indexes, KeepTheirTreesLow) {
    tarv_index_set(1);
    ordered_of<Item, &Item::order, Order, bits> ordered = {};
    std::vector<Item> items(50'000);
    for (int i = 0; i < std::ssize(items); i++) {
        items[static_cast<std::size_t>(i)].number = i;
        ordered.enter(&items[static_cast<std::size_t>(i)]);
    }
    const std::function<int(const Item*)> height = [&](const Item* item) {
        return item ? 1 + std::max(height(item->order.before), height(item->order.after)) : 0;
    };
    const auto root =
        std::ranges::max_element(items, {}, [](const Item& i) { return Order::rank(&i); });
    EXPECT_LE(height(&*root), 60);
}

TEST(List, SortsAndKeepsTheOrderOfEquals) {
    for (const int count : {0, 1, 2, 3, 7, 64, 1000}) {
        list_head head;
        INIT_LIST_HEAD(&head);
        std::vector<Item> items(static_cast<std::size_t>(count));
        for (int i = 0; i < count; i++) {
            items[static_cast<std::size_t>(i)].number = i * 7919 % 1009;
            List(head).push_back(&items[static_cast<std::size_t>(i)]);
        }
        const auto tens = [](const Item* item) { return item->number / 10; };
        List(head).sort(
            [&](const Item* one, const Item* other) { return tens(one) < tens(other); });
        std::vector<const Item*> expected, sorted;
        for (const Item& item : items)
            expected.push_back(&item);
        std::ranges::stable_sort(expected, {}, tens);
        for (const Item* item : List(head))
            sorted.push_back(item);
        EXPECT_EQ(sorted, expected);
    }
}

/// The most of those hashes that share a head.
std::size_t most_under_one_head(u32 index_bits, const std::vector<u32>& hashes) {
    std::vector<std::size_t> heads(std::size_t{1} << index_bits);
    for (const u32 hash : hashes)
        heads[hash % heads.size()]++;
    return std::ranges::max(heads);
}

/// Hashes under numbers that were drawn once and are the same in every run.
class Spreading : public testing::TestWithParam<u64> {
  protected:
    Spreading() { tarv_index_set(GetParam()); }
};
INSTANTIATE_TEST_SUITE_P(Draws, Spreading, testing::Range<u64>(1, 21));

TEST_P(Spreading, GivesNeighboursHeadsOfTheirOwn) {
    std::vector<u32> subnet, strided;
    for (u32 n = 0; n < 1 << 14; n++) {
        subnet.push_back(tarv_address_hash(htonl(0x0A010000 + n)));
        strided.push_back(tarv_address_hash(htonl(0x0A010000 + (n << 16) + 77)));
    }
    EXPECT_EQ(most_under_one_head(14, subnet), 1u);
    EXPECT_LE(most_under_one_head(14, strided), 64u) << "whatever was chosen";
}

gx_gid_t gid_of(u64 high, u64 low) {
    gx_gid_t gid;
    __builtin_memcpy(gid.raw + 8, &high, sizeof high);
    __builtin_memcpy(gid.raw, &low, sizeof low);
    return gid;
}

/// Whoever chooses GIDs knows every number in the source. Whatever is folded before a drawn number
/// comes in can be undone: here for the multiplier of the golden ratio, for plain sums and for
/// differences of the two halves, and for GIDs that differ in the same few bits.
TEST_P(Spreading, CannotBeUndoneByWhoeverChoosesGids) {
    constexpr u64 golden = 0x9E3779B97F4A7C15ull;
    using Choice = std::pair<const char*, gx_gid_t (*)(u64 n)>;
    for (const auto& [name, gid] :
         {Choice{"golden", [](u64 n) { return gid_of(n, -((n ^ (n >> 32)) * golden)); }},
          Choice{"difference", [](u64 n) { return gid_of(n * golden, n * golden); }},
          Choice{"top_bits", [](u64 n) { return gid_of(0xFE80ull << 48, n << 48); }},
          Choice{"low_bits", [](u64 n) { return gid_of(0xFE80ull << 48, n); }},
          Choice{"prefix", [](u64 n) { return gid_of(n << 48, 1); }}}) {
        std::vector<u32> hashes;
        for (u64 n = 0; n < 1 << 14; n++)
            hashes.push_back(tarv_gid_hash(gid(n)));
        EXPECT_LE(most_under_one_head(14, hashes), 64u) << name;
    }
    // What grows in one quarter shrinks in another.
    for (std::size_t grows = 0; grows < 4; grows++)
        for (std::size_t shrinks = 0; shrinks < grows; shrinks++) {
            std::vector<u32> hashes;
            for (u32 n = 1; n <= 1 << 14; n++) {
                u32 quarters[4] = {};
                quarters[grows] = n;
                quarters[shrinks] = -n;
                hashes.push_back(tarv_gid_hash(std::bit_cast<gx_gid_t>(quarters)));
            }
            EXPECT_LE(most_under_one_head(14, hashes), 64u) << grows << shrinks;
        }
}

using Drawing = support::MachineTest;
TEST_F(Drawing, IsAnotherOneAtEveryLoad) {
    std::set<u64> blocks, gids;
    for (int load = 0; load < 10; load++) {
        kernel.advance(1);
        tarv_index_draw();
        blocks.insert(tarv_index_drawn.block);
        gids.insert(tarv_index_drawn.gid[0]);
    }
    EXPECT_EQ(blocks.size(), 10u);
    EXPECT_EQ(gids.size(), 10u);
}

}  // namespace
