// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/table.h"

#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <cstdio>
#include <optional>

namespace app {
namespace {

constexpr std::string_view between = "  ";

/* One character and the bytes that it has taken. */
struct Character {
    wchar_t code;
    std::size_t bytes;
};

/* The first character of the text; empty when it begins with none. Needs no locale, so that a log
 * reads the same as a terminal. */
std::optional<Character> first_character(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80)
        return Character{static_cast<wchar_t>(byte(0)), 1};
    constexpr struct {
        unsigned char mask, mark;
        std::size_t bytes;
        unsigned long least;
    } forms[] = {{0xE0, 0xC0, 2, 0x80}, {0xF0, 0xE0, 3, 0x800}, {0xF8, 0xF0, 4, 0x10000}};
    for (const auto& form : forms) {
        if ((byte(0) & form.mask) != form.mark || text.size() < form.bytes)
            continue;
        unsigned long code = byte(0) & static_cast<unsigned char>(~form.mask);
        for (std::size_t i = 1; i < form.bytes; ++i) {
            if ((byte(i) & 0xC0) != 0x80)
                return {};
            code = code << 6 | (byte(i) & 0x3Fu);
        }
        const bool surrogate = code >= 0xD800 && code < 0xE000;
        if (code < form.least || code > 0x10FFFF || surrogate)
            return {};
        return Character{static_cast<wchar_t>(code), form.bytes};
    }
    return {};
}

/* Those of the C1 set, and those that turn the direction of what follows, command a terminal too.
 */
bool is_control(wchar_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || (code >= 0x200B && code <= 0x200F) ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) ||
           code == 0xFEFF;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto character = first_character(text);
        const std::size_t bytes = character ? character->bytes : 1;
        if (character && !is_control(character->code)) {
            result += text.substr(0, bytes);
        } else {
            for (std::size_t i = 0; i < bytes; ++i) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\x%02x",
                              unsigned{static_cast<unsigned char>(text[i])});
                result += escaped;
            }
        }
        text.remove_prefix(bytes);
    }
    return result;
}

std::string counted(std::size_t number, const std::string& noun, const char* ending) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : ending);
}

std::size_t display_width(const std::string& text) {
    // Of this thread alone, and for the time of the call: how wide characters are.
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const locale_t before = utf8 ? uselocale(utf8) : nullptr;
    std::size_t width = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const auto character = first_character(rest);
        const int columns = character && utf8 ? wcwidth(character->code) : 1;
        width += static_cast<std::size_t>(std::max(columns, 0));
        rest.remove_prefix(character ? character->bytes : 1);
    }
    if (before)
        uselocale(before);
    return width;
}

std::size_t terminal_width(int descriptor) {
    winsize size{};
    if (!isatty(descriptor))
        return 0;
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string wrap(const std::string& text, std::size_t width, std::size_t indent) {
    std::string result;
    std::size_t column = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(" \n", at + 1), text.size());
        const std::string word = text.substr(at, end - at);  // with the blank before it
        const std::size_t columns = text[at] == '\n' ? 0 : display_width(word);
        if (width != 0 && column > indent && column + columns > width && word.starts_with(' ')) {
            result += "\n" + std::string(indent, ' ') + word.substr(1);
            column = indent + columns - 1;
        } else {
            result += word;
            column = text[at] == '\n' ? display_width(word.substr(1)) : column + columns;
        }
        at = end;
    }
    return result;
}

std::string cut(const std::string& text, std::size_t width, std::size_t height) {
    std::string result;
    std::size_t lines = 0;
    for (std::size_t at = 0; at < text.size() && lines < height; ++lines) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        while (width != 0 && display_width(line) > width)
            line.pop_back();
        result += line + "\n";
        at = end + 1;
    }
    return result;
}

std::vector<std::size_t> Table::widths() const {
    std::vector<std::size_t> result;
    for (const Column& column : columns)
        result.push_back(display_width(column.title));
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            result[i] = std::max(result[i], display_width(row[i]));
    return result;
}

std::vector<bool> Table::shown(std::size_t width) const {
    std::vector<bool> result(columns.size(), true);
    const std::vector<std::size_t> widths = this->widths();
    const auto rank = [&](std::size_t i) { return result[i] ? columns[i].rank : 0; };
    while (width != 0) {
        std::size_t taken = 0, highest = 0;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            taken += result[i] ? widths[i] + (taken ? between.size() : 0) : 0;
            highest = rank(i) > rank(highest) ? i : highest;
        }
        if (taken <= width || rank(highest) == 0)
            break;
        result[highest] = false;
    }
    return result;
}

std::string Table::format(std::size_t width) const {
    const std::vector<std::size_t> widths = this->widths();
    const std::vector<bool> shown = this->shown(width);
    std::string result;
    const auto add = [&](const auto& cell_of, std::size_t cells) {
        std::string line;
        bool first = true;
        for (std::size_t i = 0; i < cells; ++i) {
            if (!shown[i])
                continue;
            const std::string& cell = cell_of(i);
            const std::string padding(widths[i] - display_width(cell), ' ');
            line += first ? "" : between;
            line += columns[i].side == 'r' ? padding + cell : cell + padding;
            first = false;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        result += line + "\n";
    };
    const auto untitled = [](const Column& column) { return column.title.empty(); };
    if (!std::ranges::all_of(columns, untitled))
        add([&](std::size_t i) -> const std::string& { return columns[i].title; }, columns.size());
    for (const auto& row : rows)
        add([&](std::size_t i) -> const std::string& { return row[i]; }, row.size());
    return result;
}

std::vector<std::string> Table::left_out(std::size_t width) const {
    std::vector<std::string> titles;
    const std::vector<bool> shown = this->shown(width);
    for (std::size_t i = 0; i < columns.size(); ++i)
        if (!shown[i])
            titles.push_back(columns[i].title);
    return titles;
}

}  // namespace app
