// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "app/suggest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace app {
namespace {

constexpr std::size_t most_shown = 3;

/* How many letters have to be put in, taken out or changed to make one word of the other. */
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t changed = diagonal + (one[i] != other[j]);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string suggest(const std::string& word, std::span<const std::string> known) {
    std::size_t nearest = std::max<std::size_t>(word.size() / 3, 1);
    std::vector<std::string> found;
    for (const std::string& candidate : known) {
        // A beginning is as good as a word with one slip.
        const bool begins = word.size() > 1 && candidate.starts_with(word);
        const std::size_t far = begins ? 1 : distance(word, candidate);
        if (far < nearest)
            found.clear();
        if (far <= nearest && std::ranges::find(found, candidate) == found.end()) {
            nearest = far;
            found.push_back(candidate);
        }
    }
    std::string text;
    for (std::size_t i = 0; i < std::min(found.size(), most_shown); ++i)
        text += (i ? " or \"" : "; did you mean \"") + found[i] + "\"";
    return text + (text.empty() ? "" : "?");
}

}  // namespace app
