// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What somebody may have meant by a word that is none of those that there are.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace app {

/// "; did you mean \"run\"?", or up to three words where they are as near; empty where none is.
std::string suggest(const std::string& word, std::span<const std::string> known);

}  // namespace app
