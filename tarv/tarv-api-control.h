// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The control channel: the file under /proc through which an administrator drives the module.
//
// A written line is cut into words and runs one command; what it does is told in the kernel log
// only. Reading yields the cache in the layout of the kernel's ARP table: a read that starts at
// offset 0 makes the text, the reads that continue it hand it out in chunks, and the one that
// reaches its end releases it. While one reader is midway, others get a text that says so.
//
// Writers run one after the other, each for the whole of its command. Everything here runs in
// process context and may sleep.
#pragma once

#include "platform/proc.h"
#include "platform/types.h"

/* Words of a line, and characters of a word; a longer word becomes several. */
inline constexpr u32 TARV_PROC_MAX_WORDS = 30;
inline constexpr u32 TARV_PROC_MAX_WORD_LENGTH = 40;

/* A handler gets the number of words, the command's own included, and all slots for words: those
 * that have none are empty. It may change the words. */
struct tarv_proc_command_t {
    const char* cmd_name;
    void (*cmd_func)(int argc, char** argv);
    const char* help;
};

inline constexpr u32 TARV_PROC_COMMANDS = 19;
extern const tarv_proc_command_t tarv_proc_commands[TARV_PROC_COMMANDS];

/* Makes the channel ready before its file exists; releases what a reader left when it is gone. */
void tarv_proc_start();
void tarv_proc_stop();

write_proc_t tarv_proc_write;
read_proc_t tarv_proc_read;

/* Entries. */
void tarv_proc_cmd_add(int argc, char** argv);
void tarv_proc_cmd_add_ib_arp(int argc, char** argv);
void tarv_proc_cmd_remove(int argc, char** argv);
void tarv_proc_cmd_invalidate(int argc, char** argv);
void tarv_proc_cmd_flush(int argc, char** argv);

/* Paths. */
void tarv_proc_cmd_add_path(int argc, char** argv);
void tarv_proc_cmd_set_static_path(int argc, char** argv);
void tarv_proc_reset_last_path();

/* Inspection. */
void tarv_proc_cmd_show(int argc, char** argv);
void tarv_proc_cmd_show_paths(int argc, char** argv);
void tarv_proc_cmd_dump(int argc, char** argv);
void tarv_proc_cmd_show_stat(int argc, char** argv);

/* Modes. */
void tarv_proc_cmd_halt(int argc, char** argv);
void tarv_proc_cmd_enable(int argc, char** argv);
void tarv_proc_cmd_disable(int argc, char** argv);
void tarv_proc_cmd_sa_queries(int argc, char** argv);
void tarv_proc_cmd_statics_inv(int argc, char** argv);
void tarv_proc_cmd_set_local_gids(int argc, char** argv);
void tarv_proc_cmd_set_local_pkeys(int argc, char** argv);
void tarv_proc_cmd_set_retry_cnt(int argc, char** argv);
