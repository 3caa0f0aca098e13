// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Path queries byte for byte, what each failure of one leaves, and which answers reach the client.
#include "tarv/tarv-sa-private.h"
#include "tests/support/module_test.h"

namespace {

using support::port_gid;

/// What the client was handed.
struct Delivery {
    std::vector<ib_path_record_v2_t> paths;
    u32 port;
};
std::vector<Delivery> deliveries;

void paths_arrived(ib_path_record_v2_t* paths, int count, u32 port) {
    host::must_hold_no_lock("the new-path callback");
    deliveries.push_back({{paths, paths + count}, port});
}
int elsewhere;
void paths_arrived_elsewhere(ib_path_record_v2_t*, int, u32) {
    elsewhere++;
}

std::string hex(const void* bytes, std::size_t size) {
    return support::hex({static_cast<const u8*>(bytes), size});
}
std::string repeated(const std::string& text, std::size_t count) {
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

class SaQuery : public support::SaTest {
  protected:
    explicit SaQuery(int our_ports = 2) : SaTest(our_ports) {
        deliveries.clear();
        // Nothing stands between the module and the wire but byte order.
        fabric.gsi().set_translations({false, false});
        fabric.sa().speak(fabric::SaDialect::original);
        fabric.on_packet([this](const fabric::SeenPacket& seen) {
            if (seen.direction == fabric::Direction::out &&
                !fabric::is_rmpp_control(seen.packet.payload))
                sent.push_back({seen.port, seen.packet});
        });
    }
    void set_up(const std::vector<int>& ports) {
        for (const int port : ports)
            ASSERT_EQ(tarv_sa_init(paths_arrived, port), tarv_stat_ok);
    }
    tarv_stat_t query(u32 port = 1) {
        gx_gid_t destination = bob;
        return tarv_sa_query_path(port, &destination);
    }
    /// A query and its answer, if there is one.
    void ask(u32 port = 1) {
        ASSERT_EQ(query(port), tarv_stat_ok);
        kernel.advance(100);
        EXPECT_EQ(fabric.gsi().datagrams_out(), 0u);
    }
    /// The counters of queries.
    std::string counters() {
        console();
        tarv_sa_show_stat();
        const std::string text = console()[0];
        const std::size_t begin = text.find("port: ");
        return text.substr(begin, text.find(", dgram") - begin);
    }

    struct Sent {
        int port;
        fabric::Packet packet;
    };
    const gx_gid_t bob = port_gid(0x2001);
    std::vector<Sent> sent;
};

/// A query for one or two source ports: the third byte of its component mask, their number, and
/// their GIDs' last bytes.
struct Bytes {
    const char* name;
    std::vector<int> ports;
    const char* mask_byte;
    const char* sgid_count;
};
class QueryBytes : public SaQuery, public testing::WithParamInterface<Bytes> {
  protected:
    static constexpr char prefix[] = "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 ";
};
TEST_P(QueryBytes, AreTheSameEveryTime) {
    const Bytes& row = GetParam();
    fabric.move_sm(12, 6);
    gx_gid_t gids[3];
    std::string list;
    int count = 0;
    for (const int port : row.ports) {
        set_up({port});
        gids[count++] = port_gid(0x1000 + static_cast<unsigned>(port));
        list += prefix + std::string("10 0") + std::to_string(port) + " ";
    }
    gids[count] = bob;
    gsi_dtgrm_t* dtgrm = nullptr;
    ASSERT_EQ(tarv_sa_build_multi_path_rec_query_mad(1, count, 1, gids, &dtgrm), tarv_stat_ok);

    // In host order between the module and the service.
    EXPECT_EQ(hex(dtgrm->mad, 256), "01 03 02 14 00 00 00 00 " + repeated("00 ", 8) +
                                        "3a 00 00 00 ff ff ff ff " + repeated("00 ", 232));
    const std::string block = repeated("00 ", 8) + "00 03 00 00 00 00 " + row.mask_byte +
                              " 00 00 0c 00 c0 00 00 00 00 00 03 ff ff 00 00 00 00 00 00 40 " +
                              row.sgid_count + " 01 " + repeated("00 ", 7) + list + prefix +
                              "20 01 ";
    ASSERT_EQ(dtgrm->rmpp_payload_size, 220u);
    EXPECT_EQ(hex(dtgrm->rmpp_payload, 220), block + repeated("00 ", 220 - block.size() / 3));
    // The service fills a new datagram with A5.
    const std::string address = hex(&dtgrm->rmpp_dir_switch_needed, 435 - 404);
    EXPECT_EQ(address, "01 00 00 00 01 00 00 00 00 00 00 00 0c 00 06 a5 a5 a5 a5 " +
                           repeated("00 ", 10) + "a5 a5 ");
    gsi_dtgrm_pool_put(dtgrm);

    ask();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].port, 1);
    EXPECT_EQ(sent[0].packet.dlid, 12);
    EXPECT_EQ(sent[0].packet.sl, 6);
    EXPECT_EQ(sent[0].packet.dest_qp, 1u);
    const std::vector<u8>& wire = sent[0].packet.payload;
    ASSERT_GE(wire.size(), 256u);
    EXPECT_EQ(hex(wire.data(), 8), "01 03 02 14 00 00 00 00 ");
    EXPECT_EQ(hex(wire.data() + 16, 8), "00 3a 00 00 ff ff ff ff ");
    EXPECT_EQ(hex(wire.data() + 36, block.size() / 3), block);
}
INSTANTIATE_TEST_SUITE_P(Queries, QueryBytes,
                         testing::Values(Bytes{"one_port", {1}, "30", "01"},
                                         Bytes{"two_ports", {1, 2}, "70", "02"}),
                         support::row_name);

/// Which ports are set up, which one sends, and whose GIDs the query names.
struct Sources {
    const char* name;
    std::vector<int> valid;
    u32 sender;
    std::vector<int> named;
};
class QuerySources : public SaQuery, public testing::WithParamInterface<Sources> {
  protected:
    QuerySources() : SaQuery(4) {}
};
TEST_P(QuerySources, AreTheSenderAndTheLowestOther) {
    set_up(GetParam().valid);
    trace(TARV_DEBUG);
    ask(GetParam().sender);
    EXPECT_EQ(told("tarv_sa")[0],
              "D tarv_sa_query_path: " + std::to_string(GetParam().named.size()) +
                  " sgids passed to tarv_sa_build_multi_path_rec_query_mad()");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].port, static_cast<int>(GetParam().sender));
    const std::vector<u8>& wire = sent[0].packet.payload;
    EXPECT_EQ(wire[36 + 20 + 15], GetParam().named.size());
    EXPECT_EQ(wire[36 + 20 + 16], 1);
    std::vector<int> named;
    for (std::size_t i = 0; i < GetParam().named.size(); i++)
        named.push_back(wire[36 + 20 + 24 + 16 * i + 15]);
    EXPECT_EQ(named, GetParam().named);
    EXPECT_EQ(wire[36 + 20 + 24 + 16 * named.size() + 14], 0x20) << "then the destination";
}
INSTANTIATE_TEST_SUITE_P(Ports, QuerySources,
                         testing::Values(Sources{"only_the_sender", {3}, 3, {3}},
                                         Sources{"lower_first", {2, 1}, 2, {1, 2}},
                                         Sources{"first_of_three", {1, 2, 3}, 1, {1, 2}},
                                         Sources{"last_of_three", {1, 2, 3}, 3, {1, 3}},
                                         Sources{"last_of_four", {4, 3, 2, 1}, 4, {1, 4}},
                                         Sources{"third_of_later_ones", {2, 3, 4}, 3, {2, 3}}),
                         support::row_name);

/// A query that fails: on which port, at which service (null: none), what the build and the query
/// log, and the counters of ports and of datagrams.
struct Failure {
    const char* name;
    u32 port;
    const char* service;
    const char* build;
    const char* query;
    const char* counters;
};
class QueryFailures : public SaQuery, public testing::WithParamInterface<Failure> {};
TEST_P(QueryFailures, LeaveNothing) {
    const Failure& row = GetParam();
    set_up({1});
    const auto fail = [&] {
        host::clear_faults();
        if (row.service && std::string(row.service) == "nothing")
            fabric.gsi().hand_out_nothing_next();
        else if (row.service)
            host::fail_nth(row.service, 1);
        return query(row.port);
    };
    trace(TARV_DEBUG);
    EXPECT_EQ(fail(), tarv_stat_error);
    EXPECT_EQ(told_by("tarv_sa_build_multi_path_rec_query_mad", "tarv_sa"), row.build);
    EXPECT_EQ(fail(), tarv_stat_error);
    EXPECT_EQ(
        told_by("tarv_sa_query_path", "tarv_sa"),
        std::string("D 1 sgids passed to tarv_sa_build_multi_path_rec_query_mad()\n") + row.query);
    EXPECT_EQ(counters(), row.counters) << "both are counted";
    EXPECT_EQ(fabric.gsi().datagrams_out(), 0u);
    EXPECT_EQ(atomic_read(&tarv_gsi_pending_cnt), 0);
    ask();
    EXPECT_EQ(deliveries.size(), 1u) << "the next query is a good one";
}
constexpr char bad_port[] = "E Invalid port object <is_valid:0>\n";
constexpr char failed[] = "D tarv_sa_build_multi_path_rec_query_mad() failed <-255>\n";
INSTANTIATE_TEST_SUITE_P(
    Steps, QueryFailures,
    testing::Values(
        Failure{"port_not_set_up", 2, nullptr, bad_port, failed, "port: 2, get: 0"},
        Failure{"port_zero", 0, nullptr, bad_port, failed, "port: 2, get: 0"},
        Failure{"port_beyond_the_records", 9, nullptr, bad_port, failed, "port: 2, get: 0"},
        Failure{"port_with_its_sign_bit", 1u << 31, nullptr, bad_port, failed, "port: 2, get: 0"},
        Failure{"last_port_of_all", ~0u, nullptr, bad_port, failed, "port: 2, get: 0"},
        Failure{"no_datagram", 1, "gsi_dtgrm_pool_get", "E gsi_dtgrm_pool_get() failed <-2>\n",
                failed, "port: 0, get: 2"},
        Failure{"null_datagram", 1, "nothing",
                "E sa_mad->payload == NULL, or = 0x48: 00000000000000a0 (*dtgrm: "
                "0000000000000000)\n",
                failed, "port: 0, get: 0"},
        Failure{"no_block", 1, "gsi_dtgrm_alloc_rmpp_buf",
                "D Building RMPP payload\nE gsi_dtgrm_alloc_rmpp_buf() failed\n", failed,
                "port: 0, get: 0"},
        Failure{"not_posted", 1, "gsi_post_send_dtgrm",
                "D Building RMPP payload\nD Requesting 3 paths.\n",
                "D tarv_sa_build_multi_path_rec_query_mad() ok !!!\n"
                "D Sending the path query on port 1\n"
                "D Invalid port object <is_valid:1> or gsi_post_send_dtgrm() failed <-2>\n",
                "port: 0, get: 0"}),
    support::row_name);

/* The rest of its log stands in the log of a whole resolution. */
TEST_F(SaQuery, TracesTheEndOfItsSending) {
    set_up({1});
    trace(TARV_FUNC);
    ask();
    EXPECT_THAT(told("tarv_sa", masked()),
                testing::Contains("F tarv_sa_send_done_cb: Datagram <0xP> send on port #1 "
                                  "completed. Returning to pool ..."));
    ASSERT_EQ(deliveries.size(), 1u);
    const ib_path_record_v2_t& path = deliveries[0].paths[0];
    EXPECT_EQ(path.dgid, bob);
    EXPECT_EQ(path.dlid, 21);
    EXPECT_EQ(path.slid, 11);
    EXPECT_EQ(path.pkey, 0xFFFF);
    EXPECT_EQ(path.numb_path, 1);
}

/// A record towards `dlid` from the port with that GUID.
fabric::PathRecord record_from(std::uint64_t guid, std::uint16_t dlid) {
    fabric::PathRecord record;
    record.sgid = fabric::make_gid(fabric::default_subnet_prefix, guid);
    record.dgid = fabric::make_gid(fabric::default_subnet_prefix, 0x2001);
    record.dlid = dlid;
    return record;
}

/// An answer that is no good: how the SA is made to give it, and what the parse logs of it.
struct Bad {
    const char* name;
    void (*script)(fabric::Sa&);
    const char* parse;
};
class BadAnswers : public SaQuery, public testing::WithParamInterface<Bad> {};
TEST_P(BadAnswers, AreDropped) {
    set_up({1});
    for (const char* function :
         {"tarv_sa_parse_path_rec_query_mad_reply", "tarv_sa_recv_done_cb"}) {
        GetParam().script(fabric.sa());
        trace(TARV_DEBUG);
        ask();
        EXPECT_EQ(told_by(function, "tarv_sa"), function == std::string("tarv_sa_recv_done_cb")
                                                    ? "D Error processing the incoming MAD\n"
                                                    : GetParam().parse);
    }
    EXPECT_TRUE(deliveries.empty());
    ask();
    EXPECT_EQ(deliveries.size(), 1u) << "the next answer is a good one";
}
INSTANTIATE_TEST_SUITE_P(
    Headers, BadAnswers,
    testing::Values(Bad{"base_version", [](fabric::Sa& sa) { sa.answer_with_base_version(2, 1); },
                        "W Invalid base version<2>, mgmt class<3> or class version<2>\n"},
                    Bad{"management_class", [](fabric::Sa& sa) { sa.answer_with_class(4, 1); },
                        "W Invalid base version<1>, mgmt class<4> or class version<2>\n"},
                    Bad{"class_version", [](fabric::Sa& sa) { sa.answer_with_class_version(1, 1); },
                        "W Invalid base version<1>, mgmt class<3> or class version<1>\n"},
                    Bad{"attribute", [](fabric::Sa& sa) { sa.answer_with_attribute(0x35, 1); },
                        "W Invalid attribute ID. <0x0035>\n"},
                    Bad{"attribute_swapped",
                        [](fabric::Sa& sa) { sa.answer_with_attribute(0x3A00, 1); },
                        "W Invalid attribute ID. <0x3A00>\n"},
                    Bad{"status", [](fabric::Sa& sa) { sa.answer_with_status(0x0700, 1); },
                        "D Incoming mad has an error status <0x700> -> dropped.\n"},
                    Bad{"attribute_before_status",
                        [](fabric::Sa& sa) {
                            sa.answer_with_status(1, 1);
                            sa.answer_with_attribute(1, 1);
                        },
                        "W Invalid attribute ID. <0x0001>\n"},
                    Bad{"no_whole_record", [](fabric::Sa& sa) { sa.answer_truncated_to(83, 1); },
                        "D **** GSI returned payload size of 83 ****\n"
                        "D Non-RMPP reply received\n"
                        "D **** paysize - 20 = 63, sizeof ib_path_record_v2_t = 64 ****\n"},
                    Bad{"no_whole_record_in_segments",
                        [](fabric::Sa& sa) {
                            sa.answer_truncated_to(83, 1);
                            sa.answer_over_rmpp(64, 1);
                        },
                        "D **** GSI returned payload size of 83 ****\n"
                        "D RMPP reply received\n"
                        "D **** paysize - 20 = 63, sizeof ib_path_record_v2_t = 64 ****\n"}),
    support::row_name);

TEST_F(SaQuery, AnswerOfNoPortIsDropped) {
    set_up({1});
    fabric.sa().answer_with({record_from(0x1003, 51), record_from(0x1001, 52)});
    trace(TARV_DEBUG);
    ask();
    EXPECT_TRUE(deliveries.empty());
    EXPECT_EQ(told("tarv_sa").back(),
              "D tarv_sa_recv_done_cb: SGID of the incoming PATH_RECORD_REPLY does not match any "
              "of the local ports gids.");
}

TEST_F(SaQuery, AnswersGoToTheLastClientThatTriedASetUp) {
    set_up({1});
    elsewhere = 0;
    host::fail_nth("gx_hca_query", 1);
    EXPECT_EQ(tarv_sa_init(paths_arrived_elsewhere, 2), tarv_stat_error);
    ask();
    EXPECT_EQ(elsewhere, 1);
    EXPECT_EQ(tarv_sa_init(nullptr, 1), tarv_stat_error) << "refused: no new client";
    ask();
    EXPECT_EQ(elsewhere, 2);
    EXPECT_EQ(tarv_sa_init(nullptr, 2), tarv_stat_ok);
    ask();
    EXPECT_EQ(elsewhere, 2) << "without a client an answer is dropped";
    EXPECT_TRUE(deliveries.empty());
}

}  // namespace
