// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The General Services Interface: classes, pools, and datagrams on their way to and from the
 * adapter.
 */
#include <linux/atomic.h>
#include <linux/export.h>
#include <linux/rcupdate.h>
#include <linux/slab.h>

#include "kernel/services/gsi.h"
#include "kernel/services/rules.h"
#include "kernel/services/services.h"

#define TRANSACTION_AT 8 /* in the MAD */

struct gsi_dtgrm_pool {
	u32 count;
	atomic_t out; /* datagrams that were taken and have not come back */
	const char *name;
};

static atomic64_t last_transaction;

int plat_gsi_register_class(u8 mgt_class, u8 class_ver, const char *hca_name, u8 port,
			    int is_server, int uses_rmpp, gsi_dtgrm_cb_t *send_done,
			    gsi_dtgrm_cb_t *recv_done, void *context, gsi_class_handle_t *handle)
{
	const struct adapter *a;
	struct gsi_class *c;
	int error;

	rules_may_sleep("gsi_register_class");
	a = rules_fail("gsi_register_class") ? NULL : adapter_hold();
	if (!a)
		return gx_return_error;
	c = kmalloc(sizeof(*c), GFP_KERNEL);
	if (!c) {
		adapter_release();
		return gx_return_again;
	}
	*c = (struct gsi_class){ .adapter = a,
				 .port = port,
				 .send_done = send_done,
				 .recv_done = recv_done,
				 .context = context };
	error = a->gsi->open(a->context, c);
	if (error) {
		kfree(c);
		adapter_release();
		return error;
	}
	*handle = c;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_gsi_register_class);

int plat_gsi_deregister_class(gsi_class_handle_t c)
{
	int busy;

	rules_may_sleep("gsi_deregister_class");
	busy = c->adapter->gsi->close(c->adapter->context, c);
	if (!busy) {
		kfree(c);
		adapter_release();
	}
	return busy;
}
EXPORT_SYMBOL_GPL(plat_gsi_deregister_class);

int plat_gsi_dtgrm_pool_create_named(u32 count, gsi_dtgrm_pool_handle_t *pool, const char *name)
{
	struct gsi_dtgrm_pool *p;

	rules_may_sleep("gsi_dtgrm_pool_create_named");
	p = rules_fail("gsi_dtgrm_pool_create_named") ? NULL : kzalloc(sizeof(*p), GFP_KERNEL);
	if (!p)
		return gx_return_again;
	p->count = count;
	p->name = name;
	*pool = p;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_gsi_dtgrm_pool_create_named);

void plat_gsi_dtgrm_pool_destroy(gsi_dtgrm_pool_handle_t p)
{
	rules_may_sleep("gsi_dtgrm_pool_destroy");
	WARN(atomic_read(&p->out), "the pool %s goes with %d datagrams out\n", p->name,
	     atomic_read(&p->out));
	kfree(p);
}
EXPORT_SYMBOL_GPL(plat_gsi_dtgrm_pool_destroy);

/* A pool is a number: the memory comes when it is needed. */
int plat_gsi_dtgrm_pool_get(gsi_dtgrm_pool_handle_t p, gsi_dtgrm_t **dtgrm)
{
	struct gsi_datagram *d;

	if (rules_fail("gsi_dtgrm_pool_get") || !atomic_add_unless(&p->out, 1, p->count))
		return gx_return_again;
	d = kzalloc(sizeof(*d), GFP_ATOMIC);
	if (!d) {
		atomic_dec(&p->out);
		return gx_return_again;
	}
	d->pool = p;
	*dtgrm = &d->dtgrm;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_gsi_dtgrm_pool_get);

void plat_gsi_dtgrm_pool_put(gsi_dtgrm_t *dtgrm)
{
	struct gsi_datagram *d = gsi_datagram(dtgrm);

	if (d->pool)
		atomic_dec(&d->pool->out);
	kfree(dtgrm->rmpp_payload);
	kfree(d);
}
EXPORT_SYMBOL_GPL(plat_gsi_dtgrm_pool_put);

void *plat_gsi_dtgrm_alloc_rmpp_buf(gsi_dtgrm_t *dtgrm, u32 size)
{
	void *block;

	rules_no_lock("gsi_dtgrm_alloc_rmpp_buf");
	block = rules_fail("gsi_dtgrm_alloc_rmpp_buf") ? NULL : kzalloc(size, GFP_ATOMIC);
	dtgrm->rmpp_payload = block;
	dtgrm->rmpp_payload_size = block ? size : 0;
	return block;
}
EXPORT_SYMBOL_GPL(plat_gsi_dtgrm_alloc_rmpp_buf);

void *plat_gsi_dtgrm_get_rmpp_buf(gsi_dtgrm_t *dtgrm, int *paysize)
{
	*paysize = gsi_datagram(dtgrm)->paysize;
	return dtgrm->rmpp_payload;
}
EXPORT_SYMBOL_GPL(plat_gsi_dtgrm_get_rmpp_buf);

int plat_gsi_post_send_dtgrm(gsi_class_handle_t c, gsi_dtgrm_t *dtgrm)
{
	u64 id = atomic64_inc_return(&last_transaction);

	if (rules_fail("gsi_post_send_dtgrm"))
		return gx_return_error;
	memcpy(dtgrm->mad + TRANSACTION_AT, &id, sizeof(id));
	gsi_datagram(dtgrm)->class = c;
	return c->adapter->gsi->post(c->adapter->context, c, dtgrm);
}
EXPORT_SYMBOL_GPL(plat_gsi_post_send_dtgrm);

/* What the adapter does. */

gsi_dtgrm_t *gsi_new_received(struct gsi_class *class)
{
	struct gsi_datagram *d = kzalloc(sizeof(*d), GFP_ATOMIC);

	if (!d)
		return NULL;
	d->class = class;
	return &d->dtgrm;
}
EXPORT_SYMBOL_GPL(gsi_new_received);

void gsi_send_done(gsi_dtgrm_t *dtgrm)
{
	struct gsi_class *c = gsi_datagram(dtgrm)->class;

	c->send_done(c, c->context, dtgrm);
	rules_no_lock("the return of a send completion");
}
EXPORT_SYMBOL_GPL(gsi_send_done);

void gsi_deliver(gsi_dtgrm_t *dtgrm)
{
	struct gsi_class *c = gsi_datagram(dtgrm)->class;

	c->recv_done(c, c->context, dtgrm);
	rules_no_lock("the return of a receive completion");
}
EXPORT_SYMBOL_GPL(gsi_deliver);
