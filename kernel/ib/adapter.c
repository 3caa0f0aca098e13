// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The adapter verbs on ib_core.
 *
 * The verbs answer in any context and ib_query_port may sleep, so a picture is kept of each port.
 * Whatever happens to a port, its picture is taken anew first and then it is told, by one worker:
 * ib_core runs handlers of events side by side. What is told follows from what is different in the
 * picture, since not all that matters has an event of its own, and not every event has changed
 * something.
 */
#include <linux/init.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/workqueue.h>
#include <rdma/ib_cache.h>
#include <rdma/ib_mad.h>

#include "kernel/ib/ib.h"
#include "kernel/services/adapter.h"

#define MOST_PORTS 8
#define MOST_PKEYS 128

static char *hca;
module_param(hca, charp, 0444);
MODULE_PARM_DESC(hca, "Name of the adapter to use (the first InfiniBand one that comes)");

struct picture {
	gx_port_attrib_t attributes;
	gx_gid_t gid;
	u32 pkey_count;
	gx_p_key_t pkeys[MOST_PKEYS];
};

/* What happened to a port since its picture was taken. */
enum { HAPPENED_ANYTHING, HAPPENED_DOWN, HAPPENED_UP, HAPPENED_SM, HAPPENED_FATAL };

struct port {
	unsigned long happened;
	bool dead; /* after a fatal error, until it is said to be active; the worker's */
	struct picture picture;
};

static struct port ports[MOST_PORTS];
static DEFINE_SPINLOCK(pictures_lock); /* guards the pictures */

/* Adapters come and go side by side. Guards which one is in use, and all that is here about it. */
static DEFINE_MUTEX(choice_mutex);
static struct ib_device __rcu *in_use;
static struct ib_event_handler handler;
static u32 port_count;

static void look_at_ports(struct work_struct *work);
static DECLARE_WORK(look_work, look_at_ports);
static struct workqueue_struct *queue;

static bool is_infiniband(struct ib_device *device, u32 n)
{
	return rdma_protocol_ib(device, n) && rdma_cap_ib_mad(device, n) &&
	       !rdma_cap_opa_mad(device, n);
}

/* Verbs: from the picture. */

static bool read_picture(u8 n, struct picture *picture)
{
	unsigned long flags;

	if (n < 1 || n > port_count)
		return false;
	spin_lock_irqsave(&pictures_lock, flags);
	*picture = ports[n - 1].picture;
	spin_unlock_irqrestore(&pictures_lock, flags);
	return true;
}

static gx_return_t query_hca(void *context, gx_hca_attrib_t *attributes)
{
	const struct ib_device *device = context;

	attributes->guid = be64_to_cpu(device->node_guid);
	attributes->port_num = port_count;
	return gx_return_ok;
}

static gx_return_t query_port(void *context, u8 n, gx_port_attrib_t *attributes)
{
	struct picture p;

	if (!read_picture(n, &p))
		return gx_return_invalid_param;
	*attributes = p.attributes;
	return gx_return_ok;
}

static gx_return_t get_port_gid_tbl(void *context, u8 n, u32 *size, gx_gid_t *table)
{
	struct picture p;

	if (!*size || !read_picture(n, &p) || !p.attributes.port_sgid_table_size)
		return gx_return_invalid_param;
	table[0] = p.gid;
	*size = 1;
	return gx_return_ok;
}

static gx_return_t get_port_partition_tbl(void *context, u8 n, u32 *size, gx_p_key_t *table)
{
	struct picture p;

	if (!*size || !read_picture(n, &p) || !p.pkey_count)
		return gx_return_invalid_param;
	*size = min(*size, p.pkey_count);
	memcpy(table, p.pkeys, *size * sizeof(*table));
	return gx_return_ok;
}

static const gx_hca_ops_t verbs = {
	.query_hca = query_hca,
	.query_port = query_port,
	.get_port_gid_tbl = get_port_gid_tbl,
	.get_port_partition_tbl = get_port_partition_tbl,
};

static struct adapter adapter = { .verbs = &verbs, .gsi = &ib_gsi };

/* Pictures. */

static void read_tables(struct ib_device *device, u8 n, struct picture *p)
{
	union ib_gid gid;
	u32 i;

	if (!rdma_query_gid(device, n, 0, &gid))
		gid_from_wire(&p->gid, gid.raw);
	for (i = 0; i < min_t(u32, p->attributes.port_pkey_table_size, MOST_PKEYS); i++)
		if (ib_get_cached_pkey(device, n, i, &p->pkeys[i]))
			break;
	p->pkey_count = i;
}

/* What cannot be read, and what is no InfiniBand port, is a port that is down. */
static void look_at(struct ib_device *device, u8 n, struct picture *p)
{
	struct ib_port_attr a = {};

	*p = (struct picture){
		.attributes = { .port_num = n, .port_state = gx_port_state_down },
	};
	if (!is_infiniband(device, n) || ib_query_port(device, n, &a))
		return;
	p->attributes = (gx_port_attrib_t){
		.port_num = n,
		.port_state = ports[n - 1].dead ? gx_port_state_down : a.state,
		.port_mtu = a.active_mtu,
		.port_lmc = a.lmc,
		.port_base_lid = a.lid,
		.port_sgid_table_size = a.gid_tbl_len,
		.port_pkey_table_size = a.pkey_tbl_len,
		.port_sma_address_info = { .port_num = n,
					   .sm_lid = a.sm_lid,
					   .service_level = a.sm_sl },
	};
	read_tables(device, n, p);
}

/*
 * The link counts as down and up again, if it is up, also when the port has another GID or other
 * P_Keys than before: those are read where a link comes up, and nobody asks for them later.
 */
static bool link_was_lost(const struct picture *old, const struct picture *new)
{
	return memcmp(&old->gid, &new->gid, sizeof(new->gid)) ||
	       old->pkey_count != new->pkey_count ||
	       memcmp(old->pkeys, new->pkeys, new->pkey_count * sizeof(new->pkeys[0]));
}

static bool manager_moved(const gx_sm_address_info_t *old, const gx_sm_address_info_t *new)
{
	return old->sm_lid != new->sm_lid || old->service_level != new->service_level;
}

/* A LID and an MTU that a port had not been given before are no change of any. */
static void tell(u8 n, unsigned long happened, const struct picture *old, const struct picture *new)
{
	const gx_port_attrib_t *before = &old->attributes, *now = &new->attributes;

	if (test_bit(HAPPENED_DOWN, &happened) || link_was_lost(old, new))
		adapter_event(n, gx_async_r_port_link_down);
	if (before->port_base_lid && before->port_base_lid != now->port_base_lid)
		adapter_event(n, gx_async_r_port_lid);
	if (before->port_state == gx_port_state_active && before->port_mtu != now->port_mtu)
		adapter_event(n, gx_async_r_port_mtu);
	if (test_bit(HAPPENED_SM, &happened) ||
	    manager_moved(&before->port_sma_address_info, &now->port_sma_address_info))
		adapter_event(n, gx_async_r_port_sm_change);
	adapter_event(n, gx_async_r_port_link_up);
}

static void look_at_port(struct ib_device *device, u8 n)
{
	struct port *port = &ports[n - 1];
	unsigned long happened = xchg(&port->happened, 0);
	struct picture old, new;

	if (!happened)
		return;
	if (test_bit(HAPPENED_UP, &happened))
		port->dead = false;
	else if (test_bit(HAPPENED_FATAL, &happened))
		port->dead = true;
	look_at(device, n, &new);
	spin_lock_irq(&pictures_lock);
	old = port->picture;
	port->picture = new;
	spin_unlock_irq(&pictures_lock);
	tell(n, happened, &old, &new);
}

/* The adapter waits for this before it goes. */
static void look_at_ports(struct work_struct *work)
{
	struct ib_device *device = rcu_dereference_protected(in_use, true);
	u8 n;

	for (n = 1; device && n <= port_count; n++)
		look_at_port(device, n);
}

/* Events. */

static void happens(u8 n, int what)
{
	if (n < 1 || n > port_count)
		return;
	set_bit(what, &ports[n - 1].happened);
	queue_work(queue, &look_work);
}

static void happens_to_all(int what)
{
	u8 n;

	for (n = 1; n <= port_count; n++)
		happens(n, what);
}

static void on_event(struct ib_event_handler *unused, struct ib_event *event)
{
	const u8 n = event->element.port_num;

	switch (event->event) {
	case IB_EVENT_PORT_ACTIVE:
		happens(n, HAPPENED_UP);
		break;
	case IB_EVENT_PORT_ERR:
		happens(n, HAPPENED_DOWN);
		break;
	case IB_EVENT_SM_CHANGE:
	case IB_EVENT_CLIENT_REREGISTER:
		happens(n, HAPPENED_SM);
		break;
	case IB_EVENT_LID_CHANGE:
	case IB_EVENT_PKEY_CHANGE:
	case IB_EVENT_GID_CHANGE:
		happens(n, HAPPENED_ANYTHING);
		break;
	case IB_EVENT_DEVICE_FATAL:
		happens_to_all(HAPPENED_FATAL);
		break;
	default:
		break;
	}
}

/* An adapter comes and goes. */

struct ib_device *tarv_ib_device_get(void)
{
	struct ib_device *device;

	rcu_read_lock();
	device = rcu_dereference(in_use);
	if (device && !ib_device_try_get(device))
		device = NULL;
	rcu_read_unlock();
	return device;
}
EXPORT_SYMBOL_GPL(tarv_ib_device_get);

/* Whether this is the one; a port of the one that cannot be used is told of. */
static bool is_wanted(struct ib_device *device)
{
	u32 n, usable = 0;

	if (rcu_access_pointer(in_use) || (hca && strcmp(hca, dev_name(&device->dev))))
		return false;
	rdma_for_each_port(device, n) usable += is_infiniband(device, n);
	rdma_for_each_port(device, n) if (!is_infiniband(device, n))
		pr_info("tarv_ib: port %u of %s is not InfiniBand, it is left alone\n", n,
			dev_name(&device->dev));
	if (device->phys_port_cnt > MOST_PORTS)
		pr_warn("tarv_ib: %s has more than %d ports\n", dev_name(&device->dev), MOST_PORTS);
	return usable && device->phys_port_cnt <= MOST_PORTS;
}

static void use(struct ib_device *device)
{
	u8 n;

	port_count = device->phys_port_cnt;
	for (n = 1; n <= port_count; n++) {
		ports[n - 1] = (struct port){};
		look_at(device, n, &ports[n - 1].picture);
	}
	adapter.name = dev_name(&device->dev);
	adapter.context = device;
	rcu_assign_pointer(in_use, device);
	INIT_IB_EVENT_HANDLER(&handler, device, on_event);
	ib_register_event_handler(&handler);
	happens_to_all(HAPPENED_ANYTHING);
}

static void stop_using(void)
{
	ib_unregister_event_handler(&handler);
	cancel_work_sync(&look_work);
	rcu_assign_pointer(in_use, NULL);
	synchronize_rcu();
}

static struct ib_client client;

static int take(struct ib_device *device)
{
	int error;

	if (!is_wanted(device))
		return -EOPNOTSUPP;
	use(device);
	error = adapter_register(&adapter);
	if (error) {
		pr_warn("tarv_ib: another adapter than %s is in use\n", adapter.name);
		stop_using();
		return error;
	}
	ib_set_client_data(device, &client, &adapter);
	pr_info("tarv_ib: %s is in use, %u ports\n", adapter.name, port_count);
	return 0;
}

static int add_device(struct ib_device *device)
{
	int error;

	mutex_lock(&choice_mutex);
	error = take(device);
	mutex_unlock(&choice_mutex);
	return error;
}

/* Only of the one that was taken. It is there for the GSI until the links have been reported down.
 */
static void remove_device(struct ib_device *device, void *data)
{
	mutex_lock(&choice_mutex);
	adapter_unregister(&adapter);
	stop_using();
	pr_info("tarv_ib: %s is gone\n", dev_name(&device->dev));
	mutex_unlock(&choice_mutex);
}

static struct ib_client client = { .name = "tarv", .add = add_device, .remove = remove_device };

static int __init tarv_ib_init(void)
{
	int error = -ENOMEM;

	queue = alloc_ordered_workqueue("tarv_ib", 0);
	if (!queue)
		return error;
	error = ib_gsi_start();
	if (error)
		goto no_gsi;
	error = ib_register_client(&client);
	if (!error)
		return 0;
	ib_gsi_stop();
no_gsi:
	destroy_workqueue(queue);
	return error;
}

static void __exit tarv_ib_exit(void)
{
	ib_unregister_client(&client);
	ib_gsi_stop();
	destroy_workqueue(queue);
}

module_init(tarv_ib_init);
module_exit(tarv_ib_exit);
MODULE_DESCRIPTION("An InfiniBand adapter of the RDMA stack for tarv.");
MODULE_VERSION("1.21");
MODULE_LICENSE("Dual BSD/GPL");
