// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The version record: one line that says which module this is, served read-only from the file
// quorvane/NAME/version under /proc.
#pragma once

#include "platform/proc.h"

/* The version line while there is one, else null. */
extern char* module_banner;

/* Makes the line and its file, and the directories where they are missing. `version` and `tag` may
 * be source-control keywords ("$Name: X $"), of which the value is taken. 0 when the file exists
 * afterwards; -1, and no line is left, otherwise. Process context. */
int module_version_init(const char* name, const char* version, const char* tag);

/* Removes the file and the line; the directories stay. 0, or -1 when `name` is null or there was no
 * memory. Process context. */
int module_version_exit(const char* name);

read_proc_t version_read_proc;
