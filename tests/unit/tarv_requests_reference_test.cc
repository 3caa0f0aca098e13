// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The two lists of pending requests against plain ones, over random steps: lists that are walked
// from their heads, newest first, which is what they promise to look like whatever finds their
// requests.
#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <random>
#include <set>

#include "tests/support/kernel_test.h"
#include "tests/support/records.h"

namespace {

using support::gid;

/// A request as a plain list knows it.
struct Waiting {
    tarv_list_entry_t* entry;
    int id;
    u32 address;
    tarv_paths_t paths;
    int gid;
    unsigned long since;
    bool busy;
};

/// Newest first.
struct PlainList {
    unsigned long limit;
    std::list<Waiting> waiting;

    /// Takes those off that `goes` is true of; their numbers, oldest first.
    std::list<Waiting> take(const std::function<bool(const Waiting&)>& goes) {
        std::list<Waiting> taken;
        for (auto at = waiting.begin(); at != waiting.end();) {
            const auto next = std::next(at);
            if (goes(*at))
                taken.splice(taken.begin(), waiting, at);
            at = next;
        }
        return taken;
    }
    int identical(u32 address, tarv_paths_t paths) const {
        return static_cast<int>(std::ranges::count_if(
            waiting, [&](const Waiting& w) { return w.address == address && w.paths == paths; }));
    }
};

class RequestsReference : public support::KernelTest,
                          public testing::WithParamInterface<std::tuple<unsigned, unsigned long>> {
  protected:
    RequestsReference() : KernelTest(std::get<1>(GetParam())), rng_(std::get<0>(GetParam())) {
        tarv_hash_init();
        tarv_req_list_init();
        tarv_sa_req_list_init();
        stop_timers();
        write_once(get_data_retry, 0);
        arp_cache_timeout_sec = 1'000'000;
    }
    void TearDown() override {
        tarv_sa_req_list_destroy();
        tarv_req_list_destroy();
        tarv_hash_destroy();
        KernelTest::TearDown();
    }

    void step();
    void compare_lists() TA_NO_ANALYSIS;

  private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(rng_() % limit); }
    /// The hosts of a subnet and of its neighbours: 60 addresses.
    u32 some_address() { return htonl(0x0A000001 + below(20) + (below(3) << 16)); }
    tarv_list_entry_t* new_request(Waiting& waiting);

    void file(bool arp);
    void set_busy(PlainList& list, bool busy);
    void answer_arp(u32 address);
    void answer_paths(int which, int paths);
    void remove(bool arp);
    void count(bool arp);
    void time_out(PlainList& list);
    static void stop_timers();
    void expect_answers(const std::list<Waiting>& answered);
    void change_cache(u32 address);

    std::mt19937 rng_;
    PlainList arp_{1000, {}};
    PlainList sa_{3000, {}};
    int last_id_ = 0;
    std::set<u32> cached_;
    std::map<int, support::Client> clients_;
    std::vector<support::Reply> answered_;
};

tarv_list_entry_t* RequestsReference::new_request(Waiting& waiting) {
    waiting.id = ++last_id_;
    waiting.address = some_address();
    waiting.paths = below(2) ? tarv_paths_both : tarv_paths_primary;
    waiting.gid = static_cast<int>(below(10));
    waiting.since = jiffies();
    waiting.busy = below(4) == 0;
    auto& client =
        clients_.try_emplace(waiting.id, support::Client{std::to_string(waiting.id), answered_})
            .first->second;
    tarv_list_entry_t* entry = support::request(waiting.address, waiting.paths, &client);
    entry->dgid = gid(static_cast<u8>(16 * waiting.gid));
    atomic_set(&entry->static_flag, waiting.busy);
    waiting.entry = entry;
    return entry;
}

void RequestsReference::file(bool arp) {
    Waiting waiting;
    tarv_list_entry_t* entry = new_request(waiting);
    arp ? tarv_add_arp_request(entry) : tarv_sa_add_request(entry);
    (arp ? arp_ : sa_).waiting.push_front(waiting);
}

void RequestsReference::set_busy(PlainList& list, bool busy) {
    for (Waiting& waiting : list.waiting) {
        if (below(4) != 0)
            continue;
        waiting.busy = busy;
        atomic_set(&waiting.entry->static_flag, busy);
    }
}

/// The clients on that list, in its order, are those that were answered since the last time.
void RequestsReference::expect_answers(const std::list<Waiting>& expected) {
    std::string names, expected_names;
    for (const support::Reply& reply : answered_)
        names += reply.client + " ";
    for (const Waiting& waiting : expected) {
        expected_names += std::to_string(waiting.id) + " ";
        clients_.erase(waiting.id);
    }
    ASSERT_EQ(names, expected_names);
    answered_.clear();
}

void RequestsReference::answer_arp(u32 address) {
    list_head found_head;
    const auto status = tarv_find_and_move_arp_requests_to_list(address, &found_head);
    const auto expected = arp_.take([&](const Waiting& w) { return w.address == address; });
    ASSERT_EQ(status == tarv_stat_ok, !expected.empty());
    while (tarv_list_entry_t* entry = tarv_found_list(found_head).pop()) {
        tarv_reply(entry, tarv_stat_ok, &entry->orig_arp_data);
        kfree(entry);
    }
    expect_answers(expected);
}

/// Who is answered needs an entry in the cache; one that wants both paths, a secondary one too.
void RequestsReference::answer_paths(int which, int paths) {
    ib_path_record_v2_t records[2] = {};
    records[0].dgid = gid(static_cast<u8>(16 * which));
    list_head found_head;
    const auto status = tarv_sa_find_and_move_requests_to_list(records, paths, 1, &found_head);
    auto expected =
        sa_.take([&](const Waiting& waiting) { return waiting.gid == which && !waiting.busy; });
    for (auto at = expected.begin(); at != expected.end();) {
        const auto next = std::next(at);
        const bool satisfied =
            cached_.contains(at->address) && (paths == 2 || at->paths == tarv_paths_primary);
        if (!satisfied)
            sa_.waiting.splice(sa_.waiting.begin(), expected, at);
        at = next;
    }
    ASSERT_EQ(status == tarv_stat_ok, !expected.empty());
    while (tarv_list_entry_t* entry = tarv_found_list(found_head).pop()) {
        tarv_reply(entry, tarv_stat_ok, &entry->orig_arp_data);
        kfree(entry);
    }
    expect_answers(expected);
}

void RequestsReference::remove(bool arp) {
    PlainList& list = arp ? arp_ : sa_;
    if (list.waiting.empty())
        return;
    const auto at =
        std::next(list.waiting.begin(), below(static_cast<unsigned>(list.waiting.size())));
    tarv_list_entry_t* entry = at->entry;
    arp ? tarv_remove_arp_request(entry) : tarv_sa_remove_request(entry);
    kfree(entry);
    clients_.erase(at->id);
    list.waiting.erase(at);
}

void RequestsReference::count(bool arp) {
    tarv_list_entry_t asked = {};
    asked.req_ip = some_address();
    asked.requested_paths = below(2) ? tarv_paths_both : tarv_paths_primary;
    ASSERT_EQ(arp ? tarv_num_identical_reqs(&asked) : tarv_sa_num_identical_reqs(&asked),
              (arp ? arp_ : sa_).identical(asked.req_ip, asked.requested_paths));
}

void RequestsReference::time_out(PlainList& list) {
    (&list == &arp_ ? tarv_req_timer_handler : tarv_sa_req_timer_handler)(0);
    stop_timers();
    expect_answers(list.take([&](const Waiting& w) {
        return !w.busy && (halted || jiffies() - w.since >= list.limit);
    }));
}

/// The runs of the timers are steps of the test.
void RequestsReference::stop_timers() {
    del_timing_sync(&tarv_req_timer);
    del_timing_sync(&tarv_sa_req_timer);
}

void RequestsReference::change_cache(u32 address) {
    tarv_hash_entry_t* entry = nullptr;
    if (tarv_hash_remove_entry(address, &entry) == tarv_stat_ok) {
        kfree(entry);
        cached_.erase(address);
    } else {
        support::add(support::record(address, TARV_MASK_DST_IP));
        cached_.insert(address);
    }
}

void RequestsReference::step() {
    const unsigned choice = below(100);
    const bool arp = below(2);
    PlainList& list = arp ? arp_ : sa_;
    if (choice < 35) {
        file(arp);
    } else if (choice < 50) {
        answer_arp(some_address());
    } else if (choice < 62) {
        answer_paths(static_cast<int>(below(10)), 1 + static_cast<int>(below(2)));
    } else if (choice < 67) {
        remove(arp);
    } else if (choice < 77) {
        count(arp);
    } else if (choice < 84) {
        set_busy(list, below(4) == 0);
    } else if (choice < 92) {
        kernel.advance(below(400));
    } else if (choice < 97) {
        time_out(list);
    } else if (choice < 99) {
        change_cache(some_address());
    } else {
        write_once(halted, 1);
        time_out(list);
        write_once(halted, 0);
    }
}

void RequestsReference::compare_lists() TA_NO_ANALYSIS {
    for (const auto& [list, plain] : {std::pair(&requests, &arp_), std::pair(&sa_requests, &sa_)}) {
        auto expected = plain->waiting.begin();
        for (const tarv_list_entry_t* entry : tarv_request_list(list->head)) {
            ASSERT_NE(expected, plain->waiting.end());
            ASSERT_EQ(entry, expected->entry);
            ++expected;
        }
        ASSERT_EQ(expected, plain->waiting.end());
        ASSERT_EQ(list->count, plain->waiting.size());
    }
}

TEST_P(RequestsReference, AgreeAtEveryStep) {
    for (int i = 0; i < support::random_steps && !HasFatalFailure(); i++) {
        // What can be followed in the log is done another way, with the same result.
        trace(i % 100 == 0 ? TARV_FUNC : TARV_PANIC);
        step();
        host::clear_console();
        compare_lists();
    }
}
INSTANTIATE_TEST_SUITE_P(Seeds, RequestsReference,
                         testing::Combine(testing::Range(1u, 4u),
                                          testing::Values(1000ul, support::before_wrap)));

}  // namespace
