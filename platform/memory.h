// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Kernel memory.
#pragma once

#include "platform/types.h"

enum gfp_t : u32 {
    GFP_ATOMIC = 0x20,  // never sleeps; any context
    GFP_KERNEL = 0xD0,  // may sleep; process and event context only, no spin lock held
};

/* Allocates `size` bytes, aligned for any object, with undefined contents.
 * Null when there is no memory. Context: as `flags` says. */
void* kmalloc(size_t size, gfp_t flags) PLATFORM_LINK(kmalloc);

/* Gives back what kmalloc returned, once; a null pointer does nothing. Context: any. */
void kfree(const void* memory) PLATFORM_LINK(kfree);
