// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The text of steps, and reading it back.
#include "tests/simulation/step.h"

#include <algorithm>
#include <istream>
#include <limits>

#include "app/script_line.h"
#include "fabric/topology.h"
#include "host/faults.h"

namespace soak {
namespace {

constexpr std::uint32_t any = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t addresses = 63;

constexpr KindRow rows[kinds] = {
    {"ask", 3000, {{{"address", addresses}, {"from", addresses}, {"paths", 3}, {"flags", 31}}}},
    {"lookup", 300, {{{"gid", addresses}}}},
    {"arp", 500, {{{"address", addresses}, {"as", addresses}, {"operation", 3}, {"port", 9}}}},
    {"write", 1500, {}},
    {"read", 60, {{{"size", 100000}}}},
    {"chunk", 60, {{{"reader", 1}, {"size", 4096}}}},
    {"close", 20, {{{"reader", 1}}}},
    {"peer-asks", 300, {{{"address", addresses}}}},
    {"announce", 300, {{{"address", addresses}}}},
    {"peer-link", 100, {{{"address", addresses}, {"up", 1}}}},
    {"peer-gid", 25, {{{"address", addresses}, {"as", addresses}}}},
    {"peer-lid", 60, {{{"address", addresses}, {"lid", 0xBFFF}}}},
    {"peer-qpn", 60, {{{"address", addresses}, {"qpn", 0xFFFFFF}}}},
    {"peer-fault", 100, {{{"address", addresses}, {"fault", 4}, {"number", 5000}}}},
    {"sa-fault", 60, {{{"fault", 4}, {"number", 5000}}}},
    {"sa-answer", 50, {{{"edit", 7}, {"value", 0xFFFF}, {"count", 9}}}},
    {"port-fault", 40, {{{"port", 2}, {"fault", 4}, {"number", 5000}}}},
    {"calm", 200, {}},
    {"link", 80, {{{"port", 2}, {"up", 1}}}},
    {"lid", 20, {{{"port", 2}, {"lid", 0xBFFF}}}},
    {"mtu", 20, {{{"port", 2}, {"code", 5}}}},
    {"sm", 40, {{{"lid", 0xBFFF}, {"sl", 15}}}},
    {"event", 60, {{{"type", any}, {"port", 2}}}},
    {"pkeys", 20, {{{"port", 2}, {"table", 3}}}},
    {"pkey", 20, {{{"value", 0xFFFF}}}},
    {"fail", 150, {{{"service", 63}, {"call", 20}}}},
    {"empty-hand", 20, {}},
    {"level", 30, {{{"level", 5}, {"of-all", 1}}}},
    {"attach", 60, {}},
    {"detach", 10, {}},
    {"pass", 2000, {{{"ticks", 1000000}}}},
    {"load", 60, {{{"timeout", 100000}, {"service", 63}, {"failing-call", 20}}}},
    {"unload", 20, {}},
};

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\' || byte < 0x20 || byte >= 0x7F) {
            constexpr const char* digits = "0123456789abcdef";
            result += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        } else {
            result += c;
        }
    }
    return result + '"';
}

std::string read_quoted(app::ScriptLine& line) {
    const std::string text = line.rest();
    if (text.size() < 2 || text.front() != '"' || text.back() != '"')
        line.fail("the text has to stand between \" and \"");
    const auto bytes = app::unescape(std::string_view(text).substr(1, text.size() - 2));
    if (!bytes)
        line.fail("no such escape; there are \\n \\t \\0 \\\\ and \\xNN");
    return *bytes;
}

std::uint64_t read_named(app::ScriptLine& line, const char* name, std::uint64_t most) {
    if (!line.take(name))
        line.fail(std::string(name) + " is missing");
    return line.number(name, most);
}

WorldShape read_world(app::ScriptLine& line) {
    WorldShape shape;
    if (!line.take("world"))
        line.fail("the first line has to be: world hosts N jiffy N");
    shape.hosts = static_cast<std::uint32_t>(read_named(line, "hosts", 40));
    if (shape.hosts < 2)
        line.fail("a world has 2 hosts at least");
    shape.first_jiffy = read_named(line, "jiffy", ~0ull);
    line.end();
    return shape;
}

Step read_step(app::ScriptLine& line) {
    const std::string name = line.word("a step");
    const auto found = std::find_if(std::begin(rows), std::end(rows),
                                    [&](const KindRow& row) { return row.name == name; });
    if (found == std::end(rows))
        line.fail("there is no step \"" + name + "\"");
    Step step{static_cast<Kind>(found - rows), {}, {}};
    if (step.kind == Kind::write) {
        step.text = read_quoted(line);
        return step;
    }
    for (std::size_t i = 0; i < most_arguments && found->arguments[i].name; ++i)
        step.value[i] = static_cast<std::uint32_t>(
            read_named(line, found->arguments[i].name, found->arguments[i].most));
    line.end();
    return step;
}

}  // namespace

const KindRow& row_of(Kind kind) {
    return rows[static_cast<std::size_t>(kind)];
}

std::span<const KindRow, kinds> all_rows() {
    return rows;
}

std::string to_text(const WorldShape& shape) {
    return "world hosts " + std::to_string(shape.hosts) + " jiffy " +
           std::to_string(shape.first_jiffy);
}

std::string to_text(const Step& step) {
    const KindRow& row = row_of(step.kind);
    std::string text = row.name;
    if (step.kind == Kind::write)
        return text + ' ' + quoted(step.text);
    for (std::size_t i = 0; i < most_arguments && row.arguments[i].name; ++i)
        text += std::string(" ") + row.arguments[i].name + ' ' + std::to_string(step.value[i]);
    return text;
}

Episode read_episode(std::istream& in, const std::string& file) {
    Episode episode;
    bool has_world = false;
    int number = 0;
    for (std::string text; std::getline(in, text);) {
        app::ScriptLine line(file, ++number, text);
        if (line.at_end())
            continue;
        if (has_world)
            episode.steps.push_back(read_step(line));
        else
            episode.shape = read_world(line);
        has_world = true;
    }
    if (in.bad() || !has_world)
        throw fabric::InputError(file, number,
                                 in.bad() ? "it cannot be read" : "there is no world");
    return episode;
}

}  // namespace soak
