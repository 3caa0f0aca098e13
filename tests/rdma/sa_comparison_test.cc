// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The same bytes go to the simulated SA and to OpenSM, on the same fabric, and the two answers are
// compared field by field.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <random>
#include <set>

#include "rdma/ibsim.h"
#include "tests/support/fabric_test.h"
#include "tests/support/opensm.h"

namespace {

using fabric::Bytes, fabric::Gid, fabric::MultiPathRecord, fabric::Packet, fabric::PathRecord;
using std::chrono::milliseconds;

/* Two leaves with a 40 and a 20 Gb/s spine between them. The first adapter has the port GUIDs
 * 0x100001 and 0x100002; with a port each the next have 0x100004, 0x100006, ... */
const char uneven_spines[] = R"(
Hca 2 "Us"
[1] "Leaf1"[1] # "Leaf1" lid 0 4xQDR
[2] "Leaf1"[2] # "Leaf1" lid 0 4xQDR

Hca 1 "Near"
[1] "Leaf1"[3] # "Leaf1" lid 0 4xSDR

Hca 1 "Far1"
[1] "Leaf2"[1] # "Leaf2" lid 0 4xQDR

Hca 1 "Far2"
[1] "Leaf2"[2] # "Leaf2" lid 0 4xQDR

Hca 1 "Alone"

Switch 8 "Leaf1"
[1] "Us"[1] # "Us" lid 0 4xQDR
[2] "Us"[2] # "Us" lid 0 4xQDR
[3] "Near"[1] # "Near" lid 0 4xSDR
[5] "Spine1"[1] # "Spine1" lid 0 4xQDR
[6] "Spine2"[1] # "Spine2" lid 0 4xDDR

Switch 8 "Leaf2"
[1] "Far1"[1] # "Far1" lid 0 4xQDR
[2] "Far2"[1] # "Far2" lid 0 4xQDR
[5] "Spine1"[2] # "Spine1" lid 0 4xQDR
[6] "Spine2"[2] # "Spine2" lid 0 4xDDR

Switch 4 "Spine1"
[1] "Leaf1"[5] # "Leaf1" lid 0 4xQDR
[2] "Leaf2"[5] # "Leaf2" lid 0 4xQDR

Switch 4 "Spine2"
[1] "Leaf1"[6] # "Leaf1" lid 0 4xDDR
[2] "Leaf2"[6] # "Leaf2" lid 0 4xDDR
)";

/* A fabric in which no two routes are alike: leaves, spines and cores with up to three links
 * between each two, of any rate, and hosts H0, H1, ... somewhere below. Equal seeds make equal
 * ones. */
std::string woven(unsigned seed) {
    std::mt19937 random(seed);
    const auto below = [&](unsigned end) { return random() % end; };
    std::map<std::string, std::vector<std::string>> lines;  // by node, a port each
    const auto link = [&](const std::string& one, const std::string& other) {
        const char* const rates[] = {"1xSDR", "4xSDR", "4xDDR", "4xQDR", "12xSDR", "12xDDR"};
        const std::string rate = one[0] == 'H' ? "12xQDR" : rates[below(6)];
        const auto line = [&](const std::string& to, std::size_t port) {
            return "\"" + to + "\"[" + std::to_string(port) + "] # \"" + to + "\" lid 0 " + rate;
        };
        const std::size_t port = lines[one].size() + 1, far_port = lines[other].size() + 1;
        lines[one].push_back(line(other, far_port));
        lines[other].push_back(line(one, port));
    };
    const auto name = [](const char* kind, unsigned number) {
        return kind + std::to_string(number);
    };
    const unsigned leaves = 2 + below(3), spines = 2 + below(3), hosts = 6 + below(8);
    for (unsigned spine = 0; spine < spines; spine++) {
        for (unsigned leaf = 0; leaf < leaves; leaf++)
            for (unsigned i = below(3) + 1; i > 0; i--)
                link(name("Leaf", leaf), name("Spine", spine));
        for (unsigned core = 0; core < 2; core++)
            for (unsigned i = below(2) + 1; i > 0; i--)
                link(name("Spine", spine), name("Core", core));
    }
    for (unsigned i = 0; i < 4; i++)
        link("Leaf9", name("Core", i % 2));
    for (unsigned host = 0; host < hosts; host++)
        for (unsigned i = below(2) + 1; i > 0; i--) {
            const unsigned leaf = below(leaves + 1);
            link(name("H", host), name("Leaf", leaf == leaves ? 9 : leaf));
        }
    std::string text;
    unsigned switches = 0;
    for (const auto& [node, links] : lines) {
        // In one byte order of GUIDs switches follow each other as here, in the other as it
        // happens.
        if (node[0] != 'H')
            text += "switchguid=0x2" + std::to_string(1000 + below(9000)) +
                    std::to_string(10 + switches++) + "\n";
        text += (node[0] == 'H' ? "Hca " : "Switch ") + std::to_string(links.size()) + " \"" +
                node + "\"\n";
        for (std::size_t i = 0; i < links.size(); i++)
            text += "[" + std::to_string(i + 1) + "] " + links[i] + "\n";
        text += "\n";
    }
    return text;
}

std::string two_tier() {
    return support::read_file(TARV_FABRIC_DATA "/two-tier.ibnetdiscover");
}

struct Site {
    const char* name;
    std::string net;
    const char* us;
    const char* manager;
    int lmc = 0;
    std::string partitions = {};
    std::map<std::uint64_t, std::vector<std::uint16_t>> pkeys = {};  // by port GUID
};

/* Changes of the module's query; a mask bit per component as in the SA's table. */
struct Ask {
    std::vector<Gid> sgids;
    std::vector<Gid> dgids;
    MultiPathRecord record = {};
    std::uint64_t more_mask = 0;
    std::uint64_t less_mask = 0;
    std::uint8_t method = fabric::method_get_multi;
    std::uint16_t attribute = fabric::attribute_multi_path_record;
    std::uint64_t sm_key = 0;
    bool rmpp = true;
};

/* Has the name of a site printed for one, and not its bytes. */
void PrintTo(const Site& site, std::ostream* out) {
    *out << site.name;
}

struct Question {
    std::string name;
    Ask ask;
};

Bytes query(const Ask& ask) {
    Bytes mad(fabric::mad_size);
    fabric::MadHeader header;
    header.management_class = fabric::sa_class;
    header.class_version = fabric::sa_class_version;
    header.method = ask.method;
    header.attribute = ask.attribute;
    header.modifier = 0xFFFFFFFF;
    encode(header, mad);
    if (ask.rmpp) {
        fabric::RmppHeader rmpp{1,
                                fabric::rmpp_data,
                                fabric::rmpp_active | fabric::rmpp_first | fabric::rmpp_last,
                                0,
                                1,
                                220};
        encode(rmpp, std::span(mad).subspan(fabric::rmpp_offset));
    }
    fabric::SaHeader sa;
    sa.sm_key = ask.sm_key;
    sa.attribute_offset = 3;
    sa.component_mask =
        (0x00003000001C00C0 | (ask.sgids.size() > 1 ? 0x400000000000 : 0) | ask.more_mask) &
        ~ask.less_mask;
    encode(sa, std::span(mad).subspan(fabric::sa_offset));
    MultiPathRecord record = ask.record;
    record.independence = 1;
    record.sgid_count = static_cast<std::uint8_t>(ask.sgids.size());
    record.dgid_count = static_cast<std::uint8_t>(ask.dgids.size());
    encode(record, std::span(mad).subspan(fabric::sa_data_offset));
    auto at = mad.begin() + fabric::sa_data_offset + MultiPathRecord::wire_size;
    for (const std::vector<Gid>* gids : {&ask.sgids, &ask.dgids})
        for (const Gid& gid : *gids)
            at = std::copy(gid.begin(), gid.end(), at);
    return mad;
}

/* Everything that is asked from one host: what the module asks first, then what it never would. */
std::vector<Question> questions(const std::vector<Gid>& ours, const std::vector<Gid>& others) {
    constexpr Gid unknown = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9};
    constexpr Gid multicast = {0xFF, 0x12, 0x40, 0x1B, 0xFF, 0xFF, 0,    0,
                               0,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF};
    Gid foreign = others.front();
    foreign[1] = 0xC0;
    std::vector<Question> all;
    const auto add = [&](const std::string& name, const Ask& ask) { all.push_back({name, ask}); };
    const auto module_asks = [](std::vector<Gid> from, std::vector<Gid> to) {
        Ask ask{std::move(from), std::move(to)};
        ask.record.numb_path = 3;
        ask.record.pkey = 0xFFFF;
        return ask;
    };
    for (const Gid& other : others) {
        add("module", module_asks(ours, {other}));
        add("module, one port", module_asks({ours.front()}, {other}));
        add("module, ports reversed", module_asks({ours.rbegin(), ours.rend()}, {other}));
        for (const std::uint8_t paths : {0, 1, 2, 4, 127}) {
            Ask ask = module_asks(ours, {other});
            ask.record.numb_path = paths;
            add("numb_path " + std::to_string(paths), ask);
        }
    }
    const Gid& us = ours.front();
    const Gid& them = others.front();
    add("two destinations", module_asks(ours, {them, others.back()}));
    add("ourselves", module_asks({us}, {us}));
    add("our other port", module_asks({us}, {ours.back()}));
    add("a source twice", module_asks({us, us}, {them}));
    for (const Gid& gid : {unknown, Gid{}, multicast, foreign}) {
        add("bad destination", module_asks(ours, {gid}));
        add("bad source", module_asks({gid}, {them}));
    }
    for (const std::uint16_t pkey : {0x7FFF, 0x8001, 0x0001, 0}) {
        Ask ask = module_asks({us}, {them});
        ask.record.pkey = pkey;
        add("P_Key " + std::to_string(pkey), ask);
    }
    struct Selector {
        const char* name;
        std::uint64_t mask;
        std::uint8_t MultiPathRecord::*selector;
        std::uint8_t MultiPathRecord::*value;
        std::vector<std::uint8_t> values;
    };
    for (const Selector& row :
         {Selector{
              "MTU", 3 << 10, &MultiPathRecord::mtu_selector, &MultiPathRecord::mtu, {1, 3, 4, 5}},
          {"rate",
           3 << 12,
           &MultiPathRecord::rate_selector,
           &MultiPathRecord::rate,
           {2, 3, 6, 7, 12}},
          {"life time",
           3 << 14,
           &MultiPathRecord::life_time_selector,
           &MultiPathRecord::life_time,
           {0, 10, 18, 20}}})
        for (const std::uint8_t selector : {0, 1, 2, 3})
            for (const std::uint8_t value : row.values) {
                Ask ask = module_asks({us}, {them});
                ask.more_mask = row.mask;
                ask.record.*row.selector = selector;
                ask.record.*row.value = value;
                const char* const names[] = {"greater than", "less than", "exactly", "largest"};
                add(std::string(row.name) + " " + names[selector] + " " + std::to_string(value),
                    ask);
            }
    for (const std::uint8_t sl : {0, 3}) {
        Ask ask = module_asks({us}, {them});
        ask.more_mask = 1 << 9;
        ask.record.sl = sl;
        add("SL " + std::to_string(sl), ask);
    }
    for (const std::uint8_t rate : {6, 7}) {
        Ask ask = module_asks({us}, {them});
        ask.more_mask = 3 << 12 | 1 << 5;
        ask.record.rate = rate;
        ask.record.rate_selector = 2;
        ask.record.reversible = 1;
        add("reversible, rate exactly " + std::to_string(rate), ask);
    }
    Ask ask = module_asks(ours, {them});
    ask.less_mask = 1 << 20;
    add("component 20 missing", ask);
    ask = module_asks(ours, {them});
    ask.rmpp = false;
    add("no RMPP header", ask);
    for (const std::uint8_t method : {0x01, 0x02, 0x12}) {
        ask = module_asks(ours, {them});
        ask.method = method;
        add("method " + std::to_string(method), ask);
    }
    for (const std::uint64_t key : {1, 7}) {
        ask = module_asks(ours, {them});
        ask.sm_key = key;
        add("SM_Key " + std::to_string(key), ask);
    }
    for (const std::uint16_t attribute : {0x0011, 0x0035, 0x0038}) {
        ask = module_asks(ours, {them});
        ask.attribute = attribute;
        add("attribute " + std::to_string(attribute), ask);
    }
    return all;
}

/* OpenSM, by way of a port. */
class Real {
  public:
    Real(const std::string& node, std::uint16_t lid, std::uint16_t sm_lid)
        : road_(rdma::attach_to_ibsim(node)), lid_(lid), sm_lid_(sm_lid) {}

    std::optional<Bytes> ask(Bytes mad) {
        const std::uint32_t transaction = ++transaction_;
        for (int i = 0; i < 4; i++)
            mad[static_cast<std::size_t>(12 + i)] =
                static_cast<std::uint8_t>(transaction >> (24 - 8 * i));
        Packet packet;
        packet.slid = lid_;
        packet.dlid = sm_lid_;
        packet.dest_qp = packet.src_qp = fabric::gsi_qp;
        packet.payload = mad;
        road_->send(packet);
        while (const auto answer = road_->receive(milliseconds(300))) {
            const auto header = fabric::decode<fabric::MadHeader>(answer->payload);
            if (header && static_cast<std::uint32_t>(header->transaction) == transaction)
                return answer->payload;
        }
        return std::nullopt;
    }

  private:
    std::unique_ptr<rdma::Transport> road_;
    const std::uint16_t lid_, sm_lid_;
    std::uint32_t transaction_ = 0;
};

/* The simulated SA on a picture of the same fabric. */
class Simulated {
  public:
    Simulated(const fabric::Topology& topology, std::size_t us, const Site& site)
        : fabric_(topology, deal_addresses(topology), us,
                  {.subnet = {.lmc = static_cast<std::uint8_t>(site.lmc)}}) {
        for (const auto& [guid, pkeys] : site.pkeys)
            fabric_.subnet().set_pkeys(fabric_.subnet().by_gid(fabric_testing::gid(guid))->at,
                                       pkeys);
        fabric_.on_packet([this](const fabric::SeenPacket& seen) {
            const auto rmpp = fabric::rmpp_header(seen.packet.payload);
            const bool is_answer = !rmpp || rmpp->type == fabric::rmpp_data;
            if (seen.direction == fabric::Direction::in && is_answer)
                answer_ = seen.packet.payload;
        });
    }

    std::optional<Bytes> ask(const Bytes& mad) {
        Packet packet;
        packet.slid = fabric_.adapter().port(1).lid;
        packet.dlid = fabric_.subnet().manager().lid;
        packet.dest_qp = packet.src_qp = fabric::gsi_qp;
        packet.payload = mad;
        answer_.reset();
        fabric_.network().send(1, packet);
        kernel_.advance(2);
        return answer_;
    }

  private:
    host::Kernel kernel_;
    fabric::Fabric fabric_;
    std::optional<Bytes> answer_;
};

template <class T>
void compare_fields(const char* format, std::span<const std::uint8_t> one,
                    std::span<const std::uint8_t> other, std::set<std::string>& differing) {
    const auto bit = [](std::span<const std::uint8_t> bytes, unsigned at) {
        return bytes[at / 8] >> (7 - at % 8) & 1;
    };
    for (const fabric::FieldPlace& field : fabric::places<T>())
        for (unsigned at = field.bit; at < field.bit + field.width; at++)
            if (bit(one, at) != bit(other, at))
                differing.insert(std::string(format) + "." + field.name);
}

std::span<const std::uint8_t> record_at(std::span<const std::uint8_t> mad, std::size_t i) {
    return mad.subspan(fabric::sa_data_offset + i * PathRecord::wire_size, PathRecord::wire_size);
}

/* The records of an answer's first MAD. How many there are nobody says on this ground: the kernel
 * whose RMPP would count them is missing, and behind the last record OpenSM sends what its memory
 * holds. So a record counts that is about ports which were asked for. */
std::vector<PathRecord> records_in(const Bytes& mad, const Ask& ask) {
    const auto sa = *fabric::decode<fabric::SaHeader>(std::span(mad).subspan(fabric::sa_offset));
    std::vector<PathRecord> records;
    for (std::size_t i = 0; i < fabric::sa_data_size / PathRecord::wire_size; i++) {
        const PathRecord record = *fabric::decode<PathRecord>(record_at(mad, i));
        if (sa.attribute_offset == 0 || std::ranges::count(ask.dgids, record.dgid) == 0 ||
            std::ranges::count(ask.sgids, record.sgid) == 0)
            break;
        records.push_back(record);
    }
    return records;
}

struct Answer {
    Bytes mad;
    std::vector<PathRecord> records;
};

std::optional<Answer> read_answer(std::optional<Bytes> mad, const Ask& ask) {
    if (!mad)
        return std::nullopt;
    mad->resize(fabric::mad_size);  // a short one is followed by zeros on the wire
    const bool refused = mad->at(4) != 0 || mad->at(5) != 0;
    return Answer{*mad, refused ? std::vector<PathRecord>{} : records_in(*mad, ask)};
}

/* What OpenSM's memory held before may look like a record by chance, but not each time. */
std::optional<Answer> ask_real(Real& real, const Question& question, std::size_t expected) {
    std::optional<Answer> fewest = read_answer(real.ask(query(question.ask)), question.ask);
    for (int i = 0; i < 2 && fewest && fewest->records.size() != expected; i++)
        if (auto answer = read_answer(real.ask(query(question.ask)), question.ask);
            answer && answer->records.size() < fewest->records.size())
            fewest = std::move(answer);
    return fewest;
}

/* Whether there are more segments of an answer than this first one. */
bool is_cut_up(std::span<const std::uint8_t> mad) {
    return fabric::decode<fabric::RmppHeader>(mad.subspan(fabric::rmpp_offset))->length >
           fabric::sa_header_size + fabric::sa_data_size;
}

/* The names of what differs. Not compared are the transaction ID, which each transport changes, the
 * RMPP payload length, which OpenSM echoes where no kernel does RMPP, and what is behind the last
 * record. What OpenSM gives to the kernel in one piece, the kernel cuts up: all but the last
 * segment lack the flag of the last. */
std::set<std::string> differences(const std::optional<Answer>& simulated,
                                  const std::optional<Answer>& real) {
    std::set<std::string> differing;
    if (!simulated || !real) {
        if (simulated || real)
            differing.insert("answered");
        return differing;
    }
    Bytes theirs = real->mad;
    if (is_cut_up(simulated->mad))
        theirs[fabric::rmpp_offset + 2] &= static_cast<std::uint8_t>(~fabric::rmpp_last);
    const std::span<const std::uint8_t> a(simulated->mad), b(theirs);
    compare_fields<fabric::MadHeader>("MAD", a, b, differing);
    compare_fields<fabric::RmppHeader>("RMPP", a.subspan(fabric::rmpp_offset),
                                       b.subspan(fabric::rmpp_offset), differing);
    compare_fields<fabric::SaHeader>("SA", a.subspan(fabric::sa_offset),
                                     b.subspan(fabric::sa_offset), differing);
    differing.erase("MAD.transaction");
    differing.erase("RMPP.length");
    const std::size_t both = std::min(simulated->records.size(), real->records.size());
    if (simulated->records.size() != real->records.size())
        differing.insert("records");
    if (simulated->records.empty() != real->records.empty())
        differing.erase("SA.attribute_offset");  // follows from the records
    for (std::size_t i = 0; i < both; i++)
        compare_fields<PathRecord>("path", record_at(a, i), record_at(b, i), differing);
    return differing;
}

std::string describe(const std::optional<Answer>& answer) {
    if (!answer)
        return "none";
    const auto header = *fabric::decode<fabric::MadHeader>(answer->mad);
    std::string text = host::kformat("status %04x attribute %04x", header.status, header.attribute);
    for (const PathRecord& path : answer->records)
        text += host::kformat(" (%d->%d P_Key %04x SL %d MTU %d rate %d life %d preference %d)",
                              path.slid, path.dlid, path.pkey, path.sl, path.mtu, path.rate,
                              path.life_time, path.preference);
    return text;
}

class SaComparison : public testing::TestWithParam<Site> {
  protected:
    /* The linked ports of one host, or of all others. */
    static std::vector<Gid> gids_of(const fabric::Topology& topology, int node, bool others) {
        std::vector<Gid> gids;
        for (std::size_t i = 0; i < topology.nodes.size(); i++)
            if (topology.nodes[i].kind == fabric::NodeKind::adapter &&
                (static_cast<int>(i) == node) != others)
                for (const fabric::Port& port : topology.nodes[i].ports)
                    if (port.linked)
                        gids.push_back(fabric_testing::gid(port.guid));
        return gids;
    }

    void compare(const Question& question, Simulated& simulated, Real& real) {
        const auto mine = read_answer(simulated.ask(query(question.ask)), question.ask);
        const auto theirs = ask_real(real, question, mine ? mine->records.size() : 0);
        const std::set<std::string> differing = differences(mine, theirs);
        equal_ += differing.empty();
        EXPECT_THAT(differing, testing::IsEmpty())
            << question.name << "\n  simulated: " << describe(mine)
            << "\n  OpenSM:    " << describe(theirs);
    }

    std::size_t equal_ = 0;
};

TEST_P(SaComparison, AnswersAreEqualFieldByField) {
    SKIP_WITHOUT_OPENSM();
    const Site& site = GetParam();
    support::Ground ground(site.net, site.manager, {site.lmc, site.partitions});
    const fabric::Topology topology = support::read_fabric(ground.picture());
    const std::vector<fabric::Host> hosts = deal_addresses(topology);
    const std::size_t us = choose_host(topology, hosts, site.us).value();
    const std::size_t manager = choose_host(topology, hosts, site.manager).value();
    const auto lid = [&](std::size_t host) {
        return topology.nodes.at(static_cast<std::size_t>(hosts[host].node)).ports.at(1).lid;
    };
    Real real(site.us, lid(us), lid(manager));
    Simulated simulated(topology, us, site);
    const std::vector<Question> all = questions(gids_of(topology, hosts[us].node, false),
                                                gids_of(topology, hosts[us].node, true));
    for (const Question& question : all)
        compare(question, simulated, real);
    std::printf("%s: %zu questions, %zu answered equally\n", site.name, all.size(), equal_);
}

INSTANTIATE_TEST_SUITE_P(
    Sites, SaComparison,
    testing::Values(Site{"uneven", uneven_spines, "Us", "Far1"},
                    Site{"woven", woven(3), "H0", "H1"},
                    Site{"woven_lmc1", woven(3), "H0", "H1", 1},
                    Site{"woven_lmc2", woven(3), "H0", "H1", 2},
                    Site{"one_port", uneven_spines, "Near", "Far1"},
                    Site{"limited",
                         uneven_spines,
                         "Near",
                         "Far1",
                         0,
                         "Default=0x7fff : ALL=limited, SELF=full;\n"
                         "Second=0x0001 : 0x100001=full, 0x100004=limited, 0x100006=full;\n",
                         {{0x100001, {0x7FFF, 0x8001}},
                          {0x100002, {0x7FFF}},
                          {0x100004, {0x7FFF, 0x0001}},
                          {0x100006, {0xFFFF, 0x8001}},
                          {0x100008, {0x7FFF}}}},
                    Site{"two_tier", two_tier(), "H-0a1b2c03001c2a10", "H-0a1b2c03001c2a90"}),
    [](const auto& site) { return site.param.name; });

}  // namespace
