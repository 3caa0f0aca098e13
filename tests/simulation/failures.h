// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// Every failure in turn: each script is played before the judge with the n-th call of each service
// of the kernel failing, for n = 1, 2, 3, ..., until it runs through. Each run is a process of its
// own. What has to hold is the same for all:
//
// - what the judge asks of any script: nobody dies, loops or holds a lock, each client is answered
//   once or ends silently for a reason, and an unload or a load that is refused leaves nothing;
// - the failure is logged at ERROR or WARNING, at once, unless a short table says why not;
// - afterwards, without a further fault, a host that nobody asked for is resolved.
//
// Without any fault a script has to go as it expects. A script that makes calls fail itself is not
// played here.
#pragma once

#include <cstdio>
#include <string>

namespace simulation {

struct FailureOptions {
    std::string scripts;   ///< the directory in which they are
    std::string scenario;  ///< a part of the names of those to play; empty: all of them
};

/// Prints a line for each script, and each run that broke a rule, to `out`. 0 when none did and,
/// where all scripts were played, every service failed; else 1. 2, and a message on standard error,
/// when there is no such script.
int run_failures(const FailureOptions& options, std::FILE* out);

}  // namespace simulation
