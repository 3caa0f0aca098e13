// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The GSI and the SA behind it: a MultiPathRecord query is answered with a path from each of our
 * ports that it names to the peer that it names.
 */
#include <linux/atomic.h>
#include <linux/byteorder/generic.h>
#include <linux/debugfs.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "kernel/loop/later.h"
#include "kernel/loop/loop.h"
#include "kernel/services/gsi.h"

/* Where things stand in a MAD of the SA, and in what RMPP carries of it. */
enum {
	MAD_METHOD = 3,
	MAD_STATUS = 4,
	MAD_HEADERS = 36, /* the rest is carried by RMPP */
	MAD_BYTES = 256,
	SA_ATTRIBUTE_OFFSET = 8,
	SA_DATA = 20,
	SA_DATA_BYTES = 200, /* in one MAD */
	METHOD_RESPONSE = 0x80,
	GID_BYTES = 16,
	RECORD_BYTES = 64,
};

/* A MultiPathRecord, as far as the SA looks at it. */
enum {
	QUERY_SOURCES = 15,
	QUERY_DESTINATIONS = 16,
	QUERY_GIDS = 24,
};

static u32 sa_delay_ms, sa_status, sa_records, sa_rmpp = 1;
static atomic_t sa_lose = ATOMIC_INIT(0), queries = ATOMIC_INIT(0), answers = ATOMIC_INIT(0);
static struct later_queue wire;

/* A datagram's private bytes hold what it needs to be on its way. */
struct carried {
	struct later later;
	gsi_dtgrm_t *dtgrm;
};

static_assert(sizeof(struct carried) <= sizeof_field(gsi_dtgrm_t, priv));

static void carry(gsi_dtgrm_t *dtgrm, unsigned int ms, void (*run)(struct later *, bool))
{
	struct carried *c = (struct carried *)dtgrm->priv;

	c->dtgrm = dtgrm;
	later_add(&wire, &c->later, gsi_datagram(dtgrm)->class, ms, run);
}

static gsi_dtgrm_t *carried_in(struct later *item)
{
	return container_of(item, struct carried, later)->dtgrm;
}

/* What the query asks for, in the block that RMPP carries; false when it is none. */
static bool read_query(const gsi_dtgrm_t *dtgrm, u32 *sources, const u8 **gids)
{
	const u8 *record = (const u8 *)dtgrm->rmpp_payload + SA_DATA;

	if (!dtgrm->rmpp_payload || dtgrm->rmpp_payload_size < SA_DATA + QUERY_GIDS)
		return false;
	*sources = record[QUERY_SOURCES];
	*gids = record + QUERY_GIDS;
	return *sources && record[QUERY_DESTINATIONS] == 1 &&
	       SA_DATA + QUERY_GIDS + (*sources + 1) * GID_BYTES <= dtgrm->rmpp_payload_size;
}

static void put_16(u8 *at, u16 value)
{
	at[0] = value >> 8;
	at[1] = value;
}

static void write_record(u8 *record, const u8 *sgid, const u8 *dgid)
{
	gx_port_attrib_t port = {};

	loop_port_by_gid(sgid, &port);
	memcpy(record + 8, dgid, GID_BYTES);
	memcpy(record + 24, sgid, GID_BYTES);
	put_16(record + 40, loop_peer_lid(loop_peer_by_gid(dgid)));
	put_16(record + 42, port.port_base_lid);
	record[49] = 0x80; /* reversible */
	put_16(record + 50, LOOP_PKEY);
	record[54] = 0x80 | LOOP_MTU; /* exactly */
	record[55] = 0x80 | LOOP_PATH_RATE;
	record[56] = 0x80 | 18; /* 1 s */
}

/* The room for an answer of that size: in the MAD, or a block that RMPP carries. */
static u8 *answer_block(gsi_dtgrm_t *answer, u32 size)
{
	if (!READ_ONCE(sa_rmpp) && size <= SA_DATA + SA_DATA_BYTES)
		return answer->mad + MAD_HEADERS;
	answer->rmpp_payload = kzalloc(size, GFP_ATOMIC);
	answer->rmpp_payload_size = answer->rmpp_payload ? size : 0;
	return answer->rmpp_payload;
}

static void write_answer(gsi_dtgrm_t *answer, const u8 *gids, u32 sources, u32 records)
{
	const u32 size = SA_DATA + records * RECORD_BYTES;
	const u8 *dgid = gids + sources * GID_BYTES;
	u8 *block = answer_block(answer, size);
	u32 i;

	gsi_datagram(answer)->paysize = size;
	if (!block)
		return;
	put_16(block + SA_ATTRIBUTE_OFFSET, RECORD_BYTES / 8);
	for (i = 0; i < records; i++)
		write_record(block + SA_DATA + i * RECORD_BYTES, gids + (i % sources) * GID_BYTES,
			     dgid);
}

/* The SA's answer, or null: none comes. */
static gsi_dtgrm_t *answer_to(const gsi_dtgrm_t *query)
{
	u32 sources, records, status = READ_ONCE(sa_status);
	struct gsi_class *class = container_of(query, struct gsi_datagram, dtgrm)->class;
	gsi_dtgrm_t *answer;
	const u8 *gids;

	if (!read_query(query, &sources, &gids))
		return NULL;
	answer = gsi_new_received(class);
	if (!answer)
		return NULL;
	memcpy(answer->mad, query->mad, MAD_HEADERS);
	answer->mad[MAD_METHOD] |= METHOD_RESPONSE;
	put_16(answer->mad + MAD_STATUS, status);
	records = READ_ONCE(sa_records) ?: sources;
	if (status || !loop_peer_by_gid(gids + sources * GID_BYTES))
		records = 0;
	write_answer(answer, gids, sources, records);
	return answer;
}

static void arrive(struct later *item, bool dropped)
{
	if (dropped) {
		plat_gsi_dtgrm_pool_put(carried_in(item));
		return;
	}
	atomic_inc(&answers);
	gsi_deliver(carried_in(item));
}

/* What was sent has arrived: its sender is told, and the SA thinks. */
static void send(struct later *item, bool dropped)
{
	gsi_dtgrm_t *query = carried_in(item), *answer = NULL;

	if (!dropped) {
		atomic_inc(&queries);
		if (!atomic_add_unless(&sa_lose, -1, 0))
			answer = answer_to(query);
	}
	gsi_send_done(query);
	if (answer)
		carry(answer, READ_ONCE(sa_delay_ms), arrive);
}

static int open_class(void *context, struct gsi_class *class)
{
	return class->port >= 1 && class->port <= loop_ports() ? 0 : gx_return_invalid_param;
}

static int close_class(void *context, struct gsi_class *class)
{
	return later_drop(&wire, class) ? 0 : gx_return_again;
}

static int post(void *context, struct gsi_class *class, gsi_dtgrm_t *dtgrm)
{
	carry(dtgrm, 0, send);
	return 0;
}

const struct gsi_operations loop_gsi = {
	.open = open_class,
	.close = close_class,
	.post = post,
};

void loop_gsi_start(struct dentry *folder)
{
	later_start(&wire);
	debugfs_create_atomic_t("sa_lose", 0644, folder, &sa_lose);
	debugfs_create_u32("sa_delay_ms", 0644, folder, &sa_delay_ms);
	debugfs_create_x32("sa_status", 0644, folder, &sa_status);
	debugfs_create_u32("sa_records", 0644, folder, &sa_records);
	debugfs_create_u32("sa_rmpp", 0644, folder, &sa_rmpp);
	debugfs_create_atomic_t("queries", 0444, folder, &queries);
	debugfs_create_atomic_t("answers", 0444, folder, &answers);
}

void loop_gsi_stop(void)
{
	later_stop(&wire);
}
