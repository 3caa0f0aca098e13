// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "tests/simulation/outcome.h"

namespace soak {

const char* name_of(Outcome outcome) {
    static constexpr const char* names[] = {
        "hits",
        "hits with paths",
        "misses",
        "refused while halted",
        "refused without a driver",
        "ARP requests",
        "ARP requests that failed",
        "SA queries",
        "SA queries that failed",
        "held back as identical",
        "re-issued",
        "timed out",
        "called back: ok",
        "called back: timeout",
        "called back: error",
        "called back: not found",
        "silent: unloaded while waiting for ARP",
        "silent: no memory to re-issue",
        "peers learned",
        "peers updated",
        "protected static entries kept",
        "static paths given",
        "SA answers that completed requests",
        "SA answers that completed none",
        "SA answers dropped",
        "paths stored",
        "requests put back",
        "P_Keys of our own ports",
        "entries aged out",
        "entries purged",
        "media resets",
        "ARP packets taken in",
        "SA answers delivered",
        "adapter events",
        "timer runs",
        "calls made to fail",
        "states taken over after them",
        "states compared",
        "entries looked up one by one",
        "tables read",
        "readers told to wait",
        "halts",
        "loads",
        "loads that failed",
        "unloads",
        "worlds",
        "worlds at the wrap of the tick counter",
        "log lines",
    };
    static_assert(sizeof names / sizeof names[0] == outcomes);
    return names[static_cast<std::size_t>(outcome)];
}

}  // namespace soak
