// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A host with an adapter on a fabric of ibsim, resolving by way of OpenSM: what the verb says, and
// what becomes of a host when something happens to its port or its SA.
#include <gmock/gmock.h>

#include <atomic>
#include <deque>

#include "app/kmsg.h"
#include "app/machine.h"
#include "app/options.h"
#include "tarv/logger.h"
#include "tests/support/machine.h"
#include "tests/support/opensm.h"

namespace {

using testing::MatchesRegex;

/* Left and Right can be joined to one adapter. OpenSM is on Far. */
const char two_leaves[] = R"(
Hca 1 "Left"
[1] "Leaf1"[1] # "Leaf1" lid 0 4xQDR

Hca 1 "Right"
[1] "Leaf2"[1] # "Leaf2" lid 0 4xQDR

Hca 1 "Near"
[1] "Leaf1"[2] # "Leaf1" lid 0 4xSDR

Hca 1 "Far"
[1] "Leaf2"[2] # "Leaf2" lid 0 4xQDR

Hca 1 "Other"
[1] "Leaf2"[3] # "Leaf2" lid 0 4xQDR

Hca 1 "Alone"

Switch 8 "Leaf1"
[1] "Left"[1] # "Left" lid 0 4xQDR
[2] "Near"[1] # "Near" lid 0 4xSDR
[5] "Leaf2"[5] # "Leaf2" lid 0 4xQDR

Switch 8 "Leaf2"
[1] "Right"[1] # "Right" lid 0 4xQDR
[2] "Far"[1] # "Far" lid 0 4xQDR
[3] "Other"[1] # "Other" lid 0 4xQDR
[5] "Leaf1"[5] # "Leaf1" lid 0 4xQDR
)";
const char addresses[] = "10.1.0.1 Left\n10.1.0.2 Near\n10.1.0.3 Far\n10.1.0.4 Other\n";

/* The ground with what a user has of it: a picture and a list of hosts. */
class Surroundings {
  public:
    Surroundings() : ground(two_leaves, "Far"), picture_(support::read_fabric(ground.picture())) {
        std::ofstream(hosts_file()) << addresses;
    }

    /// The LID that ibnetdiscover has seen at the port of that node.
    std::uint16_t lid(const std::string& node) const {
        for (const fabric::Node& each : picture_.nodes)
            if (each.name == node)
                return each.ports.at(1).lid;
        throw std::invalid_argument("no " + node);
    }

    /// PICTURE and HOSTS are the files; <NODE> is a node's LID, [NODE] its port's GID.
    std::string fill_in(std::string text) const {
        replace(text, "PICTURE", ground.picture_file());
        replace(text, "HOSTS", hosts_file());
        for (const fabric::Node& node : picture_.nodes) {
            if (node.kind != fabric::NodeKind::adapter)
                continue;
            replace(text, "<" + node.name + ">", std::to_string(node.ports.at(1).lid));
            char gid[32];
            std::snprintf(gid, sizeof gid, "fe80::%x:%x",
                          static_cast<unsigned>(node.ports[1].guid >> 16 & 0xFFFF),
                          static_cast<unsigned>(node.ports[1].guid & 0xFFFF));
            replace(text, "[" + node.name + "]", gid);
        }
        return text;
    }

    static std::string hosts_file() { return support::temporary("hosts"); }

    support::Ground ground;

  private:
    static void replace(std::string& text, const std::string& word, const std::string& by) {
        for (std::size_t at; (at = text.find(word)) != std::string::npos;)
            text.replace(at, word.size(), by);
    }

    const fabric::Topology picture_;
};

struct Call {
    const char* name;
    std::string arguments;  // behind "resolve --adapter"
    int status;
    std::string out;  // all of it; both are regular expressions
    std::string err = ".*";
};

const std::string site = " --fabric PICTURE --hosts HOSTS ";
const std::string far_record =
    "10\\.1\\.0\\.3  Far\n  GID [Far], QPN 0x[0-9a-f]{6}, flags 0x80, LID <Far>, through port 1\n";

std::string path(const std::string& kind, const std::string& from, const std::string& rate) {
    return "  " + kind + " +path  LID <" + from + "> -> <Far>, " + rate +
           " Gb/s, MTU 2048, SL 0, P_Key 0xffff, from [" + from + "]\n";
}

const Call calls[] = {
    {"an address", "ibsim:Near" + site + "10.1.0.3", 0, far_record + path("primary", "Near", "10")},
    {"a name", "ibsim:Near" + site + "Far", 0, far_record + path("primary", "Near", "10")},
    {"joined ports", "ibsim:Left,Right" + site + "Far", 0,
     far_record + path("primary", "Left", "40") + path("secondary", "Right", "40")},
    {"everybody", "ibsim:Near" + site, 0,
     "address .*\n10\\.1\\.0\\.4  Other +<Other> .* <Other> <- <Near>  10 Gb/s  2048\n"
     "10\\.1\\.0\\.3  Far +<Far> .*\n10\\.1\\.0\\.1  Left .*\npeers +3  all resolved\n.*"},
    // Without the two translations nothing comes of an answer.
    {"the module's mask", "ibsim:Near" + site + "--keep-component-mask --debug-level 4 --for 1 Far",
     1, "Not resolved:\n  10\\.1\\.0\\.3  Far  the time was up\n",
     ".*Incoming mad has an error status <0x600> -> dropped\\.\n.*"},
    {"the answer's attribute",
     "ibsim:Near" + site + "--keep-answer-attribute --debug-level 2 --for 1 Far", 1,
     "Not resolved:\n  10\\.1\\.0\\.3  Far  the time was up\n",
     ".*Invalid attribute ID\\. <0x0035>\n.*"},
    {"no such host", "ibsim:Near" + site + "F..r", 2, "",
     "tarv-host: \"F\\.\\.r\" is no address, and no host is known by that name\n"},
    {"no such node", "ibsim:Nobody" + site, 1, "",
     "tarv-host: ibsim does not let us be \"Nobody\": it has no such node, or ten clients "
     "already\n"},
    {"no link", "ibsim:Alone" + site, 1, "",
     "tarv-host: port 1 of ibsim is Down: it has no link; see to its cable and the switch\n"},
    {"no node", "ibsim:" + site, 1, "", "tarv-host: ibsim: which node\\? ibsim:NODE\n"},
    {"no picture", "ibsim:Near", 2, "", "tarv-host: --adapter: an ibsim has no IPoIB, .*\n"},
    {"somebody else", "ibsim:Near --as Far" + site, 2, "",
     "tarv-host: --as: with --adapter this host is the one that has the adapter\n"},
    {"no address for us", "ibsim:Other --fabric PICTURE --hosts <(echo 10.1.0.1 Left)", 2, "",
     "tarv-host: --hosts: .* has no address for our own host, Other\n"},
    {"another fabric's picture", "ibsim:Near --fabric " TARV_FABRIC_DATA "/two-tier.ibnetdiscover",
     2, "",
     ".*: no adapter has the port GUID 0x0000000000100005, which is ours; is it a picture of "
     "another fabric\\?\n"},
    {"no adapter", "mlx9_9", 1, "", "tarv-host: .*adapter.*\n"},
    {"no port", "mlx9_9:0", 1, "",
     "tarv-host: \"mlx9_9:0\" is neither an adapter nor ADAPTER:PORT\n"},
};

support::Result call(const Surroundings& around, const std::string& arguments) {
    return support::shell("timeout 20 bash -c '" TARV_HOST " resolve --adapter " +
                          around.fill_in(arguments) + "'");
}

TEST(Resolve, SaysWhatOpensmKnowsOrWhatIsWrong) {
    SKIP_WITHOUT_OPENSM();
    Surroundings around;
    for (const Call& row : calls) {
        SCOPED_TRACE(row.name);
        const support::Result result = call(around, row.arguments);
        EXPECT_EQ(result.status, row.status);
        EXPECT_THAT(result.out, MatchesRegex(around.fill_in(row.out)));
        EXPECT_THAT(result.err, MatchesRegex(around.fill_in(row.err)));
    }
    around.ground.manager().tell(SIGSTOP);
    EXPECT_THAT(call(around, "ibsim:Near" + site).err,
                MatchesRegex(around.fill_in("tarv-host: port 1 of ibsim: the SA at LID <Far> does "
                                            "not answer; see to the subnet manager there\n")));
    setenv("IBSIM_SOCKNAME", "tarv-nothing", 1);
    EXPECT_THAT(call(around, "ibsim:Near" + site).err,
                MatchesRegex("tarv-host: no ibsim answers as \"tarv-nothing\"; .*\n"));
}

/* Something that begins, lasts and ends while a host runs as Near. `has_begun` and `has_ended` are
 * what the host sees of it; `told` is what the module says when it hears of the end, if it has to:
 * the host knows earlier, and a query by a port that the module takes to be down is refused. */
struct Situation {
    const char* name;
    void (*begin)(Surroundings&);
    bool (*has_begun)(Surroundings&, rdma::Device&);
    bool answered_meanwhile;
    void (*end)(Surroundings&);
    bool (*has_ended)(Surroundings&, rdma::Device&);
    const char* told = "";
};

const Situation situations[] = {
    {"a port goes and returns",
     [](Surroundings& around) { around.ground.console("Unlink \"Near\"[1]"); },
     [](Surroundings&, rdma::Device& device) { return !device.port(1).up; }, false,
     [](Surroundings& around) { around.ground.console("ReLink \"Near\"[1]"); },
     [](Surroundings& around, rdma::Device& device) {
         if (device.port(1).linked && !device.port(1).up)
             around.ground.manager().tell(SIGHUP);  // look at all ports
         return device.port(1).up;
     },
     "Received link_up <port:1>"},
    {"an SA hangs and comes back",
     [](Surroundings& around) { around.ground.manager().tell(SIGSTOP); },
     [](Surroundings&, rdma::Device&) { return true; }, false,
     [](Surroundings& around) { around.ground.manager().tell(SIGCONT); },
     [](Surroundings&, rdma::Device&) { return true; }},
    {"another master takes over",
     [](Surroundings& around) {
         around.ground.manager().end();
         around.ground.start_manager("Other");
     },
     [](Surroundings& around, rdma::Device& device) {
         return device.manager(1).lid == around.lid("Other");
     },
     true, [](Surroundings&) {}, [](Surroundings&, rdma::Device&) { return true; }},
};

/* A request for a host and a path to it. */
class Request {
  public:
    Request(app::Machine& machine, const std::string& name) {
        const std::vector<fabric::Host>& hosts = machine.site().hosts;
        const auto host = std::ranges::find(hosts, name, &fabric::Host::name);
        const tarv_stat_t now = machine.function<tarv_get_ib_data_fn_t>("tarv_get_ib_data_fn")(
            host->ip, machine.site().our_host().ip, tarv_paths_primary, &record_, on_reply, this,
            0);
        if (now != tarv_stat_pending)
            status_ = now;
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    tarv_stat_t status() const { return status_; }
    bool answered() const {
        return support::wait_until([this] { return status_ != tarv_stat_pending; }) &&
               status_ == tarv_stat_ok;
    }

  private:
    static void on_reply(tarv_stat_t status, tarv_arp_data_t*, void* request) {
        static_cast<Request*>(request)->status_ = status;
    }

    tarv_arp_data_t record_{};
    std::atomic<tarv_stat_t> status_ = tarv_stat_pending;
};

/* Prints no row byte by byte. */
void PrintTo(const Situation& row, std::ostream* out) {
    *out << row.name;
}

class Situations : public testing::TestWithParam<Situation> {};

TEST_P(Situations, AreSurvived) {
    SKIP_WITHOUT_OPENSM();
    Surroundings around;
    app::HostOptions options;
    options.adapter = "ibsim:Near";
    options.fabric = around.ground.picture_file();
    options.hosts = around.hosts_file();
    options.debug_level = TARV_DEBUG;
    std::deque<Request> requests;  // outlive the module, which knows them
    app::Kmsg kmsg;
    app::Machine machine(app::read_site(options), options, {host::Clock::real_time},
                         [&](const host::LogLine& line) { kmsg.append(line); });
    const auto ask = [&](const char* name) -> Request& {
        return requests.emplace_back(machine, name);
    };
    machine.start();
    machine.switch_on();
    rdma::Device& device = machine.site().device->device();
    EXPECT_TRUE(ask("Far").answered());
    const Situation& it = GetParam();
    it.begin(around);
    ASSERT_TRUE(support::wait_until([&] { return it.has_begun(around, device); }));
    Request& meanwhile = ask("Left");
    if (it.answered_meanwhile) {
        EXPECT_TRUE(meanwhile.answered());
    } else {
        machine.kernel().advance(200);
        EXPECT_NE(meanwhile.status(), tarv_stat_ok);
    }
    const std::uint64_t before = kmsg.extent().end;
    it.end(around);
    ASSERT_TRUE(support::wait_until([&] {
        return it.has_ended(around, device) &&
               kmsg.read(kmsg.extent().end - before, before).find(it.told) != std::string::npos;
    }));
    machine.kernel().settle();  // until the module is through with it
    for (const char* const name : {"Left", "Other"})
        EXPECT_TRUE(ask(name).answered()) << name;
    EXPECT_TRUE(machine.stop().clean());
}

INSTANTIATE_TEST_SUITE_P(Host, Situations, testing::ValuesIn(situations), [](const auto& row) {
    std::string name = row.param.name;
    std::erase_if(name, [](char c) { return c == ','; });
    std::ranges::replace(name, ' ', '_');
    return name;
});

}  // namespace
