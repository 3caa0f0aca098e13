// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The module under true concurrency: clients, the driver, the SA's answers, timers and adapter
// events on threads of their own, for the sanitizers to watch. Nothing here depends on how long
// anything takes.
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "tarv/tarv-api-control.h"
#include "tests/support/site.h"

namespace {

using namespace support;

constexpr int hosts = 64;

/* A door that one thread opens and others wait at. */
class Door {
  public:
    void open() {
        const std::lock_guard guard(mutex_);
        is_open_ = true;
        opened_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        opened_.wait(lock, [&] { return is_open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool is_open_ = false;
};

/* One request of a client, and what became of it. */
struct Request {
    tarv_stat_t status = tarv_stat_ok;
    std::atomic<int> replies = 0;
    tarv_stat_t told = tarv_stat_pending;
    tarv_arp_data_t record = {};

    void ask(u32 address, tarv_paths_t paths, u8 invalidate = 0) {
        status = tarv_get_ib_data(address, host_ip(1), paths, &record, reply, this, invalidate);
    }
    static void reply(tarv_stat_t outcome, tarv_arp_data_t* answer, void* context) {
        host::must_hold_no_lock("a reply callback");
        EXPECT_EQ(answer != nullptr, outcome == tarv_stat_ok);
        auto* request = static_cast<Request*>(context);
        request->told = outcome;
        request->replies++;
    }
};

class RealTimeTest : public testing::Test {
  public:
    RealTimeTest()
        : kernel(host::Options{host::Clock::real_time, before_wrap}),
          topology(fabric::make_fabric({.hosts = hosts})),
          fabric(topology, fabric::deal_addresses(topology), 0) {}

    void SetUp() override {
        ASSERT_EQ(host::load_module(tarv_module), 0);
        ASSERT_EQ(fabric.ipoib().attach(), tarv_stat_ok);
        kernel.settle();
        write_once(enabled, 1);
        write_once(sa_queries_enabled, 1);
    }
    void unload() {
        fabric.ipoib().detach();
        host::unload_module(tarv_module);
        EXPECT_EQ(kernel.remains(), Lines{});
    }

    long times_sent_to(u32 address) {
        return std::ranges::count(fabric.ipoib().requests(), address,
                                  &fabric::SentRequest::target_ip);
    }

    host::Kernel kernel;
    fabric::Topology topology;
    fabric::Fabric fabric;
};

/* Makes all that waits old enough for the next run of its timer. */
void age_requests() {
    {
        const spin_guard guard(tarv_rl_lock);
        for (tarv_list_entry_t* entry : tarv_request_list(requests.head))
            entry->timestamp -= 1000;
    }
    const spin_guard guard(tarv_sa_rl_lock);
    for (tarv_list_entry_t* entry : tarv_request_list(sa_requests.head))
        entry->timestamp -= 3000;
}

/* What happens to a fabric in the course of a long day. Its last host is silent. */
void change(fabric::Fabric& fabric, int step) {
    fabric.peer_announces(host_ip(2 + step % (hosts - 2)));
    fabric.peer_asks(host_ip(2 + step * 5 % (hosts - 2)));
    if (step % 4 == 0)
        fabric.set_link(1 + step % 8 / 4, step % 16 >= 8);
    if (step % 8 == 2)
        fabric.raise_event(gx_async_r_port_sm_change, 1);
    if (step % 16 == 6)
        fabric.raise_event(gx_async_r_port_lid, 2);
}

TEST_F(RealTimeTest, EveryRequestIsAnsweredOnceWhileTheFabricChanges) {
    constexpr int clients = 3;
    constexpr int requests_each = 400;
    constexpr int changes = 200;
    std::atomic<int> asked = 0;
    fabric.peer(host_ip(hosts)).drop_all();
    Request lost;
    lost.ask(host_ip(hosts), tarv_paths_none);
    std::array<std::deque<Request>, clients> made;
    std::vector<std::thread> threads;
    for (std::deque<Request>& mine : made)
        threads.emplace_back([&] {
            for (int n = 0; n < requests_each; n++, asked++)
                mine.emplace_back().ask(host_ip(2 + n * 7 % (hosts - 2)),
                                        static_cast<tarv_paths_t>(n % 3), n % 5 == 0);
        });
    // The changes keep step with the requests, whoever is faster.
    for (int step = 0; step < changes; step++) {
        while (asked < step * (clients * requests_each / changes))
            std::this_thread::yield();
        change(fabric, step);
    }
    for (std::thread& thread : threads)
        thread.join();
    // The timers take part too: what is left over is due at their next run.
    age_requests();
    for (int step = changes; times_sent_to(host_ip(hosts)) < 2; step++) {
        change(fabric, step);
        kernel.settle();
    }
    tarv_proc_cmd_halt(1, nullptr);
    unload();
    EXPECT_EQ(lost.replies, 1);
    int answered = 0;
    for (const std::deque<Request>& mine : made)
        for (const Request& request : mine) {
            ASSERT_EQ(request.replies, request.status == tarv_stat_pending ? 1 : 0)
                << request.status;
            answered += request.told == tarv_stat_ok;
        }
    EXPECT_GT(answered, 0);
}

struct OtherThread {
    const char* name;
    bool before_the_send_returns;
    tarv_stat_t sent;
};
class OtherThreadTest : public RealTimeTest, public testing::WithParamInterface<OtherThread> {};

TEST_P(OtherThreadTest, AReplyDuringTheSendCompletesOnce) {
    const OtherThread& row = GetParam();
    tarv_arp_data_t heard = record(0, 0x27F, 7);
    heard.arp_operation = TARV_ARP_OP_REPLY;
    heard.src_ip = host_ip(2);
    std::thread receiver;
    StandInDriver driver{[&](tarv_arp_data_t&, int) {
        receiver = std::thread([&] {
            const host::ContextScope context(host::Context::driver);
            EXPECT_EQ(tarv_process_arp_data(&heard), tarv_stat_ok);
        });
        if (row.before_the_send_returns)
            receiver.join();
        return row.sent;
    }};
    fabric.ipoib().detach();
    void* handle = nullptr;
    tarv_attach(StandInDriver::interface, StandInDriver::send_arp, &driver, &handle);
    for (int round = 0; round < 100; round++) {
        Request request;
        request.ask(host_ip(2), tarv_paths_none);
        if (receiver.joinable())
            receiver.join();
        EXPECT_EQ(request.replies, request.status == tarv_stat_pending ? 1 : 0);
        if (row.before_the_send_returns || row.sent == tarv_stat_ok) {
            EXPECT_EQ(request.status, tarv_stat_pending);
        }
        tarv_hash_remove_all();
    }
    tarv_detach(handle);
    unload();
}

INSTANTIATE_TEST_SUITE_P(RealTime, OtherThreadTest,
                         testing::Values(OtherThread{"inside_sent", true, tarv_stat_ok},
                                         OtherThread{"inside_failed", true, tarv_stat_error},
                                         OtherThread{"about_then_sent", false, tarv_stat_ok},
                                         OtherThread{"about_then_failed", false, tarv_stat_error}),
                         row_name);

/* The ARP timer is in the middle of a re-issue, its new request on the SA list, when the module is
 * unloaded. The timer is held there, at a line that it logs, until the stop is under way: before it
 * has a datagram for the query, or with one in its hands. The stop must wait for it, or the ports'
 * pools go while one of their datagrams is out. */
class TimerAtAQueryTest : public RealTimeTest, public testing::WithParamInterface<const char*> {};

TEST_P(TimerAtAQueryTest, IsWaitedForByAStop) {
    fabric.peer(host_ip(2)).drop_all();
    Request request;
    request.ask(host_ip(2), tarv_paths_both);
    ASSERT_EQ(request.status, tarv_stat_pending);
    tarv_arp_data_t known = record(host_ip(2), 0x27F);
    known.local_port_num = 1;
    add(known);
    age_requests();

    Door sending;
    host::set_console([&](const host::LogLine& line) {
        if (line.text.find(GetParam()) == std::string::npos)
            return;
        write_once(TARV_trace_level, 0);
        sending.open();
        while (!host::inter_module_names().empty())
            std::this_thread::yield();
        // A stop that does not wait has the time to come to the pools.
        for (int turn = 0; turn < 5000 && fabric.gsi().pools() != 0; turn++)
            std::this_thread::yield();
    });
    host::set_logger_level(TARV_DEBUG);
    write_once(TARV_trace_level, TARV_DEBUG);
    sending.wait();
    unload();
    host::set_console({});
    EXPECT_EQ(request.replies, 1);
}

INSTANTIATE_TEST_SUITE_P(RealTime, TimerAtAQueryTest,
                         testing::Values("sgids passed to", "Building RMPP payload"),
                         [](const auto& row) { return row.index == 0 ? "before" : "with_one"; });

}  // namespace
