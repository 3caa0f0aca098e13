// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/rmpp.h"

#include <algorithm>
#include <utility>

namespace fabric {

std::optional<RmppHeader> rmpp_header(const Bytes& mad) {
    if (mad.size() < rmpp_offset)
        return std::nullopt;
    std::optional<RmppHeader> header = decode<RmppHeader>(std::span(mad).subspan(rmpp_offset));
    if (!header || (header->flags & rmpp_active) == 0)
        return std::nullopt;
    return header;
}

bool is_rmpp_control(const Bytes& mad) {
    const std::optional<RmppHeader> rmpp = rmpp_header(mad);
    return rmpp && rmpp->type != 0 && rmpp->type != rmpp_data;
}

std::size_t sa_block_size(const Bytes& mad) {
    const std::size_t came = mad.size() - std::min(mad.size(), sa_offset);
    const std::optional<RmppHeader> header = rmpp_header(mad);
    if (!header || header->type != rmpp_data || header->length == 0)
        return came;
    return std::min<std::size_t>(came, header->length);
}

Bytes acknowledge(const Bytes& mad, std::uint32_t segment, std::uint32_t new_window_last) {
    constexpr std::uint8_t response_bit = 0x80;
    Bytes answer(mad.begin(),
                 mad.begin() + static_cast<std::ptrdiff_t>(std::min(mad.size(), sa_data_offset)));
    answer.resize(sa_data_offset);
    MadHeader header = *decode<MadHeader>(answer);
    header.method ^= response_bit;
    encode(header, answer);
    encode(RmppHeader{1, rmpp_ack, rmpp_active, 0, segment, new_window_last},
           std::span(answer).subspan(rmpp_offset));
    return answer;
}

RmppSender::RmppSender(Bytes headers, Bytes data, std::size_t piece)
    : headers_(std::move(headers)),
      data_(std::move(data)),
      piece_(std::clamp<std::size_t>(piece, 1, sa_data_size)),
      segments_(static_cast<std::uint32_t>(
          std::max<std::size_t>(1, (data_.size() + piece_ - 1) / piece_))) {
    headers_.resize(sa_data_offset);
}

Bytes RmppSender::segment(std::uint32_t number) const {
    std::size_t begin = (number - 1) * piece_;
    std::size_t end = std::min(data_.size(), begin + piece_);
    RmppHeader header;
    header.version = 1;
    header.type = rmpp_data;
    header.flags = rmpp_active;
    header.segment = number;
    if (number == segments_) {
        header.flags |= rmpp_last;
        header.length = static_cast<std::uint32_t>(sa_header_size + end - begin);
    }
    if (number == 1) {
        header.flags |= rmpp_first;
        header.length = static_cast<std::uint32_t>(segments_ * sa_header_size + data_.size());
    }
    Bytes mad = headers_;
    encode(header, std::span(mad).subspan(rmpp_offset));
    mad.insert(mad.end(), data_.begin() + static_cast<std::ptrdiff_t>(begin),
               data_.begin() + static_cast<std::ptrdiff_t>(end));
    return mad;
}

bool RmppSender::acknowledge(std::uint32_t segment, std::uint32_t new_window_last) {
    if (segment < acked_ || segment > segments_ || new_window_last < segment)
        return false;
    std::uint32_t window_last = std::min(segments_, std::max(window_last_, new_window_last));
    bool progress = segment > acked_ || window_last > window_last_;
    acked_ = segment;
    window_last_ = window_last;
    return progress;
}

std::optional<Bytes> RmppReceiver::take(const Bytes& mad, const RmppHeader& header) {
    bool next = header.segment == received_ + 1 && !complete_;
    if (next) {
        if (header.segment == 1) {
            first_ = mad;
            std::size_t end = std::min(mad.size(), sa_data_offset);
            block_.assign(mad.begin() + sa_offset, mad.begin() + static_cast<std::ptrdiff_t>(end));
        }
        complete_ = (header.flags & rmpp_last) != 0;
        const std::size_t size = complete_ ? sa_block_size(mad) : mad.size() - sa_offset;
        if (size > sa_header_size)
            block_.insert(block_.end(), mad.begin() + sa_data_offset,
                          mad.begin() + static_cast<std::ptrdiff_t>(sa_offset + size));
        received_++;
    }
    bool window_full = received_ == window_last_;
    if (next && !complete_ && !window_full)
        return std::nullopt;
    if (window_full && !complete_)
        window_last_ = received_ + window;
    return acknowledge(mad, received_, window_last_);
}

}  // namespace fabric
