// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "platform/string.h"

#include <cstdarg>
#include <cstring>

#include "host/format.h"

int kstrcmp(const char* a, const char* b) {
    return std::strcmp(a, b);
}

size_t kstrlen(const char* s) {
    return std::strlen(s);
}

char* kstrsep(char** s, const char* separators) {
    return strsep(s, separators);
}

static unsigned digit_value(char c) {
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a') + 10;
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A') + 10;
    return ~0u;
}

/* A "0x" without a digit behind it is the number 0 and then a letter. */
static unsigned detect_base(const char* s) {
    if (s[0] != '0')
        return 10;
    return s[1] == 'x' && digit_value(s[2]) < 16 ? 16 : 8;
}

unsigned long simple_strtoul(const char* s, char** end, unsigned int base) {
    if (base == 0) {
        base = detect_base(s);
        if (base == 16)
            s += 2;
    }
    unsigned long value = 0;
    for (; digit_value(*s) < base; ++s)
        value = value * base + digit_value(*s);
    if (end)
        *end = const_cast<char*>(s);
    return value;
}

int kisspace(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r') || c == 0xA0;
}

int ksnprintf(char* buffer, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const size_t length = host::format_text(buffer, size, format, arguments);
    va_end(arguments);
    return static_cast<int>(length);
}
