// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table of a script's verbs, and those of them with which it acts as the module's loader, as
// its administrator, and on the kernel and the time.
#include "app/script_verbs.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "app/suggest.h"
#include "host/console.h"
#include "host/faults.h"
#include "tarv/tarv-module.h"

namespace app {
namespace {

constexpr std::uint64_t any_u32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t most_hosts = 4000;
constexpr std::uint64_t last_first_jiffy = std::uint64_t{1} << 62;

// The loader.

/* What the loader would refuse must be refused before anything starts. */
void check_parameter(const ScriptLine& line, const std::string& parameter) {
    const std::size_t equals = parameter.find('=');
    const auto params = std::span(tarv_module.params, tarv_module.param_count);
    const auto param = std::ranges::find_if(
        params, [&](const module_param_t& row) { return parameter.substr(0, equals) == row.name; });
    if (param == params.end())
        line.fail("the module has no parameter of the name in \"" + parameter + "\"");
    const auto value = parse_number(
        equals == std::string::npos ? "" : std::string_view(parameter).substr(equals + 1));
    const std::uint64_t most = param->type == module_param_byte ? 255 : ~std::uint64_t{0};
    if (!value || *value > most)
        line.fail("the value in \"" + parameter + "\" is no number that fits");
}

ScriptAction read_load(ScriptLine& line, ScriptReading& reading) {
    std::vector<std::string> parameters;
    while (!line.at_end())
        check_parameter(line, parameters.emplace_back(line.word("a parameter")));
    reading.time_began = true;
    return [parameters](ScriptHost& host, const std::string&) { host.load_module(parameters); };
}

ScriptAction read_unload(ScriptLine&, ScriptReading&) {
    return [](ScriptHost& host, const std::string&) { host.unload_module(); };
}

// The administrator.

ScriptAction read_control(ScriptLine& line, ScriptReading&) {
    const bool newline = !line.take("-n");
    auto text = unescape(line.verbatim());
    if (!text)
        line.fail("only \\n \\t \\0 \\\\ and \\xNN are escapes");
    if (newline)
        *text += '\n';
    return [text = *text](ScriptHost& host, const std::string&) { host.write_control(text); };
}

ScriptAction read_cat(ScriptLine& line, ScriptReading&) {
    const std::string name = line.word("a file");
    if (name != "control" && name != "version")
        line.fail("there is no file \"" + name + "\"");
    const std::size_t chunk = line.at_end() ? PAGE_SIZE : line.number("CHUNK", most_ticks);
    if (chunk == 0)
        line.fail("CHUNK is 0");
    return [name, chunk](ScriptHost& host, const std::string&) { host.print_file(name, chunk); };
}

ScriptAction read_reader(ScriptLine& line, ScriptReading&) {
    const std::uint64_t number = line.number("a reader", script_readers);
    if (number == 0)
        line.fail("readers are numbered from 1");
    if (line.take("close"))
        return [number](ScriptHost& host, const std::string&) { host.close_reader(number - 1); };
    if (!line.take("read"))
        line.fail("read or close is missing");
    const std::uint64_t size = line.number("SIZE", most_ticks);
    const long offset = line.take("at") ? static_cast<long>(line.number("OFFSET", any_u32)) : -1;
    return [number, size, offset](ScriptHost& host, const std::string&) {
        host.read_part(number - 1, size, offset);
    };
}

ScriptAction read_level(ScriptLine& line, ScriptReading&) {
    return [act = read_level_action(line)](ScriptHost&, const std::string&) { act(); };
}

// Time and faults of the host.

ScriptAction read_tick(ScriptLine& line, ScriptReading& reading) {
    const std::uint64_t ticks = line.number("N", most_ticks);
    reading.time_began = true;
    return [ticks](ScriptHost& host, const std::string&) { host.kernel().advance(ticks); };
}

ScriptAction read_jiffies(ScriptLine& line, ScriptReading& reading) {
    if (reading.time_began)
        line.fail("the tick counter can be set before load and tick only");
    reading.first_jiffy = line.number("N", last_first_jiffy);
    return [](ScriptHost&, const std::string&) {};
}

ScriptAction read_hosts(ScriptLine& line, ScriptReading& reading) {
    if (reading.time_began || reading.made_site)
        line.fail("the hosts can be set once, before load and tick");
    const std::uint64_t count = line.number("N", most_hosts);
    if (count < 2)
        line.fail("a fabric has 2 hosts at least");
    Site made;
    made.topology = fabric::make_fabric({.hosts = static_cast<int>(count), .spines = 2});
    made.hosts = fabric::deal_addresses(made.topology);
    reading.made_site = std::make_shared<const Site>(std::move(made));
    reading.site = reading.made_site.get();
    return [](ScriptHost&, const std::string&) {};
}

ScriptAction read_fail(ScriptLine& line, ScriptReading&) {
    if (line.take("empty-datagram"))
        return [](ScriptHost& host, const std::string&) {
            host.fabric().gsi().hand_out_nothing_next();
        };
    std::string service = line.word("SERVICE");
    if (service == "gsi_dtgrm_pool_create")
        service += "_named";
    if (!std::ranges::count(host::services_that_fail(), service))
        line.fail("there is no service \"" + service + "\" that can fail");
    if (!line.take("nth"))
        line.fail("nth is missing");
    const std::uint64_t n = line.number("N", most_ticks);
    if (n == 0)
        line.fail("N counts from 1");
    return [service, n](ScriptHost&, const std::string&) { host::fail_nth(service, n); };
}

ScriptAction read_calm(ScriptLine&, ScriptReading&) {
    return [](ScriptHost& host, const std::string&) { host.calm(); };
}

constexpr ScriptVerb verbs[] = {
    {"load", "[name=value ...]", read_load},
    {"unload", "", read_unload},
    {"control", "[-n] TEXT", read_control},
    {"cat", "control|version [CHUNK]", read_cat},
    {"reader", "1|2 read SIZE [at OFFSET] | 1|2 close", read_reader},
    {"resolve",
     "IP [from IP] [paths none|primary|both|N] [invalidate] [no-callback] [in-driver] [again] "
     "[times N]",
     read_resolve},
    {"lookup-gid", "GID", read_lookup_gid},
    {"arp",
     "request|reply from IP [to IP] [op N] [port N] [lid N] [gid GID] [qpn N] [qkey N] [flags N] "
     "[mask N] [path-from GID] [bytes OFFSET HEX]",
     read_arp},
    {"attach", "", read_attach},
    {"detach", "", read_detach},
    {"driver", "quick [N] | pkey N", read_driver},
    {"event", "link_up|link_down|lid|mtu|sm_change|NUMBER port N [to VALUE] [sl N]", read_event},
    {"peer", "PEER asks|announces|up|down|gid GID|lid N|qpn N", read_peer},
    {"pkeys", "port N VALUE ...", read_pkeys},
    {"packet", "mad|ipoib port N [size N] HEX", read_packet},
    {"fabric", "PEER|sa|port N FAULT ...", read_fabric_fault},
    {"fail", "SERVICE nth N | empty-datagram", read_fail},
    {"calm", "", read_calm},
    {"level", "module|logger N", read_level},
    {"tick", "N", read_tick},
    {"jiffies", "N", read_jiffies},
    {"hosts", "N", read_hosts},
    {"expect",
     "line TEXT | no line TEXT | reply N STATUS | entry IP FIELD VALUE ... | nobody waiting",
     read_expect},
};

}  // namespace

std::span<const ScriptVerb> script_verbs() {
    return verbs;
}

std::function<void()> read_level_action(ScriptLine& line) {
    const bool module = line.take("module");
    if (!module && !line.take("logger"))
        line.fail("module or logger is missing");
    const auto level = static_cast<int>(line.number("a level", 5));
    return [module, level] {
        if (module)
            host::set_repository_value("quorvane/modules/tarv/", "debug-level",
                                       static_cast<std::uint64_t>(level));
        else
            host::set_logger_level(level);
    };
}

std::uint64_t ScriptReading::ports() const {
    const auto node = static_cast<std::size_t>(site->our_host().node);
    return site->topology.nodes[node].ports.size() - 1;
}

std::uint32_t ScriptReading::ip(ScriptLine& line) const {
    const std::string word = line.word("IP");
    const auto ip = address_of(*site, word);
    if (!ip)
        line.fail("\"" + word + "\" is no IPv4 address and no host, where IP should stand" +
                  suggest(word, names_of(*site)));
    return *ip;
}

int ScriptReading::port(ScriptLine& line) const {
    const std::uint64_t number = line.number("a port", ports());
    if (number == 0)
        line.fail("ports are numbered from 1");
    return static_cast<int>(number);
}

}  // namespace app
