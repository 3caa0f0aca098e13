// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How long things took: exact quantiles of a set of durations, and pictures of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace app {

/// A duration in nanoseconds. In virtual time it is made of whole ticks.
using Duration = std::uint64_t;

struct Quantiles {
    std::size_t count = 0;
    Duration p50 = 0, p90 = 0, p99 = 0, most = 0;
};

/// Durations of one kind, in any order.
struct Latencies {
    const char* name;  ///< for people
    const char* key;   ///< for programs
    std::vector<Duration> durations;

    /// The q-quantile is the shortest of the durations that at least that share does not exceed.
    Quantiles quantiles() const;
};

/// "412 ns", "3.1 us", "12 ms", "1.5 s".
std::string format_duration(Duration duration);

/// A row each, with its quantiles, of those that have durations.
std::string format_latencies(const std::vector<Latencies>& all, std::size_t width);

/// How many took how long, a bar for each of the ten classes of every decade between the shortest
/// and the longest, at most `width` columns wide (0: 80).
std::string format_histogram(const Latencies& latencies, std::size_t width);

/// The same as curves in a picture: across the share that was done, with each further nine as wide
/// as the one before, and upwards the duration.
std::string plot_latencies(const std::vector<Latencies>& all);

}  // namespace app
