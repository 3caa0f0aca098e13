// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The windows through which everything enters the module, and what the module calls.
#include "tests/simulation/simulation.h"

#include <algorithm>
#include <utility>

#include "host/check.h"
#include "host/faults.h"
#include "platform/jiffies.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-module.h"
#include "tarv/tarv-req-list.h"
#include "tests/simulation/made.h"

namespace soak {
namespace {

Simulation* the_simulation = nullptr;

fabric::Topology make_topology(std::uint32_t hosts) {
    fabric::FabricShape shape;
    shape.hosts = static_cast<int>(hosts);
    shape.spines = 2;
    return fabric::make_fabric(shape);
}

bool is_hex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

Simulation::Simulation(const WorldShape& shape)
    : shape_(shape),
      kernel_({.clock = host::Clock::virtual_time, .first_jiffy = shape.first_jiffy}),
      fabric_(make_topology(shape.hosts), fabric::deal_addresses(make_topology(shape.hosts)), 0),
      model_(fabric_) {
    the_simulation = this;
    fabric_.ipoib().set_mask(0x00FFFFFF);
    for (std::uint32_t i = 1; i < shape.hosts; ++i)
        name_peer(i, i);
    fabric::set_witness(this);
    host::set_logger_level(5);
    host::set_repository_value(level_key, level_name, 1);
    host::set_console([this](const host::LogLine& line) {
        tally_.note(Outcome::log_lines);
        hash(line.text);
    });
    tally_.note(Outcome::worlds);
    if (shape.first_jiffy > 0xF0000000)
        tally_.note(Outcome::worlds_at_wrap);
}

Simulation::~Simulation() {
    fabric::set_witness(nullptr);
    host::set_console({});
    the_simulation = nullptr;
}

void Simulation::end() {
    for (Reader& reader : readers_)
        reader = {};
    unload({});
    calm({});
    kernel_.advance(20000);
    check_remains();
}

Tally Simulation::tally() const {
    Tally sum = tally_;
    sum.add(model_.tally());
    return sum;
}

void Simulation::fail(const char* name, const std::string& text) {
    if (!violation_)
        violation_ = Violation{name, text};
}

/* Addresses of memory, 16 digits long, are not the same in two runs. */
void Simulation::hash(std::string_view bytes) {
    constexpr std::size_t pointer_digits = 16;
    for (std::size_t i = 0; i < bytes.size();) {
        const auto end =
            std::find_if_not(bytes.begin() + static_cast<std::ptrdiff_t>(i), bytes.end(), is_hex);
        const auto run = static_cast<std::size_t>(end - bytes.begin()) - i;
        const bool pointer = run == pointer_digits;
        const std::size_t used = pointer ? run : std::max<std::size_t>(run, 1);
        for (std::size_t k = i; k < i + used; ++k)
            digest_ =
                (digest_ ^ static_cast<unsigned char>(pointer ? 'x' : bytes[k])) * 0x100000001B3;
        i += used;
    }
    digest_ = (digest_ ^ '\n') * 0x100000001B3;
}

void Simulation::hash(std::uint64_t number) {
    digest_ = (digest_ ^ number) * 0x100000001B3;
}

void Simulation::take(const Step& step) {
    ++steps_;
    try {
        (this->*step_functions[static_cast<std::size_t>(step.kind)])(step);
        kernel_.settle();
    } catch (const std::invalid_argument&) {
        // The fabric has no such host, port or LID: nothing happens.
    }
    if (!loaded_ || violation_)
        return;
    check_counts();
    if (steps_ % 64 == 0) {
        look_up_all();
        check_patience();
    }
}

bool Simulation::knows() const {
    return !disturbed_ && host::failed_calls() == failed_before_;
}

void Simulation::open(const char* what) {
    if (windows_.empty()) {
        failed_before_ = host::failed_calls();
        no_memory_before_ = host::failed_calls_of("kmalloc");
        disturbed_ = unloading_;
    } else if (windows_.back().what != event_window) {
        disturbed_ = true;
    }
    windows_.push_back({what, {}, {}});
}

void Simulation::close() {
    if (knows())
        compare_replies(windows_.back());
    last_window_ = windows_.back().what;
    windows_.pop_back();
    if (!windows_.empty() || unloading_)
        return;
    check_state();
    tally_.note(Outcome::faults, host::failed_calls() - failed_before_);
}

void Simulation::compare_replies(const Window& window) {
    const auto name = [&](const Reply& reply) {
        return "request " + std::to_string(static_cast<Token*>(reply.context)->number) +
               " status " + std::to_string(reply.status);
    };
    const std::string where = std::string(" [") + window.what + "]";
    for (std::size_t i = 0; i < std::max(window.expected.size(), window.got.size()); ++i) {
        if (i >= window.got.size())
            return fail("lost_callback", "a callback was due: " + name(window.expected[i]) + where);
        const Reply& got = window.got[i];
        if (i >= window.expected.size())
            return fail("needless_callback", "no callback was due: " + name(got) + where);
        const Reply& expected = window.expected[i];
        if (got.context != expected.context || got.status != expected.status)
            return fail("wrong_callback",
                        "due was " + name(expected) + ", made was " + name(got) + where);
        if (got.status == tarv_stat_ok && !same_record(expected.record, got.record))
            return fail("wrong_answer", name(got) + where + ": the record " +
                                            difference(expected.record, got.record));
    }
}

void Simulation::on_reply(tarv_stat_t status, tarv_arp_data_t* record, void* context) {
    host::must_hold_no_lock("a reply callback");
    Token& token = *static_cast<Token*>(context);
    token.world->replied(token, status, record);
}

void Simulation::replied(Token& token, tarv_stat_t status, const tarv_arp_data_t* record) {
    const std::string request = "request " + std::to_string(token.number);
    hash(token.number);
    hash(static_cast<std::uint64_t>(status));
    if (token.state != State::pending && token.state != State::asking)
        fail("second_callback", request + " has had its answer already");
    token.state = State::answered;
    if ((status == tarv_stat_ok) != (record != nullptr))
        return fail("wrong_answer",
                    request + ": a record comes with the status ok and only with it");
    tally_.note(status == tarv_stat_ok        ? Outcome::replies_ok
                : status == tarv_stat_timeout ? Outcome::replies_timeout
                : status == tarv_stat_error   ? Outcome::replies_error
                                              : Outcome::replies_not_found);
    if (record && record->dst_ip != token.question.ip)
        fail("wrong_answer", request + " was answered with the record of another address");
    if (record &&
        (record->primary_path != record->paths || record->secondary_path != record->paths + 1))
        fail("wrong_answer", request + ": the path pointers point out of the record");
    if (unloading_ && windows_.empty())
        return;
    if (windows_.empty())
        return fail("needless_callback", request + " was called back out of nothing");
    windows_.back().got.push_back({&token, status, record ? *record : tarv_arp_data_t{}});
    if (token.again)
        ask_once(
            {token.question.ip, token.question.from, token.question.paths, nullptr, true, false},
            false);
}

/* The driver's send function, with an answer that is quicker than its return when one is wanted. */
tarv_stat_t Simulation::on_send(tarv_arp_data_t* record, void* context, int media_reset) {
    Simulation& world = *the_simulation;
    auto& driver = *static_cast<fabric::Ipoib*>(context);
    world.tally_.note(Outcome::media_resets, media_reset != 0);
    const std::uint32_t ip = record->dst_ip;
    const tarv_stat_t status = driver.send_request(*record, media_reset);
    if (const auto as = std::exchange(world.answer_inside_, {})) {
        tarv_arp_data_t packet = world.made_packet(ip, *as, TARV_ARP_OP_REPLY, 1);
        const host::ContextScope scope(host::Context::driver);
        world.before_arp(packet);
        world.after_arp(tarv_process_arp_data(&packet));
    }
    return status;
}

template <int timer>
void Simulation::on_timer(unsigned long context) {
    the_simulation->run_timer(timer, context);
}

void Simulation::run_timer(int timer, unsigned long context) {
    timers_[timer].last_run = jiffies();
    tally_.note(Outcome::timer_runs);
    static constexpr void (Model::*tell[])() = {&Model::arp_timer, &Model::sa_timer, &Model::age};
    static constexpr const char* names[] = {"ARP timer", "SA timer", ageing_window};
    pass(
        names[timer], [&] { (model_.*tell[timer])(); }, [&] { timers_[timer].function(context); });
}

/* The timers are armed again by their own functions, which leaves the function where it is. */
void Simulation::wrap_timers() {
    timers_[0] = {&tarv_req_timer, tarv_req_timer.function, jiffies(), 1000};
    timers_[1] = {&tarv_sa_req_timer, tarv_sa_req_timer.function, jiffies(), 1000};
    timers_[2] = {&tarv_garbage_collector_timer, tarv_garbage_collector_timer.function, jiffies(),
                  15000};
    timers_[0].timer->function = on_timer<0>;
    timers_[1].timer->function = on_timer<1>;
    timers_[2].timer->function = on_timer<2>;
}

void Simulation::attach_driver() {
    const bool was = fabric_.ipoib().attached();
    if (was)
        return;
    model_.attach(true);
    if (fabric_.ipoib().attach() != tarv_stat_ok)
        return fail("wrong_result", "the driver cannot be attached though none is");
    local_send_arp_data_fn = on_send;
}

void Simulation::before_arp(const tarv_arp_data_t& record) {
    tally_.note(Outcome::arp_packets);
    open("ARP packet");
    arp_result_ = model_.arp(record);
    model_told();
}

void Simulation::after_arp(tarv_stat_t result) {
    // Without paths the result is the entry's; moved requests report their queries' instead.
    if (knows() && (result == tarv_stat_not_found ||
                    (arp_result_ == tarv_stat_error && result != arp_result_)))
        fail("wrong_result", "an ARP packet was taken in with status " + std::to_string(result));
    close();
}

void Simulation::before_answer(int port, gsi_dtgrm_t* answer) {
    tally_.note(Outcome::sa_answers);
    open("SA answer");
    int size = 0;
    const void* const block = gsi_dtgrm_get_rmpp_buf(answer, &size);
    model_.answer({port, answer->mad, static_cast<const std::uint8_t*>(block), size});
    model_told();
}

void Simulation::after_answer() {
    close();
}

void Simulation::before_event(const gx_event_record_t& event) {
    tally_.note(Outcome::events);
    open(event_window);
    model_.event(event.event_type, event.port_num);
    model_told();
}

void Simulation::after_event() {
    close();
}

}  // namespace soak
