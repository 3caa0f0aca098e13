// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "fabric/adapter.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "fabric/waist.h"
#include "host/check.h"
#include "host/faults.h"

namespace fabric {
namespace {

constexpr std::size_t closed_kept = 1024;

/* A port whose GID is all zero has none. */
bool has_gid(const Gid& gid) {
    return gid != Gid{};
}

/* The table of operations of every handle. An adapter's own context is the handle itself. */
constexpr gx_hca_ops_t operations = {
    .modify_hca = nullptr,
    .query_hca =
        [](void* context, gx_hca_attrib_t* attributes) {
            return Waist::current().adapter().query_hca(static_cast<gx_hca_h_t>(context),
                                                        attributes);
        },
    .query_port =
        [](void* context, u8 port, gx_port_attrib_t* attributes) {
            return Waist::current().adapter().query_port(static_cast<gx_hca_h_t>(context), port,
                                                         attributes);
        },
    .get_port_gid_tbl =
        [](void* context, u8 port, u32* size, gx_gid_t* table) {
            return Waist::current().adapter().gid_table(static_cast<gx_hca_h_t>(context), port,
                                                        size, table);
        },
    .get_port_partition_tbl =
        [](void* context, u8 port, u32* size, gx_p_key_t* table) {
            return Waist::current().adapter().pkey_table(static_cast<gx_hca_h_t>(context), port,
                                                         size, table);
        },
};

}  // namespace

EndPort Adapter::port(int number) const {
    if (!has_port(number))
        throw std::invalid_argument("the adapter has no port " + std::to_string(number));
    return ports_.port(number);
}

std::vector<std::uint16_t> Adapter::pkeys(int number) const {
    return ports_.pkeys(port(number).at.port);
}

void Adapter::raise(std::uint32_t type, int port) {
    events_.raise({static_cast<gx_async_record_t>(type), static_cast<u8>(port)});
}

std::size_t Adapter::open_handles() const {
    MutexLock lock(mutex_);
    return open_.size();
}

void Adapter::report(std::vector<std::string>& lines) const {
    if (std::size_t handles = open_handles())
        lines.push_back(std::to_string(handles) + " open adapter(s)");
    if (std::size_t callbacks = events_.count())
        lines.push_back(std::to_string(callbacks) + " registered event callback(s)");
}

gx_return_t Adapter::enter(const char* call, gx_hca_h_t handle) const {
    host::must_hold_no_lock(call);
    {
        MutexLock lock(mutex_);
        if (!open_.contains(handle))
            host::die("%s: the adapter handle %p is not open", call, static_cast<void*>(handle));
    }
    return host::fails_now(call) ? gx_return_error : gx_return_ok;
}

gx_return_t Adapter::open(const char* name, gx_hca_h_t* handle) {
    host::must_hold_no_lock("gx_hca_open");
    if (host::fails_now("gx_hca_open"))
        return gx_return_again;
    if (name == nullptr || this->name() != std::string_view(name))
        return gx_return_invalid_param;
    auto made = std::make_unique<gx_hca_t>();
    made->operations = &operations;
    made->context = made.get();
    *handle = made.get();
    MutexLock lock(mutex_);
    open_.emplace(*handle, std::move(made));
    return gx_return_ok;
}

gx_return_t Adapter::close(gx_hca_h_t handle) {
    host::must_hold_no_lock("gx_hca_close");
    if (events_.any_on(handle))
        host::die("gx_hca_close: an event callback is still registered on the handle");
    MutexLock lock(mutex_);
    auto found = open_.find(handle);
    if (found == open_.end())
        host::die("gx_hca_close: the adapter handle %p is not open", static_cast<void*>(handle));
    closed_.push_back(std::move(found->second));
    open_.erase(found);
    if (closed_.size() > closed_kept)
        closed_.pop_front();
    return gx_return_ok;
}

gx_return_t Adapter::query_hca(gx_hca_h_t handle, gx_hca_attrib_t* attributes) {
    host::must_sleep("gx_hca_query");
    if (gx_return_t status = enter("gx_hca_query", handle))
        return status;
    *attributes = {ports_.guid(), static_cast<u32>(ports())};
    return gx_return_ok;
}

gx_return_t Adapter::query_port(gx_hca_h_t handle, u8 number, gx_port_attrib_t* attributes) {
    host::must_sleep("gx_port_query");
    if (gx_return_t status = enter("gx_port_query", handle))
        return status;
    if (!has_port(number))
        return gx_return_invalid_param;
    EndPort end = port(number);
    SubnetManager manager = ports_.manager(number);
    *attributes = {};
    attributes->port_num = number;
    attributes->port_state = end.up ? gx_port_state_active : gx_port_state_down;
    attributes->port_mtu = end.mtu;
    attributes->port_lmc = end.lmc;
    attributes->port_base_lid = end.lid;
    attributes->port_sgid_table_size = has_gid(end.gid);
    attributes->port_pkey_table_size = static_cast<u32>(pkeys(number).size());
    attributes->port_sma_address_info = {number, manager.lid, manager.sl};
    return gx_return_ok;
}

gx_return_t Adapter::gid_table(gx_hca_h_t handle, u8 number, u32* size, gx_gid_t* table) {
    host::must_sleep("gx_get_port_gid_tbl");
    if (gx_return_t status = enter("gx_get_port_gid_tbl", handle))
        return status;
    if (!has_port(number))
        return gx_return_invalid_param;
    const Gid gid = port(number).gid;
    *size = std::min<u32>(*size, has_gid(gid));
    if (*size == 1)
        table[0] = held(gid);
    return gx_return_ok;
}

gx_return_t Adapter::pkey_table(gx_hca_h_t handle, u8 number, u32* size, gx_p_key_t* table) {
    host::must_sleep("gx_get_port_partition_tbl");
    if (gx_return_t status = enter("gx_get_port_partition_tbl", handle))
        return status;
    if (!has_port(number))
        return gx_return_invalid_param;
    const std::vector<std::uint16_t> held_keys = pkeys(number);
    *size = std::min(*size, static_cast<u32>(held_keys.size()));
    std::copy_n(held_keys.begin(), *size, table);
    return gx_return_ok;
}

gx_return_t Adapter::set_event_callback(gx_hca_h_t handle,
                                        gx_sleepable_async_event_cb_t* callback) {
    host::must_sleep("gx_set_sleepable_async_event_cb");
    if (gx_return_t status = enter("gx_set_sleepable_async_event_cb", handle))
        return status;
    std::vector<gx_event_record_t> active;
    for (int number = 1; number <= ports(); number++) {
        if (port(number).up)
            active.push_back({gx_async_r_port_link_up, static_cast<u8>(number)});
    }
    events_.add(handle, callback, active);
    return gx_return_ok;
}

gx_return_t Adapter::end_event_callback(gx_hca_h_t handle,
                                        gx_sleepable_async_event_cb_t* callback) {
    host::must_sleep("gx_dell_sleepable_async_event_cb");
    return events_.remove(handle, callback) ? gx_return_ok : gx_return_not_found;
}

int Adapter::base_gid(gx_hca_h_t handle, u8 number, gx_gid_t* gid) {
    if (gx_return_t status = enter("port_num2base_gid", handle))
        return status;
    if (!has_port(number))
        return gx_return_invalid_param;
    *gid = held(port(number).gid);
    return 0;
}

int Adapter::base_lid(gx_hca_h_t handle, u8 number, gx_lid_t* lid) {
    if (gx_return_t status = enter("port_num2base_lid", handle))
        return status;
    if (!has_port(number))
        return gx_return_invalid_param;
    *lid = port(number).lid;
    return 0;
}

int Adapter::port_of_base_gid(gx_hca_h_t handle, const gx_gid_t* gid, int* number) {
    if (gx_return_t status = enter("base_gid2port_num", handle))
        return status;
    const Gid wanted = wire(*gid);
    for (int candidate = 1; candidate <= ports(); candidate++)
        if (port(candidate).gid == wanted) {
            *number = candidate;
            return 0;
        }
    return gx_return_not_found;
}

int Adapter::pkey_at(gx_hca_h_t handle, u8 number, int index, gx_p_key_t* pkey) {
    if (gx_return_t status = enter("pkey_index2pkey", handle))
        return status;
    if (!has_port(number))
        return gx_return_invalid_param;
    const std::vector<std::uint16_t> table = pkeys(number);
    if (index < 0 || index >= static_cast<int>(table.size()))
        return gx_return_invalid_param;
    *pkey = table[static_cast<std::size_t>(index)];
    return 0;
}

}  // namespace fabric

// The waist.

using fabric::Waist;

const char* gx_default_hca_name() {
    return Waist::current().adapter().name();
}

gx_return_t gx_hca_open(const char* name, u32, gx_hca_h_t* hca) {
    return Waist::current().adapter().open(name, hca);
}

gx_return_t gx_hca_close(gx_hca_h_t hca) {
    return Waist::current().adapter().close(hca);
}

gx_return_t gx_set_sleepable_async_event_cb(gx_hca_h_t hca, gx_request_event_record_t request,
                                            gx_sleepable_async_event_cb_t* callback) {
    if (request.req_event_type != gx_async_even_all)
        return gx_return_invalid_param;
    return Waist::current().adapter().set_event_callback(hca, callback);
}

gx_return_t gx_dell_sleepable_async_event_cb(gx_hca_h_t hca,
                                             gx_sleepable_async_event_cb_t* callback) {
    return Waist::current().adapter().end_event_callback(hca, callback);
}

int port_num2base_gid(gx_hca_h_t hca, u8 port, gx_gid_t* gid) {
    return Waist::current().adapter().base_gid(hca, port, gid);
}

int port_num2base_lid(gx_hca_h_t hca, u8 port, gx_lid_t* lid) {
    return Waist::current().adapter().base_lid(hca, port, lid);
}

int base_gid2port_num(gx_hca_h_t hca, const gx_gid_t* gid, int* port) {
    return Waist::current().adapter().port_of_base_gid(hca, gid, port);
}

int pkey_index2pkey(gx_hca_h_t hca, u8 port, int index, gx_p_key_t* pkey) {
    return Waist::current().adapter().pkey_at(hca, port, index, pkey);
}
