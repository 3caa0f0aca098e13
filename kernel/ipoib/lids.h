/* SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause */
/*
 * The LIDs of peers, which an ARP packet on its way through Linux has lost: the SA knows them.
 */
#ifndef KERNEL_IPOIB_LIDS_H
#define KERNEL_IPOIB_LIDS_H

#include "kernel/include/tarv_client.h"

struct dentry;

void lids_start(struct dentry *folder, void (*hand_in)(tarv_arp_data_t *record));

/* Nothing is handed in any more when this returns: within two seconds. Process context. */
void lids_stop(void);

/*
 * Hands the record in with the LID of its GID: at once where that has been looked up within the
 * last minute, otherwise when the SA has answered. A record for which there is no answer is
 * dropped, as if the packet had been lost. Any context in which packets are received.
 */
void lids_hand_in(const tarv_arp_data_t *record);

#endif
