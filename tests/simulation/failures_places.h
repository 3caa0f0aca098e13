// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What has to follow when a service fails: for each service and place the module's own log lines,
// what is answered, and where nothing is logged, why.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/simulation/failures_world.h"
#include "tests/simulation/silent_end.h"

namespace soak {

/// Why a failure is not in the log.
enum class Silence : std::uint8_t {
    none,  ///< it is
    version_may_be_missing,
    nothing_is_run,
    level_is_not_followed,
    purge_is_left_out,
    path_keeps_its_template,
    shown_in_parts,
    called_again,
};
const char* reason_of(Silence silence);

/// What follows the log lines of the service itself.
enum class Then : std::uint8_t {
    nothing,
    request_fails,  ///< whoever had the request made is told
    query_fails,    ///< the query to the SA cannot be sent, so its request fails
};

/// The counters of failures that the SA client keeps.
enum class Counter : std::uint8_t { none, gsi_reg, gsi_pool_create, pool_get };

/// What a failure brings about beside its log lines.
struct Rule {
    Then then = Then::nothing;
    Silence silence = Silence::none;
    int load_result = 0;         ///< what a load may return because of it, beside 0
    bool until_link_up = false;  ///< the port's paths cannot be asked for until it comes up anew
    SilentEnd ends = SilentEnd::none;  ///< what becomes of one request
    Counter counted = Counter::none;   ///< what goes up by one
};

struct Place {
    const char* service;
    Where where;
    /// That follow at once, with "\n" between them; "*" stands for any text, "|" for "or".
    const char* lines;
    Rule rule = {};
};

/// The place whose lines follow the mark in the timeline.
const Place* find_place(const std::string& service, const Mark& mark,
                        const std::vector<std::string>& timeline);

/// All of them, as "service in context: line", and which of these that one is.
std::vector<std::string> all_places();
std::size_t number_of(const Place& place);

/// What was to be found there, for a message.
std::vector<std::string> expected_at(const std::string& service, Where where);

}  // namespace soak
