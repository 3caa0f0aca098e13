// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Worlds and steps by chance. What a step does depends on the state that it is taken in, what is
// chosen does not: a run can be cut down without the rest of it changing.
#include <cstdio>

#include "host/faults.h"
#include "soak/step.h"

namespace soak {
namespace {

constexpr unsigned long long wrap = 1ull << 32;

std::uint32_t choose_address(Random& random, const WorldShape& shape) {
    if (random.one_in(12))
        return 50 + random.below(3);
    if (random.one_in(60))
        return 62 + random.below(2);
    return random.one_in(30) ? 0 : 1 + random.below(shape.hosts - 1);
}

/* Many small waits, some over the time-outs, a few over the age of entries. */
std::uint32_t choose_ticks(Random& random) {
    static constexpr std::uint32_t ticks[] = {0,   0,   1, 1,  1,    1,    2,    2,   3,
                                              3,   5,   5, 10, 10,   20,   50,   100, 300,
                                              500, 999, 1, 2,  1000, 1001, 2000, 3001};
    static constexpr std::uint32_t longer[] = {5000, 10000, 15000, 30000, 60000};
    if (random.one_in(400))
        return 300000;
    return random.one_in(40) ? random.of(longer) : random.of(ticks);
}

std::string ip_text(Random& random, const WorldShape& shape) {
    static constexpr const char* odd[] = {
        "10.0.0", "1..2.3", "10.0.0.2.9", "300.0.0.2",  "x", "10.0.0.4294967295",
        "",       "....",   "10.0.0.002", "266.256.0.2"};
    if (random.one_in(25))
        return random.of(odd);
    const std::uint32_t address = choose_address(random, shape);
    if (address >= 62)
        return "192.168.9." + std::to_string(100 + address);
    return "10.0.0." + std::to_string(address < shape.hosts ? address + 1 : 100 + address);
}

std::string number_text(Random& random) {
    static constexpr const char* odd[] = {"0",  "",   "0x",         "08",   "x",      "-1",
                                          "64", "3x", "0xFFFFFFFF", "0177", "0x10000"};
    if (random.one_in(15))
        return random.of(odd);
    char text[24];
    std::snprintf(text, sizeof text, random.one_in(2) ? "%u" : "0x%x",
                  random.below(random.one_in(2) ? 20 : 0x20000));
    return text;
}

std::string gid_text(Random& random) {
    static constexpr const char* odd[] = {
        "0x", "0X1", "fe80", "0x12g4", "0xabc", "1", "0x123456789012345678901234567890123"};
    if (random.one_in(20))
        return random.of(odd);
    char text[48];
    if (random.one_in(3))
        std::snprintf(text, sizeof text, "0xfe8000000000000000000000000000%02x", random.below(64));
    else
        std::snprintf(text, sizeof text, "0xfe80000000000000000000000000a0%02x", random.below(64));
    return text;
}

std::string path_fields(Random& random, int count) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += random.one_in(5) ? " *" : ' ' + number_text(random);
    return text;
}

/* One of the 19 commands, most often a proper one. */
std::string choose_command(Random& random, const WorldShape& shape) {
    const auto ip = [&] { return ip_text(random, shape); };
    const auto number = [&] { return number_text(random); };
    const auto some = [&](const char* one, const char* other) {
        return std::string(random.one_in(2) ? one : other);
    };
    switch (random.below(38)) {
        case 0:
        case 1:
        case 2:
        case 3:
            return random.one_in(8) ? "disable" : "enable";
        case 4:
        case 5:
        case 6:
            return "sa_queries on";
        case 7:
            return random.one_in(6) ? "sa_queries ON" : "sa_queries off";
        case 8:
        case 9:
            return "statics_inv " + some("on", "off");
        case 10:
        case 11:
        case 12:
        case 13:
            return "add " + ip() + ' ' + ip() + ' ' + number() +
                   (random.one_in(2) ? ' ' + number() + ' ' + number() : "");
        case 14:
        case 15:
        case 16:
            return "addibarp " + ip() + ' ' + ip() + ' ' + gid_text(random) + ' ' + number() + ' ' +
                   number() + ' ' + number() + ' ' + (random.one_in(3) ? number() : some("1", "2"));
        case 17:
        case 18:
        case 19:
        case 20:
            return "addpath " + ip() + ' ' + some("p", "Sec") + ' ' +
                   (random.one_in(4) ? "*" : gid_text(random)) + ' ' +
                   (random.one_in(4) ? "*" : gid_text(random)) + path_fields(random, 14);
        case 21:
            return "setstaticpath" + path_fields(random, 12);
        case 22:
        case 23:
        case 24:
            return "remove " + ip();
        case 25:
            return "dump";
        case 26:
        case 27:
            return "invalidate " + ip() + ' ' + std::to_string(random.below(4));
        case 28:
            return random.one_in(3) ? "flush" : "show_stat now";
        case 29:
        case 30:
            return some("show ", "show_paths ") + ip();
        case 31:
            return "setlocalgids " + gid_text(random) +
                   (random.one_in(2) ? ' ' + gid_text(random) : "");
        case 32:
            return "setlocalpkeys " + number() + (random.one_in(2) ? ' ' + number() : "");
        case 33:
        case 34:
            return "set_retry_cnt " +
                   (random.one_in(3) ? number() : std::to_string(random.below(12)));
        case 35:
            return random.one_in(20) ? "halt" : "Halt";
        case 36:
            return some("", " \t ");
        default:
            return std::string(random.below(60), 'w') + " " + number();
    }
}

/* Some of what is written is not quite what was meant. */
std::string choose_text(Random& random, const WorldShape& shape) {
    std::string text = choose_command(random, shape);
    switch (random.below(40)) {
        case 0:
            text += " " + number_text(random);
            break;
        case 1:
            text = text.substr(0, random.below(static_cast<std::uint32_t>(text.size()) + 1));
            break;
        case 2:
            text.insert(random.below(static_cast<std::uint32_t>(text.size()) + 1), 1,
                        random.one_in(2) ? '\0' : '\xA0');
            break;
        case 3:
            text.append(random.below(5000), random.one_in(2) ? ' ' : 'x');
            break;
        case 4:
            for (int i = 0; i < 32; ++i)
                text += " w";
            break;
        case 5:
            return "  " + text;
        default:
            break;
    }
    return text + '\n';
}

std::uint32_t choose_event(Random& random) {
    static constexpr std::uint32_t types[] = {0x1000,  0x2000,  0x10000, 0x10000,   0x20000,
                                              0x40000, 0x40000, 1,       0x40000000};
    return random.of(types);
}

/* A fault's number: of packets, or of ticks. */
std::uint32_t choose_fault_number(Random& random, std::uint32_t fault) {
    static constexpr std::uint32_t delays[] = {1, 2, 10, 500, 1000, 2999, 3500};
    return fault == 2 ? random.of(delays) : 1 + random.below(4);
}

}  // namespace

WorldShape choose_world(Random& random) {
    WorldShape shape;
    shape.hosts = random.one_in(4) ? 20 + random.below(21) : 4 + random.below(9);
    switch (random.below(4)) {
        case 0:
            shape.first_jiffy = wrap - 1 - random.below(400000);
            break;
        case 1:
            shape.first_jiffy = wrap * (1 + random.below(1000)) - random.below(3000);
            break;
        default:
            shape.first_jiffy = 1000 + random.below(100000);
    }
    return shape;
}

Step choose_step(Random& random, const WorldShape& shape) {
    static const std::uint32_t all = [] {
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < kinds; ++i)
            sum += row_of(static_cast<Kind>(i)).weight;
        return sum;
    }();
    Step step;
    std::uint32_t rest = random.below(all);
    std::size_t kind = 0;
    for (; rest >= row_of(static_cast<Kind>(kind)).weight; ++kind)
        rest -= row_of(static_cast<Kind>(kind)).weight;
    step.kind = static_cast<Kind>(kind);
    auto& value = step.value;
    const auto& arguments = row_of(step.kind).arguments;
    for (std::size_t i = 0; i < most_arguments && arguments[i].name; ++i)
        value[i] = std::string_view(arguments[i].name) == "address"
                       ? choose_address(random, shape)
                       : random.below(arguments[i].most == ~0u ? ~0u : arguments[i].most + 1);
    switch (step.kind) {
        case Kind::ask:
            value[1] = random.one_in(4) ? value[1] : 0;
            value[2] = random.one_in(50) ? 3 : random.below(3);
            value[3] = (random.one_in(8) ? 0 : ask_callback) |
                       (random.one_in(10) ? ask_invalidate : 0) |
                       (random.one_in(60) ? ask_again : 0) | (random.one_in(25) ? ask_many : 0) |
                       (random.one_in(60) ? ask_answered : 0);
            break;
        case Kind::lookup:
        case Kind::announce:
        case Kind::peer_asks:
            break;
        case Kind::arp:
            value[1] = random.one_in(3) ? value[1] : value[0];
            value[2] = random.one_in(20) ? value[2] : 1 + random.below(2);
            value[3] = random.one_in(10) ? value[3] : 1 + random.below(2);
            break;
        case Kind::write:
            step.text = choose_text(random, shape);
            break;
        case Kind::chunk:
            value[1] = random.one_in(3) ? 4096 : 1 + random.below(400);
            break;
        case Kind::peer_link:
            value[1] = !random.one_in(3);
            break;
        case Kind::peer_lid:
        case Kind::lid:
            value[1] = 1 + random.below(120);
            break;
        case Kind::sm:
            value[0] = 1 + random.below(60);
            break;
        case Kind::peer_fault:
        case Kind::port_fault:
            value[2] = choose_fault_number(random, value[1]);
            break;
        case Kind::sa_fault:
            value[1] = choose_fault_number(random, value[0]);
            break;
        case Kind::sa_answer:
            value[0] = random.one_in(3) ? value[0] : 5 + random.below(3);
            value[1] = value[0] < 5 ? random.below(300) : value[1];
            break;
        case Kind::link:
            value[1] = !random.one_in(3);
            break;
        case Kind::event:
            value[0] = choose_event(random);
            break;
        case Kind::fail:
            value[0] = random.one_in(2) ? 0 : random.below(25);
            break;
        case Kind::level: {
            static constexpr std::uint32_t levels[] = {0, 1, 1, 1, 1, 2, 2, 4};
            value[0] = value[1] ? 5 - random.below(2) : random.of(levels);
            if (random.one_in(30))
                value[0] = 5;
            break;
        }
        case Kind::pass:
            value[0] = choose_ticks(random);
            break;
        case Kind::load: {
            static constexpr std::uint32_t timeouts[] = {300, 300, 60, 20, 1, 0};
            value[0] = random.of(timeouts);
            break;
        }
        default:
            break;
    }
    return step;
}

}  // namespace soak
