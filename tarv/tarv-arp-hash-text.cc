// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table as text: for the console, and in the layout of the kernel's own ARP table.
#include "platform/atomic.h"
#include "platform/memory.h"
#include "platform/string.h"
#include "tarv/logger.h"
#include "tarv/tarv-arp-hash.h"

namespace {

constexpr char tarv_unit[] = "tarv_arp_hash";

constexpr char header[] =
    "IP address       HW type     Flags       HW address            Mask     Device\n";
constexpr u32 header_length = sizeof header - 1;

/* What one line, its share of the header included, is allowed to take. */
constexpr u32 room_per_line = 80;

/* An entry's line with its NUL: there must be room for it before it is written. */
constexpr u32 line_size = 79;

static_assert(header_length == 79);

u32 print_entry(char* at, const tarv_arp_data_t& record) {
    char address[16];
    char hw_address[18];
    ksnprintf(address, sizeof address, "%u.%u.%u.%u", TARV_IP_BYTES(record.dst_ip));
    ksnprintf(hw_address, sizeof hw_address, "00:AA:00:00:%02X:%02X", record.lid >> 8,
              record.lid & 0xFF);
    return static_cast<u32>(ksnprintf(at, line_size, "%-16s 0x%-10x0x%-10x%s     *        %s\n",
                                      address, 1, record.mask, hw_address, "ipoib"));
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
    const read_guard guard(tarv_lock);
    __builtin_memcpy(text, header, sizeof header);
    u32 length = header_length;
    for (const tarv_hash_entry_t* head : tarv_table.hash_buckets) {
        for (const tarv_hash_entry_t* entry = head; entry && length + line_size <= size;
             entry = entry->next)
            length += print_entry(text + length, entry->arp_data);
    }
    *buffer = text;
    *len = length;
}
