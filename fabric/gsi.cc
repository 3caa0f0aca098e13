// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Classes, requests and answers. The pools and the life of a datagram are in gsi_pool.cc.
#include "fabric/gsi.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "fabric/gsi_internal.h"
#include "fabric/witness.h"
#include "host/check.h"
#include "host/faults.h"
#include "platform/jiffies.h"

namespace fabric {
namespace {

constexpr std::size_t component_mask_at = 48;
constexpr std::uint8_t component_20 = 0x10;  // of the mask's sixth byte
constexpr std::uint8_t response_bit = 0x80;
constexpr std::uint8_t undelivered = 0xA5;  // what a receiver finds beyond the end of a short MAD

/* The common header's three integers that the module keeps in host order. */
struct HostHeader {
    std::uint64_t transaction;
    std::uint16_t attribute;
    std::uint32_t modifier;

    void load(const std::uint8_t* mad) {
        std::memcpy(&transaction, mad + 8, sizeof transaction);
        std::memcpy(&attribute, mad + 16, sizeof attribute);
        std::memcpy(&modifier, mad + 20, sizeof modifier);
    }
    void store(std::uint8_t* mad) const {
        std::memcpy(mad + 8, &transaction, sizeof transaction);
        std::memcpy(mad + 16, &attribute, sizeof attribute);
        std::memcpy(mad + 20, &modifier, sizeof modifier);
    }
};

bool is_path_query(const MadHeader& header) {
    return header.management_class == sa_class && header.attribute == attribute_multi_path_record;
}

}  // namespace

Bytes encode_request(const std::uint8_t* mad, const Bytes* block, bool rmpp,
                     std::uint64_t transaction, const GsiTranslations& translations) {
    Bytes out(mad, mad + mad_size);
    HostHeader host;
    host.load(mad);
    MadHeader header = *decode<MadHeader>(out);
    header.transaction = transaction;
    header.attribute = host.attribute;
    header.modifier = host.modifier;
    encode(header, out);
    if (block == nullptr)
        return out;
    std::copy_n(block->begin(), std::min(block->size(), mad_size - sa_offset),
                out.begin() + sa_offset);
    if (rmpp) {
        RmppHeader only;
        only.version = 1;
        only.type = rmpp_data;
        only.flags = rmpp_active | rmpp_first | rmpp_last;
        only.segment = 1;
        only.length = static_cast<std::uint32_t>(block->size());
        encode(only, std::span(out).subspan(rmpp_offset));
    }
    if (translations.set_component_bit_20 && is_path_query(header))
        out[component_mask_at + 5] |= component_20;
    return out;
}

void decode_answer(const Bytes& wire, const GsiTranslations& translations, std::uint8_t* mad) {
    std::memset(mad, undelivered, mad_size);
    std::copy_n(wire.begin(), std::min(wire.size(), mad_size), mad);
    MadHeader header = *decode<MadHeader>(wire);
    HostHeader host{header.transaction, header.attribute, header.modifier};
    if (translations.path_record_answers_as_multi_path && header.management_class == sa_class &&
        header.attribute == attribute_path_record)
        host.attribute = attribute_multi_path_record;
    host.store(mad);
}

Gsi::Gsi(Works& works, Wire& wire, const Adapter& adapter)
    : works_(works), wire_(wire), adapter_(adapter) {
    MutexLock lock(mutex_);
    received_ = std::make_unique<gsi_dtgrm_pool>();
    received_->name = "received";
    received_->count = ~0u;
}

Gsi::~Gsi() = default;

void Gsi::set_translations(const GsiTranslations& translations) {
    MutexLock lock(mutex_);
    translations_ = translations;
}

void Gsi::set_request_lifetime(unsigned long ticks) {
    MutexLock lock(mutex_);
    lifetime_ = ticks;
}

void Gsi::report_size_next(int size) {
    MutexLock lock(mutex_);
    size_next_ = size;
}

std::size_t Gsi::open_classes() const {
    MutexLock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        classes_.begin(), classes_.end(), [](const auto& known) { return known.second->open; }));
}

std::size_t Gsi::requests_waiting() const {
    MutexLock lock(mutex_);
    unsigned long now = jiffies();
    return static_cast<std::size_t>(
        std::count_if(requests_.begin(), requests_.end(), [&](const auto& request) {
            return !request.second.answered && now < request.second.deadline;
        }));
}

int Gsi::register_class(u8 mgt_class, u8 class_ver, const char* hca_name, u8 port, bool is_server,
                        bool uses_rmpp, gsi_dtgrm_cb_t* send_done, gsi_dtgrm_cb_t* recv_done,
                        void* context, gsi_class_handle_t* handle) {
    host::must_sleep("gsi_register_class");
    if (host::fails_now("gsi_register_class"))
        return gx_return_again;
    if (hca_name == nullptr || std::string_view(hca_name) != adapter_.name() ||
        !adapter_.has_port(port))
        return gx_return_invalid_param;
    auto made = std::make_unique<gsi_class>();
    made->management_class = mgt_class;
    made->version = class_ver;
    made->port = port;
    made->is_server = is_server;
    made->uses_rmpp = uses_rmpp;
    made->send_done = send_done;
    made->recv_done = recv_done;
    made->context = context;
    *handle = made.get();
    MutexLock lock(mutex_);
    classes_.emplace(*handle, std::move(made));
    return 0;
}

gsi_class& Gsi::known_class(const char* call, gsi_class_handle_t handle) {
    auto found = classes_.find(handle);
    if (found == classes_.end())
        host::die("%s: %p is no class handle", call, static_cast<void*>(handle));
    if (!handle->open)
        host::die("%s: the class of port %d is deregistered", call, handle->port);
    return *handle;
}

int Gsi::deregister_class(gsi_class_handle_t handle) {
    host::must_sleep("gsi_deregister_class");
    if (host::fails_now("gsi_deregister_class"))
        return gx_return_again;
    MutexLock lock(mutex_);
    gsi_class& known = known_class("gsi_deregister_class", handle);
    if (known.in_flight > 0 || known.completing > 0)
        return gx_return_again;
    known.open = false;
    std::erase_if(requests_, [&](const auto& request) { return request.second.owner == handle; });
    return 0;
}

/* All requests live equally long, so the oldest are the first to go. */
void Gsi::forget_old() {
    unsigned long now = jiffies();
    while (!by_age_.empty()) {
        auto found = requests_.find(by_age_.front());
        if (found != requests_.end() && now < found->second.deadline)
            return;
        if (found != requests_.end())
            requests_.erase(found);
        by_age_.pop_front();
    }
}

Packet Gsi::make_packet(const gsi_class& owner, const GsiSlot& slot, std::uint32_t transaction) {
    const gsi_dtgrm_t& record = slot.record;
    EndPort port = adapter_.port(owner.port);
    Packet packet;
    packet.slid = static_cast<std::uint16_t>(port.lid | record.path_bits);
    packet.dlid = record.rlid;
    packet.sl = record.sl;
    packet.pkey = adapter_.pkeys(owner.port).at(0);
    packet.dest_qp = record.rqp;
    packet.qkey = record.rqk != 0 ? record.rqk : gsi_qkey;
    packet.src_qp = gsi_qp;
    packet.payload = encode_request(record.mad, slot.block ? &*slot.block : nullptr,
                                    owner.uses_rmpp, transaction, translations_);
    return packet;
}

int Gsi::post(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm) {
    if (host::fails_now("gsi_post_send_dtgrm"))
        return gx_return_again;
    MutexLock lock(mutex_);
    gsi_class& owner = known_class("gsi_post_send_dtgrm", handle);
    GsiSlot& slot = slot_of("gsi_post_send_dtgrm", dtgrm);
    if (slot.state == SlotState::posted)
        die_of("gsi_post_send_dtgrm", slot, "was posted already");
    if (slot.block && slot.block->size() > mad_size - sa_offset)
        return gx_return_invalid_param;  // requests of one segment only
    if (slot.record.mad[1] != owner.management_class || slot.record.mad[2] != owner.version)
        return gx_return_invalid_param;
    forget_old();
    std::uint32_t transaction = next_transaction_++;
    Packet packet = make_packet(owner, slot, transaction);
    requests_[transaction] = {.owner = handle,
                              .deadline = jiffies() + lifetime_,
                              .turns_round = slot.record.rmpp_dir_switch_needed != 0};
    by_age_.push_back(transaction);
    slot.state = SlotState::posted;
    slot.checksum = slot.sum();
    owner.in_flight++;
    if (Witness* const sees = witness())
        sees->query(owner.port, slot.record);
    works_.schedule(
        host::Context::gsi, 0,
        [this, handle, place = &slot, packet = std::move(packet)]() mutable {
            transmit(handle, place, std::move(packet));
        },
        owner.port);
    return 0;
}

void Gsi::transmit(gsi_class_handle_t handle, GsiSlot* slot, Packet packet) {
    int port;
    gsi_dtgrm_cb_t* callback;
    {
        MutexLock lock(mutex_);
        if (slot->state != SlotState::posted || slot->checksum != slot->sum())
            die_of("gsi_post_send_dtgrm", *slot, "was written to while it was in flight");
        slot->state = SlotState::held;
        handle->in_flight--;
        handle->completing++;
        port = handle->port;
        callback = handle->send_done;
    }
    wire_.send(port, std::move(packet));
    complete(handle, callback, &slot->record);
}

/* Calls a completion that was counted in `completing` before. */
void Gsi::complete(gsi_class_handle_t handle, gsi_dtgrm_cb_t* callback, gsi_dtgrm_t* dtgrm) {
    callback(handle, handle->context, dtgrm);
    MutexLock lock(mutex_);
    handle->completing--;
}

/* True when a whole answer has come. */
bool Gsi::take_in(const Bytes& mad, Request& request, std::optional<Bytes>& reply) {
    constexpr std::uint8_t whole = rmpp_first | rmpp_last;
    const std::optional<RmppHeader> rmpp = rmpp_header(mad);
    if (!rmpp)
        return true;
    if (rmpp->type == rmpp_ack) {
        if (request.turns_round)
            reply = acknowledge(mad, 0, 1);
        return false;
    }
    if (rmpp->type != rmpp_data || (rmpp->flags & whole) != whole)
        return reassemble(mad, *rmpp, request, reply);
    reply = acknowledge(mad, 1, 1);
    return true;
}

/* Takes in a segment of a longer answer. True when that completed it. */
bool Gsi::reassemble(const Bytes& mad, const RmppHeader& header, Request& request,
                     std::optional<Bytes>& reply) {
    if (header.type != rmpp_data) {
        request.receiver.reset();
        return false;
    }
    if (!request.receiver)
        request.receiver = std::make_unique<RmppReceiver>();
    bool before = request.receiver->complete();
    reply = request.receiver->take(mad, header);
    return request.receiver->complete() && !before;
}

void Gsi::reply_to(int port, const Packet& packet, Bytes mad) {
    Packet reply = packet;
    reply.slid = adapter_.port(port).lid;
    reply.dlid = packet.slid;
    reply.payload = std::move(mad);
    wire_.send(port, std::move(reply));
}

GsiSlot& Gsi::make_received(const Packet& packet, Request& request) {
    const bool in_segments = request.receiver && request.receiver->complete();
    GsiSlot& slot = take(*received_);
    slot.state = SlotState::received;
    std::size_t size = sa_block_size(packet.payload);
    if (in_segments) {
        slot.block = request.receiver->take_block();
        size = slot.block->size();
    }
    slot.paysize = static_cast<int>(size);
    if (const auto reported = std::exchange(size_next_, std::nullopt))
        slot.paysize = slot.block ? std::min(slot.paysize, *reported) : *reported;
    gsi_dtgrm_t& record = slot.record;
    decode_answer(in_segments ? request.receiver->first() : packet.payload, translations_,
                  record.mad);
    record.rmpp_payload = slot.block ? slot.block->data() : nullptr;
    record.rmpp_payload_size = slot.block ? static_cast<u32>(size) : 0;
    record.rqp = packet.src_qp;
    record.rqk = packet.qkey;
    record.rlid = packet.slid;
    record.sl = packet.sl;
    record.pkey_idx = 0;
    record.guid = 0;
    return slot;
}

void Gsi::receive(int port, const Packet& packet) {
    std::optional<MadHeader> header = decode<MadHeader>(packet.payload);
    if (!header || (header->method & response_bit) == 0)
        return;
    std::optional<Bytes> reply;
    gsi_class_handle_t owner = nullptr;
    gsi_dtgrm_t* dtgrm = nullptr;
    {
        MutexLock lock(mutex_);
        forget_old();
        auto found = requests_.find(static_cast<std::uint32_t>(header->transaction));
        if (found == requests_.end() || found->second.owner->port != port)
            return;
        Request& request = found->second;
        const std::optional<RmppHeader> rmpp = rmpp_header(packet.payload);
        if (rmpp && rmpp->type == rmpp_ack && !request.turns_round) {
            requests_.erase(found);
            return;
        }
        if (take_in(packet.payload, request, reply)) {
            request.answered = true;
            owner = request.owner;
            owner->completing++;
            dtgrm = &make_received(packet, request).record;
        }
    }
    if (reply)
        reply_to(port, packet, std::move(*reply));
    if (dtgrm == nullptr)
        return;
    Witness* const sees = witness();
    if (sees != nullptr)
        sees->before_answer(port, dtgrm);
    complete(owner, owner->recv_done, dtgrm);
    if (sees != nullptr)
        sees->after_answer();
}

}  // namespace fabric
