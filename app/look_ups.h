// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How the module has served its clients on this host, counted where they call it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tarv/tarv.h"

namespace app {

/// Calls may come from any thread.
class LookUps {
  public:
    static constexpr std::size_t ports = 9;  ///< the module's 8, and 0 for none

    /// tarv_get_ib_data has returned; `record` holds what it found.
    void returned(tarv_stat_t status, const tarv_arp_data_t& record) {
        if (status == tarv_stat_ok)
            ++hits_[record.local_port_num < ports ? record.local_port_num : 0];
        else
            ++(status == tarv_stat_pending || status == tarv_stat_not_found ? misses : refused);
    }
    /// The reply callback was called.
    void replied(tarv_stat_t status) {
        ++(status == tarv_stat_ok ? answered : status == tarv_stat_timeout ? timed_out : failed);
    }

    std::uint64_t hits(std::size_t port) const { return hits_[port]; }

    std::atomic<std::uint64_t> misses = 0;   ///< the cache could not answer
    std::atomic<std::uint64_t> refused = 0;  ///< nothing was even asked
    // The replies.
    std::atomic<std::uint64_t> answered = 0, timed_out = 0, failed = 0;

  private:
    std::atomic<std::uint64_t> hits_[ports] = {};
};

}  // namespace app
