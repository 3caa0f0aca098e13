// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/tarv-index.h"

#include "platform/jiffies.h"

constinit u64 tarv_index_multiplier = 1;

// Where the stack lies and when it was is more than a sender of addresses can know.
void tarv_index_draw() {
    u64 drawn = jiffies() * 0x9E3779B97F4A7C15ull;
    drawn ^= reinterpret_cast<u64>(&drawn) * 0xD6E8FEB86659FD93ull;
    drawn ^= drawn >> 32;
    tarv_index_multiplier = drawn | 1;
}
