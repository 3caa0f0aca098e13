// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The strict host, one virtual kernel that all threads may enter: what the module costs with all
// the checks that the tests have.
#include "bench/bench.h"
#include "host/kernel.h"

namespace bench {
namespace {

std::unique_ptr<host::Kernel> kernel;

}  // namespace

const char* const host_name = "strict";

World::World() {
    kernel = std::make_unique<host::Kernel>(host::Options{.shared = true});
}

World::~World() {
    kernel.reset();
}

void pass_ticks(unsigned long ticks) {
    kernel->advance(ticks);
}

}  // namespace bench
