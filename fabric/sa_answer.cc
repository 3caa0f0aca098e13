// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How the SA's answers travel, in one MAD or in segments, and how a script makes them wrong.
#include <algorithm>
#include <utility>

#include "fabric/sa.h"

namespace fabric {
namespace {

constexpr unsigned long resend_ticks = 50;  // without progress, the window is sent again
constexpr int resend_tries = 3;
constexpr std::uint8_t too_many_retries = 126;

std::uint64_t transfer_key(std::uint16_t lid, std::uint64_t transaction) {
    return std::uint64_t{lid} << 32 | (transaction & 0xFFFFFFFF);
}

}  // namespace

/* Back to where the question came from, without a payload yet. */
Packet Sa::envelope_to(const Packet& question) {
    Packet envelope;
    envelope.slid = question.dlid;
    envelope.dlid = question.slid;
    envelope.sl = question.sl;
    envelope.pkey = question.pkey;
    envelope.dest_qp = question.src_qp;
    envelope.qkey = gsi_qkey;
    envelope.src_qp = gsi_qp;
    return envelope;
}

void Sa::edit(std::function<void(Answer&)> apply, unsigned count) {
    MutexLock lock(mutex_);
    edits_.push_back({std::move(apply), count});
}

void Sa::answer_with_status(std::uint16_t status, unsigned count) {
    edit([status](Answer& answer) { answer.header.status = status; }, count);
}

void Sa::answer_with_attribute(std::uint16_t attribute, unsigned count) {
    edit([attribute](Answer& answer) { answer.header.attribute = attribute; }, count);
}

void Sa::answer_with_base_version(std::uint8_t version, unsigned count) {
    edit([version](Answer& answer) { answer.header.base_version = version; }, count);
}

void Sa::answer_with_class(std::uint8_t management_class, unsigned count) {
    edit([management_class](Answer& answer) { answer.header.management_class = management_class; },
         count);
}

void Sa::answer_with_class_version(std::uint8_t version, unsigned count) {
    edit([version](Answer& answer) { answer.header.class_version = version; }, count);
}

void Sa::answer_with_records(unsigned records, unsigned count) {
    auto apply = [size = records * PathRecord::wire_size](Answer& answer) {
        Bytes given = answer.records;
        answer.records.resize(size);
        for (std::size_t at = given.size(); !given.empty() && at < size; at++)
            answer.records[at] = given[at % given.size()];
    };
    edit(apply, count);
}

void Sa::answer_with(std::vector<PathRecord> records, unsigned count) {
    auto apply = [records = std::move(records)](Answer& answer) {
        answer.records.resize(records.size() * PathRecord::wire_size);
        for (std::size_t i = 0; i < records.size(); i++)
            encode(records[i], std::span(answer.records).subspan(i * PathRecord::wire_size));
    };
    edit(apply, count);
}

void Sa::answer_truncated_to(std::size_t bytes, unsigned count) {
    edit([bytes](Answer& answer) { answer.cut = bytes; }, count);
}

void Sa::answer_over_rmpp(std::size_t piece, unsigned count) {
    auto apply = [piece](Answer& answer) {
        std::size_t half = std::max<std::size_t>(1, answer.records.size() / 2);
        answer.piece = std::min(piece, half);
    };
    edit(apply, count);
}

void Sa::clear() {
    {
        MutexLock lock(mutex_);
        edits_.clear();
    }
    faults_.clear();
}

void Sa::apply_edits(Answer& answer) {
    MutexLock lock(mutex_);
    for (Edit& edit : edits_) {
        edit.apply(answer);
        if (edit.left != always)
            edit.left--;
    }
    std::erase_if(edits_, [](const Edit& edit) { return edit.left == 0; });
}

/* A refusal is the query itself, sent back with the status. */
void Sa::refuse(const Packet& question, const Answer& answer) {
    Bytes mad = question.payload;
    mad.resize(mad_size);
    encode(answer.header, mad);
    SaHeader sa = *decode<SaHeader>(std::span(mad).subspan(sa_offset));
    sa.sm_key = 0;
    if (answer.header.method == method_get_table_resp)
        sa.attribute_offset = 0;
    encode(sa, std::span(mad).subspan(sa_offset));
    if (answer.cut)
        mad.resize(std::min(mad.size(), sa_offset + *answer.cut));
    faults_.pass([=, this, envelope = envelope_to(question)](unsigned long late) {
        transmit(envelope, mad, late);
    });
}

void Sa::send(const Packet& question, const Answer& answer) {
    if (answer.header.status != 0)
        return refuse(question, answer);
    const Packet envelope = envelope_to(question);
    SaHeader sa = answer.sa;
    sa.attribute_offset = answer.records.empty() ? 0 : PathRecord::wire_size / 8;
    Bytes headers(sa_data_offset);
    encode(answer.header, headers);
    encode(sa, std::span(headers).subspan(sa_offset));
    Bytes data = answer.records;
    std::size_t cut = answer.cut.value_or(sa_header_size + data.size());
    data.resize(std::min(data.size(), cut - std::min(cut, sa_header_size)));
    RmppSender sender(std::move(headers), std::move(data), answer.piece);
    Key key = transfer_key(envelope.dlid, answer.header.transaction);

    faults_.pass([=, this](unsigned long late) {
        if (sender.segments() == 1) {
            Bytes mad = sender.segment(1);
            mad.resize(std::min(mad.size(), sa_offset + cut));
            return transmit(envelope, std::move(mad), late);
        }
        works_.schedule(host::Context::gsi, late, [=, this] {
            {
                MutexLock lock(mutex_);
                transfers_.insert_or_assign(key, Transfer{sender, envelope});
            }
            send_window(key);
            watch_transfer(key, 0);
        });
    });
}

void Sa::transmit(const Packet& envelope, Bytes mad, unsigned long late) const {
    Packet packet = envelope;
    packet.payload = std::move(mad);
    network_.send_to_us(subnet_.manager().at, std::move(packet), late);
}

/* Sends all that the window allows and that is not acknowledged. */
void Sa::send_window(Key key) {
    std::vector<Bytes> mads;
    Packet envelope;
    {
        MutexLock lock(mutex_);
        auto found = transfers_.find(key);
        if (found == transfers_.end())
            return;
        const RmppSender& sender = found->second.sender;
        envelope = found->second.envelope;
        for (std::uint32_t i = sender.acked() + 1; i <= sender.window_last(); i++)
            mads.push_back(sender.segment(i));
    }
    for (Bytes& mad : mads)
        transmit(envelope, std::move(mad), 0);
}

void Sa::acknowledged(const Packet& packet, const MadHeader& header, const RmppHeader& rmpp) {
    Key key = transfer_key(packet.slid, header.transaction);
    {
        MutexLock lock(mutex_);
        auto found = transfers_.find(key);
        if (found == transfers_.end())
            return;
        Transfer& transfer = found->second;
        if (rmpp.type != rmpp_ack) {
            transfers_.erase(found);
            return;
        }
        if (!transfer.sender.acknowledge(rmpp.segment, rmpp.length))
            return;
        transfer.tries = 0;
        if (transfer.sender.done()) {
            transfers_.erase(found);
            return;
        }
    }
    send_window(key);
}

/* Looks after a while whether the transfer got on; sends again what was lost, and gives up when
 * that does not help. */
void Sa::watch_transfer(Key key, std::uint32_t acked_before) {
    works_.schedule(host::Context::gsi, resend_ticks, [this, key, acked_before] {
        std::optional<Packet> abandoned;
        std::uint32_t acked = 0;
        {
            MutexLock lock(mutex_);
            auto found = transfers_.find(key);
            if (found == transfers_.end())
                return;
            Transfer& transfer = found->second;
            acked = transfer.sender.acked();
            if (acked == acked_before && ++transfer.tries > resend_tries) {
                abandoned = transfer.envelope;
                abandoned->payload = transfer.sender.segment(1);
                transfers_.erase(found);
            }
        }
        if (abandoned) {
            RmppHeader abort{1, rmpp_abort, rmpp_active, too_many_retries, 0, 0};
            encode(abort, std::span(abandoned->payload).subspan(rmpp_offset));
            return transmit(*abandoned, std::move(abandoned->payload), 0);
        }
        if (acked == acked_before)
            send_window(key);
        watch_transfer(key, acked);
    });
}

}  // namespace fabric
