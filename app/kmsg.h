// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The console's lines as one growing text, the way a host keeps them for whoever comes later.
//
// The text only ever grows at its end, so that an offset means the same bytes for ever: that is
// what lets somebody follow it. The oldest lines are forgotten when there are too many; who begins
// to read at offset 0 then begins at the oldest that is kept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>

#include "host/console.h"

namespace app {

/// "[    1.234] text": the ticks since the host began, as seconds, and the line. No line end.
std::string format_log_line(const host::LogLine& line);

/// All calls may come from any thread, append() also from a console's sink.
class Kmsg {
  public:
    /// Keeps `most` bytes at least, and twice as many at most.
    explicit Kmsg(std::size_t most = std::size_t{16} << 20) : most_(most) {}

    /// Adds "<6>[    1.234] text" and a line end; the number is the line's priority.
    void append(const host::LogLine& line);

    struct Extent {
        std::uint64_t begin;  ///< offset of the oldest byte that is kept
        std::uint64_t end;    ///< behind the newest
        std::timespec changed;
    };
    Extent extent() const;

    /// At most `size` bytes from that offset on; empty at the end, and below the beginning.
    std::string read(std::size_t size, std::uint64_t offset) const;

  private:
    const std::size_t most_;
    mutable std::mutex mutex_;  // guards all below
    std::string text_;
    std::uint64_t begin_ = 0;
    std::timespec changed_{};
};

}  // namespace app
