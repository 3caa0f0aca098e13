// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What an IPoIB driver hands to the module, and how it behaves when the module calls it.
//
// Byte 0: modes and level. Then steps, each a kind (1) and its operands:
//   0  a client asks: host (1), how (1)          1  ticks (1) pass
//   2  ARP data of a host (1), so many (1) bytes of it replaced: place (2), value (1)
//   3  ARP data that is all the input's          4  an IPoIB packet: size (1), its bytes
//   5  our own driver takes the fabric's place and behaves so from now on (1), with that P_Key (2)
//   6  a command (1) of the administrator        7  a look-up by GID (16), or of a host (1)
//   8  somebody attaches (1) or detaches with that handle (8)
#include <array>
#include <cstring>
#include <optional>

#include "tarv/tarv-api.h"
#include "tests/fuzz/world.h"

namespace {

/* A driver that does what the input says instead of the fabric's. */
class Driver {
  public:
    Driver() { Function<tarv_attach_fn_t>("tarv_attach_fn")(interface, send, this, &handle_); }
    ~Driver() { Function<tarv_detach_fn_t>("tarv_detach_fn")(handle_); }
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    void behave(std::uint8_t how, std::uint16_t pkey) {
        how_ = how;
        pkey_ = pkey;
    }

    /// A function that the module offers.
    template <class Type>
    static Type* Function(const char* name) {
        const void* found = host::inter_module_get(name);
        fuzz::require(found != nullptr, "a function of the module is missing");
        return reinterpret_cast<Type*>(const_cast<void*>(found));
    }

    static tarv_stat_t hear(tarv_arp_data_t data) {
        const host::ContextScope driver(host::Context::driver);
        return Function<tarv_process_arp_data_fn_t>("tarv_process_arp_data_fn")(&data);
    }

  private:
    enum How : std::uint8_t { fails = 1, answers = 2, knows_nothing = 4, ours = 8, odd_code = 16 };

    static tarv_stat_t send(tarv_arp_data_t* record, void* context, int) {
        const host::DriverCall call("send_arp_data_fn");
        const std::uint8_t how = static_cast<const Driver*>(context)->how_;
        tarv_arp_data_t answer = *record;
        std::swap(answer.src_ip, answer.dst_ip);
        answer.arp_operation = TARV_ARP_OP_REPLY;
        answer.local_port_num = 1;
        if (how & answers)
            hear(answer);
        if (how & odd_code)
            return static_cast<tarv_stat_t>(how << 8);
        return how & fails ? tarv_stat_error : tarv_stat_ok;
    }
    static tarv_stat_t interface(u32, gx_p_key_t* pkey, u32*, int*, int* loopback);

    void* handle_ = nullptr;
    std::uint8_t how_ = 0;
    std::uint16_t pkey_ = 0xFFFF;
};

/* The module gives no context when it asks about an interface. */
std::optional<Driver> the_driver;

tarv_stat_t Driver::interface(u32, gx_p_key_t* pkey, u32*, int*, int* loopback) {
    const host::DriverCall call("get_if_info_fn");
    if (the_driver->how_ & knows_nothing)
        return tarv_stat_not_found;
    *pkey = the_driver->pkey_;
    *loopback = the_driver->how_ & ours ? 1 : 0;
    return tarv_stat_ok;
}

tarv_arp_data_t data_of(fuzz::World& world, std::uint8_t host) {
    const fabric::Station peer =
        world.fabric().peers().station(fuzz::World::ip(static_cast<std::uint8_t>(2 + host % 3)));
    tarv_arp_data_t data{};
    data.mask = 0x27F;
    data.arp_operation = TARV_ARP_OP_REPLY;
    data.src_ip = peer.ip;
    data.dst_ip = fuzz::World::ip(1);
    data.gid = fabric::held(peer.gid);
    data.qpn = peer.qpn;
    data.lid = peer.lid;
    data.local_port_num = 1;
    return data;
}

void hear_odd(fuzz::World& world, fuzz::Input& input) {
    tarv_arp_data_t data = data_of(world, input.take<std::uint8_t>());
    std::array<std::uint8_t, sizeof data> bytes;
    std::memcpy(bytes.data(), &data, sizeof data);
    for (auto left = input.take<std::uint8_t>(); left > 0 && !input.at_end(); left--) {
        const auto place = input.take<std::uint16_t>();
        bytes[place % bytes.size()] = input.take<std::uint8_t>();
    }
    std::memcpy(&data, bytes.data(), sizeof data);
    Driver::hear(data);
}

void receive(fuzz::World& world, fuzz::Input& input) {
    fabric::Packet packet;
    packet.payload = input.bytes(input.take<std::uint8_t>());
    packet.slid = 2;
    packet.dest_qp = fabric::multicast_qp;
    world.kernel().schedule(host::Context::driver, 0,
                            [&world, packet] { world.fabric().ipoib().receive(1, packet); });
    world.kernel().settle();
}

void drive(fuzz::World& world, fuzz::Input& input) {
    if (!the_driver) {
        world.fabric().ipoib().detach();
        the_driver.emplace();
    }
    const auto how = input.take<std::uint8_t>();
    the_driver->behave(how, input.take<std::uint16_t>());
}

void command(fuzz::World& world, fuzz::Input& input) {
    constexpr std::array commands = {"enable",
                                     "disable",
                                     "sa_queries on",
                                     "sa_queries off",
                                     "statics_inv on",
                                     "statics_inv off",
                                     "halt",
                                     "flush",
                                     "dump",
                                     "add 10.0.0.1 10.0.0.2 7",
                                     "remove 10.0.0.2",
                                     "setstaticpath 0 0 0 0 1 0 0 4 0 3 0 1"};
    world.command(commands[input.take<std::uint8_t>() % commands.size()]);
}

void look_up(fuzz::World& world, fuzz::Input& input) {
    const auto look = Driver::Function<tarv_seq_cache_lookup_fn_t>("tarv_seq_cache_lookup_fn");
    auto gid = input.take<gx_gid_t>();
    tarv_arp_data_t found;
    look(&gid, &found);
    gid = data_of(world, input.take<std::uint8_t>()).gid;
    look(&gid, &found);
}

/* Neither may change who is attached: somebody is, and the handle is not theirs to know. */
void meddle(fuzz::Input& input) {
    if (input.take<std::uint8_t>() & 1) {
        void* handle = nullptr;
        fuzz::require(Driver::Function<tarv_attach_fn_t>("tarv_attach_fn")(
                          nullptr, nullptr, nullptr, &handle) == tarv_stat_error,
                      "two drivers are attached");
        return;
    }
    auto* handle = reinterpret_cast<void*>(input.take<std::uint64_t>());
    if (handle != TARV_ATTACH_HANDLE)
        fuzz::require(
            Driver::Function<tarv_detach_fn_t>("tarv_detach_fn")(handle) == tarv_stat_error,
            "somebody else's handle was taken");
}

void step(fuzz::World& world, fuzz::Input& input) {
    switch (input.take<std::uint8_t>() % 9) {
        case 0: {
            const std::uint32_t address = fuzz::World::ip(input.take<std::uint8_t>());
            return world.ask(address, input.take<std::uint8_t>());
        }
        case 1:
            return world.kernel().advance(input.take<std::uint8_t>());
        case 2:
            return hear_odd(world, input);
        case 3:
            Driver::hear(input.take<tarv_arp_data_t>());
            return;
        case 4:
            return receive(world, input);
        case 5:
            return drive(world, input);
        case 6:
            return command(world, input);
        case 7:
            return look_up(world, input);
        default:
            return meddle(input);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::World world(input);
    while (!input.at_end())
        step(world, input);
    world.inspect(fuzz::World::ip(2));
    the_driver.reset();
    return 0;
}
