// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The index and the sorting of lists, apart from their users: what is found and in which order, and
// how hashes spread.
#include "tarv/tarv-index.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "tarv/tarv-list.h"
#include "tests/support/kernel_test.h"
#include "tests/support/records.h"

namespace {

struct Item {
    int number;
    index_links_t links;
    list_head list;
};
constexpr u32 bits = 4;
using Index = index_of<Item, offsetof(Item, links), bits>;
using List = list_of<Item, offsetof(Item, list)>;

std::vector<int> found(const Index& index, u32 hash) {
    std::vector<int> numbers;
    for (const Item* item : index.with(hash))
        numbers.push_back(item->number);
    return numbers;
}

TEST(Index, TellsHashesUnderOneHeadApart) {
    Index index = {};
    std::vector<Item> items(6);
    for (int i = 0; i < 6; i++)
        index.enter(&(items[static_cast<std::size_t>(i)] = {i, {}, {}}),
                    i % 2 ? 5 : 5 + (1 << bits));
    EXPECT_EQ(found(index, 5), (std::vector{5, 3, 1})) << "the last one entered first";
    EXPECT_EQ(found(index, 5 + (1 << bits)), (std::vector{4, 2, 0}));
    EXPECT_EQ(found(index, 5 + (2 << bits)), std::vector<int>());
    for (Item* item : index.with(5))
        if (item->number != 3)
            Index::remove(item);
    EXPECT_EQ(found(index, 5), std::vector{3});
    Index::remove(&items[5]);  // once more
    index.enter(&items[5], 5);
    EXPECT_EQ(found(index, 5), (std::vector{5, 3}));
    EXPECT_EQ(found(index, 5 + (1 << bits)), (std::vector{4, 2, 0}));
    index.clear();
    EXPECT_EQ(found(index, 5), std::vector<int>());
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

/// The most of those addresses that share a head.
std::size_t most_under_one_head(u32 index_bits, const std::vector<u32>& addresses) {
    std::vector<std::size_t> heads(std::size_t{1} << index_bits);
    for (const u32 address : addresses)
        heads[tarv_address_hash(htonl(address)) % heads.size()]++;
    return std::ranges::max(heads);
}

using Spreading = support::KernelTest;
TEST_F(Spreading, GivesNeighboursHeadsOfTheirOwn) {
    for (int draw = 0; draw < 20; draw++) {
        kernel.advance(1);
        tarv_index_draw();
        std::vector<u32> subnet, strided;
        for (u32 n = 0; n < 1 << 14; n++) {
            subnet.push_back(0x0A010000 + n);
            strided.push_back(0x0A010000 + (n << 16) + 77);
        }
        EXPECT_EQ(most_under_one_head(14, subnet), 1u);
        EXPECT_LE(most_under_one_head(14, strided), 64u) << "whatever was chosen";
    }
}

}  // namespace
