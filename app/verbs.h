// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The verbs of the program. Each has a source file of its own and a row in the table of main.cc.
#pragma once

#include "app/command_line.h"

namespace app {

DeclareVerb declare_run, declare_console, declare_script, declare_resolve, declare_fabric,
    declare_top;

}  // namespace app
