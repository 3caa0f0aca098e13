// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The kernel's string and number helpers. Context of all: any.
#pragma once

#include "platform/types.h"

/* Compares byte by byte: 0 when the strings are equal, else negative or positive. */
int kstrcmp(const char* a, const char* b) PLATFORM_LINK(strcmp);

/* The number of characters before the NUL. */
size_t kstrlen(const char* s) PLATFORM_LINK(strlen);

/* Cuts the next piece off `*s` at the first of the characters of `separators`, which becomes a NUL;
 * `*s` moves behind it, or becomes null after the last piece. Null when `*s` was null. */
char* kstrsep(char** s, const char* separators) PLATFORM_LINK(strsep);

/* The number at the start of `s`. Base 0: "0x" and a hexadecimal digit select 16, another leading
 * "0" selects 8, anything else 10. Stops at the first character that is no digit; no digit gives 0;
 * no sign, no blanks. `*end`, where `end` is given, is where it stopped. */
unsigned long simple_strtoul(const char* s, char** end, unsigned int base)
    PLATFORM_LINK(simple_strtoul);

/* Nonzero for white space of the kernel's Latin-1 classification: blank, \t to \r, and 0xA0. */
int kisspace(unsigned char c) PLATFORM_LINK(isspace);

/* Formats as printk does into `size` bytes, NUL included; the result is the length that the whole
 * text has. */
int ksnprintf(char* buffer, size_t size, const char* format, ...) PLATFORM_LINK(snprintf)
    PLATFORM_FORMAT(3, 4);
