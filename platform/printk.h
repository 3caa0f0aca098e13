// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The kernel's console.
#pragma once

#include "platform/types.h"

/* Appends formatted text to the kernel log and returns the number of characters.
 *
 * "<N>" at the start of a line is its console priority, 0 (most urgent) to 7; a line without one
 * gets the kernel's default. The conversions are the kernel's: %p prints 16 hexadecimal digits
 * without 0x, %LX and %Lx a u64. Lines of concurrent callers never mix inside one call. Context:
 * any. */
int printk(const char* format, ...) PLATFORM_LINK(printk) PLATFORM_FORMAT(1, 2);
