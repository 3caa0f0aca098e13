// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Hosts 2 to 5 are asked for; our own is host 1. In each scenario the outcome that a client has
// where nothing fails stands beside its request: it shows that the scenario does what it is for.
#include "tests/simulation/failures_scenarios.h"

#include "fabric/sa.h"

namespace soak {
namespace {

constexpr auto none = tarv_paths_none;
constexpr auto primary = tarv_paths_primary;
constexpr auto both = tarv_paths_both;

constexpr unsigned long one_second = 1000;
constexpr unsigned long all_retries = 25'000;

void begin(World& world) {
    world.load();
    world.switch_on();
}

/* Once before the directories below /proc are there, once after. */
void load_twice(World& world) {
    world.load();
    world.read_version();
    world.set_level(5);
    world.set_level(4);
    world.unload();
    world.load();
    world.unload();
}

void resolve(World& world) {
    begin(world);
    world.ask(2, none);
    world.ask(3, primary);
    world.ask(4, both);
    world.pass(one_second);
    world.ask(2, primary);  // the address is known, the path is not
    world.pass(one_second);
    world.ask(4, both);
    world.ask(4, both, tarv_stat_ok, true);
    world.pass(one_second);
}

/* Peers that make themselves known, unasked and again. */
void hear_peers(World& world) {
    begin(world);
    world.fabric().peer_asks(World::ip_of(2));
    world.fabric().peer_announces(World::ip_of(3));
    world.pass(one_second);
    world.fabric().peer_announces(World::ip_of(2));
    world.pass(one_second);
    world.ask(2, both);
    world.ask(3, none);
}

void static_path(World& world) {
    world.load();
    world.command("enable");
    world.command("setstaticpath 0 0 0 0 0x8001 3 0 4 0 3 0 18");
    world.ask(2, both);
    world.ask(3, none);
    world.pass(one_second);
    world.fabric().peer_announces(World::ip_of(4));
    world.pass(one_second);
    world.ask(4, primary);
    // A second address of our own: the path starts and ends here.
    world.fabric().ipoib().add_address(World::ip_of(5));
    world.fabric().peer_announces(World::ip_of(5));
    world.pass(one_second);
}

void arp_retries(World& world) {
    begin(world);
    world.fabric().peer(World::ip_of(2)).drop_next(1);
    world.fabric().peer(World::ip_of(3)).drop_all();
    world.fabric().peer(World::ip_of(4)).drop_all();
    world.ask(2, both);
    world.ask(3, none, tarv_stat_timeout);
    world.ask(4, primary);
    world.pass(one_second / 2);
    // The re-issue finds the address, and asks for the path to it.
    world.command("addibarp 10.0.0.1 10.0.0.4 " + world.gid_of(4) + " 5");
    world.pass(all_retries);
}

void sa_retries(World& world) {
    begin(world);
    world.fabric().sa().faults().drop_next(1);
    world.ask(2, both);
    world.pass(6 * one_second);
    world.fabric().sa().faults().drop_all();
    world.ask(3, primary, tarv_stat_timeout);
    world.pass(all_retries);
}

/* Two requests wait for one GID. Who is told first has the other's entry taken out of the cache. */
void vanishing_entry(World& world) {
    begin(world);
    world.command("addibarp 10.0.0.1 10.0.0.4 " + world.gid_of(4) + " 5");
    world.command("addibarp 10.0.0.1 10.0.0.5 " + world.gid_of(4) + " 5");
    world.ask(4, primary);
    world.then_renew(5);
    world.ask(5, primary);
    world.pass(one_second);
}

/* Answers that are late, too short, of another kind, over several segments. */
void strange_answers(World& world) {
    begin(world);
    fabric::Sa& sa = world.fabric().sa();
    sa.answer_with_status(0x0700, 1);
    world.ask(2, primary);
    world.pass(all_retries);
    sa.answer_with_attribute(0x0035, 1);
    sa.answer_with_class_version(1, 1);
    world.ask(3, primary);
    world.pass(all_retries);
    sa.answer_over_rmpp(fabric::PathRecord::wire_size, 1);
    world.ask(4, both);
    world.pass(all_retries);
    sa.answer_truncated_to(40, 1);
    sa.faults().delay(3500);
    world.ask(5, both);
    world.pass(all_retries);
}

/* A path to ourselves has the P_Key of our own port, and the first of the table will not do. */
void own_address(World& world) {
    begin(world);
    for (int port = 1; port <= world.fabric().adapter().ports(); ++port)
        world.fabric().set_pkeys(port, {0x7FFF, 0xFFFF});
    world.pass(one_second);
    world.command("addibarp 10.0.0.1 10.0.0.1 " + world.gid_of(1) + " 2");
    world.ask(1, both);
    world.pass(one_second);
}

void ports(World& world) {
    begin(world);
    world.ask(2, both);
    world.pass(one_second);
    world.fabric().move_sm(9, 1);
    world.pass(one_second);
    world.fabric().set_link(1, false);
    world.pass(one_second);
    world.ask(2, primary);
    world.pass(one_second);
    world.fabric().set_link(1, true);
    world.fabric().raise_event(0x77, 1);
    world.pass(one_second);
    world.fabric().set_lid(1, 0x55);
    world.fabric().set_mtu(1, 3);
    world.fabric().set_pkeys(1, {0xFFFF, 0x8001});
    world.pass(one_second);
    world.ask(2, both);
    world.pass(one_second);
}

void commands(World& world) {
    begin(world);
    world.read_table();
    world.command("add 10.0.0.1 10.0.0.2 5 6 7");
    world.command("addibarp 10.0.0.1 10.0.0.3 " + world.gid_of(3) + " 5");
    world.command("addpath 10.0.0.3 p " + world.gid_of(3) + " " + world.gid_of(1) +
                  " 5 2 0 0 0 0 0xffff 0 0 4 0 3 0 18");
    world.command("addpath 10.0.0.3 s * * * * * * * * * * * * * * * *");
    world.command("show 10.0.0.3");
    world.command("show_paths 10.0.0.3");
    world.read_table();
    world.ask(3, both);
    world.command("remove 10.0.0.2");
    world.command("invalidate 10.0.0.4 2");
    world.command("statics_inv off");
    world.command("add 10.0.0.1 10.0.0.5 5");
    world.command("invalidate 10.0.0.5 1");
    world.pass(one_second);
    world.command("setstaticpath 0 0 0 0 0x8001 3 0 4 0 3 0 18");
    world.command("setlocalgids " + world.gid_of(1));
    world.command("setlocalpkeys 0xffff 0xffff");
    world.command("set_retry_cnt 2");
    world.command("sa_queries off");
    world.command("disable");
    world.command("enable");
    world.command("dump");
    world.command("show_stat");
    world.command("flush");
    world.command("nonsense");
    world.command("");
    world.pass(all_retries);
}

void halt(World& world) {
    begin(world);
    world.fabric().peer(World::ip_of(2)).drop_all();
    world.fabric().sa().faults().drop_all();
    world.ask(2, none, tarv_stat_timeout);
    world.ask(3, both, tarv_stat_timeout);
    world.pass(one_second / 2);
    world.command("halt");
    world.ask(4, none, tarv_stat_error);
}

/* The driver goes while a request waits, and comes back. */
void change_driver(World& world) {
    begin(world);
    world.fabric().peer(World::ip_of(2)).drop_all();
    world.ask(2, primary, tarv_stat_error);
    world.detach();
    world.ask(3, none, tarv_stat_error);
    world.pass(2 * one_second);
    world.attach();
    world.fabric().peer(World::ip_of(2)).clear();
    world.ask(2, primary);
    world.pass(one_second);
}

/* An entry of the administrator's answers who waited for that host, and stays. */
void protected_entry(World& world) {
    begin(world);
    world.fabric().peer(World::ip_of(2)).delay(400);
    world.ask(2, none);
    world.ask(2, primary);
    world.command("addibarp 10.0.0.1 10.0.0.2 " + world.gid_of(2) + " 5");
    world.command("statics_inv off");
    world.pass(one_second);
    world.ask(2, both, tarv_stat_ok, true);
    world.pass(one_second);
}

/* More requests for one host than are sent on. */
void crowd(World& world) {
    begin(world);
    world.fabric().peer(World::ip_of(2)).delay(200);
    for (int i = 0; i < 6; ++i)
        world.ask(2, primary);
    world.pass(one_second);
    world.fabric().peer_announces(World::ip_of(3));
    world.pass(one_second / 2);
    world.fabric().sa().faults().delay(200);
    for (int i = 0; i < 6; ++i)
        world.ask(3, primary);
    world.pass(one_second);
}

void leave_in_the_middle(World& world) {
    begin(world);
    world.fabric().peer(World::ip_of(2)).drop_all();
    world.fabric().sa().faults().drop_all();
    world.ask(3, both, tarv_stat_timeout);
    world.ask(4, primary, tarv_stat_timeout);
    world.pass(one_second / 2);
    world.ask(2, none, tarv_stat_pending);
    world.unload();
}

void grow_old(World& world) {
    begin(world);
    world.ask(2, both);
    world.ask(3, none);
    world.pass(320'000);
    world.ask(2, primary);
    world.pass(one_second);
}

constexpr Scenario table[] = {
    {"load", "load, version file, trace level, unload, load again", load_twice},
    {"resolve", "ARP, path queries, hits, a forced renewal", resolve},
    {"peers", "ARP data that nobody asked for", hear_peers},
    {"static-path", "intake while SA queries are off", static_path},
    {"arp-retries", "re-issues of ARP requests, the move to the SA", arp_retries},
    {"sa-retries", "re-issues of path queries", sa_retries},
    {"sa-answers", "answers that are wrong, segmented, short, late", strange_answers},
    {"vanishing", "an entry that is gone when its path comes", vanishing_entry},
    {"own-address", "the P_Key of a local port", own_address},
    {"ports", "SM, LID, MTU, P_Key and link events", ports},
    {"commands", "all 19 commands, the table, the usage", commands},
    {"halt", "halt with requests on both lists", halt},
    {"driver", "detach and attach with a request waiting", change_driver},
    {"static-entry", "a protected entry that answers who waits", protected_entry},
    {"crowd", "identical requests beyond the limit", crowd},
    {"unload", "unload with requests on both lists", leave_in_the_middle},
    {"ageing", "entries that nobody used", grow_old},
};

}  // namespace

std::span<const Scenario> scenarios() {
    return table;
}

}  // namespace soak
