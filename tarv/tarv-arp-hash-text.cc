// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table as text: for the console, and in the layout of the kernel's own ARP table.
#include "platform/atomic.h"
#include "platform/memory.h"
#include "platform/string.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash-private.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";

constexpr char header[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";
constexpr u32 header_length = sizeof header - 1;

/* What one line, its share of the header included, is allowed to take. */
constexpr u32 room_per_line = 80;

/* A line of an entry without address, mask and LID: all lines are of one length. */
constexpr char blank_line[] =
    "                 0x1         0x          00:AA:00:00:00:00     *        ipoib\n";
constexpr u32 line_length = sizeof blank_line - 1;
constexpr u32 address_at = 0;
constexpr u32 mask_at = 31;
constexpr u32 lid_at = 53;

static_assert(header_length == 79 && line_length == 78);
static_assert(blank_line[mask_at - 1] == 'x' && blank_line[lid_at - 1] == ':');

constexpr char lower_digits[] = "0123456789abcdef";
constexpr char upper_digits[] = "0123456789ABCDEF";

char* put_decimal(char* at, u32 byte) {
    if (byte >= 100)
        *at++ = lower_digits[byte / 100];
    if (byte >= 10)
        *at++ = lower_digits[byte / 10 % 10];
    *at++ = lower_digits[byte % 10];
    return at;
}

void put_address(char* at, u32 address) {
    for (u32 i = 0; i < 4; i++, address >>= 8) {
        if (i)
            *at++ = '.';
        at = put_decimal(at, address & 0xFF);
    }
}

void put_hex(char* at, u32 number) {
    u32 digits = 1;
    while (digits < 8 && number >> (4 * digits))
        digits++;
    while (digits--)
        *at++ = lower_digits[number >> (4 * digits) & 0xF];
}

void put_upper_byte(char* at, u32 byte) {
    at[0] = upper_digits[byte >> 4 & 0xF];
    at[1] = upper_digits[byte & 0xF];
}

void put_line(char* at, const tarv_arp_data_t& record) {
    __builtin_memcpy(at, blank_line, line_length);
    put_address(at + address_at, record.dst_ip);
    put_hex(at + mask_at, record.mask);
    put_upper_byte(at + lid_at, record.lid >> 8);
    put_upper_byte(at + lid_at + 3, record.lid);
}

/* Writes the lines of the entries in table order, as many as `room` lines hold; returns how many
 * that is. As every line has the same length, a chain's lines can be written before those of the
 * chains in front of it, once it is known how many these are. */
u32 put_lines(char* text, u32 room) TA_REQ_SHARED(tarv_lock) {
    u32 lengths[TARV_HASH_BUCKETS] = {};
    for (tarv_hash_walk_t walk; walk.next();)
        lengths[walk.bucket()]++;
    u32 line_of[TARV_HASH_BUCKETS];
    u32 count = 0;
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        line_of[bucket] = count;
        count += lengths[bucket];
    }
    tarv_hash_walk_t walk(offsetof(tarv_hash_entry_t, arp_data.lid));
    while (const tarv_hash_entry_t* const entry = walk.next()) {
        const u32 line = line_of[walk.bucket()]++;
        if (line < room)
            put_line(text + static_cast<size_t>(line) * line_length, entry->arp_data);
    }
    return count < room ? count : room;
}

/* The table's size before its lock is taken: a guess at the room that is needed. */
u32 expected_size() TA_NO_ANALYSIS {
    return read_once(tarv_table.size);
}

}  // namespace

void tarv_hash_dump() {
    const read_guard guard(tarv_lock);
    printk("\n\nIB-Arp Table entries: %d\n", tarv_table.size);
    printk("********************\n");
    printk("Ip             \tLid     \tQPN     \n");
    for (const tarv_hash_entry_t* head : tarv_table.hash_buckets) {
        for (const tarv_hash_entry_t* entry = head; entry; entry = entry->next) {
            const tarv_arp_data_t& record = entry->arp_data;
            if (record.mask & TARV_MASK_DST_IP)
                printk("%03d.%03d.%03d.%03d", TARV_IP_BYTES(record.dst_ip));
            else
                printk("NA      ");
            if (record.mask & TARV_MASK_LID)
                printk("\t0x%08X", record.lid);
            else
                printk("\tNA      ");
            if (record.mask & TARV_MASK_QPN)
                printk("\t0x%08X", record.qpn);
            else
                printk("\tNA      ");
            printk("\n");
        }
    }
    printk("\n\n");
}

void tarv_hash_print_to_string(char** buffer, u32* len) {
    *buffer = nullptr;
    const size_t size = (static_cast<size_t>(expected_size()) + 1) * room_per_line;
    char* text = static_cast<char*>(kmalloc(size, GFP_KERNEL));
    if (!text) {
        TARV_LOG(TARV_ERROR, "Can't allocate output buffer.\n");
        *len = 0;
        return;
    }
    const u32 room = static_cast<u32>((size - header_length - 1) / line_length);
    __builtin_memcpy(text, header, header_length);
    u32 lines = 0;
    {
        const read_guard guard(tarv_lock);
        lines = put_lines(text + header_length, room);
    }
    *len = header_length + lines * line_length;
    text[*len] = '\0';
    *buffer = text;
}
