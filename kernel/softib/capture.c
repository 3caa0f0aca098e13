// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
/*
 * debugfs' softib/capture: what is sent in the subnet while the file is open, each packet once, as
 * its sender sends it, in the format of a capture file: `cat capture >FILE`, and tshark reads FILE.
 * The records are ERF records of type InfiniBand, with all link headers; their checksums are zero.
 *
 * What the reader does not fetch in time is left out, and the next record says how many that were.
 */
#include <asm/unaligned.h>
#include <linux/debugfs.h>
#include <linux/fs.h>
#include <linux/kfifo.h>
#include <linux/math64.h>
#include <linux/module.h>
#include <linux/poll.h>
#include <linux/timekeeping.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

#include "kernel/softib/softib.h"

#define ROOM (1 << 20)
#define LINK_TYPE_ERF 197
#define ERF_INFINIBAND 21
#define ERF_VARYING_LENGTH 4
#define OPCODE_UD_SEND 0x64
#define OPCODE_UD_SEND_IMMEDIATE 0x65
#define CHECKSUMS 6

struct file_header {
	__le32 magic;
	__le16 major, minor;
	__le32 zone, accuracy, longest, link_type;
} __packed;

struct record {
	__le32 seconds, microseconds, kept, length; /* of the capture file */
	__le64 time;				    /* of ERF: seconds, and 2^-32 of them */
	u8 type, flags;
	__be16 record_length, lost, wire_length;
} __packed;

struct local_route {
	u8 lane_version, sl_next;
	__be16 dlid, words, slid;
} __packed;

struct transport {
	u8 opcode, flags;
	__be16 pkey;
	__be32 dqpn, psn;
	__be32 qkey, sqpn; /* of a datagram */
} __packed;

/* Both under sib_lock. */
static DECLARE_KFIFO_PTR(fifo, u8);
static u32 left_out;

static DECLARE_WAIT_QUEUE_HEAD(readable);
static atomic_t openings = ATOMIC_INIT(0); /* 1 at most */

static void put(const void *from, unsigned int size)
{
	kfifo_in(&fifo, (const u8 *)from, size);
}

void sib_capture(const struct sib_packet *p)
{
	static const u8 zero[4 + CHECKSUMS];
	u32 pad = -p->len & 3, immediate = p->has_imm ? 4 : 0;
	u32 inner = sizeof(struct transport) + immediate + p->len + pad + 4;
	u32 network = p->has_grh ? sizeof(p->grh) : 0;
	u32 length = sizeof(struct local_route) + network + inner + 2;
	u32 erf_length = sizeof(struct record) - 16 + length;
	struct timespec64 now;
	struct local_route local = {
		.lane_version = p->dqpn == 0 ? 0xf0 : 0,
		.sl_next = p->sl << 4 | (p->has_grh ? 3 : 2),
		.dlid = cpu_to_be16(p->dlid),
		.words = cpu_to_be16((length - 2) / 4),
		.slid = cpu_to_be16(p->slid),
	};
	struct transport transport = {
		.opcode = p->has_imm ? OPCODE_UD_SEND_IMMEDIATE : OPCODE_UD_SEND,
		.flags = p->solicited << 7 | pad << 4,
		.pkey = cpu_to_be16(p->pkey),
		.dqpn = cpu_to_be32(p->dqpn),
		.qkey = cpu_to_be32(p->qkey),
		.sqpn = cpu_to_be32(p->sqpn),
	};
	struct record record;

	if (!kfifo_initialized(&fifo))
		return;
	if (kfifo_avail(&fifo) < sizeof(record) + length) {
		left_out++;
		return;
	}
	ktime_get_real_ts64(&now);
	record = (struct record){
		.seconds = cpu_to_le32(now.tv_sec),
		.microseconds = cpu_to_le32(now.tv_nsec / 1000),
		.kept = cpu_to_le32(erf_length),
		.length = cpu_to_le32(erf_length),
		.time = cpu_to_le64((u64)now.tv_sec << 32 |
				    div_u64((u64)now.tv_nsec << 32, NSEC_PER_SEC)),
		.type = ERF_INFINIBAND,
		.flags = ERF_VARYING_LENGTH,
		.record_length = cpu_to_be16(erf_length),
		.lost = cpu_to_be16(min(left_out, 0xffffu)),
		.wire_length = cpu_to_be16(length),
	};
	left_out = 0;
	put(&record, sizeof(record));
	put(&local, sizeof(local));
	put(&p->grh, network);
	put(&transport, sizeof(transport));
	put(&p->imm, immediate);
	put(p->data, p->len);
	put(zero, pad + CHECKSUMS);
	wake_up_interruptible(&readable);
}

static int capture_open(struct inode *inode, struct file *file)
{
	const struct file_header header = {
		.magic = cpu_to_le32(0xa1b2c3d4),
		.major = cpu_to_le16(2),
		.minor = cpu_to_le16(4),
		.longest = cpu_to_le32(65535),
		.link_type = cpu_to_le32(LINK_TYPE_ERF),
	};
	typeof(fifo) fresh;
	int rc;

	if (atomic_cmpxchg(&openings, 0, 1))
		return -EBUSY;
	rc = kfifo_alloc(&fresh, ROOM, GFP_KERNEL);
	if (rc) {
		atomic_set(&openings, 0);
		return rc;
	}
	kfifo_in(&fresh, (const u8 *)&header, sizeof(header));
	spin_lock_irq(&sib_lock);
	fifo = fresh;
	left_out = 0;
	spin_unlock_irq(&sib_lock);
	return stream_open(inode, file);
}

static int capture_release(struct inode *inode, struct file *file)
{
	typeof(fifo) old;

	spin_lock_irq(&sib_lock);
	old = fifo;
	INIT_KFIFO(fifo);
	spin_unlock_irq(&sib_lock);
	kfifo_free(&old);
	atomic_set(&openings, 0);
	return 0;
}

static unsigned int take(u8 *to, unsigned int most)
{
	unsigned int taken;

	spin_lock_irq(&sib_lock);
	taken = kfifo_out(&fifo, to, most);
	spin_unlock_irq(&sib_lock);
	return taken;
}

static ssize_t capture_read(struct file *file, char __user *to, size_t size, loff_t *offset)
{
	u8 piece[256];
	unsigned int taken;

	size = min(size, sizeof(piece));
	taken = take(piece, size);
	if (!taken && (file->f_flags & O_NONBLOCK))
		return -EAGAIN;
	if (!taken && wait_event_interruptible(readable, (taken = take(piece, size))))
		return -ERESTARTSYS;
	return copy_to_user(to, piece, taken) ? -EFAULT : taken;
}

static __poll_t capture_poll(struct file *file, poll_table *table)
{
	bool any;

	poll_wait(file, &readable, table);
	spin_lock_irq(&sib_lock);
	any = !kfifo_is_empty(&fifo);
	spin_unlock_irq(&sib_lock);
	return any ? EPOLLIN | EPOLLRDNORM : 0;
}

const struct file_operations sib_capture_file = {
	.owner = THIS_MODULE,
	.open = capture_open,
	.release = capture_release,
	.read = capture_read,
	.poll = capture_poll,
};
