// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The text that describes and changes the subnet, and the files of /sys/kernel/debug/softib:
 *
 *   subnet    takes lines, and shows those that would make the subnet as it is
 *   ports     the state of every port, read only
 *   faults    takes lines of what is to be lost, late or doubled, or `clear` (faults.c); shows them
 *   capture   what is sent (capture.c)
 *
 * The lines of `subnet`; a name has no blanks, a description goes to the end of its line:
 *
 *   switch NAME PORTS GUID [DESCRIPTION]
 *   adapter NAME PORTS GUID[/PORT-GUID...] [DESCRIPTION]     NAME becomes the ib_device's
 *   link NAME PORT NAME PORT [RATE [MTU]]                    RATE as in 4xQDR, MTU in bytes
 *   down NAME PORT, up NAME PORT                             pulls the cable there, and plugs it in
 *   remove NAME, add NAME                                    takes an adapter out, and puts it back
 */
#include <linux/debugfs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "kernel/softib/softib.h"

#define FIRST_QPN 0x40
#define LONGEST_LINE 256
#define LONGEST_WRITE (64 << 10)
#define MOST_WORDS 7

static struct dentry *folder;
/* Which nodes there are changes under this, so who holds it may keep a pointer to one. */
static DEFINE_MUTEX(subnet_mutex);

static const struct {
	const char *name;
	u8 code;
} widths[] = {
	{ "1x", IB_WIDTH_1X }, { "2x", IB_WIDTH_2X },	{ "4x", IB_WIDTH_4X },
	{ "8x", IB_WIDTH_8X }, { "12x", IB_WIDTH_12X },
};

static const struct {
	const char *name;
	u8 speeds, ext;
} speeds[] = {
	{ "SDR", 1, 0 }, { "DDR", 3, 0 }, { "QDR", 7, 0 },
	{ "FDR", 7, 1 }, { "EDR", 7, 3 }, { "HDR", 7, 7 },
};

struct words {
	unsigned int count;
	char *word[MOST_WORDS];
	char *rest; /* of the line, from the fifth word on; empty if there is none */
};

static struct sib_node *find_node(const char *name)
{
	struct sib_node *n;

	spin_lock_irq(&sib_lock);
	n = sib_node_by_name(name);
	spin_unlock_irq(&sib_lock);
	return n;
}

static struct sib_port *find_port(const char *name, const char *number)
{
	struct sib_node *n = find_node(name);
	u8 i;

	return n && !kstrtou8(number, 10, &i) && i >= 1 && i <= n->ports_count ? &n->ports[i]
									       : NULL;
}

/* The node of a `switch` or `adapter` line; its GUIDs are separated by slashes. */
static struct sib_node *make_node(const struct words *w, bool is_switch)
{
	char *guids = w->word[3], *guid = strsep(&guids, "/");
	struct sib_node *n;
	unsigned int i;
	u64 value;
	u8 ports;

	if (kstrtou8(w->word[2], 10, &ports) || !ports ||
	    ports > (is_switch ? SIB_SWITCH_PORTS : SIB_ADAPTER_PORTS) ||
	    kstrtou64(guid, 0, &value) || strlen(w->word[1]) >= SIB_NAME || strchr(w->word[1], '/'))
		return ERR_PTR(-EINVAL);
	if (find_node(w->word[1]))
		return ERR_PTR(-EEXIST);
	n = sib_node_create(w->word[1], value, ports, is_switch);
	if (!n)
		return ERR_PTR(-ENOMEM);
	if (*w->rest)
		strscpy_pad(n->description, w->rest, sizeof(n->description));
	for (i = 1; i <= ports && (guid = strsep(&guids, "/")); i++)
		if (!kstrtou64(guid, 0, &value) && !is_switch)
			n->ports[i].guid = cpu_to_be64(value);
	return n;
}

static int add_switch(const struct words *w)
{
	return PTR_ERR_OR_ZERO(make_node(w, true));
}

static int add_adapter(const struct words *w)
{
	static u32 qpns = FIRST_QPN;
	struct sib_node *n = make_node(w, false);

	if (IS_ERR(n))
		return PTR_ERR(n);
	n->next_qpn = qpns;
	qpns = (qpns + 0x1000) & 0x7fffff; /* so that a number tells whose it is */
	return sib_adapter_add(n);
}

static int set_limits(struct sib_port *a, struct sib_port *b, const struct words *w)
{
	unsigned int width = 2, speed = 2, mtu = 4096;
	size_t length;

	if (w->count > 5) {
		for (width = 0; width < ARRAY_SIZE(widths); width++)
			if (!strncmp(w->word[5], widths[width].name,
				     length = strlen(widths[width].name)))
				break;
		if (width == ARRAY_SIZE(widths))
			return -EINVAL;
		for (speed = 0; speed < ARRAY_SIZE(speeds); speed++)
			if (!strcmp(w->word[5] + length, speeds[speed].name))
				break;
	}
	if (speed == ARRAY_SIZE(speeds) || (w->count > 6 && kstrtouint(w->word[6], 10, &mtu)) ||
	    !is_power_of_2(mtu) || mtu < 256 || mtu > 4096)
		return -EINVAL;
	sib_port_limits(a, widths[width].code | IB_WIDTH_1X, speeds[speed].speeds,
			speeds[speed].ext, ilog2(mtu) - 7);
	sib_port_limits(b, widths[width].code | IB_WIDTH_1X, speeds[speed].speeds,
			speeds[speed].ext, ilog2(mtu) - 7);
	return 0;
}

static int add_link(const struct words *w)
{
	struct sib_port *a = find_port(w->word[1], w->word[2]),
			*b = find_port(w->word[3], w->word[4]);
	int rc;

	if (!a || !b)
		return -ENODEV;
	spin_lock_irq(&sib_lock);
	rc = a->peer || b->peer ? -EBUSY : set_limits(a, b, w);
	if (!rc && !sib_join(a, b))
		rc = -EINVAL;
	spin_unlock_irq(&sib_lock);
	return rc;
}

static int pull(const struct words *w, bool out)
{
	struct sib_port *p = find_port(w->word[1], w->word[2]);

	if (!p)
		return -ENODEV;
	spin_lock_irq(&sib_lock);
	if (p->pulled != out) {
		p->pulled = out;
		sib_retrain(p);
	}
	spin_unlock_irq(&sib_lock);
	return 0;
}

static int link_down(const struct words *w)
{
	return pull(w, true);
}

static int link_up(const struct words *w)
{
	return pull(w, false);
}

static int remove_adapter(const struct words *w)
{
	struct sib_node *n = find_node(w->word[1]);

	if (!n || !n->adapter)
		return -ENODEV;
	sib_adapter_remove(n);
	return 0;
}

static int add_again(const struct words *w)
{
	struct sib_node *n = find_node(w->word[1]);

	if (!n || n->sw)
		return -ENODEV;
	return n->adapter ? -EEXIST : sib_adapter_add(n);
}

static const struct {
	const char *name;
	unsigned int least, most; /* words, with the verb */
	int (*act)(const struct words *w);
} verbs[] = {
	{ "switch", 4, MOST_WORDS, add_switch },
	{ "adapter", 4, MOST_WORDS, add_adapter },
	{ "link", 5, 7, add_link },
	{ "down", 3, 3, link_down },
	{ "up", 3, 3, link_up },
	{ "remove", 2, 2, remove_adapter },
	{ "add", 2, 2, add_again },
};

/* What stands behind the fourth word is kept as it is, too. */
static void split(char *line, char *copy, struct words *w)
{
	char *word, *from = line;

	strcpy(copy, line);
	w->rest = copy + strlen(copy);
	while (w->count < MOST_WORDS && (word = strsep(&line, " \t"))) {
		if (!*word)
			continue;
		if (w->count == 4)
			w->rest = copy + (word - from);
		w->word[w->count++] = word;
	}
}

static int subnet_line(char *line)
{
	char copy[LONGEST_LINE];
	struct words w = {};
	unsigned int i;

	split(line, copy, &w);
	for (i = 0; i < ARRAY_SIZE(verbs); i++)
		if (!strcmp(w.word[0], verbs[i].name))
			return w.count >= verbs[i].least && w.count <= verbs[i].most
				       ? verbs[i].act(&w)
				       : -EINVAL;
	return -EINVAL;
}

static int faults_line(char *line)
{
	if (strcmp(line, "clear"))
		return sib_fault_add(line);
	sib_faults_clear();
	return 0;
}

/* Files of lines */

struct lines {
	int (*take)(char *line);
	void (*show)(struct seq_file *s);
	unsigned int number, used;
	char line[LONGEST_LINE]; /* what has been written of it */
};

static int take_line(struct lines *l)
{
	char *line;
	int rc;

	l->line[l->used] = 0;
	l->used = 0;
	l->number++;
	line = strim(l->line);
	if (!*line || *line == '#')
		return 0;
	mutex_lock(&subnet_mutex);
	rc = l->take(line);
	mutex_unlock(&subnet_mutex);
	if (rc)
		pr_warn("softib: line %u: '%s' is refused: %d\n", l->number, line, rc);
	return rc;
}

static ssize_t lines_write(struct file *file, const char __user *from, size_t size, loff_t *offset)
{
	struct lines *l = ((struct seq_file *)file->private_data)->private;
	int rc = 0;
	char *text;
	size_t i;

	size = min_t(size_t, size, LONGEST_WRITE);
	text = memdup_user(from, size);
	if (IS_ERR(text))
		return PTR_ERR(text);
	for (i = 0; i < size && !rc; i++) {
		if (text[i] == '\n')
			rc = take_line(l);
		else if (l->used < LONGEST_LINE - 1)
			l->line[l->used++] = text[i];
		else
			rc = -EMSGSIZE;
	}
	kfree(text);
	return rc ?: size;
}

static int lines_show(struct seq_file *s, void *unused)
{
	struct lines *l = s->private;

	spin_lock_irq(&sib_lock);
	l->show(s);
	spin_unlock_irq(&sib_lock);
	return 0;
}

static int lines_open(struct file *file, int (*take)(char *line), void (*show)(struct seq_file *s))
{
	struct lines *l = kzalloc(sizeof(*l), GFP_KERNEL);
	int rc;

	if (!l)
		return -ENOMEM;
	l->take = take;
	l->show = show;
	rc = single_open(file, lines_show, l);
	if (rc)
		kfree(l);
	return rc;
}

static int lines_release(struct inode *inode, struct file *file)
{
	struct lines *l = ((struct seq_file *)file->private_data)->private;

	if (l->used)
		take_line(l);
	kfree(l);
	return single_release(inode, file);
}

static void show_rate(struct seq_file *s, const struct sib_port *p)
{
	u8 width = p->info.basic.link_width_supported, ext = p->info.ext_active_supported & 15;
	unsigned int i = ARRAY_SIZE(widths), k = ARRAY_SIZE(speeds);

	while (i-- > 1 && !(width & ~IB_WIDTH_1X & widths[i].code))
		;
	while (k-- > 1 &&
	       (speeds[k].speeds != p->info.basic.linkspeed_portstate >> 4 || speeds[k].ext != ext))
		;
	seq_printf(s, "%s%s %u", widths[i].name, speeds[k].name,
		   ib_mtu_enum_to_int(p->info.basic.inittypereply_mtucap & 15));
}

static void show_node(struct seq_file *s, const struct sib_node *n)
{
	unsigned int i;

	seq_printf(s, "%s %s %u %#llx", n->sw ? "switch" : "adapter", n->name, n->ports_count,
		   be64_to_cpu(n->guid));
	for (i = 1; !n->sw && i <= n->ports_count; i++)
		seq_printf(s, "/%#llx", be64_to_cpu(n->ports[i].guid));
	seq_printf(s, " %.64s\n", n->description);
}

/* Each link at the end that comes first, and then what is out of order. */
static void show_links(struct seq_file *s, struct sib_node *n)
{
	unsigned int i;

	for (i = 1; i <= n->ports_count; i++) {
		struct sib_port *p = &n->ports[i], *q = p->peer;

		if (q && p < q) {
			seq_printf(s, "link %s %u %s %u ", n->name, i, q->node->name, q->number);
			show_rate(s, p);
			seq_putc(s, '\n');
		}
		if (p->pulled)
			seq_printf(s, "down %s %u\n", n->name, i);
	}
	if (!n->present)
		seq_printf(s, "remove %s\n", n->name);
}

static void subnet_show(struct seq_file *s)
{
	struct sib_node *n;

	list_for_each_entry (n, &sib_nodes, link)
		show_node(s, n);
	list_for_each_entry (n, &sib_nodes, link)
		show_links(s, n);
}

static void show_port(struct seq_file *s, const struct sib_port *p)
{
	static const char *const states[] = { "-", "Down", "Init", "Armed", "Active" };
	const struct sib_port *q = p->peer;

	seq_printf(s, "%s %u %s lid %u lmc %u sm %u ", p->node->name, p->number,
		   states[sib_state(p)], sib_lid(p), sib_lmc(p), be16_to_cpu(p->info.basic.sm_lid));
	show_rate(s, p);
	seq_printf(s, " sent %llu received %llu discarded %llu", p->counters.sent,
		   p->counters.received, p->counters.discarded);
	if (q)
		seq_printf(s, " to %s %u", q->node->name, q->number);
	seq_putc(s, '\n');
}

static void ports_show(struct seq_file *s)
{
	struct sib_node *n;
	unsigned int i;

	list_for_each_entry (n, &sib_nodes, link)
		for (i = !n->sw; i <= n->ports_count; i++)
			show_port(s, &n->ports[i]);
}

static int no_line(char *line)
{
	return -EPERM;
}

#define LINES_FILE(name, take, show)                                   \
	static int name##_open(struct inode *inode, struct file *file) \
	{                                                              \
		return lines_open(file, take, show);                   \
	}                                                              \
	static const struct file_operations name##_file = {            \
		.owner = THIS_MODULE,                                  \
		.open = name##_open,                                   \
		.read = seq_read,                                      \
		.write = lines_write,                                  \
		.llseek = seq_lseek,                                   \
		.release = lines_release,                              \
	}
LINES_FILE(subnet, subnet_line, subnet_show);
LINES_FILE(ports, no_line, ports_show);
LINES_FILE(faults, faults_line, sib_faults_show);

static int __init softib_init(void)
{
	int rc = sib_wire_start();

	if (rc)
		return rc;
	folder = debugfs_create_dir("softib", NULL);
	debugfs_create_file("subnet", 0644, folder, NULL, &subnet_file);
	debugfs_create_file("ports", 0444, folder, NULL, &ports_file);
	debugfs_create_file("faults", 0644, folder, NULL, &faults_file);
	debugfs_create_file("capture", 0400, folder, NULL, &sib_capture_file);
	return 0;
}

static void __exit softib_exit(void)
{
	struct sib_node *n;

	debugfs_remove_recursive(folder);
	list_for_each_entry (n, &sib_nodes, link)
		if (n->adapter)
			sib_adapter_remove(n);
	sib_traps_stop();
	sib_faults_clear();
	sib_wire_stop();
	sib_nodes_free();
}

module_init(softib_init);
module_exit(softib_exit);
MODULE_DESCRIPTION("An InfiniBand subnet in software");
MODULE_LICENSE("Dual BSD/GPL");
