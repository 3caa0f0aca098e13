// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The host's logger service: one trace level for the whole host.
#pragma once

#include "platform/repository.h"
#include "platform/types.h"

/* The host-wide trace level, 0 to 5: no line of a higher level is printed by any module. Read it
 * with read_once; the service changes it at any time. */
extern int logger_trace_level PLATFORM_LINK(logger_trace_level);

/* The callback that a module gives to rep_notify_key_change to have its own level follow a key:
 * `context` points at an int, which receives the low 32 bits of the new value. */
void trace_lvl_change_cb(rep_key_t key, u64 value, void* context)
    PLATFORM_LINK(trace_lvl_change_cb);
