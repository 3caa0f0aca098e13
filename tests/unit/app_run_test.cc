// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The program as its user meets it, and the passes and reports that it is made of.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <thread>

#include "app/machine.h"
#include "app/output.h"
#include "app/picture.h"
#include "app/report.h"
#include "app/resolve.h"
#include "platform/memory.h"
#include "tests/support/program.h"

namespace {

using support::read_file, support::Result, support::shell, support::temporary;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

// Two hosts with two ports, one with one, and one that is linked to nothing.
constexpr const char* four_hosts = R"(
Switch	8 "S-1"		# "sw"
[1]	"H-1"[1]	# "alpha" lid 11 4xQDR
[2]	"H-1"[2]	# "alpha" lid 12 4xQDR
[3]	"H-2"[1]	# "beta" lid 13 4xFDR
[4]	"H-2"[2]	# "beta" lid 14 4xFDR
[5]	"H-3"[1]	# "gamma" lid 15 4xSDR

Ca	2 "H-1"		# "alpha HCA-1"
Ca	2 "H-2"		# "beta HCA-1"
Ca	1 "H-3"		# "gamma HCA-1"
Ca	1 "H-4"		# "delta HCA-1"
)";
constexpr const char* three_addresses = "10.1.0.1 alpha\n10.1.0.2 beta\n10.1.0.3 gamma\n";

std::string write_file(const std::string& name, const std::string& content) {
    std::ofstream(temporary(name)) << content;
    return temporary(name);
}

/* Arguments may name the two files above as FABRIC and HOSTS. */
Result tarv_host(std::string arguments) {
    const auto replace = [&](const std::string& word, const std::string& path) {
        for (std::size_t at; (at = arguments.find(word)) != std::string::npos;)
            arguments.replace(at, word.size(), path);
    };
    replace("FABRIC", write_file("net", four_hosts));
    replace("HOSTS", write_file("hosts", three_addresses));
    return shell(TARV_HOST " " + arguments);
}

struct BadInput {
    const char* name;
    std::string arguments;
    std::string line;  // a regular expression
};
class BadInputs : public testing::TestWithParam<BadInput> {};

TEST_P(BadInputs, AreRefusedInOneLineAndNothingStarts) {
    const Result result = tarv_host(GetParam().arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, MatchesRegex(GetParam().line + "\n"));
    EXPECT_EQ(std::ranges::count(result.err, '\n'), 1);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, BadInputs,
    testing::ValuesIn(std::vector<BadInput>{
        {"NoVerb", "", "tarv-host: a verb is missing.*"},
        {"UnknownVerb", "rum", "tarv-host: there is no verb rum; did you mean \"run\"."},
        {"BegunVerb", "fab", "tarv-host: there is no verb fab; did you mean \"fabric\"."},
        {"ResolveNobody", "resolve node022", ".*is known by that name; did you mean \"node02\"."},
        {"UnknownOption", "run --fabrik x",
         "tarv-host: there is no option --fabrik; did you mean \"--fabric\"."},
        {"TwoForms", "run --resolve-all --json --csv",
         "tarv-host: --json and --csv exclude each other"},
        {"NobodyIsResolved", "run --all", "tarv-host: what was asked for is about the peers, .*"},
        {"SurplusWord", "run now", "tarv-host: .* now"},
        {"OptionWithoutValue", "run --fabric", "tarv-host: --fabric: .*"},
        {"LevelOutOfRange", "run --debug-level 6", "tarv-host: --debug-level: Value 6 .*"},
        {"LevelNoNumber", "run --logger-level x", "tarv-host: --logger-level: Value x .*"},
        {"NegativeTime", "run --for -1", "tarv-host: --for: \"-1\" .*"},
        {"TimeNoNumber", "run --for nan", "tarv-host: --for: \"nan\" .*"},
        {"NoSuchFabric", "run --fabric /no/file", "/no/file: .*"},
        {"BadFabric", "run --fabric HOSTS", ".*BadFabric.hosts:1: .*"},
        {"NoSuchHostList", "run --hosts /no/file", "/no/file: .*"},
        {"ListOfAnotherFabric", "run --strict-hosts --hosts HOSTS", ".*hosts:1: .*alpha.*"},
        {"EmptyHostList", "run --hosts /dev/null",
         "tarv-host: --hosts: /dev/null names no host .*"},
        {"NobodyCalledSo", "run --fabric FABRIC --as zeta",
         "tarv-host: --as: .*\"zeta\"; did you mean \"beta\"."},
        {"UnknownParameter", "run --param x=1", "tarv-host: --param: .*\"x=1\".*"},
        {"ParameterWithoutValue", "run --param arp_cache_timeout_sec", "tarv-host: --param: .*"},
        {"PlotNowhere", "run --resolve-all --plot /no/dir/file",
         "tarv-host: --plot: /no/dir/file: No such file or directory"},
        {"CaptureNowhere", "run --capture /no/dir/file", "tarv-host: --capture: /no/dir/file: .*"},
    }),
    [](const auto& row) { return row.param.name; });

TEST(Run, ResolvesAllPeersAndLeavesNothing) {
    const std::string capture = temporary("erf");
    const std::string hosts =
        write_file("more", std::string(three_addresses) + "192.168.0.1 mail\n");
    const Result result =
        tarv_host("run --resolve-all --fabric FABRIC --hosts " + hosts + " --capture " + capture);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_THAT(
        result.out,
        AllOf(HasSubstr("alpha, 10.1.0.1, port 1 LID 11, port 2 LID 12\n"),
              HasSubstr("\nHost list  1 line skipped, about none of them\n"),
              HasSubstr("TARV: Initialized.\n"), HasSubstr("13 <- 11  13 <- 12  40 Gb/s  2048\n"),
              HasSubstr("15 <- 11  15 <- 12  10 Gb/s  2048\n"),
              HasSubstr("requests            4  2 to learn, 2 more to ask the cache\n"
                        "cache hits          2\n"
                        "ARP requests        2\n")));
    EXPECT_THAT(result.out, HasSubstr("nothing remains"));
    EXPECT_GT(read_file(capture).size(), 6 * 256u);  // two answers with their questions
}

TEST(Run, NamesWhomItCouldNotResolveInTime) {
    const Result result =
        tarv_host("run -q --resolve-all --only unresolved --fabric FABRIC --for 0.1");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, AllOf(HasSubstr("Not resolved:\n  10.0.0.4  delta  the time was up\n"),
                                  HasSubstr("1 not resolved"), HasSubstr("nothing remains"),
                                  Not(HasSubstr("TARV:")), Not(HasSubstr("13 <- 11"))));
}

TEST(Run, TellsWhatItCouldNotWrite) {
    const Result full = shell(TARV_HOST " run --resolve-all -q >/dev/full");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "tarv-host: standard output: No space left on device\n");
    for (const char* verb :
         {"--help", "script --help", "fabric svg", "console -q </dev/null", "resolve node02"}) {
        const Result other = shell(std::string(TARV_HOST " ") + verb + " >/dev/full");
        EXPECT_EQ(other.status, 1) << verb;
        EXPECT_THAT(other.err, HasSubstr("tarv-host: standard output: ")) << verb;
    }
    const Result plot = shell(TARV_HOST " run --resolve-all -q --plot /dev/full");
    EXPECT_EQ(plot.status, 1);
    EXPECT_EQ(plot.err, "tarv-host: --plot: /dev/full: No space left on device\n");
    const Result half = tarv_host("run --resolve-all -q --capture /dev/full");
    EXPECT_EQ(half.status, 1);
    EXPECT_THAT(half.out, HasSubstr("\nThe capture is not whole: "));
}

// A pipe takes no more than its reader leaves room for. What is behind that is kept, but for too
// much.
TEST(Output, TellsHowManyLinesNobodyReadInTime) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const auto size = static_cast<std::size_t>(fcntl(ends[1], F_SETPIPE_SZ, 4096));
    app::Output output(ends[1], 4 * size);
    const std::string most(4 * size - 1, '-');
    output.say(most + "\n");
    // Once the writer has begun with the first, there is room for one more: the second or the last.
    output.say(most + "\n");
    output.say("last\n");
    std::string read_text;
    std::thread reader([&] {
        char text[512];
        for (ssize_t length; (length = read(ends[0], text, sizeof text)) > 0;)
            read_text.append(text, static_cast<std::size_t>(length));
    });
    EXPECT_TRUE(output.finish());
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_THAT(
        read_text,
        MatchesRegex("-+\n(-+\n)?\\.\\.\\. (1 line|2 lines) lost, because nobody read in time "
                     "\\.\\.\\.\n(last\n)?"));
}

TEST(Run, UnloadsInOrderWhenToldToStop) {
    const std::string fifo = temporary("fifo");
    const Result result =
        shell("rm -f " + fifo + " && mkfifo " + fifo + " && { " TARV_HOST " run >" + fifo +
              R"( & pid=$!; while read -r line; do
        case "$line" in Running*) kill -TERM $pid ;; esac; echo "$line"; done <)" +
              fifo + "; wait $pid; }");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("TARV: Unloaded.\nUnloaded; nothing remains"));
}

app::Site site_of(const fabric::Topology& topology) {
    return {.topology = topology, .hosts = fabric::deal_addresses(topology), .us = 0};
}

app::Site small_site() {
    std::istringstream text(four_hosts);
    return site_of(fabric::read_topology(text, "four"));
}

/* A machine in virtual time. */
struct Started : app::Machine {
    explicit Started(app::Site site, const app::HostOptions& options = {})
        : Machine(std::move(site), options, host::Options{}) {
        start();
        switch_on();
    }
};

using Fabric = fabric::Fabric;
using Options = app::ResolveOptions;

fabric::Faults& beta(Fabric& f) {
    return f.peer(f.hosts().at(1).ip);
}
bool yes() {
    return true;
}

struct Trouble {
    const char* name;
    const char* why_not;  // of beta, or null where it is resolved nonetheless
    std::size_t timeouts;
    std::size_t repeats;
    void (*make)(Fabric& f, Options& o);
};
class Troubles : public testing::TestWithParam<Trouble> {};

/* Beside delta, whom nobody reaches: it costs one time-out and three repeated ARP requests. */
TEST_P(Troubles, EndThePassesAndAreExplained) {
    Started machine(small_site());
    Options options;
    GetParam().make(machine.fabric(), options);
    app::Resolver resolver(machine, app::peers_of(machine), options);
    resolver.run();
    const std::string unresolved = app::format_unresolved(machine, resolver.peers());
    const std::string start = "  10.0.0.2  beta   ";
    if (GetParam().why_not)
        EXPECT_THAT(unresolved, HasSubstr(start + GetParam().why_not + "\n"));
    else
        EXPECT_THAT(unresolved, Not(HasSubstr(start)));
    EXPECT_EQ(resolver.counts().timeouts, GetParam().timeouts);
    EXPECT_EQ(resolver.counts().retries, GetParam().repeats);
    EXPECT_THAT(machine.stop().remains, IsEmpty());
}

constexpr const char* no_arp = "time-out: no answer to ARP requests";
constexpr const char* no_path = "time-out: it answers ARP, but the SA gave no path to it";

INSTANTIATE_TEST_SUITE_P(
    Resolver, Troubles,
    testing::ValuesIn(std::vector<Trouble>{
        {"NoneForBeta", nullptr, 1, 3, [](Fabric&, Options&) {}},
        {"OneReplyLost", nullptr, 1, 4, [](Fabric& f, Options&) { beta(f).drop_next(); }},
        {"NeverAnswers", no_arp, 2, 6, [](Fabric& f, Options&) { beta(f).drop_all(); }},
        {"SaSilent", no_path, 3, 9, [](Fabric& f, Options&) { f.sa().faults().drop_all(); }},
        {"TimeUp", "the time was up", 3, 0, [](Fabric&, Options& o) { o.limit = 1; }},
        {"Interrupted", "the run was interrupted", 3, 0, [](Fabric&, Options& o) { o.stop = yes; }},
        {"Silence", "nothing was answered any more", 3, 0,
         [](Fabric& f, Options& o) { f.sa().faults().drop_all(), o.silence = 500; }},
    }),
    [](const auto& row) { return row.param.name; });

TEST(Resolver, LearnsAThousandHostsWithOneQuestionEach) {
    Started machine(site_of(fabric::make_fabric({.hosts = 1000})));
    app::Resolver resolver(machine, app::peers_of(machine), {});
    resolver.run();
    EXPECT_EQ(app::format_unresolved(machine, resolver.peers()), "");
    EXPECT_THAT(
        app::format_counts(resolver.counts(), resolver.peers()),
        testing::StartsWith("peers             999  all resolved\n"
                            "requests         1998  999 to learn, 999 more to ask the cache\n"
                            "cache hits        999\n"
                            "ARP requests      999\n"
                            "path queries      999\n"
                            "retries             0\n"
                            "time-outs           0\n"
                            "elapsed       0."));
    const std::string table = app::format_peers(machine, resolver.peers());
    EXPECT_EQ(std::ranges::count(table, '\n'), 1 + 10 + 1 + 5);
    EXPECT_THAT(table, HasSubstr("\n... and 984 more ...\n10.0.3.228 "));
    EXPECT_THAT(machine.stop().remains, IsEmpty());
}

/* One box a switch and one for this host; the others stand in one box for each pair of switches. */
TEST(Program, DrawsAFabric) {
    const Result small = tarv_host("fabric dot --fabric FABRIC --hosts HOSTS --as beta");
    EXPECT_THAT(small.out,
                AllOf(HasSubstr("[label=\"beta\\n10.1.0.2\", style=filled, fillcolor=gold]"),
                      HasSubstr("[label=\"delta HCA-1\"]"),
                      HasSubstr("label=\"2x\"];\n  n0 -- n3 [tooltip=\"10 Gb/s\", color=red]")));
    EXPECT_EQ(small.status, 0);
    const std::string large = app::to_dot(site_of(fabric::make_fabric({.hosts = 1000})));
    EXPECT_THAT(large, AllOf(HasSubstr(" hosts\\nnode"), HasSubstr("\"node1\\n10.0.0.1\"")));
    EXPECT_LT(std::ranges::count(large, '\n'), 1500);
    // Drawn or for graphviz, it is the same.
    const auto times = [](const std::string& text, const std::string& word) {
        int found = 0;
        for (std::size_t at = 0; (at = text.find(word, at)) != text.npos; ++at)
            ++found;
        return found;
    };
    app::Site site = small_site();
    site.hosts[1].name = "b<&ta";
    const std::string dot = app::to_dot(site), svg = app::to_svg(site);
    EXPECT_THAT(svg, AllOf(HasSubstr(">b&lt;&amp;ta</text>"), Not(HasSubstr("nan"))));
    EXPECT_EQ(times(svg, "<path "), times(dot, " -- "));
    EXPECT_EQ(times(svg, "class='slow'"), times(dot, "color=red"));
    EXPECT_EQ(times(svg, "fill='gold'"), 1);
    EXPECT_GT(times(svg, "class='slow'"), 0);
}

TEST(Report, NamesWhatAModuleLeavesBehind) {
    Started machine(small_site());
    void* const leak = kmalloc(77, GFP_KERNEL);
    const app::Departure& departure = machine.stop();
    EXPECT_THAT(departure.remains, testing::ElementsAre(HasSubstr("memory: 77 bytes")));
    EXPECT_THAT(
        app::format_departure(departure),
        AllOf(HasSubstr("not all is gone:\n  memory: 77 bytes"), Not(HasSubstr("nothing"))));
    kfree(leak);
}

TEST(Report, FormatsPlainly) {
    EXPECT_EQ(app::format_rate(2), "2.5 Gb/s");
    EXPECT_EQ(app::format_rate(0), "-");
    EXPECT_EQ(app::format_mtu(5), "4096");
    EXPECT_EQ(app::format_mtu(0), "-");
    EXPECT_EQ(app::format_bytes(1), "1 byte");
    EXPECT_EQ(app::format_bytes(1025), "2 KiB");
    EXPECT_EQ(app::format_seconds(61'007), "61.007 s");
}

}  // namespace
