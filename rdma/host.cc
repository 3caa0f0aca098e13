// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/host.h"

#include <memory>
#include <utility>

#include "platform/jiffies.h"

namespace rdma {

Host::Host(Device& device, const Interface& interface, const fabric::GsiTranslations& translations)
    : device_(device),
      adapter_(works_, device),
      gsi_(works_, *this, adapter_),
      ipoib_(works_, tap_, interface),
      waist_(adapter_, gsi_, ipoib_) {
    gsi_.set_translations(translations);
    device_.start(
        {.arrived = [this](int port, fabric::Packet packet) { arrived(port, std::move(packet)); },
         .changed =
             [this](gx_event_record_t event) {
                 adapter_.raise(event.event_type, event.port_num);
             }});
}

Host::~Host() {
    device_.stop();
    works_.close();
}

void Host::send(int port, fabric::Packet packet) {
    tap_.see({fabric::Direction::out, port, jiffies(), packet});
    device_.send(port, std::move(packet));
}

void Host::arrived(int port, fabric::Packet packet) {
    auto take_in = [this, port, packet = std::move(packet)] {
        tap_.see({fabric::Direction::in, port, jiffies(), packet});
        gsi_.receive(port, packet);
    };
    works_.schedule(host::Context::gsi, 0, std::move(take_in), static_cast<unsigned>(port));
}

}  // namespace rdma
