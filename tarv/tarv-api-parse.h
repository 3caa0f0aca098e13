// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The words of a command: numbers, IPv4 addresses, GIDs.
#pragma once

#include "platform/string.h"
#include "tarv/logger.h"
#include "tarv/tarv.h"

/* A number in base 0; what is none counts as 0. The caller truncates it to the width of its field.
 */
inline unsigned long parse_number(const char* word) {
    return simple_strtoul(word, nullptr, 0);
}

/* A dotted quad, into network byte order. Only the low 8 bits of each number are looked at, and
 * nothing behind the fourth. tarv_stat_error when there are fewer. Changes the word. */
inline tarv_stat_t parseipstr(char* s, u32* ip) {
    u32 address = 0;
    for (u32 i = 0; i < 4; i++) {
        const char* piece = kstrsep(&s, ".");
        if (!piece)
            return tarv_stat_error;
        const u32 value = static_cast<u32>(simple_strtoul(piece, nullptr, 10));
        if (value == 0xFFFFFFFF)
            return tarv_stat_error;
        address |= (value & 0xFF) << (8 * i);
    }
    *ip = address;
    return tarv_stat_ok;
}

/* The value of a hexadecimal digit; 16 for any other character. */
inline u32 parse_hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<u32>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<u32>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F')
        return static_cast<u32>(c - 'A' + 10);
    return 16;
}

/* "0x" and up to 32 hexadecimal digits: the GID as one number, least significant byte first in
 * `*gid`. tarv_stat_error, after saying why, for anything else. */
inline tarv_stat_t parsegidstr(char* s, gx_gid_t* gid) {
    constexpr char tarv_unit[] = "tarv_api";
    *gid = {};
    const size_t length = kstrlen(s);
    if (length > 2 + 2 * sizeof gid->raw || length < 3) {
        TARV_LOG(TARV_ERROR, "The gid string is too long or too short\n");
        return tarv_stat_error;
    }
    if (s[0] != '0' || s[1] != 'x') {
        TARV_LOG(TARV_ERROR, "The gid string should start with 0x\n");
        return tarv_stat_error;
    }
    const size_t digits = length - 2;
    for (size_t i = 0; i < digits; i++) {
        const u32 value = parse_hex_digit(s[length - 1 - i]);
        if (value > 15) {
            TARV_LOG(TARV_ERROR, "Invalid character found in gid address.\n");
            return tarv_stat_error;
        }
        gid->raw[i / 2] |= static_cast<u8>(i % 2 ? value << 4 : value);
    }
    return tarv_stat_ok;
}
