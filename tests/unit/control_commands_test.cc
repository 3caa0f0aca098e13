// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What every command says, to right words and to wrong ones, letter by letter.
#include "tarv/tarv-api-parse.h"
#include "tests/support/module_test.h"

using namespace support;

namespace {

/* The lines that `command` prints after those of `before` (ended by ';') have run, each as level,
 * function and message; the command functions' common prefix is left out. `fails`: the service
 * whose next call fails. */
struct Saying {
    const char* name;
    const char* before;
    const char* command;
    Lines lines;
    const char* fails = nullptr;
};

class ControlSays : public ControlTest, public testing::WithParamInterface<Saying> {};

TEST_P(ControlSays, WhatCameOfTheCommand) {
    std::istringstream before(GetParam().before);
    for (std::string line; std::getline(before, line, ';');)
        command(line);
    if (GetParam().fails)
        host::fail_nth(GetParam().fails, 1);
    console();
    command(GetParam().command);
    Lines lines = told("tarv_api");
    for (std::string& line : lines)
        if (line.compare(1, 15, " tarv_proc_cmd_") == 0)
            line.erase(2, 14);
    EXPECT_EQ(lines, GetParam().lines);
}

constexpr char entry[] = "add 10.0.0.1 10.0.0.2 5";
const std::string found_it = debug("tarv_hash_get_entry", "IP: 0200000A found.", "tarv_arp_hash");
const std::string no_memory = ": Not enough memory to allocate new ib-arp entry.";
const std::string gid_length = "E parsegidstr: The gid string is too long or too short";
const std::string gid_start = "E parsegidstr: The gid string should start with 0x";
const std::string gid_digit = "E parsegidstr: Invalid character found in gid address.";
const std::string bad_gid = "D add_ib_arp: Could not parse destination gid address.";

#define SAYINGS(group, ...) \
    INSTANTIATE_TEST_SUITE_P(group, ControlSays, testing::ValuesIn({__VA_ARGS__}), row_name)
using Row = Saying;

// clang-format off
SAYINGS(Add,
    Row{"alone", "", "add", {"D add: Not enough parameters."}},
    Row{"too_few", "", "add 10.0.0.1 10.0.0.2", {"D add: Not enough parameters."}},
    Row{"source", "", "add 10.0.1 10.0.0.2 5", {"D add: Could not parse source ip address."}},
    Row{"target", "", "add 10.0.0.1 10 5", {"D add: Could not parse destination ip address."}},
    Row{"right", "", entry, {"D add: ARP entry <IP:0200000A> added."}},
    Row{"more", "", "add 10.0.0.1 10.0.0.2 5 6 7 8 9", {"D add: ARP entry <IP:0200000A> added."}},
    Row{"known", entry, entry, {found_it, "W add: The IP allready exists."}},
    Row{"no_memory", "", entry, {"E add" + no_memory}, "kmalloc"});

SAYINGS(AddIbArp,
    Row{"too_few", "", "addibarp 1.2.3.4 10.0.0.2", {"D add_ib_arp: Wrong usage. <3>"}},
    Row{"source", "", "addibarp 1.2.3 10.0.0.2 0x1", {"D add_ib_arp: Could not parse source ip address."}},
    Row{"target", "", "addibarp 1.2.3.4 x 0x1", {"D add_ib_arp: Could not parse destination ip address."}},
    Row{"gid_of_35_characters", "", "addibarp 1.2.3.4 10.0.0.2 0x0fe800000000000000002c90300001234", {gid_length, bad_gid}},
    Row{"gid_without_digits", "", "addibarp 1.2.3.4 10.0.0.2 0x", {gid_length, bad_gid}},
    Row{"gid_in_capitals", "", "addibarp 1.2.3.4 10.0.0.2 0X12", {gid_start, bad_gid}},
    Row{"gid_without_0", "", "addibarp 1.2.3.4 10.0.0.2 1x12", {gid_start, bad_gid}},
    Row{"gid_with_another_letter", "", "addibarp 1.2.3.4 10.0.0.2 0x12g4", {gid_digit, bad_gid}},
    Row{"port_0", "", "addibarp 1.2.3.4 10.0.0.3 0x1 7 0x48 0x11 0", {"D add_ib_arp: Could not parse port number."}},
    Row{"right", "", "addibarp 1.2.3.4 10.0.0.3 0x1 7 0x48 0x11 2 x", {"D add_ib_arp: ARP entry <IP:0300000A> added."}},
    Row{"known", entry, "addibarp 1.2.3.4 10.0.0.2 0x1", {found_it, "W add_ib_arp: The IP allready exists."}},
    Row{"no_memory", "", "addibarp 1.2.3.4 10.0.0.2 0x1", {"E add_ib_arp" + no_memory}, "kmalloc"});

const std::string unknown = "W remove: The IP address <0900000A> not found in the ib-arp table.";
const std::string removed = debug("tarv_hash_remove_entry", "IP: 0200000A found and removed.", "tarv_arp_hash");
const std::string no_driver = "E __tarv_get_ib_data: No send_arp_data() registered - can't send ARP request.(hint: call tarv_attach())";
const std::string refused = "D tarv_get_ib_data: status from __tarv_get_ib_data() - -255";
const std::string halt_state = "module is in halt state (not sending ARP during stack stop).";
const std::string empty = debug("tarv_hash_remove_all", "The ARP table is empty.", "tarv_arp_hash");

SAYINGS(Entries,
    Row{"remove_alone", "", "remove", {"D remove: Wrong usage. <1>"}},
    Row{"remove_two", "", "remove 10.0.0.1 10.0.0.2", {"D remove: Wrong usage. <3>"}},
    Row{"remove_what", "", "remove 10.0.0", {"D remove: Could not parse ip address."}},
    Row{"remove_missing", entry, "remove 10.0.0.9", {unknown}},
    Row{"remove_protected", "add 10.0.0.1 10.0.0.9 5;statics_inv off", "remove 10.0.0.9", {unknown}},
    Row{"remove", entry, "remove 10.0.0.2", {removed}},
    Row{"invalidate_two", "", "invalidate 10.0.0.2", {"D invalidate: Wrong usage. <2>"}},
    Row{"invalidate_four", "", "invalidate 10.0.0.2 1 1", {"D invalidate: Wrong usage. <4>"}},
    Row{"invalidate_what", "", "invalidate 10.0.0 1", {"D invalidate: Could not parse ip address."}},
    Row{"invalidate_negative", "", "invalidate 10.0.0.2 0xffffffff", {"D invalidate: Could not parse path_count."}},
    Row{"invalidate_3", "", "invalidate 10.0.0.2 3", {"D invalidate: Invalid path_count."}},
    Row{"invalidate", entry, "invalidate 10.0.0.2 2", {removed, no_driver, refused}},
    Row{"invalidate_missing", "", "invalidate 10.0.0.2 x", {no_driver, refused}},
    Row{"invalidate_halted", "halt", "invalidate 10.0.0.2 2", {"D tarv_get_ib_data: " + halt_state}},
    Row{"flush_empty", "", "flush", {empty}},
    Row{"flush", "add 10.0.0.1 10.0.0.2 5;statics_inv off", "flush it all", {}});

SAYINGS(Switches,
    Row{"halt", "", "halt now", {"D halt: module will get into halt state (not sending ARP during stack stop)."}},
    Row{"enable", "", "enable it", {}},
    Row{"disable", "", "disable it", {}},
    Row{"queries_what", "", "sa_queries", {"D sa_queries: Not enough parameters."}},
    Row{"queries_case", "", "sa_queries ON", {"D sa_queries: Illegal parameter."}},
    Row{"queries_longer", "", "sa_queries only", {"D sa_queries: Illegal parameter."}},
    Row{"queries_on", "", "sa_queries on extra", {"D sa_queries: SA queries enabled."}},
    Row{"queries_off", "", "sa_queries off", {"D sa_queries: SA queries disabled."}},
    Row{"statics_what", "", "statics_inv", {"D statics_inv: Not enough parameters."}},
    Row{"statics_case", "", "statics_inv Off", {"D statics_inv: Illegal parameter."}},
    Row{"statics_on", "", "statics_inv on", {"D statics_inv: Static arp entries may now be invalidated."}},
    Row{"statics_off", "", "statics_inv off x", {"D statics_inv: Static entries may NOT be invalidated."}});

SAYINGS(Tunables,
    Row{"gids_none", "", "setlocalgids", {"D set_local_gids: Wrong usage. <1>"}},
    Row{"gids_three", "", "setlocalgids 0x1 0x2 0x3", {"D set_local_gids: Wrong usage. <4>"}},
    Row{"gids_first", "", "setlocalgids x 0x2", {gid_length, "D set_local_gids: Could not parse port1 gid address."}},
    Row{"gids_second", "", "setlocalgids 0x1 0x", {gid_length, "D set_local_gids: Could not parse port2 gid address."}},
    Row{"gids", "", "setlocalgids 0x1 0x2", {}},
    Row{"pkeys_none", "", "setlocalpkeys", {"D set_local_pkeys: Wrong usage. <1>"}},
    Row{"pkeys_three", "", "setlocalpkeys 1 2 3", {"D set_local_pkeys: Wrong usage. <4>"}},
    Row{"pkeys_first", "", "setlocalpkeys 0x10000 1", {"D set_local_pkeys: Could not parse port1 pkey."}},
    Row{"pkeys_second", "", "setlocalpkeys 0x8001 0", {"D set_local_pkeys: Could not parse port2 pkey."}},
    Row{"pkeys", "", "setlocalpkeys 0x8001 0xffff", {}},
    Row{"retry_none", "", "set_retry_cnt", {"E set_retry_cnt: Wrong usage. <1>"}},
    Row{"retry_two", "", "set_retry_cnt 1 2", {"E set_retry_cnt: Wrong usage. <3>"}},
    Row{"retry_0", "", "set_retry_cnt 0", {"E set_retry_cnt: Could not parse retry number."}},
    Row{"retry_word", "", "set_retry_cnt x", {"E set_retry_cnt: Could not parse retry number."}},
    Row{"retry_11", "", "set_retry_cnt 11", {"E set_retry_cnt: Can't set retry number to 11 (max number is 10)."}},
    Row{"retry_10", "", "set_retry_cnt 10", {"D set_retry_cnt: ARP retry number: old: 3, new: 10."}},
    Row{"retry_1", "set_retry_cnt 5", "set_retry_cnt 1", {"D set_retry_cnt: ARP retry number: old: 5, new: 1."}});

#define FIELDS " 0 0 64 0 0xffff 0 2 4 2 3 2 18"
const std::string bad = "D add_path: Could not parse ";
const std::string bad_static = "D set_static_path: Could not parse ";
const std::string path_to = debug("tarv_hash_set_paths", "IP: 0200000A found.", "tarv_arp_hash");

SAYINGS(Paths,
    Row{"too_few", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0xffff 0 2 4 2 3 2", {"D add_path: Wrong usage. <18>"}},
    Row{"too_many", "", "addpath 10.0.0.2 p 0x1 0x2 5 7" FIELDS " 19 20", {"D add_path: Wrong usage. <21>"}},
    Row{"no_memory", "", "addpath 10.0.0.2 p 0x1 0x2 5 7" FIELDS, {"E add_path: Not enough memory to allocate new path record."}, "kmalloc"},
    Row{"address", "", "addpath 10.0 p 0x1 0x2 5 7" FIELDS, {bad + "destination ip address."}},
    Row{"which", "", "addpath 10.0.0.2 Q 0x1 0x2 5 7" FIELDS, {bad + "Primary/Secondary flag."}},
    Row{"dgid", "", "addpath 10.0.0.2 P 0x 0x2 5 7" FIELDS, {gid_length, bad + "destination gid address."}},
    Row{"sgid", "", "addpath 10.0.0.2 sec 0x1 12345 5 7" FIELDS, {gid_start, bad + "source gid address."}},
    Row{"dlid_0", "", "addpath 10.0.0.2 p 0x1 0x2 0 7" FIELDS, {bad + "destination lid address."}},
    Row{"dlid_65536", "", "addpath 10.0.0.2 p 0x1 0x2 65536 7" FIELDS, {bad + "destination lid address."}},
    Row{"slid", "", "addpath 10.0.0.2 p 0x1 0x2 5 x" FIELDS, {bad + "source lid address."}},
    Row{"pkey", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0x10000 0 2 4 2 3 2 18", {bad + "Partition Key."}},
    Row{"mtu", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0xffff 0 2 64 2 3 2 18", {bad + "MTU."}},
    Row{"rate", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0xffff 0 2 4 2 0 2 18", {bad + "rate."}},
    Row{"no_entry", "", "addpath 10.0.0.2 p 0x1 0x2 5 7" FIELDS, {"D add_path: Error updating path record data."}},
    Row{"primary", entry, "addpath 10.0.0.2 Primary 0x1 0x2 5 7" FIELDS, {path_to, debug("tarv_hash_set_paths", "Primary path added.", "tarv_arp_hash")}},
    Row{"secondary", entry, "addpath 10.0.0.2 S 0x1 0x2 5 7" FIELDS, {path_to, debug("tarv_hash_set_paths", "Secondary path added.", "tarv_arp_hash")}},
    Row{"static_too_few", "", "setstaticpath 0 0 64 0 0xffff 0 2 4 2 3 2", {"D set_static_path: Wrong usage. <12>"}},
    Row{"static_too_many", "", "setstaticpath" FIELDS " 1", {"D set_static_path: Wrong usage. <14>"}},
    Row{"static_pkey", "", "setstaticpath 1 0x12345 * * 0 * * 0 * 0 * *", {bad_static + "Partition Key."}},
    Row{"static_mtu", "", "setstaticpath * * * * * * * 128 * 0 * *", {bad_static + "MTU."}},
    Row{"static_rate", "", "setstaticpath * * * * * * * * * 64 * *", {bad_static + "rate."}},
    Row{"static_right", "", "setstaticpath" FIELDS, {}});

const std::string entry_memory = "Failed allocate memory for tarv_hash_entry_t (" + std::to_string(sizeof(tarv_hash_entry_t)) + ").";

SAYINGS(Inspection,
    Row{"show_none", "", "show", {"D show: Wrong usage. <1>"}},
    Row{"show_two", "", "show 10.0.0.2 x", {"D show: Wrong usage. <3>"}},
    Row{"show_what", "", "show 10.0.0", {"D show: Could not parse ip address."}},
    Row{"show_missing", "", "show 10.0.0.2", {"E show: Looking for IP: 10.0.0.2.", "E show: Entry not found."}},
    Row{"show_no_memory", entry, "show 10.0.0.2", {"E show: Looking for IP: 10.0.0.2.", "E show: " + entry_memory}, "kmalloc"},
    Row{"paths_none", "", "show_paths", {"D show_paths: Wrong usage. <1>"}},
    Row{"paths_two", "", "show_paths 10.0.0.2 x", {"D show_paths: Wrong usage. <3>"}},
    Row{"paths_what", "", "show_paths x", {"D show_paths: Could not parse ip address."}},
    Row{"paths_missing", "", "show_paths 10.0.0.2", {"E show_paths: Looking for IP: 10.0.0.2.", "E show_paths: Entry not found."}},
    Row{"paths_no_memory", entry, "show_paths 10.0.0.2", {"E show_paths: " + entry_memory}, "kmalloc"},
    Row{"no_paths", entry, "show_paths 10.0.0.2", {"E show_paths: Looking for IP: 10.0.0.2.", found_it}});
// clang-format on

}  // namespace
