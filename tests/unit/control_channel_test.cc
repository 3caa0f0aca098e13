// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Both sides of the control file: how written bytes become words, what is said to a word that is no
// command, and how the table's text is handed out.
#include "platform/memory.h"
#include "tests/support/module_test.h"

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const Lines usage = {
    "usage:",
    "halt         - cancel all pending requests (return timeout) and refuse to accept new ones ",
    "enable       - enables the incoming arp packets processing.",
    "disable      - disables the incoming arps packets processing.",
    "sa_queries   - on/off enables or disables generation of SA path queries.",
    "statics_inv  - on/off in case of 'on' static arp entries may be invalidated.",
    "add          - src_ip dst_ip lid [qp] [q-key] - adds a new static entry to the arp table "
    "having the command line parameters.",
    "addpath      - dst_ip p/s 0xdgid 0xsgid dlid slid raw_traffic flow_lbl hop_lmt traffic_cls "
    "pkey sl_mask mtu_sel mtu rate_sel rate pkt_life_time_sel pkt_life_time - adds a path record "
    "info to the specified entry.",
    "setstaticpath - raw_traffic flow_lbl hop_lmt traffic_cls pkey sl_mask mtu_sel mtu rate_sel "
    "rate pkt_life_time_sel pkt_life_time - sets the path record in case sa_queries disabled.",
    "addibarp     - src_ip dst_ip gid [lid] [qp] [q-key] [port_num] - adds a new static entry to "
    "the arp table having the command line parameters",
    "remove       - ip - removes the specified entry from the arp table if found.",
    "dump         - dumps all the arp table contents and pending arp requests to the klogd.",
    "invalidate   - ip path_count - invalidates a specific entry.",
    "flush        - removes all the entries from the ARP table.",
    "show         - ip - shows a specific entry in the ARP table.",
    "show_stat    - shows privet statistic.",
    "show_paths   - ip - shows all the paths in the specific entry.",
    "setlocalgids - port1gid [port2gid] - sets the local port[s] gid[s].",
    "setlocalpkeys - port1pkey [port2pkey] - sets the local port[s] pkey[s].",
    "set_retry_cnt - cnt - set the number of the internal ib-arp retries.",
};

std::string repeated(const std::string& text, int count) {
    std::string result;
    for (int i = 0; i < count; i++)
        result += text;
    return result;
}

/* What was written, and its words as the console gives them back; no command is called so. */
struct Words {
    const char* name;
    std::string written;
    std::string words;  // empty: there are none
};

class ControlWords : public ControlTest, public testing::WithParamInterface<Words> {};

using namespace std::string_literals;
const std::string forty(40, 'a');

INSTANTIATE_TEST_SUITE_P(
    Lines, ControlWords,
    testing::Values(
        Words{"one", "x\n", " 'x'"}, Words{"case_matters", "Show 1.2.3.4", " 'Show' '1.2.3.4'"},
        Words{"longer_than_a_command", "halting\n", " 'halting'"},
        Words{"every_white_space", "  x 1\t2\v3\f4\r5\xA0\x36\n7\n",
              " 'x' '1' '2' '3' '4' '5' '6' '7'"},
        Words{"without_line_end", "x y", " 'x' 'y'"}, Words{"nothing", "", ""},
        Words{"a_line_end", "\n", ""}, Words{"only_blanks", " \t \n", ""},
        Words{"blank_and_nul", "x \0"s, " 'x' ''"}, Words{"only_nul", "\0"s, " ''"},
        Words{"nul_ends_the_scan", "x y\0z"s, " 'x' 'y'"},
        Words{"word_before_nul_is_lost", "x y\0z\n"s, " 'x'"},
        Words{"other_latin_letters", "\xA1\xFF\x85\n", " '\xA1\xFF\x85'"},
        Words{"length_40", forty + "\n", " '" + forty + "'"},
        Words{"length_40_unended", forty, " '" + forty + "'"},
        Words{"length_41", forty + "b\n", " '" + forty + "' 'b'"},
        Words{"length_45", forty + "bbbbb", " '" + forty + "' 'bbbbb'"},
        Words{"length_81", forty + forty + "b", " '" + forty + "' '" + forty + "' 'b'"},
        Words{"thirty", repeated("x ", 30), repeated(" 'x'", 30)},
        Words{"thirty_one", repeated("x ", 31), repeated(" 'x'", 30)},
        Words{"thirtieth_too_long", repeated("x ", 29) + forty + "b",
              repeated(" 'x'", 29) + " '" + forty + "'"},
        Words{"thirtieth_unended", repeated("x ", 29) + "y", repeated(" 'x'", 29) + " 'y'"},
        Words{"bytes_4096", std::string(4094, ' ') + "xy", " 'xy'"},
        Words{"bytes_4098", std::string(4094, ' ') + "xyz\n", " 'xy'"},
        Words{"bytes_4097_ending_in_a_blank", "x" + std::string(4095, ' ') + "y", " 'x'"}),
    row_name);

TEST_P(ControlWords, AreCutAtWhiteSpace) {
    Lines expected = usage;
    if (!GetParam().words.empty())
        expected.insert(expected.begin(), "pqn /proc: unknown command:" + GetParam().words);
    command(repeated("old ", 30));
    EXPECT_EQ(said(GetParam().written), expected);
}

/* Neither the usage nor what dumps print has a priority of its own, or asks for trace levels. */
TEST_F(ControlTest, PrintsTheUsageWhateverTheLevels) {
    host::set_logger_level(0);
    set_level(0);
    host::clear_console();
    command("nonsense");
    const std::vector<host::LogLine> lines = host::console_lines();
    ASSERT_EQ(lines.size(), 1 + usage.size());
    for (const host::LogLine& line : lines)
        EXPECT_EQ(line.priority, 4) << line.text;
}

TEST_F(ControlTest, RunsNothingOfAWriteThatCannotBeCopied) {
    host::fail_nth("copy_from_user", 1);
    EXPECT_THAT(said("halt"), IsEmpty());
    EXPECT_EQ(halted, 0);
}

TEST_F(ControlTest, CallsTheHandlerWithEmptySlotsBehindTheWords) {
    command("add 10.0.0.1 10.0.0.2 5 6 7 8 9");
    EXPECT_THAT(said("add 10.0.0.1 10.0.0.3"),
                ElementsAre(debug("tarv_proc_cmd_add", "Not enough parameters.")));
    // The NUL counts as an empty word, and an empty word is no address.
    EXPECT_THAT(said("remove \0"s),
                ElementsAre(debug("tarv_proc_cmd_remove", "Could not parse ip address.")));
}

constexpr char header[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";
constexpr char busy[] = "Another call is pending please try later ...\n";

class ControlRead : public ControlTest {
  protected:
    /// Adds entries for 10.0.1.0 and so on.
    void fill(int entries) {
        for (int i = 0; i < entries; i++)
            command("add 10.0.0.1 10.0." + std::to_string(1 + i / 256) + "." +
                    std::to_string(i % 256) + " " + std::to_string(i));
    }
};

TEST_F(ControlRead, LogsAPass) {
    const std::string read = "tarv_proc_read";
    const auto call = [&](const char* off, const char* count) {
        return debug(read, "page = P, *start = null, off = "s + off + ", count = " + count +
                               ", *eof = 0, data = null");
    };
    host::ProcFile file(control_path);
    console();
    file.read(78);
    EXPECT_EQ(masked(), (Lines{call("0", "4E"), debug(read, "arp_string_buff = P, buf_len = 79"),
                               debug(read, "Current chunk size is 78")}));
    host::ProcFile(control_path).read(10);
    EXPECT_EQ(masked(),
              (Lines{call("0", "A"), debug(read, "Another call is pending please try later ...")}));
    file.read(78);
    EXPECT_EQ(masked(), (Lines{call("78", "4E"), debug(read, "Current chunk size is 1"),
                               call("79", "4D"), debug(read, "Current chunk size is 0"),
                               debug(read, "Last iteration reached !!!")}));
}

/* Each of three readers, one told to wait and one who begins when the first has got everything, has
 * a text of his own, whatever he and the others do. */
TEST_F(ControlRead, EveryReaderKeepsHisText) {
    fill(3);
    const std::string whole = read_all(), wait = busy;
    {
        host::ProcFile first(control_path), second(control_path), third(control_path);
        EXPECT_EQ(first.read(100), whole.substr(0, 100));
        EXPECT_EQ(second.read(10), wait.substr(0, 10));
        command("flush");
        EXPECT_EQ(second.read(100), wait.substr(10));
        for (const std::size_t offset : {0, 5, 11, 45, 312, 313, 5000})
            EXPECT_EQ(first.read_at(4096, static_cast<long>(offset)),
                      whole.substr(std::min(offset, whole.size())));
        EXPECT_EQ(third.read(10), std::string(header).substr(0, 10));
        EXPECT_EQ(second.read(100), "");
        EXPECT_EQ(second.read_at(100, 0), wait);
        EXPECT_EQ(first.read(4096), whole.substr(100));
        EXPECT_EQ(first.read(4096), "");
    }
    EXPECT_EQ(read_all(), header);
}

/* A host that does not keep its readers apart: the handler gives nothing out of turn. */
TEST_F(ControlRead, TheHandlerGivesNothingOutOfTurn) {
    const auto reads = [](off_t off, int count) {
        char page[PAGE_SIZE];
        char* start = nullptr;
        int eof = 0;
        const int result = tarv_proc_read(page, &start, off, count, &eof, nullptr);
        return std::string(page, static_cast<std::size_t>(result)) + (eof ? "$" : "");
    };
    fill(3);
    EXPECT_EQ(reads(79, 100), "$");
    const std::string whole = read_all();
    EXPECT_EQ(reads(45, 100), "$");
    EXPECT_EQ(reads(0, 10), whole.substr(0, 10));
    for (const off_t off : {5, 11, 45, 313, 5000})
        EXPECT_EQ(reads(off, 100), "$") << off;
    EXPECT_EQ(reads(0, 100), busy + "$"s);
    EXPECT_EQ(reads(10, 4000), whole.substr(10));
    EXPECT_EQ(reads(313, 10), "");
    EXPECT_EQ(reads(313, 10), "$");
}

TEST_F(ControlRead, IsEmptyWithoutMemoryForItsText) {
    console();
    host::fail_nth("kmalloc", 1);
    EXPECT_EQ(read_all(), "");
    EXPECT_EQ(console().back(),
              error("tarv_hash_print_to_string", "Can't allocate output buffer.", "tarv_arp_hash"));
    EXPECT_EQ(read_all(), header);
}

/* A table that has grown larger than what the kernel has in one piece. */
TEST_F(ControlRead, IsEmptyAboveWhatTheKernelHasInOnePiece) {
    constexpr int entries = 1637;  // and a line, of 80 bytes each
    fill(entries);
    host::set_largest_allocation(host::largest_allocation_of_old);
    EXPECT_EQ(read_all().size(), 79u + entries * 78u);
    command("add 10.0.0.1 10.0.0.2 5");
    console();
    EXPECT_EQ(read_all(), "");
    EXPECT_THAT(console(),
                testing::Contains(error("tarv_hash_print_to_string",
                                        "Can't allocate output buffer.", "tarv_arp_hash")));
    host::set_largest_allocation(host::largest_allocation);
    EXPECT_EQ(read_all().size(), 79u + (entries + 1) * 78u);
}

}  // namespace
