// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Memory, and what users of the files give.
 */
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "kernel/seam/calls.h"
#include "kernel/services/rules.h"

/*
 * What may sleep may be large: the text of a table has 80 bytes an entry, and kmalloc ends at 4
 * MiB. Such memory is freed where that may sleep, too.
 */
void *plat_kmalloc(size_t size, plat_gfp_t flags)
{
	bool atomic = flags == PLAT_GFP_ATOMIC;

	if (!atomic)
		rules_may_sleep("kmalloc(GFP_KERNEL)");
	if (rules_fail("kmalloc"))
		return NULL;
	return atomic ? kmalloc(size, GFP_ATOMIC) : kvmalloc(size, GFP_KERNEL);
}

void plat_kfree(const void *memory)
{
	if (is_vmalloc_addr(memory))
		rules_may_sleep("kfree of large memory");
	kvfree(memory);
}

unsigned long plat_copy_from_user(void *to, const void *from, unsigned long size)
{
	rules_may_sleep("copy_from_user");
	if (rules_fail("copy_from_user"))
		return size;
	return copy_from_user(to, (const void __force __user *)from, size);
}
