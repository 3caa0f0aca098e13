// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Kernel memory.
//
// Two kinds. What must come at once is small: an entry, a record, a request, never more than a
// page. What may be waited for may be large: the table's text takes 80 bytes an entry, four
// megabytes for 50,000 of them, which is more than many a kernel has in one run of pages. So a host
// serves those from wherever it has memory, or has none above a size of its own, and is given them
// back where it may sleep as well.
#pragma once

#include "platform/types.h"

inline constexpr size_t PAGE_SIZE = 4096;

enum gfp_t : u32 {
    GFP_ATOMIC = 0x20,  // never sleeps; any context; a page at most
    GFP_KERNEL = 0xD0,  // may sleep; process and event context only, no spin lock held; any size
};

/* Allocates `size` bytes, aligned for any object, with undefined contents.
 * Null when there is no memory. Context: as `flags` says. */
void* kmalloc(size_t size, gfp_t flags) PLATFORM_LINK(kmalloc);

/* Gives back what kmalloc returned, once; a null pointer does nothing. Context: any; of more than a
 * page, process and event only, no spin lock held. */
void kfree(const void* memory) PLATFORM_LINK(kfree);
