// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How a storm plays the lines of a script.
//
// What a line says of addresses, kinds and times holds; where it names a value that the records
// would show (a GID, a LID, the words of a static entry), one that the identities know stands for
// it.
#include <algorithm>
#include <thread>

#include "app/script_verbs.h"
#include "host/services.h"
#include "tests/races/report.h"
#include "tests/races/storm.h"
#include "tests/simulation/choose.h"

namespace stress {
namespace {

constexpr long most_waiting = 3000;

/* Verbs that one thread alone can play (a load, a fault at the n-th call) are left out. */
struct Verb {
    const char* name;
    Entrance Storm::*entrance;  // null: it goes through none
    void (Storm::*play)(app::ScriptLine& line);
};
constexpr Verb verbs[] = {
    {"resolve", &Storm::module, &Storm::resolve},
    {"lookup-gid", &Storm::module, &Storm::look_up},
    {"arp", nullptr, &Storm::hear_packet},
    {"peer", nullptr, &Storm::hear_peer},
    {"detach", &Storm::module, &Storm::reattach},
    {"control", &Storm::files, &Storm::command},
    {"cat", &Storm::files, &Storm::read_file},
    {"reader", &Storm::files, &Storm::read_part},
    {"event", &Storm::weather, &Storm::raise_event},
    {"pkeys", &Storm::weather, &Storm::change_pkeys},
    {"fabric", &Storm::weather, &Storm::disturb},
    {"calm", &Storm::weather, &Storm::calm},
    {"level", nullptr, &Storm::change_level},
    {"tick", nullptr, &Storm::rest},
};

std::vector<std::string> all_addresses() {
    std::vector<std::string> addresses = {text_of(our_address())};
    for (unsigned peer = 0; peer < peer_count; peer++)
        addresses.push_back(text_of(address_of(peer)));
    return addresses;
}

unsigned any_peer() {
    return chance().below(peer_count);
}

/* Whoever has no peer's address is taken for one. */
unsigned peer_of(app::ScriptLine& line) {
    return (line.ip("an address") >> 24) % peer_count;
}

/* Also a number of paths that is none, which counts as none. */
tarv_paths_t paths_of(const std::string& word) {
    return word == "primary" ? tarv_paths_primary
           : word == "both"  ? tarv_paths_both
           : word == "none"  ? tarv_paths_none
                             : static_cast<tarv_paths_t>(7);
}

int port_of(app::ScriptLine& line) {
    line.take("port");
    return static_cast<int>(line.number("a port", 2));
}

}  // namespace

Storm::Storm(Arena& arena)
    : arena_(arena),
      addresses_(all_addresses()),
      lids_{arena.fabric.adapter().port(1).lid, arena.fabric.adapter().port(2).lid},
      manager_(arena.fabric.subnet().manager()) {}

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

void Storm::play() {
    const std::uint64_t seed = std::random_device{}();
    for (std::uint64_t number = 0; !over; number++) {
        simulation::Chooser chooser(seed, number, addresses_);
        for (std::uint64_t left = chooser.length(); left > 0 && !over; left--)
            play_line(chooser.next_line());
    }
}

void Storm::play_line(const std::string& text) {
    app::ScriptLine line("storm", 0, text);
    const std::string name = line.word("a verb");
    for (const Verb& verb : verbs) {
        if (name != verb.name)
            continue;
        if (verb.entrance)
            go_through(this->*verb.entrance, [&] { (this->*verb.play)(line); });
        else
            (this->*verb.play)(line);
    }
}

/* In the time of the clock a tick is hardly anything. */
void Storm::rest(app::ScriptLine& line) {
    if (line.number("N", app::most_ticks) < 10)
        std::this_thread::yield();
    else
        arena_.kernel.advance(1);
}

// Clients.

/* A client that is told something sometimes asks again out of its callback, on whatever thread that
 * is. */
void Storm::be_told() {
    waiting.fetch_sub(1, std::memory_order_relaxed);
    if (chance().one_in(16))
        new_request().ask(arena_.client, any_peer(), tarv_paths_both, false);
}

void Storm::resolve(app::ScriptLine& line) {
    const unsigned peer = peer_of(line);
    tarv_paths_t paths = tarv_paths_none;
    bool invalidate = false, callback = true;
    while (!line.at_end()) {
        if (line.take("paths"))
            paths = paths_of(line.word("paths"));
        else if (line.take("invalidate"))
            invalidate = true;
        else if (line.take("no-callback"))
            callback = false;
        else
            line.word("what is of no interest here");
    }
    if (!callback) {
        ask_cache(arena_.client, peer, paths);
        return;
    }
    if (waiting.load(std::memory_order_relaxed) >= most_waiting)
        return;
    waiting.fetch_add(1, std::memory_order_relaxed);
    if (new_request().ask(arena_.client, peer, paths, invalidate, &on_reply_) != tarv_stat_pending)
        waiting.fetch_sub(1, std::memory_order_relaxed);
}

void Storm::look_up(app::ScriptLine&) {
    gx_gid_t gid = arena_.identities.heard(any_peer(), generation_, TARV_ARP_OP_REPLY).gid;
    tarv_arp_data_t record = {};
    counted.lookups++;
    if (arena_.lookup(&gid, &record) == tarv_stat_ok)
        arena_.identities.check(record, record.dst_ip, "a lookup by GID");
}

// The driver and the peers.

void Storm::hear(unsigned peer, tarv_arp_op_t operation) {
    if (!arena_.driver.entrance.enter())
        return;
    const unsigned next = generation_.fetch_add(1, std::memory_order_relaxed);
    arena_.driver.deliver(arena_.identities.heard(peer, next, operation));
    arena_.driver.entrance.leave();
}

void Storm::hear_packet(app::ScriptLine& line) {
    tarv_arp_op_t operation =
        line.word("an operation") == "request" ? TARV_ARP_OP_REQUEST : TARV_ARP_OP_REPLY;
    line.take("from");
    const unsigned peer = peer_of(line);
    if (line.take("op"))
        operation = static_cast<tarv_arp_op_t>(line.number("N", 0xFFFF));
    hear(peer, operation);
}

/* A peer speaks unasked. That it goes or changes is what its next packet tells. */
void Storm::hear_peer(app::ScriptLine& line) {
    const unsigned peer = peer_of(line);
    hear(peer, line.take("asks") ? TARV_ARP_OP_REQUEST : TARV_ARP_OP_REPLY);
}

/* The request is lost, fails, or is answered: in the middle of the call, on the receiving thread
 * while the call lasts, or there in its own time. Who is handing over a packet himself cannot wait
 * for another one to be handed over. */
tarv_stat_t Storm::send(const tarv_arp_data_t& request) {
    const unsigned peer = (request.dst_ip >> 24) % peer_count;
    const tarv_stat_t result = chance().one_in(12) ? tarv_stat_error : tarv_stat_ok;
    switch (chance().below(8)) {
        case 0:
            break;
        case 1:
        case 2:
            hear(peer, TARV_ARP_OP_REPLY);
            break;
        case 3: {
            if (arena_.driver.entrance.inside())
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

void Storm::end_receiving() {
    {
        const std::lock_guard guard(queue_mutex_);
        nothing_comes_ = true;
    }
    queue_changed_.notify_all();
}

void Storm::reattach(app::ScriptLine&) {
    const std::lock_guard guard(attachment_);
    arena_.driver.detach();
    arena_.driver.attach();
    counted.attachments++;
}

// The fabric.

/* What gets a value has one of two, the first half of the time the one that it began with. */
void Storm::raise_event(app::ScriptLine& line) {
    const std::string type = line.word("an event");
    const int port = port_of(line);
    const bool first = !line.take("to") || line.number("VALUE", 0xFFFF) % 2 == 0;
    counted.events++;
    if (type == "link_up" || type == "link_down")
        arena_.fabric.set_link(port, type == "link_up");
    else if (type == "sm_change")
        arena_.fabric.move_sm(
            first ? manager_.lid : arena_.identities.heard(0, 1, TARV_ARP_OP_REPLY).lid,
            first ? 0 : 1);
    else if (type == "lid")
        arena_.fabric.set_lid(port,
                              first ? lids_[port - 1] : static_cast<std::uint16_t>(2000 + port));
    else if (type == "mtu")
        arena_.fabric.set_mtu(port, first ? 4 : 5);
    else
        arena_.fabric.raise_event(static_cast<u32>(app::parse_number(type).value_or(0)), port);
}

void Storm::change_pkeys(app::ScriptLine& line) {
    const int port = port_of(line);
    arena_.fabric.set_pkeys(port, line.take("0xFFFF") ? std::vector<std::uint16_t>{0xFFFF}
                                                      : std::vector<std::uint16_t>{0x7FFF, 0xFFFF});
    counted.events++;
}

/* Peers speak through the storm's own driver, to which the fabric does nothing. */
void Storm::disturb(app::ScriptLine& line) {
    app::ScriptLine ahead = line;
    if (!ahead.take("sa") && !ahead.take("port"))
        return;
    const app::ScriptReading reading{.site = &arena_.site};
    app::read_fault_action(line, reading)(arena_.fabric);
}

void Storm::calm(app::ScriptLine&) {
    arena_.fabric.sa().clear();
    for (const int port : {1, 2})
        arena_.fabric.port(port).clear();
}

// Administrators.

/* A halt is for the end, since it leaves nothing to do. */
std::string Storm::in_our_words(const std::string& command) {
    const Identities& identities = arena_.identities;
    const unsigned peer = first_static_peer + chance().below(peer_count - first_static_peer);
    const unsigned number = generation_;
    const auto says = [&](const char* word) { return command.find(word) != command.npos; };
    if (says("addibarp"))
        return identities.add_ib_arp_command(peer, number);
    if (says("addpath"))
        return identities.add_path_command(peer, number);
    if (says("add"))
        return identities.add_command(peer, number);
    if (says("setstaticpath"))
        return identities.set_static_path_command(number);
    if (says("setlocalgids"))
        return "setlocalgids " + identities.local_gid_text(1) + " " + identities.local_gid_text(2);
    if (says("setlocalpkeys"))
        return "setlocalpkeys 0xFFFF 0xFFFF";
    return says("alt") ? "nonsense" : command;
}

void Storm::command(app::ScriptLine& line) {
    const bool newline = !line.take("-n");
    const std::string text = app::unescape(line.verbatim()).value_or("");
    Arena::command(in_our_words(text) + (newline ? "\n" : ""));
}

namespace {

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

/* The first reading of all is what the others are compared with. */
void check_version(const std::string& text) {
    static const std::string first = text;
    if (text != first)
        violation("torn record: the version file reads \"%s\"", text.c_str());
}

}  // namespace

void Storm::read_file(app::ScriptLine&) {
    check_table(Arena::read(control_path, 1 << 20));
    if (const std::string version = Arena::read(version_path, 4096); !version.empty())
        check_version(version);
}

/* The reader goes away before the end of the file. */
void Storm::read_part(app::ScriptLine& line) {
    line.number("a reader", 2);
    if (line.take("read"))
        check_table(Arena::read(control_path, line.number("SIZE", 4096)));
}

/* Mostly nothing is logged: the console is one lock for all, and would keep them apart. */
void Storm::change_level(app::ScriptLine& line) {
    if (!line.take("module"))
        return;
    const auto set = [](unsigned level) {
        host::set_repository_value("quorvane/modules/tarv/", "debug-level", level);
    };
    set(static_cast<unsigned>(line.number("N", 5)));
    arena_.kernel.advance(1);
    set(0);
    counted.trace_changes++;
}

}  // namespace stress
