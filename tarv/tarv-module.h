// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The module as its loader sees it.
#pragma once

#include "platform/module.h"
#include "platform/proc.h"

/* Information, parameters, exported symbols, load and unload functions. */
extern const module_info_t tarv_module;

/* The control file's entry; null while there is none. */
extern proc_dir_entry* tarv_proc_entry;

/* Accepted at load and stored; nothing reads it. */
extern u8 tarv_is_mode_redundant;

/* Loads: 0; -1 when the engine could not be started; -12 (ENOMEM) when the control file could not
 * be made. A failed load leaves nothing but the /proc directories. Process context. */
int tarv_module_init();

/* Unloads. An attached driver is expected to have detached itself. Process context. */
void tarv_module_exit();
