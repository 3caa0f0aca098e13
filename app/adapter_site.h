// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// The site of an adapter on a real fabric: either all of it is real, peers included, and found out
// from this machine, or the peers are those of a picture of the fabric.
#pragma once

#include "app/options.h"

namespace app {

/// As read_site(), for options that name an adapter. Throws rdma::DeviceError for one that cannot
/// be used, one whose SA does not answer included.
Site read_adapter_site(const HostOptions& options);

}  // namespace app
