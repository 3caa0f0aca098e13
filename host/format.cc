// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "host/format.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace host {
namespace {

/* Takes characters without end and keeps those that fit. */
class Output {
  public:
    Output(char* buffer, std::size_t size) : buffer_(buffer), size_(size) {}

    void put(char c) {
        if (length_ + 1 < size_)
            buffer_[length_] = c;
        ++length_;
    }
    void put(std::string_view text) {
        for (const char c : text)
            put(c);
    }
    void fill(char c, int count) {
        for (; count > 0; --count)
            put(c);
    }
    std::size_t finish() {
        if (size_ > 0)
            buffer_[std::min(length_, size_ - 1)] = '\0';
        return length_;
    }

  private:
    char* buffer_;
    std::size_t size_;
    std::size_t length_ = 0;
};

struct Conversion {
    bool left = false, plus = false, blank = false, alternate = false, zero = false;
    int width = -1;
    int precision = -1;
    enum class Length { int_, char_, short_, long_, long_long } length = Length::int_;
    char kind = 0;
};

/* The arguments, passed on by reference: a va_list parameter cannot be. */
struct Arguments {
    va_list list;
};

int read_number(const char*& p) {
    int value = 0;
    for (; *p >= '0' && *p <= '9'; ++p)
        value = value * 10 + (*p - '0');
    return value;
}

void read_flags(const char*& p, Conversion& c) {
    for (;; ++p) {
        switch (*p) {
            case '-':
                c.left = true;
                break;
            case '+':
                c.plus = true;
                break;
            case ' ':
                c.blank = true;
                break;
            case '#':
                c.alternate = true;
                break;
            case '0':
                c.zero = true;
                break;
            default:
                return;
        }
    }
}

int read_size(const char*& p, Arguments& arguments) {
    if (*p != '*')
        return read_number(p);
    ++p;
    return va_arg(arguments.list, int);
}

void read_width(const char*& p, Conversion& c, Arguments& arguments) {
    if (*p == '*' || (*p >= '0' && *p <= '9'))
        c.width = read_size(p, arguments);
    if (c.width < -1) {
        c.left = true;
        c.width = -c.width;
    }
    if (*p == '.') {
        ++p;
        c.precision = std::max(0, read_size(p, arguments));
    }
}

void read_length(const char*& p, Conversion& c) {
    using Length = Conversion::Length;
    if (std::strncmp(p, "hh", 2) == 0 || std::strncmp(p, "ll", 2) == 0) {
        c.length = *p == 'h' ? Length::char_ : Length::long_long;
        p += 2;
    } else if (*p == 'h') {
        c.length = Length::short_;
        ++p;
    } else if (*p == 'L') {
        c.length = Length::long_long;
        ++p;
    } else if (*p != '\0' && std::strchr("lzZt", *p)) {
        c.length = Length::long_;
        ++p;
    }
}

Conversion read_conversion(const char*& p, Arguments& arguments) {
    Conversion c;
    read_flags(p, c);
    read_width(p, c, arguments);
    read_length(p, c);
    c.kind = *p;
    if (*p != '\0')
        ++p;
    return c;
}

/* A signed number comes out sign-extended. */
std::uint64_t take_integer(const Conversion& c, Arguments& arguments) {
    const bool is_signed = c.kind == 'd' || c.kind == 'i';
    using Length = Conversion::Length;
    if (c.length == Length::long_ || c.length == Length::long_long)
        return va_arg(arguments.list, unsigned long);
    const auto value = va_arg(arguments.list, unsigned int);
    const auto widen = [&](auto as_signed, auto as_unsigned) {
        return is_signed ? static_cast<std::uint64_t>(static_cast<std::int64_t>(as_signed))
                         : static_cast<std::uint64_t>(as_unsigned);
    };
    if (c.length == Length::char_)
        return widen(static_cast<signed char>(value), static_cast<unsigned char>(value));
    if (c.length == Length::short_)
        return widen(static_cast<short>(value), static_cast<unsigned short>(value));
    return widen(static_cast<int>(value), value);
}

std::string_view prefix_of(const Conversion& c, bool negative) {
    if (c.kind == 'd' || c.kind == 'i')
        return negative ? "-" : c.plus ? "+" : c.blank ? " " : "";
    if (!c.alternate)
        return "";
    return c.kind == 'x' ? "0x" : c.kind == 'X' ? "0X" : c.kind == 'o' ? "0" : "";
}

unsigned base_of(char kind) {
    return kind == 'x' || kind == 'X' ? 16 : kind == 'o' ? 8 : 10;
}

void put_integer(Output& out, const Conversion& c, std::uint64_t value) {
    const bool negative = (c.kind == 'd' || c.kind == 'i') && static_cast<std::int64_t>(value) < 0;
    if (negative)
        value = -value;
    const char* const alphabet = c.kind == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    const unsigned base = base_of(c.kind);
    char digits[32];
    char* first = digits + sizeof digits;
    do
        *--first = alphabet[value % base];
    while (value /= base);

    const std::string_view text(first, static_cast<std::size_t>(digits + sizeof digits - first));
    const std::string_view prefix = prefix_of(c, negative);
    const int length = static_cast<int>(text.size());
    int zeros = std::max(0, c.precision - length);
    int blanks = c.width - length - zeros - static_cast<int>(prefix.size());
    if (c.zero && !c.left && c.precision < 0) {
        zeros = std::max(0, blanks);
        blanks = 0;
    }
    if (!c.left)
        out.fill(' ', blanks);
    out.put(prefix);
    out.fill('0', zeros);
    out.put(text);
    if (c.left)
        out.fill(' ', blanks);
}

void put_padded(Output& out, const Conversion& c, std::string_view text) {
    const int blanks = c.width - static_cast<int>(text.size());
    if (!c.left)
        out.fill(' ', blanks);
    out.put(text);
    if (c.left)
        out.fill(' ', blanks);
}

void put_string(Output& out, const Conversion& c, const char* text) {
    if (!text)
        text = "<NULL>";
    const std::size_t length =
        c.precision < 0 ? std::strlen(text) : strnlen(text, static_cast<std::size_t>(c.precision));
    put_padded(out, c, {text, length});
}

void put_pointer(Output& out, Conversion c, const void* pointer) {
    if (c.width < 0) {
        c.width = 2 * sizeof(void*);
        c.zero = true;
    }
    c.kind = 'x';
    put_integer(out, c, reinterpret_cast<std::uintptr_t>(pointer));
}

void put_unknown(Output& out, char kind) {
    out.put('%');
    if (kind != '\0' && kind != '%')
        out.put(kind);
}

void convert(Output& out, const Conversion& c, Arguments& arguments) {
    switch (c.kind) {
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            return put_integer(out, c, take_integer(c, arguments));
        case 'c': {
            const char character = static_cast<char>(va_arg(arguments.list, int));
            return put_padded(out, c, {&character, 1});
        }
        case 's':
            return put_string(out, c, va_arg(arguments.list, const char*));
        case 'p':
            return put_pointer(out, c, va_arg(arguments.list, const void*));
        default:
            return put_unknown(out, c.kind);
    }
}

}  // namespace

std::size_t format_text(char* buffer, std::size_t size, const char* format, va_list arguments) {
    Output out(buffer, size);
    Arguments own;
    va_copy(own.list, arguments);
    for (const char* p = format; *p != '\0';) {
        if (*p != '%') {
            out.put(*p++);
            continue;
        }
        ++p;
        const Conversion conversion = read_conversion(p, own);
        convert(out, conversion, own);
    }
    va_end(own.list);
    return out.finish();
}

}  // namespace host
