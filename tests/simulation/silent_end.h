// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The reasons that there are for a request to end without a word.
#pragma once

#include <cstdint>

namespace soak {

/// How a request that its client was told to wait for can end without a word.
enum class SilentEnd : std::uint8_t {
    none,
    no_memory_for_the_reissue,
    waiting_for_arp_at_unload,
};

}  // namespace soak
