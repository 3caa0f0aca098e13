// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Chance that is the same on every machine: no distribution of the standard library, whose results
// differ from one to the other.
#pragma once

#include <cstddef>
#include <cstdint>

namespace simulation {

/// The generator known as splitmix64.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    /// The n-th of a family of generators that have nothing to do with each other.
    Random(std::uint64_t seed, std::uint64_t n) : state_(seed) { state_ = next() ^ n * gamma * 3; }

    std::uint64_t next() {
        std::uint64_t z = state_ += gamma;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }
    /// 0 to `count` - 1; the bias is below 2^-32 for the small counts that are asked for here.
    std::uint32_t below(std::uint32_t count) {
        return static_cast<std::uint32_t>((next() >> 32) * count >> 32);
    }
    bool one_in(std::uint32_t count) { return below(count) == 0; }
    template <class Value, std::size_t Size>
    const Value& of(const Value (&values)[Size]) {
        return values[below(Size)];
    }

  private:
    static constexpr std::uint64_t gamma = 0x9E3779B97F4A7C15u;
    std::uint64_t state_;
};

}  // namespace simulation
