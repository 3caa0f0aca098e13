// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The reliable multi-packet protocol of SA answers: a block of data as numbered segments that are
// acknowledged window by window. These two classes are its arithmetic; who sends what when is the
// business of the SA and of the GSI service.
//
// Each segment is a MAD with all headers and a piece of the data; a MAD is as long as what it
// holds, and the PayloadLength of the last one ends the data. The first segment goes alone; its
// acknowledgement opens the window. A transfer of one segment (FIRST and LAST at once) is
// acknowledged too, but not sent again: its requester repeats the whole question before that.
//
// A question whose answer comes by RMPP too makes one exchange of both: when the question is
// acknowledged its sender says that the direction switches, by acknowledging segment 0. The answer
// need not wait for that.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "fabric/wire.h"

namespace fabric {

/// The RMPP header of a MAD; empty when the MAD has none.
std::optional<RmppHeader> rmpp_header(const Bytes& mad);

/// Whether a MAD only acknowledges, stops or aborts a transfer, and holds neither question nor
/// answer.
bool is_rmpp_control(const Bytes& mad);

/// How many bytes of SA header and data a MAD holds: all that came, or what the PayloadLength of
/// its RMPP header says of a first and only segment.
std::size_t sa_block_size(const Bytes& mad);

/// An acknowledgement of all segments up to `segment`, made of the headers of one that came.
Bytes acknowledge(const Bytes& mad, std::uint32_t segment, std::uint32_t new_window_last);

class RmppSender {
  public:
    /// `headers` are a MAD's first 56 bytes with an empty RMPP header; each segment carries
    /// `piece` bytes of the data, the last one the rest.
    RmppSender(Bytes headers, Bytes data, std::size_t piece = sa_data_size);

    std::uint32_t segments() const { return segments_; }
    Bytes segment(std::uint32_t number) const;  ///< from 1

    std::uint32_t acked() const { return acked_; }
    std::uint32_t window_last() const { return window_last_; }
    bool done() const { return acked_ == segments_; }

    /// Takes in an acknowledgement of all segments up to `segment`. True when more may be sent than
    /// before; one that repeats what is known asks for nothing, the timer resends what was lost.
    bool acknowledge(std::uint32_t segment, std::uint32_t new_window_last);

  private:
    Bytes headers_;
    Bytes data_;
    std::size_t piece_;
    std::uint32_t segments_;
    std::uint32_t acked_ = 0;
    std::uint32_t window_last_ = 1;
};

class RmppReceiver {
  public:
    static constexpr std::uint32_t window = 8;

    /// Takes in a DATA segment. The acknowledgement to send, or empty.
    std::optional<Bytes> take(const Bytes& mad, const RmppHeader& header);

    bool complete() const { return complete_; }
    /// Once complete: the SA header of the first segment and the data of all. Leaves none behind.
    Bytes take_block() { return std::move(block_); }
    /// The first segment.
    const Bytes& first() const { return first_; }

  private:
    Bytes first_;
    Bytes block_;
    std::uint32_t received_ = 0;
    std::uint32_t window_last_ = 1;
    bool complete_ = false;
};

}  // namespace fabric
