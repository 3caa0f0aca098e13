// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What every command says, to right words and to wrong ones, letter by letter.
#include <gmock/gmock.h>

#include "tarv/tarv-api-parse.h"
#include "tests/support/control.h"
#include "tests/support/records.h"

using namespace support;
using testing::IsEmpty;

namespace {

constexpr char hash[] = "tarv_arp_hash";

/* The lines that `command` prints after those of `before` (ended by ';') have run. `fails`: the
 * service whose next call fails. */
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
    EXPECT_EQ(said(GetParam().command), GetParam().lines);
}

constexpr char one_entry[] = "add 10.0.0.1 10.0.0.2 5";
const std::string too_few = "Not enough parameters.";
const std::string known = "The IP allready exists.";
const std::string no_memory = "Not enough memory to allocate new ib-arp entry.";
const std::string bad_ip = "Could not parse ip address.";
const std::string bad_destination = "Could not parse destination ip address.";
const Lines gid_length = {error("parsegidstr", "The gid string is too long or too short")};
const Lines gid_start = {error("parsegidstr", "The gid string should start with 0x")};
const Lines gid_digit = {error("parsegidstr", "Invalid character found in gid address.")};

Lines by(const std::string& function, const std::string& message) {
    return {debug(function, message)};
}

const std::string add = "tarv_proc_cmd_add";
const std::string addib = "tarv_proc_cmd_add_ib_arp";
const std::string removing = "tarv_proc_cmd_remove";
const std::string invalidate = "tarv_proc_cmd_invalidate";
const Lines bad_gid = by(addib, "Could not parse destination gid address.");

INSTANTIATE_TEST_SUITE_P(
    Add, ControlSays,
    testing::Values(Saying{"alone", "", "add", by(add, too_few)},
                    Saying{"too_few", "", "add 10.0.0.1 10.0.0.2", by(add, too_few)},
                    Saying{"source", "", "add 10.0.1 10.0.0.2 5",
                           by(add, "Could not parse source ip address.")},
                    Saying{"destination", "", "add 10.0.0.1 10 5", by(add, bad_destination)},
                    Saying{"right", "", one_entry, by(add, "ARP entry <IP:0200000A> added.")},
                    Saying{"more_words", "", "add 10.0.0.1 10.0.0.2 5 6 7 8 9",
                           by(add, "ARP entry <IP:0200000A> added.")},
                    Saying{"known", one_entry, one_entry,
                           Lines{found("tarv_hash_get_entry", "0200000A"), warning(add, known)}},
                    Saying{"no_memory", "", one_entry, Lines{error(add, no_memory)}, "kmalloc"}),
    row_name);

INSTANTIATE_TEST_SUITE_P(
    AddIbArp, ControlSays,
    testing::Values(
        Saying{"too_few", "", "addibarp 10.0.0.1 10.0.0.2", by(addib, "Wrong usage. <3>")},
        Saying{"source", "", "addibarp 1.2.3 10.0.0.2 0x1",
               by(addib, "Could not parse source ip address.")},
        Saying{"destination", "", "addibarp 10.0.0.1 x 0x1", by(addib, bad_destination)},
        Saying{"gid_of_35_characters", "",
               "addibarp 10.0.0.1 10.0.0.2 0x0fe800000000000000002c90300001234",
               gid_length + bad_gid},
        Saying{"gid_without_digits", "", "addibarp 10.0.0.1 10.0.0.2 0x", gid_length + bad_gid},
        Saying{"gid_in_capitals", "", "addibarp 10.0.0.1 10.0.0.2 0X12", gid_start + bad_gid},
        Saying{"gid_without_0", "", "addibarp 10.0.0.1 10.0.0.2 1x12", gid_start + bad_gid},
        Saying{"gid_with_another_letter", "", "addibarp 10.0.0.1 10.0.0.2 0x12g4",
               gid_digit + bad_gid},
        Saying{"port_0", "", "addibarp 10.0.0.1 10.0.0.3 0x1 7 0x48 0x11 0",
               by(addib, "Could not parse port number.")},
        Saying{"right", "", "addibarp 10.0.0.1 10.0.0.3 0x1 7 0x48 0x11 2 more",
               by(addib, "ARP entry <IP:0300000A> added.")},
        Saying{"known", one_entry, "addibarp 10.0.0.1 10.0.0.2 0x1",
               Lines{found("tarv_hash_get_entry", "0200000A"), warning(addib, known)}},
        Saying{"no_memory", "", "addibarp 10.0.0.1 10.0.0.2 0x1", Lines{error(addib, no_memory)},
               "kmalloc"}),
    row_name);

const Lines not_attached = {
    error("__tarv_get_ib_data",
          "No send_arp_data() registered - can't send ARP request.(hint: call tarv_attach())"),
    debug("tarv_get_ib_data", "status from __tarv_get_ib_data() - -255")};
const Lines removed = {debug("tarv_hash_remove_entry", "IP: 0200000A found and removed.", hash)};

INSTANTIATE_TEST_SUITE_P(
    Entries, ControlSays,
    testing::Values(
        Saying{"remove_alone", "", "remove", by(removing, "Wrong usage. <1>")},
        Saying{"remove_two", "", "remove 10.0.0.1 10.0.0.2", by(removing, "Wrong usage. <3>")},
        Saying{"remove_what", "", "remove 10.0.0", by(removing, bad_ip)},
        Saying{
            "remove_missing", "", "remove 10.0.0.9",
            Lines{warning(removing, "The IP address <0900000A> not found in the ib-arp table.")}},
        Saying{
            "remove_protected", "add 10.0.0.1 10.0.0.2 5;statics_inv off", "remove 10.0.0.2",
            Lines{warning(removing, "The IP address <0200000A> not found in the ib-arp table.")}},
        Saying{"remove", one_entry, "remove 10.0.0.2", removed},
        Saying{"invalidate_two", "", "invalidate 10.0.0.2", by(invalidate, "Wrong usage. <2>")},
        Saying{"invalidate_four", "", "invalidate 10.0.0.2 1 1",
               by(invalidate, "Wrong usage. <4>")},
        Saying{"invalidate_what", "", "invalidate 10.0.0 1", by(invalidate, bad_ip)},
        Saying{"invalidate_negative", "", "invalidate 10.0.0.2 0xffffffff",
               by(invalidate, "Could not parse path_count.")},
        Saying{"invalidate_3", "", "invalidate 10.0.0.2 3", by(invalidate, "Invalid path_count.")},
        Saying{"invalidate", one_entry, "invalidate 10.0.0.2 2", removed + not_attached},
        Saying{"invalidate_missing", "", "invalidate 10.0.0.2 x", not_attached},
        Saying{
            "invalidate_halted", "halt", "invalidate 10.0.0.2 2",
            by("tarv_get_ib_data", "module is in halt state (not sending ARP during stack stop).")},
        Saying{"flush_empty",
               "",
               "flush",
               {debug("tarv_hash_remove_all", "The ARP table is empty.", hash)}},
        Saying{"flush", "add 10.0.0.1 10.0.0.2 5;statics_inv off", "flush it all", {}}),
    row_name);

const std::string queries = "tarv_proc_cmd_sa_queries";
const std::string statics = "tarv_proc_cmd_statics_inv";
const std::string gids = "tarv_proc_cmd_set_local_gids";
const std::string pkeys = "tarv_proc_cmd_set_local_pkeys";
const std::string retry = "tarv_proc_cmd_set_retry_cnt";

INSTANTIATE_TEST_SUITE_P(
    Switches, ControlSays,
    testing::Values(
        Saying{"halt", "", "halt now",
               by("tarv_proc_cmd_halt",
                  "module will get into halt state (not sending ARP during stack stop).")},
        Saying{"enable", "", "enable it", {}}, Saying{"disable", "", "disable it", {}},
        Saying{"queries_what", "", "sa_queries", by(queries, too_few)},
        Saying{"queries_case", "", "sa_queries ON", by(queries, "Illegal parameter.")},
        Saying{"queries_longer", "", "sa_queries only", by(queries, "Illegal parameter.")},
        Saying{"queries_on", "", "sa_queries on extra", by(queries, "SA queries enabled.")},
        Saying{"queries_off", "", "sa_queries off", by(queries, "SA queries disabled.")},
        Saying{"statics_what", "", "statics_inv", by(statics, too_few)},
        Saying{"statics_case", "", "statics_inv Off", by(statics, "Illegal parameter.")},
        Saying{"statics_on", "", "statics_inv on",
               by(statics, "Static arp entries may now be invalidated.")},
        Saying{"statics_off", "", "statics_inv off extra",
               by(statics, "Static entries may NOT be invalidated.")}),
    row_name);

INSTANTIATE_TEST_SUITE_P(
    Tunables, ControlSays,
    testing::Values(
        Saying{"gids_none", "", "setlocalgids", by(gids, "Wrong usage. <1>")},
        Saying{"gids_three", "", "setlocalgids 0x1 0x2 0x3", by(gids, "Wrong usage. <4>")},
        Saying{"gids_first", "", "setlocalgids x 0x2",
               gid_length + by(gids, "Could not parse port1 gid address.")},
        Saying{"gids_second", "", "setlocalgids 0x1 0x",
               gid_length + by(gids, "Could not parse port2 gid address.")},
        Saying{"gids", "", "setlocalgids 0x1 0x2", {}},
        Saying{"pkeys_none", "", "setlocalpkeys", by(pkeys, "Wrong usage. <1>")},
        Saying{"pkeys_three", "", "setlocalpkeys 1 2 3", by(pkeys, "Wrong usage. <4>")},
        Saying{"pkeys_first", "", "setlocalpkeys 0x10000 1",
               by(pkeys, "Could not parse port1 pkey.")},
        Saying{"pkeys_second", "", "setlocalpkeys 0x8001 0",
               by(pkeys, "Could not parse port2 pkey.")},
        Saying{"pkeys", "", "setlocalpkeys 0x8001 0xffff", {}},
        Saying{"retry_none", "", "set_retry_cnt", {error(retry, "Wrong usage. <1>")}},
        Saying{"retry_two", "", "set_retry_cnt 1 2", {error(retry, "Wrong usage. <3>")}},
        Saying{"retry_0", "", "set_retry_cnt 0", {error(retry, "Could not parse retry number.")}},
        Saying{
            "retry_word", "", "set_retry_cnt x", {error(retry, "Could not parse retry number.")}},
        Saying{"retry_11",
               "",
               "set_retry_cnt 11",
               {error(retry, "Can't set retry number to 11 (max number is 10).")}},
        Saying{"retry_10", "", "set_retry_cnt 10", by(retry, "ARP retry number: old: 3, new: 10.")},
        Saying{"retry_1", "set_retry_cnt 5", "set_retry_cnt 1",
               by(retry, "ARP retry number: old: 5, new: 1.")}),
    row_name);

const std::string add_path = "tarv_proc_cmd_add_path";
const std::string set_path = "tarv_proc_cmd_set_static_path";
#define FIELDS " 0 0 64 0 0xffff 0 2 4 2 3 2 18"

INSTANTIATE_TEST_SUITE_P(
    Paths, ControlSays,
    testing::Values(
        Saying{"too_few", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0xffff 0 2 4 2 3 2",
               by(add_path, "Wrong usage. <18>")},
        Saying{"too_many", "", "addpath 10.0.0.2 p 0x1 0x2 5 7" FIELDS " 19 20",
               by(add_path, "Wrong usage. <21>")},
        Saying{"no_memory",
               "",
               "addpath 10.0.0.2 p 0x1 0x2 5 7" FIELDS,
               {error(add_path, "Not enough memory to allocate new path record.")},
               "kmalloc"},
        Saying{"address", "", "addpath 10.0 p 0x1 0x2 5 7" FIELDS, by(add_path, bad_destination)},
        Saying{"which", "", "addpath 10.0.0.2 Q 0x1 0x2 5 7" FIELDS,
               by(add_path, "Could not parse Primary/Secondary flag.")},
        Saying{"dgid", "", "addpath 10.0.0.2 P 0x 0x2 5 7" FIELDS,
               gid_length + by(add_path, "Could not parse destination gid address.")},
        Saying{"sgid", "", "addpath 10.0.0.2 sec 0x1 12345 5 7" FIELDS,
               gid_start + by(add_path, "Could not parse source gid address.")},
        Saying{"dlid_0", "", "addpath 10.0.0.2 p 0x1 0x2 0 7" FIELDS,
               by(add_path, "Could not parse destination lid address.")},
        Saying{"dlid_65536", "", "addpath 10.0.0.2 p 0x1 0x2 65536 7" FIELDS,
               by(add_path, "Could not parse destination lid address.")},
        Saying{"slid", "", "addpath 10.0.0.2 p 0x1 0x2 5 x" FIELDS,
               by(add_path, "Could not parse source lid address.")},
        Saying{"pkey", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0x10000 0 2 4 2 3 2 18",
               by(add_path, "Could not parse Partition Key.")},
        Saying{"mtu", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0xffff 0 2 64 2 3 2 18",
               by(add_path, "Could not parse MTU.")},
        Saying{"rate", "", "addpath 10.0.0.2 p 0x1 0x2 5 7 0 0 64 0 0xffff 0 2 4 2 0 2 18",
               by(add_path, "Could not parse rate.")},
        Saying{"no_entry", "", "addpath 10.0.0.2 p 0x1 0x2 5 7" FIELDS,
               by(add_path, "Error updating path record data.")},
        Saying{"primary", one_entry, "addpath 10.0.0.2 Primary 0x1 0x2 5 7" FIELDS,
               Lines{found("tarv_hash_set_paths", "0200000A"),
                     debug("tarv_hash_set_paths", "Primary path added.", hash)}},
        Saying{"secondary", one_entry, "addpath 10.0.0.2 S 0x1 0x2 5 7" FIELDS,
               Lines{found("tarv_hash_set_paths", "0200000A"),
                     debug("tarv_hash_set_paths", "Secondary path added.", hash)}},
        Saying{"static_too_few", "", "setstaticpath 0 0 64 0 0xffff 0 2 4 2 3 2",
               by(set_path, "Wrong usage. <12>")},
        Saying{"static_too_many", "", "setstaticpath" FIELDS " 1",
               by(set_path, "Wrong usage. <14>")},
        Saying{"static_pkey", "", "setstaticpath 1 0x12345 * * 0 * * 0 * 0 * *",
               by(set_path, "Could not parse Partition Key.")},
        Saying{"static_mtu", "", "setstaticpath * * * * * * * 128 * 0 * *",
               by(set_path, "Could not parse MTU.")},
        Saying{"static_rate", "", "setstaticpath * * * * * * * * * 64 * *",
               by(set_path, "Could not parse rate.")},
        Saying{"static_right", "", "setstaticpath" FIELDS, {}}),
    row_name);

const std::string show = "tarv_proc_cmd_show";
const std::string show_paths = "tarv_proc_cmd_show_paths";
const Lines looking = {error(show, "Looking for IP: 10.0.0.2.")};
const Lines looking_for_paths = {error(show_paths, "Looking for IP: 10.0.0.2.")};
const std::string failed_size = "Failed allocate memory for tarv_hash_entry_t (" +
                                std::to_string(sizeof(tarv_hash_entry_t)) + ").";

INSTANTIATE_TEST_SUITE_P(
    Inspection, ControlSays,
    testing::Values(Saying{"show_none", "", "show", by(show, "Wrong usage. <1>")},
                    Saying{"show_two", "", "show 10.0.0.2 x", by(show, "Wrong usage. <3>")},
                    Saying{"show_what", "", "show 10.0.0", by(show, bad_ip)},
                    Saying{"show_missing", "", "show 10.0.0.2",
                           looking + Lines{error(show, "Entry not found.")}},
                    Saying{"show_no_memory", one_entry, "show 10.0.0.2",
                           looking + Lines{error(show, failed_size)}, "kmalloc"},
                    Saying{"paths_none", "", "show_paths", by(show_paths, "Wrong usage. <1>")},
                    Saying{"paths_two", "", "show_paths 10.0.0.2 x",
                           by(show_paths, "Wrong usage. <3>")},
                    Saying{"paths_what", "", "show_paths x", by(show_paths, bad_ip)},
                    Saying{"paths_missing", "", "show_paths 10.0.0.2",
                           looking_for_paths + Lines{error(show_paths, "Entry not found.")}},
                    Saying{"paths_no_memory",
                           one_entry,
                           "show_paths 10.0.0.2",
                           {error(show_paths, failed_size)},
                           "kmalloc"},
                    Saying{"no_paths", one_entry, "show_paths 10.0.0.2",
                           looking_for_paths + Lines{found("tarv_hash_get_entry", "0200000A")}}),
    row_name);

/* Numbers as every command reads them, seen in a field of 32 bits. */
struct Number {
    const char* name;
    const char* word;
    u32 value;
};

class ControlNumbers : public ControlTest, public testing::WithParamInterface<Number> {};

INSTANTIATE_TEST_SUITE_P(
    Words, ControlNumbers,
    testing::Values(Number{"decimal", "17", 17}, Number{"hexadecimal", "0x48", 0x48},
                    Number{"capital_digits", "0xAb", 0xAB}, Number{"octal", "017", 15},
                    Number{"capital_x_is_octal", "0X12", 0}, Number{"x_alone", "0x", 0},
                    Number{"x_and_no_digit", "0xg", 0}, Number{"octal_ends_at_8", "0178", 15},
                    Number{"ends_at_a_letter", "12abc", 12}, Number{"sign", "-1", 0},
                    Number{"word", "abc", 0}, Number{"truncated", "0x100000007", 7},
                    Number{"largest", "0xfffffffe", 0xFFFFFFFE}),
    row_name);

TEST_P(ControlNumbers, AreReadInBase0) {
    command(std::string("add 10.0.0.1 10.0.0.2 5 1 ") + GetParam().word);
    tarv_arp_data_t record = {};
    ASSERT_EQ(tarv_hash_get_entry_data(ip("10.0.0.2"), &record), tarv_stat_ok);
    EXPECT_EQ(record.qkey, GetParam().value);
    EXPECT_EQ(record.mask, 0x823Bu);
}

/* An address word and the address that comes of it in dotted form; empty: refused. */
struct Address {
    const char* word;
    const char* address;
};

TEST(ControlAddresses, AreReadAsFourNumbers) {
    for (const Address& row : {Address{"1.2.3.4", "1.2.3.4"},
                               {"10.0.0.1.9", "10.0.0.1"},
                               {"1..2.3", "1.0.2.3"},
                               {"300.1.1.1", "44.1.1.1"},
                               {"1.2.3", ""},
                               {"", ""},
                               {"...", "0.0.0.0"},
                               {"010.0x1.2a.3", "10.0.2.3"},
                               {"4294967295.1.1.1", ""},
                               {"1.1.1.4294967295", ""},
                               {"4294967294.1.1.4294967296", "254.1.1.0"},
                               {"1.2.3.4294967295.5", ""},
                               {"1.2.3.4.4294967295", "1.2.3.4"}}) {
        std::string word = row.word;
        u32 ip = 0;
        const bool taken = parseipstr(word.data(), &ip) == tarv_stat_ok;
        EXPECT_EQ(taken ? fabric::format_ip(ip) : "", row.address) << row.word;
    }
}

/* A GID word, and its bytes from the most significant on. */
TEST_F(KernelTest, ReadsGidsAsNumbers) {
    const std::pair<std::string, std::string> rows[] = {
        {"0x1", std::string(30, '0') + "01"},
        {"0xabc", std::string(28, '0') + "0abc"},
        {"0xfe800000000000000002c90300001234", "fe800000000000000002c90300001234"},
        {"0xFE800000000000000002C9030000123", "0fe800000000000000002c9030000123"},
    };
    for (const auto& [written, bytes] : rows) {
        std::string word = written;
        gx_gid_t gid;
        ASSERT_EQ(parsegidstr(word.data(), &gid), tarv_stat_ok);
        EXPECT_EQ(host::kformat("%016Lx%016Lx", gid_high(gid), gid_low(gid)), bytes);
    }
    EXPECT_THAT(console(), IsEmpty());
}

}  // namespace
