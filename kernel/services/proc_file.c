// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * An open file below /proc: the kernel's side of the read_proc and write_proc conventions.
 *
 * Each open file has a text of its own: the first read takes a whole pass of the handler, one
 * reader after the other, and that text is what all reads of this file are served from, wherever
 * they seek. So no pass is ever left unfinished, however early its reader goes, and nobody is kept
 * from his text by somebody else who reads slowly.
 *
 * Whoever has to wait for a pass or for a write of another can be interrupted. His own has not
 * begun then. Once begun, a handler runs to its end.
 */
#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#include "kernel/services/rules.h"
#include "kernel/services/services.h"

#define PAGE_BYTES 4096 /* of the handler's page, whatever a page of this kernel is */

/* A handler is asked for less than a page, so that it has some room to overshoot. */
#define BLOCK_BYTES (PAGE_BYTES - 1024)

struct text {
	char *bytes;
	size_t length;
	size_t room;
};

struct open_file {
	struct entry *entry;
	struct mutex mutex; /* guards the text: one read of this file at a time */
	struct text text;
	bool has_text;
};

/* What one call of a read handler gave. */
struct piece {
	const char *bytes;
	size_t length;
	off_t next; /* the offset of the next call */
	bool more;
};

/* The text is charged to its reader: it is large, and anybody may open the file many times. */
static int append(struct text *text, const char *bytes, size_t length)
{
	size_t room = max(text->room, (size_t)PAGE_BYTES);
	char *larger;

	while (room - text->length < length)
		room *= 2;
	if (room != text->room) {
		larger = kvmalloc(room, GFP_KERNEL_ACCOUNT);
		if (!larger)
			return -ENOMEM;
		memcpy(larger, text->bytes, text->length);
		kvfree(text->bytes);
		text->bytes = larger;
		text->room = room;
	}
	memcpy(text->bytes + text->length, bytes, length);
	text->length += length;
	return 0;
}

static void forget(struct text *text)
{
	kvfree(text->bytes);
	*text = (struct text){};
}

/* Finds the bytes from where the handler says that they are. */
static void find_bytes(struct piece *piece, char *page, char *start, off_t offset, int result)
{
	size_t length = result;

	if (!start) {
		piece->bytes = page + min_t(off_t, offset, PAGE_BYTES);
		piece->length = min_t(size_t, length > offset ? length - offset : 0, BLOCK_BYTES);
		piece->next = offset + piece->length;
	} else if ((unsigned long)start < (unsigned long)page) {
		piece->bytes = page;
		piece->length = length;
		piece->next = offset + (unsigned long)start;
	} else {
		piece->bytes = start;
		piece->length = min_t(size_t, length, BLOCK_BYTES);
		piece->next = offset + piece->length;
	}
}

/* Calls the handler once; a negative error number, or 0 with what it gave. */
static int call_handler(struct entry *e, char *page, off_t offset, struct piece *piece)
{
	read_proc_t *read = READ_ONCE(e->plat.read_proc);
	char *start = NULL;
	int eof = 0, result;

	*piece = (struct piece){ .next = offset };
	if (!read)
		return -EIO;
	result = read(page, &start, offset, BLOCK_BYTES, &eof, READ_ONCE(e->plat.data));
	rules_no_lock("the return of a read handler");
	if (result <= 0)
		return result;
	find_bytes(piece, page, start, offset, result);
	if (WARN(piece->bytes < page || piece->bytes + piece->length > page + PAGE_BYTES,
		 "the read handler of %s gave bytes outside its page\n", e->path))
		return -EIO;
	piece->more = !eof && piece->length;
	return 0;
}

/* A pass. When there is no memory for the text, the pass is run to its end all the same. */
static int take_text(struct entry *e, struct text *text)
{
	char *page = kmalloc(PAGE_BYTES, GFP_KERNEL);
	struct piece piece = { .next = 0 };
	int error = 0, failed;

	if (!page)
		return -ENOMEM;
	do {
		failed = call_handler(e, page, piece.next, &piece);
		if (!failed && !error)
			error = append(text, piece.bytes, piece.length);
		cond_resched();
	} while (!failed && piece.more);
	kfree(page);
	return error ?: failed;
}

static int have_text(struct open_file *o)
{
	int error;

	if (o->has_text)
		return 0;
	if (mutex_lock_interruptible(&o->entry->reading))
		return -ERESTARTSYS;
	error = take_text(o->entry, &o->text);
	mutex_unlock(&o->entry->reading);
	if (error)
		forget(&o->text);
	o->has_text = !error;
	return error;
}

static ssize_t read_file(struct file *file, char __user *to, size_t size, loff_t *position)
{
	struct open_file *o = file->private_data;
	ssize_t result;

	if (mutex_lock_interruptible(&o->mutex))
		return -ERESTARTSYS;
	result = have_text(o);
	if (!result)
		result = simple_read_from_buffer(to, size, position, o->text.bytes, o->text.length);
	mutex_unlock(&o->mutex);
	return result;
}

static ssize_t write_file(struct file *file, const char __user *from, size_t size, loff_t *position)
{
	struct open_file *o = file->private_data;
	struct entry *e = o->entry;
	write_proc_t *write = READ_ONCE(e->plat.write_proc);
	ssize_t result;

	if (!write)
		return -EIO;
	if (mutex_lock_interruptible(&e->writing))
		return -ERESTARTSYS;
	result = write(file, (__force const char *)from, size, READ_ONCE(e->plat.data));
	rules_no_lock("the return of a write handler");
	mutex_unlock(&e->writing);
	return result;
}

static int open_file(struct inode *inode, struct file *file)
{
	struct open_file *o = kzalloc(sizeof(*o), GFP_KERNEL_ACCOUNT);

	if (!o)
		return -ENOMEM;
	o->entry = pde_data(inode);
	mutex_init(&o->mutex);
	file->private_data = o;
	return 0;
}

static int release_file(struct inode *inode, struct file *file)
{
	struct open_file *o = file->private_data;

	forget(&o->text);
	kfree(o);
	return 0;
}

const struct proc_ops entry_file_ops = {
	.proc_open = open_file,
	.proc_read = read_file,
	.proc_write = write_file,
	.proc_lseek = default_llseek,
	.proc_release = release_file,
};
