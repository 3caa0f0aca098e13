// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * The GSI on ib_mad, for the one class that is ever registered: the SA's, with RMPP.
 *
 * A class on a port is a MAD agent. It registers for no requests, so it lives beside ib_core's own
 * client of the SA: ib_mad gives an answer to the agent whose number stands in the upper half of
 * the transaction ID; the lower half counts up here.
 *
 * A post only queues: address handles and send buffers are made where that may sleep. What was
 * posted counts as sent, and is completed, once it is ib_mad's. That keeps the request until it is
 * answered, or for ten seconds; the module has asked again by then. A query that cannot be sent
 * looks to the module like one that is not answered.
 */
#include <linux/atomic.h>
#include <linux/debugfs.h>
#include <linux/err.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/workqueue.h>
#include <rdma/ib_mad.h>
#include <rdma/ib_sa.h>

#include "kernel/ib/ib.h"
#include "kernel/services/gsi.h"

/*
 * Where today's SAs and the module disagree about MultiPathRecord queries, and this layer stands
 * between them. Each translation can be switched off.
 */
static bool set_component_bit_20 = true;
module_param(set_component_bit_20, bool, 0644);
MODULE_PARM_DESC(set_component_bit_20,
		 "Mark DGIDCount in queries where today's SAs look for it (1)");
static bool path_record_answers_as_multi_path = true;
module_param(path_record_answers_as_multi_path, bool, 0644);
MODULE_PARM_DESC(path_record_answers_as_multi_path,
		 "Take PathRecord answers for MultiPathRecord ones (1)");

enum {
	ANSWER_WITHIN_MS = 10000,
	MOST_ANSWER_BYTES = 1 << 16,
	RECORD_BYTES = 64,
	/* RMPP carries an SA MAD from the SA's own header on. */
	CARRIED_AT = IB_MGMT_RMPP_HDR,
	CARRIED_HEADER = IB_MGMT_SA_HDR - IB_MGMT_RMPP_HDR,
	COMPONENT_20_AT = 53,
	COMPONENT_20 = 0x10,
};

static atomic_t sent, failed, answered, unanswered;
static struct dentry *folder;
static struct workqueue_struct *queue;

/* What the GSI's class is here. */
struct agent {
	struct gsi_class *class;
	struct ib_mad_agent *mad_agent;
	u32 last_transaction;	  /* the worker's */
	spinlock_t lock;	  /* guards the list */
	struct list_head waiting; /* to be sent */
	struct work_struct work;
};

/* A datagram's private bytes hold what it needs to wait. */
struct waiting {
	struct list_head link;
	gsi_dtgrm_t *dtgrm;
};

static_assert(sizeof(struct waiting) <= sizeof_field(gsi_dtgrm_t, priv));

/*
 * The module has three fields of the common header in its own order: attribute, transaction and
 * modifier. Swapping is the same in both directions.
 */
static void swap_header(struct ib_mad_hdr *header)
{
	cpu_to_be64s((__force u64 *)&header->tid);
	cpu_to_be16s((__force u16 *)&header->attr_id);
	cpu_to_be32s((__force u32 *)&header->attr_mod);
}

static bool is_of_sa(const struct ib_mad_hdr *header, u16 attribute)
{
	return header->mgmt_class == IB_MGMT_CLASS_SUBN_ADM &&
	       header->attr_id == cpu_to_be16(attribute);
}

/* Sending. */

static struct ib_ah *make_address(struct ib_mad_agent *agent, const gsi_dtgrm_t *dtgrm)
{
	struct rdma_ah_attr to = { .type = rdma_ah_find_type(agent->device, agent->port_num) };

	rdma_ah_set_port_num(&to, agent->port_num);
	rdma_ah_set_dlid(&to, dtgrm->rlid);
	rdma_ah_set_sl(&to, dtgrm->sl);
	rdma_ah_set_path_bits(&to, dtgrm->path_bits);
	rdma_ah_set_static_rate(&to, dtgrm->static_rate);
	return rdma_create_ah(agent->qp->pd, &to, RDMA_CREATE_AH_SLEEPABLE);
}

/* Writes the MAD in two parts, as RMPP has them: up to the end of the SA's header, and the data. */
static void write_mad(struct agent *a, const gsi_dtgrm_t *dtgrm, struct ib_mad_send_buf *to)
{
	struct ib_mad_hdr *header = to->mad;

	memcpy(header, dtgrm->mad, sizeof(*header));
	swap_header(header);
	header->tid = cpu_to_be64((u64)a->mad_agent->hi_tid << 32 | ++a->last_transaction);
	memcpy(to->mad + CARRIED_AT, dtgrm->rmpp_payload, CARRIED_HEADER);
	memcpy(ib_get_rmpp_segment(to, 1), dtgrm->rmpp_payload + CARRIED_HEADER,
	       dtgrm->rmpp_payload_size - CARRIED_HEADER);
	if (READ_ONCE(set_component_bit_20) && is_of_sa(header, IB_SA_ATTR_MULTI_PATH_REC))
		((u8 *)to->mad)[COMPONENT_20_AT] |= COMPONENT_20;
}

/* Queries of one segment are all that there are. */
static struct ib_mad_send_buf *make_mad(struct agent *a, const gsi_dtgrm_t *dtgrm)
{
	struct ib_mad_send_buf *mad;

	if (!dtgrm->rmpp_payload || dtgrm->rmpp_payload_size < CARRIED_HEADER ||
	    dtgrm->rmpp_payload_size > CARRIED_HEADER + IB_MGMT_SA_DATA)
		return ERR_PTR(-EMSGSIZE);
	mad = ib_create_send_mad(a->mad_agent, dtgrm->rqp, 0, 1, IB_MGMT_SA_HDR,
				 dtgrm->rmpp_payload_size - CARRIED_HEADER, GFP_KERNEL,
				 IB_MGMT_BASE_VERSION);
	if (IS_ERR(mad))
		return mad;
	write_mad(a, dtgrm, mad);
	mad->timeout_ms = ANSWER_WITHIN_MS;
	mad->retries = 0;
	return mad;
}

static void free_mad(struct ib_mad_send_buf *mad)
{
	if (mad->ah)
		rdma_destroy_ah(mad->ah, RDMA_DESTROY_AH_SLEEPABLE);
	ib_free_send_mad(mad);
}

static int send(struct agent *a, const gsi_dtgrm_t *dtgrm)
{
	struct ib_mad_send_buf *mad = make_mad(a, dtgrm);
	struct ib_ah *address;
	int error;

	if (IS_ERR(mad))
		return PTR_ERR(mad);
	address = make_address(a->mad_agent, dtgrm);
	error = PTR_ERR_OR_ZERO(address);
	if (!error) {
		mad->ah = address;
		error = ib_post_send_mad(mad, NULL);
	}
	if (error)
		free_mad(mad);
	return error;
}

static gsi_dtgrm_t *take_waiting(struct agent *a)
{
	struct waiting *w;

	spin_lock_irq(&a->lock);
	w = list_first_entry_or_null(&a->waiting, struct waiting, link);
	if (w)
		list_del(&w->link);
	spin_unlock_irq(&a->lock);
	return w ? w->dtgrm : NULL;
}

static void send_waiting(struct work_struct *work)
{
	struct agent *a = container_of(work, struct agent, work);
	gsi_dtgrm_t *dtgrm;
	int error;

	while ((dtgrm = take_waiting(a))) {
		error = send(a, dtgrm);
		atomic_inc(error ? &failed : &sent);
		if (error)
			pr_warn_ratelimited("tarv_ib: a query cannot be sent: %d\n", error);
		gsi_send_done(dtgrm);
	}
}

static int post(void *context, struct gsi_class *class, gsi_dtgrm_t *dtgrm)
{
	struct agent *a = class->priv;
	struct waiting *w = (struct waiting *)dtgrm->priv;
	unsigned long flags;

	w->dtgrm = dtgrm;
	spin_lock_irqsave(&a->lock, flags);
	list_add_tail(&w->link, &a->waiting);
	spin_unlock_irqrestore(&a->lock, flags);
	queue_work(queue, &a->work);
	return 0;
}

/* A request has ended: answered, not answered, or given up with the agent. */
static void request_ended(struct ib_mad_agent *mad_agent, struct ib_mad_send_wc *wc)
{
	if (wc->status == IB_WC_RESP_TIMEOUT_ERR)
		atomic_inc(&unanswered);
	free_mad(wc->send_buf);
}

/* Receiving. */

/*
 * An answer in one MAD does not say how much of it is data: what follows the last record is zero,
 * and no path leads to nowhere.
 */
static int bytes_in_one_mad(const struct ib_sa_mad *mad)
{
	int records = IB_MGMT_SA_DATA / RECORD_BYTES;

	while (records && !memchr_inv(mad->data + (records - 1) * RECORD_BYTES, 0, RECORD_BYTES))
		records--;
	return CARRIED_HEADER + records * RECORD_BYTES;
}

/* Each segment repeats the SA's header; the block has it once. */
static bool join_segments(struct ib_mad_recv_wc *wc, gsi_dtgrm_t *answer)
{
	u32 left = wc->mad_len - CARRIED_AT, bytes = CARRIED_HEADER;
	struct ib_mad_recv_buf *segment;
	u8 *to = kzalloc(left, GFP_KERNEL);

	if (!to)
		return false;
	answer->rmpp_payload = to;
	answer->rmpp_payload_size = left;
	memcpy(to, (u8 *)wc->recv_buf.mad + CARRIED_AT, bytes);
	list_for_each_entry (segment, &wc->rmpp_list, list) {
		to += bytes;
		left -= bytes;
		bytes = min_t(u32, left, IB_MGMT_SA_DATA);
		memcpy(to, (u8 *)segment->mad + IB_MGMT_SA_HDR, bytes);
	}
	return true;
}

static bool read_data(struct ib_mad_recv_wc *wc, gsi_dtgrm_t *answer)
{
	const struct ib_sa_mad *mad = (struct ib_sa_mad *)wc->recv_buf.mad;

	if (!(ib_get_rmpp_flags((struct ib_rmpp_hdr *)&mad->rmpp_hdr) & IB_MGMT_RMPP_FLAG_ACTIVE)) {
		gsi_datagram(answer)->paysize = bytes_in_one_mad(mad);
		return true;
	}
	if (wc->mad_len < IB_MGMT_SA_HDR || wc->mad_len > MOST_ANSWER_BYTES)
		return false;
	gsi_datagram(answer)->paysize = wc->mad_len - CARRIED_AT;
	return join_segments(wc, answer);
}

static void read_head(const struct ib_mad_recv_wc *wc, gsi_dtgrm_t *answer)
{
	struct ib_mad_hdr *header = (struct ib_mad_hdr *)answer->mad;

	memcpy(answer->mad, wc->recv_buf.mad, sizeof(answer->mad));
	if (READ_ONCE(path_record_answers_as_multi_path) && is_of_sa(header, IB_SA_ATTR_PATH_REC))
		header->attr_id = cpu_to_be16(IB_SA_ATTR_MULTI_PATH_REC);
	swap_header(header);
	answer->rqp = wc->wc->src_qp;
	answer->rlid = wc->wc->slid;
	answer->sl = wc->wc->sl;
}

static void receive(struct ib_mad_agent *mad_agent, struct ib_mad_send_buf *request,
		    struct ib_mad_recv_wc *wc)
{
	struct agent *a = mad_agent->context;
	gsi_dtgrm_t *answer = gsi_new_received(a->class);

	if (answer && read_data(wc, answer)) {
		read_head(wc, answer);
		atomic_inc(&answered);
		gsi_deliver(answer);
	} else if (answer) {
		plat_gsi_dtgrm_pool_put(answer);
	}
	ib_free_recv_mad(wc);
}

/* Classes. */

static int open_class(void *context, struct gsi_class *class)
{
	struct agent *a = kzalloc(sizeof(*a), GFP_KERNEL);

	if (!a)
		return gx_return_again;
	a->class = class;
	spin_lock_init(&a->lock);
	INIT_LIST_HEAD(&a->waiting);
	INIT_WORK(&a->work, send_waiting);
	class->priv = a;
	a->mad_agent = ib_register_mad_agent(context, class->port, IB_QPT_GSI, NULL,
					     IB_MGMT_RMPP_VERSION, request_ended, receive, a, 0);
	if (IS_ERR(a->mad_agent)) {
		pr_warn("tarv_ib: port %u takes no datagrams: %ld\n", class->port,
			PTR_ERR(a->mad_agent));
		kfree(a);
		return gx_return_error;
	}
	return 0;
}

/* Nothing is posted any more. Both wait: for what is being sent, then for what is being received.
 */
static int close_class(void *context, struct gsi_class *class)
{
	struct agent *a = class->priv;

	flush_work(&a->work);
	ib_unregister_mad_agent(a->mad_agent);
	kfree(a);
	return 0;
}

const struct gsi_operations ib_gsi = {
	.open = open_class,
	.close = close_class,
	.post = post,
};

int ib_gsi_start(void)
{
	queue = alloc_workqueue("tarv_ib_gsi", 0, 0);
	if (!queue)
		return -ENOMEM;
	folder = debugfs_create_dir("tarv_ib", NULL);
	debugfs_create_atomic_t("sent", 0444, folder, &sent);
	debugfs_create_atomic_t("failed", 0444, folder, &failed);
	debugfs_create_atomic_t("answered", 0444, folder, &answered);
	debugfs_create_atomic_t("unanswered", 0444, folder, &unanswered);
	return 0;
}

void ib_gsi_stop(void)
{
	debugfs_remove(folder);
	destroy_workqueue(queue);
}
