// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A client of the GSI service in the module's place: it asks for paths as the module does and keeps
// what came back.
#pragma once

#include <cstring>
#include <vector>

#include "platform/gsi.h"
#include "tests/support/fabric_test.h"

namespace fabric_testing {

/// An answer as the receive callback found it.
struct Received {
    fabric::Bytes mad;
    fabric::Bytes block;  ///< empty: it came in one MAD
    int paysize = 0;
    unsigned long jiffies = 0;

    std::uint16_t attribute() const { return host16(16); }
    std::uint16_t status() const { return static_cast<std::uint16_t>(mad[4] << 8 | mad[5]); }

    /// The whole records, as many as the size says; none of a refusal, which is the query.
    std::vector<fabric::PathRecord> records() const {
        if (status() != 0)
            return {};
        std::span<const std::uint8_t> from =
            block.empty() ? std::span(mad).subspan(fabric::sa_offset) : std::span(block);
        std::vector<fabric::PathRecord> all;
        for (int at = 20; at + 64 <= paysize; at += 64)
            all.push_back(
                *fabric::decode<fabric::PathRecord>(from.subspan(static_cast<std::size_t>(at))));
        return all;
    }

  private:
    std::uint16_t host16(std::size_t at) const {
        std::uint16_t value;
        std::memcpy(&value, &mad[at], sizeof value);
        return value;
    }
};

class GsiClient {
  public:
    explicit GsiClient(u8 port = 1, u32 pool_size = 4) {
        EXPECT_EQ(
            gsi_register_class(3, 2, gx_default_hca_name(), port, 0, 1, sent, got, this, &handle),
            0);
        EXPECT_EQ(gsi_dtgrm_pool_create_named(pool_size, &pool, "test"), 0);
    }
    ~GsiClient() {
        if (pool != nullptr)
            close();
    }
    void close() {
        while (gsi_deregister_class(handle) != 0)
            host::Kernel::current().settle();
        gsi_dtgrm_pool_destroy(pool);
        pool = nullptr;
    }

    gsi_dtgrm_t* get() {
        gsi_dtgrm_t* dtgrm = nullptr;
        EXPECT_EQ(gsi_dtgrm_pool_get(pool, &dtgrm), 0);
        return dtgrm;
    }

    /// The module's query: its own component mask, three paths, the default partition.
    gsi_dtgrm_t* query(const std::vector<fabric::Gid>& sgids, const fabric::Gid& dgid,
                       u16 sm_lid = 1) {
        gsi_dtgrm_t* dtgrm = get();
        std::memset(dtgrm->mad, 0, sizeof dtgrm->mad);
        const u8 header[] = {1, 3, 2, 0x14};
        std::memcpy(dtgrm->mad, header, sizeof header);
        dtgrm->mad[16] = 0x3A;
        std::memset(dtgrm->mad + 20, 0xFF, 4);
        dtgrm->rqp = 1;
        dtgrm->rqk = 0;
        dtgrm->rlid = sm_lid;
        dtgrm->sl = 0;
        dtgrm->path_bits = 0;
        dtgrm->rmpp_dir_switch_needed = 1;
        auto* block = static_cast<u8*>(gsi_dtgrm_alloc_rmpp_buf(dtgrm, 220));
        block[9] = 3;
        const u8 mask[] = {0, 0,   static_cast<u8>(sgids.size() > 1 ? 0x70 : 0x30), 0, 0, 0x0C,
                           0, 0xC0};
        std::memcpy(block + 12, mask, sizeof mask);
        fabric::MultiPathRecord record;
        record.pkey = 0xFFFF;
        record.numb_path = 3;
        record.independence = 1;
        record.sgid_count = static_cast<u8>(sgids.size());
        record.dgid_count = 1;
        fabric::encode(record, std::span(block + 20, 24));
        u8* at = block + 44;
        for (const fabric::Gid& sgid : sgids)
            at = std::copy(sgid.begin(), sgid.end(), at);
        std::copy(dgid.begin(), dgid.end(), at);
        return dtgrm;
    }

    /// Asks for the paths to a host's port; time passes until the answer should be there.
    void ask(std::uint64_t guid, const std::vector<fabric::Gid>& sgids = {gid(0x1001)}) {
        EXPECT_EQ(gsi_post_send_dtgrm(handle, query(sgids, gid(guid))), 0);
        host::Kernel::current().advance(2);
    }

    gsi_class_handle_t handle = nullptr;
    gsi_dtgrm_pool_handle_t pool = nullptr;
    int sends = 0;
    std::vector<Received> answers;

  private:
    static void sent(gsi_class_handle_t, void* context, gsi_dtgrm_t* dtgrm) {
        EXPECT_EQ(host::current_context(), host::Context::gsi);
        static_cast<GsiClient*>(context)->sends++;
        gsi_dtgrm_pool_put(dtgrm);
    }

    static void got(gsi_class_handle_t, void* context, gsi_dtgrm_t* dtgrm) {
        EXPECT_EQ(host::current_context(), host::Context::gsi);
        Received answer;
        answer.mad.assign(dtgrm->mad, dtgrm->mad + sizeof dtgrm->mad);
        auto* block = static_cast<u8*>(gsi_dtgrm_get_rmpp_buf(dtgrm, &answer.paysize));
        if (block != nullptr)
            answer.block.assign(block, block + answer.paysize);
        answer.jiffies = host::Kernel::current().jiffies();
        static_cast<GsiClient*>(context)->answers.push_back(answer);
        gsi_dtgrm_pool_put(dtgrm);
    }
};

}  // namespace fabric_testing
