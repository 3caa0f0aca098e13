// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The expectations of a script: about what was printed, how a request ended, and what the cache
// holds. Looking changes nothing, the age of an entry included.
#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "app/script_text.h"
#include "app/script_verbs.h"
#include "tarv/tarv-arp-hash.h"

namespace app {
namespace {

ScriptAction read_expect_line(ScriptLine& line, bool wanted) {
    const std::string text = line.rest();
    if (text.empty())
        line.fail("TEXT is missing");
    return [text, wanted](ScriptHost& host, const std::string& place) {
        const auto found = std::ranges::find_if(host.lines(), [&](const std::string& printed) {
            return printed.find(text) != std::string::npos;
        });
        if ((found != host.lines().end()) == wanted)
            return;
        if (!wanted)
            return host.fail(place,
                             "expected no line \"" + text + "\", actual line \"" + *found + "\"");
        std::string actual;
        for (const std::string& printed : host.lines())
            actual += "\n  " + printed;
        host.fail(place, "expected line \"" + text + "\", actual lines" +
                             (actual.empty() ? " none" : ":" + actual));
    };
}

ScriptAction read_expect_reply(ScriptLine& line) {
    const std::uint64_t number = line.number("N", most_ticks);
    const std::string name = line.word("STATUS");
    const auto status = parse_status(name);
    if (!status)
        line.fail("\"" + name + "\" is no status; there are " + list_statuses());
    return [number, status = *status](ScriptHost& host, const std::string& place) {
        const std::string expected =
            "expected reply " + std::to_string(number) + " " + status_name(status) + ", actual ";
        const ScriptReply* const reply = host.reply(number);
        if (!reply)
            host.fail(place, expected + "no such request");
        else if (reply->status != status)
            host.fail(place, expected + status_name(reply->status));
        else if (reply->callbacks > 1)
            host.fail(place, expected + std::to_string(reply->callbacks) + " replies");
    };
}

struct Field {
    const char* name;
    std::uint64_t (*value)(const tarv_arp_data_t& record);
    const char* format = "%" PRIu64;
};

std::string format_value(const Field& field, std::uint64_t value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, field.format, value);
    return buffer;
}

constexpr Field fields[] = {
    {"mask", [](const tarv_arp_data_t& record) { return std::uint64_t{record.mask}; },
     "0x%" PRIx64},
    {"lid", [](const tarv_arp_data_t& record) { return std::uint64_t{record.lid}; }},
    {"qpn", [](const tarv_arp_data_t& record) { return std::uint64_t{record.qpn}; }, "0x%" PRIx64},
    {"qkey", [](const tarv_arp_data_t& record) { return std::uint64_t{record.qkey}; },
     "0x%" PRIx64},
    {"cap", [](const tarv_arp_data_t& record) { return std::uint64_t{record.cap_flg}; }},
    {"port", [](const tarv_arp_data_t& record) { return std::uint64_t{record.local_port_num}; }},
    {"paths",
     [](const tarv_arp_data_t& record) { return static_cast<std::uint64_t>(record.paths_count); }},
};

/* What is wrong with a record; empty when nothing is. */
using CheckField = std::function<std::string(const tarv_arp_data_t& record)>;

CheckField read_field(ScriptLine& line) {
    if (line.take("gid")) {
        const std::string expected = format_digits(line.gid("GID"));
        return [expected](const tarv_arp_data_t& record) {
            const std::string actual = format_digits(record.gid);
            return actual == expected ? "" : "gid " + expected + ", actual " + actual;
        };
    }
    for (const Field& field : fields)
        if (line.take(field.name)) {
            const std::uint64_t expected = line.number(field.name, ~0u);
            return [field, expected](const tarv_arp_data_t& record) {
                const std::uint64_t actual = field.value(record);
                return actual == expected
                           ? ""
                           : std::string(field.name) + " " + format_value(field, expected) +
                                 ", actual " + format_value(field, actual);
            };
        }
    line.fail("\"" + line.word("FIELD") + "\" is no field of an entry");
}

/* The newest entry of an address, or null. A lookup of the module would make it younger, so the
 * table is walked, without its lock: in virtual time nothing else runs. */
const tarv_arp_data_t* cached(std::uint32_t ip) TA_NO_ANALYSIS;
const tarv_arp_data_t* cached(std::uint32_t ip) {
    for (const tarv_hash_entry_t* entry = tarv_table.hash_buckets[tarv_hash_func(ip)]; entry;
         entry = entry->next)
        if (entry->arp_data.dst_ip == ip)
            return &entry->arp_data;
    return nullptr;
}

ScriptAction read_expect_entry(ScriptLine& line, const ScriptReading& reading) {
    const std::uint32_t ip = reading.ip(line);
    std::vector<CheckField> checks;
    do
        checks.push_back(read_field(line));
    while (!line.at_end());
    return [ip, checks](ScriptHost& host, const std::string& place) {
        const std::string expected = "expected entry " + fabric::format_ip(ip);
        const tarv_arp_data_t* const record = host.loaded() ? cached(ip) : nullptr;
        if (!record)
            return host.fail(place, expected + ", actual none");
        for (const CheckField& check : checks)
            if (const std::string wrong = check(*record); !wrong.empty())
                host.fail(place, expected + " " + wrong);
    };
}

/* Nobody was told to wait and has had no answer. */
ScriptAction read_expect_nobody(ScriptLine& line) {
    if (!line.take("waiting"))
        line.fail("waiting is missing");
    return [](ScriptHost& host, const std::string& place) {
        for (std::size_t number = 1; const ScriptReply* const reply = host.reply(number); ++number)
            if (reply->status == tarv_stat_pending)
                return host.fail(
                    place, "expected nobody waiting, actual request " + std::to_string(number));
    };
}

}  // namespace

ScriptAction read_expect(ScriptLine& line, ScriptReading& reading) {
    if (line.take("no")) {
        if (!line.take("line"))
            line.fail("line is missing");
        return read_expect_line(line, false);
    }
    if (line.take("line"))
        return read_expect_line(line, true);
    if (line.take("reply"))
        return read_expect_reply(line);
    if (line.take("entry"))
        return read_expect_entry(line, reading);
    if (line.take("nobody"))
        return read_expect_nobody(line);
    line.fail("\"" + line.word("line, no line, reply, entry or nobody") + "\" cannot be expected");
}

}  // namespace app
