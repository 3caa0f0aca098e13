// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Where the module is put under stress: a machine in real time, and a driver whose every move the
// stress decides.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "app/machine.h"
#include "tests/races/identity.h"
#include "tests/races/ledger.h"

namespace stress {

/// Who may be inside something that is going to be taken away, as the use count of a kernel module
/// says it. Going in and out touches only the calling thread's own word. Who is inside may go in
/// once more.
class Entrance {
  public:
    /// Whether the thread may go in; if so it calls leave() afterwards.
    bool enter();
    void leave();
    bool inside() const;

    void close();  ///< and waits for those inside
    void open();

  private:
    static constexpr std::size_t most_guests = 64;

    struct alignas(64) Guest {
        std::atomic<int> depth = 0;
    };
    static std::size_t own_number();

    std::atomic<bool> closed_ = false;
    std::array<Guest, most_guests> guests_;
};

/// The IPoIB driver.
class Driver {
  public:
    /// Asked to send; decides what comes of it. Changed only while nobody can call it.
    std::function<tarv_stat_t(const tarv_arp_data_t& request)> on_send;
    /// Asked for the interface's P_Key.
    std::function<tarv_stat_t(gx_p_key_t* pkey)> on_interface_info;

    void attach();
    void detach();  ///< waits for packets that are being handed over

    /// Its functions must not be called, nor run any more.
    std::atomic<bool> gone = true;

    /// Hands a packet over, on a driver's thread. Only while the driver is attached.
    tarv_stat_t deliver(tarv_arp_data_t packet) const;

    /// Through here goes who hands packets over while the driver may be detached.
    Entrance entrance;

  private:
    void* handle_ = nullptr;
};

class Arena {
  public:
    /// `speed`: ticks of the module in one of the clock.
    explicit Arena(unsigned long speed);
    ~Arena();
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    void load();
    /// Detaches the driver, unloads, and looks at everything that was left. Nobody else makes
    /// requests meanwhile.
    void unload();
    void reload() {
        unload();
        load();
    }
    /// Both ports can be asked for paths.
    void wait_for_ports();

    /// One write to the control file; false when there is no such file now.
    static bool command(const std::string& text);
    static std::string read(const std::string& path, std::size_t size);

    /// The driver hears the peer in that generation.
    void hear(unsigned peer, unsigned generation,
              tarv_arp_op_t operation = TARV_ARP_OP_REPLY) const {
        driver.deliver(identities.heard(peer, generation, operation));
    }

    /// An event of the adapter comes to the module, on this thread.
    static void event(gx_async_record_t type, int port);

    const app::Site site;
    app::Machine machine;
    host::Kernel& kernel = machine.kernel();
    fabric::Fabric& fabric = machine.fabric();
    Identities identities{fabric};
    Driver driver;
    Client client{};
    tarv_seq_cache_lookup_fn_t* lookup = nullptr;

  private:
    void look_at_remains(const app::Departure& departure);
};

/// For its scope the driver does that when it is asked to send. The module is loaded anew in the
/// end, so that nobody is left who might still ask. Declare it behind what the function uses.
class DriverDoes {
  public:
    DriverDoes(Arena& arena, std::function<tarv_stat_t(const tarv_arp_data_t&)> on_send);
    DriverDoes(Arena& arena, std::function<tarv_stat_t(const tarv_arp_data_t&)> on_send,
               std::function<tarv_stat_t(gx_p_key_t*)> on_interface_info);
    ~DriverDoes();
    DriverDoes(const DriverDoes&) = delete;
    DriverDoes& operator=(const DriverDoes&) = delete;

  private:
    Arena& arena_;
};

/// The same, but only on the thread that makes it: what timers and answers of the SA have sent
/// meanwhile is lost.
template <class OnSend>
auto on_this_thread(OnSend on_send) {
    return [on_send, me = std::this_thread::get_id()](const tarv_arp_data_t& request) {
        return std::this_thread::get_id() == me ? on_send(request) : tarv_stat_ok;
    };
}

inline constexpr char control_path[] = "quorvane/tarv/control";
inline constexpr char version_path[] = "quorvane/tarv/version";

}  // namespace stress
