// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tarv/sa-mads.h"

void ntoh(char* destination, char* source, u8 size) {
    if (destination == source) {
        for (u32 i = 0, j = size; i + 1 < j; i++) {
            j--;
            const char byte = destination[i];
            destination[i] = destination[j];
            destination[j] = byte;
        }
        return;
    }
    for (u32 i = 0; i < size; i++)
        destination[i] = source[size - 1 - i];
}

void ib_path_record_from_wire(const void* wire_bytes, ib_path_record_v2_t* path) {
    ib_path_record_v2_t wire;
    __builtin_memcpy(&wire, wire_bytes, sizeof wire);
    *path = {};
    ntoh(reinterpret_cast<char*>(path->dgid.raw), reinterpret_cast<char*>(wire.dgid.raw),
         sizeof wire.dgid);
    ntoh(reinterpret_cast<char*>(path->sgid.raw), reinterpret_cast<char*>(wire.sgid.raw),
         sizeof wire.sgid);
    path->dlid = __builtin_bswap16(wire.dlid);
    path->slid = __builtin_bswap16(wire.slid);
    path->flow_word = __builtin_bswap32(wire.flow_word);
    path->reserved3 = 0;
    path->traffic_class = wire.traffic_class;
    path->numb_path = 1;
    path->pkey = __builtin_bswap16(wire.pkey);
    path->sl_word = __builtin_bswap16(wire.sl_word);
    path->reserved4 = 0;
    path->mtu_selector = wire.mtu_selector;
    path->mtu = wire.mtu;
    path->rate_selector = wire.rate_selector;
    path->rate = wire.rate;
    path->pkt_life_time_selector = wire.pkt_life_time_selector;
    path->pkt_life_time = wire.pkt_life_time;
}
