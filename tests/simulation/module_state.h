// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The loaded module from inside: the only place of the simulation that knows how it keeps what it
// knows. Everything else judges by what clients, drivers and administrators are told.
//
// In virtual time, between two entries: nobody else is in the module.
#pragma once

#include <optional>
#include <vector>

#include "tests/simulation/model.h"

struct timer_list;

namespace simulation {

/// Copies the module's state into `state`, whose memory is used again. What is broken in itself,
/// whatever the state should be, is the result: chains, counts and links that do not fit.
std::optional<Difference> read_state(State& state);

/// What a walk of the table finds, every look-up has to find, by address and by GID; requests are
/// counted as they stand. No entry becomes younger. Of the GIDs one in eight is looked up, which
/// `sample` chooses, or all_gids.
inline constexpr std::size_t all_gids = ~std::size_t{0};
std::optional<Difference> check_indexes(const State& found, std::size_t sample);

/// The count of queries that are posted and not completed, and the datagrams that are out.
std::optional<Difference> check_datagrams(fabric::Gsi& gsi);

/// The module's timers, and the ticks from one run of each to the next.
struct ModuleTimer {
    timer_list* timer;
    unsigned long period;
    const char* name;
    void (Model::*tell)();
};
extern const ModuleTimer module_timers[3];

}  // namespace simulation
