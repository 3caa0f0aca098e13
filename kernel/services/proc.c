// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The tree below /proc: making and removing entries.
 *
 * What stands is kept in a list, because today's /proc warns where it once only failed: of a file
 * whose directory is missing, of one that stands already, of a directory that goes while something
 * is in it.
 */
#include <linux/export.h>
#include <linux/fs.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kernel/services/rules.h"
#include "kernel/services/services.h"

static LIST_HEAD(entries); /* newest first, so what is in a directory before the directory */
static DEFINE_MUTEX(entries_mutex); /* guards the list */

static struct entry *find(const char *path, size_t length)
{
	struct entry *e;

	list_for_each_entry (e, &entries, link)
		if (!strncmp(e->path, path, length) && !e->path[length])
			return e;
	return NULL;
}

/* The directory in which `path` stands (null: /proc itself); false when there is none. */
static bool find_parent(const char *path, struct proc_dir_entry **parent, const char **name)
{
	const char *slash = strrchr(path, '/');
	struct entry *e;

	*parent = NULL;
	*name = slash ? slash + 1 : path;
	if (!slash)
		return true;
	e = find(path, slash - path);
	if (!e || !e->directory)
		return false;
	*parent = e->pde;
	return true;
}

static struct entry *make(const char *path, u16 mode, bool directory)
{
	struct entry *e = kzalloc(struct_size(e, path, strlen(path) + 1), GFP_KERNEL);
	struct proc_dir_entry *parent;
	const char *name;

	if (!e)
		return NULL;
	strscpy(e->path, path, strlen(path) + 1);
	e->plat.mode = mode;
	e->directory = directory;
	mutex_init(&e->reading);
	mutex_init(&e->writing);
	mutex_lock(&entries_mutex);
	if (!find(path, strlen(path)) && find_parent(path, &parent, &name))
		e->pde = directory
				 ? proc_mkdir(name, parent)
				 : proc_create_data(name, mode ?: 0444, parent, &entry_file_ops, e);
	if (e->pde)
		list_add(&e->link, &entries);
	mutex_unlock(&entries_mutex);
	if (e->pde)
		return e;
	kfree(e);
	return NULL;
}

static struct plat_proc_entry *make_below_root(const char *path, u16 mode,
					       struct plat_proc_entry *parent, bool directory,
					       const char *call)
{
	struct entry *e;

	rules_may_sleep(call);
	if (rules_fail(call) || WARN(parent, "%s: %s is not given from the root\n", call, path))
		return NULL;
	e = make(path, mode, directory);
	return e ? &e->plat : NULL;
}

struct plat_proc_entry *plat_create_proc_entry(const char *path, u16 mode,
					       struct plat_proc_entry *parent)
{
	return make_below_root(path, mode, parent, false, "create_proc_entry");
}
EXPORT_SYMBOL_GPL(plat_create_proc_entry);

struct plat_proc_entry *plat_proc_mkdir(const char *path, struct plat_proc_entry *parent)
{
	return make_below_root(path, 0, parent, true, "proc_mkdir");
}
EXPORT_SYMBOL_GPL(plat_proc_mkdir);

/* proc_remove waits for handlers that run; who still has the file open gets EIO from then on. */
static void take_away(struct entry *e)
{
	proc_remove(e->pde);
	kfree(e);
}

void plat_remove_proc_entry(const char *path, struct plat_proc_entry *parent)
{
	struct entry *e;

	rules_may_sleep("remove_proc_entry");
	mutex_lock(&entries_mutex);
	e = find(path, strlen(path));
	if (!WARN(parent || !e, "there is no entry %s\n", path))
		list_del(&e->link);
	mutex_unlock(&entries_mutex);
	if (e)
		take_away(e);
}
EXPORT_SYMBOL_GPL(plat_remove_proc_entry);

void proc_stop(void)
{
	struct entry *e, *next;

	list_for_each_entry_safe (e, next, &entries, link)
		take_away(e);
	INIT_LIST_HEAD(&entries);
}
