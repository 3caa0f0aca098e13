// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#include "soak/failures.h"

namespace soak {

int run_failures(const FailureOptions&, std::FILE*) {
    std::fputs("tarv-host: soak --failures is not built yet\n", stderr);
    return 2;
}

}  // namespace soak
