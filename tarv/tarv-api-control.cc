// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Both sides of the control file: cutting a line into words and running its command, and handing
// out the cache as text.
#include "tarv/tarv-api-control.h"

#include "platform/bug.h"
#include "platform/memory.h"
#include "platform/printk.h"
#include "platform/semaphore.h"
#include "platform/string.h"
#include "platform/uaccess.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash.h"

namespace {

constexpr char tarv_unit[] = "tarv_api";
constexpr const char* reading = TARV_NAME_OF(tarv_proc_read);

/* Held for a whole write, so that the buffers and the commands have one user at a time. */
constinit semaphore tarv_proc_write_cmd = {};

constinit char buffer[4096] TA_GUARDED(tarv_proc_write_cmd) = {};
constinit char buffs[TARV_PROC_MAX_WORDS][TARV_PROC_MAX_WORD_LENGTH + 1] TA_GUARDED(
    tarv_proc_write_cmd) = {};

/* Held while the text is made, handed out and released. */
constinit semaphore tarv_proc_read_cmd = {};

constinit char* arp_string_buff TA_GUARDED(tarv_proc_read_cmd) = nullptr;
constinit u32 buf_len TA_GUARDED(tarv_proc_read_cmd) = 0;

/* The offset at which the reader of the held text comes back. Whoever comes with another one is not
 * that reader. */
constinit off_t next_off TA_GUARDED(tarv_proc_read_cmd) = 0;

constexpr char busy_text[] = "Another call is pending please try later ...\n";

/* Cuts the `count` bytes in `buffer` into words; returns how many there are. */
u32 tokenise(unsigned long count, char** args) TA_REQ(tarv_proc_write_cmd) {
    char** slot = args;
    for (auto& word : buffs) {
        word[0] = '\0';
        *slot++ = word;
    }
    u32 argn = 0;
    u32 j = 0;
    unsigned long at = 0;
    while (at < count && buffer[at] != '\0' && argn < TARV_PROC_MAX_WORDS) {
        // A byte too far would land in another word or in what lies behind the last, where nobody
        // would notice.
        KASSERT(at < sizeof buffer && argn < TARV_PROC_MAX_WORDS && j <= TARV_PROC_MAX_WORD_LENGTH);
        if (kisspace(static_cast<u8>(buffer[at]))) {
            if (j > 0) {
                args[argn++][j] = '\0';
                j = 0;
            }
            at++;
        } else if (j < TARV_PROC_MAX_WORD_LENGTH) {
            args[argn][j++] = buffer[at++];
        } else {
            args[argn++][j] = '\0';
            j = 0;
        }
    }
    if (argn < TARV_PROC_MAX_WORDS) {
        args[argn][j] = '\0';
        if (count > 0 && !kisspace(static_cast<u8>(buffer[count - 1])))
            argn++;
    }
    return argn;
}

void print_usage() {
    printk("usage:\n");
    for (const tarv_proc_command_t& command : tarv_proc_commands)
        printk("%-12s - %s\n", command.cmd_name, command.help);
}

void print_unknown(u32 argn, char** args) {
    printk("pqn /proc: unknown command:");
    for (u32 i = 0; i < argn; i++)
        printk(" '%s'", args[i]);
    printk("\n");
}

void run_command(u32 argn, char** args) {
    if (argn == 0) {
        print_usage();
        return;
    }
    for (const tarv_proc_command_t& command : tarv_proc_commands) {
        if (kstrcmp(args[0], command.cmd_name) == 0) {
            command.cmd_func(static_cast<int>(argn), args);
            return;
        }
    }
    print_unknown(argn, args);
    print_usage();
}

int end_of_file(char** start, int* eof, int length) {
    *eof = 1;
    *start = nullptr;
    return length;
}

/* A new pass begins: makes the text. False when there is none to hand out: `*result` is what the
 * read returns then. */
bool begin_pass(char* page, char** start, int* eof, int* result) TA_REQ(tarv_proc_read_cmd) {
    if (arp_string_buff) {
        __builtin_memcpy(page, busy_text, sizeof busy_text);
        TARV_LOG_FROM(reading, TARV_DEBUG, "%s", busy_text);
        *result = end_of_file(start, eof, sizeof busy_text - 1);
        return false;
    }
    tarv_hash_print_to_string(&arp_string_buff, &buf_len);
    if (buf_len == 0) {
        *result = end_of_file(start, eof, 0);
        return false;
    }
    next_off = 0;
    TARV_LOG_FROM(reading, TARV_DEBUG, "arp_string_buff = %p, buf_len = %d\n",
                  static_cast<void*>(arp_string_buff), buf_len);
    return true;
}

/* Copies the next chunk of the held text into the page. */
int hand_out_chunk(char* page, char** start, off_t off, int count) TA_REQ(tarv_proc_read_cmd) {
    const long left = static_cast<long>(buf_len) - off;
    long chunk = left;
    if (left > count) {
        chunk = count;
        TARV_LOG_FROM(reading, TARV_DEBUG, "Current chunk size is %d\n", count);
    } else {
        TARV_LOG_FROM(reading, TARV_DEBUG, "Current chunk size is %ld\n", left);
    }
    __builtin_memcpy(page, arp_string_buff + off, static_cast<size_t>(chunk));
    // A small number here is no address: it says by how much the offset of the next call advances.
    *start = reinterpret_cast<char*>(chunk);
    next_off = off + chunk;
    return static_cast<int>(chunk);
}

void release_text() TA_REQ(tarv_proc_read_cmd) {
    kfree(arp_string_buff);
    arp_string_buff = nullptr;
}

}  // namespace

constinit const tarv_proc_command_t tarv_proc_commands[TARV_PROC_COMMANDS] = {
    {"halt", tarv_proc_cmd_halt,
     "cancel all pending requests (return timeout) and refuse to accept new ones "},
    {"enable", tarv_proc_cmd_enable, "enables the incoming arp packets processing."},
    {"disable", tarv_proc_cmd_disable, "disables the incoming arps packets processing."},
    {"sa_queries", tarv_proc_cmd_sa_queries,
     "on/off enables or disables generation of SA path queries."},
    {"statics_inv", tarv_proc_cmd_statics_inv,
     "on/off in case of 'on' static arp entries may be invalidated."},
    {"add", tarv_proc_cmd_add,
     "src_ip dst_ip lid [qp] [q-key] - adds a new static entry to the arp table having the command "
     "line parameters."},
    {"addpath", tarv_proc_cmd_add_path,
     "dst_ip p/s 0xdgid 0xsgid dlid slid raw_traffic flow_lbl hop_lmt traffic_cls pkey sl_mask "
     "mtu_sel mtu rate_sel rate pkt_life_time_sel pkt_life_time - adds a path record info to the "
     "specified entry."},
    {"setstaticpath", tarv_proc_cmd_set_static_path,
     "raw_traffic flow_lbl hop_lmt traffic_cls pkey sl_mask mtu_sel mtu rate_sel rate "
     "pkt_life_time_sel pkt_life_time - sets the path record in case sa_queries disabled."},
    {"addibarp", tarv_proc_cmd_add_ib_arp,
     "src_ip dst_ip gid [lid] [qp] [q-key] [port_num] - adds a new static entry to the arp table "
     "having the command line parameters"},
    {"remove", tarv_proc_cmd_remove,
     "ip - removes the specified entry from the arp table if found."},
    {"dump", tarv_proc_cmd_dump,
     "dumps all the arp table contents and pending arp requests to the klogd."},
    {"invalidate", tarv_proc_cmd_invalidate, "ip path_count - invalidates a specific entry."},
    {"flush", tarv_proc_cmd_flush, "removes all the entries from the ARP table."},
    {"show", tarv_proc_cmd_show, "ip - shows a specific entry in the ARP table."},
    {"show_stat", tarv_proc_cmd_show_stat, "shows privet statistic."},
    {"show_paths", tarv_proc_cmd_show_paths, "ip - shows all the paths in the specific entry."},
    {"setlocalgids", tarv_proc_cmd_set_local_gids,
     "port1gid [port2gid] - sets the local port[s] gid[s]."},
    {"setlocalpkeys", tarv_proc_cmd_set_local_pkeys,
     "port1pkey [port2pkey] - sets the local port[s] pkey[s]."},
    {"set_retry_cnt", tarv_proc_cmd_set_retry_cnt,
     "cnt - set the number of the internal ib-arp retries."},
};

void tarv_proc_start() {
    sema_init(&tarv_proc_write_cmd, 1, "tarv_proc_write_cmd");
    sema_init(&tarv_proc_read_cmd, 1, "tarv_proc_read_cmd");
    tarv_proc_reset_last_path();
}

void tarv_proc_stop() {
    const semaphore_guard guard(tarv_proc_read_cmd);
    release_text();
}

int tarv_proc_write(file*, const char* user_buffer, unsigned long count, void*) {
    const semaphore_guard guard(tarv_proc_write_cmd);
    const unsigned long taken = count < sizeof buffer ? count : sizeof buffer;
    if (copy_from_user(buffer, user_buffer, taken) == 0) {
        char* args[TARV_PROC_MAX_WORDS];
        run_command(tokenise(taken, args), args);
    }
    return static_cast<int>(count);
}

int tarv_proc_read(char* page, char** start, off_t off, int count, int* eof, void* data) {
    TARV_LOG(TARV_DEBUG, "page = %p, *start = %p, off = %d, count = %X, *eof = %d, data = %p\n",
             static_cast<void*>(page), static_cast<void*>(*start), static_cast<int>(off), count,
             *eof, data);
    const semaphore_guard guard(tarv_proc_read_cmd);
    int result = 0;
    if (off == 0 && !begin_pass(page, start, eof, &result))
        return result;
    if (!arp_string_buff || off != next_off)
        return end_of_file(start, eof, 0);
    result = hand_out_chunk(page, start, off, count);
    if (off == static_cast<off_t>(buf_len)) {
        TARV_LOG(TARV_DEBUG, "Last iteration reached !!!\n");
        release_text();
    }
    *eof = 0;
    return result;
}
