// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// In the place of umad.cc and verbs_events.cc where the libraries are missing.
#include "rdma/umad.h"

namespace rdma {

std::unique_ptr<Device> open_adapter(const std::string&, int) {
    throw DeviceError(
        "this program was built without libibumad and libibverbs, and knows ibsim only; install "
        "libibumad-dev and libibverbs-dev and build it anew");
}

std::unique_ptr<EventWatch> watch_events(Device&) {
    return nullptr;
}

}  // namespace rdma
