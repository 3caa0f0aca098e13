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

/* What a line of either text tells of an entry. It is copied out under the lock, and put into words
 * when that has been given back. */
struct row_t {
    u32 mask;
    u32 dst_ip;
    u32 qpn;
    gx_lid_t lid;

    explicit row_t(const tarv_arp_data_t& record)
        : mask(record.mask), dst_ip(record.dst_ip), qpn(record.qpn), lid(record.lid) {}
    row_t() : mask(0), dst_ip(0), qpn(0), lid(0) {}
};

void put_line(char* at, const row_t& row) {
    __builtin_memcpy(at, blank_line, line_length);
    put_address(at + address_at, row.dst_ip);
    put_hex(at + mask_at, row.mask);
    put_upper_byte(at + lid_at, row.lid >> 8);
    put_upper_byte(at + lid_at + 3, row.lid);
}

/* Copies what is told of the entries, in table order, as many as `room` says, to places that are
 * `stride` bytes apart; returns how many that is. As the length of each chain is known, its rows
 * can be written before those of the chains in front of it. */
u32 copy_rows(char* rows, size_t stride, u32 room) TA_REQ_SHARED(tarv_lock) {
    u32 row_of[TARV_HASH_BUCKETS];
    u32 count = 0;
    for (u32 bucket = 0; bucket < TARV_HASH_BUCKETS; bucket++) {
        row_of[bucket] = count;
        count += tarv_hash_lengths[bucket];
    }
    tarv_hash_walk_t walk(offsetof(tarv_hash_entry_t, arp_data.lid));
    while (const tarv_hash_entry_t* const entry = walk.next()) {
        const u32 at = row_of[walk.bucket()]++;
        if (at >= room)
            continue;
        const row_t row(entry->arp_data);
        __builtin_memcpy(rows + at * stride, &row, sizeof row);
    }
    return count < room ? count : room;
}

/* Where the next part of a dump begins: behind the entry with that number, in that chain. */
struct place_t {
    u32 bucket = 0;
    u64 number = ~u64{0};
};

/* Copies the next few rows, as many as `room` says; returns how many there were. */
u32 copy_rows_from(place_t& place, row_t* rows, u32 room) TA_REQ_SHARED(tarv_lock) {
    u32 count = 0;
    for (; place.bucket < TARV_HASH_BUCKETS; place = {place.bucket + 1, ~u64{0}}) {
        for (const tarv_hash_entry_t* entry = tarv_table.hash_buckets[place.bucket]; entry;
             entry = entry->next) {
            if (entry->number >= place.number)
                continue;
            if (count == room)
                return count;
            rows[count++] = row_t(entry->arp_data);
            place.number = entry->number;
        }
    }
    return count;
}

void print_header(u32 size) {
    printk("\n\nIB-Arp Table entries: %d\n", size);
    printk("********************\n");
    printk("Ip             \tLid     \tQPN     \n");
}

void print_rows(const row_t* rows, u32 count) {
    for (const row_t* row = rows; row != rows + count; row++) {
        if (row->mask & TARV_MASK_DST_IP)
            printk("%03d.%03d.%03d.%03d", TARV_IP_BYTES(row->dst_ip));
        else
            printk("NA      ");
        if (row->mask & TARV_MASK_LID)
            printk("\t0x%08X", row->lid);
        else
            printk("\tNA      ");
        if (row->mask & TARV_MASK_QPN)
            printk("\t0x%08X", row->qpn);
        else
            printk("\tNA      ");
        printk("\n");
    }
}

/* Prints a picture of one moment in `rows`; false: the table does not fit there. */
bool dump_at_once(row_t* rows, u32 room) TA_EXCL(tarv_lock) {
    u32 size = 0;
    {
        const read_guard guard(tarv_lock);
        size = tarv_table.size;
        if (size > room)
            return false;
        copy_rows(reinterpret_cast<char*>(rows), sizeof *rows, room);
    }
    print_header(size);
    print_rows(rows, size);
    return true;
}

/* The same without memory for a picture: part by part, each as it is then. */
void dump_in_parts() TA_EXCL(tarv_lock) {
    row_t rows[32];
    place_t place;
    u32 size = 0;
    u32 count = 0;
    const auto copy_part = [&] {
        const read_guard guard(tarv_lock);
        size = tarv_table.size;
        count = copy_rows_from(place, rows, sizeof rows / sizeof rows[0]);
    };
    copy_part();
    print_header(size);
    while (count) {
        print_rows(rows, count);
        copy_part();
    }
}

/* The table's size before its lock is taken: a guess at the room that is needed. */
u32 expected_size() TA_NO_ANALYSIS {
    return read_once(tarv_table.size);
}

}  // namespace

void tarv_hash_dump() {
    // Some entries may come until the lock is taken.
    const u32 room = expected_size() + 64;
    auto* const rows = static_cast<row_t*>(kmalloc(room * sizeof(row_t), GFP_KERNEL));
    if (!rows || !dump_at_once(rows, room))
        dump_in_parts();
    kfree(rows);
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
    // Each row waits at the place of its line.
    static_assert(sizeof(row_t) <= line_length);
    char* const body = text + header_length;
    u32 lines = 0;
    {
        const read_guard guard(tarv_lock);
        lines = copy_rows(body, line_length, room);
    }
    for (size_t i = 0; i < lines; i++) {
        row_t row;
        __builtin_memcpy(&row, body + i * line_length, sizeof row);
        put_line(body + i * line_length, row);
    }
    *len = header_length + lines * line_length;
    text[*len] = '\0';
    *buffer = text;
}
