// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verbs of the program. Each has a source file of its own and a row in the table of main.cc.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace app {

/// What a verb does once the command line has been read; its result is the exit status.
using Action = std::function<int()>;

/// Declares a verb's options and says what it does.
using DeclareVerb = Action(CLI::App& verb);

DeclareVerb declare_run, declare_console, declare_script;

}  // namespace app
