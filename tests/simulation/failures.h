// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Every failure in turn: each script is played with the n-th call of each service of the kernel
// failing, for n = 1, 2, 3, ..., until it runs through. What has to hold is the same for all:
//
// - the module neither dies nor stays in a loop, and holds no lock after a step;
// - a client is answered once if he was told to wait, and not at all if he was not. Two silent ends
//   are known: no memory for a re-issue, and waiting for ARP when the module is unloaded;
// - the failure is logged at ERROR or WARNING, at once, unless a short table says why not;
// - afterwards, without a further fault, a host that nobody asked for is resolved;
// - an unload, and a load that is refused, leave nothing.
//
// Without any fault a script has to go as it expects. A script that makes calls fail itself is not
// played here.
#pragma once

#include <cstdio>
#include <string>

namespace simulation {

struct FailureOptions {
    std::string scripts;   ///< the directory in which they are
    bool brief = false;    ///< one line a script instead of one a run
    std::string scenario;  ///< a part of the names of those to play; empty: all of them
};

/// Prints the table of the runs to `out`. 0 when no run broke a rule and, where all scripts were
/// played, every service failed; else 1. 2, and a message on standard error, when there is no such
/// script.
int run_failures(const FailureOptions& options, std::FILE* out);

}  // namespace simulation
