// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What a run has found out, for programs: as JSON and as comma-separated values. docs/result.md
// describes both.
#pragma once

#include <string>
#include <vector>

#include "app/hops.h"
#include "app/machine.h"
#include "app/resolve.h"

namespace app {

/// A JSON text. Its member "version" changes when one that it has is taken away or gets another
/// meaning. `peers` are those to be told; the rest is about all. With `ways` each path has its
/// hops.
std::string to_json(Machine& machine, const Resolver& resolver, const std::vector<Peer>& peers,
                    const Departure& departure, Ways* ways = nullptr);

/// A line of names and a line for each peer, as RFC 4180 has them but for the line ends, which are
/// this system's.
std::string to_csv(Machine& machine, const std::vector<Peer>& peers);

}  // namespace app
