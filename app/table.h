// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Texts for people: what came from somewhere else made harmless, and tables that fit a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace app {

/// The text with every control character, and every byte that is no UTF-8, as \xNN: what a file or
/// a fabric calls something must not command a terminal.
std::string printable(std::string_view text);

/// "1 host", "2 hosts"; with what the plural ends in.
std::string counted(std::size_t number, const std::string& noun, const char* ending = "s");

/// How many columns a printable text takes.
std::size_t display_width(const std::string& text);

/// Columns of the terminal behind the descriptor; 0 where it is none, and there is room for all.
std::size_t terminal_width(int descriptor);

/// Breaks lines at blanks so that they take no more than `width` columns, where it is not 0 and
/// words allow; what is broken off is indented by `indent` blanks.
std::string wrap(const std::string& text, std::size_t width, std::size_t indent = 2);

/// Cuts lines off at `width` columns, where it is not 0, and leaves at most `height` of them.
std::string cut(const std::string& text, std::size_t width, std::size_t height);

struct Column {
    std::string title;
    char side = 'l';  ///< 'l' or 'r', to which its cells stand
    int rank = 0;  ///< where there is no room, the column of the highest rank is left out; one of
                   ///< rank 0 stays
};

struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;  ///< one may be shorter, its last cells are empty

    /// Lines with two blanks between the columns, at most `width` wide where it is not 0 and can be
    /// kept. Titles are printed where there are any.
    std::string format(std::size_t width) const;
    /// The titles of what that leaves out.
    std::vector<std::string> left_out(std::size_t width) const;

  private:
    std::vector<std::size_t> widths() const;
    std::vector<bool> shown(std::size_t width) const;
};

}  // namespace app
