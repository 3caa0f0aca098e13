// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "kernel/ipoib/lids.h"

#include <linux/atomic.h>
#include <linux/debugfs.h>
#include <linux/jhash.h>
#include <linux/jiffies.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <rdma/ib_cache.h>
#include <rdma/ib_sa.h>

#include "kernel/ib/ib.h"

enum {
	PLACES = 1024, /* each for the GIDs of one hash value */
	KNOWN_FOR_S = 60,
	ANSWER_WITHIN_MS = 2000,
	/* An SA that a whole fabric asks at once answers nobody. */
	MOST_QUESTIONS = 128,
};

static struct place {
	gx_gid_t gid;
	gx_lid_t lid; /* 0: the place is free */
	unsigned long since;
} places[PLACES];
static DEFINE_SPINLOCK(places_lock); /* guards them */

static struct ib_sa_client client;
static void (*hand_in)(tarv_arp_data_t *record);
static atomic_t questions; /* under way */
static atomic_t asked, dropped;

static struct place *place_of(const gx_gid_t *gid)
{
	return &places[jhash(gid->raw, sizeof(gid->raw), 0) % PLACES];
}

static gx_lid_t find_lid(const gx_gid_t *gid)
{
	struct place *p = place_of(gid);
	unsigned long flags;
	gx_lid_t lid = 0;

	spin_lock_irqsave(&places_lock, flags);
	if (!memcmp(&p->gid, gid, sizeof(*gid)) &&
	    time_before(jiffies, p->since + KNOWN_FOR_S * HZ))
		lid = p->lid;
	spin_unlock_irqrestore(&places_lock, flags);
	return lid;
}

static void keep_lid(const gx_gid_t *gid, gx_lid_t lid)
{
	unsigned long flags;

	spin_lock_irqsave(&places_lock, flags);
	*place_of(gid) = (struct place){ .gid = *gid, .lid = lid, .since = jiffies };
	spin_unlock_irqrestore(&places_lock, flags);
}

static void hand_in_with(tarv_arp_data_t *record, gx_lid_t lid)
{
	record->lid = lid;
	record->mask |= TARV_MASK_LID;
	hand_in(record);
}

/* Its callback is told the number of paths in an int by some kernels, in an unsigned by others. */
typedef int path_rec_get_t(struct ib_sa_client *client, struct ib_device *device, u32 port,
			   struct sa_path_rec *path, ib_sa_comp_mask components,
			   unsigned long timeout_ms, gfp_t gfp,
			   void (*callback)(int, struct sa_path_rec *, int, void *), void *context,
			   struct ib_sa_query **query);
typedef typeof(_Generic(&ib_sa_path_rec_get, path_rec_get_t * : 0, default : 0u)) path_count_t;

static void on_answer(int status, struct sa_path_rec *path, path_count_t count, void *context)
{
	tarv_arp_data_t *record = context;
	const gx_lid_t lid = status ? 0 : be32_to_cpu(sa_path_get_dlid(path));

	if (lid) {
		keep_lid(&record->gid, lid);
		hand_in_with(record, lid);
	} else {
		atomic_inc(&dropped);
	}
	kfree(record);
	atomic_dec(&questions);
}

static int ask_sa(struct ib_device *device, tarv_arp_data_t *record)
{
	struct sa_path_rec path = { .rec_type = SA_PATH_REC_TYPE_IB, .numb_path = 1 };
	struct ib_sa_query *query;
	int id;

	gid_to_wire(path.dgid.raw, &record->gid);
	if (rdma_query_gid(device, record->local_port_num, 0, &path.sgid))
		return -ENODEV;
	id = ib_sa_path_rec_get(&client, device, record->local_port_num, &path,
				IB_SA_PATH_REC_DGID | IB_SA_PATH_REC_SGID |
					IB_SA_PATH_REC_NUMB_PATH,
				ANSWER_WITHIN_MS, GFP_ATOMIC, on_answer, record, &query);
	return min(id, 0);
}

/* The record is the question's, and goes with it. */
static int ask(const tarv_arp_data_t *record)
{
	struct ib_device *device = tarv_ib_device_get();
	tarv_arp_data_t *own = device ? kmemdup(record, sizeof(*record), GFP_ATOMIC) : NULL;
	int error = own ? ask_sa(device, own) : -ENOMEM;

	if (error)
		kfree(own);
	if (device)
		ib_device_put(device);
	return error;
}

void lids_hand_in(const tarv_arp_data_t *record)
{
	const gx_lid_t lid = find_lid(&record->gid);
	tarv_arp_data_t own = *record;

	if (lid) {
		hand_in_with(&own, lid);
		return;
	}
	if (!atomic_add_unless(&questions, 1, MOST_QUESTIONS)) {
		atomic_inc(&dropped);
		return;
	}
	atomic_inc(&asked);
	if (ask(record)) {
		atomic_dec(&questions);
		atomic_inc(&dropped);
	}
}

void lids_start(struct dentry *folder, void (*to)(tarv_arp_data_t *record))
{
	hand_in = to;
	ib_sa_register_client(&client);
	debugfs_create_atomic_t("lids_asked", 0444, folder, &asked);
	debugfs_create_atomic_t("lids_dropped", 0444, folder, &dropped);
}

void lids_stop(void)
{
	ib_sa_unregister_client(&client);
}
