// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Names between modules: who offers a function, and who uses it and so keeps its owner loaded.
 */
#include <linux/export.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kernel/include/inter_module.h"
#include "kernel/services/rules.h"
#include "kernel/services/services.h"

struct name {
	struct list_head link;
	const char *text;
	struct module *owner;
	const void *data;
};

static LIST_HEAD(names);
static DEFINE_MUTEX(names_mutex); /* guards the list */

static struct name *find(const char *text)
{
	struct name *n;

	lockdep_assert_held(&names_mutex);
	list_for_each_entry (n, &names, link)
		if (!strcmp(n->text, text))
			return n;
	return NULL;
}

/* It has no way to tell of a failure, so it has none. */
void plat_inter_module_register(const char *text, struct module *owner, const void *data)
{
	struct name *n;

	rules_may_sleep("inter_module_register");
	n = kmalloc(sizeof(*n), GFP_KERNEL | __GFP_NOFAIL);
	*n = (struct name){ .text = text, .owner = owner, .data = data };
	mutex_lock(&names_mutex);
	WARN(find(text), "the name %s is taken\n", text);
	list_add(&n->link, &names);
	mutex_unlock(&names_mutex);
}
EXPORT_SYMBOL_GPL(plat_inter_module_register);

void plat_inter_module_unregister(const char *text)
{
	struct name *n;

	rules_may_sleep("inter_module_unregister");
	mutex_lock(&names_mutex);
	n = find(text);
	if (!WARN(!n, "nobody registered the name %s\n", text))
		list_del(&n->link);
	mutex_unlock(&names_mutex);
	kfree(n);
}
EXPORT_SYMBOL_GPL(plat_inter_module_unregister);

const void *inter_module_get(const char *text)
{
	const void *data = NULL;
	struct name *n;

	mutex_lock(&names_mutex);
	n = find(text);
	if (n && try_module_get(n->owner))
		data = n->data;
	mutex_unlock(&names_mutex);
	return data;
}
EXPORT_SYMBOL(inter_module_get);

void inter_module_put(const char *text)
{
	struct name *n;

	mutex_lock(&names_mutex);
	n = find(text);
	if (!WARN(!n, "nobody registered the name %s\n", text))
		module_put(n->owner);
	mutex_unlock(&names_mutex);
}
EXPORT_SYMBOL(inter_module_put);
