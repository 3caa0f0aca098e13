// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * A client of tarv in C. docs/clients.md explains each step.
 *
 * An address written to /sys/module/tarv_example/parameters/resolve is resolved, with both paths;
 * what came of it is told in the kernel's log. The writer waits for the answer.
 */
#include <linux/completion.h>
#include <linux/inet.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <tarv_client.h>

#define OUR_IP "10.0.0.1"

/*
 * A peer of the client. It is the context of its request, so it lives until the request has ended:
 * the writer waits for that, whatever signals he gets.
 */
struct peer {
	__be32 ip;
	tarv_stat_t status;
	tarv_arp_data_t record;
	tarv_arp_data_t asked; /* tarv writes to it whatever the outcome */
	struct completion ended;
};

/* How a request ends, whether at once or later. Any context: must not sleep. */
static void on_reply(tarv_stat_t status, tarv_arp_data_t *record, void *context)
{
	struct peer *peer = context;

	if (status == tarv_stat_ok) {
		/* The record is tarv's and gone after this call; its paths are aimed at itself. */
		peer->record = *record;
		peer->record.primary_path = &peer->record.paths[0];
		peer->record.secondary_path = &peer->record.paths[1];
	}
	peer->status = status;
	complete(&peer->ended);
}

static void resolve(struct peer *peer)
{
	const u32 our_ip = (__force u32)in_aton(OUR_IP);
	tarv_stat_t status;

	/* The callback may come before the call returns, so all is ready for it. */
	init_completion(&peer->ended);
	status = tarv_get_ib_data((__force u32)peer->ip, our_ip, tarv_paths_both, &peer->asked,
				  on_reply, peer, 0);
	/* Any other status is the last word: no callback follows. */
	if (status != tarv_stat_pending)
		on_reply(status, &peer->asked, peer);
	wait_for_completion(&peer->ended);
}

static void report(const struct peer *peer)
{
	const tarv_arp_data_t *record = &peer->record;

	if (peer->status != tarv_stat_ok)
		pr_info("tarv_example: %pI4: status %d\n", &peer->ip, peer->status);
	else if (record->mask & TARV_MASK_PRIMARY_PATH)
		pr_info("tarv_example: %pI4: LID %u, QPN 0x%x, primary path %u -> %u\n", &peer->ip,
			record->lid, record->qpn, record->primary_path->slid,
			record->primary_path->dlid);
	else
		pr_info("tarv_example: %pI4: LID %u, QPN 0x%x, no path\n", &peer->ip, record->lid,
			record->qpn);
}

static int set_resolve(const char *text, const struct kernel_param *param)
{
	/* A record is large for a kernel's stack. */
	struct peer *peer = kzalloc(sizeof(*peer), GFP_KERNEL);

	if (!peer)
		return -ENOMEM;
	if (!in4_pton(text, -1, (u8 *)&peer->ip, '\n', NULL)) {
		kfree(peer);
		return -EINVAL;
	}
	resolve(peer);
	report(peer);
	kfree(peer);
	return 0;
}

static const struct kernel_param_ops resolve_ops = { .set = set_resolve };
module_param_cb(resolve, &resolve_ops, NULL, 0200);
MODULE_PARM_DESC(resolve, "An IPv4 address to resolve");

MODULE_DESCRIPTION("A client of tarv.");
MODULE_LICENSE("Dual BSD/GPL");
