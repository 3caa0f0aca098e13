// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Integer types, link names and the attribute of a format string.
//
// Everything below platform/ is the waist: what the module asks of the kernel that it runs in, and
// nothing else. A header names one service. The names are the platform's usual ones; what the
// linker sees carries the prefix `plat_`, because a real kernel has symbols and macros of its own
// with these names. A host implements a service by including its header and defining its functions.
//
// The words used for the contexts from which a call may be made:
//   process  a task that may sleep: module load and unload, /proc handlers, clients that say so
//   event    the verbs layer's event context, which may sleep
//   timer    a timer function: never sleeps
//   receive  the driver's receive path and the GSI service's completions: never sleeps
//   any      all of these, also with interrupts disabled and a spin lock held
#pragma once

#include <stddef.h>

using u8 = unsigned char;
using u16 = unsigned short;
using u32 = unsigned int;
using u64 = unsigned long long;

static_assert(sizeof(u16) == 2 && sizeof(u32) == 4 && sizeof(u64) == 8 && sizeof(void*) == 8);

/* Gives a function or a variable of the waist its link name. */
#define PLATFORM_LINK(name) __asm__("plat_" #name)

/* Lets the compiler check the arguments of a printf-like function; both count from 1. */
#define PLATFORM_FORMAT(text, args) __attribute__((format(printf, text, args)))
