// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Our host's adapter: the verbs layer and the address services of the waist.
//
// What its ports are like (GID, LID, state, MTU, P_Keys) is asked of whoever has them (ports.h) at
// each call. Every open handle is an object of its own. Rules
// that stop the program, with the call's name: a handle that is not open, a call with a spin lock
// held, a close while an event callback is registered on the handle.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "fabric/events.h"
#include "fabric/mutex.h"
#include "fabric/ports.h"
#include "platform/verbs.h"

namespace fabric {

class Adapter {
  public:
    Adapter(Works& works, const Ports& ports) : ports_(ports), events_(works) {}

    const char* name() const { return ports_.name(); }
    int ports() const { return ports_.count(); }
    bool has_port(int port) const { return port >= 1 && port <= ports(); }
    /// Throws std::invalid_argument for a port that is not there.
    EndPort port(int number) const;
    std::vector<std::uint16_t> pkeys(int number) const;
    Events& events() { return events_; }

    /// Has an event of any type, also one that nobody knows, delivered.
    void raise(std::uint32_t type, int port);

    std::size_t open_handles() const;
    void report(std::vector<std::string>& lines) const;

    // The waist's calls.
    gx_return_t open(const char* name, gx_hca_h_t* handle);
    gx_return_t close(gx_hca_h_t handle);
    gx_return_t query_hca(gx_hca_h_t handle, gx_hca_attrib_t* attributes);
    gx_return_t query_port(gx_hca_h_t handle, u8 port, gx_port_attrib_t* attributes);
    gx_return_t gid_table(gx_hca_h_t handle, u8 port, u32* size, gx_gid_t* table);
    gx_return_t pkey_table(gx_hca_h_t handle, u8 port, u32* size, gx_p_key_t* table);
    gx_return_t set_event_callback(gx_hca_h_t handle, gx_sleepable_async_event_cb_t* callback);
    gx_return_t end_event_callback(gx_hca_h_t handle, gx_sleepable_async_event_cb_t* callback);
    int base_gid(gx_hca_h_t handle, u8 port, gx_gid_t* gid);
    int base_lid(gx_hca_h_t handle, u8 port, gx_lid_t* lid);
    int port_of_base_gid(gx_hca_h_t handle, const gx_gid_t* gid, int* port);
    int pkey_at(gx_hca_h_t handle, u8 port, int index, gx_p_key_t* pkey);

  private:
    /* Checks that hold for every call: no lock, an open handle, and whether it is to fail. */
    gx_return_t enter(const char* call, gx_hca_h_t handle) const;

    const Ports& ports_;
    Events events_;
    mutable Mutex mutex_;
    std::unordered_map<gx_hca_h_t, std::unique_ptr<gx_hca_t>> open_ TA_GUARDED(mutex_);
    /* Closed handles stay for a while, so that a use after the close finds one that is closed and
     * not somebody else's new one. */
    std::deque<std::unique_ptr<gx_hca_t>> closed_ TA_GUARDED(mutex_);
};

}  // namespace fabric
