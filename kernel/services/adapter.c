// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The adapter verbs: one open adapter, behind which a real one comes and goes.
 *
 * Opening succeeds with no adapter in place; it has no ports then. So a module that needs one can
 * be loaded before it, and stays loaded when it goes.
 *
 * Events are not queued, so none can be lost for want of memory: what happened to a port is
 * remembered in its bits, and one work item reports it, one event at a time.
 */
#include <linux/atomic.h>
#include <linux/bitops.h>
#include <linux/export.h>
#include <linux/mutex.h>
#include <linux/printk.h>
#include <linux/rcupdate.h>
#include <linux/string.h>
#include <linux/wait.h>
#include <linux/workqueue.h>

#include "kernel/services/adapter.h"
#include "kernel/services/rules.h"
#include "kernel/services/services.h"

/* What happened to a port since it was last reported on. */
enum { NEWS_DOWN, NEWS_LID, NEWS_MTU, NEWS_SM };

struct port_news {
	unsigned long bits;
	bool reported_up;
};

static const struct adapter __rcu *present;
static bool leaving; /* the present one: it still answers, but its links count as down */
static atomic_t opened;

/* For those whom it waits for before it goes. */
static const struct adapter *present_one(void)
{
	return rcu_dereference_protected(present, true);
}

static atomic_t holders; /* of the present one */
static DECLARE_WAIT_QUEUE_HEAD(released);

static struct port_news news[ADAPTER_MAX_PORTS]; /* of port 1, 2, ... */

/* Held while the callback runs. It guards the callback, and who is reported to be up. */
static DEFINE_MUTEX(events_mutex);
static gx_sleepable_async_event_cb_t *event_callback;

static void report_events(struct work_struct *work);
static DECLARE_WORK(events_work, report_events);
static struct workqueue_struct *events_queue;

/* Questions to the adapter that is there; without one there are no ports. */

static gx_return_t ask_hca(gx_hca_attrib_t *attributes)
{
	const struct adapter *a;
	gx_return_t result = gx_return_ok;

	*attributes = (gx_hca_attrib_t){};
	rcu_read_lock();
	a = rcu_dereference(present);
	if (a)
		result = a->verbs->query_hca(a->context, attributes);
	rcu_read_unlock();
	return result;
}

static gx_return_t ask_port(u8 port, gx_port_attrib_t *attributes)
{
	const struct adapter *a;
	gx_return_t result = gx_return_invalid_param;

	rcu_read_lock();
	a = rcu_dereference(present);
	if (a)
		result = a->verbs->query_port(a->context, port, attributes);
	rcu_read_unlock();
	return result;
}

static gx_return_t ask_gids(u8 port, u32 *size, gx_gid_t *table)
{
	const struct adapter *a;
	gx_return_t result = gx_return_invalid_param;

	rcu_read_lock();
	a = rcu_dereference(present);
	if (a)
		result = a->verbs->get_port_gid_tbl(a->context, port, size, table);
	rcu_read_unlock();
	return result;
}

static gx_return_t ask_pkeys(u8 port, u32 *size, gx_p_key_t *table)
{
	const struct adapter *a;
	gx_return_t result = gx_return_invalid_param;

	rcu_read_lock();
	a = rcu_dereference(present);
	if (a)
		result = a->verbs->get_port_partition_tbl(a->context, port, size, table);
	rcu_read_unlock();
	return result;
}

/* The verbs of the one adapter that is ever opened. */

static gx_return_t query_hca(void *context, gx_hca_attrib_t *attributes)
{
	rules_may_sleep("gx_query_hca");
	return rules_fail("gx_query_hca") ? gx_return_error : ask_hca(attributes);
}

static gx_return_t query_port(void *context, u8 port, gx_port_attrib_t *attributes)
{
	rules_may_sleep("gx_query_port");
	return rules_fail("gx_query_port") ? gx_return_error : ask_port(port, attributes);
}

static gx_return_t get_port_gid_tbl(void *context, u8 port, u32 *size, gx_gid_t *table)
{
	rules_may_sleep("gx_get_port_gid_tbl");
	return rules_fail("gx_get_port_gid_tbl") ? gx_return_error : ask_gids(port, size, table);
}

static gx_return_t get_port_partition_tbl(void *context, u8 port, u32 *size, gx_p_key_t *table)
{
	rules_may_sleep("gx_get_port_partition_tbl");
	return rules_fail("gx_get_port_partition_tbl") ? gx_return_error
						       : ask_pkeys(port, size, table);
}

static const gx_hca_ops_t operations = {
	.query_hca = query_hca,
	.query_port = query_port,
	.get_port_gid_tbl = get_port_gid_tbl,
	.get_port_partition_tbl = get_port_partition_tbl,
};

static gx_hca_t the_hca = { &operations, NULL };

const char *plat_gx_default_hca_name(void)
{
	return "default";
}
EXPORT_SYMBOL_GPL(plat_gx_default_hca_name);

gx_return_t plat_gx_hca_open(const char *name, u32 flags, gx_hca_h_t *hca)
{
	rules_no_lock("gx_hca_open");
	if (rules_fail("gx_hca_open"))
		return gx_return_error;
	if (strcmp(name, plat_gx_default_hca_name()))
		return gx_return_invalid_param;
	atomic_inc(&opened);
	*hca = &the_hca;
	return gx_return_ok;
}
EXPORT_SYMBOL_GPL(plat_gx_hca_open);

gx_return_t plat_gx_hca_close(gx_hca_h_t hca)
{
	rules_no_lock("gx_hca_close");
	if (WARN_ON(hca != &the_hca || atomic_dec_return(&opened) < 0))
		return gx_return_invalid_param;
	return gx_return_ok;
}
EXPORT_SYMBOL_GPL(plat_gx_hca_close);

/* Address services. */

int plat_port_num2base_gid(gx_hca_h_t hca, u8 port, gx_gid_t *gid)
{
	gx_gid_t first;
	u32 size = 1;

	rules_no_lock("port_num2base_gid");
	if (rules_fail("port_num2base_gid") || !hca ||
	    ask_gids(port, &size, &first) != gx_return_ok || size != 1)
		return gx_return_invalid_param;
	*gid = first;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_port_num2base_gid);

int plat_port_num2base_lid(gx_hca_h_t hca, u8 port, gx_lid_t *lid)
{
	gx_port_attrib_t attributes;

	rules_no_lock("port_num2base_lid");
	if (rules_fail("port_num2base_lid") || !hca || ask_port(port, &attributes) != gx_return_ok)
		return gx_return_invalid_param;
	*lid = attributes.port_base_lid;
	return 0;
}
EXPORT_SYMBOL_GPL(plat_port_num2base_lid);

int plat_base_gid2port_num(gx_hca_h_t hca, const gx_gid_t *gid, int *port)
{
	gx_hca_attrib_t attributes;
	gx_gid_t first;
	u32 size, n;

	rules_no_lock("base_gid2port_num");
	if (rules_fail("base_gid2port_num") || !hca || ask_hca(&attributes) != gx_return_ok)
		return gx_return_invalid_param;
	for (n = 1; n <= attributes.port_num; n++) {
		size = 1;
		if (ask_gids(n, &size, &first) == gx_return_ok && size == 1 &&
		    !memcmp(&first, gid, sizeof(first))) {
			*port = n;
			return 0;
		}
	}
	return gx_return_not_found;
}
EXPORT_SYMBOL_GPL(plat_base_gid2port_num);

int plat_pkey_index2pkey(gx_hca_h_t hca, u8 port, int index, gx_p_key_t *pkey)
{
	gx_p_key_t table[128];
	u32 size = index + 1;

	rules_no_lock("pkey_index2pkey");
	if (rules_fail("pkey_index2pkey") || !hca || index < 0 || index >= ARRAY_SIZE(table) ||
	    ask_pkeys(port, &size, table) != gx_return_ok || size <= index)
		return gx_return_invalid_param;
	*pkey = table[index];
	return 0;
}
EXPORT_SYMBOL_GPL(plat_pkey_index2pkey);

/* Events. */

static bool port_is_up(const struct adapter *a, u8 port)
{
	gx_port_attrib_t attributes;

	return !READ_ONCE(leaving) &&
	       a->verbs->query_port(a->context, port, &attributes) == gx_return_ok &&
	       attributes.port_state == gx_port_state_active;
}

static void report(u8 port, u32 type)
{
	event_callback((gx_event_record_t){ .event_type = type, .port_num = port });
	rules_no_lock("the return of the event callback");
}

static void report_port(const struct adapter *a, u8 port)
{
	struct port_news *n = &news[port - 1];
	bool went_down = test_and_clear_bit(NEWS_DOWN, &n->bits);
	bool up = port_is_up(a, port);

	if (n->reported_up && (went_down || !up)) {
		n->reported_up = false;
		report(port, gx_async_r_port_link_down);
	}
	if (!n->reported_up && up) {
		n->reported_up = true;
		report(port, gx_async_r_port_link_up);
	}
	if (test_and_clear_bit(NEWS_LID, &n->bits))
		report(port, gx_async_r_port_lid);
	if (test_and_clear_bit(NEWS_MTU, &n->bits))
		report(port, gx_async_r_port_mtu);
	if (test_and_clear_bit(NEWS_SM, &n->bits))
		report(port, gx_async_r_port_sm_change);
}

/*
 * An adapter goes only after this has run once more and has returned, so it may be used here
 * although the callback sleeps.
 */
static void report_events(struct work_struct *work)
{
	const struct adapter *a = present_one();
	gx_hca_attrib_t attributes = {};
	u32 port;

	if (!a || a->verbs->query_hca(a->context, &attributes) != gx_return_ok)
		return;
	mutex_lock(&events_mutex);
	for (port = 1; event_callback && port <= attributes.port_num; port++)
		report_port(a, port);
	mutex_unlock(&events_mutex);
}

/* An adapter may add to the bits meanwhile. Who forgets them has the ports' states reported
 * afterwards. */
static void forget_news(void)
{
	int i;

	for (i = 0; i < ADAPTER_MAX_PORTS; i++) {
		WRITE_ONCE(news[i].bits, 0);
		news[i].reported_up = false;
	}
}

gx_return_t plat_gx_set_sleepable_async_event_cb(gx_hca_h_t hca, gx_request_event_record_t request,
						 gx_sleepable_async_event_cb_t *callback)
{
	rules_may_sleep("gx_set_sleepable_async_event_cb");
	if (rules_fail("gx_set_sleepable_async_event_cb"))
		return gx_return_error;
	mutex_lock(&events_mutex);
	forget_news();
	event_callback = callback;
	if (!present_one())
		pr_info("quorvane: there is no InfiniBand adapter yet, waiting for one\n");
	mutex_unlock(&events_mutex);
	queue_work(events_queue, &events_work);
	return gx_return_ok;
}
EXPORT_SYMBOL_GPL(plat_gx_set_sleepable_async_event_cb);

gx_return_t plat_gx_dell_sleepable_async_event_cb(gx_hca_h_t hca,
						  gx_sleepable_async_event_cb_t *callback)
{
	rules_may_sleep("gx_dell_sleepable_async_event_cb");
	mutex_lock(&events_mutex);
	event_callback = NULL;
	mutex_unlock(&events_mutex);
	return gx_return_ok;
}
EXPORT_SYMBOL_GPL(plat_gx_dell_sleepable_async_event_cb);

/* What the adapter does. */

void adapter_event(u8 port, u32 event_type)
{
	if (port < 1 || port > ADAPTER_MAX_PORTS)
		return;
	switch (event_type) {
	case gx_async_r_port_link_down:
		set_bit(NEWS_DOWN, &news[port - 1].bits);
		break;
	case gx_async_r_port_lid:
		set_bit(NEWS_LID, &news[port - 1].bits);
		break;
	case gx_async_r_port_mtu:
		set_bit(NEWS_MTU, &news[port - 1].bits);
		break;
	case gx_async_r_port_sm_change:
		set_bit(NEWS_SM, &news[port - 1].bits);
		break;
	}
	queue_work(events_queue, &events_work);
}
EXPORT_SYMBOL_GPL(adapter_event);

int adapter_register(const struct adapter *adapter)
{
	gx_hca_attrib_t attributes;
	int error = 0;

	if (adapter->verbs->query_hca(adapter->context, &attributes) != gx_return_ok ||
	    attributes.port_num > ADAPTER_MAX_PORTS)
		return -EINVAL;
	mutex_lock(&events_mutex);
	if (rcu_access_pointer(present)) {
		error = -EBUSY;
	} else {
		forget_news();
		rcu_assign_pointer(present, adapter);
	}
	mutex_unlock(&events_mutex);
	if (!error)
		queue_work(events_queue, &events_work);
	return error;
}
EXPORT_SYMBOL_GPL(adapter_register);

void adapter_unregister(const struct adapter *adapter)
{
	if (WARN_ON(rcu_access_pointer(present) != adapter))
		return;
	WRITE_ONCE(leaving, true);
	queue_work(events_queue, &events_work);
	flush_workqueue(events_queue);
	wait_event(released, !atomic_read(&holders));
	rcu_assign_pointer(present, NULL);
	flush_workqueue(events_queue);
	synchronize_rcu();
	WRITE_ONCE(leaving, false);
}
EXPORT_SYMBOL_GPL(adapter_unregister);

const struct adapter *adapter_hold(void)
{
	const struct adapter *a = present_one();

	if (a)
		atomic_inc(&holders);
	return a;
}

void adapter_release(void)
{
	if (atomic_dec_and_test(&holders))
		wake_up_all(&released);
}

int adapter_start(void)
{
	events_queue = alloc_ordered_workqueue("quorvane_events", 0);
	return events_queue ? 0 : -ENOMEM;
}

void adapter_stop(void)
{
	WARN_ON(rcu_access_pointer(present) || atomic_read(&opened));
	destroy_workqueue(events_queue);
}
