// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The two lists of pending requests: when a request times out, who takes it, in which order, and
// what is shown of it. What both lists do is tested on both.
#include <deque>
#include <sstream>

#include "tests/support/kernel_test.h"
#include "tests/support/records.h"

namespace {

using support::Client;
using support::gid;
using support::ip;
using support::Lines;
using support::Reply;

/// One of the two lists, by its operations.
struct List {
    const char* name;
    const char* unit;
    unsigned long limit;  ///< ticks that a request may wait
    tarv_list_t& (*list)();
    tarv_stat_t (*add)(tarv_list_entry_t*);
    tarv_stat_t (*remove)(tarv_list_entry_t*);
    int (*num_identical)(tarv_list_entry_t*);
    void (*handler)(unsigned long);
    void (*dump)();
    const char* title;
};
tarv_list_t& arp_requests() TA_NO_ANALYSIS {
    return requests;
}
tarv_list_t& path_requests() TA_NO_ANALYSIS {
    return sa_requests;
}
const List arp_list = {"arp",
                       "tarv_req_list",
                       1000,
                       arp_requests,
                       tarv_add_arp_request,
                       tarv_remove_arp_request,
                       tarv_num_identical_reqs,
                       tarv_req_timer_handler,
                       tarv_req_list_dump,
                       "Pending ib-arp requests: "};
const List sa_list = {"sa",
                      "tarv_sa_req_list",
                      3000,
                      path_requests,
                      tarv_sa_add_request,
                      tarv_sa_remove_request,
                      tarv_sa_num_identical_reqs,
                      tarv_sa_req_timer_handler,
                      tarv_sa_req_list_dump,
                      "Pending sa requests: "};

class Requests : public support::KernelTest {
  protected:
    /// A request that times out is not made again, unless a test says so.
    explicit Requests(unsigned long first_jiffy = 1000) : KernelTest(first_jiffy) {
        tarv_hash_init();
        tarv_req_list_init();
        tarv_sa_req_list_init();
        write_once(get_data_retry, 0);
        write_once(tarv_media_reset, 0);
    }
    void TearDown() override {
        tarv_sa_req_list_destroy();
        tarv_req_list_destroy();
        tarv_hash_destroy();
        KernelTest::TearDown();
    }

    /// A request of a client of that name.
    tarv_list_entry_t* request(const char* client, const char* address = "10.0.0.1",
                               tarv_paths_t paths = tarv_paths_primary) {
        clients_.push_back({client, replies});
        return support::request(ip(address), paths, &clients_.back());
    }

    /// The clients that were answered since the last call, in order.
    std::string answered() {
        std::string names;
        for (const Reply& reply : replies)
            names += reply.client;
        replies.clear();
        return names;
    }

    /// The clients whose requests are on the list, from its head, checked against its count.
    static std::string waiting(const List& list) {
        std::string names;
        for (const tarv_list_entry_t* entry : tarv_request_list(list.list().head))
            names += static_cast<const Client*>(entry->context)->name;
        EXPECT_EQ(names.size(), list.list().count);
        return names;
    }

    std::vector<Reply> replies;

  private:
    std::deque<Client> clients_;
};

class BothLists : public Requests,
                  public testing::WithParamInterface<std::tuple<List, unsigned long>> {
  protected:
    BothLists() : Requests(std::get<1>(GetParam())) {}
    const List& list = std::get<0>(GetParam());
};

TEST_P(BothLists, TimeOutAtTheFirstRunAfterTheLimit) {
    const unsigned long start = jiffies();
    list.add(request("a"));
    kernel.advance(1);
    list.add(request("b"));
    kernel.advance(998);
    list.add(request("c"));
    kernel.advance(501);
    list.add(request("d"));
    kernel.advance(10000);
    ASSERT_EQ(replies.size(), 4u);
    const unsigned long first = start + list.limit;
    for (std::size_t i = 0; i < 4; i++) {
        EXPECT_EQ(replies[i].tick, first + (std::vector{0u, 1000u, 1000u, 2000u})[i]);
        EXPECT_EQ(replies[i].status, tarv_stat_timeout);
        EXPECT_FALSE(replies[i].with_record);
    }
    EXPECT_EQ(answered(), "abcd") << "oldest first";
    EXPECT_EQ(waiting(list), "");
}

TEST_P(BothLists, LeaveBusyRequestsAlone) {
    tarv_list_entry_t* busy = request("b");
    tarv_set_request_static_flag(busy);
    list.add(busy);
    kernel.advance(10000);
    write_once(halted, 1);
    list.handler(0);
    EXPECT_EQ(answered(), "");
    tarv_clear_request_static_flag(busy);
    list.handler(0);
    EXPECT_EQ(answered(), "b");
}

TEST_P(BothLists, EmptyAndRestWhenHalted) {
    kernel.advance(999);
    for (const char* client : {"a", "b", "c"})
        list.add(request(client));
    write_once(halted, 1);
    kernel.advance(1);
    EXPECT_EQ(answered(), "abc") << "whatever their age";
    list.add(request("d"));
    kernel.advance(10000);
    EXPECT_EQ(waiting(list), "d") << "the timer was not started again";
}

// It takes requests off from inside the console's printing, which nobody but this test does. There
// is one thread, but the thread sanitizer sees an order of locks that two could not keep.
#ifndef __SANITIZE_THREAD__
/// A long dump is made page by page; what goes meanwhile may be where it would go on.
TEST_P(BothLists, KeepTheirPlaceInADump) {
    Lines expected;
    std::vector<tarv_list_entry_t*> entries;
    for (u32 n = 0; n < 200; n++) {
        entries.push_back(support::request(htonl(0x0A000000 + n)));
        list.add(entries.back());
        expected.insert(expected.begin(), host::kformat("010.000.000.%03u", n));
    }
    const auto dumped = [&](u32 going) {
        Lines shown;
        host::set_console([&](const host::LogLine& line) {
            if (!line.text.starts_with("010."))
                return;
            shown.push_back(line.text.substr(0, 15));
            // All that could be the first of the next page.
            for (u32 n = 0; shown.size() == 64 && n < going; n++) {
                list.remove(entries[135 - n]);
                kfree(entries[135 - n]);
            }
        });
        list.dump();
        host::set_console({});
        return shown;
    };
    EXPECT_EQ(dumped(0), expected);
    expected.erase(expected.begin() + 64, expected.begin() + 67);
    EXPECT_EQ(dumped(3), expected);
}
#endif

TEST_P(BothLists, TraceAddingAndTimingOut) {
    tarv_list_entry_t* due = request("a");
    trace(TARV_FUNC);
    const bool arp = list.limit == 1000;
    list.add(due);
    EXPECT_EQ(told(list.unit), Lines{host::kformat(arp ? "D tarv_add_arp_request: Added req: %p"
                                                       : "D tarv_sa_add_request: Added SA req: %p",
                                                   due)});
    trace(TARV_PANIC);
    tarv_list_entry_t* next = request("c");
    list.add(next);
    tarv_list_entry_t* busy = request("b");
    tarv_set_request_static_flag(busy);
    list.add(busy);
    kernel.advance(list.limit - 1);
    tarv_list_entry_t* young = request("d");
    list.add(young);
    trace(TARV_FUNC);
    kernel.advance(1);
    const std::string fn = arp ? "F tarv_req_timer_handler: " : "F tarv_sa_req_timer_handler: ";
    const std::string checking = fn + (arp ? "Checking request entry: <0x%p>"
                                           : "Checking sa request entry: <0x%p>, static flag:%d");
    const std::string found = fn + host::kformat("found entry : 0x%p", due);
    const std::string found_next = fn + host::kformat("found entry : 0x%p", next);
    const std::string retried =
        "D tarv_api/tarv_retry_ib_data_request: "
        "maximum number of retries. stopped trying.";
    Lines expected = {
        host::kformat(checking.c_str(), young, 0), host::kformat(checking.c_str(), busy, 1),
        host::kformat(checking.c_str(), next, 0),  fn + "\t\t-> timeouted!",
        host::kformat(checking.c_str(), due, 0),   fn + "\t\t-> timeouted!"};
    // An ARP request is announced before its retry; no SA request is freed before all have been
    // told.
    const std::string processed = fn + "All the timeouted requests processed.";
    for (const std::string& line :
         arp ? Lines{processed, processed,
                     "D tarv_req_timer_handler: *** At least one timeout found resetting media ***",
                     found, retried, found_next, retried}
             : Lines{retried, retried, found, found_next})
        expected.push_back(line);
    EXPECT_EQ(told(list.unit), expected);
    EXPECT_EQ(waiting(list), "db") << "too young, and busy";
}

INSTANTIATE_TEST_SUITE_P(Lists, BothLists,
                         testing::Combine(testing::Values(arp_list, sa_list),
                                          testing::Values(1000ul, support::before_wrap)),
                         [](const auto& row) {
                             return std::string(std::get<0>(row.param).name) +
                                    (std::get<1>(row.param) == 1000 ? "" : "_at_the_wrap");
                         });

TEST_F(Requests, OfAnAddressAreTakenOldestFirst) {
    list_head found;
    tarv_list_entry_t* busy = request("b");
    tarv_set_request_static_flag(busy);
    tarv_add_arp_request(request("a"));
    tarv_add_arp_request(request("x", "10.0.0.2"));
    tarv_add_arp_request(busy);
    tarv_add_arp_request(request("c", "10.0.0.1", tarv_paths_both));
    ASSERT_EQ(tarv_find_and_move_arp_requests_to_list(ip("10.0.0.1"), &found), tarv_stat_ok);
    EXPECT_EQ(waiting(arp_list), "x");
    std::string names;
    while (tarv_list_entry_t* entry = tarv_found_list(found).pop()) {
        names += static_cast<const Client*>(entry->context)->name;
        kfree(entry);
    }
    EXPECT_EQ(names, "abc");
    found = {};  // what it held does not matter
    EXPECT_EQ(tarv_find_and_move_arp_requests_to_list(ip("10.0.0.1"), &found), tarv_stat_not_found);
    EXPECT_TRUE(list_empty(&found));
}

TEST_F(Requests, TellTheirMakerThatTheyWereTaken) {
    for (const bool drop : {false, true}) {
        tarv_maker_t maker = {};
        tarv_list_entry_t* entry = request("a");
        entry->maker = &maker;
        tarv_set_request_static_flag(entry);
        tarv_add_arp_request(entry);
        EXPECT_TRUE(tarv_release_arp_request(entry, &maker, drop));
        EXPECT_EQ(tarv_get_request_static_flag(entry), 0);
        EXPECT_EQ(entry->reply_cb == nullptr, drop);
        entry->maker = &maker;
        list_head found;
        tarv_find_and_move_arp_requests_to_list(entry->req_ip, &found);
        kfree(entry);
        EXPECT_FALSE(tarv_release_arp_request(entry, &maker, drop));
    }
}

// Answers of the SA.

/// An answer of `count` paths towards GID 1: who is handed over, who waits on (newest first), and
/// how often an error is logged. Who waits, oldest first, as "a1g2p1": client a, for 10.0.0.1 at
/// GID 2, wants 1 path; '!' behind it: busy, '-': the cache does not know the address.
struct Matching {
    const char* name;
    const char* waiting;
    int count;
    const char* handed_over;
    const char* left;
    std::size_t errors;
};
class PathAnswers : public Requests, public testing::WithParamInterface<Matching> {};
TEST_P(PathAnswers, GoToThoseTheySatisfy) {
    const Matching& row = GetParam();
    std::istringstream words(row.waiting);
    for (std::string word; words >> word;) {
        const std::string address = "10.0.0." + word.substr(1, 1);
        tarv_list_entry_t* entry = request(word.substr(0, 1).c_str(), address.c_str(),
                                           static_cast<tarv_paths_t>(word[5] - '0'));
        entry->dgid = gid(static_cast<u8>(word[3] - '0'));
        entry->not_valid = 1;
        atomic_set(&entry->static_flag, word.ends_with('!'));
        tarv_sa_add_request(entry);
        EXPECT_EQ(entry->not_valid, 0);
        if (!word.ends_with('-') && tarv_hash_get_entry(entry->req_ip, nullptr) != tarv_stat_ok)
            support::add(support::record(entry->req_ip, 0));
    }
    trace(TARV_ERROR);
    ib_path_record_v2_t paths[3] = {support::path(gid(1), gid(0x40), 7),
                                    support::path(gid(1), gid(0x50), 8),
                                    support::path(gid(9), gid(0x60), 9)};
    list_head found;
    const tarv_stat_t status = tarv_sa_find_and_move_requests_to_list(paths, row.count, 1, &found);
    EXPECT_EQ(told("tarv_sa_req_list"), Lines(row.errors,
                                              "E tarv_sa_find_and_move_requests_to_list: "
                                              "tarv_hash_update_paths() failed. returned -253"));
    std::string handed_over;
    while (tarv_list_entry_t* entry = tarv_found_list(found).pop()) {
        handed_over += static_cast<const Client*>(entry->context)->name;
        tarv_arp_data_t data = {};
        tarv_hash_get_entry_data(entry->req_ip, &data);
        EXPECT_EQ(data.paths_count, row.count);
        EXPECT_EQ(data.paths[0].dlid, 7);
        kfree(entry);
    }
    EXPECT_EQ(handed_over, row.handed_over);
    EXPECT_EQ(status, handed_over.empty() ? tarv_stat_not_found : tarv_stat_ok);
    EXPECT_EQ(waiting(sa_list), row.left);
    for (tarv_list_entry_t* entry : tarv_request_list(path_requests().head)) {
        EXPECT_EQ(entry->not_valid, 0);
        tarv_clear_request_static_flag(entry);
    }
}
INSTANTIATE_TEST_SUITE_P(
    Lists, PathAnswers,
    testing::Values(Matching{"nobody_waits", "", 1, "", "", 0},
                    Matching{"two_addresses", "a1g1p1 b2g1p1", 1, "ab", "", 0},
                    Matching{"other_gid", "a1g2p1", 3, "", "a", 0},
                    Matching{"gid_of_the_third_path_only", "a1g9p1", 3, "", "a", 0},
                    Matching{"busy", "a1g1p1! b1g1p1", 1, "b", "a", 0},
                    Matching{"one_of_both", "a1g1p2 b1g1p1 c2g1p2", 1, "b", "ca", 2},
                    Matching{"both", "a1g1p2", 2, "a", "", 0},
                    Matching{"three", "a1g1p2", 3, "a", "", 0},
                    Matching{"no_paths_wanted", "a1g1p0", 1, "a", "", 0},
                    Matching{"not_cached_any_more", "a1g1p1- b2g1p1", 1, "b", "a", 0}),
    support::row_name);

/* More than are taken in one piece, and one in the midst of them whose maker is busy. */
TEST_F(Requests, AreAllTriedHoweverMany) {
    support::add(support::record(ip("10.0.0.1"), 0));
    tarv_maker_t maker = {};
    tarv_list_entry_t* busy = nullptr;
    for (int n = 0; n < 700; n++) {
        const bool one_path = n % 2;
        tarv_list_entry_t* entry =
            request(n == 350   ? "c"
                    : one_path ? "a"
                               : "b",
                    "10.0.0.1", one_path ? tarv_paths_primary : tarv_paths_both);
        entry->dgid = gid(1);
        if (n == 350) {
            busy = entry;
            entry->maker = &maker;
            tarv_set_request_static_flag(entry);
        }
        tarv_sa_add_request(entry);
    }
    ib_path_record_v2_t path = support::path(gid(1), gid(0x40), 7);
    list_head found;
    tarv_sa_find_and_move_requests_to_list(&path, 1, 1, &found);
    u32 in_order = 0;
    u64 last_number = 0;
    while (tarv_list_entry_t* entry = tarv_found_list(found).pop()) {
        in_order += entry->number > last_number;
        last_number = entry->number;
        tarv_free_request(entry);
    }
    EXPECT_EQ(in_order, 350u);
    EXPECT_EQ(waiting(sa_list), std::string(349, 'b') + "c");
    EXPECT_EQ(maker.answer.count, 1);
    tarv_sa_release_request(busy, &maker, false);
    kernel.advance(10000);
    EXPECT_EQ(answered(), "c" + std::string(349, 'b'));
}

/* The answer is being tried when the module is halted. */
TEST_F(Requests, AreNotPutBackInAHaltedModule) {
    write_once(local_get_if_info_fn, [](u32, gx_p_key_t*, u32*, int*, int*) {
        write_once(halted, 1);
        return tarv_stat_error;
    });
    support::add(support::record(ip("10.0.0.1"), 0));
    tarv_list_entry_t* entry = request("a", "10.0.0.1", tarv_paths_both);
    entry->dgid = gid(1);
    tarv_sa_add_request(entry);
    ib_path_record_v2_t path = support::path(gid(1), gid(0x40), 7);
    list_head found;
    EXPECT_EQ(tarv_sa_find_and_move_requests_to_list(&path, 1, 1, &found), tarv_stat_not_found);
    EXPECT_EQ(waiting(sa_list), "");
    EXPECT_EQ(answered(), "a");
}

/* Who is put back is as old as before, and stands at the head: the order in which both are told. */
TEST_F(Requests, PutBackKeepTheirTimeAndHaveANewPlace) {
    const unsigned long start = jiffies();
    support::add(support::record(ip("10.0.0.1"), 0));
    kernel.advance(1);
    tarv_list_entry_t* entry = request("a", "10.0.0.1", tarv_paths_both);
    entry->dgid = gid(1);
    tarv_sa_add_request(entry);
    kernel.advance(1);
    tarv_sa_add_request(request("b", "10.0.0.2"));
    ib_path_record_v2_t path = support::path(gid(1), gid(0x40), 7);
    list_head found;
    tarv_sa_find_and_move_requests_to_list(&path, 1, 1, &found);
    EXPECT_EQ(waiting(sa_list), "ab");
    kernel.advance(10000);
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].tick, start + 4000);
    EXPECT_EQ(replies[1].tick, start + 4000);
    EXPECT_EQ(answered(), "ba");
}

}  // namespace
