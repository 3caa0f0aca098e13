// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A whole site in virtual time: a fabric of four hosts on one switch, the module loaded on the
// first of them, and our IPoIB driver attached to it. Host N has the address 10.0.0.N.
//
// A test asks as clients do, reads what happened from `timeline`, and what was logged from
// console().
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <functional>

#include "fabric/fabric.h"
#include "host/faults.h"
#include "host/services.h"
#include "tarv/tarv-module.h"
#include "tests/support/kernel_test.h"
#include "tests/support/records.h"

namespace support {

inline u32 host_ip(int number) {
    return ip(("10.0.0." + std::to_string(number)).c_str());
}

inline fabric::Topology small_site() {
    return fabric::make_fabric({.hosts = 4, .spines = 1});
}

/// A line of the module's log as "D tarv_api/tarv_get_ib_data: message", its level's letter, unit
/// and function in front; any other line as it is.
inline std::string brief(const std::string& line) {
    const std::string tag = " : TARV : ";
    const std::size_t function = line.find(tag), unit = line.find(":("), message = line.find("):");
    for (const char* level : qdlog_levels)
        if (function == 7 && line.rfind(level, 0) == 0 && unit < message && message != line.npos)
            return line.substr(0, 1) + " " + line.substr(unit + 2, message - unit - 2) + "/" +
                   line.substr(7 + tag.size(), unit - 7 - tag.size()) + ": " +
                   line.substr(message + 2);
    return line;
}

/// The line with addresses in memory, which differ from run to run, shown as PTR. An address is
/// sixteen digits of which the first four are 0.
inline std::string without_pointers(std::string line) {
    const auto is_digit = [](char c) { return std::isxdigit(c) && !std::isupper(c); };
    for (std::size_t at = line.find("0000"); at != line.npos; at = line.find("0000", at + 1)) {
        const auto begin = line.begin() + static_cast<std::ptrdiff_t>(at);
        const auto end = std::find_if_not(begin, line.end(), is_digit);
        if (end - begin == 16 && (at == 0 || !std::isxdigit(line[at - 1])))
            line.replace(begin, end, "PTR");
    }
    return line;
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

class SiteTest : public KernelTest {
  public:
    explicit SiteTest(unsigned long first_jiffy = 1000)
        : KernelTest(first_jiffy), fabric(small_site(), fabric::deal_addresses(small_site()), 0) {}

    void SetUp() override {
        fabric.on_packet([this](const fabric::SeenPacket& seen) { note_query(seen); });
        load();
    }
    void TearDown() override {
        if (loaded)
            unload();
        KernelTest::TearDown();
    }

    /// Loads the module, attaches the driver, and switches on what a site has on.
    void load() {
        ASSERT_EQ(host::load_module(tarv_module), 0);
        loaded = true;
        loaded_at = kernel.jiffies();
        ASSERT_EQ(fabric.ipoib().attach(), tarv_stat_ok);
        kernel.settle();
        write_once(enabled, 1);
        write_once(sa_queries_enabled, 1);
        host::clear_console();
    }
    void unload() {
        fabric.ipoib().detach();
        host::unload_module(tarv_module);
        loaded = false;
    }

    /// Puts a stand-in in the place of the fabric's driver.
    void use(StandInDriver& driver) {
        fabric.ipoib().detach();
        void* handle = nullptr;
        ASSERT_EQ(tarv_attach(StandInDriver::interface, StandInDriver::send_arp, &driver, &handle),
                  tarv_stat_ok);
    }

    /// A client named `name` asks for that address; its reply goes to `replies` and the timeline.
    /// Without a name it gives no callback.
    tarv_stat_t ask(u32 address, tarv_paths_t paths = tarv_paths_none,
                    const std::string& name = "client", u8 invalidate = 0) {
        clients.push_back({{name, replies}, this});
        record = {};
        return tarv_get_ib_data(address, host_ip(1), paths, &record, name.empty() ? nullptr : reply,
                                &clients.back(), invalidate);
    }

    /// What the driver hands over when it hears that host.
    tarv_arp_data_t heard(int host, tarv_arp_op_t operation = TARV_ARP_OP_REPLY) {
        const fabric::Station peer = fabric.peers().station(host_ip(host));
        tarv_arp_data_t data = {};
        data.mask = 0x27E;  // all but the source address's
        data.arp_operation = operation;
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
    tarv_stat_t hear(tarv_arp_data_t data) {
        const host::ContextScope driver(host::Context::driver);
        return tarv_process_arp_data(&data);
    }

    /// The entry that `host` has when it was learned from ARP, with further bits of the mask, under
    /// its own or another address. What `lacking` names of GID and port is not known.
    void know(int host, u32 more = 0, u32 address = 0, u32 lacking = 0) {
        tarv_arp_data_t data = heard(host);
        data.mask &= ~lacking;
        if (lacking & TARV_MASK_GID)
            data.gid = {};
        if (lacking & TARV_MASK_LOCAL_PORT)
            data.local_port_num = 0;
        data.src_ip = host_ip(1);
        data.dst_ip = address ? address : host_ip(host);
        data.mask |= TARV_MASK_SRC_IP | more;
        data.paths[0] = path(data.gid, local_gid(1), data.lid);
        data.paths[1] = path(data.gid, local_gid(2), data.lid);
        add(data);
    }

    /// Requests on the two lists.
    static u32 waiting_for_arp() TA_NO_ANALYSIS { return requests.count; }
    static u32 waiting_for_paths() TA_NO_ANALYSIS { return sa_requests.count; }

    static const tarv_list_entry_t* newest_for_paths() TA_NO_ANALYSIS {
        return *tarv_request_list(sa_requests.head).begin();
    }

    gx_gid_t local_gid(int port) { return fabric::held(fabric.adapter().port(port).gid); }

    /// The console's lines since the last look, shortened.
    Lines transcript() {
        Lines lines = console();
        for (std::string& line : lines)
            line = without_pointers(brief(line));
        return lines;
    }

    /// What a request without a callback logs when its timer retires it.
    static Lines retired_without_callback() {
        return {"E tarv_api/tarv_retry_ib_data_request: __tarv_get_ib_data() returned :-256",
                "E tarv_api/tarv_retry_ib_data_request: can't call reply callback (is NULL)"};
    }

    std::size_t queries() const {
        return static_cast<std::size_t>(std::ranges::count_if(
            timeline, [](const auto& line) { return line.find(" query ") != std::string::npos; }));
    }

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

    struct SiteClient : Client {
        SiteTest* site;
    };
    static void reply(tarv_stat_t status, tarv_arp_data_t* answer, void* context) {
        auto* client = static_cast<SiteClient*>(context);
        if (answer) {
            EXPECT_EQ(answer->primary_path, &answer->paths[0]);
            EXPECT_EQ(answer->secondary_path, &answer->paths[1]);
        }
        Client::reply(status, answer, static_cast<Client*>(client));
        client->site->note(client->name + " told " + std::to_string(status) +
                           (answer ? " with " + fabric::format_ip(answer->dst_ip) : ""));
    }

    fabric::Fabric fabric;
    bool loaded = false;
    unsigned long loaded_at = 0;
    Lines timeline;  ///< queries to the SA, and replies to clients
    std::vector<Reply> replies;
    std::deque<SiteClient> clients;
    tarv_arp_data_t record = {};  ///< of the last client that asked

  private:
    void note_query(const fabric::SeenPacket& seen) {
        if (seen.direction == fabric::Direction::out && seen.packet.dest_qp == fabric::gsi_qp)
            note("query on port " + std::to_string(seen.port) + " to lid " +
                 std::to_string(seen.packet.dlid) + " sl " + std::to_string(seen.packet.sl));
    }
};

}  // namespace support
