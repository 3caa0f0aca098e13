// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a run prints for people and for programs: texts that terminals take no orders from, tables
// that fit, durations, JSON.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "app/export.h"
#include "app/hops.h"
#include "app/latency.h"
#include "app/metrics.h"
#include "app/report.h"
#include "app/table.h"
#include "app/top_view.h"

namespace {

using app::Latencies, app::printable, app::Table;
using testing::AllOf, testing::HasSubstr, testing::IsEmpty, testing::Not;

app::Site site_of(const char* topology) {
    std::istringstream text(topology);
    app::Site site;
    site.topology = fabric::read_topology(text, "test");
    site.hosts = fabric::deal_addresses(site.topology);
    return site;
}

// A host of two rails, one with a name that would clear a terminal, one with wide letters, and what
// a switch has inside it.
constexpr const char* odd_names =
    "Switch 8 \"S\"\n[1] \"A\"[1]\n[2] \"B\"[1]\n[3] \"C\"[1]\n[4] \"D\"[1]\n[5] \"E\"[1]\n[6] "
    "\"F\"[1]\n"
    "Ca 1 \"A\" # \"us HCA-1\"\nCa 1 \"B\" # \"gpu01 mlx5_0\"\nCa 1 \"C\" # \"gpu01 mlx5_1\"\n"
    "Ca 1 \"D\" # \"\x1b[2Jx\xff HCA-1\"\nCa 1 \"E\" # \"\xe7\xaf\x80\xe7\x82\xb9 HCA-1\"\n"
    "Ca 1 \"F\" # \"Leaf Aggregation Node\"\n";

TEST(Result, IsTheSameForPeopleAndPrograms) {
    app::Machine machine(site_of(odd_names), {}, host::Options{});
    machine.start();
    machine.switch_on();
    machine.fabric().peer(machine.fabric().hosts().at(4).ip).drop_all();
    app::Resolver resolver(machine, app::peers_of(machine), {});
    resolver.run();

    const std::string wide = app::format_peers(machine, resolver.peers());
    EXPECT_THAT(
        wide,
        AllOf(HasSubstr("10.0.0.2  gpu01         mlx5_0 "), HasSubstr(" gpu01         mlx5_1 "),
              HasSubstr("10.0.0.4  \\x1b[2Jx\\xff            "), Not(HasSubstr("Leaf"))));
    const std::string narrow = app::format_peers(machine, resolver.peers(), 40);
    EXPECT_THAT(narrow, AllOf(HasSubstr("address "), HasSubstr(" LID"), HasSubstr("No room for ")));
    std::istringstream lines(narrow);
    for (std::string line; std::getline(lines, line) && !line.starts_with("No room");)
        EXPECT_LE(app::display_width(line), 40u) << line;
    // In virtual time all that takes time are ticks under way, two on either part.
    EXPECT_EQ(app::format_latencies(app::latencies_of(resolver.peers()), 0),
              "latency             p50      p90      p99      max\n"
              "resolution      4.00 ms  4.00 ms  4.00 ms  4.00 ms\n"
              "its ARP part    2.00 ms  2.00 ms  2.00 ms  2.00 ms\n"
              "its SA part     2.00 ms  2.00 ms  2.00 ms  2.00 ms\n"
              "from the cache        0        0        0        0\n");

    const auto slowest = app::choose_peers(machine, resolver.peers(), "unresolved", "latency");
    ASSERT_EQ(slowest.size(), 1u);
    const app::Departure departure = machine.stop();
    const auto json =
        nlohmann::json::parse(app::to_json(machine, resolver, resolver.peers(), departure));
    EXPECT_EQ(json["version"], 1);
    EXPECT_EQ(json["unresolved"], 1);
    EXPECT_EQ(json["peers"].size(), 4u);
    EXPECT_EQ(json["peers"][1]["rail"], "mlx5_1");
    EXPECT_EQ(json["peers"][2]["host"], "\x1b[2Jx\xef\xbf\xbd");
    EXPECT_EQ(json["peers"][0]["paths"][0]["rate_gbps"], 10.0);
    EXPECT_EQ(json["peers"][0]["latency_ns"]["arp"], 2'000'000);
    EXPECT_EQ(json["peers"][3]["reason"], "time-out: no answer to ARP requests");
    EXPECT_THAT(app::to_csv(machine, slowest),
                HasSubstr("10.0.0.5,\xe7\xaf\x80\xe7\x82\xb9,,unresolved,time-out: no answer to "
                          "ARP requests,,,"));
}

TEST(Texts, TakeNoOrdersFromNames) {
    const std::pair<std::string, std::string> texts[] = {
        {"node01 \xc3\xa9\xe7\xaf\x80\xf0\x9f\x98\x80",
         "node01 \xc3\xa9\xe7\xaf\x80\xf0\x9f\x98\x80"},
        {"\x1b]0;x\a\r\n\x7f", "\\x1b]0;x\\x07\\x0d\\x0a\\x7f"},
        {"\xc2\x9b"
         "2J",
         "\\xc2\\x9b2J"},                         // the same order in one character
        {"a\xe2\x80\xaez", "a\\xe2\\x80\\xaez"},  // turns the rest of the line around
        {"\xc0\x9b\xed\xa0\x80\xe7\xaf", "\\xc0\\x9b\\xed\\xa0\\x80\\xe7\\xaf"}};
    for (const auto& [text, shown] : texts)
        EXPECT_EQ(printable(text), shown);
    EXPECT_EQ(app::display_width("\xe7\xaf\x80\xe7\x82\xb9"), 4u);
}

// Two leaves below two spines, of which the one by the lower ports has a slow link.
constexpr const char* two_ways =
    "Switch 4 \"L1\" # \"left\"\n[1] \"A\"[1] # 4xEDR\n[2] \"S1\"[1] # 4xQDR\n[3] \"S2\"[1] # "
    "4xEDR\n"
    "Switch 4 \"L2\" # \"right\"\n[1] \"B\"[1] # 4xEDR\n[3] \"C\"[1] # 4xEDR\n[2] \"S1\"[2] # "
    "4xEDR\n[4] \"S2\"[2] # "
    "4xEDR\n"
    "Switch 2 \"S1\" # \"slow\"\nSwitch 2 \"S2\" # \"fast\"\n"
    "Ca 1 \"A\" # \"us HCA-1\"\nCa 1 \"B\" # \"them HCA-1\"\nCa 1 \"C\" # \"others HCA-1\"\n";

TEST(Hops, AreThoseOfThePathThatTheSaComputed) {
    app::Machine machine(site_of(two_ways), {}, host::Options{});
    machine.start();
    machine.switch_on();
    app::Resolver resolver(machine, app::peers_of(machine), {});
    resolver.run();
    EXPECT_EQ(app::format_hops(machine, resolver.peers(), 40, 1),
              "10.0.0.2  them  primary path\n"
              "  in  node   out      link\n"
              "      us       1  100 Gb/s\n"
              "   1  left     2   40 Gb/s  slowest\n"
              "   1  slow     2  100 Gb/s\n"
              "   2  right    1  100 Gb/s\n"
              "   1  them\n"
              "... and the paths of 1 more ...\n");
    app::Ways ways(machine.site());
    std::set<int> slowest;
    for (const app::Peer& peer : resolver.peers()) {
        const auto& path = peer.record.paths[0];
        const std::vector<app::Hop> hops = ways.hops(path);
        slowest.insert(path.rate);
        EXPECT_EQ(hops.size(), 5u);
        EXPECT_EQ(path.rate, std::min(hops[1].rate, hops[2].rate)) << peer.host;
    }
    EXPECT_EQ(slowest.size(), 2u) << "one spine each";
    EXPECT_THAT(ways.hops({}), IsEmpty());
    const auto json = nlohmann::json::parse(
        app::to_json(machine, resolver, resolver.peers(), machine.stop(), &ways));
    EXPECT_EQ(json["peers"][0]["paths"][0]["hops"][2].dump(),
              R"({"in":1,"node":"slow","out":2,"rate_gbps":100.0})");
}

/* One peer answers, one never does, and one's paths are asked for twice. */
TEST(Metrics, TellWhatBecameOfRequests) {
    app::Site site;
    site.topology = fabric::make_fabric({.hosts = 4});
    site.hosts = fabric::deal_addresses(site.topology);
    app::Machine machine(site, {}, host::Options{});
    machine.start();
    app::Metrics metrics(machine);
    machine.switch_on();
    machine.fabric().peer(site.hosts[2].ip).drop_all();
    app::LookUps look_ups;
    auto* const get = machine.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn");
    const auto reply = [](tarv_stat_t status, tarv_arp_data_t*, void* context) {
        static_cast<app::LookUps*>(context)->replied(status);
    };
    const auto ask = [&](std::size_t host, unsigned long ticks) {
        tarv_arp_data_t record{};
        look_ups.returned(get(site.hosts[host].ip, site.hosts[0].ip, tarv_paths_both, &record,
                              reply, &look_ups, 0),
                          record);
        machine.kernel().advance(ticks);
    };
    ask(1, 500), ask(1, 0), ask(2, 0);
    machine.fabric().sa().faults().drop_next();
    ask(3, 500);
    metrics.text();  // whoever looks in between changes nothing
    machine.kernel().advance(7500);
    EXPECT_THAT(
        metrics.text(look_ups),
        AllOf(HasSubstr("tarv_cache_entries 2\n"), HasSubstr("_port_entries{port=\"1\"} 2\n"),
              HasSubstr("_bucket{le=\"1.0\"} 0\n"), HasSubstr("_bucket{le=\"10.0\"} 2\n"),
              HasSubstr("tarv_requests_pending{for=\"arp\"} 0\n"),
              HasSubstr("_hits_total{port=\"1\"} 1\n"), HasSubstr("_misses_total 3\n"),
              HasSubstr("{status=\"ok\"} 2\n"), HasSubstr("{status=\"timeout\"} 1\n")));
    const std::string text = metrics.text(look_ups);
    EXPECT_THAT(text, AllOf(HasSubstr("questions_total{port=\"1\",for=\"arp\"} 3\n"),
                            HasSubstr("questions_total{port=\"1\",for=\"paths\"} 2\n"),
                            HasSubstr("retries_total{port=\"1\",for=\"arp\"} 3\n"),
                            HasSubstr("retries_total{port=\"1\",for=\"paths\"} 1\n"),
                            HasSubstr("timeouts_total{port=\"1\",for=\"arp\"} 1\n"),
                            HasSubstr("timeouts_total{port=\"1\",for=\"paths\"} 0\n")));
    machine.stop();

    std::string control = "IP address and so on\n";
    for (int i = 2; i < 30; ++i)
        control += "10.0.0." + std::to_string(i) + " 0x1 0x83ff 00:AA:00:00:01:02 * ipoib\n";
    const std::string view = app::format_top(app::Samples(text), app::Samples(""), control, 40, 22);
    EXPECT_EQ(std::ranges::count(view, '\n'), 22);
    EXPECT_THAT(view,
                AllOf(HasSubstr("node1, 10.0.0.1, up 0:00:08, "),
                      HasSubstr("Entries 2; idle: 2 up to 10 s\n"), HasSubstr("hits           1\n"),
                      HasSubstr("   1      2       3        4          1\n"),
                      HasSubstr("10.0.0.2  258      2  0x83ff  by hand\n")));
    std::istringstream lines(view);
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(app::display_width(line), 40u) << line;
    EXPECT_EQ(app::wrap("one two three", 7), "one two\n  three");
}

TEST(Table, LeavesOutWhatMattersLeast) {
    const Table table{{{"a"}, {"bb", 'r', 2}, {"c", 'l', 1}}, {{"1", "22", "333"}, {"1"}}};
    EXPECT_EQ(table.format(0), "a  bb  c\n1  22  333\n1\n");
    EXPECT_EQ(table.format(10), table.format(0));
    EXPECT_EQ(table.format(9), "a  c\n1  333\n1\n");
    EXPECT_EQ(table.format(1), "a\n1\n1\n");
    EXPECT_THAT(table.left_out(9), testing::ElementsAre("bb"));
}

TEST(Latency, IsToldByExactQuantiles) {
    Latencies all{"all", "all", {}};
    for (app::Duration i = 1000; i > 0; --i)
        all.durations.push_back(i * 1000);
    const app::Quantiles q = all.quantiles();
    EXPECT_THAT((std::vector{q.p50, q.p90, q.p99, q.most}),
                testing::ElementsAre(500'000, 900'000, 990'000, 1'000'000));
    EXPECT_EQ(app::format_duration(999'499), "999 us");
    EXPECT_EQ(app::format_duration(999'600), "1.00 ms");
    EXPECT_EQ(app::format_histogram({"few", "", {100, 125, 126, 126}}, 34),
              "few\nup to 100 ns  1  \u2588\u2588\u2588\u2588\nup to 125 ns  1  "
              "\u2588\u2588\u2588\u2588\n"
              "up to 160 ns  2  \u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588\n");
    EXPECT_THAT(app::plot_latencies({all, {"nobody", "", {}}}),
                AllOf(HasSubstr("99.9 %"), Not(HasSubstr("nobody")), Not(HasSubstr("nan"))));
}

}  // namespace
