// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/records.h"

#include <algorithm>
#include <optional>

namespace rdma {
namespace {

using fabric::PathRecord;

constexpr std::uint8_t whole = fabric::rmpp_first | fabric::rmpp_last;

bool has_records(std::span<const std::uint8_t> answer) {
    const auto header = fabric::decode<fabric::MadHeader>(answer);
    return header && header->management_class == fabric::sa_class &&
           header->method == fabric::method_get_multi_resp && header->status == 0 &&
           (header->attribute == fabric::attribute_path_record ||
            header->attribute == fabric::attribute_multi_path_record);
}

/* A segment of a longer answer says itself how long it is. */
bool in_one_datagram(std::span<const std::uint8_t> answer) {
    const auto rmpp = fabric::decode<fabric::RmppHeader>(answer.subspan(fabric::rmpp_offset));
    return rmpp && ((rmpp->flags & fabric::rmpp_active) == 0 ||
                    (rmpp->type == fabric::rmpp_data && (rmpp->flags & whole) == whole));
}

}  // namespace

void cut_behind_records(fabric::Bytes& answer, std::span<const fabric::Gid> ours) {
    if (answer.size() < fabric::sa_data_offset || !has_records(answer) || !in_one_datagram(answer))
        return;
    const auto record_at = [&](std::size_t place) {
        return fabric::decode<PathRecord>(std::span(answer).subspan(place));
    };
    const auto first = record_at(fabric::sa_data_offset);
    std::size_t end = std::min(fabric::sa_data_offset + PathRecord::wire_size, answer.size());
    for (; answer.size() - end >= PathRecord::wire_size; end += PathRecord::wire_size)
        if (const auto record = record_at(end);
            record->dgid != first->dgid || std::ranges::count(ours, record->sgid) == 0)
            break;
    answer.resize(end);
}

}  // namespace rdma
