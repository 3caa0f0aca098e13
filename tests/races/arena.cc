// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/races/arena.h"

#include <system_error>

#include "host/check.h"
#include "host/console.h"
#include "host/services.h"
#include "platform/atomic.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-sa-private.h"
#include "tests/races/doors.h"
#include "tests/races/report.h"

namespace stress {
namespace {

/* The tick counter's low half starts from 0 again some seconds after the start. */
unsigned long first_jiffy(unsigned long speed) {
    return (1ul << 32) / speed - 3000;
}

/* For the scope the module is inside one of the driver's functions, so the driver has to be there.
 */
class Visit {
  public:
    Visit(const Driver& driver, const char* function)
        : driver_(driver), function_(function), call_(function) {
        look("entered");
    }
    ~Visit() { look("left"); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

  private:
    void look(const char* what) const {
        if (driver_.gone.load(std::memory_order_relaxed))
            violation("%s was %s after tarv_detach had returned", function_, what);
    }

    const Driver& driver_;
    const char* const function_;
    const host::DriverCall call_;
};

tarv_stat_t send_arp(tarv_arp_data_t* record, void* context, int) {
    const Visit visit(*static_cast<Driver*>(context), "send_arp_data_fn");
    counted.arp_sent++;
    if (record->mask != 0x403 || record->arp_operation != TARV_ARP_OP_REQUEST)
        violation("torn record: the driver was handed an ARP request with mask 0x%x", record->mask);
    return static_cast<Driver*>(context)->on_send(*record);
}

/* The module gives no context with this question. */
std::atomic<Driver*> the_driver = nullptr;

tarv_stat_t interface_info(u32, gx_p_key_t* pkey, u32*, int*, int* loopback) {
    const Driver& driver = *the_driver.load();
    const Visit visit(driver, "get_if_info_fn");
    *loopback = 0;
    return driver.on_interface_info(pkey);
}

/* What the driver does by default. */
tarv_stat_t lose(const tarv_arp_data_t&) {
    return tarv_stat_ok;
}
tarv_stat_t default_partition(gx_p_key_t* pkey) {
    *pkey = 0xFFFF;
    return tarv_stat_ok;
}

app::Site site_of(const fabric::Topology& topology) {
    return {topology, fabric::deal_addresses(topology), 0};
}

}  // namespace

std::size_t Entrance::own_number() {
    static std::atomic<std::size_t> next = 0;
    thread_local const std::size_t mine = next++;
    return mine;
}

bool Entrance::enter() {
    std::atomic<int>& depth = guests_.at(own_number()).depth;
    const int before = depth++;
    if (before > 0 || !closed_)
        return true;
    depth--;
    return false;
}

void Entrance::leave() {
    guests_.at(own_number()).depth--;
}

bool Entrance::inside() const {
    return guests_.at(own_number()).depth > 0;
}

void Entrance::close() {
    closed_ = true;
    for (const Guest& guest : guests_)
        wait_until("a visitor leaves", [&] { return guest.depth == 0; });
}

void Entrance::open() {
    closed_ = false;
}

void Driver::attach() {
    gone.store(false, std::memory_order_relaxed);
    if (tarv_attach(interface_info, send_arp, this, &handle_) != tarv_stat_ok)
        host::die("the driver cannot be attached");
    entrance.open();
}

void Driver::detach() {
    entrance.close();
    if (tarv_detach(handle_) != tarv_stat_ok)
        violation("the driver cannot be detached");
    gone.store(true, std::memory_order_relaxed);
}

tarv_stat_t Driver::deliver(tarv_arp_data_t packet) const {
    const host::ContextScope scope(host::Context::driver);
    counted.arp_received++;
    return tarv_process_arp_data(&packet);
}

Arena::Arena(unsigned long speed)
    : site(site_of(fabric::make_fabric({.hosts = 24}))),
      machine(site, {},
              {.clock = host::Clock::real_time,
               .first_jiffy = first_jiffy(speed),
               .files_keep_modules = false},
              {}, {.delays = {0, 0, 0}}) {
    set_clock_speed(speed);
    fabric.gsi().set_request_lifetime(10000 * speed);
    driver.on_send = lose;
    driver.on_interface_info = default_partition;
    the_driver = &driver;
    load();
}

Arena::~Arena() {
    if (client.get)
        unload();
    the_driver = nullptr;
}

void Arena::load() {
    if (machine.load() != 0)
        host::die("the module cannot be loaded");
    client = {machine.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn"), &identities};
    lookup = machine.function<tarv_seq_cache_lookup_fn_t>("tarv_seq_cache_lookup_fn");
    driver.attach();
    machine.switch_on();
}

/* Whoever waits for ARP when the ARP timer has been stopped for the last time is told nothing. In a
 * halted module nobody waits. */
void Arena::unload() {
    driver.detach();
    const bool was_halted = read_once(halted);
    const unsigned long silent = counted.silent.value();
    app::Departure departure;
    {
        const AtMyDoor door(Door::timer_stopped, [](const void* timer) {
            if (timer == &tarv_req_timer)
                note_discarded();
        });
        departure = machine.unload();
    }
    client.get = nullptr;
    counted.reloads++;
    look_at_remains(departure);
    settle_ledgers();
    if (was_halted && counted.silent.value() != silent)
        violation("lost answer: %lu requests were waiting for ARP when a halted module went",
                  counted.silent.value() - silent);
    host::clear_console();
}

void Arena::look_at_remains(const app::Departure& departure) {
    for (const std::string& line : departure.remains)
        violation("left after the unload: %s", line.c_str());
    if (const int pending = atomic_read(&tarv_gsi_pending_cnt))
        violation("left after the unload: %d query datagrams are counted as pending", pending);
    if (const std::size_t out = fabric.gsi().datagrams_out())
        violation("left after the unload: %zu datagrams", out);
}

void Arena::wait_for_ports() {
    kernel.settle();
    for (int port = 0; port < 2; port++)
        wait_until("a port comes up", [&] { return read_once(tarv_sa_g.ports[port].is_valid); });
}

bool Arena::command(const std::string& text) {
    try {
        host::ProcFile(control_path).write(text);
    } catch (const std::system_error&) {
        return false;
    }
    counted.commands++;
    return true;
}

std::string Arena::read(const std::string& path, std::size_t size) {
    try {
        std::string text = host::ProcFile(path).read(size);
        counted.reads++;
        return text;
    } catch (const std::system_error&) {
        return {};
    }
}

void Arena::event(gx_async_record_t type, int port) {
    const host::ContextScope scope(host::Context::event);
    counted.events++;
    tarv_async_event_cb({type, static_cast<u8>(port)});
}

DriverDoes::DriverDoes(Arena& arena, std::function<tarv_stat_t(const tarv_arp_data_t&)> on_send)
    : DriverDoes(arena, std::move(on_send), default_partition) {}

DriverDoes::DriverDoes(Arena& arena, std::function<tarv_stat_t(const tarv_arp_data_t&)> on_send,
                       std::function<tarv_stat_t(gx_p_key_t*)> on_interface_info)
    : arena_(arena) {
    arena.unload();
    arena.driver.on_send = std::move(on_send);
    arena.driver.on_interface_info = std::move(on_interface_info);
    arena.load();
}

DriverDoes::~DriverDoes() {
    arena_.unload();
    arena_.driver.on_send = lose;
    arena_.driver.on_interface_info = default_partition;
    arena_.load();
}

}  // namespace stress
