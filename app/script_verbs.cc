// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verbs with which a script acts on the module: as its loader, its administrator, its clients
// and its driver.
#include "app/script_verbs.h"

#include <algorithm>
#include <limits>
#include <system_error>

#include "app/script_text.h"
#include "host/check.h"
#include "host/console.h"
#include "host/faults.h"
#include "tarv/tarv-module.h"

namespace app {
namespace {

constexpr std::uint64_t any_u32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t last_first_jiffy = std::uint64_t{1} << 62;

/* Says as a shell would what the system call said. */
template <class Call>
void with_file(ScriptHost& host, const std::string& verb, const std::string& name, Call call) {
    try {
        host::ProcFile file("quorvane/tarv/" + name);
        call(file);
    } catch (const std::system_error& failed) {
        host.say(verb + ": " + name + ": " + failed.code().message());
    }
}

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
    return [parameters](ScriptHost& host, const std::string&) { host.load(parameters); };
}

ScriptAction read_unload(ScriptLine&, ScriptReading&) {
    return [](ScriptHost& host, const std::string&) { host.unload(); };
}

// The administrator.

ScriptAction read_control(ScriptLine& line, ScriptReading&) {
    const bool newline = !line.take("-n");
    auto text = unescape(line.verbatim());
    if (!text)
        line.fail("only \\n \\t \\0 \\\\ and \\xNN are escapes");
    if (newline)
        *text += '\n';
    return [text = *text](ScriptHost& host, const std::string&) {
        with_file(host, "control", "control", [&](host::ProcFile& file) {
            const long taken = file.write(text);
            if (taken != static_cast<long>(text.size()))
                host.say("control: " + std::to_string(taken) + " of " +
                         std::to_string(text.size()) + " bytes taken");
        });
    };
}

ScriptAction read_cat(ScriptLine& line, ScriptReading&) {
    const std::string name = line.word("a file");
    if (name != "control" && name != "version")
        line.fail("there is no file \"" + name + "\"");
    const std::size_t chunk = line.at_end() ? PAGE_SIZE : line.number("CHUNK", most_ticks);
    if (chunk == 0)
        line.fail("CHUNK is 0");
    return [name, chunk](ScriptHost& host, const std::string&) {
        with_file(host, "cat", name, [&](host::ProcFile& file) {
            std::string text;
            for (std::string piece; !(piece = file.read(chunk)).empty();)
                text += piece;
            if (text.ends_with('\n'))
                text.pop_back();
            host.say(text);
        });
    };
}

ScriptAction read_level(ScriptLine& line, ScriptReading&) {
    return [act = read_level_action(line)](ScriptHost&, const std::string&) { act(); };
}

// The clients.

tarv_paths_t read_paths(ScriptLine& line) {
    const std::string word = line.word("none, primary or both");
    if (word == "none")
        return tarv_paths_none;
    if (word == "primary")
        return tarv_paths_primary;
    if (word == "both")
        return tarv_paths_both;
    line.fail("\"" + word + "\" is neither none nor primary nor both");
}

ScriptAction read_resolve(ScriptLine& line, ScriptReading& reading) {
    const ScriptRequest request = read_request(line, reading);
    return [request](ScriptHost& host, const std::string&) { host.resolve(request); };
}

ScriptAction read_lookup_gid(ScriptLine& line, ScriptReading&) {
    const gx_gid_t gid = line.gid("GID");
    return [gid](ScriptHost& host, const std::string&) {
        auto* const look_up =
            host.function<tarv_seq_cache_lookup_fn_t>("lookup-gid", "tarv_seq_cache_lookup_fn");
        if (!look_up)
            return;
        gx_gid_t wanted = gid;
        tarv_arp_data_t record{};
        const tarv_stat_t status = look_up(&wanted, &record);
        host.say("lookup-gid: " + status_name(status));
        if (status == tarv_stat_ok)
            host.say(format_record(record));
    };
}

// The driver.

/* What an ARP packet said, where a word said it; the rest is the peer's own. */
struct ArpWords {
    std::optional<std::uint64_t> operation, port, lid, qpn, qkey, flags;
    std::optional<gx_gid_t> gid;
};

struct ArpWord {
    const char* name;
    std::optional<std::uint64_t> ArpWords::*value;
    std::uint64_t most;
};
constexpr ArpWord arp_words[] = {
    {"op", &ArpWords::operation, 0xFFFF}, {"port", &ArpWords::port, any_u32},
    {"lid", &ArpWords::lid, 0xFFFF},      {"qpn", &ArpWords::qpn, any_u32},
    {"qkey", &ArpWords::qkey, any_u32},   {"flags", &ArpWords::flags, 0xFF},
};

void read_arp_word(ScriptLine& line, ArpWords& words) {
    if (line.take("gid")) {
        words.gid = line.gid("GID");
        return;
    }
    for (const ArpWord& row : arp_words)
        if (line.take(row.name)) {
            words.*row.value = line.number(row.name, row.most);
            return;
        }
    line.fail("\"" + line.word("") + "\" is not understood");
}

tarv_arp_data_t make_record(fabric::Fabric& fabric, const ArpWords& words, std::uint32_t from,
                            std::uint32_t to) {
    const bool known = fabric.peers().has(from);
    const fabric::Station peer = known ? fabric.peers().station(from) : fabric::Station{};
    tarv_arp_data_t record{};
    record.mask = TARV_MASK_SRC_IP | TARV_MASK_DST_IP | TARV_MASK_GID | TARV_MASK_QPN |
                  TARV_MASK_LID | TARV_MASK_QKEY | TARV_MASK_CAP_FLG | TARV_MASK_LOCAL_PORT;
    record.arp_operation = static_cast<u16>(*words.operation);
    record.src_ip = from;
    record.dst_ip = to;
    record.gid = words.gid.value_or(fabric::held(peer.gid));
    record.qpn = static_cast<u32>(words.qpn.value_or(peer.qpn));
    record.lid = static_cast<gx_lid_t>(words.lid.value_or(peer.lid));
    record.qkey = static_cast<u32>(words.qkey.value_or(fabric::broadcast_qkey));
    record.cap_flg = static_cast<u8>(words.flags.value_or(peer.flags));
    record.local_port_num =
        static_cast<u32>(words.port.value_or(static_cast<std::uint64_t>(fabric.ipoib().port())));
    return record;
}

ScriptAction read_arp(ScriptLine& line, ScriptReading& reading) {
    ArpWords words;
    if (line.take("request"))
        words.operation = TARV_ARP_OP_REQUEST;
    else if (line.take("reply"))
        words.operation = TARV_ARP_OP_REPLY;
    else
        line.fail("request or reply is missing");
    if (!line.take("from"))
        line.fail("from is missing");
    const std::uint32_t from = line.ip("IP");
    const std::uint32_t to = line.take("to") ? line.ip("IP") : reading.site.our_host().ip;
    while (!line.at_end())
        read_arp_word(line, words);
    return [words, from, to](ScriptHost& host, const std::string&) {
        auto* const process =
            host.function<tarv_process_arp_data_fn_t>("arp", "tarv_process_arp_data_fn");
        if (!process)
            return;
        tarv_arp_data_t record = make_record(host.fabric(), words, from, to);
        const host::ContextScope in_driver(host::Context::driver);
        host.say("arp: " + status_name(process(&record)));
    };
}

template <tarv_stat_t (fabric::Ipoib::*change)()>
ScriptAction read_attachment(ScriptLine& line, ScriptReading&) {
    const std::string verb = line.verb();
    return [verb](ScriptHost& host, const std::string&) {
        host.say(verb + ": " + status_name((host.fabric().ipoib().*change)()));
    };
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

ScriptAction read_fail(ScriptLine& line, ScriptReading&) {
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

constexpr ScriptVerb verbs[] = {
    {"load", "[name=value ...]", read_load},
    {"unload", "", read_unload},
    {"control", "[-n] TEXT", read_control},
    {"cat", "control|version [CHUNK]", read_cat},
    {"resolve", "IP [from IP] [paths none|primary|both] [invalidate] [no-callback]", read_resolve},
    {"lookup-gid", "GID", read_lookup_gid},
    {"arp",
     "request|reply from IP [to IP] [op N] [port N] [lid N] [gid GID] [qpn N] [qkey N] [flags N]",
     read_arp},
    {"attach", "", read_attachment<&fabric::Ipoib::attach>},
    {"detach", "", read_attachment<&fabric::Ipoib::detach>},
    {"event", "link_up|link_down|lid|mtu|sm_change|NUMBER port N [to VALUE]", read_event},
    {"fabric", "PEER|sa|port N FAULT ...", read_fabric_fault},
    {"fail", "SERVICE nth N", read_fail},
    {"level", "module|logger N", read_level},
    {"tick", "N", read_tick},
    {"jiffies", "N", read_jiffies},
    {"expect", "line TEXT | no line TEXT | reply N STATUS | entry IP FIELD VALUE ...", read_expect},
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

ScriptRequest read_request(ScriptLine& line, const ScriptReading& reading) {
    ScriptRequest request;
    request.ip = line.ip("IP");
    request.from = reading.site.our_host().ip;
    while (!line.at_end()) {
        if (line.take("from"))
            request.from = line.ip("IP");
        else if (line.take("paths"))
            request.paths = read_paths(line);
        else if (line.take("invalidate"))
            request.invalidate = true;
        else if (line.take("no-callback"))
            request.callback = false;
        else
            line.fail("\"" + line.word("") + "\" is not understood");
    }
    return request;
}

std::uint64_t ScriptReading::ports() const {
    const auto node = static_cast<std::size_t>(site.our_host().node);
    return site.topology.nodes[node].ports.size() - 1;
}

int ScriptReading::port(ScriptLine& line) const {
    const std::uint64_t number = line.number("a port", ports());
    if (number == 0)
        line.fail("ports are numbered from 1");
    return static_cast<int>(number);
}

}  // namespace app
