// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Who does what in a storm.
#include <algorithm>
#include <array>
#include <string>
#include <thread>

#include "host/services.h"
#include "tests/races/report.h"
#include "tests/races/storm.h"

namespace stress {
namespace {

constexpr long most_waiting = 3000;

/* Also a number of paths that is none, which counts as none. */
tarv_paths_t any_paths() {
    constexpr std::array kinds = {tarv_paths_none, tarv_paths_primary, tarv_paths_both,
                                  static_cast<tarv_paths_t>(7)};
    return kinds[chance().below(kinds.size())];
}

unsigned any_peer() {
    return chance().below(peer_count);
}

}  // namespace

/* Waits while the entrance is closed, unless the storm is over meanwhile. */
template <class Work>
void Storm::go_through(Entrance& entrance, Work work) {
    while (!entrance.enter()) {
        if (over)
            return;
        std::this_thread::yield();
    }
    work();
    entrance.leave();
}

// Clients.

void Storm::ask() {
    while (!over) {
        go_through(module, [this] {
            for (int i = 0; i < 16 && waiting.load(std::memory_order_relaxed) < most_waiting; i++)
                ask_once();
        });
        std::this_thread::yield();
    }
}

/* A client that is told something sometimes asks again out of its callback, on whatever thread that
 * is. */
void Storm::be_told() {
    waiting.fetch_sub(1, std::memory_order_relaxed);
    if (chance().one_in(16))
        new_request().ask(arena.client, any_peer(), any_paths(), false);
}

void Storm::ask_once() {
    const tarv_paths_t paths = any_paths();
    switch (chance().below(8)) {
        case 0:
            ask_cache(arena.client, any_peer(), paths);
            break;
        case 1: {
            gx_gid_t gid = arena.identities.heard(any_peer(), generation, TARV_ARP_OP_REPLY).gid;
            tarv_arp_data_t record = {};
            counted.lookups++;
            if (arena.lookup(&gid, &record) == tarv_stat_ok)
                arena.identities.check(record, record.dst_ip, "a lookup by GID");
            break;
        }
        default:
            waiting.fetch_add(1, std::memory_order_relaxed);
            if (new_request().ask(arena.client, any_peer(), paths, chance().one_in(8),
                                  &on_reply_) != tarv_stat_pending)
                waiting.fetch_sub(1, std::memory_order_relaxed);
    }
}

// The driver and the peers.

void Storm::hear(unsigned peer, tarv_arp_op_t operation) {
    if (!arena.driver.entrance.enter())
        return;
    const unsigned next = generation.fetch_add(1, std::memory_order_relaxed);
    arena.driver.deliver(arena.identities.heard(peer, next, operation));
    arena.driver.entrance.leave();
}

/* Peers that speak unasked. */
void Storm::announce() {
    while (!over) {
        hear(any_peer(), chance().one_in(64)  ? static_cast<tarv_arp_op_t>(3)
                         : chance().one_in(2) ? TARV_ARP_OP_REPLY
                                              : TARV_ARP_OP_REQUEST);
        std::this_thread::yield();
    }
}

/* The request is lost, fails, or is answered: in the middle of the call, on the receiving thread
 * while the call lasts, or there in its own time. Who is handing over a packet himself cannot wait
 * for another one to be handed over. */
tarv_stat_t Storm::send(const tarv_arp_data_t& request) {
    const unsigned peer = request.dst_ip >> 24;
    const tarv_stat_t result = chance().one_in(12) ? tarv_stat_error : tarv_stat_ok;
    switch (chance().below(8)) {
        case 0:
            break;
        case 1:
        case 2:
            hear(peer, TARV_ARP_OP_REPLY);
            break;
        case 3: {
            if (arena.driver.entrance.inside())
                break;
            std::atomic<bool> arrived = false;
            hand_over(peer, &arrived);
            wait_until("a packet is handed over", [&] { return arrived.load(); });
            break;
        }
        default:
            hand_over(peer, nullptr);
    }
    return result;
}

void Storm::hand_over(unsigned peer, std::atomic<bool>* arrived) {
    {
        const std::lock_guard guard(queue_mutex_);
        queue_.push_back({peer, arrived});
    }
    queue_changed_.notify_one();
}

/* It is the last to go, when nobody waits for a packet any more. */
void Storm::receive() {
    std::unique_lock lock(queue_mutex_);
    while (true) {
        queue_changed_.wait(lock, [this] { return nothing_comes_ || !queue_.empty(); });
        if (queue_.empty())
            return;
        const Packet packet = queue_.front();
        queue_.pop_front();
        lock.unlock();
        hear(packet.peer, TARV_ARP_OP_REPLY);
        if (packet.arrived)
            *packet.arrived = true;
        lock.lock();
    }
}

void Storm::reattach_driver() {
    while (!over) {
        go_through(module, [this] {
            arena.driver.detach();
            arena.driver.attach();
            counted.attachments++;
        });
        arena.kernel.advance(3);
    }
}

// The fabric.

void Storm::change_fabric() {
    const std::uint16_t lids[] = {arena.fabric.adapter().port(1).lid,
                                  arena.fabric.adapter().port(2).lid, 2001, 2002};
    const fabric::SubnetManager manager = arena.fabric.subnet().manager();
    const std::uint16_t other_manager = arena.identities.heard(0, 1, TARV_ARP_OP_REPLY).lid;
    while (!over) {
        go_through(weather, [&] {
            const int port = 1 + static_cast<int>(chance().below(2));
            const bool first = chance().one_in(2);
            switch (chance().below(8)) {
                case 0:
                    arena.fabric.set_link(port, false);
                    break;
                case 1:
                case 2:
                    arena.fabric.set_link(port, true);
                    break;
                case 3:
                    arena.fabric.move_sm(first ? manager.lid : other_manager, first ? 0 : 1);
                    break;
                case 4:
                    arena.fabric.set_lid(port, lids[port - 1 + (first ? 0 : 2)]);
                    break;
                case 5:
                    arena.fabric.set_mtu(port, first ? 4 : 5);
                    break;
                case 6:
                    arena.fabric.set_pkeys(port, first
                                                     ? std::vector<std::uint16_t>{0xFFFF}
                                                     : std::vector<std::uint16_t>{0x7FFF, 0xFFFF});
                    break;
                default:
                    arena.fabric.raise_event(first ? 0x99u : u32{gx_async_r_port_link_up}, port);
            }
            counted.events++;
        });
        arena.kernel.advance(1);
    }
}

// Administrators.

namespace {

std::string any_command(const Identities& identities, unsigned number) {
    const unsigned peer = first_static_peer + chance().below(peer_count - first_static_peer);
    const std::string address = text_of(address_of(peer));
    const std::string any_address = text_of(address_of(any_peer()));
    const std::string digit = std::to_string(chance().below(4));
    const std::string commands[] = {
        "enable",
        "enable",
        "enable",
        "enable",
        "disable",
        "sa_queries on",
        "sa_queries on",
        "sa_queries on",
        "sa_queries off",
        "statics_inv on",
        "statics_inv on",
        "statics_inv off",
        identities.add_command(peer, number),
        identities.add_ib_arp_command(peer, number),
        identities.add_path_command(peer, number),
        identities.set_static_path_command(number),
        identities.set_static_path_command(number + 1),
        "remove " + address,
        "remove " + any_address,
        "invalidate " + any_address + " " + digit,
        "flush",
        "show " + any_address,
        "show_paths " + any_address,
        "show_stat",
        "dump",
        "setlocalgids " + identities.local_gid_text(1) + " " + identities.local_gid_text(2),
        "setlocalpkeys 0xFFFF 0xFFFF",
        "set_retry_cnt " + digit,
        "nonsense " + address,
        "",
        std::string(5000, 'x'),
        "add 10.0.0.1 10.0.1",
        std::string(300, ' ') + "enable",
    };
    return commands[chance().below(std::size(commands))] + "\n";
}

/* A line of the table is whole: it ends as all do, and has the length of all. */
bool is_whole(const std::string& line) {
    return (line.size() == 77 && line.ends_with("ipoib")) ||
           (line.size() == 78 && line.starts_with("IP address")) ||
           line.starts_with("Another call is pending");
}

void check_table(const std::string& text) {
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != text.npos; at = end + 1)
        if (const std::string line = text.substr(at, end - at); !is_whole(line))
            violation("torn record: the table has a line \"%s\"", line.c_str());
}

}  // namespace

void Storm::administrate() {
    while (!over) {
        go_through(files, [this] { Arena::command(any_command(arena.identities, generation)); });
        std::this_thread::yield();
    }
}

/* Some readers go away before the end of the file. */
void Storm::read_files() {
    std::string version;
    while (!over) {
        go_through(files, [&] {
            if (chance().one_in(4)) {
                const std::string text = Arena::read(version_path, 4096);
                if (version.empty())
                    version = text;
                if (!text.empty() && text != version)
                    violation("torn record: the version file reads \"%s\"", text.c_str());
            } else {
                check_table(Arena::read(control_path, chance().one_in(3) ? 200 : 1 << 20));
            }
        });
        std::this_thread::yield();
    }
}

/* Mostly nothing is logged: the console is one lock for all, and would keep them apart. */
void Storm::change_trace_level() {
    while (!over) {
        const unsigned level = chance().one_in(8) ? chance().below(6) : 0;
        host::set_repository_value("quorvane/modules/tarv/", "debug-level", level);
        counted.trace_changes++;
        arena.kernel.advance(level == 0 ? 10 : 1);
    }
}

void Storm::end_receiving() {
    {
        const std::lock_guard guard(queue_mutex_);
        nothing_comes_ = true;
    }
    queue_changed_.notify_all();
}

}  // namespace stress
