// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The table of a script's verbs. Each verb reads its own line and gives back what is to happen when
// the script runs.
#pragma once

#include <span>

#include "app/script.h"
#include "app/script_line.h"

namespace app {

using ReadScriptLine = ScriptAction(ScriptLine& line, ScriptReading& reading);

struct ScriptVerb {
    const char* name;
    const char* syntax;  ///< what follows the name
    ReadScriptLine* read;
};

/// In the order in which they are explained to a person.
std::span<const ScriptVerb> script_verbs();

// The families that have files of their own.
ReadScriptLine read_resolve, read_lookup_gid, read_arp, read_attach, read_detach, read_driver;
ReadScriptLine read_fabric_fault, read_event, read_peer, read_pkeys, read_packet;
ReadScriptLine read_expect;

// What these lines ask for, whoever carries it out.

using FabricAction = std::function<void(fabric::Fabric&)>;
FabricAction read_fault_action(ScriptLine& line, const ScriptReading& reading);
/// The faults that such lines name, of packets or of the SA, as a person would type them.
std::string list_faults(bool sa);
FabricAction read_event_action(ScriptLine& line, const ScriptReading& reading);
std::function<void()> read_level_action(ScriptLine& line);
/// Without `from` in the line our own address asks. `more` reads words that others do not know.
ScriptRequest read_request(ScriptLine& line, const ScriptReading& reading,
                           bool (*more)(ScriptLine&, ScriptRequest&) = nullptr);

/// Ticks that a script can count on in one line.
inline constexpr std::uint64_t most_ticks = 1'000'000'000;

}  // namespace app
