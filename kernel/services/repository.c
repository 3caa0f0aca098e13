// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The host's configuration repository, and the logger service whose levels follow it.
 *
 * The repository stands in sysfs, each key a directory and each value a file of one number:
 *
 *   /sys/kernel/quorvane/modules/tarv/debug-level    tarv's own trace level, 0 to 5
 *   /sys/kernel/quorvane/logger/trace-level          the host-wide one: no module prints above it
 *
 * Values live as long as the services, so a module that is loaded again finds them as they were
 * left.
 */
#include <linux/export.h>
#include <linux/kobject.h>
#include <linux/kstrtox.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/sysfs.h>

#include "kernel/services/rules.h"
#include "kernel/services/services.h"

#define HIGHEST_LEVEL 5

int plat_logger_trace_level = HIGHEST_LEVEL;
EXPORT_SYMBOL_GPL(plat_logger_trace_level);

/* The keys that there are. Each has one value. */
struct rep_key {
	const char *path;
	const char *value_name;
	u64 value;
};

struct rep_notification {
	struct list_head link;
	struct rep_key *key;
	rep_change_cb_t *callback;
	void *context;
};

static struct rep_key root;
static struct rep_key tarv_key = { "quorvane/modules/tarv/", "debug-level", 0 };

/*
 * Guards the values and the notifications. It is held while callbacks run, so that whoever takes a
 * notification back waits for its callback; a callback must not call the repository.
 */
static DEFINE_MUTEX(repository_mutex);
static LIST_HEAD(notifications);

rep_key_t plat_rep_get_root(void)
{
	return &root;
}
EXPORT_SYMBOL_GPL(plat_rep_get_root);

int plat_rep_open_key(rep_key_t from, const char *path, u32 flags, rep_key_t *key)
{
	rules_may_sleep("rep_open_key");
	if (rules_fail("rep_open_key"))
		return -EIO;
	if (from != &root || strcmp(path, tarv_key.path))
		return -ENOENT;
	*key = &tarv_key;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_rep_open_key);

int plat_rep_get_value(rep_key_t key, const char *name, u32 flags, void *value, u32 *size)
{
	rules_may_sleep("rep_get_value");
	if (rules_fail("rep_get_value"))
		return -EIO;
	if (!key->value_name || strcmp(name, key->value_name))
		return -ENOENT;
	if (*size != sizeof(key->value))
		return -EINVAL;
	mutex_lock(&repository_mutex);
	memcpy(value, &key->value, sizeof(key->value));
	mutex_unlock(&repository_mutex);
	return 0;
}
EXPORT_SYMBOL_GPL(plat_rep_get_value);

int plat_rep_notify_key_change(rep_key_t key, u32 flags, u32 events, rep_change_cb_t *callback,
			       void *context, rep_notify_t *handle)
{
	struct rep_notification *n;

	rules_may_sleep("rep_notify_key_change");
	n = rules_fail("rep_notify_key_change") ? NULL : kmalloc(sizeof(*n), GFP_KERNEL);
	if (!n)
		return -ENOMEM;
	*n = (struct rep_notification){ .key = key, .callback = callback, .context = context };
	mutex_lock(&repository_mutex);
	list_add(&n->link, &notifications);
	mutex_unlock(&repository_mutex);
	*handle = n;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_rep_notify_key_change);

/* An open key is the key itself. */
void plat_rep_close_key(rep_key_t key)
{
}
EXPORT_SYMBOL_GPL(plat_rep_close_key);

void plat_rep_notify_del(rep_notify_t handle)
{
	rules_may_sleep("rep_notify_del");
	if (!handle)
		return;
	mutex_lock(&repository_mutex);
	list_del(&handle->link);
	mutex_unlock(&repository_mutex);
	kfree(handle);
}
EXPORT_SYMBOL_GPL(plat_rep_notify_del);

void plat_trace_lvl_change_cb(rep_key_t key, u64 value, void *context)
{
	WRITE_ONCE(*(int *)context, (int)value);
}
EXPORT_SYMBOL_GPL(plat_trace_lvl_change_cb);

static void set_value(struct rep_key *key, u64 value)
{
	struct rep_notification *n;

	mutex_lock(&repository_mutex);
	key->value = value;
	list_for_each_entry (n, &notifications, link)
		if (n->key == key)
			n->callback(key, value, n->context);
	mutex_unlock(&repository_mutex);
}

/* What sysfs has of it. */

static int parse_level(const char *text, unsigned int *level)
{
	int error = kstrtouint(text, 0, level);

	return error || *level > HIGHEST_LEVEL ? -EINVAL : 0;
}

static ssize_t debug_level_show(struct kobject *kobj, struct kobj_attribute *attr, char *to)
{
	return sysfs_emit(to, "%llu\n", READ_ONCE(tarv_key.value));
}

static ssize_t debug_level_store(struct kobject *kobj, struct kobj_attribute *attr,
				 const char *from, size_t size)
{
	unsigned int level;
	int error = parse_level(from, &level);

	if (error)
		return error;
	set_value(&tarv_key, level);
	return size;
}

static ssize_t trace_level_show(struct kobject *kobj, struct kobj_attribute *attr, char *to)
{
	return sysfs_emit(to, "%d\n", READ_ONCE(plat_logger_trace_level));
}

static ssize_t trace_level_store(struct kobject *kobj, struct kobj_attribute *attr,
				 const char *from, size_t size)
{
	unsigned int level;
	int error = parse_level(from, &level);

	if (error)
		return error;
	WRITE_ONCE(plat_logger_trace_level, level);
	return size;
}

static struct kobj_attribute debug_level = {
	.attr = { .name = "debug-level", .mode = 0644 },
	.show = debug_level_show,
	.store = debug_level_store,
};
static struct kobj_attribute trace_level = {
	.attr = { .name = "trace-level", .mode = 0644 },
	.show = trace_level_show,
	.store = trace_level_store,
};

static struct kobject *root_directory;

/* A directory, with a file in it where `file` is given. */
static struct kobject *add_directory(const char *name, struct kobject *parent,
				     struct kobj_attribute *file)
{
	struct kobject *directory = parent ? kobject_create_and_add(name, parent) : NULL;

	if (directory && file && sysfs_create_file(directory, &file->attr)) {
		kobject_put(directory);
		return NULL;
	}
	return directory;
}

static struct kobject *modules_directory, *tarv_directory, *logger_directory;

void repository_stop(void)
{
	kobject_put(logger_directory);
	kobject_put(tarv_directory);
	kobject_put(modules_directory);
	kobject_put(root_directory);
}

int repository_start(void)
{
	root_directory = add_directory("quorvane", kernel_kobj, NULL);
	modules_directory = add_directory("modules", root_directory, NULL);
	tarv_directory = add_directory("tarv", modules_directory, &debug_level);
	logger_directory = add_directory("logger", root_directory, &trace_level);
	if (tarv_directory && logger_directory)
		return 0;
	repository_stop();
	return -ENOMEM;
}
