// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The tick counter.
#pragma once

#include "platform/types.h"

/* Ticks to the second, whatever rate the kernel's own clock has. */
inline constexpr unsigned long HZ = 1000;

/* The number of ticks since some moment before the module was loaded. It never goes back; its low
 * 32 bits wrap, so differences of them are taken in unsigned 32-bit arithmetic. Context: any. */
unsigned long jiffies() PLATFORM_LINK(jiffies);
