// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// What the module is taken through while its services fail. Together the scenarios reach all of it.
#pragma once

#include <span>

#include "tests/simulation/failures_world.h"

namespace soak {

struct Scenario {
    const char* name;
    const char* reaches;
    void (*play)(World& world);
};
std::span<const Scenario> scenarios();

}  // namespace soak
