/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * What tarv and its clients and driver exchange, for code of the kernel that is written in C: the
 * address record of an IPv4 peer, status codes and callbacks. The same as tarv/tarv.h says to C++;
 * kernel/seam/compare.cc holds the two together.
 *
 * IPv4 addresses are in network byte order. A GID is held with its least significant byte first:
 * byte 0 of a gx_gid_t is byte 15 of the GID on the wire.
 */
#ifndef TARV_RECORD_H
#define TARV_RECORD_H

#ifdef __cplusplus
typedef unsigned char u8;
typedef unsigned short u16;
typedef unsigned int u32;
typedef unsigned long long u64;
#else
#include <linux/types.h>
#endif

typedef u16 gx_lid_t;
typedef u16 gx_p_key_t;

typedef struct gx_gid_t {
	u8 raw[16];
} gx_gid_t;

/* A path from one port to another: the SA's PathRecord with integers in host order. */
typedef struct ib_path_record_v2_t {
	u32 reserved0;
	u32 reserved1;
	gx_gid_t dgid;
	gx_gid_t sgid;
	u16 dlid;
	u16 slid;
	union {
		u32 flow_word;
		struct {
			u32 hop_limut : 8;
			u32 flow_label : 20;
			u32 reserved3 : 3;
			u32 raw_traffic : 1;
		} __attribute__((packed));
	};
	u8 traffic_class;
	u8 numb_path : 7;
	u8 reversible : 1;
	u16 pkey;
	union {
		u16 sl_word;
		struct {
			u16 sl : 4;
			u16 reserved4 : 12;
		} __attribute__((packed));
	};
	u8 mtu : 6; /* code: 1 256, 2 512, 3 1024, 4 2048, 5 4096 bytes */
	u8 mtu_selector : 2;
	u8 rate : 6; /* code: 2 2.5, 3 10, 4 30 Gb/s, ... */
	u8 rate_selector : 2;
	u8 pkt_life_time : 6; /* 4.096 microseconds times 2 to this power */
	u8 pkt_life_time_selector : 2;
	u8 preference;
	u8 reserved2[6];
} __attribute__((packed)) ib_path_record_v2_t;

/* Outcome of an operation. */
typedef enum tarv_stat_t {
	tarv_stat_ok = 0,
	tarv_stat_pending = -253,   /* the answer comes later, through the reply callback */
	tarv_stat_timeout = -254,   /* retries used up, or the module was halted */
	tarv_stat_error = -255,	    /* no memory, no driver, refused, bad handle */
	tarv_stat_not_found = -256, /* no entry, or a miss without a callback */
} tarv_stat_t;

/* SA path records that a caller wants with an answer. */
typedef enum tarv_paths_t {
	tarv_paths_none = 0,
	tarv_paths_primary = 1,
	tarv_paths_both = 2,
} tarv_paths_t;

/* Bits of a record's mask: which fields hold data. */
enum {
	TARV_MASK_SRC_IP = 0x0001,
	TARV_MASK_DST_IP = 0x0002,
	TARV_MASK_GID = 0x0004,
	TARV_MASK_QPN = 0x0008,
	TARV_MASK_LID = 0x0010,
	TARV_MASK_QKEY = 0x0020,
	TARV_MASK_CAP_FLG = 0x0040,
	TARV_MASK_PRIMARY_PATH = 0x0080,
	TARV_MASK_SECONDARY_PATH = 0x0100,
	TARV_MASK_LOCAL_PORT = 0x0200,
	TARV_MASK_ARP_OP = 0x0400, /* only in ARP requests handed to the driver */
	TARV_MASK_STATIC = 0x8000, /* made by the administrator: never aged out */
};

enum {
	TARV_ARP_OP_REQUEST = 1,
	TARV_ARP_OP_REPLY = 2,
};

#define TARV_MAX_PATHS 3

/* What is known about one peer. */
typedef struct tarv_arp_data_t {
	u32 mask;
	u16 arp_operation;
	u32 src_ip; /* from the driver: the ARP sender; in answers: our own address */
	u32 dst_ip; /* in answers: the peer; in an ARP request: the address asked for */
	gx_gid_t gid;
	u32 qpn;
	u8 cap_flg;
	gx_lid_t lid;
	u32 qkey;
	/*
	 * Aimed at the record's own paths[0] and paths[1]. Follow one only while its mask bit is
	 * set; in a copy that somebody else made, read `paths` instead.
	 */
	ib_path_record_v2_t *primary_path;
	ib_path_record_v2_t *secondary_path;
	u32 local_port_num; /* from 1 */
	int paths_count;    /* how many of `paths` hold a record */
	ib_path_record_v2_t paths[TARV_MAX_PATHS];
	void *context; /* in an ARP request: the requesting caller's */
} tarv_arp_data_t;

#endif
