// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/tarv-index.h"

#include "platform/jiffies.h"

constinit tarv_index_draw_t tarv_index_drawn = {1, {1, 1, 1, 1}, 1};

void tarv_index_set(u64 seed) {
    // Each number has bits of its own from all of the seed's.
    const auto next = [&seed] {
        seed += 0x9E3779B97F4A7C15ull;
        u64 mixed = (seed ^ (seed >> 30)) * 0xBF58476D1CE4E5B9ull;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
        return mixed ^ (mixed >> 31);
    };
    tarv_index_drawn.block = next() | 1;
    for (u64& number : tarv_index_drawn.gid)
        number = next();
    tarv_index_drawn.rank = next() | 1;
}

// Where the stack lies and when it was is more than a sender of addresses can know.
void tarv_index_draw() {
    const u64 drawn = jiffies() * 0x9E3779B97F4A7C15ull;
    tarv_index_set(drawn ^ reinterpret_cast<u64>(&drawn) * 0xD6E8FEB86659FD93ull);
}
