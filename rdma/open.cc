// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/open.h"

#include <charconv>
#include <sstream>

#include "rdma/ibsim.h"
#include "rdma/umad.h"

namespace rdma {
namespace {

constexpr const char ibsim_prefix[] = "ibsim:";
constexpr std::chrono::milliseconds ibsim_looks{20};  // ibsim tells of no events

/* The watch ends before the device that it tells. */
class WithEvents final : public Opened {
  public:
    explicit WithEvents(std::unique_ptr<Device> device, bool watched)
        : device_(std::move(device)), watch_(watched ? watch_events(*device_) : nullptr) {}
    Device& device() override { return *device_; }

  private:
    const std::unique_ptr<Device> device_;
    const std::unique_ptr<EventWatch> watch_;
};

std::unique_ptr<Device> open_ibsim(const std::string& text) {
    Device::Roads roads;
    std::istringstream nodes(text.substr(sizeof ibsim_prefix - 1));
    for (std::string node; std::getline(nodes, node, ',');)
        roads.push_back(attach_to_ibsim(node));
    if (roads.empty())
        throw DeviceError("ibsim: which node? ibsim:NODE");
    return std::make_unique<Device>("ibsim", std::move(roads), ibsim_looks);
}

}  // namespace

bool is_ibsim(const std::string& text) {
    return text.starts_with(ibsim_prefix);
}

std::unique_ptr<Opened> open_device(const std::string& text) {
    if (is_ibsim(text))
        return std::make_unique<WithEvents>(open_ibsim(text), false);
    const std::size_t colon = text.find(':');
    int only_port = 0;
    if (colon != text.npos) {
        const char *const from = text.data() + colon + 1, *const to = text.data() + text.size();
        const auto [end, error] = std::from_chars(from, to, only_port);
        if (error != std::errc() || end != to || only_port < 1)
            throw DeviceError("\"" + text + "\" is neither an adapter nor ADAPTER:PORT");
    }
    return std::make_unique<WithEvents>(open_adapter(text.substr(0, colon), only_port), true);
}

}  // namespace rdma
