// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Pools and the life of a datagram, and the waist's calls of the whole service.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>
#include <utility>

#include "fabric/gsi_internal.h"
#include "fabric/waist.h"
#include "host/check.h"
#include "host/faults.h"

namespace fabric {
namespace {

constexpr std::uint8_t fresh = 0xA5;  // what a datagram holds that was just taken out
constexpr std::uint8_t rest = 0x5A;   // what it holds in the pool

void fill(gsi_dtgrm_t& record, std::uint8_t value) {
    std::memset(static_cast<void*>(&record), value, sizeof record);
}

bool untouched(const gsi_dtgrm_t& record) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return std::all_of(bytes, bytes + sizeof record, [](std::uint8_t b) { return b == rest; });
}

}  // namespace

std::size_t GsiSlot::sum() const {
    std::hash<std::string_view> hash;
    std::size_t result = hash({reinterpret_cast<const char*>(&record), sizeof record});
    if (block)
        result = result * 31 + hash({reinterpret_cast<const char*>(block->data()), block->size()});
    return result;
}

void die_of(const char* call, const GsiSlot& slot, const char* what) {
    host::die("%s: the datagram %p of pool \"%s\" %s", call, static_cast<const void*>(&slot.record),
              slot.pool->name.c_str(), what);
}

bool Gsi::hands_out_nothing_next() const {
    MutexLock lock(mutex_);
    return nothing_next_;
}

void Gsi::hand_out_nothing_next(bool nothing) {
    MutexLock lock(mutex_);
    nothing_next_ = nothing;
}

std::size_t Gsi::pools() const {
    MutexLock lock(mutex_);
    return pools_.size();
}

std::size_t Gsi::datagrams_out() const {
    MutexLock lock(mutex_);
    std::size_t out = received_->made - received_->free.size();
    for (const auto& [handle, pool] : pools_)
        out += pool->made - pool->free.size();
    return out;
}

std::size_t Gsi::datagrams_in_flight() const {
    MutexLock lock(mutex_);
    std::size_t posted = 0;
    for (const auto& [handle, made] : classes_)
        posted += static_cast<std::size_t>(made->in_flight);
    return posted;
}

std::vector<std::string> Gsi::registered() const {
    MutexLock lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& [handle, made] : classes_)
        if (made->open)
            lines.push_back(
                "class " + std::to_string(made->management_class) + " version " +
                std::to_string(made->version) + " on port " + std::to_string(made->port) +
                (made->is_server ? ", server" : ", client") + (made->uses_rmpp ? ", RMPP" : ""));
    for (const auto& [handle, pool] : pools_)
        lines.push_back("pool " + pool->name + " of " + std::to_string(pool->count));
    std::sort(lines.begin(), lines.end());
    return lines;
}

void Gsi::report(std::vector<std::string>& lines) const {
    if (std::size_t classes = open_classes())
        lines.push_back(std::to_string(classes) + " registered GSI class(es)");
    if (std::size_t made = pools())
        lines.push_back(std::to_string(made) + " GSI pool(s)");
    if (std::size_t out = datagrams_out())
        lines.push_back(std::to_string(out) + " GSI datagram(s) not in their pool");
}

GsiSlot& Gsi::slot_of(const char* call, const gsi_dtgrm_t* dtgrm) {
    auto found = slots_.find(dtgrm);
    if (found == slots_.end())
        host::die("%s: %p is no datagram", call, static_cast<const void*>(dtgrm));
    if (found->second->state == SlotState::free)
        die_of(call, *found->second, "was given back already");
    return *found->second;
}

void Gsi::known_pool(const char* call, gsi_dtgrm_pool_handle_t pool) {
    if (!pools_.contains(pool))
        host::die("%s: %p is no pool", call, static_cast<void*>(pool));
}

GsiSlot& Gsi::take(gsi_dtgrm_pool& pool) {
    GsiSlot* slot;
    if (pool.free.empty()) {
        auto made = std::make_unique<GsiSlot>();
        slot = made.get();
        slot->pool = &pool;
        slots_.emplace(&slot->record, std::move(made));
        pool.made++;
    } else {
        slot = slots_.at(pool.free.back()).get();
        pool.free.pop_back();
        if (!untouched(slot->record))
            die_of("gsi_dtgrm_pool_get", *slot, "was written to after it was given back");
    }
    fill(slot->record, fresh);
    slot->record.rmpp_payload = nullptr;
    slot->record.rmpp_payload_size = 0;
    slot->state = SlotState::held;
    return *slot;
}

void Gsi::give_back(GsiSlot& slot) {
    slot.state = SlotState::free;
    slot.block.reset();
    fill(slot.record, rest);
    slot.pool->free.push_back(&slot.record);
}

int Gsi::create_pool(u32 count, gsi_dtgrm_pool_handle_t* pool, const char* name) {
    host::must_sleep("gsi_dtgrm_pool_create_named");
    if (host::fails_now("gsi_dtgrm_pool_create_named"))
        return gx_return_again;
    auto made = std::make_unique<gsi_dtgrm_pool>();
    made->name = name;
    made->count = count;
    *pool = made.get();
    MutexLock lock(mutex_);
    pools_.emplace(*pool, std::move(made));
    return 0;
}

void Gsi::destroy_pool(gsi_dtgrm_pool_handle_t pool) {
    host::must_sleep("gsi_dtgrm_pool_destroy");
    MutexLock lock(mutex_);
    known_pool("gsi_dtgrm_pool_destroy", pool);
    if (std::size_t out = pool->made - pool->free.size())
        host::die("gsi_dtgrm_pool_destroy: %zu datagram(s) of pool \"%s\" were not given back", out,
                  pool->name.c_str());
    for (gsi_dtgrm_t* dtgrm : pool->free) {
        auto found = slots_.find(dtgrm);
        if (!untouched(found->second->record))
            die_of("gsi_dtgrm_pool_destroy", *found->second,
                   "was written to after it was given back");
        slots_.erase(found);
    }
    pools_.erase(pool);
}

int Gsi::get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm) {
    if (host::fails_now("gsi_dtgrm_pool_get"))
        return gx_return_again;
    MutexLock lock(mutex_);
    known_pool("gsi_dtgrm_pool_get", pool);
    if (pool->free.empty() && pool->made == pool->count)
        return gx_return_again;
    *dtgrm = std::exchange(nothing_next_, false) ? nullptr : &take(*pool).record;
    return 0;
}

void Gsi::put(gsi_dtgrm_t* dtgrm) {
    MutexLock lock(mutex_);
    GsiSlot& slot = slot_of("gsi_dtgrm_pool_put", dtgrm);
    if (slot.state == SlotState::posted)
        die_of("gsi_dtgrm_pool_put", slot, "is still in flight");
    give_back(slot);
}

void* Gsi::alloc_rmpp_buffer(gsi_dtgrm_t* dtgrm, u32 size) {
    host::must_hold_no_lock("gsi_dtgrm_alloc_rmpp_buf");
    if (host::fails_now("gsi_dtgrm_alloc_rmpp_buf"))
        return nullptr;
    MutexLock lock(mutex_);
    GsiSlot& slot = slot_of("gsi_dtgrm_alloc_rmpp_buf", dtgrm);
    if (slot.state != SlotState::held || slot.block)
        die_of("gsi_dtgrm_alloc_rmpp_buf", slot, "has an RMPP data block or can't have one now");
    slot.block.emplace(size);
    dtgrm->rmpp_payload = slot.block->data();
    dtgrm->rmpp_payload_size = size;
    return slot.block->data();
}

void* Gsi::get_rmpp_buffer(gsi_dtgrm_t* dtgrm, int* paysize) {
    MutexLock lock(mutex_);
    GsiSlot& slot = slot_of("gsi_dtgrm_get_rmpp_buf", dtgrm);
    if (slot.state != SlotState::received)
        die_of("gsi_dtgrm_get_rmpp_buf", slot, "was not received");
    *paysize = slot.paysize;
    return slot.block ? slot.block->data() : nullptr;
}

}  // namespace fabric

// The waist.

using fabric::Waist;

int gsi_register_class(u8 mgt_class, u8 class_ver, const char* hca_name, u8 port, int is_server,
                       int uses_rmpp, gsi_dtgrm_cb_t* send_done, gsi_dtgrm_cb_t* recv_done,
                       void* context, gsi_class_handle_t* handle) {
    return Waist::current().gsi().register_class(mgt_class, class_ver, hca_name, port,
                                                 is_server != 0, uses_rmpp != 0, send_done,
                                                 recv_done, context, handle);
}

int gsi_deregister_class(gsi_class_handle_t handle) {
    return Waist::current().gsi().deregister_class(handle);
}

int gsi_dtgrm_pool_create_named(u32 count, gsi_dtgrm_pool_handle_t* pool, const char* name) {
    return Waist::current().gsi().create_pool(count, pool, name);
}

void gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t pool) {
    Waist::current().gsi().destroy_pool(pool);
}

int gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm) {
    return Waist::current().gsi().get(pool, dtgrm);
}

void gsi_dtgrm_pool_put(gsi_dtgrm_t* dtgrm) {
    Waist::current().gsi().put(dtgrm);
}

void* gsi_dtgrm_alloc_rmpp_buf(gsi_dtgrm_t* dtgrm, u32 size) {
    return Waist::current().gsi().alloc_rmpp_buffer(dtgrm, size);
}

void* gsi_dtgrm_get_rmpp_buf(gsi_dtgrm_t* dtgrm, int* paysize) {
    return Waist::current().gsi().get_rmpp_buffer(dtgrm, paysize);
}

int gsi_post_send_dtgrm(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm) {
    return Waist::current().gsi().post(handle, dtgrm);
}
