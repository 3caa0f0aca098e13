// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Entries of the /proc file system with read_proc and write_proc handlers.
#pragma once

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

/* Takes `count` bytes that a process wrote; `buffer` is in the process's memory. Result: the number
 * of bytes consumed or a negative error number. Context: process. */
using write_proc_t = int(struct file* file, const char* buffer, unsigned long count, void* data);

struct proc_dir_entry {
    u16 mode;
    void* data;
    read_proc_t* read_proc;
    write_proc_t* write_proc;
    struct module* owner;
};

inline constexpr size_t PAGE_SIZE = 4096;

/* Creates a file. `name` is a path below `parent` (null: the root of /proc) whose directories
 * exist; `mode` holds its permissions, 0 means readable by all (0444). Null when it cannot be made.
 * The caller fills in the handlers afterwards. Context: process. */
proc_dir_entry* create_proc_entry(const char* name, u16 mode, proc_dir_entry* parent)
    PLATFORM_LINK(create_proc_entry);

/* Creates a directory; null when it cannot be made or stands already. Context: process. */
proc_dir_entry* proc_mkdir(const char* name, proc_dir_entry* parent) PLATFORM_LINK(proc_mkdir);

/* Removes a file or an empty directory after its running handlers have returned. Context: process.
 */
void remove_proc_entry(const char* name, proc_dir_entry* parent) PLATFORM_LINK(remove_proc_entry);
