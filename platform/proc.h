// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Entries of the /proc file system with read_proc and write_proc handlers.
//
// A read_proc handler is not told who reads. The module makes its text at offset 0, hands it out
// read by read, and lets nobody else begin until the reader has come to its end. That rests on two
// promises of the host, which alone knows the open files:
//   a pass is finished  When a file is closed whose reader has got something and not yet the end,
//                       the host goes on calling the handler from where he was, discarding what it
//                       gives, until it gives no more. One interrupted reader does not keep all
//                       others out.
//   a text has an owner What the handler gave belongs to the open file for which it was asked. The
//                       host keeps it, serves from it whoever reads again or seeks, and having been
//                       told the end (`*eof`, or nothing given) asks no more: a reader who was told
//                       to try later never gets into the middle of another one's pass.
// Reads of one open file come one after the other. Those of several files may come at once, and so
// may writes: the handlers have semaphores of their own.
#pragma once

#include "platform/memory.h"
#include "platform/module.h"
#include "platform/types.h"

using off_t = long;

struct file;

/* Serves a read at file offset `off`. The kernel hands in a page-sized buffer, of which `count`
 * bytes at most are wanted, and calls again with a higher offset while the result is positive and
 * `*eof` is 0. Result: the number of bytes made available.
 *
 * Where they lie is told by `*start`, which is null on entry.
 *
 * Null: the file's whole text, from offset 0 on, stands in the page; the kernel takes its part.
 *
 * An address inside the page: the bytes for `off` begin there.
 *
 * A small number, below the page's address: the bytes begin at the page's start, and the file
 * offset advances by that number.
 *
 * Context: process. */
using read_proc_t = int(char* page, char** start, off_t off, int count, int* eof, void* data);

/* Takes `count` bytes that a process wrote, of any number; `buffer` is in the process's memory and
 * read with copy_from_user. `file` is not looked at. Result: the number of bytes consumed or a
 * negative error number. Context: process. */
using write_proc_t = int(struct file* file, const char* buffer, unsigned long count, void* data);

struct proc_dir_entry {
    u16 mode;
    void* data;
    read_proc_t* read_proc;
    write_proc_t* write_proc;
    struct module* owner;
};

/* Creates a file. `name` is a path below `parent` (null: the root of /proc) whose directories
 * exist; `mode` holds its permissions, 0 means readable by all (0444). Null when it cannot be made.
 * The caller fills in the handlers afterwards; who opens the file before gets an error or nothing.
 * Context: process. */
proc_dir_entry* create_proc_entry(const char* name, u16 mode, proc_dir_entry* parent)
    PLATFORM_LINK(create_proc_entry);

/* Creates a directory; null when it cannot be made or stands already. Context: process. */
proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) PLATFORM_LINK(proc_mkdir);

/* Removes a file or an empty directory after its running handlers have returned. Context: process.
 */
void remove_proc_entry(const char* name, proc_dir_entry* parent) PLATFORM_LINK(remove_proc_entry);
