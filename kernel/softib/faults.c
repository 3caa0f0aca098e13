// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * Packets that are lost, late, doubled or changed on purpose, as the administrator says in lines:
 *
 *   NODE PORT CLASS lose [HOW OFTEN]       NODE and PORT may be *: all
 *   NODE PORT CLASS late MS [HOW OFTEN]    CLASS is smp, sa, gmp, arp, data or any
 *   NODE PORT CLASS twice [HOW OFTEN]      HOW OFTEN: the next 3, or 10%; without it, always
 *   NODE PORT sa plain [HOW OFTEN]         answers in one segment of RMPP are sent without RMPP
 *
 * A line is for what leaves that port. The first line that fits a packet, and is not used up,
 * decides.
 */
#include <linux/kernel.h>
#include <linux/prandom.h>
#include <linux/random.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kernel/softib/softib.h"

#define ALWAYS U32_MAX

enum sib_class { CLASS_SMP, CLASS_SA, CLASS_GMP, CLASS_ARP, CLASS_DATA, CLASS_ANY };
enum action { LOSE, LATE, TWICE, PLAIN };

static const char *const classes[] = { "smp", "sa", "gmp", "arp", "data", "any" };
static const char *const actions[] = { "lose", "late", "twice", "plain" };

struct fault {
	struct list_head link;
	const struct sib_node *node; /* null: all */
	u8 port;		     /* 0: all */
	enum sib_class class;
	enum action action;
	u32 ms;
	u32 left; /* or ALWAYS */
	u32 percent;
	u64 happened;
};

static LIST_HEAD(faults);

static enum sib_class class_of(const struct sib_packet *p)
{
	if (sib_is_smp(p))
		return CLASS_SMP;
	if (p->dqpn == 1)
		return p->len > 1 && p->data[1] == IB_MGMT_CLASS_SUBN_ADM ? CLASS_SA : CLASS_GMP;
	/* IPoIB puts the type of what it carries in front of it. */
	return p->len > 1 && p->data[0] == 0x08 && p->data[1] == 0x06 ? CLASS_ARP : CLASS_DATA;
}

static bool is_segment_alone(const struct sib_packet *p)
{
	const struct ib_rmpp_mad *mad = (const struct ib_rmpp_mad *)p->data;
	const u8 alone =
		IB_MGMT_RMPP_FLAG_ACTIVE | IB_MGMT_RMPP_FLAG_FIRST | IB_MGMT_RMPP_FLAG_LAST;

	return p->len == sizeof(*mad) && mad->mad_hdr.method & IB_MGMT_METHOD_RESP &&
	       mad->rmpp_hdr.rmpp_type == IB_MGMT_RMPP_TYPE_DATA &&
	       ib_get_rmpp_flags((struct ib_rmpp_hdr *)&mad->rmpp_hdr) == alone;
}

/* Where RMPP says how much is data, a MAD alone has zeros to its end. */
static void make_plain(struct sib_packet *p)
{
	struct ib_rmpp_mad *mad = (struct ib_rmpp_mad *)p->data;
	u32 payload = be32_to_cpu(mad->rmpp_hdr.paylen_newwin);
	u32 end = min_t(u32, p->len, payload + IB_MGMT_RMPP_HDR);

	memset(p->data + end, 0, p->len - end);
	memset(&mad->rmpp_hdr, 0, sizeof(mad->rmpp_hdr));
	mad->rmpp_hdr.rmpp_version = IB_MGMT_RMPP_VERSION;
}

static bool fits(const struct fault *f, const struct sib_port *out, const struct sib_packet *p)
{
	const enum sib_class class = class_of(p);

	return f->left && (!f->node || f->node == out->node) &&
	       (!f->port || f->port == out->number) &&
	       (f->class == CLASS_ANY || f->class == class) &&
	       (f->action != PLAIN || is_segment_alone(p)) &&
	       (f->percent == 100 || get_random_u32() % 100 < f->percent);
}

struct sib_fate sib_fate(const struct sib_port *out, struct sib_packet *p)
{
	struct sib_fate fate = {};
	struct fault *f;

	list_for_each_entry (f, &faults, link) {
		if (!fits(f, out, p))
			continue;
		if (f->left != ALWAYS)
			f->left--;
		f->happened++;
		fate.lost = f->action == LOSE;
		fate.copies = f->action == TWICE;
		fate.delay_ms = f->action == LATE ? f->ms : 0;
		if (f->action == PLAIN)
			make_plain(p);
		break;
	}
	return fate;
}

static int parse_where(struct fault *f, const char *node, const char *port)
{
	if (strcmp(port, "*") && (kstrtou8(port, 10, &f->port) || !f->port))
		return -EINVAL;
	if (!strcmp(node, "*"))
		return 0;
	f->node = sib_node_by_name(node);
	return f->node && f->port <= f->node->ports_count ? 0 : -ENODEV;
}

static int parse_how_often(struct fault *f, char *word)
{
	char *percent = strchr(word, '%');

	if (!percent)
		return kstrtou32(word, 10, &f->left);
	*percent = 0;
	return kstrtou32(word, 10, &f->percent) ?: f->percent <= 100 && !percent[1] ? 0 : -EINVAL;
}

static int parse(struct fault *f, char *line)
{
	char *word[6] = {};
	int count = 0, class, action, rc;

	while (count < 6 && (word[count] = strsep(&line, " \t")))
		count += *word[count] != 0;
	if (count < 4 || line)
		return -EINVAL;
	class = match_string(classes, ARRAY_SIZE(classes), word[2]);
	action = match_string(actions, ARRAY_SIZE(actions), word[3]);
	if (class < 0 || action < 0 || (action == PLAIN && class != CLASS_SA))
		return -EINVAL;
	f->class = class;
	f->action = action;
	rc = parse_where(f, word[0], word[1]);
	if (!rc && action == LATE)
		rc = count > 4 ? kstrtou32(word[4], 10, &f->ms) : -EINVAL;
	if (!rc && count > 4 + (action == LATE))
		rc = parse_how_often(f, word[4 + (action == LATE)]);
	return rc;
}

int sib_fault_add(char *line)
{
	struct fault *f = kzalloc(sizeof(*f), GFP_KERNEL);
	int rc;

	if (!f)
		return -ENOMEM;
	f->left = ALWAYS;
	f->percent = 100;
	spin_lock_irq(&sib_lock);
	rc = parse(f, line);
	if (!rc)
		list_add_tail(&f->link, &faults);
	spin_unlock_irq(&sib_lock);
	if (rc)
		kfree(f);
	return rc;
}

void sib_faults_clear(void)
{
	struct fault *f, *next;
	LIST_HEAD(gone);

	spin_lock_irq(&sib_lock);
	list_splice_init(&faults, &gone);
	spin_unlock_irq(&sib_lock);
	list_for_each_entry_safe (f, next, &gone, link)
		kfree(f);
}

void sib_faults_show(struct seq_file *s)
{
	struct fault *f;

	list_for_each_entry (f, &faults, link) {
		seq_printf(s, "%s ", f->node ? f->node->name : "*");
		if (f->port)
			seq_printf(s, "%u", f->port);
		else
			seq_putc(s, '*');
		seq_printf(s, " %s %s", classes[f->class], actions[f->action]);
		if (f->action == LATE)
			seq_printf(s, " %u", f->ms);
		if (f->percent != 100)
			seq_printf(s, " %u%%", f->percent);
		else if (f->left != ALWAYS)
			seq_printf(s, " %u", f->left);
		seq_printf(s, "\t# %llu\n", f->happened);
	}
}
