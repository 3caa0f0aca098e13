// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/races/ledger.h"

#include <memory>
#include <mutex>

#include "host/check.h"
#include "tarv/tarv-api.h"
#include "tests/races/report.h"

namespace stress {
namespace {

struct Ledger {
    std::deque<Request> open;
    std::deque<Request> settled;
};

std::mutex ledgers_mutex;
std::vector<std::unique_ptr<Ledger>> ledgers;

Ledger& ledger_of_this_thread() {
    thread_local Ledger* mine = nullptr;
    if (!mine) {
        const std::lock_guard guard(ledgers_mutex);
        mine = ledgers.emplace_back(std::make_unique<Ledger>()).get();
    }
    return *mine;
}

/* The requests on the ARP list that have somebody to tell. */
std::vector<void*> clients_waiting_for_arp() {
    std::vector<void*> contexts;
    const spin_guard guard(tarv_rl_lock);
    for (const tarv_list_entry_t* entry : tarv_request_list(requests.head))
        if (entry->reply_cb &&
            entry->reply_cb != reinterpret_cast<void*>(tarv_get_ib_data_reply_dummy_fn))
            contexts.push_back(entry->context);
    return contexts;
}

std::vector<void*> discarded;

}  // namespace

tarv_stat_t Request::ask(const Client& client, unsigned peer, tarv_paths_t paths, bool invalidate,
                         const OnReply* on_reply) {
    client_ = &client;
    on_reply_ = on_reply;
    address_ = address_of(peer);
    paths_ = paths;
    tarv_arp_data_t record = {};
    status_ = client.get(address_, our_address(), paths, &record, reply, this, invalidate);
    counted.resolutions++;
    if (status_ == tarv_stat_ok) {
        counted.hits++;
        client.identities->check(record, address_, "a caller");
    } else if (status_ == tarv_stat_error) {
        counted.refused++;
    } else if (status_ != tarv_stat_pending) {
        violation("a request with a callback got status %d", status_);
    }
    return status_;
}

void Request::reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    host::must_hold_no_lock("a reply callback");
    auto& request = *static_cast<Request*>(context);
    counted.callbacks++;
    if (status == tarv_stat_timeout)
        counted.time_outs++;
    if ((status == tarv_stat_ok) != (record != nullptr))
        violation("a callback got status %d with%s a record", status, record ? "" : "out");
    else if (record)
        request.client_->identities->check(*record, request.address_, "a callback");
    request.told_.store(status, std::memory_order_relaxed);
    request.replies_.fetch_add(1, std::memory_order_relaxed);
    if (request.on_reply_)
        (*request.on_reply_)(request, status);
}

void Request::settle() const {
    const int answers = replies();
    const std::string who = text_of(address_) + " with " + std::to_string(paths_) + " path(s)";
    if (answers > 1)
        violation("double answer: a request for %s was answered %d times, last with %d",
                  who.c_str(), answers, told());
    else if (status_ != tarv_stat_pending && answers == 1)
        violation("double answer: a request for %s got %d and a callback with %d", who.c_str(),
                  status_, told());
    else if (status_ == tarv_stat_pending && answers + discarded_ == 0)
        violation(
            "lost answer: a request for %s was accepted, never answered, and not waiting "
            "for ARP at the end",
            who.c_str());
    else if (discarded_ + answers > 1)
        violation("a request for %s was waiting for ARP %d times, with %d answers", who.c_str(),
                  discarded_, answers);
}

Request& new_request() {
    return ledger_of_this_thread().open.emplace_back();
}

tarv_stat_t ask_cache(const Client& client, unsigned peer, tarv_paths_t paths) {
    tarv_arp_data_t record = {};
    const tarv_stat_t status =
        client.get(address_of(peer), our_address(), paths, &record, nullptr, nullptr, 0);
    counted.resolutions++;
    if (status == tarv_stat_ok) {
        counted.hits++;
        client.identities->check(record, address_of(peer), "a caller");
    } else if (status == tarv_stat_pending) {
        violation("a request without a callback is pending");
    }
    return status;
}

void note_discarded() {
    discarded = clients_waiting_for_arp();
}

void settle_ledgers() {
    for (void* context : discarded) {
        static_cast<Request*>(context)->discarded();
        counted.silent++;
    }
    discarded.clear();
    const std::lock_guard guard(ledgers_mutex);
    for (const auto& ledger : ledgers) {
        for (const Request& request : ledger->settled)
            if (request.replies() > 1)
                request.settle();
        for (const Request& request : ledger->open)
            request.settle();
        ledger->settled = std::move(ledger->open);
        ledger->open.clear();
    }
}

}  // namespace stress
