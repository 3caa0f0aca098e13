// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * An assertion of the module that does not hold.
 */
#include <linux/bug.h>
#include <linux/printk.h>

#include "kernel/seam/calls.h"

void plat_bug(const char *expression, const char *file, u32 line)
{
	pr_emerg("tarv: %s line %u: %s does not hold\n", file, line, expression);
	BUG();
}
