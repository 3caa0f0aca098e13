// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The module on our host of the tests' fabric, in virtual time: what its loader, its administrator,
// its clients and its driver do with it, and what is seen of it.
//
// A test reads what happened between clients and the SA from `timeline`, and what was logged from
// console(). What it loads, its end unloads.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>
#include <functional>

#include "fabric/rmpp.h"
#include "host/check.h"
#include "host/services.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-module.h"
#include "tarv/tarv-sa.h"
#include "tests/support/machine_test.h"
#include "tests/support/records.h"

namespace support {

inline constexpr char control_path[] = "quorvane/tarv/control";
inline constexpr char version_path[] = "quorvane/tarv/version";
inline constexpr char level_key[] = "quorvane/modules/tarv/";

/// Brief lines of the module's log.
inline std::string error(const std::string& function, const std::string& message,
                         const std::string& unit = "tarv_api") {
    return "E " + unit + "/" + function + ": " + message;
}
inline std::string debug(const std::string& function, const std::string& message,
                         const std::string& unit = "tarv_api") {
    return "D " + unit + "/" + function + ": " + message;
}

/// A driver in place of the fabric's: what it is asked to send goes to a function of the test.
struct StandInDriver {
    std::function<tarv_stat_t(tarv_arp_data_t& record, int media_reset)> send;

    static tarv_stat_t send_arp(tarv_arp_data_t* record, void* context, int media_reset) {
        const host::DriverCall call("send_arp_data_fn");
        return static_cast<StandInDriver*>(context)->send(*record, media_reset);
    }
    static tarv_stat_t interface(u32, gx_p_key_t* pkey, u32*, int*, int* loopback) {
        *pkey = 0x8123;
        *loopback = 0;
        return tarv_stat_ok;
    }
};

/// The module not loaded, and its files.
class ModuleTest : public MachineTest {
  public:
    using MachineTest::MachineTest;

    int load(const std::vector<std::string>& parameters = {}) { return machine.load(parameters); }
    void unload() { machine.unload(); }

    static void set_level(std::uint64_t level) {
        host::set_repository_value(level_key, "debug-level", level);
    }
    /// One write to the control file.
    static void command(const std::string& text) {
        EXPECT_EQ(host::ProcFile(control_path).write(text), static_cast<long>(text.size()));
    }
    /// What a command prints.
    static Lines said(const std::string& text) {
        console();
        command(text);
        return masked();
    }
    static std::string read_all(const std::string& path = control_path) {
        return host::ProcFile(path).read(1 << 20);
    }
};

/// The SA client alone, all its ports still to be set up.
class SaTest : public ModuleTest {
  public:
    explicit SaTest(int our_ports = 2) : ModuleTest(our_ports) { tarv_sa_start(); }
    void TearDown() override {
        tarv_sa_cleanup();
        kernel.advance(20000);  // requests that the fabric still remembers are forgotten
        EXPECT_EQ(atomic_read(&tarv_gsi_pending_cnt), 0);
        ModuleTest::TearDown();
    }
};

/// The module is loaded as its administrator finds it: it has heard of its ports and logs up to
/// DEBUG; nothing is switched on, no driver is attached.
class ControlTest : public ModuleTest {
  public:
    ControlTest() { host::set_logger_level(TARV_FUNC); }
    void SetUp() override {
        set_level(TARV_DEBUG);
        ASSERT_EQ(load(), 0);
        kernel.advance(10);
        host::clear_console();
    }
};

/// The module is loaded and in use: with the fabric's driver, ARP intake and SA queries. Nothing is
/// logged until trace() says so.
class RunningTest : public ModuleTest {
  public:
    using ModuleTest::ModuleTest;

    void SetUp() override {
        fabric.on_packet([this](const fabric::SeenPacket& seen) { note_query(seen); });
        start();
    }
    void start() {
        ASSERT_EQ(load(), 0);
        loaded_at = kernel.jiffies();
        ASSERT_EQ(fabric.ipoib().attach(), tarv_stat_ok);
        kernel.settle();
        write_once(enabled, 1);
        write_once(sa_queries_enabled, 1);
        host::clear_console();
    }

    /// Puts a stand-in in the place of the fabric's driver.
    void use(StandInDriver& driver) {
        fabric.ipoib().detach();
        void* handle = nullptr;
        ASSERT_EQ(tarv_attach(StandInDriver::interface, StandInDriver::send_arp, &driver, &handle),
                  tarv_stat_ok);
    }

    /// A client named `name` asks for that address; its reply goes to `replies` and the timeline.
    tarv_stat_t ask(u32 address, tarv_paths_t paths = tarv_paths_none,
                    const std::string& name = "client", u8 invalidate = 0) {
        clients.push_back({name, this});
        record = {};
        return tarv_get_ib_data(address, host_ip(1), paths, &record, reply, &clients.back(),
                                invalidate);
    }

    /// What the driver hands over when it hears that host.
    tarv_arp_data_t heard(int host, int operation = TARV_ARP_OP_REPLY) {
        const fabric::Station peer = fabric.peers().station(host_ip(host));
        tarv_arp_data_t data = {};
        data.mask = 0x27E;  // all but the source address's
        data.arp_operation = static_cast<u16>(operation);
        data.src_ip = peer.ip;
        data.dst_ip = host_ip(1);
        data.gid = fabric::held(peer.gid);
        data.qpn = peer.qpn;
        data.lid = peer.lid;
        data.qkey = 0xB1B;
        data.cap_flg = peer.flags;
        data.local_port_num = 1;
        return data;
    }
    static tarv_stat_t hear(tarv_arp_data_t data) {
        const host::ContextScope driver(host::Context::driver);
        return tarv_process_arp_data(&data);
    }

    /// The entry that `host` has when it was learned from ARP, with further bits of the mask.
    void know(int host, u32 more = 0) {
        tarv_arp_data_t data = heard(host);
        data.src_ip = host_ip(1);
        data.dst_ip = host_ip(host);
        data.mask |= TARV_MASK_SRC_IP | more;
        data.paths[0] = path(data.gid, port_gid(0x1001), data.lid);
        data.paths[1] = path(data.gid, port_gid(0x1002), data.lid);
        add(data);
    }

    /// Requests on the two lists.
    static u32 waiting_for_arp() TA_NO_ANALYSIS { return requests.count; }
    static u32 waiting_for_paths() TA_NO_ANALYSIS { return sa_requests.count; }

    /// What happened since the load, each with the ticks since then.
    void note(const std::string& what) {
        timeline.push_back("+" + std::to_string(kernel.jiffies() - loaded_at) + " " + what);
    }
    Lines arp_requests() {
        Lines lines;
        for (const fabric::SentRequest& sent : fabric.ipoib().requests())
            lines.push_back("+" + std::to_string(sent.jiffies - loaded_at) + " " +
                            fabric::format_ip(sent.target_ip) + " reset " +
                            std::to_string(sent.media_reset));
        return lines;
    }

    struct Client {
        std::string name;
        RunningTest* test;
    };
    static void reply(tarv_stat_t status, tarv_arp_data_t* answer, void* context) {
        host::must_hold_no_lock("a reply callback");
        const auto* client = static_cast<Client*>(context);
        client->test->replies.push_back(answer ? *answer : tarv_arp_data_t{});
        client->test->note(client->name + " told " + std::to_string(status) +
                           (answer ? " with " + fabric::format_ip(answer->dst_ip) : ""));
    }

    unsigned long loaded_at = 0;
    Lines timeline;                        ///< queries to the SA, and replies to clients
    std::vector<tarv_arp_data_t> replies;  ///< their records
    std::deque<Client> clients;
    tarv_arp_data_t record = {};  ///< of the last client that asked

  private:
    void note_query(const fabric::SeenPacket& seen) {
        if (seen.direction == fabric::Direction::out && seen.packet.dest_qp == fabric::gsi_qp &&
            !fabric::is_rmpp_control(seen.packet.payload))
            note("query on port " + std::to_string(seen.port) + " to lid " +
                 std::to_string(seen.packet.dlid) + " sl " + std::to_string(seen.packet.sl));
    }
};

}  // namespace support
