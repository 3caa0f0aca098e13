// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The General Services Interface of our host: the waist's calls for classes, datagram pools and
// datagrams, between the module and the wire.
//
// A MAD of another class or version than the one that it is posted on is refused: its answer would
// be nobody's.
//
// Outward, a request is encoded when it is posted: the common header goes into network order, a
// transaction ID is put in, the RMPP data block is placed behind the RMPP header. The module's own
// MAD and block are never written to. It is sent, and its send completion is called, afterwards in
// the GSI context. Inward, an answer is matched by its transaction ID, reassembled when it came in
// several segments, turned back into host order and handed to the class's receive callback.
//
// RMPP is done as Linux does it: all that comes by it is acknowledged, and after the request's
// acknowledgement the direction switches, where the datagram says that it has to. Where it does
// not, the request is over with that, and what comes after it is nobody's.
//
// A request that nobody answers is forgotten in silence after a time; asking again is the module's
// business. Answers of a transaction that was already answered are handed on too until then.
//
// Rules that stop the program, each with the datagram's address and its pool's name: a datagram
// given back twice or posted twice, written to after it was given back or while it is in flight,
// posted on a class that is deregistered, missing when its pool is destroyed; a handle that is no
// class or pool.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fabric/adapter.h"
#include "fabric/mutex.h"
#include "fabric/ports.h"
#include "fabric/rmpp.h"
#include "fabric/works.h"
#include "platform/gsi.h"

namespace fabric {

/// Where today's SAs and the module disagree about MultiPathRecord queries, and this layer stands
/// between them. Each translation can be switched off.
struct GsiTranslations {
    /// The module marks SGIDCount and DGIDCount as components 18 and 19 of its query; today's SAs
    /// number them 19 and 20. When true, component 20 is marked too in what is sent.
    bool set_component_bit_20 = true;
    /// Today's SAs answer a MultiPathRecord query under the attribute ID of the records they
    /// send, 0x0035 (PathRecord). When true, the module is shown 0x003A, on error answers too.
    bool path_record_answers_as_multi_path = true;
};

struct GsiSlot;  ///< a datagram and what the service knows about it

class Gsi {
  public:
    Gsi(Works& works, Wire& wire, const Adapter& adapter);
    ~Gsi();

    void set_translations(const GsiTranslations& translations);
    /// Ticks after which an unanswered request is forgotten; 10000 by default.
    void set_request_lifetime(unsigned long ticks);

    /// The next call for a datagram succeeds without one: a pool that has lost count.
    void hand_out_nothing_next(bool nothing = true);
    bool hands_out_nothing_next() const;

    /// The next answer is reported with that size; a block with no more than it holds.
    void report_size_next(int size);

    /// What is registered and made now, a line each: classes, then pools.
    std::vector<std::string> registered() const;
    std::size_t open_classes() const;
    std::size_t pools() const;
    std::size_t datagrams_out() const;  ///< that are not in their pool, received ones included
    std::size_t datagrams_in_flight() const;  ///< posted, their send not yet completed
    std::size_t requests_waiting() const;     ///< sent, not answered and not yet forgotten
    void report(std::vector<std::string>& lines) const;

    /// A management datagram arrived at our port.
    void receive(int port, const Packet& packet);

    // The waist's calls.
    int register_class(u8 mgt_class, u8 class_ver, const char* hca_name, u8 port, bool is_server,
                       bool uses_rmpp, gsi_dtgrm_cb_t* send_done, gsi_dtgrm_cb_t* recv_done,
                       void* context, gsi_class_handle_t* handle);
    int deregister_class(gsi_class_handle_t handle);
    int create_pool(u32 count, gsi_dtgrm_pool_handle_t* pool, const char* name);
    void destroy_pool(gsi_dtgrm_pool_handle_t pool);
    int get(gsi_dtgrm_pool_handle_t pool, gsi_dtgrm_t** dtgrm);
    void put(gsi_dtgrm_t* dtgrm);
    void* alloc_rmpp_buffer(gsi_dtgrm_t* dtgrm, u32 size);
    void* get_rmpp_buffer(gsi_dtgrm_t* dtgrm, int* paysize);
    int post(gsi_class_handle_t handle, gsi_dtgrm_t* dtgrm);

  private:
    struct Request {
        gsi_class_handle_t owner;
        unsigned long deadline;
        bool turns_round = false;  ///< an answer is to come by RMPP too
        bool answered = false;
        std::unique_ptr<RmppReceiver> receiver = nullptr;
    };

    GsiSlot& slot_of(const char* call, const gsi_dtgrm_t* dtgrm) TA_REQ(mutex_);
    void known_pool(const char* call, gsi_dtgrm_pool_handle_t pool) TA_REQ(mutex_);
    gsi_class& known_class(const char* call, gsi_class_handle_t handle) TA_REQ(mutex_);
    GsiSlot& take(gsi_dtgrm_pool& pool) TA_REQ(mutex_);
    void give_back(GsiSlot& slot) TA_REQ(mutex_);
    void forget_old() TA_REQ(mutex_);
    Packet make_packet(const gsi_class& owner, const GsiSlot& slot, std::uint32_t transaction)
        TA_REQ(mutex_);
    void transmit(gsi_class_handle_t handle, GsiSlot* slot, Packet packet);
    bool take_in(const Bytes& mad, Request& request, std::optional<Bytes>& reply) TA_REQ(mutex_);
    bool reassemble(const Bytes& mad, const RmppHeader& header, Request& request,
                    std::optional<Bytes>& reply) TA_REQ(mutex_);
    void reply_to(int port, const Packet& packet, Bytes mad);
    GsiSlot& make_received(const Packet& packet, Request& request) TA_REQ(mutex_);
    void complete(gsi_class_handle_t handle, gsi_dtgrm_cb_t* callback, gsi_dtgrm_t* dtgrm);

    Works& works_;
    Wire& wire_;
    const Adapter& adapter_;

    mutable Mutex mutex_;  ///< also of the inside of every class, pool and slot
    GsiTranslations translations_ TA_GUARDED(mutex_);
    unsigned long lifetime_ TA_GUARDED(mutex_) = 10000;
    std::unordered_map<gsi_class_handle_t, std::unique_ptr<gsi_class>> classes_
        TA_GUARDED(mutex_);  ///< closed ones too
    std::unordered_map<gsi_dtgrm_pool_handle_t, std::unique_ptr<gsi_dtgrm_pool>> pools_
        TA_GUARDED(mutex_);
    std::unordered_map<const gsi_dtgrm_t*, std::unique_ptr<GsiSlot>> slots_ TA_GUARDED(mutex_);
    std::unique_ptr<gsi_dtgrm_pool> received_ TA_GUARDED(mutex_);  ///< own pool, for answers
    bool nothing_next_ TA_GUARDED(mutex_) = false;
    std::optional<int> size_next_ TA_GUARDED(mutex_);
    std::uint32_t next_transaction_ TA_GUARDED(mutex_) = 1;
    std::unordered_map<std::uint32_t, Request> requests_ TA_GUARDED(mutex_);
    std::deque<std::uint32_t> by_age_ TA_GUARDED(mutex_);  ///< of requests_, oldest first
};

}  // namespace fabric
