// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// One line of a script, read word by word from the left.
//
// Words are separated by blanks and tabs. A word that begins with '#' begins a comment, except in
// rest(), where everything belongs to the text. What cannot be understood throws fabric::InputError
// with the line's place; nothing has been started then.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/verbs.h"

namespace app {

class ScriptLine {
  public:
    ScriptLine(std::string file, int number, std::string text);

    /// Nothing but a comment is left.
    bool at_end() const;

    // `what` names in messages what should stand there.

    std::string word(const char* what);
    std::uint64_t number(const char* what, std::uint64_t most);  ///< in base 0
    std::uint32_t ip(const char* what);                          ///< network order
    gx_gid_t gid(const char* what);  ///< 0x and up to 32 digits, or as an IPv6 address

    std::string bytes(const char* what);  ///< two hexadecimal digits each

    /// Takes the next word if it is this one.
    bool take(std::string_view word);
    /// Takes the next word if it begins with a digit; it is a number then.
    std::optional<std::uint64_t> number_if(const char* what, std::uint64_t most);

    /// All that is left, without the blanks in front of it.
    std::string rest();
    /// All that is left behind one separator.
    std::string verbatim();

    /// Nothing may follow.
    void end();

    /// What the line should look like, for messages from now on; the verb stands first.
    void set_usage(std::string usage) { usage_ = std::move(usage); }
    std::string verb() const { return usage_.substr(0, usage_.find(' ')); }
    [[noreturn]] void fail(const std::string& message) const;

    /// "FILE:LINE".
    std::string place() const { return file_ + ":" + std::to_string(number_); }

  private:
    std::string_view peek() const;
    void skip_blanks();

    std::string file_;
    int number_;
    std::string text_;
    std::string usage_;
    std::size_t position_ = 0;
    std::size_t word_end_ = 0;  ///< of the last word that was taken
};

/// The value of a number in base 0 (0x: hexadecimal, 0: octal); empty when the text is none.
std::optional<std::uint64_t> parse_number(std::string_view text);

/// A GID from 0x and up to 32 digits, or from an IPv6 address; empty when the text is neither.
std::optional<gx_gid_t> parse_gid(const std::string& text);

/// Replaces \n \t \0 \\ and \xNN by their bytes. Empty when another escape occurs.
std::optional<std::string> unescape(std::string_view text);

}  // namespace app
