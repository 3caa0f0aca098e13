// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/umad.h"

#include <infiniband/umad.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "fabric/rmpp.h"

namespace rdma {
namespace {

constexpr int request_life_ms = 10000;  // as the GSI service's own, by default
constexpr std::chrono::milliseconds look_every{500};
constexpr std::uint8_t agent_version_smi = 1;

/* A datagram in libibumad's frame. */
class Frame {
  public:
    Frame() : bytes_(umad_size() + fabric::mad_size) {}
    void* get() { return bytes_.data(); }
    std::uint8_t* mad() { return static_cast<std::uint8_t*>(umad_get_mad(get())); }
    const ib_mad_addr_t& address() { return *umad_get_mad_addr(get()); }

  private:
    std::vector<std::uint8_t> bytes_;
};

bool wants_answer(const fabric::Packet& packet) {
    return packet.dest_qp != fabric::gsi_qp || !fabric::is_rmpp_control(packet.payload);
}

class UmadPort final : public Transport {
  public:
    UmadPort(const std::string& adapter, int port) : id_(umad_open_port(adapter.c_str(), port)) {
        // The library says EIO of whatever kept it from opening the file.
        const int error = id_ == -EIO ? errno : -id_;
        const std::string where = "port " + std::to_string(port) + " of " + adapter;
        if (id_ < 0)
            throw DeviceError(where +
                              " cannot be opened: " + std::generic_category().message(error) +
                              "; it needs the rights to /dev/infiniband/umad*, as root has");
        smi_ = umad_register(id_, fabric::directed_route_class, agent_version_smi, 0, nullptr);
        gsi_ = umad_register(id_, fabric::sa_class, fabric::sa_class_version, 0, nullptr);
        if (smi_ < 0 || gsi_ < 0) {
            umad_close_port(id_);
            throw DeviceError(where + " takes no agent for management datagrams");
        }
    }
    ~UmadPort() override {
        umad_unregister(id_, smi_);
        umad_unregister(id_, gsi_);
        umad_close_port(id_);
    }

    void send(const fabric::Packet& packet) override {
        Frame frame;
        umad_set_addr(frame.get(), packet.dlid, static_cast<int>(packet.dest_qp), packet.sl,
                      static_cast<int>(packet.qkey));
        ib_mad_addr_t* const address = umad_get_mad_addr(frame.get());
        address->path_bits = static_cast<std::uint8_t>(packet.slid & 0x7F);
        umad_set_pkey(frame.get(), 0);
        std::copy_n(packet.payload.begin(), std::min(packet.payload.size(), fabric::mad_size),
                    frame.mad());
        // A request that nobody answers comes back as one that has timed out. A failed send is a
        // lost datagram.
        umad_send(id_, packet.dest_qp == fabric::gsi_qp ? gsi_ : smi_, frame.get(),
                  static_cast<int>(fabric::mad_size), wants_answer(packet) ? request_life_ms : 0,
                  0);
    }

    std::optional<fabric::Packet> receive(std::chrono::milliseconds wait) override {
        Frame frame;
        int length = static_cast<int>(fabric::mad_size);
        const int agent = umad_recv(id_, frame.get(), &length, static_cast<int>(wait.count()));
        if (agent < 0 || umad_status(frame.get()) != 0)
            return std::nullopt;
        fabric::Packet packet;
        packet.slid = be16toh(frame.address().lid);
        packet.sl = frame.address().sl;
        packet.src_qp = be32toh(frame.address().qpn);
        packet.dest_qp = agent == gsi_ ? fabric::gsi_qp : 0;
        packet.qkey = agent == gsi_ ? fabric::gsi_qkey : 0;
        packet.pkey = 0xFFFF;
        const auto size = std::min(static_cast<std::size_t>(length), fabric::mad_size);
        packet.payload.assign(frame.mad(), frame.mad() + size);
        return packet;
    }

  private:
    const int id_;
    int smi_ = -1;
    int gsi_ = -1;
};

std::string adapters_here() {
    std::string text;
    umad_device_node* const all = umad_get_ca_device_list();
    for (const umad_device_node* at = all; at != nullptr; at = at->next)
        text += (text.empty() ? "" : ", ") + std::string(at->ca_name);
    umad_free_ca_device_list(all);
    return text;
}

bool is_infiniband(const umad_port_t& port) {
    const std::string layer = port.link_layer;
    return layer.empty() || layer == "InfiniBand" || layer == "IB";
}

Device::Roads open_ports(const std::string& name, int only_port) {
    umad_ca_t adapter;
    if (umad_get_ca(name.c_str(), &adapter) < 0) {
        const std::string here = adapters_here();
        throw DeviceError(here.empty()
                              ? "this machine has no InfiniBand adapter that the kernel's ib_umad "
                                "shows; load its "
                                "driver and ib_umad"
                              : "there is no adapter " + name + "; this machine has " + here);
    }
    const std::unique_ptr<umad_ca_t, int (*)(umad_ca_t*)> release(&adapter, umad_release_ca);
    if (only_port > adapter.numports)
        throw DeviceError(name + " has no port " + std::to_string(only_port) + ", only " +
                          std::to_string(adapter.numports));
    Device::Roads roads(static_cast<std::size_t>(adapter.numports));
    for (int number = 1; number <= adapter.numports; number++) {
        const umad_port_t* const port = adapter.ports[number];
        if (port != nullptr && is_infiniband(*port) && (only_port == 0 || only_port == number))
            roads[static_cast<std::size_t>(number - 1)] = std::make_unique<UmadPort>(name, number);
    }
    return roads;
}

}  // namespace

std::unique_ptr<Device> open_adapter(const std::string& name, int only_port) {
    if (umad_init() < 0)
        throw DeviceError("this kernel gives no access to management datagrams; load ib_umad");
    return std::make_unique<Device>(name, open_ports(name, only_port), look_every);
}

}  // namespace rdma
