// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The hosts of the fabric: who has which address. Nothing is kept; one follows from the other.
 */
#include <asm/byteorder.h>
#include <linux/export.h>
#include <linux/module.h>
#include <linux/string.h>
#include <linux/version.h>

#include "kernel/loop/loop.h"

#define OUR_IP 0x0a000001u
#define FIRST_LID 0x10
#define MOST_PEERS (0xbfff - FIRST_LID) /* the last LID that is no multicast LID */
#define GUID 0x0200000000000000ull	/* of nobody: locally administered */
#define GID_PREFIX 0xfe80000000000000ull

static unsigned int peers = 15;

static int set_peers(const char *text, const struct kernel_param *param)
{
	return param_set_uint_minmax(text, param, 0, MOST_PEERS) ? -EINVAL : 0;
}

static const struct kernel_param_ops peers_ops = { .set = set_peers, .get = param_get_uint };
module_param_cb(peers, &peers_ops, &peers, 0444);
__MODULE_PARM_TYPE(peers, "uint");
MODULE_PARM_DESC(peers, "Number of peers, 10.0.0.2 and so on, 49135 at most (15)");

u32 loop_peers(void)
{
	return peers;
}
EXPORT_SYMBOL_GPL(loop_peers);

u32 loop_peer_by_ip(__be32 ip)
{
	u32 number = be32_to_cpu(ip) - OUR_IP;

	return number <= peers ? number : 0;
}
EXPORT_SYMBOL_GPL(loop_peer_by_ip);

__be32 loop_peer_ip(u32 peer)
{
	return cpu_to_be32(OUR_IP + peer);
}
EXPORT_SYMBOL_GPL(loop_peer_ip);

gx_lid_t loop_peer_lid(u32 peer)
{
	return FIRST_LID + peer;
}
EXPORT_SYMBOL_GPL(loop_peer_lid);

u32 loop_peer_qpn(u32 peer)
{
	return 0x400 + peer;
}
EXPORT_SYMBOL_GPL(loop_peer_qpn);

void loop_gid(u32 host, u8 port, gx_gid_t *gid)
{
	const u64 prefix = GID_PREFIX, guid = GUID + host * 16 + port;
	int i;

	for (i = 0; i < 8; i++) {
		gid->raw[i] = guid >> (8 * i);
		gid->raw[8 + i] = prefix >> (8 * i);
	}
}
EXPORT_SYMBOL_GPL(loop_gid);

u32 loop_peer_by_gid(const u8 *wire)
{
	u32 number = 0;
	gx_gid_t gid;
	int i;

	for (i = 12; i < 16; i++)
		number = number << 8 | wire[i];
	number /= 16;
	if (number > peers)
		return 0;
	loop_gid(number, 1, &gid);
	for (i = 0; i < 16; i++)
		if (gid.raw[15 - i] != wire[i])
			return 0;
	return number;
}
