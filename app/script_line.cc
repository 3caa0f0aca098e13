// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/script_line.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "fabric/topology.h"
#include "fabric/wire.h"

namespace app {
namespace {

constexpr std::string_view blanks = " \t\r";
constexpr std::string_view hex_digits = "0123456789abcdefABCDEF";

std::optional<std::uint64_t> parse_digits(std::string_view digits, int base) {
    std::uint64_t value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, base);
    if (error != std::errc{} || stop != end)
        return {};
    return value;
}

/* The byte that an escape means, and how many characters after the backslash belong to it. */
std::optional<std::pair<char, std::size_t>> escaped_byte(std::string_view text) {
    constexpr std::pair<char, char> simple[] = {
        {'n', '\n'}, {'t', '\t'}, {'0', '\0'}, {'\\', '\\'}};
    if (text.empty())
        return {};
    for (const auto& [letter, byte] : simple)
        if (text[0] == letter)
            return std::pair(byte, std::size_t{1});
    if (text[0] != 'x' || text.size() < 3)
        return {};
    const auto value = parse_digits(text.substr(1, 2), 16);
    if (!value)
        return {};
    return std::pair(static_cast<char>(*value), std::size_t{3});
}

}  // namespace

std::optional<std::uint64_t> parse_number(std::string_view text) {
    if (text.size() > 2 && (text.starts_with("0x") || text.starts_with("0X")))
        return parse_digits(text.substr(2), 16);
    return parse_digits(text, text.size() > 1 && text[0] == '0' ? 8 : 10);
}

std::optional<gx_gid_t> parse_gid(const std::string& text) {
    fabric::Gid gid{};
    if (inet_pton(AF_INET6, text.c_str(), gid.data()) == 1)
        return fabric::held(gid);
    if (!text.starts_with("0x") || text.size() < 3 || text.size() > 34 ||
        text.find_first_not_of(hex_digits, 2) != std::string::npos)
        return {};
    const std::string digits = std::string(34 - text.size(), '0') + text.substr(2);
    for (std::size_t i = 0; i < gid.size(); ++i)
        gid[i] = static_cast<std::uint8_t>(*parse_digits(digits.substr(2 * i, 2), 16));
    return fabric::held(gid);
}

std::optional<std::string> unescape(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            result += text[i];
            continue;
        }
        const auto byte = escaped_byte(text.substr(i + 1));
        if (!byte)
            return {};
        result += byte->first;
        i += byte->second;
    }
    return result;
}

ScriptLine::ScriptLine(std::string file, int number, std::string text)
    : file_(std::move(file)), number_(number), text_(std::move(text)) {
    skip_blanks();
}

void ScriptLine::skip_blanks() {
    position_ = std::min(text_.find_first_not_of(blanks, position_), text_.size());
}

std::string_view ScriptLine::peek() const {
    if (position_ == text_.size() || text_[position_] == '#')
        return {};
    const std::size_t end = std::min(text_.find_first_of(blanks, position_), text_.size());
    return std::string_view(text_).substr(position_, end - position_);
}

bool ScriptLine::at_end() const {
    return peek().empty();
}

std::string ScriptLine::word(const char* what) {
    const std::string result(peek());
    if (result.empty())
        fail(std::string(what) + " is missing");
    position_ += result.size();
    word_end_ = position_;
    skip_blanks();
    return result;
}

std::uint64_t ScriptLine::number(const char* what, std::uint64_t most) {
    const std::string text = word(what);
    const auto value = parse_number(text);
    if (!value)
        fail("\"" + text + "\" is no number, where " + what + " should stand");
    if (*value > most)
        fail(std::string(what) + " is " + text + ", and " + std::to_string(most) + " at most");
    return *value;
}

std::uint32_t ScriptLine::ip(const char* what) {
    const std::string text = word(what);
    const auto ip = fabric::parse_ip(text);
    if (!ip)
        fail("\"" + text + "\" is no IPv4 address, where " + what + " should stand");
    return *ip;
}

gx_gid_t ScriptLine::gid(const char* what) {
    const std::string text = word(what);
    const auto gid = parse_gid(text);
    if (!gid)
        fail("\"" + text + "\" is no GID, where " + what + " should stand");
    return *gid;
}

std::string ScriptLine::bytes(const char* what) {
    const std::string text = word(what);
    if (text.size() % 2 != 0 || text.find_first_not_of(hex_digits) != std::string::npos)
        fail("\"" + text + "\" is no pairs of hexadecimal digits, where " + what + " should stand");
    std::string result;
    for (std::size_t i = 0; i < text.size(); i += 2)
        result += static_cast<char>(*parse_digits(std::string_view(text).substr(i, 2), 16));
    return result;
}

bool ScriptLine::take(std::string_view expected) {
    if (expected != peek())
        return false;
    word("");
    return true;
}

std::optional<std::uint64_t> ScriptLine::number_if(const char* what, std::uint64_t most) {
    const std::string_view next = peek();
    if (next.empty() || next[0] < '0' || next[0] > '9')
        return {};
    return number(what, most);
}

std::string ScriptLine::rest() {
    const std::string result = text_.substr(position_);
    position_ = text_.size();
    return result;
}

std::string ScriptLine::verbatim() {
    position_ = text_.size();
    return word_end_ < text_.size() ? text_.substr(word_end_ + 1) : "";
}

void ScriptLine::end() {
    if (!at_end())
        fail("\"" + std::string(peek()) + "\" is one word too many");
}

void ScriptLine::fail(const std::string& message) const {
    throw fabric::InputError(file_, number_,
                             usage_.empty() ? message : message + " (usage: " + usage_ + ")");
}

}  // namespace app
