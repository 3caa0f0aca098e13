// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Worlds and steps by chance. What a step does depends on the state that it is taken in, what is
// chosen does not: a run can be cut down without the rest of it changing.
#include <cstdio>
#include <string_view>

#include "tests/simulation/step.h"

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

/* A line for the control file. Each call appends a blank and a word. What is chosen is chosen in
 * the order of the calls, which is the same for every compiler, as that of operands is not. */
class Line {
  public:
    Line(Random& random, const WorldShape& shape) : random_(random), shape_(shape) {}

    Line& word(const std::string& word) {
        text_ += text_.empty() ? word : ' ' + word;
        return *this;
    }
    Line& either(const char* one, const char* other) {
        return word(random_.one_in(2) ? one : other);
    }
    Line& rarely(std::uint32_t count, const char* then, const char* otherwise) {
        return word(random_.one_in(count) ? then : otherwise);
    }
    Line& ip();
    Line& number();
    Line& number_or(const char* one, const char* other) {
        return random_.one_in(4) ? number() : either(one, other);
    }
    Line& small(std::uint32_t count) { return word(std::to_string(random_.below(count))); }
    Line& gid();
    Line& gid_or_star() { return random_.one_in(4) ? word("*") : gid(); }
    Line& path_fields(int count) {
        for (int i = 0; i < count; ++i)
            random_.one_in(5) ? word("*") : number();
        return *this;
    }
    /// Goes on half of the time.
    template <class More>
    Line& perhaps(More more) {
        if (random_.one_in(2))
            more(*this);
        return *this;
    }
    std::string text() const { return text_; }

  private:
    Random& random_;
    const WorldShape& shape_;
    std::string text_;
};

Line& Line::ip() {
    static constexpr const char* odd[] = {
        "10.0.0", "1..2.3", "10.0.0.2.9", "300.0.0.2",   "x",
        "",       "....",   "10.0.0.002", "266.256.0.2", "10.0.0.4294967295"};
    if (random_.one_in(25))
        return word(random_.of(odd));
    const std::uint32_t address = choose_address(random_, shape_);
    if (address >= 62)
        return word("192.168.9." + std::to_string(100 + address));
    return word("10.0.0." + std::to_string(address < shape_.hosts ? address + 1 : 100 + address));
}

Line& Line::number() {
    static constexpr const char* odd[] = {"0",  "",   "0x",         "08",   "x",      "-1",
                                          "64", "3x", "0xFFFFFFFF", "0177", "0x10000"};
    if (random_.one_in(15))
        return word(random_.of(odd));
    const char* const format = random_.one_in(2) ? "%u" : "0x%x";
    const std::uint32_t count = random_.one_in(2) ? 20 : 0x20000;
    char text[24];
    std::snprintf(text, sizeof text, format, random_.below(count));
    return word(text);
}

/* Most often one that some port has, or that packets are made with. */
Line& Line::gid() {
    static constexpr const char* odd[] = {"0x",     "0X1",   "fe80",
                                          "0x12g4", "0xabc", "0x123456789012345678901234567890123"};
    if (random_.one_in(20))
        return word(random_.of(odd));
    const char* const format = random_.one_in(3) ? "0xfe80000000000000000000000000a0%02x"
                                                 : "0xfe80000000000000000000000000a1%02x";
    char text[48];
    std::snprintf(text, sizeof text, format, random_.below(random_.one_in(3) ? 64 : shape_.hosts));
    return word(text);
}

/* The 19 commands, most often proper ones, and what is none. */
struct Command {
    unsigned weight;
    void (*make)(Line& line);
};
constexpr Command commands[] = {
    {30, [](Line& line) { line.word("enable"); }},
    {4, [](Line& line) { line.word("disable"); }},
    {30, [](Line& line) { line.word("sa_queries").word("on"); }},
    {8, [](Line& line) { line.word("sa_queries").rarely(8, "ON", "off"); }},
    {20, [](Line& line) { line.word("statics_inv").either("on", "off"); }},
    {20,
     [](Line& line) {
         line.word("add").ip().ip().number().perhaps([](Line& more) { more.number().number(); });
     }},
    {30,
     [](Line& line) {
         line.word("addibarp").ip().ip().gid().number().number().number().number_or("1", "2");
     }},
    {40,
     [](Line& line) {
         line.word("addpath").ip().either("p", "Sec").gid_or_star().gid_or_star().path_fields(14);
     }},
    {10, [](Line& line) { line.word("setstaticpath").path_fields(12); }},
    {30, [](Line& line) { line.word("remove").ip(); }},
    {10, [](Line& line) { line.word("dump"); }},
    {20, [](Line& line) { line.word("invalidate").ip().small(4); }},
    {4, [](Line& line) { line.word("flush"); }},
    {6, [](Line& line) { line.word("show_stat").word("now"); }},
    {20, [](Line& line) { line.either("show", "show_paths").ip(); }},
    {3,
     [](Line& line) { line.word("setlocalgids").gid().perhaps([](Line& more) { more.gid(); }); }},
    {6,
     [](Line& line) {
         line.word("setlocalpkeys").number().perhaps([](Line& more) { more.number(); });
     }},
    {15, [](Line& line) { line.word("set_retry_cnt").small(12); }},
    {5, [](Line& line) { line.word("set_retry_cnt").number(); }},
    {9, [](Line& line) { line.rarely(30, "halt", "Halt"); }},
    {5, [](Line& line) { line.either("", " \t "); }},
    {5, [](Line& line) { line.word("no_such_command").number().number(); }},
};

/* The row that a number below the sum of all weights falls into. */
template <class Rows>
auto choose_row(Random& random, const Rows& rows) -> decltype(rows[0])& {
    std::uint32_t all = 0;
    for (const auto& row : rows)
        all += row.weight;
    std::uint32_t left = random.below(all);
    std::size_t row = 0;
    for (; left >= rows[row].weight; ++row)
        left -= rows[row].weight;
    return rows[row];
}

/* Some of what is written is not quite what was meant. */
std::string choose_text(Random& random, const WorldShape& shape) {
    Line line(random, shape);
    choose_row(random, commands).make(line);
    std::string text = line.text();
    const std::uint32_t flaw = random.below(40);
    const std::uint32_t at = random.below(static_cast<std::uint32_t>(text.size()) + 1);
    if (flaw == 0)
        text += " 7";
    else if (flaw == 1)
        text.resize(at);
    else if (flaw == 2)
        text.insert(at, 1, '\0');
    else if (flaw == 3)
        text.insert(at, 1, '\xA0');
    else if (flaw == 4)
        text.append(at * 200, ' ');
    else if (flaw == 5)
        text.append(at * 200, 'x');
    else if (flaw == 6)
        for (int i = 0; i < 32; ++i)
            text += " w";
    return flaw == 7 ? "  " + text : text + '\n';
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

std::uint32_t choose_answer_value(Random& random, std::uint32_t edit) {
    return edit < 5 ? random.below(300) : random.below(0x10000);
}

/* What clients, drivers and administrators do. */
void choose_use(Random& random, const WorldShape& shape, Step& step) {
    auto& value = step.value;
    switch (step.kind) {
        case Kind::ask:
            value[1] = random.one_in(4) ? value[1] : 0;
            value[2] = random.one_in(50) ? 3 : random.below(3);
            value[3] = random.one_in(8) ? 0 : ask_callback;
            value[3] |= random.one_in(10) ? ask_invalidate : 0;
            value[3] |= random.one_in(60) ? ask_again : 0;
            value[3] |= random.one_in(25) ? ask_many : 0;
            value[3] |= random.one_in(60) ? ask_answered : 0;
            return;
        case Kind::arp:
            value[1] = random.one_in(8) ? value[1] : value[0];
            value[2] = random.one_in(20) ? value[2] : 1 + random.below(2);
            value[3] = random.one_in(10) ? value[3] : 1 + random.below(2);
            return;
        case Kind::write:
            step.text = choose_text(random, shape);
            return;
        case Kind::chunk:
            value[1] = random.one_in(3) ? 4096 : 1 + random.below(400);
            return;
        default:
            return;
    }
}

/* What the fabric does. */
void choose_fabric(Random& random, Step& step) {
    auto& value = step.value;
    switch (step.kind) {
        case Kind::peer_lid:
        case Kind::lid:
            value[1] = 1 + random.below(120);
            return;
        case Kind::sm:
            value[0] = 1 + random.below(60);
            return;
        case Kind::peer_fault:
        case Kind::port_fault:
            value[2] = choose_fault_number(random, value[1]);
            return;
        case Kind::sa_fault:
            value[1] = choose_fault_number(random, value[0]);
            return;
        case Kind::sa_answer:
            value[0] = random.one_in(3) ? value[0] : 5 + random.below(3);
            value[1] = choose_answer_value(random, value[0]);
            value[2] = random.one_in(12) ? value[2] : 1 + random.below(3);
            return;
        case Kind::peer_link:
        case Kind::link:
            value[1] = !random.one_in(3);
            return;
        case Kind::event:
            value[0] = choose_event(random);
            return;
        default:
            return;
    }
}

/* What the kernel and the passing of time do. */
void choose_kernel(Random& random, Step& step) {
    static constexpr std::uint32_t levels[] = {0, 1, 1, 1, 1, 2, 2, 4};
    // kmalloc, create_proc_entry, proc_mkdir, the repository's, opening the adapter, its events.
    static constexpr std::uint32_t services_of_load[] = {0, 1, 2, 4, 5, 6, 7, 11};
    static constexpr std::uint32_t timeouts[] = {300, 300, 60, 20, 1, 0};
    auto& value = step.value;
    switch (step.kind) {
        case Kind::fail:
            value[0] = random.one_in(2) ? 0 : random.below(25);
            return;
        case Kind::level:
            value[0] = value[1] ? 5 - random.below(2) : random.of(levels);
            value[0] = random.one_in(30) ? 5 : value[0];
            return;
        case Kind::pass:
            value[0] = choose_ticks(random);
            return;
        case Kind::load:
            value[0] = random.of(timeouts);
            value[1] = random.of(services_of_load);
            value[2] = random.one_in(4) ? 1 + random.below(3) : 0;
            return;
        default:
            return;
    }
}

/* Any value that each argument can have, before it is chosen with more sense. */
void choose_anything(Random& random, const WorldShape& shape, const KindRow& row, Step& step) {
    for (std::size_t i = 0; i < most_arguments && row.arguments[i].name; ++i) {
        const std::uint32_t most = row.arguments[i].most;
        step.value[i] = std::string_view(row.arguments[i].name) == "address"
                            ? choose_address(random, shape)
                            : random.below(most == ~0u ? most : most + 1);
    }
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
            shape.first_jiffy = wrap * (1 + random.below(1000));
            shape.first_jiffy -= random.below(3000);
            break;
        default:
            shape.first_jiffy = 1000 + random.below(100000);
    }
    return shape;
}

Step choose_step(Random& random, const WorldShape& shape) {
    const KindRow& row = choose_row(random, all_rows());
    Step step;
    step.kind = static_cast<Kind>(&row - all_rows().data());
    choose_anything(random, shape, row, step);
    choose_use(random, shape, step);
    choose_fabric(random, step);
    choose_kernel(random, step);
    return step;
}

}  // namespace soak
