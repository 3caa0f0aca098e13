// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// An adapter's asynchronous events, from libibverbs.
#include <fcntl.h>
#include <infiniband/verbs.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

#include "rdma/umad.h"

namespace rdma {
namespace {

constexpr int stop_wait_ms = 100;

struct Told {
    bool of_port;
    std::optional<gx_async_record_t> as;  // empty: what it was is seen by looking
};

/* A change of partitions or GIDs has no event of the module's, and a subnet manager makes them
 * before it activates a port; that a port's clients have to register anew tells of a manager that
 * is new, whatever its LID. */
Told meaning(ibv_event_type type) {
    switch (type) {
        case IBV_EVENT_PORT_ACTIVE:
        case IBV_EVENT_PORT_ERR:
        case IBV_EVENT_PKEY_CHANGE:
        case IBV_EVENT_GID_CHANGE:
            return {true, {}};
        case IBV_EVENT_LID_CHANGE:
            return {true, gx_async_r_port_lid};
        case IBV_EVENT_SM_CHANGE:
        case IBV_EVENT_CLIENT_REREGISTER:
            return {true, gx_async_r_port_sm_change};
        default:
            return {false, {}};
    }
}

struct CloseContext {
    void operator()(ibv_context* context) const { ibv_close_device(context); }
};
using Context = std::unique_ptr<ibv_context, CloseContext>;

Context open_by_name(const std::string& name) {
    int count = 0;
    ibv_device** const devices = ibv_get_device_list(&count);
    if (devices == nullptr)
        return nullptr;
    ibv_device** const end = devices + count;
    ibv_device** const found = std::find_if(
        devices, end, [&](ibv_device* device) { return ibv_get_device_name(device) == name; });
    Context context(found == end ? nullptr : ibv_open_device(*found));
    ibv_free_device_list(devices);
    return context;
}

class VerbsWatch final : public EventWatch {
  public:
    VerbsWatch(Device& device, Context context)
        : device_(device), context_(std::move(context)), thread_([this] { watch(); }) {}
    ~VerbsWatch() override {
        stopping_ = true;
        thread_.join();
    }

  private:
    void watch() {
        while (!stopping_) {
            pollfd waits{context_->async_fd, POLLIN, 0};
            if (poll(&waits, 1, stop_wait_ms) <= 0)
                continue;
            ibv_async_event event;
            if (ibv_get_async_event(context_.get(), &event) != 0)
                continue;
            const Told told = meaning(event.event_type);
            const int port = event.element.port_num;
            ibv_ack_async_event(&event);
            if (told.of_port && port >= 1 && port <= device_.count())
                device_.note(port, told.as);
        }
    }

    Device& device_;
    const Context context_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<EventWatch> watch_events(Device& device) {
    Context context = open_by_name(device.name());
    if (!context)
        return nullptr;
    return std::make_unique<VerbsWatch>(device, std::move(context));
}

}  // namespace rdma
