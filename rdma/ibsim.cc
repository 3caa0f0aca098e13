// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "rdma/ibsim.h"

#include <arpa/inet.h>
#include <endian.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "fabric/rmpp.h"

namespace rdma {
namespace {

constexpr std::uint32_t control_magic = 0xdeadbeef;
constexpr const char* default_name = "sim";  // where IBSIM_SOCKNAME is not set
constexpr int control_timeout_ms = 3000;

enum ControlType : std::uint32_t { refused = 0, connect_client = 1, disconnect_client = 2 };

/* A control message and its answer, in the machine's byte order. */
struct Control {
    std::uint32_t magic = control_magic;
    std::uint32_t client = 0;
    std::uint32_t type = 0;
    std::uint32_t length = 0;
    std::uint8_t data[64] = {};
};
static_assert(sizeof(Control) == 80);

/* What a client says of itself, and in the answer the number that it got. */
struct ClientInfo {
    std::uint32_t id = 0;  // in the question what its socket is called by
    std::uint32_t qp = 0;
    std::uint32_t is_manager = 0;
    char node[32] = {};
};
static_assert(sizeof(ClientInfo) == 44);

/* A datagram with its addresses, in network order; a LID has the first two of its four bytes. */
struct Datagram {
    std::uint16_t dlid = 0, dlid_rest = 0;
    std::uint16_t slid = 0, slid_rest = 0;
    std::uint32_t dest_qp = 0;
    std::uint32_t src_qp = 0;
    std::uint32_t status = 0;
    std::uint32_t padding = 0;
    std::uint64_t length = 0;
    std::uint8_t mad[fabric::mad_size] = {};
};
static_assert(sizeof(Datagram) == 288 && offsetof(Datagram, mad) == 32);

/* A name in the abstract space, its terminating zero included, as ibsim has them. */
class Address {
  public:
    explicit Address(const std::string& name) {
        if (name.size() + 2 > sizeof address_.sun_path)
            throw DeviceError("IBSIM_SOCKNAME is too long for the name of a socket");
        address_.sun_family = AF_UNIX;
        std::copy(name.begin(), name.end(), address_.sun_path + 1);
        length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 2);
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    socklen_t length() const { return length_; }

  private:
    sockaddr_un address_{};
    socklen_t length_;
};

class Socket {
  public:
    Socket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (fd_ < 0)
            throw DeviceError("no socket could be made: " + std::generic_category().message(errno));
    }
    ~Socket() { close(fd_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int fd() const { return fd_; }
    bool bind_to(const Address& name) const { return bind(fd_, name.get(), name.length()) == 0; }
    bool connect_to(const Address& name) const {
        return ::connect(fd_, name.get(), name.length()) == 0;
    }
    bool readable_within(int milliseconds) const {
        pollfd waits{fd_, POLLIN, 0};
        return poll(&waits, 1, milliseconds) > 0;
    }

  private:
    const int fd_;
};

std::string server_name() {
    const char* const given = secure_getenv("IBSIM_SOCKNAME");
    return given != nullptr && *given != '\0' ? given : default_name;
}

/* Sockets of one program need names of their own. */
std::uint32_t next_client_name() {
    static std::atomic<std::uint32_t> made = 0;
    return static_cast<std::uint32_t>(getpid()) + made++ % 100 * 0x1000000;
}

class IbsimPort final : public Transport {
  public:
    explicit IbsimPort(const std::string& node) {
        const std::string name = server_name(), own = std::to_string(next_client_name());
        if (!control_.bind_to(Address(name + ":ctl" + own)) ||
            !datagrams_.bind_to(Address(name + ":in" + own)))
            throw DeviceError("ibsim: the names of our sockets are taken");
        if (!control_.connect_to(Address(name + ":ctl")))
            throw DeviceError("no ibsim answers as \"" + name +
                              "\"; start one, and give its IBSIM_SOCKNAME here too");
        connect(node, static_cast<std::uint32_t>(std::stoul(own)));
        if (!datagrams_.connect_to(Address(name + ":out" + std::to_string(client_))))
            throw DeviceError("ibsim has no socket for our datagrams");
    }
    ~IbsimPort() override {
        if (connected_)
            call({.client = client_, .type = disconnect_client});
    }

    /* Nobody does RMPP on ibsim: OpenSM would take an acknowledgement for another question. */
    void send(const fabric::Packet& packet) override {
        const auto rmpp = fabric::rmpp_header(packet.payload);
        if (packet.dest_qp == fabric::gsi_qp && rmpp && rmpp->type != fabric::rmpp_data)
            return;
        Datagram datagram;
        datagram.dlid = htons(packet.dlid);
        datagram.slid = htons(packet.slid);
        datagram.dest_qp = htonl(packet.dest_qp);
        datagram.src_qp = htonl(packet.src_qp);
        datagram.length = htobe64(fabric::mad_size);
        std::copy_n(packet.payload.begin(), std::min(packet.payload.size(), fabric::mad_size),
                    datagram.mad);
        // One that ibsim has no room for is lost, as on a wire.
        (void)::send(datagrams_.fd(), &datagram, sizeof datagram, MSG_NOSIGNAL);
    }

    std::optional<fabric::Packet> receive(std::chrono::milliseconds wait) override {
        Datagram datagram;
        ssize_t got = ::recv(datagrams_.fd(), &datagram, sizeof datagram, MSG_DONTWAIT);
        if (got < 0 && datagrams_.readable_within(static_cast<int>(wait.count())))
            got = ::recv(datagrams_.fd(), &datagram, sizeof datagram, MSG_DONTWAIT);
        if (got != sizeof datagram)
            return std::nullopt;
        fabric::Packet packet;
        packet.dlid = ntohs(datagram.dlid);
        packet.slid = ntohs(datagram.slid);
        packet.dest_qp = ntohl(datagram.dest_qp);
        packet.src_qp = ntohl(datagram.src_qp);
        packet.qkey = packet.dest_qp == fabric::gsi_qp ? fabric::gsi_qkey : 0;
        packet.pkey = 0xFFFF;
        packet.payload.assign(std::begin(datagram.mad), std::end(datagram.mad));
        return packet;
    }

  private:
    Control call(Control question) const {
        Control answer;
        if (::send(control_.fd(), &question, sizeof question, MSG_NOSIGNAL) != sizeof question ||
            !control_.readable_within(control_timeout_ms) ||
            ::recv(control_.fd(), &answer, sizeof answer, MSG_DONTWAIT) != sizeof answer)
            answer.type = refused;
        return answer;
    }

    /* One that was refused is no client, and must not take its leave: its number would be that of
     * another. */
    void connect(const std::string& node, std::uint32_t name) {
        ClientInfo info{.id = name};
        if (node.size() >= sizeof info.node)
            throw DeviceError("ibsim: \"" + node + "\" is too long for the name of a node");
        std::copy(node.begin(), node.end(), info.node);
        Control question{.type = connect_client, .length = sizeof info};
        std::memcpy(question.data, &info, sizeof info);
        const Control answer = call(question);
        if (answer.type != connect_client)
            throw DeviceError("ibsim does not let us be \"" + node +
                              "\": it has no such node, or ten clients already");
        std::memcpy(&info, answer.data, sizeof info);
        client_ = info.id;
        connected_ = true;
    }

    Socket control_;
    Socket datagrams_;
    std::uint32_t client_ = 0;
    bool connected_ = false;
};

}  // namespace

std::unique_ptr<Transport> attach_to_ibsim(const std::string& node) {
    return std::make_unique<IbsimPort>(node);
}

}  // namespace rdma
