// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Sees every call by which the fabric enters the module, before it is made and after it returned:
// an ARP packet that the driver hands in, an SA answer that the GSI service completes, an event of
// the adapter; and what the module sends: ARP requests and queries. A model that runs beside the
// module learns from it what the module was told and what it did.
#pragma once

#include "platform/gsi.h"
#include "platform/verbs.h"
#include "tarv/tarv.h"

namespace fabric {

class Witness {
  public:
    virtual ~Witness() = default;

    virtual void before_arp(const tarv_arp_data_t& record) = 0;
    virtual void after_arp(tarv_stat_t result) = 0;
    /// `port` is where the answer arrived.
    virtual void before_answer(int port, gsi_dtgrm_t* answer) = 0;
    virtual void after_answer() = 0;
    virtual void before_event(const gx_event_record_t& event) = 0;
    virtual void after_event() = 0;
    /// The driver is asked to send; whether it can is not known yet.
    virtual void arp_request(const tarv_arp_data_t& record, int media_reset) = 0;
    /// A datagram was posted on that port, and will be sent. The GSI service must not be called.
    virtual void query(int port, const gsi_dtgrm_t& posted) = 0;
};

/// The one that sees from now on; null: nobody. For virtual time only: it is called on the only
/// thread, with no lock of the fabric held.
void set_witness(Witness* witness);
Witness* witness();

}  // namespace fabric
