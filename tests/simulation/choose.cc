// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/choose.h"

#include <cstdio>
#include <iterator>

#include "host/faults.h"

namespace simulation {

/* A line of a script. Each call appends a blank and a word. What is chosen is chosen in the order
 * of the calls, which is the same for every compiler, as that of operands is not. */
class Line {
  public:
    Line(Chooser& chooser, std::string verb)
        : chooser_(chooser), random_(chooser.random_), text_(std::move(verb)) {}

    Line(const Line& other, std::string verb) : Line(other.chooser_, std::move(verb)) {}

    Line& word(const std::string& word) {
        text_ += text_.empty() ? word : ' ' + word;
        return *this;
    }
    template <std::size_t Size>
    Line& of(const char* const (&words)[Size]) {
        return word(words[random_.below(Size)]);
    }
    Line& either(const char* one, const char* other) {
        return word(random_.one_in(2) ? one : other);
    }
    Line& rarely(std::uint32_t count, const char* then, const char* otherwise) {
        return word(random_.one_in(count) ? then : otherwise);
    }
    /// A number from `least` on, of `count`.
    Line& number(std::uint32_t count, std::uint32_t least = 0) {
        return word(std::to_string(least + random_.below(count)));
    }
    Line& port() { return word("port").number(2, 1); }
    /// Goes on once in so often.
    template <class More>
    Line& perhaps(std::uint32_t one_in, More more) {
        if (random_.one_in(one_in))
            more(*this);
        return *this;
    }
    Line& address();
    Line& peer() { return word(chooser_.addresses_[1 + random_.below(chooser_.hosts_ - 1)]); }
    Line& gid();
    Line& next() { return word("next").number(3, 1); }

    // Of commands, which may be wrong.
    Line& any_ip();
    Line& any_number();
    Line& any_gid();
    Line& gid_or_star() { return random_.one_in(4) ? word("*") : any_gid(); }
    Line& path_fields(int count) {
        for (int i = 0; i < count; ++i)
            random_.one_in(5) ? word("*") : any_number();
        return *this;
    }

    Random& chance() { return random_; }
    bool large() const { return chooser_.large_; }
    const std::string& text() const { return text_; }

  private:
    Chooser& chooser_;
    Random& random_;
    std::string text_;
};

namespace {

constexpr std::uint64_t wrap = 1ull << 32;
constexpr std::uint32_t gids = 64;  ///< that are named again and again

std::string gid_text(std::uint32_t number, std::uint32_t family = 0xA1) {
    char text[48];
    std::snprintf(text, sizeof text, "0xfe80000000000000000000000000%02x%02x", family, number);
    return text;
}

/* The kinds of lines. */
struct Kind {
    unsigned weight;  ///< how often it is chosen, against the sum of all
    const char* verb;
    void (*make)(Line& line);
    bool always = false;  ///< in every world; others may not occur, or often
};

}  // namespace

Line& Line::address() {
    const auto hosts = chooser_.hosts_;
    const auto all = static_cast<std::uint32_t>(chooser_.addresses_.size());
    if (random_.one_in(30))
        return word(chooser_.addresses_[0]);
    return word(random_.one_in(large() ? 2 : 12)
                    ? chooser_.addresses_[hosts + random_.below(all - hosts)]
                    : chooser_.addresses_[1 + random_.below(hosts - 1)]);
}

/* Most often one that some port has, or that packets are made with. */
Line& Line::gid() {
    static constexpr const char* ours[] = {"0xfe800000000000000000000000100001",
                                           "0xfe800000000000000000000000100002"};
    if (random_.one_in(8))
        return of(ours);
    return word(gid_text(random_.below(random_.one_in(3) ? gids : chooser_.hosts_)));
}

Line& Line::any_ip() {
    static constexpr const char* odd[] = {
        "10.0.0", "1..2.3", "10.0.0.2.9", "300.0.0.2",   "x",
        "",       "....",   "10.0.0.002", "266.256.0.2", "10.0.0.4294967295"};
    return random_.one_in(25) ? of(odd) : address();
}

Line& Line::any_number() {
    static constexpr const char* odd[] = {"0",  "",   "0x",         "08",   "x",      "-1",
                                          "64", "3x", "0xFFFFFFFF", "0177", "0x10000"};
    if (random_.one_in(15))
        return of(odd);
    const char* const format = random_.one_in(2) ? "%u" : "0x%x";
    const std::uint32_t count = random_.one_in(2) ? 20 : 0x20000;
    char text[24];
    std::snprintf(text, sizeof text, format, random_.below(count));
    return word(text);
}

Line& Line::any_gid() {
    static constexpr const char* odd[] = {"0x",     "0X1",   "fe80",
                                          "0x12g4", "0xabc", "0x123456789012345678901234567890123"};
    return random_.one_in(20) ? of(odd) : gid();
}

namespace {

// The 19 commands, most often proper ones, and what is none.

constexpr Kind commands[] = {
    {30, "enable", [](Line&) {}},
    {4, "disable", [](Line&) {}},
    {30, "sa_queries", [](Line& line) { line.word("on"); }},
    {8, "sa_queries", [](Line& line) { line.rarely(8, "ON", "off"); }},
    {20, "statics_inv", [](Line& line) { line.either("on", "off"); }},
    {20, "add",
     [](Line& line) {
         line.any_ip().any_ip().any_number().perhaps(
             2, [](Line& more) { more.any_number().any_number(); });
     }},
    {30, "addibarp",
     [](Line& line) {
         line.any_ip().any_ip().any_gid().any_number().any_number().any_number();
         line.chance().one_in(4) ? line.any_number() : line.either("1", "2");
     }},
    {40, "addpath",
     [](Line& line) {
         line.any_ip().either("p", "Sec").gid_or_star().gid_or_star().path_fields(14);
     }},
    {10, "setstaticpath", [](Line& line) { line.path_fields(12); }},
    {30, "remove", [](Line& line) { line.any_ip(); }},
    {10, "dump", [](Line&) {}},
    {20, "invalidate", [](Line& line) { line.any_ip().number(4); }},
    {4, "flush", [](Line&) {}},
    {6, "show_stat", [](Line& line) { line.word("now"); }},
    {10, "show", [](Line& line) { line.any_ip(); }},
    {10, "show_paths", [](Line& line) { line.any_ip(); }},
    {3, "setlocalgids",
     [](Line& line) { line.any_gid().perhaps(2, [](Line& more) { more.any_gid(); }); }},
    {6, "setlocalpkeys",
     [](Line& line) { line.any_number().perhaps(2, [](Line& more) { more.any_number(); }); }},
    {15, "set_retry_cnt", [](Line& line) { line.number(12); }},
    {5, "set_retry_cnt", [](Line& line) { line.any_number(); }},
    {9, "", [](Line& line) { line.rarely(30, "Halt", "halt"); }},
    {5, "", [](Line& line) { line.either("", " \\t "); }},
    {5, "no_such_command", [](Line& line) { line.any_number().any_number(); }},
};

/* The row that a number below the sum of all weights falls into. */
template <class Weight>
std::size_t choose_row(Random& random, std::size_t count, Weight weight) {
    std::uint32_t all = 0;
    for (std::size_t i = 0; i < count; ++i)
        all += weight(i);
    std::uint32_t left = random.below(all);
    std::size_t row = 0;
    for (; left >= weight(row); ++row)
        left -= weight(row);
    return row;
}

/* Some of what is written is not quite what was meant. */
std::string with_a_flaw(Random& random, std::string text) {
    const std::uint32_t flaw = random.below(40);
    const std::uint32_t at = random.below(static_cast<std::uint32_t>(text.size()) + 1);
    if (flaw == 0)
        text += " 7";
    else if (flaw == 1)
        text.resize(text.find('\\') == text.npos ? at : 0);  // no cut through an escape
    else if (flaw == 2)
        text.insert(text.find('\\') == text.npos ? at : 0, "\\0");
    else if (flaw == 3)
        text.insert(text.find('\\') == text.npos ? at : 0, "\\xA0");
    else if (flaw == 4)
        text.append(at * 200, ' ');
    else if (flaw == 5)
        text.append(at * 200, 'x');
    else if (flaw == 6)
        for (int i = 0; i < 32; ++i)
            text += " w";
    return flaw == 7 ? "-n   " + text : text;
}

void make_command(Line& line) {
    const Kind& kind = commands[choose_row(line.chance(), std::size(commands),
                                           [](std::size_t i) { return commands[i].weight; })];
    Line text(line, kind.verb);
    kind.make(text);
    line.word(with_a_flaw(line.chance(), text.text()));
}

void make_fault(Line& line) {
    static constexpr const char* delays[] = {"1", "2", "10", "500", "1000", "2999", "3500"};
    switch (line.chance().below(5)) {
        case 0:
            line.word("drop").number(4, 1);
            return;
        case 1:
            line.word("drop all");
            return;
        case 2:
            line.word("delay").of(delays);
            return;
        case 3:
            line.word("duplicate").number(4, 1);
            return;
        default:
            line.word("reorder").number(4, 1);
    }
}

void make_answer_fault(Line& line) {
    static constexpr const char* edits[] = {"status", "attribute", "class", "version",
                                            "class-version"};
    switch (line.chance().below(4)) {
        case 0:
            line.of(edits).number(256);
            break;
        case 1:
            line.word("records").number(8);
            break;
        case 2:
            line.word("truncate").number(300);
            break;
        default:
            line.word("segments 64");
    }
    if (!line.chance().one_in(12))
        line.next();
}

/* Many small waits, some over the time-outs, a few over the age of entries. */
void make_tick(Line& line) {
    static constexpr const char* ticks[] = {
        "0",  "0",  "1",  "1",   "1",   "1",   "2",   "2", "3", "3",    "5",    "5",    "10",
        "10", "20", "50", "100", "300", "500", "999", "1", "2", "1000", "1001", "2000", "3001"};
    static constexpr const char* longer[] = {"5000", "10000", "15000", "30000", "60000"};
    if (line.chance().one_in(400))
        line.word("300000");
    else
        line.chance().one_in(40) ? line.of(longer) : line.of(ticks);
}

void make_fail(Line& line) {
    const auto& services = host::services_that_fail();
    const auto service = line.chance().below(static_cast<std::uint32_t>(services.size()));
    line.word(line.chance().one_in(2) ? "kmalloc" : services[service]).word("nth").number(20, 1);
}

void make_resolve(Line& line) {
    static constexpr const char* paths[] = {"none", "primary", "both"};
    line.address();
    line.perhaps(4, [](Line& more) { more.word("from").address(); });
    line.word("paths");
    line.chance().one_in(50) ? line.word("7") : line.of(paths);
    line.perhaps(8, [](Line& more) { more.word("no-callback"); });
    line.perhaps(10, [](Line& more) { more.word("invalidate"); });
    line.perhaps(4, [](Line& more) { more.word("in-driver"); });
    line.perhaps(60, [](Line& more) { more.word("again"); });
    line.perhaps(25, [](Line& more) {
        more.word("times");
        more.large() && more.chance().one_in(8) ? more.number(300, 100) : more.word("6");
    });
}

void make_arp(Line& line) {
    line.either("request", "reply").word("from").address();
    line.perhaps(40, [](Line& more) { more.word("op").number(4); });
    line.perhaps(10, [](Line& more) { more.word("port").number(10); });
    line.perhaps(line.large() ? 1 : 4, [](Line& more) {
        more.word("gid").gid().word("lid").number(0x140, 0x100).word("qpn").number(0x1000, 0x4000);
    });
    line.perhaps(12, [](Line& more) { more.word("path-from").gid(); });
}

/// A module loaded so keeps nobody longer than to the next run of the ageing timer.
constexpr std::string_view ageless = "arp_cache_timeout_sec=0";

constexpr Kind kinds[] = {
    {3000, "resolve", make_resolve, true},
    {2000, "tick", make_tick, true},
    {60, "load",
     [](Line& line) {
         static constexpr const char* seconds[] = {"300", "300", "60", "20", "1", "0"};
         line.perhaps(1, [](Line& more) {
             more.word(std::string("arp_cache_timeout_sec=") + more.chance().of(seconds));
         });
     },
     true},
    {60, "attach", [](Line&) {}, true},
    {200, "calm", [](Line&) {}, true},
    {1500, "control", make_command},
    {500, "arp", make_arp},
    {300, "lookup-gid", [](Line& line) { line.gid(); }},
    {60, "cat control",
     [](Line& line) { line.chance().one_in(3) ? line.word("4096") : line.number(400, 64); }},
    {60, "reader",
     [](Line& line) {
         line.number(2, 1).word("read");
         line.chance().one_in(3) ? line.word("4096") : line.number(400, 1);
         line.perhaps(3, [](Line& more) { more.word("at").number(500); });
     }},
    {20, "reader", [](Line& line) { line.number(2, 1).word("close"); }},
    {600, "peer", [](Line& line) { line.peer().either("asks", "announces"); }},
    {100, "peer", [](Line& line) { line.peer().rarely(3, "down", "up"); }},
    {25, "peer", [](Line& line) { line.peer().word("gid").gid(); }},
    {60, "peer", [](Line& line) { line.peer().word("lid").number(120, 1); }},
    {60, "peer", [](Line& line) { line.peer().word("qpn").number(0x1000000); }},
    {100, "fabric", [](Line& line) { make_fault(line.peer()); }},
    {60, "fabric sa", make_fault},
    {50, "fabric sa", make_answer_fault},
    {40, "fabric", [](Line& line) { make_fault(line.port()); }},
    {80, "event", [](Line& line) { line.rarely(3, "link_down", "link_up").port(); }},
    {20, "event lid", [](Line& line) { line.port().word("to").number(120, 1); }},
    {20, "event mtu", [](Line& line) { line.port().word("to").number(5, 1); }},
    {40, "event sm_change",
     [](Line& line) { line.port().word("to").number(60, 1).word("sl").number(16); }},
    {60, "event",
     [](Line& line) {
         static constexpr const char* types[] = {"0x1000",  "0x2000",  "0x10000",
                                                 "0x10000", "0x20000", "0x40000",
                                                 "0x40000", "1",       "0x40000000"};
         line.of(types).port();
     }},
    {20, "pkeys",
     [](Line& line) {
         static constexpr const char* tables[] = {"0xFFFF", "0x7FFF 0x8001",
                                                  "0x7FFF 0x7FFE 0x7FFD 0x7FFC 0x7FFB 0xFFFF",
                                                  "0x8001 0xFFFF"};
         line.port().of(tables);
     }},
    {20, "driver pkey", [](Line& line) { line.number(0x10000); }},
    {50, "driver quick", [](Line& line) { line.number(3, 1); }},
    {150, "fail", make_fail},
    {20, "fail empty-datagram", [](Line&) {}},
    {30, "level module",
     [](Line& line) {
         static constexpr const char* levels[] = {"0", "1", "1", "1", "1", "2", "2", "4"};
         line.chance().one_in(30) ? line.word("5") : line.of(levels);
     }},
    {15, "level logger", [](Line& line) { line.number(2, 4); }},
    {10, "detach", [](Line&) {}},
    {20, "unload", [](Line&) {}},
};

/* A large world's addresses are clustered: neighbours of the hosts, the same host of other subnets,
 * one bucket's, nonsense. */
std::vector<std::string> other_addresses(Random& random, bool large) {
    std::vector<std::string> others = {"10.0.0.150",  "10.0.0.151",    "10.0.0.152",
                                       "192.168.0.2", "192.168.9.162", "192.168.9.163"};
    if (!large)
        return others;
    const auto subnet = std::to_string(1 + random.below(200));
    for (int i = 0; i < 28; ++i) {
        others.push_back("10." + std::to_string(i + 1) + ".0.2");
        others.push_back("10." + subnet + ".0." + std::to_string(i));
        others.push_back(std::to_string(i * 8) + "." + std::to_string(i * 8) + ".7.7");
    }
    return others;
}

}  // namespace

Chooser::Chooser(std::uint64_t seed, std::uint64_t number)
    : random_(seed, number), large_(number % 8 == seed % 8) {
    static_assert(std::size(kinds) <= most_rows);
    hosts_ = large_ || random_.one_in(4) ? 20 + random_.below(21) : 4 + random_.below(9);
    first_jiffy_ = 1000 + random_.below(100000);
    if (random_.one_in(4))
        first_jiffy_ = wrap - 1 - random_.below(400000);
    else if (random_.one_in(4))
        first_jiffy_ = wrap * (1 + random_.below(1000)) - random_.below(3000);
    length_ = 1000 + random_.below(large_ ? 1000 : 4000);
    for (std::uint32_t i = 1; i <= hosts_; ++i)
        addresses_.push_back("10.0.0." + std::to_string(i));
    for (std::string& other : other_addresses(random_, large_))
        addresses_.push_back(std::move(other));
    static constexpr std::uint32_t factors[] = {0, 1, 4, 4, 4, 4, 8, 16};  // in quarters
    for (std::size_t i = 0; i < std::size(kinds); ++i) {
        const std::uint32_t factor = random_.of(factors);
        weights_[i] = kinds[i].weight * (kinds[i].always ? 4 : factor);
    }
}

Chooser::Chooser(std::uint64_t seed, std::uint64_t number, std::vector<std::string> hosts)
    : Chooser(seed, number) {
    addresses_.erase(addresses_.begin(), addresses_.begin() + hosts_);
    addresses_.insert(addresses_.begin(), hosts.begin(), hosts.end());
    hosts_ = static_cast<std::uint32_t>(hosts.size());
}

std::vector<std::string> Chooser::first_lines() {
    std::vector<std::string> lines = {"hosts " + std::to_string(hosts_),
                                      "jiffies " + std::to_string(first_jiffy_)};
    for (std::uint32_t i = 1; i < hosts_; ++i)
        lines.push_back("peer " + addresses_[i] + " gid " + gid_text(i));
    lines.push_back(std::string("load arp_cache_timeout_sec=") +
                    (random_.one_in(2) ? "300" : "60"));
    lines.emplace_back("control enable");
    lines.emplace_back(random_.one_in(4) ? "control sa_queries off" : "control sa_queries on");
    return lines;
}

std::string Chooser::next_line() {
    const Kind& kind =
        kinds[choose_row(random_, std::size(kinds), [&](std::size_t i) { return weights_[i]; })];
    Line line(*this, kind.verb);
    kind.make(line);
    const bool halts =
        line.text().starts_with("control") && line.text().find("halt") != std::string::npos;
    stale_ |= halts || line.text().ends_with(ageless);
    return line.text();
}

/* Who waits gets his last word within all the retries that may be set. A module that is halted, or
 * that forgets at each run of the ageing timer, comes anew. Then one try is enough for everybody,
 * because nothing is lost any more. */
std::vector<std::string> Chooser::last_lines() const {
    std::vector<std::string> lines = {"calm", "driver quick 0", "driver pkey 0xFFFF"};
    for (const char* const port : {"port 1", "port 2"}) {
        lines.push_back(std::string("pkeys ") + port + " 0xFFFF");
        lines.push_back(std::string("event link_down ") + port);
        lines.push_back(std::string("event link_up ") + port);
    }
    // Two that have the same GID part before each gets his own.
    for (const std::uint32_t family : {0xA2u, 0xA1u})
        for (std::uint32_t i = 1; i < hosts_; ++i)
            lines.push_back("peer " + addresses_[i] + " gid " + gid_text(i, family));
    for (std::uint32_t i = 1; i < hosts_; ++i)
        lines.push_back("peer " + addresses_[i] + " up");
    lines.emplace_back("tick 80000");
    if (stale_)
        lines.emplace_back("unload");
    for (const char* const line : {"load", "attach", "control enable", "control sa_queries on",
                                   "control statics_inv on", "control flush", "tick 10"})
        lines.emplace_back(line);
    for (std::uint32_t i = 1; i < hosts_; ++i)
        lines.push_back("resolve " + addresses_[i] + " paths both");
    lines.emplace_back("tick 100");
    for (std::uint32_t i = 1; i < hosts_; ++i)
        lines.push_back("expect entry " + addresses_[i] + " paths 2");
    return lines;
}

}  // namespace simulation
