// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A fuzzer's bytes, taken from the left as a target needs them. Where they end, zeroes and empty
// texts follow, so that every input is a complete one.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

namespace fuzz {

/// Ends the program with that message unless `holds`; to the fuzzer that is a finding.
inline void require(bool holds, const std::string& message) {
    if (holds)
        return;
    std::fprintf(stderr, "fuzz: %s\n", message.c_str());
    std::abort();
}

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : left_(data, size) {}

    bool at_end() const { return left_.empty(); }

    /// The bytes of a plain value, the least significant first.
    template <class T>
    T take() {
        std::array<std::uint8_t, sizeof(T)> from{};
        std::ranges::copy(bytes(from.size()), from.begin());
        return std::bit_cast<T>(from);
    }

    std::vector<std::uint8_t> bytes(std::size_t most) {
        const auto taken = left_.first(std::min(most, left_.size()));
        left_ = left_.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }

    /// All up to that byte, which goes with it, or to the end.
    std::string text_until(std::uint8_t separator) {
        const auto end = std::find(left_.begin(), left_.end(), separator);
        const std::string text(left_.begin(), end);
        left_ = left_.subspan(std::min(text.size() + 1, left_.size()));
        return text;
    }

    std::string rest() {
        const std::string text(left_.begin(), left_.end());
        left_ = {};
        return text;
    }

  private:
    std::span<const std::uint8_t> left_;
};

}  // namespace fuzz
