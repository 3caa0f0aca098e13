// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The two lists of pending requests, as they are dumped and traced. Who waits on them, for how long
// and who is told what is compared with a model at every step of the simulation.
#include "tests/support/machine_test.h"
#include "tests/support/records.h"

namespace {

using support::Lines;

/// One of the two lists, by its operations.
struct List {
    const char* name;
    const char* unit;
    unsigned long limit;  ///< ticks that a request may wait
    tarv_stat_t (*add)(tarv_list_entry_t*);
    tarv_stat_t (*remove)(tarv_list_entry_t*);
    void (*dump)();
};

class Requests : public support::MachineTest {
  protected:
    /// A request that times out is not made again.
    Requests() {
        tarv_hash_init();
        tarv_req_list_init();
        tarv_sa_req_list_init();
        write_once(get_data_retry, 0);
        answered.clear();
    }
    void TearDown() override {
        tarv_sa_req_list_destroy();
        tarv_req_list_destroy();
        tarv_hash_destroy();
        MachineTest::TearDown();
    }

    /// A request of that client, a letter, which the list that it comes to owns.
    static tarv_list_entry_t* request(char client, tarv_paths_t paths = tarv_paths_none,
                                      u32 address = 1) {
        auto* entry =
            static_cast<tarv_list_entry_t*>(kmalloc(sizeof(tarv_list_entry_t), GFP_KERNEL));
        *entry = {};
        entry->req_ip = address;
        entry->requested_paths = paths;
        entry->dgid = support::gid(1);
        const tarv_get_ib_data_reply_fn_t reply = [](tarv_stat_t, tarv_arp_data_t*, void* context) {
            answered += *static_cast<const char*>(context);
        };
        entry->reply_cb = reinterpret_cast<void*>(reply);
        static std::string letters = "abcdefghijklmnopqrstuvwxyz";
        entry->context = &letters[static_cast<std::size_t>(client - 'a')];
        return entry;
    }
    /// Whose requests are on the SA list, from its head, checked against its count.
    static std::string waiting_for_paths() TA_NO_ANALYSIS {
        std::string names;
        for (const tarv_list_entry_t* entry : tarv_request_list(sa_requests.head))
            names += *static_cast<const char*>(entry->context);
        EXPECT_EQ(names.size(), sa_requests.count);
        return names;
    }
    /// One path for the GID of all.
    static tarv_found_list answer(list_head& found) {
        ib_path_record_v2_t path = support::path(support::gid(1), support::gid(0x40), 7);
        tarv_sa_find_and_move_requests_to_list(&path, 1, 1, &found);
        return tarv_found_list(found);
    }

    static inline std::string answered;  ///< in order
};

class BothLists : public Requests, public testing::WithParamInterface<List> {
  protected:
    const List& list = GetParam();
};

/// A long dump is made page by page; what goes meanwhile may be where it would go on.
TEST_P(BothLists, KeepTheirPlaceInADump) {
    Lines expected;
    std::vector<tarv_list_entry_t*> entries;
    for (u32 n = 0; n < 200; n++) {
        entries.push_back(request('a', tarv_paths_none, htonl(0x0A000000 + n)));
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

TEST_P(BothLists, TraceAddingAndTimingOut) {
    trace(TARV_FUNC);
    const bool arp = list.limit == 1000;
    tarv_list_entry_t* due = request('a');
    list.add(due);
    EXPECT_EQ(told(list.unit), Lines{host::kformat(arp ? "D tarv_add_arp_request: Added req: %p"
                                                       : "D tarv_sa_add_request: Added SA req: %p",
                                                   due)});
    trace(TARV_PANIC);
    tarv_list_entry_t* next = request('b');
    list.add(next);
    tarv_list_entry_t* busy = request('c');
    tarv_set_request_static_flag(busy);
    list.add(busy);
    kernel.advance(list.limit - 1);
    tarv_list_entry_t* young = request('d');
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
    EXPECT_EQ(answered, "ab") << "neither who is busy nor who is young";
}

INSTANTIATE_TEST_SUITE_P(Lists, BothLists,
                         testing::Values(List{"arp", "tarv_req_list", 1000, tarv_add_arp_request,
                                              tarv_remove_arp_request, tarv_req_list_dump},
                                         List{"sa", "tarv_sa_req_list", 3000, tarv_sa_add_request,
                                              tarv_sa_remove_request, tarv_sa_req_list_dump}),
                         support::row_name);

/* More than are taken in one piece, and one in the midst of them whose maker is busy. */
TEST_F(Requests, AreAllTriedHoweverMany) {
    support::add(support::record(1, 0));
    tarv_maker_t maker = {};
    tarv_list_entry_t* busy = nullptr;
    for (int n = 0; n < 700; n++) {
        tarv_list_entry_t* entry = n % 2 ? request('a', tarv_paths_primary)
                                         : request(n == 350 ? 'c' : 'b', tarv_paths_both);
        if (n == 350) {
            busy = entry;
            entry->maker = &maker;
            tarv_set_request_static_flag(entry);
        }
        tarv_sa_add_request(entry);
    }
    list_head head;
    tarv_found_list found = answer(head);
    u32 in_order = 0;
    u64 last_number = 0;
    while (tarv_list_entry_t* entry = found.pop()) {
        in_order += entry->number > last_number;
        last_number = entry->number;
        tarv_free_request(entry);
    }
    EXPECT_EQ(in_order, 350u);
    EXPECT_EQ(waiting_for_paths(), std::string(349, 'b') + "c");
    EXPECT_EQ(maker.answer.count, 1);
    maker.answer.count = 2;
    answer(head);
    EXPECT_EQ(maker.answer.count, 2) << "of two answers the one with more paths";
    maker.answer.count = 1;
    tarv_sa_release_request(busy, &maker, false);
    kernel.advance(10000);
    EXPECT_EQ(answered, "c" + std::string(349, 'b'));
}

/* The answer is being tried when the module is halted. */
TEST_F(Requests, AreNotPutBackInAHaltedModule) {
    write_once(local_get_if_info_fn, [](u32, gx_p_key_t*, u32*, int*, int*) {
        write_once(halted, 1);
        return tarv_stat_error;
    });
    support::add(support::record(1, 0));
    tarv_sa_add_request(request('a', tarv_paths_both));
    list_head head;
    EXPECT_TRUE(answer(head).empty());
    EXPECT_EQ(waiting_for_paths(), "");
    EXPECT_EQ(answered, "a");
}

}  // namespace
