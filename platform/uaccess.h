// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Copies from user space.
#pragma once

#include "platform/types.h"

/* Copies `size` bytes from the calling process's memory. Returns the number of bytes that could NOT
 * be copied: 0 is success. Context: process; no spin lock held. */
unsigned long copy_from_user(void* to, const void* from, unsigned long size)
    PLATFORM_LINK(copy_from_user);
