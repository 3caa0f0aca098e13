// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The windows, and what is looked at when one closes.
#include "tests/simulation/judge.h"

#include <algorithm>
#include <cstddef>
#include <ostream>
#include <span>

#include "host/check.h"
#include "host/faults.h"
#include "platform/jiffies.h"
#include "platform/timer.h"

namespace simulation {
namespace {

constexpr char event_window[] = "adapter event";
constexpr unsigned long latest_arp = 2000;  // ticks that a request may be listed, with the period
constexpr unsigned long latest_sa = 4000;

constexpr char pool_creation[] = "gsi_dtgrm_pool_create_named";
constexpr char deregistration[] = "gsi_deregister_class";

Judge* the_judge = nullptr;

/* Who judges prints nothing himself. */
std::ostream& nowhere() {
    static std::ostream stream(nullptr);
    return stream;
}

std::string name_of(const Reply& reply) {
    return "request " + std::to_string(static_cast<app::ScriptReply*>(reply.context)->number) +
           " status " + std::to_string(reply.status);
}

}  // namespace

Judge::Judge(const app::Site& site, unsigned long first_jiffy)
    : ScriptHost(site, first_jiffy, nowhere(), nowhere()),
      first_jiffy_(first_jiffy),
      pools_failed_before_(host::failed_calls_of(pool_creation)),
      deregistrations_failed_before_(host::failed_calls_of(deregistration)) {
    the_judge = this;
    fabric::set_witness(this);
    counts_.note(Count::worlds);
    counts_.note(Count::worlds_at_wrap, first_jiffy > 0xF0000000);
}

Judge::~Judge() {
    if (loaded())
        unload_module();
    fabric::set_witness(nullptr);
    the_judge = nullptr;
}

Counts Judge::counts() const {
    Counts sum = counts_;
    sum.add(model_.counts());
    return sum;
}

void Judge::violate(const char* name, const std::string& text) {
    if (!violation_)
        violation_ = Violation{name, text};
}

void Judge::violate(const std::optional<Difference>& found) {
    if (found)
        violate(found->name, found->text + " [" + last_window_ + "]");
}

void Judge::say(const std::string& text) {
    counts_.note(Count::lines);
    for (const char c : text)
        digest_ = (digest_ ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    ScriptHost::say(text);
}

void Judge::fail(const std::string& place, const std::string& message) {
    violate("expectation", place + ": " + message);
}

void Judge::take(const app::ScriptStep& step) {
    ++steps_;
    if (!step.expects)
        forget_lines();
    try {
        app::play_step(step, *this);
    } catch (const std::invalid_argument& refused) {
        say(refused.what());
    }
    if (failed())
        for (const std::string& line : lines())
            if (line.starts_with("remains: "))
                check_remaining(line);
    if (const std::string held = host::held_locks(); !held.empty())
        violate("lock_held", "the lock " + held + " is held after " + step.place);
    if (!loaded() || violation_)
        return;
    violate(check_datagrams(fabric().gsi()));
    if (steps_ % 64 == 0)
        look_everywhere(steps_ / 64);
}

/* What is too dear to be done at every step. */
void Judge::look_everywhere(std::size_t sample) {
    violate(read_state(found_));
    violate(check_indexes(found_, sample));
    check_patience();
}

void Judge::end(bool may_wait) {
    forget_lines();
    for (const std::size_t number : waiting_)
        if (!may_wait && clients_[number - 1].state == Standing::pending)
            violate("still_waiting", "request " + std::to_string(number) +
                                         " has no answer though nothing is lost any more");
    if (loaded()) {
        // Whatever was left out of the script: at its end nothing is.
        look_everywhere(all_gids);
        unload_module();
    }
    calm();
    kernel().advance(20000);
    for (const std::string& line : kernel().remains())
        check_remaining(line);
}

/* A class registered for a pool that could not be made is given back with one attempt; where that
 * fails, too, it stays. */
void Judge::check_remaining(const std::string& line) {
    const unsigned long may_stay =
        std::min(host::failed_calls_of(pool_creation) - pools_failed_before_,
                 host::failed_calls_of(deregistration) - deregistrations_failed_before_);
    if (!line.ends_with("registered GSI class(es)") || fabric().gsi().open_classes() > may_stay)
        violate("remains", line);
}

bool Judge::knows() const {
    return !disturbed_ && host::failed_calls() == failed_before_;
}

void Judge::open(const char* what) {
    if (windows_.empty()) {
        failed_before_ = host::failed_calls();
        no_memory_before_ = host::failed_calls_of("kmalloc");
        disturbed_ = unloading_;
        model_.set_empty_hand(fabric().gsi().hands_out_nothing_next());
    } else if (windows_.back().what != event_window) {
        disturbed_ = true;
    }
    windows_.push_back({.what = what, .expected = {}, .got = {}, .to_send = {}, .sent = {}});
}

void Judge::model_told() {
    windows_.back().expected = model_.take_replies();
    windows_.back().to_send = model_.take_sent();
}

void Judge::close() {
    last_window_ = windows_.back().what;
    if (knows()) {
        compare_replies(windows_.back());
        compare_sent(windows_.back());
    }
    windows_.pop_back();
    if (!windows_.empty() || unloading_ || !loaded())
        return;
    check_state();
    counts_.note(Count::faults, host::failed_calls() - failed_before_);
}

void Judge::compare_replies(const Window& window) {
    const std::string where = std::string(" [") + window.what + "]";
    for (std::size_t i = 0; i < std::max(window.expected.size(), window.got.size()); ++i) {
        if (i >= window.got.size())
            return violate("lost_callback",
                           "a callback was due: " + name_of(window.expected[i]) + where);
        const Reply& got = window.got[i];
        if (i >= window.expected.size())
            return violate("needless_callback", "no callback was due: " + name_of(got) + where);
        const Reply& expected = window.expected[i];
        if (got.context != expected.context || got.status != expected.status)
            return violate("wrong_callback",
                           "due was " + name_of(expected) + ", made was " + name_of(got) + where);
        if (got.status == tarv_stat_ok && !same_record(expected.record, got.record))
            return violate("wrong_answer", name_of(got) + where + ": the record " +
                                               difference(expected.record, got.record));
    }
}

void Judge::compare_sent(const Window& window) {
    const std::string where = std::string(" [") + window.what + "]";
    counts_.note(Count::packets, window.sent.size());
    for (std::size_t i = 0; i < std::max(window.to_send.size(), window.sent.size()); ++i) {
        if (i >= window.sent.size())
            return violate("packet_missing", "not sent: " + text_of(window.to_send[i]) + where);
        if (i >= window.to_send.size())
            return violate("packet_needless",
                           "sent needlessly: " + text_of(window.sent[i]) + where);
        if (!(window.sent[i] == window.to_send[i]))
            return violate("packet_wrong", "sent: " + text_of(window.sent[i]) + ", due was " +
                                               text_of(window.to_send[i]) + where);
    }
}

void Judge::check_state() {
    violate(read_state(found_));
    account(found_);
    if (violation_)
        return;
    if (knows())
        violate(compare(model_.state(), found_));
    else
        model_.take_over(found_);
    counts_.note(knows() ? Count::compared : Count::taken_over);
}

/* Each request that a callback was promised for waits on a list, was answered, or has ended in
 * silence for a reason that there is. */
void Judge::account(const State& found) {
    ++looks_;
    for (const State::Requests* list : {&found.arp, &found.sa})
        for (const Waiting& waiting : *list) {
            if (!waiting.callback || waiting.context == administrator)
                continue;
            Client& client = client_of(waiting.context);
            if (client.seen == looks_)
                violate("listed_twice", "a request waits twice");
            client.seen = looks_;
            client.waits_for_arp = list == &found.arp;
        }
    std::erase_if(waiting_, [&](std::size_t number) {
        Client& client = clients_[number - 1];
        if (client.state != Standing::pending || client.seen == looks_)
            return client.state != Standing::pending;
        forget(*reply(number), client, last_window_);
        return true;
    });
}

/* A request has ended without a word, for which there are two reasons. */
void Judge::forget(const app::ScriptReply& made, Client& client, const char* where) {
    client.state = Standing::silent;
    if (unloading_ && client.waits_for_arp && !model_.state().is.halted)
        return counts_.note(Count::silent_unloaded);
    if (host::failed_calls_of("kmalloc") != no_memory_before_)
        return counts_.note(Count::silent_no_memory);
    violate("lost_callback", "request " + std::to_string(made.number) + " for " +
                                 fabric::format_ip(made.request.ip) +
                                 " is on no list and was not answered [" + where + "]");
}

/* Timers run, and nobody waits for longer than they let him. */
void Judge::check_patience() {
    const auto late = [](const Waiting& waiting, unsigned long latest) {
        return static_cast<std::uint32_t>(jiffies()) - waiting.stamp > latest;
    };
    const State& now = model_.state();
    for (const Waiting& waiting : now.arp)
        if (!now.is.halted && late(waiting, latest_arp))
            violate("overdue", "a request waits for ARP data for too long");
    for (const Waiting& waiting : now.sa)
        if (!now.is.halted && late(waiting, latest_sa))
            violate("overdue", "a request waits for paths for too long");
    for (int i = 0; i < 3; ++i)
        if (jiffies() - timers_[i].last_run > module_timers[i].period &&
            !(now.is.halted && module_timers[i].period == 1000))
            violate("timer_stopped", std::string("the ") + module_timers[i].name +
                                         " has not run for longer than its period");
}

// What time and the fabric bring.

template <int timer>
void Judge::on_timer(unsigned long context) {
    the_judge->run_timer(timer, context);
}

/* The timers are armed again by their own functions, which leaves the function where it is. */
void Judge::wrap_timers() {
    static constexpr void (*ours[])(unsigned long) = {on_timer<0>, on_timer<1>, on_timer<2>};
    for (int i = 0; i < 3; ++i) {
        timers_[i] = {module_timers[i].timer->function, jiffies()};
        module_timers[i].timer->function = ours[i];
    }
}

void Judge::run_timer(int number, unsigned long context) {
    timers_[number].last_run = jiffies();
    counts_.note(Count::timer_runs);
    open(module_timers[number].name);
    (model_.*module_timers[number].tell)();
    model_told();
    timers_[number].function(context);
    close();
}

void Judge::before_arp(const tarv_arp_data_t& record) {
    counts_.note(Count::arp_packets);
    open("ARP packet");
    arp_result_ = model_.arp(record);
    model_told();
}

void Judge::after_arp(tarv_stat_t result) {
    // Without paths the result is the entry's; moved requests report their queries' instead.
    if (knows() && (result == tarv_stat_not_found ||
                    (arp_result_ == tarv_stat_error && result != arp_result_)))
        violate("wrong_result", "an ARP packet was taken in with status " + std::to_string(result));
    close();
}

void Judge::before_answer(int port, gsi_dtgrm_t* answer) {
    counts_.note(Count::sa_answers);
    open("SA answer");
    int size = 0;
    const void* const block = gsi_dtgrm_get_rmpp_buf(answer, &size);
    model_.answer({port, answer->mad, static_cast<const std::uint8_t*>(block), size});
    model_told();
}

void Judge::before_event(const gx_event_record_t& event) {
    counts_.note(Count::events);
    open(event_window);
    model_.event(event.event_type, event.port_num);
    model_told();
}

void Judge::arp_request(const tarv_arp_data_t& record, int media_reset) {
    counts_.note(Count::media_resets, media_reset != 0);
    tarv_arp_data_t asked{};
    asked.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_ARP_OP;
    asked.arp_operation = TARV_ARP_OP_REQUEST;
    asked.src_ip = record.src_ip;
    asked.dst_ip = record.dst_ip;
    asked.context = record.context;
    const auto bytes_of = [](const tarv_arp_data_t& data) {
        return std::as_bytes(std::span(&data, 1));
    };
    if (!std::ranges::equal(bytes_of(asked), bytes_of(record)))
        violate("packet_wrong", "an ARP request holds more than its five fields");
    if (windows_.empty())
        return violate("packet_needless", "an ARP request was sent out of nothing");
    windows_.back().sent.push_back({.ip = record.dst_ip,
                                    .from = record.src_ip,
                                    .context = record.context,
                                    .media_reset = media_reset,
                                    .gids = {}});
}

/* The GIDs stand behind the SA's header of 20 bytes and the query's of 24. */
void Judge::query(int port, const gsi_dtgrm_t& posted) {
    constexpr std::size_t sources_at = 20 + 15, destinations_at = 20 + 16, first_gid = 20 + 24;
    if (windows_.empty())
        return violate("packet_needless", "a query was sent out of nothing");
    Sent sent = {.port = port, .sm_lid = posted.rlid, .sm_sl = posted.sl, .gids = {}};
    const auto* const block = static_cast<const std::uint8_t*>(posted.rmpp_payload);
    const std::size_t gids = std::size_t{block[sources_at]} + block[destinations_at];
    for (std::size_t i = 0; i < gids && first_gid + 16 * (i + 1) <= posted.rmpp_payload_size; ++i)
        std::reverse_copy(block + first_gid + 16 * i, block + first_gid + 16 * (i + 1),
                          sent.gids.emplace_back().raw);
    windows_.back().sent.push_back(std::move(sent));
}

}  // namespace simulation
