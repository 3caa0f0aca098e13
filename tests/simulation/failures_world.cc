// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/failures_world.h"

#include <map>
#include <system_error>

#include "app/script_text.h"
#include "host/console.h"
#include "host/faults.h"
#include "host/services.h"
#include "platform/atomic.h"
#include "tarv/logger.h"
#include "tarv/tarv-api-control.h"
#include "tarv/tarv-api.h"
#include "tarv/tarv-module.h"
#include "tarv/tarv-req-list.h"
#include "tarv/tarv-sa-private.h"

namespace soak {
namespace {

constexpr const char* control_file = "quorvane/tarv/control";
constexpr const char* version_file = "quorvane/tarv/version";
constexpr const char* level_key = "quorvane/modules/tarv/";

constexpr int hosts = 6;
constexpr int fresh_host = hosts;  // whom no scenario asks for

/* Longer than a request can take that is re-issued three times on both lists. */
constexpr unsigned long patience = 25'000;

fabric::Topology site() {
    return fabric::make_fabric({.hosts = hosts, .spines = 1});
}

/* "ERROR tarv_api/tarv_attach: text" of a line of the module's log, any other line as it is. */
std::string shortened(const std::string& line) {
    const std::string tag = " : TARV : ";
    const std::size_t function = line.find(tag);
    const std::size_t unit = line.find(":(", function);
    const std::size_t text = line.find("):", unit);
    if (function != 7 || text == std::string::npos)
        return line;
    return line.substr(0, line.find(' ')) + " " + line.substr(unit + 2, text - unit - 2) + "/" +
           line.substr(7 + tag.size(), unit - 7 - tag.size()) + ": " + line.substr(text + 2);
}

/* The requests for ARP whose clients still wait. */
unsigned clients_waiting_for_arp() TA_NO_ANALYSIS {
    unsigned count = 0;
    for (const tarv_list_entry_t* entry : tarv_request_list(requests.head))
        count += entry->reply_cb != nullptr;
    return count;
}

unsigned requests_listed() TA_NO_ANALYSIS {
    return requests.count + sa_requests.count;
}

}  // namespace

const char* name_of(Where where) {
    constexpr const char* names[] = {"load",  "unload", "client", "control",
                                     "event", "timer",  "driver", "gsi"};
    return names[static_cast<std::size_t>(where)];
}

/* On whose behalf the process works, for the scope. */
class World::Phase {
  public:
    Phase(World& world, Where phase) : world_(world), before_(world.phase_) {
        world.phase_ = phase;
    }
    ~Phase() { world_.phase_ = before_; }
    Phase(const Phase&) = delete;
    Phase& operator=(const Phase&) = delete;

  private:
    World& world_;
    Where before_;
};

World::World(const Fault& fault)
    : fabric_(site(), fabric::deal_addresses(site()), 0), faulty_(fault.nth != 0) {
    host::set_console([this](const host::LogLine& line) { hear_console(shortened(line.text)); });
    host::set_logger_level(TARV_FUNC);
    host::set_repository_value(level_key, "debug-level", TARV_DEBUG);
    host::watch_faults([this](const char*) { fault_struck(); });
    if (faulty_)
        host::fail_nth(fault.service, fault.nth);
}

World::~World() {
    host::watch_faults({});
    host::set_console({});
}

void World::fault_struck() {
    Where where = phase_;
    switch (asking_ ? host::Context::process : host::current_context()) {
        case host::Context::process:
            break;
        case host::Context::event:
            where = Where::event;
            break;
        case host::Context::timer:
            where = Where::timer;
            break;
        case host::Context::gsi:
            where = Where::gsi;
            break;
        case host::Context::driver:
            where = Where::driver;
            break;
    }
    mark_ = {where, timeline_.size()};
    // The module takes its level over at the end of a load. The variable is exported, so that what
    // it would log of a load that is refused can be made visible.
    if (where == Where::load)
        write_once(TARV_trace_level, static_cast<int>(TARV_DEBUG));
}

/* What becomes of the requests that the module makes for an administrator is seen in its log. */
void World::hear_console(const std::string& line) {
    note(line);
    if (line.starts_with("DEBUG tarv_api/tarv_get_ib_data_reply_dummy_fn:"))
        ++own_told_;
    else if (phase_ == Where::control &&
             line == "DEBUG tarv_api/tarv_get_ib_data: status from __tarv_get_ib_data() - -253")
        ++own_waiting_;
}

void World::check_locks(const char* after) {
    if (const std::string held = host::held_locks(); !held.empty())
        violations.push_back("the lock " + held + " is held after " + after);
}

void World::check_remains() {
    for (const std::string& line : kernel_.remains())
        violations.push_back("left behind: " + line);
}

void World::load() {
    {
        const Phase phase(*this, Where::load);
        const int result = host::load_module(tarv_module);
        note("load returned " + std::to_string(result));
        load_results_.push_back(result);
        check_locks("a load");
        if (result != 0) {
            check_remains();
            throw Refused("load " + std::to_string(result));
        }
    }
    loaded_ = true;
    attach();
    kernel_.settle();
}

void World::unload() {
    const Phase phase(*this, Where::unload);
    if (fabric_.ipoib().attached())
        detach();
    dropped_at_unload_ += clients_waiting_for_arp();
    host::unload_module(tarv_module);
    loaded_ = false;
    count_failures();
    check_locks("an unload");
    check_remains();
}

/* A load begins to count afresh. */
void World::count_failures() {
    const tarv_sa_stat_t& stat = tarv_sa_g.stat;
    counts_.gsi_reg += static_cast<unsigned>(read_once(stat.err_gsi_reg));
    counts_.gsi_pool_create += static_cast<unsigned>(read_once(stat.err_gsi_pool_create));
    counts_.pool_get += static_cast<unsigned>(read_once(stat.err_pool_get));
}

void World::attach() {
    fabric_.ipoib().attach();
}

void World::detach() {
    fabric_.ipoib().detach();
}

void World::command(const std::string& line) {
    const Phase phase(*this, Where::control);
    const std::string text = line + "\n";
    const long taken = host::ProcFile(control_file).write(text);
    note("control file took " + std::to_string(taken) + " bytes");
    if (taken != static_cast<long>(text.size()))
        violations.push_back("of \"" + line + "\" the control file took " + std::to_string(taken) +
                             " bytes");
    check_locks("a command");
}

void World::switch_on() {
    command("enable");
    command("sa_queries on");
}

void World::read_table() {
    const Phase phase(*this, Where::control);
    const std::string text = host::ProcFile(control_file).read(1 << 16);
    note("table of " + std::to_string(text.size()) + " bytes");
    if (!faulty_ && !text.starts_with("IP address       HW type"))
        violations.push_back("the table cannot be read");
    check_locks("a read");
}

/* The file is not there when the load found no memory for its line. */
void World::read_version() {
    const Phase phase(*this, Where::control);
    try {
        note("version " + host::ProcFile(version_file).read(4096));
    } catch (const std::system_error&) {
        if (!faulty_)
            violations.push_back("there is no version file");
    }
}

void World::set_level(int level) {
    host::set_repository_value(level_key, "debug-level", static_cast<std::uint64_t>(level));
}

void World::pass(unsigned long ticks) {
    kernel_.advance(ticks);
    check_locks("some time");
}

std::uint32_t World::ip_of(int host) {
    return *fabric::parse_ip("10.0.0." + std::to_string(host));
}

std::string World::gid_of(int host) {
    const fabric::Gid gid =
        host == 1 ? fabric_.adapter().port(1).gid : fabric_.peers().station(ip_of(host)).gid;
    return app::format_digits(fabric::held(gid));
}

void World::reply(tarv_stat_t status, tarv_arp_data_t*, void* context) {
    host::must_hold_no_lock("a reply callback");
    auto* client = static_cast<Client*>(context);
    client->told++;
    client->last = status;
    client->world->note(client->name + " told: " + std::to_string(status));
    if (client->renews)
        client->world->request(client->renews, tarv_paths_none, tarv_stat_ok, true);
}

World::Client& World::request(int host, tarv_paths_t paths, tarv_stat_t expected, bool invalidate) {
    const Phase phase(*this, Where::client);
    clients_.push_back({this, fabric::format_ip(ip_of(host)), expected, !following_up_});
    Client& client = clients_.back();
    tarv_arp_data_t record = {};
    asking_ = true;
    client.status =
        tarv_get_ib_data(ip_of(host), ip_of(1), paths, &record, reply, &client, invalidate);
    asking_ = false;
    client.last = client.status;
    note(client.name + " asked: " + std::to_string(client.status));
    check_locks("a client's call");
    return client;
}

void World::ask(int host, tarv_paths_t paths, tarv_stat_t in_the_end, bool invalidate) {
    request(host, paths, in_the_end, invalidate);
}

void World::wait_for_answers() {
    if (!loaded_)
        return;
    kernel_.advance(patience);
    if (const unsigned left = requests_listed())
        violations.push_back(std::to_string(left) + " request(s) still listed after " +
                             std::to_string(patience) + " ticks");
}

void World::heal_fabric() {
    fabric_.sa().clear();
    for (int host = 2; host <= hosts; ++host)
        fabric_.peer(ip_of(host)).clear();
    for (int port = 1; port <= fabric_.adapter().ports(); ++port) {
        fabric_.port(port).clear();
        fabric_.set_link(port, true);
    }
    kernel_.settle();
}

void World::switch_all_on() {
    for (const char* line : {"enable", "sa_queries on", "statics_inv on", "set_retry_cnt 3"})
        command(line);
}

void World::follow_up(bool after_link_up) {
    following_up_ = true;
    host::clear_faults();
    // A module that was halted stays so until it is unloaded.
    if (loaded_ && read_once(halted))
        unload();
    if (!loaded_)
        load();
    if (!fabric_.ipoib().attached())
        attach();
    heal_fabric();
    for (int port = 1; after_link_up && port <= fabric_.adapter().ports(); ++port) {
        fabric_.set_link(port, false);
        kernel_.settle();
        fabric_.set_link(port, true);
        kernel_.settle();
    }
    switch_all_on();
    const Client& client = request(fresh_host, tarv_paths_both, tarv_stat_ok, false);
    kernel_.advance(patience);
    if (client.last != tarv_stat_ok)
        violations.push_back("afterwards a host cannot be resolved: " +
                             app::status_name(client.last));
}

void World::end() {
    if (loaded_)
        unload();
    for (const Client& client : clients_)
        check_client(client);
    if (own_told_ > own_waiting_)
        violations.push_back("of " + std::to_string(own_waiting_) + " invalidations " +
                             std::to_string(own_told_) + " were answered");
}

void World::check_client(const Client& client) {
    const bool waits = client.status == tarv_stat_pending;
    if (client.told > (waits ? 1u : 0u))
        violations.push_back(client.name + " was answered " + app::status_name(client.status) +
                             " and then told " + std::to_string(client.told) + " times");
    if (!faulty_ && client.last != client.expected)
        violations.push_back(client.name + " ended with " + app::status_name(client.last) +
                             ", not with " + app::status_name(client.expected));
}

unsigned World::unanswered() const {
    unsigned count = own_waiting_ - own_told_;
    for (const Client& client : clients_)
        count += client.status == tarv_stat_pending && client.told == 0;
    return count;
}

std::string World::ends() const {
    std::map<std::string, unsigned> counts;
    for (const Client& client : clients_)
        if (client.of_scenario)
            ++counts[client.last == tarv_stat_pending ? "unanswered"
                                                      : app::status_name(client.last)];
    std::string text;
    for (const auto& [name, count] : counts)
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + name;
    return text;
}

}  // namespace soak
