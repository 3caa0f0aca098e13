// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// A script: a situation of the host, one verb a line, played tick by tick in virtual time.
//
// It is read whole before anything is started. Each line becomes a step; the steps then run one
// after the other, each followed by whatever is due at that very tick.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "app/options.h"
#include "app/script_host.h"
#include "app/script_line.h"

namespace app {

/// Carries a line out; `place` is "FILE:LINE".
using ScriptAction = std::function<void(ScriptHost& host, const std::string& place)>;

struct ScriptStep {
    std::string place;
    bool expects = false;  ///< it only looks at what happened
    ScriptAction run;
};

struct Script {
    std::shared_ptr<const Site> made_site;  ///< that the script asks for; null: any will do
    unsigned long first_jiffy = 1000;
    std::vector<ScriptStep> steps;
};

/// What reading has found out so far.
struct ScriptReading {
    const Site* site;
    std::shared_ptr<const Site> made_site = {};  ///< that `site` points to, if a line made it
    unsigned long first_jiffy = 1000;
    bool time_began = false;  ///< neither the site nor the tick counter can be changed any more

    /// An address, or that of the host whose name stands there; network order.
    std::uint32_t ip(ScriptLine& line) const;
    /// The number of our adapter's ports.
    std::uint64_t ports() const;
    /// A port of ours, from 1.
    int port(ScriptLine& line) const;
};

/// One line, which is not empty. Throws as read_script() does.
ScriptStep read_step(ScriptLine& line, ScriptReading& reading);

/// Throws fabric::InputError for the first line that cannot be understood, or that names what the
/// site does not have.
Script read_script(std::istream& in, const std::string& file, const Site& site);

/// Runs a step, and what is due at that very tick. Throws where it cannot be carried out.
void play_step(const ScriptStep& step, ScriptHost& host);

/// Runs all steps and unloads the module if the script did not. The exit status: 0, or 1 when an
/// expectation failed, a line could not be carried out, or the module left something behind.
int run_script(const Script& script, ScriptHost& host);

}  // namespace app
