// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table of the console's own words.
#pragma once

#include <span>

#include "app/console.h"
#include "app/script_verbs.h"

namespace app {

struct ConsoleVerb {
    const char* name;
    const char* syntax;  ///< what follows the name
    const char* help;
    const char* words;  ///< that can follow, for completion
    void (*perform)(ScriptLine& line, ScriptReading& reading, Console& console);
};

/// In the order in which they are explained to a person.
std::span<const ConsoleVerb> console_verbs();

/// Carries out a line that begins with the verb. Throws fabric::InputError where it is not
/// understood.
void perform_verb(const ConsoleVerb& verb, const std::string& line, Console& console);

}  // namespace app
