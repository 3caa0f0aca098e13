// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Scripts by chance: a world, and line after line of what happens in it.
//
// What a line does depends on the state that it is played in, what is chosen does not: any line can
// be left out without the rest changing. All chance comes from the seed, and each world draws its
// own weights: in one there are hardly any commands, in another one half of all is faults.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/simulation/random.h"

namespace simulation {

class Chooser {
  public:
    /// The `number`-th world of a seed.
    Chooser(std::uint64_t seed, std::uint64_t number);
    /// The same of hosts that are there, our own first. It has no first and last lines.
    Chooser(std::uint64_t seed, std::uint64_t number, std::vector<std::string> hosts);

    /// What the world begins with: its hosts and its time, a line each; then what makes the rest
    /// worth while.
    std::vector<std::string> first_lines();
    std::string next_line();
    /// Faults stop, everything comes up, what waits gets its time. Then every peer has to resolve
    /// with all its paths.
    std::vector<std::string> last_lines() const;

    /// The number of lines between the first and the last ones.
    std::uint64_t length() const { return length_; }

  private:
    friend class Line;
    static constexpr std::size_t most_rows = 64;

    Random random_;
    std::uint32_t hosts_;
    std::uint64_t first_jiffy_;
    std::uint64_t length_;
    std::vector<std::string> addresses_;  ///< the hosts', our own first, then others
    bool large_;
    bool stale_ = false;  ///< perhaps halted, or loaded so that it keeps no entry
    std::array<std::uint32_t, most_rows> weights_{};
};

}  // namespace simulation
