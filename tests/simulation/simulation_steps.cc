// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What each step does.
#include <algorithm>
#include <system_error>

#include "host/check.h"
#include "host/faults.h"
#include "platform/jiffies.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-arp-hash.h"
#include "tarv/tarv-module.h"
#include "tests/simulation/made.h"
#include "tests/simulation/simulation.h"

namespace soak {
namespace {

constexpr const char busy_text[] = "Another call is pending please try later ...\n";

void apply(fabric::Faults& faults, std::uint32_t fault, std::uint32_t number) {
    switch (fault) {
        case 0:
            return faults.drop_next(number);
        case 1:
            return faults.drop_all();
        case 2:
            return faults.delay(number);
        case 3:
            return faults.duplicate_next(number);
        default:
            return faults.hold_next(number);
    }
}

}  // namespace

/* In the order of Kind. */
const Simulation::StepFunction Simulation::step_functions[] = {
    &Simulation::ask,          &Simulation::lookup,     &Simulation::arp,
    &Simulation::write,        &Simulation::read,       &Simulation::chunk,
    &Simulation::close_reader, &Simulation::peer_asks,  &Simulation::announce,
    &Simulation::peer_link,    &Simulation::peer_gid,   &Simulation::peer_lid,
    &Simulation::peer_qpn,     &Simulation::peer_fault, &Simulation::sa_fault,
    &Simulation::sa_answer,    &Simulation::port_fault, &Simulation::calm,
    &Simulation::link,         &Simulation::lid,        &Simulation::mtu,
    &Simulation::sm,           &Simulation::event,      &Simulation::pkeys,
    &Simulation::pkey,         &Simulation::fail_call,  &Simulation::empty_hand,
    &Simulation::level,        &Simulation::attach,     &Simulation::detach,
    &Simulation::advance,      &Simulation::load,       &Simulation::unload,
};

/* The hosts, our own first; then addresses of our network that nobody has; 62 and 63 are of another
 * network. */
std::uint32_t Simulation::ip_of(std::uint32_t address) const {
    if (address < shape_.hosts)
        return fabric_.hosts()[address].ip;
    const std::uint32_t network = address < 62 ? 0x0000000A : 0x0009A8C0;
    return network | (100 + address) << 24;
}

/* Those of the hosts' interfaces as they are now, our own ports', and others. */
gx_gid_t Simulation::gid_of(std::uint32_t number) const {
    auto& fabric = const_cast<fabric::Fabric&>(fabric_);
    if (number == 0 || number == 60)
        return fabric::held(fabric.adapter().port(number == 0 ? 1 : 2).gid);
    if (number < shape_.hosts)
        return fabric::held(fabric.peers().station(ip_of(number)).gid);
    return {{static_cast<u8>(number), 0xA0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0xFE}};
}

void Simulation::ask(const Step& step) {
    if (!loaded_)
        return;
    const auto [address, from, paths, flags] = step.value;
    const Question question = {ip_of(address),
                               ip_of(from),
                               static_cast<tarv_paths_t>(paths == 3 ? 7 : paths),
                               nullptr,
                               (flags & ask_callback) != 0,
                               (flags & ask_invalidate) != 0};
    if (flags & ask_answered)
        answer_inside_ = address;
    // Clients ask from processes, and drivers while they send and receive.
    const host::ContextScope scope(from % 2 ? host::Context::driver : host::Context::process);
    for (int i = 0; i < (flags & ask_many ? 6 : 1); ++i)
        ask_once(question, flags & ask_again);
    answer_inside_.reset();
}

void Simulation::ask_once(const Question& asked, bool again) {
    Token& token = tokens_.emplace_back(Token{this, tokens_.size() + 1, asked, again});
    Question question = asked;
    question.context = &token;
    tarv_arp_data_t expected{};
    tarv_arp_data_t record{};
    open("request");
    const tarv_stat_t due = model_.ask(question, expected);
    model_told();
    const tarv_stat_t status =
        tarv_get_ib_data(question.ip, question.from, question.paths, &record,
                         question.callback ? on_reply : nullptr, &token, question.invalidate);
    hash(static_cast<std::uint64_t>(status));
    const std::string request = "request " + std::to_string(token.number);
    if (status == tarv_stat_pending && token.state == State::asking) {
        token.state = State::pending;
        waiting_.push_back(&token);
    } else if (status != tarv_stat_pending) {
        if (token.state == State::answered)
            fail("answered_twice", request + " got a callback and a result as well");
        token.state = State::refused;
    }
    if (status == tarv_stat_ok && record.dst_ip != question.ip)
        fail("wrong_answer", request + " got the record of another address");
    if (knows() && status != due)
        fail("wrong_result",
             request + " got " + std::to_string(status) + ", due was " + std::to_string(due));
    else if (knows() && status == tarv_stat_ok && !same_record(expected, record))
        fail("stale_hit", request + ": the record " + difference(expected, record));
    close();
}

void Simulation::lookup(const Step& step) {
    if (!loaded_)
        return;
    gx_gid_t gid = gid_of(step.value[0]);
    tarv_arp_data_t expected{};
    tarv_arp_data_t record{};
    tarv_stat_t due = tarv_stat_ok;
    tarv_stat_t status = tarv_stat_ok;
    pass(
        "lookup by GID", [&] { due = model_.lookup(gid, expected); },
        [&] { status = tarv_hash_seq_cache_lookup(&gid, &record); });
    if (status != due || (due == tarv_stat_ok && !same_record(expected, record)))
        fail("wrong_lookup", "a GID does not find the first entry that has it");
}

tarv_arp_data_t Simulation::made_packet(std::uint32_t ip, std::uint32_t as, std::uint16_t operation,
                                        std::uint32_t port) const {
    tarv_arp_data_t record{};
    record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
                  TARV_MASK_LID | TARV_MASK_QKEY | TARV_MASK_CAP_FLG | TARV_MASK_LOCAL_PORT;
    record.arp_operation = operation;
    record.src_ip = ip;
    record.dst_ip = fabric_.our_host().ip;
    record.gid = gid_of(as);
    record.qpn = 0x4000 + as;
    record.lid = static_cast<gx_lid_t>(0x100 + as);
    record.qkey = 0xB1B;
    record.cap_flg = 0x80;
    record.local_port_num = port;
    if (as == 61) {
        record.mask |= TARV_MASK_PRIMARY_PATH;
        record.paths_count = 1;
        record.paths[0].dgid = record.gid;
        record.paths[0].sgid = gid_of(0);
        record.paths[0].dlid = record.lid;
    }
    return record;
}

void Simulation::arp(const Step& step) {
    if (!loaded_)
        return;
    const auto [address, as, operation, port] = step.value;
    tarv_arp_data_t packet =
        made_packet(ip_of(address), as, static_cast<std::uint16_t>(operation), port);
    const host::ContextScope scope(host::Context::driver);
    before_arp(packet);
    after_arp(tarv_process_arp_data(&packet));
}

void Simulation::write(const Step& step) {
    if (!loaded_)
        return;
    const bool adds_path = step.text.find("addpath") != step.text.npos;
    const bool repeats = adds_path && step.text.find('*') != step.text.npos;
    const unsigned long paths_read = model_.paths_read();
    open("command");
    model_.command(step.text);
    model_told();
    disturbed_ |= repeats && !repeats_known_;
    host::ProcFile(control_file).write(step.text);
    if (adds_path && !knows())
        repeats_known_ = false;
    else if (adds_path && !repeats && model_.paths_read() != paths_read)
        repeats_known_ = true;
    close();
}

void Simulation::read(const Step& step) {
    if (!loaded_)
        return;
    const std::string expected = holder_ ? busy_text : model_.text();
    std::string text;
    bool known = false;
    const std::size_t size = std::max(step.value[0], holder_ ? 64u : 1u);
    pass(
        "read", [] {},
        [&] {
            host::ProcFile file(control_file);
            for (std::string part = file.read(size); !part.empty(); part = file.read(size))
                text += part;
            known = knows();
        });
    tally_.note(holder_ ? Outcome::readers_busy : Outcome::tables_read);
    if (known && text != expected)
        fail("wrong_table", "the control file reads\n" + text + "and should read\n" + expected);
}

void Simulation::begin_reading(Reader& reader, std::size_t size) {
    reader.file = std::make_unique<host::ProcFile>(control_file);
    if (!holder_) {
        holder_ = &reader;
        reader.text = model_.text();
        return;
    }
    // What does not fit the reader's first buffer is lost: the file ends with it.
    tally_.note(Outcome::readers_busy);
    reader.text = std::string(busy_text).substr(0, size);
}

void Simulation::drop(Reader& reader) {
    if (holder_ == &reader)
        holder_ = nullptr;
    reader = {};
}

void Simulation::chunk(const Step& step) {
    Reader& reader = readers_[step.value[0]];
    const std::size_t size = std::max(step.value[1], 1u);
    if (!loaded_)
        return;
    bool known = false;
    std::string part;
    pass(
        "read", [] {},
        [&] {
            if (!reader.file)
                begin_reading(reader, size);
            part = reader.file->read(size);
            known = knows();
        });
    const std::string expected = reader.text.substr(reader.got, size);
    if (known && part != expected)
        fail("wrong_table", "a reader gets\n" + part + "and should get\n" + expected);
    reader.got += part.size();
    // Whoever asks for more than there is has come to the end of the file.
    if (!known || part.size() < size)
        drop(reader);
}

void Simulation::close_reader(const Step& step) {
    drop(readers_[step.value[0]]);
}

void Simulation::peer_asks(const Step& step) {
    fabric_.peer_asks(ip_of(step.value[0]));
}

void Simulation::announce(const Step& step) {
    fabric_.peer_announces(ip_of(step.value[0]));
}

void Simulation::peer_link(const Step& step) {
    fabric_.set_peer_link(ip_of(step.value[0]), step.value[1] != 0);
}

void Simulation::peer_gid(const Step& step) {
    name_peer(step.value[0], step.value[1]);
}

/* The GIDs that peers have are those that commands and made-up packets are likely to name. */
void Simulation::name_peer(std::uint32_t address, std::uint32_t number) {
    fabric::Gid gid{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xA1};
    gid[15] = static_cast<std::uint8_t>(number);
    fabric_.change_peer(ip_of(address), {.gid = gid});
}

void Simulation::peer_lid(const Step& step) {
    fabric_.subnet().set_lid(fabric_.peers().station(ip_of(step.value[0])).at,
                             static_cast<std::uint16_t>(step.value[1]));
}

void Simulation::peer_qpn(const Step& step) {
    fabric_.change_peer(ip_of(step.value[0]), {.qpn = step.value[1]});
}

void Simulation::peer_fault(const Step& step) {
    apply(fabric_.peer(ip_of(step.value[0])), step.value[1], step.value[2]);
}

void Simulation::sa_fault(const Step& step) {
    apply(fabric_.sa().faults(), step.value[0], step.value[1]);
}

void Simulation::sa_answer(const Step& step) {
    fabric::Sa& sa = fabric_.sa();
    const auto [edit, value, often, unused] = step.value;
    const unsigned count = often == 0 ? fabric::Sa::always : often;
    const auto byte = static_cast<std::uint8_t>(value);
    switch (edit) {
        case 0:
            return sa.answer_with_status(static_cast<std::uint16_t>(value), count);
        case 1:
            return sa.answer_with_attribute(static_cast<std::uint16_t>(value), count);
        case 2:
            return sa.answer_with_class(byte, count);
        case 3:
            return sa.answer_with_base_version(byte, count);
        case 4:
            return sa.answer_with_class_version(byte, count);
        case 5:
            return sa.answer_with_records(value % 8, count);
        case 6:
            return sa.answer_truncated_to(value % 300, count);
        default:
            return sa.answer_over_rmpp(fabric::PathRecord::wire_size, count);
    }
}

void Simulation::port_fault(const Step& step) {
    apply(fabric_.port(static_cast<int>(step.value[0])), step.value[1], step.value[2]);
}

/* Everything behaves again; what was held back comes now. */
void Simulation::calm(const Step&) {
    host::clear_faults();
    fabric_.sa().clear();
    for (std::uint32_t i = 1; i < shape_.hosts; ++i)
        fabric_.peer(ip_of(i)).clear();
    for (int port = 1; port <= fabric_.adapter().ports(); ++port)
        fabric_.port(port).clear();
}

void Simulation::link(const Step& step) {
    fabric_.set_link(static_cast<int>(step.value[0]), step.value[1] != 0);
}

void Simulation::lid(const Step& step) {
    fabric_.set_lid(static_cast<int>(step.value[0]), static_cast<std::uint16_t>(step.value[1]));
}

void Simulation::mtu(const Step& step) {
    fabric_.set_mtu(static_cast<int>(step.value[0]), static_cast<std::uint8_t>(step.value[1]));
}

void Simulation::sm(const Step& step) {
    fabric_.move_sm(static_cast<std::uint16_t>(step.value[0]),
                    static_cast<std::uint8_t>(step.value[1]));
}

void Simulation::event(const Step& step) {
    fabric_.raise_event(step.value[0], static_cast<int>(step.value[1]));
}

void Simulation::pkeys(const Step& step) {
    static const std::vector<std::uint16_t> tables[] = {
        {0xFFFF},
        {0x7FFF, 0x8001},
        {0x7FFF, 0x7FFE, 0x7FFD, 0x7FFC, 0x7FFB, 0xFFFF},
        {0x8001, 0xFFFF},
    };
    fabric_.set_pkeys(static_cast<int>(step.value[0]), tables[step.value[1]]);
}

void Simulation::pkey(const Step& step) {
    fabric_.ipoib().set_pkey(static_cast<std::uint16_t>(step.value[0]));
}

void Simulation::fail_call(const Step& step) {
    const auto& services = host::services_that_fail();
    host::fail_nth(services[step.value[0] % services.size()], step.value[1] + 1);
}

void Simulation::empty_hand(const Step&) {
    if (fabric_.gsi().hands_out_nothing_next())
        return;
    fabric_.gsi().hand_out_nothing_next();
    model_.empty_hand();
}

void Simulation::level(const Step& step) {
    if (step.value[1] != 0)
        host::set_logger_level(static_cast<int>(step.value[0]));
    else
        host::set_repository_value(level_key, level_name, step.value[0]);
}

void Simulation::attach(const Step&) {
    if (loaded_)
        attach_driver();
}

void Simulation::detach(const Step&) {
    if (!loaded_ || !fabric_.ipoib().attached())
        return;
    model_.attach(false);
    fabric_.ipoib().detach();
}

void Simulation::advance(const Step& step) {
    kernel_.advance(step.value[0]);
}

void Simulation::load(const Step& step) {
    if (loaded_)
        return;
    const std::string timeout = std::to_string(step.value[0]);
    if (step.value[2] != 0)
        fail_call({step.kind, {step.value[1], step.value[2] - 1}, {}});
    if (host::load_module(tarv_module, {"arp_cache_timeout_sec=" + timeout}) != 0) {
        tally_.note(Outcome::loads_failed);
        return check_remains();
    }
    tally_.note(Outcome::loads);
    loaded_ = true;
    repeats_known_ = true;
    const bool hand = model_.switches().empty_hand;
    model_.load(step.value[0]);
    if (hand)
        model_.empty_hand();
    wrap_timers();
    attach_driver();
}

void Simulation::unload(const Step&) {
    if (!loaded_)
        return;
    unloading_ = true;
    no_memory_before_ = host::failed_calls_of("kmalloc");
    if (fabric_.ipoib().attached())
        fabric_.ipoib().detach();
    host::unload_module(tarv_module);
    unloading_ = false;
    loaded_ = false;
    model_.attach(false);
    model_.unload();
    tally_.note(Outcome::unloads);
    for (Token* token : waiting_) {
        if (token->state != State::pending)
            continue;
        token->state = State::silent;
        const SilentEnd end = silent_end(*token);
        if (end == SilentEnd::none)
            fail("lost_callback", "request " + std::to_string(token->number) +
                                      " waited for paths and was forgotten by the unload");
        else
            tally_.note(end);
    }
    waiting_.clear();
    for (Reader& reader : readers_)
        drop(reader);
    check_remains();
}

}  // namespace soak
