// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "bench/bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>

namespace bench {

gx_gid_t peer_gid(u32 n) {
    gx_gid_t gid = {};
    gid.raw[15] = 0xFE;
    gid.raw[14] = 0x80;
    // Port GUIDs of one maker's adapters: they differ in their lowest bytes.
    const u64 guid = 0x0A1B2C0300000001ull + u64{n} * 4;
    __builtin_memcpy(gid.raw, &guid, sizeof guid);
    return gid;
}

tarv_arp_data_t peer_record(u32 n) {
    tarv_arp_data_t record = {};
    record.mask = 0x3FF;  // all that ARP and the SA tell
    record.src_ip = our_ip;
    record.dst_ip = peer_ip(n);
    record.gid = peer_gid(n);
    record.qpn = 0x48;
    record.lid = static_cast<u16>(n + 1);
    record.qkey = 0xB1B;
    record.local_port_num = 1;
    record.paths_count = 2;
    for (ib_path_record_v2_t& path : record.paths) {
        path.dgid = record.gid;
        path.dlid = record.lid;
        path.pkey = 0xFFFF;
    }
    return record;
}

void stop_because(const char* what) {
    std::fprintf(stderr, "bench: %s\n", what);
    std::abort();
}

std::vector<u32> shuffled(u32 count, u32 seed) {
    std::vector<u32> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0u);
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(seed));
    return numbers;
}

int run(int argc, char** argv, void (*register_rows)(), void (*finish)()) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::AddCustomContext("compiler", __VERSION__);
    benchmark::AddCustomContext("entry_bytes", std::to_string(sizeof(tarv_hash_entry_t)));
    benchmark::AddCustomContext("record_bytes", std::to_string(sizeof(tarv_arp_data_t)));
    benchmark::AddCustomContext("host", host_name);
    const Host host;
    register_rows();
    benchmark::RunSpecifiedBenchmarks();
    if (finish)
        finish();
    return 0;
}

}  // namespace bench
