// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Kernel memory on top of malloc, with an account of every block. The account lies beside the
// blocks, not in them, so that a stray pointer is told from a block without being followed.
#include "platform/memory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "host/faults.h"
#include "host/internal.h"
#include "host/services.h"

namespace host {
namespace {

constexpr int fresh_fill = 0xA5;
constexpr int freed_fill = 0x6B;

struct Block {
    std::size_t size;
    gfp_t flags;
    const void* caller;
    unsigned long number;  // of the allocation, so that reports have the order of making
};

/* A part of the account. Which part an address is in depends on the address alone, so that CPUs
 * that work on different blocks seldom meet. */
class alignas(64) Shard {
  public:
    void add(const void* memory, const Block& block) {
        const std::lock_guard guard(mutex_);
        blocks_.emplace(memory, block);
    }
    /// The block's size; dies when there is none at that address.
    Block take(const void* memory);
    template <class Function>
    void for_each(Function function) {
        const std::lock_guard guard(mutex_);
        for (const auto& [memory, block] : blocks_)
            function(memory, block);
    }
    void clear() {
        const std::lock_guard guard(mutex_);
        blocks_.clear();
        freed_.fill(nullptr);
    }

  private:
    std::mutex mutex_;
    std::unordered_map<const void*, Block> blocks_;
    std::array<const void*, 64> freed_{};  // the last ones, to tell "twice" from "never"
    std::size_t next_freed_ = 0;
};

std::array<Shard, 64> shards;
std::atomic<std::size_t> live_blocks, live_bytes, peak_bytes, allocations;
std::atomic<std::size_t> most_in_one_piece;

Shard& shard_of(const void* memory) {
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    return shards[(address >> 4 ^ address >> 12) % shards.size()];
}

Block Shard::take(const void* memory) {
    const std::lock_guard guard(mutex_);
    const auto found = blocks_.find(memory);
    if (found == blocks_.end()) {
        if (std::ranges::count(freed_, memory))
            die("kfree: the memory at %p is freed twice", memory);
        die("kfree: the memory at %p is not from kmalloc", memory);
    }
    const Block block = found->second;
    blocks_.erase(found);
    freed_[next_freed_++ % freed_.size()] = memory;
    return block;
}

void count_allocation(std::size_t size) {
    live_blocks.fetch_add(1, std::memory_order_relaxed);
    const std::size_t bytes = live_bytes.fetch_add(size, std::memory_order_relaxed) + size;
    std::size_t peak = peak_bytes.load(std::memory_order_relaxed);
    while (bytes > peak &&
           !peak_bytes.compare_exchange_weak(peak, bytes, std::memory_order_relaxed)) {
    }
}

void* allocate(std::size_t size, gfp_t flags, const void* caller) {
    if (size > most_in_one_piece.load(std::memory_order_relaxed))
        return nullptr;
    void* memory = std::malloc(size);
    if (!memory)
        return nullptr;
    std::memset(memory, fresh_fill, size);
    const auto number = allocations.fetch_add(1, std::memory_order_relaxed);
    count_allocation(size);
    shard_of(memory).add(memory, {size, flags, caller, number});
    return memory;
}

void release(void* memory) {
    const Block block = shard_of(memory).take(memory);
    if (block.flags != GFP_ATOMIC && block.size > PAGE_SIZE)
        must_sleep("kfree of more than a page");
    if (const timer_list* timer = active_timer_within(memory, block.size))
        die("kfree: the memory at %p holds the timer at %p, which is armed or running", memory,
            static_cast<const void*>(timer));
    live_blocks.fetch_sub(1, std::memory_order_relaxed);
    live_bytes.fetch_sub(block.size, std::memory_order_relaxed);
    std::memset(memory, freed_fill, block.size);
    // Nobody may read the filling any more, so the compiler would leave it out.
    __asm__ volatile("" : : "r"(memory) : "memory");
    std::free(memory);
}

void begin_memory() {
    for (Shard& shard : shards)
        shard.clear();
    live_blocks = live_bytes = peak_bytes = allocations = 0;
    most_in_one_piece = largest_allocation;
}

// What was left has been reported to whoever asked; the next Kernel starts clean.
void end_memory() {
    for (Shard& shard : shards)
        shard.for_each(
            [](const void* memory, const Block&) { std::free(const_cast<void*>(memory)); });
    begin_memory();
}

void report_blocks(std::vector<std::string>& lines) {
    std::vector<Block> blocks;
    for (Shard& shard : shards)
        shard.for_each([&](const void*, const Block& block) { blocks.push_back(block); });
    std::ranges::sort(blocks, {}, &Block::number);
    for (const Block& block : blocks)
        lines.push_back("memory: " + std::to_string(block.size) + " bytes, allocated at " +
                        describe_address(block.caller));
}

}  // namespace

const Service memory_service = {begin_memory, end_memory, report_blocks};

MemoryUse memory_use() {
    return {live_blocks, live_bytes, peak_bytes, allocations};
}

void set_largest_allocation(std::size_t bytes) {
    enter("set_largest_allocation");
    most_in_one_piece = bytes;
}

}  // namespace host

void* kmalloc(size_t size, gfp_t flags) {
    static host::FaultPoint& fault = host::fault_point("kmalloc");
    host::enter("kmalloc");
    if (flags != GFP_ATOMIC)
        host::must_sleep("kmalloc(GFP_KERNEL)");
    else if (size > PAGE_SIZE)
        host::die("kmalloc(GFP_ATOMIC): %zu bytes are more than a page", size);
    return host::fails_now(fault) ? nullptr
                                  : host::allocate(size, flags, __builtin_return_address(0));
}

void kfree(const void* memory) {
    host::enter("kfree");
    if (memory)
        host::release(const_cast<void*>(memory));
}
