// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The adapter: its ports, and the events that they raise.
 */
#include <linux/debugfs.h>
#include <linux/init.h>
#include <linux/module.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "kernel/loop/loop.h"
#include "kernel/services/adapter.h"

#define FIRST_PORT_LID 2
#define SM_LID 1

static unsigned int ports = LOOP_MAX_PORTS;

static int set_ports(const char *text, const struct kernel_param *param)
{
	return param_set_uint_minmax(text, param, 1, LOOP_MAX_PORTS) ? -EINVAL : 0;
}

static const struct kernel_param_ops ports_ops = { .set = set_ports, .get = param_get_uint };
module_param_cb(ports, &ports_ops, &ports, 0444);
__MODULE_PARM_TYPE(ports, "uint");
MODULE_PARM_DESC(ports, "Number of the adapter's ports, 1 or 2 (2)");

/* What can be changed of a port, and the event that tells of it. */
struct field {
	u64 value;
	u64 lowest;
	u64 highest;
	u32 event;
	u8 port;
};

static struct port {
	struct field up, lid, sm_lid, mtu;
} the_ports[LOOP_MAX_PORTS];

static struct dentry *folder;

static struct port *find_port(u8 number)
{
	return number >= 1 && number <= ports ? &the_ports[number - 1] : NULL;
}

u32 loop_ports(void)
{
	return ports;
}

struct dentry *loop_debugfs(void)
{
	return folder;
}
EXPORT_SYMBOL_GPL(loop_debugfs);

static gx_return_t query_hca(void *context, gx_hca_attrib_t *attributes)
{
	gx_gid_t gid;

	loop_gid(0, 0, &gid);
	memcpy(&attributes->guid, gid.raw, sizeof(attributes->guid));
	attributes->port_num = ports;
	return gx_return_ok;
}

static gx_return_t query_port(void *context, u8 number, gx_port_attrib_t *attributes)
{
	struct port *p = find_port(number);

	if (!p)
		return gx_return_invalid_param;
	*attributes = (gx_port_attrib_t){
		.port_num = number,
		.port_state = READ_ONCE(p->up.value) ? gx_port_state_active : gx_port_state_down,
		.port_mtu = READ_ONCE(p->mtu.value),
		.port_base_lid = READ_ONCE(p->lid.value),
		.port_sgid_table_size = 1,
		.port_pkey_table_size = 1,
		.port_sma_address_info = { .port_num = number,
					   .sm_lid = READ_ONCE(p->sm_lid.value) },
	};
	return gx_return_ok;
}

static gx_return_t get_port_gid_tbl(void *context, u8 number, u32 *size, gx_gid_t *table)
{
	if (!find_port(number) || !*size)
		return gx_return_invalid_param;
	loop_gid(0, number, table);
	*size = 1;
	return gx_return_ok;
}

static gx_return_t get_port_partition_tbl(void *context, u8 number, u32 *size, gx_p_key_t *table)
{
	if (!find_port(number) || !*size)
		return gx_return_invalid_param;
	table[0] = LOOP_PKEY;
	*size = 1;
	return gx_return_ok;
}

bool loop_port_by_gid(const u8 *wire, gx_port_attrib_t *attributes)
{
	gx_gid_t gid;
	u8 number;
	int i;

	for (number = 1; number <= ports; number++) {
		loop_gid(0, number, &gid);
		for (i = 0; i < 16 && gid.raw[15 - i] == wire[i]; i++)
			;
		if (i == 16)
			return query_port(NULL, number, attributes) == gx_return_ok;
	}
	return false;
}

static const gx_hca_ops_t verbs = {
	.query_hca = query_hca,
	.query_port = query_port,
	.get_port_gid_tbl = get_port_gid_tbl,
	.get_port_partition_tbl = get_port_partition_tbl,
};

static const struct adapter loop_adapter = {
	.name = "tarv_loop",
	.verbs = &verbs,
	.gsi = &loop_gsi,
};

static int field_get(void *data, u64 *value)
{
	struct field *f = data;

	*value = READ_ONCE(f->value);
	return 0;
}

static int field_set(void *data, u64 value)
{
	struct field *f = data;

	if (value < f->lowest || value > f->highest)
		return -EINVAL;
	WRITE_ONCE(f->value, value);
	adapter_event(f->port, f->event == gx_async_r_port_link_up && !value
				       ? gx_async_r_port_link_down
				       : f->event);
	return 0;
}
DEFINE_DEBUGFS_ATTRIBUTE(field_ops, field_get, field_set, "%llu\n");

static void make_port(u8 number)
{
	struct port *p = &the_ports[number - 1];
	char name[] = "port0";
	struct dentry *here;

	*p = (struct port){
		.up = { 1, 0, 1, gx_async_r_port_link_up, number },
		.lid = { FIRST_PORT_LID + number - 1, 1, 0xbfff, gx_async_r_port_lid, number },
		.sm_lid = { SM_LID, 1, 0xbfff, gx_async_r_port_sm_change, number },
		.mtu = { LOOP_MTU, 1, 5, gx_async_r_port_mtu, number },
	};
	name[4] += number;
	here = debugfs_create_dir(name, folder);
	debugfs_create_file_unsafe("up", 0644, here, &p->up, &field_ops);
	debugfs_create_file_unsafe("lid", 0644, here, &p->lid, &field_ops);
	debugfs_create_file_unsafe("sm_lid", 0644, here, &p->sm_lid, &field_ops);
	debugfs_create_file_unsafe("mtu", 0644, here, &p->mtu, &field_ops);
}

static int __init tarv_loop_init(void)
{
	int error;
	u8 number;

	folder = debugfs_create_dir("tarv_loop", NULL);
	for (number = 1; number <= ports; number++)
		make_port(number);
	loop_gsi_start(folder);
	error = adapter_register(&loop_adapter);
	if (!error)
		return 0;
	debugfs_remove(folder);
	loop_gsi_stop();
	return error;
}

static void __exit tarv_loop_exit(void)
{
	debugfs_remove(folder);
	adapter_unregister(&loop_adapter);
	loop_gsi_stop();
}

module_init(tarv_loop_init);
module_exit(tarv_loop_exit);
MODULE_DESCRIPTION("An InfiniBand adapter and a fabric in memory, for trying tarv out.");
MODULE_VERSION("1.21");
MODULE_LICENSE("Dual BSD/GPL");
