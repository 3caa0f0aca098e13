// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The clients' requests, and the book in which each is kept until the module is gone: only then is
// it known that nobody will answer it any more, or once more.
//
// Every thread has a ledger of its own; a callback may make requests too, on whatever thread it
// runs.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <vector>

#include "tarv/tarv.h"
#include "tests/races/identity.h"

namespace stress {

class Request;

/// What a client does in its callback, besides being counted.
using OnReply = std::function<void(Request& request, tarv_stat_t status)>;

/// What requests need to be made.
struct Client {
    tarv_get_ib_data_fn_t* get;
    const Identities* identities;
};

class Request {
  public:
    /// Asks, and keeps what the module said.
    tarv_stat_t ask(const Client& client, unsigned peer, tarv_paths_t paths, bool invalidate,
                    const OnReply* on_reply = nullptr);

    tarv_stat_t status() const { return status_; }
    int replies() const { return replies_.load(std::memory_order_relaxed); }
    tarv_stat_t told() const { return told_.load(std::memory_order_relaxed); }

    /// The module threw it away without an answer.
    void discarded() { discarded_++; }

    /// Complains unless it had exactly the answers that it had to have. The module is gone.
    void settle() const;

  private:
    static void reply(tarv_stat_t status, tarv_arp_data_t* record, void* context);

    const Client* client_ = nullptr;
    const OnReply* on_reply_ = nullptr;
    u32 address_ = 0;
    tarv_paths_t paths_ = tarv_paths_none;
    tarv_stat_t status_ = tarv_stat_ok;
    std::atomic<int> replies_ = 0;
    std::atomic<tarv_stat_t> told_ = tarv_stat_pending;
    int discarded_ = 0;
};

/// The calling thread's next request. It stays where it is until it has been settled.
Request& new_request();

/// Asks the cache only.
tarv_stat_t ask_cache(const Client& client, unsigned peer, tarv_paths_t paths);

/// Notes the requests that wait for ARP; called when nobody can take one off that list any more but
/// the module's end, which answers none of them.
void note_discarded();

/// The module is gone: complains of every request that went wrong and forgets those that were
/// settled before. A request that is answered after the end is found at the next settlement.
void settle_ledgers();

}  // namespace stress
